// Picture-quality link: the cached connection, the capture-point query and its result handler,
// the per-stream notification and the unregistration.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "BandwidthInfo.h"
#include "Capture.h"
#include "CaptureLog.h"
#include "FakePq.h"
#include "LogCapture.h"
#include "PqLink.h"

namespace capture_test {
namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using ::android::sp;
using Method = FakePq::Method;

constexpr auto kCapturePointEvent =
    EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE;

bool tablesAreZero() {
    static const uint8_t zeros[sizeof(bw_info)] = {};
    return std::memcmp(bw_info, zeros, sizeof(bw_info)) == 0 &&
           std::memcmp(bw_info_hw_set, zeros, sizeof(bw_info_hw_set)) == 0;
}

class PqLinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 64u, __ATOMIC_RELAXED);
        for (auto& row : mPqStreamInfo) {
            row.pqId = -1;
            row.reserved = -1;
            row.capturePoint = kCapturePointNone;
        }
    }
    LogCapture log;
};

TEST_F(PqLinkTest, ServiceIsLookedUpUntilFoundThenKept) {
    FakePq::uninstall();
    EXPECT_EQ(nullptr, GetPqService());
    EXPECT_EQ(nullptr, GetPqService());

    sp<FakePq> pq = FakePq::install();
    sp<IPq> found = GetPqService();
    EXPECT_EQ(pq.get(), found.get());

    // Never dropped once found, even when the registry loses it.
    FakePq::uninstall();
    EXPECT_EQ(pq.get(), GetPqService().get());
}

TEST_F(PqLinkTest, ConcurrentFirstLookupsAgreeOnOneService) {
    sp<FakePq> pq = FakePq::install();
    const int32_t referencesBefore = pq->getStrongCount();
    std::vector<std::thread> threads;
    std::vector<IPq*> seen(8, nullptr);
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] { seen[i] = GetPqService().get(); });
    }
    for (auto& t : threads) t.join();
    for (IPq* p : seen) EXPECT_EQ(pq.get(), p);
    // The threads that lost the race gave their references back; the cache keeps exactly one.
    EXPECT_EQ(referencesBefore + 1, pq->getStrongCount());
}

TEST_F(PqLinkTest, CapturePointsWithoutPqStreamAreRefused) {
    sp<FakePq> pq = FakePq::install();
    const uint32_t points[] = {0, 1, 9, 12, 13, 0xFFFFFFFF};
    for (uint32_t point : points) {
        SCOPED_TRACE(point);
        log.clear();
        GetPqInfo(static_cast<CapturePoint>(point), 3);
        const LogLine refused = log.find("can't support this PQ format!");
        EXPECT_EQ(0u, refused.message.rfind("[getPQPoint]", 0)) << log.dump();
        EXPECT_EQ(ANDROID_LOG_WARN, refused.priority);
        EXPECT_EQ(1u, log.countExact("getPQPoint fail"));
        EXPECT_EQ(0u, log.find("getPQPoint fail").message.rfind("[GetPqInfo]", 0));
    }
    EXPECT_EQ(0u, pq->calls().size());
}

TEST_F(PqLinkTest, QueryWithoutServiceOnlyLogs) {
    FakePq::uninstall();
    GetPqInfo(CapturePoint::PQ_STREAM_IN, 3);
    EXPECT_EQ(1u, log.countExact("Get IPq Service Fail")) << log.dump();
    EXPECT_EQ(0u, log.countExact("Get IPq Service ok"));
    EXPECT_TRUE(tablesAreZero());
}

