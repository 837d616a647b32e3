// Single-shot capture: captureOnce (sub-HAL and GPU dispatch, the one-shot configuration, the
// PQ binding it consumes), captureOnceWithCallback and the single-shot completion entry.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "BandwidthInfo.h"
#include "FakePq.h"
#include "RecordingCallback.h"
#include "SubHal.h"
#include "TestUtil.h"

namespace capture_test {
namespace {

using fake_subhal::Entry;

VX_CAPTURE_CaptureDoneInfo_s makeDoneInfo(uint32_t index, uint32_t errorNo = 0) {
    VX_CAPTURE_CaptureDoneInfo_s info{};
    info.index = index;
    info.Y_Size = 0x1000;
    info.C_Size = 0x800;
    for (uint32_t k = 0; k < 8; ++k) {
        info.stBuf[k].Y_offSet = 0x10000 * (k + 1);
        info.stBuf[k].C_offSet = 0x10000 * (k + 1) + 0x1000;
    }
    info.ErrorNo = errorNo;
    return info;
}

std::string hex(int32_t value) {
    char text[16];
    snprintf(text, sizeof(text), "0x%x", static_cast<uint32_t>(value));
    return text;
}

class CaptureOnceTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        id = openInstance();
        ASSERT_TRUE(isValidCaptureId(id));
        slot = slotOf(id);
    }

    // What setCaptureFrameInfo keeps for a GPU instance: the records, with cloned handles.
    void keepFrameRows(const TestHandle& src, const TestHandle& dst, CaptureFormat srcFormat,
                       CaptureFormat dstFormat) {
        CaptureSrcFrameInfo s{};
        s.width = 64;
        s.height = 32;
        s.format = srcFormat;
        s.buffer = src.get();
        s.vPlaneOffset = std::vector<uint32_t>{0, 2048};
        CaptureDstFrameInfo d{};
        d.cropWidth = 64;
        d.cropHeight = 32;
        d.width = 32;
        d.height = 16;
        d.pitch = 128;
        d.rotateAngle = 90;
        d.format = dstFormat;
        d.buffer = dst.get();
        d.vPlaneOffset = std::vector<uint32_t>{0, 512};
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        mSrcFrameInfo[slot] = s;
        mDstFrameInfo[slot] = d;
    }

    void expectFrameRowsCleared(int row) {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        const CaptureSrcFrameInfo& s = mSrcFrameInfo[row];
        const CaptureDstFrameInfo& d = mDstFrameInfo[row];
        EXPECT_EQ(0u, s.width);
        EXPECT_EQ(0u, s.height);
        EXPECT_EQ(0u, static_cast<uint32_t>(s.format));
        EXPECT_EQ(nullptr, s.buffer.getNativeHandle());
        EXPECT_EQ(0u, s.vPlaneOffset.size());
        EXPECT_EQ(0u, d.cropWidth);
        EXPECT_EQ(0u, d.width);
        EXPECT_EQ(0u, d.pitch);
        EXPECT_EQ(0u, d.rotateAngle);
        EXPECT_EQ(0u, static_cast<uint32_t>(d.format));
        EXPECT_EQ(nullptr, d.buffer.getNativeHandle());
        EXPECT_EQ(0u, d.vPlaneOffset.size());
    }

    void bindPq(int32_t pqId, CapturePoint point) {
        mPqStreamInfo[slot].pqId = pqId;
        mPqStreamInfo[slot].capturePoint = static_cast<uint32_t>(point);
    }

    int32_t id = -1;
    int slot = 0;
};

TEST_F(CaptureOnceTest, InvalidIdentifierIsRefusedWithoutTouchingAnything) {
    TestHandle src, dst;
    keepFrameRows(src, dst, CaptureFormat::ARGB8888, CaptureFormat::YUYV);
    bindPq(3, CapturePoint::PQ_STREAM_SCALED);
    sp<RecordingCallback> cb = new RecordingCallback();
    const int32_t badIds[] = {0x73000020, 0x72FFFFFF, -1, 0, INT32_MIN};
    for (int32_t bad : badIds) {
        SCOPED_TRACE(testing::Message() << std::hex << bad);
        log.clear();
        EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, service->captureOnce(bad));
        EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, service->captureOnceWithCallback(bad, cb));
        const std::string refused = " , INVALID_CAPTURE_ID ERROR " + hex(bad);
        EXPECT_EQ(1u, log.countExact("captureOnce" + refused)) << log.dump();
        EXPECT_EQ(1u, log.countExact("captureOnceWithCallback" + refused)) << log.dump();
    }
    EXPECT_EQ(0u, fake_subhal::count(Entry::CaptureOnce));
    EXPECT_EQ(0u, fake_subhal::count(Entry::RegisterCallback));
    EXPECT_EQ(3, mPqStreamInfo[slot].pqId);
    std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
    EXPECT_EQ(64u, mSrcFrameInfo[slot].width);
    EXPECT_NE(nullptr, mDstFrameInfo[slot].buffer.getNativeHandle());
}

