// Platform constants: where the sub-HAL lives, where the device tree is, where frames are dumped,
// and where the platform allocator keeps a buffer's row stride.
//
// Device builds use the constants. Host builds (no __ANDROID__) let the environment point each
// one elsewhere, so that tests and the emulator can run without root or hardware:
//   CAPTURE_SUBHAL_PATH       the capture sub-HAL library
//   CAPTURE_DEVICE_TREE_ROOT  the device-tree root (must end with '/')
//   CAPTURE_DUMP_DIR          the frame-dump directory (must end with '/')
#pragma once

#include <cutils/native_handle.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

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

// The platform allocator's private handle keeps each buffer's row stride, in pixels, as the
// 32-bit integer at this byte offset of the native handle: data[15], after the 12-byte header.
// It is the allocator's layout, not the service's; a port to another allocator sets it in the
// library's cflags (-DCAPTURE_ALLOCATOR_STRIDE_OFFSET=...).
#ifndef CAPTURE_ALLOCATOR_STRIDE_OFFSET
#define CAPTURE_ALLOCATOR_STRIDE_OFFSET 72
#endif
constexpr size_t kAllocatorStrideOffset = CAPTURE_ALLOCATOR_STRIDE_OFFSET;
static_assert(kAllocatorStrideOffset >= sizeof(native_handle_t) &&
                  kAllocatorStrideOffset % sizeof(int) == 0,
              "the stride is one of the handle's data words");

// Row stride in pixels of a buffer of the platform allocator; 0 for a null handle or one too
// short to carry it.
inline int32_t allocatorStride(const native_handle_t* handle) {
    if (handle == nullptr || handle->numFds < 0 || handle->numInts < 0) return 0;
    const size_t words = static_cast<size_t>(handle->numFds) + static_cast<size_t>(handle->numInts);
    if (sizeof(native_handle_t) + words * sizeof(int) < kAllocatorStrideOffset + sizeof(int32_t)) {
        return 0;
    }
    int32_t stride = 0;
    memcpy(&stride, reinterpret_cast<const char*>(handle) + kAllocatorStrideOffset, sizeof(stride));
    return stride;
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
