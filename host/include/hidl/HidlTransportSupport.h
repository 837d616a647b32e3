// Thread-pool entry points of a HIDL service's main(). In-process calls run on the caller's
// thread, so there is no pool: configuring succeeds and joining parks the calling thread.
#pragma once

#include <hidl/ServiceManagement.h>
#include <stddef.h>
#include <utils/Errors.h>

namespace android {
namespace hardware {

status_t configureRpcThreadpool(size_t maxThreads, bool callerWillJoin);

// Never returns, as on a device.
[[noreturn]] void joinRpcThreadpool();

}  // namespace hardware
}  // namespace android
