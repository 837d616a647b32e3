#include "Picture.h"

#include <libyuv.h>
#include <png.h>
#include <stdio.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "capture_emulator/FrameLayout.h"

namespace capturectl {

using capture_emulator::FrameView;
using capture_emulator::PixelFormatInfo;

namespace {

constexpr uint32_t kYuyv10 = 0x2;
constexpr uint32_t kYuv420Packed10 = 0x2000;  // RZ21S10L

// The emulated hardware's formats, except the tiled one nothing writes.
const PixelFormatInfo* linearFormat(uint32_t captureFormat) {
    const PixelFormatInfo* f = capture_emulator::findCaptureFormat(captureFormat);
    return f != nullptr && !f->tiled ? f : nullptr;
}

FrameView viewOf(const FramePlanes& p) {
    return FrameView{p.base, p.base + p.chromaOffset, p.pitch};
}

// `count` 10-bit samples of a row packed four to five bytes, sample k of a group in bits
// 10k..10k+9 of a little-endian 40-bit word.
void unpack10(const uint8_t* row, uint32_t count, uint16_t* out) {
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* group = row + i / 4 * 5;
        uint64_t word = 0;
        for (int b = 4; b >= 0; --b) word = word << 8 | group[b];
        out[i] = static_cast<uint16_t>(word >> (10 * (i % 4)) & 0x3FF);
    }
}

bool decodePacked10(const FramePlanes& p, uint32_t width, uint32_t height, bool fullChroma,
                    ArgbImage* out) {
    const uint32_t cw = (width + 1) / 2, ch = fullChroma ? height : (height + 1) / 2;
    std::vector<uint16_t> y(size_t{width} * height), u(size_t{cw} * ch), v(u.size());
    std::vector<uint16_t> pairs(size_t{cw} * 2);
    for (uint32_t r = 0; r < height; ++r) {
        unpack10(p.base + size_t{r} * p.pitch, width, &y[size_t{r} * width]);
    }
    for (uint32_t r = 0; r < ch; ++r) {
        unpack10(p.base + p.chromaOffset + size_t{r} * p.pitch, cw * 2, pairs.data());
        for (uint32_t k = 0; k < cw; ++k) {
            u[size_t{r} * cw + k] = pairs[2 * k];
            v[size_t{r} * cw + k] = pairs[2 * k + 1];
        }
    }
    const int w = static_cast<int>(width), h = static_cast<int>(height);
    const int c = static_cast<int>(cw);
    return (fullChroma ? libyuv::I210ToARGB : libyuv::I010ToARGB)(
               y.data(), w, u.data(), c, v.data(), c, out->data(), out->stride(), w, h) == 0;
}

}  // namespace

bool decodeFrame(uint32_t captureFormat, const FramePlanes& p, uint32_t width, uint32_t height,
                 ArgbImage* out) {
    if (const PixelFormatInfo* f = linearFormat(captureFormat)) {
        return capture_emulator::readFrame(*f, viewOf(p), width, height, out);
    }
    if (captureFormat != kYuyv10 && captureFormat != kYuv420Packed10) return false;
    out->resize(width, height);
    return decodePacked10(p, width, height, captureFormat == kYuyv10, out);
}

bool encodeFrame(uint32_t captureFormat, const ArgbImage& image, const FramePlanes& planes) {
    const PixelFormatInfo* f = linearFormat(captureFormat);
    return f != nullptr && capture_emulator::writeFrame(*f, image, viewOf(planes));
}

void copyFrame(const PixelFormatInfo& format, const capture_emulator::FrameLayout& layout,
               const uint8_t* from, const FramePlanes& to, uint32_t width) {
    const size_t rowBytes = size_t{width} * format.bytesPerPixel;
    const uint32_t lumaRows = layout.lumaSize / layout.pitch;
    const uint32_t chromaRows = layout.chromaSize / layout.pitch;
    for (uint32_t r = 0; r < lumaRows; ++r) {
        memcpy(to.base + size_t{r} * to.pitch, from + size_t{r} * layout.pitch, rowBytes);
    }
    for (uint32_t r = 0; r < chromaRows; ++r) {
        memcpy(to.base + to.chromaOffset + size_t{r} * to.pitch,
               from + layout.chromaOffset + size_t{r} * layout.pitch, rowBytes);
    }
}

std::string readPng(const std::string& path, ArgbImage* out) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        return "cannot read " + path + ": " + image.message;
    }
    // The graphics allocator's limit; far beyond what either engine takes.
    if (image.width > 16384 || image.height > 16384) {
        png_image_free(&image);
        return path + " is larger than 16384x16384";
    }
    image.format = PNG_FORMAT_BGRA;  // the working image's byte order
    out->resize(image.width, image.height);
    if (!png_image_finish_read(&image, nullptr, out->data(), out->stride(), nullptr)) {
        return "cannot decode " + path + ": " + image.message;
    }
    return "";
}

std::string writePng(const std::string& path, const ArgbImage& image) {
    const uint32_t width = image.width(), height = image.height();
    std::vector<uint8_t> rgb(size_t{width} * height * 3);
    libyuv::ARGBToRAW(image.data(), image.stride(), rgb.data(), static_cast<int>(width * 3),
                      static_cast<int>(width), static_cast<int>(height));
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "wb"), fclose);
    if (!file) return std::string("cannot create ") + path + ": " + strerror(errno);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        return "libpng could not start";
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return "libpng failed writing " + path;
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (uint32_t y = 0; y < height; ++y) png_write_row(png, rgb.data() + size_t{y} * width * 3);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (fflush(file.get()) != 0) return std::string("cannot write ") + path;
    return "";
}

bool renderNamedPattern(const std::string& name, uint32_t width, uint32_t height, ArgbImage* out) {
    out->resize(width, height);
    if (name == "bars") {
        capture_emulator::renderPattern(width, height, capture_emulator::Rect{0, 0, width, height},
                                        capture_emulator::PatternClock{}, out);
        return true;
    }
    if (name != "quadrants") return false;
    constexpr uint32_t kQuadrants[2][2] = {{0xFFFF0000, 0xFF00FF00}, {0xFF0000FF, 0xFFFFFFFF}};
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* row = out->data() + size_t{y} * out->stride();
        for (uint32_t x = 0; x < width; ++x) {
            memcpy(row + 4 * x, &kQuadrants[y * 2 / height][x * 2 / width], 4);  // B, G, R, A
        }
    }
    return true;
}

}  // namespace capturectl
