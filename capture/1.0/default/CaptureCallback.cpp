// Client callbacks: the library's own ICaptureCallback, installing a client's callback, and the
// source-rotation operations, which this platform accepts and ignores.
#include "CaptureCallback.h"

#include <android/log.h>

#include <mutex>

#include "Capture.h"
#include "CaptureLog.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {
// The client-side trace is not part of the service's log.
constexpr const char* kNoTag = nullptr;
}  // namespace

Return<void> CaptureCallback::onNotify(CaptureEventNotify notify,
                                       const CaptureCallbackParams& params) {
    __android_log_print(ANDROID_LOG_DEBUG, kNoTag, "Call onNotify(), notify = %d\n",
                        static_cast<int>(notify));
    __android_log_print(ANDROID_LOG_DEBUG, kNoTag, "Call onNotify(), index = %d\n", params.index);
    __android_log_print(ANDROID_LOG_DEBUG, kNoTag, "Call onNotify(), width = %d\n", params.width);
    __android_log_print(ANDROID_LOG_DEBUG, kNoTag, "Call onNotify(), height = %d\n", params.height);
    return Void();
}

// Only swaps the client target of an existing sub-HAL registration. The counter moves on, so
// frames of that registration are dropped until the client registers again.
Return<void> Capture::setCallback(int32_t captureId, const sp<ICaptureCallback>& callback) {
    CAPTURE_LOGI("Call setCallback(), captureId: 0x%x", captureId);
    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("setCallback , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return Void();
    }
    if (callback == nullptr) {
        return Void();
    }
    const int slot = slotOf(captureId);
    {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        setCallbackLocked(slot, callback);
        bumpSequenceLocked(slot);
    }
    CAPTURE_LOGD("Call setCallback(), success");
    return Void();
}

Return<CaptureReturn> Capture::startAllSourceRotation(int32_t captureId,
                                                      const SourceRotationInfo& /*info*/,
                                                      const sp<ICaptureCallback>& /*callback*/) {
    CAPTURE_LOGI("Call startAllSourceRotate(), captureId: 0x%x", captureId);
    return CaptureReturn::SUCCESS;
}

Return<CaptureReturn> Capture::stopAllSourceRotation(int32_t captureId) {
    CAPTURE_LOGI("Call startAllSourceRotate(), captureId: 0x%x", captureId);
    return CaptureReturn::SUCCESS;
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