TEST_F(CaptureOnceTest, LastSlotIdentifierIsAccepted) {
    EXPECT_EQ(CaptureReturn::SUCCESS, service->captureOnce(0x7300001F));
    EXPECT_EQ(CaptureReturn::SUCCESS, service->captureOnceWithCallback(0x7300001F, nullptr));
    auto calls = fake_subhal::callsOf(Entry::CaptureOnce);
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(0x7300001F, calls[0].captureId);
    EXPECT_EQ(0x7300001F, calls[1].captureId);
}

// Whatever the hardware answers, the frame configuration is consumed and so is the PQ binding.
TEST_F(CaptureOnceTest, SubHalCaptureMapsTheStatusAndConsumesTheConfiguration) {
    struct Case {
        uint32_t status;
        CaptureReturn expected;
    };
    const Case cases[] = {{0, CaptureReturn::SUCCESS},
                          {16, CaptureReturn::FORMAT_NOT_SUPPORT},
                          {7, CaptureReturn::INVALID_CAPTURE_ID},
                          {70, CaptureReturn::FAIL}};
    sp<FakePq> pq = FakePq::install();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.status);
        TestHandle src, dst;
        keepFrameRows(src, dst, CaptureFormat::NV12, CaptureFormat::NV12);
        bindPq(5, CapturePoint::PQ_STREAM_OUT);
        fake_subhal::setResultOnce(Entry::CaptureOnce, c.status);
        log.clear();
        pq->reset();

        EXPECT_EQ(c.expected, service->captureOnce(id));

        const std::string trace = "Call VX_CAPTURE_CaptureOnce(), Ret: " + std::to_string(c.status);
        EXPECT_EQ(1u, log.countExact(trace)) << log.dump();
        EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
        EXPECT_EQ(static_cast<uint32_t>(CapturePoint::PQ_STREAM_OUT),
                  mPqStreamInfo[slot].capturePoint);
        // The PQ figures were asked for the bound capture point (index = point - 2).
        auto queries = pq->callsOf(FakePq::Method::GetCapturePointInfo);
        ASSERT_EQ(1u, queries.size());
        EXPECT_EQ(5, queries[0].pqId);
        EXPECT_EQ(3u, queries[0].arg);
        expectFrameRowsCleared(slot);
    }
    EXPECT_EQ(4u, fake_subhal::count(Entry::CaptureOnce));
}

TEST_F(CaptureOnceTest, UnboundSlotAsksNoPqFigures) {
    sp<FakePq> pq = FakePq::install();
    ASSERT_EQ(-1, mPqStreamInfo[slot].pqId);
    EXPECT_EQ(CaptureReturn::SUCCESS, service->captureOnce(id));
    EXPECT_EQ(0u, pq->calls().size());
    EXPECT_EQ(-1, mPqStreamInfo[slot].pqId);
}

// The PQ query refreshes the bandwidth tables before the capture runs.
TEST_F(CaptureOnceTest, BoundSlotRecordsTheBandwidthBeforeCapturing) {
    sp<FakePq> pq = FakePq::install();
    pq->setCapturePointInfo(EN_RETURN_VALUE::EN_RETURN_OK,
                            makeCapturePointInfo(7777, 2, 1, {{9, 11}, {4, 4321}}));
    bindPq(4, CapturePoint::PQ_MEMC);
    EXPECT_EQ(CaptureReturn::SUCCESS, service->captureOnce(id));
    EXPECT_EQ(4u, bw_info[4][4].u8PqID);
    EXPECT_EQ(4321u, bw_info[4][4].u32WinTime);
    EXPECT_EQ(7777u, bw_info[4][4].u32RemainBWBudget);
    EXPECT_EQ(1u, bw_info_hw_set[4][4].bIsPQHWSet);
}

