// The DIP engines' capabilities, read once from the device tree into Capture's static tables.
#include "DeviceTreeConfig.h"

#include <android-base/file.h>
#include <android/log.h>

#include <algorithm>

#include "Capture.h"
#include "CaptureLog.h"
#include "PlatformConfig.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {

// Largest device-tree cell the service understands.
constexpr size_t kMaxCellBytes = 4;

// Bits of a format_support value: the engine writes (destination) or reads (source) the format.
constexpr uint32_t kFormatWritable = 0x01;
constexpr uint32_t kFormatReadable = 0x10;

struct FormatProperty {
    uint32_t bit;  // the CaptureFormat bit
    const char* name;
};

// CaptureFormat bits 0x100000 and 0x200000 have no property and stay clear. VSD8X2 and VSD8X4
// also stand behind the 0x800000 and 0x1000000 bits, so their files are read a second time.
constexpr FormatProperty kFormatProperties[] = {
    {0x00000001, "YUYV"},        {0x00000002, "YUYV_10B"}, {0x00000004, "ARGB8888"},
    {0x00000008, "ABGR8888"},    {0x00000010, "RGBA8888"}, {0x00000020, "BGRA8888"},
    {0x00000040, "ARGB2101010"}, {0x00000080, "RGB565"},   {0x00000100, "BGR888"},
    {0x00000200, "NV16"},        {0x00000400, "NV61"},     {0x00000800, "NV12"},
    {0x00001000, "NV21"},        {0x00002000, "RZ21S10L"}, {0x00004000, "RZ21S"},
    {0x00008000, "RZ21S10T"},    {0x00010000, "RZ21S10R"}, {0x00020000, "COMPRESS"},
    {0x00040000, "VSD8X2"},      {0x00080000, "VSD8X4"},   {0x00400000, "ABGR2101010"},
    {0x00800000, "VSD8X2"},      {0x01000000, "VSD8X4"},
};

uint32_t readDip(int engine, const char* relPath) {
    std::string path = deviceTreeRoot();
    path += engine == 0 ? "dip0/" : "dip1/";
    path += relPath;
    return getConfigValue(path, 0);
}

uint32_t readCapability(int engine, const char* name) {
    return readDip(engine, (std::string("capability/") + name).c_str());
}

}  // namespace

uint32_t getConfigValue(const std::string& path, int defaultValue) {
    std::string content;
    if (android::base::ReadFileToString(path, &content, false) && !content.empty()) {
        if (content.size() > kMaxCellBytes) {
            CAPTURE_LOGW("config value is too large");
        } else {
            uint32_t value = 0;
            for (char byte : content) {
                value = (value << 8) | static_cast<uint8_t>(byte);
            }
            if (value != 0) return value;
        }
    }
    // Written at every level: a missing capability is the first thing to look for on a new board.
    __android_log_print(ANDROID_LOG_DEBUG, CAPTURE_LOG_TAG, "%s : %d set as default", path.c_str(),
                        defaultValue);
    return static_cast<uint32_t>(defaultValue);
}

void Capture::loadSystemConfig() {
    for (auto& supported : mPointsSupportState) {
        supported = 1;
    }
    // Only dip0 says whether the OSD plane can be captured.
    mPointsSupportState[static_cast<uint32_t>(CapturePoint::OSD)] = readCapability(0, "CapOSD");

    SystemDtsConfig& config = mSystemDtsConfig;
    config = SystemDtsConfig{};

    // Every pair is read dip0 first, so the "set as default" lines list a board's gaps in a
    // fixed order. With separate read and write paths (RWSep, low byte only) the engines take
    // tiles four times as wide.
    const uint32_t rwSep0 = readCapability(0, "RWSep");
    const uint32_t rwSep1 = readCapability(1, "RWSep");
    const uint32_t tileWidth0 = readCapability(0, "TileWidthMax");
    const uint32_t tileWidth1 = readCapability(1, "TileWidthMax");
    uint32_t tileWidthMax = std::max(tileWidth0, tileWidth1);
    if (((rwSep0 | rwSep1) & 0xFF) != 0) {
        tileWidthMax *= 4;
    }
    config.TileWidthMax = tileWidthMax;

    for (int engine = 0; engine < 2; ++engine) {
        config.dip_rotate =
            static_cast<uint8_t>(config.dip_rotate | readCapability(engine, "Rotate"));
    }

    const uint32_t mirror0 = readCapability(0, "HMirrorSz");
    const uint32_t mirror1 = readCapability(1, "HMirrorSz");
    config.dip_HMirrorSz = std::max(mirror0, mirror1);

    // CropAlign is an alignment, so any value enables cropping; DSCL and USCL are flags whose
    // only meaningful value is 1.
    const uint32_t cropAlign0 = readCapability(0, "CropAlign");
    const uint32_t cropAlign1 = readCapability(1, "CropAlign");
    config.dip_crop = (cropAlign0 != 0 || cropAlign1 != 0) ? 1 : 0;

    const uint32_t dscl0 = readCapability(0, "DSCL");
    const uint32_t dscl1 = readCapability(1, "DSCL");
    config.dip_dscl = (dscl0 | dscl1) == 1 ? 1 : 0;
    const uint32_t uscl0 = readCapability(0, "USCL");
    const uint32_t uscl1 = readCapability(1, "USCL");
    config.dip_uscl = (uscl0 | uscl1) == 1 ? 1 : 0;

    uint32_t writable = 0;
    uint32_t readable = 0;
    for (const FormatProperty& format : kFormatProperties) {
        const std::string relPath = std::string("format_support/") + format.name;
        const uint32_t value0 = readDip(0, relPath.c_str());
        const uint32_t value1 = readDip(1, relPath.c_str());
        if (((value0 | value1) & kFormatWritable) != 0) writable |= format.bit;
        if (((value0 | value1) & kFormatReadable) != 0) readable |= format.bit;
    }
    config.format_support_list_w = writable;
    config.format_support_list_r = readable;
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
