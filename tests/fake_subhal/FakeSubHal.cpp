/*
 * Test double of the capture sub-HAL: records every entry with copies of its records, answers
 * with scripted statuses and records, and calls registered completion entries from threads of its
 * own, as the vendor library does. Built a second time with FAKE_SUBHAL_PARTIAL, lacking
 * VX_CAPTURE_DumpInfo and VX_CAPTURE_NotifyContinueCapture.
 */
#include "FakeSubHal.h"

#include <errno.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
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

constexpr uint32_t kHandleBase = 0x73000000u;
constexpr uint32_t kSlotCount = 32;
constexpr uint32_t kStatusNoFreeSlot = 17;
constexpr uint32_t kStatusBadPointer = 10;
// Keeps eight NV12 buffers of the largest frame addressable with 32-bit offsets.
constexpr uint32_t kMaxFrameSide = 8192;
constexpr uint32_t kBufferCount = 8;

template <typename T>
std::vector<uint8_t> bytesOf(const T* p, size_t size = sizeof(T)) {
    const auto* b = reinterpret_cast<const uint8_t*>(p);
    return p == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(b, b + size);
}

bool isIdentifierForm(uint32_t handle) {
    return (handle & ~(kSlotCount - 1)) == kHandleBase;
}

Call makeCall(Entry entry, int32_t captureId = -1, uint32_t arg = 0, std::vector<uint8_t> rec1 = {},
              std::vector<uint8_t> rec2 = {}) {
    return Call{entry, captureId, arg, -1, 0, std::move(rec1), std::move(rec2)};
}

// Shared with the thread itself, which may outlive its place in State when detached.
struct OwnedThread {
    std::thread thread;
    bool stop = false;
};
using ThreadList = std::vector<std::shared_ptr<OwnedThread>>;

// Everything reset() forgets.
struct Recorded {
    std::vector<Call> calls;
    std::vector<std::string> journal;
    std::array<uint32_t, kEntryCount> results{};
    std::array<std::deque<uint32_t>, kEntryCount> onceResults;
    std::array<bool, kSlotCount> slotUsed{};
    std::optional<uint32_t> nextOpenHandle;
    std::optional<VX_CAPTURE_PlaneOffset_s> planeOffsets;
    std::optional<VX_CAPTURE_getQueryInfo_s> capabilityAnswer;
    std::array<std::optional<VX_CAPTURE_DipInfo_s>, 2> dipInfo;
    std::string dumpText;
    std::map<int32_t, std::pair<VX_CAPTURE_Callback, uint32_t>> registrations;  // entry, sequence
    std::map<int32_t, uint32_t> lumaSizes;  // of the last accepted SetCaptureInfo destination
    bool autoStream = false;
    unsigned streamPeriodUs = 1000;
    std::map<int32_t, uint64_t> framesFired;
};

struct State : Recorded {
    std::mutex mu;
    std::condition_variable cv;  // a thread was told to stop
    bool shuttingDown = false;
    std::map<int32_t, std::shared_ptr<OwnedThread>> streams;

    ~State() { stopThreads(true); }

    // Picks the status: the next one-shot status, else the persistent one.
    uint32_t enterLocked(Call&& call) {
        const size_t e = static_cast<size_t>(call.entry);
        journal.push_back(entryName(call.entry) + std::strlen("VX_CAPTURE_"));
        calls.push_back(std::move(call));
        if (onceResults[e].empty()) return results[e];
        const uint32_t status = onceResults[e].front();
        onceResults[e].pop_front();
        return status;
    }

    void stopThreads(bool forGood) {
        std::unique_lock<std::mutex> lock(mu);
        shuttingDown = shuttingDown || forGood;
        ThreadList threads;
        for (auto& entry : streams) threads.push_back(std::move(entry.second));
        streams.clear();
        for (auto& t : threads) t->stop = true;
        cv.notify_all();
        lock.unlock();
        join(threads);
    }

    // A thread told to stop from inside itself (a callback calling back in) cannot join itself.
    static void join(const ThreadList& threads) {
        for (auto& t : threads) {
            if (t->thread.get_id() == std::this_thread::get_id()) {
                t->thread.detach();
            } else {
                t->thread.join();
            }
        }
    }

