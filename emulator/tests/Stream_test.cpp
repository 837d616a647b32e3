// Streaming and asynchronous completion: threads of the emulated hardware.
#include <gtest/gtest.h>
#include <vendor/quenlark/hardware/pq/1.0/IPq.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "EmulatorTestUtil.h"
#include "VxCaptureHal.h"
#include "capture_emulator/Emulator.h"
#include "capture_emulator/FrameLayout.h"

namespace emulator_test {
namespace {

using namespace capture_emulator;
using namespace std::chrono_literals;
using ::android::sp;
using ::vendor::quenlark::hardware::pq::V1_0::EN_PQ_CALLBACK_EVENT_TYPE;
using ::vendor::quenlark::hardware::pq::V1_0::EN_RETURN_VALUE;
using ::vendor::quenlark::hardware::pq::V1_0::IPq;
using ::vendor::quenlark::hardware::pq::V1_0::IPqOnewayCallback;
using ::vendor::quenlark::hardware::pq::V1_0::ST_CAPTURE_POINT_INFO;

class StreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetForTest();
        resetCompletions();
        ASSERT_TRUE(computeFrameLayout(*findVxFormat(VX_CAPTURE_FMT_NV12), 320, 180, 0, &layout));
    }
    void TearDown() override { resetForTest(); }

    // A live NV12 320x180 capture at `fps` into a buffer of `frames` strides.
    int32_t configure(uint32_t fps, uint32_t frames) {
        buffer = std::make_unique<MemBuffer>(size_t{layout.frameStride} * frames);
        int32_t id = openInstance();
        VX_CAPTURE_CaptureInfo_s info =
            liveInfo(640, 360, 320, 180, VX_CAPTURE_FMT_NV12, buffer->fd(), fps);
        EXPECT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), 0u);
        return id;
    }

    uint64_t checksum(uint32_t index) const {
        const uint8_t* p = buffer->data() + size_t{index} * layout.frameStride;
        uint64_t sum = 1469598103934665603ull;
        for (uint32_t i = 0; i < layout.lumaSize + layout.chromaSize; ++i) {
            sum = (sum ^ p[i]) * 1099511628211ull;
        }
        return sum;
    }

    FrameLayout layout;
    std::unique_ptr<MemBuffer> buffer;
};

// Hands every buffer straight back, as a client that keeps up does.
int returnAtOnce(int captureId, unsigned int reserved, void* doneInfo, void* sequenceIdRef) {
    recordCompletion(captureId, reserved, doneInfo, sequenceIdRef);
    return static_cast<int>(VX_CAPTURE_FrameProcessDone(
        captureId, static_cast<VX_CAPTURE_CaptureDoneInfo_s*>(doneInfo)->index));
}

