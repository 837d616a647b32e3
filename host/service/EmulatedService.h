// The capture service on the emulated hardware, for host programs: the service binary's launcher,
// in-process clients (capturectl, the GStreamer elements) and the host run of the VTS module.
#pragma once

#include <stdint.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>

#include <string>

namespace capture_host {

// Points the service at the emulated sub-HAL and device tree, unless CAPTURE_SUBHAL_PATH or
// CAPTURE_DEVICE_TREE_ROOT already say otherwise, and registers the emulated picture-quality
// service. False, with the reason in *error, when the registration fails.
bool useEmulatedHardware(std::string* error);

// ICapture/default as a client gets it; when none is registered, the process's own service is
// brought up on the emulated hardware, registered and its library loaded (initLib). Null, with
// the reason in *error, when that fails.
::android::sp<::vendor::quenlark::hardware::capture::V1_0::ICapture> getOrStartService(
    std::string* error);

}  // namespace capture_host
