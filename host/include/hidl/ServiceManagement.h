// In-process service registry standing in for hwservicemanager on hosts, with the platform's
// entry points (the generated getService/registerAsService call these).
//
// Services are keyed by (interface descriptor, instance name), under every descriptor of their
// interface chain, as hwservicemanager registers them. Lookups never wait: a service that is
// not registered yet is simply absent, as with tryGetService on a device.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <string>
#include <vector>

namespace android {
namespace hardware {

// The instances of an interface that the device's VINTF manifest declares, sorted. On hosts the
// manifest is the service's own fragment (HOST_VINTF_MANIFEST names others, ':'-separated).
std::vector<std::string> getAllHalInstanceNames(const std::string& descriptor);

namespace details {

// Replaces any service already registered under the same key. BAD_VALUE for a null service or
// an empty instance name.
status_t registerAsServiceInternal(const sp<::android::hidl::base::V1_0::IBase>& service,
                                   const std::string& name);

// Null when nothing is registered under the key. retry and getStub change nothing in-process.
sp<::android::hidl::base::V1_0::IBase> getRawServiceInternal(const std::string& descriptor,
                                                             const std::string& instance,
                                                             bool retry, bool getStub);

// Host only: drops the registration (under every descriptor) so that tests start from an empty
// registry. NAME_NOT_FOUND when nothing was registered under the key.
status_t unregisterServiceInternal(const std::string& descriptor, const std::string& instance);

}  // namespace details
}  // namespace hardware
}  // namespace android