TEST_F(StreamTest, ClientThatReturnsEveryBufferLosesNoFrame) {
    int32_t id = configure(240, 5);
    uint32_t sequence = 9;
    VX_CAPTURE_CallbackInputParams_s params = {};
    params.pfnCallback = returnAtOnce;
    params.u32Flag = 1;
    params.pu32SequenceId = &sequence;
    uint8_t out[8] = {};
    ASSERT_EQ(VX_CAPTURE_RegisterCallback(id, &params, out), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u);
    EXPECT_EQ(VX_CAPTURE_CaptureStart(id), static_cast<uint32_t>(kBusy));
    ASSERT_TRUE(waitCompletions(60, 5000));
    ASSERT_EQ(VX_CAPTURE_CaptureStop(id), 0u);

    InstanceStats stats;
    ASSERT_TRUE(getInstanceStats(id, &stats));
    EXPECT_EQ(stats.ringFrames, 5u);
    EXPECT_EQ(stats.dropped, 0u);
    EXPECT_FALSE(stats.streaming);
    std::vector<Completion> got = completions();
    EXPECT_EQ(stats.delivered, got.size());
    for (size_t i = 0; i < got.size(); ++i) {
        const Completion& c = got[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(c.id, id);
        EXPECT_FALSE(c.onCallerThread);
        EXPECT_EQ(c.sequence, 9u);
        EXPECT_EQ(c.done.index, i % 5) << "buffers are taken in turn";
        EXPECT_EQ(c.done.ErrorNo, 0u);
        EXPECT_EQ(c.done.Y_Size, layout.lumaSize);
        EXPECT_EQ(c.done.C_Size, layout.chromaSize);
        for (uint32_t k = 0; k < 8; ++k) {
            uint32_t y = k < 5 ? k * layout.frameStride : 0;
            EXPECT_EQ(c.done.stBuf[k].Y_offSet, y);
            EXPECT_EQ(c.done.stBuf[k].C_offSet, k < 5 ? y + layout.chromaOffset : 0);
        }
    }
}

TEST_F(StreamTest, HeldBuffersAreNeitherWrittenNorReusedAndDropsAreCounted) {
    int32_t id = configure(240, 3);
    uint32_t sequence = 1;
    ASSERT_EQ(registerRecorder(id, &sequence), 0u);  // returns nothing
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u);
    ASSERT_TRUE(waitCompletions(3, 3000));
    uint64_t sums[3] = {checksum(0), checksum(1), checksum(2)};
    std::this_thread::sleep_for(150ms);
    InstanceStats stats;
    ASSERT_TRUE(getInstanceStats(id, &stats));
    EXPECT_EQ(completions().size(), 3u);
    EXPECT_EQ(stats.held, 3u);
    EXPECT_GT(stats.dropped, 5u) << "every frame while all buffers are held is dropped";
    for (uint32_t k = 0; k < 3; ++k) EXPECT_EQ(checksum(k), sums[k]) << "buffer " << k;

    ASSERT_EQ(VX_CAPTURE_FrameProcessDone(id, 1), 0u);
    ASSERT_TRUE(waitCompletions(4, 3000));
    EXPECT_EQ(completions()[3].done.index, 1u) << "only the returned buffer is reused";
    EXPECT_NE(checksum(1), sums[1]);
    EXPECT_EQ(checksum(0), sums[0]);
    EXPECT_EQ(checksum(2), sums[2]);
    EXPECT_EQ(VX_CAPTURE_FrameProcessDone(id, 3), static_cast<uint32_t>(kBadParameter));
    ASSERT_EQ(VX_CAPTURE_CaptureStop(id), 0u);
}

TEST_F(StreamTest, FramesCarryTheSequenceOfTheRegistrationThatProducedThem) {
    int32_t id = configure(240, 8);
    uint32_t sequence = 41;
    ASSERT_EQ(registerRecorder(id, &sequence), 0u);
    sequence = 42;  // the caller moves on; the registration keeps 41
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u);
    ASSERT_TRUE(waitCompletions(2, 3000));
    ASSERT_EQ(registerRecorder(id, &sequence), 0u);
    size_t before = completions().size();
    ASSERT_TRUE(waitCompletions(before + 3, 3000));
    std::vector<Completion> got = completions();
    EXPECT_EQ(got.front().sequence, 41u);
    EXPECT_EQ(got.back().sequence, 42u);
    for (size_t i = 1; i < got.size(); ++i) {
        EXPECT_LE(got[i - 1].sequence, got[i].sequence) << "no frame goes back to 41";
    }
    ASSERT_EQ(VX_CAPTURE_CaptureStop(id), 0u);
}

TEST_F(StreamTest, NothingIsDeliveredOnceUnregistrationReturns) {
    int32_t id = configure(240, 8);
    uint32_t sequence = 1;
    VX_CAPTURE_CallbackInputParams_s params = {};
    params.pfnCallback = returnAtOnce;
    params.pu32SequenceId = &sequence;
    ASSERT_EQ(VX_CAPTURE_RegisterCallback(id, &params, nullptr), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u);
    ASSERT_TRUE(waitCompletions(5, 3000));
    ASSERT_EQ(VX_CAPTURE_UnRegisterCallback(id, &params), 0u);
    size_t after = completions().size();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(completions().size(), after);
    InstanceStats stats;
    ASSERT_TRUE(getInstanceStats(id, &stats));
    EXPECT_TRUE(stats.streaming) << "the stream runs on without a receiver";
    ASSERT_EQ(VX_CAPTURE_Close(id), 0u) << "close stops the stream";
}

