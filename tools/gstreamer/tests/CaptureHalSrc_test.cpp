// capturehalsrc against the emulated capture hardware, through a journal of every ICapture call.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "GstTestUtil.h"
#include "RecordingCapture.h"
#include "capture_emulator/Emulator.h"

namespace capturehal_test {
namespace {

using Properties = std::vector<std::pair<std::string, std::string>>;

// capturehalsrc in a harness whose sink takes `caps`, with a bus of its own.
class Source {
public:
    Source(const Properties& properties, const std::string& caps, bool videoMeta = true) {
        h = gst_harness_new("capturehalsrc");
        gst_harness_use_systemclock(h);
        bus = gst_bus_new();
        gst_element_set_bus(h->element, bus);
        for (const auto& [name, value] : properties) {
            gst_util_set_object_arg(G_OBJECT(h->element), name.c_str(), value.c_str());
        }
        if (!caps.empty()) gst_harness_set_sink_caps_str(h, caps.c_str());
        if (videoMeta) gst_harness_add_propose_allocation_meta(h, GST_VIDEO_META_API_TYPE, nullptr);
    }
    ~Source() {
        for (GstMessage* m : messages) gst_message_unref(m);
        // Messages on the bus hold the element, which holds the bus: dropped first.
        gst_element_set_state(h->element, GST_STATE_NULL);
        gst_bus_set_flushing(bus, TRUE);
        gst_harness_teardown(h);
        gst_object_unref(bus);
    }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    // The first error posted, waiting for one at most `seconds`; empty when none came.
    std::string waitError(int seconds = 10) {
        for (int i = 0; i <= seconds * 100; ++i) {
            const std::vector<GstMessage*> errors = collect(GST_MESSAGE_ERROR);
            if (!errors.empty()) {
                GError* error = nullptr;
                gst_message_parse_error(errors.front(), &error, nullptr);
                std::string text = error->message;
                g_error_free(error);
                return text;
            }
            if (i < seconds * 100) g_usleep(10000);
        }
        return "";
    }
    GstCaps* caps() { return gst_pad_get_current_caps(h->sinkpad); }
    // The next buffer; null as soon as an error is posted instead (or after 20 s).
    GstBuffer* pull() {
        for (int i = 0; i < 2000; ++i) {
            if (GstBuffer* b = gst_harness_try_pull(h)) return b;
            if (!collect(GST_MESSAGE_ERROR).empty()) return nullptr;
            g_usleep(10000);
        }
        return nullptr;
    }
    // The messages of `type` posted so far (kept: a later call returns them again).
    std::vector<GstMessage*> collect(GstMessageType type) {
        while (GstMessage* m = gst_bus_pop(bus)) messages.push_back(m);
        std::vector<GstMessage*> of;
        for (GstMessage* m : messages) {
            if (GST_MESSAGE_TYPE(m) == type) of.push_back(m);
        }
        return of;
    }
    std::vector<GstMessage*> messages;
    // PLAYING without the harness's insistence that it works.
    void start() { gst_element_set_state(h->element, GST_STATE_PLAYING); }

