// Picture-quality link: GetPqInfo, the per-stream notification and the bandwidth tables.
#include <gtest/gtest.h>

#include <tuple>

#include "BandwidthInfo.h"
#include "Doubles.h"
#include "PqLink.h"

namespace capture_test {
namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using ::vendor::quenlark::hardware::capture::V1_0::CapturePoint;
using Cell = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;  // id, time, budget, hw set
using Windows = std::vector<std::pair<uint8_t, uint32_t>>;

// Takes cell (pqId, index) out of the latest table, failing when any other cell holds something.
Cell takeOnlyCell(int pqId, int index) {
    Cell found{};
    for (int p = 0; p < 16; ++p) {
        for (int i = 0; i < 7; ++i) {
            const BwInfoCell& c = bw_info[p][i];
            if (c.u8PqID == 0 && c.u32WinTime == 0 && c.u32RemainBWBudget == 0) continue;
            EXPECT_TRUE(p == pqId && i == index) << "cell " << p << "/" << i;
            found = Cell(c.u8PqID, c.u32WinTime, c.u32RemainBWBudget, c.bIsPQHWSet);
        }
    }
    std::memset(static_cast<void*>(bw_info), 0, sizeof(bw_info));
    return found;
}

using PqLinkTest = ServiceTest;

// Only the first sixteen window records count. Without a match the record after the active ones
// is used (a zero one); with sixteen or more active there is none, and nothing is stored.
TEST_F(PqLinkTest, QueryRecordsTheStreamWindow) {
    Windows twenty;
    for (uint8_t k = 0; k < 20; ++k) twenty.push_back({k == 18 ? 9 : 1, 10u + k});
    using R = FakePq::Reply;
    const std::tuple<uint32_t, R, int32_t, uint8_t, Windows, Cell, const char*> cases[] = {
        {8, R::Ok, 7, 3, {{1, 10}, {7, 700}, {7, 999}}, {7, 700, 900, 1}, "win_i(1)"},
        {2, R::Ok, 7, 3, {{1, 10}, {7, 700}, {7, 999}}, {7, 700, 900, 1}, "win_i(1)"},
        {8, R::Ok, 7, 2, {{1, 10}, {2, 20}}, {7, 0, 900, 1}, "win_i(2)"},
        {8, R::Ok, 1, 20, twenty, {1, 10, 900, 1}, "win_i(0)"},
        {8, R::Ok, 9, 20, twenty, {}, "get activeWinNum fail"},
        {8, R::Ok, 9, 16, twenty, {}, "get activeWinNum fail"},
        {8, R::Refuse, 7, 1, {{7, 5}}, {}, "getCapturePointInfo Failed"},
        {8, R::DeadObject, 7, 1, {{7, 5}}, {}, "getCapturePointInfo Failed"},
        {1, R::Ok, 7, 1, {{7, 5}}, {}, "getPQPoint fail"},
        {9, R::Ok, 7, 1, {{7, 5}}, {}, "getPQPoint fail"},
    };
    sp<FakePq> pq = FakePq::install();
    for (const auto& [point, reply, pqId, activeWinNum, wins, cell, logged] : cases) {
        SCOPED_TRACE(testing::Message() << point << "/" << pqId << "/" << int(activeWinNum));
        log.clear();
        fake_subhal::reset();
        pq->replies["get"] = reply;
        pq->info = capturePointInfo(900, activeWinNum, wins);
        GetPqInfo(static_cast<CapturePoint>(point), pqId);
        EXPECT_EQ(cell, takeOnlyCell(pqId, point - 2));
        EXPECT_EQ(1u, log.count(logged)) << log.dump();
        const Strings query = {"pq.get " + std::to_string(pqId) + "/" + std::to_string(point - 2)};
        EXPECT_EQ(point >= 2 && point <= 8 ? query : Strings{}, fake_subhal::state().journal);
    }
}

// Stream 7 is shown at the panel (index 5), in its first window record, by slot 0 and at another
// point by slot 9: the first bound slot wins. Slot 2 shows stream 300 at the first point (index
// 0), whose window records can hold only its low byte.
TEST_F(PqLinkTest, NotificationRecordsTheBoundCapturePoint) {
    const std::tuple<int, int32_t, CapturePoint> bindings[] = {{0, 7, CapturePoint::PQ_PANEL},
                                                               {9, 7, CapturePoint::PQ_STREAM_OUT},
                                                               {2, 300, CapturePoint::PQ_STREAM_IN}};
    for (const auto& [slot, pqId, point] : bindings) {
        mPqStreamInfo[slot].pqId = pqId;
        mPqStreamInfo[slot].capturePoint = static_cast<int32_t>(point);
    }
    PqPayload payload;
    payload.window(5, 0, 7, 0x4030201).window(5, 1, 4, 200).window(5, 2, 2, 100);
    payload.info(0, 1, 4, 0).window(0, 3, 44, 1);
    payload.info(3, 1, 1, 0).window(3, 0, 7, 1);
    const auto sizeError = [](int size) {
        return "pq info error, u32DataSize(" + std::to_string(size) +
               ") one_cappoint_size(208) sizeof7(1456)";
    };
    constexpr auto kInfo = EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE;
    constexpr auto kHdr = EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_HDR_CHANGE;
    // Stream, declared size, vector size, active windows, event, logged, window time stored.
    const std::tuple<int32_t, uint32_t, size_t, uint8_t, EN_PQ_CALLBACK_EVENT_TYPE, std::string,
                     uint32_t>
        cases[] = {
            {7, 1456, 1456, 3, kInfo, "PQId[7] found = true, captureId_i(0)", 0x4030201},
            {7, 1000, 1456, 3, kInfo, sizeError(1000), 0x4030201},  // the declared size only logs
            {7, 1456, 1455, 3, kInfo, sizeError(1455), 0},
            {7, 1456, 0, 3, kInfo, sizeError(0), 0},
            {8, 1456, 1456, 3, kInfo, "PQId[8] found = false, break", 0},
            // Bound to no slot, though slot 0's capture point has a window of stream 2.
            {2, 1456, 1456, 3, kInfo, "PQId[2] found = false, break", 0},
            {7, 1456, 1456, 0, kInfo, "PQId[7] found = false, break", 0},
            {7, 1456, 1456, 16, kInfo, "get activeWinNum fail", 0},
            {300, 1456, 1456, 4, kInfo, "PQId[300] found = false, break", 0},
            {7, 1456, 1456, 3, kHdr, "onNotify: PQId:7, eCallbackType:2, u32DataSize:1456", 0},
        };
    sp<PqPerStreamCallback> callback = new PqPerStreamCallback();
    for (const auto& [pqId, declared, size, activeWinNum, type, logged, winTime] : cases) {
        SCOPED_TRACE(logged);
        log.clear();
        std::vector<uint8_t> bytes = payload.info(5, 6000, activeWinNum, 0).bytes;
        bytes.resize(size);
        EXPECT_TRUE(callback->onNotify(pqId, type, declared, bytes).isOk());
        EXPECT_EQ(1u, log.count(logged)) << log.dump();
        EXPECT_EQ(winTime == 0 ? Cell{} : Cell(7, winTime, 6000, 0), takeOnlyCell(7, 5));
        EXPECT_EQ(size < 1456 || declared != 1456, log.contains("pq info error"));
        EXPECT_TRUE(type == kInfo || log.lines().size() == 1) << log.dump();
    }
}

// Other modules read 16 ids x 7 points of 16-byte cells; updates outside them are ignored.
TEST(BandwidthTest, TablesKeepTheLatestAndTheLatestHardwareSetReport) {
    // Id, index, window time, budget, hardware set.
    const std::tuple<uint8_t, uint32_t, uint32_t, uint32_t, bool> updates[] = {
        {3, 1, 111, 222, true}, {3, 1, 333, 444, false}, {0, 0, 0x01020304, 0xA0B0C0D0, true},
        {15, 6, 7, 8, true},    {9, 4, 100, 200, false}, {16, 0, 1, 2, true},
        {255, 6, 1, 2, true},   {0, 7, 1, 2, true},      {15, 0xFFFFFFFF, 1, 2, true}};
    std::vector<uint8_t> latest(1792), hwSet(1792);
    for (const auto& [pqId, index, winTime, budget, set] : updates) {
        UpdateBWInfo(pqId, index, winTime, budget, set);
        if (pqId > 15 || index > 6) continue;
        for (std::vector<uint8_t>* table : {&latest, set ? &hwSet : &latest}) {
            uint8_t* cell = table->data() + pqId * 112 + index * 16;
            cell[0] = pqId;
            std::memcpy(cell + 4, &winTime, 4);
            std::memcpy(cell + 8, &budget, 4);
            cell[12] = set;
        }
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(bw_info);
    EXPECT_EQ(latest, std::vector<uint8_t>(bytes, bytes + 1792));
    bytes = reinterpret_cast<const uint8_t*>(bw_info_hw_set);
    EXPECT_EQ(hwSet, std::vector<uint8_t>(bytes, bytes + 1792));
}

}  // namespace
}  // namespace capture_test
