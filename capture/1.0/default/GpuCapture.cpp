// The GPU branch of captureOnce: converts the slot's kept frame records with the GPU path.

// Its lines are captureOnce's, as the client and the log readers know the operation.
#define CAPTURE_LOG_FUNCTION "captureOnce"

#include <cutils/native_handle.h>

#include <mutex>

#include "Capture.h"
#include "CaptureLog.h"
#include "EnumMapping.h"
#include "gpu_draw.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {

// The EGL display is one per process and every conversion terminates it when it ends, so two
// conversions on different binder threads would pull it from under each other. Whole
// conversions take turns here; no other lock is taken while this one is held.
std::mutex gGpuConversionMutex;

}  // namespace

CaptureReturn Capture::captureOnceGpu(int32_t captureId) {
    // captureOnce has checked the identifier; the tables must not be indexed on trust though.
    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("captureOnce , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return CaptureReturn::INVALID_CAPTURE_ID;
    }
    const int slot = slotOf(captureId);
    gpu_set_debug_log_level(CAPTURE_LOG_LEVEL());

    // Copies (with handles of their own), so the drawing runs without the lock.
    CaptureSrcFrameInfo src;
    CaptureDstFrameInfo dst;
    {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        src = mSrcFrameInfo[slot];
        dst = mDstFrameInfo[slot];
    }

    const uint32_t srcFormat = formatMappingGpu(static_cast<uint32_t>(src.format));
    const uint32_t dstFormat = formatMappingGpu(static_cast<uint32_t>(dst.format));
    CAPTURE_LOGI("mFeaturein->src_format[%d], mFeaturein->dst_format[%d]",
                 static_cast<int>(srcFormat), static_cast<int>(dstFormat));
    if (srcFormat == 0 || dstFormat == 0) {
        CAPTURE_LOGW("GPU Not Support!!!");
        return CaptureReturn::FORMAT_NOT_SUPPORT;
    }

    const native_handle_t* srcNative = src.buffer.getNativeHandle();
    const native_handle_t* dstNative = dst.buffer.getNativeHandle();
    if (srcNative == nullptr || dstNative == nullptr) {
        CAPTURE_LOGW("GPU frame buffers not configured: src %p, dst %p",
                     static_cast<const void*>(srcNative), static_cast<const void*>(dstNative));
        return CaptureReturn::INVALID_BUFFER;
    }

    std::lock_guard<std::mutex> conversion(gGpuConversionMutex);
    GpuDrawing* drawing = nullptr;
    gpu_init_drawing_env(gpu_covert_type_for_formats(srcFormat, dstFormat), &drawing);

    // The request carries handles of its own, released here whatever the drawing did.
    native_handle_t* srcClone = native_handle_clone(srcNative);
    native_handle_t* dstClone = native_handle_clone(dstNative);
    GpuPhotoFeatureIn* feature = nullptr;
    if (srcClone != nullptr && dstClone != nullptr) {
        feature = gpu_feature_instance_create(
            static_cast<float>(dst.rotateAngle), static_cast<int>(src.width),
            static_cast<int>(src.height), static_cast<int>(dst.width), static_cast<int>(dst.height),
            static_cast<int>(dst.cropX), static_cast<int>(dst.cropY),
            static_cast<int>(dst.cropWidth), static_cast<int>(dst.cropHeight), srcClone, dstClone);
    } else {
        CAPTURE_LOGE("cloning the frame buffer handles failed");
    }

    CaptureReturn result = CaptureReturn::NO_MEMORY;
    if (feature != nullptr) {
        feature->srcFormat = srcFormat;
        feature->dstFormat = dstFormat;
        // Drawing failures are logged by the GPU path; the client sees the frame as taken.
        gpu_draw_frame(feature, drawing);
        result = CaptureReturn::SUCCESS;
    }
    if (srcClone != nullptr) native_handle_close(srcClone);
    if (dstClone != nullptr) native_handle_close(dstClone);
    if (srcClone != nullptr) native_handle_delete(srcClone);
    if (dstClone != nullptr) native_handle_delete(dstClone);
    gpu_feature_instance_delete(feature);
    gpu_deinit_drawing_env(drawing);

    if (result == CaptureReturn::SUCCESS) mUseGpu[slot] = 0;
    return result;
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
