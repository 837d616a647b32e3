#define LOG_TAG "GraphicBuffer"

#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <ui/GrallocPrivate.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <limits>

namespace android {

namespace {

enum class Chroma {
    kNone,            // packed formats: one plane
    kInterleaved420,  // one CbCr plane of ceil(h/2) rows as wide as the luma rows
    kInterleaved422,  // one CbCr plane of h rows as wide as the luma rows
    kPlanar420,       // Cr then Cb planes of ceil(h/2) rows half as wide as the luma rows
};

struct FormatLayout {
    int32_t format;
    uint32_t alignPixels;
    // Bytes per pixel of the first plane as a fraction: packed 10-bit samples take 5/4.
    uint32_t bytesNum;
    uint32_t bytesDen;
    Chroma chroma;
};

// The table documented in <ui/GrallocPrivate.h>.
constexpr FormatLayout kLayouts[] = {
    {HAL_PIXEL_FORMAT_RGBA_8888, 16, 4, 1, Chroma::kNone},
    {HAL_PIXEL_FORMAT_RGBX_8888, 16, 4, 1, Chroma::kNone},
    {HAL_PIXEL_FORMAT_BGRA_8888, 16, 4, 1, Chroma::kNone},
    {HAL_PIXEL_FORMAT_RGBA_1010102, 16, 4, 1, Chroma::kNone},
    {HAL_PIXEL_FORMAT_RGB_888, 64, 3, 1, Chroma::kNone},
    {HAL_PIXEL_FORMAT_RGB_565, 32, 2, 1, Chroma::kNone},
    {HAL_PIXEL_FORMAT_YCbCr_422_I, 32, 2, 1, Chroma::kNone},
    {HAL_PIXEL_FORMAT_RGBA_FP16, 8, 8, 1, Chroma::kNone},
    {HAL_PIXEL_FORMAT_YCbCr_422_SP, 64, 1, 1, Chroma::kInterleaved422},
    {HAL_PIXEL_FORMAT_YCrCb_420_SP, 64, 1, 1, Chroma::kInterleaved420},
    {GRALLOC_PRIVATE_FORMAT_NV12, 64, 1, 1, Chroma::kInterleaved420},
    {HAL_PIXEL_FORMAT_YV12, 32, 1, 1, Chroma::kPlanar420},
    {HAL_PIXEL_FORMAT_YCBCR_P010, 64, 5, 4, Chroma::kInterleaved420},
    {GRALLOC_PRIVATE_FORMAT_YUV422_10B, 64, 5, 4, Chroma::kInterleaved422},
};

const FormatLayout* findLayout(int32_t format) {
    for (const FormatLayout& layout : kLayouts) {
        if (layout.format == format) return &layout;
    }
    return nullptr;
}

struct Geometry {
    uint32_t stride;  // pixels
    uint64_t rowBytes;
    uint64_t plane1Offset;
    uint64_t plane2Offset;
    uint64_t size;
};

Geometry computeGeometry(const FormatLayout& layout, uint32_t width, uint32_t height) {
    Geometry g{};
    const uint64_t align = layout.alignPixels;
    g.stride = static_cast<uint32_t>((width + align - 1) / align * align);
    g.rowBytes = static_cast<uint64_t>(g.stride) * layout.bytesNum / layout.bytesDen;
    const uint64_t lumaBytes = g.rowBytes * height;
    const uint64_t chromaRows = (static_cast<uint64_t>(height) + 1) / 2;
    switch (layout.chroma) {
        case Chroma::kNone:
            g.size = lumaBytes;
            break;
        case Chroma::kInterleaved420:
            g.plane1Offset = lumaBytes;
            g.size = lumaBytes + g.rowBytes * chromaRows;
            break;
        case Chroma::kInterleaved422:
            g.plane1Offset = lumaBytes;
            g.size = lumaBytes * 2;
            break;
        case Chroma::kPlanar420:
            g.plane1Offset = lumaBytes;
            g.plane2Offset = lumaBytes + g.rowBytes / 2 * chromaRows;
            g.size = lumaBytes + 2 * (g.rowBytes / 2 * chromaRows);
            break;
    }
    return g;
}

// Counts no larger than the platform's limits and the header version we were built with;
// anything else is not a native handle we may read, clone or close.
bool isSaneHandle(const native_handle_t* h) {
    return h != nullptr && h->version == static_cast<int>(sizeof(native_handle_t)) &&
           h->numFds >= 0 && h->numFds <= NATIVE_HANDLE_MAX_FDS && h->numInts >= 0 &&
           h->numInts <= NATIVE_HANDLE_MAX_INTS;
}

bool hasBufferFd(const native_handle_t* h) {
    return isSaneHandle(h) && h->numFds >= 1 && h->data[0] >= 0;
}

bool isAllocatorHandle(const native_handle_t* h) {
    return hasBufferFd(h) && h->numFds == kGrallocPrivateNumFds &&
           h->numInts >= kGrallocPrivateNumInts;
}

void freeHandle(const native_handle_t* h) {
    native_handle_t* mutableHandle = const_cast<native_handle_t*>(h);
    native_handle_close(mutableHandle);
    native_handle_delete(mutableHandle);
}

int lowWord(uint64_t v) {
    return static_cast<int>(static_cast<uint32_t>(v & 0xffffffffu));
}

int highWord(uint64_t v) {
    return static_cast<int>(static_cast<uint32_t>(v >> 32));
}

}  // namespace

GraphicBuffer::GraphicBuffer(uint32_t inWidth, uint32_t inHeight, PixelFormat inFormat,
                             uint32_t inUsage, std::string requestorName)
    : ANativeWindowBuffer() {
    width = static_cast<int>(std::min<uint32_t>(inWidth, std::numeric_limits<int>::max()));
    height = static_cast<int>(std::min<uint32_t>(inHeight, std::numeric_limits<int>::max()));
    format = inFormat;
    layerCount = 1;
    usage = inUsage;
    allocate(requestorName);
}

GraphicBuffer::GraphicBuffer(const native_handle_t* inHandle, HandleWrapMethod method,
                             uint32_t inWidth, uint32_t inHeight, PixelFormat inFormat,
                             uint32_t inLayerCount, uint64_t inUsage, uint32_t inStride)
    : ANativeWindowBuffer() {
    constexpr uint32_t kIntMax = std::numeric_limits<int>::max();
    width = static_cast<int>(std::min(inWidth, kIntMax));
    height = static_cast<int>(std::min(inHeight, kIntMax));
    stride = static_cast<int>(std::min(inStride, kIntMax));
    format = inFormat;
    layerCount = inLayerCount;
    usage = inUsage;
    wrap(inHandle, method);
}

GraphicBuffer::~GraphicBuffer() {
    if (mMapping != nullptr) munmap(mMapping, mMapSize);
    if (mOwnsHandle && handle != nullptr) freeHandle(handle);
}

void GraphicBuffer::allocate(const std::string& requestorName) {
    const FormatLayout* layout = findLayout(format);
    const uint32_t w = static_cast<uint32_t>(width);
    const uint32_t h = static_cast<uint32_t>(height);
    if (layout == nullptr || w == 0 || h == 0 || w > kGrallocMaxDimension ||
        h > kGrallocMaxDimension) {
        ALOGE("allocation of %ux%u format %d refused for %s", w, h, format, requestorName.c_str());
        mInitCheck = BAD_VALUE;
        return;
    }
    const Geometry g = computeGeometry(*layout, w, h);

    // memfd names are limited to 249 bytes and only serve /proc listings.
    const std::string name = ("gralloc:" + requestorName).substr(0, 240);
    int fd = memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) {
        ALOGE("memfd_create for %s failed: %s", requestorName.c_str(), strerror(errno));
        mInitCheck = NO_MEMORY;
        return;
    }
    if (ftruncate(fd, static_cast<off_t>(g.size)) != 0) {
        ALOGE("sizing a %llu-byte buffer for %s failed: %s",
              static_cast<unsigned long long>(g.size), requestorName.c_str(), strerror(errno));
        close(fd);
        mInitCheck = NO_MEMORY;
        return;
    }
    // A holder of a clone must not be able to shrink the file under someone else's mapping.
    if (fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
        ALOGW("sealing the buffer of %s failed: %s", requestorName.c_str(), strerror(errno));
    }

