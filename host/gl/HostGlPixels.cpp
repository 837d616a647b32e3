#include "HostGlPixels.h"

#include <GLES2/gl2ext.h>
#include <string.h>

#include <cmath>
#include <limits>

namespace host_gl {

namespace {

constexpr int32_t kRgba8888 = 1;
constexpr int32_t kRgb888 = 3;
constexpr int32_t kRgb565 = 4;
constexpr int32_t kBgra8888 = 5;
constexpr int32_t kNv16 = 16;
constexpr int32_t kNv21 = 17;
constexpr int32_t kYuyv = 20;
constexpr int32_t kNv12 = 21;
constexpr int32_t kRgbaFp16 = 22;
constexpr int32_t kRgba1010102 = 43;
constexpr int32_t kYuv420TenBit = 54;
constexpr int32_t kYuv422TenBit = 262;
constexpr int32_t kYv12 = 0x32315659;

struct FormatInfo {
    int32_t format;
    uint32_t bytesPerPixel;  // of the first plane; 0 for the 10-bit packing
    Chroma chroma;
    Storage storage;
    bool crFirst;
};

constexpr FormatInfo kFormats[] = {
    {kRgba8888, 4, Chroma::kNone, Storage::kRgba8Direct, false},
    {kBgra8888, 4, Chroma::kNone, Storage::kRgba8, false},
    {kRgb888, 3, Chroma::kNone, Storage::kRgb8, false},
    {kRgb565, 2, Chroma::kNone, Storage::kRgb565, false},
    {kRgbaFp16, 8, Chroma::kNone, Storage::kRgba16F, false},
    {kRgba1010102, 4, Chroma::kNone, Storage::kRgb10A2Direct, false},
    {kYuyv, 2, Chroma::kPairs422, Storage::kRgba8, false},
    {kNv16, 1, Chroma::kSemi422, Storage::kRgba8, false},
    {kNv12, 1, Chroma::kSemi420, Storage::kRgba8, false},
    {kNv21, 1, Chroma::kSemi420, Storage::kRgba8, true},
    {kYv12, 1, Chroma::kPlanar420, Storage::kRgba8, false},
    {kYuv420TenBit, 0, Chroma::kSemi420, Storage::kRgb10A2, false},
    {kYuv422TenBit, 0, Chroma::kSemi422, Storage::kRgb10A2, false},
};

const FormatInfo* findFormat(int32_t format) {
    for (const FormatInfo& info : kFormats) {
        if (info.format == format) return &info;
    }
    return nullptr;
}

// --- 10-bit samples, four to a 40-bit little-endian group of five bytes ---

inline uint32_t readPacked10(const uint8_t* row, uint32_t index) {
    const uint8_t* group = row + (index / 4) * 5;
    uint64_t word = 0;
    for (int i = 4; i >= 0; --i) word = (word << 8) | group[i];
    return static_cast<uint32_t>(word >> (10 * (index % 4))) & 0x3ffu;
}

inline void writePacked10(uint8_t* row, uint32_t index, uint32_t value) {
    uint8_t* group = row + (index / 4) * 5;
    uint64_t word = 0;
    for (int i = 4; i >= 0; --i) word = (word << 8) | group[i];
    const unsigned shift = 10 * (index % 4);
    word = (word & ~(uint64_t{0x3ff} << shift)) | (uint64_t{value & 0x3ffu} << shift);
    for (int i = 0; i < 5; ++i) group[i] = static_cast<uint8_t>(word >> (8 * i));
}

// Bytes a row of `samples` 10-bit samples reaches into.
inline uint64_t packed10Bytes(uint64_t samples) {
    return (samples + 3) / 4 * 5;
}

// --- YUV to RGB, ITU-R BT.601 limited range, in 16.16 fixed point of the sample depth ---

struct YuvToRgbTables {
    explicit YuvToRgbTables(uint32_t maxValue) : max(static_cast<int32_t>(maxValue)) {
        const double m = maxValue;
        for (uint32_t v = 0; v <= maxValue; ++v) {
            const double n = v / m;
            const auto fixed = [m](double x) { return static_cast<int32_t>(std::lround(x * m * 65536.0)); };
            y.push_back(fixed(1.164383 * (n - 16.0 / 255.0)));
            rCr.push_back(fixed(1.596027 * (n - 0.5)));
            gCb.push_back(fixed(-0.391762 * (n - 0.5)));
            gCr.push_back(fixed(-0.812968 * (n - 0.5)));
            bCb.push_back(fixed(2.017232 * (n - 0.5)));
        }
    }
    int32_t clampRound(int32_t fixed) const {
        if (fixed <= 0) return 0;
        const int32_t v = (fixed + 32768) >> 16;
        return v > max ? max : v;
    }
    void convert(uint32_t Y, uint32_t cb, uint32_t cr, int32_t* r, int32_t* g, int32_t* b) const {
        const int32_t luma = y[Y];
        *r = clampRound(luma + rCr[cr]);
        *g = clampRound(luma + gCb[cb] + gCr[cr]);
        *b = clampRound(luma + bCb[cb]);
    }

