// A callback recording each event with its delivering thread, and a one-instance service fixture.
#pragma once

#include <array>
#include <atomic>
#include <cstring>
#include <future>
#include <thread>

#include "FakePq.h"
#include "TestUtil.h"

namespace capture_test {

class RecordingCallback : public ICaptureCallback {
public:
    struct Event {
        CaptureEventNotify notify;
        std::array<uint32_t, 9> params;  // the nine words of CaptureCallbackParams
        std::thread::id thread;
        bool callbackMutexHeld;  // by anyone, seen from another thread; only with probeLock
    };
    Return<void> onNotify(CaptureEventNotify notify, const CaptureCallbackParams& params) override {
        static_assert(sizeof(params) == 36, "nine 32-bit fields");
        const bool held = probeLock && std::async(std::launch::async, [] {
                                           if (!mCallbackMutex.try_lock()) return true;
                                           mCallbackMutex.unlock();
                                           return false;
                                       }).get();
        std::lock_guard<std::mutex> lock(mMutex);
        mEvents.push_back({notify, {}, std::this_thread::get_id(), held});
        std::memcpy(mEvents.back().params.data(), &params, sizeof(params));
        if (failTransport) return ::android::hardware::Status::fromStatusT(::android::DEAD_OBJECT);
        return Void();
    }
    std::vector<Event> events() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }
    std::atomic<bool> failTransport{false};  // reply as a client that died
    std::atomic<bool> probeLock{false};      // record whether mCallbackMutex is held meanwhile

private:
    mutable std::mutex mMutex;
    std::vector<Event> mEvents;
};

// A finished frame whose buffer k has its planes at 0x10000 * (k + 1) and 0x1000 further on.
inline VX_CAPTURE_CaptureDoneInfo_s doneInfo(uint32_t index, uint32_t errorNo = 0) {
    VX_CAPTURE_CaptureDoneInfo_s info{index, 0x1000, 0x800, {}, errorNo};
    for (uint32_t k = 0; k < 8; ++k) info.stBuf[k] = {0x10000 * k + 0x10000, 0x10000 * k + 0x11000};
    return info;
}

class SlotTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        id = openInstance();
        slot = slotOf(id);
        pq = FakePq::install();
        fake_subhal::reset();
        log.clear();
    }
    void bindPq(int32_t pqId, CapturePoint point = CapturePoint::PQ_STREAM_PROCESSED) {
        mPqStreamInfo[slot].pqId = pqId;
        mPqStreamInfo[slot].capturePoint = static_cast<int32_t>(point);
    }
    sp<ICaptureCallback> installed() {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        return Capture::hasCallback(slot) ? Capture::mCallback[slot] : nullptr;
    }
    // The registration record the sub-HAL must receive, byte for byte.
    std::vector<uint8_t> registrationRecord(VX_CAPTURE_Callback entry) {
        VX_CAPTURE_CallbackInputParams_s params;
        std::memset(&params, 0, sizeof(params));
        params.pfnCallback = entry;
        params.u32Flag = 1;
        params.pu32SequenceId = &Capture::mCallbackSequeceId[slot];
        const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&params);
        return std::vector<uint8_t>(bytes, bytes + sizeof(params));
    }

    int32_t id = -1;
    int slot = 0;
    sp<FakePq> pq;
    sp<RecordingCallback> cb = new RecordingCallback();
};

}  // namespace capture_test
