#include "FakePq.h"

#include <hidl/ServiceManagement.h>
#include <hidl/Status.h>
#include <utils/Errors.h>

#include <algorithm>

namespace capture_test {

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Status;
using ::android::hardware::Void;

namespace {

size_t indexOf(FakePq::Method method) {
    return static_cast<size_t>(method);
}

std::mutex gInstanceMutex;
sp<FakePq> gInstance;

}  // namespace

sp<FakePq> FakePq::install() {
    sp<FakePq> pq;
    {
        std::lock_guard<std::mutex> lock(gInstanceMutex);
        if (gInstance == nullptr) gInstance = new FakePq();
        pq = gInstance;
    }
    pq->reset();
    pq->registerAsService("default");
    return pq;
}

void FakePq::uninstall() {
    ::android::hardware::details::unregisterServiceInternal(IPq::descriptor, "default");
}

void FakePq::reset() {
    std::map<int32_t, sp<IPqOnewayCallback>> dropped;
    std::vector<sp<IPqOnewayCallback>> everRegistered;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mCalls.clear();
        std::fill(std::begin(mResults), std::end(mResults), EN_RETURN_VALUE::EN_RETURN_OK);
        std::fill(std::begin(mTransportFailure), std::end(mTransportFailure), false);
        mInfoReply.reset();
        dropped.swap(mCallbacks);
        everRegistered.swap(mEverRegistered);
    }
    // Released outside the lock: a callback's destructor may log or call back.
}

std::vector<FakePq::Call> FakePq::calls() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mCalls;
}

std::vector<FakePq::Call> FakePq::callsOf(Method method) const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<Call> out;
    for (const Call& c : mCalls) {
        if (c.method == method) out.push_back(c);
    }
    return out;
}

size_t FakePq::count(Method method) const {
    return callsOf(method).size();
}

void FakePq::setResult(Method method, EN_RETURN_VALUE result) {
    std::lock_guard<std::mutex> lock(mMutex);
    mResults[indexOf(method)] = result;
}

void FakePq::setTransportFailure(Method method, bool fail) {
    std::lock_guard<std::mutex> lock(mMutex);
    mTransportFailure[indexOf(method)] = fail;
}

void FakePq::setCapturePointInfo(EN_RETURN_VALUE ret, const ST_CAPTURE_POINT_INFO& info) {
    std::lock_guard<std::mutex> lock(mMutex);
    mInfoReply.emplace(ret, info);
}

sp<IPqOnewayCallback> FakePq::callbackFor(int32_t pqId) const {
    std::lock_guard<std::mutex> lock(mMutex);
    auto it = mCallbacks.find(pqId);
    return it == mCallbacks.end() ? nullptr : it->second;
}

std::vector<sp<IPqOnewayCallback>> FakePq::callbacks() const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<sp<IPqOnewayCallback>> out;
    for (const auto& entry : mCallbacks) out.push_back(entry.second);
    return out;
}

Return<EN_RETURN_VALUE> FakePq::registerPqOnewayCallback(int32_t pqId,
                                                         EN_PQ_CALLBACK_EVENT_TYPE eventType,
                                                         const sp<IPqOnewayCallback>& callback) {
    std::lock_guard<std::mutex> lock(mMutex);
    Call call;
    call.method = Method::Register;
    call.pqId = pqId;
    call.arg = static_cast<uint32_t>(eventType);
    call.withCallback = callback != nullptr;
    call.thread = std::this_thread::get_id();
    mCalls.push_back(call);
    const size_t m = indexOf(Method::Register);
    if (mTransportFailure[m]) return Status::fromStatusT(::android::DEAD_OBJECT);
    if (mResults[m] == EN_RETURN_VALUE::EN_RETURN_OK && callback != nullptr) {
        mCallbacks[pqId] = callback;
        mEverRegistered.push_back(callback);
    }
    return mResults[m];
}