    GstHarness* h;
    GstBus* bus;
};

// Where source point (sx, sy) of a 1920x1080 source lands in a picture of dstW x dstH made
// with the crop and the clockwise turn.
void project(uint32_t cropX, uint32_t cropY, uint32_t cropW, uint32_t cropH, uint32_t degrees,
             uint32_t dstW, uint32_t dstH, uint32_t sx, uint32_t sy, uint32_t* dx, uint32_t* dy) {
    const bool turned = degrees % 180 != 0;
    const uint32_t w = turned ? dstH : dstW, h = turned ? dstW : dstH;  // before turning
    const uint32_t x = (sx - cropX) * w / cropW, y = (sy - cropY) * h / cropH;
    const uint32_t turns[4][2] = {{x, y}, {h - 1 - y, x}, {w - 1 - x, h - 1 - y}, {y, w - 1 - x}};
    *dx = turns[degrees / 90][0];
    *dy = turns[degrees / 90][1];
}

class CaptureHalSrcTest : public ::testing::Test {
protected:
    void TearDown() override { capture_emulator::clearFaults(); }
    JournaledService service;
};

// Every format the hardware writes, 264x150 so that its rows carry padding: the caps it
// negotiates, the layout the video meta gives (rows of whole 64-byte units, chroma right after
// luma, as the hardware lays frames out), and the bars read back by GStreamer's own converter
// in their order: a format mapped to the wrong GStreamer name shows wrong colours.
TEST_F(CaptureHalSrcTest, EachFormatNegotiatesWithTheHardwaresLayoutAndShowsTheBars) {
    const struct {
        const char* format;
        uint32_t bytesPerPixel;      // of the first plane
        uint32_t chromaRowsDivisor;  // 0: one plane
        bool yuv;
    } kFormats[] = {
        {"NV12", 1, 2, true},        {"NV21", 1, 2, true},        {"NV16", 1, 1, true},
        {"NV61", 1, 1, true},        {"YUY2", 2, 0, true},        {"RGBA", 4, 0, false},
        {"BGRA", 4, 0, false},       {"RGB", 3, 0, false},        {"RGB16", 2, 0, false},
        {"BGR10A2_LE", 4, 0, false}, {"RGB10A2_LE", 4, 0, false},
    };
    constexpr uint32_t kW = 264, kH = 150;
    for (const auto& f : kFormats) {
        SCOPED_TRACE(f.format);
        Source src({{"num-buffers", "2"}},
                   std::string("video/x-raw,format=") + f.format + ",width=264,height=150");
        gst_harness_play(src.h);
        GstBuffer* buffer = src.pull();
        ASSERT_NE(nullptr, buffer) << src.waitError(0);
        GstCaps* caps = src.caps();
        GstStructure* s = gst_caps_get_structure(caps, 0);
        EXPECT_STREQ(f.format, gst_structure_get_string(s, "format"));
        EXPECT_STREQ(f.yuv ? "bt601" : "sRGB", gst_structure_get_string(s, "colorimetry"));
        if (f.yuv) {
            EXPECT_STREQ("jpeg", gst_structure_get_string(s, "chroma-site"));
        }

        GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
        ASSERT_NE(nullptr, meta);
        // Rows span whole 64-byte units of whole pixels (64 pixels of 3 bytes, 16 of 4).
        const uint32_t unit = 64 / std::gcd(64u, f.bytesPerPixel);
        const uint32_t pitch = (kW + unit - 1) / unit * unit * f.bytesPerPixel;
        EXPECT_EQ(pitch, static_cast<uint32_t>(meta->stride[0]));
        EXPECT_EQ(0u, meta->offset[0]);
        size_t size = size_t{pitch} * kH;
        if (f.chromaRowsDivisor != 0) {
            ASSERT_EQ(2u, meta->n_planes);
            EXPECT_EQ(pitch, static_cast<uint32_t>(meta->stride[1]));
            EXPECT_EQ(size_t{pitch} * kH, meta->offset[1]);
            size += size_t{pitch} * kH / f.chromaRowsDivisor;
        } else {
            EXPECT_EQ(1u, meta->n_planes);
        }
        EXPECT_EQ(size, gst_buffer_get_size(buffer));
        EXPECT_EQ(0u, statOf(src.h->element, "copies"));

        const Rgba picture = toRgba(buffer, caps);
        for (uint32_t k = 0; k < 8; ++k) {
            EXPECT_TRUE(picture.near((2 * k + 1) * kW / 16, barsMidRow(kH), barColour(k)))
                << "bar " << k;
        }
        gst_caps_unref(caps);
        gst_buffer_unref(buffer);
    }
}

// What the hardware refuses fails negotiation, and the error says why: the CaptureReturn the
// capability query answered, or what the element cannot ask for at all.
TEST_F(CaptureHalSrcTest, RefusalsFailNegotiationNamingTheReason) {
    const struct {
        const char* what;
        Properties properties;
        const char* caps;
        const char* message;
    } kCases[] = {
        {"too small for the DIP",
         {},
         "video/x-raw,format=NV12,width=32,height=32",
         "the capture hardware refuses 32x32 NV12 at 60 fps: DIP_NOT_SUPPORT (30)"},
        {"a crop outside the source",
         {{"crop", "<1800,0,400,400>"}},
         "",
         "setCaptureInfo refused: INVALID_CROP (14)"},
        {"a rate that is not whole frames",
         {},
         "video/x-raw,framerate=30000/1001",
         "at 30000/1001 fps refused: the hardware streams whole frames a second"},
        {"a flip",
         {{"video-direction", "horiz"}},
         "",
         "video-direction horiz refused: the hardware turns by quarter turns only"},
        {"a direction left to the element",
         {{"video-direction", "auto"}},
         "",
         "video-direction auto refused"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        Source src(c.properties, c.caps);
        src.start();
        const std::string error = src.waitError();
        EXPECT_NE(std::string::npos, error.find(c.message)) << error;
        EXPECT_EQ(nullptr, gst_harness_try_pull(src.h));
    }
}

// Refusals of the hardware at start become element errors naming the CaptureReturn, and the
// instance is closed after them.
TEST_F(CaptureHalSrcTest, RefusedStartIsAnElementErrorNamingTheCode) {
    using capture_emulator::Entry;
    const struct {
        Entry entry;
        const char* message;
    } kCases[] = {
        {Entry::CaptureStart, "startCapture refused: BUSY (8)"},
        {Entry::SetCaptureInfo, "setCaptureInfo refused: BUSY (8)"},
        {Entry::Open, "open refused: INVALID_CAPTURE_ID (6)"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.message);
        capture_emulator::failNextCalls(c.entry, capture_emulator::kBusy, 1);
        {
            Source src({}, "video/x-raw,width=320,height=180");
            src.start();
            EXPECT_EQ(c.message, src.waitError());
        }
        capture_emulator::clearFaults();
    }
    const JournalCheck check = checkJournal(service.journal().calls(), true);
    EXPECT_TRUE(check.faults.empty()) << ::testing::PrintToString(check.faults);
    EXPECT_EQ(2u, check.opened);  // the third open was the one refused
}

// Timestamps are arrival times on the pipeline clock: increasing, one duration of a frame
// period each; after num-buffers the element ends the stream.
TEST_F(CaptureHalSrcTest, TimestampsFollowArrivalsAndEosAfterNumBuffers) {
    Source src({{"num-buffers", "12"}}, "video/x-raw,width=320,height=180,framerate=60/1");
    gst_harness_play(src.h);
    GstClockTime previous = GST_CLOCK_TIME_NONE;
    for (int i = 0; i < 12; ++i) {
        GstBuffer* b = src.pull();
        ASSERT_NE(nullptr, b) << i;
        ASSERT_TRUE(GST_BUFFER_PTS_IS_VALID(b)) << i;
        EXPECT_EQ(GST_SECOND / 60, GST_BUFFER_DURATION(b));
        if (GST_CLOCK_TIME_IS_VALID(previous)) {
            EXPECT_GT(GST_BUFFER_PTS(b), previous) << i;
        }
        previous = GST_BUFFER_PTS(b);
        gst_buffer_unref(b);
    }
    // The running time of the last frame is behind the clock's, never ahead of it.
    GstClock* clock = gst_element_get_clock(src.h->element);
    ASSERT_NE(nullptr, clock);
    EXPECT_LE(previous, gst_clock_get_time(clock) - gst_element_get_base_time(src.h->element));
    gst_object_unref(clock);
    bool eos = false;
    while (GstEvent* e = gst_harness_pull_event(src.h)) {
        eos |= GST_EVENT_TYPE(e) == GST_EVENT_EOS;
        gst_event_unref(e);
        if (eos) break;
    }
    EXPECT_TRUE(eos);
    EXPECT_EQ(12u, statOf(src.h->element, "frames"));
}

// The latency query answers one frame period, as live and with no more latitude.
TEST_F(CaptureHalSrcTest, LatencyIsOneFramePeriod) {
    for (int fps : {60, 25}) {
        SCOPED_TRACE(fps);
        Source src({}, "video/x-raw,width=320,height=180,framerate=" + std::to_string(fps) + "/1");
        gst_harness_play(src.h);
        gst_buffer_unref(src.pull());
        GstQuery* q = gst_query_new_latency();
        ASSERT_TRUE(gst_element_query(src.h->element, q));
        gboolean live = FALSE;
        GstClockTime min = 0, max = 0;
        gst_query_parse_latency(q, &live, &min, &max);
        EXPECT_TRUE(live);
        EXPECT_EQ(GST_SECOND / fps, min);
        EXPECT_EQ(GST_SECOND / fps, max);
        gst_query_unref(q);
    }
}

// Frames go downstream in the hardware's memory unless downstream reads frames without video
// meta and the hardware's rows are padded; then each is copied into GStreamer's own layout and
// counted.
TEST_F(CaptureHalSrcTest, CopiesOnlyForADownstreamWithoutVideoMeta) {
    const struct {
        bool meta;
        int width;
        bool copies;
    } kCases[] = {
        {true, 264, false},   // padded rows, described by the meta
        {false, 264, true},   // padded rows nobody downstream would know of
        {false, 320, false},  // rows the hardware lays out as GStreamer does
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.meta ? "meta " : "no meta ") + std::to_string(c.width));
        Source src({{"num-buffers", "3"}},
                   "video/x-raw,format=NV12,height=150,width=" + std::to_string(c.width), c.meta);
        gst_harness_play(src.h);
        for (int i = 0; i < 3; ++i) {
            GstBuffer* b = src.pull();
            ASSERT_NE(nullptr, b);
            GstCaps* caps = src.caps();
            GstVideoInfo info;
            gst_video_info_from_caps(&info, caps);
            if (c.copies) {
                EXPECT_EQ(GST_VIDEO_INFO_SIZE(&info), gst_buffer_get_size(b));
            }
            // Whichever way it came, GStreamer reads the bars where they are.
            const Rgba picture = toRgba(b, info);
            EXPECT_TRUE(picture.near((2 * 2 + 1) * c.width / 16, barsMidRow(150), barColour(2)));
            gst_caps_unref(caps);
            gst_buffer_unref(b);
        }
        EXPECT_EQ(c.copies ? 3u : 0u, statOf(src.h->element, "copies"));
    }
}

// onNotify runs under the service's one callback lock: the element queues the frame and
// returns. Nothing it does from there calls into ICapture, and every buffer goes downstream
// from the streaming thread, none from inside onNotify.
TEST_F(CaptureHalSrcTest, OnNotifyOnlyQueues) {
    Source src({{"num-buffers", "10"}}, "video/x-raw,width=320,height=180");
    static std::atomic<int> pushedFromOnNotify{0};
    pushedFromOnNotify = 0;
    GstPad* pad = gst_element_get_static_pad(src.h->element, "src");
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo*, gpointer) {
            if (RecordingCapture::insideOnNotify()) ++pushedFromOnNotify;
            return GST_PAD_PROBE_OK;
        },
        nullptr, nullptr);
    gst_object_unref(pad);
    gst_harness_play(src.h);
    for (int i = 0; i < 10; ++i) gst_buffer_unref(src.pull());
    gst_element_set_state(src.h->element, GST_STATE_NULL);
    EXPECT_EQ(0, pushedFromOnNotify.load());
    const JournalCheck check = checkJournal(service.journal().calls(), true);
    EXPECT_TRUE(check.faults.empty()) << ::testing::PrintToString(check.faults);
    EXPECT_GE(check.delivered, 10u);
}

