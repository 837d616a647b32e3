#include "GpuReference.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace gpu_reference {

namespace {

using Rgba = std::array<double, 4>;

// BT.601 limited range, the constants of the YUV-target emulation.
constexpr double kLumaOffset = 16.0 / 255.0;
constexpr double kChromaOffset = 128.0 / 255.0;

// The service turns degrees into radians with this single-precision constant, a hair below pi.
constexpr float kRotationPi = 3.1415925f;

bool isTenBit(uint32_t format) {
    return format == kYuv420_10 || format == kYuv422_10;
}

double clamp01(double v) {
    return std::min(1.0, std::max(0.0, v));
}

uint16_t toHalfBits(double value) {
    const float f = static_cast<float>(value);
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof(bits));
    const uint32_t sign = (bits >> 16) & 0x8000u;
    const int32_t exponent = static_cast<int32_t>((bits >> 23) & 0xFF) - 127 + 15;
    uint32_t mantissa = bits & 0x7FFFFFu;
    if (exponent >= 31) return static_cast<uint16_t>(sign | 0x7C00u);
    if (exponent <= 0) {
        if (exponent < -10) return static_cast<uint16_t>(sign);
        mantissa |= 0x800000u;
        const int shift = 14 - exponent;
        uint32_t half = mantissa >> shift;
        const uint32_t rest = mantissa & ((1u << shift) - 1);
        const uint32_t halfway = 1u << (shift - 1);
        if (rest > halfway || (rest == halfway && (half & 1u))) ++half;
        return static_cast<uint16_t>(sign | half);
    }
    uint32_t half = (static_cast<uint32_t>(exponent) << 10) | (mantissa >> 13);
    const uint32_t rest = mantissa & 0x1FFFu;
    if (rest > 0x1000u || (rest == 0x1000u && (half & 1u))) ++half;  // may carry into the exponent
    return static_cast<uint16_t>(sign | half);
}

double fromHalfBits(uint16_t half) {
    const int exponent = (half >> 10) & 0x1F;
    const int mantissa = half & 0x3FF;
    const double sign = (half & 0x8000) ? -1.0 : 1.0;
    if (exponent == 0) return sign * std::ldexp(mantissa, -24);
    if (exponent == 31) return mantissa == 0 ? sign * INFINITY : NAN;
    return sign * std::ldexp(1024 + mantissa, exponent - 25);
}

double maxCode(int bits) {
    return static_cast<double>((1u << bits) - 1);
}

// The nearest value a channel of `bits` can hold, clamped to [0, 1].
double quantize(double v, int bits) {
    v = clamp01(v);
    if (bits == kHalfFloat) return fromHalfBits(toHalfBits(v));
    const double m = maxCode(bits);
    return std::round(v * m) / m;
}

uint32_t code(double v, int bits) {
    return static_cast<uint32_t>(std::lround(clamp01(v) * maxCode(bits)));
}

double fromCode(uint32_t c, int bits) {
    return c / maxCode(bits);
}

// What the render target of a destination format keeps per channel.
int renderTargetBits(uint32_t format) {
    if (format == kRgbaFp16) return kHalfFloat;
    if (format == kRgba1010102 || isTenBit(format)) return 10;
    return 8;
}

size_t bytesPerPixel(uint32_t format) {
    switch (format) {
        case kRgba8888:
        case kBgra8888:
        case kRgba1010102:
            return 4;
        case kRgb888:
            return 3;
        case kRgb565:
        case kYuyv:
            return 2;
        case kRgbaFp16:
            return 8;
        default:
            return 1;
    }
}

// 10-bit samples, four to a 40-bit little-endian group of five bytes.
uint32_t readPacked10(const uint8_t* row, int k) {
    const uint8_t* group = row + (k / 4) * 5;
    uint64_t word = 0;
    for (int b = 4; b >= 0; --b) word = (word << 8) | group[b];
    return static_cast<uint32_t>((word >> (10 * (k % 4))) & 0x3FF);
}

void writePacked10(uint8_t* row, int k, uint32_t value) {
    uint8_t* group = row + (k / 4) * 5;
    uint64_t word = 0;
    for (int b = 4; b >= 0; --b) word = (word << 8) | group[b];
    const int shift = 10 * (k % 4);
    word = (word & ~(uint64_t{0x3FF} << shift)) | (uint64_t{value & 0x3FF} << shift);
    for (int b = 0; b < 5; ++b) group[b] = static_cast<uint8_t>(word >> (8 * b));
}

