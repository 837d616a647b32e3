// In-process stand-in for the picture-quality service: notes every call in the doubles' journal
// and answers as scripted.
#pragma once

#include <hidl/Status.h>
#include <utils/Errors.h>
#include <vendor/quenlark/hardware/pq/1.0/IPq.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "FakeSubHal.h"

namespace capture_test {

using namespace ::vendor::quenlark::hardware::pq::V1_0;
using ::android::sp;
using ::android::hardware::Return;

class FakePq : public IPq {
public:
    enum class Reply { Ok, Refuse, DeadObject };

    static sp<FakePq> install();  // the process's one instance, reset and registered as "default"
    static void uninstall();

    // The journal is the sub-HAL double's, forgotten by fake_subhal::reset().
    void reset() {
        std::lock_guard<std::mutex> lock(mMutex);
        replies.clear();
        info = ST_CAPTURE_POINT_INFO{};
    }
    // Journal lines "pq.get <pqId>/<index>", "pq.register <pqId>/<event>",
    // "pq.unregister <pqId>/<event>"; calls() gives them alone, without the "pq." prefix.
    static std::vector<std::string> calls() {
        std::vector<std::string> out;
        for (const std::string& line : fake_subhal::journal()) {
            if (line.rfind("pq.", 0) == 0) out.push_back(line.substr(3));
        }
        return out;
    }

    // Scripted before the calls they shape: replies by call name (Ok if none), the "get" answer.
    std::map<std::string, Reply> replies;
    ST_CAPTURE_POINT_INFO info{};

    Return<EN_RETURN_VALUE> registerPqOnewayCallback(
        int32_t pqId, EN_PQ_CALLBACK_EVENT_TYPE type,
        const sp<IPqOnewayCallback>& /*callback*/) override {
        return answer("register", pqId, static_cast<uint32_t>(type));
    }
    Return<EN_RETURN_VALUE> unRegisterPqOnewayCallback(int32_t pqId,
                                                       EN_PQ_CALLBACK_EVENT_TYPE type) override {
        return answer("unregister", pqId, static_cast<uint32_t>(type));
    }
    Return<void> getCapturePointInfo(int32_t pqId, uint32_t index,
                                     getCapturePointInfo_cb reply) override {
        Return<EN_RETURN_VALUE> ret = answer("get", pqId, index);
        if (!ret.isOk()) return ret.getStatus();
        reply(ret, info);  // outside the lock, as a binder reply would be
        return ::android::hardware::Void();
    }

private:
    Return<EN_RETURN_VALUE> answer(const std::string& name, int32_t pqId, uint32_t arg) {
        std::lock_guard<std::mutex> lock(mMutex);
        fake_subhal::note("pq." + name + " " + std::to_string(pqId) + "/" + std::to_string(arg));
        const Reply reply = replies.count(name) != 0 ? replies.at(name) : Reply::Ok;
        if (reply == Reply::DeadObject)
            return ::android::hardware::Status::fromStatusT(::android::DEAD_OBJECT);
        return reply == Reply::Ok ? EN_RETURN_VALUE::EN_RETURN_OK : EN_RETURN_VALUE::EN_RETURN_FAIL;
    }

    mutable std::mutex mMutex;
};

// The capture-point notification payload: seven 208-byte blocks, one per capture-point index.
struct PqPayload {
    PqPayload& info(size_t block, uint32_t budget, uint8_t activeWinNum, uint8_t hwSet) {
        std::memcpy(&bytes[block * 208 + 48], &budget, 4);
        bytes[block * 208 + 52] = activeWinNum;
        bytes[block * 208 + 53] = hwSet;
        return *this;
    }
    PqPayload& window(size_t block, size_t window, uint8_t pqId, uint32_t winTime) {
        bytes[block * 208 + 80 + window * 8] = pqId;
        std::memcpy(&bytes[block * 208 + 84 + window * 8], &winTime, 4);
        return *this;
    }
    std::vector<uint8_t> bytes = std::vector<uint8_t>(7 * 208);
};

// A capture-point reply with the given records, as (stream id, window time).
inline ST_CAPTURE_POINT_INFO capturePointInfo(uint32_t budget, uint8_t activeWinNum,
                                              std::vector<std::pair<uint8_t, uint32_t>> wins) {
    ST_CAPTURE_POINT_INFO info{};
    info.u32RemainBWBudget = budget;
    info.activeWinNum = activeWinNum;
    info.bIsPQHWSet = 1;
    info.winInfo.resize(wins.size());
    for (size_t i = 0; i < wins.size(); ++i) info.winInfo[i] = {wins[i].first, {}, wins[i].second};
    return info;
}

}  // namespace capture_test
