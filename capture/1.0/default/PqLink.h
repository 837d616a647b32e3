// Link to the picture-quality service: connection, per-stream notifications, capture-point info.
#pragma once

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/capture/1.0/types.h>
#include <vendor/quenlark/hardware/pq/1.0/IPq.h>
#include <vendor/quenlark/hardware/pq/1.0/IPqOnewayCallback.h>

#include <cstdint>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

using ::vendor::quenlark::hardware::pq::V1_0::EN_PQ_CALLBACK_EVENT_TYPE;
using ::vendor::quenlark::hardware::pq::V1_0::EN_RETURN_VALUE;
using ::vendor::quenlark::hardware::pq::V1_0::IPq;
using ::vendor::quenlark::hardware::pq::V1_0::IPqOnewayCallback;
using ::vendor::quenlark::hardware::pq::V1_0::ST_CAPTURE_POINT_INFO;
using ::vendor::quenlark::hardware::pq::V1_0::ST_WIN_INFO;

// Size of the capture-point notification: seven blocks of an 80-byte info and 16 windows.
constexpr uint32_t kPqBlockSize = 208;
constexpr uint32_t kPqPayloadSize = 7 * kPqBlockSize;  // 1456

// The cached IPq service; looked up again on every call while it is missing.
::android::sp<IPq> GetPqService();
void unRegisterPqCallback(int pqId);
// Queries the capture point's figures and records them in the bandwidth tables.
void GetPqInfo(CapturePoint capturePoint, int pqId);

struct PqPerStreamCallback : public IPqOnewayCallback {
    PqPerStreamCallback();
    ~PqPerStreamCallback() override;
    ::android::hardware::Return<void> onNotify(
            int32_t PQId, EN_PQ_CALLBACK_EVENT_TYPE eCallbackType, uint32_t u32DataSize,
            const ::android::hardware::hidl_vec<uint8_t>& u8ByteData) override;
};

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
