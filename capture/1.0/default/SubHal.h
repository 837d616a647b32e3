// Binding to the capture sub-HAL: the entry pointers, the one call pattern, status mapping.
#pragma once

#include <vendor/quenlark/hardware/capture/1.0/types.h>

#include <atomic>
#include <cstdint>
#include <utility>

#include "CaptureLog.h"
#include "VxCaptureHal.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

using PFN_VX_CAPTURE_Init = decltype(&VX_CAPTURE_Init);
using PFN_VX_CAPTURE_DeInit = decltype(&VX_CAPTURE_DeInit);
using PFN_VX_CAPTURE_Open = decltype(&VX_CAPTURE_Open);
using PFN_VX_CAPTURE_Close = decltype(&VX_CAPTURE_Close);
using PFN_VX_CAPTURE_SetCaptureInfo = decltype(&VX_CAPTURE_SetCaptureInfo);
using PFN_VX_CAPTURE_SetCaptureFrameInfo = decltype(&VX_CAPTURE_SetCaptureFrameInfo);
using PFN_VX_CAPTURE_GetCapabilityInfo = decltype(&VX_CAPTURE_GetCapabilityInfo);
using PFN_VX_CAPTURE_GetDipInfo = decltype(&VX_CAPTURE_GetDipInfo);
using PFN_VX_CAPTURE_CaptureOnce = decltype(&VX_CAPTURE_CaptureOnce);
using PFN_VX_CAPTURE_CaptureStart = decltype(&VX_CAPTURE_CaptureStart);
using PFN_VX_CAPTURE_CaptureStop = decltype(&VX_CAPTURE_CaptureStop);
using PFN_VX_CAPTURE_RegisterCallback = decltype(&VX_CAPTURE_RegisterCallback);
using PFN_VX_CAPTURE_UnRegisterCallback = decltype(&VX_CAPTURE_UnRegisterCallback);
using PFN_VX_CAPTURE_FrameProcessDone = decltype(&VX_CAPTURE_FrameProcessDone);
using PFN_VX_CAPTURE_NotifyContinueCapture = decltype(&VX_CAPTURE_NotifyContinueCapture);
using PFN_VX_CAPTURE_DumpInfo = decltype(&VX_CAPTURE_DumpInfo);

// Resolved by initLib, in this order; null when the library lacks the symbol. Binder threads
// read them while initLib may rewrite them, hence atomics (same size as the plain pointers).
extern std::atomic<PFN_VX_CAPTURE_Init> mInitCapture;
extern std::atomic<PFN_VX_CAPTURE_DeInit> mDeInitCapture;
extern std::atomic<PFN_VX_CAPTURE_Open> mOpenCapture;
extern std::atomic<PFN_VX_CAPTURE_Close> mCloseCapture;
extern std::atomic<PFN_VX_CAPTURE_SetCaptureInfo> mSetCaptureInfo;
extern std::atomic<PFN_VX_CAPTURE_SetCaptureFrameInfo> mSetCaptureFrameInfo;
extern std::atomic<PFN_VX_CAPTURE_GetCapabilityInfo> mGetCaptureCapabilityInfo;
extern std::atomic<PFN_VX_CAPTURE_GetDipInfo> mGetCaptureDipInfo;
extern std::atomic<PFN_VX_CAPTURE_CaptureOnce> mCaptureOnce;
extern std::atomic<PFN_VX_CAPTURE_CaptureStart> mCaptureStart;
extern std::atomic<PFN_VX_CAPTURE_CaptureStop> mCaptureStop;
extern std::atomic<PFN_VX_CAPTURE_RegisterCallback> mRegisterCallback;
extern std::atomic<PFN_VX_CAPTURE_UnRegisterCallback> mUnRegisterCallback;
extern std::atomic<PFN_VX_CAPTURE_FrameProcessDone> mFrameProcessDone;
extern std::atomic<PFN_VX_CAPTURE_NotifyContinueCapture> mNotifyContinueCapture;
extern std::atomic<PFN_VX_CAPTURE_DumpInfo> mDumpInfo;

// Declared for the platform's sake; never resolved and never called.
extern void* mCloseFd;
extern void* mSetBlendingDispInfo;

// Sub-HAL status (non-zero) to CaptureReturn.
CaptureReturn CaptureReturnMapping(int32_t status);
// Whether the status is 0 or one CaptureReturnMapping translates (others all become FAIL).
bool isMappedSubHalStatus(int32_t status);

// The one call pattern: a missing entry counts as status 8; a failing call is always logged.
// Returns the raw status; the caller traces it and maps it with subHalResult().
template <typename Fn, typename... Args>
uint32_t callSubHal(const char* func, int line, const char* name, const std::atomic<Fn>& entry,
                    Args&&... args) {
    Fn fn = entry.load(std::memory_order_relaxed);
    if (fn == nullptr) {
        CAPTURE_LOGW_ALWAYS_AT(func, line, "%s is nullptr!", name);
        return 8;
    }
    uint32_t status = fn(std::forward<Args>(args)...);
    if (status != 0) {
        CAPTURE_LOGW_ALWAYS_AT(func, line, "%s fail! ret=%u.", name, status);
    }
    return status;
}

// SUBHAL_CALL(mCloseCapture, captureId): logs "mCloseCapture is nullptr!" or
// "mCloseCapture fail! ret=%u." under the calling function's name and line.
#define SUBHAL_CALL(entry, ...) \
    callSubHal(CAPTURE_LOG_FUNCTION, __LINE__, #entry, entry, ##__VA_ARGS__)

inline CaptureReturn subHalResult(uint32_t status) {
    return status == 0 ? CaptureReturn::SUCCESS
                       : CaptureReturnMapping(static_cast<int32_t>(status));
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
