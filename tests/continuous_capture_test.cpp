// Continuous capture: startCapture with its PQ set-up and rollback, stopCapture's order of
// undoing, the frame hand-back, and frame delivery through the continuous completion entry.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "FakePq.h"
#include "PqLink.h"
#include "RecordingCallback.h"
#include "SubHal.h"
#include "TestUtil.h"

namespace capture_test {
namespace {

using fake_subhal::Entry;
using Method = FakePq::Method;

std::vector<Entry> entriesOf(const std::vector<fake_subhal::Call>& calls) {
    std::vector<Entry> out;
    for (const auto& c : calls) out.push_back(c.entry);
    return out;
}

std::vector<Method> methodsOf(const std::vector<FakePq::Call>& calls) {
    std::vector<Method> out;
    for (const auto& c : calls) out.push_back(c.method);
    return out;
}

VX_CAPTURE_CallbackInputParams_s paramsOf(const fake_subhal::Call& call) {
    VX_CAPTURE_CallbackInputParams_s params{};
    EXPECT_EQ(sizeof(params), call.rec1.size());
    if (call.rec1.size() == sizeof(params)) std::memcpy(&params, call.rec1.data(), sizeof(params));
    return params;
}

class ContinuousCaptureTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        id = openInstance();
        ASSERT_TRUE(isValidCaptureId(id));
        slot = slotOf(id);
        pq = FakePq::install();
        cb = new RecordingCallback();
        // Only what the operation under test does is of interest.
        fake_subhal::reset();
        log.clear();
    }

    void bindPq(int32_t pqId, CapturePoint point = CapturePoint::PQ_STREAM_PROCESSED) {
        mPqStreamInfo[slot].pqId = pqId;
        mPqStreamInfo[slot].capturePoint = static_cast<uint32_t>(point);
    }

    bool callbackInstalled() {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        return Capture::mCallback[slot] != nullptr && Capture::hasCallback(slot);
    }

    int32_t id = -1;
    int slot = 0;
    sp<FakePq> pq;
    sp<RecordingCallback> cb;
};

TEST_F(ContinuousCaptureTest, InvalidIdentifiersAreRefused) {
    struct Op {
        const char* name;
        std::function<CaptureReturn(int32_t)> call;
    };
    const Op ops[] = {
        {"startCapture", [&](int32_t i) { return service->startCapture(i, cb); }},
        {"stopCapture", [&](int32_t i) { return service->stopCapture(i); }},
        {"frameProcessDone", [&](int32_t i) { return service->frameProcessDone(i, 0); }},
        {"notifyContinueCapture", [&](int32_t i) { return service->notifyContinueCapture(i); }},
    };
    const int32_t badIds[] = {0x73000020, 0x72FFFFFF, -1, 0x73000000 | INT32_MIN};
    for (const Op& op : ops) {
        for (int32_t bad : badIds) {
            SCOPED_TRACE(testing::Message() << op.name << " 0x" << std::hex << bad);
            log.clear();
            EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, op.call(bad));
            char text[96];
            snprintf(text, sizeof(text), "%s , INVALID_CAPTURE_ID ERROR 0x%x", op.name, bad);
            EXPECT_EQ(1u, log.countExact(text)) << log.dump();
        }
    }
    EXPECT_EQ(0u, fake_subhal::calls().size());
    EXPECT_EQ(0u, pq->calls().size());
    for (int s = 0; s < kMaxCaptureSlots; ++s) EXPECT_FALSE(Capture::hasCallback(s));
}

