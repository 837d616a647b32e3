// Test double of the capture sub-HAL. Built a second time with FAKE_SUBHAL_PARTIAL, lacking
// VX_CAPTURE_DumpInfo and VX_CAPTURE_NotifyContinueCapture.
#include "FakeSubHal.h"

#include <unistd.h>

#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <utility>

namespace fake_subhal {
namespace {

std::mutex gMutex;

template <typename T>
std::vector<uint8_t> bytesOf(const T* p) {
    const auto* b = reinterpret_cast<const uint8_t*>(p);
    return p == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(b, b + sizeof(T));
}

// Records the call and answers its next scripted status; only a success applies `effect`.
uint32_t enter(Call&& call, const std::function<void(State&)>& effect = nullptr) {
    std::lock_guard<std::mutex> lock(gMutex);
    State& s = state();
    std::deque<uint32_t>& queue = s.results[static_cast<size_t>(call.entry)];
    s.journal.push_back(entryName(call.entry) + std::strlen("VX_CAPTURE_"));
    s.calls.push_back(std::move(call));
    const uint32_t status = queue.empty() ? 0 : queue.front();
    if (!queue.empty()) queue.pop_front();
    if (status == 0 && effect) effect(s);
    return status;
}

}  // namespace

const char* entryName(Entry e) {
#define FAKE_SUBHAL_NAME(name) "VX_CAPTURE_" #name,
    static constexpr const char* kNames[kEntryCount] = {FAKE_SUBHAL_ENTRIES(FAKE_SUBHAL_NAME)};
#undef FAKE_SUBHAL_NAME
    return kNames[static_cast<size_t>(e)];
}

State& state() {
    static State s;
    return s;
}

void reset() {
    std::lock_guard<std::mutex> lock(gMutex);
    state() = State();
}

void note(const std::string& line) {
    std::lock_guard<std::mutex> lock(gMutex);
    state().journal.push_back(line);
}

void setResultOnce(Entry e, uint32_t status) {
    state().results[static_cast<size_t>(e)].push_back(status);
}

std::vector<Call> callsOf(Entry e) {
    std::vector<Call> out;
    for (const Call& c : state().calls) {
        if (c.entry == e) out.push_back(c);
    }
    return out;
}

size_t count(Entry e) {
    return callsOf(e).size();
}

int fireCallback(int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info) {
    std::unique_lock<std::mutex> lock(gMutex);
    const auto it = state().registrations.find(id);
    if (it == state().registrations.end() || it->second.first == nullptr) return -1;
    const VX_CAPTURE_Callback fn = it->second.first;
    uint32_t sequence = it->second.second;
    lock.unlock();
    VX_CAPTURE_CaptureDoneInfo_s frame = info;
    return std::async(std::launch::async, [&] { return fn(id, 0, &frame, &sequence); }).get();
}

}  // namespace fake_subhal

using namespace fake_subhal;

