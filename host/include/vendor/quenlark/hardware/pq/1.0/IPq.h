#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/ServiceManagement.h>
#include <hidl/Status.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/pq/1.0/IPqOnewayCallback.h>
#include <vendor/quenlark/hardware/pq/1.0/types.h>

#include <functional>
#include <string>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace pq {
namespace V1_0 {

struct IPq : public ::android::hidl::base::V1_0::IBase {
    static constexpr const char* descriptor = "vendor.quenlark.hardware.pq@1.0::IPq";

    using getCapturePointInfo_cb =
            std::function<void(EN_RETURN_VALUE ret, const ST_CAPTURE_POINT_INFO& info)>;

    virtual ::android::hardware::Return<EN_RETURN_VALUE> registerPqOnewayCallback(
            int32_t pqId, EN_PQ_CALLBACK_EVENT_TYPE eventType,
            const ::android::sp<IPqOnewayCallback>& callback) = 0;
    virtual ::android::hardware::Return<EN_RETURN_VALUE> unRegisterPqOnewayCallback(
            int32_t pqId, EN_PQ_CALLBACK_EVENT_TYPE eventType) = 0;
    virtual ::android::hardware::Return<void> getCapturePointInfo(
            int32_t pqId, uint32_t capturePointIndex, getCapturePointInfo_cb _hidl_cb) = 0;

    static ::android::sp<IPq> getService(const std::string& serviceName = "default",
                                         bool getStub = false) {
        (void)getStub;
        return ::android::hardware::details::getServiceAs<IPq>(serviceName);
    }
    ::android::status_t registerAsService(const std::string& serviceName = "default") {
        return ::android::hardware::details::registerAsServiceInternal(this, descriptor,
                                                                       serviceName);
    }
};

}  // namespace V1_0
}  // namespace pq
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
