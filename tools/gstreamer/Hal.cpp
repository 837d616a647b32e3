#include "Hal.h"

#include <android-base/properties.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include "CaptureNames.h"
#include "EmulatedService.h"

namespace capturehal {

using ::android::sp;
using ::android::hardware::Return;
using ::android::hardware::Void;

namespace {

constexpr const char* kForceGpuProperty = "vendor.zor.capture.forcegpu";

std::mutex gServiceLock;
std::mutex gEngineLock;

}  // namespace

sp<ICapture> getCaptureService(std::string* error) {
    // Two elements starting at once must not both bring a service up.
    std::lock_guard<std::mutex> guard(gServiceLock);
    return capture_host::getOrStartService(error);
}

std::string refusal(const char* what, CaptureReturn code) {
    return std::string(what) + " refused: " + capture_tools::describe(code);
}

std::shared_ptr<Instance> Instance::open(const sp<ICapture>& service, CaptureReturn* ret) {
    int32_t id = 0;
    *ret = CaptureReturn::FAIL;
    Return<void> status = service->open([&](CaptureReturn r, int32_t captureId) {
        *ret = r;
        id = captureId;
    });
    if (!status.isOk() || *ret != CaptureReturn::SUCCESS) return nullptr;
    return std::shared_ptr<Instance>(new Instance(service, id));
}

Instance::~Instance() {
    close();
}

void Instance::lease() {
    std::lock_guard<std::mutex> guard(mLock);
    ++mHeld;
}

void Instance::giveBack(uint32_t index, bool leased) {
    std::lock_guard<std::mutex> guard(mLock);
    // Under the lock, so that close() cannot slip in between the test and the call.
    if (mOpen) (void)mService->frameProcessDone(mId, index).isOk();
    if (leased && mHeld > 0 && --mHeld == 0) mAllBack.notify_all();
}

uint32_t Instance::held() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mHeld;
}

bool Instance::waitAllBack(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> held(mLock);
    return mAllBack.wait_for(held, limit, [&] { return mHeld == 0; });
}

CaptureReturn Instance::close() {
    std::lock_guard<std::mutex> guard(mLock);
    if (!mOpen) return CaptureReturn::SUCCESS;
    mOpen = false;
    Return<CaptureReturn> ret = mService->close(mId);
    return ret.isOk() ? static_cast<CaptureReturn>(ret) : CaptureReturn::FAIL;
}

std::shared_ptr<HalMemory> HalMemory::create(size_t size) {
    std::shared_ptr<HalMemory> m(new HalMemory());
    const int fd = memfd_create("capturehal", MFD_CLOEXEC);
    if (fd < 0) return nullptr;
    void* addr = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(size)) == 0) {
        addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    if (addr == MAP_FAILED) {
        ::close(fd);
        return nullptr;
    }
    m->mHandle = native_handle_create(1, 0);
    if (m->mHandle == nullptr) {
        munmap(addr, size);
        ::close(fd);
        return nullptr;
    }
    m->mHandle->data[0] = fd;
    m->mData = static_cast<uint8_t*>(addr);
    m->mSize = size;
    return m;
}

HalMemory::~HalMemory() {
    if (mData != nullptr) munmap(mData, mSize);
    if (mHandle != nullptr) {
        native_handle_close(mHandle);
        native_handle_delete(mHandle);
    }
}

void ArrivalQueue::push(const Arrival& arrival) {
    std::lock_guard<std::mutex> guard(mLock);
    mFrames.push_back(arrival);
    mChanged.notify_all();
}

ArrivalQueue::Wait ArrivalQueue::pop(Arrival* out, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> held(mLock);
    mChanged.wait_for(held, limit, [&] { return mFlushing || !mFrames.empty(); });
    if (mFlushing) return Wait::kFlushing;
    if (mFrames.empty()) return Wait::kTimedOut;
    *out = mFrames.front();
    mFrames.pop_front();
    return Wait::kGot;
}

void ArrivalQueue::setFlushing(bool flushing) {
    std::lock_guard<std::mutex> guard(mLock);
    mFlushing = flushing;
    mChanged.notify_all();
}

std::vector<Arrival> ArrivalQueue::drain() {
    std::lock_guard<std::mutex> guard(mLock);
    std::vector<Arrival> all(mFrames.begin(), mFrames.end());
    mFrames.clear();
    return all;
}

Return<void> QueueingCallback::onNotify(CaptureEventNotify, const CaptureCallbackParams& params) {
    mQueue->push(Arrival{params, monotonicNs()});
    return Void();
}

int64_t monotonicNs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

CaptureReturn queryOnEngine(const Instance& instance, const setQueryInfo& query, bool gpu,
                            getQueryInfo* answer) {
    std::lock_guard<std::mutex> guard(gEngineLock);
    const std::string before = ::android::base::GetProperty(kForceGpuProperty, "");
    ::android::base::SetProperty(kForceGpuProperty, gpu ? "1" : "0");
    CaptureReturn ret = CaptureReturn::FAIL;
    Return<void> status = instance.service()->getCaptureCapabilityInfo(
        instance.id(), query, [&](CaptureReturn r, const getQueryInfo& a) {
            ret = r;
            *answer = a;
        });
    ::android::base::SetProperty(kForceGpuProperty, before);
    return status.isOk() ? ret : CaptureReturn::FAIL;
}

}  // namespace capturehal
