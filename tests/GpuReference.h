// A CPU model of the GPU conversion path: what a conversion must leave in the destination
// buffer, computed from the buffer layouts and the sampling, geometry and colour rules of the
// host graphics layer. It shares no code with that layer, so a fault in either shows as a
// mismatch instead of hiding in a common helper.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace gpu_reference {

// HAL pixel formats of the GPU path.
constexpr uint32_t kYuyv = 20;
constexpr uint32_t kYuv422_10 = 262;
constexpr uint32_t kRgba8888 = 1;
constexpr uint32_t kBgra8888 = 5;
constexpr uint32_t kRgb565 = 4;
constexpr uint32_t kRgb888 = 3;
constexpr uint32_t kNv16 = 16;
constexpr uint32_t kNv12 = 21;
constexpr uint32_t kNv21 = 17;
constexpr uint32_t kYuv420_10 = 54;
constexpr uint32_t kRgbaFp16 = 22;
constexpr uint32_t kYv12 = 0x32315659;
constexpr uint32_t kRgba1010102 = 43;

struct FormatDesc {
    uint32_t hal;
    uint32_t captureFormat;  // the interface's CaptureFormat bit that the service maps to it
    const char* name;
    bool rgb;
    // Pixels per chroma sample across and down (1, 1 for RGB formats).
    int chromaDivX;
    int chromaDivY;
    // Bits of R, G, B, A (RGB) or Y, Cb, Cr (YUV); 0 for a channel the format lacks, 16 for
    // half floats.
    int bits[4];
    // RGB formats: where each channel starts in the little-endian pixel word.
    int shift[4];
};

// One of the thirteen formats; throws std::invalid_argument for any other.
const FormatDesc& describe(uint32_t hal);

// Where the planes of a buffer lie, for a row stride in pixels.
struct Layout {
    size_t rowBytes = 0;      // of the luma or packed plane
    size_t chromaOffset = 0;  // first chroma plane (interleaved CbCr, or YV12's Cr)
    size_t chromaRowBytes = 0;
    size_t secondChromaOffset = 0;  // YV12's Cb plane
    size_t size = 0;                // bytes the layout needs
};
Layout layoutOf(uint32_t format, int height, int stride);

// A frame as the values its format stores, normalised to [0, 1] (code / maximum code; half
// floats as they are). RGB formats: channels 0..3 = R, G, B, A per pixel, A = 1 where the
// format has no alpha. YUV formats: channel 0 = Y per pixel, 1 and 2 = Cb and Cr per chroma
// sample.
struct Image {
    uint32_t format = 0;
    int width = 0;
    int height = 0;
    int chromaWidth = 0;
    int chromaHeight = 0;
    std::vector<double> channel[4];

    // RGB formats have "chroma" at full resolution.
    int channelWidth(int c) const { return c == 0 ? width : chromaWidth; }
    int channelHeight(int c) const { return c == 0 ? height : chromaHeight; }
    double at(int c, int x, int y) const { return channel[c][index(c, x, y)]; }
    double& at(int c, int x, int y) { return channel[c][index(c, x, y)]; }
    size_t index(int c, int x, int y) const { return static_cast<size_t>(y) * channelWidth(c) + x; }
};

// Smooth gradients, different in every channel and running in different directions, so that a
// flipped axis, a quarter-turn, a transposed crop or swapped chroma moves values far beyond the
// tolerance. Alpha varies too where the format keeps it.
Image makePattern(uint32_t format, int width, int height);

// Writes the width x height area of `image` into `memory` laid out with a row stride of `stride`
// pixels; bytes outside it (row padding, the unused half of an odd YUYV pair) are left alone.
void pack(const Image& image, int stride, uint8_t* memory);
Image unpack(uint32_t format, int width, int height, int stride, const uint8_t* memory);

struct Request {
    uint32_t srcFormat = 0;
    uint32_t dstFormat = 0;
    int srcWidth = 0;
    int srcHeight = 0;
    int dstWidth = 0;
    int dstHeight = 0;
    int cropX = 0;
    int cropY = 0;
    int cropWidth = 0;
    int cropHeight = 0;
    uint32_t rotation = 0;  // degrees
};

struct Comparison {
    size_t compared = 0;           // samples compared
    size_t failing = 0;            // samples beyond the tolerance
    size_t uncoveredCompared = 0;  // of them, luma or RGB samples outside the turned quad
    std::string worst;             // the worst sample, with expected and actual values
};

// Compares every sample of `actual` with what the conversion of `src` must produce. Largest
// difference allowed: 2 codes for 8-bit channels, the same share of the range for wider ones
// (8 for 10 bits), one code for narrower ones (565, the 2-bit alpha), 2/255 for half floats.
// Resampled frames leave out a 2-pixel border, where clamping and rasterisation rules leave
// room, and pixels too close to an edge of a turned quad to call, with chroma samples whose
// block touches either; frames drawn at their own size are compared whole.
Comparison compare(const Image& src, const Request& request, const Image& actual);

}  // namespace gpu_reference
