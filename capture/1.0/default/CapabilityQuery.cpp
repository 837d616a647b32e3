// getCaptureCapabilityInfo: decide whether a conversion goes through the DIP engines or the GPU,
// from the device-tree capabilities and the sub-HAL's limits, and remember the choice per slot.
#include <cutils/properties.h>

#include <cstdint>
#include <cstring>

#include "Capture.h"
#include "CaptureLog.h"
#include "EnumMapping.h"
#include "SubHal.h"
#include "VxCaptureHal.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

// Checks the request's widths against the DIP limits the sub-HAL reports for this very request.
// Both records are the function's own copies: the limits never leak into the caller's answer.
bool checkDipSupportWithVxInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s query,
                               VX_CAPTURE_getQueryInfo_s limits);

namespace {

constexpr uint8_t kCaptureTypeStream = 0;
constexpr uint8_t kCaptureTypeDram = 1;

constexpr uint8_t kRotate90 = 0x01;
constexpr uint8_t kRotate270 = 0x02;

constexpr uint32_t kUhdWidth = 3840;
constexpr uint32_t kFormatNv21 = static_cast<uint32_t>(CaptureFormat::NV21);

// What the result's engine field says when the DIP answered.
constexpr uint8_t kEngineDip = 2;

// GetDipInfo modes: 0 asks whether the DIP should take a memory-to-memory job at all, 1 asks
// for its bandwidth once the DIP has been chosen.
constexpr uint32_t kDipInfoModeUsable = 0;
constexpr uint32_t kDipInfoModeBandwidth = 1;

constexpr const char* kForceGpuProperty = "vendor.zor.capture.forcegpu";

bool isSupportedRotation(uint32_t angle) {
    return angle == 0 || angle == 90 || angle == 180 || angle == 270;
}

// Index into mGpuDstWidthAlign for a destination format; -1 when the GPU keeps no alignment.
int gpuWidthAlignIndex(uint32_t dstFormat) {
    switch (static_cast<CaptureFormat>(dstFormat)) {
        case CaptureFormat::YUYV:
            return 0;
        case CaptureFormat::YUYV_10B:
            return 1;
        case CaptureFormat::ARGB8888:
            return 2;
        case CaptureFormat::ABGR8888:
            return 3;
        case CaptureFormat::ARGB16161616:
            return 4;
        case CaptureFormat::ABGR2101010:
            return 5;
        case CaptureFormat::RGB565:
            return 6;
        case CaptureFormat::BGR888:
            return 7;
        case CaptureFormat::NV16:
            return 8;
        case CaptureFormat::NV12:
            return 9;
        case CaptureFormat::NV21:
            return 10;
        case CaptureFormat::RZ21S10L:
            return 11;
        case CaptureFormat::YV12:
            return 12;
        default:
            return -1;
    }
}

// Platforms whose tile limit is below UHD still take one UHD job on the DIP: a tiled 4:2:0 frame
// copied whole (or cropped to its full width) into NV21, without offset or rotation.
bool isUhdTileCopy(const setQueryInfo& query, uint32_t tileWidthMax) {
    const uint32_t srcFormat = static_cast<uint32_t>(query.src_format);
    const uint32_t dstFormat = static_cast<uint32_t>(query.dst_format);
    if (tileWidthMax == 0 || (tileWidthMax >> 8) > 14) return false;
    if (query.dst_width != kUhdWidth || query.src_width != kUhdWidth) return false;
    if (isYuv420Tile(srcFormat) == 0 || dstFormat != kFormatNv21) return false;
    if (query.crop_x != 0 || query.crop_y != 0 || query.rotationAngle != 0) return false;
    const bool wholeFrame =
        query.src_height == query.dst_height && query.crop_width == 0 && query.crop_height == 0;
    const bool fullWidthCrop =
        query.crop_width == kUhdWidth && query.crop_height == query.dst_height;
    return wholeFrame || fullWidthCrop;
}

}  // namespace

