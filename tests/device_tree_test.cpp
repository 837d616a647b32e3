// Device-tree capabilities: reading one property, and folding both DIP engines into the tables.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "DeviceTreeConfig.h"
#include "SpineTestUtil.h"

namespace capture_test {
namespace {

void setLevel(uint32_t level) {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, level, __ATOMIC_RELAXED);
}

std::string defaultLine(const std::string& path, int defaultValue) {
    return path + " : " + std::to_string(defaultValue) + " set as default";
}

enum class Node { Absent, File, Directory, Symlink };

struct ValueCase {
    const char* name;
    Node node;
    std::string bytes;  // content of the file (or of the symlink's target)
    int defaultValue;
    uint32_t expected;
    bool tooLarge;
    bool usesDefault;
};

void PrintTo(const ValueCase& c, std::ostream* os) {
    *os << c.name;
}

class ConfigValueTest : public ::testing::TestWithParam<ValueCase> {
protected:
    DeviceTree tree;
    LogCapture log;
};

TEST_P(ConfigValueTest, ReadsOneProperty) {
    const ValueCase& c = GetParam();
    const std::string path = tree.root() + "dip0/capability/Value";
    switch (c.node) {
        case Node::Absent:
            break;
        case Node::File:
            tree.setRaw("dip0/capability/Value", c.bytes);
            break;
        case Node::Directory:
            tree.setRaw("dip0/capability/Value/inner", c.bytes);
            break;
        case Node::Symlink:
            tree.setRaw("dip0/capability/Target", c.bytes);
            ASSERT_EQ(0, symlink((tree.root() + "dip0/capability/Target").c_str(), path.c_str()));
            break;
    }

    for (uint32_t level : {64u, 0u}) {
        SCOPED_TRACE("level " + std::to_string(level));
        setLevel(level);
        log.clear();
        EXPECT_EQ(c.expected, getConfigValue(path, c.defaultValue));

        std::vector<LogLine> expected;
        if (c.tooLarge && level >= 32) {
            expected.push_back({ANDROID_LOG_WARN, "CAPTURE_HIDL", "config value is too large"});
        }
        if (c.usesDefault) {
            expected.push_back(
                {ANDROID_LOG_DEBUG, "CAPTURE_HIDL", defaultLine(path, c.defaultValue)});
        }
        const std::vector<LogLine> lines = log.lines();
        ASSERT_EQ(expected.size(), lines.size()) << log.dump();
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(expected[i].priority, lines[i].priority);
            EXPECT_EQ(expected[i].tag, lines[i].tag);
            if (expected[i].priority == ANDROID_LOG_WARN) {
                EXPECT_EQ(0u, lines[i].message.rfind("[getConfigValue][", 0));
                EXPECT_EQ(expected[i].message, stripLogPrefix(lines[i].message));
            } else {
                // The default line carries no "[function][line]" prefix.
                EXPECT_EQ(expected[i].message, lines[i].message);
            }
        }
    }
    setLevel(0);
}

using std::string_literals::operator""s;

INSTANTIATE_TEST_SUITE_P(
    DeviceTree, ConfigValueTest,
    ::testing::Values(
        ValueCase{"Absent", Node::Absent, "", 0, 0, false, true},
        ValueCase{"AbsentKeepsDefault", Node::Absent, "", 7, 7, false, true},
        ValueCase{"NegativeDefault", Node::Absent, "", -1, 0xFFFFFFFFu, false, true},
        ValueCase{"Empty", Node::File, "", 0, 0, false, true},
        ValueCase{"Directory", Node::Directory, "\x01"s, 0, 0, false, true},
        ValueCase{"SymlinkNotFollowed", Node::Symlink, "\x00\x00\x01\x00"s, 0, 0, false, true},
        ValueCase{"FiveBytes", Node::File, "\x00\x00\x00\x01\x00"s, 0, 0, true, true},
        ValueCase{"EightBytes", Node::File, "\x00\x00\x00\x00\x00\x00\x00\x01"s, 3, 3, true, true},
        ValueCase{"Zero", Node::File, "\x00\x00\x00\x00"s, 0, 0, false, true},
        ValueCase{"ZeroTakesDefault", Node::File, "\x00\x00"s, 9, 9, false, true},
        ValueCase{"FourBytes", Node::File, "\x00\x00\x01\x00"s, 0, 256, false, false},
        ValueCase{"TwoBytes", Node::File, "\x01\x00"s, 0, 256, false, false},
        ValueCase{"ThreeBytes", Node::File, "\x01\x02\x03"s, 0, 0x010203, false, false},
        ValueCase{"OneByte", Node::File, "\x7f"s, 0, 0x7f, false, false},
        ValueCase{"HighByte", Node::File, "\x80"s, 0, 0x80, false, false},
        ValueCase{"Binary", Node::File, "\xff\xfe\x80\x01"s, 5, 0xFFFE8001u, false, false}),
    [](const ::testing::TestParamInfo<ValueCase>& info) { return info.param.name; });

