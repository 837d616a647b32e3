// Definitions of the process-wide tables. They are constant-initialised where they can be, so
// that the sub-HAL's threads never see a table under construction.
#include "BandwidthInfo.h"
#include "Capture.h"
#include "SubHal.h"

extern "C" {
uint32_t CAPTURE_HAL_LOG_LEVEL = 0;
}

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

CaptureSrcFrameInfo mSrcFrameInfo[kMaxCaptureSlots];
CaptureDstFrameInfo mDstFrameInfo[kMaxCaptureSlots];
Relaxed<uint8_t> mUseGpu[kMaxCaptureSlots];
// Only row 0 is bound in the static image; initLib binds the rest.
PqStreamInfo mPqStreamInfo[kMaxCaptureSlots] = {{-1, -1, kCapturePointNone}};
Relaxed<uint32_t> mGpuDstWidthAlign[kGpuWidthAlignEntries];

std::mutex mCallbackMutex;
std::mutex mCaptureFrameParamsMutex;

std::atomic<void*> Capture::mLibHandle{nullptr};
SystemDtsConfig Capture::mSystemDtsConfig;
Relaxed<uint32_t> Capture::mPointsSupportState[kCapturePointCount];
sp<ICaptureCallback> Capture::mCallback[kMaxCaptureSlots];
uint32_t Capture::mCallbackSequeceId[kMaxCaptureSlots];
VX_CAPTURE_CallbackInputParams_s Capture::stCallbackInputParams[kMaxCaptureSlots];
Relaxed<uint8_t> Capture::mCallbackInstalled[kMaxCaptureSlots];

std::atomic<PFN_VX_CAPTURE_Init> mInitCapture{nullptr};
std::atomic<PFN_VX_CAPTURE_DeInit> mDeInitCapture{nullptr};
std::atomic<PFN_VX_CAPTURE_Open> mOpenCapture{nullptr};
std::atomic<PFN_VX_CAPTURE_Close> mCloseCapture{nullptr};
std::atomic<PFN_VX_CAPTURE_SetCaptureInfo> mSetCaptureInfo{nullptr};
std::atomic<PFN_VX_CAPTURE_SetCaptureFrameInfo> mSetCaptureFrameInfo{nullptr};
std::atomic<PFN_VX_CAPTURE_GetCapabilityInfo> mGetCaptureCapabilityInfo{nullptr};
std::atomic<PFN_VX_CAPTURE_GetDipInfo> mGetCaptureDipInfo{nullptr};
std::atomic<PFN_VX_CAPTURE_CaptureOnce> mCaptureOnce{nullptr};
std::atomic<PFN_VX_CAPTURE_CaptureStart> mCaptureStart{nullptr};
std::atomic<PFN_VX_CAPTURE_CaptureStop> mCaptureStop{nullptr};
std::atomic<PFN_VX_CAPTURE_RegisterCallback> mRegisterCallback{nullptr};
std::atomic<PFN_VX_CAPTURE_UnRegisterCallback> mUnRegisterCallback{nullptr};
std::atomic<PFN_VX_CAPTURE_FrameProcessDone> mFrameProcessDone{nullptr};
std::atomic<PFN_VX_CAPTURE_NotifyContinueCapture> mNotifyContinueCapture{nullptr};
std::atomic<PFN_VX_CAPTURE_DumpInfo> mDumpInfo{nullptr};

void* mCloseFd = nullptr;
void* mSetBlendingDispInfo = nullptr;

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor

extern "C" {
::vendor::quenlark::hardware::capture::V1_0::implementation::BwInfoCell bw_info[16][7];
::vendor::quenlark::hardware::capture::V1_0::implementation::BwInfoCell bw_info_hw_set[16][7];
}
