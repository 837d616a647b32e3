// Host build of libui's GraphicBuffer over the memfd allocator of <ui/GrallocPrivate.h>.
//
// Like the device class it is itself the ANativeWindowBuffer that getNativeBuffer() hands to
// EGL, so width, height, stride, format, usage and handle are public fields.
#pragma once

#include <cutils/native_handle.h>
#include <nativebase/nativebase.h>
#include <stdint.h>
#include <system/graphics.h>
#include <ui/PixelFormat.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <mutex>
#include <string>

namespace android {

class GraphicBuffer : public ANativeWindowBuffer, public RefBase {
public:
    enum HandleWrapMethod {
        // Borrow the handle; the caller keeps it valid for the buffer's life.
        WRAP_HANDLE,
        // Take ownership of the handle; it is closed and deleted with the buffer.
        TAKE_HANDLE,
        // On hosts handles need no import, so this is TAKE_HANDLE.
        TAKE_UNREGISTERED_HANDLE,
        // Own a clone (new descriptors) of the handle; the caller keeps the original.
        CLONE_HANDLE,
    };

    GraphicBuffer(uint32_t inWidth, uint32_t inHeight, PixelFormat inFormat, uint32_t inUsage,
                  std::string requestorName = "<Unknown>");

    GraphicBuffer(const native_handle_t* inHandle, HandleWrapMethod method, uint32_t inWidth,
                  uint32_t inHeight, PixelFormat inFormat, uint32_t inLayerCount, uint64_t inUsage,
                  uint32_t inStride);

    GraphicBuffer(const GraphicBuffer&) = delete;
    GraphicBuffer& operator=(const GraphicBuffer&) = delete;

    // NO_ERROR when the buffer holds a handle with a descriptor to map.
    status_t initCheck() const { return mInitCheck; }

    uint32_t getWidth() const { return static_cast<uint32_t>(width); }
    uint32_t getHeight() const { return static_cast<uint32_t>(height); }
    uint32_t getStride() const { return static_cast<uint32_t>(stride); }
    uint64_t getUsage() const { return usage; }
    PixelFormat getPixelFormat() const { return format; }
    uint32_t getLayerCount() const { return static_cast<uint32_t>(layerCount); }

    ANativeWindowBuffer* getNativeBuffer() const;

    // Maps the whole buffer read/write. Bytes per pixel and per stride describe the first
    // plane; both are -1 where they are not whole numbers (packed 10-bit formats report only
    // the stride) or the format is unknown. A buffer is locked at most once at a time.
    status_t lock(uint32_t inUsage, void** vaddr, int32_t* outBytesPerPixel = nullptr,
                  int32_t* outBytesPerStride = nullptr);
    // Maps the buffer and points ycbcr at its planes: y, cb and cr, the byte strides of luma and
    // chroma rows, and the step between chroma samples (2 where Cb and Cr interleave). Only for
    // 8-bit YUV formats with separate luma and chroma planes; BAD_VALUE for the others.
    status_t lockYCbCr(uint32_t inUsage, android_ycbcr* ycbcr);
    status_t unlock();

private:
    ~GraphicBuffer() override;

    void allocate(const std::string& requestorName);
    void wrap(const native_handle_t* inHandle, HandleWrapMethod method);

    status_t mInitCheck = NO_INIT;
    bool mOwnsHandle = false;

    std::mutex mMapLock;
    void* mMapping = nullptr;
    size_t mMapSize = 0;
};

}  // namespace android
