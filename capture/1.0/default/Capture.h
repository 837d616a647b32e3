// The capture service object and the process-wide tables behind it.
//
// Everything that belongs to one capture instance lives in static tables indexed by its slot
// (identifier - 0x73000000), so that the sub-HAL's completion entries, which only know the
// identifier, can reach it.
#pragma once

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>
#include <vendor/quenlark/hardware/capture/1.0/ICaptureCallback.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "InterfaceLayout.h"
#include "RelaxedAtomic.h"
#include "VxCaptureHal.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;

constexpr int kMaxCaptureSlots = 32;
constexpr int32_t kCaptureIdBase = 0x73000000;
constexpr uint32_t kCapturePointCount = 13;   // CapturePoint 0..12
constexpr uint32_t kCapturePointNone = 13;
constexpr int kGpuWidthAlignEntries = 20;

// Range check used by every method that takes an identifier (signed comparison).
inline bool isValidCaptureId(int32_t captureId) {
    return captureId >= kCaptureIdBase && captureId < kCaptureIdBase + kMaxCaptureSlots;
}
// The check open() applies to the handle that the sub-HAL chose (unsigned masking).
inline bool isValidOpenHandle(uint32_t handle) {
    return (handle & ~31u) == static_cast<uint32_t>(kCaptureIdBase);
}
inline int slotOf(int32_t captureId) {
    return captureId - kCaptureIdBase;
}

// Union of what the two DIP engines can do, folded from the device tree by loadSystemConfig.
struct SystemDtsConfig {
    Relaxed<uint8_t> dip_rotate;          // 0x01: 90 degrees, 0x02: 270 degrees
    Relaxed<uint32_t> dip_HMirrorSz;      // widest mirrorable width; 0: no 180 degrees
    Relaxed<uint8_t> dip_crop;            // 0 or 1
    Relaxed<uint8_t> dip_dscl;            // 0 or 1
    Relaxed<uint8_t> dip_uscl;            // 0 or 1
    Relaxed<uint32_t> format_support_list_w;
    Relaxed<uint32_t> format_support_list_r;
    Relaxed<uint32_t> TileWidthMax;
};
static_assert(sizeof(SystemDtsConfig) == 24, "six words");
static_assert(offsetof(SystemDtsConfig, TileWidthMax) == 20, "the sixth word");

// Binding of a slot to the picture-quality service.
struct PqStreamInfo {
    Relaxed<int32_t> pqId;          // -1: not bound
    Relaxed<int32_t> reserved;
    Relaxed<int32_t> capturePoint;  // CapturePoint; 13: none
};
static_assert(sizeof(PqStreamInfo) == 12, "three words");

// Per-slot tables.
extern CaptureSrcFrameInfo mSrcFrameInfo[kMaxCaptureSlots];   // guarded by mCaptureFrameParamsMutex
extern CaptureDstFrameInfo mDstFrameInfo[kMaxCaptureSlots];   // guarded by mCaptureFrameParamsMutex
extern Relaxed<uint8_t> mUseGpu[kMaxCaptureSlots];
// The static image binds row 0 only; initLib writes {-1, -1, 13} into every row.
extern PqStreamInfo mPqStreamInfo[kMaxCaptureSlots];

// Destination width alignment per GPU pixel format, filled by initLib (entries 13..19 stay 0).
extern Relaxed<uint32_t> mGpuDstWidthAlign[kGpuWidthAlignEntries];

// The two process-wide locks. No path holds both.
extern std::mutex mCallbackMutex;            // Capture::mCallback, Capture::mCallbackSequeceId
extern std::mutex mCaptureFrameParamsMutex;  // mSrcFrameInfo, mDstFrameInfo

struct Capture : public ICapture {
    Capture();
    ~Capture() override;