void put16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

uint32_t get16(const uint8_t* p) {
    return p[0] | (p[1] << 8);
}

void put32(uint8_t* p, uint32_t v) {
    for (int b = 0; b < 4; ++b) p[b] = static_cast<uint8_t>(v >> (8 * b));
}

uint32_t get32(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Byte offsets of a chroma sample's Cb and Cr for the semi-planar and planar formats.
struct ChromaPlace {
    size_t cb;
    size_t cr;
};

ChromaPlace chromaPlace(uint32_t format, const Layout& l, int cx, int cy) {
    const size_t row = l.chromaOffset + static_cast<size_t>(cy) * l.chromaRowBytes;
    switch (format) {
        case kNv21:
            return {row + 2 * cx + 1, row + 2 * cx};
        case kYv12:
            return {l.secondChromaOffset + static_cast<size_t>(cy) * l.chromaRowBytes + cx,
                    row + cx};
        default:  // NV12, NV16
            return {row + 2 * cx, row + 2 * cx + 1};
    }
}

Rgba yuvToRgb(double y, double cb, double cr) {
    const double luma = 1.164383 * (y - kLumaOffset);
    return {clamp01(luma + 1.596027 * (cr - 0.5)),
            clamp01(luma - 0.391762 * (cb - 0.5) - 0.812968 * (cr - 0.5)),
            clamp01(luma + 2.017232 * (cb - 0.5)), 1.0};
}

Rgba rgbToYuv(const Rgba& c) {
    return {clamp01(kLumaOffset + 0.256788 * c[0] + 0.504129 * c[1] + 0.097906 * c[2]),
            clamp01(kChromaOffset - 0.148223 * c[0] - 0.290993 * c[1] + 0.439216 * c[2]),
            clamp01(kChromaOffset + 0.439216 * c[0] - 0.367788 * c[1] - 0.071427 * c[2]), 1.0};
}

// The source as the shader's sampler presents it, one RGBA (or YCbCr) per pixel.
std::vector<Rgba> present(const Image& src, int kind) {
    const FormatDesc& f = describe(src.format);
    std::vector<Rgba> texels(static_cast<size_t>(src.width) * src.height);
    for (int y = 0; y < src.height; ++y) {
        for (int x = 0; x < src.width; ++x) {
            Rgba& t = texels[static_cast<size_t>(y) * src.width + x];
            if (f.rgb) {
                t = {src.at(0, x, y), src.at(1, x, y), src.at(2, x, y), src.at(3, x, y)};
                continue;
            }
            // No chroma interpolation: every pixel takes the sample of its block.
            const double luma = src.at(0, x, y);
            const double cb = src.at(1, x / f.chromaDivX, y / f.chromaDivY);
            const double cr = src.at(2, x / f.chromaDivX, y / f.chromaDivY);
            if (kind == 3) {
                t = {luma, cb, cr, 1.0};
            } else {
                const int bits = isTenBit(src.format) ? 10 : 8;
                t = yuvToRgb(luma, cb, cr);
                for (int c = 0; c < 3; ++c) t[c] = quantize(t[c], bits);
            }
        }
    }
    return texels;
}

// GL_LINEAR with clamp to edge at texture coordinate (s, t).
Rgba sampleBilinear(const std::vector<Rgba>& texels, int width, int height, double s, double t) {
    const double u = s * width - 0.5;
    const double v = t * height - 0.5;
    const double u0 = std::floor(u);
    const double v0 = std::floor(v);
    const double fu = u - u0;
    const double fv = v - v0;
    auto clampIndex = [](double i, int n) {
        return static_cast<int>(std::min<double>(n - 1, std::max(0.0, i)));
    };
    const int x0 = clampIndex(u0, width);
    const int x1 = clampIndex(u0 + 1, width);
    const int y0 = clampIndex(v0, height);
    const int y1 = clampIndex(v0 + 1, height);
    auto at = [&](int x, int y) -> const Rgba& {
        return texels[static_cast<size_t>(y) * width + x];
    };
    Rgba out;
    for (int c = 0; c < 4; ++c) {
        const double top = at(x0, y0)[c] * (1 - fu) + at(x1, y0)[c] * fu;
        const double bottom = at(x0, y1)[c] * (1 - fu) + at(x1, y1)[c] * fu;
        out[c] = top * (1 - fv) + bottom * fv;
    }
    return out;
}

const char* channelName(const FormatDesc& f, int c) {
    static const char* const kRgb[] = {"R", "G", "B", "A"};
    static const char* const kYuv[] = {"Y", "Cb", "Cr", "-"};
    return f.rgb ? kRgb[c] : kYuv[c];
}

}  // namespace

