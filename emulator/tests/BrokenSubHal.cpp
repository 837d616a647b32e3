// A sub-HAL with one deliberate fault, for the conformance tests. It links the emulated hardware,
// so the entries not defined here are the emulator's own; BROKEN_SUBHAL_FAULT picks what goes
// wrong in the others:
//   ids             CaptureStop and (Un)RegisterCallback accept identifiers that are not open
//   unknown-status  Open's "busy" (17) comes back as 99, which the service does not know
//   writes-held     every buffer goes back to the engine before the client has it
//   no-join         CaptureStop returns at once; the stream stops 150 ms later
//   late-callback   UnRegisterCallback returns without removing the registration
//   hangs           CaptureStop never returns
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "VxCaptureHal.h"

namespace {

template <typename Fn>
Fn real(const char* name) {
    static void* library = dlopen(CAPTURE_EMULATOR_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    return reinterpret_cast<Fn>(dlsym(library, name));
}
#define REAL(entry) real<decltype(&entry)>(#entry)

bool fault(const char* name) {
    const char* chosen = getenv("BROKEN_SUBHAL_FAULT");
    return chosen != nullptr && strcmp(chosen, name) == 0;
}

uint32_t pass(uint32_t status) {
    if (status == 7 && fault("ids")) return 0;
    if (status == 17 && fault("unknown-status")) return 99;
    return status;
}

std::atomic<VX_CAPTURE_Callback> gClientEntry[32];

int handBackFirst(int id, unsigned int reserved, void* done, void* sequence) {
    REAL(VX_CAPTURE_FrameProcessDone)(id, static_cast<VX_CAPTURE_CaptureDoneInfo_s*>(done)->index);
    return gClientEntry[id - 0x73000000].load()(id, reserved, done, sequence);
}

// Late stops finish before the process tears the emulated hardware down.
struct LateStops {
    std::mutex lock;
    std::vector<std::thread> threads;
    ~LateStops() {
        for (std::thread& t : threads) t.join();
    }
} gLateStops;

}  // namespace

extern "C" {

uint32_t VX_CAPTURE_Open(uint8_t* p, uint32_t* h) {
    return pass(REAL(VX_CAPTURE_Open)(p, h));
}
uint32_t VX_CAPTURE_CaptureStop(int32_t id) {
    while (fault("hangs")) pause();
    if (!fault("no-join")) return pass(REAL(VX_CAPTURE_CaptureStop)(id));
    std::lock_guard<std::mutex> guard(gLateStops.lock);
    gLateStops.threads.emplace_back([id] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        REAL(VX_CAPTURE_CaptureStop)(id);
    });
    return 0;
}
uint32_t VX_CAPTURE_RegisterCallback(int32_t id, VX_CAPTURE_CallbackInputParams_s* p, void* out) {
    if (!fault("writes-held") || p == nullptr || id < 0x73000000 || id >= 0x73000020) {
        return pass(REAL(VX_CAPTURE_RegisterCallback)(id, p, out));
    }
    gClientEntry[id - 0x73000000] = p->pfnCallback;
    VX_CAPTURE_CallbackInputParams_s wrapped = *p;
    wrapped.pfnCallback = handBackFirst;
    return REAL(VX_CAPTURE_RegisterCallback)(id, &wrapped, out);
}
uint32_t VX_CAPTURE_UnRegisterCallback(int32_t id, VX_CAPTURE_CallbackInputParams_s* p) {
    return fault("late-callback") ? 0 : pass(REAL(VX_CAPTURE_UnRegisterCallback)(id, p));
}

}  // extern "C"
