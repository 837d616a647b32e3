// The GPU path: conversions run through captureOnce on Mesa, their destination compared with a
// CPU model of the buffer layouts, sampling and colour rules that shares no code with the host
// graphics layer; frame dump files; the drawing environment's entry points.
#include <android-base/properties.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <ui/GrallocPrivate.h>
#include <ui/GraphicBuffer.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>

#include "CaptureLog.h"
#include "PlatformConfig.h"
#include "TestUtil.h"
#include "gpu_draw.h"
#include "gpu_dump.h"
#include "hostgl/HostGl.h"
// clang-format off
#include <GLES2/gl2ext.h>  // after the GLES headers it extends
// clang-format on

namespace {

using namespace capture_test;
using ::android::GraphicBuffer;
using ::android::sp;
using Names = std::set<std::string>;
using Rgba = std::array<double, 4>;  // R, G, B, A or Y, Cb, Cr, 1

// A buffer with a capture client's usage (CPU, GPU texture and target, composer); null if refused.
sp<GraphicBuffer> allocate(uint32_t format, int width, int height) {
    sp<GraphicBuffer> buffer =
        new GraphicBuffer(width, height, static_cast<int32_t>(format), 0x02001B33, "gpu-test");
    return buffer->initCheck() == ::android::NO_ERROR ? buffer : nullptr;
}

bool withMemory(const sp<GraphicBuffer>& buffer, const std::function<void(uint8_t*, size_t)>& use) {
    struct stat st;
    void* memory = nullptr;
    if (buffer == nullptr || fstat(buffer->handle->data[0], &st) != 0 ||
        buffer->lock(0x33, &memory) != ::android::NO_ERROR) {
        return false;
    }
    use(static_cast<uint8_t*>(memory), static_cast<size_t>(st.st_size));
    buffer->unlock();
    return true;
}

std::vector<uint8_t> contents(const sp<GraphicBuffer>& buffer) {
    std::vector<uint8_t> bytes;
    withMemory(buffer, [&](uint8_t* memory, size_t size) { bytes.assign(memory, memory + size); });
    return bytes;
}

// Bytes that tell a copy from a near miss: each a function of its offset and `seed`.
std::vector<uint8_t> pattern(size_t size, uint8_t seed) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 131 + (i >> 8) + seed);
    return bytes;
}

sp<GraphicBuffer> makeFilledBuffer(uint32_t width, uint32_t height, int32_t format, uint8_t seed) {
    sp<GraphicBuffer> buffer = allocate(format, width, height);
    const bool filled = withMemory(buffer, [seed](uint8_t* memory, size_t size) {
        memcpy(memory, pattern(size, seed).data(), size);
    });
    return filled ? buffer : nullptr;
}

constexpr uint32_t kNv21 = 17, kYuyv = 20, kYv12 = 0x32315659;

// The HAL format, the interface's CaptureFormat bit, the name; bits of R, G, B, A or Y, Cb, Cr
// (16: half floats); RGB: where each channel starts in the little-endian pixel word; YUV:
// pixels per chroma sample across and down (0 for RGB).
struct Format {
    uint32_t hal, captureFormat;
    const char* name;
    int bits[4], shift[4], divX, divY;
    bool rgb() const { return divX == 0; }
    int pixelBytes() const { return (bits[0] + bits[1] + bits[2] + bits[3]) / 8; }
};

const Format kFormats[] = {
    {20, 0x1, "YUYV", {8, 8, 8}, {}, 2, 1},
    {262, 0x2, "YUV422_10B", {10, 10, 10}, {}, 2, 1},
    {1, 0x4, "RGBA_8888", {8, 8, 8, 8}, {0, 8, 16, 24}, 0, 0},
    {5, 0x8, "BGRA_8888", {8, 8, 8, 8}, {16, 8, 0, 24}, 0, 0},
    {22, 0x100000, "RGBA_FP16", {16, 16, 16, 16}, {0, 16, 32, 48}, 0, 0},
    {43, 0x400000, "RGBA_1010102", {10, 10, 10, 2}, {0, 10, 20, 30}, 0, 0},
    {4, 0x80, "RGB_565", {5, 6, 5, 0}, {11, 5, 0, 0}, 0, 0},
    {3, 0x100, "RGB_888", {8, 8, 8, 0}, {0, 8, 16, 0}, 0, 0},
    {16, 0x200, "NV16", {8, 8, 8}, {}, 2, 1},
    {21, 0x800, "NV12", {8, 8, 8}, {}, 2, 2},
    {17, 0x1000, "NV21", {8, 8, 8}, {}, 2, 2},
    {54, 0x2000, "YC420_10B", {10, 10, 10}, {}, 2, 2},
    {0x32315659, 0x200000, "YV12", {8, 8, 8}, {}, 2, 2},
};

const Format& describe(const std::string& name) {
    return *std::find_if(std::begin(kFormats), std::end(kFormats),
                         [&](auto& f) { return name == f.name; });
}

