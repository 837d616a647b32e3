// The sub-HAL's completion entries, called as the hardware would and as it should not: any
// identifier, record and sequence reference, null included, while client callbacks are
// installed, replaced and dropped. No sub-HAL is loaded, so every registration fails.
#include <memory>
#include <mutex>

#include "Capture.h"
#include "FuzzInput.h"
#include "VxCaptureHal.h"

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;

namespace {

uint64_t gDelivered = 0;  // frames handed to any SlotCallback

// Installed for one instance: a frame of another one, or offsets for an index outside the
// eight buffers, means the service crossed its tables.
struct SlotCallback : public ICaptureCallback {
    explicit SlotCallback(int32_t id) : mId(id) {}
    Return<void> onNotify(CaptureEventNotify, const CaptureCallbackParams& params) override {
        if (params.captureId != mId) abort();
        if (params.index >= 8 && (params.yOffset != 0 || params.cOffset != 0)) abort();
        ++gDelivered;
        return Void();
    }
    const int32_t mId;
};

// Mostly the slots and the identifiers on either side of them; now and then any value.
int32_t takeId(capture_fuzz::Input& in) {
    const uint8_t pick = in.take<uint8_t>();
    return pick < 0xF0 ? kCaptureIdBase - 1 + pick % (kMaxCaptureSlots + 2) : in.take<int32_t>();
}

sp<ICaptureCallback> takeCallback(capture_fuzz::Input& in, int32_t id) {
    return (in.take<uint8_t>() & 1) != 0 ? new SlotCallback(id) : nullptr;
}

void complete(bool once, int32_t id, capture_fuzz::Input& in) {
    const uint8_t shape = in.take<uint8_t>();
    // Exactly one record's bytes on the heap, so a read past it is caught.
    std::unique_ptr<uint8_t[]> record;
    if ((shape & 1) != 0) {
        record.reset(new uint8_t[sizeof(VX_CAPTURE_CaptureDoneInfo_s)]);
        in.fill(record.get(), sizeof(VX_CAPTURE_CaptureDoneInfo_s));
    }
    // The sequence reference: none, some slot's live counter, or a value of the sub-HAL's own.
    uint32_t own = in.take<uint32_t>();
    void* ref = nullptr;
    if ((shape >> 1) % 3 == 1) {
        ref = &Capture::mCallbackSequeceId[in.take<uint8_t>() % kMaxCaptureSlots];
    }
    if ((shape >> 1) % 3 == 2) ref = &own;
    // A frame reaches the client only with a record, a callback, and the latest sequence value.
    const bool valid = isValidCaptureId(id) && record != nullptr;
    const bool deliver = valid && ref != nullptr && Capture::hasCallback(slotOf(id)) &&
                         *static_cast<uint32_t*>(ref) == Capture::mCallbackSequeceId[slotOf(id)];
    const uint64_t before = gDelivered;
    const int ret = once ? Capture::Callback_CaptureOnceDone(id, shape, record.get(), ref)
                         : Capture::Callback_CaptureDone(id, shape, record.get(), ref);
    if (ret != (valid ? 0 : 7) || gDelivered - before != (deliver ? 1u : 0u)) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const sp<Capture> service = new Capture();
    capture_fuzz::Input in(data, size);
    while (in.size() > 0) {
        const uint8_t op = in.take<uint8_t>();
        const int32_t id = takeId(in);
        const int kind = op % 7;
        if (kind == 0) service->setCallback(id, takeCallback(in, id));
        if (kind == 1) (void)service->captureOnceWithCallback(id, takeCallback(in, id));
        if (kind == 2) (void)service->startCapture(id, takeCallback(in, id));
        if (kind == 3) (void)service->stopCapture(id);
        if (kind == 4) (void)service->close(id);
        if (kind >= 5) complete(kind == 5, id, in);
    }
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    for (int slot = 0; slot < kMaxCaptureSlots; ++slot) {
        Capture::setCallbackLocked(slot, nullptr);
        __atomic_store_n(&Capture::mCallbackSequeceId[slot], 0u, __ATOMIC_RELAXED);
        Capture::stCallbackInputParams[slot] = VX_CAPTURE_CallbackInputParams_s{};
    }
    return 0;
}
