// The picture-quality service's capture-point notification: any PQ id, event, declared size and
// payload, with two capture slots bound to PQ streams as setCaptureInfo leaves them.
#include "BandwidthInfo.h"
#include "Capture.h"
#include "FuzzInput.h"
#include "PqLink.h"

using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    capture_fuzz::Input in(data, size);
    for (int k = 0; k < 2; ++k) {
        PqStreamInfo& row = mPqStreamInfo[in.take<uint8_t>() % kMaxCaptureSlots];
        row.pqId = in.take<int32_t>();
        row.capturePoint = in.take<int32_t>();
    }
    const int32_t pqId = in.take<int32_t>();
    const auto event = static_cast<EN_PQ_CALLBACK_EVENT_TYPE>(in.take<int32_t>());
    // Mostly the size the sender should declare, sometimes any other.
    const uint32_t declared = (in.take<uint8_t>() & 1) != 0 ? in.take<uint32_t>() : kPqPayloadSize;

    // An exact-size copy, so that a read past the payload is caught.
    ::android::hardware::hidl_vec<uint8_t> payload(in.size());
    if (in.size() > 0) std::memcpy(payload.data(), in.data(), in.size());
    static const sp<PqPerStreamCallback> callback = new PqPerStreamCallback();
    callback->onNotify(pqId, event, declared, payload);

    for (PqStreamInfo& row : mPqStreamInfo) {
        row.pqId = -1;
        row.capturePoint = static_cast<int32_t>(kCapturePointNone);
    }
    return 0;
}
