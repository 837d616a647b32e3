#include "EmulatorTestUtil.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace emulator_test {

MemBuffer::MemBuffer(size_t size) : mSize(size) {
    mFd = memfd_create("emulator-test", MFD_CLOEXEC);
    if (mFd < 0 || ftruncate(mFd, static_cast<off_t>(size)) != 0) abort();
    void* addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, mFd, 0);
    if (addr == MAP_FAILED) abort();
    mData = static_cast<uint8_t*>(addr);
}

MemBuffer::~MemBuffer() {
    munmap(mData, mSize);
    close(mFd);
}

int32_t openInstance() {
    uint8_t param = 0;
    uint32_t handle = 0;
    if (VX_CAPTURE_Init(&param) != 0 || VX_CAPTURE_Open(&param, &handle) != 0) return -1;
    return static_cast<int32_t>(handle);
}

VX_CAPTURE_CaptureInfo_s liveInfo(uint32_t srcW, uint32_t srcH, uint32_t dstW, uint32_t dstH,
                                  uint32_t format, int fd, uint32_t fps) {
    VX_CAPTURE_CaptureInfo_s info = {};
    info.s32PqId = -1;
    info.u32SrcWidth = srcW;
    info.u32SrcHeight = srcH;
    info.u8Engine = 1;
    info.u32SrcFps = info.u32DstFps = fps;
    info.u32DstWidth = dstW;
    info.u32DstHeight = dstH;
    info.eOutputFormat = format;
    info.s32BufferFd = fd;
    info.s32BufferFd2 = -1;
    return info;
}

}  // namespace emulator_test
