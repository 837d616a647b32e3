// The service's main, run on a thread of this process: the host registry is in-process, so this
// is how a client reaches what the service registered.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>

#include "capture_emulator/Emulator.h"

#include <chrono>
#include <future>
#include <thread>

int captureServiceMain(int argc, char** argv);

namespace {

using ::vendor::quenlark::hardware::capture::V1_0::CaptureReturn;
using ::vendor::quenlark::hardware::capture::V1_0::ICapture;

TEST(CaptureServiceTest, RegistersDefaultServesAndStopsOnSigterm) {
    // What the host launcher does before it runs the service's main.
    setenv("CAPTURE_SUBHAL_PATH", CAPTURE_EMULATOR_LIBRARY, 1);
    setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 1);
    ASSERT_EQ(::android::OK, capture_emulator::registerPqService());
    std::packaged_task<int()> run([] {
        char name[] = "vendor.quenlark.hardware.capture@1.0-service";
        char* argv[] = {name, nullptr};
        return captureServiceMain(1, argv);
    });
    std::future<int> status = run.get_future();
    std::thread service(std::move(run));

    ::android::sp<ICapture> capture;
    for (int i = 0; i < 1000 && capture == nullptr; ++i) {
        capture = ICapture::getService("default");
        if (capture == nullptr) usleep(10 * 1000);
    }
    if (capture == nullptr) {
        service.detach();  // main gave up, or never got as far as its stop handler
        FAIL() << "ICapture/default never registered";
    }
    int32_t id = -1;
    capture->open([&](CaptureReturn ret, int32_t captureId) {
        EXPECT_EQ(CaptureReturn::SUCCESS, ret);
        id = captureId;
    });
    EXPECT_EQ(CaptureReturn::SUCCESS, capture->close(id));

    // Sent to the process, as init does; the service's handler was installed before it
    // registered, so the signal cannot kill the test.
    kill(getpid(), SIGTERM);
    if (status.wait_for(std::chrono::seconds(20)) != std::future_status::ready) _exit(3);
    service.join();
    EXPECT_EQ(0, status.get());
}

}  // namespace
