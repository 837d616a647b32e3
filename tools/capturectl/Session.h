// The service in this process, and what every command needs around it: buffers, names of
// formats and results, the service's log.
#pragma once

#include <cutils/native_handle.h>
#include <stdint.h>
#include <stdio.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>

#include <string>
#include <vector>

#include "CaptureNames.h"
#include "capture_emulator/FrameLayout.h"

namespace capturectl {

using ::vendor::quenlark::hardware::capture::V1_0::CaptureFormat;
using ::vendor::quenlark::hardware::capture::V1_0::CaptureReturn;
using ::vendor::quenlark::hardware::capture::V1_0::ICapture;

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;        // the service or the hardware said no
constexpr int kExitUsage = 2;          // bad command line
constexpr int kExitBringUp = 3;        // the service could not be brought up
constexpr int kExitInterrupted = 130;  // Ctrl-C, and the stop that followed was refused

// Thrown by command code to end the command with an exit status; the message is printed.
struct Failure {
    int status;
};
// "capturectl: <fmt with value>" on stderr, then Failure{kExitUsage}.
[[noreturn]] void usageError(const char* fmt, const std::string& value);
// A decimal number in 0..UINT32_MAX; anything else is a usage error naming `what`.
uint32_t parseNumber(const std::string& text, const char* what);
// "capturectl: <what> refused: BUSY (8)" on stderr, then Failure{kExitRefused}.
[[noreturn]] void refused(const char* what, CaptureReturn code);

using capture_tools::describe;
using capture_tools::formatFromName;
using capture_tools::formatName;
using capture_tools::returnName;

// A JSON object in insertion order: what --json prints.
class Json {
public:
    Json& str(const std::string& key, const std::string& value);
    Json& num(const std::string& key, double value);
    Json& flag(const std::string& key, bool value);
    Json& obj(const std::string& key, const Json& value);
    Json& strings(const std::string& key, const std::vector<std::string>& values);
    Json& numbers(const std::string& key, const std::vector<uint32_t>& values);
    Json& objects(const std::string& key, const std::vector<Json>& values);
    std::string text() const;

private:
    std::vector<std::pair<std::string, std::string>> mFields;  // key, value as JSON
};

// One memfd-backed buffer with its native handle (one descriptor), mapped.
class Buffer {
public:
    explicit Buffer(size_t size);
    ~Buffer();
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    bool valid() const { return mData != nullptr; }
    const native_handle_t* handle() const { return mHandle; }
    uint8_t* data() const { return mData; }
    size_t size() const { return mSize; }

private:
    native_handle_t* mHandle = nullptr;
    uint8_t* mData = nullptr;
    size_t mSize = 0;
};

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

// Collects the process's log lines; echoes them to stderr when verbose.
void startLogCapture(bool verbose);
std::vector<LogLine> takeLogLines();
// The refusals the service logged and everything the hardware said since the last call, under
// `heading`, indented; nothing when there is none.
// The warnings the service and the hardware logged since the last call, as "TAG: text".
std::vector<std::string> takeReasons();
void printReasons(const char* heading, FILE* out = stdout);
// refused(), with the reasons after the message.
[[noreturn]] void refusedBecause(const char* what, CaptureReturn code);

// Points the service at the emulator (unless the environment already points it elsewhere),
// registers the emulated PQ service, gets ICapture and runs initLib. Null with a message
// printed on failure.
::android::sp<ICapture> bringUp(bool verbose);

}  // namespace capturectl