TEST_F(CaptureOnceTest, ClearingTheRowsReleasesTheKeptHandles) {
    const int before = countOpenFds();
    {
        TestHandle src(2), dst(1);
        keepFrameRows(src, dst, CaptureFormat::NV12, CaptureFormat::NV12);
    }
    // The rows hold clones of the three descriptors.
    EXPECT_EQ(before + 3, countOpenFds());
    fake_subhal::setResultOnce(Entry::CaptureOnce, 3);
    EXPECT_EQ(CaptureReturn::FAIL, service->captureOnce(id));
    EXPECT_EQ(before, countOpenFds());
}

TEST_F(CaptureOnceTest, MissingEntryReportsInvalidArgumentAndStillClears) {
    TestHandle src, dst;
    keepFrameRows(src, dst, CaptureFormat::NV12, CaptureFormat::NV12);
    mCaptureOnce.store(nullptr);
    EXPECT_EQ(CaptureReturn::INVALID_ARGUMENT, service->captureOnce(id));
    EXPECT_EQ(1u, log.countExact("mCaptureOnce is nullptr!")) << log.dump();
    EXPECT_EQ(1u, log.countExact("Call VX_CAPTURE_CaptureOnce(), Ret: 8")) << log.dump();
    expectFrameRowsCleared(slot);
}

// A GPU instance never reaches the sub-HAL's capture nor the PQ service. A source format the GPU
// cannot take leaves the flag set, so the client may reconfigure and retry.
TEST_F(CaptureOnceTest, GpuInstanceWithUnsupportedFormatKeepsItsFlag) {
    sp<FakePq> pq = FakePq::install();
    TestHandle src, dst;
    keepFrameRows(src, dst, CaptureFormat::RGBA8888, CaptureFormat::ARGB8888);
    bindPq(2, CapturePoint::PQ_STREAM_IN);
    mUseGpu[slot] = 1;

    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->captureOnce(id));

    EXPECT_EQ(1u, mUseGpu[slot]);
    EXPECT_EQ(0u, fake_subhal::count(Entry::CaptureOnce));
    EXPECT_EQ(0u, pq->calls().size());
    EXPECT_EQ(2, mPqStreamInfo[slot].pqId);
    expectFrameRowsCleared(slot);
}

TEST_F(CaptureOnceTest, WithoutCallbackCapturesWithoutRegistering) {
    const struct {
        uint32_t status;
        CaptureReturn expected;
    } cases[] = {{0, CaptureReturn::SUCCESS}, {16, CaptureReturn::FORMAT_NOT_SUPPORT}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        log.clear();
        fake_subhal::setResultOnce(Entry::CaptureOnce, c.status);
        EXPECT_EQ(c.expected, service->captureOnceWithCallback(id, nullptr));
        EXPECT_EQ(1u, log.countExact("Call captureOnceWithCallback(), no callback ")) << log.dump();
        EXPECT_EQ(1u,
                  log.countExact("captureOnceWithCallback Call VX_CAPTURE_CaptureOnce(), Ret: " +
                                 std::to_string(c.status)));
    }
    EXPECT_EQ(0u, fake_subhal::count(Entry::RegisterCallback));
    EXPECT_EQ(2u, fake_subhal::count(Entry::CaptureOnce));
    EXPECT_EQ(nullptr, Capture::stCallbackInputParams[slot].pfnCallback);
    EXPECT_EQ(nullptr, Capture::stCallbackInputParams[slot].pu32SequenceId);
}