// The device-tree half of the decision; the sub-HAL's limits are the last word.
bool IsDipCanSupport(int32_t captureId, const setQueryInfo& query,
                     const VX_CAPTURE_setQueryInfo_s& vxQuery) {
    const bool isDram = query.captureType == kCaptureTypeDram;
    const uint32_t srcFormat = static_cast<uint32_t>(query.src_format);
    const uint32_t dstFormat = static_cast<uint32_t>(query.dst_format);

    char forceGpu[PROPERTY_VALUE_MAX] = {};
    property_get(kForceGpuProperty, forceGpu, "0");
    if (forceGpu[0] != '\0' && std::strcmp(forceGpu, "1") == 0) {
        CAPTURE_LOGD("vendor.zor.capture.forcegpu=1, force use gpu");
        return false;
    }

    const uint8_t dipRotate = Capture::mSystemDtsConfig.dip_rotate;
    const uint32_t hMirrorSz = Capture::mSystemDtsConfig.dip_HMirrorSz;
    const uint8_t dipCrop = Capture::mSystemDtsConfig.dip_crop;
    const uint8_t dipDscl = Capture::mSystemDtsConfig.dip_dscl;
    const uint8_t dipUscl = Capture::mSystemDtsConfig.dip_uscl;
    const uint32_t listW = Capture::mSystemDtsConfig.format_support_list_w;
    const uint32_t listR = Capture::mSystemDtsConfig.format_support_list_r;
    const uint32_t tileWidthMax = Capture::mSystemDtsConfig.TileWidthMax;
    CAPTURE_LOGD(
        "dip_rotate(%d) dip_HMirrorSz(%d) dip_crop(%d) dip_dscl(%d) dip_uscl(%d) "
        "format_support_list_w(0x%x) format_support_list_r(0x%x) TileWidthMax(%d) "
        "CaptureType(%s)",
        dipRotate, static_cast<int>(hMirrorSz), dipCrop, dipDscl, dipUscl, listW, listR,
        static_cast<int>(tileWidthMax), isDram ? "DRAM-DRAM" : "STREAM-DRAM");

    // A live source is read by the capture front end, not by the DIP's read port.
    if (isDram && (srcFormat & listR) == 0) {
        CAPTURE_LOGW("src_format(0x%x) is not support by dip!", srcFormat);
        return false;
    }
    if ((dstFormat & listW) == 0) {
        CAPTURE_LOGW("dst_format(0x%x) is not support by dip!", dstFormat);
        return false;
    }

    // Rotation of a live source happens upstream of the DIP, so only DRAM sources are tested.
    CAPTURE_LOGD("debug mQueryInfo.rotationAngle:%d !", static_cast<int>(query.rotationAngle));
    switch (query.rotationAngle) {
        case 270:
            if (isDram && (dipRotate & kRotate270) == 0) {
                CAPTURE_LOGW("dip not support rotate 270!");
                return false;
            }
            break;
        case 180:
            if (isDram && hMirrorSz == 0) {
                CAPTURE_LOGW("dip not support rotate 180!");
                return false;
            }
            if (isDram && query.crop_width > hMirrorSz) {
                CAPTURE_LOGW("crop width exceed for rotate 180! cropWidth(%u)", query.crop_width);
                return false;
            }
            break;
        case 90:
            if (isDram && (dipRotate & kRotate90) == 0) {
                CAPTURE_LOGW("dip not support rotate 90!");
                return false;
            }
            break;
        default:
            break;
    }

    if (dipCrop == 0 &&
        (query.src_width > query.crop_width || query.crop_height < query.src_height)) {
        CAPTURE_LOGW("dip not support crop !");
        return false;
    }
    // Scaling is measured from the crop rectangle: that is what the DIP actually scales.
    if (dipDscl == 0 &&
        (query.dst_width < query.crop_width || query.dst_height < query.crop_height)) {
        CAPTURE_LOGW("dip not support do downscale !");
        return false;
    }
    if (dipUscl == 0 &&
        (query.dst_width > query.crop_width || query.dst_height > query.crop_height)) {
        CAPTURE_LOGW("dip not support do upscale !");
        return false;
    }

    if (isDram) {
        if (isUhdTileCopy(query, tileWidthMax)) return true;
        if (isYuv420Tile(srcFormat) != 0 && tileWidthMax < query.src_width) {
            CAPTURE_LOGW(
                "src width exceed ! src_format(0x%x) mQueryInfo.src_width(%u) "
                "TileWidthMax(%u)",
                srcFormat, query.src_width, tileWidthMax);
            return false;
        }
    }
    if (isYuv420Tile(dstFormat) != 0 && tileWidthMax < query.dst_width) {
        CAPTURE_LOGW(
            "dst width exceed ! dst_format(0x%x) mQueryInfo.dst_width(%u) "
            "TileWidthMax(%u)",
            dstFormat, query.dst_width, tileWidthMax);
        return false;
    }

    VX_CAPTURE_getQueryInfo_s limits;
    std::memset(&limits, 0, sizeof(limits));
    return checkDipSupportWithVxInfo(captureId, vxQuery, limits);
}

