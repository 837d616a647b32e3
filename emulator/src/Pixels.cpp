#include "Pixels.h"

#include <libyuv.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "capture_emulator/TestPattern.h"

namespace capture_emulator {
namespace {

// 5x7 glyphs, one byte a row, bit 4 leftmost.
struct Glyph {
    char c;
    uint8_t rows[7];
};
constexpr Glyph kFont[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}},
    {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}},
    {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}},
    {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}},
    {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}},
    {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'#', {0x0A, 0x0A, 0x1F, 0x0A, 0x1F, 0x0A, 0x0A}},
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
};

const Glyph* glyphOf(char c) {
    for (const Glyph& g : kFont) {
        if (g.c == c) return &g;
    }
    return nullptr;
}

constexpr uint32_t kOpaque = 0xFF000000u;
constexpr uint32_t kWhite = 0xFFFFFFFFu;
constexpr uint32_t kBlack = 0xFF000000u;

// First index of a non-decreasing table whose value is at least `v`.
uint32_t firstAtLeast(const std::vector<uint32_t>& table, uint32_t v) {
    return static_cast<uint32_t>(std::lower_bound(table.begin(), table.end(), v) - table.begin());
}

}  // namespace

PatternOverlay::PatternOverlay(uint32_t w, uint32_t h, const PatternClock& clock) {
    bandTop = barsEndRow(h);
    uint32_t band = h - bandTop;
    unit = std::max<uint32_t>(1, h / 96);
    textX = w / 32;
    uint32_t textH = 17 * unit;
    textY = bandTop + (band > textH ? (band - textH) / 2 : 0);
    uint64_t ms = clock.timeMs;
    snprintf(lines[0], sizeof(lines[0]), "#%06llu",
             static_cast<unsigned long long>(clock.frameNumber % 1000000));
    snprintf(lines[1], sizeof(lines[1]), "%02llu:%02llu:%02llu.%03llu",
             static_cast<unsigned long long>(ms / 3600000 % 100),
             static_cast<unsigned long long>(ms / 60000 % 60),
             static_cast<unsigned long long>(ms / 1000 % 60),
             static_cast<unsigned long long>(ms % 1000));
    lineLen[0] = static_cast<uint32_t>(strlen(lines[0]));
    lineLen[1] = static_cast<uint32_t>(strlen(lines[1]));
    markerSize = std::max<uint32_t>(1, std::min(h / 8, band));
    uint32_t travel = w / 2 > markerSize ? w / 2 - markerSize : 0;
    uint64_t phase = ms % kMarkerPeriodMs;
    uint64_t half = kMarkerPeriodMs / 2;
    uint64_t pos = phase < half ? phase : kMarkerPeriodMs - phase;  // 0..half, there and back
    markerX = w / 2 + static_cast<uint32_t>(travel * pos / half);
    markerY = bandTop + (band > markerSize ? (band - markerSize) / 2 : 0);
}

Rect PatternOverlay::cells(uint32_t line, uint32_t first, uint32_t last) const {
    return Rect{textX + first * kCellWidth * unit, textY + line * kLineHeight * unit,
                ((last - first) * kCellWidth + kGlyphWidth) * unit, kGlyphHeight * unit};
}

PatternSampling::PatternSampling(uint32_t sourceWidth, uint32_t sourceHeight, const Rect& crop,
                                 uint32_t outWidth, uint32_t outHeight)
    : srcW(sourceWidth), srcH(sourceHeight), outW(outWidth), outH(outHeight) {
    // Sample at pixel centres, so a scaled picture keeps its proportions.
    sx.resize(outW);
    bars.resize(outW);
    for (uint32_t x = 0; x < outW; ++x) {
        sx[x] = crop.x + static_cast<uint32_t>((2ull * x + 1) * crop.w / (2ull * outW));
        bars[x] = kOpaque | barColourAt(sx[x], srcW);
    }
    sy.resize(outH);
    for (uint32_t y = 0; y < outH; ++y) {
        sy[y] = crop.y + static_cast<uint32_t>((2ull * y + 1) * crop.h / (2ull * outH));
    }
}