const std::vector<FormatDesc>& allFormats() {
    static const std::vector<FormatDesc> formats = {
        {kYuyv, 0x1, "YUYV", false, 2, 1, {8, 8, 8, 0}},
        {kYuv422_10, 0x2, "YUV422_10B", false, 2, 1, {10, 10, 10, 0}},
        {kRgba8888, 0x4, "RGBA_8888", true, 1, 1, {8, 8, 8, 8}},
        {kBgra8888, 0x8, "BGRA_8888", true, 1, 1, {8, 8, 8, 8}},
        {kRgbaFp16, 0x100000, "RGBA_FP16", true, 1, 1, {16, 16, 16, 16}},
        {kRgba1010102, 0x400000, "RGBA_1010102", true, 1, 1, {10, 10, 10, 2}},
        {kRgb565, 0x80, "RGB_565", true, 1, 1, {5, 6, 5, 0}},
        {kRgb888, 0x100, "RGB_888", true, 1, 1, {8, 8, 8, 0}},
        {kNv16, 0x200, "NV16", false, 2, 1, {8, 8, 8, 0}},
        {kNv12, 0x800, "NV12", false, 2, 2, {8, 8, 8, 0}},
        {kNv21, 0x1000, "NV21", false, 2, 2, {8, 8, 8, 0}},
        {kYuv420_10, 0x2000, "YC420_10B", false, 2, 2, {10, 10, 10, 0}},
        {kYv12, 0x200000, "YV12", false, 2, 2, {8, 8, 8, 0}},
    };
    return formats;
}

const FormatDesc& describe(uint32_t hal) {
    for (const FormatDesc& f : allFormats()) {
        if (f.hal == hal) return f;
    }
    throw std::invalid_argument("not a format of the GPU path: " + std::to_string(hal));
}

int conversionKind(uint32_t srcFormat, uint32_t dstFormat) {
    const bool srcRgb = describe(srcFormat).rgb;
    const bool dstRgb = describe(dstFormat).rgb;
    if (srcRgb) return dstRgb ? 0 : 1;
    return dstRgb ? 2 : 3;
}

Layout layoutOf(uint32_t format, int height, int stride) {
    Layout l;
    const size_t h = static_cast<size_t>(height);
    const size_t halfRows = (h + 1) / 2;
    l.rowBytes = isTenBit(format) ? static_cast<size_t>(stride) * 5 / 4
                                  : static_cast<size_t>(stride) * bytesPerPixel(format);
    l.size = l.rowBytes * h;
    switch (format) {
        case kNv16:
        case kYuv422_10:
            l.chromaRows = h;
            break;
        case kNv12:
        case kNv21:
        case kYuv420_10:
        case kYv12:
            l.chromaRows = halfRows;
            break;
        default:
            return l;
    }
    l.chromaOffset = l.rowBytes * h;
    l.chromaRowBytes = format == kYv12 ? l.rowBytes / 2 : l.rowBytes;
    l.size = l.chromaOffset + l.chromaRowBytes * l.chromaRows;
    if (format == kYv12) {
        l.secondChromaOffset = l.size;
        l.size += l.chromaRowBytes * l.chromaRows;
    }
    return l;
}

int Image::channelWidth(int c) const {
    return (c == 0 || describe(format).rgb) ? width : chromaWidth;
}

int Image::channelHeight(int c) const {
    return (c == 0 || describe(format).rgb) ? height : chromaHeight;
}

Image makeImage(uint32_t format, int width, int height) {
    const FormatDesc& f = describe(format);
    Image image;
    image.format = format;
    image.width = width;
    image.height = height;
    image.chromaWidth = (width + f.chromaDivX - 1) / f.chromaDivX;
    image.chromaHeight = (height + f.chromaDivY - 1) / f.chromaDivY;
    const int channels = f.rgb ? 4 : 3;
    for (int c = 0; c < channels; ++c) {
        image.channel[c].assign(static_cast<size_t>(image.channelWidth(c)) * image.channelHeight(c),
                                1.0);
    }
    return image;
}

