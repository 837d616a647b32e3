// Frames to pictures: a destination frame in any format the hardware writes, as a PNG file.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "capture_emulator/FrameLayout.h"

namespace capturectl {

// R, G, B bytes of a width x height frame at `frame` (luma first, chroma at the layout's
// offset); false for a format this tool cannot read.
bool frameToRgb(const capture_emulator::PixelFormatInfo& format,
                const capture_emulator::FrameLayout& layout, const uint8_t* frame, uint32_t width,
                uint32_t height, std::vector<uint8_t>* rgb);

// Writes 8-bit RGB rows; an error text, empty on success.
std::string writePng(const std::string& path, const std::vector<uint8_t>& rgb, uint32_t width,
                     uint32_t height);

}  // namespace capturectl
