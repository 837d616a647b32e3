// YUV4MPEG2: the hardware's YUV frames as a stream video tools read as they are (ffplay, ffmpeg,
// mpv, GStreamer's y4mdec), planar Y, Cb, Cr after a header that gives size, rate, chroma
// layout and range.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "capture_emulator/FrameLayout.h"

namespace capturectl {

// The header's colour-space tag of a format: "420jpeg" or "420mpeg2" for 4:2:0 by where its
// chroma samples sit, "422" for 4:2:2; empty for a format YUV4MPEG2 cannot hold (RGB).
std::string y4mChromaTag(const capture_emulator::PixelFormatInfo& format);

// "YUV4MPEG2 W.. H.. F..:1 Ip A1:1 C.. XCOLORRANGE=LIMITED\n"
std::string y4mHeader(const capture_emulator::PixelFormatInfo& format, uint32_t width,
                      uint32_t height, uint32_t fps);

// "FRAME\n" and the frame's planes, unpadded, into `out` (replacing what it held).
void y4mFrame(const capture_emulator::PixelFormatInfo& format,
              const capture_emulator::FrameLayout& layout, const uint8_t* frame, uint32_t width,
              uint32_t height, std::vector<uint8_t>* out);

}  // namespace capturectl
