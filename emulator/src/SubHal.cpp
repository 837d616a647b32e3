// The sixteen VX_CAPTURE_* entries of the emulated capture hardware.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

#include "EmuLog.h"
#include "EmulatedPq.h"
#include "Faults.h"
#include "HwCaps.h"
#include "Instance.h"
#include "VxCaptureHal.h"
#include "capture_emulator/Emulator.h"

namespace capture_emulator {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSlots = 32;
constexpr int32_t kIdBase = 0x73000000;
// Longest wait for a completion that is still running when its registration goes away.
constexpr auto kCallbackDrainTimeout = std::chrono::seconds(2);

std::mutex gTableLock;  // before any Instance::lock
std::array<std::shared_ptr<Instance>, kSlots> gSlots;
uint32_t gInitCount = 0;
std::shared_ptr<const HwCaps> gCaps;

std::mutex gBandwidthLock;
uint64_t gBandwidthInUse = 0;

std::shared_ptr<Instance> findInstance(int32_t captureId) {
    if (captureId < kIdBase || captureId >= kIdBase + kSlots) return nullptr;
    std::lock_guard<std::mutex> guard(gTableLock);
    return gSlots[static_cast<size_t>(captureId - kIdBase)];
}

std::shared_ptr<const HwCaps> caps() {
    std::lock_guard<std::mutex> guard(gTableLock);
    if (gCaps == nullptr) gCaps = std::make_shared<HwCaps>(loadHwCaps());
    return gCaps;
}

void releaseBandwidth(uint64_t remove) {
    uint64_t now;
    {
        std::lock_guard<std::mutex> guard(gBandwidthLock);
        gBandwidthInUse -= std::min(gBandwidthInUse, remove);
        now = gBandwidthInUse;
    }
    emulatedPq()->setBandwidthInUse(now);
}

bool reserveBandwidth(uint64_t add) {
    uint64_t now;
    {
        std::lock_guard<std::mutex> guard(gBandwidthLock);
        if (gBandwidthInUse + add > kBandwidthBudget) return false;
        gBandwidthInUse += add;
        now = gBandwidthInUse;
    }
    emulatedPq()->setBandwidthInUse(now);
    return true;
}

uint64_t bandwidthInUse() {
    std::lock_guard<std::mutex> guard(gBandwidthLock);
    return gBandwidthInUse;
}

bool isRotation(uint32_t angle) {
    return angle == 0 || angle == 90 || angle == 180 || angle == 270;
}

// Hands the worker thread over for joining. A worker that tears its own instance down (a
// completion entry that stops or closes) cannot join itself: it is let go, and finishes on its
// own once the completion returns, holding its instance alive.
void retireWorker(std::unique_lock<std::mutex>& held, Instance& inst) {
    if (!inst.worker.joinable()) return;
    std::thread worker = std::move(inst.worker);
    if (worker.get_id() == std::this_thread::get_id()) {
        worker.detach();
        return;
    }
    held.unlock();
    worker.join();
    held.lock();
}

// The instance whose completion entry this thread is running, if any.
thread_local const Instance* tDelivering = nullptr;

uint32_t stopLocked(std::unique_lock<std::mutex>& held, Instance& inst) {
    if (!inst.streaming && !inst.oncePending && !inst.worker.joinable()) return kOk;
    ++inst.generation;
    inst.changed.notify_all();
    const bool wasStreaming = inst.streaming;
    inst.streaming = false;
    inst.oncePending = false;
    if (wasStreaming) releaseBandwidth(inst.streamBandwidth);
    retireWorker(held, inst);
    inst.heldMask = 0;
    if (wasStreaming) {
        EMU_LOGI("0x%x stopped: %" PRIu64 " produced, %" PRIu64 " dropped, %" PRIu64 " late",
                 inst.id, inst.produced, inst.dropped, inst.late);
    }
    return kOk;
}

// Waits until no completion of this instance is running, unless the caller is that completion.
void drainCallbacksLocked(std::unique_lock<std::mutex>& held, Instance& inst) {
    if (tDelivering == &inst) return;
    if (!inst.changed.wait_for(held, kCallbackDrainTimeout,
                               [&] { return inst.callbacksInFlight == 0; })) {
        EMU_LOGW("0x%x: a completion entry is still running after %lld s", inst.id,
                 static_cast<long long>(kCallbackDrainTimeout.count()));
    }
}

void closeInstance(const std::shared_ptr<Instance>& inst) {
    std::unique_lock<std::mutex> held(inst->lock);
    stopLocked(held, *inst);
    inst->registration = nullptr;
    drainCallbacksLocked(held, *inst);
    inst->job = nullptr;
    inst->liveJob = nullptr;
}

PatternClock clockOf(const Instance& inst, const Job& job, uint64_t frameNumber) {
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - inst.opened);
    PatternClock clock;
    clock.timeMs = static_cast<uint64_t>(elapsed.count());
    // A live source runs from the moment the instance exists; its counter says which of its
    // frames this is, so gaps show.
    clock.frameNumber =
        frameNumber != 0 ? frameNumber : clock.timeMs * std::max<uint32_t>(job.srcFps, 1) / 1000;
    return clock;
}

