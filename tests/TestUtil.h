// Shared fixtures: the service on the sub-HAL double, buffers, device-tree folders.
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
#include "FakeSubHal.h"
#include "LogCapture.h"

namespace capture_test {

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;

// A native handle holding `numFds` memfd descriptors of `size` bytes each. Owned by the object.
class TestHandle {
public:
    explicit TestHandle(int numFds = 1, size_t size = 4096, int numInts = 0);
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
    // Writes `value` as a big-endian cell of `bytes` bytes (1..4) at root/relPath.
    void setCell(const std::string& relPath, uint32_t value, int bytes = 4);
    void setRaw(const std::string& relPath, const std::string& bytes);
    const std::string& root() const { return mRoot; }

private:
    std::string mRoot;
};

// Service object on the sub-HAL double, with the double reset and the log captured.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
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
// tables, both log levels, the two properties, the environment overrides and the sub-HAL double.
// Runs before every test, so that a test depends on no other and the suite passes shuffled.
void resetProcessState();

}  // namespace capture_test