bool checkDipSupportWithVxInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s query,
                               VX_CAPTURE_getQueryInfo_s limits) {
    uint32_t status = SUBHAL_CALL(mGetCaptureCapabilityInfo, captureId, &query, &limits);
    if (status != 0) return false;

    CAPTURE_LOGD("src_width(%u), src_height(%u), dst_width(%u), dst_height(%u)", query.src_width,
                 query.src_height, query.dst_width, query.dst_height);
    CAPTURE_LOGD(
        "src_min_width(%u), src_max_width(%u), src_max_width_rwsep(%u), dst_min_width(%u), "
        "dst_max_width(%u), dst_max_width_rwsep(%u)",
        limits.src_min_width, limits.src_max_width, limits.src_max_width_rwsep,
        limits.dst_min_width, limits.dst_max_width, limits.dst_max_width_rwsep);

    // A live source arrives at whatever width the stream has: only DRAM reads are limited.
    if (query.bIsDram != 0) {
        if (limits.src_max_width == 0) {
            CAPTURE_LOGW("src_max_width(%u) is invalid !!", limits.src_max_width);
            return false;
        }
        // With read and write separated the DIP reads wider sources than its plain maximum.
        if (query.src_width > limits.src_max_width &&
            (limits.src_max_width_rwsep == 0 || query.src_width > limits.src_max_width_rwsep)) {
            CAPTURE_LOGW("src_width(%u) exceed src_max_width(%u) and src_max_width_rwsep(%u) !!",
                         query.src_width, limits.src_max_width, limits.src_max_width_rwsep);
            return false;
        }
        if (query.src_width < limits.src_min_width) {
            CAPTURE_LOGW("src_width(%u) smaller than src_min_width(%u) !!", query.src_width,
                         limits.src_min_width);
            return false;
        }
        if (limits.src_width_align != 0 && query.src_width % limits.src_width_align != 0) {
            CAPTURE_LOGW("src_width(%u) not align(%u) !!", query.src_width, limits.src_width_align);
            return false;
        }
    }

    if (limits.dst_max_width == 0) {
        CAPTURE_LOGW("dst_max_width(%u) is invalid !!", limits.dst_max_width);
        return false;
    }
    if (query.dst_width > limits.dst_max_width &&
        (limits.dst_max_width_rwsep == 0 || query.dst_width > limits.dst_max_width_rwsep)) {
        CAPTURE_LOGW("dst_width(%u) exceed dst_max_width(%u) and dst_max_width_rwsep(%u) !!",
                     query.dst_width, limits.dst_max_width, limits.dst_max_width_rwsep);
        return false;
    }
    if (query.dst_width < limits.dst_min_width) {
        CAPTURE_LOGW("dst_width(%u) smaller than dst_min_width(%u) !!", query.dst_width,
                     limits.dst_min_width);
        return false;
    }
    return true;
}