// A channel's code for a value in [0, 1], and back: half floats as their bits (written out, as
// not every compiler here has _Float16).
uint32_t toCode(int bits, double v) {
    v = std::clamp(v, 0.0, 1.0);
    if (bits < 16) return static_cast<uint32_t>(std::lround(v * ((1 << bits) - 1)));
    if (v < std::ldexp(1.0, -14)) return static_cast<uint32_t>(std::lround(std::ldexp(v, 24)));
    int e = 0;
    const double m = std::frexp(v, &e);  // v = m * 2^e, m in [0.5, 1)
    const uint32_t fraction = static_cast<uint32_t>(std::lround((2 * m - 1) * 1024));
    return (static_cast<uint32_t>(e + 14) << 10) + fraction;  // a carry moves to the exponent
}
double fromCode(int bits, uint64_t code) {
    if (bits < 16) return code / static_cast<double>((1 << bits) - 1);
    const int exponent = static_cast<int>((code >> 10) & 31);
    const double fraction = static_cast<double>(code & 1023);
    return exponent == 0 ? std::ldexp(fraction, -24)
                         : std::ldexp(1 + fraction / 1024, exponent - 15);
}
double quantize(int bits, double v) {
    return fromCode(bits, toCode(bits, v));
}

// A frame as the values its format stores, in [0, 1]; 1 in channels the format lacks. YUV
// formats keep Cb and Cr per chroma sample.
struct Image {
    const Format* f;
    int width, height;
    mutable std::vector<double> v[4];
    int w(int c) const { return c == 0 || f->rgb() ? width : (width + f->divX - 1) / f->divX; }
    int h(int c) const { return c == 0 || f->rgb() ? height : (height + f->divY - 1) / f->divY; }
    double& at(int c, int x, int y) const { return v[c][static_cast<size_t>(y) * w(c) + x]; }
};

Image blank(const Format& f, int width, int height) {
    Image image{&f, width, height, {}};
    for (int c = 0; c < 4; ++c) image.v[c].assign(size_t{1} * image.w(c) * image.h(c), 1);
    return image;
}

// Where the planes lie for a row stride in pixels: luma or packed rows, then the chroma rows
// (interleaved pairs, or YV12's Cr plane and then its Cb plane).
struct Layout {
    size_t rowBytes, chroma = 0, chromaRowBytes, chroma2 = 0, size;
};
Layout layoutOf(const Format& f, int height, int stride) {
    Layout l;
    const size_t s = stride;
    l.rowBytes = f.rgb()           ? s * f.pixelBytes()
                 : f.hal == kYuyv  ? 2 * s
                 : f.bits[0] == 10 ? s * 5 / 4
                                   : s;
    l.size = l.rowBytes * height;
    l.chromaRowBytes = l.rowBytes;  // YUYV's chroma lies in its packed rows
    if (f.rgb() || f.hal == kYuyv) return l;
    const size_t rows = (height + f.divY - 1) / f.divY;
    l.chroma = l.size;
    if (f.hal == kYv12) l.chromaRowBytes /= 2;
    l.chroma2 = l.chroma + l.chromaRowBytes * rows;
    l.size = f.hal == kYv12 ? l.chroma2 + l.chromaRowBytes * rows : l.chroma2;
    return l;
}

// Writes the image's samples into `memory` (or reads them from it), leaving every other bit
// alone: row padding, the unused half of an odd YUYV pair. 10-bit YUV samples go four to a
// little-endian group of five bytes.
void transfer(Image& image, int stride, uint8_t* memory, bool write) {
    const Format& f = *image.f;
    const Layout l = layoutOf(f, image.height, stride);
    const bool tenBit = !f.rgb() && f.bits[0] == 10;
    for (int c = 0; c < 4; ++c) {
        const bool luma = c == 0 || f.rgb();
        for (int y = 0; f.bits[c] != 0 && y < image.h(c); ++y) {
            for (int x = 0; x < image.w(c); ++x) {
                // The sample's index in its row: Y0 Cb Y1 Cr for YUYV, CbCr or CrCb pairs.
                const int k = f.hal == kYuyv           ? (luma ? 2 * x : 4 * x + 2 * c - 1)
                              : luma || f.hal == kYv12 ? x
                                                       : 2 * x + ((c == 2) != (f.hal == kNv21));
                const size_t row =
                    luma ? y * l.rowBytes
                         : (f.hal == kYv12 && c == 1 ? l.chroma2 : l.chroma) + y * l.chromaRowBytes;
                // The sample: `bits` bits from bit `shift` of the word of `bytes` bytes at `p`.
                const int bytes = f.rgb() ? f.pixelBytes() : tenBit ? 5 : 1;
                const int shift = f.rgb() ? f.shift[c] : tenBit ? 10 * (k % 4) : 0;
                uint8_t* p = memory + row + (f.rgb() ? x * bytes : tenBit ? k / 4 * 5 : k);
                uint64_t word = 0;
                for (int b = bytes - 1; b >= 0; --b) word = word << 8 | p[b];
                const uint64_t mask = ((uint64_t{1} << f.bits[c]) - 1) << shift;
                if (!write) {
                    image.at(c, x, y) = fromCode(f.bits[c], (word & mask) >> shift);
                    continue;
                }
                word = (word & ~mask) | uint64_t{toCode(f.bits[c], image.at(c, x, y))} << shift;
                for (int b = 0; b < bytes; ++b) p[b] = static_cast<uint8_t>(word >> 8 * b);
            }
        }
    }
}

// A value in [lo, hi] hashed from a block of `block` pixels: no flip, turn or shift of the frame
// maps the pattern onto itself.
double hashed(int c, int x, int y, int block, double lo, double hi) {
    uint32_t h = (x / block + 1) * 73856093u ^ (y / block + 1) * 19349663u ^ (c + 1) * 83492791u;
    h = (h ^ (h >> 15)) * 0x2c1b3c6du;
    h = (h ^ (h >> 12)) * 0x297a2d39u;
    return lo + (hi - lo) * ((h ^ (h >> 15)) % 1024) / 1023.0;
}

