#include "ServiceThread.h"

#include <signal.h>
#include <unistd.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>

#include <chrono>

#include "EmulatedService.h"

int captureServiceMain(int argc, char** argv);

namespace capture_host {

using ::vendor::quenlark::hardware::capture::V1_0::ICapture;

bool ServiceThread::start(std::string* error) {
    if (!useEmulatedHardware(error)) return false;
    std::packaged_task<int()> run([] {
        char name[] = "vendor.quenlark.hardware.capture@1.0-service";
        char* argv[] = {name, nullptr};
        return captureServiceMain(1, argv);
    });
    mStatus = run.get_future();
    mMain = std::thread(std::move(run));
    for (int i = 0; i < 1000; ++i) {
        if (ICapture::getService("default") != nullptr) return true;
        if (mStatus.wait_for(std::chrono::milliseconds(5)) == std::future_status::ready) break;
    }
    *error = "the service never registered ICapture/default";
    return false;
}

int ServiceThread::stop() {
    if (!mMain.joinable()) return -1;
    // A main that gave up before joining the pool has ended already.
    if (mStatus.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        kill(getpid(), SIGTERM);
        if (mStatus.wait_for(std::chrono::seconds(20)) != std::future_status::ready) _exit(3);
    }
    mMain.join();
    return mStatus.get();
}

}  // namespace capture_host