Image makePattern(uint32_t format, int width, int height, int seed) {
    const FormatDesc& f = describe(format);
    Image image = makeImage(format, width, height);
    const double shift = seed % 3;
    // Position of a pixel (or of a chroma block's centre) as a fraction of the frame.
    auto fraction = [](double centre, int size) {
        return size > 1 ? clamp01(centre / (size - 1)) : 0.5;
    };
    auto store = [&](int c, int x, int y, double v) {
        image.at(c, x, y) = f.bits[c] == 0 ? 1.0 : quantize(v, f.bits[c]);
    };
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const double fx = fraction(x, width);
            const double fy = fraction(y, height);
            if (f.rgb) {
                store(0, x, y, 0.10 + 0.65 * fx + 0.15 * fy * fy + 0.04 * shift);
                store(1, x, y, 0.15 + 0.60 * fy + 0.10 * fx - 0.04 * shift);
                store(2, x, y, 0.85 - 0.45 * fx - 0.30 * fy + 0.03 * shift);
                store(3, x, y, 0.30 + 0.45 * fx + 0.20 * fy * (1 - fx) - 0.02 * shift);
            } else {
                // Kept where the BT.601 conversion to RGB stays inside [0, 1].
                store(0, x, y, (70 + 100 * fx + 30 * fy - 40 * fx * fy + 8 * shift) / 255);
            }
        }
    }
    if (!f.rgb) {
        for (int cy = 0; cy < image.chromaHeight; ++cy) {
            for (int cx = 0; cx < image.chromaWidth; ++cx) {
                const double fx = fraction(cx * f.chromaDivX + (f.chromaDivX - 1) / 2.0, width);
                const double fy = fraction(cy * f.chromaDivY + (f.chromaDivY - 1) / 2.0, height);
                // Cb stays above 130, Cr below 125: a swap shows everywhere.
                store(1, cx, cy, (140 + 25 * fy - 10 * fx - 4 * shift) / 255);
                store(2, cx, cy, (110 - 25 * fx + 15 * fy + 5 * shift) / 255);
            }
        }
    }
    return image;
}

void pack(const Image& image, int stride, uint8_t* memory) {
    const uint32_t format = image.format;
    const FormatDesc& f = describe(format);
    const Layout l = layoutOf(format, image.height, stride);
    for (int y = 0; y < image.height; ++y) {
        uint8_t* row = memory + static_cast<size_t>(y) * l.rowBytes;
        for (int x = 0; x < image.width; ++x) {
            uint32_t c[4] = {0, 0, 0, 0};
            for (int k = 0; k < 4; ++k) {
                if (f.rgb && f.bits[k] != 0 && f.bits[k] != kHalfFloat) {
                    c[k] = code(image.at(k, x, y), f.bits[k]);
                }
            }
            uint8_t* p = row + x * bytesPerPixel(format);
            switch (format) {
                case kRgba8888:
                    for (int k = 0; k < 4; ++k) p[k] = static_cast<uint8_t>(c[k]);
                    break;
                case kBgra8888:
                    p[0] = static_cast<uint8_t>(c[2]);
                    p[1] = static_cast<uint8_t>(c[1]);
                    p[2] = static_cast<uint8_t>(c[0]);
                    p[3] = static_cast<uint8_t>(c[3]);
                    break;
                case kRgb888:
                    for (int k = 0; k < 3; ++k) p[k] = static_cast<uint8_t>(c[k]);
                    break;
                case kRgb565:
                    put16(p, (c[0] << 11) | (c[1] << 5) | c[2]);
                    break;
                case kRgba1010102:
                    put32(p, c[0] | (c[1] << 10) | (c[2] << 20) | (c[3] << 30));
                    break;
                case kRgbaFp16:
                    for (int k = 0; k < 4; ++k) put16(p + 2 * k, toHalfBits(image.at(k, x, y)));
                    break;
                case kYuyv:
                    row[2 * x] = static_cast<uint8_t>(code(image.at(0, x, y), 8));
                    break;
                case kYuv420_10:
                case kYuv422_10:
                    writePacked10(row, x, code(image.at(0, x, y), 10));
                    break;
                default:  // 8-bit luma planes
                    row[x] = static_cast<uint8_t>(code(image.at(0, x, y), 8));
                    break;
            }
        }
    }
    if (f.rgb) return;
    for (int cy = 0; cy < image.chromaHeight; ++cy) {
        for (int cx = 0; cx < image.chromaWidth; ++cx) {
            const double cb = image.at(1, cx, cy);
            const double cr = image.at(2, cx, cy);
            if (format == kYuyv) {
                uint8_t* pair = memory + static_cast<size_t>(cy) * l.rowBytes + 4 * cx;
                pair[1] = static_cast<uint8_t>(code(cb, 8));
                pair[3] = static_cast<uint8_t>(code(cr, 8));
            } else if (isTenBit(format)) {
                uint8_t* row = memory + l.chromaOffset + static_cast<size_t>(cy) * l.chromaRowBytes;
                writePacked10(row, 2 * cx, code(cb, 10));
                writePacked10(row, 2 * cx + 1, code(cr, 10));
            } else {
                const ChromaPlace place = chromaPlace(format, l, cx, cy);
                memory[place.cb] = static_cast<uint8_t>(code(cb, 8));
                memory[place.cr] = static_cast<uint8_t>(code(cr, 8));
            }
        }
    }
}

