// Helpers of the GPU path's tests: real allocator buffers, a dump folder, log-level scopes.
#pragma once

#include <EGL/egl.h>
#include <android-base/properties.h>
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "gpu_draw.h"
#include "gpu_dump.h"

namespace gpu_test {

using ::android::GraphicBuffer;
using ::android::sp;

// Usage the service's clients allocate capture buffers with.
constexpr uint32_t kClientUsage = 0x02001B33;

// A buffer from the host allocator whose every byte is a function of its offset and `seed`, so
// that a copy of it can be recognised.
inline sp<GraphicBuffer> makeFilledBuffer(uint32_t width, uint32_t height, int32_t format,
                                          uint8_t seed) {
    sp<GraphicBuffer> buffer = new GraphicBuffer(width, height, format, kClientUsage, "gpu-test");
    if (buffer->initCheck() != ::android::NO_ERROR) return nullptr;
    void* mapping = nullptr;
    if (buffer->lock(0x33, &mapping) != ::android::NO_ERROR) return nullptr;
    struct stat st;
    fstat(buffer->handle->data[0], &st);
    uint8_t* bytes = static_cast<uint8_t*>(mapping);
    for (off_t i = 0; i < st.st_size; ++i) {
        bytes[i] = static_cast<uint8_t>((i * 131 + (i >> 8) * 7 + seed) & 0xFF);
    }
    buffer->unlock();
    return buffer;
}

// Every byte behind a buffer's descriptor.
inline std::vector<uint8_t> bufferContents(const sp<GraphicBuffer>& buffer) {
    std::vector<uint8_t> out;
    struct stat st;
    if (buffer == nullptr || fstat(buffer->handle->data[0], &st) != 0) return out;
    void* mapping = nullptr;
    if (buffer->lock(0x33, &mapping) != ::android::NO_ERROR) return out;
    const uint8_t* bytes = static_cast<const uint8_t*>(mapping);
    out.assign(bytes, bytes + st.st_size);
    buffer->unlock();
    return out;
}

inline std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>());
}

// Names of the plain entries of a folder, sorted.
inline std::vector<std::string> listFolder(const std::string& folder) {
    std::vector<std::string> names;
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) return names;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

// A temporary dump folder that CAPTURE_DUMP_DIR points at while alive, with the dump property
// set to `property` ("1" switches dumping on).
class DumpFolder {
public:
    explicit DumpFolder(const char* property = "1") {
        char pattern[] = "/tmp/capture-dump-XXXXXX";
        const char* dir = mkdtemp(pattern);
        mPath = std::string(dir != nullptr ? dir : "/tmp/capture-dump-failed") + "/";
        setenv("CAPTURE_DUMP_DIR", mPath.c_str(), 1);
        setProperty(property);
    }
    ~DumpFolder() {
        setProperty("");
        unsetenv("CAPTURE_DUMP_DIR");
        for (const std::string& name : listFolder(mPath)) unlink((mPath + name).c_str());
        rmdir(mPath.c_str());
    }
    DumpFolder(const DumpFolder&) = delete;
    DumpFolder& operator=(const DumpFolder&) = delete;

    static void setProperty(const char* value) {
        ::android::base::SetProperty(
            ::vendor::quenlark::hardware::capture::V1_0::implementation::kDumpDataProperty, value);
    }
    const std::string& path() const { return mPath; }
    std::vector<std::string> files() const { return listFolder(mPath); }

private:
    std::string mPath;
};

// Mesa unloads its DRI driver at every eglTerminate, and what the driver's globals held is then
// lost: LeakSanitizer reports it against a module that no longer exists (so no suppression can
// name it), and each reload costs the heap a little. Tests that use EGL keep the driver loaded
// for the life of the process, which makes both go away without touching the code under test.
inline void keepMesaDriverLoaded() {
    static const bool done = []() {
        EGLDisplay display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
        if (eglInitialize(display, nullptr, nullptr) != EGL_TRUE) return false;
        dl_iterate_phdr(
            [](dl_phdr_info* info, size_t, void*) {
                const char* name = info->dlpi_name;
                if (name != nullptr && strstr(name, "/dri/") != nullptr) {
                    dlopen(name, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
                }
                return 0;
            },
            nullptr);
        eglTerminate(display);
        return true;
    }();
    (void)done;
}

inline void setGpuLogLevel(uint32_t level) {
    ::vendor::quenlark::hardware::capture::V1_0::implementation::gpu_set_debug_log_level(level);
}

// Lines of the log whose message contains `text`, in order, as their index in `lines`.
template <typename Lines>
std::vector<size_t> indicesOf(const Lines& lines, const std::string& text) {
    std::vector<size_t> found;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].message.find(text) != std::string::npos) found.push_back(i);
    }
    return found;
}

}  // namespace gpu_test
