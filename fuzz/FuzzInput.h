// Shared by the fuzz targets: a reader over the fuzzer's input and a silent log.
#pragma once

#include <android/log.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "CaptureLog.h"

namespace capture_fuzz {

// Hands out the input from the front; past its end every value reads as zero.
class Input {
public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    template <typename T>
    T take() {
        T value{};
        fill(&value, sizeof(value));
        return value;
    }
    // Copies up to `size` bytes and zeroes what the input could not provide.
    void fill(void* out, size_t size) {
        const size_t n = std::min(size, mSize);
        std::memset(out, 0, size);
        if (n > 0) std::memcpy(out, mData, n);
        mData += n;
        mSize -= n;
    }
    // A length byte, then that many bytes (at most `limit`).
    std::string takeString(size_t limit) {
        const size_t n = std::min({static_cast<size_t>(take<uint8_t>()), limit, mSize});
        std::string text(reinterpret_cast<const char*>(mData), n);
        mData += n;
        mSize -= n;
        return text;
    }
    const uint8_t* data() const { return mData; }
    size_t size() const { return mSize; }

private:
    const uint8_t* mData;
    size_t mSize;
};

// Every trace is formatted (so its arguments are evaluated on every path) and then dropped.
inline void quietLogs() {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 64u, __ATOMIC_RELAXED);
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
}

}  // namespace capture_fuzz