Image unpack(uint32_t format, int width, int height, int stride, const uint8_t* memory) {
    const FormatDesc& f = describe(format);
    Image image = makeImage(format, width, height);
    const Layout l = layoutOf(format, height, stride);
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = memory + static_cast<size_t>(y) * l.rowBytes;
        for (int x = 0; x < width; ++x) {
            const uint8_t* p = row + x * bytesPerPixel(format);
            uint32_t c[4] = {0, 0, 0, 0};
            switch (format) {
                case kRgba8888:
                    for (int k = 0; k < 4; ++k) c[k] = p[k];
                    break;
                case kBgra8888:
                    c[0] = p[2];
                    c[1] = p[1];
                    c[2] = p[0];
                    c[3] = p[3];
                    break;
                case kRgb888:
                    for (int k = 0; k < 3; ++k) c[k] = p[k];
                    break;
                case kRgb565: {
                    const uint32_t v = get16(p);
                    c[0] = v >> 11;
                    c[1] = (v >> 5) & 0x3F;
                    c[2] = v & 0x1F;
                    break;
                }
                case kRgba1010102: {
                    const uint32_t v = get32(p);
                    c[0] = v & 0x3FF;
                    c[1] = (v >> 10) & 0x3FF;
                    c[2] = (v >> 20) & 0x3FF;
                    c[3] = v >> 30;
                    break;
                }
                case kRgbaFp16:
                    for (int k = 0; k < 4; ++k) image.at(k, x, y) = fromHalfBits(get16(p + 2 * k));
                    continue;
                case kYuyv:
                    c[0] = row[2 * x];
                    break;
                case kYuv420_10:
                case kYuv422_10:
                    c[0] = readPacked10(row, x);
                    break;
                default:
                    c[0] = row[x];
                    break;
            }
            const int channels = f.rgb ? 4 : 1;
            for (int k = 0; k < channels; ++k) {
                image.at(k, x, y) = f.bits[k] == 0 ? 1.0 : fromCode(c[k], f.bits[k]);
            }
        }
    }
    if (f.rgb) return image;
    for (int cy = 0; cy < image.chromaHeight; ++cy) {
        for (int cx = 0; cx < image.chromaWidth; ++cx) {
            double cb;
            double cr;
            if (format == kYuyv) {
                const uint8_t* pair = memory + static_cast<size_t>(cy) * l.rowBytes + 4 * cx;
                cb = fromCode(pair[1], 8);
                cr = fromCode(pair[3], 8);
            } else if (isTenBit(format)) {
                const uint8_t* row =
                    memory + l.chromaOffset + static_cast<size_t>(cy) * l.chromaRowBytes;
                cb = fromCode(readPacked10(row, 2 * cx), 10);
                cr = fromCode(readPacked10(row, 2 * cx + 1), 10);
            } else {
                const ChromaPlace place = chromaPlace(format, l, cx, cy);
                cb = fromCode(memory[place.cb], 8);
                cr = fromCode(memory[place.cr], 8);
            }
            image.at(1, cx, cy) = cb;
            image.at(2, cx, cy) = cr;
        }
    }
    return image;
}

