// The service object: construction, loading of the capture sub-HAL, open, close and debug.
#include "Capture.h"

#include <dlfcn.h>
#include <stdio.h>

#include <mutex>

#include "CaptureLog.h"
#include "PlatformConfig.h"
#include "SubHal.h"
#include "gpu_draw.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {

// HAL pixel formats of the GPU path's destinations, in the order of mGpuDstWidthAlign: the images
// of CaptureFormat 0x1, 0x2, 0x4, 0x8, 0x100000, 0x400000, 0x80, 0x100, 0x200, 0x800, 0x1000,
// 0x2000 and 0x200000 under formatMappingGpu.
constexpr uint32_t kGpuDstFormats[] = {20, 262, 1, 5, 22, 43, 4, 3, 16, 21, 17, 54, 0x32315659};
static_assert(sizeof(kGpuDstFormats) / sizeof(kGpuDstFormats[0]) <= kGpuWidthAlignEntries,
              "the alignment table must hold every destination format");

// glibc refuses a dlopen mode without a binding flag; bionic binds immediately anyway, so
// RTLD_NOW means the same on both.
constexpr int kSubHalOpenMode = RTLD_NOW;

template <typename Fn>
void resolve(void* library, const char* symbol, std::atomic<Fn>& entry) {
    entry.store(reinterpret_cast<Fn>(dlsym(library, symbol)), std::memory_order_relaxed);
}

void resolveEntries(void* library) {
    resolve(library, "VX_CAPTURE_Init", mInitCapture);
    resolve(library, "VX_CAPTURE_DeInit", mDeInitCapture);
    resolve(library, "VX_CAPTURE_Open", mOpenCapture);
    resolve(library, "VX_CAPTURE_Close", mCloseCapture);
    resolve(library, "VX_CAPTURE_SetCaptureInfo", mSetCaptureInfo);
    resolve(library, "VX_CAPTURE_SetCaptureFrameInfo", mSetCaptureFrameInfo);
    resolve(library, "VX_CAPTURE_GetCapabilityInfo", mGetCaptureCapabilityInfo);
    resolve(library, "VX_CAPTURE_GetDipInfo", mGetCaptureDipInfo);
    resolve(library, "VX_CAPTURE_CaptureOnce", mCaptureOnce);
    resolve(library, "VX_CAPTURE_CaptureStart", mCaptureStart);
    resolve(library, "VX_CAPTURE_CaptureStop", mCaptureStop);
    resolve(library, "VX_CAPTURE_RegisterCallback", mRegisterCallback);
    resolve(library, "VX_CAPTURE_UnRegisterCallback", mUnRegisterCallback);
    resolve(library, "VX_CAPTURE_FrameProcessDone", mFrameProcessDone);
    resolve(library, "VX_CAPTURE_NotifyContinueCapture", mNotifyContinueCapture);
    resolve(library, "VX_CAPTURE_DumpInfo", mDumpInfo);
}

}  // namespace

Capture::Capture() {
    CAPTURE_LOGI("[HIDL] Capture Service Constructor");
}

Capture::~Capture() {
    CAPTURE_LOGI("[HIDL] Capture Service Distructor");
    // The entry pointers are left as they are: nothing may call them once the service is gone.
    void* library = mLibHandle.exchange(nullptr);
    if (library != nullptr) {
        dlclose(library);
    }
}

Return<CaptureReturn> Capture::initLib() {
    CAPTURE_LOGI("Call initLib()");
    void* library = mLibHandle.load();
    if (library != nullptr) {
        CAPTURE_LOGI("Capture::initLib libvx3_capture_hal.so is already dlopen.");
        CAPTURE_LOGI("Capture::initLib get symbol ok.");
    } else {
        library = dlopen(subHalLibraryPath(), kSubHalOpenMode);
        if (library == nullptr) {
            const char* reason = dlerror();
            CAPTURE_LOGW("[%s][%d] Open libvx3_capture_hal.so failed! %s", __func__, __LINE__,
                         reason != nullptr ? reason : "");
            return CaptureReturn::FAIL;
        }
        // initLib is meant to run once, before anything else; should two calls still race, the
        // loser drops its reference so that the library stays open exactly once.
        void* expected = nullptr;
        if (!mLibHandle.compare_exchange_strong(expected, library)) {
            dlclose(library);
            library = expected;
        }
        CAPTURE_LOGI("Capture::initLib get symbol ok.");
    }

    resolveEntries(library);
    CAPTURE_LOGI("Capture::initLib get symbol ok done.");

    loadSystemConfig();

    for (PqStreamInfo& row : mPqStreamInfo) {
        row.pqId = -1;
        row.reserved = -1;
        row.capturePoint = kCapturePointNone;
    }

    size_t index = 0;
    for (uint32_t format : kGpuDstFormats) {
        mGpuDstWidthAlign[index++] = gpu_get_width_align(format);
    }
    return CaptureReturn::SUCCESS;
}