TEST_F(ContinuousCaptureTest, StartRegistersTheContinuousEntryThenStarts) {
    const uint32_t seqBefore = Capture::mCallbackSequeceId[slot];
    EXPECT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, cb));

    auto calls = fake_subhal::calls();
    EXPECT_EQ((std::vector<Entry>{Entry::RegisterCallback, Entry::CaptureStart}), entriesOf(calls));
    const VX_CAPTURE_CallbackInputParams_s params = paramsOf(calls[0]);
    EXPECT_EQ(&Capture::Callback_CaptureDone, params.pfnCallback);
    EXPECT_EQ(1u, params.u32Flag);
    EXPECT_EQ(&Capture::mCallbackSequeceId[slot], params.pu32SequenceId);
    EXPECT_EQ(0u, params.u32Reserved0 | params.u32Reserved1 | params.u32Reserved2);
    EXPECT_EQ(std::vector<uint8_t>(8, 0), calls[0].rec2);
    EXPECT_EQ(seqBefore + 1, fake_subhal::registrationSequence(id));
    EXPECT_TRUE(callbackInstalled());
    EXPECT_EQ(0u, pq->calls().size());
    EXPECT_EQ(1u, log.countExact("Call setCallback(), success"));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_RegisterCallback(), Ret: 0"));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_CaptureStart(), Ret: 0"));
}

TEST_F(ContinuousCaptureTest, StartWithoutCallbackOnlyStarts) {
    fake_subhal::setResult(Entry::CaptureStart, 16);
    const uint32_t seqBefore = Capture::mCallbackSequeceId[slot];
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->startCapture(id, nullptr));
    EXPECT_EQ((std::vector<Entry>{Entry::CaptureStart}), entriesOf(fake_subhal::calls()));
    EXPECT_EQ(seqBefore, Capture::mCallbackSequeceId[slot]);
    // The record is prepared for a later registration all the same.
    EXPECT_EQ(&Capture::Callback_CaptureDone, Capture::stCallbackInputParams[slot].pfnCallback);
    EXPECT_EQ(1u, Capture::stCallbackInputParams[slot].u32Flag);
}

// Without a PQ stream nothing is rolled back: the client's stopCapture or close cleans up.
TEST_F(ContinuousCaptureTest, FailureWithoutPqStreamKeepsTheCallback) {
    const struct {
        Entry failing;
        std::vector<Entry> expected;
    } cases[] = {
        {Entry::RegisterCallback, {Entry::RegisterCallback}},
        {Entry::CaptureStart, {Entry::RegisterCallback, Entry::CaptureStart}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(fake_subhal::entryName(c.failing));
        fake_subhal::reset();
        fake_subhal::setResultOnce(c.failing, 16);
        EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->startCapture(id, cb));
        EXPECT_EQ(c.expected, entriesOf(fake_subhal::calls()));
        EXPECT_TRUE(callbackInstalled());
        EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
    }
    EXPECT_EQ(0u, pq->calls().size());
}

TEST_F(ContinuousCaptureTest, StartOnPqStreamQueriesAndRegistersWithPq) {
    bindPq(3, CapturePoint::PQ_STREAM_PROCESSED);
    EXPECT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, cb));

    EXPECT_EQ((std::vector<Entry>{Entry::RegisterCallback, Entry::CaptureStart}),
              entriesOf(fake_subhal::calls()));
    auto pqCalls = pq->calls();
    ASSERT_EQ((std::vector<Method>{Method::GetCapturePointInfo, Method::Register}),
              methodsOf(pqCalls));
    EXPECT_EQ(3, pqCalls[0].pqId);
    EXPECT_EQ(2u, pqCalls[0].arg);
    EXPECT_EQ(3, pqCalls[1].pqId);
    EXPECT_EQ(4u, pqCalls[1].arg);
    EXPECT_TRUE(pqCalls[1].withCallback);
    sp<IPqOnewayCallback> registered = pq->callbackFor(3);
    ASSERT_NE(nullptr, registered);
    EXPECT_NE(nullptr, dynamic_cast<PqPerStreamCallback*>(registered.get()));
    EXPECT_EQ(3, mPqStreamInfo[slot].pqId);
    EXPECT_TRUE(callbackInstalled());
}

