// Platform constants: where the sub-HAL lives, where the device tree is, where frames are dumped.
//
// Device builds use the constants. Host builds (no __ANDROID__) let the environment point each
// one elsewhere, so that tests and the emulator can run without root or hardware:
//   CAPTURE_SUBHAL_PATH       the capture sub-HAL library
//   CAPTURE_DEVICE_TREE_ROOT  the device-tree root (must end with '/')
//   CAPTURE_DUMP_DIR          the frame-dump directory (must end with '/')
#pragma once

#include <stdlib.h>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

constexpr const char* kSubHalLibraryPath = "/vendor/lib/libvx3_capture_hal.so";
constexpr const char* kDeviceTreeRoot = "/proc/device-tree/";
constexpr const char* kDumpDirectory = "/mnt/vendor/tmp/";

constexpr const char* kSubHalPathEnv = "CAPTURE_SUBHAL_PATH";
constexpr const char* kDeviceTreeRootEnv = "CAPTURE_DEVICE_TREE_ROOT";
constexpr const char* kDumpDirectoryEnv = "CAPTURE_DUMP_DIR";

inline const char* platformPath(const char* constant, const char* hostOverride) {
#ifdef __ANDROID__
    (void)hostOverride;
    return constant;
#else
    const char* value = getenv(hostOverride);
    return (value != nullptr && value[0] != '\0') ? value : constant;
#endif
}

inline const char* subHalLibraryPath() {
    return platformPath(kSubHalLibraryPath, kSubHalPathEnv);
}
inline const char* deviceTreeRoot() {
    return platformPath(kDeviceTreeRoot, kDeviceTreeRootEnv);
}
inline const char* dumpDirectory() {
    return platformPath(kDumpDirectory, kDumpDirectoryEnv);
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
