#define LOG_TAG "HidlServiceManagement"

#include <errno.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <log/log.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <utility>

namespace android {

namespace hidl {
namespace base {
namespace V1_0 {

const char* IBase::descriptor = "android.hidl.base@1.0::IBase";

::android::hardware::Return<void> IBase::debug(
    const ::android::hardware::hidl_handle& /*fd*/,
    const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& /*options*/) {
    return ::android::hardware::Void();
}

::android::hardware::Return<void> IBase::ping() {
    return ::android::hardware::Void();
}

::android::hardware::Return<void> IBase::interfaceDescriptor(interfaceDescriptor_cb _hidl_cb) {
    if (_hidl_cb) _hidl_cb(descriptor);
    return ::android::hardware::Void();
}

}  // namespace V1_0
}  // namespace base
}  // namespace hidl

namespace hardware {

namespace {

using ::android::hidl::base::V1_0::IBase;
using Key = std::pair<std::string, std::string>;

struct Registry {
    std::mutex lock;
    std::map<Key, sp<IBase>> services;
};

// Never destroyed: services may still be looked up (or release their last reference) from
// other threads and static destructors while the process exits.
Registry& registry() {
    static Registry* instance = new Registry();
    return *instance;
}

}  // namespace

namespace details {

status_t registerAsServiceInternal(const sp<IBase>& service, const std::string& descriptor,
                                   const std::string& instance) {
    if (service.get() == nullptr || descriptor.empty() || instance.empty()) {
        ALOGE("refused registration of \"%s\"/\"%s\"%s", descriptor.c_str(), instance.c_str(),
              service.get() == nullptr ? " (null service)" : "");
        return BAD_VALUE;
    }
    sp<IBase> previous;
    {
        std::lock_guard<std::mutex> guard(registry().lock);
        sp<IBase>& slot = registry().services[Key(descriptor, instance)];
        previous = std::move(slot);
        slot = service;
    }
    // previous is released here, outside the lock, in case its destructor looks up services.
    return OK;
}

sp<IBase> getRawServiceInternal(const std::string& descriptor, const std::string& instance,
                                bool /*retry*/, bool /*getStub*/) {
    std::lock_guard<std::mutex> guard(registry().lock);
    auto it = registry().services.find(Key(descriptor, instance));
    if (it == registry().services.end()) return nullptr;
    return it->second;
}

status_t unregisterServiceInternal(const std::string& descriptor, const std::string& instance) {
    sp<IBase> removed;
    {
        std::lock_guard<std::mutex> guard(registry().lock);
        auto it = registry().services.find(Key(descriptor, instance));
        if (it == registry().services.end()) return NAME_NOT_FOUND;
        removed = std::move(it->second);
        registry().services.erase(it);
    }
    return OK;
}

}  // namespace details

namespace {

// Posted by the stop signals; sem_post is async-signal-safe, and the signal may land on any
// thread that does not block it.
sem_t gStopRequested;

void onStopSignal(int /*signal*/) {
    sem_post(&gStopRequested);
}

void catchStopSignals() {
    static std::once_flag once;
    std::call_once(once, [] {
        sem_init(&gStopRequested, 0, 0);
        struct sigaction action = {};
        action.sa_handler = onStopSignal;
        sigemptyset(&action.sa_mask);
        sigaction(SIGTERM, &action, nullptr);
        sigaction(SIGINT, &action, nullptr);
    });
}

}  // namespace

status_t configureRpcThreadpool(size_t /*maxThreads*/, bool /*callerWillJoin*/) {
    catchStopSignals();
    return OK;
}

void joinRpcThreadpool() {
    catchStopSignals();
    while (sem_wait(&gStopRequested) != 0 && errno == EINTR) {
    }
    ALOGI("stop signal received, leaving the thread pool");
}

}  // namespace hardware
}  // namespace android
