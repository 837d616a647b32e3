// Private handle of the host graphics allocator (memfd-backed).
//
// Every buffer is one native handle with numFds = 1 and numInts = 15:
//
//   data[0]   memfd holding all planes (the only descriptor)
//   data[1]   kGrallocPrivateMagic
//   data[2]   width in pixels
//   data[3]   height in pixels
//   data[4]   HAL pixel format
//   data[5]   usage, low 32 bits
//   data[6]   usage, high 32 bits
//   data[7]   buffer size in bytes, low 32 bits
//   data[8]   buffer size in bytes, high 32 bits
//   data[9]   layer count (always 1)
//   data[10]  bytes per row of the first plane
//   data[11]  byte offset of the second plane (0 when there is none)
//   data[12]  byte offset of the third plane (0 when there is none)
//   data[13], data[14]  reserved, 0
//   data[15]  row stride in pixels
//
// The row stride sits at byte offset 72 of the handle (12-byte header, then 15 ints), where the
// capture service reads it (PlatformConfig.h: the device allocator keeps it there too).
//
// Row alignment: the display controller wants every row to start on a 64-byte boundary, so
// the stride in pixels is the width rounded up to:
//
//   RGBA_8888 (1), RGBX_8888 (2), BGRA_8888 (5), RGBA_1010102 (43)      16 px (4 bytes/px)
//   RGB_888 (3)                                                          64 px (3 bytes/px)
//   RGB_565 (4), YCbCr_422_I (20, YUYV)                                  32 px (2 bytes/px)
//   RGBA_FP16 (22)                                                        8 px (8 bytes/px)
//   YCbCr_422_SP (16, NV16), YCrCb_420_SP (17, NV21), NV12 (21)          64 px (1 byte/px luma)
//   YV12 (0x32315659)                                                    32 px (so each chroma
//                                                                         row is 16-aligned)
//   10-bit YUV 4:2:0 (54, YC420_10B), 10-bit YUV 4:2:2 (262, YUV422_10B)  64 px
//
// Buffer sizes (chroma heights round up for odd heights):
//   packed RGB and YUYV   stride x bytes/px x height
//   NV12, NV21            stride x height (Y) + stride x ceil(h/2) (interleaved CbCr)
//   NV16                  stride x height x 2
//   YV12                  stride x height + 2 x (stride/2) x ceil(h/2) (Cr plane, then Cb)
//   54 and 262            10-bit samples packed four to five bytes: a luma row is
//                         stride x 5/4 bytes (the bytes per stride lock() reports); 54 adds a
//                         4:2:0 chroma plane of ceil(h/2) such rows, 262 a 4:2:2 chroma plane
//                         of h rows. Four samples make one 40-bit little-endian group,
//                         sample k at bits 10k..10k+9; chroma rows interleave Cb, Cr.
// Any other format, a zero width or height, or a side above kGrallocMaxDimension is refused.
#pragma once

#include <cutils/native_handle.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "PlatformConfig.h"

// Formats of this platform that the AOSP headers leave unnamed.
constexpr int32_t GRALLOC_PRIVATE_FORMAT_NV12 = 21;
constexpr int32_t GRALLOC_PRIVATE_FORMAT_YUV422_10B = 262;

constexpr int kGrallocPrivateNumFds = 1;
constexpr int kGrallocPrivateNumInts = 15;
constexpr int32_t kGrallocPrivateMagic = 0x514c4742;
constexpr uint32_t kGrallocMaxDimension = 16384;

enum GrallocPrivateIndex : int {
    kGrallocPrivateFd = 0,
    kGrallocPrivateMagicIndex = 1,
    kGrallocPrivateWidth = 2,
    kGrallocPrivateHeight = 3,
    kGrallocPrivateFormat = 4,
    kGrallocPrivateUsageLow = 5,
    kGrallocPrivateUsageHigh = 6,
    kGrallocPrivateSizeLow = 7,
    kGrallocPrivateSizeHigh = 8,
    kGrallocPrivateLayerCount = 9,
    kGrallocPrivateByteStride = 10,
    kGrallocPrivatePlane1Offset = 11,
    kGrallocPrivatePlane2Offset = 12,
    kGrallocPrivateStrideIndex = 15,
};

constexpr size_t kGrallocPrivateStrideOffset = 72;

static_assert(sizeof(native_handle_t) + sizeof(int) * kGrallocPrivateStrideIndex ==
                  kGrallocPrivateStrideOffset,
              "the stride must be data[15] of the handle");
static_assert(kGrallocPrivateStrideOffset ==
                  ::vendor::quenlark::hardware::capture::V1_0::implementation::kAllocatorStrideOffset,
              "the host allocator keeps the stride where the capture service reads it");

// Row stride in pixels of an allocator handle; 0 for a null handle or one too short to carry
// it.
inline int32_t gralloc_private_stride(const native_handle_t* handle) {
    if (handle == nullptr || handle->numFds < 0 || handle->numInts < 0) return 0;
    const int64_t words = static_cast<int64_t>(handle->numFds) + handle->numInts;
    if (words <= kGrallocPrivateStrideIndex) return 0;
    return handle->data[kGrallocPrivateStrideIndex];
}
