/*
 * Test double of the capture sub-HAL: records every entry with copies of the records it was
 * given, answers with scripted statuses and records, and calls the registered completion entries
 * from threads of its own, as the vendor library does.
 *
 * Built twice from this file: the full library and a partial one (FAKE_SUBHAL_PARTIAL) that lacks
 * VX_CAPTURE_DumpInfo and VX_CAPTURE_NotifyContinueCapture, for the service's missing-symbol paths.
 */
#include "FakeSubHal.h"

#include <errno.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace fake_subhal {
namespace {

constexpr uint32_t kDefaultFrameWidth = 1920;
constexpr uint32_t kDefaultFrameHeight = 1080;
// Keeps eight NV12 buffers of the largest accepted frame addressable with 32-bit offsets.
constexpr uint32_t kMaxFrameSide = 8192;
constexpr uint32_t kBufferCount = 8;

constexpr std::array<const char*, kEntryCount> kEntryNames = {
    "VX_CAPTURE_Init",
    "VX_CAPTURE_DeInit",
    "VX_CAPTURE_Open",
    "VX_CAPTURE_Close",
    "VX_CAPTURE_SetCaptureInfo",
    "VX_CAPTURE_SetCaptureFrameInfo",
    "VX_CAPTURE_GetCapabilityInfo",
    "VX_CAPTURE_GetDipInfo",
    "VX_CAPTURE_CaptureOnce",
    "VX_CAPTURE_CaptureStart",
    "VX_CAPTURE_CaptureStop",
    "VX_CAPTURE_RegisterCallback",
    "VX_CAPTURE_UnRegisterCallback",
    "VX_CAPTURE_FrameProcessDone",
    "VX_CAPTURE_NotifyContinueCapture",
    "VX_CAPTURE_DumpInfo",
};

size_t indexOf(Entry e) {
    return static_cast<size_t>(e);
}

template <typename T>
std::vector<uint8_t> bytesOf(const T* p, size_t size = sizeof(T)) {
    if (p == nullptr) return {};
    const auto* b = reinterpret_cast<const uint8_t*>(p);
    return std::vector<uint8_t>(b, b + size);
}

bool isIdentifierForm(uint32_t handle) {
    return (handle & ~(kSlotCount - 1)) == kHandleBase;
}

// Lets a fire request made from inside a callback that the worker is running execute inline
// instead of waiting for the worker to finish the very callback that waits.
thread_local bool tOnWorker = false;

struct Registration {
    VX_CAPTURE_CallbackInputParams_s params{};
    uint32_t sequence = 0;
};

struct Counters {
    uint64_t fired = 0;
    uint64_t delivered = 0;
    uint64_t skipped = 0;
};

// A thread of the double together with what it needs to be told to stop. Owned by unique_ptr so
// that the thread's view of it stays valid until it has been joined.
struct OwnedThread {
    virtual ~OwnedThread() = default;
    std::thread thread;
    std::condition_variable cv;
    bool stop = false;
};

struct Stream : OwnedThread {
    int32_t id = 0;
    unsigned periodUs = 0;
};

struct Worker : OwnedThread {
    std::deque<std::function<void()>> tasks;
};

using ThreadList = std::vector<std::unique_ptr<OwnedThread>>;

class State {
public:
    ~State() {
        std::unique_lock<std::mutex> lock(mu);
        shuttingDown = true;
        ThreadList threads = takeAllThreadsLocked();
        lock.unlock();
        joinThreads(std::move(threads));
        lock.lock();
        // Only non-empty when the process exits from inside one of our own threads; that thread
        // cannot join itself and destroying a joinable std::thread would abort.
        for (auto& t : deferred) {
            if (t->thread.joinable()) t->thread.detach();
        }
    }

    std::mutex mu;
    bool shuttingDown = false;

    std::vector<Call> calls;
    std::array<uint32_t, kEntryCount> results{};
    std::array<std::deque<uint32_t>, kEntryCount> onceResults;

