// The emulated sub-HAL driven through its VX_CAPTURE_* entries, its streaming threads included,
// and under the service.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "Capture.h"
#include "EmulatorTestUtil.h"
#include "Instance.h"
#include "capture_emulator/Emulator.h"
#include "capture_emulator/FrameLayout.h"

namespace emulator_test {
namespace {

using namespace capture_emulator;
using namespace std::chrono_literals;
using namespace ::vendor::quenlark::hardware::capture::V1_0;
using Info = VX_CAPTURE_CaptureInfo_s;
using Src = VX_CAPTURE_SrcFrameInfo_s;
using Dst = VX_CAPTURE_DstFrameInfo_s;
constexpr int32_t kBase = 0x73000000;

class SubHalTest : public ::testing::Test {
protected:
    void SetUp() override { resetForTest(); }
    void TearDown() override { resetForTest(); }
};

TEST_F(SubHalTest, InitIsCountedAndIdentifiersThatAreNotOpenAreRefusedWithSeven) {
    uint8_t param = 0;
    uint32_t handle = 0;
    EXPECT_EQ(VX_CAPTURE_Open(&param, &handle), static_cast<uint32_t>(kNotInitialized));
    ASSERT_EQ(VX_CAPTURE_Init(&param), 0u);
    ASSERT_EQ(openInstance(), kBase);
    ASSERT_EQ(VX_CAPTURE_DeInit(), 0u);
    EXPECT_EQ(VX_CAPTURE_NotifyContinueCapture(kBase), 0u) << "one Init is still in force";
    Info info = {};
    for (int32_t id : {kBase + 1, kBase + 31, kBase - 1, kBase + 32, -1}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(VX_CAPTURE_Close(id), 7u);
        EXPECT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), 7u);
        EXPECT_EQ(VX_CAPTURE_CaptureStart(id), 7u);
        EXPECT_EQ(VX_CAPTURE_FrameProcessDone(id, 0), 7u);
    }
    ASSERT_EQ(VX_CAPTURE_DeInit(), 0u);
    EXPECT_EQ(VX_CAPTURE_NotifyContinueCapture(kBase), 7u) << "powering down closes it";
    EXPECT_EQ(VX_CAPTURE_DeInit(), static_cast<uint32_t>(kNotInitialized));
}

TEST_F(SubHalTest, CaptureInfoIsCheckedAsTheHardwareWould) {
    int32_t id = openInstance();
    MemBuffer buffer(1 << 22), tiny(4096);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    const struct {
        const char* what;
        std::function<void(Info&)> mutate;
        uint32_t status;
    } cases[] = {
        {"tiled output", [](Info& i) { i.eOutputFormat = VX_CAPTURE_FMT_RZ21S; }, kFormat},
        {"crop past the source", [](Info& i) { i.u32CropX = i.u32CropWidth = 1000; }, kBadCrop},
        {"wider than the widest engine", [](Info& i) { i.u32DstWidth = 4160; }, kBadSize},
        {"faster than the source", [](Info& i) { i.u32DstFps = 120; }, kBadParameter},
        {"secure buffer", [](Info& i) { i.eSecureBuffer = 1; }, kSecure},
        {"a pipe, not a buffer", [&](Info& i) { i.s32BufferFd = pipeFds[0]; }, kBadBuffer},
        {"smaller than a frame", [&](Info& i) { i.s32BufferFd = tiny.fd(); }, kBufferTooSmall},
        {"accepted", [](Info&) {}, kOk},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Info info = liveInfo(1920, 1080, 640, 360, VX_CAPTURE_FMT_NV12, buffer.fd());
        c.mutate(info);
        EXPECT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), c.status);
    }
    close(pipeFds[0]);
    close(pipeFds[1]);
    // The client shrinks its buffer behind the hardware's back: refused, not overrun.
    ASSERT_EQ(ftruncate(buffer.fd(), 4096), 0);
    EXPECT_EQ(VX_CAPTURE_CaptureOnce(id), static_cast<uint32_t>(kBufferTooSmall));
}

