#include "Y4m.h"

#include <string.h>

namespace capturectl {

using capture_emulator::Chroma;
using capture_emulator::FrameLayout;
using capture_emulator::PixelFormatInfo;

namespace {

// Where the hardware's chroma samples sit: its engines make each one the mean of the 2x2 (4:2:0)
// or 2x1 (4:2:2) block of luma samples it covers, so it sits at the block's centre (JPEG's
// siting), not beside its left luma sample as in MPEG-2.
enum class Siting { kCentre, kLeft };
constexpr Siting kHardwareSiting = Siting::kCentre;

bool packedYuyv(const PixelFormatInfo& f) {
    return f.chroma == Chroma::kNone && capture_emulator::isYuv(f);
}

}  // namespace

std::string y4mChromaTag(const PixelFormatInfo& f) {
    if (f.tiled) return "";
    if (f.chroma == Chroma::kCbCr420)
        return kHardwareSiting == Siting::kCentre ? "420jpeg" : "420mpeg2";
    if (f.chroma == Chroma::kCbCr422 || packedYuyv(f)) return "422";
    return "";
}

std::string y4mHeader(const PixelFormatInfo& f, uint32_t width, uint32_t height, uint32_t fps) {
    // The hardware writes YUV in limited range (Y 16..235), as BT.601 has it.
    return "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F" +
           std::to_string(fps) + ":1 Ip A1:1 C" + y4mChromaTag(f) + " XCOLORRANGE=LIMITED\n";
}

void y4mFrame(const PixelFormatInfo& f, const FrameLayout& layout, const uint8_t* frame,
              uint32_t width, uint32_t height, std::vector<uint8_t>* out) {
    static const char kFrame[] = "FRAME\n";
    const size_t luma = size_t{width} * height;
    const uint32_t cw = width / 2;
    const uint32_t ch = f.chroma == Chroma::kCbCr420 ? height / 2 : height;
    const size_t chroma = size_t{cw} * ch;
    out->resize(sizeof(kFrame) - 1 + luma + 2 * chroma);
    memcpy(out->data(), kFrame, sizeof(kFrame) - 1);
    uint8_t* y = out->data() + sizeof(kFrame) - 1;
    uint8_t* cb = y + luma;
    uint8_t* cr = cb + chroma;
    if (packedYuyv(f)) {  // Y0 Cb Y1 Cr
        for (uint32_t r = 0; r < height; ++r) {
            const uint8_t* in = frame + size_t{r} * layout.pitch;
            for (uint32_t k = 0; k < cw; ++k) {
                y[size_t{r} * width + 2 * k] = in[4 * k];
                cb[size_t{r} * cw + k] = in[4 * k + 1];
                y[size_t{r} * width + 2 * k + 1] = in[4 * k + 2];
                cr[size_t{r} * cw + k] = in[4 * k + 3];
            }
        }
        return;
    }
    for (uint32_t r = 0; r < height; ++r) {
        memcpy(y + size_t{r} * width, frame + size_t{r} * layout.pitch, width);
    }
    // Interleaved chroma: Cb first (NV12, NV16) or Cr first (NV21, NV61).
    uint8_t* first = f.crFirst ? cr : cb;
    uint8_t* second = f.crFirst ? cb : cr;
    for (uint32_t r = 0; r < ch; ++r) {
        const uint8_t* in = frame + layout.chromaOffset + size_t{r} * layout.pitch;
        for (uint32_t k = 0; k < cw; ++k) {
            first[size_t{r} * cw + k] = in[2 * k];
            second[size_t{r} * cw + k] = in[2 * k + 1];
        }
    }
}

}  // namespace capturectl
