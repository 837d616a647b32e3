// Records and enumerations of vendor.quenlark.hardware.capture@1.0, in the shape hidl-gen gives
// them. The records are a wire format: every offset is pinned below.
#pragma once

#include <hidl/HidlSupport.h>

#include <cstddef>
#include <cstdint>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {

enum class CaptureReturn : int32_t {
    SUCCESS = 0,
    NOT_INITIALIZED = 1,
    NO_MEMORY = 2,
    FORMAT_NOT_SUPPORT = 3,
    FAIL = 4,
    INVALID_PARAMETER = 5,
    INVALID_CAPTURE_ID = 6,
    INVALID_ARGUMENT = 7,
    BUSY = 8,
    TIMEOUT = 9,
    NOT_OPENED = 10,
    SOURCE_NOT_READY = 11,
    INVALID_CAPTURE_POINT = 12,
    INVALID_SIZE = 13,
    INVALID_CROP = 14,
    INVALID_ROTATION = 15,
    BANDWIDTH_EXCEEDED = 16,
    SECURE_NOT_ALLOWED = 17,
    SECURE_BUFFER_ERROR = 18,
    HARDWARE_ERROR = 19,
    INVALID_BUFFER = 20,
    INVALID_PLANE_OFFSET = 21,
    BUFFER_NOT_READY = 22,
    CAPTURE_POINT_NOT_SUPPORT = 29,
    DIP_NOT_SUPPORT = 30,
    DEVICE_ERROR = 31,
};

// Single bits; the device tree's format lists use the same bits.
enum class CaptureFormat : uint32_t {
    YUYV = 0x1,
    YUYV_10B = 0x2,
    ARGB8888 = 0x4,
    ABGR8888 = 0x8,
    RGBA8888 = 0x10,
    BGRA8888 = 0x20,
    ARGB2101010 = 0x40,
    RGB565 = 0x80,
    BGR888 = 0x100,
    NV16 = 0x200,
    NV61 = 0x400,
    NV12 = 0x800,
    NV21 = 0x1000,
    RZ21S10L = 0x2000,
    RZ21S = 0x4000,
    RZ21S10T = 0x8000,
    RZ21S10R = 0x10000,
    COMPRESS = 0x20000,
    VSD8X2 = 0x40000,
    VSD8X4 = 0x80000,
    ARGB16161616 = 0x100000,
    YV12 = 0x200000,
    ABGR2101010 = 0x400000,
    VSD8X2_B = 0x800000,
    VSD8X4_B = 0x1000000,
};

enum class CaptureColorSpace : uint32_t { BT601 = 0, BT709 = 1, BT2020 = 2, SRGB = 3 };
enum class CaptureColorimetry : uint32_t { DEFAULT = 0, LIMITED = 1, FULL = 2, HLG = 3 };
enum class SecureBufferCfg : uint8_t { NON_SECURE = 0, SECURE = 1, SECURE_AUTO = 2 };
enum class BandwidthCfg : uint8_t { LOW = 0, NORMAL = 1, HIGH = 2 };

enum class CapturePoint : uint32_t {
    VIDEO_INPUT = 0,
    VIDEO_DECODER = 1,
    PQ_STREAM_IN = 2,
    PQ_STREAM_SCALED = 3,
    PQ_STREAM_PROCESSED = 4,
    PQ_STREAM_OUT = 5,
    PQ_MEMC = 6,
    PQ_PANEL = 7,
    PQ_POST = 8,
    VIDEO_MIXED = 9,
    GRAPHIC = 10,
    DISPLAY = 11,
    OSD = 12,
    NONE = 13,  // "no capture point" in the service's tables
};

enum class CaptureEventNotify : uint32_t {
    FRAME_DONE = 1,
};

