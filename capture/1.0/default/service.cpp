// The capture service process: one Capture, registered with hwservicemanager as
// ICapture/default.
//
// Binderized rather than passthrough: the service owns process-wide state (the 32 slot tables,
// the one dlopen of the sub-HAL, the GPU path's EGL context, the bandwidth tables) that must
// exist once per device and be shared by every client, and the capture device nodes are opened
// under this process's user and SELinux domain, not the clients'. A passthrough HAL would put a
// copy of all of it into each client process. HIDL_FETCH_ICapture stays exported from the
// library for in-process users.
//
// Off the device the same main runs against the host port; unless CAPTURE_SUBHAL_PATH and
// CAPTURE_DEVICE_TREE_ROOT say otherwise it runs on the emulated hardware, with the emulated
// picture-quality service registered beside it. SIGTERM or SIGINT ends it with status 0.
#define LOG_TAG "vendor.quenlark.hardware.capture@1.0-service"

#include <hidl/HidlTransportSupport.h>
#include <log/log.h>
#include <stdlib.h>
#include <utils/StrongPointer.h>

#include "Capture.h"

#ifndef __ANDROID__
#include "capture_emulator/Emulator.h"
#endif

using ::android::OK;
using ::android::sp;
using ::android::status_t;
using ::android::hardware::configureRpcThreadpool;
using ::android::hardware::joinRpcThreadpool;
using ::vendor::quenlark::hardware::capture::V1_0::CaptureReturn;
using ::vendor::quenlark::hardware::capture::V1_0::ICapture;
using ::vendor::quenlark::hardware::capture::V1_0::implementation::Capture;

int main(int /*argc*/, char** /*argv*/) {
#ifndef __ANDROID__
    setenv("CAPTURE_SUBHAL_PATH", CAPTURE_EMULATOR_LIBRARY, 0);
    setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 0);
    if (status_t s = capture_emulator::registerPqService(); s != OK) {
        ALOGE("cannot register the emulated picture-quality service (%d)", s);
        return 1;
    }
#endif

    // Calls are short and the sub-HAL serialises the hardware; one binder thread, and main
    // joins it.
    configureRpcThreadpool(1, true /* callerWillJoin */);

    sp<ICapture> capture = new Capture();
    // Clients may call initLib again; a sub-HAL missing at boot is logged, and the service
    // still registers so that clients get refusals they can report rather than no service.
    const CaptureReturn ret = capture->initLib();
    if (ret != CaptureReturn::SUCCESS) {
        ALOGE("initLib failed (%d); registering anyway", static_cast<int32_t>(ret));
    }
    if (status_t s = capture->registerAsService(); s != OK) {
        ALOGE("cannot register ICapture/default (%d)", s);
        return 1;
    }
    ALOGI("ICapture/default registered");

    joinRpcThreadpool();
    // Only the host's pool returns, on SIGTERM or SIGINT: a requested stop.
    return 0;
}