VX_CAPTURE_CaptureDoneInfo_s doneRecord(const Job& job, uint32_t index, uint32_t ring,
                                        uint32_t error) {
    VX_CAPTURE_CaptureDoneInfo_s done = {};
    done.index = index;
    done.Y_Size = job.dstLayout.lumaSize;
    done.C_Size = job.dstLayout.chromaSize;
    for (uint32_t k = 0; k < ring && k < kMaxRingFrames; ++k) {
        done.stBuf[k].Y_offSet = k * job.dstLayout.frameStride;
        done.stBuf[k].C_offSet = k * job.dstLayout.frameStride + job.dstLayout.chromaOffset;
    }
    done.ErrorNo = error;
    return done;
}

// Runs a completion entry outside the instance lock; the lock is held again on return.
void deliverLocked(std::unique_lock<std::mutex>& held, Instance& inst,
                   const std::shared_ptr<const Registration>& reg,
                   VX_CAPTURE_CaptureDoneInfo_s done) {
    ++inst.callbacksInFlight;
    held.unlock();
    uint32_t sequence = reg->sequence;
    const Instance* outer = tDelivering;
    tDelivering = &inst;
    int handled = reg->entry(inst.id, 0, &done, &sequence);
    tDelivering = outer;
    held.lock();
    --inst.callbacksInFlight;
    if (handled == 0) ++inst.delivered;
    inst.changed.notify_all();
}

void onceWorker(std::shared_ptr<Instance> inst, std::shared_ptr<const Job> job,
                std::shared_ptr<const Registration> reg, uint64_t generation) {
    std::unique_lock<std::mutex> held(inst->lock);
    auto stopped = [&] { return inst->generation != generation; };
    // The engine waits for the next frame of a live source.
    if (job->live) {
        auto frame = std::chrono::microseconds(1000000 / std::max<uint32_t>(job->srcFps, 1));
        inst->changed.wait_for(held, frame, stopped);
    }
    if (stopped()) return;
    PatternClock clock = clockOf(*inst, *job, 0);
    held.unlock();
    uint32_t status = produceFrame(*job, 0, clock);
    held.lock();
    if (status == kOk)
        ++inst->produced;
    else
        ++inst->frameErrors;
    // Delivered only while the registration that asked for it is still in place.
    if (inst->registration != nullptr && !stopped()) {
        deliverLocked(held, *inst, reg, doneRecord(*job, 0, 1, status));
    }
    if (!stopped()) inst->oncePending = false;
    inst->changed.notify_all();
}

uint64_t threadCpuNs() {
    timespec t = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000ull + static_cast<uint64_t>(t.tv_nsec);
}

void streamWorker(std::shared_ptr<Instance> inst, std::shared_ptr<const Job> job,
                  uint64_t generation) {
    const auto period = std::chrono::nanoseconds(1000000000ll / std::max<uint32_t>(job->dstFps, 1));
    const bool pqBound = job->live && job->capPoint >= 2 && job->capPoint <= 8 && job->pqId >= 0 &&
                         job->pqId < kPqStreamCount;
    // The live picture is made before the first period begins, which it would otherwise make
    // late; holding it keeps it for the stream's life.
    std::shared_ptr<const PatternFrames> picture = job->live ? PatternFrames::of(*job) : nullptr;
    std::vector<BufferPicture> shown(kMaxRingFrames);
    // So is the picture in every buffer of the ring, all of them the engine's at the start: a
    // whole frame costs far more than the few glyphs that change from one frame to the next, and
    // streams starting together would otherwise make their first frames late. The client reads
    // only buffers it is handed.
    if (picture != nullptr) {
        std::unique_lock<std::mutex> held(inst->lock);
        const uint32_t ring = inst->ringFrames;
        const PatternClock clock = clockOf(*inst, *job, 0);
        held.unlock();
        const uint64_t cpuBefore = threadCpuNs();
        for (uint32_t i = 0; i < ring; ++i) {
            produceFrame(*job, uint64_t{i} * job->dstLayout.frameStride, clock, &shown[i]);
        }
        held.lock();
        // The engine's work all the same.
        if (inst->generation == generation) inst->productionNs += threadCpuNs() - cpuBefore;
    }
    // Frame k belongs to the period that starts k periods after `start`, and is late when it
    // is handed over after that period has ended.
    const auto start = Clock::now();
    uint64_t sinceNotify = 0;
    std::unique_lock<std::mutex> held(inst->lock);
    auto stopped = [&] { return inst->generation != generation; };
    uint64_t& nextPeriod = inst->nextPeriod;
    if (!stopped()) {
        inst->streamStart = start;
        inst->framePeriod = period;
        nextPeriod = 0;
    }
    while (!stopped()) {
        if (inst->changed.wait_until(held, start + period * nextPeriod, stopped)) break;
        // A late engine does not catch up with a burst: it works on the period it is in, and
        // the periods it slept through have no frame.
        const uint64_t current = static_cast<uint64_t>((Clock::now() - start) / period);
        if (current > nextPeriod) {
            inst->dropped += current - nextPeriod;
            inst->sourceFrames += current - nextPeriod;
        }
        nextPeriod = current + 1;
        const auto deadline = start + period * nextPeriod;
        uint64_t seq = ++inst->sourceFrames;
        uint32_t every = dropEveryNth();
        if (every != 0 && seq % every == 0) {
            ++inst->dropped;
            continue;
        }
        uint32_t index = kMaxRingFrames;
        for (uint32_t i = 0; i < inst->ringFrames; ++i) {
            uint32_t k = (inst->nextIndex + i) % inst->ringFrames;
            if ((inst->heldMask & (1u << k)) == 0) {
                index = k;
                break;
            }
        }
        if (index == kMaxRingFrames) {
            ++inst->dropped;  // every buffer is with the client
            ++inst->starved;
            continue;
        }
        inst->heldMask |= 1u << index;
        inst->nextIndex = (index + 1) % inst->ringFrames;
        std::shared_ptr<const Registration> reg = inst->registration;
        PatternClock clock = clockOf(*inst, *job, seq);
        held.unlock();
        const uint64_t cpuBefore = threadCpuNs();
        uint32_t status =
            produceFrame(*job, uint64_t{index} * job->dstLayout.frameStride, clock, &shown[index]);
        const uint64_t cpuSpent = threadCpuNs() - cpuBefore;
        if (uint32_t delay = frameDelayMs(); delay != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        }
        if (pqBound && (sinceNotify == 0 || sinceNotify >= job->dstFps)) {
            emulatedPq()->notifyCapturePoints(job->pqId);
            sinceNotify = 0;
        }
        ++sinceNotify;
        held.lock();
        if (status == kOk)
            ++inst->produced;
        else
            ++inst->frameErrors;
        inst->productionNs += cpuSpent;
        if (Clock::now() > deadline) ++inst->late;
        // A registration replaced meanwhile still gets this frame, with the old sequence: the
        // receiver recognises it as late. One removed gets nothing.
        if (reg != nullptr && inst->registration != nullptr && !stopped()) {
            deliverLocked(held, *inst, reg, doneRecord(*job, index, inst->ringFrames, status));
        }
    }
}

