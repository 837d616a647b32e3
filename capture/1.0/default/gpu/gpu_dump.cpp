#include "gpu_dump.h"

#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "GpuLog.h"
#include "PlatformConfig.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

std::atomic<uint32_t> dump_input_index{1};
std::atomic<uint32_t> dump_output_index{1};

namespace {

// Pitch = stride * pitchNum / pitchDen (32-bit), size = stride * height * sizeNum / sizeDen
// (64-bit). The packed 10-bit rows scale the byte stride up by 5/4: viewers of these dumps
// expect that pitch in the name.
struct DumpFormat {
    uint32_t format;
    const char* name;
    uint32_t pitchNum;
    uint32_t pitchDen;
    uint32_t sizeNum;
    uint32_t sizeDen;
};

constexpr DumpFormat kDumpFormats[] = {
    {1, "RGBA8888", 1, 4, 1, 1},
    {3, "RGB888", 1, 3, 1, 1},
    {4, "RGB565", 1, 2, 1, 1},
    {5, "BGRA8888", 1, 4, 1, 1},
    {16, "NV16", 1, 1, 2, 1},
    {17, "NV21", 1, 1, 3, 2},
    {20, "YUV422", 1, 2, 1, 1},
    {21, "NV12", 1, 1, 3, 2},
    {22, "ARGB16161616", 1, 8, 1, 1},
    {43, "ABGR2101010", 1, 4, 1, 1},
    {54, "YC420_10B", 5, 4, 3, 2},
    {262, "YUV422_10B", 5, 4, 1, 1},
    {0x32315659, "YUV420_8B", 1, 1, 3, 2},
};

const DumpFormat* findDumpFormat(uint32_t format) {
    for (const DumpFormat& entry : kDumpFormats) {
        if (entry.format == format) return &entry;
    }
    return nullptr;
}

// Appends to a fixed buffer without ever writing past it. Returns snprintf's result; *truncated
// is set once anything did not fit.
__attribute__((format(printf, 5, 6))) int appendPath(char* path, size_t capacity, size_t* length,
                                                     bool* truncated, const char* fmt, ...) {
    if (*length >= capacity) {
        *truncated = true;
        return 0;
    }
    va_list args;
    va_start(args, fmt);
    const int ret = vsnprintf(path + *length, capacity - *length, fmt, args);
    va_end(args);
    if (ret < 0) return ret;
    const size_t wanted = static_cast<size_t>(ret);
    if (wanted >= capacity - *length) {
        *truncated = true;
        *length = capacity - 1;
    } else {
        *length += wanted;
    }
    return ret;
}

bool dumpEnabled() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kDumpDataProperty, value, "0");
    return strcmp(value, "1") == 0;
}