// The format files in reading order, with the CaptureFormat bits each one stands for.
struct FormatFile {
    const char* name;
    uint32_t bits;
};
const FormatFile kFormatFiles[] = {
    {"YUYV", 0x1},
    {"YUYV_10B", 0x2},
    {"ARGB8888", 0x4},
    {"ABGR8888", 0x8},
    {"RGBA8888", 0x10},
    {"BGRA8888", 0x20},
    {"ARGB2101010", 0x40},
    {"RGB565", 0x80},
    {"BGR888", 0x100},
    {"NV16", 0x200},
    {"NV61", 0x400},
    {"NV12", 0x800},
    {"NV21", 0x1000},
    {"RZ21S10L", 0x2000},
    {"RZ21S", 0x4000},
    {"RZ21S10T", 0x8000},
    {"RZ21S10R", 0x10000},
    {"COMPRESS", 0x20000},
    {"VSD8X2", 0x40000 | 0x800000},
    {"VSD8X4", 0x80000 | 0x1000000},
    {"ABGR2101010", 0x400000},
};

struct Capabilities {
    uint8_t rotate = 0;
    uint32_t mirror = 0;
    uint8_t crop = 0;
    uint8_t dscl = 0;
    uint8_t uscl = 0;
    uint32_t writable = 0;
    uint32_t readable = 0;
    uint32_t tileWidthMax = 0;
    uint32_t osd = 0;

    Capabilities& withRotate(uint8_t v) {
        rotate = v;
        return *this;
    }
    Capabilities& withMirror(uint32_t v) {
        mirror = v;
        return *this;
    }
    Capabilities& withCrop() {
        crop = 1;
        return *this;
    }
    Capabilities& withDscl() {
        dscl = 1;
        return *this;
    }
    Capabilities& withUscl() {
        uscl = 1;
        return *this;
    }
    Capabilities& withFormats(uint32_t w, uint32_t r) {
        writable = w;
        readable = r;
        return *this;
    }
    Capabilities& withTileWidthMax(uint32_t v) {
        tileWidthMax = v;
        return *this;
    }
    Capabilities& withOsd(uint32_t v) {
        osd = v;
        return *this;
    }
};

void expectCapabilities(const Capabilities& e) {
    const SystemDtsConfig& c = Capture::mSystemDtsConfig;
    EXPECT_EQ(e.rotate, c.dip_rotate);
    EXPECT_EQ(e.mirror, c.dip_HMirrorSz);
    EXPECT_EQ(e.crop, c.dip_crop);
    EXPECT_EQ(e.dscl, c.dip_dscl);
    EXPECT_EQ(e.uscl, c.dip_uscl);
    EXPECT_EQ(e.writable, c.format_support_list_w);
    EXPECT_EQ(e.readable, c.format_support_list_r);
    EXPECT_EQ(e.tileWidthMax, c.TileWidthMax);
    for (uint32_t point = 0; point < 12; ++point) {
        EXPECT_EQ(1u, Capture::mPointsSupportState[point]) << "capture point " << point;
    }
    EXPECT_EQ(e.osd, Capture::mPointsSupportState[12]);
}

Capabilities formats(uint32_t writable, uint32_t readable) {
    return Capabilities().withFormats(writable, readable);
}