// -- configuration ----------------------------------------------------------------------------

uint32_t checkSize(const HwCaps& hw, uint32_t w, uint32_t h, const char* what, int32_t id) {
    if (w < kMinWidth || w > hw.maxWidth() || h < kMinHeight || h > kMaxHeight) {
        EMU_LOGW("0x%x: %s %ux%u outside %u..%u x %u..%u", id, what, w, h, kMinWidth, hw.maxWidth(),
                 kMinHeight, kMaxHeight);
        return kBadSize;
    }
    return kOk;
}

uint32_t checkScaling(const HwCaps& hw, const Rect& crop, uint32_t outW, uint32_t outH, int32_t id) {
    bool down = outW < crop.w || outH < crop.h;
    bool up = outW > crop.w || outH > crop.h;
    if ((down && !hw.downscale) || (up && !hw.upscale) || uint64_t{outW} * kMaxScale < crop.w ||
        uint64_t{outH} * kMaxScale < crop.h || outW > uint64_t{crop.w} * kMaxScale ||
        outH > uint64_t{crop.h} * kMaxScale) {
        EMU_LOGW("0x%x: cannot scale %ux%u to %ux%u", id, crop.w, crop.h, outW, outH);
        return kBadSize;
    }
    return kOk;
}

// Zero crop means the whole source. A YUV source in memory is cut on chroma sample boundaries.
uint32_t resolveCrop(const HwCaps& hw, uint32_t x, uint32_t y, uint32_t w, uint32_t h,
                     uint32_t srcW, uint32_t srcH, bool evenChroma, Rect* crop, int32_t id) {
    if (w == 0 && h == 0 && x == 0 && y == 0) {
        *crop = Rect{0, 0, srcW, srcH};
        return kOk;
    }
    bool whole = x == 0 && y == 0 && w == srcW && h == srcH;
    if (w == 0 || h == 0 || x >= srcW || y >= srcH || w > srcW - x || h > srcH - y ||
        (evenChroma && ((x | y | w | h) & 1u) != 0) || (!whole && !hw.crop)) {
        EMU_LOGW("0x%x: crop (%u,%u %ux%u) not inside the %ux%u source", id, x, y, w, h, srcW, srcH);
        return kBadCrop;
    }
    *crop = Rect{x, y, w, h};
    return kOk;
}

uint32_t checkDestination(const HwCaps& hw, const std::shared_ptr<Job>& job, int fd, uint32_t pitch,
                          int32_t id) {
    job->dstBuffer = importBuffer(fd);
    if (job->dstBuffer == nullptr) {
        EMU_LOGW("0x%x: destination descriptor %d is not a shared buffer", id, fd);
        return kBadBuffer;
    }
    if (!computeFrameLayout(*job->dstFormat, job->dstWidth, job->dstHeight, pitch, &job->dstLayout)) {
        EMU_LOGW("0x%x: no %s layout for %ux%u with pitch %u", id, job->dstFormat->name,
                 job->dstWidth, job->dstHeight, pitch);
        return pitch != 0 ? kBadParameter : kBadSize;
    }
    uint64_t need = uint64_t{job->dstLayout.lumaSize} + job->dstLayout.chromaSize;
    if (job->dstBuffer->size() < need) {
        EMU_LOGW("0x%x: destination of %llu bytes cannot hold a %llu-byte frame", id,
                 static_cast<unsigned long long>(job->dstBuffer->size()),
                 static_cast<unsigned long long>(need));
        return kBufferTooSmall;
    }
    (void)hw;
    return kOk;
}

