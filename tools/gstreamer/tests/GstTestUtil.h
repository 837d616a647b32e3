// Helpers of the elements' tests: the service behind a journal, pictures read back through
// GStreamer's own conversion, and what the emulated capture point shows.
#pragma once

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "RecordingCapture.h"

namespace capturehal_test {

// Puts a RecordingCapture in front of the service (brought up on the emulated hardware) as
// ICapture/default for the life of the object, and the real service back after it.
class JournaledService {
public:
    JournaledService();
    ~JournaledService();
    RecordingCapture& journal() { return *mRecorder; }
    const sp<ICapture>& real() const { return mReal; }

private:
    sp<ICapture> mReal;
    sp<RecordingCapture> mRecorder;
};

// A picture as 8-bit R, G, B, A, converted from any frame by GStreamer (gst_video_converter),
// which reads the frame by its caps and video meta.
struct Rgba {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> pixels;
    // Whether (x, y) is within `tolerance` per channel of 0xRRGGBB.
    ::testing::AssertionResult near(uint32_t x, uint32_t y, uint32_t rgb, int tolerance = 40) const;
};
Rgba toRgba(GstBuffer* buffer, const GstVideoInfo& info);
Rgba toRgba(GstBuffer* buffer, GstCaps* caps);

// The error messages posted on `bus` so far, as "text (debug)".
std::vector<std::string> errorsOn(GstBus* bus);
// Whether one of `messages` contains `text`.
bool anyContains(const std::vector<std::string>& messages, const std::string& text);

// A uint64 field of the element's stats structure.
uint64_t statOf(GstElement* element, const char* field);

// Open descriptors of this process.
size_t openDescriptors();

// Bar `k` (0..7) of the emulated pattern, 0xRRGGBB, and the source row half way down the bars.
uint32_t barColour(uint32_t k);
uint32_t barsMidRow(uint32_t sourceHeight);

}  // namespace capturehal_test
