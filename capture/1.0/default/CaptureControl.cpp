// Capture control: single-shot and continuous capture, the frame hand-back, and the two
// completion entries through which the sub-HAL reports finished frames.
#include <cstring>
#include <mutex>

#include "Capture.h"
#include "CaptureLog.h"
#include "PqLink.h"
#include "SubHal.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {

constexpr uint32_t kDoneInfoBufferCount = 8;
// Highest PQ stream id the PQ service takes callbacks for.
constexpr uint32_t kMaxPqCallbackId = 15;

// Installs the client's callback and points the slot's registration record at the new sequence
// value, so that frames of any earlier registration are recognised as stale.
void installCallback(int slot, const sp<ICaptureCallback>& callback) {
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    Capture::setCallbackLocked(slot, callback);
    Capture::bumpSequenceLocked(slot);
    Capture::stCallbackInputParams[slot].pu32SequenceId = &Capture::mCallbackSequeceId[slot];
}

void dropCallback(int slot) {
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    Capture::setCallbackLocked(slot, nullptr);
}

// The two helpers below log under the name of the operation that calls them (`func`).

// Undoes the sub-HAL registration of a slot that has a client callback, then drops the callback.
void unregisterClientCallback(const char* func, int32_t captureId, int slot) {
    if (!Capture::hasCallback(slot)) {
        return;
    }
    const uint32_t status = callSubHal(func, __LINE__, "mUnRegisterCallback", mUnRegisterCallback,
                                       captureId, &Capture::stCallbackInputParams[slot]);
    CAPTURE_LOGI_AT(func, __LINE__, "Call VX_CAPTURE_UnRegisterCallback(), Ret: %d", status);
    dropCallback(slot);
}

uint32_t registerWithSubHal(const char* func, int32_t captureId, int slot) {
    // Scratch area the sub-HAL may write; nothing in it is used.
    uint8_t out[8] = {};
    return callSubHal(func, __LINE__, "mRegisterCallback", mRegisterCallback, captureId,
                      &Capture::stCallbackInputParams[slot], out);
}

void registerPqCallback(int pqId) {
    sp<IPq> pq = GetPqService();
    if (pq == nullptr) {
        CAPTURE_LOGW("Get IPq Service Fail");
        return;
    }
    sp<IPqOnewayCallback> callback = new PqPerStreamCallback();
    Return<EN_RETURN_VALUE> ret = pq->registerPqOnewayCallback(
        pqId, EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE, callback);
    if (!ret.isOk() || static_cast<EN_RETURN_VALUE>(ret) != EN_RETURN_VALUE::EN_RETURN_OK) {
        CAPTURE_LOGW(
            "registerPqOnewayCallback: EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE "
            "Failed: %d",
            pqId);
    }
}

// Decodes the sub-HAL's completion record. An index outside the eight buffers selects no offset
// pair: the frame is still reported, with zero offsets. Returns false for a missing record.
bool buildCallbackParams(int32_t captureId, const void* doneInfo, CaptureCallbackParams* params,
                         bool* indexInRange) {
    if (doneInfo == nullptr) {
        return false;
    }
    VX_CAPTURE_CaptureDoneInfo_s record;
    std::memcpy(&record, doneInfo, sizeof(record));

    *params = CaptureCallbackParams{};
    params->captureId = captureId;
    params->index = record.index;
    params->width = 0;
    params->height = 0;
    *indexInRange = record.index < kDoneInfoBufferCount;
    if (*indexInRange) {
        params->yOffset = record.stBuf[record.index].Y_offSet;
        params->cOffset = record.stBuf[record.index].C_offSet;
    }
    params->ySize = record.Y_Size;
    params->cSize = record.C_Size;
    params->result = record.ErrorNo != 0
                         ? CaptureReturnMapping(static_cast<int32_t>(record.ErrorNo))
                         : CaptureReturn::SUCCESS;
    return true;
}

}  // namespace

