// Interface enumerations to sub-HAL and GPU numbers, with their fallbacks and complaints.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>

#include "CaptureLog.h"
#include "EnumMapping.h"
#include "SpineTestUtil.h"

namespace capture_test {
namespace {

std::string formatted(const char* format, uint32_t value) {
    char text[96];
    snprintf(text, sizeof(text), format, value);
    return text;
}

// Every single bit, the empty set, a two-bit set and the all-ones value.
std::vector<uint32_t> probeFormats() {
    std::vector<uint32_t> formats = {0u, 0x3u, 0x4100u, 0xFFFFFFFFu};
    for (int bit = 0; bit < 32; ++bit) formats.push_back(1u << bit);
    return formats;
}

class EnumMappingTest : public ::testing::Test {
protected:
    void SetUp() override { setLevel(64); }
    void TearDown() override { setLevel(0); }
    static void setLevel(uint32_t level) {
        __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, level, __ATOMIC_RELAXED);
    }
    // Runs fn(input); expects the known output without a line, or the fallback with one line.
    void expectMapping(uint32_t (*fn)(uint32_t), uint32_t input,
                       const std::map<uint32_t, uint32_t>& known, uint32_t fallback,
                       const char* complaint, int priority = ANDROID_LOG_WARN) {
        SCOPED_TRACE(formatted("input 0x%x", input));
        log.clear();
        const auto hit = known.find(input);
        if (hit != known.end()) {
            EXPECT_EQ(hit->second, fn(input));
            EXPECT_TRUE(log.lines().empty()) << log.dump();
            return;
        }
        EXPECT_EQ(fallback, fn(input));
        const std::vector<LogLine> lines = log.lines();
        ASSERT_EQ(1u, lines.size()) << log.dump();
        EXPECT_EQ(formatted(complaint, input), stripLogPrefix(lines[0].message));
        EXPECT_EQ(priority, lines[0].priority);
        EXPECT_EQ("CAPTURE_HIDL", lines[0].tag);
    }
    LogCapture log;
};

TEST_F(EnumMappingTest, FormatToSubHal) {
    const std::map<uint32_t, uint32_t> known = {
        {0x1, 0},       {0x2, 1},       {0x4, 2},        {0x8, 3},      {0x10, 4},
        {0x20, 5},      {0x40, 6},      {0x80, 7},       {0x100, 8},    {0x200, 9},
        {0x400, 10},    {0x800, 11},    {0x1000, 12},    {0x2000, 13},  {0x4000, 14},
        {0x8000, 15},   {0x10000, 16},  {0x20000, 19},   {0x40000, 20}, {0x80000, 21},
        {0x400000, 22}, {0x800000, 23}, {0x1000000, 24},
    };
    for (uint32_t format : probeFormats()) {
        expectMapping(formatMapping, format, known, 26, "dip can't support this format: 0x%x!");
    }
}

TEST_F(EnumMappingTest, FormatToGpu) {
    const std::map<uint32_t, uint32_t> known = {
        {0x1, 20},      {0x2, 262},   {0x4, 1},       {0x8, 5},
        {0x80, 4},      {0x100, 3},   {0x200, 16},    {0x800, 21},
        {0x1000, 17},   {0x2000, 54}, {0x100000, 22}, {0x200000, 0x32315659},
        {0x400000, 43},
    };
    for (uint32_t format : probeFormats()) {
        expectMapping(formatMappingGpu, format, known, 0, "gpu can't support this format: 0x%x!");
    }
}

TEST_F(EnumMappingTest, TiledFormats) {
    const std::map<uint32_t, uint32_t> known = {{0x4000, 1}, {0x8000, 1}, {0x10000, 1}};
    for (uint32_t format : probeFormats()) {
        expectMapping(isYuv420Tile, format, known, 0, "format: 0x%x!", ANDROID_LOG_DEBUG);
    }
    // Its complaint is a detail trace, not a refusal.
    setLevel(47);
    log.clear();
    EXPECT_EQ(0u, isYuv420Tile(0x800));
    EXPECT_TRUE(log.lines().empty());
}

struct IdentityCase {
    const char* name;
    uint32_t (*fn)(uint32_t);
    uint32_t highest;
    uint32_t fallback;
    const char* complaint;
};

void PrintTo(const IdentityCase& c, std::ostream* os) {
    *os << c.name;
}

class IdentityMappingTest : public EnumMappingTest,
                            public ::testing::WithParamInterface<IdentityCase> {};

TEST_P(IdentityMappingTest, KnownValuesPassUnknownFallBack) {
    const IdentityCase& c = GetParam();
    std::map<uint32_t, uint32_t> known;
    for (uint32_t v = 0; v <= c.highest; ++v) known[v] = v;
    // Negative values arrive as large unsigned numbers and must not be taken as valid.
    for (uint32_t input : {0u, 1u, c.highest, c.highest + 1, 13u, 16u, 255u, 256u, 0x7FFFFFFFu,
                           0x80000000u, 0xFFFFFFFFu}) {
        expectMapping(c.fn, input, known, c.fallback, c.complaint);
    }
    setLevel(31);
    log.clear();
    EXPECT_EQ(c.fallback, c.fn(c.highest + 1));
    EXPECT_TRUE(log.lines().empty());
}

const IdentityCase kIdentityCases[] = {
    {"ColorSpace", colorSpaceMapping, 3, 0, "can't support this colorSpace: %d!"},
    {"Colorimetry", colorimetryMapping, 3, 0, "can't support this colorimetry: %d!"},
    {"SecureBuffer", secureBufferMapping, 2, 0, "can't support this SecureBufferCfg: %d!"},
    {"Bandwidth", BandwidthCfgMapping, 2, 2, "can't support this BandwidthCfg: %d!"},
    {"CapturePoint", capPointMapping, 12, 16, "can't support this cappoint: %d!"},
};

INSTANTIATE_TEST_SUITE_P(Enum, IdentityMappingTest, ::testing::ValuesIn(kIdentityCases),
                         [](const ::testing::TestParamInfo<IdentityCase>& info) {
                             return info.param.name;
                         });

}  // namespace
}  // namespace capture_test
