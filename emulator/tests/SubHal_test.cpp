// The emulated sub-HAL's streaming thread driven through its VX_CAPTURE_* entries.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "EmulatorTestUtil.h"
#include "Instance.h"
#include "capture_emulator/Emulator.h"
#include "capture_emulator/FrameLayout.h"

namespace emulator_test {
namespace {

using namespace capture_emulator;

std::mutex gLock;
std::condition_variable gArrived;
size_t gDelivered = 0;

// Hands every buffer straight back, as a client that keeps up does.
int returnAtOnce(int captureId, unsigned int, void* doneInfo, void*) {
    {
        std::lock_guard<std::mutex> guard(gLock);
        ++gDelivered;
        gArrived.notify_all();
    }
    return static_cast<int>(VX_CAPTURE_FrameProcessDone(
        captureId, static_cast<VX_CAPTURE_CaptureDoneInfo_s*>(doneInfo)->index));
}

TEST(StreamTest, PeriodsWithoutAFrameAreDroppedAndFramesAfterTheirPeriodLate) {
    resetForTest();
    setFrameDelayMs(6);  // longer than the 4.2 ms period of 240 fps: every frame misses its period
    FrameLayout layout;
    ASSERT_TRUE(computeFrameLayout(*findVxFormat(VX_CAPTURE_FMT_NV12), 320, 180, 0, &layout));
    MemBuffer buffer(size_t{layout.frameStride} * 8);
    const int32_t id = openInstance();
    VX_CAPTURE_CaptureInfo_s info =
        liveInfo(1920, 1080, 320, 180, VX_CAPTURE_FMT_NV12, buffer.fd(), 240);
    ASSERT_EQ(VX_CAPTURE_SetCaptureInfo(id, &info), 0u);
    uint32_t sequence = 1;
    VX_CAPTURE_CallbackInputParams_s params = {};
    params.pfnCallback = returnAtOnce;
    params.u32Flag = 1;
    params.pu32SequenceId = &sequence;
    ASSERT_EQ(VX_CAPTURE_RegisterCallback(id, &params, nullptr), 0u);
    ASSERT_EQ(VX_CAPTURE_CaptureStart(id), 0u);
    {
        std::unique_lock<std::mutex> held(gLock);
        ASSERT_TRUE(
            gArrived.wait_for(held, std::chrono::seconds(5), [] { return gDelivered >= 10; }));
    }
    ASSERT_EQ(VX_CAPTURE_CaptureStop(id), 0u);
    InstanceStats s;
    ASSERT_TRUE(getInstanceStats(id, &s));
    EXPECT_EQ(s.late, s.produced);
    // Each frame takes at least 1.4 periods; the periods between get no frame.
    EXPECT_GE(s.dropped, s.produced / 3) << s.produced;
    resetForTest();
}

}  // namespace
}  // namespace emulator_test
