// Link to the picture-quality service: the cached connection, the per-stream capture-point
// notification and the capture-point query.
#include "PqLink.h"

#include <android/log.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "BandwidthInfo.h"
#include "Capture.h"
#include "CaptureLog.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;

namespace {

constexpr uint32_t kPqCapturePointCount = 7;
constexpr uint32_t kWindowsPerPoint = 16;
constexpr uint32_t kRawInfoSize = 80;
constexpr uint32_t kRawWindowSize = 8;

// Once found, the service is kept for the life of the process. The raw pointer owns one strong
// reference that is never dropped, so readers may turn it into an sp<> without a lock.
std::atomic<IPq*> gPqService{nullptr};

uint16_t readU16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t readU32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// One capture point of the notification payload, decoded from its 208 little-endian bytes.
struct CapturePointBlock {
    ST_CAPTURE_POINT_INFO info;
    ST_WIN_INFO windows[kWindowsPerPoint];
};

void decodeBlock(const uint8_t* raw, CapturePointBlock* block) {
    ST_CAPTURE_POINT_INFO& info = block->info;
    info.w = readU16(raw + 0);
    info.h = readU16(raw + 2);
    info.fmt = static_cast<int32_t>(readU32(raw + 4));
    info.hwEngine = raw[8];
    std::memcpy(info.u8Reserved.data(), raw + 9, sizeof(info.u8Reserved));
    info.u32RemainBWBudget = readU32(raw + 48);
    info.activeWinNum = raw[52];
    info.bIsPQHWSet = raw[53];
    // Bytes 56..71 held the sender's vector header, which means nothing in this process.
    info.winInfo = hidl_vec<ST_WIN_INFO>();
    std::memcpy(info.u8Reserved2.data(), raw + 72, sizeof(info.u8Reserved2));

    const uint8_t* windows = raw + kRawInfoSize;
    for (uint32_t i = 0; i < kWindowsPerPoint; ++i) {
        const uint8_t* w = windows + i * kRawWindowSize;
        block->windows[i] = ST_WIN_INFO{};
        block->windows[i].u8PqId = w[0];
        std::memcpy(block->windows[i].u8Reserved.data(), w + 1,
                    sizeof(block->windows[i].u8Reserved));
        block->windows[i].u32WinTime = readU32(w + 4);
    }
}

// Capture point -> row of the PQ stream's bandwidth cells and block of the notification;
// -1 for the points that no PQ stream feeds.
int getPQPoint(uint32_t capturePoint) {
    const uint32_t index = capturePoint - 2u;
    if (index >= kPqCapturePointCount) {
        CAPTURE_LOGW("can't support this PQ format!");
        return -1;
    }
    return static_cast<int>(index);
}

void onCapturePointInfo(EN_RETURN_VALUE ret, const ST_CAPTURE_POINT_INFO& reply, int index,
                        int pqId, ST_CAPTURE_POINT_INFO* info) {
    if (ret != EN_RETURN_VALUE::EN_RETURN_OK) {
        CAPTURE_LOGW("getCapturePointInfo Failed");
        return;
    }
    *info = reply;
    CAPTURE_LOGI("getCapturePointInfo stCapturePointInfo: ok. w(%d) h(%d) fmt(%d) hwEngine(%d) ",
                 info->w, info->h, info->fmt, info->hwEngine);

    // Whatever the service sent, the lookup below works on exactly sixteen records.
    hidl_vec<ST_WIN_INFO> windows(kWindowsPerPoint);
    const size_t received = std::min<size_t>(info->winInfo.size(), kWindowsPerPoint);
    for (size_t k = 0; k < received; ++k) {
        windows[k] = info->winInfo[k];
    }
    info->winInfo = std::move(windows);

    const uint8_t activeWinNum = info->activeWinNum;
    uint8_t i = 0;
    while (i < activeWinNum && i < kWindowsPerPoint &&
           static_cast<int>(info->winInfo[i].u8PqId) != pqId) {
        ++i;
    }
    CAPTURE_LOGI("activeWinNum(%d) capPoint(%d) pqID(%d) win_i(%d)", activeWinNum, index, pqId, i);
    // Without a match the window after the active ones is used; it is a zero record as long as
    // fewer than sixteen windows are active. With sixteen or more there is no such record, and
    // the update is skipped rather than stored from outside the table.
    if (i >= kWindowsPerPoint) {
        CAPTURE_LOGW("get activeWinNum fail");
        return;
    }
    UpdateBWInfo(static_cast<uint8_t>(pqId & 0xFF), static_cast<uint32_t>(index),
                 info->winInfo[i].u32WinTime, info->u32RemainBWBudget, info->bIsPQHWSet != 0);
}

}  // namespace

sp<IPq> GetPqService() {
    IPq* cached = gPqService.load(std::memory_order_acquire);
    if (cached != nullptr) {
        return sp<IPq>(cached);
    }
    sp<IPq> service = IPq::getService("default", false);
    if (service == nullptr) {
        return nullptr;
    }
    // Take the cache's own reference before publishing; a thread that lost the race gives its
    // reference back and uses the winner's service.
    service->incStrong(&gPqService);
    IPq* expected = nullptr;
    if (gPqService.compare_exchange_strong(expected, service.get(), std::memory_order_acq_rel,
                                           std::memory_order_acquire)) {
        return service;
    }
    service->decStrong(&gPqService);
    return sp<IPq>(expected);
}