Return<CaptureReturn> Capture::captureOnce(int32_t captureId) {
    CAPTURE_LOGI("Call captureOnce(), captureId: 0x%x", captureId);
    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("captureOnce , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return CaptureReturn::INVALID_CAPTURE_ID;
    }
    const int slot = slotOf(captureId);

    CaptureReturn result;
    if (mUseGpu[slot] != 0) {
        result = captureOnceGpu(captureId);
    } else {
        // Refresh the bandwidth figures of the bound PQ stream before the hardware runs.
        const int32_t pqId = mPqStreamInfo[slot].pqId;
        if (pqId >= 0) {
            GetPqInfo(static_cast<CapturePoint>(mPqStreamInfo[slot].capturePoint.load()), pqId);
        }
        const uint32_t status = SUBHAL_CALL(mCaptureOnce, captureId);
        CAPTURE_LOGI("Call VX_CAPTURE_CaptureOnce(), Ret: %d", status);
        result = subHalResult(status);
        // A single shot consumes the PQ binding, whatever the hardware said.
        if (mPqStreamInfo[slot].pqId >= 0) {
            mPqStreamInfo[slot].pqId = -1;
        }
    }

    // The frame configuration is one-shot: the client configures again before the next capture.
    // Assigning empty records also releases the cloned handles and the offset arrays; copying from
    // constant ones spares building and zero-filling two temporaries on every capture.
    static const CaptureDstFrameInfo kNoDst{};
    static const CaptureSrcFrameInfo kNoSrc{};
    {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        mDstFrameInfo[slot] = kNoDst;
        mSrcFrameInfo[slot] = kNoSrc;
    }
    return result;
}

Return<CaptureReturn> Capture::captureOnceWithCallback(int32_t captureId,
                                                       const sp<ICaptureCallback>& callback) {
    CAPTURE_LOGI("Call captureOnceWithCallback(), captureId: 0x%x", captureId);
    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("captureOnceWithCallback , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return CaptureReturn::INVALID_CAPTURE_ID;
    }
    const int slot = slotOf(captureId);

    if (callback != nullptr) {
        installCallback(slot, callback);
        CAPTURE_LOGD("captureOnceWithCallback Call setCallback(), success");
        stCallbackInputParams[slot].pfnCallback = Callback_CaptureOnceDone;
        stCallbackInputParams[slot].u32Flag = 1;

        const uint32_t status = registerWithSubHal(__func__, captureId, slot);
        CAPTURE_LOGI("captureOnceWithCallback Call VX_CAPTURE_RegisterCallback(), Ret: %d", status);
        if (status != 0) {
            unregisterClientCallback(__func__, captureId, slot);
            return CaptureReturnMapping(static_cast<int32_t>(status));
        }
    } else {
        CAPTURE_LOGI("Call captureOnceWithCallback(), no callback ");
    }

    const uint32_t status = SUBHAL_CALL(mCaptureOnce, captureId);
    CAPTURE_LOGI("captureOnceWithCallback Call VX_CAPTURE_CaptureOnce(), Ret: %d", status);
    return subHalResult(status);
}

Return<CaptureReturn> Capture::startCapture(int32_t captureId,
                                            const sp<ICaptureCallback>& callback) {
    CAPTURE_LOGI("Call startCapture(), captureId: 0x%x", captureId);
    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("startCapture , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return CaptureReturn::INVALID_CAPTURE_ID;
    }
    const int slot = slotOf(captureId);
    CaptureReturn result = CaptureReturn::SUCCESS;

    if (callback != nullptr) {
        installCallback(slot, callback);
        CAPTURE_LOGD("Call setCallback(), success");
    }
    stCallbackInputParams[slot].pfnCallback = Callback_CaptureDone;
    stCallbackInputParams[slot].u32Flag = 1;

    if (callback != nullptr) {
        const uint32_t status = registerWithSubHal(__func__, captureId, slot);
        CAPTURE_LOGI("Call VX_CAPTURE_RegisterCallback(), Ret: %d", status);
        result = subHalResult(status);
    }

    // The PQ side is set up even when the registration failed; the rollback below undoes both.
    if (mPqStreamInfo[slot].pqId >= 0) {
        GetPqInfo(static_cast<CapturePoint>(mPqStreamInfo[slot].capturePoint.load()),
                  mPqStreamInfo[slot].pqId);
        const int32_t pqId = mPqStreamInfo[slot].pqId;
        if (static_cast<uint32_t>(pqId) <= kMaxPqCallbackId) {
            registerPqCallback(pqId);
        }
    }

    if (result == CaptureReturn::SUCCESS) {
        const uint32_t status = SUBHAL_CALL(mCaptureStart, captureId);
        CAPTURE_LOGI("Call VX_CAPTURE_CaptureStart(), Ret: %d", status);
        if (status == 0) {
            return CaptureReturn::SUCCESS;
        }
        result = CaptureReturnMapping(static_cast<int32_t>(status));
    }

    // Only an instance bound to a PQ stream is rolled back, client callback included. Without a
    // PQ stream the callback and its registration stay until stopCapture or close.
    if (mPqStreamInfo[slot].pqId >= 0) {
        unRegisterPqCallback(mPqStreamInfo[slot].pqId);
        mPqStreamInfo[slot].pqId = -1;
        unregisterClientCallback(__func__, captureId, slot);
    }
    return result;
}

