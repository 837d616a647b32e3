// Bandwidth tables shared with other modules of the process: per PQ stream and capture point,
// the latest report of the picture-quality service (bw_info) and the latest one that came with
// the PQ hardware set (bw_info_hw_set).
#pragma once

#include <cstddef>
#include <cstdint>

#include "RelaxedAtomic.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

constexpr uint32_t kBwPqIdCount = 16;
constexpr uint32_t kBwCapturePointCount = 7;

// One 16-byte cell; the layout is exported and fixed.
struct BwInfoCell {
    Relaxed<uint8_t> u8PqID;
    uint8_t reserved0[3];
    Relaxed<uint32_t> u32WinTime;
    Relaxed<uint32_t> u32RemainBWBudget;
    Relaxed<uint8_t> bIsPQHWSet;
    uint8_t reserved1[3];
};
static_assert(sizeof(BwInfoCell) == 16, "cell layout");

// Updates for a PQ id or capture-point index outside the tables are ignored.
void UpdateBWInfo(uint8_t u8PqID, uint32_t capturePointIndex, uint32_t u32WinTime,
                  uint32_t u32RemainBWBudget, bool bIsPQHWSet);

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor

extern "C" {
extern ::vendor::quenlark::hardware::capture::V1_0::implementation::BwInfoCell
        bw_info[16][7];
extern ::vendor::quenlark::hardware::capture::V1_0::implementation::BwInfoCell
        bw_info_hw_set[16][7];
}
static_assert(sizeof(bw_info) == 1792, "exported table size");
