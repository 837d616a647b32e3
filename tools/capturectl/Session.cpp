#include "Session.h"

#include <android/log.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <mutex>

#include "Capture.h"
#include "CaptureLog.h"
#include "EmulatedService.h"
#include "capture_emulator/Emulator.h"

namespace capturectl {

using ::android::sp;

void usageError(const char* fmt, const std::string& value) {
    fprintf(stderr, "capturectl: ");
    fprintf(stderr, fmt, value.c_str());
    fprintf(stderr, "\n");
    throw Failure{kExitUsage};
}

void refused(const char* what, CaptureReturn code) {
    fprintf(stderr, "capturectl: %s refused: %s\n", what, describe(code).c_str());
    throw Failure{kExitRefused};
}

namespace {

std::mutex gLogLock;
std::vector<LogLine> gLines;
bool gEcho = false;

void collect(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> guard(gLogLock);
    LogLine line{data->priority, data->tag != nullptr ? data->tag : "",
                 message != nullptr ? message : ""};
    if (gEcho) {
        fprintf(stderr, "[%s] %s\n", line.tag.c_str(), line.text.c_str());
    } else if (line.priority >= ANDROID_LOG_ERROR && line.tag == "CAPTURE_EMU") {
        // A fault setting the emulated hardware cannot use: say so whatever the verbosity.
        fprintf(stderr, "capturectl: emulated hardware: %s\n", line.text.c_str());
    }
    gLines.push_back(std::move(line));
}

}  // namespace

namespace {

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string number(double value) {
    char text[32];
    snprintf(text, sizeof(text), "%.10g", value);
    return text;
}

}  // namespace

uint32_t parseNumber(const std::string& text, const char* what) {
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v > UINT32_MAX || text[0] == '-') {
        usageError((std::string("bad ") + what + " '%s'").c_str(), text);
    }
    return static_cast<uint32_t>(v);
}

Json& Json::str(const std::string& key, const std::string& value) {
    mFields.emplace_back(key, quoted(value));
    return *this;
}

Json& Json::num(const std::string& key, double value) {
    mFields.emplace_back(key, number(value));
    return *this;
}

Json& Json::flag(const std::string& key, bool value) {
    mFields.emplace_back(key, value ? "true" : "false");
    return *this;
}

Json& Json::obj(const std::string& key, const Json& value) {
    mFields.emplace_back(key, value.text());
    return *this;
}

Json& Json::strings(const std::string& key, const std::vector<std::string>& values) {
    std::string list;
    for (const std::string& v : values) list += (list.empty() ? "" : ", ") + quoted(v);
    mFields.emplace_back(key, "[" + list + "]");
    return *this;
}

Json& Json::objects(const std::string& key, const std::vector<Json>& values) {
    std::string list;
    for (const Json& v : values) list += (list.empty() ? "" : ", ") + v.text();
    mFields.emplace_back(key, "[" + list + "]");
    return *this;
}

Json& Json::numbers(const std::string& key, const std::vector<uint32_t>& values) {
    std::string list;
    for (uint32_t v : values) list += (list.empty() ? "" : ", ") + number(v);
    mFields.emplace_back(key, "[" + list + "]");
    return *this;
}

std::string Json::text() const {
    std::string out = "{";
    for (const auto& [key, value] : mFields) {
        out += (out.size() > 1 ? ", " : "") + quoted(key) + ": " + value;
    }
    return out + "}";
}

Buffer::Buffer(size_t size) : mSize(size) {
    int fd = memfd_create("capturectl", MFD_CLOEXEC);
    if (fd < 0) return;
    void* addr = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(size)) == 0) {
        addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    if (addr == MAP_FAILED) {
        close(fd);
        return;
    }
    mHandle = native_handle_create(1, 0);
    if (mHandle == nullptr) {
        munmap(addr, size);
        close(fd);
        return;
    }
    mHandle->data[0] = fd;
    mData = static_cast<uint8_t*>(addr);
}

Buffer::~Buffer() {
    if (mData != nullptr) munmap(mData, mSize);
    if (mHandle != nullptr) {
        native_handle_close(mHandle);
        native_handle_delete(mHandle);
    }
}

void startLogCapture(bool verbose) {
    {
        std::lock_guard<std::mutex> guard(gLogLock);
        gEcho = verbose;
    }
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(collect);
}

std::vector<LogLine> takeLogLines() {
    std::lock_guard<std::mutex> guard(gLogLock);
    std::vector<LogLine> lines;
    lines.swap(gLines);
    return lines;
}

std::vector<std::string> takeReasons() {
    std::vector<std::string> reasons;
    for (const LogLine& line : takeLogLines()) {
        if (line.priority < 5 && line.tag != "CAPTURE_EMU") continue;
        reasons.push_back(line.tag + ": " + line.text);
    }
    return reasons;
}

void printReasons(const char* heading, FILE* out) {
    const std::vector<std::string> reasons = takeReasons();
    if (!reasons.empty()) fprintf(out, "%s\n", heading);
    for (const std::string& reason : reasons) fprintf(out, "    %s\n", reason.c_str());
}

void refusedBecause(const char* what, CaptureReturn code) {
    fprintf(stderr, "capturectl: %s refused: %s\n", what, describe(code).c_str());
    printReasons("why:", stderr);
    throw Failure{kExitRefused};
}

sp<ICapture> bringUp(bool verbose) {
    // Refusal reasons (level 32) are always collected; traces only when asked for.
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, verbose ? 64u : 32u, __ATOMIC_RELAXED);
    std::string error;
    sp<ICapture> service = capture_host::getOrStartService(&error);
    if (service == nullptr) fprintf(stderr, "capturectl: %s\n", error.c_str());
    return service;
}

}  // namespace capturectl