    void startStreamLocked(int32_t id) {
        if (shuttingDown || streams.count(id) != 0) return;
        auto& stream = streams[id] = std::make_shared<OwnedThread>();
        stream->thread = std::thread([this, id, self = stream, periodUs = streamPeriodUs] {
            streamLoop(id, *self, std::chrono::microseconds(periodUs));
        });
    }

    void streamLoop(int32_t id, const OwnedThread& self, std::chrono::microseconds period) {
        uint32_t index = 0;
        std::unique_lock<std::mutex> lock(mu);
        while (!cv.wait_for(lock, period, [&self] { return self.stop; })) {
            // Looked up per frame: every frame goes to whatever is registered at that moment.
            auto reg = registrations.find(id);
            if (reg == registrations.end() || reg->second.first == nullptr) continue;
            auto [fn, sequence] = reg->second;
            VX_CAPTURE_CaptureDoneInfo_s info{};
            info.index = index;
            info.Y_Size = lumaSizes.count(id) != 0 ? lumaSizes[id] : 1920 * 1080;
            info.C_Size = info.Y_Size / 2;
            for (uint32_t k = 0; k < kBufferCount; ++k) {
                info.stBuf[k].Y_offSet = k * (info.Y_Size + info.C_Size);
                info.stBuf[k].C_offSet = info.stBuf[k].Y_offSet + info.Y_Size;
            }
            index = (index + 1) % kBufferCount;
            ++framesFired[id];
            // Not held across the call: the service takes its own mutex inside, and a binder
            // thread holding that one may be calling into one of our entries.
            lock.unlock();
            fn(id, 0, &info, &sequence);
            lock.lock();
        }
    }
};

// Built on first use, so that it is destroyed (its threads joined) before the statics of the
// service its threads call into.
State& state() {
    static State s;
    return s;
}

template <typename F>
auto locked(F f) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    return f(s);
}

// Records the call; with status 0 and every record pointer set, applies its effect.
uint32_t enter(Call&& call, bool pointersSet = true,
               const std::function<void(State&)>& effect = nullptr) {
    return locked([&](State& s) {
        const uint32_t status = s.enterLocked(std::move(call));
        if (status != 0) return status;
        if (!pointersSet) return kStatusBadPointer;
        if (effect) effect(s);
        return 0u;
    });
}

}  // namespace

const char* entryName(Entry e) {
#define FAKE_SUBHAL_NAME(name) "VX_CAPTURE_" #name,
    static constexpr const char* kNames[kEntryCount] = {FAKE_SUBHAL_ENTRIES(FAKE_SUBHAL_NAME)};
#undef FAKE_SUBHAL_NAME
    const size_t i = static_cast<size_t>(e);
    return i < kEntryCount ? kNames[i] : "VX_CAPTURE_?";
}

void reset() {
    state().stopThreads(false);
    locked([](State& s) { static_cast<Recorded&>(s) = Recorded(); });
}

std::vector<Call> calls() {
    return locked([](State& s) { return s.calls; });
}

std::vector<std::string> journal() {
    return locked([](State& s) { return s.journal; });
}

void note(const std::string& line) {
    locked([&](State& s) { s.journal.push_back(line); });
}

std::vector<Call> callsOf(Entry e) {
    std::vector<Call> out;
    for (Call& c : calls()) {
        if (c.entry == e) out.push_back(std::move(c));
    }
    return out;
}

size_t count(Entry e) {
    return callsOf(e).size();
}

void setResult(Entry e, uint32_t status) {
    locked([&](State& s) { s.results.at(static_cast<size_t>(e)) = status; });
}

void setResultOnce(Entry e, uint32_t status) {
    locked([&](State& s) { s.onceResults.at(static_cast<size_t>(e)).push_back(status); });
}

void setNextOpenHandle(uint32_t handle) {
    locked([&](State& s) { s.nextOpenHandle = handle; });
}

void setPlaneOffsets(uint32_t first, uint32_t second) {
    locked([&](State& s) { s.planeOffsets = VX_CAPTURE_PlaneOffset_s{{first, second}}; });
}

void setCapabilityAnswer(const VX_CAPTURE_getQueryInfo_s& answer) {
    locked([&](State& s) { s.capabilityAnswer = answer; });
}