TEST_F(PqLinkTest, FailedQueriesStoreNothing) {
    sp<FakePq> pq = FakePq::install();
    const struct {
        const char* name;
        bool transport;
    } cases[] = {{"refused", false}, {"transport", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        pq->reset();
        log.clear();
        pq->setTransportFailure(Method::GetCapturePointInfo, c.transport);
        pq->setCapturePointInfo(EN_RETURN_VALUE::EN_RETURN_FAIL,
                                makeCapturePointInfo(100, 1, 1, {{3, 50}}));
        GetPqInfo(CapturePoint::PQ_STREAM_IN, 3);
        EXPECT_EQ(1u, log.countExact("getCapturePointInfo Failed")) << log.dump();
        EXPECT_TRUE(tablesAreZero());
    }
}

TEST_F(PqLinkTest, QueryRecordsTheStreamWindow) {
    sp<FakePq> pq = FakePq::install();
    ST_CAPTURE_POINT_INFO info = makeCapturePointInfo(5000, 3, 1, {{1, 10}, {7, 700}, {7, 999}});
    info.w = 3840;
    info.h = 2160;
    info.fmt = 11;
    info.hwEngine = 2;
    pq->setCapturePointInfo(EN_RETURN_VALUE::EN_RETURN_OK, info);

    GetPqInfo(CapturePoint::PQ_POST, 7);

    auto calls = pq->calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(7, calls[0].pqId);
    EXPECT_EQ(6u, calls[0].arg);
    EXPECT_EQ(700u, bw_info[7][6].u32WinTime);
    EXPECT_EQ(5000u, bw_info[7][6].u32RemainBWBudget);
    EXPECT_EQ(7u, bw_info[7][6].u8PqID);
    EXPECT_EQ(1u, bw_info[7][6].bIsPQHWSet);
    EXPECT_EQ(700u, bw_info_hw_set[7][6].u32WinTime);
    EXPECT_EQ(1u, log.countExact("Get IPq Service ok"));
    EXPECT_EQ(1u, log.countExact("getCapturePointInfo stCapturePointInfo: ok. w(3840) h(2160) "
                                 "fmt(11) hwEngine(2) "))
        << log.dump();
    EXPECT_EQ(1u, log.countExact("activeWinNum(3) capPoint(6) pqID(7) win_i(1)"));
}

// Without a matching window the record after the active ones (a zero record) is used.
TEST_F(PqLinkTest, QueryWithoutMatchingWindowStoresZeroTime) {
    sp<FakePq> pq = FakePq::install();
    bw_info[3][0].u32WinTime = 1234;
    pq->setCapturePointInfo(EN_RETURN_VALUE::EN_RETURN_OK,
                            makeCapturePointInfo(800, 2, 0, {{1, 10}, {2, 20}}));
    GetPqInfo(CapturePoint::PQ_STREAM_IN, 3);
    EXPECT_EQ(0u, bw_info[3][0].u32WinTime);
    EXPECT_EQ(800u, bw_info[3][0].u32RemainBWBudget);
    EXPECT_EQ(3u, bw_info[3][0].u8PqID);
    EXPECT_EQ(1u, log.countExact("activeWinNum(2) capPoint(0) pqID(3) win_i(2)")) << log.dump();
}

// Only the first sixteen records count; a stream found only beyond them is not found, and with
// sixteen or more active windows there is no spare record to fall back on: nothing is stored.
TEST_F(PqLinkTest, QueryKeepsSixteenWindows) {
    sp<FakePq> pq = FakePq::install();
    std::vector<std::pair<uint8_t, uint32_t>> wins;
    for (uint8_t k = 0; k < 20; ++k)
        wins.push_back({static_cast<uint8_t>(k == 18 ? 9 : 1), 10u + k});

    const struct {
        uint8_t activeWinNum;
        int32_t pqId;
        bool stored;
        uint32_t winTime;
    } cases[] = {
        {20, 9, false, 0},  // only at record 18
        {16, 9, false, 0},  // sixteen active, no match
        {20, 1, true, 10},  // found at record 0
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << int(c.activeWinNum) << "/" << c.pqId);
        std::memset(static_cast<void*>(bw_info), 0, sizeof(bw_info));
        log.clear();
        pq->setCapturePointInfo(EN_RETURN_VALUE::EN_RETURN_OK,
                                makeCapturePointInfo(900, c.activeWinNum, 0, wins));
        GetPqInfo(CapturePoint::PQ_STREAM_SCALED, c.pqId);
        const uint32_t pqId = static_cast<uint32_t>(c.pqId);
        EXPECT_EQ(c.stored ? 900u : 0u, bw_info[pqId][1].u32RemainBWBudget) << log.dump();
        EXPECT_EQ(c.winTime, bw_info[pqId][1].u32WinTime);
        EXPECT_EQ(c.stored ? 0u : 1u, log.countExact("get activeWinNum fail"));
    }
}

TEST_F(PqLinkTest, UnregistrationOnlyForCallbackIds) {
    sp<FakePq> pq = FakePq::install();
    unRegisterPqCallback(16);
    unRegisterPqCallback(300);
    EXPECT_EQ(0u, pq->calls().size());
    EXPECT_EQ(0u, log.lines().size()) << log.dump();

    unRegisterPqCallback(15);
    auto calls = pq->calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(Method::Unregister, calls[0].method);
    EXPECT_EQ(15, calls[0].pqId);
    EXPECT_EQ(static_cast<uint32_t>(kCapturePointEvent), calls[0].arg);
    EXPECT_EQ(0u, log.countExact("unRegisterPqOnewayCallback Failed"));
}

