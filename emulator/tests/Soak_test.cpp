// Soak: every slot streams on the emulated hardware while other threads open and close, configure,
// query, take single shots, swap callbacks, start and stop, and inject faults through the control
// file, the picture-quality service's death among them; some clients die mid-stream (their calls
// fail as a dead process's do and they hand no buffer back). Every frame handed to the service
// must reach the callback registered for it exactly once or be counted as stale; every buffer a
// live client got must go back; descriptors must not grow.
// CAPTURE_SOAK_SECONDS sets the length (2 s by default).
#include <android/log.h>
#include <cutils/native_handle.h>
#include <gtest/gtest.h>
#include <hidl/ServiceManagement.h>
#include <unistd.h>
#include <vendor/quenlark/hardware/pq/1.0/IPq.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <thread>

#include "Capture.h"
#include "CaptureLog.h"
#include "EmulatorTestUtil.h"
#include "capture_emulator/Emulator.h"

namespace emulator_test {
namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::Return;
using ::android::hardware::Void;
using Clock = std::chrono::steady_clock;
constexpr int kSlots = 32;
constexpr int kChurned = 8;  // the last eight slots are opened and closed over and over
constexpr int32_t kBase = 0x73000000;

std::array<std::atomic<uint64_t>, kSlots> gStale{};
std::atomic<uint64_t> gUnclaimed{0};  // frames that found no callback installed
std::atomic<uint64_t> gBadReturns{0};

// The service logs each frame it does not hand on.
void countStale(const struct __android_logger_data*, const char* message) {
    static const char kStale[] = "sequenceId not match, skip onNotify(). captureId: 0x";
    if (const char* id = strstr(message, kStale)) {
        const long slot = strtol(id + sizeof(kStale) - 1, nullptr, 16) - kBase;
        if (slot >= 0 && slot < kSlots) ++gStale[slot];
    } else if (strstr(message, "Callback is NULL.") != nullptr) {
        ++gUnclaimed;
    }
}

// Pipes are left out: ThreadSanitizer starts its symbolizer through two of them the first time
// a suppressed report needs symbols, and nothing under test makes pipes.
auto countOpenFds() {
    long count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        count += std::filesystem::read_symlink(entry.path(), error).string().rfind("pipe:", 0) != 0;
    }
    return count;
}

struct Client : public ICaptureCallback {
    // A client that dies after `lifetime` frames (0: never).
    Client(sp<ICapture> s, uint64_t lifetime) : service(std::move(s)), lifetime(lifetime) {}
    Return<void> onNotify(CaptureEventNotify, const CaptureCallbackParams& p) override {
        const int slot = p.captureId - kBase;
        if (slot >= 0 && slot < kSlots) ++received[slot];
        if (lifetime != 0 && ++seen > lifetime) {
            return ::android::hardware::Status::fromStatusT(::android::DEAD_OBJECT);
        }
        gBadReturns += service->frameProcessDone(p.captureId, p.index) != CaptureReturn::SUCCESS;
        return Void();
    }
    sp<ICapture> service;
    const uint64_t lifetime;
    std::atomic<uint64_t> seen{0};
    std::array<std::atomic<uint64_t>, kSlots> received{};
};

