// setCaptureInfo and setCaptureFrameInfo: check a client's configuration, translate it into the
// sub-HAL's records, and either hand it over or (GPU instances) keep the frame records.
#include <cutils/native_handle.h>

#include <cstdint>
#include <cstring>
#include <mutex>

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

namespace {

// Sub-HAL formats that trade places when the source has red and blue swapped.
constexpr uint32_t kVxArgb8888 = VX_CAPTURE_FMT_ARGB8888;
constexpr uint32_t kVxAbgr8888 = VX_CAPTURE_FMT_ABGR8888;

// The capture points whose configuration is tied to a picture-quality stream.
constexpr uint32_t kFirstPqCapturePoint = 2;
constexpr uint32_t kLastPqCapturePoint = 8;

// A buffer handle the sub-HAL can map: present, with a first descriptor that is open.
bool isUsableBuffer(const hidl_handle& buffer) {
    const native_handle_t* handle = buffer.getNativeHandle();
    return handle != nullptr && handle->numFds >= 1 && handle->data[0] >= 0;
}

// Multi-planar buffers carry their second plane in a descriptor of its own.
int32_t secondFd(const native_handle_t* handle) {
    return handle->numFds >= 2 ? handle->data[1] : -1;
}

// A bool that crossed the interface may hold any byte; look at the byte, not at the bool.
uint8_t rawByte(const bool& flag) {
    uint8_t value = 0;
    std::memcpy(&value, &flag, sizeof(value));
    return value;
}

bool isSupportedRotation(uint32_t angle) {
    return angle == 0 || angle == 90 || angle == 180 || angle == 270;
}

// The interface carries the source colorimetry in 64 bits; the mapping takes the low 32, as the
// platform's callers have always had it.
uint32_t narrowColorimetry(uint64_t colorimetry) {
    return static_cast<uint32_t>(colorimetry);
}

}  // namespace

