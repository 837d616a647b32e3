// Root of every HIDL interface, android.hidl.base@1.0::IBase, with the methods every interface
// inherits. The generated interfaces override each of them; the bodies here serve objects that
// are nothing but an IBase.
#pragma once

#include <android/hidl/base/1.0/types.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <functional>
#include <string>

namespace android {
namespace hidl {
namespace base {
namespace V1_0 {

struct IBase : virtual public ::android::RefBase {
    typedef ::android::hardware::details::i_tag _hidl_tag;
    static const char* descriptor;

    virtual bool isRemote() const { return false; }

    using interfaceChain_cb = std::function<void(
        const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& descriptors)>;
    virtual ::android::hardware::Return<void> interfaceChain(interfaceChain_cb _hidl_cb);

    // Services override this to print their state into fd (lshal debug).
    virtual ::android::hardware::Return<void> debug(
        const ::android::hardware::hidl_handle& fd,
        const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& options);

    using interfaceDescriptor_cb =
        std::function<void(const ::android::hardware::hidl_string& descriptor)>;
    virtual ::android::hardware::Return<void> interfaceDescriptor(interfaceDescriptor_cb _hidl_cb);

    using getHashChain_cb = std::function<void(
        const ::android::hardware::hidl_vec<::android::hardware::hidl_array<uint8_t, 32>>&
            hashchain)>;
    virtual ::android::hardware::Return<void> getHashChain(getHashChain_cb _hidl_cb);

    virtual ::android::hardware::Return<void> setHALInstrumentation();

    virtual ::android::hardware::Return<bool> linkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient,
        uint64_t cookie);

    virtual ::android::hardware::Return<void> ping();

    using getDebugInfo_cb = std::function<void(const DebugInfo& info)>;
    virtual ::android::hardware::Return<void> getDebugInfo(getDebugInfo_cb _hidl_cb);

    virtual ::android::hardware::Return<void> notifySyspropsChanged();

    virtual ::android::hardware::Return<bool> unlinkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient);

    static ::android::hardware::Return<::android::sp<IBase>> castFrom(
        const ::android::sp<IBase>& parent, bool emitError = false);
};

static inline std::string toString(const ::android::sp<IBase>& o) {
    std::string os = "[class or subclass of ";
    os += IBase::descriptor;
    os += "]";
    os += o->isRemote() ? "@remote" : "@local";
    return os;
}

}  // namespace V1_0
}  // namespace base
}  // namespace hidl

namespace hardware {
namespace details {
// What the generated interfaces of the host build share with IBase.
hidl_array<uint8_t, 32> ibaseHash();
::android::hidl::base::V1_0::DebugInfo localDebugInfo(const void* object);
}  // namespace details
}  // namespace hardware
}  // namespace android
