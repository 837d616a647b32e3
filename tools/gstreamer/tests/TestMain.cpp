// The elements' tests: a GStreamer registry of this process's own (a temporary file, removed at
// the end), so that no test reads or leaves another's; plugins from the system's folder and this
// build's only; the plugin registered from this binary, or found in the build by real clients.
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "Elements.h"

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
    gst_init(&argc, &argv);
#ifdef CAPTUREHAL_STATIC_PLUGIN
    if (!capturehal::registerStatic()) return 1;
#endif
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    if (fd >= 0) unlink(registry.c_str());
    return status;
}