struct CaptureInfo final {
    CapturePoint capPoint;         // 0
    uint32_t reserved4;            // 4: not read by the service
    int32_t pqId;                  // 8
    int32_t pqWinId;               // 12
    uint32_t srcWidth;             // 16
    uint32_t srcHeight;            // 20
    uint8_t srcFmt;                // 24
    uint8_t hwEngine;              // 25
    uint32_t srcParam28;           // 28
    uint32_t srcParam32;           // 32
    uint32_t srcFps;               // 36
    uint8_t srcParam40;            // 40
    uint8_t srcParam41;            // 41
    uint32_t srcFlag;              // 44: 1 means true
    uint32_t cropX;                // 48
    uint32_t cropY;                // 52
    uint32_t cropWidth;            // 56
    uint32_t cropHeight;           // 60
    uint32_t dstWidth;             // 64
    uint32_t dstHeight;            // 68
    uint32_t dstFps;               // 72
    uint32_t dstParam76;           // 76
    uint32_t dstParam80;           // 80
    CaptureFormat dstFmt;          // 84
    uint32_t dstFlag;              // 88: 1 means true
    CaptureColorSpace colorSpace;  // 92
    ::android::hardware::hidl_handle dstBuffer;  // 96
    uint32_t param[7];             // 112..139
    uint32_t reserved140;          // 140: not read by the service
    uint8_t param144;              // 144
    SecureBufferCfg secureBuffer;  // 145
    BandwidthCfg bandwidth;        // 146
    bool b2rRbSwapped;             // 147
    uint8_t param148;              // 148
};

struct CaptureSrcFrameInfo final {
    uint32_t width;                // 0
    uint32_t height;               // 4
    uint32_t param8;               // 8
    CaptureFormat format;          // 12
    CaptureColorSpace colorSpace;  // 16
    uint32_t param20;              // 20
    ::android::hardware::hidl_handle buffer;  // 24
    uint32_t param40;              // 40
    uint32_t param44;              // 44
    uint8_t param48;               // 48
    uint32_t param52;              // 52
    uint32_t param56;              // 56
    uint32_t param60;              // 60
    uint32_t param64;              // 64
    uint32_t param68;              // 68
    uint32_t param72;              // 72
    ::android::hardware::hidl_vec<uint32_t> vPlaneOffset;  // 80
    uint64_t colorimetry;          // 96: a CaptureColorimetry value
};

struct CaptureDstFrameInfo final {
    uint32_t cropX;                // 0
    uint32_t cropY;                // 4
    uint32_t cropWidth;            // 8
    uint32_t cropHeight;           // 12
    uint32_t width;                // 16
    uint32_t height;               // 20
    uint32_t pitch;                // 24
    uint32_t rotateAngle;          // 28
    CaptureFormat format;          // 32
    CaptureColorSpace colorSpace;  // 36
    ::android::hardware::hidl_handle buffer;  // 40
    uint8_t param56;               // 56
    uint32_t param60;              // 60
    uint8_t param64;               // 64
    uint32_t param68;              // 68
    uint32_t param72;              // 72
    uint32_t param76;              // 76
    uint32_t param80;              // 80
    uint32_t param84;              // 84
    SecureBufferCfg secureBuffer;  // 88
    ::android::hardware::hidl_vec<uint32_t> vPlaneOffset;  // 96
    BandwidthCfg bandwidth;        // 112
    CaptureColorimetry colorimetry;  // 116
    uint8_t param120;              // 120
    uint32_t param124;             // 124
};

// Conversion a client asks about before it configures an instance.
struct setQueryInfo final {
    uint32_t src_width;
    uint32_t src_height;
    CaptureFormat src_format;
    uint32_t dst_width;
    uint32_t dst_height;
    CaptureFormat dst_format;
    uint32_t rotationAngle;
    uint32_t crop_x;
    uint32_t crop_y;
    uint32_t crop_width;
    uint32_t crop_height;
    uint8_t captureType;  // 1: memory to memory; otherwise a live stream
};

struct getQueryInfo final {
    uint32_t capWord0;
    uint32_t capWord1;
    uint32_t dstWidthAlign;
    uint32_t capWord3;
    uint32_t dstWidthAlignValid;
    uint8_t useGpu;
    uint8_t engine;
    uint32_t gpuSrcFormat;
    uint32_t gpuDstFormat;
    uint32_t capWord7;
    uint8_t capByte8;
    uint64_t bwSize;
    uint32_t srcMaxWidth;
    uint32_t dstMaxWidth;
    uint32_t srcWidthAlign;
};

struct CaptureCallbackParams final {
    int32_t captureId;
    uint32_t index;
    uint32_t width;
    uint32_t height;
    uint32_t yOffset;
    uint32_t cOffset;
    uint32_t ySize;
    uint32_t cSize;
    CaptureReturn result;
};

// Accepted by startAllSourceRotation; the service does not read it.
struct SourceRotationInfo final {
    uint32_t enable;
    uint32_t rotateAngle;
    uint32_t sourceMask;
    uint32_t reserved;
};

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

#undef CAPTURE_RECORD_OFFSET

}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
