// The service on the emulated hardware, in this process, as a client sees it.
#include <android/log.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <mutex>
#include <string>

#include "Capture.h"
#include "EmulatorTestUtil.h"
#include "capture_emulator/Emulator.h"

namespace emulator_test {
namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_vec;
using Impl = ::vendor::quenlark::hardware::capture::V1_0::implementation::Capture;

std::mutex gLogLock;
std::string gLog;

void collectLog(const struct __android_logger_data*, const char* message) {
    std::lock_guard<std::mutex> guard(gLogLock);
    gLog += message != nullptr ? message : "";
    gLog += '\n';
}

class ServiceOnEmulator : public ::testing::Test {
protected:
    void SetUp() override {
        {
            std::lock_guard<std::mutex> guard(gLogLock);
            gLog.clear();
        }
        __android_log_set_logger(collectLog);
        capture_emulator::resetForTest();
        setenv("CAPTURE_SUBHAL_PATH", CAPTURE_EMULATOR_LIBRARY, 1);
        setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 1);
        service = new Impl();
        ASSERT_EQ(service->initLib(), CaptureReturn::SUCCESS);
    }
    void TearDown() override {
        __android_log_set_logger(__android_log_stderr_logger);
        service = nullptr;
        capture_emulator::resetForTest();
    }

    std::pair<CaptureReturn, int32_t> open() {
        std::pair<CaptureReturn, int32_t> result{CaptureReturn::FAIL, -1};
        service->open([&](CaptureReturn r, int32_t id) { result = {r, id}; });
        return result;
    }

    sp<ICapture> service;
};

TEST_F(ServiceOnEmulator, ThirtyThirdOpenFailsCleanlyAndCloseFreesItsSlot) {
    for (int i = 0; i < 32; ++i) {
        auto [ret, id] = open();
        ASSERT_EQ(ret, CaptureReturn::SUCCESS);
        EXPECT_EQ(id, 0x73000000 + i);
    }
    // The hardware refuses (BUSY) without handing out an identifier, and the service reports an
    // open without a valid identifier as INVALID_CAPTURE_ID whatever the hardware said.
    EXPECT_EQ(open().first, CaptureReturn::INVALID_CAPTURE_ID);
    std::string log;
    {
        std::lock_guard<std::mutex> guard(gLogLock);
        log = gLog;
    }
    EXPECT_NE(log.find("mOpenCapture fail! ret=17."), std::string::npos) << log;
    ASSERT_EQ(service->close(0x73000011), CaptureReturn::SUCCESS);
    EXPECT_EQ(service->close(0x73000011), CaptureReturn::INVALID_CAPTURE_ID)
        << "the hardware no longer knows it";
    auto [ret, id] = open();
    EXPECT_EQ(ret, CaptureReturn::SUCCESS);
    EXPECT_EQ(id, 0x73000011);
}

