// Interface enumerations to sub-HAL and GPU numbers. Unknown inputs are logged and take a fixed
// fallback; all comparisons are unsigned, so a negative value counts as large.
#pragma once

#include <cstdint>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

constexpr uint32_t kVxFormatUnknown = 26;  // formatMapping's fallback

uint32_t formatMapping(uint32_t captureFormat);     // CaptureFormat bit -> sub-HAL format
uint32_t formatMappingGpu(uint32_t captureFormat);  // CaptureFormat bit -> HAL pixel format, 0
uint32_t isYuv420Tile(uint32_t captureFormat);      // 1 for the tiled 4:2:0 formats
uint32_t colorSpaceMapping(uint32_t colorSpace);
uint32_t colorimetryMapping(uint32_t colorimetry);
uint32_t secureBufferMapping(uint32_t secureBuffer);
uint32_t BandwidthCfgMapping(uint32_t bandwidth);   // fallback 2
uint32_t capPointMapping(uint32_t capPoint);        // fallback 16

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