// Every property loadSystemConfig reads, in its order.
std::vector<std::string> propertiesInOrder() {
    std::vector<std::string> paths = {"dip0/capability/CapOSD"};
    for (const char* name :
         {"RWSep", "TileWidthMax", "Rotate", "HMirrorSz", "CropAlign", "DSCL", "USCL"}) {
        paths.push_back(std::string("dip0/capability/") + name);
        paths.push_back(std::string("dip1/capability/") + name);
    }
    std::vector<const char*> formats;
    for (const FormatFile& f : kFormatFiles) formats.push_back(f.name);
    formats.push_back("VSD8X2");
    formats.push_back("VSD8X4");
    // VSD8X2 and VSD8X4 are read once more, after ABGR2101010.
    for (const char* name : formats) {
        paths.push_back(std::string("dip0/format_support/") + name);
        paths.push_back(std::string("dip1/format_support/") + name);
    }
    return paths;
}

class SystemConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        setLevel(64);
        // Whatever was there before, loading starts from scratch.
        for (auto& point : Capture::mPointsSupportState) point = 0;
        Capture::mSystemDtsConfig.dip_rotate = 0x80;
        Capture::mSystemDtsConfig.format_support_list_w = 0x100000;
    }
    void TearDown() override { setLevel(0); }
    LogCapture log;
};

TEST_F(SystemConfigTest, MissingTreeTurnsEverythingOff) {
    for (const char* root : {"", "/nonexistent/device-tree/"}) {
        SCOPED_TRACE(std::string("root ") + root);
        DeviceTree tree;
        const std::string base = root[0] != '\0' ? root : tree.root();
        if (root[0] != '\0') setenv("CAPTURE_DEVICE_TREE_ROOT", root, 1);
        // The default lines are written at every level.
        setLevel(0);
        log.clear();
        Capture::loadSystemConfig();
        expectCapabilities({});

        std::vector<std::string> expected;
        for (const std::string& path : propertiesInOrder()) {
            expected.push_back(defaultLine(base + path, 0));
        }
        ASSERT_EQ(61u, expected.size());
        std::vector<std::string> messages;
        for (const LogLine& line : log.lines()) messages.push_back(line.message);
        EXPECT_EQ(expected, messages);
    }
}

struct Cell {
    const char* path;
    uint32_t value;
    int bytes;
};

struct CombinationCase {
    const char* name;
    std::vector<Cell> cells;
    Capabilities expected;
};

void PrintTo(const CombinationCase& c, std::ostream* os) {
    *os << c.name;
}

class CombinationTest : public SystemConfigTest,
                        public ::testing::WithParamInterface<CombinationCase> {};

TEST_P(CombinationTest, FoldsBothEngines) {
    DeviceTree tree;
    for (const Cell& cell : GetParam().cells) tree.setCell(cell.path, cell.value, cell.bytes);
    Capture::loadSystemConfig();
    expectCapabilities(GetParam().expected);
}

