// Helpers of the GPU path's tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <ui/GraphicBuffer.h>

#include <functional>
#include <vector>

#include "LogCapture.h"
#include "gpu_draw.h"
#include "hostgl/HostGl.h"

namespace gpu_test {

// A buffer of the host allocator with the usage a capture client asks for (CPU read and write,
// GPU texture and render target, composer); null when refused.
inline ::android::sp<::android::GraphicBuffer> allocate(uint32_t format, int width, int height) {
    ::android::sp<::android::GraphicBuffer> buffer = new ::android::GraphicBuffer(
        width, height, static_cast<int32_t>(format), 0x02001B33, "gpu-test");
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