// On a PQ stream a failed start undoes the PQ registration first, then the client callback.
TEST_F(ContinuousCaptureTest, FailureOnPqStreamRollsBackBothRegistrations) {
    const struct {
        Entry failing;
        std::vector<Entry> expected;
    } cases[] = {
        {Entry::RegisterCallback, {Entry::RegisterCallback, Entry::UnRegisterCallback}},
        {Entry::CaptureStart,
         {Entry::RegisterCallback, Entry::CaptureStart, Entry::UnRegisterCallback}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(fake_subhal::entryName(c.failing));
        fake_subhal::reset();
        pq->reset();
        bindPq(3);
        fake_subhal::setResultOnce(c.failing, 16);

        EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->startCapture(id, cb));

        auto calls = fake_subhal::calls();
        EXPECT_EQ(c.expected, entriesOf(calls));
        EXPECT_EQ(&Capture::Callback_CaptureDone, paramsOf(calls.back()).pfnCallback);
        const std::vector<Method> expectedPq = {Method::GetCapturePointInfo, Method::Register,
                                                Method::Unregister};
        EXPECT_EQ(expectedPq, methodsOf(pq->calls()));
        EXPECT_EQ(nullptr, pq->callbackFor(3));
        EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
        EXPECT_FALSE(callbackInstalled());
    }
}

// A rollback with no client callback still unbinds the PQ stream but unregisters nothing.
TEST_F(ContinuousCaptureTest, FailedStartWithoutCallbackOnPqStream) {
    bindPq(3);
    fake_subhal::setResult(Entry::CaptureStart, 7);
    EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, service->startCapture(id, nullptr));
    EXPECT_EQ((std::vector<Entry>{Entry::CaptureStart}), entriesOf(fake_subhal::calls()));
    EXPECT_EQ(1u, pq->count(Method::Unregister));
    EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
}

// Ids above 15 have figures but no PQ callbacks.
TEST_F(ContinuousCaptureTest, PqStreamAboveFifteenIsQueriedButNotRegistered) {
    bindPq(16);
    fake_subhal::setResultOnce(Entry::CaptureStart, 16);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->startCapture(id, cb));
    EXPECT_EQ((std::vector<Method>{Method::GetCapturePointInfo}), methodsOf(pq->calls()));
    EXPECT_EQ(16, pq->calls()[0].pqId);
    EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
    EXPECT_FALSE(callbackInstalled());
}

TEST_F(ContinuousCaptureTest, PqRefusalNeverChangesTheResult) {
    const struct {
        const char* name;
        std::function<void()> script;
    } cases[] = {
        {"refused", [&] { pq->setResult(Method::Register, EN_RETURN_VALUE::EN_RETURN_FAIL); }},
        {"transport", [&] { pq->setTransportFailure(Method::Register, true); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        pq->reset();
        c.script();
        bindPq(3);
        log.clear();
        EXPECT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, cb));
        const LogLine line = log.find(
            "registerPqOnewayCallback: EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE "
            "Failed: 3");
        EXPECT_EQ(ANDROID_LOG_WARN, line.priority) << log.dump();
        EXPECT_EQ(0u, line.message.rfind("[registerPqCallback]", 0)) << line.message;
        EXPECT_EQ(3, mPqStreamInfo[slot].pqId);
    }
}

TEST_F(ContinuousCaptureTest, MissingPqServiceOnlyLogs) {
    FakePq::uninstall();
    bindPq(3);
    EXPECT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, cb));
    EXPECT_EQ(1u, fake_subhal::count(Entry::CaptureStart));
    EXPECT_EQ(0u, pq->calls().size());
    // Once for the figures, once for the registration.
    EXPECT_EQ(2u, log.countExact("Get IPq Service Fail")) << log.dump();
    EXPECT_TRUE(log.contains("[registerPqCallback]"));
}

