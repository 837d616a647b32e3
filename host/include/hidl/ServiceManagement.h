// In-process service registry standing in for hwservicemanager on hosts.
//
// Services are keyed by (interface descriptor, instance name). Lookups never wait: a service
// that is not registered yet is simply absent, as with getService(name, getStub) on a device
// whose service has not started.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <string>

namespace android {
namespace hardware {
namespace details {

// Replaces any service already registered under the same key. BAD_VALUE for a null service or
// an empty descriptor or instance.
status_t registerAsServiceInternal(const sp<::android::hidl::base::V1_0::IBase>& service,
                                   const std::string& descriptor, const std::string& instance);

// Null when nothing is registered under the key. retry and getStub exist for source
// compatibility and change nothing in-process.
sp<::android::hidl::base::V1_0::IBase> getRawServiceInternal(const std::string& descriptor,
                                                             const std::string& instance,
                                                             bool retry = false,
                                                             bool getStub = false);

// Host only: drops the registration so that tests start from an empty registry. NAME_NOT_FOUND
// when nothing was registered under the key.
status_t unregisterServiceInternal(const std::string& descriptor, const std::string& instance);

// Body of a generated IFoo::getService: null when absent or when the registered object does
// not implement IFoo.
template <typename IFoo>
sp<IFoo> getServiceAs(const std::string& instance, bool getStub = false) {
    sp<::android::hidl::base::V1_0::IBase> base =
        getRawServiceInternal(IFoo::descriptor, instance, false, getStub);
    return sp<IFoo>(dynamic_cast<IFoo*>(base.get()));
}

// Body of a generated IFoo::registerAsService.
template <typename IFoo>
status_t registerAsServiceAs(IFoo* service, const std::string& instance) {
    return registerAsServiceInternal(service, IFoo::descriptor, instance);
}

}  // namespace details
}  // namespace hardware
}  // namespace android
