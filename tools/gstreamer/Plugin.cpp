// libgstcapturehal.so: the elements of Elements.h as a plugin GStreamer finds on its path.
#include <gst/gst.h>

#include "Elements.h"

#define PACKAGE "capturehal"

static gboolean plugin_init(GstPlugin* plugin) {
    return capturehal::registerElements(plugin);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, capturehal,
                  "Capture HAL source and converter", plugin_init, CAPTUREHAL_VERSION,
                  "Proprietary", "capturehal", "vendor.quenlark.hardware.capture")
