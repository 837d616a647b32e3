// What both elements need of the capture service: the service itself, an open instance that
// outlives the element while buffers of it are out, memory the hardware writes into, and the
// capability query with the engine an element asks for.
#pragma once

#include <cutils/native_handle.h>
#include <stdint.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>
#include <vendor/quenlark/hardware/capture/1.0/ICaptureCallback.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace capturehal {

using ::vendor::quenlark::hardware::capture::V1_0::CaptureCallbackParams;
using ::vendor::quenlark::hardware::capture::V1_0::CaptureEventNotify;
using ::vendor::quenlark::hardware::capture::V1_0::CaptureReturn;
using ::vendor::quenlark::hardware::capture::V1_0::getQueryInfo;
using ::vendor::quenlark::hardware::capture::V1_0::ICapture;
using ::vendor::quenlark::hardware::capture::V1_0::ICaptureCallback;
using ::vendor::quenlark::hardware::capture::V1_0::setQueryInfo;

// ICapture/default as a client gets it. On a workstation, where no service process registers
// one, the service is brought up in this process on the emulated hardware, as capturectl does.
// Null, with the reason in *error, when neither works.
::android::sp<ICapture> getCaptureService(std::string* error);

// "startCapture refused: BUSY (8)"
std::string refusal(const char* what, CaptureReturn code);

// An open capture instance. Frames handed downstream hold it, and give their buffer back
// through it when their last reference goes; once it is closed they no longer do, since the
// identifier may by then name another client's instance.
class Instance {
public:
    // Null, with the service's answer in *ret, when open is refused.
    static std::shared_ptr<Instance> open(const ::android::sp<ICapture>& service,
                                          CaptureReturn* ret);
    ~Instance();
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    int32_t id() const { return mId; }
    const ::android::sp<ICapture>& service() const { return mService; }

    // A frame the hardware reported is now held by this process (wrapped into a buffer).
    void lease();
    // Gives a frame's buffer back to the hardware, unless the instance has been closed; `leased`
    // when the frame had been leased.
    void giveBack(uint32_t index, bool leased);
    uint32_t held() const;
    // Waits until no leased frame is left, at most `limit`; false when some still are.
    bool waitAllBack(std::chrono::milliseconds limit);
    // Closes once; later calls answer SUCCESS and do nothing.
    CaptureReturn close();

private:
    Instance(const ::android::sp<ICapture>& service, int32_t id) : mService(service), mId(id) {}

    ::android::sp<ICapture> mService;
    const int32_t mId;
    mutable std::mutex mLock;
    std::condition_variable mAllBack;
    bool mOpen = true;
    uint32_t mHeld = 0;
};

// Memory the hardware writes frames into: one memfd, mapped read/write, with the native handle
// the service is given. Unmapped and closed when the last holder lets go.
class HalMemory {
public:
    static std::shared_ptr<HalMemory> create(size_t size);
    ~HalMemory();
    HalMemory(const HalMemory&) = delete;
    HalMemory& operator=(const HalMemory&) = delete;

    const native_handle_t* handle() const { return mHandle; }
    uint8_t* data() const { return mData; }
    size_t size() const { return mSize; }

private:
    HalMemory() = default;
    native_handle_t* mHandle = nullptr;
    uint8_t* mData = nullptr;
    size_t mSize = 0;
};

// A frame the hardware reported, with the CLOCK_MONOTONIC time it arrived.
struct Arrival {
    CaptureCallbackParams params;
    int64_t monotonicNs;
};

// onNotify runs under the service's one callback lock, shared by every instance of every
// client: it only appends here and returns. The streaming thread takes the frames out.
class ArrivalQueue {
public:
    enum class Wait { kGot, kFlushing, kTimedOut };

    void push(const Arrival& arrival);
    Wait pop(Arrival* out, std::chrono::milliseconds limit);
    void setFlushing(bool flushing);
    std::vector<Arrival> drain();

private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::deque<Arrival> mFrames;
    bool mFlushing = false;
};

class QueueingCallback : public ICaptureCallback {
public:
    explicit QueueingCallback(std::shared_ptr<ArrivalQueue> queue) : mQueue(std::move(queue)) {}
    ::android::hardware::Return<void> onNotify(CaptureEventNotify notify,
                                               const CaptureCallbackParams& params) override;

private:
    const std::shared_ptr<ArrivalQueue> mQueue;
};

int64_t monotonicNs();

// The capability query decides between the DIP and the GPU path by the process-wide property
// vendor.zor.capture.forcegpu. Every query of this plugin's elements is made here, under one
// lock, with the property set to the engine the element asks for and put back afterwards; so
// two elements asking for different engines take turns and never read each other's setting.
// The answer stays with the instance (a GPU conversion clears it, so converters ask again before
// every frame).
CaptureReturn queryOnEngine(const Instance& instance, const setQueryInfo& query, bool gpu,
                            getQueryInfo* answer);

}  // namespace capturehal