    std::array<bool, kSlotCount> slotUsed{};
    std::optional<uint32_t> nextOpenHandle;
    std::optional<VX_CAPTURE_PlaneOffset_s> planeOffsets;
    std::optional<VX_CAPTURE_getQueryInfo_s> capabilityAnswer;
    std::array<std::optional<VX_CAPTURE_DipInfo_s>, 2> dipInfo;
    std::string dumpText;

    std::map<int32_t, Registration> registrations;
    std::map<int32_t, std::pair<uint32_t, uint32_t>> frameSizes;

    bool autoStream = false;
    unsigned streamPeriodUs = 1000;
    std::map<int32_t, std::unique_ptr<Stream>> streams;
    std::map<int32_t, Counters> counters;

    std::unique_ptr<Worker> worker;
    // Threads asked to stop from inside themselves; joined by the next reset.
    ThreadList deferred;

    // Records the call and picks its status. Called with mu held.
    uint32_t enterLocked(Call&& call) {
        const size_t e = indexOf(call.entry);
        call.thread = std::this_thread::get_id();
        calls.push_back(std::move(call));
        std::deque<uint32_t>& once = onceResults[e];
        if (!once.empty()) {
            const uint32_t status = once.front();
            once.pop_front();
            return status;
        }
        return results[e];
    }

    void startStreamLocked(int32_t id) {
        if (shuttingDown || streams.count(id) != 0) return;
        auto stream = std::make_unique<Stream>();
        stream->id = id;
        stream->periodUs = streamPeriodUs;
        Stream* raw = stream.get();
        stream->thread = std::thread([this, raw] { streamLoop(raw); });
        streams.emplace(id, std::move(stream));
    }

    ThreadList takeAllThreadsLocked() {
        ThreadList out;
        for (auto& entry : streams) out.push_back(std::move(entry.second));
        streams.clear();
        if (worker) out.push_back(std::move(worker));
        for (auto& t : deferred) out.push_back(std::move(t));
        deferred.clear();
        for (auto& t : out) {
            t->stop = true;
            t->cv.notify_all();
        }
        return out;
    }

    // Called without mu.
    void joinThreads(ThreadList threads) {
        for (auto& t : threads) {
            if (t->thread.get_id() == std::this_thread::get_id()) {
                std::lock_guard<std::mutex> lock(mu);
                deferred.push_back(std::move(t));
            } else if (t->thread.joinable()) {
                t->thread.join();
            }
        }
    }

    int runOnWorker(std::function<int()> fn) {
        if (tOnWorker) return fn();
        std::unique_lock<std::mutex> lock(mu);
        if (shuttingDown) return -1;
        startWorkerLocked();
        auto task = std::make_shared<std::packaged_task<int()>>(std::move(fn));
        std::future<int> result = task->get_future();
        worker->tasks.push_back([task] { (*task)(); });
        worker->cv.notify_all();
        lock.unlock();
        return result.get();
    }

    void startWorkerLocked() {
        if (worker) return;
        worker = std::make_unique<Worker>();
        Worker* raw = worker.get();
        worker->thread = std::thread([this, raw] { workerLoop(raw); });
    }

private:
    VX_CAPTURE_CaptureDoneInfo_s makeFrameLocked(int32_t id, uint32_t index) {
        uint32_t width = kDefaultFrameWidth;
        uint32_t height = kDefaultFrameHeight;
        auto size = frameSizes.find(id);
        if (size != frameSizes.end()) {
            width = size->second.first;
            height = size->second.second;
        }
        VX_CAPTURE_CaptureDoneInfo_s info{};
        info.index = index;
        info.Y_Size = width * height;
        info.C_Size = info.Y_Size / 2;
        const uint32_t bufferSize = info.Y_Size + info.C_Size;
        for (uint32_t k = 0; k < kBufferCount; ++k) {
            info.stBuf[k].Y_offSet = k * bufferSize;
            info.stBuf[k].C_offSet = k * bufferSize + info.Y_Size;
        }
        info.ErrorNo = 0;
        return info;
    }

