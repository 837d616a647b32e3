// ICapture records decoded from the input, through setCaptureInfo, setCaptureFrameInfo,
// getCaptureCapabilityInfo and captureOnce of a service on the emulated hardware; the GPU path
// takes the conversions the query hands it (the input may force it).
#include <android-base/properties.h>
#include <sys/mman.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <vector>

#include "Capture.h"
#include "FuzzInput.h"
#include "capture_emulator/Emulator.h"
#include "hostgl/HostGl.h"

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using ::android::GraphicBuffer;
using ::android::base::SetProperty;
using capture_fuzz::Input;

namespace {

constexpr size_t kMaxCallsPerInput = 8;

// A handle over fresh memfds of the given sizes; 0 stands for a closed descriptor.
native_handle_t* handleOf(std::initializer_list<size_t> sizes, int ints = 0) {
    native_handle_t* handle = native_handle_create(static_cast<int>(sizes.size()), ints);
    int* fd = handle->data;
    for (size_t size : sizes) {
        *fd = size == 0 ? -1 : memfd_create("capture-fuzz", MFD_CLOEXEC);
        if (size != 0 && ftruncate(*fd, static_cast<off_t>(size)) != 0) abort();
        ++fd;
    }
    return handle;
}

sp<Capture> gService;
// Handles as clients send them, good and bad, for the life of the process: none, a closed
// descriptor, no descriptor, memfds, then (from LLVMFuzzerInitialize) two allocator buffers.
std::vector<const native_handle_t*>& gBuffers = *new std::vector<const native_handle_t*>;
std::vector<sp<GraphicBuffer>>& gAllocated = *new std::vector<sp<GraphicBuffer>>;

// One field from the input, by its type: sizes and words mostly of 16 bits (0xFFFF announces 32
// bits), enumerations mostly of 8 (0xFF announces 32), formats mostly one CaptureFormat bit,
// buffers from the handles above, up to three plane offsets.
uint32_t small(Input& in) {
    const uint8_t value = in.take<uint8_t>();
    return value == 0xFF ? in.take<uint32_t>() : value;
}
void one(Input& in, uint32_t* v) {
    const uint16_t value = in.take<uint16_t>();
    *v = value == 0xFFFF ? in.take<uint32_t>() : value;
}
void one(Input& in, int32_t* v) {
    *v = in.take<int8_t>();
}
void one(Input& in, uint8_t* v) {
    *v = in.take<uint8_t>();
}
void one(Input& in, uint64_t* v) {
    *v = small(in);
}
void one(Input& in, CaptureFormat* v) {
    const uint8_t bit = in.take<uint8_t>();
    *v = static_cast<CaptureFormat>(bit < 25 ? 1u << bit : in.take<uint32_t>());
}
void one(Input& in, hidl_handle* v) {
    *v = gBuffers[in.take<uint8_t>() % gBuffers.size()];
}
void one(Input& in, hidl_vec<uint32_t>* v) {
    v->resize(in.take<uint8_t>() % 4);
    for (uint32_t& offset : *v) one(in, &offset);
}
template <typename Enum>
void one(Input& in, Enum* v) {
    *v = static_cast<Enum>(small(in));
}
template <typename... Fields>
void decode(Input& in, Fields*... fields) {
    (one(in, fields), ...);
}

void setCaptureInfo(int32_t id, Input& in) {
    CaptureInfo i{};
    decode(in, &i.capPoint, &i.pqId, &i.pqWinId, &i.srcWidth, &i.srcHeight, &i.srcFmt, &i.hwEngine,
           &i.srcFps, &i.srcFlag, &i.cropX, &i.cropY, &i.cropWidth, &i.cropHeight, &i.dstWidth,
           &i.dstHeight, &i.dstFps, &i.dstFmt, &i.dstFlag, &i.colorSpace, &i.dstBuffer,
           &i.secureBuffer, &i.bandwidth);
    in.fill(&i.b2rRbSwapped, 1);  // any byte, as it may arrive
    (void)gService->setCaptureInfo(id, i);
}

void setCaptureFrameInfo(int32_t id, Input& in) {
    CaptureSrcFrameInfo s{};
    decode(in, &s.width, &s.height, &s.format, &s.colorSpace, &s.buffer, &s.vPlaneOffset,
           &s.colorimetry);
    CaptureDstFrameInfo d{};
    decode(in, &d.cropX, &d.cropY, &d.cropWidth, &d.cropHeight, &d.width, &d.height, &d.pitch,
           &d.rotateAngle, &d.format, &d.colorSpace, &d.buffer, &d.vPlaneOffset, &d.colorimetry);
    (void)gService->setCaptureFrameInfo(id, s, d, nullptr);
}

void query(int32_t id, Input& in) {
    setQueryInfo q{};
    decode(in, &q.src_width, &q.src_height, &q.src_format, &q.dst_width, &q.dst_height,
           &q.dst_format, &q.rotationAngle, &q.crop_x, &q.crop_y, &q.crop_width, &q.crop_height,
           &q.captureType);
    (void)gService->getCaptureCapabilityInfo(id, q, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Mesa's driver would otherwise be unloaded at the end of every conversion, taking the
    // names of what it keeps for the process with it.
    host_gl::keepDriverLoaded();
    setenv("CAPTURE_SUBHAL_PATH", CAPTURE_EMULATOR_LIBRARY, 1);
    setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 1);
    if (capture_emulator::registerPqService() != ::android::OK) abort();
    gService = new Capture();
    if (gService->initLib() != CaptureReturn::SUCCESS) abort();
    gBuffers = {nullptr, handleOf({0}), handleOf({}, 2), handleOf({4096})};
    gBuffers.insert(gBuffers.end(), {handleOf({4096, 1 << 20}), handleOf({1920 * 1080 * 4})});
    // RGBA_8888 and NV12, as the GPU path's clients hand them.
    for (int format : {1, 21}) {
        gAllocated.push_back(new GraphicBuffer(320, 240, format, 0x02001B33, "capture-fuzz"));
        gBuffers.push_back(gAllocated.back()->handle);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    int32_t id = -1;
    (void)gService->open([&id](CaptureReturn, int32_t handle) { id = handle; });
    for (size_t calls = 0; calls < kMaxCallsPerInput && in.size() > 0; ++calls) {
        const uint8_t op = in.take<uint8_t>();
        // Now and then a neighbouring identifier, open or not.
        const int32_t target = (op & 0x80) != 0 ? id + in.take<int8_t>() % 3 : id;
        if (op % 5 == 0) setCaptureInfo(target, in);
        if (op % 5 == 1) setCaptureFrameInfo(target, in);
        if (op % 5 == 2) query(target, in);
        if (op % 5 == 3) (void)gService->captureOnce(target);
        if (op % 5 == 4) SetProperty("vendor.zor.capture.forcegpu", (op & 8) != 0 ? "1" : "0");
    }
    (void)gService->close(id);
    // Nothing of this input reaches the next one.
    SetProperty("vendor.zor.capture.forcegpu", "0");
    std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
    for (int slot = 0; slot < kMaxCaptureSlots; ++slot) {
        mUseGpu[slot] = 0;
        mSrcFrameInfo[slot] = CaptureSrcFrameInfo{};
        mDstFrameInfo[slot] = CaptureDstFrameInfo{};
        mPqStreamInfo[slot].pqId = -1;
    }
    return 0;
}