TEST_F(StreamTest, EveryNthFrameIsDroppedWhenInjected) {
    int32_t id = configure(240, 8);
    setDropEveryNth(2);
    uint32_t sequence = 0;
    VX_CAPTURE_CallbackInputParams_s params = {};
    params.pfnCallback = returnAtOnce;
    params.pu32SequenceId = &sequence;
    ASSERT_EQ(VX_CAPTURE_RegisterCallback(id, &params, nullptr), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u);
    ASSERT_TRUE(waitCompletions(20, 3000));
    ASSERT_EQ(VX_CAPTURE_CaptureStop(id), 0u);
    InstanceStats stats;
    ASSERT_TRUE(getInstanceStats(id, &stats));
    EXPECT_GE(stats.dropped + 1, stats.produced);
    EXPECT_LE(stats.dropped, stats.produced + 1);
}

// A completion entry that stops its own stream must not wait for itself.
std::atomic<int32_t> gStopFrom{0};
int stopFromCompletion(int captureId, unsigned int reserved, void* doneInfo, void* ref) {
    recordCompletion(captureId, reserved, doneInfo, ref);
    if (gStopFrom.exchange(0) == captureId) {
        VX_CAPTURE_UnRegisterCallback(captureId, nullptr);
        VX_CAPTURE_CaptureStop(captureId);
    }
    return 0;
}

TEST_F(StreamTest, CompletionEntryMayStopItsOwnStream) {
    int32_t id = configure(240, 8);
    gStopFrom = id;
    uint32_t sequence = 0;
    VX_CAPTURE_CallbackInputParams_s params = {};
    params.pfnCallback = stopFromCompletion;
    params.pu32SequenceId = &sequence;
    ASSERT_EQ(VX_CAPTURE_RegisterCallback(id, &params, nullptr), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u);
    ASSERT_TRUE(waitCompletions(1, 3000));
    std::this_thread::sleep_for(60ms);
    InstanceStats stats;
    ASSERT_TRUE(getInstanceStats(id, &stats));
    EXPECT_FALSE(stats.streaming);
    EXPECT_EQ(completions().size(), 1u);
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u) << "the instance can stream again";
    ASSERT_EQ(VX_CAPTURE_Close(id), 0u);
}

TEST_F(StreamTest, CaptureOnceIsAsynchronousOnlyWithARegisteredEntry) {
    int32_t id = configure(60, 1);
    memset(buffer->data(), 0, buffer->size());
    ASSERT_EQ(VX_CAPTURE_CaptureOnce(id), 0u);
    uint64_t synchronous = checksum(0);
    std::vector<uint8_t> zero(layout.lumaSize, 0);
    EXPECT_NE(memcmp(buffer->data(), zero.data(), zero.size()), 0) << "written before return";
    EXPECT_TRUE(completions().empty());

    uint32_t sequence = 3;
    ASSERT_EQ(registerRecorder(id, &sequence), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureOnce(id), 0u);
    EXPECT_EQ(VX_CAPTURE_CaptureStart(id), static_cast<uint32_t>(kBusy));
    ASSERT_TRUE(waitCompletions(1, 3000));
    Completion c = completions()[0];
    EXPECT_FALSE(c.onCallerThread);
    EXPECT_EQ(c.sequence, 3u);
    EXPECT_EQ(c.done.index, 0u);
    EXPECT_EQ(c.done.stBuf[0].C_offSet, layout.chromaOffset);
    EXPECT_NE(checksum(0), synchronous) << "a later frame: counter and clock moved";
}

class PqStreamTest : public StreamTest {};

