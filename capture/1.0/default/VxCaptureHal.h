/*
 * Binary interface of the capture sub-HAL (libvx3_capture_hal.so).
 *
 * The sub-HAL is a closed vendor library; these records are its wire format and
 * must not change shape. The service, the emulated hardware and the test double
 * all build against this one header.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Capture configuration handed to VX_CAPTURE_SetCaptureInfo. Zero-filled before use. */
typedef struct VX_CAPTURE_CaptureInfo_s {
    uint32_t eCapPoint;           /* 0 */
    uint32_t u32Reserved0;        /* 4: always 0 */
    int32_t s32PqId;              /* 8 */
    int32_t s32PqWinId;           /* 12 */
    uint32_t u32SrcWidth;         /* 16 */
    uint32_t u32SrcHeight;        /* 20 */
    uint8_t u8SrcFormat;          /* 24 */
    uint8_t u8Engine;             /* 25 */
    uint8_t u8Pad0[2];
    uint32_t u32SrcParam28;       /* 28 */
    uint32_t u32SrcParam32;       /* 32 */
    uint32_t u32SrcFps;           /* 36 */
    uint8_t u8SrcParam40;         /* 40 */
    uint8_t u8SrcParam41;         /* 41 */
    uint8_t u8Pad1[2];
    uint32_t bSrcFlag;            /* 44: 0 or 1 */
    uint32_t u32CropX;            /* 48 */
    uint32_t u32CropY;            /* 52 */
    uint32_t u32CropWidth;        /* 56 */
    uint32_t u32CropHeight;       /* 60 */
    uint32_t u32DstWidth;         /* 64 */
    uint32_t u32DstHeight;        /* 68 */
    uint32_t u32DstFps;           /* 72 */
    uint32_t u32DstParam76;       /* 76 */
    uint32_t u32DstParam80;       /* 80 */
    uint32_t eOutputFormat;       /* 84: sub-HAL format number */
    uint32_t eColorSpace;         /* 88 */
    uint32_t bDstFlag;            /* 92: 0 or 1 */
    int32_t s32BufferFd;          /* 96 */
    int32_t s32BufferFd2;         /* 100: always -1 */
    uint32_t u32Param[7];         /* 104..131 */
    uint32_t u32Reserved1;        /* 132: always 0 */
    uint32_t u32Param136;         /* 136 */
    uint32_t eSecureBuffer;       /* 140 */
    uint32_t eBandwidth;          /* 144 */
    uint32_t u32Param148;         /* 148 */
} VX_CAPTURE_CaptureInfo_s;

/* Source frame of VX_CAPTURE_SetCaptureFrameInfo. Zero-filled before use. */
typedef struct VX_CAPTURE_SrcFrameInfo_s {
    uint32_t u32Width;            /* 0 */
    uint32_t u32Height;           /* 4 */
    uint32_t u32Param8;           /* 8 */
    uint32_t eFormat;             /* 12: sub-HAL format number */
    uint32_t eColorSpace;         /* 16 */
    uint32_t eColorimetry;        /* 20 */
    int32_t s32BufferFd;          /* 24 */
    int32_t s32BufferFd2;         /* 28: -1 for a one-descriptor handle */
    uint32_t u32Param32;          /* 32 */
    uint32_t u32Param36;          /* 36 */
    uint32_t u32Param40;          /* 40: widened byte */
    uint32_t u32Param44;          /* 44 */
    uint32_t u32Param48;          /* 48 */
    uint32_t u32Param52;          /* 52 */
    uint32_t u32Param56;          /* 56 */
    uint32_t u32Reserved60;       /* 60: always 0 */
    uint32_t u32Param64;          /* 64 */
    uint32_t u32PlaneOffset0;     /* 68 */
    uint32_t u32PlaneOffset1;     /* 72: 0 unless two offsets were given */
    uint32_t u32TileWidthMax;     /* 76 */
} VX_CAPTURE_SrcFrameInfo_s;

