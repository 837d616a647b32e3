// Control side of the emulated capture hardware (the sub-HAL library itself exports the sixteen
// VX_CAPTURE_* entries of VxCaptureHal.h).
//
// A process that links this library and lets the service dlopen() the same file shares one
// emulator: glibc hands the service the copy already loaded.
//
// Fault injection, besides the functions below, comes from the environment, read when the
// library is first used:
//   CAPTURE_EMU_FAIL=Entry:status[:count][,...]  the next call(s) of VX_CAPTURE_<Entry> fail
//                                                with that status; count "*" = every call
//   CAPTURE_EMU_DROP_EVERY=N                     every Nth frame of a stream is dropped
//   CAPTURE_EMU_CONTROL=/path/to/file            a control file, re-read whenever it changes:
//                                                lines "fail <Entry> <status> [count|*]",
//                                                "drop-every <N>", "slow-frames <ms>",
//                                                "pq-dead" and "clear"; '#' comments
#pragma once

#include <stdint.h>
#include <utils/Errors.h>

#include <string>

namespace capture_emulator {

// Status codes the emulated hardware answers with (the service maps them to CaptureReturn).
enum Status : uint32_t {
    kOk = 0,
    kFail = 3,              // FAIL
    kNotInitialized = 4,    // NOT_INITIALIZED: no VX_CAPTURE_Init in force
    kNoMemory = 5,          // NO_MEMORY: a buffer could not be mapped
    kBadId = 7,             // INVALID_CAPTURE_ID: the identifier is not open
    kBadArgument = 8,       // INVALID_ARGUMENT: a null record
    kBadParameter = 10,     // INVALID_PARAMETER: a value the hardware cannot take
    kBadBuffer = 20,        // INVALID_PARAMETER: a descriptor that is not a usable buffer
    kFormat = 16,           // FORMAT_NOT_SUPPORT
    kBusy = 17,             // BUSY: no free instance, or streaming when it must not be
    kNotConfigured = 24,    // NOT_OPENED: capture asked before configuration
    kBadCapturePoint = 33,  // INVALID_CAPTURE_POINT
    kBadSize = 34,          // INVALID_SIZE: width or height outside the engine's limits
    kBadCrop = 35,          // INVALID_CROP
    kBadRotation = 43,      // INVALID_ROTATION
    kBufferTooSmall = 48,   // BUFFER_NOT_READY: the buffer cannot hold the frame
    kBandwidth = 51,        // BANDWIDTH_EXCEEDED
    kSecure = 64,           // SECURE_NOT_ALLOWED
};

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
constexpr int kEntryCount = 16;

// "Init", "CaptureStart", ... (the names CAPTURE_EMU_FAIL and the control file use).
const char* entryName(Entry entry);
bool entryFromName(const std::string& name, Entry* entry);

// The next `count` calls of the entry fail with `status` (count 0: every call until cleared).
// The failing call does nothing else.
void failNextCalls(Entry entry, uint32_t status, uint32_t count = 1);
// Every Nth frame a stream produces is dropped as a source glitch would; 0 turns it off.
void setDropEveryNth(uint32_t n);
// Every streamed frame takes `ms` longer to produce, as an engine that cannot keep up; 0 off.
void setFrameDelayMs(uint32_t ms);
// The picture-quality service answers every call as a service whose process died does (a
// transaction failure, DEAD_OBJECT), until cleared.
void setPqDead(bool dead);
void clearFaults();

struct InstanceStats {
    uint64_t produced = 0;      // frames written into the destination
    uint64_t delivered = 0;     // completions handed to the registered entry
    uint64_t dropped = 0;       // frame periods without a frame: the engine missed the period,
                                // found no free buffer, or an injected drop
    uint64_t starved = 0;       // of those, the periods whose frame found every buffer held
    uint64_t late = 0;          // frames handed over after their period had ended
    uint64_t productionNs = 0;  // CPU time the engine spent producing the stream's frames
    uint32_t ringFrames = 0;    // buffers of the current stream
    uint32_t held = 0;          // buffers the client has not returned yet
    bool streaming = false;
};
// False when the identifier is not an open instance.
bool getInstanceStats(int32_t captureId, InstanceStats* out);

// Registers the emulated picture-quality service (IPq) in this process under `instance`.
::android::status_t registerPqService(const std::string& instance = "default");

// Tests: stops every stream, closes every instance, zeroes the Init count, forgets the faults
// and reads the fault environment again at the next call.
void resetForTest();

}  // namespace capture_emulator
