// The elements' tests: a GStreamer registry of this process's own (a temporary file, removed at
// the end), so that no test reads or leaves another's; plugins from the system's folder and this
// build's only; the plugin registered from this binary, or found in the build by real clients.
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "Elements.h"

#ifdef CAPTUREHAL_STATIC_PLUGIN
#include "hostgl/HostGl.h"
#endif

int main(int argc, char** argv) {
    const char* tmp = getenv("TMPDIR");
    std::string registry =
        std::string(tmp != nullptr ? tmp : "/tmp") + "/capturehal-registry-XXXXXX";
    const int fd = mkstemp(registry.data());
    if (fd >= 0) {
        close(fd);
        unlink(registry.c_str());  // GStreamer writes it afresh
        setenv("GST_REGISTRY", registry.c_str(), 1);
    }
    setenv("GST_PLUGIN_SYSTEM_PATH", CAPTUREHAL_SYSTEM_PLUGINS, 1);
    setenv("GST_PLUGIN_PATH", CAPTUREHAL_PLUGIN_PATH, 1);
#ifdef CAPTUREHAL_CHILD_PRELOAD
    setenv("CAPTUREHAL_CHILD_PRELOAD", CAPTUREHAL_CHILD_PRELOAD, 1);
#endif
    // The GPU path's EGL runs headless.
    setenv("EGL_PLATFORM", "surfaceless", 1);
#ifdef CAPTUREHAL_STATIC_PLUGIN
    // Conversions on the GPU path in this process: Mesa's driver stays loaded, so that
    // LeakSanitizer can name what it keeps.
    host_gl::keepDriverLoaded();
    gst_init(&argc, &argv);
    if (!capturehal::registerStatic()) return 1;
#endif
    // The real clients' tests leave the registry to their first child: one scanned from this
    // process would hold the plugin as it loads here (without the sanitizer runtime the children
    // get preloaded, it would not load at all).
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    if (fd >= 0) unlink(registry.c_str());
    return status;
}