uint64_t jobBandwidth(const Job& job) {
    uint64_t bytes = uint64_t{job.dstLayout.lumaSize} + job.dstLayout.chromaSize;
    if (!job.live) bytes += uint64_t{job.srcLayout.lumaSize} + job.srcLayout.chromaSize;
    return bytes * job.dstFps;
}

uint32_t setCaptureInfo(Instance& inst, const VX_CAPTURE_CaptureInfo_s& info) {
    std::shared_ptr<const HwCaps> hw = caps();
    const int32_t id = inst.id;
    auto job = std::make_shared<Job>();
    job->live = true;
    job->capPoint = info.eCapPoint;
    if (info.eCapPoint >= kCapturePointCount || (info.eCapPoint == kCapturePointOsd && !hw->osd)) {
        EMU_LOGW("0x%x: no capture point %u on this platform", id, info.eCapPoint);
        return kBadCapturePoint;
    }
    if (info.u8Engine == 0 || info.u8Engine > 3) {
        EMU_LOGW("0x%x: engine selector %u names neither DIP", id, info.u8Engine);
        return kBadParameter;
    }
    job->engine = info.u8Engine;
    job->pqId = info.eCapPoint >= 2 && info.eCapPoint <= 8 ? info.s32PqId : -1;
    job->srcWidth = info.u32SrcWidth;
    job->srcHeight = info.u32SrcHeight;
    if (job->srcWidth < 2 || job->srcHeight < 2 || job->srcWidth > kMaxSourceWidth ||
        job->srcHeight > kMaxSourceHeight) {
        EMU_LOGW("0x%x: source timing %ux%u outside 2..%u x 2..%u", id, job->srcWidth,
                 job->srcHeight, kMaxSourceWidth, kMaxSourceHeight);
        return kBadSize;
    }
    job->srcFps = info.u32SrcFps != 0 ? info.u32SrcFps : kDefaultFps;
    job->dstFps = info.u32DstFps != 0 ? info.u32DstFps : job->srcFps;
    if (job->srcFps > kMaxFps || job->dstFps > job->srcFps) {
        EMU_LOGW("0x%x: cannot capture at %u fps from a %u fps source", id, job->dstFps,
                 job->srcFps);
        return kBadParameter;
    }
    if (info.eSecureBuffer == 1) {
        EMU_LOGW("0x%x: no secure memory on this platform", id);
        return kSecure;
    }
    job->dstFormat = findVxFormat(info.eOutputFormat);
    if (job->dstFormat == nullptr || !hw->canWrite(*job->dstFormat)) {
        EMU_LOGW("0x%x: the engines do not write format %u", id, info.eOutputFormat);
        return kFormat;
    }
    if (uint32_t s =
            resolveCrop(*hw, info.u32CropX, info.u32CropY, info.u32CropWidth, info.u32CropHeight,
                        job->srcWidth, job->srcHeight, false, &job->crop, id);
        s != kOk) {
        return s;
    }
    job->dstWidth = info.u32DstWidth;
    job->dstHeight = info.u32DstHeight;
    if (uint32_t s = checkSize(*hw, job->dstWidth, job->dstHeight, "destination", id); s != kOk) {
        return s;
    }
    if (uint32_t s = checkScaling(*hw, job->crop, job->dstWidth, job->dstHeight, id); s != kOk) {
        return s;
    }
    if (uint32_t s = checkDestination(*hw, job, info.s32BufferFd, 0, id); s != kOk) return s;
    job->bandwidth = jobBandwidth(*job);

    std::lock_guard<std::mutex> guard(inst.lock);
    if (inst.streaming || inst.oncePending) return kBusy;
    inst.liveJob = job;
    inst.job = job;
    if (job->pqId >= 0) {
        emulatedPq()->setStream(job->pqId, job->srcWidth, job->srcHeight, job->srcFps, job->engine);
    }
    return kOk;
}