// Colours constant over blocks of `block` pixels (1: every pixel its own). YUV: Cb above 134,
// Cr below 123, so that swapped chroma shows everywhere, and all of it kept where the BT.601
// conversion to RGB stays in range.
Image makePattern(const Format& f, int width, int height, int block) {
    Image image = blank(f, width, height);
    const double range[4][2] = {{90, 170}, {135, 160}, {95, 122}, {0, 0}};
    for (int c = 0; c < 4; ++c) {
        for (int y = 0; f.bits[c] != 0 && y < image.h(c); ++y) {
            for (int x = 0; x < image.w(c); ++x) {
                const int px = c == 0 || f.rgb() ? x : x * f.divX,
                          py = c == 0 || f.rgb() ? y : y * f.divY;
                const double v = !f.rgb() ? hashed(c, px, py, block, range[c][0], range[c][1]) / 255
                                 : c == 3 ? std::round(hashed(c, px, py, block, 1, 3)) / 3
                                          : hashed(c, px, py, block, 0.1, 0.9);
                image.at(c, x, y) = quantize(f.bits[c], v);
            }
        }
    }
    return image;
}

Rgba yuvToRgb(const Rgba& p) {
    const double luma = 1.164383 * (p[0] - 16.0 / 255);
    return {luma + 1.596027 * (p[2] - 0.5), luma - 0.391762 * (p[1] - 0.5) - 0.812968 * (p[2] - 0.5),
            luma + 2.017232 * (p[1] - 0.5), 1.0};
}

Rgba rgbToYuv(const Rgba& p) {
    return {16.0 / 255 + 0.256788 * p[0] + 0.504129 * p[1] + 0.097906 * p[2],
            128.0 / 255 - 0.148223 * p[0] - 0.290993 * p[1] + 0.439216 * p[2],
            128.0 / 255 + 0.439216 * p[0] - 0.367788 * p[1] - 0.071427 * p[2], 1.0};
}

// Texel (x, y) of the source in the destination's colour space: YUV goes to RGB at the source's
// depth, as the host layer uploads it; YUV to YUV keeps the samples.
Rgba texel(const Image& src, const Format& dst, int x, int y) {
    const Format& f = *src.f;
    if (f.rgb()) {
        const Rgba t = {src.at(0, x, y), src.at(1, x, y), src.at(2, x, y), src.at(3, x, y)};
        return dst.rgb() ? t : rgbToYuv(t);
    }
    const Rgba t = {src.at(0, x, y), src.at(1, x / f.divX, y / f.divY),
                    src.at(2, x / f.divX, y / f.divY), 1};
    if (!dst.rgb()) return t;
    Rgba rgb = yuvToRgb(t);
    for (int c = 0; c < 3; ++c) rgb[c] = quantize(f.bits[0], rgb[c]);
    return rgb;
}

struct Request {
    const char *srcFormat, *dstFormat;
    int srcWidth, srcHeight, dstWidth, dstHeight, cropX, cropY, cropWidth, cropHeight;
    uint32_t rotation = 0;  // degrees
    int block = 1;          // of the source pattern
};

// The rows and flag that the capability query and setCaptureFrameInfo leave for a GPU
// conversion on `slot` (their own tests check those).
void keepRows(int slot, const Request& c, const sp<GraphicBuffer>& src,
              const sp<GraphicBuffer>& dst) {
    std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
    CaptureSrcFrameInfo& s = mSrcFrameInfo[slot] = CaptureSrcFrameInfo{};
    std::tie(s.width, s.height, s.buffer) = std::tuple(c.srcWidth, c.srcHeight, src->handle);
    s.format = static_cast<CaptureFormat>(describe(c.srcFormat).captureFormat);
    CaptureDstFrameInfo& d = mDstFrameInfo[slot] = CaptureDstFrameInfo{};
    std::tie(d.cropX, d.cropY, d.cropWidth, d.cropHeight, d.width, d.height, d.rotateAngle) =
        std::tuple(c.cropX, c.cropY, c.cropWidth, c.cropHeight, c.dstWidth, c.dstHeight, c.rotation);
    d.format = static_cast<CaptureFormat>(describe(c.dstFormat).captureFormat);
    d.buffer = hidl_handle(dst->handle);
    mUseGpu[slot] = 1;
}

// What the render target holds at pixel (i, j): the clear colour outside the turned quad, else
// the texel GL_LINEAR reads at the pixel's point of the crop. False where that cannot be called:
// a pixel next to an edge of a quad turned between right angles, or a point between texels of
// different values.
bool expected(const Request& r, const Image& src, const Format& df, int i, int j, Rgba* out) {
    // The service turns degrees into radians with this single-precision constant.
    const float angle = static_cast<float>(r.rotation) * 3.1415925f / 180.0f;
    const double cosA = std::cos(static_cast<double>(angle)),
                 sinA = std::sin(static_cast<double>(angle));
    double mx, my;
    auto modelAt = [&](double px, double py) {  // the inverse of the turn
        const double qx = px / r.dstWidth * 2 - 1, qy = py / r.dstHeight * 2 - 1;
        mx = qx * cosA + qy * sinA;
        my = -qx * sinA + qy * cosA;
        return std::fabs(mx) <= 1 && std::fabs(my) <= 1;
    };
    for (int d = 0; r.rotation % 90 != 0 && d < 9; ++d) {
        if (modelAt(i + d % 3 - 0.5, j + d / 3 - 0.5) != modelAt(i + 0.5, j + 0.5)) return false;
    }
    *out = {0, 0, 0, 1};
    if (!modelAt(i + 0.5, j + 0.5)) return true;
    // The one or two texels GL_LINEAR weighs along each axis, clamped to the frame.
    auto taps = [](double p, int n) {
        const double a = p - 0.5, fraction = a - std::floor(a);
        const int first = static_cast<int>(std::floor(a));
        std::vector<int> t;
        if (fraction < 0.999) t.push_back(std::clamp(first, 0, n - 1));
        if (fraction > 0.001) t.push_back(std::clamp(first + 1, 0, n - 1));
        return t;
    };
    const std::vector<int> xs = taps(r.cropX + (mx + 1) / 2 * r.cropWidth, src.width);
    const std::vector<int> ys = taps(r.cropY + (my + 1) / 2 * r.cropHeight, src.height);
    *out = texel(src, df, xs[0], ys[0]);
    for (int y : ys) {
        for (int x : xs) {
            if (texel(src, df, x, y) != *out) return false;
        }
    }
    return true;
}

