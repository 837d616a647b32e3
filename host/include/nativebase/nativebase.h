// The buffer record that EGL's Android native-buffer images take (EGL_NATIVE_BUFFER_ANDROID).
// Only the description of the buffer is kept; hosts have no window system behind it.
#pragma once

#include <cutils/native_handle.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ANativeWindowBuffer {
    int width;
    int height;
    int stride; /* pixels */
    int format; /* HAL_PIXEL_FORMAT_* */
    uintptr_t layerCount;
    const native_handle_t* handle;
    uint64_t usage;
} ANativeWindowBuffer_t;

#ifdef __cplusplus
}
#endif