std::vector<size_t> paddingBytes(uint32_t format, int width, int height, int stride) {
    const FormatDesc& f = describe(format);
    const Layout l = layoutOf(format, height, stride);
    const size_t chromaWidth = (width + f.chromaDivX - 1) / f.chromaDivX;
    auto packed10 = [](size_t samples) { return (samples + 3) / 4 * 5; };
    size_t used;  // bytes of a luma or packed row that the area owns
    if (format == kYuyv) {
        used = 4 * chromaWidth;
    } else if (isTenBit(format)) {
        used = packed10(width);
    } else {
        used = width * bytesPerPixel(format);
    }
    std::vector<size_t> offsets;
    for (int y = 0; y < height; ++y) {
        for (size_t b = used; b < l.rowBytes; ++b) offsets.push_back(y * l.rowBytes + b);
    }
    if (f.rgb || format == kYuyv) return offsets;
    size_t chromaUsed = 2 * chromaWidth;
    if (isTenBit(format)) chromaUsed = packed10(2 * chromaWidth);
    if (format == kYv12) chromaUsed = chromaWidth;
    const size_t planes = format == kYv12 ? 2 : 1;
    for (size_t plane = 0; plane < planes; ++plane) {
        const size_t base = plane == 0 ? l.chromaOffset : l.secondChromaOffset;
        for (size_t y = 0; y < l.chromaRows; ++y) {
            for (size_t b = chromaUsed; b < l.chromaRowBytes; ++b) {
                offsets.push_back(base + y * l.chromaRowBytes + b);
            }
        }
    }
    return offsets;
}

Prediction predict(const Image& src, const Request& r) {
    const FormatDesc& df = describe(r.dstFormat);
    const int kind = conversionKind(src.format, r.dstFormat);
    const std::vector<Rgba> texels = present(src, kind);
    const int rtBits = renderTargetBits(r.dstFormat);

    const float angle = static_cast<float>(r.rotation) * kRotationPi / 180.0f;
    const double cosA = std::cos(static_cast<double>(angle));
    const double sinA = std::sin(static_cast<double>(angle));
    const int w = r.dstWidth;
    const int h = r.dstHeight;
    // The model point a window position (in pixels) shows: the inverse of the turn.
    auto modelAt = [&](double px, double py, double* mx, double* my) {
        const double qx = px / w * 2 - 1;
        const double qy = py / h * 2 - 1;
        *mx = qx * cosA + qy * sinA;
        *my = -qx * sinA + qy * cosA;
        return std::fabs(*mx) <= 1 && std::fabs(*my) <= 1;
    };
    const bool rightAngle = r.rotation % 90 == 0;

    Prediction out;
    out.image = makeImage(r.dstFormat, w, h);
    out.covered.assign(static_cast<size_t>(w) * h, 0);
    out.uncertain.assign(static_cast<size_t>(w) * h, 0);
    // What the render target holds per pixel.
    std::vector<Rgba> stored(static_cast<size_t>(w) * h);
    for (int j = 0; j < h; ++j) {
        for (int i = 0; i < w; ++i) {
            const size_t p = static_cast<size_t>(j) * w + i;
            double mx;
            double my;
            const bool covered = modelAt(i + 0.5, j + 0.5, &mx, &my);
            out.covered[p] = covered;
            if (!rightAngle) {
                // A pixel whose neighbourhood straddles an edge of the turned quad may be
                // rasterised either way.
                for (int dy = -1; dy <= 1; ++dy) {
                    for (int dx = -1; dx <= 1; ++dx) {
                        double ex;
                        double ey;
                        if (modelAt(i + 0.5 + dx, j + 0.5 + dy, &ex, &ey) != covered) {
                            out.uncertain[p] = 1;
                        }
                    }
                }
            }
            Rgba value = {0.0, 0.0, 0.0, 1.0};  // the clear colour, as written
            if (covered) {
                const double s = (r.cropX + (mx + 1) / 2 * r.cropWidth) / r.srcWidth;
                const double t = (r.cropY + (my + 1) / 2 * r.cropHeight) / r.srcHeight;
                value = sampleBilinear(texels, r.srcWidth, r.srcHeight, s, t);
                if (kind == 1) value = rgbToYuv(value);
            }
            for (int c = 0; c < 4; ++c) value[c] = quantize(value[c], rtBits);
            stored[p] = value;
        }
    }

    // Write-back into the destination's own precision; chroma as the mean of its block.
    for (int j = 0; j < h; ++j) {
        for (int i = 0; i < w; ++i) {
            const Rgba& v = stored[static_cast<size_t>(j) * w + i];
            if (df.rgb) {
                for (int c = 0; c < 4; ++c) {
                    out.image.at(c, i, j) = df.bits[c] == 0 ? 1.0 : quantize(v[c], df.bits[c]);
                }
            } else {
                out.image.at(0, i, j) = quantize(v[0], df.bits[0]);
            }
        }
    }
    if (!df.rgb) {
        for (int cy = 0; cy < out.image.chromaHeight; ++cy) {
            for (int cx = 0; cx < out.image.chromaWidth; ++cx) {
                double sum[2] = {0, 0};
                int n = 0;
                for (int j = cy * df.chromaDivY; j < std::min(h, (cy + 1) * df.chromaDivY); ++j) {
                    for (int i = cx * df.chromaDivX; i < std::min(w, (cx + 1) * df.chromaDivX);
                         ++i) {
                        const Rgba& v = stored[static_cast<size_t>(j) * w + i];
                        sum[0] += v[1];
                        sum[1] += v[2];
                        ++n;
                    }
                }
                out.image.at(1, cx, cy) = quantize(sum[0] / n, df.bits[1]);
                out.image.at(2, cx, cy) = quantize(sum[1] / n, df.bits[2]);
            }
        }
    }
    return out;
}