    void streamLoop(Stream* stream) {
        const auto period = std::chrono::microseconds(stream->periodUs);
        uint32_t index = 0;
        std::unique_lock<std::mutex> lock(mu);
        for (;;) {
            if (stream->cv.wait_for(lock, period, [stream] { return stream->stop; })) break;
            // The registration is looked up per frame: the service may re-register or drop it
            // while the stream runs, and every frame must go to whatever is registered then.
            auto reg = registrations.find(stream->id);
            if (reg == registrations.end() || reg->second.params.pfnCallback == nullptr) {
                ++counters[stream->id].skipped;
                continue;
            }
            const VX_CAPTURE_Callback fn = reg->second.params.pfnCallback;
            uint32_t sequence = reg->second.sequence;
            VX_CAPTURE_CaptureDoneInfo_s info = makeFrameLocked(stream->id, index);
            index = (index + 1) % kBufferCount;
            ++counters[stream->id].fired;
            // The service takes its own callback mutex inside; holding ours across the call would
            // deadlock against a binder thread that holds it and calls into an entry.
            lock.unlock();
            const int ret = fn(stream->id, 0, &info, &sequence);
            lock.lock();
            if (ret == 0) ++counters[stream->id].delivered;
        }
    }

    void workerLoop(Worker* self) {
        tOnWorker = true;
        std::unique_lock<std::mutex> lock(mu);
        for (;;) {
            self->cv.wait(lock, [self] { return self->stop || !self->tasks.empty(); });
            // Pending requests are served even when stopping: their callers are waiting.
            if (self->tasks.empty()) break;
            std::function<void()> task = std::move(self->tasks.front());
            self->tasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
    }
};

// Constructed on first use rather than at load, so that it is destroyed (and its threads joined)
// before the statics of the service that its threads call into.
State& state() {
    static State s;
    return s;
}

int fireRegistered(int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info,
                   std::optional<uint32_t> sequenceOverride) {
    State& s = state();
    Registration reg;
    {
        std::lock_guard<std::mutex> lock(s.mu);
        auto it = s.registrations.find(id);
        if (it == s.registrations.end()) return -1;
        reg = it->second;
    }
    const VX_CAPTURE_Callback fn = reg.params.pfnCallback;
    if (fn == nullptr) return -1;
    const uint32_t sequence = sequenceOverride.value_or(reg.sequence);
    return s.runOnWorker([fn, id, frame = info, sequence]() mutable {
        uint32_t seq = sequence;
        return fn(id, 0, &frame, &seq);
    });
}

Call makeCall(Entry entry, int32_t captureId = -1) {
    Call c;
    c.entry = entry;
    c.captureId = captureId;
    return c;
}

// Entries that only take an identifier: record, answer the scripted status.
uint32_t simpleEntry(Entry entry, int32_t captureId, uint32_t arg = 0) {
    State& s = state();
    Call c = makeCall(entry, captureId);
    c.arg = arg;
    std::lock_guard<std::mutex> lock(s.mu);
    return s.enterLocked(std::move(c));
}

}  // namespace

const char* entryName(Entry e) {
    const size_t i = indexOf(e);
    return i < kEntryNames.size() ? kEntryNames[i] : "VX_CAPTURE_?";
}

void reset() {
    State& s = state();
    std::unique_lock<std::mutex> lock(s.mu);
    ThreadList threads = s.takeAllThreadsLocked();
    lock.unlock();
    s.joinThreads(std::move(threads));
    lock.lock();
    s.calls.clear();
    s.results.fill(0);
    for (auto& q : s.onceResults) q.clear();
    s.slotUsed.fill(false);
    s.nextOpenHandle.reset();
    s.planeOffsets.reset();
    s.capabilityAnswer.reset();
    for (auto& d : s.dipInfo) d.reset();
    s.dumpText.clear();
    s.registrations.clear();
    s.frameSizes.clear();
    s.autoStream = false;
    s.streamPeriodUs = 1000;
    s.counters.clear();
}

std::vector<Call> calls() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    return s.calls;
}

std::vector<Call> callsOf(Entry e) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    std::vector<Call> out;
    for (const Call& c : s.calls) {
        if (c.entry == e) out.push_back(c);
    }
    return out;
}

size_t count(Entry e) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    size_t n = 0;
    for (const Call& c : s.calls) {
        if (c.entry == e) ++n;
    }
    return n;
}

