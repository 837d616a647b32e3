// The emulated picture-quality service (IPq): the video streams the platform shows, where their
// capture points stand, and the capture-point notifications of streams that are being captured.
#pragma once

#include <hidl/HidlSupport.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/pq/1.0/IPq.h>

#include <map>
#include <mutex>
#include <vector>

namespace capture_emulator {

using ::vendor::quenlark::hardware::pq::V1_0::EN_PQ_CALLBACK_EVENT_TYPE;
using ::vendor::quenlark::hardware::pq::V1_0::EN_RETURN_VALUE;
using ::vendor::quenlark::hardware::pq::V1_0::IPq;
using ::vendor::quenlark::hardware::pq::V1_0::IPqOnewayCallback;
using ::vendor::quenlark::hardware::pq::V1_0::ST_CAPTURE_POINT_INFO;

constexpr int kPqStreamCount = 16;
constexpr uint32_t kPqCapturePointCount = 7;  // capture points 2..8
constexpr uint32_t kPqBlockSize = 208;
constexpr uint32_t kPqPayloadSize = kPqCapturePointCount * kPqBlockSize;
constexpr uint32_t kWinInfoMaxCount = 16;

class EmulatedPq : public IPq {
public:
    EmulatedPq();

    ::android::hardware::Return<EN_RETURN_VALUE> registerPqOnewayCallback(
        int32_t pqId, EN_PQ_CALLBACK_EVENT_TYPE eventType,
        const ::android::sp<IPqOnewayCallback>& callback) override;
    ::android::hardware::Return<EN_RETURN_VALUE> unRegisterPqOnewayCallback(
        int32_t pqId, EN_PQ_CALLBACK_EVENT_TYPE eventType) override;
    ::android::hardware::Return<void> getCapturePointInfo(int32_t pqId, uint32_t capturePointIndex,
                                                          getCapturePointInfo_cb _hidl_cb) override;

    // A capture instance announces the stream it captures (its source timing).
    void setStream(int pqId, uint32_t width, uint32_t height, uint32_t fps, uint8_t engine);
    void setBandwidthInUse(uint64_t bytesPerSecond);
    // Sends the 1456-byte capture-point payload to the stream's registered callback, if any.
    void notifyCapturePoints(int pqId);
    // The raw payload, as notifyCapturePoints sends it.
    std::vector<uint8_t> capturePointPayload();
    bool hasCallback(int pqId);

private:
    struct Stream {
        uint32_t width, height, fps;
        uint8_t engine;
    };
    ST_CAPTURE_POINT_INFO infoLocked(uint32_t index) const;

    std::mutex mLock;
    std::map<int, Stream> mStreams;
    ::android::sp<IPqOnewayCallback> mCallbacks[kPqStreamCount];
    uint64_t mBandwidthInUse = 0;
};

// The one emulated service of the process (created on first use).
::android::sp<EmulatedPq> emulatedPq();

}  // namespace capture_emulator
