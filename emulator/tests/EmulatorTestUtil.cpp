#include "EmulatorTestUtil.h"

#include <libyuv.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace emulator_test {

using namespace capture_emulator;

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
    info.eCapPoint = 0;
    info.s32PqId = -1;
    info.u32SrcWidth = srcW;
    info.u32SrcHeight = srcH;
    info.u8Engine = 1;
    info.u32SrcFps = fps;
    info.u32DstWidth = dstW;
    info.u32DstHeight = dstH;
    info.u32DstFps = fps;
    info.eOutputFormat = format;
    info.s32BufferFd = fd;
    info.s32BufferFd2 = -1;
    return info;
}

uint32_t pixelAt(const PixelFormatInfo& format, const uint8_t* base, const FrameLayout& layout,
                 uint32_t width, uint32_t height, uint32_t x, uint32_t y) {
    // Decode the whole frame with libyuv's own readers, independently of the emulator's code.
    std::vector<uint8_t> argb(static_cast<size_t>(width) * height * 4);
    const int w = static_cast<int>(width), h = static_cast<int>(height);
    const int pitch = static_cast<int>(layout.pitch);
    const uint8_t* chroma = base + layout.chromaOffset;
    int stride = w * 4;
    std::vector<uint8_t> u(static_cast<size_t>(w / 2) * h), v(u.size());
    switch (format.vxFormat) {
        case 0:
            libyuv::YUY2ToARGB(base, pitch, argb.data(), stride, w, h);
            break;
        case 2:
            libyuv::ABGRToARGB(base, pitch, argb.data(), stride, w, h);
            break;
        case 3:
            libyuv::ARGBCopy(base, pitch, argb.data(), stride, w, h);
            break;
        case 6:
            libyuv::AR30ToARGB(base, pitch, argb.data(), stride, w, h);
            break;
        case 22:
            libyuv::AB30ToARGB(base, pitch, argb.data(), stride, w, h);
            break;
        case 7:
            libyuv::RGB565ToARGB(base, pitch, argb.data(), stride, w, h);
            break;
        case 8:
            libyuv::RAWToARGB(base, pitch, argb.data(), stride, w, h);
            break;
        case 11:
            libyuv::NV12ToARGB(base, pitch, chroma, pitch, argb.data(), stride, w, h);
            break;
        case 12:
            libyuv::NV21ToARGB(base, pitch, chroma, pitch, argb.data(), stride, w, h);
            break;
        case 9:
        case 10:
            libyuv::SplitUVPlane(chroma, pitch, format.crFirst ? v.data() : u.data(), w / 2,
                                 format.crFirst ? u.data() : v.data(), w / 2, w / 2, h);
            libyuv::I422ToARGB(base, pitch, u.data(), w / 2, v.data(), w / 2, argb.data(), stride,
                               w, h);
            break;
        default:
            return 0xDEADBE;
    }
    const uint8_t* p = argb.data() + (static_cast<size_t>(y) * width + x) * 4;
    return (uint32_t{p[2]} << 16) | (uint32_t{p[1]} << 8) | p[0];
}

bool near(uint32_t a, uint32_t b, int tolerance) {
    for (int shift = 0; shift <= 16; shift += 8) {
        int ca = static_cast<int>((a >> shift) & 0xFF), cb = static_cast<int>((b >> shift) & 0xFF);
        if (abs(ca - cb) > tolerance) return false;
    }
    return true;
}

std::string hex(uint32_t rgb) {
    char text[16];
    snprintf(text, sizeof(text), "#%06X", rgb & 0xFFFFFF);
    return text;
}

namespace {
std::mutex gLock;
std::condition_variable gArrived;
std::vector<Completion> gCompletions;
std::thread::id gTestThread;
}  // namespace

void resetCompletions() {
    std::lock_guard<std::mutex> guard(gLock);
    gCompletions.clear();
    gTestThread = std::this_thread::get_id();
}

int recordCompletion(int captureId, unsigned int, void* doneInfo, void* sequenceIdRef) {
    Completion c;
    c.id = captureId;
    c.done = *static_cast<VX_CAPTURE_CaptureDoneInfo_s*>(doneInfo);
    c.sequence = *static_cast<uint32_t*>(sequenceIdRef);
    std::lock_guard<std::mutex> guard(gLock);
    c.onCallerThread = std::this_thread::get_id() == gTestThread;
    gCompletions.push_back(c);
    gArrived.notify_all();
    return 0;
}

std::vector<Completion> completions() {
    std::lock_guard<std::mutex> guard(gLock);
    return gCompletions;
}

bool waitCompletions(size_t n, int timeoutMs) {
    std::unique_lock<std::mutex> held(gLock);
    return gArrived.wait_for(held, std::chrono::milliseconds(timeoutMs),
                             [&] { return gCompletions.size() >= n; });
}

uint32_t registerRecorder(int32_t id, uint32_t* sequence) {
    VX_CAPTURE_CallbackInputParams_s params = {};
    params.pfnCallback = recordCompletion;
    params.u32Flag = 1;
    params.pu32SequenceId = sequence;
    uint8_t out[8] = {};
    return VX_CAPTURE_RegisterCallback(id, &params, out);
}

}  // namespace emulator_test
