// The service's one logging family.
//
// Every macro tests the level before anything is formatted, so a disabled trace costs one
// compare. Lines start "[function][line] " and go to the Android log under "CAPTURE_HIDL".
#pragma once

#include <android/log.h>
#include <stdint.h>

extern "C" {
// Verbosity threshold of the service; set by whoever hosts the library, never by the service.
extern uint32_t CAPTURE_HAL_LOG_LEVEL;
}

#define CAPTURE_LOG_TAG "CAPTURE_HIDL"

// The name the lines carry: the enclosing function's, unless a file that implements part of an
// operation names the operation before including this header.
#ifndef CAPTURE_LOG_FUNCTION
#define CAPTURE_LOG_FUNCTION __func__
#endif

// Thresholds: entry and value traces, details, refusals.
#define CAPTURE_LEVEL_INFO 64u
#define CAPTURE_LEVEL_DEBUG 48u
#define CAPTURE_LEVEL_WARN 32u

// Read with a relaxed atomic load: other modules of the process may change it while binder and
// sub-HAL threads log.
#define CAPTURE_LOG_LEVEL() __atomic_load_n(&CAPTURE_HAL_LOG_LEVEL, __ATOMIC_RELAXED)

#define CAPTURE_LOG_AT(threshold, prio, fmt, ...)                                               \
    do {                                                                                        \
        if (CAPTURE_LOG_LEVEL() >= (threshold)) {                                               \
            __android_log_print((prio), CAPTURE_LOG_TAG, "[%s][%d] " fmt, CAPTURE_LOG_FUNCTION, \
                                __LINE__, ##__VA_ARGS__);                                       \
        }                                                                                       \
    } while (0)

// Entry, call and value traces (priority 4 at level 64).
#define CAPTURE_LOGI(fmt, ...) \
    CAPTURE_LOG_AT(CAPTURE_LEVEL_INFO, ANDROID_LOG_INFO, fmt, ##__VA_ARGS__)
// Detail traces (priority 3 at level 48).
#define CAPTURE_LOGD(fmt, ...) \
    CAPTURE_LOG_AT(CAPTURE_LEVEL_DEBUG, ANDROID_LOG_DEBUG, fmt, ##__VA_ARGS__)
// Refused requests and mapping complaints (priority 5 at level 32).
#define CAPTURE_LOGW(fmt, ...) \
    CAPTURE_LOG_AT(CAPTURE_LEVEL_WARN, ANDROID_LOG_WARN, fmt, ##__VA_ARGS__)
// Errors (priority 6 at level 32).
#define CAPTURE_LOGE(fmt, ...) \
    CAPTURE_LOG_AT(CAPTURE_LEVEL_WARN, ANDROID_LOG_ERROR, fmt, ##__VA_ARGS__)

// Sub-HAL call failures are always written, whatever the level (priority 5).
#define CAPTURE_LOGW_ALWAYS(fmt, ...)                                                             \
    __android_log_print(ANDROID_LOG_WARN, CAPTURE_LOG_TAG, "[%s][%d] " fmt, CAPTURE_LOG_FUNCTION, \
                        __LINE__, ##__VA_ARGS__)

// Same, for helpers that report on behalf of their caller's function and line.
#define CAPTURE_LOGW_ALWAYS_AT(func, line, fmt, ...) \
    __android_log_print(ANDROID_LOG_WARN, CAPTURE_LOG_TAG, "[%s][%d] " fmt, (func), (line), \
                        ##__VA_ARGS__)
#define CAPTURE_LOGI_AT(func, line, fmt, ...)                                               \
    do {                                                                                    \
        if (CAPTURE_LOG_LEVEL() >= CAPTURE_LEVEL_INFO) {                                    \
            __android_log_print(ANDROID_LOG_INFO, CAPTURE_LOG_TAG, "[%s][%d] " fmt, (func), \
                                (line), ##__VA_ARGS__);                                     \
        }                                                                                   \
    } while (0)