// On stop every buffer downstream gave back has gone back to the hardware before the instance
// closes. A buffer still held when the bounded wait ends keeps its memory (readable, the bars
// still in it) until its last reference goes, and is not handed back to an instance that is no
// longer there; then nothing of it is left open.
TEST_F(CaptureHalSrcTest, BuffersGoBackBeforeCloseAndHeldOnesOutliveIt) {
    const size_t descriptorsBefore = openDescriptors();
    {
        // The stream ends after these six: none waits in the harness when the element stops.
        Source src({{"num-buffers", "6"}}, "video/x-raw,format=RGBA,width=320,height=180");
        gst_harness_play(src.h);
        for (int i = 0; i < 6; ++i) gst_buffer_unref(src.pull());
        gst_element_set_state(src.h->element, GST_STATE_NULL);
    }
    JournalCheck check = checkJournal(service.journal().calls(), true);
    EXPECT_TRUE(check.faults.empty()) << ::testing::PrintToString(check.faults);
    EXPECT_EQ(1u, check.closed);
    EXPECT_GE(check.returned, 6u);

    GstBuffer* kept[2] = {};
    {
        Source src({}, "video/x-raw,format=RGBA,width=320,height=180");
        gst_harness_play(src.h);
        kept[0] = src.pull();
        kept[1] = src.pull();
        ASSERT_NE(nullptr, kept[1]);
        EXPECT_EQ(2u, statOf(src.h->element, "held"));
        gst_element_set_state(src.h->element, GST_STATE_NULL);
    }
    check = checkJournal(service.journal().calls(), false);
    EXPECT_EQ(2u, check.closed);
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_RGBA, 320, 180);
    for (GstBuffer* b : kept) {
        const Rgba picture = toRgba(b, info);
        EXPECT_TRUE(picture.near(20, barsMidRow(180), barColour(0)));
        gst_buffer_unref(b);
    }
    check = checkJournal(service.journal().calls(), false);
    EXPECT_TRUE(check.faults.empty()) << ::testing::PrintToString(check.faults);
    EXPECT_EQ(descriptorsBefore, openDescriptors());
}

