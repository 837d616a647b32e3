// Control side of the capture sub-HAL test double. The service dlopen()s the library that the
// test links, so both see one instance: the test scripts answers here and reads back the calls.
// Until scripted, every entry returns 0, Open hands out 0x73000000 + the lowest free slot (freed by
// a successful Close; status 17 when all 32 are taken), output records stay as passed in and
// nothing streams. A failing entry writes nothing, except a scripted Open handle; a null record
// pointer that an entry needs gives status 10.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <thread>
#include <vector>

#include "VxCaptureHal.h"

namespace fake_subhal {

// clang-format off
#define FAKE_SUBHAL_ENTRIES(X)                                                                  \
    X(Init) X(DeInit) X(Open) X(Close) X(SetCaptureInfo) X(SetCaptureFrameInfo)                 \
    X(GetCapabilityInfo) X(GetDipInfo) X(CaptureOnce) X(CaptureStart) X(CaptureStop)            \
    X(RegisterCallback) X(UnRegisterCallback) X(FrameProcessDone) X(NotifyContinueCapture)      \
    X(DumpInfo)
// clang-format on
#define FAKE_SUBHAL_ENUMERATOR(name) name,
enum class Entry { FAKE_SUBHAL_ENTRIES(FAKE_SUBHAL_ENUMERATOR) };
#undef FAKE_SUBHAL_ENUMERATOR
constexpr size_t kEntryCount = 16;

const char* entryName(Entry);  // "VX_CAPTURE_Init", ...

struct Call {
    Entry entry = Entry::Init;
    int32_t captureId = -1;  // -1 for entries without an identifier
    uint32_t arg = 0;        // FrameProcessDone index, GetDipInfo mode, DumpInfo level
    int32_t fd = -1;         // DumpInfo descriptor
    uint8_t param = 0;       // the one-byte Init/Open parameter (0 when null)
    // Byte copies taken at entry (empty for a null pointer): SetCaptureInfo rec1 = capture info;
    // SetCaptureFrameInfo rec1 = src, rec2 = dst; GetCapabilityInfo and GetDipInfo rec1 = query,
    // rec2 = output record as passed in; RegisterCallback rec1 = params, rec2 = the 8-byte out
    // area; UnRegisterCallback rec1 = params.
    std::vector<uint8_t> rec1, rec2;
};

// Forgets every call, script, slot, registration and counter; stops the double's threads.
void reset();

std::vector<Call> calls();

// One ordered record of the calls made to every double: a sub-HAL entry adds its name without the
// "VX_CAPTURE_" prefix ("CaptureStart"); other doubles add their own lines through note().
std::vector<std::string> journal();
void note(const std::string& line);
std::vector<Call> callsOf(Entry);
size_t count(Entry);

void setResult(Entry, uint32_t status);      // persistent status of that entry
void setResultOnce(Entry, uint32_t status);  // queued, used in order before the persistent one

void setNextOpenHandle(uint32_t handle);                // written by the next Open only
void setPlaneOffsets(uint32_t first, uint32_t second);  // SetCaptureFrameInfo's output
void setCapabilityAnswer(const VX_CAPTURE_getQueryInfo_s&);
void setDipInfo(uint32_t mode, const VX_CAPTURE_DipInfo_s&);  // mode 0 or 1
void setDumpText(const std::string&);                         // written by DumpInfo

// The value read through pu32SequenceId by the id's RegisterCallback; 0 when unregistered.
uint32_t registrationSequence(int32_t id);

// Calls the id's registered entry as pfnCallback(id, 0, &info, &sequence) on a thread of its own
// and returns its result; -1 without a registered entry.
int fireCallback(int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info);

// When enabled, a successful CaptureStart(id) starts a thread that fires the id's registration of
// the moment every periodUs, buffer index cycling 0..7, NV12 sizes from the id's last accepted
// SetCaptureInfo destination (1920x1080 by default). Only CaptureStop (whatever its status)
// stops it, joining it before returning, so a service that forgets it shows in the counters.
void setAutoStream(bool enabled, unsigned periodUs);
uint64_t framesFired(int32_t id);  // total until reset()

}  // namespace fake_subhal
