#include "ElementUtil.h"

#include <initializer_list>

namespace capturehal {

GParamSpec* cropParamSpec(const char* blurb) {
    return gst_param_spec_array(
        "crop", "Crop", blurb,
        g_param_spec_uint("crop-value", "Crop value", "x, y, width or height", 0, G_MAXUINT, 0,
                          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)),
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                 GST_PARAM_MUTABLE_READY));
}

bool cropFromValue(const GValue* value, Crop* crop) {
    const guint n = gst_value_array_get_size(value);
    if (n == 0) {
        *crop = Crop{};
        return true;
    }
    if (n != 4) return false;
    uint32_t v[4];
    for (guint i = 0; i < 4; ++i) {
        const GValue* item = gst_value_array_get_value(value, i);
        if (G_VALUE_HOLDS_UINT(item)) {
            v[i] = g_value_get_uint(item);
        } else if (G_VALUE_HOLDS_INT(item) && g_value_get_int(item) >= 0) {
            v[i] = static_cast<uint32_t>(g_value_get_int(item));
        } else {
            return false;
        }
    }
    *crop = Crop{v[0], v[1], v[2], v[3]};
    return true;
}

void cropToValue(const Crop& crop, GValue* value) {
    if (crop.whole()) return;
    for (uint32_t v : {crop.x, crop.y, crop.width, crop.height}) {
        GValue item = G_VALUE_INIT;
        g_value_init(&item, G_TYPE_UINT);
        g_value_set_uint(&item, v);
        gst_value_array_append_and_take_value(value, &item);
    }
}

bool hardwareAngle(GstVideoOrientationMethod method, uint32_t* degrees) {
    switch (method) {
        case GST_VIDEO_ORIENTATION_IDENTITY:
            *degrees = 0;
            return true;
        case GST_VIDEO_ORIENTATION_90R:
            *degrees = 90;
            return true;
        case GST_VIDEO_ORIENTATION_180:
            *degrees = 180;
            return true;
        case GST_VIDEO_ORIENTATION_90L:
            *degrees = 270;
            return true;
        default:
            return false;
    }
}

const char* directionNick(GstVideoOrientationMethod method) {
    GEnumClass* klass =
        static_cast<GEnumClass*>(g_type_class_ref(GST_TYPE_VIDEO_ORIENTATION_METHOD));
    const GEnumValue* v = g_enum_get_value(klass, method);
    const char* nick = v != nullptr ? v->value_nick : "?";
    g_type_class_unref(klass);
    return nick;  // the class stays registered, and with it its strings
}

std::shared_ptr<Instance> startInstance(GstElement* element, GstVideoOrientationMethod direction,
                                        ::android::sp<ICapture>* service) {
    uint32_t degrees = 0;
    if (!hardwareAngle(direction, &degrees)) {
        GST_ELEMENT_ERROR(element, LIBRARY, SETTINGS,
                          ("video-direction %s refused: the hardware turns by quarter turns only "
                           "(identity, 90r, 180, 90l)",
                           directionNick(direction)),
                          (nullptr));
        return nullptr;
    }
    std::string error;
    *service = getCaptureService(&error);
    if (*service == nullptr) {
        GST_ELEMENT_ERROR(element, RESOURCE, NOT_FOUND, ("no capture service: %s", error.c_str()),
                          (nullptr));
        return nullptr;
    }
    CaptureReturn ret = CaptureReturn::FAIL;
    std::shared_ptr<Instance> instance = Instance::open(*service, &ret);
    if (instance == nullptr) {
        GST_ELEMENT_ERROR(element, RESOURCE, OPEN_READ, ("%s", refusal("open", ret).c_str()),
                          (nullptr));
        *service = nullptr;
    }
    return instance;
}

}  // namespace capturehal