Return<void> Capture::open(open_cb _hidl_cb) {
    CAPTURE_LOGI("Call open()");
    // The sub-HAL defines these two parameters; the service always passes 0 and never reads them.
    uint8_t initParam = 0;
    uint8_t openParam = 0;
    uint32_t handle = 0;

    uint32_t status = SUBHAL_CALL(mInitCapture, &initParam);
    CAPTURE_LOGI("Call VX_CAPTURE_Init(), Ret: %d", status);
    if (status != 0) {
        // A status that maps to SUCCESS lets the open go ahead.
        const CaptureReturn mapped = CaptureReturnMapping(static_cast<int32_t>(status));
        if (mapped != CaptureReturn::SUCCESS) {
            if (_hidl_cb) _hidl_cb(mapped, 0);
            return Void();
        }
    }

    status = SUBHAL_CALL(mOpenCapture, &openParam, &handle);
    CAPTURE_LOGI("Call VX_CAPTURE_Open(), Ret: %d, hHandle: 0x%x", status, handle);
    CaptureReturn ret = subHalResult(status);
    if (!isValidOpenHandle(handle)) {
        CAPTURE_LOGW("open , INVALID_CAPTURE_ID ERROR 0x%x", handle);
        ret = CaptureReturn::INVALID_CAPTURE_ID;
    }
    // The handle goes back even when it is refused, so that the client can report what it got.
    if (_hidl_cb) _hidl_cb(ret, static_cast<int32_t>(handle));
    return Void();
}

Return<CaptureReturn> Capture::close(int32_t captureId) {
    CAPTURE_LOGI("Call close(), captureId: 0x%x", static_cast<uint32_t>(captureId));
    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("close , INVALID_CAPTURE_ID ERROR 0x%x", static_cast<uint32_t>(captureId));
        return CaptureReturn::INVALID_CAPTURE_ID;
    }
    const int slot = slotOf(captureId);

    if (hasCallback(slot)) {
        // Closing must not fail because the sub-HAL forgot the registration: only log it.
        const uint32_t unregistered =
            SUBHAL_CALL(mUnRegisterCallback, captureId, &stCallbackInputParams[slot]);
        CAPTURE_LOGI("Call VX_CAPTURE_UnRegisterCallback(), Ret: %d", unregistered);
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        setCallbackLocked(slot, nullptr);
    }

    uint32_t status = SUBHAL_CALL(mCloseCapture, captureId);
    CAPTURE_LOGI("Call VX_CAPTURE_Close(), Ret: %d", status);
    if (status != 0) {
        const CaptureReturn mapped = CaptureReturnMapping(static_cast<int32_t>(status));
        if (mapped != CaptureReturn::SUCCESS) return mapped;
    }

    status = SUBHAL_CALL(mDeInitCapture);
    CAPTURE_LOGI("Call VX_CAPTURE_DeInit(), Ret: %d", status);
    return subHalResult(status);
}

Return<void> Capture::debug(const hidl_handle& fd, const hidl_vec<hidl_string>& options) {
    const native_handle_t* handle = fd.getNativeHandle();
    // A negative descriptor is the caller's to answer for: the sub-HAL still gets it.
    if (handle == nullptr || handle->numFds < 1) {
        CAPTURE_LOGE("Invalid parameters passed to debug()");
        return Void();
    }
    const int out = handle->data[0];
    // The banner to a negative descriptor could only fail, and glibc's dprintf keeps the buffer
    // of a stream it could not write.
    if (out >= 0) dprintf(out, "================ Capture Hal Dump ================\n");

    // Any option at all asks for the sub-HAL's detailed dump; the words themselves are not read.
    const uint32_t level = options.size() > 0 ? 32u : 3u;
    const uint32_t status = SUBHAL_CALL(mDumpInfo, out, level);
    CAPTURE_LOGI("Call VX_CAPTURE_DumpInfo(), Ret: %d", status);
    return Void();
}

extern "C" ICapture* HIDL_FETCH_ICapture(const char* /* name */) {
    // The service's state is the process's (the slot tables, the one loaded sub-HAL), and a
    // Capture's destructor unloads the sub-HAL: two objects would let one pull the library from
    // under the other and under completions in flight. Every caller gets the same object, which
    // holds a reference of its own and so lives as long as the process.
    static ICapture* const instance = [] {
        ICapture* capture = new Capture();
        capture->incStrong(&instance);
        return capture;
    }();
    return instance;
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