TEST_F(CaptureOnceTest, WithCallbackRegistersTheSingleShotEntry) {
    TestHandle src, dst;
    keepFrameRows(src, dst, CaptureFormat::NV12, CaptureFormat::NV12);
    bindPq(6, CapturePoint::PQ_PANEL);
    mUseGpu[slot] = 1;
    sp<FakePq> pq = FakePq::install();
    sp<RecordingCallback> cb = new RecordingCallback();
    const uint32_t seqBefore = Capture::mCallbackSequeceId[slot];

    EXPECT_EQ(CaptureReturn::SUCCESS, service->captureOnceWithCallback(id, cb));

    auto calls = fake_subhal::calls();
    ASSERT_GE(calls.size(), 2u);
    const fake_subhal::Call& reg = calls[calls.size() - 2];
    EXPECT_EQ(Entry::RegisterCallback, reg.entry);
    EXPECT_EQ(Entry::CaptureOnce, calls.back().entry);
    EXPECT_EQ(id, reg.captureId);
    ASSERT_EQ(sizeof(VX_CAPTURE_CallbackInputParams_s), reg.rec1.size());
    VX_CAPTURE_CallbackInputParams_s params;
    std::memcpy(&params, reg.rec1.data(), sizeof(params));
    EXPECT_EQ(0u, params.u32Reserved0);
    EXPECT_EQ(0u, params.u32Reserved1);
    EXPECT_EQ(&Capture::Callback_CaptureOnceDone, params.pfnCallback);
    EXPECT_EQ(1u, params.u32Flag);
    EXPECT_EQ(&Capture::mCallbackSequeceId[slot], params.pu32SequenceId);
    EXPECT_EQ(0u, params.u32Reserved2);
    EXPECT_EQ(std::vector<uint8_t>(8, 0), reg.rec2);
    EXPECT_EQ(seqBefore + 1, Capture::mCallbackSequeceId[slot]);
    EXPECT_EQ(seqBefore + 1, fake_subhal::registrationSequence(id));
    EXPECT_TRUE(Capture::hasCallback(slot));
    EXPECT_EQ(1u, log.countExact("captureOnceWithCallback Call setCallback(), success"));

    // Neither the GPU path, nor the PQ binding, nor the kept frame records are involved.
    EXPECT_EQ(0u, pq->calls().size());
    EXPECT_EQ(6, mPqStreamInfo[slot].pqId);
    EXPECT_EQ(1u, mUseGpu[slot]);
    std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
    EXPECT_EQ(64u, mSrcFrameInfo[slot].width);
}

TEST_F(CaptureOnceTest, FailedRegistrationDropsTheCallbackAndDoesNotCapture) {
    sp<RecordingCallback> cb = new RecordingCallback();
    fake_subhal::setResultOnce(Entry::RegisterCallback, 16);

    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, service->captureOnceWithCallback(id, cb));

    auto calls = fake_subhal::calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(Entry::RegisterCallback, calls[calls.size() - 2].entry);
    EXPECT_EQ(Entry::UnRegisterCallback, calls.back().entry);
    VX_CAPTURE_CallbackInputParams_s params;
    ASSERT_EQ(sizeof(params), calls.back().rec1.size());
    std::memcpy(&params, calls.back().rec1.data(), sizeof(params));
    EXPECT_EQ(&Capture::Callback_CaptureOnceDone, params.pfnCallback);
    EXPECT_EQ(0u, fake_subhal::count(Entry::CaptureOnce));
    EXPECT_FALSE(Capture::hasCallback(slot));
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    EXPECT_EQ(nullptr, Capture::mCallback[slot]);
}

class CaptureOnceDoneTest : public CaptureOnceTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(CaptureOnceTest::SetUp());
        cb = new RecordingCallback();
        ASSERT_EQ(CaptureReturn::SUCCESS, service->captureOnceWithCallback(id, cb));
        log.clear();
    }
    sp<RecordingCallback> cb;
};

TEST_F(CaptureOnceDoneTest, FrameReachesTheClientFromTheSubHalThread) {
    EXPECT_EQ(0, fake_subhal::fireCallback(id, makeDoneInfo(3, 16)));

    auto events = cb->events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(fake_subhal::workerThreadId(), events[0].thread);
    EXPECT_NE(std::this_thread::get_id(), events[0].thread);
    EXPECT_EQ(CaptureEventNotify::FRAME_DONE, events[0].notify);
    const CaptureCallbackParams& p = events[0].params;
    EXPECT_EQ(id, p.captureId);
    EXPECT_EQ(3u, p.index);
    EXPECT_EQ(0u, p.width);
    EXPECT_EQ(0u, p.height);
    EXPECT_EQ(0x40000u, p.yOffset);
    EXPECT_EQ(0x41000u, p.cOffset);
    EXPECT_EQ(0x1000u, p.ySize);
    EXPECT_EQ(0x800u, p.cSize);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, p.result);
    EXPECT_EQ(1u, log.countExact("Callback_CaptureOnceDone index(3) ErrorNo(3) Y_offSet(0x40000) "
                                 "C_offSet(0x41000) Y_Size(0x1000) C_Size(0x800) "))
        << log.dump();
    EXPECT_EQ(1u, log.countExact("Execute callback done."));
}

