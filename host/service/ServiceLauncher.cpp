// The service binary of host builds: puts the emulated hardware behind the service's own main.
//
// Unless CAPTURE_SUBHAL_PATH and CAPTURE_DEVICE_TREE_ROOT say otherwise, the service loads the
// emulated sub-HAL and reads the emulated device tree, and the emulated picture-quality service
// is registered beside it. Then the device's main runs unchanged (built from service.cpp with
// its main renamed); SIGTERM or SIGINT ends it with status 0.
#define LOG_TAG "vendor.quenlark.hardware.capture@1.0-service"

#include <log/log.h>

#include <string>

#include "EmulatedService.h"

int captureServiceMain(int argc, char** argv);

int main(int argc, char** argv) {
    std::string error;
    if (!capture_host::useEmulatedHardware(&error)) {
        ALOGE("%s", error.c_str());
        return 1;
    }
    return captureServiceMain(argc, argv);
}
