// The picture the emulated hardware sees at every live capture point, in source coordinates.
//
// The upper three quarters hold eight vertical colour bars of equal width at full intensity
// (white, yellow, cyan, green, magenta, red, blue, black: the order of the classic bars). The
// lower quarter is black with the frame counter and the stream time in white digits on the left
// and a white marker that sweeps across the right half once every two seconds, so consecutive
// frames always differ. Crop, scale and rotation act on this picture as on any source.
#pragma once

#include <stdint.h>

namespace capture_emulator {

constexpr uint32_t kBarCount = 8;
// 0xRRGGBB
constexpr uint32_t kBarColours[kBarCount] = {0xFFFFFF, 0xFFFF00, 0x00FFFF, 0x00FF00,
                                             0xFF00FF, 0xFF0000, 0x0000FF, 0x000000};
// The bars end at this fraction of the source height.
constexpr uint32_t kBarsHeightNum = 3;
constexpr uint32_t kBarsHeightDen = 4;
constexpr uint32_t kMarkerPeriodMs = 2000;

// Colour of the bar under source column x of a source width; 0xRRGGBB.
inline uint32_t barColourAt(uint32_t x, uint32_t sourceWidth) {
    if (sourceWidth == 0) return 0;
    uint64_t bar = static_cast<uint64_t>(x) * kBarCount / sourceWidth;
    return kBarColours[bar < kBarCount ? bar : kBarCount - 1];
}

// First source row below the bars.
inline uint32_t barsEndRow(uint32_t sourceHeight) {
    return static_cast<uint32_t>(static_cast<uint64_t>(sourceHeight) * kBarsHeightNum /
                                 kBarsHeightDen);
}

}  // namespace capture_emulator
