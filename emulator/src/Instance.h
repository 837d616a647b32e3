// One emulated capture instance: its configuration, its buffers and the engine's worker thread.
#pragma once

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "PatternFrames.h"
#include "Pixels.h"
#include "VxCaptureHal.h"
#include "capture_emulator/FrameLayout.h"

namespace capture_emulator {

// The hardware imports a client buffer: it keeps its own descriptor and mapping.
class BufferRef {
public:
    explicit BufferRef(int fd) : mFd(fd) {}
    ~BufferRef();
    BufferRef(const BufferRef&) = delete;
    BufferRef& operator=(const BufferRef&) = delete;

    // The mapping when `bytes` at `offset` lie in the buffer as it is now, else null. The
    // buffer is re-measured on every call: a client may have resized it. `mapping` gets a
    // number that changes whenever the buffer is mapped anew.
    uint8_t* span(uint64_t offset, uint64_t bytes, uint64_t* mapping = nullptr);
    // Current size, 0 when the descriptor is unusable.
    uint64_t size();

private:
    std::mutex mLock;
    int mFd;
    uint8_t* mAddr = nullptr;
    size_t mMapped = 0;
    uint64_t mMappings = 0;
};

// dup()s a client's descriptor when it names a buffer that can be mapped; null otherwise.
std::shared_ptr<BufferRef> importBuffer(int fd);

// Everything one frame needs; immutable once built, shared with the worker thread.
struct Job {
    bool live = true;
    // Live source: the test pattern at a capture point.
    uint32_t capPoint = 0;
    int32_t pqId = -1;
    uint32_t srcWidth = 0, srcHeight = 0, srcFps = 0;
    uint8_t engine = 0;
    // Memory source.
    const PixelFormatInfo* srcFormat = nullptr;
    FrameLayout srcLayout;
    uint32_t srcLumaOffset = 0, srcChromaOffset = 0;
    std::shared_ptr<BufferRef> srcBuffer;
    Rect crop;  // in the source
    // Destination.
    const PixelFormatInfo* dstFormat = nullptr;
    uint32_t dstWidth = 0, dstHeight = 0, dstFps = 0, rotation = 0;
    FrameLayout dstLayout;
    std::shared_ptr<BufferRef> dstBuffer;
    uint64_t bandwidth = 0;  // bytes per second while streaming

    std::string describe() const;
};

struct Registration {
    VX_CAPTURE_Callback entry = nullptr;
    uint32_t sequence = 0;  // snapshot of the caller's counter when it registered
};

struct Instance {
    explicit Instance(int32_t captureId);

    const int32_t id;
    const std::chrono::steady_clock::time_point opened;

    std::mutex lock;
    std::condition_variable changed;
    std::shared_ptr<const Job> liveJob;  // the last SetCaptureInfo
    std::shared_ptr<const Job> job;      // what a capture does now
    std::shared_ptr<const Registration> registration;

    std::thread worker;
    // Every start and stop moves it on; a worker runs while it still has the value it began
    // with, so one that was let go (see retireWorker) ends at its next look.
    uint64_t generation = 0;
    bool streaming = false;
    bool oncePending = false;
    int callbacksInFlight = 0;

    uint64_t streamBandwidth = 0;  // reserved while streaming
    uint32_t ringFrames = 0;
    uint32_t heldMask = 0;
    uint32_t nextIndex = 0;
    uint64_t sourceFrames = 0;
    // The stream's frame periods: period k starts k periods after streamStart; every period
    // before nextPeriod has its frame or is counted as dropped.
    std::chrono::steady_clock::time_point streamStart;
    std::chrono::nanoseconds framePeriod{0};
    uint64_t nextPeriod = 0;
    uint64_t produced = 0, delivered = 0, dropped = 0, starved = 0, late = 0, frameErrors = 0,
             continues = 0;
    uint64_t productionNs = 0;  // thread CPU time spent producing frames
};

// Renders one frame of the job into the destination at `offset`; a status. `shown` (may be
// null) is what the engine last drew into that buffer, kept up to date.
uint32_t produceFrame(const Job& job, uint64_t offset, const PatternClock& clock,
                      BufferPicture* shown = nullptr);

}  // namespace capture_emulator