void setDipInfo(uint32_t mode, const VX_CAPTURE_DipInfo_s& info) {
    if (mode < 2) locked([&](State& s) { s.dipInfo[mode] = info; });
}

void setDumpText(const std::string& text) {
    locked([&](State& s) { s.dumpText = text; });
}

uint32_t registrationSequence(int32_t id) {
    return locked([id](State& s) {
        auto it = s.registrations.find(id);
        return it == s.registrations.end() ? 0 : it->second.second;
    });
}

int fireCallback(int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info) {
    const std::pair<VX_CAPTURE_Callback, uint32_t> reg = locked([id](State& s) {
        auto it = s.registrations.find(id);
        return it == s.registrations.end() ? std::make_pair(VX_CAPTURE_Callback(nullptr), 0u)
                                           : it->second;
    });
    const VX_CAPTURE_Callback fn = reg.first;
    if (fn == nullptr) return -1;
    // From a thread of the double's own, as the vendor library calls back.
    return std::async(std::launch::async,
                      [fn, id, frame = info, seq = reg.second]() mutable {
                          return fn(id, 0, &frame, &seq);
                      })
        .get();
}

void setAutoStream(bool enabled, unsigned periodUs) {
    locked([&](State& s) {
        s.autoStream = enabled;
        s.streamPeriodUs = periodUs == 0 ? 1 : periodUs;
    });
}

uint64_t framesFired(int32_t id) {
    return locked([id](State& s) { return s.framesFired[id]; });
}

}  // namespace fake_subhal

using namespace fake_subhal;

extern "C" {

uint32_t VX_CAPTURE_Init(uint8_t* pInitParam) {
    Call c = makeCall(Entry::Init);
    c.param = pInitParam != nullptr ? *pInitParam : 0;
    return enter(std::move(c));
}

uint32_t VX_CAPTURE_DeInit(void) {
    return enter(makeCall(Entry::DeInit));
}

uint32_t VX_CAPTURE_Open(uint8_t* pOpenParam, uint32_t* pHandle) {
    Call c = makeCall(Entry::Open);
    c.param = pOpenParam != nullptr ? *pOpenParam : 0;
    return locked([&](State& s) {
        const uint32_t status = s.enterLocked(std::move(c));
        const std::optional<uint32_t> scripted = std::exchange(s.nextOpenHandle, std::nullopt);
        if (pHandle == nullptr) return status != 0 ? status : kStatusBadPointer;
        if (!scripted && status != 0) return status;
        uint32_t slot = 0;
        while (slot < kSlotCount && s.slotUsed[slot]) ++slot;
        if (!scripted && slot == kSlotCount) return kStatusNoFreeSlot;
        *pHandle = scripted.value_or(kHandleBase + slot);
        if (status == 0 && isIdentifierForm(*pHandle)) s.slotUsed[*pHandle - kHandleBase] = true;
        return status;
    });
}

uint32_t VX_CAPTURE_Close(int32_t captureId) {
    return enter(makeCall(Entry::Close, captureId), true, [captureId](State& s) {
        if (isIdentifierForm(captureId)) s.slotUsed[captureId - kHandleBase] = false;
    });
}

uint32_t VX_CAPTURE_SetCaptureInfo(int32_t captureId, VX_CAPTURE_CaptureInfo_s* pInfo) {
    return enter(
        makeCall(Entry::SetCaptureInfo, captureId, 0, bytesOf(pInfo)), pInfo != nullptr,
        [&](State& s) {
            const uint32_t width = pInfo->u32DstWidth;
            const uint32_t height = pInfo->u32DstHeight;
            if (width != 0 && height != 0 && width <= kMaxFrameSide && height <= kMaxFrameSide) {
                s.lumaSizes[captureId] = width * height;
            }
        });
}

uint32_t VX_CAPTURE_SetCaptureFrameInfo(int32_t captureId, VX_CAPTURE_SrcFrameInfo_s* pSrc,
                                        VX_CAPTURE_DstFrameInfo_s* pDst,
                                        VX_CAPTURE_PlaneOffset_s* pDstPlaneOffset) {
    return enter(makeCall(Entry::SetCaptureFrameInfo, captureId, 0, bytesOf(pSrc), bytesOf(pDst)),
                 pSrc != nullptr && pDst != nullptr && pDstPlaneOffset != nullptr, [&](State& s) {
                     if (s.planeOffsets) *pDstPlaneOffset = *s.planeOffsets;
                 });
}

uint32_t VX_CAPTURE_GetCapabilityInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                                      VX_CAPTURE_getQueryInfo_s* pAnswer) {
    Call c = makeCall(Entry::GetCapabilityInfo, captureId, 0, bytesOf(pQuery), bytesOf(pAnswer));
    return enter(std::move(c), pQuery != nullptr && pAnswer != nullptr, [&](State& s) {
        if (s.capabilityAnswer) *pAnswer = *s.capabilityAnswer;
    });
}

