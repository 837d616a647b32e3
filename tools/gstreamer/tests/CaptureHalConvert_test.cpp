// capturehalconvert on the emulated DIP and on the GPU path (Mesa behind the host graphics
// layer), through a journal of every ICapture call.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "GstTestUtil.h"
#include "RecordingCapture.h"

namespace capturehal_test {
namespace {

constexpr uint32_t kInW = 640, kInH = 360;

// Eight vertical bars over the whole height, in RGBA.
GstBuffer* barsPicture() {
    GstBuffer* b = gst_buffer_new_allocate(nullptr, size_t{kInW} * kInH * 4, nullptr);
    GstMapInfo map;
    gst_buffer_map(b, &map, GST_MAP_WRITE);
    for (uint32_t y = 0; y < kInH; ++y) {
        for (uint32_t x = 0; x < kInW; ++x) {
            const uint32_t rgb = barColour(x * 8 / kInW);
            uint8_t* p = map.data + (size_t{y} * kInW + x) * 4;
            p[0] = rgb >> 16;
            p[1] = (rgb >> 8) & 0xFF;
            p[2] = rgb & 0xFF;
            p[3] = 0xFF;
        }
    }
    gst_buffer_unmap(b, &map);
    GST_BUFFER_PTS(b) = 0;
    GST_BUFFER_DURATION(b) = GST_SECOND / 30;
    return b;
}

class Converter {
public:
    Converter(const std::vector<std::pair<std::string, std::string>>& properties,
              const std::string& outCaps) {
        h = gst_harness_new("capturehalconvert");
        bus = gst_bus_new();
        gst_element_set_bus(h->element, bus);
        for (const auto& [name, value] : properties) {
            gst_util_set_object_arg(G_OBJECT(h->element), name.c_str(), value.c_str());
        }
        gst_harness_set_src_caps_str(
            h, "video/x-raw,format=RGBA,width=640,height=360,framerate=30/1,colorimetry=sRGB");
        if (!outCaps.empty()) gst_harness_set_sink_caps_str(h, outCaps.c_str());
    }
    ~Converter() {
        gst_element_set_state(h->element, GST_STATE_NULL);
        gst_bus_set_flushing(bus, TRUE);
        gst_harness_teardown(h);
        gst_object_unref(bus);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    // The converted picture; empty, with the error, when the element refused.
    GstBuffer* convert(std::string* error) {
        const GstFlowReturn flow = gst_harness_push(h, barsPicture());
        if (flow != GST_FLOW_OK) {
            const std::vector<std::string> errors = errorsOn(bus);
            *error = errors.empty() ? gst_flow_get_name(flow) : errors.front();
            return nullptr;
        }
        return gst_harness_pull(h);
    }
    GstCaps* caps() { return gst_pad_get_current_caps(h->sinkpad); }

    GstHarness* h;
    GstBus* bus;
};

class CaptureHalConvertTest : public ::testing::Test {
protected:
    JournaledService service;
};

// One crop and a clockwise quarter turn, on each engine, into RGBA and into NV12: the right
// half of the top half of the bars (bars 4 to 7) lands turned, the leftmost bar on top.
TEST_F(CaptureHalConvertTest, CropAndQuarterTurnOnEachEngine) {
    for (const char* engine : {"dip", "gpu"}) {
        for (const char* format : {"RGBA", "NV12"}) {
            SCOPED_TRACE(std::string(engine) + " to " + format);
            const size_t before = service.journal().calls().size();
            Converter c(
                {{"engine", engine}, {"crop", "<320,0,320,180>"}, {"video-direction", "90r"}},
                std::string("video/x-raw,format=") + format);
            std::string error;
            GstBuffer* out = c.convert(&error);
            ASSERT_NE(nullptr, out) << error;
            GstCaps* caps = c.caps();
            GstVideoInfo info;
            ASSERT_TRUE(gst_video_info_from_caps(&info, caps));
            EXPECT_STREQ(format, gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&info)));
            EXPECT_EQ(180, GST_VIDEO_INFO_WIDTH(&info));
            EXPECT_EQ(320, GST_VIDEO_INFO_HEIGHT(&info));
            const Rgba picture = toRgba(out, info);
            for (uint32_t j = 0; j < 4; ++j) {
                for (uint32_t x : {20u, 90u, 160u}) {
                    EXPECT_TRUE(picture.near(x, (2 * j + 1) * 320 / 8, barColour(4 + j)))
                        << "bar " << 4 + j << " at x " << x;
                }
            }
            gst_caps_unref(caps);
            gst_buffer_unref(out);
            // Each frame asked the query on the engine it wanted and got it.
            bool asked = false;
            const std::vector<Call> calls = service.journal().calls();
            for (size_t i = before; i < calls.size(); ++i) {
                const Call& call = calls[i];
                if (call.method != "getCaptureCapabilityInfo" || call.query.captureType != 1) {
                    continue;
                }
                asked = true;
                EXPECT_EQ(std::string(engine) == "gpu", call.answer.useGpu != 0);
            }
            EXPECT_TRUE(asked);
        }
    }
    const JournalCheck check = checkJournal(service.journal().calls(), true);
    EXPECT_TRUE(check.faults.empty()) << ::testing::PrintToString(check.faults);
}

// Conversions the element cannot ask for, or the hardware refuses, fail at negotiation and the
// error says why.
TEST_F(CaptureHalConvertTest, RefusedConversionsNameTheReason) {
    const struct {
        const char* what;
        std::vector<std::pair<std::string, std::string>> properties;
        const char* caps;
        const char* message;
    } kCases[] = {
        {"a crop outside the input",
         {{"crop", "<600,0,100,100>"}},
         "",
         "crop 600,0 100x100 is not inside the 640x360 input"},
        {"a flip", {{"video-direction", "vert"}}, "", "video-direction vert refused"},
        {"a format the DIP does not write",
         {{"engine", "dip"}},
         "video/x-raw,format=NV12_10LE40,width=640,height=360",
         "the service would convert 640x360 RGBA -> 640x360 NV12_10LE40"},
        {"too small for the DIP",
         {{"engine", "dip"}},
         "video/x-raw,format=RGBA,width=32,height=32",
         "-> 32x32 RGBA (crop 0,0 640x360, turned 0) on the GPU path, not on the DIP"},
    };
    for (const auto& k : kCases) {
        SCOPED_TRACE(k.what);
        Converter c(k.properties, k.caps);
        std::string error;
        GstBuffer* out = c.convert(&error);
        EXPECT_EQ(nullptr, out);
        if (out != nullptr) gst_buffer_unref(out);
        EXPECT_NE(std::string::npos, error.find(k.message)) << error;
    }
}

// Two converters on two threads, one on each engine. The engine is chosen by a process-wide
// property; the elements take turns at the capability query, so neither reads the other's
// setting. The journal holds the first query until a second one arrives (or a while has passed),
// and then the second until the first has been answered: without the turns, the first is
// answered with the second's setting.
TEST_F(CaptureHalConvertTest, EnginesAskedFromTwoThreadsEachGetTheirOwn) {
    std::mutex lock;
    std::condition_variable arrived;
    int inside = 0;
    bool heldOne = false;
    auto answered = [&] {
        size_t n = 0;
        for (const Call& c : service.journal().calls()) {
            n += c.method == "getCaptureCapabilityInfo" && c.query.captureType == 1;
        }
        return n;
    };
    service.journal().setQueryHook([&](const setQueryInfo& q) {
        if (q.captureType != 1) return;
        std::unique_lock<std::mutex> held(lock);
        ++inside;
        arrived.notify_all();
        if (!heldOne) {
            heldOne = true;
            arrived.wait_for(held, std::chrono::milliseconds(300), [&] { return inside > 1; });
        } else if (inside > 1) {
            const size_t before = answered();
            --inside;
            held.unlock();
            for (int i = 0; i < 30 && answered() == before; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            return;
        }
        --inside;
    });
    std::atomic<int> failures{0};
    auto run = [&](const char* engine) {
        Converter c({{"engine", engine}}, "video/x-raw,format=RGBA");
        for (int i = 0; i < 3; ++i) {
            std::string error;
            GstBuffer* out = c.convert(&error);
            if (out == nullptr) {
                ADD_FAILURE() << engine << ": " << error;
                ++failures;
                return;
            }
            gst_buffer_unref(out);
        }
        // A refusal the next frame's negotiation got past still counts.
        for (const std::string& e : errorsOn(c.bus)) {
            ADD_FAILURE() << engine << ": " << e;
            ++failures;
        }
    };
    std::thread gpu(run, "gpu");
    std::thread dip(run, "dip");
    gpu.join();
    dip.join();
    service.journal().setQueryHook(nullptr);
    EXPECT_EQ(0, failures.load());
}

}  // namespace
}  // namespace capturehal_test