void setResult(Entry e, uint32_t status) {
    const size_t i = indexOf(e);
    if (i >= kEntryCount) return;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    s.results[i] = status;
}

void setResultOnce(Entry e, uint32_t status) {
    const size_t i = indexOf(e);
    if (i >= kEntryCount) return;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    s.onceResults[i].push_back(status);
}

void setNextOpenHandle(uint32_t handle) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    s.nextOpenHandle = handle;
}

void setPlaneOffsets(uint32_t first, uint32_t second) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    s.planeOffsets = VX_CAPTURE_PlaneOffset_s{{first, second}};
}

void setCapabilityAnswer(const VX_CAPTURE_getQueryInfo_s& answer) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    s.capabilityAnswer = answer;
}

void setDipInfo(uint32_t mode, const VX_CAPTURE_DipInfo_s& info) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    if (mode < s.dipInfo.size()) s.dipInfo[mode] = info;
}

void setDumpText(const std::string& text) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    s.dumpText = text;
}

bool hasRegistration(int32_t id) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    return s.registrations.count(id) != 0;
}

VX_CAPTURE_CallbackInputParams_s registration(int32_t id) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    auto it = s.registrations.find(id);
    return it == s.registrations.end() ? VX_CAPTURE_CallbackInputParams_s{} : it->second.params;
}

uint32_t registrationSequence(int32_t id) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    auto it = s.registrations.find(id);
    return it == s.registrations.end() ? 0 : it->second.sequence;
}

int fireCallback(int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info) {
    return fireRegistered(id, info, std::nullopt);
}

int fireCallbackWithSequence(int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info, uint32_t seq) {
    return fireRegistered(id, info, seq);
}

int fireRaw(VX_CAPTURE_Callback fn, int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info,
            uint32_t seq) {
    if (fn == nullptr) return -1;
    return state().runOnWorker(
        [fn, id, frame = info, seq]() mutable { return fn(id, 0, &frame, &seq); });
}

std::thread::id workerThreadId() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    if (s.shuttingDown) return std::thread::id();
    s.startWorkerLocked();
    return s.worker->thread.get_id();
}

void setAutoStream(bool enabled, unsigned periodUs) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    s.autoStream = enabled;
    s.streamPeriodUs = periodUs == 0 ? 1 : periodUs;
}

uint64_t framesFired(int32_t id) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    auto it = s.counters.find(id);
    return it == s.counters.end() ? 0 : it->second.fired;
}

uint64_t framesDelivered(int32_t id) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    auto it = s.counters.find(id);
    return it == s.counters.end() ? 0 : it->second.delivered;
}

uint64_t framesSkipped(int32_t id) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    auto it = s.counters.find(id);
    return it == s.counters.end() ? 0 : it->second.skipped;
}

bool isStreaming(int32_t id) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    return s.streams.count(id) != 0;
}

}  // namespace fake_subhal

using fake_subhal::Call;
using fake_subhal::Entry;
using fake_subhal::kStatusBadPointer;