    native_handle_t* h15 = native_handle_create(kGrallocPrivateNumFds, kGrallocPrivateNumInts);
    if (h15 == nullptr) {
        close(fd);
        mInitCheck = NO_MEMORY;
        return;
    }
    int* data = h15->data;
    data[kGrallocPrivateFd] = fd;
    data[kGrallocPrivateMagicIndex] = kGrallocPrivateMagic;
    data[kGrallocPrivateWidth] = width;
    data[kGrallocPrivateHeight] = height;
    data[kGrallocPrivateFormat] = format;
    data[kGrallocPrivateUsageLow] = lowWord(usage);
    data[kGrallocPrivateUsageHigh] = highWord(usage);
    data[kGrallocPrivateSizeLow] = lowWord(g.size);
    data[kGrallocPrivateSizeHigh] = highWord(g.size);
    data[kGrallocPrivateLayerCount] = 1;
    data[kGrallocPrivateByteStride] = static_cast<int>(g.rowBytes);
    data[kGrallocPrivatePlane1Offset] = static_cast<int>(g.plane1Offset);
    data[kGrallocPrivatePlane2Offset] = static_cast<int>(g.plane2Offset);
    data[kGrallocPrivateStrideIndex] = static_cast<int>(g.stride);

    handle = h15;
    mOwnsHandle = true;
    stride = static_cast<int>(g.stride);
    mInitCheck = NO_ERROR;
}

