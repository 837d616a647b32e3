// In-process stand-in for the picture-quality service (IPq): records every call with its
// arguments, answers with scripted results, and keeps the callbacks registered with it so that
// tests can deliver notifications through them.
#pragma once

#include <vendor/quenlark/hardware/pq/1.0/IPq.h>
#include <vendor/quenlark/hardware/pq/1.0/IPqOnewayCallback.h>
#include <vendor/quenlark/hardware/pq/1.0/types.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace capture_test {

using ::vendor::quenlark::hardware::pq::V1_0::EN_PQ_CALLBACK_EVENT_TYPE;
using ::vendor::quenlark::hardware::pq::V1_0::EN_RETURN_VALUE;
using ::vendor::quenlark::hardware::pq::V1_0::IPq;
using ::vendor::quenlark::hardware::pq::V1_0::IPqOnewayCallback;
using ::vendor::quenlark::hardware::pq::V1_0::ST_CAPTURE_POINT_INFO;
using ::vendor::quenlark::hardware::pq::V1_0::ST_WIN_INFO;

class FakePq : public IPq {
public:
    enum class Method { Register, Unregister, GetCapturePointInfo };

    struct Call {
        Method method;
        int32_t pqId = 0;
        // Register / Unregister: the event type; GetCapturePointInfo: the capture-point index.
        uint32_t arg = 0;
        bool withCallback = false;  // Register: a non-null callback was passed
        std::thread::id thread;
    };

    // The process's one instance, registered as "default" and reset. Later calls reset it again.
    static ::android::sp<FakePq> install();
    // Drops the registration (the instance stays alive while referenced).
    static void uninstall();

    void reset();
    std::vector<Call> calls() const;
    std::vector<Call> callsOf(Method method) const;
    size_t count(Method method) const;

    void setResult(Method method, EN_RETURN_VALUE result);
    // The call fails in transport (the Return carries a transaction error; no reply is sent).
    void setTransportFailure(Method method, bool fail);
    // Reply of getCapturePointInfo; without one it answers EN_RETURN_FAIL with a zeroed info.
    void setCapturePointInfo(EN_RETURN_VALUE ret, const ST_CAPTURE_POINT_INFO& info);

    // Callbacks currently registered, by PQ id.
    ::android::sp<IPqOnewayCallback> callbackFor(int32_t pqId) const;
    std::vector<::android::sp<IPqOnewayCallback>> callbacks() const;

    // IPq
    ::android::hardware::Return<EN_RETURN_VALUE> registerPqOnewayCallback(
        int32_t pqId, EN_PQ_CALLBACK_EVENT_TYPE eventType,
        const ::android::sp<IPqOnewayCallback>& callback) override;
    ::android::hardware::Return<EN_RETURN_VALUE> unRegisterPqOnewayCallback(
        int32_t pqId, EN_PQ_CALLBACK_EVENT_TYPE eventType) override;
    ::android::hardware::Return<void> getCapturePointInfo(int32_t pqId, uint32_t capturePointIndex,
                                                          getCapturePointInfo_cb _hidl_cb) override;

private:
    static constexpr size_t kMethodCount = 3;

    mutable std::mutex mMutex;
    std::vector<Call> mCalls;
    EN_RETURN_VALUE mResults[kMethodCount] = {};
    bool mTransportFailure[kMethodCount] = {};
    std::optional<std::pair<EN_RETURN_VALUE, ST_CAPTURE_POINT_INFO>> mInfoReply;
    std::map<int32_t, ::android::sp<IPqOnewayCallback>> mCallbacks;
    // Every callback stays referenced until reset(), so that none is destroyed on whichever
    // thread happened to drop it last (the platform's reference counting is invisible to
    // ThreadSanitizer).
    std::vector<::android::sp<IPqOnewayCallback>> mEverRegistered;
};

// Builder of the capture-point notification payload: seven 208-byte little-endian blocks.
class PqPayload {
public:
    static constexpr size_t kBlockSize = 208;
    static constexpr size_t kSize = 7 * kBlockSize;

    PqPayload();
    // Capture-point block `index` (0..6).
    PqPayload& setInfo(size_t index, uint16_t w, uint16_t h, int32_t fmt, uint8_t hwEngine,
                       uint32_t remainBwBudget, uint8_t activeWinNum, uint8_t pqHwSet);
    PqPayload& setWindow(size_t index, size_t window, uint8_t pqId, uint32_t winTime);
    // Raw byte access, for the parts of a block the builder does not name.
    PqPayload& setByte(size_t offset, uint8_t value);
    // The payload, cut or padded to `size` bytes (default: the full 1456).
    ::android::hardware::hidl_vec<uint8_t> bytes(size_t size = kSize) const;

private:
    void put32(size_t offset, uint32_t value);
    std::vector<uint8_t> mBytes;
};

// An ST_CAPTURE_POINT_INFO reply with the given windows (ids and times).
ST_CAPTURE_POINT_INFO makeCapturePointInfo(uint32_t remainBwBudget, uint8_t activeWinNum,
                                           uint8_t pqHwSet,
                                           const std::vector<std::pair<uint8_t, uint32_t>>& wins);

}  // namespace capture_test
