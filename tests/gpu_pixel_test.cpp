// Pixels of the GPU path: conversions run through captureOnce on Mesa, and the destination
// compared with a CPU model of the buffer layouts, sampling and colour rules that shares no code
// with the host graphics layer, so that a fault in either shows as a mismatch.
#include <ui/GrallocPrivate.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <thread>

#include "CaptureLog.h"
#include "GpuTestUtil.h"
#include "TestUtil.h"

namespace {

using namespace capture_test;
using namespace gpu_test;
using Rgba = std::array<double, 4>;  // R, G, B, A or Y, Cb, Cr, 1

constexpr uint32_t kNv21 = 17, kYuyv = 20, kYv12 = 0x32315659;

// The HAL format, the interface's CaptureFormat bit, the name; bits of R, G, B, A or Y, Cb, Cr
// (16: half floats); RGB: where each channel starts in the
// little-endian pixel word; YUV: pixels per chroma sample across and down (0 for RGB).
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
                         [&](const Format& f) { return name == f.name; });
}

// A channel's code for a value in [0, 1], and back: half floats as their bits.
uint32_t toCode(int bits, double v) {
    v = std::clamp(v, 0.0, 1.0);
    if (bits < 16) return static_cast<uint32_t>(std::lround(v * ((1 << bits) - 1)));
    const _Float16 half = static_cast<_Float16>(v);
    uint16_t code;
    memcpy(&code, &half, 2);
    return code;
}
double fromCode(int bits, uint32_t code) {
    if (bits < 16) return code / static_cast<double>((1 << bits) - 1);
    _Float16 half;
    memcpy(&half, &code, 2);  // little-endian: the low half of the word
    return static_cast<double>(half);
}
double quantize(int bits, double v) {
    return fromCode(bits, toCode(bits, v));
}

// A frame as the values its format stores, in [0, 1]; 1 in channels the format lacks. YUV
// formats keep Cb and Cr per chroma sample.
struct Image {
    const Format* f;
    int width, height;
    std::vector<double> v[4];
    int w(int c) const { return c == 0 || f->rgb() ? width : (width + f->divX - 1) / f->divX; }
    int h(int c) const { return c == 0 || f->rgb() ? height : (height + f->divY - 1) / f->divY; }
    double& at(int c, int x, int y) { return v[c][static_cast<size_t>(y) * w(c) + x]; }
    double at(int c, int x, int y) const { return v[c][static_cast<size_t>(y) * w(c) + x]; }
};

Image blank(const Format& f, int width, int height) {
    Image image{&f, width, height, {}};
    for (int c = 0; c < 4; ++c) image.v[c].assign(static_cast<size_t>(image.w(c)) * image.h(c), 1);
    return image;
}

