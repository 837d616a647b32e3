// Helpers of the GPU path's tests.
#pragma once

#include <EGL/egl.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "gpu_draw.h"
#include "hostgl/HostGl.h"

namespace gpu_test {

// Mesa's driver stays loaded for the whole test process.
inline void keepMesaDriverLoaded() {
    host_gl::keepDriverLoaded();
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
