// How the emulated capture hardware lays frames out in memory, per sub-HAL pixel format.
//
// Shared by the emulated sub-HAL and its clients (capturectl, tests), so that a client can size
// its buffers and read the frames back without guessing.
//
// Byte orders. The 32-bit RGB formats are laid out like the graphics-buffer formats the service
// pairs them with on its GPU path (ARGB8888 as RGBA_8888: bytes R, G, B, A; ABGR8888 as
// BGRA_8888: bytes B, G, R, A), so a frame looks the same whichever engine produced it. The
// others follow the packed-word convention: RGB565 is a little-endian word with red in the top
// five bits, BGR888 is the bytes R, G, B, ARGB2101010 a little-endian word with blue in bits
// 0..9 and ABGR2101010 one with red in bits 0..9. YUYV is Y0 U Y1 V; NV12/NV16 put Cb first in
// the interleaved chroma plane, NV21/NV61 Cr first. RZ21S is 8-bit 4:2:0 in 16x32 luma and 16x16
// chroma tiles (the decoder's output); the hardware reads it but cannot write it.
//
// Rows. Unless a client gives a pitch, rows start on 64-byte boundaries the way the platform's
// graphics allocator lays them out: the width is rounded up to 64 bytes' worth of whole pixels
// (16 px at 4 bytes, 32 px at 2 bytes, 64 px at 3 bytes or 1 byte per luma sample). Chroma rows
// have the luma pitch. The chroma plane follows the luma plane directly.
//
// Streaming. A destination buffer holds a ring of up to eight frames, frame k at k * frameStride
// (frameStride: the frame size rounded up to a 4 KiB page), as many as fit in the buffer.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace capture_emulator {

enum class Chroma : uint8_t {
    kNone,     // packed: one plane
    kCbCr420,  // interleaved chroma, half height
    kCbCr422,  // interleaved chroma, full height
};

struct PixelFormatInfo {
    uint32_t vxFormat;       // sub-HAL format number (VX_CAPTURE_FMT_*)
    uint32_t captureFormat;  // CaptureFormat bit of the interface and the device tree
    const char* name;        // the device-tree file name under format_support/
    uint8_t bytesPerPixel;   // of the first plane
    Chroma chroma;
    bool crFirst;   // NV21, NV61
    bool tiled;     // RZ21S
    bool writable;  // the emulator can produce it
    bool readable;  // the emulator can read it as a memory source
};

constexpr PixelFormatInfo kPixelFormats[] = {
    {0, 0x1, "YUYV", 2, Chroma::kNone, false, false, true, true},
    {2, 0x4, "ARGB8888", 4, Chroma::kNone, false, false, true, true},
    {3, 0x8, "ABGR8888", 4, Chroma::kNone, false, false, true, true},
    {6, 0x40, "ARGB2101010", 4, Chroma::kNone, false, false, true, true},
    {7, 0x80, "RGB565", 2, Chroma::kNone, false, false, true, true},
    {8, 0x100, "BGR888", 3, Chroma::kNone, false, false, true, true},
    {9, 0x200, "NV16", 1, Chroma::kCbCr422, false, false, true, true},
    {10, 0x400, "NV61", 1, Chroma::kCbCr422, true, false, true, true},
    {11, 0x800, "NV12", 1, Chroma::kCbCr420, false, false, true, true},
    {12, 0x1000, "NV21", 1, Chroma::kCbCr420, true, false, true, true},
    {14, 0x4000, "RZ21S", 1, Chroma::kCbCr420, false, true, false, true},
    {22, 0x400000, "ABGR2101010", 4, Chroma::kNone, false, false, true, true},
};

constexpr uint32_t kMaxRingFrames = 8;
constexpr uint32_t kFrameStrideAlign = 4096;
constexpr uint32_t kRowAlignBytes = 64;

inline const PixelFormatInfo* findVxFormat(uint32_t vxFormat) {
    for (const PixelFormatInfo& info : kPixelFormats) {
        if (info.vxFormat == vxFormat) return &info;
    }
    return nullptr;
}

inline const PixelFormatInfo* findCaptureFormat(uint32_t captureFormat) {
    for (const PixelFormatInfo& info : kPixelFormats) {
        if (info.captureFormat == captureFormat) return &info;
    }
    return nullptr;
}

inline bool isYuv(const PixelFormatInfo& info) {
    return info.chroma != Chroma::kNone || info.vxFormat == 0;
}

struct FrameLayout {
    uint32_t pitch = 0;         // bytes per row of the first plane (and of the chroma plane)
    uint32_t lumaSize = 0;      // Y_Size: the first plane (the whole frame when packed)
    uint32_t chromaOffset = 0;  // from the frame's start; 0 when packed
    uint32_t chromaSize = 0;    // C_Size
    uint32_t frameStride = 0;   // distance between ring frames
};

// Pixels a row is rounded up to so that it spans whole 64-byte units.
inline uint32_t rowAlignPixels(uint32_t bytesPerPixel) {
    uint32_t a = kRowAlignBytes, b = bytesPerPixel;
    while (b != 0) {
        uint32_t t = a % b;
        a = b;
        b = t;
    }
    return kRowAlignBytes / a;
}

inline uint64_t alignUp(uint64_t value, uint64_t align) {
    return (value + align - 1) / align * align;
}

// The default pitch of a width, in bytes; 0 when it does not fit 32 bits.
inline uint32_t defaultPitch(const PixelFormatInfo& info, uint32_t width) {
    uint64_t pitch = alignUp(width, rowAlignPixels(info.bytesPerPixel)) * info.bytesPerPixel;
    return pitch > UINT32_MAX ? 0 : static_cast<uint32_t>(pitch);
}

// Fills the layout of a width x height frame; pitch 0 takes the default. False when the pitch
// is too small for the width, the sizes do not fit 32 bits, or a YUV size is odd.
inline bool computeFrameLayout(const PixelFormatInfo& info, uint32_t width, uint32_t height,
                               uint32_t pitch, FrameLayout* out) {
    if (width == 0 || height == 0) return false;
    if (isYuv(info) && ((width & 1u) != 0 || (info.chroma == Chroma::kCbCr420 && (height & 1u)))) {
        return false;
    }
    if (pitch == 0) pitch = defaultPitch(info, width);
    if (pitch == 0 || static_cast<uint64_t>(width) * info.bytesPerPixel > pitch) return false;
    if (info.tiled && pitch % 16 != 0) return false;
    uint64_t lumaRows = info.tiled ? alignUp(height, 32) : height;
    uint64_t chromaRows = 0;
    if (info.chroma == Chroma::kCbCr420) {
        chromaRows = info.tiled ? alignUp(height / 2, 16) : height / 2;
    } else if (info.chroma == Chroma::kCbCr422) {
        chromaRows = height;
    }
    uint64_t luma = lumaRows * pitch;
    uint64_t chroma = chromaRows * pitch;
    uint64_t stride = alignUp(luma + chroma, kFrameStrideAlign);
    if (stride > UINT32_MAX) return false;
    out->pitch = pitch;
    out->lumaSize = static_cast<uint32_t>(luma);
    out->chromaOffset = chroma != 0 ? static_cast<uint32_t>(luma) : 0;
    out->chromaSize = static_cast<uint32_t>(chroma);
    out->frameStride = static_cast<uint32_t>(stride);
    return true;
}

}  // namespace capture_emulator
