#include "EmulatedPq.h"

#include <string.h>

#include "EmuLog.h"
#include "Faults.h"
#include "HwCaps.h"
#include "capture_emulator/Emulator.h"

namespace capture_emulator {

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::vendor::quenlark::hardware::pq::V1_0::ST_WIN_INFO;

namespace {

constexpr EN_PQ_CALLBACK_EVENT_TYPE kCapturePointEvent =
    EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE;
// The panel the scaled capture points (index 1 on) are measured at.
constexpr uint32_t kPanelWidth = 3840;
constexpr uint32_t kPanelHeight = 2160;
constexpr int32_t kPqFormatYuv444 = 2;

void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

void put32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

bool validStream(int pqId) {
    return pqId >= 0 && pqId < kPqStreamCount;
}

// What every call returns while the service plays a process that died.
::android::hardware::Status deadObject() {
    return ::android::hardware::Status::fromStatusT(::android::DEAD_OBJECT);
}

}  // namespace

EmulatedPq::EmulatedPq() {
    // The main window always plays something, as on a television that is switched on.
    mStreams[0] = Stream{kPanelWidth, kPanelHeight, 60, 1};
}

Return<EN_RETURN_VALUE> EmulatedPq::registerPqOnewayCallback(int32_t pqId,
                                                             EN_PQ_CALLBACK_EVENT_TYPE eventType,
                                                             const sp<IPqOnewayCallback>& callback) {
    if (pqDead()) return deadObject();
    if (!validStream(pqId) || callback == nullptr) {
        return EN_RETURN_VALUE::EN_RETURN_INVALID_PARAMETER;
    }
    if (eventType != kCapturePointEvent) return EN_RETURN_VALUE::EN_RETURN_NOT_SUPPORT;
    std::lock_guard<std::mutex> lock(mLock);
    mCallbacks[pqId] = callback;
    return EN_RETURN_VALUE::EN_RETURN_OK;
}

Return<EN_RETURN_VALUE> EmulatedPq::unRegisterPqOnewayCallback(int32_t pqId,
                                                               EN_PQ_CALLBACK_EVENT_TYPE eventType) {
    if (pqDead()) return deadObject();
    if (!validStream(pqId)) return EN_RETURN_VALUE::EN_RETURN_INVALID_PARAMETER;
    if (eventType != kCapturePointEvent) return EN_RETURN_VALUE::EN_RETURN_NOT_SUPPORT;
    sp<IPqOnewayCallback> old;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mCallbacks[pqId] == nullptr) return EN_RETURN_VALUE::EN_RETURN_FAIL;
        old = std::move(mCallbacks[pqId]);
        mCallbacks[pqId] = nullptr;
    }
    return EN_RETURN_VALUE::EN_RETURN_OK;
}

ST_CAPTURE_POINT_INFO EmulatedPq::infoLocked(uint32_t index) const {
    ST_CAPTURE_POINT_INFO info = {};
    // Index 0 sees the stream at its own size; the later points see it on the panel.
    auto main = mStreams.find(0);
    const Stream& shown = main != mStreams.end() ? main->second : mStreams.begin()->second;
    info.w = static_cast<uint16_t>(index == 0 ? shown.width : kPanelWidth);
    info.h = static_cast<uint16_t>(index == 0 ? shown.height : kPanelHeight);
    info.fmt = kPqFormatYuv444;
    info.hwEngine = shown.engine;
    uint64_t remain = mBandwidthInUse < kBandwidthBudget ? kBandwidthBudget - mBandwidthInUse : 0;
    info.u32RemainBWBudget = static_cast<uint32_t>(remain / 1000000);  // MB/s
    uint8_t n = 0;
    hidl_vec<ST_WIN_INFO> windows(kWinInfoMaxCount);
    for (const auto& [id, stream] : mStreams) {
        if (n >= kWinInfoMaxCount) break;
        windows[n].u8PqId = static_cast<uint8_t>(id);
        windows[n].u32WinTime = 1000000u / (stream.fps != 0 ? stream.fps : 60);  // microseconds
        ++n;
    }
    info.activeWinNum = n;
    info.bIsPQHWSet = 1;
    info.winInfo = windows;
    return info;
}