Rect PatternSampling::outputOf(const Rect& source) const {
    uint32_t x0 = firstAtLeast(sx, source.x), x1 = firstAtLeast(sx, source.x + source.w);
    uint32_t y0 = firstAtLeast(sy, source.y), y1 = firstAtLeast(sy, source.y + source.h);
    if (x0 >= x1 || y0 >= y1) return Rect{};
    return Rect{x0, y0, x1 - x0, y1 - y0};
}

void renderPatternRegion(const PatternSampling& s, const PatternOverlay* overlay,
                         const Rect& region, ArgbImage* out) {
    out->resize(region.w, region.h);
    if (region.w == 0 || region.h == 0) return;
    constexpr uint32_t kMaxChars = sizeof(PatternOverlay::lines[0]);
    const uint32_t bandTop = barsEndRow(s.srcH);
    const uint32_t* sx = s.sx.data() + region.x;
    // Per column of the region: the character under it and its glyph bit (0: none), and the
    // columns the marker covers.
    thread_local std::vector<uint8_t> charOf, bitOf;
    uint32_t markerBegin = 0, markerEnd = 0;
    const Glyph* glyphs[2][kMaxChars] = {};
    if (overlay != nullptr) {
        const PatternOverlay& o = *overlay;
        for (uint32_t line = 0; line < 2; ++line) {
            for (uint32_t c = 0; c < o.lineLen[line] && c < kMaxChars; ++c) {
                glyphs[line][c] = glyphOf(o.lines[line][c]);
            }
        }
        charOf.assign(region.w, 0);
        bitOf.assign(region.w, 0);
        for (uint32_t x = 0; x < region.w; ++x) {
            if (sx[x] < o.textX) continue;
            uint32_t col = (sx[x] - o.textX) / o.unit;
            uint32_t ch = col / PatternOverlay::kCellWidth, bit = col % PatternOverlay::kCellWidth;
            if (ch >= kMaxChars || bit >= PatternOverlay::kGlyphWidth) continue;
            charOf[x] = static_cast<uint8_t>(ch);
            bitOf[x] = static_cast<uint8_t>(0x10 >> bit);
        }
        markerBegin = static_cast<uint32_t>(std::lower_bound(sx, sx + region.w, o.markerX) - sx);
        markerEnd = static_cast<uint32_t>(
            std::lower_bound(sx, sx + region.w, uint64_t{o.markerX} + o.markerSize) - sx);
    }
    const uint32_t width = region.w;
    // A band row depends only on the glyph row and on the marker being in it: rows repeating
    // the previous one's are copied.
    uint32_t previousKey = UINT32_MAX;
    for (uint32_t y = 0; y < region.h; ++y) {
        const uint32_t sy = s.sy[region.y + y];
        uint32_t* row = reinterpret_cast<uint32_t*>(out->data() + size_t{y} * out->stride());
        if (sy < bandTop) {
            memcpy(row, s.bars.data() + region.x, size_t{width} * 4);
            previousKey = UINT32_MAX;
            continue;
        }
        if (overlay == nullptr) {
            std::fill(row, row + width, kBlack);
            continue;
        }
        const PatternOverlay& o = *overlay;
        uint32_t line = 2, glyphRow = 0;  // line 2: no text in this row
        if (sy >= o.textY) {
            line = (sy - o.textY) / (PatternOverlay::kLineHeight * o.unit);
            glyphRow = (sy - o.textY - line * PatternOverlay::kLineHeight * o.unit) / o.unit;
            if (line > 1 || glyphRow >= PatternOverlay::kGlyphHeight) line = 2;
        }
        const bool marked = sy >= o.markerY && sy - o.markerY < o.markerSize;
        const uint32_t key = (line == 2 ? 0 : 1 + line * 8 + glyphRow) * 2 + (marked ? 1 : 0);
        if (key == previousKey) {
            memcpy(row, reinterpret_cast<uint8_t*>(row) - out->stride(), size_t{width} * 4);
            continue;
        }
        previousKey = key;
        // The text: the glyph bits of this row under each column.
        uint8_t bits[kMaxChars] = {};
        if (line < 2) {
            for (uint32_t c = 0; c < kMaxChars; ++c) {
                const Glyph* g = glyphs[line][c];
                bits[c] = g != nullptr ? g->rows[glyphRow] : 0;
            }
        }
        const uint8_t* charAt = charOf.data();
        const uint8_t* bitAt = bitOf.data();
        for (uint32_t x = 0; x < width; ++x) {
            row[x] = (bits[charAt[x]] & bitAt[x]) != 0 ? kWhite : kBlack;
        }
        // The marker lies over everything else.
        if (marked) std::fill(row + markerBegin, row + markerEnd, kWhite);
    }
}

