// Client callback interface of vendor.quenlark.hardware.capture@1.0.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/capture/1.0/types.h>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {

struct ICaptureCallback : public ::android::hidl::base::V1_0::IBase {
    static constexpr const char* descriptor = "vendor.quenlark.hardware.capture@1.0::ICaptureCallback";

    virtual ::android::hardware::Return<void> onNotify(CaptureEventNotify notify,
                                                       const CaptureCallbackParams& params) = 0;
};

}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