TEST_F(ServiceOnEmulator, InjectedFailuresReachTheClientAsMappedCodes) {
    MemBuffer buffer(1 << 20);
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = buffer.fd();
    struct Case {
        capture_emulator::Entry entry;
        uint32_t status;
        CaptureReturn expected;
    };
    const Case cases[] = {
        {capture_emulator::Entry::SetCaptureInfo, 33, CaptureReturn::INVALID_CAPTURE_POINT},
        {capture_emulator::Entry::CaptureOnce, 67, CaptureReturn::HARDWARE_ERROR},
        {capture_emulator::Entry::CaptureStart, 17, CaptureReturn::BUSY},
        {capture_emulator::Entry::CaptureStop, 18, CaptureReturn::TIMEOUT},
        {capture_emulator::Entry::FrameProcessDone, 48, CaptureReturn::BUFFER_NOT_READY},
        {capture_emulator::Entry::NotifyContinueCapture, 69, CaptureReturn::DEVICE_ERROR},
        {capture_emulator::Entry::Close, 16, CaptureReturn::FORMAT_NOT_SUPPORT},
        {capture_emulator::Entry::Open, 5, CaptureReturn::INVALID_CAPTURE_ID},
        {capture_emulator::Entry::Init, 5, CaptureReturn::NO_MEMORY},
    };
    auto [ret, id] = open();
    ASSERT_EQ(ret, CaptureReturn::SUCCESS);
    CaptureInfo info = {};
    info.capPoint = CapturePoint::VIDEO_INPUT;
    info.pqId = -1;
    info.srcWidth = 1920;
    info.srcHeight = 1080;
    info.hwEngine = 1;
    info.srcFps = 60;
    info.dstWidth = 320;
    info.dstHeight = 180;
    info.dstFmt = CaptureFormat::NV12;
    info.dstBuffer = hidl_handle(handle);
    for (const Case& c : cases) {
        SCOPED_TRACE(capture_emulator::entryName(c.entry));
        ASSERT_EQ(service->setCaptureInfo(id, info), CaptureReturn::SUCCESS);
        capture_emulator::failNextCalls(c.entry, c.status);
        CaptureReturn got = CaptureReturn::SUCCESS;
        switch (c.entry) {
            case capture_emulator::Entry::SetCaptureInfo:
                got = service->setCaptureInfo(id, info);
                break;
            case capture_emulator::Entry::CaptureOnce:
                got = service->captureOnce(id);
                break;
            case capture_emulator::Entry::CaptureStart:
                got = service->startCapture(id, nullptr);
                break;
            case capture_emulator::Entry::CaptureStop:
                got = service->stopCapture(id);
                break;
            case capture_emulator::Entry::FrameProcessDone:
                got = service->frameProcessDone(id, 0);
                break;
            case capture_emulator::Entry::NotifyContinueCapture:
                got = service->notifyContinueCapture(id);
                break;
            case capture_emulator::Entry::Close:
                got = service->close(id);
                break;
            case capture_emulator::Entry::Open:
            case capture_emulator::Entry::Init:
                got = open().first;
                break;
            default:
                break;
        }
        EXPECT_EQ(got, c.expected);
    }
    EXPECT_EQ(service->close(id), CaptureReturn::SUCCESS) << "a failed close leaves it open";
    native_handle_delete(handle);
}

TEST_F(ServiceOnEmulator, CapabilityQueryDecidesFromTheEmulatedTree) {
    auto [ret, id] = open();
    ASSERT_EQ(ret, CaptureReturn::SUCCESS);
    struct Case {
        const char* what;
        CaptureFormat dst;
        uint32_t rotation;
        uint8_t captureType;
        CaptureReturn code;
        uint8_t useGpu;
    };
    const Case cases[] = {
        {"NV12 from memory on the DIP", CaptureFormat::NV12, 0, 1, CaptureReturn::SUCCESS, 0},
        {"YV12 only the GPU writes", CaptureFormat::YV12, 0, 1, CaptureReturn::SUCCESS, 1},
        {"live YV12 has no GPU fallback", CaptureFormat::YV12, 0, 0, CaptureReturn::DIP_NOT_SUPPORT,
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        setQueryInfo q = {};
        q.src_width = 1920;
        q.src_height = 1080;
        q.src_format = CaptureFormat::NV12;
        q.dst_width = 1280;
        q.dst_height = 720;
        q.dst_format = c.dst;
        q.rotationAngle = c.rotation;
        q.crop_width = 1920;
        q.crop_height = 1080;
        q.captureType = c.captureType;
        CaptureReturn code = CaptureReturn::FAIL;
        getQueryInfo answer = {};
        service->getCaptureCapabilityInfo(id, q, [&](CaptureReturn r, const getQueryInfo& a) {
            code = r;
            answer = a;
        });
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(answer.useGpu, c.useGpu);
        if (code == CaptureReturn::SUCCESS && !c.useGpu) {
            EXPECT_EQ(answer.engine, 2);
            EXPECT_EQ(answer.dstMaxWidth, 1920u);
            EXPECT_EQ(answer.bwSize, (1920ull * 1080 * 3 / 2 + 1280ull * 720 * 3 / 2) * 60);
        }
    }
    ASSERT_EQ(service->close(id), CaptureReturn::SUCCESS);
}

}  // namespace
}  // namespace emulator_test