Return<CaptureReturn> Capture::setCaptureInfo(int32_t captureId, const CaptureInfo& info) {
    const uint32_t capPoint = static_cast<uint32_t>(info.capPoint);
    CAPTURE_LOGI(
        "Call setCaptureInfo(), captureId: 0x%x, src: fmt(%u), width(%u), height(%u), "
        "fps(%u), hwEngine(%u)",
        captureId, info.srcFmt, info.srcWidth, info.srcHeight, info.srcFps, info.hwEngine);
    CAPTURE_LOGI(
        "Call setCaptureInfo(), dst: capPoint(%u), fmt(%u), width(%u), height(%u), fps(%u), "
        "crop(x,y,w,h)=(%u,%u,%u,%u)",
        capPoint, static_cast<uint32_t>(info.dstFmt), info.dstWidth, info.dstHeight, info.dstFps,
        info.cropX, info.cropY, info.cropWidth, info.cropHeight);

    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("setCaptureInfo , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        return CaptureReturn::INVALID_CAPTURE_ID;
    }
    if (!isUsableBuffer(info.dstBuffer)) {
        CAPTURE_LOGW("[0x%x] setCaptureInfo fail, buffer is invalid!", captureId);
        return CaptureReturn::INVALID_BUFFER;
    }
    if (info.srcWidth == 0 || info.srcHeight == 0) {
        CAPTURE_LOGW("Source width(%d) or height(%d) is invalid!", static_cast<int>(info.srcWidth),
                     static_cast<int>(info.srcHeight));
        return CaptureReturn::INVALID_ARGUMENT;
    }
    if (info.hwEngine == 0) {
        CAPTURE_LOGW("Source u8pEngine(%d) is invalid!", info.hwEngine);
        return CaptureReturn::INVALID_ARGUMENT;
    }
    if (info.dstWidth == 0 || info.dstHeight == 0) {
        CAPTURE_LOGW("Output width(%d) or height(%d) is invalid!", static_cast<int>(info.dstWidth),
                     static_cast<int>(info.dstHeight));
        return CaptureReturn::INVALID_ARGUMENT;
    }
    if (capPoint >= kCapturePointCount) {
        CAPTURE_LOGW("[0x%x] setCaptureInfo fail, capture point(%u) is invalid!", captureId,
                     capPoint);
        return CaptureReturn::INVALID_CAPTURE_POINT;
    }
    if (mPointsSupportState[capPoint] == 0) {
        CAPTURE_LOGW("[0x%x] setCaptureInfo fail, platform unsupport this capture point(%u)!",
                     captureId, capPoint);
        return CaptureReturn::CAPTURE_POINT_NOT_SUPPORT;
    }

    // The binding is recorded before the sub-HAL sees the request, so that a refusal from the
    // sub-HAL still leaves the instance tied to the stream it asked for.
    const uint32_t vxCapPoint = capPointMapping(capPoint);
    PqStreamInfo& pq = mPqStreamInfo[slotOf(captureId)];
    pq.pqId =
        (vxCapPoint >= kFirstPqCapturePoint && vxCapPoint <= kLastPqCapturePoint) ? info.pqId : -1;
    pq.capturePoint = capPoint;

    VX_CAPTURE_CaptureInfo_s vx;
    std::memset(&vx, 0, sizeof(vx));
    vx.eCapPoint = vxCapPoint;
    vx.u32Reserved0 = 0;
    vx.s32PqId = info.pqId;
    vx.s32PqWinId = info.pqWinId;
    vx.u32SrcWidth = info.srcWidth;
    vx.u32SrcHeight = info.srcHeight;
    vx.u8SrcFormat = info.srcFmt;
    vx.u8Engine = info.hwEngine;
    vx.u32SrcParam28 = info.srcParam28;
    vx.u32SrcParam32 = info.srcParam32;
    vx.u32SrcFps = info.srcFps;
    vx.u8SrcParam40 = info.srcParam40;
    vx.u8SrcParam41 = info.srcParam41;
    vx.bSrcFlag = info.srcFlag == 1 ? 1 : 0;
    vx.u32CropX = info.cropX;
    vx.u32CropY = info.cropY;
    vx.u32CropWidth = info.cropWidth;
    vx.u32CropHeight = info.cropHeight;
    vx.u32DstWidth = info.dstWidth;
    vx.u32DstHeight = info.dstHeight;
    vx.u32DstFps = info.dstFps;
    vx.u32DstParam76 = info.dstParam76;
    vx.u32DstParam80 = info.dstParam80;

    const uint8_t rbSwapped = rawByte(info.b2rRbSwapped);
    uint32_t outputFormat = formatMapping(static_cast<uint32_t>(info.dstFmt));
    CAPTURE_LOGI("b2rRbSwapped = %d, eOutputFormat = %d ", rbSwapped,
                 static_cast<int>(outputFormat));
    if (rbSwapped != 0) {
        if (outputFormat == kVxArgb8888) {
            outputFormat = kVxAbgr8888;
        } else if (outputFormat == kVxAbgr8888) {
            outputFormat = kVxArgb8888;
        }
        CAPTURE_LOGI("eOutputFormat changed to %d ", static_cast<int>(outputFormat));
    }
    vx.eOutputFormat = outputFormat;
    vx.eColorSpace = colorSpaceMapping(static_cast<uint32_t>(info.colorSpace));
    vx.bDstFlag = info.dstFlag == 1 ? 1 : 0;

    const native_handle_t* dstHandle = info.dstBuffer.getNativeHandle();
    vx.s32BufferFd = dstHandle->data[0];
    vx.s32BufferFd2 = -1;
    CAPTURE_LOGI("numFds: %d , dstBuffer->data[0]: %d", dstHandle->numFds, dstHandle->data[0]);

    static_assert(sizeof(vx.u32Param) == sizeof(info.param), "seven pass-through words");
    std::memcpy(vx.u32Param, info.param.data(), sizeof(vx.u32Param));
    vx.u32Reserved1 = 0;
    vx.u32Param136 = info.param144;
    vx.eSecureBuffer = secureBufferMapping(static_cast<uint32_t>(info.secureBuffer));
    vx.eBandwidth = BandwidthCfgMapping(static_cast<uint32_t>(info.bandwidth));
    vx.u32Param148 = info.param148;

    uint32_t status = SUBHAL_CALL(mSetCaptureInfo, captureId, &vx);
    CAPTURE_LOGI("Call VX_CAPTURE_SetCaptureInfo(), Ret: %d", static_cast<int>(status));
    return subHalResult(status);
}