uint32_t setFrameInfo(Instance& inst, const VX_CAPTURE_SrcFrameInfo_s& src,
                      const VX_CAPTURE_DstFrameInfo_s& dst, VX_CAPTURE_PlaneOffset_s* planes) {
    std::shared_ptr<const HwCaps> hw = caps();
    const int32_t id = inst.id;
    std::shared_ptr<const Job> live;
    {
        std::lock_guard<std::mutex> guard(inst.lock);
        live = inst.liveJob;
    }
    // Source word 32 set to 1 keeps the live capture point as the source: the records then only
    // shape the destination.
    const bool fromLive = src.u32Param32 == 1;
    auto job = std::make_shared<Job>();
    if (fromLive) {
        if (live == nullptr) {
            EMU_LOGW("0x%x: a live source needs SetCaptureInfo first", id);
            return kNotConfigured;
        }
        *job = *live;
        job->dstBuffer = nullptr;
    } else {
        job->live = false;
        job->srcFormat = findVxFormat(src.eFormat);
        if (job->srcFormat == nullptr || !hw->canRead(*job->srcFormat)) {
            EMU_LOGW("0x%x: the engines do not read format %u", id, src.eFormat);
            return kFormat;
        }
        job->srcWidth = src.u32Width;
        job->srcHeight = src.u32Height;
        if (uint32_t s = checkSize(*hw, job->srcWidth, job->srcHeight, "source", id); s != kOk) {
            return s;
        }
        if (job->srcFormat->tiled && (job->srcWidth > hw->tileWidthMax || job->srcWidth % 16)) {
            EMU_LOGW("0x%x: tiled source width %u beyond %u or not a whole tile", id, job->srcWidth,
                     hw->tileWidthMax);
            return kBadSize;
        }
        // Source word 8 is the source pitch in bytes (0: the allocator's).
        if (!computeFrameLayout(*job->srcFormat, job->srcWidth, job->srcHeight, src.u32Param8,
                                &job->srcLayout)) {
            EMU_LOGW("0x%x: no %s layout for %ux%u with pitch %u", id, job->srcFormat->name,
                     job->srcWidth, job->srcHeight, src.u32Param8);
            return src.u32Param8 != 0 ? kBadParameter : kBadSize;
        }
        job->srcLumaOffset = src.u32PlaneOffset0;
        job->srcChromaOffset = src.u32PlaneOffset1 != 0
                                   ? src.u32PlaneOffset1
                                   : src.u32PlaneOffset0 + job->srcLayout.chromaOffset;
        job->srcBuffer = importBuffer(src.s32BufferFd);
        if (job->srcBuffer == nullptr) {
            EMU_LOGW("0x%x: source descriptor %d is not a shared buffer", id, src.s32BufferFd);
            return kBadBuffer;
        }
        uint64_t size = job->srcBuffer->size();
        bool fits = uint64_t{job->srcLumaOffset} + job->srcLayout.lumaSize <= size &&
                    (job->srcLayout.chromaSize == 0 ||
                     uint64_t{job->srcChromaOffset} + job->srcLayout.chromaSize <= size);
        if (!fits) {
            EMU_LOGW("0x%x: source planes at %u/%u run past the %llu-byte buffer", id,
                     job->srcLumaOffset, job->srcChromaOffset,
                     static_cast<unsigned long long>(size));
            return kBufferTooSmall;
        }
        job->dstFps = live != nullptr ? live->dstFps : kDefaultFps;
        job->srcFps = job->dstFps;
    }
    if (dst.eSecureBuffer == 1) return kSecure;
    if (uint32_t s = resolveCrop(*hw, dst.u32CropX, dst.u32CropY, dst.u32CropWidth,
                                 dst.u32CropHeight, job->srcWidth, job->srcHeight,
                                 !job->live && isYuv(*job->srcFormat), &job->crop, id);
        s != kOk) {
        return s;
    }
    if (job->srcFormat != nullptr && job->srcFormat->tiled && job->crop.x % 2 != 0) {
        return kBadCrop;
    }
    job->rotation = dst.u32RotateAngle;
    if (!isRotation(job->rotation) || (job->rotation == 90 && (hw->rotate & 0x01) == 0) ||
        (job->rotation == 270 && (hw->rotate & 0x02) == 0) ||
        (job->rotation == 180 && job->crop.w > hw->hMirrorSize)) {
        EMU_LOGW("0x%x: the engines cannot turn a %u-wide picture by %u degrees", id, job->crop.w,
                 job->rotation);
        return kBadRotation;
    }
    job->dstFormat = findVxFormat(dst.eFormat);
    if (job->dstFormat == nullptr || !hw->canWrite(*job->dstFormat)) {
        EMU_LOGW("0x%x: the engines do not write format %u", id, dst.eFormat);
        return kFormat;
    }
    job->dstWidth = dst.u32Width;
    job->dstHeight = dst.u32Height;
    if (uint32_t s = checkSize(*hw, job->dstWidth, job->dstHeight, "destination", id); s != kOk) {
        return s;
    }
    const bool turned = job->rotation == 90 || job->rotation == 270;
    if (uint32_t s = checkScaling(*hw, job->crop, turned ? job->dstHeight : job->dstWidth,
                                  turned ? job->dstWidth : job->dstHeight, id);
        s != kOk) {
        return s;
    }
    if (uint32_t s = checkDestination(*hw, job, dst.s32BufferFd, dst.u32Pitch, id); s != kOk) {
        return s;
    }
    job->bandwidth = jobBandwidth(*job);

    std::lock_guard<std::mutex> guard(inst.lock);
    if (inst.streaming || inst.oncePending) return kBusy;
    inst.job = job;
    planes->u32Offset[0] = 0;
    planes->u32Offset[1] = job->dstLayout.chromaOffset;
    return kOk;
}

