// Control side of the capture sub-HAL test double. The service dlopen()s the library that the
// test links, so both see one instance: the test scripts answers here and reads back the calls.
// Unscripted, every entry returns 0 and leaves output records as passed in, and Open hands out
// 0x73000000 + the number of earlier Opens. A failing entry writes nothing but a scripted handle.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
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
    Call(Entry e, int32_t id = -1, uint32_t a = 0, int32_t f = -1, std::vector<uint8_t> r1 = {},
         std::vector<uint8_t> r2 = {})
        : entry(e), captureId(id), arg(a), fd(f), rec1(std::move(r1)), rec2(std::move(r2)) {}
    Entry entry;
    int32_t captureId;  // -1 for entries without an identifier
    // FrameProcessDone index, GetDipInfo mode, DumpInfo level, the Init/Open byte (0 when null).
    uint32_t arg;
    int32_t fd;  // DumpInfo descriptor
    // Byte copies taken at entry: SetCaptureInfo rec1 = capture info; SetCaptureFrameInfo rec1 =
    // src, rec2 = dst; GetCapabilityInfo and GetDipInfo rec1 = query, rec2 = output record as
    // passed in; (Un)RegisterCallback rec1 = params.
    std::vector<uint8_t> rec1, rec2;
};

// What the double recorded and is scripted to answer. Tests script and read it between their
// calls into the service; the entries take the lock.
struct State {
    std::vector<Call> calls;
    // One ordered record of the calls made to every double: a sub-HAL entry adds its name without
    // the "VX_CAPTURE_" prefix ("CaptureStart"); other doubles add their own lines through note().
    std::vector<std::string> journal;
    std::array<std::deque<uint32_t>, kEntryCount> results;  // queued statuses, 0 once empty
    std::optional<uint32_t> openHandle;                     // written by the next Open only
    std::optional<VX_CAPTURE_PlaneOffset_s> planeOffsets;   // SetCaptureFrameInfo's output
    std::optional<VX_CAPTURE_getQueryInfo_s> capabilityAnswer;
    std::array<std::optional<VX_CAPTURE_DipInfo_s>, 2> dipInfo;  // by GetDipInfo mode
    std::string dumpText;                                        // written by DumpInfo
    // By identifier: the entry and the value read through pu32SequenceId at RegisterCallback.
    std::map<int32_t, std::pair<VX_CAPTURE_Callback, uint32_t>> registrations;
    uint32_t opens = 0;
};
State& state();

void reset();  // forgets every call, script and registration
void note(const std::string& line);
void setResultOnce(Entry, uint32_t status);
std::vector<Call> callsOf(Entry);
size_t count(Entry);

// Calls the id's registered entry as pfnCallback(id, 0, &info, &sequence) on a thread of its own,
// as the vendor library does, and returns its result; -1 without a registered entry.
int fireCallback(int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info);

}  // namespace fake_subhal
