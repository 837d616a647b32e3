#include "Instance.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "EmuLog.h"
#include "capture_emulator/Emulator.h"

namespace capture_emulator {

BufferRef::~BufferRef() {
    if (mAddr != nullptr) munmap(mAddr, mMapped);
    if (mFd >= 0) ::close(mFd);
}

uint64_t BufferRef::size() {
    struct stat st;
    if (mFd < 0 || fstat(mFd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0) return 0;
    return static_cast<uint64_t>(st.st_size);
}

uint8_t* BufferRef::span(uint64_t offset, uint64_t bytes, uint64_t* mapping) {
    std::lock_guard<std::mutex> guard(mLock);
    uint64_t now = size();
    if (bytes == 0 || offset > now || bytes > now - offset) return nullptr;
    if (mAddr == nullptr || mMapped != now) {
        if (mAddr != nullptr) munmap(mAddr, mMapped);
        mAddr = nullptr;
        mMapped = 0;
        void* addr = mmap(nullptr, now, PROT_READ | PROT_WRITE, MAP_SHARED, mFd, 0);
        if (addr == MAP_FAILED) {
            EMU_LOGW("cannot map a buffer of %llu bytes", static_cast<unsigned long long>(now));
            return nullptr;
        }
        mAddr = static_cast<uint8_t*>(addr);
        mMapped = now;
        ++mMappings;
    }
    if (mapping != nullptr) *mapping = mMappings;
    return mAddr + offset;
}

std::shared_ptr<BufferRef> importBuffer(int fd) {
    if (fd < 0) return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) return nullptr;
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_ACCMODE) != O_RDWR) return nullptr;
    int own = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (own < 0) return nullptr;
    return std::make_shared<BufferRef>(own);
}

std::string Job::describe() const {
    char text[256];
    if (live) {
        snprintf(text, sizeof(text), "point %u%s %ux%u@%u crop (%u,%u %ux%u) -> %s %ux%u@%u rot %u",
                 capPoint, pqId >= 0 ? (" pq " + std::to_string(pqId)).c_str() : "", srcWidth,
                 srcHeight, srcFps, crop.x, crop.y, crop.w, crop.h,
                 dstFormat != nullptr ? dstFormat->name : "?", dstWidth, dstHeight, dstFps,
                 rotation);
    } else {
        snprintf(text, sizeof(text),
                 "memory %s %ux%u crop (%u,%u %ux%u) -> %s %ux%u@%u rot %u pitch %u",
                 srcFormat != nullptr ? srcFormat->name : "?", srcWidth, srcHeight, crop.x, crop.y,
                 crop.w, crop.h, dstFormat != nullptr ? dstFormat->name : "?", dstWidth, dstHeight,
                 dstFps, rotation, dstLayout.pitch);
    }
    return text;
}

Instance::Instance(int32_t captureId) : id(captureId), opened(std::chrono::steady_clock::now()) {}

uint32_t produceFrame(const Job& job, uint64_t offset, const PatternClock& clock,
                      BufferPicture* shown) {
    if (job.dstFormat == nullptr || job.dstBuffer == nullptr) return kNotConfigured;
    const FrameLayout& layout = job.dstLayout;
    if (job.live) {
        std::shared_ptr<const PatternFrames> frames = PatternFrames::of(job);
        uint64_t mapping = 0;
        uint8_t* luma = job.dstBuffer->span(offset, layout.lumaSize, &mapping);
        uint8_t* chroma = layout.chromaSize != 0 ? job.dstBuffer->span(offset + layout.chromaOffset,
                                                                       layout.chromaSize, &mapping)
                                                 : nullptr;
        if (luma == nullptr || (layout.chromaSize != 0 && chroma == nullptr)) {
            return kBufferTooSmall;
        }
        return frames->draw(FrameView{luma, chroma, layout.pitch}, clock, mapping, shown) ? kOk
                                                                                          : kFormat;
    }
    const bool turned = job.rotation == 90 || job.rotation == 270;
    const uint32_t outW = turned ? job.dstHeight : job.dstWidth;
    const uint32_t outH = turned ? job.dstWidth : job.dstHeight;

    ArgbImage scaled;
    {
        const FrameLayout& in = job.srcLayout;
        uint64_t lumaBytes = in.lumaSize, chromaBytes = in.chromaSize;
        uint8_t* luma = job.srcBuffer->span(job.srcLumaOffset, lumaBytes);
        uint8_t* chroma =
            chromaBytes != 0 ? job.srcBuffer->span(job.srcChromaOffset, chromaBytes) : nullptr;
        if (luma == nullptr || (chromaBytes != 0 && chroma == nullptr)) return kBufferTooSmall;
        ArgbImage source;
        Rect crop = job.crop;
        FrameView view{luma, chroma, in.pitch};
        if (!job.srcFormat->tiled) {
            // Read only the crop: the engine fetches just those lines.
            const uint32_t bpp = job.srcFormat->bytesPerPixel;
            view.luma += static_cast<size_t>(crop.y) * in.pitch + static_cast<size_t>(crop.x) * bpp;
            if (chroma != nullptr) {
                uint32_t chromaRow = job.srcFormat->chroma == Chroma::kCbCr420 ? crop.y / 2 : crop.y;
                view.chroma += static_cast<size_t>(chromaRow) * in.pitch + crop.x;
            }
            if (!readFrame(*job.srcFormat, view, crop.w, crop.h, &source)) return kFormat;
            crop = Rect{0, 0, crop.w, crop.h};
        } else if (!readFrame(*job.srcFormat, view, job.srcWidth, job.srcHeight, &source)) {
            return kFormat;
        }
        scaleCrop(source, crop, outW, outH, &scaled);
    }

    ArgbImage turnedImage;
    const ArgbImage* out = &scaled;
    if (job.rotation != 0) {
        rotate(scaled, job.rotation, &turnedImage);
        out = &turnedImage;
    }
    uint8_t* luma = job.dstBuffer->span(offset, layout.lumaSize);
    uint8_t* chroma = layout.chromaSize != 0
                          ? job.dstBuffer->span(offset + layout.chromaOffset, layout.chromaSize)
                          : nullptr;
    if (luma == nullptr || (layout.chromaSize != 0 && chroma == nullptr)) return kBufferTooSmall;
    return writeFrame(*job.dstFormat, *out, FrameView{luma, chroma, layout.pitch}) ? kOk : kFormat;
}

}  // namespace capture_emulator
