// Pixel formats as libui names them; the numbers are the HAL's (system/graphics.h).
#pragma once

#include <stdint.h>
#include <system/graphics.h>

namespace android {

enum {
    PIXEL_FORMAT_UNKNOWN = 0,
    PIXEL_FORMAT_NONE = 0,
    PIXEL_FORMAT_RGBA_8888 = HAL_PIXEL_FORMAT_RGBA_8888,
    PIXEL_FORMAT_RGBX_8888 = HAL_PIXEL_FORMAT_RGBX_8888,
    PIXEL_FORMAT_RGB_888 = HAL_PIXEL_FORMAT_RGB_888,
    PIXEL_FORMAT_RGB_565 = HAL_PIXEL_FORMAT_RGB_565,
    PIXEL_FORMAT_BGRA_8888 = HAL_PIXEL_FORMAT_BGRA_8888,
    PIXEL_FORMAT_RGBA_FP16 = HAL_PIXEL_FORMAT_RGBA_FP16,
    PIXEL_FORMAT_RGBA_1010102 = HAL_PIXEL_FORMAT_RGBA_1010102,
};

typedef int32_t PixelFormat;

}  // namespace android