TEST_F(CaptureOnceDoneTest, ErrorNumbersAreMapped) {
    const struct {
        uint32_t errorNo;
        CaptureReturn expected;
    } cases[] = {{0, CaptureReturn::SUCCESS},
                 {7, CaptureReturn::INVALID_CAPTURE_ID},
                 {2, CaptureReturn::FAIL}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.errorNo);
        const size_t n = cb->count();
        EXPECT_EQ(0, fake_subhal::fireCallback(id, makeDoneInfo(0, c.errorNo)));
        ASSERT_EQ(n + 1, cb->count());
        EXPECT_EQ(c.expected, cb->events().back().params.result);
    }
}

// An index outside the eight buffers must not pick offsets from beyond the record.
TEST_F(CaptureOnceDoneTest, OutOfRangeIndexDeliversNoOffsets) {
    const uint32_t indices[] = {8, 9, 0xFFFFFFFF};
    for (uint32_t index : indices) {
        SCOPED_TRACE(index);
        log.clear();
        const size_t n = cb->count();
        EXPECT_EQ(0, fake_subhal::fireCallback(id, makeDoneInfo(index)));
        ASSERT_EQ(n + 1, cb->count());
        const CaptureCallbackParams p = cb->events().back().params;
        EXPECT_EQ(index, p.index);
        EXPECT_EQ(0u, p.yOffset);
        EXPECT_EQ(0u, p.cOffset);
        EXPECT_EQ(0x1000u, p.ySize);
        EXPECT_TRUE(log.contains("out of range")) << log.dump();
    }
}

TEST_F(CaptureOnceDoneTest, StaleSequenceIsDropped) {
    const uint32_t latest = Capture::mCallbackSequeceId[slot];
    EXPECT_EQ(0, fake_subhal::fireCallbackWithSequence(id, makeDoneInfo(1), latest - 1));
    EXPECT_EQ(0u, cb->count());
    char text[200];
    snprintf(text, sizeof(text),
             "callback sequenceId not match, skip onNotify(). captureId: 0x%x, "
             "u32CurrentCallbackSeqId(%u), u32LatestCallbackSeqId(%u)",
             id, latest - 1, latest);
    EXPECT_EQ(1u, log.countExact(text)) << log.dump();
    EXPECT_EQ(1u, log.countExact("Execute callback done."));
}

TEST_F(CaptureOnceDoneTest, NoCallbackInstalledIsHandledQuietly) {
    {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        Capture::setCallbackLocked(slot, nullptr);
    }
    EXPECT_EQ(0, fake_subhal::fireCallback(id, makeDoneInfo(2)));
    EXPECT_EQ(0u, cb->count());
    EXPECT_EQ(1u, log.countExact("Callback is NULL.")) << log.dump();
    EXPECT_EQ(0u, log.countExact("Executing callback..."));
}

TEST_F(CaptureOnceDoneTest, BadArgumentsAreRefused) {
    VX_CAPTURE_CaptureDoneInfo_s info = makeDoneInfo(0);
    const uint32_t seq = Capture::mCallbackSequeceId[slot];
    const int32_t badIds[] = {0x73000020, 0x72FFFFFF, -1};
    for (int32_t bad : badIds) {
        SCOPED_TRACE(bad);
        log.clear();
        EXPECT_EQ(7, fake_subhal::fireRaw(&Capture::Callback_CaptureOnceDone, bad, info, seq));
        char text[96];
        snprintf(text, sizeof(text), "Callback_CaptureOnceDone , INVALID_CAPTURE_ID ERROR 0x%x",
                 bad);
        EXPECT_EQ(1u, log.countExact(text)) << log.dump();
    }
    uint32_t seqCopy = seq;
    EXPECT_EQ(7, Capture::Callback_CaptureOnceDone(id, 0, nullptr, &seqCopy));
    EXPECT_EQ(0, Capture::Callback_CaptureOnceDone(id, 0, &info, nullptr));
    EXPECT_EQ(0u, cb->count());
}

}  // namespace
}  // namespace capture_test
