// Capture control and client events: single-shot and continuous capture, delivery through the two
// completion entries, setCallback, and the identifier check of every client operation.
#include <gtest/gtest.h>

#include <functional>

#include "BandwidthInfo.h"
#include "Doubles.h"

namespace capture_test {
namespace {

using E = fake_subhal::Entry;
using ContinuousCaptureTest = SlotTest;

class CaptureOnceTest : public SlotTest {
protected:
    // What setCaptureFrameInfo keeps: the records, with clones of the handles.
    void keepFrameRows(CaptureFormat srcFormat = CaptureFormat::NV12) {
        TestHandle src(2), dst;
        const hidl_handle srcHandle(src.get()), dstHandle(dst.get());
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        mSrcFrameInfo[slot].width = 64;
        mSrcFrameInfo[slot].format = srcFormat;
        mSrcFrameInfo[slot].buffer = srcHandle;
        mDstFrameInfo[slot].format = CaptureFormat::ARGB8888;
        mDstFrameInfo[slot].buffer = dstHandle;
    }
    bool frameRowsCleared() {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        const CaptureSrcFrameInfo& s = mSrcFrameInfo[slot];
        const CaptureDstFrameInfo& d = mDstFrameInfo[slot];
        return s.width == 0 && s.format == CaptureFormat{} && s.buffer == nullptr &&
               d.format == CaptureFormat{} && d.buffer == nullptr;
    }
};

// Whatever the sub-HAL answers, the frame configuration and the PQ binding (refreshed first) go.
TEST_F(CaptureOnceTest, SubHalCaptureConsumesTheConfiguration) {
    const std::tuple<uint32_t, int32_t, CaptureReturn> cases[] = {
        {70, -1, CaptureReturn::FAIL},
        {0, 0, CaptureReturn::SUCCESS},
        {16, 5, CaptureReturn::FORMAT_NOT_SUPPORT}};
    pq->info = capturePointInfo(7777, 3, {{9, 11}, {5, 4321}, {0, 4321}});
    for (const auto& [status, pqId, expected] : cases) {
        SCOPED_TRACE(status);
        const int fds = countOpenFds();
        keepFrameRows();
        bindPq(pqId, CapturePoint::PQ_STREAM_OUT);
        fake_subhal::reset();
        fake_subhal::setResultOnce(E::CaptureOnce, status);
        EXPECT_EQ(expected, service->captureOnce(id));
        // The figures come first.
        const Strings journal = {"pq.get " + std::to_string(pqId) + "/3", "CaptureOnce"};
        EXPECT_EQ(pqId >= 0 ? journal : Strings{"CaptureOnce"}, fake_subhal::state().journal);
        EXPECT_EQ(pqId >= 0 ? 4321u : 0u, bw_info[std::max(pqId, 0)][3].u32WinTime);
        EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
        EXPECT_TRUE(frameRowsCleared());
        EXPECT_EQ(fds, countOpenFds());  // the kept handle clones are closed
    }
}

// A source the GPU cannot take leaves the flag set, so that the client may reconfigure and retry.
TEST_F(CaptureOnceTest, GpuInstanceWithUnsupportedFormatKeepsItsFlag) {
    keepFrameRows(CaptureFormat::RGBA8888);
    bindPq(2);
    mUseGpu[slot] = 1;
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->captureOnce(id));
    EXPECT_EQ(Strings{"captureOnce"}, functionsLogging(log, "GPU Not Support!!!"));
    EXPECT_EQ(1u, mUseGpu[slot]);
    EXPECT_TRUE(fake_subhal::state().journal.empty());
    EXPECT_TRUE(frameRowsCleared() && mPqStreamInfo[slot].pqId == 2);
}

// Neither the GPU path, nor the PQ binding, nor the kept frame records are involved. A failed
// registration drops the callback and captures nothing; without one it only captures.
TEST_F(CaptureOnceTest, WithCallbackRegistersTheSingleShotEntry) {
    keepFrameRows();
    bindPq(6);
    mUseGpu[slot] = 1;
    EXPECT_EQ(CaptureReturn::SUCCESS, service->captureOnceWithCallback(id, cb));
    ASSERT_EQ((Strings{"RegisterCallback", "CaptureOnce"}), fake_subhal::state().journal);
    EXPECT_EQ(registrationRecord(&Capture::Callback_CaptureOnceDone),
              fake_subhal::state().calls[0].rec1);
    EXPECT_EQ(Capture::mCallbackSequeceId[slot], fake_subhal::state().registrations[id].second);
    EXPECT_EQ(cb, installed());
    EXPECT_TRUE(!frameRowsCleared() && mPqStreamInfo[slot].pqId == 6 && mUseGpu[slot] == 1);

    fake_subhal::reset();
    log.clear();
    fake_subhal::setResultOnce(E::RegisterCallback, 16);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->captureOnceWithCallback(id, cb));
    ASSERT_EQ((Strings{"RegisterCallback", "UnRegisterCallback"}), fake_subhal::state().journal);
    EXPECT_EQ(fake_subhal::state().calls[0].rec1, fake_subhal::state().calls[1].rec1);
    // The failure, the registration and the unregistration, all under the operation's name.
    EXPECT_EQ(Strings(3, "captureOnceWithCallback"), functionsLogging(log, "Register"));
    EXPECT_EQ(nullptr, installed());
    fake_subhal::reset();
    fake_subhal::setResultOnce(E::CaptureOnce, 16);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->captureOnceWithCallback(id, nullptr));
    EXPECT_EQ(Strings{"CaptureOnce"}, fake_subhal::state().journal);
}