TEST(SoakStressTest, ThirtyTwoStreamsUnderChurnAndFaults) {
    const char* env = getenv("CAPTURE_SOAK_SECONDS");
    const int seconds = env != nullptr ? atoi(env) : 2;
    char control[] = "/tmp/capture-soak-XXXXXX";
    ASSERT_EQ(0, close(mkstemp(control)));
    setenv("CAPTURE_EMU_CONTROL", control, 1);
    setenv("CAPTURE_SUBHAL_PATH", CAPTURE_EMULATOR_LIBRARY, 1);
    setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 1);
    capture_emulator::resetForTest();
    ASSERT_EQ(::android::OK, capture_emulator::registerPqService());
    __android_log_set_logger(countStale);
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 64u, __ATOMIC_RELAXED);

    sp<ICapture> service = new implementation::Capture();
    ASSERT_EQ(CaptureReturn::SUCCESS, service->initLib());
    std::vector<std::unique_ptr<MemBuffer>> buffers;
    std::vector<native_handle_t*> handles;
    for (int s = 0; s < kSlots; ++s) {
        buffers.push_back(std::make_unique<MemBuffer>(320 * 180 * 6));  // four NV12 frames
        handles.push_back(native_handle_create(1, 0));
        handles.back()->data[0] = buffers.back()->fd();
    }
    CaptureInfo info = {};
    info.pqId = info.pqWinId = -1;
    info.srcWidth = 1920;
    info.srcHeight = 1080;
    info.hwEngine = 1;
    info.srcFps = info.dstFps = 60;
    info.dstWidth = 320;
    info.dstHeight = 180;
    info.dstFmt = CaptureFormat::NV12;
    // Closing a slot and opening again gets the same slot back: the lowest free one.
    std::mutex openLock;
    const auto reopen = [&](int slot) {
        int32_t id = -1;
        {
            std::lock_guard<std::mutex> guard(openLock);
            service->close(kBase + slot);
            service->open(
                [&](CaptureReturn r, int32_t i) { id = r == CaptureReturn::SUCCESS ? i : -1; });
        }
        if (id < 0) return false;
        EXPECT_EQ(kBase + slot, id);
        CaptureInfo mine = info;
        mine.dstBuffer = hidl_handle(handles[slot]);
        // The churned slots capture picture-quality streams: their starts and stops talk to the
        // PQ service, which dies now and then.
        if (slot >= kSlots - kChurned) {
            mine.capPoint = CapturePoint::PQ_STREAM_PROCESSED;
            mine.pqId = slot % 4;
        }
        return service->setCaptureInfo(id, mine) == CaptureReturn::SUCCESS;
    };
    // Frames handed to the service per slot, read before each stop (a close forgets them).
    std::array<uint64_t, kSlots> handedOver{};
    const auto stopAndCount = [&](int slot) {
        service->stopCapture(kBase + slot);
        capture_emulator::InstanceStats stats;
        if (capture_emulator::getInstanceStats(kBase + slot, &stats))
            handedOver[slot] += stats.delivered;
    };
    const auto fds = countOpenFds();
    std::vector<sp<Client>> clients;  // kept to the end: every frame is counted on one of them
    std::mutex clientsLock;
    // On the churned slots every third client dies after a few frames.
    const auto newClient = [&](uint64_t lifetime = 0) {
        std::lock_guard<std::mutex> guard(clientsLock);
        return clients.emplace_back(new Client(service, lifetime));
    };
    for (int s = 0; s < kSlots; ++s) {
        ASSERT_TRUE(reopen(s));
        ASSERT_EQ(CaptureReturn::SUCCESS, service->startCapture(kBase + s, newClient()));
    }

    const auto end = Clock::now() + std::chrono::seconds(seconds);
    std::vector<std::thread> threads;
    for (int first = kSlots - kChurned; first < kSlots; first += 4) {
        // Churn: a slot's stream stops, is closed, reopened, reconfigured and started again.
        threads.emplace_back([&, first] {
            std::mt19937 rng(first);
            while (Clock::now() < end) {
                const int slot = first + static_cast<int>(rng() % 4);
                const int32_t id = kBase + slot;
                stopAndCount(slot);
                if (!reopen(slot)) continue;
                if (rng() % 3 == 0) service->captureOnce(id);
                service->startCapture(id, newClient(rng() % 3 == 0 ? 1 + rng() % 8 : 0));
                if (rng() % 2 == 0)
                    service->setCallback(id, newClient());  // later frames are stale
                std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 20));
            }
        });
    }
    threads.emplace_back([&] {  // queries and refused opens against the busy hardware
        setQueryInfo q{
            1920, 1080, CaptureFormat::NV12, 640, 360, CaptureFormat::NV12, 90, 0, 0, 1920,
            1080, 0};
        while (Clock::now() < end) {
            service->getCaptureCapabilityInfo(kBase + 3, q,
                                              [](CaptureReturn, const getQueryInfo&) {});
            std::lock_guard<std::mutex> guard(openLock);
            service->open([](CaptureReturn r, int32_t) { EXPECT_NE(CaptureReturn::SUCCESS, r); });
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    threads.emplace_back([&] {  // faults on the churned slots' next start and configuration
        for (int round = 0; Clock::now() < end; ++round) {
            static const char* const kRounds[] = {"fail CaptureStart 17 1\n",
                                                  "fail SetCaptureInfo 16 1\ndrop-every 7\n",
                                                  "pq-dead\n", "clear\n"};
            std::ofstream(control) << kRounds[round % 4];
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
        }
        std::ofstream(control) << "clear\n";
    });
    for (auto& t : threads) t.join();
    for (int s = 0; s < kSlots; ++s) {
        stopAndCount(s);
        service->close(kBase + s);
    }

    // Each frame reached one callback, or was counted as stale or as finding none installed.
    uint64_t total = 0, stale = 0, handed = 0;
    for (int s = 0; s < kSlots; ++s) {
        uint64_t received = 0;
        for (const auto& c : clients) received += c->received[s];
        EXPECT_LE(received + gStale[s], handedOver[s]) << "slot " << s;
        EXPECT_TRUE(s >= kSlots - kChurned || gStale[s] == 0) << "slot " << s;  // churned only
        total += received;
        stale += gStale[s];
        handed += handedOver[s];
    }
    EXPECT_EQ(handed, total + stale + gUnclaimed);
    std::cout << "soak " << seconds << " s: " << handed << " frames handed over, " << total
              << " delivered, " << stale << " stale, " << gUnclaimed << " with no callback\n";
    EXPECT_GT(total, static_cast<uint64_t>(kSlots * seconds * 10));
    EXPECT_EQ(0u, gBadReturns.load());
    clients.clear();
    EXPECT_EQ(fds, countOpenFds());
    for (native_handle_t* h : handles) native_handle_delete(h);

    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED);
    __android_log_set_logger(__android_log_stderr_logger);
    unlink(control);
    unsetenv("CAPTURE_EMU_CONTROL");
    capture_emulator::resetForTest();
    ::android::hardware::details::unregisterServiceInternal(
        ::vendor::quenlark::hardware::pq::V1_0::IPq::descriptor, "default");
}

}  // namespace
}  // namespace emulator_test
