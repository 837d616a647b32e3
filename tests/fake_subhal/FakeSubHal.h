/*
 * Control side of the capture sub-HAL test double.
 *
 * The double is a shared library that exports the sixteen VX_CAPTURE_* entries. The service under
 * test dlopen()s it by absolute path; a test that links the same file sees the same instance, so
 * everything set here shapes what the service gets back, and everything the service passed can be
 * read back here.
 *
 * Defaults, until scripted otherwise: every entry returns 0; Open hands out 0x73000000 + the lowest
 * free slot; output records (plane offsets, capability answer, DipInfo) are left as passed in;
 * DumpInfo writes nothing; no streaming. An entry that returns a non-zero status changes nothing
 * and writes nothing, with one exception: setNextOpenHandle is honoured even by a failing Open, so
 * that the service's mapping of an Open status can be seen behind a valid identifier.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <thread>
#include <vector>

#include "VxCaptureHal.h"

namespace fake_subhal {

enum class Entry {
    Init,
    DeInit,
    Open,
    Close,
    SetCaptureInfo,
    SetCaptureFrameInfo,
    GetCapabilityInfo,
    GetDipInfo,
    CaptureOnce,
    CaptureStart,
    CaptureStop,
    RegisterCallback,
    UnRegisterCallback,
    FrameProcessDone,
    NotifyContinueCapture,
    DumpInfo,
};
constexpr size_t kEntryCount = 16;

// Identifiers handed out by the default Open.
constexpr uint32_t kHandleBase = 0x73000000u;
constexpr unsigned kSlotCount = 32;

// Statuses the double chooses itself (scripted statuses take precedence).
constexpr uint32_t kStatusNoFreeSlot = 17;  // Open with all 32 slots taken
constexpr uint32_t kStatusBadPointer = 10;  // a record pointer that the entry needs is null

// "VX_CAPTURE_Init", ...; "VX_CAPTURE_?" for a value outside the enumeration.
const char* entryName(Entry);

struct Call {
    Entry entry;
    int32_t captureId = -1;  // -1 for entries without an identifier
    uint32_t arg = 0;        // FrameProcessDone index, GetDipInfo mode, DumpInfo level
    int32_t fd = -1;         // DumpInfo descriptor
    uint8_t param = 0;       // value of the one-byte Init/Open parameter as passed (0 when null)
    // Byte copies of the records passed in, taken at entry (empty for a null pointer):
    //   SetCaptureInfo: rec1 = 152-byte capture info
    //   SetCaptureFrameInfo: rec1 = src record, rec2 = dst record
    //   GetCapabilityInfo: rec1 = setQuery record, rec2 = answer record as passed in
    //   GetDipInfo: rec1 = setQuery record, rec2 = the 16-byte DipInfo as passed in
    //   RegisterCallback: rec1 = callback params record, rec2 = the 8-byte out area as passed in
    //   UnRegisterCallback: rec1 = callback params record
    std::vector<uint8_t> rec1, rec2;
    std::thread::id thread;  // calling thread
};

// Clears calls, scripts, open slots, registrations, counters and streams; stops and joins every
// thread of the double (the fire worker included: workerThreadId() changes afterwards).
void reset();

std::vector<Call> calls();  // snapshot, in call order
std::vector<Call> callsOf(Entry);
size_t count(Entry);

// Persistent status returned by that entry.
void setResult(Entry, uint32_t status);
// Status of the next call only; several queue up and are used in order before the persistent one.
void setResultOnce(Entry, uint32_t status);

// Open: by default hands out 0x73000000 + the lowest free slot (0..31), freed by a successful
// Close of that id; fails with kStatusNoFreeSlot when all 32 are taken. setNextOpenHandle scripts
// the value written to *pHandle by the next Open only (any 32-bit value, e.g. 0x73000020); a
// scripted value of the identifier form takes its slot.
void setNextOpenHandle(uint32_t handle);

// Written into the plane-offset output by SetCaptureFrameInfo when it returns 0.
void setPlaneOffsets(uint32_t first, uint32_t second);
// Copied out by GetCapabilityInfo when it returns 0.
void setCapabilityAnswer(const VX_CAPTURE_getQueryInfo_s&);
// DipInfo written by GetDipInfo for that mode (0 or 1) when it returns 0; without a script the
// DipInfo passed in is left untouched.
void setDipInfo(uint32_t mode, const VX_CAPTURE_DipInfo_s&);
// DumpInfo (status 0) writes it to the descriptor it is given.
void setDumpText(const std::string&);

// Registrations: RegisterCallback (status 0) keeps a copy of the params record per id and a
// snapshot of the sequence value read through params->pu32SequenceId at that moment (0 for a null
// pointer). UnRegisterCallback (status 0) removes it.
bool hasRegistration(int32_t id);
VX_CAPTURE_CallbackInputParams_s registration(int32_t id);  // zeroed record when none
uint32_t registrationSequence(int32_t id);                  // 0 when none

// Fire the registered completion entry from the double's own worker thread (never the caller's;
// from inside a callback running on the worker it runs inline): calls
// params.pfnCallback(id, 0, &info, &snapshot) and returns its result; -1 when the id has no
// registration or its entry is null. The Sequence variant passes a pointer to seq instead.
int fireCallback(int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info);
int fireCallbackWithSequence(int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info, uint32_t seq);
// Fires an arbitrary entry with an arbitrary identifier (-1 for a null fn).
int fireRaw(VX_CAPTURE_Callback fn, int32_t id, const VX_CAPTURE_CaptureDoneInfo_s& info,
            uint32_t seq);
std::thread::id workerThreadId();  // starts the worker when it is not running

// Streaming: when enabled, CaptureStart(id) with status 0 starts a thread for that id (unless one
// runs already) that fires the id's current registration every periodUs microseconds, buffer index
// cycling 0..7, with sizes from the id's last accepted SetCaptureInfo destination (1920x1080 when
// none) laid out as NV12 buffers one after the other. A frame finding no registration is skipped.
// CaptureStop(id), whatever status it returns, stops the thread and joins it before returning
// (called from that very thread, it only stops it; the join happens at the next reset). Nothing
// else stops a stream: Close and UnRegisterCallback leave it running, so that a service that
// forgets CaptureStop shows it in framesFired / framesSkipped.
void setAutoStream(bool enabled, unsigned periodUs);
// Per-id totals of the streaming threads, kept across stop/start until reset().
uint64_t framesFired(int32_t id);      // completion entry called
uint64_t framesDelivered(int32_t id);  // ... and it returned 0
uint64_t framesSkipped(int32_t id);    // no registration at that moment
bool isStreaming(int32_t id);

}  // namespace fake_subhal