// A period with no frame (the hardware dropped every second one) shows as a gap between
// arrivals: counted as dropped and reported downstream's way, as QoS messages with the counts.
TEST_F(CaptureHalSrcTest, GapsCountAsDroppedAndPostQos) {
    capture_emulator::setDropEveryNth(2);
    Source src({{"num-buffers", "10"}}, "video/x-raw,width=320,height=180,framerate=60/1");
    gst_harness_play(src.h);
    for (int i = 0; i < 10; ++i) gst_buffer_unref(src.pull());
    const uint64_t dropped = statOf(src.h->element, "dropped");
    EXPECT_GE(dropped, 9u);  // one missing period between each two frames at least
    guint64 lastDropped = 0, lastProcessed = 0;
    int qos = 0;
    for (GstMessage* m : src.collect(GST_MESSAGE_QOS)) {
        gboolean live = FALSE;
        gst_message_parse_qos(m, &live, nullptr, nullptr, nullptr, nullptr);
        EXPECT_TRUE(live);
        GstFormat format = GST_FORMAT_UNDEFINED;
        gst_message_parse_qos_stats(m, &format, &lastProcessed, &lastDropped);
        EXPECT_EQ(GST_FORMAT_BUFFERS, format);
        ++qos;
    }
    EXPECT_GE(qos, 9);
    EXPECT_EQ(dropped, lastDropped);
    EXPECT_GE(lastProcessed, 9u);
}

