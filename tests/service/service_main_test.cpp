// The service's main, run on a thread of this process: the host registry is in-process, so this
// is how a client reaches what the service registered.
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>
#include <vendor/quenlark/hardware/pq/1.0/IPq.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "ServiceThread.h"
#include "capture_emulator/Emulator.h"

namespace {

using ::android::sp;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using namespace ::vendor::quenlark::hardware::capture::V1_0;

// The service's main on a thread, brought up as the host launcher does; stopped with SIGTERM,
// as init stops it.
class CaptureServiceTest : public testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(mService.start(&error)) << error;
        capture = ICapture::getService("default");
    }

    void TearDown() override {
        capture.clear();
        EXPECT_EQ(0, mService.stop());
        ::android::hardware::details::unregisterServiceInternal(ICapture::descriptor, "default");
        ::android::hardware::details::unregisterServiceInternal(
            ::vendor::quenlark::hardware::pq::V1_0::IPq::descriptor, "default");
        capture_emulator::resetForTest();
    }

    sp<ICapture> capture;

private:
    capture_host::ServiceThread mService;
};

TEST_F(CaptureServiceTest, RegistersDefaultServesAndStopsOnSigterm) {
    int32_t id = -1;
    capture->open([&](CaptureReturn ret, int32_t captureId) {
        EXPECT_EQ(CaptureReturn::SUCCESS, ret);
        id = captureId;
    });
    EXPECT_EQ(CaptureReturn::SUCCESS, capture->close(id));
}

// A memfd for the frames of one instance, with its handle.
struct Frames {
    explicit Frames(size_t size) : handle(native_handle_create(1, 0)) {
        handle->data[0] = memfd_create("service-test", MFD_CLOEXEC);
        EXPECT_EQ(0, ftruncate(handle->data[0], static_cast<off_t>(size)));
    }
    ~Frames() {
        native_handle_close(handle);
        native_handle_delete(handle);
    }
    native_handle_t* handle;
};

// Counts frames; with a service, hands each streamed buffer back (under the service's callback
// lock, so nothing more).
struct Client : public ICaptureCallback {
    explicit Client(sp<ICapture> s = nullptr) : service(std::move(s)) {}
    Return<void> onNotify(CaptureEventNotify, const CaptureCallbackParams& p) override {
        ++frames;
        if (service != nullptr) {
            failures += service->frameProcessDone(p.captureId, p.index) != CaptureReturn::SUCCESS;
        }
        return Void();
    }
    // Until `count` frames arrived, at most a second.
    void waitFor(int count) const {
        for (int i = 0; i < 1000 && frames.load() < count; ++i) usleep(1000);
    }
    sp<ICapture> service;
    std::atomic<int> frames{0};
    std::atomic<int> failures{0};
};

// As many clients as the service has binder threads, each on an instance of its own, call every
// method at once, round after round: what binder threads do to the service on a device.
TEST_F(CaptureServiceTest, StressEveryMethodFromEveryBinderThreadAtOnce) {
    const size_t threads = ::android::hardware::details::configuredRpcThreads();
    ASSERT_GE(threads, 2u) << "one binder thread serves one client at a time";
    std::atomic<int> refusals{0};
    const auto expectOk = [&](CaptureReturn ret, const char* call) {
        if (ret != CaptureReturn::SUCCESS) {
            ++refusals;
            ADD_FAILURE() << call << " refused: " << toString(ret);
        }
    };
    std::vector<std::thread> clients;
    for (size_t t = 0; t < threads; ++t) {
        clients.emplace_back([&] {
            Frames frames(320 * 180 * 6);  // four NV12 frames
            sp<Client> once = new Client();
            sp<Client> stream = new Client(capture);
            for (int round = 0; round < 20; ++round) {
                int32_t id = -1;
                capture->open([&](CaptureReturn ret, int32_t captureId) {
                    expectOk(ret, "open");
                    id = captureId;
                });
                CaptureInfo info = {};
                info.pqId = info.pqWinId = -1;
                info.srcWidth = 1920;
                info.srcHeight = 1080;
                info.hwEngine = 1;
                info.srcFps = info.dstFps = 120;
                info.dstWidth = 320;
                info.dstHeight = 180;
                info.dstFmt = CaptureFormat::NV12;
                info.dstBuffer = hidl_handle(frames.handle);
                expectOk(capture->setCaptureInfo(id, info), "setCaptureInfo");
                setQueryInfo query = {
                    1920, 1080, CaptureFormat::NV12, 320, 180, CaptureFormat::NV12, 0, 0, 0, 1920,
                    1080, 0};
                capture->getCaptureCapabilityInfo(id, query,
                                                  [&](CaptureReturn ret, const getQueryInfo&) {
                                                      expectOk(ret, "getCaptureCapabilityInfo");
                                                  });
                CaptureSrcFrameInfo src = {};
                src.width = 1920;
                src.height = 1080;
                src.format = CaptureFormat::NV12;
                src.buffer = hidl_handle(frames.handle);
                src.param40 = 1;  // the live source
                src.vPlaneOffset = hidl_vec<uint32_t>{0u};
                CaptureDstFrameInfo dst = {};
                dst.cropWidth = 1920;
                dst.cropHeight = 1080;
                dst.width = 320;
                dst.height = 180;
                dst.rotateAngle = round % 2 == 0 ? 0 : 180;
                dst.format = CaptureFormat::NV12;
                dst.buffer = hidl_handle(frames.handle);
                capture->setCaptureFrameInfo(id, src, dst,
                                             [&](CaptureReturn ret, const hidl_vec<uint32_t>&) {
                                                 expectOk(ret, "setCaptureFrameInfo");
                                             });
                expectOk(capture->setCaptureInfo(id, info), "setCaptureInfo");
                expectOk(capture->captureOnce(id), "captureOnce");
                expectOk(capture->setCaptureInfo(id, info), "setCaptureInfo");
                const int shots = once->frames.load();
                expectOk(capture->captureOnceWithCallback(id, once), "captureOnceWithCallback");
                once->waitFor(shots + 1);
                // The hardware takes one job at a time and may still be finishing the shot.
                CaptureReturn started = capture->startCapture(id, stream);
                for (int i = 0; i < 100 && started == CaptureReturn::BUSY; ++i) {
                    usleep(10 * 1000);
                    started = capture->startCapture(id, stream);
                }
                expectOk(started, "startCapture");
                expectOk(capture->notifyContinueCapture(id), "notifyContinueCapture");
                stream->waitFor(stream->frames.load() + 1);
                EXPECT_TRUE(capture->setCallback(id, stream).isOk());
                expectOk(capture->startAllSourceRotation(id, {}, stream), "startAllSourceRotation");
                expectOk(capture->stopAllSourceRotation(id), "stopAllSourceRotation");
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                expectOk(capture->stopCapture(id), "stopCapture");
                Frames out(0);
                EXPECT_TRUE(capture->debug(hidl_handle(out.handle), hidl_vec<hidl_string>{}).isOk());
                expectOk(capture->close(id), "close");
            }
            EXPECT_EQ(20, once->frames.load());
            EXPECT_GT(stream->frames.load(), 0);
            EXPECT_EQ(0, stream->failures.load());
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(0, refusals.load());
}

}  // namespace