TEST_F(PqLinkTest, UnregistrationFailuresAreLogged) {
    sp<FakePq> pq = FakePq::install();
    pq->setResult(Method::Unregister, EN_RETURN_VALUE::EN_RETURN_FAIL);
    unRegisterPqCallback(2);
    pq->reset();
    pq->setTransportFailure(Method::Unregister, true);
    unRegisterPqCallback(2);
    EXPECT_EQ(2u, log.countExact("unRegisterPqOnewayCallback Failed")) << log.dump();
}

TEST_F(PqLinkTest, UnregistrationWithoutService) {
    FakePq::uninstall();
    unRegisterPqCallback(2);
    EXPECT_EQ(1u, log.countExact("Get IPq Service Fail")) << log.dump();
}

class PqNotifyTest : public PqLinkTest {
protected:
    void SetUp() override {
        PqLinkTest::SetUp();
        callback = new PqPerStreamCallback();
        // Slot 5 shows PQ stream 7 at the panel point (capture-point index 5).
        mPqStreamInfo[5].pqId = 7;
        mPqStreamInfo[5].capturePoint = static_cast<uint32_t>(CapturePoint::PQ_PANEL);
        payload.setInfo(5, 1920, 1080, 3, 1, 6000, 3, 1)
            .setWindow(5, 0, 2, 100)
            .setWindow(5, 1, 4, 200)
            .setWindow(5, 2, 7, 333);
        // A decoy: the same stream in another capture point's block.
        payload.setInfo(4, 1920, 1080, 3, 1, 1, 1, 0).setWindow(4, 0, 7, 1);
        log.clear();
    }

    void notify(int32_t pqId, uint32_t declared, size_t size = PqPayload::kSize,
                EN_PQ_CALLBACK_EVENT_TYPE type = kCapturePointEvent) {
        EXPECT_TRUE(callback->onNotify(pqId, type, declared, payload.bytes(size)).isOk());
    }

    sp<PqPerStreamCallback> callback;
    PqPayload payload;
};

TEST_F(PqNotifyTest, BoundCapturePointIsRecorded) {
    notify(7, 1456);
    EXPECT_EQ(7u, bw_info[7][5].u8PqID);
    EXPECT_EQ(333u, bw_info[7][5].u32WinTime);
    EXPECT_EQ(6000u, bw_info[7][5].u32RemainBWBudget);
    EXPECT_EQ(1u, bw_info[7][5].bIsPQHWSet);
    EXPECT_EQ(333u, bw_info_hw_set[7][5].u32WinTime);
    EXPECT_EQ(0u, bw_info[7][4].u32RemainBWBudget);
    EXPECT_EQ(1u, log.countExact("u32DataSize(1456) sizeof(ST_CAPTURE_POINT_INFO)(80) "
                                 "size7array(560) vec_winInfo_size(128)"))
        << log.dump();
    EXPECT_EQ(1u, log.countExact("PQId[7] found = true, captureId_i(5)"));
    EXPECT_EQ(1u, log.countExact("PQId[7] found = true, winInfo_i(2)"));
    EXPECT_EQ(1u, log.countExact("activeWinNum(3) capPoint(5) pqID_win_i(2)"));
    EXPECT_EQ(0u, log.count("pq info error"));
    const LogLine first = log.find("PqPerStreamCallback, onNotify:");
    EXPECT_EQ(
        "PqPerStreamCallback, onNotify: PQId:7, eCallbackType:4, u32DataSize:1456, "
        "u8ByteData.size():1456",
        first.message);
    EXPECT_EQ(ANDROID_LOG_DEBUG, first.priority);
}

// The declared size is only reported; a long enough vector is still read.
TEST_F(PqNotifyTest, WrongDeclaredSizeIsReportedButRead) {
    notify(7, 1000);
    EXPECT_EQ(1u, log.countExact("pq info error, u32DataSize(1000) one_cappoint_size(208) "
                                 "sizeof7(1456)"))
        << log.dump();
    EXPECT_EQ(333u, bw_info[7][5].u32WinTime);
}

