// The part of vendor.quenlark.hardware.pq@1.0 that the capture service uses.
#pragma once

#include <hidl/HidlSupport.h>

#include <cstddef>
#include <cstdint>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace pq {
namespace V1_0 {

enum class EN_RETURN_VALUE : int32_t {
    EN_RETURN_OK = 0,
    EN_RETURN_FAIL = 1,
    EN_RETURN_NOT_SUPPORT = 2,
    EN_RETURN_INVALID_PARAMETER = 3,
};

enum class EN_PQ_CALLBACK_EVENT_TYPE : int32_t {
    EN_PQ_CALLBACK_EVENT_PICTURE_MODE_CHANGE = 0,
    EN_PQ_CALLBACK_EVENT_SOURCE_CHANGE = 1,
    EN_PQ_CALLBACK_EVENT_HDR_CHANGE = 2,
    EN_PQ_CALLBACK_EVENT_WINDOW_CHANGE = 3,
    EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE = 4,
};

// One display window of a capture point: which PQ stream it shows and its frame time.
struct ST_WIN_INFO final {
    uint8_t u8PqId;
    uint8_t u8Reserved[3];
    uint32_t u32WinTime;
};

struct ST_CAPTURE_POINT_INFO final {
    uint16_t w;                    // 0
    uint16_t h;                    // 2
    int32_t fmt;                   // 4
    uint8_t hwEngine;              // 8
    uint8_t u8Reserved[39];        // 9..47
    uint32_t u32RemainBWBudget;    // 48
    uint8_t activeWinNum;          // 52
    uint8_t bIsPQHWSet;            // 53
    ::android::hardware::hidl_vec<ST_WIN_INFO> winInfo;  // 56
    uint8_t u8Reserved2[8];        // 72..79
};

// Size of one capture point's info in its raw (notification payload) form.
constexpr size_t kCapturePointInfoRawSize = 80;
constexpr size_t kWinInfoMax = 16;

static_assert(sizeof(ST_WIN_INFO) == 8, "ST_WIN_INFO size");
static_assert(offsetof(ST_WIN_INFO, u32WinTime) == 4, "ST_WIN_INFO::u32WinTime");
static_assert(sizeof(ST_CAPTURE_POINT_INFO) == kCapturePointInfoRawSize, "ST_CAPTURE_POINT_INFO");
static_assert(offsetof(ST_CAPTURE_POINT_INFO, fmt) == 4, "fmt");
static_assert(offsetof(ST_CAPTURE_POINT_INFO, hwEngine) == 8, "hwEngine");
static_assert(offsetof(ST_CAPTURE_POINT_INFO, u32RemainBWBudget) == 48, "u32RemainBWBudget");
static_assert(offsetof(ST_CAPTURE_POINT_INFO, activeWinNum) == 52, "activeWinNum");
static_assert(offsetof(ST_CAPTURE_POINT_INFO, bIsPQHWSet) == 53, "bIsPQHWSet");
static_assert(offsetof(ST_CAPTURE_POINT_INFO, winInfo) == 56, "winInfo");
static_assert(offsetof(ST_CAPTURE_POINT_INFO, u8Reserved2) == 72, "u8Reserved2");

}  // namespace V1_0
}  // namespace pq
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
