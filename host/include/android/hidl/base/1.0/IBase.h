// Root of every HIDL interface: android.hidl.base@1.0::IBase, the in-process subset.
#pragma once

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/RefBase.h>

#include <functional>

namespace android {
namespace hidl {
namespace base {
namespace V1_0 {

struct IBase : virtual public ::android::RefBase {
    static const char* descriptor;

    using interfaceDescriptor_cb =
        std::function<void(const ::android::hardware::hidl_string& descriptor)>;

    virtual bool isRemote() const { return false; }

    // Services override this to print their state into fd (lshal debug).
    virtual ::android::hardware::Return<void> debug(
        const ::android::hardware::hidl_handle& fd,
        const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& options);
    virtual ::android::hardware::Return<void> ping();
    virtual ::android::hardware::Return<void> interfaceDescriptor(interfaceDescriptor_cb _hidl_cb);

protected:
    ~IBase() override = default;
};

}  // namespace V1_0
}  // namespace base
}  // namespace hidl
}  // namespace android
