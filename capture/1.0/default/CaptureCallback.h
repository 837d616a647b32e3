// The library's own client callback: it only traces what it is told. Useful as a stand-in
// client when nothing else is listening.
#pragma once

#include <hidl/Status.h>
#include <vendor/quenlark/hardware/capture/1.0/ICaptureCallback.h>
#include <vendor/quenlark/hardware/capture/1.0/types.h>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

struct CaptureCallback : public ICaptureCallback {
    ::android::hardware::Return<void> onNotify(CaptureEventNotify notify,
                                               const CaptureCallbackParams& params) override;
};

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
