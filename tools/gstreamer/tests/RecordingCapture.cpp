#include "RecordingCapture.h"

#include <stdio.h>

#include <map>
#include <set>

namespace capturehal_test {

using ::android::hardware::hidl_vec;
using ::android::hardware::Void;

namespace {

thread_local int tInsideOnNotify = 0;

// Hands the frames the service delivers on to the element's callback, writing each down.
class RecordingCallback : public ICaptureCallback {
public:
    RecordingCallback(RecordingCapture* journal, const sp<ICaptureCallback>& inner)
        : mJournal(journal), mInner(inner) {}
    Return<void> onNotify(CaptureEventNotify notify, const CaptureCallbackParams& params) override {
        Call call;
        call.method = "onNotify";
        call.id = params.captureId;
        call.index = params.index;
        mJournal->record(call);
        ++tInsideOnNotify;
        Return<void> r = mInner->onNotify(notify, params);
        --tInsideOnNotify;
        return r;
    }

private:
    RecordingCapture* mJournal;  // lives as long as the test's registration
    const sp<ICaptureCallback> mInner;
};

}  // namespace

bool RecordingCapture::insideOnNotify() {
    return tInsideOnNotify != 0;
}

std::vector<Call> RecordingCapture::calls() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mCalls;
}

void RecordingCapture::setQueryHook(std::function<void(const setQueryInfo&)> hook) {
    std::lock_guard<std::mutex> guard(mLock);
    mQueryHook = std::move(hook);
}

void RecordingCapture::record(Call call) {
    std::lock_guard<std::mutex> guard(mLock);
    mCalls.push_back(std::move(call));
}

Call RecordingCapture::made(const char* method, int32_t id) const {
    Call call;
    call.method = method;
    call.id = id;
    call.fromOnNotify = insideOnNotify();
    return call;
}

Return<CaptureReturn> RecordingCapture::initLib() {
    record(made("initLib", 0));
    return mReal->initLib();
}

Return<void> RecordingCapture::open(open_cb cb) {
    Call call = made("open", 0);
    Return<void> r = mReal->open([&](CaptureReturn ret, int32_t id) {
        call.ret = ret;
        call.id = id;
        record(call);
        cb(ret, id);
    });
    return r;
}

Return<CaptureReturn> RecordingCapture::close(int32_t id) {
    // Written down first: a frameProcessDone racing with it must come out after it.
    record(made("close", id));
    return mReal->close(id);
}

Return<CaptureReturn> RecordingCapture::setCaptureInfo(int32_t id, const CaptureInfo& info) {
    Call call = made("setCaptureInfo", id);
    call.info = info;
    // A copy of a handle owns copies of its descriptors: the journal keeps none.
    call.info.dstBuffer = ::android::hardware::hidl_handle();
    record(call);
    return mReal->setCaptureInfo(id, info);
}

Return<void> RecordingCapture::setCaptureFrameInfo(int32_t id, const CaptureSrcFrameInfo& src,
                                                   const CaptureDstFrameInfo& dst,
                                                   setCaptureFrameInfo_cb cb) {
    record(made("setCaptureFrameInfo", id));
    return mReal->setCaptureFrameInfo(id, src, dst, cb);
}

Return<void> RecordingCapture::getCaptureCapabilityInfo(int32_t id, const setQueryInfo& query,
                                                        getCaptureCapabilityInfo_cb cb) {
    std::function<void(const setQueryInfo&)> hook;
    {
        std::lock_guard<std::mutex> guard(mLock);
        hook = mQueryHook;
    }
    if (hook) hook(query);
    Call call = made("getCaptureCapabilityInfo", id);
    call.query = query;
    Return<void> r = mReal->getCaptureCapabilityInfo(
        id, query, [&](CaptureReturn ret, const getQueryInfo& answer) {
            call.ret = ret;
            call.answer = answer;
            cb(ret, answer);
        });
    record(call);
    return r;
}

