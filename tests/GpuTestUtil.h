// Helpers of the GPU path's tests.
#pragma once

#include <EGL/egl.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <ui/GraphicBuffer.h>

#include <functional>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "gpu_draw.h"
#include "hostgl/HostGl.h"

namespace gpu_test {

// CPU read and write, GPU texture and render target, composer: what a capture client asks for.
constexpr uint32_t kClientUsage = 0x02001B33;

// While alive, the host graphics layer leaves images and shaders to Mesa alone, as on a platform
// without native-buffer images and the YUV target.
struct HostGlLayerOff {
    HostGlLayerOff() { setenv("CAPTURE_HOST_GL", "0", 1); }
    ~HostGlLayerOff() { unsetenv("CAPTURE_HOST_GL"); }
    HostGlLayerOff(const HostGlLayerOff&) = delete;
    HostGlLayerOff& operator=(const HostGlLayerOff&) = delete;
};

// A buffer of the host allocator as a capture client has it; null when refused.
inline ::android::sp<::android::GraphicBuffer> allocate(uint32_t format, int width, int height) {
    ::android::sp<::android::GraphicBuffer> buffer = new ::android::GraphicBuffer(
        width, height, static_cast<int32_t>(format), kClientUsage, "gpu-test");
    return buffer->initCheck() == ::android::NO_ERROR ? buffer : nullptr;
}

// Runs `use` on the buffer's whole memory; false when it cannot be mapped.
inline bool withMemory(const ::android::sp<::android::GraphicBuffer>& buffer,
                       const std::function<void(uint8_t*, size_t)>& use) {
    struct stat st;
    void* memory = nullptr;
    if (buffer == nullptr || fstat(buffer->handle->data[0], &st) != 0 ||
        buffer->lock(0x33, &memory) != ::android::NO_ERROR) {
        return false;
    }
    use(static_cast<uint8_t*>(memory), static_cast<size_t>(st.st_size));
    buffer->unlock();
    return true;
}

// The buffer's whole memory, copied out; empty when it cannot be mapped.
inline std::vector<uint8_t> contents(const ::android::sp<::android::GraphicBuffer>& buffer) {
    std::vector<uint8_t> bytes;
    withMemory(buffer, [&](uint8_t* memory, size_t size) { bytes.assign(memory, memory + size); });
    return bytes;
}

}  // namespace gpu_test