// Periods of the running stream that have ended while its engine was still busy: they have no
// frame, though the engine has not counted them yet.
uint64_t missedSoFar(const Instance& inst) {
    if (!inst.streaming || inst.framePeriod.count() == 0) return 0;
    uint64_t ended = static_cast<uint64_t>((Clock::now() - inst.streamStart) / inst.framePeriod);
    return ended > inst.nextPeriod ? ended - inst.nextPeriod : 0;
}

void dumpInstance(int fd, Instance& inst, bool detail) {
    std::lock_guard<std::mutex> guard(inst.lock);
    dprintf(fd, "  0x%08x: %s\n", static_cast<uint32_t>(inst.id),
            inst.job != nullptr ? inst.job->describe().c_str() : "not configured");
    dprintf(fd,
            "    %s, ring %u, held %u, produced %" PRIu64 ", delivered %" PRIu64
            ", dropped %" PRIu64 ", late %" PRIu64 ", frame errors %" PRIu64 ", callback %s\n",
            inst.streaming ? "streaming" : (inst.oncePending ? "capturing once" : "idle"),
            inst.ringFrames, static_cast<uint32_t>(__builtin_popcount(inst.heldMask)),
            inst.produced, inst.delivered, inst.dropped + missedSoFar(inst), inst.late,
            inst.frameErrors, inst.registration != nullptr ? "registered" : "none");
    if (detail && inst.job != nullptr) {
        const FrameLayout& l = inst.job->dstLayout;
        dprintf(fd, "    layout: pitch %u, Y %u bytes, C %u bytes at %u, frame stride %u\n",
                l.pitch, l.lumaSize, l.chromaSize, l.chromaOffset, l.frameStride);
        for (uint32_t k = 0; k < inst.ringFrames; ++k) {
            dprintf(fd, "    buffer %u: %s\n", k,
                    (inst.heldMask & (1u << k)) != 0 ? "with the client" : "free");
        }
    }
}

std::string formatNames(uint32_t mask) {
    std::string names;
    for (const PixelFormatInfo& f : kPixelFormats) {
        if ((mask & f.captureFormat) == 0) continue;
        if (!names.empty()) names += ' ';
        names += f.name;
    }
    return names.empty() ? "none" : names;
}

}  // namespace

bool getInstanceStats(int32_t captureId, InstanceStats* out) {
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr || out == nullptr) return false;
    std::lock_guard<std::mutex> guard(inst->lock);
    out->produced = inst->produced;
    out->delivered = inst->delivered;
    out->dropped = inst->dropped + missedSoFar(*inst);
    out->starved = inst->starved;
    out->late = inst->late;
    out->productionNs = inst->productionNs;
    out->ringFrames = inst->ringFrames;
    out->held = static_cast<uint32_t>(__builtin_popcount(inst->heldMask));
    out->streaming = inst->streaming;
    return true;
}

void resetForTest() {
    std::array<std::shared_ptr<Instance>, kSlots> slots;
    {
        std::lock_guard<std::mutex> guard(gTableLock);
        slots.swap(gSlots);
        gInitCount = 0;
        gCaps = nullptr;
    }
    for (auto& inst : slots) {
        if (inst != nullptr) closeInstance(inst);
    }
    rereadFaultEnvironment();
}

}  // namespace capture_emulator

using namespace capture_emulator;

#define INJECTED(entry)                                                                     \
    do {                                                                                    \
        if (uint32_t injected = takeInjectedFault(Entry::entry); injected) return injected; \
    } while (0)