struct PqSink : public IPqOnewayCallback {
    ::android::hardware::Return<void> onNotify(
        int32_t pqId, EN_PQ_CALLBACK_EVENT_TYPE type, uint32_t size,
        const ::android::hardware::hidl_vec<uint8_t>& data) override {
        std::lock_guard<std::mutex> guard(lock);
        ++count;
        lastId = pqId;
        lastType = static_cast<int>(type);
        lastSize = size;
        payload = data;
        return ::android::hardware::Void();
    }
    std::mutex lock;
    int count = 0, lastId = -1, lastType = -1;
    uint32_t lastSize = 0;
    std::vector<uint8_t> payload;
};

TEST_F(PqStreamTest, StreamingAPqCapturePointSendsCapturePointNotifications) {
    ASSERT_EQ(registerPqService(), ::android::OK);
    sp<IPq> pq = IPq::getService();
    ASSERT_NE(pq, nullptr);
    ::android::sp<PqSink> sink = new PqSink();
    constexpr auto kEvent = EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE;
    EXPECT_EQ(pq->registerPqOnewayCallback(16, kEvent, sink),
              EN_RETURN_VALUE::EN_RETURN_INVALID_PARAMETER);
    ASSERT_EQ(pq->registerPqOnewayCallback(1, kEvent, sink), EN_RETURN_VALUE::EN_RETURN_OK);

    buffer = std::make_unique<MemBuffer>(size_t{layout.frameStride} * 4);
    int32_t id = openInstance();
    VX_CAPTURE_CaptureInfo_s info =
        liveInfo(1920, 1080, 320, 180, VX_CAPTURE_FMT_NV12, buffer->fd(), 30);
    info.eCapPoint = 5;
    info.s32PqId = 1;
    ASSERT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u);
    for (int i = 0; i < 200; ++i) {
        {
            std::lock_guard<std::mutex> guard(sink->lock);
            if (sink->count > 0) break;
        }
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_EQ(VX_CAPTURE_CaptureStop(id), 0u);

    std::lock_guard<std::mutex> guard(sink->lock);
    ASSERT_GE(sink->count, 1);
    EXPECT_EQ(sink->lastId, 1);
    EXPECT_EQ(sink->lastType, 4);
    ASSERT_EQ(sink->lastSize, 1456u);
    ASSERT_EQ(sink->payload.size(), 1456u);
    // Block 3 (capture point 5): two windows, streams 0 and 1; stream 1 at 30 fps.
    const uint8_t* block = sink->payload.data() + 3 * 208;
    EXPECT_EQ(block[52], 2) << "active windows";
    EXPECT_EQ(block[53], 1) << "PQ hardware set";
    for (int i = 56; i < 72; ++i) EXPECT_EQ(block[i], 0) << "no pointer leaks into the payload";
    EXPECT_EQ(block[80 + 8], 1) << "second window is stream 1";
    uint32_t winTime;
    memcpy(&winTime, block + 80 + 8 + 4, 4);
    EXPECT_EQ(winTime, 1000000u / 30);

    bool answered = false;
    pq->getCapturePointInfo(1, 3, [&](EN_RETURN_VALUE ret, const ST_CAPTURE_POINT_INFO& i) {
        answered = ret == EN_RETURN_VALUE::EN_RETURN_OK && i.activeWinNum == 2 &&
                   i.winInfo.size() == 16 && i.winInfo[1].u8PqId == 1;
    });
    EXPECT_TRUE(answered);
    pq->getCapturePointInfo(1, 7, [&](EN_RETURN_VALUE ret, const ST_CAPTURE_POINT_INFO&) {
        EXPECT_EQ(ret, EN_RETURN_VALUE::EN_RETURN_INVALID_PARAMETER);
    });
    EXPECT_EQ(pq->unRegisterPqOnewayCallback(1, kEvent), EN_RETURN_VALUE::EN_RETURN_OK);
    EXPECT_EQ(pq->unRegisterPqOnewayCallback(1, kEvent), EN_RETURN_VALUE::EN_RETURN_FAIL);
}

}  // namespace
}  // namespace emulator_test
