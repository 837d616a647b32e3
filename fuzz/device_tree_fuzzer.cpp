// The device tree's capability files: any bytes, missing files, a folder or a link where a file
// should be; then the fold of both engines into the capability tables.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

#include "Capture.h"
#include "FuzzInput.h"

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;

namespace {

// Every property the service reads, in one engine's folder.
const std::vector<std::string> kProperties = [] {
    std::vector<std::string> names;
    std::istringstream list(
        "capability/CapOSD capability/RWSep capability/TileWidthMax capability/Rotate "
        "capability/HMirrorSz capability/CropAlign capability/DSCL capability/USCL YUYV YUYV_10B "
        "ARGB8888 ABGR8888 RGBA8888 BGRA8888 ARGB2101010 RGB565 BGR888 NV16 NV61 NV12 NV21 "
        "RZ21S10L RZ21S RZ21S10T RZ21S10R COMPRESS VSD8X2 VSD8X4 ABGR2101010");
    for (std::string name; list >> name;) {
        names.push_back(name.find('/') == std::string::npos ? "format_support/" + name : name);
    }
    return names;
}();

std::string gRoot;  // ends with '/'

void clearTree() {
    capture_fuzz::clearFolder(gRoot);
    for (const char* dir : {"dip0", "dip0/capability", "dip0/format_support", "dip1",
                            "dip1/capability", "dip1/format_support"}) {
        mkdir((gRoot + dir).c_str(), 0755);
    }
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    gRoot = capture_fuzz::scratchFolder("/dev/shm/");
    setenv("CAPTURE_DEVICE_TREE_ROOT", gRoot.c_str(), 1);
    return 0;
}

// Entries of: engine and property (one byte), what stands there (one byte), up to 8 bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    capture_fuzz::Input in(data, size);
    clearTree();
    while (in.size() > 0) {
        const uint8_t which = in.take<uint8_t>();
        const uint8_t kind = in.take<uint8_t>();
        const std::string bytes = in.takeString(8);
        const std::string path = gRoot + ((which & 0x80) != 0 ? "dip1/" : "dip0/") +
                                 kProperties[(which & 0x7F) % kProperties.size()];
        unlink(path.c_str());
        if (kind % 4 == 0) writeFile(path, bytes);
        if (kind % 4 == 1) mkdir(path.c_str(), 0755);
        if (kind % 4 == 2) {
            writeFile(path + ".target", bytes);
            if (symlink((path + ".target").c_str(), path.c_str()) != 0) perror("device tree");
        }
    }
    Capture::loadSystemConfig();

    // Flags stay flags, ARGB16161616 and YV12 (no property) stay clear, only OSD can be missing.
    const SystemDtsConfig& c = Capture::mSystemDtsConfig;
    if (c.dip_crop > 1 || c.dip_dscl > 1 || c.dip_uscl > 1) abort();
    if (((c.format_support_list_w | c.format_support_list_r) & 0x300000u) != 0) abort();
    for (uint32_t point = 0; point < static_cast<uint32_t>(CapturePoint::OSD); ++point) {
        if (Capture::mPointsSupportState[point] != 1) abort();
    }
    return 0;
}
