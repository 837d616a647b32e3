// Service interface of vendor.quenlark.hardware.capture@1.0, methods in interface order.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/ServiceManagement.h>
#include <hidl/Status.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/capture/1.0/ICaptureCallback.h>
#include <vendor/quenlark/hardware/capture/1.0/types.h>

#include <functional>
#include <string>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {

struct ICapture : public ::android::hidl::base::V1_0::IBase {
    static constexpr const char* descriptor = "vendor.quenlark.hardware.capture@1.0::ICapture";

    template <typename T>
    using Return = ::android::hardware::Return<T>;

    using open_cb = std::function<void(CaptureReturn ret, int32_t captureId)>;
    using setCaptureFrameInfo_cb =
            std::function<void(CaptureReturn ret, const ::android::hardware::hidl_vec<uint32_t>&
                                                          planeOffset)>;
    using getCaptureCapabilityInfo_cb =
            std::function<void(CaptureReturn ret, const getQueryInfo& info)>;

    virtual Return<CaptureReturn> initLib() = 0;
    virtual Return<void> open(open_cb _hidl_cb) = 0;
    virtual Return<CaptureReturn> close(int32_t captureId) = 0;
    virtual Return<CaptureReturn> setCaptureInfo(int32_t captureId, const CaptureInfo& info) = 0;
    virtual Return<void> setCaptureFrameInfo(int32_t captureId, const CaptureSrcFrameInfo& src,
                                             const CaptureDstFrameInfo& dst,
                                             setCaptureFrameInfo_cb _hidl_cb) = 0;
    virtual Return<void> getCaptureCapabilityInfo(int32_t captureId, const setQueryInfo& query,
                                                  getCaptureCapabilityInfo_cb _hidl_cb) = 0;
    virtual Return<CaptureReturn> captureOnce(int32_t captureId) = 0;
    virtual Return<CaptureReturn> captureOnceWithCallback(
            int32_t captureId, const ::android::sp<ICaptureCallback>& callback) = 0;
    virtual Return<CaptureReturn> startCapture(int32_t captureId,
                                               const ::android::sp<ICaptureCallback>& callback) = 0;
    virtual Return<CaptureReturn> stopCapture(int32_t captureId) = 0;
    virtual Return<CaptureReturn> frameProcessDone(int32_t captureId, uint32_t index) = 0;
    virtual Return<void> setCallback(int32_t captureId,
                                     const ::android::sp<ICaptureCallback>& callback) = 0;
    virtual Return<CaptureReturn> startAllSourceRotation(
            int32_t captureId, const SourceRotationInfo& info,
            const ::android::sp<ICaptureCallback>& callback) = 0;
    virtual Return<CaptureReturn> stopAllSourceRotation(int32_t captureId) = 0;
    virtual Return<CaptureReturn> notifyContinueCapture(int32_t captureId) = 0;

    static ::android::sp<ICapture> getService(const std::string& serviceName = "default",
                                              bool getStub = false) {
        (void)getStub;
        return ::android::hardware::details::getServiceAs<ICapture>(serviceName);
    }
    ::android::status_t registerAsService(const std::string& serviceName = "default") {
        return ::android::hardware::details::registerAsServiceInternal(this, descriptor,
                                                                       serviceName);
    }
};

}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
