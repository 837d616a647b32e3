// Keeps Mesa's driver loaded for the GPU path's tests.
#pragma once

#include <EGL/egl.h>
#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "gpu_draw.h"

namespace gpu_test {

// Mesa unloads its driver at every eglTerminate: LeakSanitizer then blames a module that is gone
// for what it held, and each reload costs the heap a little. Keeping it loaded avoids both.
inline void keepMesaDriverLoaded() {
    static const bool done = []() {
        EGLDisplay display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
        if (eglInitialize(display, nullptr, nullptr) != EGL_TRUE) return false;
        dl_iterate_phdr(
            [](dl_phdr_info* info, size_t, void*) {
                if (info->dlpi_name != nullptr && strstr(info->dlpi_name, "/dri/") != nullptr) {
                    dlopen(info->dlpi_name, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
                }
                return 0;
            },
            nullptr);
        eglTerminate(display);
        return true;
    }();
    (void)done;
}

// While alive, the host graphics layer leaves images and shaders to Mesa alone, as on a platform
// without native-buffer images and the YUV target.
struct HostGlLayerOff {
    HostGlLayerOff() { setenv("CAPTURE_HOST_GL", "0", 1); }
    ~HostGlLayerOff() { unsetenv("CAPTURE_HOST_GL"); }
    HostGlLayerOff(const HostGlLayerOff&) = delete;
    HostGlLayerOff& operator=(const HostGlLayerOff&) = delete;
};

}  // namespace gpu_test
