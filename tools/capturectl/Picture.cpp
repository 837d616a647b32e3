#include "Picture.h"

#include <libyuv.h>
#include <png.h>
#include <stdio.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace capturectl {

using capture_emulator::FrameLayout;
using capture_emulator::PixelFormatInfo;

bool frameToRgb(const PixelFormatInfo& format, const FrameLayout& layout, const uint8_t* frame,
                uint32_t width, uint32_t height, std::vector<uint8_t>* rgb) {
    const int w = static_cast<int>(width), h = static_cast<int>(height);
    const int pitch = static_cast<int>(layout.pitch);
    const uint8_t* chroma = frame + layout.chromaOffset;
    std::vector<uint8_t> argb(static_cast<size_t>(width) * height * 4);
    const int stride = w * 4;
    int r = -1;
    switch (format.vxFormat) {
        case 0:
            r = libyuv::YUY2ToARGB(frame, pitch, argb.data(), stride, w, h);
            break;
        case 2:
            r = libyuv::ABGRToARGB(frame, pitch, argb.data(), stride, w, h);
            break;
        case 3:
            r = libyuv::ARGBCopy(frame, pitch, argb.data(), stride, w, h);
            break;
        case 6:
            r = libyuv::AR30ToARGB(frame, pitch, argb.data(), stride, w, h);
            break;
        case 22:
            r = libyuv::AB30ToARGB(frame, pitch, argb.data(), stride, w, h);
            break;
        case 7:
            r = libyuv::RGB565ToARGB(frame, pitch, argb.data(), stride, w, h);
            break;
        case 8:
            r = libyuv::RAWToARGB(frame, pitch, argb.data(), stride, w, h);
            break;
        case 11:
            r = libyuv::NV12ToARGB(frame, pitch, chroma, pitch, argb.data(), stride, w, h);
            break;
        case 12:
            r = libyuv::NV21ToARGB(frame, pitch, chroma, pitch, argb.data(), stride, w, h);
            break;
        case 9:
        case 10: {
            const int cw = w / 2;
            std::vector<uint8_t> u(static_cast<size_t>(cw) * h), v(u.size());
            libyuv::SplitUVPlane(chroma, pitch, format.crFirst ? v.data() : u.data(), cw,
                                 format.crFirst ? u.data() : v.data(), cw, cw, h);
            r = libyuv::I422ToARGB(frame, pitch, u.data(), cw, v.data(), cw, argb.data(), stride, w,
                                   h);
            break;
        }
        default:
            return false;
    }
    if (r != 0) return false;
    rgb->resize(static_cast<size_t>(width) * height * 3);
    return libyuv::ARGBToRAW(argb.data(), stride, rgb->data(), w * 3, w, h) == 0;
}

std::string writePng(const std::string& path, const std::vector<uint8_t>& rgb, uint32_t width,
                     uint32_t height) {
    if (rgb.size() < static_cast<size_t>(width) * height * 3) return "picture too small";
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
    for (uint32_t y = 0; y < height; ++y) {
        png_write_row(png, rgb.data() + static_cast<size_t>(y) * width * 3);
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (fflush(file.get()) != 0) return std::string("cannot write ") + path;
    return "";
}

}  // namespace capturectl
