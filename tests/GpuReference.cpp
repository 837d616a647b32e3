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

constexpr int kHalfFloat = 16;  // channel width marking IEEE half floats

// The service turns degrees into radians with this single-precision constant, a hair below pi.
constexpr float kRotationPi = 3.1415925f;

double clamp01(double v) {
    return std::min(1.0, std::max(0.0, v));
}

// IEEE half floats, rounded half up. Finite halves and the floats they read as (see
// fromHalfBits) convert back to the same bits.
uint16_t toHalfBits(double value) {
    const uint16_t sign = std::signbit(value) ? 0x8000 : 0;
    const float f = std::fabs(static_cast<float>(value));
    if (f < 0x1p-14f) return sign | static_cast<uint16_t>(std::lround(f * 0x1p24f));  // subnormal
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof(bits));
    const uint32_t exponent = (bits >> 23) - 127 + 15;
    const uint32_t mantissa = bits & 0x7FFFFF;
    // A carry out of the mantissa moves into the exponent, as it should.
    return sign |
           static_cast<uint16_t>(((exponent << 10) | (mantissa >> 13)) + ((mantissa >> 12) & 1));
}

// Infinities and NaNs read as large finite values, which no comparison lets through.
double fromHalfBits(uint32_t half) {
    const int exponent = (half >> 10) & 0x1F;
    const int mantissa = half & 0x3FF;
    const double magnitude =
        exponent == 0 ? std::ldexp(mantissa, -24) : std::ldexp(1024 + mantissa, exponent - 25);
    return (half & 0x8000) ? -magnitude : magnitude;
}