/* Destination frame of VX_CAPTURE_SetCaptureFrameInfo. Zero-filled before use. */
typedef struct VX_CAPTURE_DstFrameInfo_s {
    uint32_t u32CropX;            /* 0 */
    uint32_t u32CropY;            /* 4 */
    uint32_t u32CropWidth;        /* 8 */
    uint32_t u32CropHeight;       /* 12 */
    uint32_t u32Width;            /* 16 */
    uint32_t u32Height;           /* 20 */
    uint32_t u32Pitch;            /* 24 */
    uint32_t u32RotateAngle;      /* 28 */
    uint32_t eFormat;             /* 32: sub-HAL format number */
    uint32_t eColorSpace;         /* 36 */
    uint32_t eColorimetry;        /* 40 */
    uint32_t u32Reserved44;       /* 44: always 0 */
    int32_t s32BufferFd;          /* 48 */
    int32_t s32BufferFd2;         /* 52: -1 for a one-descriptor handle */
    uint32_t u32Param56;          /* 56: widened byte */
    uint32_t u32Param60;          /* 60 */
    uint32_t u32Param64;          /* 64: widened byte */
    uint32_t u32Param68;          /* 68 */
    uint32_t u32Param72;          /* 72 */
    uint32_t u32Param76;          /* 76 */
    uint32_t u32Param80;          /* 80 */
    uint32_t u32Reserved84;       /* 84: always 0 */
    uint32_t eSecureBuffer;       /* 88 */
    uint32_t u32Reserved92;       /* 92: always 0 */
    uint32_t u32Reserved96;       /* 96: always 0 */
    uint32_t eBandwidth;          /* 100 */
    uint32_t u32Param104;         /* 104: widened byte */
} VX_CAPTURE_DstFrameInfo_s;

/* Destination plane offsets answered by VX_CAPTURE_SetCaptureFrameInfo. */
typedef struct VX_CAPTURE_PlaneOffset_s {
    uint32_t u32Offset[2];
} VX_CAPTURE_PlaneOffset_s;

/* Conversion request of VX_CAPTURE_GetCapabilityInfo and VX_CAPTURE_GetDipInfo. */
typedef struct VX_CAPTURE_setQueryInfo_s {
    uint32_t src_width;
    uint32_t src_height;
    uint32_t src_format;          /* sub-HAL format number */
    uint32_t dst_width;
    uint32_t dst_height;
    uint32_t dst_format;          /* sub-HAL format number */
    uint32_t rotationAngle;
    uint8_t bIsDram;              /* 1: memory-to-memory */
    uint8_t u8Pad[3];
} VX_CAPTURE_setQueryInfo_s;

/* Limits answered by VX_CAPTURE_GetCapabilityInfo: fifteen words. */
typedef struct VX_CAPTURE_getQueryInfo_s {
    uint32_t u32Word0;
    uint32_t u32Word1;
    uint32_t dst_width_align;     /* word 2 */
    uint32_t u32Word3;
    uint32_t dst_width_align_valid; /* word 4 */
    uint32_t u32Word5;
    uint32_t src_width_align;     /* word 6 */
    uint32_t u32Word7;
    uint32_t u32Word8;
    uint32_t src_min_width;       /* word 9 */
    uint32_t src_max_width;       /* word 10 */
    uint32_t src_max_width_rwsep; /* word 11 */
    uint32_t dst_min_width;       /* word 12 */
    uint32_t dst_max_width;       /* word 13 */
    uint32_t dst_max_width_rwsep; /* word 14 */
} VX_CAPTURE_getQueryInfo_s;

/* Answer of VX_CAPTURE_GetDipInfo. */
typedef struct VX_CAPTURE_DipInfo_s {
    uint8_t bDipUsable;           /* 0: 0 means the GPU path must be taken */
    uint8_t u8Reserved[7];        /* 1..7: not read */
    uint64_t u64BwSize;           /* 8..15 */
} VX_CAPTURE_DipInfo_s;

/* Record handed to a completion entry for every finished frame. */
typedef struct VX_CAPTURE_CaptureDoneInfo_s {
    uint32_t index;               /* buffer index, 0..7 */
    uint32_t Y_Size;
    uint32_t C_Size;
    struct {
        uint32_t Y_offSet;
        uint32_t C_offSet;
    } stBuf[8];                   /* 12 + 8 k */
    uint32_t ErrorNo;             /* 76 */
} VX_CAPTURE_CaptureDoneInfo_s;

/* Completion entry: returns 0 when handled, 7 for an identifier it does not know. */
typedef int (*VX_CAPTURE_Callback)(int captureId, unsigned int reserved, void* doneInfo,
                                   void* sequenceIdRef);

/*
 * Registration context of VX_CAPTURE_RegisterCallback / UnRegisterCallback.
 * On the 32-bit device userland this is six 32-bit words (24 bytes). The field
 * order is the same on 64-bit hosts, where the two addresses take 8 bytes each.
 */
