// A capture sub-HAL whose entries return at once: what the service costs on top of the vendor
// library is measured against it. Open hands out 0x73000000 + slot; a registration is kept so that
// NullSubHal_Complete can call the registered completion entry as the vendor's threads would.
#include <atomic>
#include <cstdint>

#include "VxCaptureHal.h"

namespace {

constexpr int kSlots = 32;
constexpr int32_t kBase = 0x73000000;

std::atomic<bool> gOpen[kSlots];
std::atomic<VX_CAPTURE_Callback> gEntry[kSlots];
std::atomic<uint32_t> gSequence[kSlots];  // the value at registration

int slotOf(int32_t id) {
    return id >= kBase && id < kBase + kSlots ? id - kBase : -1;
}

}  // namespace

extern "C" {

// The entries that do nothing and succeed.
#define NULL_ENTRY(name, ...)    \
    uint32_t name(__VA_ARGS__) { \
        return 0;                \
    }
NULL_ENTRY(VX_CAPTURE_Init, uint8_t*)
NULL_ENTRY(VX_CAPTURE_DeInit, void)
NULL_ENTRY(VX_CAPTURE_SetCaptureInfo, int32_t, VX_CAPTURE_CaptureInfo_s*)
NULL_ENTRY(VX_CAPTURE_SetCaptureFrameInfo, int32_t, VX_CAPTURE_SrcFrameInfo_s*,
           VX_CAPTURE_DstFrameInfo_s*, VX_CAPTURE_PlaneOffset_s*)
NULL_ENTRY(VX_CAPTURE_GetDipInfo, int32_t, VX_CAPTURE_setQueryInfo_s*, VX_CAPTURE_DipInfo_s*,
           uint32_t)
NULL_ENTRY(VX_CAPTURE_CaptureOnce, int32_t)
NULL_ENTRY(VX_CAPTURE_CaptureStart, int32_t)
NULL_ENTRY(VX_CAPTURE_CaptureStop, int32_t)
NULL_ENTRY(VX_CAPTURE_FrameProcessDone, int32_t, uint32_t)
NULL_ENTRY(VX_CAPTURE_NotifyContinueCapture, int32_t)
NULL_ENTRY(VX_CAPTURE_DumpInfo, int32_t, uint32_t)

uint32_t VX_CAPTURE_Open(uint8_t*, uint32_t* handle) {
    for (int s = 0; s < kSlots; ++s) {
        bool closed = false;
        if (gOpen[s].compare_exchange_strong(closed, true)) {
            *handle = static_cast<uint32_t>(kBase + s);
            return 0;
        }
    }
    return 8;
}
uint32_t VX_CAPTURE_Close(int32_t id) {
    const int s = slotOf(id);
    if (s < 0) return 7;
    gOpen[s] = false;
    return 0;
}
uint32_t VX_CAPTURE_GetCapabilityInfo(int32_t, VX_CAPTURE_setQueryInfo_s*,
                                      VX_CAPTURE_getQueryInfo_s* answer) {
    answer->src_max_width = answer->dst_max_width = 4096;
    return 0;
}
uint32_t VX_CAPTURE_RegisterCallback(int32_t id, VX_CAPTURE_CallbackInputParams_s* params, void*) {
    const int s = slotOf(id);
    if (s < 0 || params == nullptr) return 7;
    gSequence[s] = params->pu32SequenceId != nullptr ? *params->pu32SequenceId : 0;
    gEntry[s] = params->pfnCallback;
    return 0;
}
uint32_t VX_CAPTURE_UnRegisterCallback(int32_t id, VX_CAPTURE_CallbackInputParams_s*) {
    const int s = slotOf(id);
    if (s < 0) return 7;
    gEntry[s] = nullptr;
    return 0;
}

// Calls the entry registered for `id` on the caller's thread with the sequence value read at
// registration; -1 when nothing is registered.
int NullSubHal_Complete(int32_t id, VX_CAPTURE_CaptureDoneInfo_s* info) {
    const int s = slotOf(id);
    const VX_CAPTURE_Callback entry = s < 0 ? nullptr : gEntry[s].load();
    if (entry == nullptr) return -1;
    uint32_t sequence = gSequence[s];
    return entry(id, 0, info, &sequence);
}

}  // extern "C"