// A conversion through captureOnce. Every sample of the destination the model can
// call is compared, chroma as the mean of its block, within 2/255 of the range or one code of a
// narrower channel; the bytes around the samples must keep what was there.
void checkConversion(Capture& service, int32_t id, const Request& c) {
    SCOPED_TRACE(::testing::Message()
                 << c.srcFormat << " " << c.srcWidth << "x" << c.srcHeight << " -> " << c.dstFormat
                 << " " << c.dstWidth << "x" << c.dstHeight << ", crop " << c.cropX << "," << c.cropY
                 << " " << c.cropWidth << "x" << c.cropHeight << ", " << c.rotation << " deg");
    const Format &sf = describe(c.srcFormat), &df = describe(c.dstFormat);
    // The source with padding bytes unlike any sample; the destination primed with bytes the
    // conversion must overwrite or, outside the frame, leave alone.
    Image source = makePattern(sf, c.srcWidth, c.srcHeight, c.block);
    sp<GraphicBuffer> src = allocate(sf.hal, c.srcWidth, c.srcHeight);
    sp<GraphicBuffer> dst = makeFilledBuffer(c.dstWidth, c.dstHeight, df.hal, 7);
    ASSERT_TRUE(src != nullptr && dst != nullptr);
    const int srcStride = gralloc_private_stride(src->handle);
    const int dstStride = gralloc_private_stride(dst->handle);
    ASSERT_TRUE(withMemory(src, [&](uint8_t* memory, size_t size) {
        ASSERT_GE(size, layoutOf(sf, c.srcHeight, srcStride).size);
        memset(memory, 0xE7, size);
        transfer(source, srcStride, memory, true);
    }));
    const std::vector<uint8_t> before = contents(dst);
    ASSERT_GE(before.size(), layoutOf(df, c.dstHeight, dstStride).size);
    keepRows(slotOf(id), c, src, dst);
    ASSERT_EQ(CaptureReturn::SUCCESS, service.captureOnce(id));

    std::vector<uint8_t> after = contents(dst);
    ASSERT_EQ(before.size(), after.size());
    Image actual = blank(df, c.dstWidth, c.dstHeight);
    transfer(actual, dstStride, after.data(), false);
    // The samples read, written over the primed bytes, give back every byte the conversion
    // left: any other difference is a byte outside the frame (row padding) that it wrote.
    std::vector<uint8_t> repacked = before;
    transfer(actual, dstStride, repacked.data(), true);
    ASSERT_EQ(repacked.end(), std::mismatch(repacked.begin(), repacked.end(), after.begin()).first);

    const int targetBits = df.bits[0] == 16 ? 16 : df.bits[0] == 10 ? 10 : 8;
    size_t compared = 0;
    for (int ch = 0; ch < 4; ++ch) {
        const int divX = ch == 0 || df.rgb() ? 1 : df.divX, divY = ch == 0 || df.rgb() ? 1 : df.divY;
        const double tolerance =
            std::max(2 / 255.0, df.bits[ch] < 8 ? 1.0 / ((1 << df.bits[ch]) - 1) : 0) + 1e-9;
        for (int y = 0; df.bits[ch] != 0 && y < actual.h(ch); ++y) {
            for (int x = 0; x < actual.w(ch); ++x) {
                double sum = 0;
                int n = 0;
                bool callable = true;
                for (int j = y * divY; j < std::min(c.dstHeight, (y + 1) * divY); ++j) {
                    for (int i = x * divX; i < std::min(c.dstWidth, (x + 1) * divX); ++i, ++n) {
                        Rgba p;
                        callable = callable && expected(c, source, df, i, j, &p);
                        sum += quantize(targetBits, p[ch]);
                    }
                }
                if (!callable) continue;
                ++compared;
                ASSERT_NEAR(quantize(df.bits[ch], sum / n), actual.at(ch, x, y), tolerance)
                    << "channel " << ch << " of sample (" << x << ", " << y << ")";
            }
        }
    }
    EXPECT_GT(compared, 0u);
}

constexpr int kSlot = 5;

// The service on the sub-HAL double, the GL driver kept loaded: captureOnce takes the GPU path
// for rows kept on a slot, with no instance open.
class GpuCaptureTest : public ServiceTest {
protected:
    void SetUp() override {
        host_gl::keepDriverLoaded();
        ServiceTest::SetUp();
    }
    // An NV12 frame to RGBA at the destination's size, the rows then changed by `change`.
    CaptureReturn captureOnce(const std::function<void()>& change = [] {}) {
        const int w = src->getWidth(), h = src->getHeight(), dw = dst->getWidth();
        ::keepRows(kSlot, {"NV12", "RGBA_8888", w, h, dw, int(dst->getHeight()), 0, 0, w, h}, src,
                   dst);
        change();
        return static_cast<CaptureReturn>(service->captureOnce(kCaptureIdBase + kSlot));
    }