Return<CaptureReturn> RecordingCapture::captureOnce(int32_t id) {
    record(made("captureOnce", id));
    return mReal->captureOnce(id);
}

Return<CaptureReturn> RecordingCapture::captureOnceWithCallback(
    int32_t id, const sp<ICaptureCallback>& callback) {
    record(made("captureOnceWithCallback", id));
    return mReal->captureOnceWithCallback(
        id, callback != nullptr ? new RecordingCallback(this, callback) : nullptr);
}

Return<CaptureReturn> RecordingCapture::startCapture(int32_t id,
                                                     const sp<ICaptureCallback>& callback) {
    record(made("startCapture", id));
    return mReal->startCapture(
        id, callback != nullptr ? new RecordingCallback(this, callback) : nullptr);
}

Return<CaptureReturn> RecordingCapture::stopCapture(int32_t id) {
    record(made("stopCapture", id));
    return mReal->stopCapture(id);
}

Return<CaptureReturn> RecordingCapture::frameProcessDone(int32_t id, uint32_t index) {
    Call call = made("frameProcessDone", id);
    call.index = index;
    record(call);
    return mReal->frameProcessDone(id, index);
}

Return<void> RecordingCapture::setCallback(int32_t id, const sp<ICaptureCallback>& callback) {
    record(made("setCallback", id));
    return mReal->setCallback(
        id, callback != nullptr ? new RecordingCallback(this, callback) : nullptr);
}

Return<CaptureReturn> RecordingCapture::startAllSourceRotation(
    int32_t id, const SourceRotationInfo& info, const sp<ICaptureCallback>& callback) {
    record(made("startAllSourceRotation", id));
    return mReal->startAllSourceRotation(id, info, callback);
}

Return<CaptureReturn> RecordingCapture::stopAllSourceRotation(int32_t id) {
    record(made("stopAllSourceRotation", id));
    return mReal->stopAllSourceRotation(id);
}

Return<CaptureReturn> RecordingCapture::notifyContinueCapture(int32_t id) {
    record(made("notifyContinueCapture", id));
    return mReal->notifyContinueCapture(id);
}

JournalCheck checkJournal(const std::vector<Call>& calls, bool allBack) {
    JournalCheck check;
    std::set<int32_t> open;
    std::map<int32_t, std::multiset<uint32_t>> held;  // per open instance
    for (const Call& c : calls) {
        char id[16];
        snprintf(id, sizeof(id), "0x%x", static_cast<uint32_t>(c.id));
        const std::string where = c.method + "(" + id + ")";
        if (c.fromOnNotify) check.faults.push_back(where + " called from inside onNotify");
        if (c.method == "open" && c.ret == CaptureReturn::SUCCESS) {
            ++check.opened;
            open.insert(c.id);
            held[c.id].clear();
        } else if (c.method == "close" && open.count(c.id) != 0) {
            ++check.closed;
            open.erase(c.id);
            if (allBack && !held[c.id].empty()) {
                check.faults.push_back(std::to_string(held[c.id].size()) +
                                       " buffers not handed back before " + where);
            }
        } else if (c.method == "onNotify") {
            ++check.delivered;
            held[c.id].insert(c.index);
        } else if (c.method == "frameProcessDone") {
            if (open.count(c.id) == 0) {
                check.faults.push_back(where + " of buffer " + std::to_string(c.index) +
                                       " on an instance that is not open");
                continue;
            }
            auto it = held[c.id].find(c.index);
            if (it == held[c.id].end()) {
                check.faults.push_back(where + " of buffer " + std::to_string(c.index) +
                                       ", which was not delivered");
                continue;
            }
            held[c.id].erase(it);
            ++check.returned;
        }
    }
    for (int32_t id : open) {
        char text[48];
        snprintf(text, sizeof(text), "instance 0x%x left open", static_cast<uint32_t>(id));
        check.faults.push_back(text);
    }
    return check;
}

}  // namespace capturehal_test
