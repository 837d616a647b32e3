#include <gst/base/gstpushsrc.h>
#include <gst/video/gstvideofilter.h>
#include <vendor/quenlark/hardware/capture/1.0/types.h>

#include <string>
#include <vector>

#include "Elements.h"

#ifndef CAPTUREHAL_VERSION
#define CAPTUREHAL_VERSION "1.0"
#endif

namespace capturehal {

using ::vendor::quenlark::hardware::capture::V1_0::CapturePoint;

GType capturePointType() {
    static GType type = 0;
    if (g_once_init_enter(&type)) {
        // The interface's own names, so that capture-point=PQ_PANEL says what the HAL calls it.
        static std::vector<GEnumValue> values;
        static std::vector<std::string> names;
        for (CapturePoint p : ::android::hardware::hidl_enum_range<CapturePoint>()) {
            if (p == CapturePoint::NONE) continue;  // marks "none" in the service's tables
            names.push_back(::vendor::quenlark::hardware::capture::V1_0::toString(p));
        }
        size_t i = 0;
        for (CapturePoint p : ::android::hardware::hidl_enum_range<CapturePoint>()) {
            if (p == CapturePoint::NONE) continue;
            values.push_back(GEnumValue{static_cast<gint>(p), names[i].c_str(), names[i].c_str()});
            ++i;
        }
        values.push_back(GEnumValue{0, nullptr, nullptr});
        const GType registered = g_enum_register_static("GstCaptureHalCapturePoint", values.data());
        g_once_init_leave(&type, registered);
    }
    return type;
}

GType engineType() {
    static GType type = 0;
    static const GEnumValue kValues[] = {
        {0, "the DIP engines", "dip"},
        {1, "the GPU path", "gpu"},
        {0, nullptr, nullptr},
    };
    if (g_once_init_enter(&type)) {
        g_once_init_leave(&type, g_enum_register_static("GstCaptureHalEngine", kValues));
    }
    return type;
}

gboolean registerElements(GstPlugin* plugin) {
    return gst_element_register(plugin, "capturehalsrc", GST_RANK_NONE, GST_TYPE_CAPTURE_HAL_SRC) &&
           gst_element_register(plugin, "capturehalconvert", GST_RANK_NONE,
                                GST_TYPE_CAPTURE_HAL_CONVERT);
}

gboolean registerStatic() {
    return gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "capturehal",
                                      "Capture HAL source and converter", registerElements,
                                      CAPTUREHAL_VERSION, "Proprietary", "capturehal",
                                      "vendor.quenlark.hardware.capture", "Quenlark");
}

}  // namespace capturehal
