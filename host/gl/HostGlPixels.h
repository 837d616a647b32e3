// Graphic-buffer memory to GL texels and back, for the host graphics layer: where each format
// keeps its planes (the host allocator's rules, <ui/GrallocPrivate.h>), what the shader samples
// from it and how a drawn render target is packed into it again.
#pragma once

#include <GLES3/gl3.h>
#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace host_gl {

// The GL texture that stands for a buffer of a format.
enum class Storage : uint8_t {
    kRgba8,    // 8-bit formats that need the CPU on the way (BGRA, every 8-bit YUV format)
    kRgba8Direct,  // RGBA_8888: uploaded from and read back into the buffer as it is
    kRgb8,     // RGB_888: uploaded as it is, packed on the way back
    kRgb565,   // RGB_565: likewise
    kRgb10A2,  // 10-bit YUV formats, through the CPU
    kRgb10A2Direct,  // RGBA_1010102
    kRgba16F,  // RGBA_FP16, as it is
};

enum class Chroma : uint8_t {
    kNone,
    kPairs422,   // YUYV: chroma inside the luma row
    kSemi420,    // NV12/NV21/10-bit 4:2:0: one interleaved plane of ceil(h/2) rows
    kSemi422,    // NV16/10-bit 4:2:2: one interleaved plane of h rows
    kPlanar420,  // YV12: Cr plane then Cb plane, half-width rows
};

struct BufferLayout {
    int32_t format = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t stride = 0;        // pixels
    uint64_t rowBytes = 0;      // of the first plane
    uint64_t chromaRowBytes = 0;
    uint32_t chromaRows = 0;
    uint64_t plane1 = 0;        // byte offsets of the chroma planes (Cr first for YV12)
    uint64_t plane2 = 0;
    uint64_t size = 0;          // bytes the frame needs
    Storage storage = Storage::kRgba8;
    Chroma chroma = Chroma::kNone;
    bool tenBit = false;        // 10-bit samples packed four to five bytes
    bool crFirst = false;       // NV21
};

// False for a format the layer cannot present, a stride narrower than the width or sizes that
// overflow. Plane offsets follow the allocator's rules for that height.
bool describeBuffer(int32_t format, uint32_t width, uint32_t height, uint32_t stride,
                    BufferLayout* out);

struct TexelFormat {
    GLenum internalFormat;
    GLenum uploadFormat;
    GLenum uploadType;
    GLint unpackAlignment;
    GLenum readType;     // what glReadPixels of the target gives (format GL_RGBA)
    uint32_t readBytes;  // bytes per read-back texel
};

const TexelFormat& texelFormat(Storage storage);

// True when GL takes the texels from (gives them into) the buffer memory as they are, so the CPU
// neither presents nor packs them.
bool uploadsDirect(Storage storage);
bool readsDirect(Storage storage);

bool isYuvFormat(int32_t format);

// Fills `texels` (width x height, tightly packed, uploadFormat/uploadType) with what the shader
// samples from a frame that needs the CPU: YUV frames converted to RGB (BT.601 limited range)
// or, with `yuvRaw`, as (Y, Cb, Cr); BGRA swizzled.
void presentSource(const BufferLayout& layout, const uint8_t* memory, bool yuvRaw,
                   std::vector<uint8_t>* texels);

// Packs read-back texels (width x height, tightly packed, readType) into the frame. YUV
// targets hold (Y, Cb, Cr) per pixel; chroma is averaged over each block.
void writeBack(const BufferLayout& layout, const uint8_t* texels, uint8_t* memory);

}  // namespace host_gl