    int32_t max;
    std::vector<int32_t> y, rCr, gCb, gCr, bCb;
};

const YuvToRgbTables& tables8() {
    static const YuvToRgbTables tables(255);
    return tables;
}

const YuvToRgbTables& tables10() {
    static const YuvToRgbTables tables(1023);
    return tables;
}

// The samples of one pixel of a YUV frame: a reader per row keeps the plane pointers.
class YuvRowReader {
public:
    YuvRowReader(const BufferLayout& l, const uint8_t* memory, uint32_t y) : mLayout(l) {
        mLuma = memory + l.rowBytes * y;
        switch (l.chroma) {
            case Chroma::kSemi420:
                mChroma = memory + l.plane1 + l.chromaRowBytes * (y / 2);
                break;
            case Chroma::kSemi422:
                mChroma = memory + l.plane1 + l.chromaRowBytes * y;
                break;
            case Chroma::kPlanar420:
                mChroma = memory + l.plane1 + l.chromaRowBytes * (y / 2);   // Cr
                mChroma2 = memory + l.plane2 + l.chromaRowBytes * (y / 2);  // Cb
                break;
            default:
                break;
        }
    }

    void read(uint32_t x, uint32_t* Y, uint32_t* cb, uint32_t* cr) const {
        const uint32_t pair = x / 2;
        if (mLayout.tenBit) {
            *Y = readPacked10(mLuma, x);
            *cb = readPacked10(mChroma, pair * 2);
            *cr = readPacked10(mChroma, pair * 2 + 1);
            return;
        }
        switch (mLayout.chroma) {
            case Chroma::kPairs422:
                *Y = mLuma[x * 2];
                *cb = mLuma[pair * 4 + 1];
                *cr = mLuma[pair * 4 + 3];
                break;
            case Chroma::kPlanar420:
                *Y = mLuma[x];
                *cr = mChroma[pair];
                *cb = mChroma2[pair];
                break;
            default:
                *Y = mLuma[x];
                *cb = mChroma[pair * 2 + (mLayout.crFirst ? 1 : 0)];
                *cr = mChroma[pair * 2 + (mLayout.crFirst ? 0 : 1)];
                break;
        }
    }

private:
    const BufferLayout& mLayout;
    const uint8_t* mLuma = nullptr;
    const uint8_t* mChroma = nullptr;
    const uint8_t* mChroma2 = nullptr;
};

// NV12, NV21 and NV16 converted to RGB: the common case, one chroma pair per two pixels.
void presentSemiPlanar8(const BufferLayout& l, const uint8_t* memory, uint8_t* out) {
    const YuvToRgbTables& t = tables8();
    const int cbAt = l.crFirst ? 1 : 0;
    const int crAt = 1 - cbAt;
    for (uint32_t y = 0; y < l.height; ++y) {
        const uint8_t* luma = memory + l.rowBytes * y;
        const uint32_t chromaRow = l.chroma == Chroma::kSemi420 ? y / 2 : y;
        const uint8_t* chroma = memory + l.plane1 + l.chromaRowBytes * chromaRow;
        for (uint32_t x = 0; x < l.width; x += 2) {
            const uint32_t cb = chroma[x + cbAt];
            const uint32_t cr = chroma[x + crAt];
            const int32_t r = t.rCr[cr];
            const int32_t g = t.gCb[cb] + t.gCr[cr];
            const int32_t b = t.bCb[cb];
            const uint32_t pixels = x + 1 < l.width ? 2 : 1;
            for (uint32_t i = 0; i < pixels; ++i, out += 4) {
                const int32_t Y = t.y[luma[x + i]];
                out[0] = static_cast<uint8_t>(t.clampRound(Y + r));
                out[1] = static_cast<uint8_t>(t.clampRound(Y + g));
                out[2] = static_cast<uint8_t>(t.clampRound(Y + b));
                out[3] = 255;
            }
        }
    }
}

void presentYuv(const BufferLayout& l, const uint8_t* memory, bool yuvRaw, uint8_t* out) {
    if (!yuvRaw && !l.tenBit && (l.chroma == Chroma::kSemi420 || l.chroma == Chroma::kSemi422)) {
        presentSemiPlanar8(l, memory, out);
        return;
    }
    const YuvToRgbTables& t = l.tenBit ? tables10() : tables8();
    for (uint32_t y = 0; y < l.height; ++y) {
        const YuvRowReader reader(l, memory, y);
        for (uint32_t x = 0; x < l.width; ++x) {
            uint32_t Y, cb, cr;
            reader.read(x, &Y, &cb, &cr);
            int32_t r = static_cast<int32_t>(Y), g = static_cast<int32_t>(cb),
                    b = static_cast<int32_t>(cr);
            if (!yuvRaw) t.convert(Y, cb, cr, &r, &g, &b);
            if (l.tenBit) {
                const uint32_t word = static_cast<uint32_t>(r) | static_cast<uint32_t>(g) << 10 |
                                      static_cast<uint32_t>(b) << 20 | 3u << 30;
                memcpy(out, &word, 4);
            } else {
                out[0] = static_cast<uint8_t>(r);
                out[1] = static_cast<uint8_t>(g);
                out[2] = static_cast<uint8_t>(b);
                out[3] = 255;
            }
            out += 4;
        }
    }
}

// (Y, Cb, Cr) of a read-back texel of a YUV target.
struct TargetTexels {
    const uint8_t* texels;
    uint32_t width;
    bool tenBit;