Return<EN_RETURN_VALUE> FakePq::unRegisterPqOnewayCallback(int32_t pqId,
                                                           EN_PQ_CALLBACK_EVENT_TYPE eventType) {
    std::lock_guard<std::mutex> lock(mMutex);
    Call call;
    call.method = Method::Unregister;
    call.pqId = pqId;
    call.arg = static_cast<uint32_t>(eventType);
    call.thread = std::this_thread::get_id();
    mCalls.push_back(call);
    const size_t m = indexOf(Method::Unregister);
    if (mTransportFailure[m]) return Status::fromStatusT(::android::DEAD_OBJECT);
    if (mResults[m] == EN_RETURN_VALUE::EN_RETURN_OK) {
        mCallbacks.erase(pqId);
    }
    return mResults[m];
}

Return<void> FakePq::getCapturePointInfo(int32_t pqId, uint32_t capturePointIndex,
                                         getCapturePointInfo_cb _hidl_cb) {
    EN_RETURN_VALUE ret = EN_RETURN_VALUE::EN_RETURN_FAIL;
    ST_CAPTURE_POINT_INFO info{};
    {
        std::lock_guard<std::mutex> lock(mMutex);
        Call call;
        call.method = Method::GetCapturePointInfo;
        call.pqId = pqId;
        call.arg = capturePointIndex;
        call.thread = std::this_thread::get_id();
        mCalls.push_back(call);
        if (mTransportFailure[indexOf(Method::GetCapturePointInfo)]) {
            return Status::fromStatusT(::android::DEAD_OBJECT);
        }
        if (mInfoReply) {
            ret = mInfoReply->first;
            info = mInfoReply->second;
        }
    }
    // Replied outside the lock, as a binder reply would be.
    _hidl_cb(ret, info);
    return Void();
}

PqPayload::PqPayload() : mBytes(kSize, 0) {}

void PqPayload::put32(size_t offset, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) {
        mBytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

PqPayload& PqPayload::setInfo(size_t index, uint16_t w, uint16_t h, int32_t fmt, uint8_t hwEngine,
                              uint32_t remainBwBudget, uint8_t activeWinNum, uint8_t pqHwSet) {
    const size_t base = index * kBlockSize;
    mBytes[base + 0] = static_cast<uint8_t>(w);
    mBytes[base + 1] = static_cast<uint8_t>(w >> 8);
    mBytes[base + 2] = static_cast<uint8_t>(h);
    mBytes[base + 3] = static_cast<uint8_t>(h >> 8);
    put32(base + 4, static_cast<uint32_t>(fmt));
    mBytes[base + 8] = hwEngine;
    put32(base + 48, remainBwBudget);
    mBytes[base + 52] = activeWinNum;
    mBytes[base + 53] = pqHwSet;
    return *this;
}

PqPayload& PqPayload::setWindow(size_t index, size_t window, uint8_t pqId, uint32_t winTime) {
    const size_t base = index * kBlockSize + 80 + window * 8;
    mBytes[base] = pqId;
    put32(base + 4, winTime);
    return *this;
}

PqPayload& PqPayload::setByte(size_t offset, uint8_t value) {
    if (offset < mBytes.size()) mBytes[offset] = value;
    return *this;
}

hidl_vec<uint8_t> PqPayload::bytes(size_t size) const {
    std::vector<uint8_t> out(mBytes);
    out.resize(size, 0);
    return hidl_vec<uint8_t>(out);
}

ST_CAPTURE_POINT_INFO makeCapturePointInfo(uint32_t remainBwBudget, uint8_t activeWinNum,
                                           uint8_t pqHwSet,
                                           const std::vector<std::pair<uint8_t, uint32_t>>& wins) {
    ST_CAPTURE_POINT_INFO info{};
    info.w = 1920;
    info.h = 1080;
    info.fmt = 3;
    info.hwEngine = 1;
    info.u32RemainBWBudget = remainBwBudget;
    info.activeWinNum = activeWinNum;
    info.bIsPQHWSet = pqHwSet;
    std::vector<ST_WIN_INFO> records;
    for (const auto& w : wins) {
        ST_WIN_INFO record{};
        record.u8PqId = w.first;
        record.u32WinTime = w.second;
        records.push_back(record);
    }
    info.winInfo = records;
    return info;
}

}  // namespace capture_test
