#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <vendor/quenlark/hardware/pq/1.0/types.h>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace pq {
namespace V1_0 {

struct IPqOnewayCallback : public ::android::hidl::base::V1_0::IBase {
    static constexpr const char* descriptor = "vendor.quenlark.hardware.pq@1.0::IPqOnewayCallback";

    // oneway
    virtual ::android::hardware::Return<void> onNotify(
            int32_t PQId, EN_PQ_CALLBACK_EVENT_TYPE eCallbackType, uint32_t u32DataSize,
            const ::android::hardware::hidl_vec<uint8_t>& u8ByteData) = 0;
};

}  // namespace V1_0
}  // namespace pq
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