extern "C" {

uint32_t VX_CAPTURE_Init(uint8_t* pInitParam) {
    fake_subhal::State& s = fake_subhal::state();
    Call c = fake_subhal::makeCall(Entry::Init);
    c.param = pInitParam != nullptr ? *pInitParam : 0;
    std::lock_guard<std::mutex> lock(s.mu);
    return s.enterLocked(std::move(c));
}

uint32_t VX_CAPTURE_DeInit(void) {
    return fake_subhal::simpleEntry(Entry::DeInit, -1);
}

uint32_t VX_CAPTURE_Open(uint8_t* pOpenParam, uint32_t* pHandle) {
    fake_subhal::State& s = fake_subhal::state();
    Call c = fake_subhal::makeCall(Entry::Open);
    c.param = pOpenParam != nullptr ? *pOpenParam : 0;
    std::lock_guard<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(std::move(c));
    const std::optional<uint32_t> scripted = std::exchange(s.nextOpenHandle, std::nullopt);
    if (pHandle == nullptr) return status != 0 ? status : kStatusBadPointer;
    if (scripted) {
        *pHandle = *scripted;
        if (status == 0 && fake_subhal::isIdentifierForm(*scripted)) {
            s.slotUsed[*scripted - fake_subhal::kHandleBase] = true;
        }
        return status;
    }
    if (status != 0) return status;
    for (uint32_t slot = 0; slot < fake_subhal::kSlotCount; ++slot) {
        if (!s.slotUsed[slot]) {
            s.slotUsed[slot] = true;
            *pHandle = fake_subhal::kHandleBase + slot;
            return 0;
        }
    }
    return fake_subhal::kStatusNoFreeSlot;
}

uint32_t VX_CAPTURE_Close(int32_t captureId) {
    fake_subhal::State& s = fake_subhal::state();
    std::lock_guard<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(fake_subhal::makeCall(Entry::Close, captureId));
    const uint32_t handle = static_cast<uint32_t>(captureId);
    if (status == 0 && fake_subhal::isIdentifierForm(handle)) {
        s.slotUsed[handle - fake_subhal::kHandleBase] = false;
    }
    return status;
}

uint32_t VX_CAPTURE_SetCaptureInfo(int32_t captureId, VX_CAPTURE_CaptureInfo_s* pInfo) {
    fake_subhal::State& s = fake_subhal::state();
    Call c = fake_subhal::makeCall(Entry::SetCaptureInfo, captureId);
    c.rec1 = fake_subhal::bytesOf(pInfo);
    std::lock_guard<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(std::move(c));
    if (status != 0) return status;
    if (pInfo == nullptr) return kStatusBadPointer;
    const uint32_t width = pInfo->u32DstWidth;
    const uint32_t height = pInfo->u32DstHeight;
    if (width != 0 && height != 0 && width <= fake_subhal::kMaxFrameSide &&
        height <= fake_subhal::kMaxFrameSide) {
        s.frameSizes[captureId] = {width, height};
    }
    return 0;
}

uint32_t VX_CAPTURE_SetCaptureFrameInfo(int32_t captureId, VX_CAPTURE_SrcFrameInfo_s* pSrc,
                                        VX_CAPTURE_DstFrameInfo_s* pDst,
                                        VX_CAPTURE_PlaneOffset_s* pDstPlaneOffset) {
    fake_subhal::State& s = fake_subhal::state();
    Call c = fake_subhal::makeCall(Entry::SetCaptureFrameInfo, captureId);
    c.rec1 = fake_subhal::bytesOf(pSrc);
    c.rec2 = fake_subhal::bytesOf(pDst);
    std::lock_guard<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(std::move(c));
    if (status != 0) return status;
    if (pSrc == nullptr || pDst == nullptr || pDstPlaneOffset == nullptr) return kStatusBadPointer;
    if (s.planeOffsets) *pDstPlaneOffset = *s.planeOffsets;
    return 0;
}

uint32_t VX_CAPTURE_GetCapabilityInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                                      VX_CAPTURE_getQueryInfo_s* pAnswer) {
    fake_subhal::State& s = fake_subhal::state();
    Call c = fake_subhal::makeCall(Entry::GetCapabilityInfo, captureId);
    c.rec1 = fake_subhal::bytesOf(pQuery);
    c.rec2 = fake_subhal::bytesOf(pAnswer);
    std::lock_guard<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(std::move(c));
    if (status != 0) return status;
    if (pQuery == nullptr || pAnswer == nullptr) return kStatusBadPointer;
    if (s.capabilityAnswer) *pAnswer = *s.capabilityAnswer;
    return 0;
}

uint32_t VX_CAPTURE_GetDipInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                               VX_CAPTURE_DipInfo_s* pDipInfo, uint32_t u32Mode) {
    fake_subhal::State& s = fake_subhal::state();
    Call c = fake_subhal::makeCall(Entry::GetDipInfo, captureId);
    c.arg = u32Mode;
    c.rec1 = fake_subhal::bytesOf(pQuery);
    c.rec2 = fake_subhal::bytesOf(pDipInfo);
    std::lock_guard<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(std::move(c));
    if (status != 0) return status;
    if (pQuery == nullptr || pDipInfo == nullptr) return kStatusBadPointer;
    if (u32Mode < s.dipInfo.size() && s.dipInfo[u32Mode]) *pDipInfo = *s.dipInfo[u32Mode];
    return 0;
}