    sp<GraphicBuffer> src = makeFilledBuffer(64, 32, GRALLOC_PRIVATE_FORMAT_NV12, 3);
    sp<GraphicBuffer> dst = makeFilledBuffer(32, 32, HAL_PIXEL_FORMAT_RGBA_8888, 4);
};

// Every format as a source into one of the other kind (a format taken for the wrong kind changes
// the shader) and as a destination, plus RGB to RGB and YUV to YUV, odd sizes leaving chroma
// blocks partial; quarter-turns of crops at odd offsets, scaled up and down, for a pair of each
// kind; turns between right angles, the corners left with the clear colour. Two threads convert
// on two slots at once: each gets its own frame, whatever the two do to the one EGL display.
TEST_F(GpuCaptureTest, EveryFormatCropsScalesAndTurnsOnTwoSlotsAtOnce) {
    setLogLevel(32);  // refusals only: per-conversion traces would bury a failure's cause
    std::vector<Request> work[2] = {
        {{"RGBA_8888", "BGRA_8888", 40, 30, 40, 30, 3, 5, 31, 21, 30, 6},
         {"RGBA_8888", "NV12", 1920, 1080, 1920, 1080, 161, 97, 1600, 900, 0, 16}},
        {{"RGB_888", "YUYV", 40, 30, 36, 28, 1, 1, 37, 27, 300, 6},
         {"RGB_565", "RGBA_8888", 33, 21, 33, 21, 0, 0, 33, 21, 270, 4}},
    };
    const std::pair<const char*, const char*> formats[] = {
        {"RGBA_8888", "YUYV"},         {"BGRA_8888", "YUV422_10B"},
        {"RGBA_FP16", "NV16"},         {"RGBA_1010102", "NV12"},
        {"RGB_565", "NV21"},           {"RGB_888", "YC420_10B"},
        {"YUYV", "RGBA_8888"},         {"YUV422_10B", "BGRA_8888"},
        {"NV16", "RGBA_FP16"},         {"NV12", "RGBA_1010102"},
        {"NV21", "RGB_565"},           {"YC420_10B", "RGB_888"},
        {"YV12", "BGRA_8888"},         {"NV21", "YV12"},
        {"RGBA_FP16", "RGBA_1010102"},
    };
    for (size_t k = 0; k < std::size(formats); ++k) {
        const auto [src, dst] = formats[k];
        work[k % 2].push_back({src, dst, 23, 15, 23, 15, 0, 0, 23, 15});
    }
    const std::pair<const char*, const char*> pairs[] = {{"RGBA_8888", "RGBA_8888"},
                                                         {"RGB_888", "NV21"},
                                                         {"NV12", "BGRA_8888"},
                                                         {"YUV422_10B", "NV12"}};
    for (const auto& [src, dst] : pairs) {
        for (uint32_t rotation : {0u, 90u, 180u, 270u}) {
            // Upscaled, the crop narrower than the destination is wide; downscaled from a crop
            // that reaches the source's right and bottom edges.
            work[rotation / 90 % 2].push_back({src, dst, 37, 29, 30, 22, 5, 3, 27, 19, rotation, 4});
            work[rotation / 90 % 2].push_back({src, dst, 37, 29, 20, 14, 3, 7, 34, 22, rotation, 6});
        }
    }
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t]() {
            ++ready;
            while (ready.load() < 2) std::this_thread::yield();
            for (const Request& c : work[t]) checkConversion(*service, kCaptureIdBase + t, c);
        });
    }
    for (std::thread& thread : threads) thread.join();
    if (HasFailure()) ADD_FAILURE() << log.dump();
}

// A temporary folder that CAPTURE_DUMP_DIR points at while alive, with dumping switched on.
struct DumpFolder {
    DumpFolder() {
        setenv("CAPTURE_DUMP_DIR", path.c_str(), 1);
        ::android::base::SetProperty(kDumpDataProperty, "1");
    }
    ~DumpFolder() { std::filesystem::remove_all(path); }
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            names.insert(entry.path().filename());
        }
        return names;
    }
    std::vector<uint8_t> read(const std::string& name) const {
        std::ifstream in(path + name, std::ios::binary);
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
    }

    const std::string path = []() {
        char pattern[] = "/tmp/capture-dump-XXXXXX";
        return std::string(mkdtemp(pattern) != nullptr ? pattern : "/tmp/capture-dump-none") + "/";
    }();
};

// The stride is the allocator's word at byte 72, whatever mix of descriptors and integers puts it
// there; a handle too short to hold it, or a malformed one, has none.
TEST(AllocatorStrideTest, ReadOnlyFromHandlesThatCarryIt) {
    const struct {
        int numFds, numInts;
        int32_t stride;
    } cases[] = {{1, 15, 77}, {0, 16, 77}, {2, 14, 77}, {1, 14, 0}, {0, 15, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.numFds << " fds, " << c.numInts << " ints");
        native_handle_t* handle = native_handle_create(c.numFds, c.numInts);
        ASSERT_NE(nullptr, handle);
        for (int i = 0; i < c.numFds + c.numInts; ++i) handle->data[i] = i < c.numFds ? -1 : 77;
        EXPECT_EQ(c.stride, allocatorStride(handle));
        handle->numFds = -1;  // a corrupted count
        EXPECT_EQ(0, allocatorStride(handle));
        handle->numFds = c.numFds;
        native_handle_delete(handle);
    }
    EXPECT_EQ(0, allocatorStride(nullptr));
}

