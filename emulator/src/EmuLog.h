// Log lines of the emulated hardware: fault settings it cannot use at error priority, refusals at
// warning priority, state changes at info.
#pragma once

#include <android/log.h>

#define EMU_LOG_TAG "CAPTURE_EMU"

// A fault setting that cannot be understood: the user asked for something that will not happen.
#define EMU_LOGE(fmt, ...) \
    __android_log_print(ANDROID_LOG_ERROR, EMU_LOG_TAG, "%s: " fmt, __func__, ##__VA_ARGS__)
#define EMU_LOGW(fmt, ...) \
    __android_log_print(ANDROID_LOG_WARN, EMU_LOG_TAG, "%s: " fmt, __func__, ##__VA_ARGS__)
#define EMU_LOGI(fmt, ...) \
    __android_log_print(ANDROID_LOG_INFO, EMU_LOG_TAG, "%s: " fmt, __func__, ##__VA_ARGS__)
#define EMU_LOGD(fmt, ...) \
    __android_log_print(ANDROID_LOG_DEBUG, EMU_LOG_TAG, "%s: " fmt, __func__, ##__VA_ARGS__)