TEST_F(ContinuousCaptureTest, InvalidIdentifiersAreRefusedWithoutSideEffects) {
    const std::pair<const char*, std::function<CaptureReturn(int32_t)>> ops[] = {
        {"captureOnce", [&](int32_t i) { return service->captureOnce(i); }},
        {"captureOnceWithCallback",
         [&](int32_t i) { return service->captureOnceWithCallback(i, cb); }},
        {"startCapture", [&](int32_t i) { return service->startCapture(i, cb); }},
        {"stopCapture", [&](int32_t i) { return service->stopCapture(i); }},
        {"frameProcessDone", [&](int32_t i) { return service->frameProcessDone(i, 0); }},
        {"notifyContinueCapture", [&](int32_t i) { return service->notifyContinueCapture(i); }},
    };
    bindPq(3);
    for (int32_t bad : {0x73000020, 0x72FFFFFF, -1, INT32_MIN}) {
        const std::string refusal = formatted(" , INVALID_CAPTURE_ID ERROR 0x%x", bad);
        for (const auto& [name, op] : ops) {
            expectRefusal(name + refusal,
                          [&, op = op] { EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, op(bad)); });
        }
        expectRefusal("setCallback" + refusal,
                      [&] { EXPECT_TRUE(service->setCallback(bad, cb).isOk()); });
        EXPECT_EQ(CaptureReturn::SUCCESS, service->startAllSourceRotation(bad, {}, cb));
        EXPECT_EQ(CaptureReturn::SUCCESS, service->stopAllSourceRotation(bad));
    }
    EXPECT_TRUE(fake_subhal::state().journal.empty());
    EXPECT_EQ(3, mPqStreamInfo[slot].pqId);
    for (int s = 0; s < kMaxCaptureSlots; ++s)
        EXPECT_TRUE(!Capture::hasCallback(s) && Capture::mCallbackSequeceId[s] == 0) << s;
    for (const auto& [name, op] : ops) EXPECT_EQ(CaptureReturn::SUCCESS, op(0x7300001F)) << name;
}

// A PQ service that refuses the registration only has it logged.
TEST_F(ContinuousCaptureTest, StartRegistersWithTheSubHalAndThePqService) {
    pq->replies["register"] = FakePq::Reply::DeadObject;
    bindPq(3, CapturePoint::PQ_STREAM_PROCESSED);
    EXPECT_EQ(CaptureReturn::SUCCESS, service->startCapture(id, cb));
    // Point index 2, event 4; the capture starts last.
    EXPECT_EQ((Strings{"RegisterCallback", "pq.get 3/2", "pq.register 3/4", "CaptureStart"}),
              fake_subhal::state().journal);
    EXPECT_EQ(registrationRecord(&Capture::Callback_CaptureDone),
              fake_subhal::state().calls[0].rec1);
    EXPECT_EQ(Capture::mCallbackSequeceId[slot], fake_subhal::state().registrations[id].second);
    EXPECT_EQ(cb, installed());
    EXPECT_EQ(1u, log.countExact("registerPqOnewayCallback: "
                                 "EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE Failed: 3"));
    EXPECT_EQ(3, mPqStreamInfo[slot].pqId);
}