typedef struct VX_CAPTURE_CallbackInputParams_s {
    uint32_t u32Reserved0;
    uint32_t u32Reserved1;
    VX_CAPTURE_Callback pfnCallback;
    uint32_t u32Flag;             /* always 1 */
    uint32_t* pu32SequenceId;
    uint32_t u32Reserved2;
} VX_CAPTURE_CallbackInputParams_s;

/* The sixteen entries. Every one returns 0 on success or a sub-HAL status. */
uint32_t VX_CAPTURE_Init(uint8_t* pInitParam);
uint32_t VX_CAPTURE_DeInit(void);
uint32_t VX_CAPTURE_Open(uint8_t* pOpenParam, uint32_t* pHandle);
uint32_t VX_CAPTURE_Close(int32_t captureId);
uint32_t VX_CAPTURE_SetCaptureInfo(int32_t captureId, VX_CAPTURE_CaptureInfo_s* pInfo);
uint32_t VX_CAPTURE_SetCaptureFrameInfo(int32_t captureId, VX_CAPTURE_SrcFrameInfo_s* pSrc,
                                        VX_CAPTURE_DstFrameInfo_s* pDst,
                                        VX_CAPTURE_PlaneOffset_s* pDstPlaneOffset);
uint32_t VX_CAPTURE_GetCapabilityInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                                      VX_CAPTURE_getQueryInfo_s* pAnswer);
uint32_t VX_CAPTURE_GetDipInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                               VX_CAPTURE_DipInfo_s* pDipInfo, uint32_t u32Mode);
uint32_t VX_CAPTURE_CaptureOnce(int32_t captureId);
uint32_t VX_CAPTURE_CaptureStart(int32_t captureId);
uint32_t VX_CAPTURE_CaptureStop(int32_t captureId);
uint32_t VX_CAPTURE_RegisterCallback(int32_t captureId, VX_CAPTURE_CallbackInputParams_s* pParams,
                                     void* pOut /* 8 bytes */);
uint32_t VX_CAPTURE_UnRegisterCallback(int32_t captureId,
                                       VX_CAPTURE_CallbackInputParams_s* pParams);
uint32_t VX_CAPTURE_FrameProcessDone(int32_t captureId, uint32_t index);
uint32_t VX_CAPTURE_NotifyContinueCapture(int32_t captureId);
uint32_t VX_CAPTURE_DumpInfo(int32_t fd, uint32_t level);

/* Sub-HAL pixel format numbers (output of the service's format mapping). */
enum {
    VX_CAPTURE_FMT_YUYV = 0,
    VX_CAPTURE_FMT_YUYV_10B = 1,
    VX_CAPTURE_FMT_ARGB8888 = 2,
    VX_CAPTURE_FMT_ABGR8888 = 3,
    VX_CAPTURE_FMT_RGBA8888 = 4,
    VX_CAPTURE_FMT_BGRA8888 = 5,
    VX_CAPTURE_FMT_ARGB2101010 = 6,
    VX_CAPTURE_FMT_RGB565 = 7,
    VX_CAPTURE_FMT_BGR888 = 8,
    VX_CAPTURE_FMT_NV16 = 9,
    VX_CAPTURE_FMT_NV61 = 10,
    VX_CAPTURE_FMT_NV12 = 11,
    VX_CAPTURE_FMT_NV21 = 12,
    VX_CAPTURE_FMT_RZ21S10L = 13,
    VX_CAPTURE_FMT_RZ21S = 14,
    VX_CAPTURE_FMT_RZ21S10T = 15,
    VX_CAPTURE_FMT_RZ21S10R = 16,
    VX_CAPTURE_FMT_COMPRESS = 19,
    VX_CAPTURE_FMT_VSD8X2 = 20,
    VX_CAPTURE_FMT_VSD8X4 = 21,
    VX_CAPTURE_FMT_ABGR2101010 = 22,
    VX_CAPTURE_FMT_VSD8X2_B = 23,
    VX_CAPTURE_FMT_VSD8X4_B = 24,
    VX_CAPTURE_FMT_UNKNOWN = 26,
};

#ifdef __cplusplus
}  // extern "C"