const CombinationCase kCombinationCases[] = {
    {"OsdFromDip0", {{"dip0/capability/CapOSD", 5, 4}}, Capabilities().withOsd(5)},
    {"OsdNotFromDip1", {{"dip1/capability/CapOSD", 1, 4}}, {}},
    {"DownscaleEitherEngine", {{"dip1/capability/DSCL", 1, 4}}, Capabilities().withDscl()},
    {"DownscaleBoth",
     {{"dip0/capability/DSCL", 1, 4}, {"dip1/capability/DSCL", 1, 1}},
     Capabilities().withDscl()},
    {"DownscaleOneAndTwo", {{"dip0/capability/DSCL", 1, 4}, {"dip1/capability/DSCL", 2, 4}}, {}},
    {"DownscaleTwo", {{"dip0/capability/DSCL", 2, 4}}, {}},
    {"UpscaleEitherEngine", {{"dip0/capability/USCL", 1, 2}}, Capabilities().withUscl()},
    {"UpscaleThree", {{"dip1/capability/USCL", 3, 4}}, {}},
    {"CropAnyAlignment",
     {{"dip0/capability/CropAlign", 0, 4}, {"dip1/capability/CropAlign", 2, 4}},
     Capabilities().withCrop()},
    {"CropLargeAlignment", {{"dip0/capability/CropAlign", 0x100, 4}}, Capabilities().withCrop()},
    {"RotateTruncated", {{"dip0/capability/Rotate", 0x103, 4}}, Capabilities().withRotate(0x03)},
    {"RotateUnion",
     {{"dip0/capability/Rotate", 0x01, 4}, {"dip1/capability/Rotate", 0x202, 4}},
     Capabilities().withRotate(0x03)},
    {"MirrorLarger",
     {{"dip0/capability/HMirrorSz", 1920, 4}, {"dip1/capability/HMirrorSz", 3840, 4}},
     Capabilities().withMirror(3840)},
    {"MirrorUnsigned",
     {{"dip0/capability/HMirrorSz", 0x80000000, 4}, {"dip1/capability/HMirrorSz", 1, 4}},
     Capabilities().withMirror(0x80000000)},
    {"TileWidthLarger",
     {{"dip0/capability/TileWidthMax", 1024, 4}, {"dip1/capability/TileWidthMax", 2048, 4}},
     Capabilities().withTileWidthMax(2048)},
    {"TileWidthRwSep",
     {{"dip0/capability/RWSep", 1, 4},
      {"dip0/capability/TileWidthMax", 1024, 4},
      {"dip1/capability/TileWidthMax", 2048, 4}},
     Capabilities().withTileWidthMax(8192)},
    {"TileWidthRwSepDip1",
     {{"dip1/capability/RWSep", 0x80, 1}, {"dip0/capability/TileWidthMax", 300, 4}},
     Capabilities().withTileWidthMax(1200)},
    {"TileWidthRwSepHighByteOnly",
     {{"dip0/capability/RWSep", 0x100, 4},
      {"dip0/capability/TileWidthMax", 1024, 4},
      {"dip1/capability/TileWidthMax", 2048, 4}},
     Capabilities().withTileWidthMax(2048)},
    {"FormatBoth", {{"dip1/format_support/NV12", 0x11, 4}}, formats(0x800, 0x800)},
    {"FormatReadOnly", {{"dip1/format_support/NV12", 0x10, 4}}, formats(0, 0x800)},
    {"FormatWriteOnly", {{"dip0/format_support/NV12", 0x01, 1}}, formats(0x800, 0)},
    {"FormatOtherBitsIgnored", {{"dip0/format_support/NV12", 0xEE, 4}}, {}},
    {"FormatSplitAcrossEngines",
     {{"dip0/format_support/RGB565", 0x01, 4}, {"dip1/format_support/RGB565", 0x10, 4}},
     formats(0x80, 0x80)},
};

INSTANTIATE_TEST_SUITE_P(DeviceTree, CombinationTest, ::testing::ValuesIn(kCombinationCases),
                         [](const ::testing::TestParamInfo<CombinationCase>& info) {
                             return info.param.name;
                         });

TEST_F(SystemConfigTest, EachFormatFileSetsItsBits) {
    for (const FormatFile& format : kFormatFiles) {
        SCOPED_TRACE(format.name);
        DeviceTree tree;
        tree.setCell(std::string("dip1/format_support/") + format.name, 0x11);
        Capture::loadSystemConfig();
        EXPECT_EQ(format.bits, Capture::mSystemDtsConfig.format_support_list_w);
        EXPECT_EQ(format.bits, Capture::mSystemDtsConfig.format_support_list_r);
    }
}

TEST_F(SystemConfigTest, EveryFormatLeavesTheUnmappedBitsClear) {
    DeviceTree tree;
    for (const FormatFile& format : kFormatFiles) {
        tree.setCell(std::string("dip0/format_support/") + format.name, 0x11);
    }
    Capture::loadSystemConfig();
    EXPECT_EQ(0x01CFFFFFu, Capture::mSystemDtsConfig.format_support_list_w);
    EXPECT_EQ(0x01CFFFFFu, Capture::mSystemDtsConfig.format_support_list_r);
}

TEST_F(SystemConfigTest, ReloadStartsFromScratch) {
    {
        DeviceTree tree;
        tree.setCell("dip0/capability/Rotate", 0x02);
        tree.setCell("dip0/capability/DSCL", 1);
        tree.setCell("dip0/capability/CapOSD", 1);
        tree.setCell("dip1/format_support/YUYV", 0x11);
        Capture::loadSystemConfig();
        EXPECT_EQ(0x02, Capture::mSystemDtsConfig.dip_rotate);
        EXPECT_EQ(1u, Capture::mPointsSupportState[12]);
    }
    DeviceTree empty;
    Capture::loadSystemConfig();
    expectCapabilities({});
}

}  // namespace
}  // namespace capture_test