// A failed start is rolled back only on a PQ stream, the PQ registration first; without one, the
// client's stopCapture or close cleans up. Stream ids above 15 have figures but no PQ callbacks.
TEST_F(ContinuousCaptureTest, FailedStartRollsBackOnlyOnAPqStream) {
    const Strings pqUp = {"pq.get 3/2", "pq.register 3/4"};
    const auto plus = [](Strings a, const Strings& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    // Cases without a callback first: a callback kept by an earlier case would be rolled back.
    const std::tuple<int32_t, E, bool, Strings> cases[] = {
        {-1, E::CaptureStart, false, {"CaptureStart"}},
        {0,
         E::CaptureStart,
         false,
         {"pq.get 0/2", "pq.register 0/4", "CaptureStart", "pq.unregister 0/4"}},
        {3, E::RegisterCallback, true,
         plus(plus({"RegisterCallback"}, pqUp), {"pq.unregister 3/4", "UnRegisterCallback"})},
        {3, E::CaptureStart, true,
         plus(plus({"RegisterCallback"}, pqUp),
              {"CaptureStart", "pq.unregister 3/4", "UnRegisterCallback"})},
        {16,
         E::CaptureStart,
         true,
         {"RegisterCallback", "pq.get 16/2", "CaptureStart", "UnRegisterCallback"}},
        {-1, E::RegisterCallback, true, {"RegisterCallback"}},
        {-1, E::CaptureStart, true, {"RegisterCallback", "CaptureStart"}},
    };
    for (const auto& [pqId, failing, withCallback, journal] : cases) {
        SCOPED_TRACE(testing::Message() << pqId << " " << fake_subhal::entryName(failing));
        fake_subhal::reset();
        bindPq(pqId);
        fake_subhal::setResultOnce(failing, 16);
        const sp<RecordingCallback> client = withCallback ? cb : nullptr;
        EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->startCapture(id, client));
        EXPECT_EQ(journal, fake_subhal::state().journal);
        for (const auto& name : functionsLogging(log, "RegisterCallback"))
            EXPECT_EQ("startCapture", name);
        EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
        EXPECT_EQ(pqId < 0 ? client : nullptr, installed());
    }
}

// The registrations are undone, the client's first, before the stop, which is always attempted;
// an unregistration error wins over a stop error.
TEST_F(ContinuousCaptureTest, StopUndoesTheRegistrationsThenStops) {
    const std::tuple<bool, int32_t, uint32_t, uint32_t, CaptureReturn> cases[] = {
        {true, 15, 0, 0, CaptureReturn::SUCCESS},             // the highest PQ stream
        {true, 0, 16, 7, CaptureReturn::FORMAT_NOT_SUPPORT},  // and the lowest
        {true, -1, 0, 7, CaptureReturn::INVALID_CAPTURE_ID},
        {false, -1, 0, 16, CaptureReturn::FORMAT_NOT_SUPPORT},
    };
    // The PQ service died after the start: its refusal is only logged.
    pq->replies["unregister"] = FakePq::Reply::DeadObject;
    for (const auto& [started, pqId, unregister, stop, expected] : cases) {
        SCOPED_TRACE(testing::Message() << unregister << "/" << stop);
        bindPq(pqId);
        ASSERT_TRUE(!started || service->startCapture(id, cb) == CaptureReturn::SUCCESS);
        fake_subhal::reset();
        log.clear();
        fake_subhal::setResultOnce(E::UnRegisterCallback, unregister);
        fake_subhal::setResultOnce(E::CaptureStop, stop);
        EXPECT_EQ(expected, service->stopCapture(id));
        Strings journal = {"CaptureStop"};
        if (pqId >= 0)
            journal.insert(journal.begin(), "pq.unregister " + std::to_string(pqId) + "/4");
        if (started) journal.insert(journal.begin(), "UnRegisterCallback");
        EXPECT_EQ(journal, fake_subhal::state().journal);
        EXPECT_EQ(pqId >= 0 ? 1u : 0u, log.count("unRegisterPqOnewayCallback Failed"));
        EXPECT_EQ(nullptr, installed());
        EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
    }
}

// Runs for the single-shot entry (true) and the continuous one, each registered by its operation.
class CompletionEntryTest : public SlotTest, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SlotTest::SetUp());
        ASSERT_EQ(CaptureReturn::SUCCESS, GetParam() ? service->captureOnceWithCallback(id, cb)
                                                     : service->startCapture(id, cb));
    }
};

