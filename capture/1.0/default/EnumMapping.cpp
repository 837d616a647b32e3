// Interface enumerations to the numbers of the capture sub-HAL and of the GPU path.
#include "EnumMapping.h"

#include <cstddef>

#include "CaptureLog.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {

struct FormatPair {
    uint32_t captureFormat;
    uint32_t mapped;
};

// CaptureFormat bits 0x100000 and 0x200000 have no DIP format; the sub-HAL skips 17, 18 and 25.
constexpr FormatPair kVxFormats[] = {
    {0x1, 0},      {0x2, 1},      {0x4, 2},       {0x8, 3},       {0x10, 4},       {0x20, 5},
    {0x40, 6},     {0x80, 7},     {0x100, 8},     {0x200, 9},     {0x400, 10},     {0x800, 11},
    {0x1000, 12},  {0x2000, 13},  {0x4000, 14},   {0x8000, 15},   {0x10000, 16},   {0x20000, 19},
    {0x40000, 20}, {0x80000, 21}, {0x400000, 22}, {0x800000, 23}, {0x1000000, 24},
};

// HAL pixel formats the GPU path renders from and to; the order matches mGpuDstWidthAlign.
constexpr FormatPair kGpuFormats[] = {
    {0x1, 20},
    {0x2, 262},
    {0x4, 1},
    {0x8, 5},
    {0x100000, 22},
    {0x400000, 43},
    {0x80, 4},
    {0x100, 3},
    {0x200, 16},
    {0x800, 21},
    {0x1000, 17},
    {0x2000, 54},
    {0x200000, 0x32315659},
};

// Every CaptureFormat is a single bit, so a table is indexed by the bit's position: the
// capability query maps formats on every call.
struct BitIndex {
    bool known[32];
    uint32_t mapped[32];
};

template <size_t N>
constexpr BitIndex indexByBit(const FormatPair (&table)[N]) {
    BitIndex index{};
    for (const FormatPair& pair : table) {
        for (int bit = 0; bit < 32; ++bit) {
            if (pair.captureFormat == (1u << bit)) {
                index.known[bit] = true;
                index.mapped[bit] = pair.mapped;
            }
        }
    }
    return index;
}

constexpr BitIndex kVxIndex = indexByBit(kVxFormats);
constexpr BitIndex kGpuIndex = indexByBit(kGpuFormats);

bool lookUp(const BitIndex& index, uint32_t captureFormat, uint32_t* mapped) {
    if (captureFormat == 0 || (captureFormat & (captureFormat - 1)) != 0) return false;
    const int bit = __builtin_ctz(captureFormat);
    if (!index.known[bit]) return false;
    *mapped = index.mapped[bit];
    return true;
}

}  // namespace

uint32_t formatMapping(uint32_t captureFormat) {
    uint32_t mapped = 0;
    if (lookUp(kVxIndex, captureFormat, &mapped)) return mapped;
    CAPTURE_LOGW("dip can't support this format: 0x%x!", captureFormat);
    return kVxFormatUnknown;
}

uint32_t formatMappingGpu(uint32_t captureFormat) {
    uint32_t mapped = 0;
    if (lookUp(kGpuIndex, captureFormat, &mapped)) return mapped;
    CAPTURE_LOGW("gpu can't support this format: 0x%x!", captureFormat);
    return 0;
}

uint32_t isYuv420Tile(uint32_t captureFormat) {
    switch (captureFormat) {
        case 0x4000:
        case 0x8000:
        case 0x10000:
            return 1;
        default:
            CAPTURE_LOGD("format: 0x%x!", captureFormat);
            return 0;
    }
}

// The identity mappings below compare unsigned on purpose: a negative value sent by a client
// arrives as a large number and takes the fallback.

uint32_t colorSpaceMapping(uint32_t colorSpace) {
    if (colorSpace <= 3) return colorSpace;
    CAPTURE_LOGW("can't support this colorSpace: %d!", colorSpace);
    return 0;
}

uint32_t colorimetryMapping(uint32_t colorimetry) {
    if (colorimetry <= 3) return colorimetry;
    CAPTURE_LOGW("can't support this colorimetry: %d!", colorimetry);
    return 0;
}

uint32_t secureBufferMapping(uint32_t secureBuffer) {
    if (secureBuffer <= 2) return secureBuffer;
    CAPTURE_LOGW("can't support this SecureBufferCfg: %d!", secureBuffer);
    return 0;
}

uint32_t BandwidthCfgMapping(uint32_t bandwidth) {
    if (bandwidth <= 2) return bandwidth;
    CAPTURE_LOGW("can't support this BandwidthCfg: %d!", bandwidth);
    return 2;
}

// 13 is the service's own "no capture point" marker in its tables, never a value to pass on.
uint32_t capPointMapping(uint32_t capPoint) {
    if (capPoint <= 12) return capPoint;
    CAPTURE_LOGW("can't support this cappoint: %d!", capPoint);
    return 16;
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