    uint32_t channel(uint32_t x, uint32_t y, int c) const {
        const size_t index = static_cast<size_t>(y) * width + x;
        if (!tenBit) return texels[index * 4 + c];
        uint32_t word;
        memcpy(&word, texels + index * 4, 4);
        return (word >> (10 * c)) & 0x3ffu;
    }
};

// Mean of channel c over the pixels of the block at (x0, y0) that lie in the frame, rounded.
uint32_t blockMean(const TargetTexels& t, const BufferLayout& l, uint32_t x0, uint32_t y0,
                   uint32_t blockHeight, int c) {
    uint32_t sum = 0, count = 0;
    for (uint32_t y = y0; y < y0 + blockHeight && y < l.height; ++y) {
        for (uint32_t x = x0; x < x0 + 2 && x < l.width; ++x) {
            sum += t.channel(x, y, c);
            ++count;
        }
    }
    return (sum + count / 2) / count;
}

// NV12, NV21 and NV16 from 8-bit (Y, Cb, Cr, A) texels: whole blocks summed in place, the
// blocks cut by an odd edge through blockMean.
void writeSemiPlanar8(const BufferLayout& l, const uint8_t* texels, uint8_t* memory) {
    // Locals, so that the byte stores below need not reload them.
    const uint32_t width = l.width;
    const size_t rowTexels = static_cast<size_t>(width) * 4;
    for (uint32_t y = 0; y < l.height; ++y) {
        const uint8_t* in = texels + rowTexels * y;
        uint8_t* luma = memory + l.rowBytes * y;
        for (uint32_t x = 0; x < width; ++x) luma[x] = in[x * 4];
    }
    const TargetTexels t{texels, l.width, false};
    const uint32_t blockHeight = l.chroma == Chroma::kSemi420 ? 2 : 1;
    const int cbAt = l.crFirst ? 1 : 0;
    const int crAt = 1 - cbAt;
    const uint32_t pairs = (l.width + 1) / 2;
    for (uint32_t r = 0; r < l.chromaRows; ++r) {
        const uint32_t y0 = r * blockHeight;
        uint8_t* chroma = memory + l.plane1 + l.chromaRowBytes * r;
        const uint8_t* top = texels + rowTexels * y0;
        const uint8_t* bottom = top + (blockHeight == 2 ? rowTexels : 0);
        const bool wholeRows = y0 + blockHeight <= l.height;
        const uint32_t countShift = blockHeight;  // log2 of the 2 or 4 samples of a block
        const uint32_t half = (1u << countShift) / 2;
        for (uint32_t k = 0; k < pairs; ++k) {
            uint32_t cb, cr;
            if (wholeRows && k * 2 + 1 < width) {
                const uint8_t* a = top + k * 8;
                const uint8_t* b = bottom + k * 8;
                uint32_t sumCb = a[1] + a[5];
                uint32_t sumCr = a[2] + a[6];
                if (blockHeight == 2) {
                    sumCb += b[1] + b[5];
                    sumCr += b[2] + b[6];
                }
                cb = (sumCb + half) >> countShift;
                cr = (sumCr + half) >> countShift;
            } else {
                cb = blockMean(t, l, k * 2, y0, blockHeight, 1);
                cr = blockMean(t, l, k * 2, y0, blockHeight, 2);
            }
            chroma[k * 2 + cbAt] = static_cast<uint8_t>(cb);
            chroma[k * 2 + crAt] = static_cast<uint8_t>(cr);
        }
    }
}

void writeYuv(const BufferLayout& l, const uint8_t* texels, uint8_t* memory) {
    if (!l.tenBit && (l.chroma == Chroma::kSemi420 || l.chroma == Chroma::kSemi422)) {
        writeSemiPlanar8(l, texels, memory);
        return;
    }
    const TargetTexels t{texels, l.width, l.tenBit};
    // Luma.
    for (uint32_t y = 0; y < l.height; ++y) {
        uint8_t* row = memory + l.rowBytes * y;
        for (uint32_t x = 0; x < l.width; ++x) {
            const uint32_t Y = t.channel(x, y, 0);
            if (l.tenBit) {
                writePacked10(row, x, Y);
            } else if (l.chroma == Chroma::kPairs422) {
                row[x * 2] = static_cast<uint8_t>(Y);
            } else {
                row[x] = static_cast<uint8_t>(Y);
            }
        }
    }
    // Chroma, one sample pair per block.
    const uint32_t pairs = (l.width + 1) / 2;
    const uint32_t blockHeight =
        (l.chroma == Chroma::kSemi420 || l.chroma == Chroma::kPlanar420) ? 2 : 1;
    const uint32_t chromaRows = l.chroma == Chroma::kPairs422 ? l.height : l.chromaRows;
    for (uint32_t r = 0; r < chromaRows; ++r) {
        const uint32_t y0 = r * blockHeight;
        for (uint32_t k = 0; k < pairs; ++k) {
            const uint32_t cb = blockMean(t, l, k * 2, y0, blockHeight, 1);
            const uint32_t cr = blockMean(t, l, k * 2, y0, blockHeight, 2);
            switch (l.chroma) {
                case Chroma::kPairs422: {
                    uint8_t* row = memory + l.rowBytes * r;
                    row[k * 4 + 1] = static_cast<uint8_t>(cb);
                    row[k * 4 + 3] = static_cast<uint8_t>(cr);
                    break;
                }
                case Chroma::kPlanar420:
                    memory[l.plane1 + l.chromaRowBytes * r + k] = static_cast<uint8_t>(cr);
                    memory[l.plane2 + l.chromaRowBytes * r + k] = static_cast<uint8_t>(cb);
                    break;
                default: {
                    // The 10-bit semi-planar formats; the 8-bit ones take writeSemiPlanar8.
                    uint8_t* row = memory + l.plane1 + l.chromaRowBytes * r;
                    writePacked10(row, k * 2, cb);
                    writePacked10(row, k * 2 + 1, cr);
                    break;
                }
            }
        }
    }
}

}  // namespace

bool describeBuffer(int32_t format, uint32_t width, uint32_t height, uint32_t stride,
                    BufferLayout* out) {
    const FormatInfo* info = findFormat(format);
    if (info == nullptr || out == nullptr || width == 0 || height == 0 || stride < width) {
        return false;
    }
    // Far below any overflow below; larger frames are no buffer of this allocator.
    constexpr uint32_t kMaxSide = 1u << 16;
    if (stride > kMaxSide || height > kMaxSide) return false;

    BufferLayout l;
    l.format = format;
    l.width = width;
    l.height = height;
    l.stride = stride;
    l.storage = info->storage;
    l.chroma = info->chroma;
    l.crFirst = info->crFirst;
    l.tenBit = info->bytesPerPixel == 0;
    l.rowBytes = l.tenBit ? packed10Bytes(stride) : uint64_t{stride} * info->bytesPerPixel;
    const uint64_t luma = l.rowBytes * height;
    const uint64_t pairs = (uint64_t{width} + 1) / 2;
    uint64_t chromaRowNeeds = 0;  // bytes of a chroma row the frame's width uses
    switch (l.chroma) {
        case Chroma::kNone:
            l.size = luma;
            break;
        case Chroma::kPairs422:
            l.size = luma;
            chromaRowNeeds = pairs * 4;
            if (chromaRowNeeds > l.rowBytes) return false;
            break;
        case Chroma::kSemi420:
        case Chroma::kSemi422:
            l.chromaRowBytes = l.rowBytes;
            l.chromaRows = l.chroma == Chroma::kSemi420 ? (height + 1) / 2 : height;
            l.plane1 = luma;
            l.size = luma + l.chromaRowBytes * l.chromaRows;
            chromaRowNeeds = l.tenBit ? packed10Bytes(pairs * 2) : pairs * 2;
            break;
        case Chroma::kPlanar420:
            l.chromaRowBytes = l.rowBytes / 2;
            l.chromaRows = (height + 1) / 2;
            l.plane1 = luma;
            l.plane2 = luma + l.chromaRowBytes * l.chromaRows;
            l.size = l.plane2 + l.chromaRowBytes * l.chromaRows;
            chromaRowNeeds = pairs;
            break;
    }
    if (l.chroma != Chroma::kNone && l.chroma != Chroma::kPairs422 &&
        chromaRowNeeds > l.chromaRowBytes) {
        return false;
    }
    *out = l;
    return true;
}

const TexelFormat& texelFormat(Storage storage) {
    static const TexelFormat kRgba8 = {GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, 4, GL_UNSIGNED_BYTE, 4};
    static const TexelFormat kRgb8 = {GL_RGB8, GL_RGB, GL_UNSIGNED_BYTE, 1, GL_UNSIGNED_BYTE, 4};
    static const TexelFormat kRgb565 = {GL_RGB565, GL_RGB, GL_UNSIGNED_SHORT_5_6_5, 2,
                                        GL_UNSIGNED_BYTE, 4};
    static const TexelFormat kRgb10A2 = {GL_RGB10_A2, GL_RGBA, GL_UNSIGNED_INT_2_10_10_10_REV, 4,
                                         GL_UNSIGNED_INT_2_10_10_10_REV, 4};
    static const TexelFormat kRgba16F = {GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT, 8, GL_HALF_FLOAT, 8};
    switch (storage) {
        case Storage::kRgba8:
        case Storage::kRgba8Direct:
            return kRgba8;
        case Storage::kRgb8:
            return kRgb8;
        case Storage::kRgb565:
            return kRgb565;
        case Storage::kRgb10A2:
        case Storage::kRgb10A2Direct:
            return kRgb10A2;
        case Storage::kRgba16F:
            break;
    }
    return kRgba16F;
}

bool uploadsDirect(Storage storage) {
    return storage != Storage::kRgba8 && storage != Storage::kRgb10A2;
}

bool readsDirect(Storage storage) {
    return storage == Storage::kRgba8Direct || storage == Storage::kRgb10A2Direct ||
           storage == Storage::kRgba16F;
}

bool isYuvFormat(int32_t format) {
    const FormatInfo* info = findFormat(format);
    return info != nullptr && info->chroma != Chroma::kNone;
}

void presentSource(const BufferLayout& l, const uint8_t* memory, bool yuvRaw,
                   std::vector<uint8_t>* texels) {
    texels->resize(static_cast<size_t>(l.width) * l.height * 4);
    uint8_t* out = texels->data();
    if (l.chroma != Chroma::kNone) {
        presentYuv(l, memory, yuvRaw, out);
        return;
    }
    // The one packed RGB format GL cannot take as it is.
    for (uint32_t y = 0; y < l.height; ++y) {
        const uint8_t* row = memory + l.rowBytes * y;
        for (uint32_t x = 0; x < l.width; ++x, out += 4) {
            out[0] = row[x * 4 + 2];
            out[1] = row[x * 4 + 1];
            out[2] = row[x * 4];
            out[3] = row[x * 4 + 3];
        }
    }
}

void writeBack(const BufferLayout& l, const uint8_t* texels, uint8_t* memory) {
    if (l.chroma != Chroma::kNone) {
        writeYuv(l, texels, memory);
        return;
    }
    const size_t rowTexels = static_cast<size_t>(l.width) * texelFormat(l.storage).readBytes;
    for (uint32_t y = 0; y < l.height; ++y) {
        const uint8_t* in = texels + rowTexels * y;
        uint8_t* row = memory + l.rowBytes * y;
        for (uint32_t x = 0; x < l.width; ++x, in += 4) {
            switch (l.storage) {
                case Storage::kRgb8:
                    memcpy(row + x * 3, in, 3);
                    break;
                case Storage::kRgb565: {
                    // The target holds 5/6-bit values; rescaling their 8-bit read-back is exact.
                    const uint32_t r = (in[0] * 31u + 127) / 255;
                    const uint32_t g = (in[1] * 63u + 127) / 255;
                    const uint32_t b = (in[2] * 31u + 127) / 255;
                    const uint16_t word = static_cast<uint16_t>(r << 11 | g << 5 | b);
                    memcpy(row + x * 2, &word, 2);
                    break;
                }
                case Storage::kRgba8:  // BGRA
                    row[x * 4] = in[2];
                    row[x * 4 + 1] = in[1];
                    row[x * 4 + 2] = in[0];
                    row[x * 4 + 3] = in[3];
                    break;
                default:  // direct storages never come here
                    memcpy(row + x * 4, in, 4);
                    break;
            }
        }
    }
}

}  // namespace host_gl
