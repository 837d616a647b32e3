// Helpers for the tests of the service spine (loading, open/close, debug, device tree).
#pragma once

#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "CaptureLog.h"
#include "TestUtil.h"

namespace capture_test {

// A client callback that tells when the service has let go of it.
class TestCallback : public ICaptureCallback {
public:
    explicit TestCallback(bool* destroyed = nullptr) : mDestroyed(destroyed) {}
    ~TestCallback() override {
        if (mDestroyed != nullptr) *mDestroyed = true;
    }
    ::android::hardware::Return<void> onNotify(CaptureEventNotify,
                                               const CaptureCallbackParams&) override {
        return ::android::hardware::Void();
    }

private:
    bool* mDestroyed;
};

// Puts a client callback into a slot the way the capture paths do.
inline void installCallback(int slot, const ::android::sp<ICaptureCallback>& callback) {
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    Capture::setCallbackLocked(slot, callback);
}

// The sub-HAL entries called so far, in order.
inline std::vector<fake_subhal::Entry> entrySequence() {
    std::vector<fake_subhal::Entry> sequence;
    for (const auto& call : fake_subhal::calls()) sequence.push_back(call.entry);
    return sequence;
}

// Every captured message without its "[function][line] " prefix, in order.
inline std::vector<std::string> strippedMessages(const LogCapture& log) {
    std::vector<std::string> messages;
    for (const auto& line : log.lines()) messages.push_back(stripLogPrefix(line.message));
    return messages;
}

// Whole content of a file descriptor, read from offset 0.
inline std::string readAll(int fd) {
    std::string content;
    char chunk[256];
    off_t offset = 0;
    for (;;) {
        ssize_t n = pread(fd, chunk, sizeof(chunk), offset);
        if (n <= 0) break;
        content.append(chunk, static_cast<size_t>(n));
        offset += n;
    }
    return content;
}

}  // namespace capture_test