// Where the planes lie for a row stride in pixels: luma or packed rows, then the chroma rows
// (interleaved CbCr, or YV12's Cr plane and then its Cb plane).
struct Layout {
    size_t rowBytes, chroma = 0, chromaRowBytes = 0, chroma2 = 0, size;
};
Layout layoutOf(const Format& f, int height, int stride) {
    Layout l;
    const size_t s = stride;
    l.rowBytes = f.rgb()           ? s * f.pixelBytes()
                 : f.hal == kYuyv  ? 2 * s
                 : f.bits[0] == 10 ? s * 5 / 4
                                   : s;
    l.size = l.rowBytes * height;
    if (f.rgb() || f.hal == kYuyv) return l;
    const size_t rows = (height + f.divY - 1) / f.divY;
    l.chroma = l.size;
    l.chromaRowBytes = f.hal == kYv12 ? l.rowBytes / 2 : l.rowBytes;
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
    for (int c = 0; c < 4; ++c) {
        for (int y = 0; f.bits[c] != 0 && y < image.h(c); ++y) {
            for (int x = 0; x < image.w(c); ++x) {
                size_t row = y * l.rowBytes;
                int k = f.hal == kYuyv ? 2 * x : x;  // the sample's index in its row
                if (c != 0 && f.hal == kYuyv) {
                    k = 4 * x + 2 * c - 1;  // Y0 Cb Y1 Cr
                } else if (c != 0 && f.hal == kYv12) {
                    row = (c == 1 ? l.chroma2 : l.chroma) + y * l.chromaRowBytes;
                } else if (c != 0 && !f.rgb()) {
                    row = l.chroma + y * l.chromaRowBytes;
                    k = 2 * x + ((c == 2) != (f.hal == kNv21));
                }
                // The sample: `bits` bits from bit `shift` of the word of `bytes` bytes at `p`.
                uint8_t* p = memory + row + k;
                int bytes = 1, shift = 0;
                if (f.rgb()) {
                    bytes = f.pixelBytes();
                    p = memory + row + static_cast<size_t>(x) * bytes;
                    shift = f.shift[c];
                } else if (f.bits[0] == 10) {
                    p = memory + row + k / 4 * 5;
                    bytes = 5;
                    shift = 10 * (k % 4);
                }
                uint64_t word = 0;
                for (int b = bytes - 1; b >= 0; --b) word = word << 8 | p[b];
                const uint64_t mask = ((uint64_t{1} << f.bits[c]) - 1) << shift;
                if (!write) {
                    image.at(c, x, y) =
                        fromCode(f.bits[c], static_cast<uint32_t>((word & mask) >> shift));
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

// A conversion through captureOnce, with the frame rows and flag that the capability query and
// setCaptureFrameInfo leave for a GPU instance. Every sample of the destination the model can
// call is compared, chroma as the mean of its block, within 2/255 of the range or one code of a
// narrower channel; the bytes around the samples must keep what was there.
void expectConverts(Capture& service, int32_t id, const Request& c) {
    SCOPED_TRACE(::testing::Message()
                 << c.srcFormat << " " << c.srcWidth << "x" << c.srcHeight << " -> " << c.dstFormat
                 << " " << c.dstWidth << "x" << c.dstHeight << ", crop " << c.cropX << "," << c.cropY
                 << " " << c.cropWidth << "x" << c.cropHeight << ", " << c.rotation << " deg");
    const Format &sf = describe(c.srcFormat), &df = describe(c.dstFormat);
    // The source with padding bytes unlike any sample; the destination primed with bytes the
    // conversion must overwrite or, outside the frame, leave alone.
    Image source = makePattern(sf, c.srcWidth, c.srcHeight, c.block);
    android::sp<android::GraphicBuffer> src = allocate(sf.hal, c.srcWidth, c.srcHeight);
    android::sp<android::GraphicBuffer> dst = allocate(df.hal, c.dstWidth, c.dstHeight);
    ASSERT_TRUE(src != nullptr && dst != nullptr);
    const int srcStride = gralloc_private_stride(src->handle);
    const int dstStride = gralloc_private_stride(dst->handle);
    ASSERT_TRUE(withMemory(src, [&](uint8_t* memory, size_t size) {
        ASSERT_GE(size, layoutOf(sf, c.srcHeight, srcStride).size);
        memset(memory, 0xE7, size);
        transfer(source, srcStride, memory, true);
    }));
    ASSERT_TRUE(withMemory(dst, [&](uint8_t* memory, size_t size) {
        ASSERT_GE(size, layoutOf(df, c.dstHeight, dstStride).size);
        for (size_t i = 0; i < size; ++i) memory[i] = static_cast<uint8_t>(i * 29 + 7);
    }));
    const std::vector<uint8_t> before = contents(dst);
    {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        CaptureSrcFrameInfo& srcRow = mSrcFrameInfo[slotOf(id)] = CaptureSrcFrameInfo{};
        CaptureDstFrameInfo& dstRow = mDstFrameInfo[slotOf(id)] = CaptureDstFrameInfo{};
        srcRow.width = c.srcWidth;
        srcRow.height = c.srcHeight;
        srcRow.format = static_cast<CaptureFormat>(sf.captureFormat);
        srcRow.buffer = hidl_handle(src->handle);
        dstRow.cropX = c.cropX;
        dstRow.cropY = c.cropY;
        dstRow.cropWidth = c.cropWidth;
        dstRow.cropHeight = c.cropHeight;
        dstRow.width = c.dstWidth;
        dstRow.height = c.dstHeight;
        dstRow.rotateAngle = c.rotation;
        dstRow.format = static_cast<CaptureFormat>(df.captureFormat);
        dstRow.buffer = hidl_handle(dst->handle);
        mUseGpu[slotOf(id)] = 1;
    }
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

// The service on the sub-HAL double, with an instance open.
class GpuPixelTest : public ServiceTest {
protected:
    void SetUp() override {
        host_gl::keepDriverLoaded();
        ServiceTest::SetUp();
        // Refusals only: per-conversion traces would bury a failure's cause.
        __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 32u, __ATOMIC_RELAXED);
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        id = openInstance();
        ASSERT_TRUE(isValidCaptureId(id));
    }
    void expectConverts(const Request& c) {
        ::expectConverts(*service, id, c);
        if (HasFailure()) ADD_FAILURE() << log.dump();
    }
    int32_t id = -1;
};

// Every format read as a source into one of the other kind (so that a format taken for the
// wrong kind changes the shader) and written as a destination, plus one conversion of each of
// RGB to RGB and YUV to YUV. Every pixel its own colour; odd sizes leave chroma blocks partial.
TEST_F(GpuPixelTest, EveryFormatAsSourceAndAsDestination) {
    const std::pair<const char*, const char*> pairs[] = {
        {"RGBA_8888", "YUYV"},         {"BGRA_8888", "YUV422_10B"},
        {"RGBA_FP16", "NV16"},         {"RGBA_1010102", "NV12"},
        {"RGB_565", "NV21"},           {"RGB_888", "YC420_10B"},
        {"YUYV", "RGBA_8888"},         {"YUV422_10B", "BGRA_8888"},
        {"NV16", "RGBA_FP16"},         {"NV12", "RGBA_1010102"},
        {"NV21", "RGB_565"},           {"YC420_10B", "RGB_888"},
        {"YV12", "BGRA_8888"},         {"NV21", "YV12"},
        {"RGBA_FP16", "RGBA_1010102"},
    };
    for (const auto& [src, dst] : pairs) expectConverts({src, dst, 23, 15, 23, 15, 0, 0, 23, 15});
}

// Quarter-turns of a crop at odd offsets, scaled up and down, for one pair of each kind; turns
// between right angles leave the corners with the clear colour (opaque black, zero samples). Two
// threads convert on two slots at once: each gets its own frame, whatever the two set up and
// tear down of the process's one EGL display.
TEST_F(GpuPixelTest, CropsScaleAndTurnOnTwoSlotsAtOnce) {
    const int32_t ids[2] = {id, openInstance()};
    ASSERT_TRUE(isValidCaptureId(ids[1]) && ids[0] != ids[1]);
    std::vector<Request> work[2] = {
        {{"RGBA_8888", "BGRA_8888", 40, 30, 40, 30, 3, 5, 31, 21, 30, 6},
         {"RGBA_8888", "NV12", 1920, 1080, 1920, 1080, 161, 97, 1600, 900, 0, 16}},
        {{"RGB_888", "YUYV", 40, 30, 36, 28, 1, 1, 37, 27, 300, 6},
         {"RGB_565", "RGBA_8888", 33, 21, 33, 21, 0, 0, 33, 21, 270, 4}},
    };
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
            for (const Request& c : work[t]) ::expectConverts(*service, ids[t], c);
        });
    }
    for (std::thread& thread : threads) thread.join();
    if (HasFailure()) ADD_FAILURE() << log.dump();
}

}  // namespace
