// Raw frame dumps of the GPU path: any dump folder, prefix, index, format, stride and size. The
// folder lies under a private root; its dots become underscores so that no name climbs out of
// the root, everything else (separators, control bytes, length) is the fuzzer's.
#include <android-base/properties.h>

#include <vector>

#include "FuzzInput.h"
#include "gpu_draw.h"
#include "gpu_dump.h"

using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;

namespace {

// The HAL formats the dumps name, as the GPU path hands them over.
constexpr uint32_t kFormats[] = {1, 3, 4, 5, 16, 17, 20, 21, 22, 43, 54, 262, 0x32315659};

std::string gRoot;  // ends with '/'

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    gpu_set_debug_log_level(64);
    gRoot = capture_fuzz::scratchFolder("/tmp/");
    android::base::SetProperty(kDumpDataProperty, "1");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    capture_fuzz::Input in(data, size);
    const uint8_t op = in.take<uint8_t>();
    std::string folder = in.takeString(255);
    for (char& c : folder) {
        if (c == '.') c = '_';
    }
    setenv("CAPTURE_DUMP_DIR", (gRoot + folder).c_str(), 1);
    const std::string prefix = in.takeString(40);
    const uint8_t pick = in.take<uint8_t>();
    const uint32_t format = pick < 0xE0 ? kFormats[pick % 13] : in.take<uint32_t>();
    const uint32_t index = in.take<uint32_t>();
    const uint32_t stride = in.take<uint32_t>();
    const uint32_t width = in.take<uint32_t>();
    const uint32_t height = in.take<uint32_t>();
    // The frame: the rest of the input in a buffer of exactly that size.
    const std::vector<uint8_t> frame(in.data(), in.data() + in.size());
    const void* pixels = frame.empty() ? nullptr : frame.data();

    if (op % 4 == 0) {
        uint32_t pitch = 0;
        uint64_t bytes = 0;
        char name[kDumpNameSize];
        CalculateDumpInfo(stride, height, format, &pitch, &bytes, name);
        if (strnlen(name, sizeof(name)) == sizeof(name)) abort();
    }
    const char* named = (op & 0x10) != 0 ? nullptr : prefix.c_str();
    if (op % 4 == 1) DumpData(named, index, stride, width, height, format, pixels, frame.size());
    if (op % 4 == 2) DumpInputData(stride, width, height, format, pixels, frame.size());
    if (op % 4 == 3) DumpOutputData(stride, width, height, format, pixels, frame.size());
    capture_fuzz::clearFolder(gRoot);
    return 0;
}
