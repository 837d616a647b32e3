// Helpers of the emulator's tests: buffers, instances and capturectl runs.
#pragma once

#include <string>

#include "VxCaptureHal.h"

namespace emulator_test {

// A memfd of `size` bytes, mapped; closed with the object.
class MemBuffer {
public:
    explicit MemBuffer(size_t size);
    ~MemBuffer();
    MemBuffer(const MemBuffer&) = delete;
    MemBuffer& operator=(const MemBuffer&) = delete;
    int fd() const { return mFd; }
    uint8_t* data() const { return mData; }

private:
    int mFd = -1;
    uint8_t* mData = nullptr;
    size_t mSize = 0;
};

// Init + Open; the identifier, or -1.
int32_t openInstance();

// A live capture of the whole pattern at capture point 0 into `fd`.
VX_CAPTURE_CaptureInfo_s liveInfo(uint32_t srcW, uint32_t srcH, uint32_t dstW, uint32_t dstH,
                                  uint32_t format, int fd, uint32_t fps = 60);

struct ToolRun {
    int status = -1;     // the exit status, -1 when it did not exit
    std::string output;  // stdout and stderr
};

// capturectl with `arguments`, `environment` (assignments) in front (Capturectl_test.cpp).
ToolRun runCapturectl(const std::string& arguments, const std::string& environment = "");

}  // namespace emulator_test