uint32_t dumpWithCounter(std::atomic<uint32_t>& counter, const char* prefix, uint32_t stride,
                         uint32_t width, uint32_t height, uint32_t format, const void* buffer,
                         uint64_t bufferSize) {
    if (counter.load(std::memory_order_relaxed) >= kDumpIndexLimit) {
        counter.store(1, std::memory_order_relaxed);
    }
    const uint32_t index = counter.load(std::memory_order_relaxed);
    if (DumpData(prefix, index, stride, width, height, format, buffer, bufferSize) == 0) {
        return 0;
    }
    return counter.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

void CalculateDumpInfo(uint32_t stride, uint32_t height, uint32_t format, uint32_t* pitchInPixel,
                       uint64_t* size, char* formatName) {
    if (pitchInPixel == nullptr || size == nullptr || formatName == nullptr) return;
    memset(formatName, 0, kDumpNameSize);
    const DumpFormat* entry = findDumpFormat(format);
    if (entry == nullptr) {
        GPU_LOGE("can't find this format: %u!", format);
        *pitchInPixel = 0;
        *size = 0;
        return;
    }
    *pitchInPixel = stride * entry->pitchNum / entry->pitchDen;
    *size = static_cast<uint64_t>(stride) * height * entry->sizeNum / entry->sizeDen;
    const int ret = snprintf(formatName, kDumpNameSize, "%s", entry->name);
    if (ret < 0) {
        GPU_LOGE("error in snprintf formatName: ret(%d)", ret);
    }
}

int DumpData(const char* prefix, uint32_t index, uint32_t stride, uint32_t width, uint32_t height,
             uint32_t format, const void* buffer, uint64_t bufferSize) {
    if (prefix == nullptr || buffer == nullptr) {
        GPU_LOGE("DumpData buffer is NULL!");
        return 0;
    }
    if (stride == 0 || width == 0 || height == 0) {
        GPU_LOGE("Invalid params: stride(%u) width(%u) height(%u)", stride, width, height);
        return 0;
    }
    // Read for every frame, so dumping can be switched on and off while capture runs.
    if (!dumpEnabled()) return 0;

    uint32_t pitchInPixel = 0;
    uint64_t size = 0;
    char formatName[kDumpNameSize];
    CalculateDumpInfo(stride, height, format, &pitchInPixel, &size, formatName);
    if (pitchInPixel == 0 || size == 0) return 0;
    if (size > bufferSize) {
        const unsigned long long wanted = size;
        const unsigned long long available = bufferSize;
        GPU_LOGE("frame of %llu bytes is larger than its %llu-byte buffer, not dumped", wanted,
                 available);
        return 0;
    }

    char path[kDumpNameSize] = {};
    size_t length = 0;
    bool truncated = false;
    appendPath(path, sizeof(path), &length, &truncated, "%s", dumpDirectory());
    // A runaway prefix would crowd out the fields that identify the frame.
    if (strnlen(prefix, 21) < 21) {
        appendPath(path, sizeof(path), &length, &truncated, "%s", prefix);
    }
    int ret = appendPath(path, sizeof(path), &length, &truncated, "%04d", static_cast<int>(index));
    if (ret < 0) GPU_LOGE("error in snprintf index: ret(%d)", ret);
    if (pitchInPixel != width) {
        appendPath(path, sizeof(path), &length, &truncated, "_s");
        ret = appendPath(path, sizeof(path), &length, &truncated, "%d",
                         static_cast<int>(pitchInPixel));
        if (ret < 0) GPU_LOGE("error in snprintf pitchInPixel: ret(%d)", ret);
    }
    appendPath(path, sizeof(path), &length, &truncated, "_");
    ret = appendPath(path, sizeof(path), &length, &truncated, "%d", static_cast<int>(width));
    if (ret < 0) GPU_LOGE("error in snprintf width: ret(%d)", ret);
    appendPath(path, sizeof(path), &length, &truncated, "x");
    ret = appendPath(path, sizeof(path), &length, &truncated, "%d", static_cast<int>(height));
    if (ret < 0) GPU_LOGE("error in snprintf height: ret(%d)", ret);
    if (formatName[0] != '\0') {
        appendPath(path, sizeof(path), &length, &truncated, "_%s", formatName);
    }
    appendPath(path, sizeof(path), &length, &truncated, ".raw");
    // A cut-off name could land on some other file; better no dump than a wrong one.
    if (truncated) {
        GPU_LOGE("dump path longer than %zu bytes, not dumped: %s", sizeof(path) - 1, path);
        return 0;
    }

    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        GPU_LOGD("failed to open [%s] err:%d", path, errno);
        return 0;
    }
    const size_t count = static_cast<uint32_t>(size);
    const ssize_t written = write(fd, buffer, count);
    GPU_LOGD("write %d bytes to %s success", static_cast<int>(written), path);
    close(fd);
    return 1;
}

uint32_t DumpInputData(uint32_t stride, uint32_t width, uint32_t height, uint32_t format,
                       const void* buffer, uint64_t bufferSize) {
    return dumpWithCounter(dump_input_index, kDumpInputPrefix, stride, width, height, format,
                           buffer, bufferSize);
}

uint32_t DumpOutputData(uint32_t stride, uint32_t width, uint32_t height, uint32_t format,
                        const void* buffer, uint64_t bufferSize) {
    return dumpWithCounter(dump_output_index, kDumpOutputPrefix, stride, width, height, format,
                           buffer, bufferSize);
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