extern "C" {

uint32_t VX_CAPTURE_Init(uint8_t* pInitParam) {
    (void)pInitParam;
    INJECTED(Init);
    std::lock_guard<std::mutex> guard(gTableLock);
    // Power-up reads the device tree, so an edited tree takes effect at the next power-up.
    if (gInitCount++ == 0) gCaps = std::make_shared<HwCaps>(loadHwCaps());
    return kOk;
}

uint32_t VX_CAPTURE_DeInit(void) {
    INJECTED(DeInit);
    std::array<std::shared_ptr<Instance>, kSlots> orphans;
    {
        std::lock_guard<std::mutex> guard(gTableLock);
        if (gInitCount == 0) return kNotInitialized;
        if (--gInitCount != 0) return kOk;
        orphans.swap(gSlots);
    }
    // Powering down ends whatever is still open.
    for (auto& inst : orphans) {
        if (inst != nullptr) {
            EMU_LOGW("0x%x was still open at power-down", inst->id);
            closeInstance(inst);
        }
    }
    return kOk;
}

uint32_t VX_CAPTURE_Open(uint8_t* pOpenParam, uint32_t* pHandle) {
    (void)pOpenParam;
    INJECTED(Open);
    if (pHandle == nullptr) return kBadArgument;
    std::lock_guard<std::mutex> guard(gTableLock);
    if (gInitCount == 0) return kNotInitialized;
    for (int slot = 0; slot < kSlots; ++slot) {
        if (gSlots[slot] == nullptr) {
            gSlots[slot] = std::make_shared<Instance>(kIdBase + slot);
            *pHandle = static_cast<uint32_t>(kIdBase + slot);
            return kOk;
        }
    }
    EMU_LOGW("all %d instances are open", kSlots);
    return kBusy;
}

uint32_t VX_CAPTURE_Close(int32_t captureId) {
    INJECTED(Close);
    std::shared_ptr<Instance> inst;
    {
        std::lock_guard<std::mutex> guard(gTableLock);
        if (captureId < kIdBase || captureId >= kIdBase + kSlots) return kBadId;
        inst = std::move(gSlots[static_cast<size_t>(captureId - kIdBase)]);
        gSlots[static_cast<size_t>(captureId - kIdBase)] = nullptr;
    }
    if (inst == nullptr) return kBadId;
    closeInstance(inst);
    return kOk;
}

uint32_t VX_CAPTURE_SetCaptureInfo(int32_t captureId, VX_CAPTURE_CaptureInfo_s* pInfo) {
    INJECTED(SetCaptureInfo);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    if (pInfo == nullptr) return kBadArgument;
    return setCaptureInfo(*inst, *pInfo);
}

uint32_t VX_CAPTURE_SetCaptureFrameInfo(int32_t captureId, VX_CAPTURE_SrcFrameInfo_s* pSrc,
                                        VX_CAPTURE_DstFrameInfo_s* pDst,
                                        VX_CAPTURE_PlaneOffset_s* pDstPlaneOffset) {
    INJECTED(SetCaptureFrameInfo);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    if (pSrc == nullptr || pDst == nullptr || pDstPlaneOffset == nullptr) return kBadArgument;
    return setFrameInfo(*inst, *pSrc, *pDst, pDstPlaneOffset);
}

uint32_t VX_CAPTURE_GetCapabilityInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                                      VX_CAPTURE_getQueryInfo_s* pAnswer) {
    INJECTED(GetCapabilityInfo);
    if (findInstance(captureId) == nullptr) return kBadId;
    if (pQuery == nullptr || pAnswer == nullptr) return kBadArgument;
    fillQueryAnswer(*caps(), *pQuery, pAnswer);
    return kOk;
}

uint32_t VX_CAPTURE_GetDipInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                               VX_CAPTURE_DipInfo_s* pDipInfo, uint32_t u32Mode) {
    INJECTED(GetDipInfo);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    if (pQuery == nullptr || pDipInfo == nullptr) return kBadArgument;
    if (u32Mode > 1) return kBadParameter;
    uint32_t fps = kDefaultFps;
    {
        std::lock_guard<std::mutex> guard(inst->lock);
        if (inst->job != nullptr) fps = inst->job->dstFps;
    }
    std::string why;
    uint64_t bandwidth = conversionBandwidth(*pQuery, fps);
    bool usable = checkConversion(*caps(), *pQuery, &why) == kOk;
    if (usable && bandwidthInUse() + bandwidth > kBandwidthBudget) {
        why = "the engines' bandwidth is taken";
        usable = false;
    }
    if (!usable) EMU_LOGI("0x%x: DIP not usable: %s", captureId, why.c_str());
    pDipInfo->bDipUsable = usable ? 1 : 0;
    pDipInfo->u64BwSize = bandwidth;
    return kOk;
}

uint32_t VX_CAPTURE_CaptureOnce(int32_t captureId) {
    INJECTED(CaptureOnce);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    std::unique_lock<std::mutex> held(inst->lock);
    if (inst->job == nullptr) return kNotConfigured;
    if (inst->streaming || inst->oncePending) return kBusy;
    std::shared_ptr<const Job> job = inst->job;
    if (inst->registration == nullptr) {
        PatternClock clock = clockOf(*inst, *job, 0);
        held.unlock();
        uint32_t status = produceFrame(*job, 0, clock);
        held.lock();
        if (status == kOk)
            ++inst->produced;
        else
            ++inst->frameErrors;
        return status;
    }
    // A registered completion entry makes the capture asynchronous.
    retireWorker(held, *inst);
    if (inst->streaming || inst->oncePending) return kBusy;
    inst->oncePending = true;
    inst->worker = std::thread(onceWorker, inst, job, inst->registration, ++inst->generation);
    return kOk;
}

uint32_t VX_CAPTURE_CaptureStart(int32_t captureId) {
    INJECTED(CaptureStart);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    std::unique_lock<std::mutex> held(inst->lock);
    if (inst->job == nullptr) return kNotConfigured;
    if (inst->streaming || inst->oncePending) return kBusy;
    retireWorker(held, *inst);
    if (inst->streaming || inst->oncePending) return kBusy;
    std::shared_ptr<const Job> job = inst->job;
    uint64_t size = job->dstBuffer->size();
    const FrameLayout& layout = job->dstLayout;
    uint64_t frame = uint64_t{layout.lumaSize} + layout.chromaSize;
    if (size < frame) return kBufferTooSmall;
    // Whole strides, and a last frame that needs only its own bytes.
    uint64_t ring = 1 + (size - frame) / layout.frameStride;
    if (!reserveBandwidth(job->bandwidth)) {
        EMU_LOGW("0x%x: %" PRIu64 " MB/s more would exceed the engines' %" PRIu64 " MB/s",
                 captureId, job->bandwidth / 1000000, kBandwidthBudget / 1000000);
        return kBandwidth;
    }
    inst->streamBandwidth = job->bandwidth;
    inst->ringFrames = static_cast<uint32_t>(std::min<uint64_t>(ring, kMaxRingFrames));
    inst->heldMask = 0;
    inst->nextIndex = 0;
    inst->streaming = true;
    inst->worker = std::thread(streamWorker, inst, job, ++inst->generation);
    EMU_LOGI("0x%x streaming %s into %u buffers", captureId, job->describe().c_str(),
             inst->ringFrames);
    return kOk;
}

