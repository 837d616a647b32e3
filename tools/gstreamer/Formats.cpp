#include "Formats.h"

#include <system/graphics.h>

namespace capturehal {

namespace {

// The platform's NV12 graphics format, which system/graphics.h leaves unnamed; and its 10-bit
// 4:2:0 format of four samples in 40 bits.
constexpr int32_t kGraphicsNv12 = 21;
constexpr int32_t kGraphicsYuv420Packed10 = 54;

constexpr FormatEntry kFormats[] = {
    {0x1, GST_VIDEO_FORMAT_YUY2, HAL_PIXEL_FORMAT_YCbCr_422_I},              // YUYV
    {0x2, GST_VIDEO_FORMAT_UNKNOWN, 0},                                      // YUYV_10B
    {0x4, GST_VIDEO_FORMAT_RGBA, HAL_PIXEL_FORMAT_RGBA_8888},                // ARGB8888
    {0x8, GST_VIDEO_FORMAT_BGRA, HAL_PIXEL_FORMAT_BGRA_8888},                // ABGR8888
    {0x10, GST_VIDEO_FORMAT_UNKNOWN, 0},                                     // RGBA8888
    {0x20, GST_VIDEO_FORMAT_UNKNOWN, 0},                                     // BGRA8888
    {0x40, GST_VIDEO_FORMAT_BGR10A2_LE, 0},                                  // ARGB2101010
    {0x80, GST_VIDEO_FORMAT_RGB16, HAL_PIXEL_FORMAT_RGB_565},                // RGB565
    {0x100, GST_VIDEO_FORMAT_RGB, HAL_PIXEL_FORMAT_RGB_888},                 // BGR888
    {0x200, GST_VIDEO_FORMAT_NV16, HAL_PIXEL_FORMAT_YCbCr_422_SP},           // NV16
    {0x400, GST_VIDEO_FORMAT_NV61, 0},                                       // NV61
    {0x800, GST_VIDEO_FORMAT_NV12, kGraphicsNv12},                           // NV12
    {0x1000, GST_VIDEO_FORMAT_NV21, HAL_PIXEL_FORMAT_YCrCb_420_SP},          // NV21
    {0x2000, GST_VIDEO_FORMAT_NV12_10LE40, kGraphicsYuv420Packed10},         // RZ21S10L
    {0x4000, GST_VIDEO_FORMAT_NV12_16L32S, 0},                               // RZ21S
    {0x8000, GST_VIDEO_FORMAT_UNKNOWN, 0},                                   // RZ21S10T
    {0x10000, GST_VIDEO_FORMAT_UNKNOWN, 0},                                  // RZ21S10R
    {0x20000, GST_VIDEO_FORMAT_UNKNOWN, 0},                                  // COMPRESS
    {0x40000, GST_VIDEO_FORMAT_UNKNOWN, 0},                                  // VSD8X2
    {0x80000, GST_VIDEO_FORMAT_UNKNOWN, 0},                                  // VSD8X4
    {0x100000, GST_VIDEO_FORMAT_UNKNOWN, 0},                                 // ARGB16161616
    {0x200000, GST_VIDEO_FORMAT_YV12, HAL_PIXEL_FORMAT_YV12},                // YV12
    {0x400000, GST_VIDEO_FORMAT_RGB10A2_LE, HAL_PIXEL_FORMAT_RGBA_1010102},  // ABGR2101010
    {0x800000, GST_VIDEO_FORMAT_UNKNOWN, 0},                                 // VSD8X2_B
    {0x1000000, GST_VIDEO_FORMAT_UNKNOWN, 0},                                // VSD8X4_B
};

}  // namespace

const FormatEntry* formatTable(size_t* count) {
    *count = G_N_ELEMENTS(kFormats);
    return kFormats;
}

const FormatEntry* formatByCapture(uint32_t captureFormat) {
    for (const FormatEntry& f : kFormats) {
        if (f.captureFormat == captureFormat) return &f;
    }
    return nullptr;
}

const FormatEntry* formatByGst(GstVideoFormat format) {
    if (format == GST_VIDEO_FORMAT_UNKNOWN) return nullptr;
    for (const FormatEntry& f : kFormats) {
        if (f.gstFormat == format) return &f;
    }
    return nullptr;
}

void setHardwareColours(GstStructure* s, GstVideoFormat format) {
    if (GST_VIDEO_FORMAT_INFO_IS_YUV(gst_video_format_get_info(format))) {
        gst_structure_set(s, "colorimetry", G_TYPE_STRING, GST_VIDEO_COLORIMETRY_BT601,
                          "chroma-site", G_TYPE_STRING, "jpeg", nullptr);
    } else {
        gst_structure_set(s, "colorimetry", G_TYPE_STRING, GST_VIDEO_COLORIMETRY_SRGB, nullptr);
    }
}

void setFormatList(GstStructure* s, const GstVideoFormat* formats, size_t count) {
    GValue list = G_VALUE_INIT;
    gst_value_list_init(&list, count);
    for (size_t i = 0; i < count; ++i) {
        GValue name = G_VALUE_INIT;
        g_value_init(&name, G_TYPE_STRING);
        g_value_set_static_string(&name, gst_video_format_to_string(formats[i]));
        gst_value_list_append_and_take_value(&list, &name);
    }
    if (count == 1) {
        gst_structure_set_value(s, "format", gst_value_list_get_value(&list, 0));
    } else {
        gst_structure_set_value(s, "format", &list);
    }
    g_value_unset(&list);
}

uint32_t rowBytes(GstVideoFormat format, uint32_t plane, uint32_t width) {
    if (format == GST_VIDEO_FORMAT_NV12_10LE40) return (width + 3) / 4 * 5;
    const GstVideoFormatInfo* info = gst_video_format_get_info(format);
    gint components[GST_VIDEO_MAX_COMPONENTS];
    gst_video_format_info_component(info, plane, components);
    const int comp = components[0];
    const uint32_t w = GST_VIDEO_FORMAT_INFO_SCALE_WIDTH(info, comp, width);
    return w * static_cast<uint32_t>(GST_VIDEO_FORMAT_INFO_PSTRIDE(info, comp));
}

uint32_t planeRows(GstVideoFormat format, uint32_t plane, uint32_t height) {
    const GstVideoFormatInfo* info = gst_video_format_get_info(format);
    gint components[GST_VIDEO_MAX_COMPONENTS];
    gst_video_format_info_component(info, plane, components);
    return GST_VIDEO_FORMAT_INFO_SCALE_HEIGHT(info, components[0], height);
}

}  // namespace capturehal