Return<CaptureReturn> Capture::stopCapture(int32_t captureId) {
    CAPTURE_LOGI("Call stopCapture(), captureId: 0x%x", captureId);
    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("stopCapture , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return CaptureReturn::INVALID_CAPTURE_ID;
    }
    const int slot = slotOf(captureId);
    CaptureReturn result = CaptureReturn::SUCCESS;

    if (hasCallback(slot)) {
        const uint32_t status =
            SUBHAL_CALL(mUnRegisterCallback, captureId, &stCallbackInputParams[slot]);
        CAPTURE_LOGI("Call VX_CAPTURE_UnRegisterCallback(), Ret: %d", status);
        result = subHalResult(status);
        dropCallback(slot);
    }

    if (mPqStreamInfo[slot].pqId >= 0) {
        unRegisterPqCallback(mPqStreamInfo[slot].pqId);
        mPqStreamInfo[slot].pqId = -1;
    }

    // Stopped even when the unregistration failed; the first error is the one reported.
    const uint32_t status = SUBHAL_CALL(mCaptureStop, captureId);
    CAPTURE_LOGI("Call VX_CAPTURE_CaptureStop(), Ret: %d", status);
    if (result == CaptureReturn::SUCCESS) {
        result = subHalResult(status);
    }
    return result;
}

