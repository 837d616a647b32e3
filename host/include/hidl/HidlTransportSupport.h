// Thread-pool entry points of a HIDL service's main(), and the casts and lookups the generated
// interfaces are built on.
//
// In-process calls run on the caller's thread, so there is no pool: configuring catches SIGTERM
// and SIGINT, and joining parks the calling thread until one of them arrives.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/ServiceManagement.h>
#include <hidl/Status.h>
#include <stddef.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <string>

namespace android {
namespace hardware {

// Installs the SIGTERM/SIGINT handlers that joinRpcThreadpool waits for, so a service that
// registers after this call cannot be killed by the stop signal before it joins.
status_t configureRpcThreadpool(size_t maxThreads, bool callerWillJoin);

// On a device this never returns. On the host it returns once SIGTERM or SIGINT has reached the
// process (since configureRpcThreadpool), so that main() can end with status 0.
void joinRpcThreadpool();

namespace details {

// Host only: the maxThreads of the last configureRpcThreadpool, 0 before any.
size_t configuredRpcThreads();

// Whether parent's interface chain names childIndicator. A failed chain call counts as no.
bool canCastInterface(::android::hidl::base::V1_0::IBase* parent, const char* childIndicator,
                      bool emitError);

template <typename IChild>
Return<sp<IChild>> castInterface(const sp<::android::hidl::base::V1_0::IBase>& parent,
                                 const char* childIndicator, bool emitError) {
    if (parent.get() == nullptr) return sp<IChild>(nullptr);
    if (!canCastInterface(parent.get(), childIndicator, emitError)) return sp<IChild>(nullptr);
    return sp<IChild>(dynamic_cast<IChild*>(parent.get()));
}

template <typename IType>
sp<IType> getServiceInternal(const std::string& instance, bool retry, bool getStub) {
    sp<::android::hidl::base::V1_0::IBase> base =
        getRawServiceInternal(IType::descriptor, instance, retry, getStub);
    if (base == nullptr) return nullptr;
    Return<sp<IType>> cast = IType::castFrom(base);
    if (!cast.isOk()) return nullptr;
    return cast;
}

}  // namespace details
}  // namespace hardware
}  // namespace android