static_assert(sizeof(VX_CAPTURE_CaptureInfo_s) == 152, "capture-info record is 152 bytes");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, u8SrcFormat) == 24, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, u8Engine) == 25, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, u8SrcParam40) == 40, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, bSrcFlag) == 44, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, u32CropX) == 48, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, u32DstWidth) == 64, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, eOutputFormat) == 84, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, bDstFlag) == 92, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, s32BufferFd) == 96, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, s32BufferFd2) == 100, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, u32Param) == 104, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, u32Reserved1) == 132, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, u32Param136) == 136, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, eSecureBuffer) == 140, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, eBandwidth) == 144, "");
static_assert(offsetof(VX_CAPTURE_CaptureInfo_s, u32Param148) == 148, "");

static_assert(sizeof(VX_CAPTURE_SrcFrameInfo_s) == 80, "");
static_assert(offsetof(VX_CAPTURE_SrcFrameInfo_s, s32BufferFd) == 24, "");
static_assert(offsetof(VX_CAPTURE_SrcFrameInfo_s, u32Param40) == 40, "");
static_assert(offsetof(VX_CAPTURE_SrcFrameInfo_s, u32Reserved60) == 60, "");
static_assert(offsetof(VX_CAPTURE_SrcFrameInfo_s, u32PlaneOffset0) == 68, "");
static_assert(offsetof(VX_CAPTURE_SrcFrameInfo_s, u32TileWidthMax) == 76, "");

static_assert(sizeof(VX_CAPTURE_DstFrameInfo_s) == 108, "");
static_assert(offsetof(VX_CAPTURE_DstFrameInfo_s, eFormat) == 32, "");
static_assert(offsetof(VX_CAPTURE_DstFrameInfo_s, s32BufferFd) == 48, "");
static_assert(offsetof(VX_CAPTURE_DstFrameInfo_s, u32Param56) == 56, "");
static_assert(offsetof(VX_CAPTURE_DstFrameInfo_s, u32Reserved84) == 84, "");
static_assert(offsetof(VX_CAPTURE_DstFrameInfo_s, eSecureBuffer) == 88, "");
static_assert(offsetof(VX_CAPTURE_DstFrameInfo_s, eBandwidth) == 100, "");
static_assert(offsetof(VX_CAPTURE_DstFrameInfo_s, u32Param104) == 104, "");

static_assert(sizeof(VX_CAPTURE_setQueryInfo_s) == 32, "");
static_assert(offsetof(VX_CAPTURE_setQueryInfo_s, bIsDram) == 28, "");
static_assert(sizeof(VX_CAPTURE_getQueryInfo_s) == 60, "");
static_assert(offsetof(VX_CAPTURE_getQueryInfo_s, src_width_align) == 24, "");
static_assert(offsetof(VX_CAPTURE_getQueryInfo_s, src_min_width) == 36, "");
static_assert(offsetof(VX_CAPTURE_getQueryInfo_s, dst_max_width_rwsep) == 56, "");
static_assert(sizeof(VX_CAPTURE_DipInfo_s) == 16, "");
static_assert(offsetof(VX_CAPTURE_DipInfo_s, u64BwSize) == 8, "");

static_assert(sizeof(VX_CAPTURE_CaptureDoneInfo_s) == 80, "");
static_assert(offsetof(VX_CAPTURE_CaptureDoneInfo_s, stBuf) == 12, "");
static_assert(offsetof(VX_CAPTURE_CaptureDoneInfo_s, ErrorNo) == 76, "");

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(VX_CAPTURE_CallbackInputParams_s) == 24, "");
static_assert(offsetof(VX_CAPTURE_CallbackInputParams_s, pfnCallback) == 8, "");
static_assert(offsetof(VX_CAPTURE_CallbackInputParams_s, u32Flag) == 12, "");
static_assert(offsetof(VX_CAPTURE_CallbackInputParams_s, pu32SequenceId) == 16, "");
static_assert(offsetof(VX_CAPTURE_CallbackInputParams_s, u32Reserved2) == 20, "");
#else
static_assert(sizeof(VX_CAPTURE_CallbackInputParams_s) == 40, "");
static_assert(offsetof(VX_CAPTURE_CallbackInputParams_s, pfnCallback) == 8, "");
static_assert(offsetof(VX_CAPTURE_CallbackInputParams_s, u32Flag) == 16, "");
static_assert(offsetof(VX_CAPTURE_CallbackInputParams_s, pu32SequenceId) == 24, "");
static_assert(offsetof(VX_CAPTURE_CallbackInputParams_s, u32Reserved2) == 32, "");
#endif

#endif  // __cplusplus
