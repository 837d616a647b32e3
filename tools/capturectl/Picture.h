// Frames and pictures: the frames the hardware and the GPU path write, read into the emulated
// hardware's ARGB working image (libyuv's ARGB: bytes B, G, R, A) and back; PNG files; the
// pictures capturectl can feed a conversion.
#pragma once

#include <stdint.h>

#include <string>

#include "Pixels.h"

namespace capturectl {

using capture_emulator::ArgbImage;

// Where the planes of a frame are: the first at `base` with rows `pitch` bytes apart, the second
// at the given byte offset from `base`, rows of the same pitch.
struct FramePlanes {
    uint8_t* base = nullptr;
    uint32_t pitch = 0;
    uint32_t chromaOffset = 0;
};

// Reads a width x height frame in a CaptureFormat. The emulated hardware's formats are read as it
// lays them out (capture_emulator/FrameLayout.h); where the GPU path pairs one of them with a
// graphics-buffer format the two layouts agree. The two 10-bit YUV formats of the GPU path are
// read as the graphics allocator lays them out: YUYV_10B (4:2:2) and RZ21S10L (4:2:0), luma then
// interleaved Cb,Cr, four samples packed little-endian into five bytes. YV12 and ARGB16161616
// are not read: the service takes neither as a destination (no DIP format), whichever engine.
// False for those and any other format.
bool decodeFrame(uint32_t captureFormat, const FramePlanes& planes, uint32_t width, uint32_t height,
                 ArgbImage* out);

// Writes the image, at its size, as a frame of one of the emulated hardware's formats; false
// for the others.
bool encodeFrame(uint32_t captureFormat, const ArgbImage& image, const FramePlanes& planes);

// Copies a frame the emulated hardware laid out (one of its linear formats) into other planes.
void copyFrame(const capture_emulator::PixelFormatInfo& format,
               const capture_emulator::FrameLayout& layout, const uint8_t* from,
               const FramePlanes& to, uint32_t width);

// Both return an error text, empty on success.
std::string readPng(const std::string& path, ArgbImage* out);
std::string writePng(const std::string& path, const ArgbImage& image);

// Pictures to convert when no file is given.
//   bars       the picture of the emulated capture points: eight colour bars over three
//              quarters of the height, a black band with frame number 0 and time 0 below
//   quadrants  red, green / blue, white: shows at a glance how a picture was turned
bool renderNamedPattern(const std::string& name, uint32_t width, uint32_t height, ArgbImage* out);
constexpr const char* kPatternNames = "bars, quadrants";

}  // namespace capturectl