TEST_F(SubHalTest, FrameInfoIsCheckedAndAnswersThePlaneOffsets) {
    int32_t id = openInstance();
    MemBuffer src(1 << 22), dst(1 << 22);
    const struct {
        const char* what;
        void (*mutate)(Src&, Dst&);
        uint32_t status, chroma;  // expected second plane offset
    } cases[] = {
        {"NV21", [](Src&, Dst&) {}, kOk, 640 * 360},
        {"rows rounded to 64 bytes", [](Src&, Dst& d) { d.u32Width = 1000; }, kOk, 1024 * 360},
        {"pitch given", [](Src&, Dst& d) { d.u32Pitch = 2048; }, kOk, 2048 * 360},
        {"packed", [](Src&, Dst& d) { d.eFormat = VX_CAPTURE_FMT_ABGR8888; }, kOk, 0},
        {"rotation 45", [](Src&, Dst& d) { d.u32RotateAngle = 45; }, kBadRotation, 0},
        {"planes past the buffer", [](Src& s, Dst&) { s.u32PlaneOffset1 = 4u << 20; },
         kBufferTooSmall, 0},
        {"live source unconfigured", [](Src& s, Dst&) { s.u32Param32 = 1; }, kNotConfigured, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Src s = {};
        s.u32Width = 1280;
        s.u32Height = 720;
        s.eFormat = VX_CAPTURE_FMT_NV12;
        s.s32BufferFd = src.fd();
        s.s32BufferFd2 = -1;
        Dst d = {};
        d.u32Width = 640;
        d.u32Height = 360;
        d.eFormat = VX_CAPTURE_FMT_NV21;
        d.s32BufferFd = dst.fd();
        d.s32BufferFd2 = -1;
        c.mutate(s, d);
        VX_CAPTURE_PlaneOffset_s planes = {{0xFFFF, 0xFFFF}};
        EXPECT_EQ(VX_CAPTURE_SetCaptureFrameInfo(id, &s, &d, &planes), c.status);
        EXPECT_EQ(planes.u32Offset[1], c.status == kOk ? c.chroma : 0xFFFF);
    }
}

// A live frame drawn over earlier ones in the same buffer is the frame drawn afresh.
TEST(PatternFrames, RedrawnFramesEqualFreshOnesAndShowTheClock) {
    const struct {
        uint32_t format, srcW, srcH;
        Rect crop;
        uint32_t w, h, rotation;
    } cases[] = {
        {VX_CAPTURE_FMT_NV12, 1920, 1080, {0, 0, 1920, 1080}, 1280, 720, 0},
        {VX_CAPTURE_FMT_NV21, 1920, 1080, {161, 91, 1600, 900}, 362, 642, 90},
        {VX_CAPTURE_FMT_YUYV, 1280, 720, {0, 0, 1280, 720}, 1000, 562, 180},
        {VX_CAPTURE_FMT_ARGB8888, 720, 480, {3, 5, 701, 471}, 250, 374, 270},
        {VX_CAPTURE_FMT_NV16, 3840, 2160, {0, 0, 3840, 2160}, 960, 540, 0},
        {VX_CAPTURE_FMT_RGB565, 640, 360, {0, 0, 640, 360}, 1282, 720, 0},
    };
    // Consecutive frames, then a jump that takes the marker far away.
    const PatternClock clocks[] = {{41, 1234}, {42, 1251}, {43, 1268}, {900, 15001}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.format * 1000 + c.rotation);
        Job job;
        job.srcWidth = c.srcW;
        job.srcHeight = c.srcH;
        job.crop = c.crop;
        job.dstFormat = findVxFormat(c.format);
        job.dstWidth = c.w;
        job.dstHeight = c.h;
        job.rotation = c.rotation;
        ASSERT_TRUE(computeFrameLayout(*job.dstFormat, c.w, c.h, 0, &job.dstLayout));
        const FrameLayout& l = job.dstLayout;
        MemBuffer buffer(l.frameStride);
        job.dstBuffer = importBuffer(buffer.fd());
        BufferPicture shown;
        std::vector<uint8_t> previous;
        for (const PatternClock& clock : clocks) {
            ASSERT_EQ(produceFrame(job, 0, clock, &shown), 0u);
            std::vector<uint8_t> drawn(buffer.data(), buffer.data() + l.lumaSize + l.chromaSize);
            std::vector<uint8_t> fresh(drawn.size(), 0);
            const bool turned = c.rotation == 90 || c.rotation == 270;
            ArgbImage image, rotated;
            image.resize(turned ? c.h : c.w, turned ? c.w : c.h);
            renderPattern(c.srcW, c.srcH, c.crop, clock, &image);
            rotate(image, c.rotation, &rotated);
            ASSERT_TRUE(writeFrame(*job.dstFormat, rotated,
                                   FrameView{fresh.data(), fresh.data() + l.chromaOffset, l.pitch}));
            EXPECT_TRUE(drawn == fresh) << "frame " << clock.frameNumber;
            EXPECT_TRUE(drawn != previous) << "frame " << clock.frameNumber;
            previous = std::move(drawn);
        }
    }
}

