// Sub-HAL status codes to CaptureReturn, and interface enumerations to sub-HAL and GPU numbers:
// every table, its edges, the fallbacks and the lines they write.
#include <gtest/gtest.h>

#include <climits>
#include <map>

#include "EnumMapping.h"
#include "SubHal.h"
#include "TestUtil.h"

namespace capture_test {
namespace {

// CaptureReturn of the sub-HAL statuses 0..69; 0 where the table has no entry, which maps to 4.
const uint32_t kByStatus[70] = {
    0, 0,  0,  4,  1,  2,  0, 6,  7,  0,  // 0..9
    5, 0,  0,  0,  0,  0,  3, 8,  9,  5,  // 10..19
    5, 5,  5,  5,  10, 5,  0, 0,  0,  0,  // 20..29
    0, 0,  11, 12, 13, 14, 2, 5,  5,  5,  // 30..39
    5, 5,  5,  15, 5,  3,  5, 5,  22, 3,  // 40..49
    5, 16, 0,  0,  0,  0,  0, 0,  0,  0,  // 50..59
    0, 0,  0,  0,  17, 18, 5, 19, 31, 31  // 60..69
};

TEST(SubHalMapping, EveryStatusAndItsLines) {
    // Values that alias table entries when truncated to a byte or taken modulo the table.
    std::vector<int32_t> statuses = {0x103, 0x107, 77, 148, 0x10000003, INT_MAX, INT_MIN};
    for (int32_t status = -2; status <= 80; ++status) statuses.push_back(status);
    const auto warning = [](const char* format, uint32_t value) {
        return "CAPTURE_HIDL/5 [CaptureReturnMapping] " + formatted(format, value);
    };
    LogCapture log;
    for (uint32_t level : {32u, 31u}) {
        setLogLevel(level);
        for (int32_t status : statuses) {
            const uint32_t known = status >= 0 && status < 70 ? kByStatus[status] : 0;
            log.clear();
            EXPECT_EQ(known != 0 ? known : 4u, static_cast<uint32_t>(CaptureReturnMapping(status)))
                << status;
            Strings lines;
            if (level >= 32) {
                lines = {warning("Error Capture SubHal eVxRet: 0x%x !", status),
                         known != 0
                             ? warning("Error Capture Hal return: 0x%x !", known)
                             : warning("Error can't support this CaptureReturn: 0x%x!", status)};
            }
            EXPECT_EQ(lines, rendered(log)) << "level " << level;
        }
    }
}

using Table = std::map<uint32_t, uint32_t>;

Table identity(uint32_t highest) {
    Table table;
    for (uint32_t v = 0; v <= highest; ++v) table[v] = v;
    return table;
}

const Table kDipFormats = {
    {0x1, 0},      {0x2, 1},      {0x4, 2},       {0x8, 3},       {0x10, 4},      {0x20, 5},
    {0x40, 6},     {0x80, 7},     {0x100, 8},     {0x200, 9},     {0x400, 10},    {0x800, 11},
    {0x1000, 12},  {0x2000, 13},  {0x4000, 14},   {0x8000, 15},   {0x10000, 16},  {0x20000, 19},
    {0x40000, 20}, {0x80000, 21}, {0x400000, 22}, {0x800000, 23}, {0x1000000, 24}};
constexpr uint32_t kYv12 = 0x32315659;  // the fourcc "YV12"
const Table kGpuFormats = {{0x1, 20},     {0x2, 262},   {0x4, 1},       {0x8, 5},
                           {0x80, 4},     {0x100, 3},   {0x200, 16},    {0x800, 21},
                           {0x1000, 17},  {0x2000, 54}, {0x100000, 22}, {0x200000, kYv12},
                           {0x400000, 43}};
const Table kTiledFormats = {{0x4000, 1}, {0x8000, 1}, {0x10000, 1}};

struct MappingCase {
    const char* complaint;  // also names the case
    uint32_t (*fn)(uint32_t);
    Table known;
    uint32_t fallback;
    uint32_t threshold = 32;  // lowest level that writes the complaint
    int priority = ANDROID_LOG_WARN;
};

const MappingCase kMappings[] = {
    {"dip can't support this format: 0x%x!", formatMapping, kDipFormats, 26},
    {"gpu can't support this format: 0x%x!", formatMappingGpu, kGpuFormats, 0},
    // A detail trace rather than a refusal.
    {"format: 0x%x!", isYuv420Tile, kTiledFormats, 0, 48, ANDROID_LOG_DEBUG},
    {"can't support this colorSpace: %d!", colorSpaceMapping, identity(3), 0},
    {"can't support this colorimetry: %d!", colorimetryMapping, identity(3), 0},
    {"can't support this SecureBufferCfg: %d!", secureBufferMapping, identity(2), 0},
    {"can't support this BandwidthCfg: %d!", BandwidthCfgMapping, identity(2), 2},
    {"can't support this cappoint: %d!", capPointMapping, identity(12), 16}};

TEST(EnumMapping, KnownValuesMapUnknownFallBack) {
    // Values around every table's end, every single bit, a bit pair, and negative numbers.
    std::vector<uint32_t> probes = {255, 256, 0x4100, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    for (uint32_t v = 0; v <= 16; ++v) probes.push_back(v);
    for (int bit = 5; bit < 32; ++bit) probes.push_back(1u << bit);
    LogCapture log;
    for (const MappingCase& c : kMappings) {
        for (uint32_t level : {c.threshold, c.threshold - 1}) {
            setLogLevel(level);
            for (uint32_t input : probes) {
                SCOPED_TRACE(c.complaint + formatted(" for 0x%x", input) +
                             formatted(" at %u", level));
                log.clear();
                const auto hit = c.known.find(input);
                EXPECT_EQ(hit != c.known.end() ? hit->second : c.fallback, c.fn(input));
                const Strings lines = strippedMessages(log);
                EXPECT_EQ(hit != c.known.end() || level < c.threshold
                              ? Strings{}
                              : Strings{formatted(c.complaint, input)},
                          lines);
                if (!lines.empty()) {
                    EXPECT_EQ(c.priority, log.lines()[0].priority);
                }
            }
        }
    }
}

}  // namespace
}  // namespace capture_test