uint32_t VX_CAPTURE_CaptureStop(int32_t captureId) {
    INJECTED(CaptureStop);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    std::unique_lock<std::mutex> held(inst->lock);
    return stopLocked(held, *inst);
}

uint32_t VX_CAPTURE_RegisterCallback(int32_t captureId, VX_CAPTURE_CallbackInputParams_s* pParams,
                                     void* pOut) {
    (void)pOut;
    INJECTED(RegisterCallback);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    if (pParams == nullptr || pParams->pfnCallback == nullptr) return kBadArgument;
    auto reg = std::make_shared<Registration>();
    reg->entry = pParams->pfnCallback;
    // The caller's counter moves on when it installs a newer client; frames of this
    // registration keep the value it had now.
    reg->sequence = pParams->pu32SequenceId != nullptr
                        ? __atomic_load_n(pParams->pu32SequenceId, __ATOMIC_RELAXED)
                        : 0;
    std::lock_guard<std::mutex> guard(inst->lock);
    inst->registration = reg;
    return kOk;
}

uint32_t VX_CAPTURE_UnRegisterCallback(int32_t captureId,
                                       VX_CAPTURE_CallbackInputParams_s* pParams) {
    (void)pParams;
    INJECTED(UnRegisterCallback);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    std::unique_lock<std::mutex> held(inst->lock);
    inst->registration = nullptr;
    // Once this returns, no completion of the old registration is running.
    drainCallbacksLocked(held, *inst);
    return kOk;
}

uint32_t VX_CAPTURE_FrameProcessDone(int32_t captureId, uint32_t index) {
    INJECTED(FrameProcessDone);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    std::lock_guard<std::mutex> guard(inst->lock);
    if (index >= kMaxRingFrames || (inst->streaming && index >= inst->ringFrames)) {
        EMU_LOGW("0x%x: no buffer %u in a ring of %u", captureId, index, inst->ringFrames);
        return kBadParameter;
    }
    inst->heldMask &= ~(1u << index);
    inst->changed.notify_all();
    return kOk;
}

uint32_t VX_CAPTURE_NotifyContinueCapture(int32_t captureId) {
    INJECTED(NotifyContinueCapture);
    std::shared_ptr<Instance> inst = findInstance(captureId);
    if (inst == nullptr) return kBadId;
    std::lock_guard<std::mutex> guard(inst->lock);
    ++inst->continues;
    return kOk;
}

uint32_t VX_CAPTURE_DumpInfo(int32_t fd, uint32_t level) {
    INJECTED(DumpInfo);
    if (fd < 0) return kBadArgument;
    std::array<std::shared_ptr<Instance>, kSlots> slots;
    uint32_t initCount;
    {
        std::lock_guard<std::mutex> guard(gTableLock);
        slots = gSlots;
        initCount = gInitCount;
    }
    std::shared_ptr<const HwCaps> hw = caps();
    dprintf(fd, "Emulated capture hardware: 2 DIP engines, init count %u\n", initCount);
    dprintf(fd, "  device tree: %s\n", hw->root.c_str());
    dprintf(fd, "  writes: %s\n", formatNames(hw->writeMask).c_str());
    dprintf(fd, "  reads: %s\n", formatNames(hw->readMask).c_str());
    dprintf(fd,
            "  rotate 90: %s, rotate 270: %s, rotate 180 up to %u px, crop: %s, downscale: %s, "
            "upscale: %s, widths up to %u, tiled sources up to %u\n",
            (hw->rotate & 1) ? "yes" : "no", (hw->rotate & 2) ? "yes" : "no", hw->hMirrorSize,
            hw->crop ? "yes" : "no", hw->downscale ? "yes" : "no", hw->upscale ? "yes" : "no",
            hw->maxWidth(), hw->tileWidthMax);
    dprintf(fd, "  bandwidth in use: %" PRIu64 " of %" PRIu64 " MB/s\n", bandwidthInUse() / 1000000,
            kBandwidthBudget / 1000000);
    int open = 0;
    for (auto& inst : slots) open += inst != nullptr ? 1 : 0;
    dprintf(fd, "Instances: %d open\n", open);
    for (auto& inst : slots) {
        if (inst != nullptr) dumpInstance(fd, *inst, level >= 32);
    }
    dprintf(fd, "Injected faults:\n%s", describeFaults().c_str());
    return kOk;
}

}  // extern "C"