    // ICapture
    Return<CaptureReturn> initLib() override;
    Return<void> open(open_cb _hidl_cb) override;
    Return<CaptureReturn> close(int32_t captureId) override;
    Return<CaptureReturn> setCaptureInfo(int32_t captureId, const CaptureInfo& info) override;
    Return<void> setCaptureFrameInfo(int32_t captureId, const CaptureSrcFrameInfo& src,
                                     const CaptureDstFrameInfo& dst,
                                     setCaptureFrameInfo_cb _hidl_cb) override;
    Return<void> getCaptureCapabilityInfo(int32_t captureId, const setQueryInfo& query,
                                          getCaptureCapabilityInfo_cb _hidl_cb) override;
    Return<CaptureReturn> captureOnce(int32_t captureId) override;
    Return<CaptureReturn> captureOnceWithCallback(int32_t captureId,
                                                  const sp<ICaptureCallback>& callback) override;
    Return<CaptureReturn> startCapture(int32_t captureId,
                                       const sp<ICaptureCallback>& callback) override;
    Return<CaptureReturn> stopCapture(int32_t captureId) override;
    Return<CaptureReturn> frameProcessDone(int32_t captureId, uint32_t index) override;
    Return<void> setCallback(int32_t captureId, const sp<ICaptureCallback>& callback) override;
    Return<CaptureReturn> startAllSourceRotation(int32_t captureId, const SourceRotationInfo& info,
                                                 const sp<ICaptureCallback>& callback) override;
    Return<CaptureReturn> stopAllSourceRotation(int32_t captureId) override;
    Return<CaptureReturn> notifyContinueCapture(int32_t captureId) override;

    // IBase
    Return<void> debug(const hidl_handle& fd, const hidl_vec<hidl_string>& options) override;

    // Reads the DIP capabilities and the capture-point support flags from the device tree.
    static void loadSystemConfig();

    // Completion entries handed to the sub-HAL: 0 when handled, 7 for a bad identifier.
    static int Callback_CaptureOnceDone(int captureId, unsigned int reserved, void* doneInfo,
                                        void* sequenceIdRef);
    static int Callback_CaptureDone(int captureId, unsigned int reserved, void* doneInfo,
                                    void* sequenceIdRef);

    static std::atomic<void*> mLibHandle;
    static SystemDtsConfig mSystemDtsConfig;
    static Relaxed<uint32_t> mPointsSupportState[kCapturePointCount];

    static sp<ICaptureCallback> mCallback[kMaxCaptureSlots];        // mCallbackMutex
    static uint32_t mCallbackSequeceId[kMaxCaptureSlots];           // mCallbackMutex; see below
    static VX_CAPTURE_CallbackInputParams_s stCallbackInputParams[kMaxCaptureSlots];

    // The sequence counters are also read without the lock (through the sub-HAL's reference),
    // so every access goes through these two.
    static uint32_t loadSequence(const uint32_t* ref) {
        return __atomic_load_n(ref, __ATOMIC_RELAXED);
    }
    // Caller holds mCallbackMutex. Returns the new value.
    static uint32_t bumpSequenceLocked(int slot) {
        uint32_t next = loadSequence(&mCallbackSequeceId[slot]) + 1u;
        __atomic_store_n(&mCallbackSequeceId[slot], next, __ATOMIC_RELAXED);
        return next;
    }

    // Several paths test "is a client callback installed" without taking mCallbackMutex. The
    // strong pointer itself may only be touched under the lock, so a flag mirrors it.
    // Caller holds mCallbackMutex.
    static void setCallbackLocked(int slot, const sp<ICaptureCallback>& callback) {
        mCallback[slot] = callback;
        mCallbackInstalled[slot] = callback != nullptr ? 1 : 0;
    }
    static bool hasCallback(int slot) { return mCallbackInstalled[slot] != 0; }

private:
    static Relaxed<uint8_t> mCallbackInstalled[kMaxCaptureSlots];

    // The GPU branch of captureOnce (conversion of the kept frame records).
    static CaptureReturn captureOnceGpu(int32_t captureId);

    // Lets the GPU path's tests run the branch without the rest of captureOnce.
};

// The process's one service object, as passthrough HALs export it: the service's main and
// in-process users share it.
extern "C" ICapture* HIDL_FETCH_ICapture(const char* name);

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