extern "C" {

uint32_t VX_CAPTURE_Init(uint8_t* pInitParam) {
    return enter({Entry::Init, -1, pInitParam != nullptr ? *pInitParam : 0u});
}

uint32_t VX_CAPTURE_DeInit(void) {
    return enter({Entry::DeInit});
}

uint32_t VX_CAPTURE_Open(uint8_t* pOpenParam, uint32_t* pHandle) {
    std::optional<uint32_t> handle;
    const uint32_t status = enter({Entry::Open, -1, pOpenParam != nullptr ? *pOpenParam : 0u},
                                  [&](State& s) { handle = 0x73000000u + s.opens++; });
    if (auto scripted = std::exchange(state().openHandle, std::nullopt)) handle = scripted;
    if (handle) *pHandle = *handle;
    return status;
}

uint32_t VX_CAPTURE_Close(int32_t captureId) {
    return enter({Entry::Close, captureId});
}

uint32_t VX_CAPTURE_SetCaptureInfo(int32_t captureId, VX_CAPTURE_CaptureInfo_s* pInfo) {
    return enter({Entry::SetCaptureInfo, captureId, 0, -1, bytesOf(pInfo)});
}

uint32_t VX_CAPTURE_SetCaptureFrameInfo(int32_t captureId, VX_CAPTURE_SrcFrameInfo_s* pSrc,
                                        VX_CAPTURE_DstFrameInfo_s* pDst,
                                        VX_CAPTURE_PlaneOffset_s* pDstPlaneOffset) {
    return enter({Entry::SetCaptureFrameInfo, captureId, 0, -1, bytesOf(pSrc), bytesOf(pDst)},
                 [&](State& s) {
                     if (s.planeOffsets) *pDstPlaneOffset = *s.planeOffsets;
                 });
}

uint32_t VX_CAPTURE_GetCapabilityInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                                      VX_CAPTURE_getQueryInfo_s* pAnswer) {
    return enter({Entry::GetCapabilityInfo, captureId, 0, -1, bytesOf(pQuery), bytesOf(pAnswer)},
                 [&](State& s) {
                     if (s.capabilityAnswer) *pAnswer = *s.capabilityAnswer;
                 });
}

uint32_t VX_CAPTURE_GetDipInfo(int32_t captureId, VX_CAPTURE_setQueryInfo_s* pQuery,
                               VX_CAPTURE_DipInfo_s* pDipInfo, uint32_t u32Mode) {
    return enter({Entry::GetDipInfo, captureId, u32Mode, -1, bytesOf(pQuery), bytesOf(pDipInfo)},
                 [&](State& s) {
                     if (u32Mode < 2 && s.dipInfo[u32Mode]) *pDipInfo = *s.dipInfo[u32Mode];
                 });
}

uint32_t VX_CAPTURE_CaptureOnce(int32_t captureId) {
    return enter({Entry::CaptureOnce, captureId});
}

uint32_t VX_CAPTURE_CaptureStart(int32_t captureId) {
    return enter({Entry::CaptureStart, captureId});
}

uint32_t VX_CAPTURE_CaptureStop(int32_t captureId) {
    return enter({Entry::CaptureStop, captureId});
}

uint32_t VX_CAPTURE_RegisterCallback(int32_t captureId, VX_CAPTURE_CallbackInputParams_s* pParams,
                                     void* /*pOut*/) {
    return enter({Entry::RegisterCallback, captureId, 0, -1, bytesOf(pParams)}, [&](State& s) {
        // The service bumps its counter under its own mutex, which we do not share.
        const uint32_t* seq = pParams->pu32SequenceId;
        s.registrations[captureId] = {pParams->pfnCallback,
                                      seq == nullptr ? 0 : __atomic_load_n(seq, __ATOMIC_ACQUIRE)};
    });
}

uint32_t VX_CAPTURE_UnRegisterCallback(int32_t captureId,
                                       VX_CAPTURE_CallbackInputParams_s* pParams) {
    return enter({Entry::UnRegisterCallback, captureId, 0, -1, bytesOf(pParams)},
                 [captureId](State& s) { s.registrations.erase(captureId); });
}

uint32_t VX_CAPTURE_FrameProcessDone(int32_t captureId, uint32_t index) {
    return enter({Entry::FrameProcessDone, captureId, index});
}

#ifndef FAKE_SUBHAL_PARTIAL

uint32_t VX_CAPTURE_NotifyContinueCapture(int32_t captureId) {
    return enter({Entry::NotifyContinueCapture, captureId});
}

uint32_t VX_CAPTURE_DumpInfo(int32_t fd, uint32_t level) {
    std::string text;
    const uint32_t status =
        enter({Entry::DumpInfo, -1, level, fd}, [&](State& s) { text = s.dumpText; });
    // A descriptor the library cannot write to fails the dump.
    return !text.empty() && ::write(fd, text.data(), text.size()) < 0 ? 1 : status;
}

#endif  // FAKE_SUBHAL_PARTIAL

}  // extern "C"
