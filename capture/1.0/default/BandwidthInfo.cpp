// Bandwidth bookkeeping: the latest PQ report per stream and capture point, and the latest one
// that came while the PQ hardware was set.
#include "BandwidthInfo.h"

#include "CaptureLog.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {

// Field by field rather than a cell copy: the reserved bytes are never written, so copying them
// would only add a racy store against a concurrent update of the same cell.
void copyCell(const BwInfoCell& from, BwInfoCell* to) {
    to->u8PqID = from.u8PqID.load();
    to->u32WinTime = from.u32WinTime.load();
    to->u32RemainBWBudget = from.u32RemainBWBudget.load();
    to->bIsPQHWSet = from.bIsPQHWSet.load();
}

}  // namespace

void UpdateBWInfo(uint8_t u8PqID, uint32_t capturePointIndex, uint32_t u32WinTime,
                  uint32_t u32RemainBWBudget, bool bIsPQHWSet) {
    // The PQ service reports ids up to 255 and callers pass whatever index they computed; the
    // exported tables only cover 16 x 7 cells.
    if (u8PqID >= kBwPqIdCount || capturePointIndex >= kBwCapturePointCount) {
        CAPTURE_LOGW("UpdateBWInfo ignored, u8PqID(%d) capturePointIndex(%u) out of table", u8PqID,
                     capturePointIndex);
        return;
    }
    BwInfoCell& cell = bw_info[u8PqID][capturePointIndex];
    CAPTURE_LOGI(
        "Before UpdateBWInfo: u8PqID(%d) u32WinTime(%d) u32RemainBWBudget(%d) "
        "bIsPQHWSet(%d) ",
        cell.u8PqID.load(), cell.u32WinTime.load(), cell.u32RemainBWBudget.load(),
        cell.bIsPQHWSet.load());

    cell.u8PqID = u8PqID;
    cell.bIsPQHWSet = bIsPQHWSet ? 1 : 0;
    cell.u32RemainBWBudget = u32RemainBWBudget;
    cell.u32WinTime = u32WinTime;
    if (bIsPQHWSet) {
        copyCell(cell, &bw_info_hw_set[u8PqID][capturePointIndex]);
    }

    CAPTURE_LOGI(
        "After UpdateBWInfo: u8PqID(%d) u32WinTime(%d) u32RemainBWBudget(%d) "
        "bIsPQHWSet(%d) ",
        cell.u8PqID.load(), cell.u32WinTime.load(), cell.u32RemainBWBudget.load(),
        cell.bIsPQHWSet.load());
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
