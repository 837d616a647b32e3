// The interface records as clients and the sub-HAL record builders rely on them: every offset the
// service copies from is pinned here, against the headers the build generates from the .hal
// files (the platform's on a device), so that a .hal edit that moves a field fails to compile
// instead of shifting what clients send.
#pragma once

#include <stddef.h>
#include <vendor/quenlark/hardware/capture/1.0/types.h>
#include <vendor/quenlark/hardware/pq/1.0/types.h>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

#define CAPTURE_RECORD_OFFSET(rec, field, off) \
    static_assert(offsetof(rec, field) == (off), #rec "::" #field " offset")

static_assert(sizeof(CaptureInfo) == 152, "CaptureInfo size");
CAPTURE_RECORD_OFFSET(CaptureInfo, pqId, 8);
CAPTURE_RECORD_OFFSET(CaptureInfo, pqWinId, 12);
CAPTURE_RECORD_OFFSET(CaptureInfo, srcWidth, 16);
CAPTURE_RECORD_OFFSET(CaptureInfo, srcHeight, 20);
CAPTURE_RECORD_OFFSET(CaptureInfo, srcFmt, 24);
CAPTURE_RECORD_OFFSET(CaptureInfo, hwEngine, 25);
CAPTURE_RECORD_OFFSET(CaptureInfo, srcParam28, 28);
CAPTURE_RECORD_OFFSET(CaptureInfo, srcParam32, 32);
CAPTURE_RECORD_OFFSET(CaptureInfo, srcFps, 36);
CAPTURE_RECORD_OFFSET(CaptureInfo, srcParam40, 40);
CAPTURE_RECORD_OFFSET(CaptureInfo, srcParam41, 41);
CAPTURE_RECORD_OFFSET(CaptureInfo, srcFlag, 44);
CAPTURE_RECORD_OFFSET(CaptureInfo, cropX, 48);
CAPTURE_RECORD_OFFSET(CaptureInfo, cropHeight, 60);
CAPTURE_RECORD_OFFSET(CaptureInfo, dstWidth, 64);
CAPTURE_RECORD_OFFSET(CaptureInfo, dstHeight, 68);
CAPTURE_RECORD_OFFSET(CaptureInfo, dstFps, 72);
CAPTURE_RECORD_OFFSET(CaptureInfo, dstParam76, 76);
CAPTURE_RECORD_OFFSET(CaptureInfo, dstParam80, 80);
CAPTURE_RECORD_OFFSET(CaptureInfo, dstFmt, 84);
CAPTURE_RECORD_OFFSET(CaptureInfo, dstFlag, 88);
CAPTURE_RECORD_OFFSET(CaptureInfo, colorSpace, 92);
CAPTURE_RECORD_OFFSET(CaptureInfo, dstBuffer, 96);
CAPTURE_RECORD_OFFSET(CaptureInfo, param, 112);
CAPTURE_RECORD_OFFSET(CaptureInfo, reserved140, 140);
CAPTURE_RECORD_OFFSET(CaptureInfo, param144, 144);
CAPTURE_RECORD_OFFSET(CaptureInfo, secureBuffer, 145);
CAPTURE_RECORD_OFFSET(CaptureInfo, bandwidth, 146);
CAPTURE_RECORD_OFFSET(CaptureInfo, b2rRbSwapped, 147);
CAPTURE_RECORD_OFFSET(CaptureInfo, param148, 148);
static_assert(sizeof(CaptureSrcFrameInfo) == 104, "CaptureSrcFrameInfo size");
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, height, 4);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, param8, 8);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, format, 12);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, colorSpace, 16);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, param20, 20);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, buffer, 24);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, param40, 40);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, param48, 48);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, param64, 64);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, param72, 72);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, vPlaneOffset, 80);
CAPTURE_RECORD_OFFSET(CaptureSrcFrameInfo, colorimetry, 96);
static_assert(sizeof(CaptureDstFrameInfo) == 128, "CaptureDstFrameInfo size");
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, width, 16);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, pitch, 24);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, rotateAngle, 28);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, format, 32);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, colorSpace, 36);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, buffer, 40);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, param56, 56);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, param60, 60);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, param64, 64);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, param68, 68);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, param84, 84);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, secureBuffer, 88);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, vPlaneOffset, 96);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, bandwidth, 112);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, colorimetry, 116);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, param120, 120);
CAPTURE_RECORD_OFFSET(CaptureDstFrameInfo, param124, 124);
static_assert(sizeof(setQueryInfo) == 48, "setQueryInfo size");
CAPTURE_RECORD_OFFSET(setQueryInfo, crop_height, 40);
CAPTURE_RECORD_OFFSET(setQueryInfo, captureType, 44);
static_assert(sizeof(getQueryInfo) == 64, "getQueryInfo size");
CAPTURE_RECORD_OFFSET(getQueryInfo, useGpu, 20);
CAPTURE_RECORD_OFFSET(getQueryInfo, engine, 21);
CAPTURE_RECORD_OFFSET(getQueryInfo, gpuSrcFormat, 24);
CAPTURE_RECORD_OFFSET(getQueryInfo, capWord7, 32);
CAPTURE_RECORD_OFFSET(getQueryInfo, capByte8, 36);
CAPTURE_RECORD_OFFSET(getQueryInfo, bwSize, 40);
CAPTURE_RECORD_OFFSET(getQueryInfo, srcWidthAlign, 56);
static_assert(sizeof(CaptureCallbackParams) == 36, "CaptureCallbackParams size");
CAPTURE_RECORD_OFFSET(CaptureCallbackParams, result, 32);

using ::vendor::quenlark::hardware::pq::V1_0::ST_CAPTURE_POINT_INFO;
using ::vendor::quenlark::hardware::pq::V1_0::ST_WIN_INFO;
static_assert(sizeof(ST_WIN_INFO) == 8, "ST_WIN_INFO size");
CAPTURE_RECORD_OFFSET(ST_WIN_INFO, u32WinTime, 4);
static_assert(sizeof(ST_CAPTURE_POINT_INFO) == 80, "ST_CAPTURE_POINT_INFO size");
CAPTURE_RECORD_OFFSET(ST_CAPTURE_POINT_INFO, fmt, 4);
CAPTURE_RECORD_OFFSET(ST_CAPTURE_POINT_INFO, hwEngine, 8);
CAPTURE_RECORD_OFFSET(ST_CAPTURE_POINT_INFO, u8Reserved, 9);
CAPTURE_RECORD_OFFSET(ST_CAPTURE_POINT_INFO, u32RemainBWBudget, 48);
CAPTURE_RECORD_OFFSET(ST_CAPTURE_POINT_INFO, activeWinNum, 52);
CAPTURE_RECORD_OFFSET(ST_CAPTURE_POINT_INFO, bIsPQHWSet, 53);
CAPTURE_RECORD_OFFSET(ST_CAPTURE_POINT_INFO, winInfo, 56);
CAPTURE_RECORD_OFFSET(ST_CAPTURE_POINT_INFO, u8Reserved2, 72);

#undef CAPTURE_RECORD_OFFSET

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
