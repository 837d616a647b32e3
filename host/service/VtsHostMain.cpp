// The VTS module on a workstation: the service binary's own main runs on a thread of this
// process, on the emulated hardware, and the module finds it through the (in-process) registry
// as it finds the service on a device. Not part of the platform build.
#include <gtest/gtest.h>
#include <hidl/ServiceManagement.h>
#include <stdio.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>

#include <string>

#include "ServiceThread.h"
#include "hostgl/HostGl.h"

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
    capture_host::ServiceThread service;
    std::string error;
    if (!service.start(&error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    const int result = RUN_ALL_TESTS();
    const int status = service.stop();
    return result != 0 ? result : status;
}
