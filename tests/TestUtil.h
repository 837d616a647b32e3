// Shared fixtures: the service on the sub-HAL double, buffers, device-tree folders, log helpers.
#pragma once

#include <cutils/native_handle.h>
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Capture.h"
#include "CaptureLog.h"
#include "FakeSubHal.h"
#include "LogCapture.h"

namespace capture_test {

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using Strings = std::vector<std::string>;

// A native handle holding `numFds` memfd descriptors of `size` bytes each. Owned by the object.
class TestHandle {
public:
    explicit TestHandle(int numFds = 1, size_t size = 4096);
    ~TestHandle();
    TestHandle(const TestHandle&) = delete;
    TestHandle& operator=(const TestHandle&) = delete;
    native_handle_t* get() const { return mHandle; }
    int fd(int i = 0) const { return mHandle->data[i]; }

private:
    native_handle_t* mHandle;
};

// A device-tree root in a temporary folder; CAPTURE_DEVICE_TREE_ROOT points at it while alive.
class DeviceTree {
public:
    DeviceTree();
    ~DeviceTree();
    // Writes `value` as a big-endian cell of 4 bytes at root/relPath.
    void setCell(const std::string& relPath, uint32_t value);
    void setRaw(const std::string& relPath, const std::string& bytes);
    const std::string& root() const { return mRoot; }

private:
    std::string mRoot;
};

// Service object on the sub-HAL double, with the log captured at level 64.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { service.clear(); }
    // initLib on the full double (or on the partial build).
    void loadLibrary(bool partial = false);
    // open() through the double; returns the identifier handed out.
    int32_t openInstance();
    // Runs `request` at the refusal level and just below it: the refusal `line` (without its
    // "[function][line] " prefix) is written once at 32, as a warning under "CAPTURE_HIDL", and
    // not at 31. Leaves the level at 64 and the lines of the run at 32 in the capture.
    void expectRefusal(const std::string& line, const std::function<void()>& request);

    ::android::sp<Capture> service;
    LogCapture log;
};

// Number of open descriptors of this process.
int countOpenFds();

// Puts the process back as it was loaded: the service's tables and entry pointers, the bandwidth
// tables, both log levels, the two properties, the environment overrides and both doubles.
// Runs before every test, so that a test depends on no other and the suite passes shuffled.
void resetProcessState();

inline void setLogLevel(uint32_t level) {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, level, __ATOMIC_RELAXED);
}

// printf-style text with one 32-bit value, as the service's own lines are built.
inline std::string formatted(const char* format, uint32_t value) {
    char text[128];
    snprintf(text, sizeof(text), format, value);
    return text;
}

// The first `limit` captured messages without their "[function][line] " prefix, in order.
Strings strippedMessages(const LogCapture& log, size_t limit = SIZE_MAX);
// The function named by the prefix of each captured line that contains the text.
Strings functionsLogging(const LogCapture& log, const std::string& text);
// Every captured line as "tag/priority message", the prefix's line number dropped.
Strings rendered(const LogCapture& log);

}  // namespace capture_test