TEST_F(ContinuousCaptureTest, StopUndoesEverythingThenStops) {
    bindPq(5);
    ASSERT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, cb));
    fake_subhal::reset();
    pq->reset();

    EXPECT_EQ(CaptureReturn::SUCCESS, service->stopCapture(id));

    auto calls = fake_subhal::calls();
    const std::vector<Entry> expected = {Entry::UnRegisterCallback, Entry::CaptureStop};
    EXPECT_EQ(expected, entriesOf(calls));
    EXPECT_EQ(&Capture::Callback_CaptureDone, paramsOf(calls[0]).pfnCallback);
    EXPECT_EQ((std::vector<Method>{Method::Unregister}), methodsOf(pq->calls()));
    EXPECT_EQ(5, pq->calls()[0].pqId);
    EXPECT_EQ(4u, pq->calls()[0].arg);
    EXPECT_FALSE(callbackInstalled());
    EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_CaptureStop(), Ret: 0"));
}

// The stop is always attempted; the unregistration's error is the one reported.
TEST_F(ContinuousCaptureTest, StopReportsTheFirstError) {
    const struct {
        uint32_t unregister;
        uint32_t stop;
        CaptureReturn expected;
    } cases[] = {
        {16, 7, CaptureReturn::FORMAT_NOT_SUPPORT},
        {0, 7, CaptureReturn::INVALID_CAPTURE_ID},
        {16, 0, CaptureReturn::FORMAT_NOT_SUPPORT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.unregister << "/" << c.stop);
        ASSERT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, cb));
        fake_subhal::reset();
        fake_subhal::setResultOnce(Entry::UnRegisterCallback, c.unregister);
        fake_subhal::setResultOnce(Entry::CaptureStop, c.stop);

        EXPECT_EQ(c.expected, service->stopCapture(id));
        EXPECT_EQ((std::vector<Entry>{Entry::UnRegisterCallback, Entry::CaptureStop}),
                  entriesOf(fake_subhal::calls()));
        EXPECT_FALSE(callbackInstalled());
    }
}

TEST_F(ContinuousCaptureTest, StopOfAnIdleSlotOnlyStops) {
    fake_subhal::setResult(Entry::CaptureStop, 16);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->stopCapture(id));
    EXPECT_EQ((std::vector<Entry>{Entry::CaptureStop}), entriesOf(fake_subhal::calls()));
    EXPECT_EQ(0u, pq->calls().size());
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_CaptureStop(), Ret: 16"));
}

TEST_F(ContinuousCaptureTest, StopLogsAFailedPqUnregistration) {
    bindPq(2);
    pq->setResult(Method::Unregister, EN_RETURN_VALUE::EN_RETURN_NOT_SUPPORT);
    EXPECT_EQ(CaptureReturn::SUCCESS, service->stopCapture(id));
    EXPECT_EQ(1u, log.countExact("unRegisterPqOnewayCallback Failed")) << log.dump();
    EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
}

TEST_F(ContinuousCaptureTest, FrameHandBackPassesTheIndexThrough) {
    const uint32_t indices[] = {0, 7, 8, 0xFFFFFFFF};
    for (uint32_t index : indices) {
        SCOPED_TRACE(index);
        EXPECT_EQ(CaptureReturn::SUCCESS, service->frameProcessDone(id, index));
        auto last = fake_subhal::calls().back();
        EXPECT_EQ(Entry::FrameProcessDone, last.entry);
        EXPECT_EQ(id, last.captureId);
        EXPECT_EQ(index, last.arg);
        char text[96];
        snprintf(text, sizeof(text), "Call frameProcessDone(), captureId: 0x%x, index: %u", id,
                 index);
        EXPECT_EQ(1u, log.countExact(text)) << log.dump();
    }
    fake_subhal::setResultOnce(Entry::FrameProcessDone, 24);
    EXPECT_EQ(CaptureReturn::NOT_OPENED, service->frameProcessDone(0x7300001F, 1));
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_FrameProcessDone(), Ret: 24"));
}