void ArgbImage::resize(uint32_t width, uint32_t height) {
    mWidth = width;
    mHeight = height;
    mPixels.resize(static_cast<size_t>(width) * height * 4);
}

void renderPattern(uint32_t sourceWidth, uint32_t sourceHeight, const Rect& crop,
                   const PatternClock& clock, ArgbImage* out) {
    const uint32_t outW = out->width(), outH = out->height();
    if (outW == 0 || outH == 0 || crop.w == 0 || crop.h == 0) return;
    PatternSampling sampling(sourceWidth, sourceHeight, crop, outW, outH);
    PatternOverlay overlay(sourceWidth, sourceHeight, clock);
    renderPatternRegion(sampling, &overlay, Rect{0, 0, outW, outH}, out);
}

bool readFrame(const PixelFormatInfo& format, const FrameView& f, uint32_t width, uint32_t height,
               ArgbImage* out) {
    out->resize(width, height);
    const int w = static_cast<int>(width), h = static_cast<int>(height);
    const int pitch = static_cast<int>(f.pitch);
    uint8_t* dst = out->data();
    const int stride = out->stride();
    switch (format.vxFormat) {
        case 0:
            return libyuv::YUY2ToARGB(f.luma, pitch, dst, stride, w, h) == 0;
        case 2:
            return libyuv::ABGRToARGB(f.luma, pitch, dst, stride, w, h) == 0;
        case 3:
            return libyuv::ARGBCopy(f.luma, pitch, dst, stride, w, h) == 0;
        case 6:
            return libyuv::AR30ToARGB(f.luma, pitch, dst, stride, w, h) == 0;
        case 22:
            return libyuv::AB30ToARGB(f.luma, pitch, dst, stride, w, h) == 0;
        case 7:
            return libyuv::RGB565ToARGB(f.luma, pitch, dst, stride, w, h) == 0;
        case 8:
            return libyuv::RAWToARGB(f.luma, pitch, dst, stride, w, h) == 0;
        case 11:
            return libyuv::NV12ToARGB(f.luma, pitch, f.chroma, pitch, dst, stride, w, h) == 0;
        case 12:
            return libyuv::NV21ToARGB(f.luma, pitch, f.chroma, pitch, dst, stride, w, h) == 0;
        case 9:
        case 10: {
            const int cw = w / 2;
            std::vector<uint8_t> u(static_cast<size_t>(cw) * h), v(u.size());
            uint8_t* first = format.crFirst ? v.data() : u.data();
            uint8_t* second = format.crFirst ? u.data() : v.data();
            libyuv::SplitUVPlane(f.chroma, pitch, first, cw, second, cw, cw, h);
            return libyuv::I422ToARGB(f.luma, pitch, u.data(), cw, v.data(), cw, dst, stride, w,
                                      h) == 0;
        }
        case 14: {
            const int cw = w / 2, ch = h / 2;
            std::vector<uint8_t> y(static_cast<size_t>(w) * h);
            std::vector<uint8_t> u(static_cast<size_t>(cw) * ch), v(u.size());
            if (libyuv::MM21ToI420(f.luma, pitch, f.chroma, pitch, y.data(), w, u.data(), cw,
                                   v.data(), cw, w, h) != 0) {
                return false;
            }
            return libyuv::I420ToARGB(y.data(), w, u.data(), cw, v.data(), cw, dst, stride, w, h) ==
                   0;
        }
        default:
            return false;
    }
}

