#include "EmulatedService.h"

#include <stdlib.h>
#include <utils/Errors.h>

#include "Capture.h"
#include "capture_emulator/Emulator.h"

namespace capture_host {

using ::android::sp;
using ::vendor::quenlark::hardware::capture::V1_0::CaptureReturn;
using ::vendor::quenlark::hardware::capture::V1_0::ICapture;
using ::vendor::quenlark::hardware::capture::V1_0::toString;
using ::vendor::quenlark::hardware::capture::V1_0::implementation::HIDL_FETCH_ICapture;

bool useEmulatedHardware(std::string* error) {
    setenv("CAPTURE_SUBHAL_PATH", CAPTURE_EMULATOR_LIBRARY, 0);
    setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 0);
    if (::android::status_t s = capture_emulator::registerPqService(); s != ::android::OK) {
        *error = "cannot register the emulated picture-quality service (" + std::to_string(s) + ")";
        return false;
    }
    return true;
}

sp<ICapture> getOrStartService(std::string* error) {
    sp<ICapture> service = ICapture::getService();
    if (service != nullptr) return service;
    if (!useEmulatedHardware(error)) return nullptr;
    sp<ICapture> own = HIDL_FETCH_ICapture("default");
    if (own == nullptr || own->registerAsService() != ::android::OK) {
        *error = "the capture service could not be created";
        return nullptr;
    }
    service = ICapture::getService();
    if (service == nullptr) {
        *error = "ICapture/default is not registered";
        return nullptr;
    }
    const CaptureReturn ret = service->initLib();
    if (ret != CaptureReturn::SUCCESS) {
        const char* library = getenv("CAPTURE_SUBHAL_PATH");
        *error = "initLib refused: " + toString(ret) + " (" +
                 std::to_string(static_cast<int32_t>(ret)) + "); sub-HAL " +
                 (library != nullptr ? library : "?");
        return nullptr;
    }
    return service;
}

}  // namespace capture_host