TEST_F(ContinuousCaptureTest, NotifyContinueCaptureMapsTheStatus) {
    EXPECT_EQ(CaptureReturn::SUCCESS, service->notifyContinueCapture(id));
    fake_subhal::setResultOnce(Entry::NotifyContinueCapture, 32);
    EXPECT_EQ(CaptureReturn::SOURCE_NOT_READY, service->notifyContinueCapture(id));
    auto calls = fake_subhal::callsOf(Entry::NotifyContinueCapture);
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(id, calls[1].captureId);
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_NotifyContinueCapture(), Ret: 32"));
}

using PartialLibraryTest = ServiceTest;

TEST_F(PartialLibraryTest, NotifyContinueCaptureWithoutTheEntry) {
    ASSERT_NO_FATAL_FAILURE(loadLibrary(true));
    const int32_t id = openInstance();
    log.clear();
    EXPECT_EQ(CaptureReturn::INVALID_ARGUMENT, service->notifyContinueCapture(id));
    EXPECT_EQ(1u, log.countExact("mNotifyContinueCapture is nullptr!")) << log.dump();
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_NotifyContinueCapture(), Ret: 8"));
}

class FrameDeliveryTest : public ContinuousCaptureTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(ContinuousCaptureTest::SetUp());
        ASSERT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, cb));
        log.clear();
    }

    static VX_CAPTURE_CaptureDoneInfo_s frame(uint32_t index, uint32_t errorNo = 0) {
        VX_CAPTURE_CaptureDoneInfo_s info{};
        info.index = index;
        info.Y_Size = 0x2000;
        info.C_Size = 0x1000;
        for (uint32_t k = 0; k < 8; ++k) {
            info.stBuf[k].Y_offSet = 0x3000 * k;
            info.stBuf[k].C_offSet = 0x3000 * k + 0x2000;
        }
        info.ErrorNo = errorNo;
        return info;
    }
};

TEST_F(FrameDeliveryTest, FramesArriveOnTheSubHalThread) {
    EXPECT_EQ(0, fake_subhal::fireCallback(id, frame(5, 35)));
    auto events = cb->events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(fake_subhal::workerThreadId(), events[0].thread);
    EXPECT_NE(std::this_thread::get_id(), events[0].thread);
    EXPECT_EQ(CaptureEventNotify::FRAME_DONE, events[0].notify);
    const CaptureCallbackParams& p = events[0].params;
    EXPECT_EQ(id, p.captureId);
    EXPECT_EQ(5u, p.index);
    EXPECT_EQ(0u, p.width);
    EXPECT_EQ(0u, p.height);
    EXPECT_EQ(0xF000u, p.yOffset);
    EXPECT_EQ(0x11000u, p.cOffset);
    EXPECT_EQ(0x2000u, p.ySize);
    EXPECT_EQ(0x1000u, p.cSize);
    EXPECT_EQ(CaptureReturn::INVALID_CROP, p.result);
    EXPECT_EQ(1u, log.countExact("Callback_CaptureDone index(5) Y_offSet(0xf000) "
                                 "C_offSet(0x11000) Y_Size(0x2000) C_Size(0x1000) "))
        << log.dump();
    EXPECT_EQ(1u, log.countExact("Executing callback..."));
    EXPECT_EQ(1u, log.countExact("Execute callback done."));
}

TEST_F(FrameDeliveryTest, OutOfRangeIndexDeliversNoOffsets) {
    EXPECT_EQ(0, fake_subhal::fireCallback(id, frame(8)));
    ASSERT_EQ(1u, cb->count());
    EXPECT_EQ(8u, cb->events()[0].params.index);
    EXPECT_EQ(0u, cb->events()[0].params.yOffset);
    EXPECT_EQ(0u, cb->events()[0].params.cOffset);
    EXPECT_EQ(0x2000u, cb->events()[0].params.ySize);
}