TEST(DumpFormatTest, EveryRowOfTheTableAndNothingOutsideIt) {
    gpu_set_debug_log_level(32);
    // Format, name, stride in bytes, height; the pitch and size expected.
    const std::tuple<uint32_t, const char*, uint32_t, uint32_t, uint32_t, uint64_t> rows[] = {
        {1, "RGBA8888", 7680, 1080, 1920, 7680ull * 1080},
        {3, "RGB888", 100, 3, 33, 300},  // the pitch rounds down
        {4, "RGB565", 3840, 1080, 1920, 3840ull * 1080},
        {5, "BGRA8888", 7680, 1080, 1920, 7680ull * 1080},
        {16, "NV16", 1920, 1080, 1920, 1920ull * 1080 * 2},
        {17, "NV21", 3, 3, 3, 13},  // so does the size
        {20, "YUV422", 3840, 1080, 1920, 3840ull * 1080},
        {21, "NV12", 65536, 65536, 65536, 65536ull * 65536 * 3 / 2},  // past 32 bits
        {22, "ARGB16161616", 15360, 1080, 1920, 15360ull * 1080},
        {43, "ABGR2101010", 7680, 1080, 1920, 7680ull * 1080},
        // The 10-bit rows scale the byte stride up by 5/4 for the pitch.
        {54, "YC420_10B", 2400, 1080, 3000, 2400ull * 1080 * 3 / 2},
        {262, "YUV422_10B", 2400, 1080, 3000, 2400ull * 1080},
        {0x32315659, "YUV420_8B", 1920, 1080, 1920, 1920ull * 1080 * 3 / 2},
        // Outside the table: nothing, and an error line.
        {53, "", 1920, 1080, 0, 0},
        {0x32315658, "", 1920, 1080, 0, 0},
    };
    for (const auto& [format, expectedName, stride, height, expectedPitch, expectedSize] : rows) {
        SCOPED_TRACE(format);
        LogCapture log;
        uint32_t pitch = 5;
        uint64_t size = 5;
        char name[kDumpNameSize] = "stale";
        CalculateDumpInfo(stride, height, format, &pitch, &size, name);
        EXPECT_EQ(expectedPitch, pitch);
        EXPECT_EQ(expectedSize, size);
        EXPECT_STREQ(expectedName, name);
        const Strings error = {"can't find this format: " + std::to_string(format) + "!"};
        EXPECT_EQ(expectedPitch == 0 ? error : Strings{}, strippedMessages(log));
    }
}

// The counters are process-wide; every test starts them where a fresh process has them.
class DumpDataTest : public ::testing::Test {
protected:
    void SetUp() override {
        dump_input_index = 1;
        dump_output_index = 1;
        gpu_set_debug_log_level(48);
    }
    DumpFolder folder;
    const std::vector<uint8_t> frame = pattern(1920 * 1080 * 3 / 2, 0);
};

TEST_F(DumpDataTest, NamesCarryPrefixCounterPitchWhenItDiffersSizeAndFormat) {
    EXPECT_EQ(2u, DumpOutputData(1920, 1920, 1080, 21, frame.data(), frame.size()));
    dump_output_index = 9999;  // the last number before the counter wraps
    EXPECT_EQ(10000u, DumpOutputData(1920, 1920, 1080, 21, frame.data(), frame.size()));
    EXPECT_EQ(2u, DumpOutputData(64, 16, 2, 1, frame.data()));
    EXPECT_EQ(1, DumpData("p-", 7, 2400, 1920, 4, 54, frame.data()));  // 10-bit pitch
    // A prefix of 21 characters or more is left out.
    EXPECT_EQ(1, DumpData(std::string(20, 'a').c_str(), 1, 64, 16, 2, 1, frame.data()));
    EXPECT_EQ(1, DumpData(std::string(21, 'b').c_str(), 2, 64, 16, 2, 1, frame.data()));
    EXPECT_EQ((Names{"0002_16x2_RGBA8888.raw", std::string(20, 'a') + "0001_16x2_RGBA8888.raw",
                     "gpu_output-0001_1920x1080_NV12.raw", "gpu_output-0001_16x2_RGBA8888.raw",
                     "gpu_output-9999_1920x1080_NV12.raw", "p-0007_s3000_1920x4_YC420_10B.raw"}),
              folder.files());
}

TEST_F(DumpDataTest, NothingIsWrittenForAPropertyOtherThanOneOrABadFrame) {
    for (const char* value : {"", "0", "true", "11", " 1"}) {
        SCOPED_TRACE(std::string("property \"") + value + "\"");
        ::android::base::SetProperty(kDumpDataProperty, value);
        EXPECT_EQ(0u, DumpInputData(64, 16, 2, 1, frame.data()));
        EXPECT_EQ(0u, DumpOutputData(64, 16, 2, 1, frame.data()));
    }
    ::android::base::SetProperty(kDumpDataProperty, "1");
    EXPECT_EQ(0, DumpData("p-", 1, 64, 16, 2, 1, nullptr));
    // A folder that leaves too little room for the file name.
    const std::string deep = folder.path + std::string(90, 'd') + "/";
    ASSERT_EQ(0, mkdir(deep.c_str(), 0755));
    setenv("CAPTURE_DUMP_DIR", deep.c_str(), 1);
    EXPECT_EQ(0u, DumpInputData(64, 16, 2, 1, frame.data()));
    EXPECT_EQ(0, rmdir(deep.c_str()));
    // A folder that is not there.
    setenv("CAPTURE_DUMP_DIR", (folder.path + "gone/").c_str(), 1);
    EXPECT_EQ(0u, DumpOutputData(64, 16, 2, 1, frame.data()));
    EXPECT_TRUE(folder.files().empty());
    EXPECT_EQ(1u, dump_output_index.load());
    // The property is read for every frame (and no refusal above moved the input counter).
    setenv("CAPTURE_DUMP_DIR", folder.path.c_str(), 1);
    EXPECT_EQ(2u, DumpInputData(64, 16, 2, 1, frame.data()));
}

