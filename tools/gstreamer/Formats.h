// CaptureFormat against GStreamer's raw video formats, by the byte order the platform's buffers of
// each format really have (the emulated hardware and the GPU path lay them out alike):
//
//   ARGB8888     bytes R, G, B, A                       RGBA
//   ABGR8888     bytes B, G, R, A                       BGRA
//   RGB565       little-endian word, red in bits 11-15  RGB16
//   BGR888       bytes R, G, B                          RGB
//   ARGB2101010  little-endian word, blue in bits 0-9   BGR10A2_LE
//   ABGR2101010  little-endian word, red in bits 0-9    RGB10A2_LE
//   YUYV         Y0 U Y1 V                              YUY2
//   NV12/NV21, NV16/NV61                                the same names
//   RZ21S        16x32 luma, 16x16 chroma tiles         NV12_16L32S
//   RZ21S10L     four 10-bit samples in 40 bits, LE     NV12_10LE40
//   YV12         Y, then Cr, then Cb planes             YV12
//
// The others have no GStreamer name (YUYV_10B, the 10-bit tiles, the compressed and VSD
// formats, half-float ARGB16161616) or no buffer of this platform has them (RGBA8888,
// BGRA8888: neither engine writes or reads them).
#pragma once

#include <gst/video/video.h>
#include <stddef.h>
#include <stdint.h>

namespace capturehal {

struct FormatEntry {
    uint32_t captureFormat;    // CaptureFormat bit
    GstVideoFormat gstFormat;  // GST_VIDEO_FORMAT_UNKNOWN: none
    int32_t graphicsFormat;    // HAL pixel format of a graphics buffer laid out alike; 0: none
};

// Every CaptureFormat, in bit order.
const FormatEntry* formatTable(size_t* count);
const FormatEntry* formatByCapture(uint32_t captureFormat);
// Null for a GStreamer format no CaptureFormat has.
const FormatEntry* formatByGst(GstVideoFormat format);

// The colours of the hardware's frames, in caps: YUV is BT.601 in limited range with each chroma
// sample the mean of its 2x2 (4:2:0) or 2x1 (4:2:2) block, so centred ("jpeg" siting); RGB is
// sRGB. Sets colorimetry and, for YUV, chroma-site on `s`.
void setHardwareColours(GstStructure* s, GstVideoFormat format);

// A list value of the GStreamer names of `formats`.
void setFormatList(GstStructure* s, const GstVideoFormat* formats, size_t count);

// Bytes of one row of `plane` of a frame `width` pixels wide (packed 10-bit formats included).
uint32_t rowBytes(GstVideoFormat format, uint32_t plane, uint32_t width);
// Rows of `plane` of a frame `height` rows high.
uint32_t planeRows(GstVideoFormat format, uint32_t plane, uint32_t height);

}  // namespace capturehal
