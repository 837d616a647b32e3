// The VTS module on a workstation: the service binary's own main runs on a thread of this
// process, on the emulated hardware, and the module finds it through the (in-process) registry
// as it finds the service on a device. Not part of the platform build.
#include <gtest/gtest.h>
#include <hidl/ServiceManagement.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "EmulatedService.h"
#include "hostgl/HostGl.h"

int captureServiceMain(int argc, char** argv);

using ::vendor::quenlark::hardware::capture::V1_0::ICapture;

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
    // Without an instance the module would pass by running nothing.
    if (::android::hardware::getAllHalInstanceNames(ICapture::descriptor).empty()) {
        fprintf(stderr, "the VINTF manifest declares no %s instance\n", ICapture::descriptor);
        return 1;
    }
    // The GPU path terminates its EGL display after every conversion; keeping Mesa's driver
    // loaded lets LeakSanitizer attribute what the driver keeps.
    host_gl::keepDriverLoaded();
    std::string error;
    if (!capture_host::useEmulatedHardware(&error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    std::packaged_task<int()> run([] {
        char name[] = "vendor.quenlark.hardware.capture@1.0-service";
        char* args[] = {name, nullptr};
        return captureServiceMain(1, args);
    });
    std::future<int> status = run.get_future();
    std::thread service(std::move(run));
    bool registered = false;
    for (int i = 0; i < 2000 && !registered; ++i) {
        registered = ICapture::getService("default") != nullptr;
        if (!registered && status.wait_for(std::chrono::milliseconds(5)) ==
                               std::future_status::ready) {
            break;
        }
    }
    if (!registered) {
        fprintf(stderr, "the service never registered ICapture/default\n");
        service.detach();
        return 1;
    }
    const int result = RUN_ALL_TESTS();
    // As init stops the service; its handler was installed before it registered.
    kill(getpid(), SIGTERM);
    if (status.wait_for(std::chrono::seconds(20)) != std::future_status::ready) _exit(3);
    service.join();
    return result != 0 ? result : status.get();
}
