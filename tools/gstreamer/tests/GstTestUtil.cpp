#include "GstTestUtil.h"

#include <filesystem>

#include "EmulatedService.h"
#include "capture_emulator/TestPattern.h"

namespace capturehal_test {

JournaledService::JournaledService() {
    std::string error;
    mReal = capture_host::getOrStartService(&error);
    if (mReal == nullptr) {
        ADD_FAILURE() << "no service: " << error;
        return;
    }
    mRecorder = new RecordingCapture(mReal);
    EXPECT_EQ(::android::OK, mRecorder->registerAsService("default"));
}

JournaledService::~JournaledService() {
    if (mReal != nullptr) {
        EXPECT_EQ(::android::OK, mReal->registerAsService("default"));
    }
}

::testing::AssertionResult Rgba::near(uint32_t x, uint32_t y, uint32_t rgb, int tolerance) const {
    if (x >= width || y >= height) {
        return ::testing::AssertionFailure()
               << "(" << x << "," << y << ") is outside " << width << "x" << height;
    }
    const uint8_t* p = &pixels[(size_t{y} * width + x) * 4];
    for (int c = 0; c < 3; ++c) {
        const int want = static_cast<int>((rgb >> (16 - 8 * c)) & 0xFF);
        if (abs(p[c] - want) > tolerance) {
            char text[64];
            snprintf(text, sizeof(text), "(%u,%u) is %02x%02x%02x, not %06x", x, y, p[0], p[1],
                     p[2], rgb);
            return ::testing::AssertionFailure() << text;
        }
    }
    return ::testing::AssertionSuccess();
}

Rgba toRgba(GstBuffer* buffer, const GstVideoInfo& info) {
    Rgba out;
    GstVideoInfo rgba;
    gst_video_info_set_format(&rgba, GST_VIDEO_FORMAT_RGBA, GST_VIDEO_INFO_WIDTH(&info),
                              GST_VIDEO_INFO_HEIGHT(&info));
    GST_VIDEO_INFO_FPS_N(&rgba) = GST_VIDEO_INFO_FPS_N(&info);
    GST_VIDEO_INFO_FPS_D(&rgba) = GST_VIDEO_INFO_FPS_D(&info);
    out.width = GST_VIDEO_INFO_WIDTH(&info);
    out.height = GST_VIDEO_INFO_HEIGHT(&info);
    out.pixels.resize(GST_VIDEO_INFO_SIZE(&rgba));
    GstBuffer* target =
        gst_buffer_new_wrapped_full(static_cast<GstMemoryFlags>(0), out.pixels.data(),
                                    out.pixels.size(), 0, out.pixels.size(), nullptr, nullptr);
    GstVideoFrame from, to;
    if (!gst_video_frame_map(&from, const_cast<GstVideoInfo*>(&info), buffer, GST_MAP_READ)) {
        ADD_FAILURE() << "cannot map the frame";
        gst_buffer_unref(target);
        return Rgba{};
    }
    gst_video_frame_map(&to, &rgba, target, GST_MAP_WRITE);
    GstVideoConverter* convert =
        gst_video_converter_new(const_cast<GstVideoInfo*>(&info), &rgba, nullptr);
    gst_video_converter_frame(convert, &from, &to);
    gst_video_converter_free(convert);
    gst_video_frame_unmap(&to);
    gst_video_frame_unmap(&from);
    gst_buffer_unref(target);
    // Packed to width x 4 bytes a row by the default layout of RGBA.
    if (static_cast<uint32_t>(GST_VIDEO_INFO_PLANE_STRIDE(&rgba, 0)) != out.width * 4) {
        ADD_FAILURE() << "unexpected RGBA stride";
    }
    return out;
}

Rgba toRgba(GstBuffer* buffer, GstCaps* caps) {
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) {
        ADD_FAILURE() << "caps are not raw video";
        return Rgba{};
    }
    return toRgba(buffer, info);
}

std::vector<std::string> errorsOn(GstBus* bus) {
    std::vector<std::string> texts;
    while (GstMessage* m = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) {
        GError* error = nullptr;
        gchar* debug = nullptr;
        gst_message_parse_error(m, &error, &debug);
        texts.push_back(std::string(error->message) + " (" + (debug != nullptr ? debug : "") + ")");
        g_error_free(error);
        g_free(debug);
        gst_message_unref(m);
    }
    return texts;
}

bool anyContains(const std::vector<std::string>& messages, const std::string& text) {
    for (const std::string& m : messages) {
        if (m.find(text) != std::string::npos) return true;
    }
    return false;
}

uint64_t statOf(GstElement* element, const char* field) {
    GstStructure* stats = nullptr;
    g_object_get(element, "stats", &stats, nullptr);
    guint64 value = 0;
    guint small = 0;
    if (stats != nullptr && !gst_structure_get_uint64(stats, field, &value) &&
        gst_structure_get_uint(stats, field, &small)) {
        value = small;
    }
    if (stats != nullptr) gst_structure_free(stats);
    return value;
}

size_t openDescriptors() {
    size_t n = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (getenv("DEBUG_FDS") != nullptr) {
            fprintf(stderr, "%s\n", std::filesystem::read_symlink(entry.path(), error).c_str());
        }
        ++n;
    }
    return n;
}

uint32_t barColour(uint32_t k) {
    return capture_emulator::kBarColours[k];
}

uint32_t barsMidRow(uint32_t sourceHeight) {
    return capture_emulator::barsEndRow(sourceHeight) / 2;
}

}  // namespace capturehal_test