void unRegisterPqCallback(int pqId) {
    if (pqId > 15) {
        return;
    }
    sp<IPq> pq = GetPqService();
    if (pq == nullptr) {
        CAPTURE_LOGW("Get IPq Service Fail");
        return;
    }
    Return<EN_RETURN_VALUE> ret = pq->unRegisterPqOnewayCallback(
        pqId, EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE);
    if (!ret.isOk() || static_cast<EN_RETURN_VALUE>(ret) != EN_RETURN_VALUE::EN_RETURN_OK) {
        CAPTURE_LOGW("unRegisterPqOnewayCallback Failed");
    }
}

void GetPqInfo(CapturePoint capturePoint, int pqId) {
    const int index = getPQPoint(static_cast<uint32_t>(capturePoint));
    if (index < 0) {
        CAPTURE_LOGW("getPQPoint fail");
        return;
    }
    sp<IPq> pq = GetPqService();
    if (pq == nullptr) {
        CAPTURE_LOGW("Get IPq Service Fail");
        return;
    }
    CAPTURE_LOGI("Get IPq Service ok");

    ST_CAPTURE_POINT_INFO info{};
    Return<void> ret =
        pq->getCapturePointInfo(pqId, static_cast<uint32_t>(index),
                                [&](EN_RETURN_VALUE result, const ST_CAPTURE_POINT_INFO& reply) {
                                    onCapturePointInfo(result, reply, index, pqId, &info);
                                });
    if (!ret.isOk()) {
        CAPTURE_LOGW("getCapturePointInfo Failed");
    }
}

PqPerStreamCallback::PqPerStreamCallback() {
    __android_log_print(ANDROID_LOG_DEBUG, CAPTURE_LOG_TAG, "PqPerStreamCallback constructor");
}

PqPerStreamCallback::~PqPerStreamCallback() {
    __android_log_print(ANDROID_LOG_DEBUG, CAPTURE_LOG_TAG, "PqPerStreamCallback ~destructor");
}

Return<void> PqPerStreamCallback::onNotify(int32_t PQId, EN_PQ_CALLBACK_EVENT_TYPE eCallbackType,
                                           uint32_t u32DataSize,
                                           const hidl_vec<uint8_t>& u8ByteData) {
    __android_log_print(ANDROID_LOG_DEBUG, CAPTURE_LOG_TAG,
                        "PqPerStreamCallback, onNotify: PQId:%d, eCallbackType:%d, "
                        "u32DataSize:%d, u8ByteData.size():%d",
                        PQId, static_cast<int>(eCallbackType), u32DataSize,
                        static_cast<int>(u8ByteData.size()));
    if (eCallbackType != EN_PQ_CALLBACK_EVENT_TYPE::EN_PQ_CALLBACK_EVENT_CAPTUREPOINT_INFO_CHANGE) {
        return Void();
    }
    CAPTURE_LOGI(
        "u32DataSize(%d) sizeof(ST_CAPTURE_POINT_INFO)(%d) size7array(%d) "
        "vec_winInfo_size(%d)",
        u32DataSize, kRawInfoSize, kRawInfoSize * kPqCapturePointCount,
        kRawWindowSize * kWindowsPerPoint);

    // The declared size is only advisory; what bounds the reads is the vector itself. A payload
    // too short for seven blocks is reported like a wrong size and dropped.
    const bool shortPayload = u8ByteData.size() < kPqPayloadSize;
    if (u32DataSize != kPqPayloadSize || shortPayload) {
        const uint32_t shownSize =
            u32DataSize != kPqPayloadSize ? u32DataSize : static_cast<uint32_t>(u8ByteData.size());
        CAPTURE_LOGW("pq info error, u32DataSize(%d) one_cappoint_size(%d) sizeof7(%d)", shownSize,
                     kPqBlockSize, kPqPayloadSize);
        if (shortPayload) {
            return Void();
        }
    }

    std::vector<CapturePointBlock> blocks(kPqCapturePointCount);
    for (uint32_t k = 0; k < kPqCapturePointCount; ++k) {
        decodeBlock(u8ByteData.data() + k * kPqBlockSize, &blocks[k]);
    }

    int slot = -1;
    for (int s = 0; s < kMaxCaptureSlots; ++s) {
        if (mPqStreamInfo[s].pqId == PQId) {
            slot = s;
            break;
        }
    }
    if (slot < 0) {
        CAPTURE_LOGW("PQId[%d] found = false, break", PQId);
        return Void();
    }
    CAPTURE_LOGI("PQId[%d] found = true, captureId_i(%d)", PQId, slot);

    const int index = getPQPoint(static_cast<uint32_t>(mPqStreamInfo[slot].capturePoint.load()));
    if (index < 0) {
        CAPTURE_LOGW("getPQPoint fail");
        return Void();
    }

    const CapturePointBlock& block = blocks[static_cast<size_t>(index)];
    const uint32_t activeWinNum = block.info.activeWinNum;
    if (activeWinNum >= kWindowsPerPoint) {
        CAPTURE_LOGW("get activeWinNum fail");
        return Void();
    }
    uint32_t i = 0;
    while (i < activeWinNum && static_cast<int32_t>(block.windows[i].u8PqId) != PQId) {
        ++i;
    }
    if (i == activeWinNum) {
        CAPTURE_LOGW("PQId[%d] found = false, break", PQId);
        return Void();
    }
    CAPTURE_LOGI("PQId[%d] found = true, winInfo_i(%d)", PQId, i);
    CAPTURE_LOGI("activeWinNum(%d) capPoint(%d) pqID_win_i(%d)", activeWinNum, index, i);
    UpdateBWInfo(static_cast<uint8_t>(PQId & 0xFF), static_cast<uint32_t>(index),
                 block.windows[i].u32WinTime, block.info.u32RemainBWBudget,
                 block.info.bIsPQHWSet != 0);
    return Void();
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
