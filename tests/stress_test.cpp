// All 32 instances get frames from the sub-HAL double's threads while other threads start, stop,
// take single shots and deliver PQ notifications (the emulator's soak test swaps callbacks too).
// No frame may reach a callback after the stopCapture that removed it has returned; an installed
// callback must see every frame.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <random>

#include "Doubles.h"
#include "PqLink.h"

namespace capture_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using StressTest = ServiceTest;

// Slots between a startCapture and the return of their stopCapture: frames may only arrive there.
std::array<std::atomic<bool>, kMaxCaptureSlots> gActive{};
std::atomic<uint64_t> gLateFrames{0};

class ChurnCallback : public ICaptureCallback {
public:
    explicit ChurnCallback(int32_t id) : mId(id) {}
    Return<void> onNotify(CaptureEventNotify, const CaptureCallbackParams& params) override {
        const bool late = !gActive[slotOf(mId)] || params.captureId != mId;
        // Linger now and then: a delivery still running when stopCapture returns is late too.
        if (params.index == 0) std::this_thread::sleep_for(microseconds(20));
        gLateFrames += late || !gActive[slotOf(mId)];
        return Void();
    }

private:
    const int32_t mId;
};

TEST_F(StressTest, StreamingSurvivesConcurrentControl) {
    constexpr int kStable = 16;  // started once and left alone; the other sixteen are churned
    setLogLevel(32);             // refusals only
    ASSERT_NO_FATAL_FAILURE(loadLibrary());
    for (int s = 0; s < kMaxCaptureSlots; ++s) ASSERT_EQ(kCaptureIdBase + s, openInstance());
    FakePq::install()->info = capturePointInfo(1000, 2, {{1, 5}, {2, 6}});
    std::array<sp<RecordingCallback>, kStable> stable;
    for (int s = 0; s < kStable; ++s) {
        stable[s] = new RecordingCallback();
        gActive[s] = true;
        ASSERT_EQ(CaptureReturn::SUCCESS, service->startCapture(kCaptureIdBase + s, stable[s]));
    }

    // Churned callbacks live to the end: ThreadSanitizer cannot see RefBase's counts.
    std::mutex keepMutex;
    std::vector<sp<ChurnCallback>> keep;
    const auto churnCallback = [&](int32_t id) {
        std::lock_guard<std::mutex> lock(keepMutex);
        return keep.emplace_back(new ChurnCallback(id));
    };
    const auto deadline = Clock::now() + std::chrono::seconds(1);
    std::vector<std::thread> threads;
    const auto spawn = [&](unsigned seed, std::function<void(std::mt19937&)> step) {
        threads.emplace_back([deadline, seed, step] {
            std::mt19937 rng(seed);
            while (Clock::now() < deadline) step(rng);
        });
    };

    // Four controllers, four churned slots each: start-stop rounds on PQ streams, single shots.
    for (int first = kStable; first < kMaxCaptureSlots; first += 4) {
        spawn(first, [&, first](std::mt19937& rng) {
            for (int s = first; s < first + 4; ++s) {
                const int32_t id = kCaptureIdBase + s;
                mPqStreamInfo[s].pqId = s - kStable;
                mPqStreamInfo[s].capturePoint = 2 + s % 7;
                gActive[s] = true;
                EXPECT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, churnCallback(id)));
                std::this_thread::sleep_for(microseconds(rng() % 2000));
                if (rng() % 2 == 0) {
                    EXPECT_EQ(CaptureReturn::SUCCESS,
                              service->captureOnceWithCallback(id, churnCallback(id)));
                    std::this_thread::sleep_for(microseconds(rng() % 1000));
                }
                EXPECT_EQ(CaptureReturn::SUCCESS, service->stopCapture(id));
                gActive[s] = false;
            }
        });
    }
    // The stable slots' frames, and frames racing the churned slots' stops.
    std::array<uint32_t, kStable> fired{};
    spawn(8, [&](std::mt19937&) {
        for (int s = 0; s < kStable; ++s) {
            EXPECT_EQ(0, fake_subhal::fireCallback(kCaptureIdBase + s, doneInfo(fired[s]++ % 8)));
        }
    });
    std::atomic<uint64_t> churnedFrames{0};
    spawn(9, [&](std::mt19937& rng) {
        const int32_t id = kCaptureIdBase + kStable + rng() % 16;
        churnedFrames += fake_subhal::fireCallback(id, doneInfo(rng() % 8)) == 0;
    });
    // The PQ service's notifications read the slot bindings the controllers change.
    PqPayload payload;
    for (uint8_t k = 0; k < 7; ++k)
        payload.info(k, 4000, 2, 1).window(k, 0, k, 11).window(k, 1, 3, 9);
    const hidl_vec<uint8_t> bytes(payload.bytes);
    sp<IPqOnewayCallback> pqCallback = new PqPerStreamCallback();
    spawn(7, [&](std::mt19937& rng) {
        pqCallback->onNotify(
            rng() % 18, EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE,
            1456, bytes);
        std::this_thread::sleep_for(microseconds(100));
    });
    for (auto& t : threads) t.join();
    for (int s = 0; s < kStable; ++s) {
        ASSERT_EQ(CaptureReturn::SUCCESS, service->stopCapture(kCaptureIdBase + s));
        gActive[s] = false;
    }

    EXPECT_EQ(0u, gLateFrames.load());
    EXPECT_GT(churnedFrames.load(), 0u);
    for (int s = 0; s < kStable; ++s) {
        const auto events = stable[s]->events();
        EXPECT_GT(fired[s], 0u) << s;
        ASSERT_EQ(fired[s], events.size()) << s;
        for (size_t k = 0; k < events.size(); ++k) ASSERT_EQ(k % 8, events[k].params[1]) << s;
    }
}

}  // namespace
}  // namespace capture_test