using ServiceOnEmulator = SubHalTest;

TEST_F(ServiceOnEmulator, ThirtyThirdOpenFailsCleanlyAndCloseFreesItsSlot) {
    setenv("CAPTURE_SUBHAL_PATH", CAPTURE_EMULATOR_LIBRARY, 1);
    setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 1);
    ::android::sp<ICapture> service = new implementation::Capture();
    ASSERT_EQ(service->initLib(), CaptureReturn::SUCCESS);
    CaptureReturn status = CaptureReturn::FAIL;
    int32_t opened = -1;
    auto open = [&] {
        service->open([&](CaptureReturn r, int32_t id) {
            status = r;
            opened = id;
        });
    };
    for (int i = 0; i < 32; ++i) {
        open();
        ASSERT_EQ(status, CaptureReturn::SUCCESS);
        EXPECT_EQ(opened, kBase + i);
    }
    // The hardware refuses (busy) and hands out nothing: an invalid identifier to the client.
    open();
    EXPECT_EQ(status, CaptureReturn::INVALID_CAPTURE_ID);
    ASSERT_EQ(service->close(kBase + 17), CaptureReturn::SUCCESS);
    EXPECT_EQ(service->close(kBase + 17), CaptureReturn::INVALID_CAPTURE_ID);
    open();
    EXPECT_EQ(status, CaptureReturn::SUCCESS);
    EXPECT_EQ(opened, kBase + 17) << "the lowest free slot";
}

std::mutex gLock;
std::condition_variable gArrived;
std::vector<uint32_t> gDelivered;  // the buffer index of every completion

int recordCompletion(int, unsigned int, void* doneInfo, void*) {
    std::lock_guard<std::mutex> guard(gLock);
    gDelivered.push_back(static_cast<VX_CAPTURE_CaptureDoneInfo_s*>(doneInfo)->index);
    gArrived.notify_all();
    return 0;
}

// Hands every buffer straight back, as a client that keeps up does.
int returnAtOnce(int captureId, unsigned int reserved, void* doneInfo, void* sequenceIdRef) {
    recordCompletion(captureId, reserved, doneInfo, sequenceIdRef);
    return static_cast<int>(VX_CAPTURE_FrameProcessDone(
        captureId, static_cast<VX_CAPTURE_CaptureDoneInfo_s*>(doneInfo)->index));
}

// Unregisters and stops its own stream: the hardware must not wait for the entry to return.
int stopFromCompletion(int captureId, unsigned int reserved, void* doneInfo, void* ref) {
    recordCompletion(captureId, reserved, doneInfo, ref);
    VX_CAPTURE_UnRegisterCallback(captureId, nullptr);
    return static_cast<int>(VX_CAPTURE_CaptureStop(captureId));
}

std::vector<uint32_t> delivered() {
    std::lock_guard<std::mutex> guard(gLock);
    return gDelivered;
}

bool waitDelivered(size_t n) {
    std::unique_lock<std::mutex> held(gLock);
    return gArrived.wait_for(held, 5s, [&] { return gDelivered.size() >= n; });
}

