// A client callback for tests: records every frame event with the thread that delivered it.
#pragma once

#include <hidl/Status.h>
#include <utils/Errors.h>
#include <vendor/quenlark/hardware/capture/1.0/ICaptureCallback.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace capture_test {

namespace capture_v1 = ::vendor::quenlark::hardware::capture::V1_0;

class RecordingCallback : public capture_v1::ICaptureCallback {
public:
    using CaptureEventNotify = capture_v1::CaptureEventNotify;
    using CaptureCallbackParams = capture_v1::CaptureCallbackParams;

    struct Event {
        CaptureEventNotify notify;
        CaptureCallbackParams params;
        std::thread::id thread;
    };

    ::android::hardware::Return<void> onNotify(CaptureEventNotify notify,
                                               const CaptureCallbackParams& params) override {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mEvents.push_back({notify, params, std::this_thread::get_id()});
        }
        mCv.notify_all();
        if (mFailTransport.load()) {
            return ::android::hardware::Status::fromStatusT(::android::DEAD_OBJECT);
        }
        return ::android::hardware::Void();
    }

    // The next replies carry a transport error, as from a client that died.
    void setTransportFailure(bool fail) { mFailTransport = fail; }

    std::vector<Event> events() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }
    size_t count() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents.size();
    }
    bool waitFor(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mCv.wait_for(lock, timeout, [&] { return mEvents.size() >= n; });
    }

private:
    mutable std::mutex mMutex;
    std::condition_variable mCv;
    std::vector<Event> mEvents;
    std::atomic<bool> mFailTransport{false};
};

}  // namespace capture_test
