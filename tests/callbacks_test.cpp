// Client callbacks: setCallback, the source-rotation operations and the library's own
// CaptureCallback.
#include <android/log.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>

#include "CaptureCallback.h"
#include "CaptureLog.h"
#include "RecordingCallback.h"
#include "TestUtil.h"

namespace capture_test {
namespace {

using fake_subhal::Entry;

class CallbacksTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        id = openInstance();
        ASSERT_TRUE(isValidCaptureId(id));
        slot = slotOf(id);
        fake_subhal::reset();
        log.clear();
    }

    sp<ICaptureCallback> installed() {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        return Capture::mCallback[slot];
    }

    int32_t id = -1;
    int slot = 0;
};

TEST_F(CallbacksTest, SetCallbackWithInvalidIdentifierChangesNothing) {
    sp<RecordingCallback> cb = new RecordingCallback();
    const int32_t badIds[] = {0x72FFFFFF, 0x73000020, -1};
    for (int32_t bad : badIds) {
        SCOPED_TRACE(bad);
        log.clear();
        Return<void> ret = service->setCallback(bad, cb);
        EXPECT_TRUE(ret.isOk());
        char text[96];
        snprintf(text, sizeof(text), "setCallback , INVALID_CAPTURE_ID ERROR 0x%x", bad);
        EXPECT_EQ(1u, log.countExact(text)) << log.dump();
    }
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    for (int s = 0; s < kMaxCaptureSlots; ++s) {
        EXPECT_EQ(nullptr, Capture::mCallback[s]);
        EXPECT_FALSE(Capture::hasCallback(s));
        EXPECT_EQ(0u, Capture::mCallbackSequeceId[s]);
    }
}

// setCallback only swaps the client target: no sub-HAL registration, no record change.
TEST_F(CallbacksTest, EachInstallationMovesTheSequenceOn) {
    sp<RecordingCallback> first = new RecordingCallback();
    sp<RecordingCallback> second = new RecordingCallback();
    const uint32_t before = Capture::mCallbackSequeceId[slot];

    EXPECT_TRUE(service->setCallback(id, first).isOk());
    EXPECT_EQ(first, installed());
    EXPECT_TRUE(service->setCallback(id, second).isOk());

    EXPECT_EQ(second, installed());
    EXPECT_TRUE(Capture::hasCallback(slot));
    EXPECT_EQ(before + 2, Capture::mCallbackSequeceId[slot]);
    EXPECT_EQ(2u, log.countExact("Call setCallback(), success")) << log.dump();
    EXPECT_EQ(0u, fake_subhal::calls().size());
    EXPECT_EQ(nullptr, Capture::stCallbackInputParams[slot].pfnCallback);
    EXPECT_EQ(nullptr, Capture::stCallbackInputParams[slot].pu32SequenceId);
    // Other slots are not affected.
    EXPECT_EQ(0u, Capture::mCallbackSequeceId[(slot + 1) % kMaxCaptureSlots]);
}

TEST_F(CallbacksTest, SequenceCounterWraps) {
    {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        Capture::mCallbackSequeceId[slot] = 0xFFFFFFFFu;
    }
    service->setCallback(id, new RecordingCallback());
    EXPECT_EQ(0u, Capture::mCallbackSequeceId[slot]);
}

TEST_F(CallbacksTest, NullCallbackKeepsTheInstalledOne) {
    sp<RecordingCallback> cb = new RecordingCallback();
    service->setCallback(id, cb);
    const uint32_t seq = Capture::mCallbackSequeceId[slot];
    log.clear();

    EXPECT_TRUE(service->setCallback(id, nullptr).isOk());

    EXPECT_EQ(cb, installed());
    EXPECT_EQ(seq, Capture::mCallbackSequeceId[slot]);
    EXPECT_EQ(0u, log.countExact("Call setCallback(), success"));
}

TEST_F(CallbacksTest, SourceRotationIsAcceptedAndIgnored) {
    sp<RecordingCallback> cb = new RecordingCallback();
    SourceRotationInfo info{1, 90, 0xFF, 0};
    const int32_t ids[] = {id, 0x73000020, -1};
    for (int32_t any : ids) {
        SCOPED_TRACE(any);
        log.clear();
        EXPECT_EQ(CaptureReturn::SUCCESS, service->startAllSourceRotation(any, info, cb));
        EXPECT_EQ(CaptureReturn::SUCCESS, service->stopAllSourceRotation(any));
        char text[64];
        snprintf(text, sizeof(text), "Call startAllSourceRotate(), captureId: 0x%x", any);
        ASSERT_EQ(2u, log.countExact(text)) << log.dump();
        // The stop operation logs the start text under its own name.
        EXPECT_EQ(0u, log.lines()[0].message.rfind("[startAllSourceRotation]", 0));
        EXPECT_EQ(0u, log.lines()[1].message.rfind("[stopAllSourceRotation]", 0));
    }
    EXPECT_EQ(nullptr, installed());
    EXPECT_EQ(0u, Capture::mCallbackSequeceId[slot]);
    EXPECT_EQ(0u, fake_subhal::calls().size());
}

// Four untagged debug lines, written whatever the service's log level.
TEST_F(CallbacksTest, LibraryCallbackTracesTheEvent) {
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED);
    sp<CaptureCallback> cb = new CaptureCallback();
    CaptureCallbackParams params{};
    params.index = 6;
    params.width = 1280;
    params.height = 720;
    EXPECT_TRUE(cb->onNotify(CaptureEventNotify::FRAME_DONE, params).isOk());

    const std::vector<LogLine> lines = log.lines();
    const char* expected[] = {"Call onNotify(), notify = 1\n", "Call onNotify(), index = 6\n",
                              "Call onNotify(), width = 1280\n", "Call onNotify(), height = 720\n"};
    ASSERT_EQ(4u, lines.size()) << log.dump();
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(expected[i], lines[i].message);
        EXPECT_EQ(ANDROID_LOG_DEBUG, lines[i].priority);
        EXPECT_NE("CAPTURE_HIDL", lines[i].tag);
    }
}

}  // namespace
}  // namespace capture_test