// A conversion done clears the instance's GPU flag; a format without a GPU mapping is refused
// and keeps it, so that the client may reconfigure and retry.
TEST_F(GpuCaptureTest, ClearsTheFlagOnceConvertedAndKeepsItWhenRefused) {
    ASSERT_TRUE(src != nullptr && dst != nullptr);
    const int fds = countOpenFds();
    EXPECT_EQ(CaptureReturn::SUCCESS, captureOnce());
    EXPECT_EQ(0, mUseGpu[kSlot]);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT,
              captureOnce([] { mDstFrameInfo[kSlot].format = CaptureFormat::ARGB2101010; }));
    EXPECT_EQ(1, mUseGpu[kSlot]);
    // Every clone made for the conversions is closed again.
    EXPECT_EQ(fds, countOpenFds());

    // Rows without a buffer are refused before anything is drawn.
    EXPECT_EQ(CaptureReturn::INVALID_BUFFER,
              captureOnce([] { mDstFrameInfo[kSlot].buffer = hidl_handle(); }));
    EXPECT_EQ(1, mUseGpu[kSlot]);
}

// The dump holds what the client handed in, read within the buffer's memory whatever size the
// client claims, even where the platform cannot import the buffer.
TEST_F(GpuCaptureTest, DumpsTheSourceBuffersBytesAndNeverReadsPastThem) {
    DumpFolder folder;
    dump_input_index = 1;
    dump_output_index = 1;
    src = makeFilledBuffer(1916, 1080, GRALLOC_PRIVATE_FORMAT_NV12, 3);
    dst = makeFilledBuffer(640, 360, HAL_PIXEL_FORMAT_RGBA_8888, 4);
    ASSERT_TRUE(src != nullptr && dst != nullptr);
    setenv("CAPTURE_HOST_GL", "0", 1);  // as on a platform without native-buffer images
    EXPECT_EQ(CaptureReturn::SUCCESS, captureOnce());
    unsetenv("CAPTURE_HOST_GL");
    // The whole NV12 frame with its 1920-byte stride, as the client filled it.
    EXPECT_TRUE(pattern(1920 * 1080 * 3 / 2, 3) ==
                folder.read("gpu_intput-0001_s1920_1916x1080_NV12.raw"));
    // Mesa has no Android native-buffer images: both are refused and logged, the draw goes on,
    // and the destination read back still holds what the client put there.
    EXPECT_EQ(2u, log.count("eglCreateImageKHR of a ")) << log.dump();
    EXPECT_EQ(ANDROID_LOG_ERROR, log.find("glCheckFramebufferStatus() error: ").priority);
    EXPECT_TRUE(pattern(640 * 360 * 4, 4) == folder.read("gpu_output-0001_640x360_RGBA8888.raw"));

    // A source claiming more rows than its memory holds is neither dumped nor sampled.
    log.clear();
    EXPECT_EQ(CaptureReturn::SUCCESS, captureOnce([] { mSrcFrameInfo[kSlot].height = 4096; }));
    EXPECT_EQ(
        (Names{"gpu_intput-0001_s1920_1916x1080_NV12.raw", "gpu_output-0001_640x360_RGBA8888.raw",
               "gpu_output-0002_640x360_RGBA8888.raw"}),
        folder.files());
    EXPECT_EQ(1u, log.count("eglCreateImageKHR of a 1916x4096 buffer failed")) << log.dump();
}

// A YUV buffer may keep its chroma plane behind a second descriptor: the dump holds both planes
// as lock() maps them, and a claimed size beyond what the two hold is still refused.
TEST_F(GpuCaptureTest, DumpsBuffersWhosePlanesLieBehindTwoDescriptors) {
    DumpFolder folder;
    dump_input_index = 1;
    const std::vector<uint8_t> luma = pattern(64 * 64, 5), chroma = pattern(64 * 32, 6);
    // The allocator's sixteen words, the stride at data[15].
    const std::unique_ptr<native_handle_t, void (*)(native_handle_t*)> planes(
        native_handle_create(2, 14), [](native_handle_t* h) {
            native_handle_close(h);
            native_handle_delete(h);
        });
    for (int i = 0; i < 2; ++i) {
        const std::vector<uint8_t>& plane = i == 0 ? luma : chroma;
        planes->data[i] = memfd_create("plane", MFD_CLOEXEC);
        ASSERT_EQ(ssize_t(plane.size()), write(planes->data[i], plane.data(), plane.size()));
    }
    planes->data[15] = 64;
    setenv("CAPTURE_HOST_GL", "0", 1);  // only the dump matters here
    for (uint32_t height : {64u, 128u}) {
        SCOPED_TRACE(height);
        EXPECT_EQ(CaptureReturn::SUCCESS, captureOnce([&] {
                      mSrcFrameInfo[kSlot].buffer = hidl_handle(planes.get());
                      mSrcFrameInfo[kSlot].width = 64;
                      mSrcFrameInfo[kSlot].height = height;
                  }));
    }
    unsetenv("CAPTURE_HOST_GL");
    std::vector<uint8_t> both = luma;
    both.insert(both.end(), chroma.begin(), chroma.end());
    EXPECT_TRUE(both == folder.read("gpu_intput-0001_64x64_NV12.raw"));
    EXPECT_EQ(0u, folder.files().count("gpu_intput-0002_64x128_NV12.raw"));
    EXPECT_EQ(1u, log.count("frame of 12288 bytes is larger than its 6144-byte buffer")) << log.dump();
}

