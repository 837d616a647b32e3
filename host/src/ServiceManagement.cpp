#define LOG_TAG "HidlServiceManagement"

#include <errno.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <log/log.h>
#include <semaphore.h>
#include <stdlib.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>
#include <mutex>
#include <utility>

namespace android {

namespace hidl {
namespace base {
namespace V1_0 {

using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;

const char* IBase::descriptor = "android.hidl.base@1.0::IBase";

Return<void> IBase::interfaceChain(interfaceChain_cb _hidl_cb) {
    _hidl_cb({descriptor});
    return Void();
}

Return<void> IBase::debug(const hidl_handle& /*fd*/, const hidl_vec<hidl_string>& /*options*/) {
    return Void();
}

Return<void> IBase::interfaceDescriptor(interfaceDescriptor_cb _hidl_cb) {
    _hidl_cb(descriptor);
    return Void();
}

Return<void> IBase::getHashChain(getHashChain_cb _hidl_cb) {
    _hidl_cb({::android::hardware::details::ibaseHash()});
    return Void();
}

Return<void> IBase::setHALInstrumentation() {
    return Void();
}

Return<bool> IBase::linkToDeath(const sp<::android::hardware::hidl_death_recipient>& recipient,
                                uint64_t /*cookie*/) {
    // A local object never dies before its holder; the link is accepted and never fires.
    return recipient != nullptr;
}

Return<void> IBase::ping() {
    return Void();
}

Return<void> IBase::getDebugInfo(getDebugInfo_cb _hidl_cb) {
    _hidl_cb(::android::hardware::details::localDebugInfo(this));
    return Void();
}

Return<void> IBase::notifySyspropsChanged() {
    return Void();
}

Return<bool> IBase::unlinkToDeath(const sp<::android::hardware::hidl_death_recipient>& recipient) {
    return recipient != nullptr;
}

Return<sp<IBase>> IBase::castFrom(const sp<IBase>& parent, bool /*emitError*/) {
    return parent;
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

std::atomic<size_t> gRpcThreads{0};

// The platform's hash of android/hidl/base/1.0/IBase.hal.
constexpr uint8_t kIBaseHash[32] = {0xec, 0x7f, 0xd7, 0x9e, 0xd0, 0x2d, 0xfa, 0x85,
                                    0xbc, 0x49, 0x94, 0x26, 0xad, 0xae, 0x3e, 0xbe,
                                    0x23, 0xef, 0x05, 0x24, 0xf3, 0xcd, 0x69, 0x57,
                                    0x13, 0x93, 0x24, 0xb8, 0x3b, 0x18, 0xca, 0x4c};

// Instances of hidl HALs declared by one VINTF manifest, as "package@version::IName/instance".
// The trimmed texts of every <tag>...</tag> in `block`, in order.
std::vector<std::string> tagTexts(const std::string& block, const std::string& tag) {
    std::vector<std::string> texts;
    const std::regex element("<" + tag + ">\\s*([^<]*?)\\s*</" + tag + ">");
    for (auto it = std::sregex_iterator(block.begin(), block.end(), element);
         it != std::sregex_iterator(); ++it) {
        texts.push_back((*it)[1]);
    }
    return texts;
}

void readManifest(const std::string& path, std::vector<std::string>* entries) {
    std::ifstream in(path);
    if (!in) {
        ALOGW("VINTF manifest %s cannot be read", path.c_str());
        return;
    }
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::regex hal("<hal([^>]*)>([\\s\\S]*?)</hal>");
    const std::regex interface("<interface>([\\s\\S]*?)</interface>");
    for (auto h = std::sregex_iterator(text.begin(), text.end(), hal); h != std::sregex_iterator();
         ++h) {
        if ((*h)[1].str().find("format=\"aidl\"") != std::string::npos) continue;
        const std::string body = (*h)[2];
        // The HAL's own name and version come before its interfaces.
        const std::string head = body.substr(0, body.find("<interface>"));
        const std::vector<std::string> names = tagTexts(head, "name");
        const std::vector<std::string> versions = tagTexts(head, "version");
        if (names.empty() || versions.empty()) continue;
        for (auto i = std::sregex_iterator(body.begin(), body.end(), interface);
             i != std::sregex_iterator(); ++i) {
            const std::string block = (*i)[1];
            const std::vector<std::string> name = tagTexts(block, "name");
            if (name.empty()) continue;
            for (const std::string& instance : tagTexts(block, "instance")) {
                entries->push_back(names[0] + "@" + versions[0] + "::" + name[0] + "/" + instance);
            }
        }
    }
}

}  // namespace

std::vector<std::string> getAllHalInstanceNames(const std::string& descriptor) {
    std::vector<std::string> manifests;
    const char* configured = getenv("HOST_VINTF_MANIFEST");
    std::string list = configured != nullptr ? configured : HOST_VINTF_DEFAULT_MANIFEST;
    size_t start = 0;
    while (start <= list.size()) {
        const size_t end = std::min(list.find(':', start), list.size());
        if (end > start) manifests.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    std::vector<std::string> entries;
    for (const std::string& path : manifests) readManifest(path, &entries);
    std::set<std::string> instances;
    const std::string prefix = descriptor + "/";
    for (const std::string& entry : entries) {
        if (entry.compare(0, prefix.size(), prefix) == 0) {
            instances.insert(entry.substr(prefix.size()));
        }
    }
    return std::vector<std::string>(instances.begin(), instances.end());
}

namespace details {

hidl_array<uint8_t, 32> ibaseHash() {
    return hidl_array<uint8_t, 32>(kIBaseHash);
}

::android::hidl::base::V1_0::DebugInfo localDebugInfo(const void* object) {
    ::android::hidl::base::V1_0::DebugInfo info = {};
    info.pid = static_cast<int32_t>(getpid());
    info.ptr = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(object));
    info.arch = sizeof(void*) == 8 ? ::android::hidl::base::V1_0::DebugInfo::Architecture::IS_64BIT
                                   : ::android::hidl::base::V1_0::DebugInfo::Architecture::IS_32BIT;
    return info;
}

bool canCastInterface(IBase* parent, const char* childIndicator, bool emitError) {
    if (parent == nullptr || childIndicator == nullptr) return false;
    bool found = false;
    Return<void> ret = parent->interfaceChain([&](const hidl_vec<hidl_string>& chain) {
        for (const hidl_string& descriptor : chain) {
            if (descriptor == childIndicator) found = true;
        }
    });
    if (!ret.isOk()) {
        if (emitError) ALOGE("castInterface: interfaceChain failed: %s", ret.description().c_str());
        return false;
    }
    return found;
}

status_t registerAsServiceInternal(const sp<IBase>& service, const std::string& name) {
    if (service.get() == nullptr || name.empty()) {
        ALOGE("refused registration of \"%s\"%s", name.c_str(),
              service.get() == nullptr ? " (null service)" : "");
        return BAD_VALUE;
    }
    std::vector<std::string> chain;
    Return<void> ret = service->interfaceChain([&](const hidl_vec<hidl_string>& descriptors) {
        for (const hidl_string& d : descriptors) chain.push_back(d);
    });
    if (!ret.isOk() || chain.empty()) {
        ALOGE("refused registration of \"%s\": no interface chain", name.c_str());
        return UNKNOWN_ERROR;
    }
    std::vector<sp<IBase>> previous;
    {
        std::lock_guard<std::mutex> guard(registry().lock);
        for (const std::string& descriptor : chain) {
            sp<IBase>& slot = registry().services[Key(descriptor, name)];
            previous.push_back(std::move(slot));
            slot = service;
        }
    }
    // previous is released here, outside the lock, in case a destructor looks up services.
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
    std::vector<sp<IBase>> removed;
    {
        std::lock_guard<std::mutex> guard(registry().lock);
        auto it = registry().services.find(Key(descriptor, instance));
        if (it == registry().services.end()) return NAME_NOT_FOUND;
        const sp<IBase> service = it->second;
        for (auto entry = registry().services.begin(); entry != registry().services.end();) {
            if (entry->first.second == instance && entry->second == service) {
                removed.push_back(std::move(entry->second));
                entry = registry().services.erase(entry);
            } else {
                ++entry;
            }
        }
    }
    return OK;
}

size_t configuredRpcThreads() {
    return gRpcThreads.load();
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

status_t configureRpcThreadpool(size_t maxThreads, bool /*callerWillJoin*/) {
    gRpcThreads.store(maxThreads);
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
