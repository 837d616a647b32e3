// Translation of the capture sub-HAL's status codes into CaptureReturn.
#include "SubHal.h"

#include <cstddef>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {

// The sub-HAL's codes stop below this value; anything at or above it is not a code we know.
constexpr int32_t kFirstMappedStatus = 3;
constexpr int32_t kStatusLimit = 70;

// Indexed by sub-HAL status; -1 marks a status that has no CaptureReturn. Kept as a flat table so
// that the whole mapping can be read (and reviewed against the sub-HAL's header) at a glance.
constexpr int8_t kStatusTable[kStatusLimit] = {
    /*  0 */ -1, -1, -1, 4,  1,  2,  -1, 6,  7,  -1,
    /* 10 */ 5,  -1, -1, -1, -1, -1, 3,  8,  9,  5,
    /* 20 */ 5,  5,  5,  5,  10, 5,  -1, -1, -1, -1,
    /* 30 */ -1, -1, 11, 12, 13, 14, 2,  5,  5,  5,
    /* 40 */ 5,  5,  5,  15, 5,  3,  5,  5,  22, 3,
    /* 50 */ 5,  16, -1, -1, -1, -1, -1, -1, -1, -1,
    /* 60 */ -1, -1, -1, -1, 17, 18, 5,  19, 31, 31,
};

}  // namespace

bool isMappedSubHalStatus(int32_t status) {
    return status == 0 || (status >= kFirstMappedStatus && status < kStatusLimit &&
                           kStatusTable[static_cast<size_t>(status)] >= 0);
}

CaptureReturn CaptureReturnMapping(int32_t status) {
    CAPTURE_LOGW("Error Capture SubHal eVxRet: 0x%x !", static_cast<uint32_t>(status));
    if (status >= kFirstMappedStatus && status < kStatusLimit) {
        const int8_t result = kStatusTable[static_cast<size_t>(status)];
        if (result >= 0) {
            CAPTURE_LOGW("Error Capture Hal return: 0x%x !", static_cast<uint32_t>(result));
            return static_cast<CaptureReturn>(result);
        }
    }
    CAPTURE_LOGW("Error can't support this CaptureReturn: 0x%x!", static_cast<uint32_t>(status));
    return CaptureReturn::FAIL;
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