TEST_F(GpuCaptureTest, WithoutTheYuvTargetTheDriversRefusalIsLoggedAndTheEnvironmentHandedOut) {
    setenv("CAPTURE_HOST_GL", "0", 1);
    gpu_set_debug_log_level(64);
    GpuDrawing env;
    ASSERT_EQ(1u, env.egl_init_env()) << log.dump();
    EXPECT_EQ(env.context, eglGetCurrentContext());

    for (int32_t type = 0; type <= 3; ++type) {
        SCOPED_TRACE("type " + std::to_string(type));
        log.clear();
        GpuDrawing full;  // in the context made above
        EXPECT_EQ(1u, full.gles_init_shaders(static_cast<gpu_format_covert_type>(type)));
        // The driver's complaint is logged, the link then fails, and using the unlinked program
        // is an OpenGL error; the environment still gets its program and vertex names.
        const LogLine refused = log.find("[gles_compile_shaders(");
        EXPECT_EQ(ANDROID_LOG_ERROR, refused.priority) << log.dump();
        EXPECT_NE(std::string::npos, refused.message.find("GL_EXT_YUV_target"));
        // The driver's text and nothing after it.
        EXPECT_THAT(refused.message, ::testing::MatchesRegex("[[:print:]\n]*"));
        EXPECT_EQ(1u, log.count("[gles_link_program("));
        EXPECT_EQ(1u, log.count("OpenGL error 0x0502 in tv/hardware/interfaces/capture/1.0/"
                                "default/gpu/gpu_draw,gles_init_shaders,"));
        EXPECT_TRUE(full.program != 0 && full.vertex_array != 0 && full.fragment_shader == 0);
    }
    EXPECT_EQ(1u, env.egl_cleanup());
    EXPECT_EQ(EGL_NO_DISPLAY, env.display);
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
}

TEST_F(GpuCaptureTest, EntryPointsOwnWhatTheyMakeAndRefuseWhatCannotBeDrawn) {
    gpu_set_debug_log_level(48);
    log.clear();
    gpu_deinit_drawing_env(nullptr);
    gpu_feature_instance_delete(nullptr);
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    GpuDrawing* drawing = nullptr;
    ASSERT_EQ(1, gpu_init_drawing_env(GPU_COVERT_RGB_TO_YUV, &drawing));
    gpu_deinit_drawing_env(drawing);
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
    EXPECT_EQ(1u, log.countExact("GpuDrawing Destructor"));  // a debug line: 48 lets it through
    EXPECT_EQ(0u, log.count("eglGetConfigs numConfigs="));   // an information line does not

    // A source without size never reaches the texture-coordinate division; nothing is drawn
    // without a request or an environment either.
    GpuDrawing bare;  // no context
    GpuPhotoFeatureIn feature(nullptr, nullptr);
    feature.srcHeight = 1080;
    EXPECT_EQ(0, gpu_draw_frame(&feature, &bare));
    feature.srcWidth = 1920;
    feature.srcHeight = 0;
    EXPECT_EQ(0, gpu_draw_frame(&feature, &bare));
    EXPECT_EQ(1u, log.countExact("source size 0x1080 cannot be sampled, nothing drawn"));
    EXPECT_EQ(1u, log.countExact("source size 1920x0 cannot be sampled, nothing drawn"));
    EXPECT_EQ(0, gpu_draw_frame(&feature, nullptr));
    EXPECT_EQ(0, gpu_draw_frame(nullptr, &bare));
    EXPECT_EQ(0u, log.count("debug postion")) << log.dump();
}

// The host graphics layer does GL work of its own behind the client's calls: an error the client
// raised before it is still the client's to read, once.
TEST_F(GpuCaptureTest, HostLayerLeavesTheClientsPendingErrorToTheClient) {
    ASSERT_TRUE(host_gl::layerInterposed());
    GpuDrawing env;
    ASSERT_EQ(1u, env.egl_init_env());
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, texture);
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_WRAP_S, GL_REPEAT);  // invalid here
    const auto create =
        reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    EGLImageKHR image = create(eglGetCurrentDisplay(), EGL_NO_CONTEXT, EGL_NATIVE_BUFFER_ANDROID,
                               static_cast<EGLClientBuffer>(dst->getNativeBuffer()), nullptr);
    ASSERT_NE(EGL_NO_IMAGE_KHR, image);
    const auto target = reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(
        eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    target(GL_TEXTURE_EXTERNAL_OES, image);  // the layer uploads and binds its own texture here
    EXPECT_EQ(static_cast<GLenum>(GL_INVALID_ENUM), glGetError());
    EXPECT_EQ(static_cast<GLenum>(GL_NO_ERROR), glGetError());
    glDeleteTextures(1, &texture);
    EXPECT_EQ(1u, env.egl_cleanup());
}

}  // namespace