int toleranceCodes(uint32_t format, int c) {
    const int bits = describe(format).bits[c];
    if (bits == kHalfFloat) return 2;
    if (bits < 8) return 1;
    return static_cast<int>(std::lround(2 * maxCode(bits) / 255));
}

std::string Comparison::describe() const {
    char text[96];
    snprintf(text, sizeof(text), "%zu of %zu samples beyond the tolerance; worst ", failing,
             compared);
    return text + worstAt;
}

Comparison compare(const Prediction& expected, const Image& actual, int border) {
    const Image& e = expected.image;
    const FormatDesc& f = describe(e.format);
    Comparison result;
    double worstRatio = -1;
    const int w = e.width;
    const int h = e.height;
    for (int c = 0; c < 4; ++c) {
        if (f.bits[c] == 0) continue;
        const bool full = f.rgb || c == 0;
        const int divX = full ? 1 : f.chromaDivX;
        const int divY = full ? 1 : f.chromaDivY;
        const double scale = f.bits[c] == kHalfFloat ? 255.0 : maxCode(f.bits[c]);
        const int tolerance = toleranceCodes(e.format, c);
        for (int y = 0; y < e.channelHeight(c); ++y) {
            for (int x = 0; x < e.channelWidth(c); ++x) {
                bool skip = false;
                bool uncovered = false;
                for (int j = y * divY; j < std::min(h, (y + 1) * divY); ++j) {
                    for (int i = x * divX; i < std::min(w, (x + 1) * divX); ++i) {
                        const size_t p = static_cast<size_t>(j) * w + i;
                        skip = skip || i < border || j < border || i >= w - border ||
                               j >= h - border || expected.uncertain[p];
                        uncovered = uncovered || !expected.covered[p];
                    }
                }
                if (skip) continue;
                ++result.compared;
                if (uncovered && c == 0) ++result.uncoveredCompared;
                const double want = e.at(c, x, y);
                const double got = actual.at(c, x, y);
                const double diff = std::fabs(want - got) * scale;
                if (diff > tolerance + 1e-6) ++result.failing;
                const double ratio = diff / tolerance;
                if (ratio > worstRatio) {
                    worstRatio = ratio;
                    result.worst = diff;
                    char text[200];
                    if (full) {
                        snprintf(text, sizeof(text), "%s at pixel (%d, %d)", channelName(f, c), x,
                                 y);
                    } else {
                        snprintf(text, sizeof(text), "%s of chroma sample (%d, %d)",
                                 channelName(f, c), x, y);
                    }
                    std::string where = text;
                    if (f.bits[c] == kHalfFloat) {
                        snprintf(text, sizeof(text),
                                 ": expected %.4f, got %.4f (%.2f/255, tolerance %d/255)", want,
                                 got, diff, tolerance);
                    } else {
                        snprintf(text, sizeof(text),
                                 ": expected %u, got %u (%.0f codes, tolerance %d)",
                                 code(want, f.bits[c]), code(got, f.bits[c]), diff, tolerance);
                    }
                    result.worstAt = where + text;
                }
            }
        }
    }
    return result;
}

}  // namespace gpu_reference
