// The service binary of host builds: puts the emulated hardware behind the service's own main.
//
// Unless CAPTURE_SUBHAL_PATH and CAPTURE_DEVICE_TREE_ROOT say otherwise, the service loads the
// emulated sub-HAL and reads the emulated device tree, and the emulated picture-quality service
// is registered beside it. Then the device's main runs unchanged (built from service.cpp with
// its main renamed); SIGTERM or SIGINT ends it with status 0.
#define LOG_TAG "vendor.quenlark.hardware.capture@1.0-service"

#include <log/log.h>
#include <stdlib.h>
#include <utils/Errors.h>

#include "capture_emulator/Emulator.h"

int captureServiceMain(int argc, char** argv);

int main(int argc, char** argv) {
    setenv("CAPTURE_SUBHAL_PATH", CAPTURE_EMULATOR_LIBRARY, 0);
    setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 0);
    if (::android::status_t s = capture_emulator::registerPqService(); s != ::android::OK) {
        ALOGE("cannot register the emulated picture-quality service (%d)", s);
        return 1;
    }
    return captureServiceMain(argc, argv);
}