Return<void> EmulatedPq::getCapturePointInfo(int32_t pqId, uint32_t capturePointIndex,
                                             getCapturePointInfo_cb _hidl_cb) {
    if (pqDead()) return deadObject();
    if (!_hidl_cb) return Void();
    if (!validStream(pqId) || capturePointIndex >= kPqCapturePointCount) {
        _hidl_cb(EN_RETURN_VALUE::EN_RETURN_INVALID_PARAMETER, ST_CAPTURE_POINT_INFO());
        return Void();
    }
    ST_CAPTURE_POINT_INFO info;
    {
        std::lock_guard<std::mutex> lock(mLock);
        info = infoLocked(capturePointIndex);
    }
    _hidl_cb(EN_RETURN_VALUE::EN_RETURN_OK, info);
    return Void();
}

void EmulatedPq::setStream(int pqId, uint32_t width, uint32_t height, uint32_t fps, uint8_t engine) {
    if (!validStream(pqId)) return;
    std::lock_guard<std::mutex> lock(mLock);
    mStreams[pqId] = Stream{width, height, fps, engine};
}

void EmulatedPq::setBandwidthInUse(uint64_t bytesPerSecond) {
    std::lock_guard<std::mutex> lock(mLock);
    mBandwidthInUse = bytesPerSecond;
}

bool EmulatedPq::hasCallback(int pqId) {
    std::lock_guard<std::mutex> lock(mLock);
    return validStream(pqId) && mCallbacks[pqId] != nullptr;
}

std::vector<uint8_t> EmulatedPq::capturePointPayload() {
    std::vector<uint8_t> payload(kPqPayloadSize, 0);
    std::lock_guard<std::mutex> lock(mLock);
    for (uint32_t k = 0; k < kPqCapturePointCount; ++k) {
        ST_CAPTURE_POINT_INFO info = infoLocked(k);
        uint8_t* block = payload.data() + k * kPqBlockSize;
        // The raw form: the record's fields at their offsets, the place of the in-memory window
        // vector left zero, and the windows after the record.
        put16(block + 0, info.w);
        put16(block + 2, info.h);
        put32(block + 4, static_cast<uint32_t>(info.fmt));
        block[8] = info.hwEngine;
        memcpy(block + 9, info.u8Reserved.data(), sizeof(info.u8Reserved));
        put32(block + 48, info.u32RemainBWBudget);
        block[52] = info.activeWinNum;
        block[53] = info.bIsPQHWSet;
        memcpy(block + 72, info.u8Reserved2.data(), sizeof(info.u8Reserved2));
        for (uint32_t i = 0; i < info.winInfo.size() && i < kWinInfoMaxCount; ++i) {
            uint8_t* window = block + 80 + 8 * i;
            window[0] = info.winInfo[i].u8PqId;
            put32(window + 4, info.winInfo[i].u32WinTime);
        }
    }
    return payload;
}

void EmulatedPq::notifyCapturePoints(int pqId) {
    if (!validStream(pqId)) return;
    sp<IPqOnewayCallback> callback;
    {
        std::lock_guard<std::mutex> lock(mLock);
        callback = mCallbacks[pqId];
    }
    if (callback == nullptr) return;
    hidl_vec<uint8_t> data(capturePointPayload());
    // Oneway: nothing comes back but the transport's verdict, and a receiver that died is the
    // receiver's business.
    if (!callback->onNotify(pqId, kCapturePointEvent, kPqPayloadSize, data).isOk()) {
        EMU_LOGW("capture-point notice for stream %d not delivered", pqId);
    }
}

sp<EmulatedPq> emulatedPq() {
    static std::mutex lock;
    static sp<EmulatedPq> service;
    std::lock_guard<std::mutex> guard(lock);
    if (service == nullptr) service = new EmulatedPq();
    return service;
}

::android::status_t registerPqService(const std::string& instance) {
    return emulatedPq()->registerAsService(instance);
}

}  // namespace capture_emulator