Return<CaptureReturn> Capture::frameProcessDone(int32_t captureId, uint32_t index) {
    CAPTURE_LOGI("Call frameProcessDone(), captureId: 0x%x, index: %u", captureId, index);
    if (!isValidOpenHandle(static_cast<uint32_t>(captureId))) {
        CAPTURE_LOGW("frameProcessDone , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return CaptureReturn::INVALID_CAPTURE_ID;
    }
    const uint32_t status = SUBHAL_CALL(mFrameProcessDone, captureId, index);
    CAPTURE_LOGI("Call VX_CAPTURE_FrameProcessDone(), Ret: %d", status);
    return subHalResult(status);
}

Return<CaptureReturn> Capture::notifyContinueCapture(int32_t captureId) {
    CAPTURE_LOGI("Call notifyContinueCapture(), captureId: 0x%x", captureId);
    if (!isValidOpenHandle(static_cast<uint32_t>(captureId))) {
        CAPTURE_LOGW("notifyContinueCapture , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return CaptureReturn::INVALID_CAPTURE_ID;
    }
    const uint32_t status = SUBHAL_CALL(mNotifyContinueCapture, captureId);
    CAPTURE_LOGI("Call VX_CAPTURE_NotifyContinueCapture(), Ret: %d", status);
    return subHalResult(status);
}

int Capture::Callback_CaptureOnceDone(int captureId, unsigned int /*reserved*/, void* doneInfo,
                                      void* sequenceIdRef) {
    CAPTURE_LOGI("Call Callback_CaptureOnceDone(), captureId: 0x%x", captureId);
    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("Callback_CaptureOnceDone , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return 7;
    }
    const int slot = slotOf(captureId);

    CaptureCallbackParams params;
    bool indexInRange = false;
    if (!buildCallbackParams(captureId, doneInfo, &params, &indexInRange)) {
        CAPTURE_LOGW("Callback_CaptureOnceDone , no done record, captureId: 0x%x", captureId);
        return 7;
    }
    if (!indexInRange) {
        CAPTURE_LOGW("Callback_CaptureOnceDone index(%u) out of range, no offsets", params.index);
    }
    CAPTURE_LOGI(
        "Callback_CaptureOnceDone index(%d) ErrorNo(%d) Y_offSet(0x%x) C_offSet(0x%x) "
        "Y_Size(0x%x) C_Size(0x%x) ",
        params.index, static_cast<int>(params.result), params.yOffset, params.cOffset, params.ySize,
        params.cSize);

    // Tested without the lock on purpose; the pointer itself is checked again under it.
    if (!hasCallback(slot)) {
        CAPTURE_LOGD("Callback is NULL.");
        return 0;
    }
    CAPTURE_LOGD("Executing callback...");
    if (sequenceIdRef == nullptr) {
        CAPTURE_LOGW("callback sequenceId missing, skip onNotify(). captureId: 0x%x", captureId);
        return 0;
    }
    const uint32_t current = loadSequence(static_cast<const uint32_t*>(sequenceIdRef));
    {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        const uint32_t latest = loadSequence(&mCallbackSequeceId[slot]);
        if (current != latest) {
            CAPTURE_LOGI(
                "callback sequenceId not match, skip onNotify(). captureId: 0x%x, "
                "u32CurrentCallbackSeqId(%u), u32LatestCallbackSeqId(%u)",
                captureId, current, latest);
        } else if (mCallback[slot] == nullptr) {
            CAPTURE_LOGD("Callback is NULL.");
        } else {
            Return<void> ret = mCallback[slot]->onNotify(CaptureEventNotify::FRAME_DONE, params);
            // The outcome is of no interest here, but an unread failed status aborts the process
            // on the platform runtime.
            (void)ret.isOk();
        }
    }
    CAPTURE_LOGD("Execute callback done.");
    return 0;
}

int Capture::Callback_CaptureDone(int captureId, unsigned int /*reserved*/, void* doneInfo,
                                  void* sequenceIdRef) {
    CAPTURE_LOGI("Call Callback_CaptureDone(), captureId: 0x%x", captureId);
    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("Callback_CaptureDone , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return 7;
    }
    const int slot = slotOf(captureId);

    CaptureCallbackParams params;
    bool indexInRange = false;
    if (!buildCallbackParams(captureId, doneInfo, &params, &indexInRange)) {
        CAPTURE_LOGW("Callback_CaptureDone , no done record, captureId: 0x%x", captureId);
        return 7;
    }
    if (!indexInRange) {
        CAPTURE_LOGW("Callback_CaptureDone index(%u) out of range, no offsets", params.index);
    }
    CAPTURE_LOGI(
        "Callback_CaptureDone index(%d) Y_offSet(0x%x) C_offSet(0x%x) Y_Size(0x%x) "
        "C_Size(0x%x) ",
        params.index, params.yOffset, params.cOffset, params.ySize, params.cSize);

    {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        if (mCallback[slot] == nullptr) {
            CAPTURE_LOGD("Callback is NULL.");
        } else {
            CAPTURE_LOGD("Executing callback...");
            if (sequenceIdRef == nullptr) {
                CAPTURE_LOGW("callback sequenceId missing, skip onNotify(). captureId: 0x%x",
                             captureId);
            } else {
                const uint32_t current = loadSequence(static_cast<const uint32_t*>(sequenceIdRef));
                const uint32_t latest = loadSequence(&mCallbackSequeceId[slot]);
                if (current != latest) {
                    CAPTURE_LOGI(
                        "callback sequenceId not match, skip onNotify(). captureId: "
                        "0x%x, u32CurrentCallbackSeqId(%u), u32LatestCallbackSeqId(%u)",
                        captureId, current, latest);
                } else {
                    Return<void> ret =
                        mCallback[slot]->onNotify(CaptureEventNotify::FRAME_DONE, params);
                    if (!ret.isOk()) {
                        CAPTURE_LOGD("Warning: callback onNotify result is not OK !!");
                    }
                }
            }
            CAPTURE_LOGD("Execute callback done.");
        }
    }
    return 0;
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
