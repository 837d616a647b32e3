// Helpers of the emulator's tests: buffers, records and a completion sink.
#pragma once

#include <stdint.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "VxCaptureHal.h"
#include "capture_emulator/FrameLayout.h"

namespace emulator_test {

// A memfd of `size` bytes, mapped; closed with the object.
class MemBuffer {
public:
    explicit MemBuffer(size_t size);
    ~MemBuffer();
    MemBuffer(const MemBuffer&) = delete;
    MemBuffer& operator=(const MemBuffer&) = delete;
    int fd() const { return mFd; }
    uint8_t* data() const { return mData; }
    size_t size() const { return mSize; }

private:
    int mFd = -1;
    uint8_t* mData = nullptr;
    size_t mSize = 0;
};

// Init + Open; the identifier, or -1.
int32_t openInstance();

// A live capture: the pattern at capture point 0, `srcW`x`srcH`, whole source, into `fd`.
VX_CAPTURE_CaptureInfo_s liveInfo(uint32_t srcW, uint32_t srcH, uint32_t dstW, uint32_t dstH,
                                  uint32_t format, int fd, uint32_t fps = 60);

// 0xRRGGBB of pixel (x, y) of a frame in `format` at `base` with the given layout.
uint32_t pixelAt(const capture_emulator::PixelFormatInfo& format, const uint8_t* base,
                 const capture_emulator::FrameLayout& layout, uint32_t width, uint32_t height,
                 uint32_t x, uint32_t y);
// Whether two colours are within `tolerance` per channel.
bool near(uint32_t a, uint32_t b, int tolerance = 40);
std::string hex(uint32_t rgb);

// Completions handed to the entry below (process-wide: the entry is a plain function).
struct Completion {
    int32_t id;
    VX_CAPTURE_CaptureDoneInfo_s done;
    uint32_t sequence;
    bool onCallerThread;
};
void resetCompletions();
int recordCompletion(int captureId, unsigned int reserved, void* doneInfo, void* sequenceIdRef);
std::vector<Completion> completions();
// Waits until at least n completions have arrived; false on timeout.
bool waitCompletions(size_t n, int timeoutMs);
// Registers recordCompletion with sequence value `sequence`.
uint32_t registerRecorder(int32_t id, uint32_t* sequence);

}  // namespace emulator_test