TEST_F(PqNotifyTest, ShortPayloadIsNotRead) {
    const struct {
        uint32_t declared;
        size_t size;
        const char* logged;
    } cases[] = {
        {1456, 1455, "pq info error, u32DataSize(1455) one_cappoint_size(208) sizeof7(1456)"},
        {1456, 0, "pq info error, u32DataSize(0) one_cappoint_size(208) sizeof7(1456)"},
        {208, 208, "pq info error, u32DataSize(208) one_cappoint_size(208) sizeof7(1456)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        log.clear();
        notify(7, c.declared, c.size);
        EXPECT_EQ(1u, log.countExact(c.logged)) << log.dump();
        EXPECT_EQ(0u, log.count("found"));
    }
    EXPECT_TRUE(tablesAreZero());
}

TEST_F(PqNotifyTest, OtherEventsOnlyLogTheirArrival) {
    notify(7, 1456, PqPayload::kSize, EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_HDR_CHANGE);
    ASSERT_EQ(1u, log.lines().size()) << log.dump();
    EXPECT_EQ(0u, log.lines()[0].message.rfind("PqPerStreamCallback, onNotify: PQId:7, "
                                               "eCallbackType:2",
                                               0));
    EXPECT_TRUE(tablesAreZero());
}

TEST_F(PqNotifyTest, NothingIsStoredWithoutAMatch) {
    struct Case {
        const char* name;
        int32_t pqId;
        std::function<void(PqPayload&)> edit;
        const char* logged;
    };
    const Case cases[] = {
        {"no slot", 9, [](PqPayload&) {}, "PQId[9] found = false, break"},
        {"no window", 7, [](PqPayload& p) { p.setWindow(5, 2, 8, 333); },
         "PQId[7] found = false, break"},
        {"no active window", 7, [](PqPayload& p) { p.setInfo(5, 1, 1, 1, 1, 6000, 0, 1); },
         "PQId[7] found = false, break"},
        // Active windows beyond the table are refused before any lookup.
        {"sixteen windows", 7, [](PqPayload& p) { p.setInfo(5, 1, 1, 1, 1, 6000, 16, 1); },
         "get activeWinNum fail"},
        {"255 windows", 7, [](PqPayload& p) { p.setInfo(5, 1, 1, 1, 1, 6000, 255, 1); },
         "get activeWinNum fail"},
        // The window holds one byte of the id: 300 shows as 44 and never matches.
        {"id above a byte", 300,
         [](PqPayload& p) {
             mPqStreamInfo[5].pqId = 300;
             p.setWindow(5, 0, 300 & 0xFF, 1);
         },
         "PQId[300] found = false, break"},
        {"point without PQ", 7, [](PqPayload&) { mPqStreamInfo[5].capturePoint = 9; },
         "getPQPoint fail"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PqPayload saved = payload;
        c.edit(payload);
        log.clear();
        notify(c.pqId, 1456);
        EXPECT_EQ(1u, log.countExact(c.logged)) << log.dump();
        EXPECT_TRUE(tablesAreZero());
        payload = saved;
        mPqStreamInfo[5].pqId = 7;
        mPqStreamInfo[5].capturePoint = static_cast<uint32_t>(CapturePoint::PQ_PANEL);
    }
}

TEST_F(PqNotifyTest, FirstBoundSlotWins) {
    // Slot 2 shows the same stream at another point; it comes first.
    mPqStreamInfo[2].pqId = 7;
    mPqStreamInfo[2].capturePoint = static_cast<uint32_t>(CapturePoint::PQ_STREAM_OUT);
    payload.setInfo(3, 1, 1, 1, 1, 4444, 1, 0).setWindow(3, 0, 7, 44);
    notify(7, 1456);
    EXPECT_EQ(1u, log.countExact("PQId[7] found = true, captureId_i(2)")) << log.dump();
    EXPECT_EQ(44u, bw_info[7][3].u32WinTime);
    EXPECT_EQ(0u, bw_info[7][5].u32WinTime);
}

TEST(PqPerStreamCallbackTest, LifetimeIsTraced) {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED);
    LogCapture log;
    { sp<PqPerStreamCallback> cb = new PqPerStreamCallback(); }
    auto lines = log.lines();
    ASSERT_EQ(2u, lines.size()) << log.dump();
    EXPECT_EQ("PqPerStreamCallback constructor", lines[0].message);
    EXPECT_EQ("PqPerStreamCallback ~destructor", lines[1].message);
    EXPECT_EQ("CAPTURE_HIDL", lines[0].tag);
    EXPECT_EQ(ANDROID_LOG_DEBUG, lines[1].priority);
}

}  // namespace
}  // namespace capture_test