void scaleCrop(const ArgbImage& in, const Rect& crop, uint32_t width, uint32_t height,
               ArgbImage* out) {
    out->resize(width, height);
    const uint8_t* origin = in.data() + static_cast<size_t>(crop.y) * in.stride() + crop.x * 4u;
    if (crop.w == width && crop.h == height) {
        libyuv::ARGBCopy(origin, in.stride(), out->data(), out->stride(), static_cast<int>(width),
                         static_cast<int>(height));
        return;
    }
    libyuv::ARGBScale(origin, in.stride(), static_cast<int>(crop.w), static_cast<int>(crop.h),
                      out->data(), out->stride(), static_cast<int>(width), static_cast<int>(height),
                      libyuv::kFilterBilinear);
}

void rotate(const ArgbImage& in, uint32_t angle, ArgbImage* out) {
    bool turned = angle == 90 || angle == 270;
    out->resize(turned ? in.height() : in.width(), turned ? in.width() : in.height());
    libyuv::RotationMode mode = angle == 90    ? libyuv::kRotate90
                                : angle == 180 ? libyuv::kRotate180
                                : angle == 270 ? libyuv::kRotate270
                                               : libyuv::kRotate0;
    libyuv::ARGBRotate(in.data(), in.stride(), out->data(), out->stride(),
                       static_cast<int>(in.width()), static_cast<int>(in.height()), mode);
}

bool writeFrame(const PixelFormatInfo& format, const ArgbImage& in, const FrameView& f) {
    const int w = static_cast<int>(in.width()), h = static_cast<int>(in.height());
    const int pitch = static_cast<int>(f.pitch);
    const uint8_t* src = in.data();
    const int stride = in.stride();
    switch (format.vxFormat) {
        case 0:
            return libyuv::ARGBToYUY2(src, stride, f.luma, pitch, w, h) == 0;
        case 2:
            return libyuv::ARGBToABGR(src, stride, f.luma, pitch, w, h) == 0;
        case 3:
            return libyuv::ARGBCopy(src, stride, f.luma, pitch, w, h) == 0;
        case 6:
            return libyuv::ARGBToAR30(src, stride, f.luma, pitch, w, h) == 0;
        case 22:
            return libyuv::ARGBToAB30(src, stride, f.luma, pitch, w, h) == 0;
        case 7:
            return libyuv::ARGBToRGB565(src, stride, f.luma, pitch, w, h) == 0;
        case 8:
            return libyuv::ARGBToRAW(src, stride, f.luma, pitch, w, h) == 0;
        case 11:
            return libyuv::ARGBToNV12(src, stride, f.luma, pitch, f.chroma, pitch, w, h) == 0;
        case 12:
            return libyuv::ARGBToNV21(src, stride, f.luma, pitch, f.chroma, pitch, w, h) == 0;
        case 9:
        case 10: {
            const int cw = w / 2;
            std::vector<uint8_t> u(static_cast<size_t>(cw) * h), v(u.size());
            if (libyuv::ARGBToI422(src, stride, f.luma, pitch, u.data(), cw, v.data(), cw, w, h) !=
                0) {
                return false;
            }
            const uint8_t* first = format.crFirst ? v.data() : u.data();
            const uint8_t* second = format.crFirst ? u.data() : v.data();
            libyuv::MergeUVPlane(first, cw, second, cw, f.chroma, pitch, cw, h);
            return true;
        }
        default:
            return false;
    }
}

}  // namespace capture_emulator
