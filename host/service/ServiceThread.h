// The service binary's main in a process of the host's own: for the tests and the VTS module.
#pragma once

#include <future>
#include <string>
#include <thread>

namespace capture_host {

// The service binary's own main on a thread of this process, on the emulated hardware: the
// in-process registry makes it a service clients find as on a device. The binary's main must be
// linked in under the name captureServiceMain (the target capture_service_main).
class ServiceThread {
public:
    // False, with the reason in *error, when the emulated hardware cannot be put behind it or it
    // does not register ICapture/default within a few seconds.
    bool start(std::string* error);
    // Stops it as init does, with SIGTERM (its handler is installed before it registers), and
    // returns main's exit status; -1 when it was not running.
    int stop();

private:
    std::future<int> mStatus;
    std::thread mMain;
};

}  // namespace capture_host