// setCallback swaps the target but keeps the old registration, whose frames are now stale.
TEST_F(FrameDeliveryTest, FramesOfASupersededRegistrationAreDropped) {
    sp<RecordingCallback> replacement = new RecordingCallback();
    const uint32_t registered = fake_subhal::registrationSequence(id);
    service->setCallback(id, replacement);

    EXPECT_EQ(0, fake_subhal::fireCallback(id, frame(1)));
    EXPECT_EQ(0u, cb->count());
    EXPECT_EQ(0u, replacement->count());
    char text[200];
    snprintf(text, sizeof(text),
             "callback sequenceId not match, skip onNotify(). captureId: 0x%x, "
             "u32CurrentCallbackSeqId(%u), u32LatestCallbackSeqId(%u)",
             id, registered, registered + 1);
    EXPECT_EQ(1u, log.countExact(text)) << log.dump();

    // Registering again through startCapture brings the frames back.
    ASSERT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, replacement));
    EXPECT_EQ(0, fake_subhal::fireCallback(id, frame(2)));
    EXPECT_EQ(1u, replacement->count());
    EXPECT_EQ(0u, cb->count());
}

TEST_F(FrameDeliveryTest, NoFrameAfterStop) {
    ASSERT_EQ(CaptureReturn::SUCCESS, service->stopCapture(id));
    EXPECT_EQ(-1, fake_subhal::fireCallback(id, frame(0)));  // no registration left
    // A frame the sub-HAL had already under way finds no callback.
    EXPECT_EQ(0, fake_subhal::fireRaw(&Capture::Callback_CaptureDone, id, frame(0),
                                      Capture::mCallbackSequeceId[slot]));
    EXPECT_EQ(0u, cb->count());
    EXPECT_EQ(1u, log.countExact("Callback is NULL.")) << log.dump();
    EXPECT_EQ(0u, log.countExact("Executing callback..."));
}

TEST_F(FrameDeliveryTest, ClientTransportFailureIsLogged) {
    cb->setTransportFailure(true);
    EXPECT_EQ(0, fake_subhal::fireCallback(id, frame(0)));
    EXPECT_EQ(1u, cb->count());
    const LogLine line = log.find("Warning: callback onNotify result is not OK !!");
    EXPECT_EQ(ANDROID_LOG_DEBUG, line.priority) << log.dump();
}

TEST_F(FrameDeliveryTest, BadArgumentsAreRefused) {
    const VX_CAPTURE_CaptureDoneInfo_s info = frame(0);
    const uint32_t seq = Capture::mCallbackSequeceId[slot];
    const int32_t badIds[] = {0x73000020, 0x72FFFFFF, -1};
    for (int32_t bad : badIds) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(7, fake_subhal::fireRaw(&Capture::Callback_CaptureDone, bad, info, seq));
        char text[96];
        snprintf(text, sizeof(text), "Callback_CaptureDone , INVALID_CAPTURE_ID ERROR 0x%x", bad);
        EXPECT_EQ(1u, log.countExact(text)) << log.dump();
    }
    uint32_t seqCopy = seq;
    EXPECT_EQ(7, Capture::Callback_CaptureDone(id, 0, nullptr, &seqCopy));
    VX_CAPTURE_CaptureDoneInfo_s copy = info;
    EXPECT_EQ(0, Capture::Callback_CaptureDone(id, 0, &copy, nullptr));
    EXPECT_EQ(0u, cb->count());
}

// The double streams on its own thread; every frame it reports while the callback is installed
// reaches the client, and none after stopCapture has returned.
TEST_F(ContinuousCaptureTest, StreamedFramesAllReachTheClient) {
    fake_subhal::setAutoStream(true, 500);
    ASSERT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, cb));
    ASSERT_TRUE(cb->waitFor(20));
    ASSERT_EQ(CaptureReturn::SUCCESS, service->stopCapture(id));
    const size_t seen = cb->count();
    EXPECT_EQ(fake_subhal::framesFired(id), seen);
    EXPECT_EQ(fake_subhal::framesDelivered(id), seen);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(seen, cb->count());
    for (const auto& e : cb->events()) {
        EXPECT_NE(std::this_thread::get_id(), e.thread);
        EXPECT_EQ(id, e.params.captureId);
    }
}

}  // namespace
}  // namespace capture_test
