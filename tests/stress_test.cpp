// All 32 instances streaming from the sub-HAL double's threads while binder-like threads install
// callbacks, start, stop and take single shots, and the PQ service notifies. Frames must never
// reach a callback after the stopCapture that removed it has returned, and a callback that stays
// installed must see every frame the sub-HAL reported. Run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "CaptureLog.h"
#include "FakePq.h"
#include "PqLink.h"
#include "RecordingCallback.h"
#include "TestUtil.h"

namespace capture_test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStableSlots = 16;  // started once, left alone until the end
constexpr int kControllers = 4;   // each owns a quarter of the other 16 slots
constexpr int kChurnSlots = kMaxCaptureSlots - kStableSlots;
constexpr int kPerController = kChurnSlots / kControllers;
constexpr auto kChurnTime = std::chrono::milliseconds(1000);

// Slots that are between a startCapture and the return of their stopCapture. Frames may only
// arrive for slots marked here.
std::array<std::atomic<bool>, kMaxCaptureSlots> gActive{};
std::atomic<uint64_t> gLateFrames{0};
std::atomic<uint64_t> gWrongIdFrames{0};

class ChurnCallback : public ICaptureCallback {
public:
    explicit ChurnCallback(int32_t id) : mId(id) {}
    Return<void> onNotify(CaptureEventNotify, const CaptureCallbackParams& params) override {
        if (params.captureId != mId) {
            ++gWrongIdFrames;
            return Void();
        }
        const int slot = slotOf(mId);
        bool late = !gActive[slot];
        // Linger now and then: a delivery still running when stopCapture returns is as late as
        // one that starts after it.
        if (++frames % 8 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(20));
            late = late || !gActive[slot];
        }
        if (late) ++gLateFrames;
        return Void();
    }
    std::atomic<uint64_t> frames{0};

private:
    const int32_t mId;
};

class StressTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        // Refusals only: a trace per frame would dominate the run.
        __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 32u, __ATOMIC_RELAXED);
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        for (int s = 0; s < kMaxCaptureSlots; ++s) {
            ids[s] = openInstance();
            ASSERT_EQ(kCaptureIdBase + s, ids[s]);
        }
        pq = FakePq::install();
        pq->setCapturePointInfo(EN_RETURN_VALUE::EN_RETURN_OK,
                                makeCapturePointInfo(1000, 2, 1, {{1, 5}, {2, 6}}));
    }

    // Callbacks live until the end of the test. The platform's reference counting is not built
    // for ThreadSanitizer, which would take a last release on one thread after a use on another
    // for a race.
    sp<ChurnCallback> makeCallback(int32_t id) {
        sp<ChurnCallback> cb = new ChurnCallback(id);
        std::lock_guard<std::mutex> lock(keepMutex);
        keep.push_back(cb);
        return cb;
    }

    // Start and stop over and over; single shots in between.
    void controller(int first, int count, unsigned seed) {
        std::mt19937 rng(seed);
        while (Clock::now() < deadline) {
            for (int s = first; s < first + count; ++s) {
                const int32_t id = ids[s];
                mPqStreamInfo[s].pqId = s - kStableSlots;
                mPqStreamInfo[s].capturePoint = 2 + static_cast<uint32_t>(s % 7);
                sp<ChurnCallback> cb = makeCallback(id);
                gActive[s] = true;
                if (service->startCapture(id, cb) != CaptureReturn::SUCCESS) ++failures;
                std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
                if (rng() % 2 == 0) {
                    sp<ChurnCallback> once = makeCallback(id);
                    if (service->captureOnceWithCallback(id, once) != CaptureReturn::SUCCESS) {
                        ++failures;
                    }
                    service->frameProcessDone(id, rng() % 8);
                    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 1000));
                }
                if (service->stopCapture(id) != CaptureReturn::SUCCESS) ++failures;
                gActive[s] = false;
                ++cycles;
            }
        }
    }

    void callbackSwapper(unsigned seed) {
        std::mt19937 rng(seed);
        while (Clock::now() < deadline) {
            const int s = kStableSlots + static_cast<int>(rng() % kChurnSlots);
            service->setCallback(ids[s], makeCallback(ids[s]));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }

    // Frames the sub-HAL already had under way when a stop came in. They come from the double's
    // worker, which CaptureStop does not join, so only the service's own locking keeps them from
    // reaching a callback that stopCapture removed.
    void framesInFlight(unsigned seed) {
        std::mt19937 rng(seed);
        VX_CAPTURE_CaptureDoneInfo_s info{};
        info.Y_Size = 64 * 32;
        info.C_Size = 64 * 16;
        while (Clock::now() < deadline) {
            const int s = kStableSlots + static_cast<int>(rng() % kChurnSlots);
            info.index = rng() % 8;
            if (fake_subhal::fireCallback(ids[s], info) == 0) ++inFlight;
        }
    }

    void pqNotifier(unsigned seed) {
        std::mt19937 rng(seed);
        sp<PqPerStreamCallback> own = new PqPerStreamCallback();
        PqPayload payload;
        for (size_t k = 0; k < 7; ++k) {
            payload.setInfo(k, 1920, 1080, 3, 1, 4000 + static_cast<uint32_t>(k), 2, 1);
            payload.setWindow(k, 0, static_cast<uint8_t>(k), 11).setWindow(k, 1, 3, 22);
        }
        const auto bytes = payload.bytes();
        while (Clock::now() < deadline) {
            const int32_t pqId = static_cast<int32_t>(rng() % 18);
            own->onNotify(pqId,
                          EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE,
                          PqPayload::kSize, bytes);
            // Also through whatever the service registered with the PQ side right now.
            for (const auto& cb : pq->callbacks()) {
                cb->onNotify(
                    pqId, EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE,
                    PqPayload::kSize, bytes);
            }
            ++notifications;
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }

    std::array<int32_t, kMaxCaptureSlots> ids{};
    sp<FakePq> pq;
    Clock::time_point deadline;
    std::atomic<uint64_t> failures{0};
    std::atomic<uint64_t> cycles{0};
    std::atomic<uint64_t> notifications{0};
    std::atomic<uint64_t> inFlight{0};
    std::mutex keepMutex;
    std::vector<sp<ChurnCallback>> keep;
};

TEST_F(StressTest, StreamingSurvivesConcurrentControl) {
    const auto started = Clock::now();
    fake_subhal::setAutoStream(true, 1000);

    std::array<sp<RecordingCallback>, kStableSlots> stable;
    for (int s = 0; s < kStableSlots; ++s) {
        stable[s] = new RecordingCallback();
        gActive[s] = true;
        ASSERT_EQ(CaptureReturn::SUCCESS, service->startCapture(ids[s], stable[s]));
    }

    deadline = Clock::now() + kChurnTime;
    std::vector<std::thread> threads;
    for (int c = 0; c < kControllers; ++c) {
        threads.emplace_back(
            [this, c] { controller(kStableSlots + c * kPerController, kPerController, 17u + c); });
    }
    threads.emplace_back([this] { callbackSwapper(5u); });
    threads.emplace_back([this] { callbackSwapper(6u); });
    threads.emplace_back([this] { pqNotifier(7u); });
    threads.emplace_back([this] { framesInFlight(8u); });
    for (auto& t : threads) t.join();

    for (int s = 0; s < kStableSlots; ++s) {
        ASSERT_EQ(CaptureReturn::SUCCESS, service->stopCapture(ids[s]));
        gActive[s] = false;
    }

    EXPECT_EQ(0u, gLateFrames.load());
    EXPECT_EQ(0u, gWrongIdFrames.load());
    EXPECT_EQ(0u, failures.load());
    EXPECT_GT(cycles.load(), 16u);
    EXPECT_GT(notifications.load(), 0u);
    EXPECT_GT(inFlight.load(), 0u);
    for (int s = 0; s < kStableSlots; ++s) {
        SCOPED_TRACE(s);
        // The stream was joined by stopCapture: these totals are final.
        const uint64_t fired = fake_subhal::framesFired(ids[s]);
        EXPECT_GT(fired, 0u);
        EXPECT_EQ(fired, fake_subhal::framesDelivered(ids[s]));
        EXPECT_EQ(fired, stable[s]->count());
        for (const auto& e : stable[s]->events()) {
            if (e.params.captureId != ids[s] || e.thread == std::this_thread::get_id()) {
                ADD_FAILURE() << "frame for 0x" << std::hex << e.params.captureId;
                break;
            }
        }
    }
    for (int s = 0; s < kMaxCaptureSlots; ++s) EXPECT_FALSE(fake_subhal::isStreaming(ids[s]));
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(20));
}

}  // namespace
}  // namespace capture_test
