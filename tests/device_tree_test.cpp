// Device-tree capabilities: reading one property, and folding both DIP engines into the tables.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <sstream>

#include "DeviceTreeConfig.h"
#include "TestUtil.h"

namespace capture_test {
namespace {

using std::string_literals::operator""s;

TEST(DeviceTree, ReadsOneProperty) {
    enum Node { kAbsent, kFile, kSymlink };
    const struct {
        const char* name;
        Node node;
        std::string bytes;  // of the file, or of the symlink's target
        int defaultValue;
        uint32_t expected;  // the default value comes with a "set as default" line
    } cases[] = {{"absent", kAbsent, "", 7, 7},
                 {"negative default", kAbsent, "", -1, 0xFFFFFFFFu},
                 {"symlink not followed", kSymlink, "\x00\x00\x01\x00"s, 0, 0},
                 {"five bytes", kFile, "\x00\x00\x00\x01\x00"s, 3, 3},
                 {"zero", kFile, "\x00\x00"s, 9, 9},
                 {"four bytes", kFile, "\x00\x00\x01\x00"s, 0, 256},
                 {"one byte", kFile, "\x7f", 0, 0x7f},
                 {"high bytes", kFile, "\xff\xfe\x80\x01"s, 5, 0xFFFE8001u}};
    LogCapture log;
    for (const auto& c : cases) {
        DeviceTree tree;
        const std::string path = tree.root() + "dip0/capability/Value";
        if (c.node == kFile) tree.setRaw("dip0/capability/Value", c.bytes);
        if (c.node == kSymlink) {
            tree.setRaw("dip0/capability/Target", c.bytes);
            ASSERT_EQ(0, symlink((tree.root() + "dip0/capability/Target").c_str(), path.c_str()));
        }
        // The warning is gated like a refusal; the default line is written at every level.
        for (uint32_t level : {32u, 31u, 0u}) {
            SCOPED_TRACE(c.name + formatted(" at level %u", level));
            setLogLevel(level);
            log.clear();
            EXPECT_EQ(c.expected, getConfigValue(path, c.defaultValue));
            Strings lines;
            if (c.node == kFile && c.bytes.size() > 4 && level >= 32) {
                lines.push_back("CAPTURE_HIDL/5 [getConfigValue] config value is too large");
            }
            if (c.expected == static_cast<uint32_t>(c.defaultValue)) {
                lines.push_back("CAPTURE_HIDL/3 " + path + " : " + std::to_string(c.defaultValue) +
                                " set as default");
            }
            EXPECT_EQ(lines, rendered(log));
        }
    }
}

// The format files in reading order, with the CaptureFormat bits each one sets (VSD8X2 and VSD8X4
// two each, as they are read twice).
const std::pair<const char*, uint32_t> kFormatFiles[] = {
    {"YUYV", 0x1},         {"YUYV_10B", 0x2},     {"ARGB8888", 0x4},
    {"ABGR8888", 0x8},     {"RGBA8888", 0x10},    {"BGRA8888", 0x20},
    {"ARGB2101010", 0x40}, {"RGB565", 0x80},      {"BGR888", 0x100},
    {"NV16", 0x200},       {"NV61", 0x400},       {"NV12", 0x800},
    {"NV21", 0x1000},      {"RZ21S10L", 0x2000},  {"RZ21S", 0x4000},
    {"RZ21S10T", 0x8000},  {"RZ21S10R", 0x10000}, {"COMPRESS", 0x20000},
    {"VSD8X2", 0x840000},  {"VSD8X4", 0x1080000}, {"ABGR2101010", 0x400000}};

template <typename... Values>
std::array<uint32_t, sizeof...(Values)> words(Values... values) {
    return {static_cast<uint32_t>(values)...};
}

// rotate, HMirrorSz, crop, dscl, uscl, list_w, list_r, TileWidthMax, then capture point 12.
using Caps = std::array<uint32_t, 9>;

// Loads the tables over stale values, which must not show through.
Caps load() {
    for (auto& point : Capture::mPointsSupportState) point = 0;
    Capture::mSystemDtsConfig.dip_rotate = 0x80;
    Capture::mSystemDtsConfig.format_support_list_w = 0x100000;
    Capture::loadSystemConfig();
    for (uint32_t point = 0; point < 12; ++point) {
        EXPECT_EQ(1u, Capture::mPointsSupportState[point]) << point;
    }
    const SystemDtsConfig& c = Capture::mSystemDtsConfig;
    return words(c.dip_rotate, c.dip_HMirrorSz, c.dip_crop, c.dip_dscl, c.dip_uscl,
                 c.format_support_list_w, c.format_support_list_r, c.TileWidthMax,
                 Capture::mPointsSupportState[12]);
}

TEST(DeviceTree, MissingTreeTurnsEverythingOffAndReadsInOrder) {
    DeviceTree tree;
    LogCapture log;
    setLogLevel(0);
    EXPECT_EQ(Caps{}, load());
    Strings expected = {tree.root() + "dip0/capability/CapOSD : 0 set as default"};
    const auto bothEngines = [&](const std::string& path) {
        for (const char* dip : {"dip0/", "dip1/"}) {
            expected.push_back(tree.root() + dip + path + " : 0 set as default");
        }
    };
    for (const char* name :
         {"RWSep", "TileWidthMax", "Rotate", "HMirrorSz", "CropAlign", "DSCL", "USCL"}) {
        bothEngines(std::string("capability/") + name);
    }
    // VSD8X2 and VSD8X4 are read once more, after ABGR2101010.
    for (const auto& format : kFormatFiles)
        bothEngines(std::string("format_support/") + format.first);
    bothEngines("format_support/VSD8X2");
    bothEngines("format_support/VSD8X4");
    EXPECT_EQ(expected, strippedMessages(log));
}

TEST(DeviceTree, EachFormatFileSetsItsBits) {
    for (const auto& format : kFormatFiles) {
        DeviceTree tree;
        tree.setCell(std::string("dip1/format_support/") + format.first, 0x11);
        const Caps caps = load();
        EXPECT_TRUE(caps[5] == format.second && caps[6] == format.second) << format.first;
    }
}

TEST(DeviceTree, FixtureTreesFoldBothEngines) {
    // Each tree: "path=value" cells, and what both engines add up to.
    const std::pair<const char*, Caps> trees[] = {
        // Every property; only the low byte of RWSep counts, DSCL 1 | 2 is not 1, any CropAlign.
        {"dip0/capability/CapOSD=5 dip1/capability/CapOSD=1 dip0/capability/RWSep=0x100 "
         "dip0/capability/TileWidthMax=1024 dip1/capability/TileWidthMax=2048 "
         "dip0/capability/Rotate=0x01 dip1/capability/Rotate=0x102 "
         "dip0/capability/HMirrorSz=3840 dip1/capability/HMirrorSz=0x80000000 "
         "dip0/capability/CropAlign=0 dip1/capability/CropAlign=2 "
         "dip0/capability/DSCL=1 dip1/capability/DSCL=2 dip0/capability/USCL=1 "
         "dip1/format_support/NV12=0x11 dip1/format_support/NV21=0x10 "
         "dip0/format_support/YUYV=0x01 dip0/format_support/ARGB8888=0xEE "
         "dip0/format_support/RGB565=0x01 dip1/format_support/RGB565=0x10",
         {0x03, 0x80000000, 1, 0, 1, 0x881, 0x1880, 2048, 5}},
        // CapOSD from dip0 only, RWSep of dip1, Rotate truncated to 8 bits, USCL 3 is not 1.
        {"dip1/capability/CapOSD=1 dip1/capability/RWSep=0x80 dip0/capability/TileWidthMax=300 "
         "dip1/capability/TileWidthMax=200 dip0/capability/Rotate=0x103 "
         "dip0/capability/CropAlign=0x100 dip1/capability/DSCL=1 dip1/capability/USCL=3",
         {0x03, 0, 1, 1, 0, 0, 0, 1200, 0}},
        {"dip0/capability/RWSep=1 dip0/capability/TileWidthMax=1024 "
         "dip1/capability/TileWidthMax=2048",
         {0, 0, 0, 0, 0, 0, 0, 8192, 0}}};
    for (const auto& fixture : trees) {
        DeviceTree tree;
        std::istringstream cells(fixture.first);
        for (std::string cell; cells >> cell;) {
            const size_t split = cell.find('=');
            tree.setCell(cell.substr(0, split), std::stoul(cell.substr(split + 1), nullptr, 0));
        }
        EXPECT_EQ(fixture.second, load()) << fixture.first;
    }
}

}  // namespace
}  // namespace capture_test