uint32_t VX_CAPTURE_CaptureOnce(int32_t captureId) {
    return fake_subhal::simpleEntry(Entry::CaptureOnce, captureId);
}

uint32_t VX_CAPTURE_CaptureStart(int32_t captureId) {
    fake_subhal::State& s = fake_subhal::state();
    std::lock_guard<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(fake_subhal::makeCall(Entry::CaptureStart, captureId));
    if (status == 0 && s.autoStream) s.startStreamLocked(captureId);
    return status;
}

uint32_t VX_CAPTURE_CaptureStop(int32_t captureId) {
    fake_subhal::State& s = fake_subhal::state();
    std::unique_lock<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(fake_subhal::makeCall(Entry::CaptureStop, captureId));
    // Stopped whatever the scripted status: a stream left running would fire into later steps of
    // the test and outlive the instance it belongs to.
    fake_subhal::ThreadList stopped;
    auto it = s.streams.find(captureId);
    if (it != s.streams.end()) {
        it->second->stop = true;
        it->second->cv.notify_all();
        stopped.push_back(std::move(it->second));
        s.streams.erase(it);
    }
    lock.unlock();
    s.joinThreads(std::move(stopped));
    return status;
}

uint32_t VX_CAPTURE_RegisterCallback(int32_t captureId, VX_CAPTURE_CallbackInputParams_s* pParams,
                                     void* pOut) {
    fake_subhal::State& s = fake_subhal::state();
    Call c = fake_subhal::makeCall(Entry::RegisterCallback, captureId);
    c.rec1 = fake_subhal::bytesOf(pParams);
    c.rec2 = fake_subhal::bytesOf(static_cast<const uint8_t*>(pOut), 8);
    std::lock_guard<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(std::move(c));
    if (status != 0) return status;
    if (pParams == nullptr) return kStatusBadPointer;
    fake_subhal::Registration reg;
    reg.params = *pParams;
    // The service bumps its counter under its own mutex, which we do not share.
    reg.sequence = pParams->pu32SequenceId != nullptr
                       ? __atomic_load_n(pParams->pu32SequenceId, __ATOMIC_ACQUIRE)
                       : 0;
    s.registrations[captureId] = reg;
    return 0;
}

uint32_t VX_CAPTURE_UnRegisterCallback(int32_t captureId,
                                       VX_CAPTURE_CallbackInputParams_s* pParams) {
    fake_subhal::State& s = fake_subhal::state();
    Call c = fake_subhal::makeCall(Entry::UnRegisterCallback, captureId);
    c.rec1 = fake_subhal::bytesOf(pParams);
    std::lock_guard<std::mutex> lock(s.mu);
    const uint32_t status = s.enterLocked(std::move(c));
    if (status == 0) s.registrations.erase(captureId);
    return status;
}

uint32_t VX_CAPTURE_FrameProcessDone(int32_t captureId, uint32_t index) {
    return fake_subhal::simpleEntry(Entry::FrameProcessDone, captureId, index);
}

#ifndef FAKE_SUBHAL_PARTIAL

uint32_t VX_CAPTURE_NotifyContinueCapture(int32_t captureId) {
    return fake_subhal::simpleEntry(Entry::NotifyContinueCapture, captureId);
}

uint32_t VX_CAPTURE_DumpInfo(int32_t fd, uint32_t level) {
    fake_subhal::State& s = fake_subhal::state();
    Call c = fake_subhal::makeCall(Entry::DumpInfo);
    c.fd = fd;
    c.arg = level;
    std::string text;
    {
        std::lock_guard<std::mutex> lock(s.mu);
        const uint32_t status = s.enterLocked(std::move(c));
        if (status != 0) return status;
        text = s.dumpText;
    }
    // Written outside the lock: a pipe that nobody drains yet must not stall other entries.
    size_t done = 0;
    while (fd >= 0 && done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    return 0;
}

#endif  // FAKE_SUBHAL_PARTIAL

}  // extern "C"
