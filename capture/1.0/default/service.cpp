// The capture service process: the one Capture, registered with hwservicemanager as
// ICapture/default.
//
// Binderized rather than passthrough: the service owns process-wide state (the 32 slot tables,
// the one dlopen of the sub-HAL, the GPU path's EGL context, the bandwidth tables) that must
// exist once per device and be shared by every client, and the capture device nodes are opened
// under this process's user and SELinux domain, not the clients'. A passthrough HAL would put a
// copy of all of it into each client process. HIDL_FETCH_ICapture stays exported from the
// library for in-process users, and hands them this same object.
#define LOG_TAG "vendor.quenlark.hardware.capture@1.0-service"

#include <hidl/HidlTransportSupport.h>
#include <log/log.h>
#include <utils/StrongPointer.h>

#include "Capture.h"

using ::android::OK;
using ::android::sp;
using ::android::status_t;
using ::android::hardware::configureRpcThreadpool;
using ::android::hardware::joinRpcThreadpool;
using ::vendor::quenlark::hardware::capture::V1_0::CaptureReturn;
using ::vendor::quenlark::hardware::capture::V1_0::ICapture;
using ::vendor::quenlark::hardware::capture::V1_0::implementation::HIDL_FETCH_ICapture;

namespace {

// Binder threads, main's included. Several clients use the service at once (the picture-quality
// and AI engines stream, a screenshot or recording takes frames, a test tool probes), and a GPU
// conversion holds its thread for tens of milliseconds while conversions take turns on the GPU;
// with four threads three more clients are served while one converts. Every table the methods
// touch is safe for concurrent calls on different instances.
constexpr size_t kBinderThreads = 4;

}  // namespace

int main(int /*argc*/, char** /*argv*/) {
    configureRpcThreadpool(kBinderThreads, true /* callerWillJoin */);

    sp<ICapture> capture = HIDL_FETCH_ICapture("default");
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
