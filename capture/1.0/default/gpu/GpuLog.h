// Logging of the GPU path and the frame dumps, under "GPU_CAPTURE".
//
// Gated lines test GPU_LOG_LEVEL before anything is formatted. Failed GL and EGL calls are
// always written: they are rare, and without them a black capture cannot be explained.
#pragma once

#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <android/log.h>
#include <stdint.h>

#include "gpu_draw.h"

#define GPU_LOG_TAG "GPU_CAPTURE"

#define GPU_LEVEL_INFO 64u
#define GPU_LEVEL_DEBUG 48u
#define GPU_LEVEL_ERROR 32u

// gpu_set_debug_log_level may run on any binder thread while another one draws.
#define GPU_LOG_LEVEL_NOW() __atomic_load_n(&GPU_LOG_LEVEL, __ATOMIC_RELAXED)

// The location the GL and EGL checks report, the same on every platform build.
#define GPU_DRAW_SOURCE_PATH "tv/hardware/interfaces/capture/1.0/default/gpu/gpu_draw"

#define GPU_LOG_AT(threshold, prio, fmt, ...)                                             \
    do {                                                                                  \
        if (GPU_LOG_LEVEL_NOW() >= (threshold)) {                                         \
            __android_log_print((prio), GPU_LOG_TAG, "[%s][%d] " fmt, __func__, __LINE__, \
                                ##__VA_ARGS__);                                           \
        }                                                                                 \
    } while (0)

#define GPU_LOGI(fmt, ...) GPU_LOG_AT(GPU_LEVEL_INFO, ANDROID_LOG_INFO, fmt, ##__VA_ARGS__)
#define GPU_LOGD(fmt, ...) GPU_LOG_AT(GPU_LEVEL_DEBUG, ANDROID_LOG_DEBUG, fmt, ##__VA_ARGS__)
#define GPU_LOGE(fmt, ...) GPU_LOG_AT(GPU_LEVEL_ERROR, ANDROID_LOG_ERROR, fmt, ##__VA_ARGS__)

// Driver info logs carry their own "[function(line)]" form.
#define GPU_LOG_INFO_LOG(text) \
    __android_log_print(ANDROID_LOG_ERROR, GPU_LOG_TAG, "[%s(%d)] %s\n", __func__, __LINE__, (text))

// Reports every GL error pending after the call just made.
#define GPU_CHECK_GL() gpu_report_gl_errors(__func__, __LINE__)

// Reports an EGL call that did not return EGL_TRUE; the work goes on.
#define GPU_CHECK_EGL(result)                                                     \
    do {                                                                          \
        if ((result) != EGL_TRUE) {                                               \
            __android_log_print(ANDROID_LOG_INFO, GPU_LOG_TAG,                    \
                                "Call EGL API result is not GL_TRUE in %s,%s,%d", \
                                GPU_DRAW_SOURCE_PATH, __func__, __LINE__);        \
        }                                                                         \
    } while (0)

inline void gpu_report_gl_errors(const char* function, int line) {
    // A lost context may keep reporting; a handful of flags is all GL can hold at once.
    constexpr int kMaxReportedErrors = 8;
    for (int i = 0; i < kMaxReportedErrors; ++i) {
        const GLenum error = glGetError();
        if (error == GL_NO_ERROR) return;
        __android_log_print(ANDROID_LOG_ERROR, GPU_LOG_TAG, "OpenGL error 0x%04X in %s,%s,%d",
                            error, GPU_DRAW_SOURCE_PATH, function, line);
    }
}