Return<void> Capture::setCaptureFrameInfo(int32_t captureId, const CaptureSrcFrameInfo& src,
                                          const CaptureDstFrameInfo& dst,
                                          setCaptureFrameInfo_cb _hidl_cb) {
    const uint32_t srcFormat = static_cast<uint32_t>(src.format);
    const uint32_t dstFormat = static_cast<uint32_t>(dst.format);
    CAPTURE_LOGI(
        "Call setCaptureFrameInfo(), captureId: 0x%x, src_width(%d), src_height(%d), "
        "src_fmt(0x%x)",
        captureId, static_cast<int>(src.width), static_cast<int>(src.height), srcFormat);
    CAPTURE_LOGI(
        "Call setCaptureFrameInfo(), captureId: 0x%x, dst_width(%d), dst_height(%d), "
        "dst_fmt(0x%x), pitch(%d), rotateAngle(%d), crop:(x,y,w,h)=(%d,%d,%d,%d)",
        captureId, static_cast<int>(dst.width), static_cast<int>(dst.height), dstFormat,
        static_cast<int>(dst.pitch), static_cast<int>(dst.rotateAngle), static_cast<int>(dst.cropX),
        static_cast<int>(dst.cropY), static_cast<int>(dst.cropWidth),
        static_cast<int>(dst.cropHeight));

    VX_CAPTURE_PlaneOffset_s planeOffset;
    std::memset(&planeOffset, 0, sizeof(planeOffset));
    // The answer carries the two offsets, except for the refusals that follow the identifier and
    // format checks, which answer with none at all.
    auto reply = [&_hidl_cb, &planeOffset](CaptureReturn code, bool withOffsets) {
        hidl_vec<uint32_t> offsets;
        if (withOffsets) {
            offsets.resize(2);
            offsets[0] = planeOffset.u32Offset[0];
            offsets[1] = planeOffset.u32Offset[1];
        }
        // Binder always hands a callback in; an in-process caller may not, and must not crash us.
        if (_hidl_cb) _hidl_cb(code, offsets);
    };

    if (!isValidCaptureId(captureId)) {
        CAPTURE_LOGW("setCaptureFrameInfo , INVALID_CAPTURE_ID ERROR 0x%x", captureId);
        reply(CaptureReturn::INVALID_CAPTURE_ID, true);
        return Void();
    }
    const uint32_t vxSrcFormat = formatMapping(srcFormat);
    const uint32_t vxDstFormat = formatMapping(dstFormat);
    // Made for GPU instances too: their frames still go through the sub-HAL's formats.
    if (vxSrcFormat == kVxFormatUnknown || vxDstFormat == kVxFormatUnknown) {
        CAPTURE_LOGW(
            "setCaptureFrameInfo , FORMAT_NOT_SUPPORT ERROR !! src_fmt: 0x%x, "
            "dst_fmt: 0x%x",
            srcFormat, dstFormat);
        reply(CaptureReturn::FORMAT_NOT_SUPPORT, true);
        return Void();
    }
    if (!isUsableBuffer(src.buffer)) {
        CAPTURE_LOGW("[0x%x] setCaptureFrameInfo fail, srcBufInfo.buffer is invalid!", captureId);
        reply(CaptureReturn::INVALID_BUFFER, false);
        return Void();
    }
    if (!isUsableBuffer(dst.buffer)) {
        CAPTURE_LOGW("[0x%x] setCaptureFrameInfo fail, dstBufInfo.buffer is invalid!", captureId);
        reply(CaptureReturn::INVALID_BUFFER, false);
        return Void();
    }
    // Only the source needs offsets from the client; the destination's come from the sub-HAL.
    if (src.vPlaneOffset.size() == 0) {
        CAPTURE_LOGW("[0x%x] vPlaneOffset.size() is invalid! src: %d, dst: %d", captureId, 0,
                     static_cast<int>(dst.vPlaneOffset.size()));
        reply(CaptureReturn::INVALID_PLANE_OFFSET, false);
        return Void();
    }
    if (src.width == 0 || src.height == 0) {
        CAPTURE_LOGW("SrcFrameInfo width(%d) or height(%d) is invalid!",
                     static_cast<int>(src.width), static_cast<int>(src.height));
        reply(CaptureReturn::INVALID_ARGUMENT, false);
        return Void();
    }
    if (dst.width == 0 || dst.height == 0) {
        CAPTURE_LOGW("DstFrameInfo width(%d) or height(%d) is invalid!",
                     static_cast<int>(dst.width), static_cast<int>(dst.height));
        reply(CaptureReturn::INVALID_ARGUMENT, false);
        return Void();
    }
    if (!isSupportedRotation(dst.rotateAngle)) {
        CAPTURE_LOGW("[0x%x] RotateAngle is invalid! rotateAngle: %d", captureId,
                     static_cast<int>(dst.rotateAngle));
        reply(CaptureReturn::INVALID_ARGUMENT, false);
        return Void();
    }

    const int slot = slotOf(captureId);
    // Frame-level configuration replaces the stream binding made by setCaptureInfo.
    mPqStreamInfo[slot].pqId = -1;

    const native_handle_t* srcHandle = src.buffer.getNativeHandle();
    VX_CAPTURE_SrcFrameInfo_s vxSrc;
    std::memset(&vxSrc, 0, sizeof(vxSrc));
    vxSrc.u32Width = src.width;
    vxSrc.u32Height = src.height;
    vxSrc.u32Param8 = src.param8;
    vxSrc.eFormat = vxSrcFormat;
    vxSrc.eColorSpace = colorSpaceMapping(static_cast<uint32_t>(src.colorSpace));
    vxSrc.eColorimetry = colorimetryMapping(narrowColorimetry(src.colorimetry));
    vxSrc.s32BufferFd = srcHandle->data[0];
    vxSrc.s32BufferFd2 = secondFd(srcHandle);
    vxSrc.u32Param32 = src.param40;
    vxSrc.u32Param36 = src.param44;
    vxSrc.u32Param40 = src.param48;
    vxSrc.u32Param44 = src.param52;
    vxSrc.u32Param48 = src.param56;
    vxSrc.u32Param52 = src.param60;
    vxSrc.u32Param56 = src.param64;
    vxSrc.u32Reserved60 = 0;
    vxSrc.u32Param64 = src.param72;
    vxSrc.u32PlaneOffset0 = src.vPlaneOffset[0];
    vxSrc.u32PlaneOffset1 = src.vPlaneOffset.size() >= 2 ? src.vPlaneOffset[1] : 0;
    vxSrc.u32TileWidthMax = mSystemDtsConfig.TileWidthMax;
    if (srcHandle->numFds >= 2) {
        CAPTURE_LOGI("numFds = %d, srcBuffer->data[0]:%d, srcBuffer->data[1]:%d ",
                     srcHandle->numFds, srcHandle->data[0], srcHandle->data[1]);
    } else {
        CAPTURE_LOGI("numFds = 1, srcBuffer->data[0]:%d ", srcHandle->data[0]);
    }

    const native_handle_t* dstHandle = dst.buffer.getNativeHandle();
    VX_CAPTURE_DstFrameInfo_s vxDst;
    std::memset(&vxDst, 0, sizeof(vxDst));
    vxDst.u32CropX = dst.cropX;
    vxDst.u32CropY = dst.cropY;
    vxDst.u32CropWidth = dst.cropWidth;
    vxDst.u32CropHeight = dst.cropHeight;
    vxDst.u32Width = dst.width;
    vxDst.u32Height = dst.height;
    vxDst.u32Pitch = dst.pitch;
    vxDst.u32RotateAngle = dst.rotateAngle;
    vxDst.eFormat = vxDstFormat;
    vxDst.eColorSpace = colorSpaceMapping(static_cast<uint32_t>(dst.colorSpace));
    vxDst.eColorimetry = colorimetryMapping(static_cast<uint32_t>(dst.colorimetry));
    vxDst.u32Reserved44 = 0;
    vxDst.s32BufferFd = dstHandle->data[0];
    vxDst.s32BufferFd2 = secondFd(dstHandle);
    vxDst.u32Param56 = dst.param56;
    vxDst.u32Param60 = dst.param60;
    vxDst.u32Param64 = dst.param64;
    vxDst.u32Param68 = dst.param68;
    vxDst.u32Param72 = dst.param72;
    vxDst.u32Param76 = dst.param76;
    vxDst.u32Param80 = dst.param80;
    vxDst.u32Reserved84 = 0;
    vxDst.eSecureBuffer = secureBufferMapping(static_cast<uint32_t>(dst.secureBuffer));
    vxDst.u32Reserved92 = 0;
    vxDst.u32Reserved96 = 0;
    vxDst.eBandwidth = BandwidthCfgMapping(static_cast<uint32_t>(dst.bandwidth));
    vxDst.u32Param104 = dst.param120;
    if (dstHandle->numFds >= 2) {
        CAPTURE_LOGI("numFds = %d, dstBuffer->data[0]:%d, dstBuffer->data[1]:%d ",
                     dstHandle->numFds, dstHandle->data[0], dstHandle->data[1]);
    } else {
        CAPTURE_LOGI("numFds = 1, dstBuffer->data[0]:%d ", dstHandle->data[0]);
    }

    CaptureReturn result = CaptureReturn::SUCCESS;
    if (mUseGpu[slot] == 0) {
        uint32_t status = SUBHAL_CALL(mSetCaptureFrameInfo, captureId, &vxSrc, &vxDst, &planeOffset);
        CAPTURE_LOGI("Call VX_CAPTURE_SetCaptureFrameInfo(),Ret:%d, stDstPlaneOffset = (0x%x,0x%x)",
                     static_cast<int>(status), planeOffset.u32Offset[0], planeOffset.u32Offset[1]);
        result = subHalResult(status);
    } else {
        // The GPU converts at capture time from the kept records; the sub-HAL never sees them.
        const uint32_t gpuSrcFormat = formatMappingGpu(srcFormat);
        const uint32_t gpuDstFormat = formatMappingGpu(dstFormat);
        CAPTURE_LOGI("mFeaturein->src_format[%d], mFeaturein->dst_format[%d]",
                     static_cast<int>(gpuSrcFormat), static_cast<int>(gpuDstFormat));
        if (gpuSrcFormat == 0 || gpuDstFormat == 0) {
            CAPTURE_LOGW("GPU Not Support!!!");
            result = CaptureReturn::FORMAT_NOT_SUPPORT;
        } else {
            std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
            mSrcFrameInfo[slot] = src;
            mDstFrameInfo[slot] = dst;
        }
    }

    reply(result, true);
    return Void();
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