// Offsets only of the eight buffers the record holds; only the continuous entry reads the reply.
// The client runs under mCallbackMutex, so that no installation or removal overtakes it.
TEST_P(CompletionEntryTest, FramesReachTheClientFromTheSubHalThread) {
    const std::tuple<uint32_t, uint32_t, CaptureReturn, uint32_t> frames[] = {
        {3, 16, CaptureReturn::FORMAT_NOT_SUPPORT, 0x40000},
        {7, 7, CaptureReturn::INVALID_CAPTURE_ID, 0x80000},
        {0, 0, CaptureReturn::SUCCESS, 0x10000},
        {8, 2, CaptureReturn::FAIL, 0},
        {0xFFFFFFFF, 0, CaptureReturn::SUCCESS, 0}};
    cb->failTransport = true;
    cb->probeLock = true;
    for (const auto& [index, errorNo, result, yOffset] : frames) {
        EXPECT_EQ(0, fake_subhal::fireCallback(id, doneInfo(index, errorNo)));
        const auto events = cb->events();
        ASSERT_FALSE(events.empty());
        const uint32_t cOffset = yOffset == 0 ? 0 : yOffset + 0x1000;
        const std::array<uint32_t, 9> expected = {
            static_cast<uint32_t>(id),    index, 0, 0, yOffset, cOffset, 0x1000, 0x800,
            static_cast<uint32_t>(result)};
        EXPECT_EQ(expected, events.back().params);
        EXPECT_EQ(CaptureEventNotify::FRAME_DONE, events.back().notify);
        EXPECT_TRUE(events.back().callbackMutexHeld);
        EXPECT_NE(std::this_thread::get_id(), events.back().thread);
    }
    EXPECT_EQ(5u, cb->events().size());
    EXPECT_EQ(GetParam() ? 0u : 5u,
              log.countExact("Warning: callback onNotify result is not OK !!"));
}

// setCallback swaps the target, keeping the sub-HAL's registration, whose frames are then stale.
TEST_P(CompletionEntryTest, UndeliverableFramesAreDropped) {
    const uint32_t registered = Capture::mCallbackSequeceId[slot];
    sp<RecordingCallback> other = new RecordingCallback();
    service->setCallback(id, new RecordingCallback());
    service->setCallback(id, other);
    EXPECT_TRUE(service->setCallback(id, nullptr).isOk());  // keeps the installed one
    EXPECT_EQ(other, installed());
    EXPECT_EQ(1u, fake_subhal::count(E::RegisterCallback));
    VX_CAPTURE_CaptureDoneInfo_s info = doneInfo(0);
    EXPECT_EQ(0, fake_subhal::fireCallback(id, info));
    char mismatch[200];
    snprintf(mismatch, sizeof(mismatch),
             "callback sequenceId not match, skip onNotify(). captureId: 0x%x, "
             "u32CurrentCallbackSeqId(%u), u32LatestCallbackSeqId(%u)",
             id, registered, registered + 2);
    EXPECT_EQ(1u, log.countExact(mismatch)) << log.dump();
    const auto entry =
        GetParam() ? Capture::Callback_CaptureOnceDone : Capture::Callback_CaptureDone;
    uint32_t sequence = registered + 2;
    for (int32_t bad : {0x73000020, 0x72FFFFFF, -1}) EXPECT_EQ(7, entry(bad, 0, &info, &sequence));
    EXPECT_EQ(3u, log.count("Done , INVALID_CAPTURE_ID ERROR 0x")) << log.dump();
    EXPECT_EQ(7, entry(id, 0, nullptr, &sequence));
    EXPECT_EQ(0, entry(id, 0, &info, nullptr));
    {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        Capture::setCallbackLocked(slot, nullptr);
    }
    EXPECT_EQ(0, entry(id, 0, &info, &sequence));
    EXPECT_EQ(1u, log.countExact("Callback is NULL.")) << log.dump();
    EXPECT_TRUE(cb->events().empty() && other->events().empty());
}

INSTANTIATE_TEST_SUITE_P(Entries, CompletionEntryTest, testing::Bool(),
                         [](const auto& info) { return info.param ? "Once" : "Continuous"; });

}  // namespace
}  // namespace capture_test