class StreamTest : public SubHalTest {
protected:
    void SetUp() override {
        SubHalTest::SetUp();
        gDelivered.clear();
        ASSERT_TRUE(computeFrameLayout(*findVxFormat(VX_CAPTURE_FMT_NV12), 320, 180, 0, &layout));
    }

    // A live NV12 320x180 capture at 240 fps into a ring of `frames`, streaming to `entry`.
    int32_t start(uint32_t frames, VX_CAPTURE_Callback entry) {
        buffer = std::make_unique<MemBuffer>(size_t{layout.frameStride} * frames);
        int32_t id = openInstance();
        Info info = liveInfo(1920, 1080, 320, 180, VX_CAPTURE_FMT_NV12, buffer->fd(), 240);
        EXPECT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), 0u);
        VX_CAPTURE_CallbackInputParams_s params = {};
        params.pfnCallback = entry;
        params.u32Flag = 1;
        params.pu32SequenceId = &sequence;
        EXPECT_EQ(VX_CAPTURE_RegisterCallback(id, &params, nullptr), 0u);
        EXPECT_EQ(VX_CAPTURE_CaptureStart(id), 0u);
        return id;
    }

    std::vector<uint8_t> frame(uint32_t k) const {
        const uint8_t* p = buffer->data() + size_t{k} * layout.frameStride;
        return {p, p + layout.lumaSize + layout.chromaSize};
    }

    InstanceStats stats(int32_t id) {
        InstanceStats s;
        EXPECT_TRUE(getInstanceStats(id, &s));
        return s;
    }

    uint32_t sequence = 1;
    FrameLayout layout;
    std::unique_ptr<MemBuffer> buffer;
};

TEST_F(StreamTest, HeldBuffersAreNeitherWrittenNorReusedAndDropsAreCounted) {
    int32_t id = start(3, recordCompletion);  // returns nothing
    ASSERT_TRUE(waitDelivered(3));
    std::vector<uint8_t> held[3] = {frame(0), frame(1), frame(2)};
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(delivered().size(), 3u);
    EXPECT_EQ(stats(id).held, 3u);
    EXPECT_GT(stats(id).dropped, 5u) << "every frame while all buffers are held is dropped";
    for (uint32_t k = 0; k < 3; ++k) EXPECT_EQ(frame(k), held[k]) << "buffer " << k;

    ASSERT_EQ(VX_CAPTURE_FrameProcessDone(id, 1), 0u);
    ASSERT_TRUE(waitDelivered(4));
    EXPECT_EQ(delivered()[3], 1u) << "only the returned buffer is reused";
    EXPECT_NE(frame(1), held[1]);
    EXPECT_EQ(frame(0), held[0]);
    EXPECT_EQ(frame(2), held[2]);
    EXPECT_EQ(VX_CAPTURE_FrameProcessDone(id, 3), static_cast<uint32_t>(kBadParameter));
    // Completions stop at unregistration (capturectl conformance checks that); the stream does not.
    ASSERT_EQ(VX_CAPTURE_UnRegisterCallback(id, nullptr), 0u);
    EXPECT_TRUE(stats(id).streaming);
}

TEST_F(StreamTest, PeriodsWithoutAFrameAreDroppedAndFramesAfterTheirPeriodLate) {
    setFrameDelayMs(6);  // longer than the 4.2 ms period: every frame misses its period
    int32_t id = start(8, returnAtOnce);
    ASSERT_TRUE(waitDelivered(10));
    ASSERT_EQ(VX_CAPTURE_CaptureStop(id), 0u);
    InstanceStats s = stats(id);
    EXPECT_EQ(s.late, s.produced);
    // Each frame takes at least 1.4 periods; the periods between get no frame.
    EXPECT_GE(s.dropped, s.produced / 3) << s.produced;
}

TEST_F(StreamTest, CompletionEntryMayStopItsOwnStream) {
    int32_t id = start(8, stopFromCompletion);
    ASSERT_TRUE(waitDelivered(1));
    std::this_thread::sleep_for(60ms);
    EXPECT_FALSE(stats(id).streaming);
    EXPECT_EQ(delivered().size(), 1u);
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u) << "the instance can stream again";
}

}  // namespace
}  // namespace emulator_test