Return<void> Capture::getCaptureCapabilityInfo(int32_t captureId, const setQueryInfo& query,
                                               getCaptureCapabilityInfo_cb _hidl_cb) {
    CAPTURE_LOGI("Call getCaptureCapabilityInfo(), captureId: 0x%x", captureId);
    getQueryInfo result;
    std::memset(&result, 0, sizeof(result));
    // Binder always hands a callback in; an in-process caller may not, and must not crash us.
    auto reply = [&_hidl_cb, &result](CaptureReturn code) {
        if (_hidl_cb) _hidl_cb(code, result);
    };

    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("getCaptureCapabilityInfo fail, INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        reply(CaptureReturn::INVALID_CAPTURE_ID);
        return Void();
    }
    if (!isSupportedRotation(query.rotationAngle)) {
        // The identifier in the angle's place is what this line has always printed; log
        // readers key on it.
        CAPTURE_LOGW("getCaptureCapabilityInfo fail, rotateAngle(%d) not support!!", captureId);
        reply(CaptureReturn::INVALID_ARGUMENT);
        return Void();
    }

    const uint32_t srcFormat = static_cast<uint32_t>(query.src_format);
    const uint32_t dstFormat = static_cast<uint32_t>(query.dst_format);

    VX_CAPTURE_setQueryInfo_s vxQuery;
    std::memset(&vxQuery, 0, sizeof(vxQuery));
    vxQuery.src_width = query.src_width;
    vxQuery.src_height = query.src_height;
    vxQuery.src_format = formatMapping(srcFormat);
    vxQuery.dst_width = query.dst_width;
    vxQuery.dst_height = query.dst_height;
    vxQuery.dst_format = formatMapping(dstFormat);
    vxQuery.rotationAngle = query.rotationAngle;
    vxQuery.bIsDram = query.captureType == kCaptureTypeDram ? 1 : 0;

    VX_CAPTURE_getQueryInfo_s vxAnswer;
    std::memset(&vxAnswer, 0, sizeof(vxAnswer));
    // A sub-HAL that never writes the usable flag must not push work onto the GPU.
    VX_CAPTURE_DipInfo_s dipInfo;
    std::memset(&dipInfo, 0x01, sizeof(dipInfo));

    const bool canDip = IsDipCanSupport(captureId, query, vxQuery);

    uint8_t useGpu = 0;
    bool gpuPath = false;
    if (!canDip && query.captureType == kCaptureTypeStream) {
        // A live stream cannot be replayed through the GPU: nothing else can take it.
        reply(CaptureReturn::DIP_NOT_SUPPORT);
        return Void();
    }
    if (canDip && query.captureType == kCaptureTypeDram) {
        uint32_t status =
            SUBHAL_CALL(mGetCaptureDipInfo, captureId, &vxQuery, &dipInfo, kDipInfoModeUsable);
        CAPTURE_LOGI("Call VX_CAPTURE_GetDipInfo(), Ret: %d", static_cast<int>(status));
        if (status == 0) {
            useGpu = dipInfo.bDipUsable == 0 ? 1 : 0;
            gpuPath = useGpu != 0;
        }
    } else if (!canDip) {
        useGpu = 1;
        gpuPath = true;
    }

    CaptureReturn code = CaptureReturn::SUCCESS;
    if (gpuPath) {
        result.gpuSrcFormat = formatMappingGpu(srcFormat);
        result.gpuDstFormat = formatMappingGpu(dstFormat);
        CAPTURE_LOGI("gpu_src_format:%d  gpu_dst_format:%d ", static_cast<int>(result.gpuSrcFormat),
                     static_cast<int>(result.gpuDstFormat));
        if (result.gpuSrcFormat == 0) {
            useGpu = 0;
            CAPTURE_LOGW("src_format(0x%x) is not support by gpu!", srcFormat);
            code = CaptureReturn::FORMAT_NOT_SUPPORT;
        }
        if (result.gpuDstFormat == 0) {
            useGpu = 0;
            CAPTURE_LOGW("dst_format(0x%x) is not support by gpu!", dstFormat);
            code = CaptureReturn::FORMAT_NOT_SUPPORT;
        }
        const int alignIndex = gpuWidthAlignIndex(dstFormat);
        if (alignIndex >= 0 && mGpuDstWidthAlign[alignIndex] != 0) {
            result.dstWidthAlignValid = 1;
            result.dstWidthAlign = mGpuDstWidthAlign[alignIndex];
        }
    } else {
        uint64_t bwSize = 0;
        uint32_t status =
            SUBHAL_CALL(mGetCaptureDipInfo, captureId, &vxQuery, &dipInfo, kDipInfoModeBandwidth);
        CAPTURE_LOGI("Call VX_CAPTURE_GetDipInfo(), Ret: %d", static_cast<int>(status));
        if (status == 0) {
            bwSize = dipInfo.u64BwSize;
            CAPTURE_LOGI("Call VX_CAPTURE_GetDipInfo(), bw_size: %llu",
                         static_cast<unsigned long long>(bwSize));
        }
        status = SUBHAL_CALL(mGetCaptureCapabilityInfo, captureId, &vxQuery, &vxAnswer);
        CAPTURE_LOGI("Call VX_CAPTURE_GetCapabilityInfo(), Ret: %d", static_cast<int>(status));
        code = subHalResult(status);
        if (code == CaptureReturn::SUCCESS) {
            result.capWord0 = vxAnswer.u32Word0;
            result.capWord1 = vxAnswer.u32Word1;
            result.dstWidthAlign = vxAnswer.dst_width_align;
            result.capWord3 = vxAnswer.u32Word3;
            result.dstWidthAlignValid = vxAnswer.dst_width_align_valid;
            result.engine = kEngineDip;
            result.capByte8 = static_cast<uint8_t>(vxAnswer.u32Word8 & 0xFF);
            result.bwSize = bwSize;
            result.srcMaxWidth = vxAnswer.src_max_width;
            result.dstMaxWidth = vxAnswer.dst_max_width;
        }
    }

    mUseGpu[slotOf(captureId)] = useGpu;
    result.useGpu = useGpu;
    result.capWord7 = vxAnswer.u32Word7;
    result.srcWidthAlign = vxAnswer.src_width_align;
    reply(code);
    return Void();
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