uint32_t VX_CAPTURE_GetDipInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                               VX_CAPTURE_DipInfo_s* pDipInfo, uint32_t u32Mode) {
    Call c = makeCall(Entry::GetDipInfo, captureId, u32Mode, bytesOf(pQuery), bytesOf(pDipInfo));
    return enter(std::move(c), pQuery != nullptr && pDipInfo != nullptr, [&](State& s) {
        if (u32Mode < 2 && s.dipInfo[u32Mode]) *pDipInfo = *s.dipInfo[u32Mode];
    });
}

uint32_t VX_CAPTURE_CaptureOnce(int32_t captureId) {
    return enter(makeCall(Entry::CaptureOnce, captureId));
}

uint32_t VX_CAPTURE_CaptureStart(int32_t captureId) {
    return enter(makeCall(Entry::CaptureStart, captureId), true, [captureId](State& s) {
        if (s.autoStream) s.startStreamLocked(captureId);
    });
}

uint32_t VX_CAPTURE_CaptureStop(int32_t captureId) {
    ThreadList stopped;
    const uint32_t status = locked([&](State& s) {
        // Stopped whatever the status: a stream left running would outlive its instance.
        auto it = s.streams.find(captureId);
        if (it != s.streams.end()) {
            it->second->stop = true;
            s.cv.notify_all();
            stopped.push_back(std::move(it->second));
            s.streams.erase(it);
        }
        return s.enterLocked(makeCall(Entry::CaptureStop, captureId));
    });
    State::join(stopped);
    return status;
}

uint32_t VX_CAPTURE_RegisterCallback(int32_t captureId, VX_CAPTURE_CallbackInputParams_s* pParams,
                                     void* pOut) {
    return enter(makeCall(Entry::RegisterCallback, captureId, 0, bytesOf(pParams),
                          bytesOf(static_cast<const uint8_t*>(pOut), 8)),
                 pParams != nullptr, [&](State& s) {
                     // The service bumps its counter under its own mutex, which we do not share.
                     const uint32_t* seq = pParams->pu32SequenceId;
                     s.registrations[captureId] = {
                         pParams->pfnCallback,
                         seq == nullptr ? 0 : __atomic_load_n(seq, __ATOMIC_ACQUIRE)};
                 });
}

uint32_t VX_CAPTURE_UnRegisterCallback(int32_t captureId,
                                       VX_CAPTURE_CallbackInputParams_s* pParams) {
    return enter(makeCall(Entry::UnRegisterCallback, captureId, 0, bytesOf(pParams)), true,
                 [captureId](State& s) { s.registrations.erase(captureId); });
}

uint32_t VX_CAPTURE_FrameProcessDone(int32_t captureId, uint32_t index) {
    return enter(makeCall(Entry::FrameProcessDone, captureId, index));
}

#ifndef FAKE_SUBHAL_PARTIAL

uint32_t VX_CAPTURE_NotifyContinueCapture(int32_t captureId) {
    return enter(makeCall(Entry::NotifyContinueCapture, captureId));
}

uint32_t VX_CAPTURE_DumpInfo(int32_t fd, uint32_t level) {
    Call c = makeCall(Entry::DumpInfo, -1, level);
    c.fd = fd;
    std::string text;
    const uint32_t status = enter(std::move(c), true, [&](State& s) { text = s.dumpText; });
    // Written outside the lock: a pipe nobody drains yet must not stall other entries.
    for (size_t done = 0; status == 0 && fd >= 0 && done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    return status;
}

#endif  // FAKE_SUBHAL_PARTIAL

}  // extern "C"