// The turn and the crop reach the hardware: the bars land where a clockwise quarter turn of
// the cropped source puts them (90r is the hardware's 90, 90l its 270).
TEST_F(CaptureHalSrcTest, VideoDirectionAndCropPlaceTheBars) {
    const struct {
        const char* direction;
        uint32_t degrees;
        uint32_t cropX, cropY, cropW, cropH;
    } kCases[] = {
        {"identity", 0, 0, 0, 1920, 1080}, {"90r", 90, 0, 0, 1920, 1080},
        {"180", 180, 0, 0, 1920, 1080},    {"90l", 270, 0, 0, 1920, 1080},
        {"90r", 90, 960, 0, 960, 540},
    };
    for (const auto& c : kCases) {
        char crop[64];
        snprintf(crop, sizeof(crop), "<%u,%u,%u,%u>", c.cropX, c.cropY, c.cropW, c.cropH);
        SCOPED_TRACE(std::string(c.direction) + " " + crop);
        const bool turned = c.degrees % 180 != 0;
        const uint32_t w = turned ? 270 : 480, h = turned ? 480 : 270;
        Source src(
            {{"video-direction", c.direction}, {"crop", crop}},
            "video/x-raw,format=RGBA,width=" + std::to_string(w) + ",height=" + std::to_string(h));
        gst_harness_play(src.h);
        GstBuffer* b = src.pull();
        ASSERT_NE(nullptr, b) << src.waitError(0);
        GstCaps* caps = src.caps();
        const Rgba picture = toRgba(b, caps);
        int checked = 0;
        for (uint32_t k = 0; k < 8; ++k) {
            const uint32_t sx = (2 * k + 1) * 1920 / 16, sy = barsMidRow(1080) / 2;
            if (sx < c.cropX || sx >= c.cropX + c.cropW || sy >= c.cropY + c.cropH) continue;
            uint32_t dx = 0, dy = 0;
            project(c.cropX, c.cropY, c.cropW, c.cropH, c.degrees, w, h, sx, sy, &dx, &dy);
            EXPECT_TRUE(picture.near(dx, dy, barColour(k))) << "bar " << k;
            ++checked;
        }
        EXPECT_GE(checked, 4);
        gst_caps_unref(caps);
        gst_buffer_unref(b);
    }
}

