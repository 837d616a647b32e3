// An ICapture in front of the real service that writes down every call the elements make, in
// order, and whether it was made from inside an onNotify; registered as ICapture/default, it is
// what the elements get from getService.
#pragma once

#include <stdint.h>
#include <utils/StrongPointer.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace capturehal_test {

using ::android::sp;
using ::android::hardware::Return;
using namespace ::vendor::quenlark::hardware::capture::V1_0;

struct Call {
    std::string method;         // the ICapture method, or "onNotify" for a frame delivered
    int32_t id = 0;             // the instance (open: the one handed out)
    uint32_t index = 0;         // frameProcessDone and onNotify: the buffer
    bool fromOnNotify = false;  // made on a thread inside an onNotify
    CaptureReturn ret = CaptureReturn::SUCCESS;
    CaptureInfo info;     // setCaptureInfo
    setQueryInfo query;   // getCaptureCapabilityInfo
    getQueryInfo answer;  // getCaptureCapabilityInfo
};

class RecordingCapture : public ICapture {
public:
    explicit RecordingCapture(const sp<ICapture>& real) : mReal(real) {}

    std::vector<Call> calls() const;
    // Whether this thread is inside an onNotify the service is making.
    static bool insideOnNotify();
    // Runs before every capability query is passed on (for tests that need two at once).
    void setQueryHook(std::function<void(const setQueryInfo&)> hook);

    Return<CaptureReturn> initLib() override;
    Return<void> open(open_cb cb) override;
    Return<CaptureReturn> close(int32_t id) override;
    Return<CaptureReturn> setCaptureInfo(int32_t id, const CaptureInfo& info) override;
    Return<void> setCaptureFrameInfo(int32_t id, const CaptureSrcFrameInfo& src,
                                     const CaptureDstFrameInfo& dst,
                                     setCaptureFrameInfo_cb cb) override;
    Return<void> getCaptureCapabilityInfo(int32_t id, const setQueryInfo& query,
                                          getCaptureCapabilityInfo_cb cb) override;
    Return<CaptureReturn> captureOnce(int32_t id) override;
    Return<CaptureReturn> captureOnceWithCallback(int32_t id,
                                                  const sp<ICaptureCallback>& callback) override;
    Return<CaptureReturn> startCapture(int32_t id, const sp<ICaptureCallback>& callback) override;
    Return<CaptureReturn> stopCapture(int32_t id) override;
    Return<CaptureReturn> frameProcessDone(int32_t id, uint32_t index) override;
    Return<void> setCallback(int32_t id, const sp<ICaptureCallback>& callback) override;
    Return<CaptureReturn> startAllSourceRotation(int32_t id, const SourceRotationInfo& info,
                                                 const sp<ICaptureCallback>& callback) override;
    Return<CaptureReturn> stopAllSourceRotation(int32_t id) override;
    Return<CaptureReturn> notifyContinueCapture(int32_t id) override;

    void record(Call call);

private:
    Call made(const char* method, int32_t id) const;

    const sp<ICapture> mReal;
    mutable std::mutex mLock;
    std::vector<Call> mCalls;
    std::function<void(const setQueryInfo&)> mQueryHook;
};

// What a journal says about the instances in it.
struct JournalCheck {
    std::vector<std::string> faults;  // each a sentence; empty when all is well
    size_t opened = 0, closed = 0, delivered = 0, returned = 0;
};
// Faults: a call from inside onNotify; frameProcessDone of an instance that is not open, or of
// a buffer not delivered; an instance left open; with `allBack`, a delivered buffer not handed
// back before its instance was closed.
JournalCheck checkJournal(const std::vector<Call>& calls, bool allBack);

}  // namespace capturehal_test