void GraphicBuffer::wrap(const native_handle_t* inHandle, HandleWrapMethod method) {
    if (!isSaneHandle(inHandle)) {
        ALOGE("wrap of %s handle refused", inHandle == nullptr ? "a null" : "a malformed");
        mInitCheck = BAD_VALUE;
        return;
    }
    switch (method) {
        case WRAP_HANDLE:
            handle = inHandle;
            mOwnsHandle = false;
            break;
        case TAKE_HANDLE:
        case TAKE_UNREGISTERED_HANDLE:
            handle = inHandle;
            mOwnsHandle = true;
            break;
        case CLONE_HANDLE: {
            native_handle_t* clone = native_handle_clone(inHandle);
            if (clone == nullptr) {
                ALOGE("cloning a handle of %d fds failed: %s", inHandle->numFds, strerror(errno));
                mInitCheck = NO_MEMORY;
                return;
            }
            handle = clone;
            mOwnsHandle = true;
            break;
        }
        default:
            ALOGE("unknown handle wrap method %d", static_cast<int>(method));
            mInitCheck = BAD_VALUE;
            return;
    }
    mInitCheck = isAllocatorHandle(handle) ? NO_ERROR : BAD_VALUE;
}

ANativeWindowBuffer* GraphicBuffer::getNativeBuffer() const {
    return const_cast<GraphicBuffer*>(this);
}

