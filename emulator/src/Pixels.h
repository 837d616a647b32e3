// Pictures of the emulated hardware: the live test pattern, and conversion between memory
// frames and an ARGB working image (libyuv's ARGB: bytes B, G, R, A) that is cropped, scaled and
// rotated on its way to the destination.
#pragma once

#include <stdint.h>

#include <vector>

#include "capture_emulator/FrameLayout.h"

namespace capture_emulator {

struct Rect {
    uint32_t x = 0, y = 0, w = 0, h = 0;
};

class ArgbImage {
public:
    void resize(uint32_t width, uint32_t height);
    uint8_t* data() { return mPixels.data(); }
    const uint8_t* data() const { return mPixels.data(); }
    uint32_t width() const { return mWidth; }
    uint32_t height() const { return mHeight; }
    int stride() const { return static_cast<int>(mWidth * 4); }

private:
    std::vector<uint8_t> mPixels;
    uint32_t mWidth = 0, mHeight = 0;
};

struct PatternClock {
    uint64_t frameNumber = 0;
    uint64_t timeMs = 0;  // since the source started
};

// Renders `crop` of a sourceWidth x sourceHeight pattern at the image's size.
void renderPattern(uint32_t sourceWidth, uint32_t sourceHeight, const Rect& crop,
                   const PatternClock& clock, ArgbImage* out);

// What the lower band shows at one moment, in source coordinates: two lines of 5x7 glyphs
// (the frame counter, the stream time) and the marker square. Everything else in the band is
// black.
struct PatternOverlay {
    static constexpr uint32_t kGlyphWidth = 5, kGlyphHeight = 7;  // in units
    static constexpr uint32_t kCellWidth = 6, kLineHeight = 9;    // glyph plus gap

    PatternOverlay(uint32_t sourceWidth, uint32_t sourceHeight, const PatternClock& clock);
    // The glyphs first..last of a line.
    Rect cells(uint32_t line, uint32_t first, uint32_t last) const;
    Rect marker() const { return Rect{markerX, markerY, markerSize, markerSize}; }

    uint32_t bandTop, unit, textX, textY;
    char lines[2][24] = {};
    uint32_t lineLen[2];
    uint32_t markerX, markerY, markerSize;
};

// Which source pixel every output pixel of a crop scaled to outW x outH shows (sampled at
// pixel centres, so a scaled picture keeps its proportions), and the bar colour of each column.
struct PatternSampling {
    PatternSampling(uint32_t sourceWidth, uint32_t sourceHeight, const Rect& crop,
                    uint32_t outWidth, uint32_t outHeight);
    // The output pixels whose samples lie in `source`; empty (w = h = 0) when none do.
    Rect outputOf(const Rect& source) const;

    uint32_t srcW, srcH, outW, outH;
    std::vector<uint32_t> sx, sy;  // non-decreasing
    std::vector<uint32_t> bars;    // libyuv ARGB
};

// Output pixels `region` of the pattern into `out` (resized to the region); a null overlay
// leaves the band black.
void renderPatternRegion(const PatternSampling& sampling, const PatternOverlay* overlay,
                         const Rect& region, ArgbImage* out);

// Plane pointers of a memory frame; the caller has checked that the frame lies in its buffer.
struct FrameView {
    uint8_t* luma = nullptr;
    uint8_t* chroma = nullptr;
    uint32_t pitch = 0;
};

// width x height of the frame into `out` (resized to that).
bool readFrame(const PixelFormatInfo& format, const FrameView& frame, uint32_t width,
               uint32_t height, ArgbImage* out);
// `crop` of `in`, scaled to width x height.
void scaleCrop(const ArgbImage& in, const Rect& crop, uint32_t width, uint32_t height,
               ArgbImage* out);
// Clockwise by 90, 180 or 270 degrees.
void rotate(const ArgbImage& in, uint32_t angle, ArgbImage* out);
// The image, at its own size, into the frame.
bool writeFrame(const PixelFormatInfo& format, const ArgbImage& in, const FrameView& frame);

}  // namespace capture_emulator
