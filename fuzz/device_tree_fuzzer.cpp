// The device tree's capability files: any bytes, missing files, a folder or a link where a file
// should be; then the fold of both engines into the capability tables.
#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "Capture.h"
#include "FuzzInput.h"

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;

namespace {

constexpr const char* kProperties[] = {
    "capability/CapOSD",          "capability/RWSep",          "capability/TileWidthMax",
    "capability/Rotate",          "capability/HMirrorSz",      "capability/CropAlign",
    "capability/DSCL",            "capability/USCL",           "format_support/YUYV",
    "format_support/YUYV_10B",    "format_support/ARGB8888",   "format_support/ABGR8888",
    "format_support/RGBA8888",    "format_support/BGRA8888",   "format_support/ARGB2101010",
    "format_support/RGB565",      "format_support/BGR888",     "format_support/NV16",
    "format_support/NV61",        "format_support/NV12",       "format_support/NV21",
    "format_support/RZ21S10L",    "format_support/RZ21S",      "format_support/RZ21S10T",
    "format_support/RZ21S10R",    "format_support/COMPRESS",   "format_support/VSD8X2",
    "format_support/VSD8X4",      "format_support/ABGR2101010"};
constexpr size_t kPropertyCount = sizeof(kProperties) / sizeof(kProperties[0]);

std::string gRoot;  // ends with '/'

int removeEntry(const char* path, const struct stat*, int, struct FTW* ftw) {
    return ftw->level > 0 ? remove(path) : 0;
}

void clearTree() {
    nftw(gRoot.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    for (const char* dir : {"dip0", "dip0/capability", "dip0/format_support", "dip1",
                            "dip1/capability", "dip1/format_support"}) {
        mkdir((gRoot + dir).c_str(), 0755);
    }
}

void writeFile(const std::string& path, const std::string& bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    if (write(fd, bytes.data(), bytes.size()) < 0) perror("device tree");
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    capture_fuzz::quietLogs();
    char root[] = "/dev/shm/capture-dt-fuzz-XXXXXX";
    if (mkdtemp(root) == nullptr) abort();
    gRoot = std::string(root) + "/";
    setenv("CAPTURE_DEVICE_TREE_ROOT", gRoot.c_str(), 1);
    atexit([] {
        nftw(gRoot.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
        rmdir(gRoot.c_str());
    });
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
                                 kProperties[(which & 0x7F) % kPropertyCount];
        unlink(path.c_str());
        if (kind % 4 == 0) writeFile(path, bytes);
        if (kind % 4 == 1) mkdir(path.c_str(), 0755);
        if (kind % 4 == 2) {
            writeFile(path + ".target", bytes);
            if (symlink((path + ".target").c_str(), path.c_str()) != 0) perror("device tree");
        }
    }
    Capture::loadSystemConfig();

    const SystemDtsConfig& config = Capture::mSystemDtsConfig;
    if (config.dip_crop > 1 || config.dip_dscl > 1 || config.dip_uscl > 1) abort();
    // No property stands behind ARGB16161616 and YV12.
    if (((config.format_support_list_w | config.format_support_list_r) & 0x300000u) != 0) abort();
    for (uint32_t point = 0; point < kCapturePointCount; ++point) {
        if (point != static_cast<uint32_t>(CapturePoint::OSD) &&
            Capture::mPointsSupportState[point] != 1) {
            abort();
        }
    }
    return 0;
}
