// The picture-quality service's double, a recording client callback, and a one-instance fixture.
#pragma once

#include <hidl/Status.h>
#include <utils/Errors.h>
#include <vendor/quenlark/hardware/pq/1.0/IPq.h>

#include <array>
#include <atomic>
#include <cstring>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "TestUtil.h"

namespace capture_test {

using namespace ::vendor::quenlark::hardware::pq::V1_0;
using ::android::sp;
using ::android::hardware::Return;

// In-process stand-in for the picture-quality service: notes every call in the sub-HAL double's
// journal as "pq.get <pqId>/<index>", "pq.register <pqId>/<event>" or "pq.unregister
// <pqId>/<event>", and answers as scripted.
class FakePq : public IPq {
public:
    enum class Reply { Ok, Refuse, DeadObject };

    static sp<FakePq> instance() {
        static const sp<FakePq> pq = new FakePq();
        return pq;
    }
    // The instance registered as "default"; every test starts with it reset.
    static sp<FakePq> install() {
        EXPECT_EQ(::android::OK, instance()->registerAsService("default"));
        return instance();
    }
    void reset() {
        std::lock_guard<std::mutex> lock(mMutex);
        replies.clear();
        info = ST_CAPTURE_POINT_INFO{};
    }

    // Scripted before the calls they shape: replies by call name (Ok if none), the "get" answer.
    std::map<std::string, Reply> replies;
    ST_CAPTURE_POINT_INFO info{};

    Return<EN_RETURN_VALUE> registerPqOnewayCallback(int32_t pqId, EN_PQ_CALLBACK_EVENT_TYPE type,
                                                     const sp<IPqOnewayCallback>&) override {
        return answer("register", pqId, static_cast<uint32_t>(type));
    }
    Return<EN_RETURN_VALUE> unRegisterPqOnewayCallback(int32_t pqId,
                                                       EN_PQ_CALLBACK_EVENT_TYPE type) override {
        return answer("unregister", pqId, static_cast<uint32_t>(type));
    }
    Return<void> getCapturePointInfo(int32_t pqId, uint32_t index,
                                     getCapturePointInfo_cb reply) override {
        const Reply scripted = note("get", pqId, index);
        if (scripted == Reply::DeadObject) return dead();
        reply(value(scripted), info);  // outside the lock, as a binder reply would be
        return ::android::hardware::Void();
    }

private:
    // What a call to a service whose process died returns.
    static ::android::hardware::Status dead() {
        return ::android::hardware::Status::fromStatusT(::android::DEAD_OBJECT);
    }
    static EN_RETURN_VALUE value(Reply reply) {
        return reply == Reply::Ok ? EN_RETURN_VALUE::EN_RETURN_OK : EN_RETURN_VALUE::EN_RETURN_FAIL;
    }
    Reply note(const std::string& name, int32_t pqId, uint32_t arg) {
        std::lock_guard<std::mutex> lock(mMutex);
        fake_subhal::note("pq." + name + " " + std::to_string(pqId) + "/" + std::to_string(arg));
        return replies.count(name) != 0 ? replies.at(name) : Reply::Ok;
    }
    Return<EN_RETURN_VALUE> answer(const std::string& name, int32_t pqId, uint32_t arg) {
        const Reply scripted = note(name, pqId, arg);
        if (scripted == Reply::DeadObject) return dead();
        return value(scripted);
    }

    std::mutex mMutex;
};

// The capture-point notification payload: seven 208-byte blocks, one per capture-point index.
struct PqPayload {
    PqPayload& info(size_t block, uint32_t budget, uint8_t activeWinNum, uint8_t hwSet) {
        std::memcpy(&bytes[block * 208 + 48], &budget, 4);
        bytes[block * 208 + 52] = activeWinNum;
        bytes[block * 208 + 53] = hwSet;
        return *this;
    }
    PqPayload& window(size_t block, size_t window, uint8_t pqId, uint32_t winTime) {
        bytes[block * 208 + 80 + window * 8] = pqId;
        std::memcpy(&bytes[block * 208 + 84 + window * 8], &winTime, 4);
        return *this;
    }
    std::vector<uint8_t> bytes = std::vector<uint8_t>(7 * 208);
};

// A capture-point reply with the given records, as (stream id, window time).
inline ST_CAPTURE_POINT_INFO capturePointInfo(uint32_t budget, uint8_t activeWinNum,
                                              std::vector<std::pair<uint8_t, uint32_t>> wins) {
    ST_CAPTURE_POINT_INFO info{};
    info.u32RemainBWBudget = budget;
    info.activeWinNum = activeWinNum;
    info.bIsPQHWSet = 1;
    info.winInfo.resize(wins.size());
    for (size_t i = 0; i < wins.size(); ++i) info.winInfo[i] = {wins[i].first, {}, wins[i].second};
    return info;
}

// A callback recording each event with its delivering thread.
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
        // Blocks until a thread of its own has tried the service's callback mutex.
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

// One instance open on the loaded double, the PQ double installed, both journals empty.
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
