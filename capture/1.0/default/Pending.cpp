// TEMPORARY: weak placeholders so the library links while its parts are written in parallel.
// Each is overridden by the real (strong) definition in its own file. Removed before landing.
#include "BandwidthInfo.h"
#include "Capture.h"
#include "EnumMapping.h"
#include "PqLink.h"
#include "SubHal.h"
#include "gpu_draw.h"

#define WEAK __attribute__((weak))

extern "C" {
WEAK uint32_t GPU_LOG_LEVEL = 32;
}
WEAK GpuPhotoFeatureIn::GpuPhotoFeatureIn(native_handle_t*, native_handle_t*) {}
WEAK GpuPhotoFeatureIn::~GpuPhotoFeatureIn() {}

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

// Constructor and destructor are not stubbed: the destructor anchors the vtable.
WEAK Return<CaptureReturn> Capture::initLib() { return CaptureReturn::FAIL; }
WEAK Return<void> Capture::open(open_cb) { return Void(); }
WEAK Return<CaptureReturn> Capture::close(int32_t) { return CaptureReturn::FAIL; }
WEAK Return<CaptureReturn> Capture::setCaptureInfo(int32_t, const CaptureInfo&) {
    return CaptureReturn::FAIL;
}
WEAK Return<void> Capture::setCaptureFrameInfo(int32_t, const CaptureSrcFrameInfo&,
                                               const CaptureDstFrameInfo&,
                                               setCaptureFrameInfo_cb) {
    return Void();
}
WEAK Return<void> Capture::getCaptureCapabilityInfo(int32_t, const setQueryInfo&,
                                                    getCaptureCapabilityInfo_cb) {
    return Void();
}
WEAK Return<CaptureReturn> Capture::captureOnce(int32_t) { return CaptureReturn::FAIL; }
WEAK Return<CaptureReturn> Capture::captureOnceWithCallback(int32_t,
                                                            const sp<ICaptureCallback>&) {
    return CaptureReturn::FAIL;
}
WEAK Return<CaptureReturn> Capture::startCapture(int32_t, const sp<ICaptureCallback>&) {
    return CaptureReturn::FAIL;
}
WEAK Return<CaptureReturn> Capture::stopCapture(int32_t) { return CaptureReturn::FAIL; }
WEAK Return<CaptureReturn> Capture::frameProcessDone(int32_t, uint32_t) {
    return CaptureReturn::FAIL;
}
WEAK Return<void> Capture::setCallback(int32_t, const sp<ICaptureCallback>&) { return Void(); }
WEAK Return<CaptureReturn> Capture::startAllSourceRotation(int32_t, const SourceRotationInfo&,
                                                           const sp<ICaptureCallback>&) {
    return CaptureReturn::FAIL;
}
WEAK Return<CaptureReturn> Capture::stopAllSourceRotation(int32_t) { return CaptureReturn::FAIL; }
WEAK Return<CaptureReturn> Capture::notifyContinueCapture(int32_t) { return CaptureReturn::FAIL; }
WEAK Return<void> Capture::debug(const hidl_handle&, const hidl_vec<hidl_string>&) {
    return Void();
}
WEAK void Capture::loadSystemConfig() {}
WEAK int Capture::Callback_CaptureOnceDone(int, unsigned int, void*, void*) { return 7; }
WEAK int Capture::Callback_CaptureDone(int, unsigned int, void*, void*) { return 7; }
WEAK CaptureReturn Capture::captureOnceGpu(int32_t) { return CaptureReturn::FAIL; }
WEAK ICapture* HIDL_FETCH_ICapture(const char*) { return nullptr; }

WEAK CaptureReturn CaptureReturnMapping(int32_t) { return CaptureReturn::FAIL; }
WEAK uint32_t formatMapping(uint32_t) { return kVxFormatUnknown; }
WEAK uint32_t formatMappingGpu(uint32_t) { return 0; }
WEAK uint32_t isYuv420Tile(uint32_t) { return 0; }
WEAK uint32_t colorSpaceMapping(uint32_t) { return 0; }
WEAK uint32_t colorimetryMapping(uint32_t) { return 0; }
WEAK uint32_t secureBufferMapping(uint32_t) { return 0; }
WEAK uint32_t BandwidthCfgMapping(uint32_t) { return 2; }
WEAK uint32_t capPointMapping(uint32_t) { return 16; }

WEAK void UpdateBWInfo(uint8_t, uint32_t, uint32_t, uint32_t, bool) {}
WEAK ::android::sp<IPq> GetPqService() { return nullptr; }
WEAK void unRegisterPqCallback(int) {}
WEAK void GetPqInfo(CapturePoint, int) {}

WEAK int32_t gpu_init_drawing_env(gpu_format_covert_type, GpuDrawing** drawing) {
    if (drawing != nullptr) *drawing = nullptr;
    return 1;
}
WEAK void gpu_deinit_drawing_env(GpuDrawing*) {}
WEAK void gpu_set_debug_log_level(uint32_t) {}
WEAK GpuPhotoFeatureIn* gpu_feature_instance_create(float, int, int, int, int, int, int, int, int,
                                                    native_handle_t*, native_handle_t*) {
    return nullptr;
}
WEAK void gpu_feature_instance_delete(GpuPhotoFeatureIn*) {}
WEAK int32_t gpu_draw_frame(GpuPhotoFeatureIn*, GpuDrawing*) { return 1; }
WEAK uint32_t gpu_get_width_align(uint32_t) { return 0; }

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
