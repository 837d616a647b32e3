// Thread-pool entry points of a HIDL service's main(). In-process calls run on the caller's
// thread, so there is no pool: configuring catches SIGTERM and SIGINT, and joining parks the
// calling thread until one of them arrives.
#pragma once

#include <hidl/ServiceManagement.h>
#include <stddef.h>
#include <utils/Errors.h>

namespace android {
namespace hardware {

// Installs the SIGTERM/SIGINT handlers that joinRpcThreadpool waits for, so a service that
// registers after this call cannot be killed by the stop signal before it joins.
status_t configureRpcThreadpool(size_t maxThreads, bool callerWillJoin);

// On a device this never returns. On the host it returns once SIGTERM or SIGINT has reached the
// process (since configureRpcThreadpool), so that main() can end with status 0.
void joinRpcThreadpool();

}  // namespace hardware
}  // namespace android
