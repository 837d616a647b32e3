// Shared by the fuzz targets: a reader over the input, a silent log, a scratch folder.
#pragma once

#include <android/log.h>
#include <ftw.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CaptureLog.h"

namespace capture_fuzz {

// Hands out the input from the front; past its end every byte reads as zero.
class Input {
public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    template <typename T>
    T take() {
        T value{};
        fill(&value, sizeof(value));
        return value;
    }
    void fill(void* out, size_t size) {
        const size_t n = std::min(size, mSize);
        std::memset(out, 0, size);
        if (n > 0) std::memcpy(out, mData, n);
        mData += n;
        mSize -= n;
    }
    // A length byte, then that many bytes (at most `limit`).
    std::string takeString(size_t limit) {
        std::string text(std::min({size_t{take<uint8_t>()}, limit, mSize}), '\0');
        fill(&text[0], text.size());
        return text;
    }
    const uint8_t* data() const { return mData; }
    size_t size() const { return mSize; }

private:
    const uint8_t* mData;
    size_t mSize;
};

// Every trace is formatted (its arguments evaluated on every path), then dropped unless
// CAPTURE_FUZZ_LOG is set (to read what an input did); for every target, as it loads.
inline const bool kQuietLogs = [] {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 64u, __ATOMIC_RELAXED);
    if (getenv("CAPTURE_FUZZ_LOG") == nullptr) {
        __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
    }
    return true;
}();

inline void clearFolder(const std::string& root) {
    nftw(
        root.c_str(),
        [](const char* path, const struct stat*, int, struct FTW* at) {
            return at->level > 0 ? remove(path) : 0;
        },
        16, FTW_DEPTH | FTW_PHYS);
}
// A private folder (path ending with '/') under `parent`, removed at exit.
inline std::string scratchFolder(const char* parent) {
    static std::string root = std::string(parent) + "capture-fuzz-XXXXXX";
    if (mkdtemp(&root[0]) == nullptr) abort();
    root += '/';
    atexit([] {
        clearFolder(root);
        rmdir(root.c_str());
    });
    return root;
}

}  // namespace capture_fuzz