// The capture point is the interface's, by its interface name.
TEST_F(CaptureHalSrcTest, CapturePointReachesTheHardwareByItsInterfaceName) {
    for (const auto& [name, point] :
         {std::pair<const char*, CapturePoint>{"VIDEO_INPUT", CapturePoint::VIDEO_INPUT},
          {"DISPLAY", CapturePoint::DISPLAY}}) {
        SCOPED_TRACE(name);
        Source src({{"capture-point", name}, {"num-buffers", "1"}},
                   "video/x-raw,width=320,height=180");
        gst_harness_play(src.h);
        GstBuffer* b = src.pull();
        ASSERT_NE(nullptr, b) << src.waitError(0);
        gst_buffer_unref(b);
        CapturePoint asked = CapturePoint::NONE;
        for (const Call& c : service.journal().calls()) {
            if (c.method == "setCaptureInfo") asked = c.info.capPoint;
        }
        EXPECT_EQ(point, asked);
    }
}

// NULL -> PLAYING -> NULL a hundred times, two frames each time: every instance opened is closed,
// every buffer delivered went back before its close, none after, and no descriptor is left.
// Also run under ThreadSanitizer.
TEST(CaptureHalSrcStress, NullToPlayingToNullAHundredTimes) {
    JournaledService service;
    const size_t descriptors = openDescriptors();
    {
        // Two frames a run, both pulled: none waits in the harness when the element stops.
        Source src({{"buffers", "3"}, {"num-buffers", "2"}},
                   "video/x-raw,format=NV12,width=320,height=180");
        for (int i = 0; i < 100; ++i) {
            ASSERT_NE(GST_STATE_CHANGE_FAILURE,
                      gst_element_set_state(src.h->element, GST_STATE_PLAYING));
            for (int k = 0; k < 2; ++k) {
                GstBuffer* b = src.pull();
                ASSERT_NE(nullptr, b) << "cycle " << i << ": " << src.waitError(0);
                gst_buffer_unref(b);
            }
            ASSERT_EQ(GST_STATE_CHANGE_SUCCESS,
                      gst_element_set_state(src.h->element, GST_STATE_NULL));
            EXPECT_EQ(0u, statOf(src.h->element, "held"));
        }
        EXPECT_TRUE(src.collect(GST_MESSAGE_ERROR).empty());
    }
    const JournalCheck check = checkJournal(service.journal().calls(), true);
    EXPECT_TRUE(check.faults.empty()) << ::testing::PrintToString(check.faults);
    EXPECT_EQ(100u, check.opened);
    EXPECT_EQ(100u, check.closed);
    EXPECT_GE(check.returned, 200u);
    EXPECT_EQ(descriptors, openDescriptors());
}

}  // namespace
}  // namespace capturehal_test