status_t GraphicBuffer::lock(uint32_t /*inUsage*/, void** vaddr, int32_t* outBytesPerPixel,
                             int32_t* outBytesPerStride) {
    if (vaddr == nullptr) return BAD_VALUE;
    *vaddr = nullptr;
    if (outBytesPerPixel != nullptr) *outBytesPerPixel = -1;
    if (outBytesPerStride != nullptr) *outBytesPerStride = -1;
    if (!hasBufferFd(handle)) return NO_INIT;

    std::lock_guard<std::mutex> guard(mMapLock);
    if (mMapping != nullptr) {
        ALOGE("lock of a buffer that is already locked");
        return INVALID_OPERATION;
    }
    // Every descriptor of the buffer, end to end: the platform's mapper gives one address for
    // the whole buffer, also when its planes live behind several descriptors. Each descriptor
    // but the last starts on a page of its own.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t offsets[NATIVE_HANDLE_MAX_FDS + 1] = {};
    for (int i = 0; i < handle->numFds; ++i) {
        struct stat st;
        if (handle->data[i] < 0 || fstat(handle->data[i], &st) != 0 || st.st_size <= 0) {
            ALOGE("lock: buffer descriptor %d has no contents", handle->data[i]);
            return BAD_VALUE;
        }
        const size_t bytes = static_cast<size_t>(st.st_size);
        offsets[i + 1] = offsets[i] + (i + 1 < handle->numFds ? (bytes + page - 1) / page * page
                                                              : bytes);
    }
    const size_t size = offsets[handle->numFds];
    void* mapping = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (int i = 0; mapping != MAP_FAILED && i < handle->numFds; ++i) {
        char* at = static_cast<char*>(mapping) + offsets[i];
        if (mmap(at, offsets[i + 1] - offsets[i], PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED,
                 handle->data[i], 0) == MAP_FAILED) {
            const int error = errno;
            munmap(mapping, size);
            errno = error;
            mapping = MAP_FAILED;
        }
    }
    if (mapping == MAP_FAILED) {
        const int error = errno;
        ALOGE("lock: mapping %zu bytes failed: %s", size, strerror(error));
        return -error;
    }
    mMapping = mapping;
    mMapSize = size;
    *vaddr = mapping;

    const FormatLayout* layout = findLayout(format);
    if (layout != nullptr && stride >= 0) {
        const uint64_t rowBytes =
            static_cast<uint64_t>(stride) * layout->bytesNum / layout->bytesDen;
        if (outBytesPerPixel != nullptr && layout->bytesDen == 1) {
            *outBytesPerPixel = static_cast<int32_t>(layout->bytesNum);
        }
        if (outBytesPerStride != nullptr &&
            rowBytes <= static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
            *outBytesPerStride = static_cast<int32_t>(rowBytes);
        }
    }
    return NO_ERROR;
}

status_t GraphicBuffer::lockYCbCr(uint32_t inUsage, android_ycbcr* ycbcr) {
    if (ycbcr == nullptr) return BAD_VALUE;
    const FormatLayout* layout = findLayout(format);
    if (layout == nullptr || layout->chroma == Chroma::kNone || layout->bytesDen != 1 ||
        !isAllocatorHandle(handle)) {
        return BAD_VALUE;
    }
    void* vaddr = nullptr;
    if (status_t locked = lock(inUsage, &vaddr); locked != NO_ERROR) return locked;
    uint8_t* base = static_cast<uint8_t*>(vaddr);
    const size_t rowBytes = static_cast<size_t>(handle->data[kGrallocPrivateByteStride]);
    uint8_t* plane1 = base + handle->data[kGrallocPrivatePlane1Offset];
    *ycbcr = android_ycbcr{};
    ycbcr->y = base;
    ycbcr->ystride = rowBytes;
    if (layout->chroma == Chroma::kPlanar420) {
        // YV12: Cr plane, then Cb, each at half the luma stride.
        ycbcr->cr = plane1;
        ycbcr->cb = base + handle->data[kGrallocPrivatePlane2Offset];
        ycbcr->cstride = rowBytes / 2;
        ycbcr->chroma_step = 1;
    } else {
        const bool crFirst = format == HAL_PIXEL_FORMAT_YCrCb_420_SP;
        ycbcr->cb = crFirst ? plane1 + 1 : plane1;
        ycbcr->cr = crFirst ? plane1 : plane1 + 1;
        ycbcr->cstride = rowBytes;
        ycbcr->chroma_step = 2;
    }
    return NO_ERROR;
}

status_t GraphicBuffer::unlock() {
    std::lock_guard<std::mutex> guard(mMapLock);
    if (mMapping == nullptr) return INVALID_OPERATION;
    munmap(mMapping, mMapSize);
    mMapping = nullptr;
    mMapSize = 0;
    return NO_ERROR;
}

}  // namespace android