double maxCode(int bits) {
    return static_cast<double>((uint64_t{1} << bits) - 1);
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

// What a channel keeps in memory: a code, or half-float bits.
uint32_t storedValue(const FormatDesc& f, int c, double v) {
    return f.bits[c] == kHalfFloat ? toHalfBits(v) : code(v, f.bits[c]);
}

double fromStored(const FormatDesc& f, int c, uint32_t stored) {
    return f.bits[c] == kHalfFloat ? fromHalfBits(stored) : stored / maxCode(f.bits[c]);
}

bool isTenBit(const FormatDesc& f) {
    return !f.rgb && f.bits[0] == 10;
}

int pixelBytes(const FormatDesc& f) {
    return (f.bits[0] + f.bits[1] + f.bits[2] + f.bits[3]) / 8;
}

uint64_t getLittleEndian(const uint8_t* p, int bytes) {
    uint64_t value = 0;
    for (int b = bytes - 1; b >= 0; --b) value = (value << 8) | p[b];
    return value;
}

void putLittleEndian(uint8_t* p, uint64_t value, int bytes) {
    for (int b = 0; b < bytes; ++b) p[b] = static_cast<uint8_t>(value >> (8 * b));
}

// Where a stored value lies: `bits` bits from bit `shift` of the little-endian word of `bytes`
// bytes at `offset`.
struct Field {
    size_t offset;
    int bytes;
    int shift;
    int bits;
};

// Channel c of sample (x, y): an RGB pixel's channel, or a YUV sample of 8 bits or of 10 bits
// packed four to a 40-bit group of five bytes.
Field fieldOf(const FormatDesc& f, const Layout& l, int c, int x, int y) {
    if (f.rgb) return {y * l.rowBytes + x * pixelBytes(f), pixelBytes(f), f.shift[c], f.bits[c]};
    size_t row = y * l.rowBytes;
    int k = f.hal == kYuyv ? 2 * x : x;  // index of the sample in its row
    if (c != 0 && f.hal == kYuyv) {
        k = 4 * x + 2 * c - 1;  // Y0 Cb Y1 Cr
    } else if (c != 0 && f.hal == kYv12) {
        row = (c == 1 ? l.secondChromaOffset : l.chromaOffset) + y * l.chromaRowBytes;
    } else if (c != 0) {
        const int crIndex = f.hal == kNv21 ? 0 : 1;  // within its CbCr or CrCb pair
        row = l.chromaOffset + y * l.chromaRowBytes;
        k = 2 * x + (c == 2 ? crIndex : 1 - crIndex);
    }
    if (isTenBit(f)) return {row + k / 4 * 5, 5, 10 * (k % 4), 10};
    return {row + k, 1, 0, 8};
}

uint32_t readField(const uint8_t* memory, const Field& d) {
    const uint64_t word = getLittleEndian(memory + d.offset, d.bytes);
    return static_cast<uint32_t>((word >> d.shift) & ((uint64_t{1} << d.bits) - 1));
}

void writeField(uint8_t* memory, const Field& d, uint32_t value) {
    const uint64_t mask = ((uint64_t{1} << d.bits) - 1) << d.shift;
    const uint64_t kept = getLittleEndian(memory + d.offset, d.bytes) & ~mask;
    putLittleEndian(memory + d.offset, kept | (uint64_t{value} << d.shift), d.bytes);
}

Image makeImage(uint32_t format, int width, int height) {
    const FormatDesc& f = describe(format);
    Image image;
    image.format = format;
    image.width = width;
    image.height = height;
    image.chromaWidth = (width + f.chromaDivX - 1) / f.chromaDivX;
    image.chromaHeight = (height + f.chromaDivY - 1) / f.chromaDivY;
    for (int c = 0; c < (f.rgb ? 4 : 3); ++c) {
        image.channel[c].assign(static_cast<size_t>(image.channelWidth(c)) * image.channelHeight(c),
                                1.0);
    }
    return image;
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

// Texel (x, y) of the source as the shader's sampler presents it: RGBA or, from a YUV source
// to a YUV destination, YCbCr. No chroma interpolation: every pixel takes the sample of its
// block.
Rgba texel(const Image& src, bool keepYuv, int x, int y) {
    const FormatDesc& f = describe(src.format);
    if (f.rgb) return {src.at(0, x, y), src.at(1, x, y), src.at(2, x, y), src.at(3, x, y)};
    const double luma = src.at(0, x, y);
    const double cb = src.at(1, x / f.chromaDivX, y / f.chromaDivY);
    const double cr = src.at(2, x / f.chromaDivX, y / f.chromaDivY);
    if (keepYuv) return {luma, cb, cr, 1.0};
    Rgba t = yuvToRgb(luma, cb, cr);
    for (int c = 0; c < 3; ++c) t[c] = quantize(t[c], f.bits[0]);
    return t;
}

// GL_LINEAR with clamp to edge at texture coordinate (s, t).
Rgba sampleBilinear(const Image& src, bool keepYuv, double s, double t) {
    const double u = s * src.width - 0.5;
    const double v = t * src.height - 0.5;
    const double fu = u - std::floor(u);
    const double fv = v - std::floor(v);
    auto clampIndex = [](double i, int n) {
        return static_cast<int>(std::min<double>(n - 1, std::max(0.0, i)));
    };
    const int x0 = clampIndex(std::floor(u), src.width);
    const int x1 = clampIndex(std::floor(u) + 1, src.width);
    const int y0 = clampIndex(std::floor(v), src.height);
    const int y1 = clampIndex(std::floor(v) + 1, src.height);
    const Rgba a = texel(src, keepYuv, x0, y0);
    const Rgba b = texel(src, keepYuv, x1, y0);
    const Rgba c = texel(src, keepYuv, x0, y1);
    const Rgba d = texel(src, keepYuv, x1, y1);
    Rgba out;
    for (int k = 0; k < 4; ++k) {
        out[k] = (a[k] * (1 - fu) + b[k] * fu) * (1 - fv) + (c[k] * (1 - fu) + d[k] * fu) * fv;
    }
    return out;
}

// The thirteen formats, in the order of the service's width alignment table.
const std::vector<FormatDesc>& allFormats() {
    static const std::vector<FormatDesc> formats = {
        {kYuyv, 0x1, "YUYV", false, 2, 1, {8, 8, 8, 0}, {}},
        {kYuv422_10, 0x2, "YUV422_10B", false, 2, 1, {10, 10, 10, 0}, {}},
        {kRgba8888, 0x4, "RGBA_8888", true, 1, 1, {8, 8, 8, 8}, {0, 8, 16, 24}},
        {kBgra8888, 0x8, "BGRA_8888", true, 1, 1, {8, 8, 8, 8}, {16, 8, 0, 24}},
        {kRgbaFp16, 0x100000, "RGBA_FP16", true, 1, 1, {16, 16, 16, 16}, {0, 16, 32, 48}},
        {kRgba1010102, 0x400000, "RGBA_1010102", true, 1, 1, {10, 10, 10, 2}, {0, 10, 20, 30}},
        {kRgb565, 0x80, "RGB_565", true, 1, 1, {5, 6, 5, 0}, {11, 5, 0, 0}},
        {kRgb888, 0x100, "RGB_888", true, 1, 1, {8, 8, 8, 0}, {0, 8, 16, 0}},
        {kNv16, 0x200, "NV16", false, 2, 1, {8, 8, 8, 0}, {}},
        {kNv12, 0x800, "NV12", false, 2, 2, {8, 8, 8, 0}, {}},
        {kNv21, 0x1000, "NV21", false, 2, 2, {8, 8, 8, 0}, {}},
        {kYuv420_10, 0x2000, "YC420_10B", false, 2, 2, {10, 10, 10, 0}, {}},
        {kYv12, 0x200000, "YV12", false, 2, 2, {8, 8, 8, 0}, {}},
    };
    return formats;
}

}  // namespace

const FormatDesc& describe(uint32_t hal) {
    for (const FormatDesc& f : allFormats()) {
        if (f.hal == hal) return f;
    }
    throw std::invalid_argument("not a format of the GPU path: " + std::to_string(hal));
}

Layout layoutOf(uint32_t format, int height, int stride) {
    const FormatDesc& f = describe(format);
    const size_t s = static_cast<size_t>(stride);
    Layout l;
    if (f.rgb) {
        l.rowBytes = s * pixelBytes(f);
    } else {
        l.rowBytes = format == kYuyv ? 2 * s : isTenBit(f) ? s * 5 / 4 : s;
    }
    l.size = l.rowBytes * height;
    if (f.rgb || format == kYuyv) return l;
    const size_t chromaRows = (height + f.chromaDivY - 1) / f.chromaDivY;
    l.chromaOffset = l.size;
    l.chromaRowBytes = format == kYv12 ? l.rowBytes / 2 : l.rowBytes;
    l.size += l.chromaRowBytes * chromaRows;
    if (format == kYv12) {
        l.secondChromaOffset = l.size;
        l.size += l.chromaRowBytes * chromaRows;
    }
    return l;
}

Image makePattern(uint32_t format, int width, int height) {
    const FormatDesc& f = describe(format);
    Image image = makeImage(format, width, height);
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
                store(0, x, y, 0.10 + 0.65 * fx + 0.15 * fy * fy);
                store(1, x, y, 0.15 + 0.60 * fy + 0.10 * fx);
                store(2, x, y, 0.85 - 0.45 * fx - 0.30 * fy);
                store(3, x, y, 0.30 + 0.45 * fx + 0.20 * fy * (1 - fx));
            } else {
                // Kept where the BT.601 conversion to RGB stays inside [0, 1].
                store(0, x, y, (70 + 100 * fx + 30 * fy - 40 * fx * fy) / 255);
            }
        }
    }
    if (f.rgb) return image;
    for (int cy = 0; cy < image.chromaHeight; ++cy) {
        for (int cx = 0; cx < image.chromaWidth; ++cx) {
            const double fx = fraction(cx * f.chromaDivX + (f.chromaDivX - 1) / 2.0, width);
            const double fy = fraction(cy * f.chromaDivY + (f.chromaDivY - 1) / 2.0, height);
            // Cb stays above 130, Cr below 125: a swap shows everywhere.
            store(1, cx, cy, (140 + 25 * fy - 10 * fx) / 255);
            store(2, cx, cy, (110 - 25 * fx + 15 * fy) / 255);
        }
    }
    return image;
}

