// Bandwidth bookkeeping: the exported cell layout and the rule for the hardware-set table.
#include <gtest/gtest.h>

#include <cstring>

#include "BandwidthInfo.h"
#include "CaptureLog.h"
#include "LogCapture.h"

namespace capture_test {
namespace {

using ::vendor::quenlark::hardware::capture::V1_0::implementation::UpdateBWInfo;

struct RawCell {
    uint8_t pqId;
    uint32_t winTime;
    uint32_t budget;
    uint8_t hwSet;
    bool reservedZero;
};

// Reads a cell from the exported bytes, as another module of the process would.
RawCell rawCell(const void* table, size_t pqId, size_t index) {
    const uint8_t* p = static_cast<const uint8_t*>(table) + pqId * 112 + index * 16;
    RawCell cell;
    cell.pqId = p[0];
    std::memcpy(&cell.winTime, p + 4, 4);
    std::memcpy(&cell.budget, p + 8, 4);
    cell.hwSet = p[12];
    cell.reservedZero =
        p[1] == 0 && p[2] == 0 && p[3] == 0 && p[13] == 0 && p[14] == 0 && p[15] == 0;
    return cell;
}

bool allZero(const void* table) {
    static const uint8_t zeros[sizeof(bw_info)] = {};
    return std::memcmp(table, zeros, sizeof(zeros)) == 0;
}

class BandwidthTest : public ::testing::Test {
protected:
    void SetUp() override { __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 64u, __ATOMIC_RELAXED); }
    LogCapture log;
};

TEST_F(BandwidthTest, CellsSitAtTheirExportedOffsets) {
    const struct {
        uint8_t pqId;
        uint32_t index;
    } cells[] = {{0, 0}, {0, 6}, {1, 0}, {9, 3}, {15, 6}};
    for (const auto& c : cells) {
        SCOPED_TRACE(testing::Message() << int(c.pqId) << "/" << c.index);
        const uint32_t winTime = 0x01020304u + c.index;
        const uint32_t budget = 0xA0B0C0D0u + c.pqId;
        UpdateBWInfo(c.pqId, c.index, winTime, budget, true);
        for (const void* table :
             {static_cast<const void*>(bw_info), static_cast<const void*>(bw_info_hw_set)}) {
            const RawCell cell = rawCell(table, c.pqId, c.index);
            EXPECT_EQ(c.pqId, cell.pqId);
            EXPECT_EQ(winTime, cell.winTime);
            EXPECT_EQ(budget, cell.budget);
            EXPECT_EQ(1u, cell.hwSet);
            EXPECT_TRUE(cell.reservedZero);
        }
    }
}

TEST_F(BandwidthTest, ReportWithoutHardwareSetOnlyUpdatesTheLatest) {
    UpdateBWInfo(4, 2, 100, 200, false);
    const RawCell cell = rawCell(bw_info, 4, 2);
    EXPECT_EQ(4u, cell.pqId);
    EXPECT_EQ(100u, cell.winTime);
    EXPECT_EQ(200u, cell.budget);
    EXPECT_EQ(0u, cell.hwSet);
    EXPECT_TRUE(allZero(bw_info_hw_set));
}

TEST_F(BandwidthTest, HardwareSetTableKeepsTheLastReportThatHadTheFlag) {
    UpdateBWInfo(3, 1, 111, 222, true);
    UpdateBWInfo(3, 1, 333, 444, false);
    const RawCell latest = rawCell(bw_info, 3, 1);
    EXPECT_EQ(333u, latest.winTime);
    EXPECT_EQ(444u, latest.budget);
    EXPECT_EQ(0u, latest.hwSet);
    const RawCell kept = rawCell(bw_info_hw_set, 3, 1);
    EXPECT_EQ(111u, kept.winTime);
    EXPECT_EQ(222u, kept.budget);
    EXPECT_EQ(1u, kept.hwSet);
}

TEST_F(BandwidthTest, UpdatesOutsideTheTablesAreIgnored) {
    const struct {
        uint8_t pqId;
        uint32_t index;
    } cases[] = {{16, 0}, {255, 6}, {0, 7}, {15, 0xFFFFFFFF}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << int(c.pqId) << "/" << c.index);
        UpdateBWInfo(c.pqId, c.index, 1, 2, true);
    }
    EXPECT_TRUE(allZero(bw_info));
    EXPECT_TRUE(allZero(bw_info_hw_set));
    EXPECT_EQ(0u, log.count("UpdateBWInfo: u8PqID")) << log.dump();
}

TEST_F(BandwidthTest, ChangeIsTracedBeforeAndAfter) {
    UpdateBWInfo(2, 5, 10, 20, true);
    log.clear();
    UpdateBWInfo(2, 5, 30, 40, false);
    EXPECT_EQ(1u, log.countExact("Before UpdateBWInfo: u8PqID(2) u32WinTime(10) "
                                 "u32RemainBWBudget(20) bIsPQHWSet(1) "))
        << log.dump();
    EXPECT_EQ(1u, log.countExact("After UpdateBWInfo: u8PqID(2) u32WinTime(30) "
                                 "u32RemainBWBudget(40) bIsPQHWSet(0) "));
}

}  // namespace
}  // namespace capture_test