void pack(const Image& image, int stride, uint8_t* memory) {
    const FormatDesc& f = describe(image.format);
    const Layout l = layoutOf(image.format, image.height, stride);
    for (int c = 0; c < 4; ++c) {
        if (f.bits[c] == 0) continue;
        for (int y = 0; y < image.channelHeight(c); ++y) {
            for (int x = 0; x < image.channelWidth(c); ++x) {
                writeField(memory, fieldOf(f, l, c, x, y), storedValue(f, c, image.at(c, x, y)));
            }
        }
    }
}

Image unpack(uint32_t format, int width, int height, int stride, const uint8_t* memory) {
    const FormatDesc& f = describe(format);
    const Layout l = layoutOf(format, height, stride);
    Image image = makeImage(format, width, height);  // 1 in the channels the format lacks
    for (int c = 0; c < 4; ++c) {
        if (f.bits[c] == 0) continue;
        for (int y = 0; y < image.channelHeight(c); ++y) {
            for (int x = 0; x < image.channelWidth(c); ++x) {
                image.at(c, x, y) = fromStored(f, c, readField(memory, fieldOf(f, l, c, x, y)));
            }
        }
    }
    return image;
}

Comparison compare(const Image& src, const Request& r, const Image& actual) {
    const FormatDesc& df = describe(r.dstFormat);
    const bool toYuv = describe(src.format).rgb && !df.rgb;
    // What the render target keeps per channel.
    const int targetBits = r.dstFormat == kRgbaFp16                        ? kHalfFloat
                           : (r.dstFormat == kRgba1010102 || isTenBit(df)) ? 10
                                                                           : 8;

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

    // Per destination pixel: what the render target holds, whether the turned quad covers it,
    // and whether that is too close to an edge of the quad to call.
    std::vector<Rgba> stored(static_cast<size_t>(w) * h);
    std::vector<uint8_t> covered(stored.size());
    std::vector<uint8_t> uncertain(stored.size());
    for (int j = 0; j < h; ++j) {
        for (int i = 0; i < w; ++i) {
            const size_t p = static_cast<size_t>(j) * w + i;
            double mx;
            double my;
            covered[p] = modelAt(i + 0.5, j + 0.5, &mx, &my);
            // Between right angles, a pixel whose neighbourhood straddles an edge of the turned
            // quad may be rasterised either way.
            for (int dy = -1; !rightAngle && dy <= 1; ++dy) {
                for (int dx = -1; dx <= 1; ++dx) {
                    double ex;
                    double ey;
                    if (modelAt(i + 0.5 + dx, j + 0.5 + dy, &ex, &ey) != covered[p]) {
                        uncertain[p] = 1;
                    }
                }
            }
            Rgba value = {0.0, 0.0, 0.0, 1.0};  // the clear colour, as written
            if (covered[p]) {
                const double s = (r.cropX + (mx + 1) / 2 * r.cropWidth) / r.srcWidth;
                const double t = (r.cropY + (my + 1) / 2 * r.cropHeight) / r.srcHeight;
                value = sampleBilinear(src, !df.rgb, s, t);
                if (toYuv) value = rgbToYuv(value);
            }
            for (int c = 0; c < 4; ++c) value[c] = quantize(value[c], targetBits);
            stored[p] = value;
        }
    }

    // Written back in the destination's own precision, chroma as the mean of its block, and
    // compared sample by sample.
    const bool whole = r.srcWidth == w && r.srcHeight == h && r.cropWidth == w &&
                       r.cropHeight == h && r.rotation == 0;
    const int border = whole ? 0 : 2;
    Comparison result;
    double worstRatio = -1;
    for (int c = 0; c < 4; ++c) {
        if (df.bits[c] == 0) continue;
        const bool full = df.rgb || c == 0;
        const int divX = full ? 1 : df.chromaDivX;
        const int divY = full ? 1 : df.chromaDivY;
        // Differences in codes of the channel; half floats in 1/255.
        const double scale = df.bits[c] == kHalfFloat ? 255.0 : maxCode(df.bits[c]);
        const int tolerance = df.bits[c] == kHalfFloat ? 2
                              : df.bits[c] < 8         ? 1
                                               : static_cast<int>(std::lround(2 * scale / 255));
        for (int y = 0; y < actual.channelHeight(c); ++y) {
            for (int x = 0; x < actual.channelWidth(c); ++x) {
                double sum = 0;
                int n = 0;
                bool skip = false;
                bool uncovered = false;
                for (int j = y * divY; j < std::min(h, (y + 1) * divY); ++j) {
                    for (int i = x * divX; i < std::min(w, (x + 1) * divX); ++i, ++n) {
                        const size_t p = static_cast<size_t>(j) * w + i;
                        sum += stored[p][c];
                        skip = skip || i < border || j < border || i >= w - border ||
                               j >= h - border || uncertain[p];
                        uncovered = uncovered || !covered[p];
                    }
                }
                if (skip) continue;
                ++result.compared;
                if (uncovered && c == 0) ++result.uncoveredCompared;
                const double want = quantize(sum / n, df.bits[c]) * scale;
                const double got = actual.at(c, x, y) * scale;
                const double diff = std::fabs(want - got);
                if (diff > tolerance + 1e-6) ++result.failing;
                if (diff / tolerance > worstRatio) {
                    worstRatio = diff / tolerance;
                    char text[160];
                    snprintf(text, sizeof(text),
                             "channel %d of %s (%d, %d): expected %.2f, got %.2f (tolerance %d)", c,
                             full ? "pixel" : "chroma sample", x, y, want, got, tolerance);
                    result.worst = text;
                }
            }
        }
    }
    return result;
}

}  // namespace gpu_reference
