// ICapture records decoded from the input, through setCaptureInfo, setCaptureFrameInfo,
// getCaptureCapabilityInfo and captureOnce of a service on the emulated hardware; the GPU path
// takes the conversions the query hands it (the input may force it).
#include <android-base/properties.h>
#include <sys/mman.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "Capture.h"
#include "FuzzInput.h"
#include "capture_emulator/Emulator.h"
#include "hostgl/HostGl.h"

using namespace ::vendor::quenlark::hardware::capture::V1_0;
using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using ::android::GraphicBuffer;
using capture_fuzz::Input;

namespace {

constexpr size_t kMaxCallsPerInput = 8;

sp<Capture> gService;
// Handles as clients send them, good and bad; they live as long as the process.
std::vector<hidl_handle>& gBuffers = *new std::vector<hidl_handle>;
std::vector<sp<GraphicBuffer>>& gAllocated = *new std::vector<sp<GraphicBuffer>>;

native_handle_t* memfdHandle(std::initializer_list<size_t> sizes) {
    native_handle_t* handle = native_handle_create(static_cast<int>(sizes.size()), 0);
    int i = 0;
    for (size_t size : sizes) {
        const int fd = memfd_create("capture-fuzz", MFD_CLOEXEC);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) abort();
        handle->data[i++] = fd;
    }
    return handle;
}

void makeBuffers() {
    gBuffers.emplace_back();  // none
    native_handle_t* closed = native_handle_create(1, 0);
    closed->data[0] = -1;
    gBuffers.emplace_back(closed);
    gBuffers.emplace_back(native_handle_create(0, 2));  // no descriptor at all
    gBuffers.emplace_back(memfdHandle({4096}));
    gBuffers.emplace_back(memfdHandle({4096, 1 << 20}));
    gBuffers.emplace_back(memfdHandle({1920 * 1080 * 4}));
    // Allocator buffers, as the GPU path's clients hand them: RGBA_8888 and NV12.
    for (int format : {1, 21}) {
        gAllocated.push_back(new GraphicBuffer(320, 240, format, 0x02001B33, "capture-fuzz"));
        gBuffers.emplace_back(gAllocated.back()->handle);
    }
}

// Sizes mostly of 16 bits; 0xFFFF announces a full 32-bit value.
uint32_t dim(Input& in) {
    const uint16_t value = in.take<uint16_t>();
    return value == 0xFFFF ? in.take<uint32_t>() : value;
}
// Small enumerations mostly; 0xFF announces a full 32-bit value.
uint32_t small(Input& in) {
    const uint8_t value = in.take<uint8_t>();
    return value == 0xFF ? in.take<uint32_t>() : value;
}
// One CaptureFormat bit mostly, else any value.
uint32_t format(Input& in) {
    const uint8_t bit = in.take<uint8_t>();
    return bit < 25 ? 1u << bit : in.take<uint32_t>();
}
const hidl_handle& buffer(Input& in) { return gBuffers[in.take<uint8_t>() % gBuffers.size()]; }
hidl_vec<uint32_t> offsets(Input& in) {
    hidl_vec<uint32_t> values(in.take<uint8_t>() % 4);
    for (uint32_t& v : values) v = dim(in);
    return values;
}

void setCaptureInfo(int32_t id, Input& in) {
    CaptureInfo info{};
    info.capPoint = static_cast<CapturePoint>(small(in));
    info.pqId = in.take<int8_t>();
    info.pqWinId = in.take<int8_t>();
    info.srcWidth = dim(in);
    info.srcHeight = dim(in);
    info.srcFmt = in.take<uint8_t>();
    info.hwEngine = in.take<uint8_t>();
    info.srcFps = small(in);
    info.srcFlag = small(in);
    info.cropX = dim(in);
    info.cropY = dim(in);
    info.cropWidth = dim(in);
    info.cropHeight = dim(in);
    info.dstWidth = dim(in);
    info.dstHeight = dim(in);
    info.dstFps = small(in);
    info.dstFmt = static_cast<CaptureFormat>(format(in));
    info.dstFlag = small(in);
    info.colorSpace = static_cast<CaptureColorSpace>(small(in));
    info.dstBuffer = buffer(in);
    info.secureBuffer = static_cast<SecureBufferCfg>(in.take<uint8_t>());
    info.bandwidth = static_cast<BandwidthCfg>(in.take<uint8_t>());
    in.fill(&info.b2rRbSwapped, 1);  // any byte, as it may arrive
    (void)gService->setCaptureInfo(id, info);
}

void setCaptureFrameInfo(int32_t id, Input& in) {
    CaptureSrcFrameInfo src{};
    src.width = dim(in);
    src.height = dim(in);
    src.format = static_cast<CaptureFormat>(format(in));
    src.colorSpace = static_cast<CaptureColorSpace>(small(in));
    src.buffer = buffer(in);
    src.vPlaneOffset = offsets(in);
    src.colorimetry = small(in);
    CaptureDstFrameInfo dst{};
    dst.cropX = dim(in);
    dst.cropY = dim(in);
    dst.cropWidth = dim(in);
    dst.cropHeight = dim(in);
    dst.width = dim(in);
    dst.height = dim(in);
    dst.pitch = dim(in);
    const uint8_t turn = in.take<uint8_t>();
    dst.rotateAngle = turn < 4 ? turn * 90u : in.take<uint32_t>();
    dst.format = static_cast<CaptureFormat>(format(in));
    dst.colorSpace = static_cast<CaptureColorSpace>(small(in));
    dst.buffer = buffer(in);
    dst.vPlaneOffset = offsets(in);
    dst.colorimetry = static_cast<CaptureColorimetry>(small(in));
    (void)gService->setCaptureFrameInfo(id, src, dst, [](CaptureReturn, const hidl_vec<uint32_t>&) {});
}

void query(int32_t id, Input& in) {
    setQueryInfo q{};
    q.src_width = dim(in);
    q.src_height = dim(in);
    q.src_format = static_cast<CaptureFormat>(format(in));
    q.dst_width = dim(in);
    q.dst_height = dim(in);
    q.dst_format = static_cast<CaptureFormat>(format(in));
    const uint8_t turn = in.take<uint8_t>();
    q.rotationAngle = turn < 4 ? turn * 90u : in.take<uint32_t>();
    q.crop_x = dim(in);
    q.crop_y = dim(in);
    q.crop_width = dim(in);
    q.crop_height = dim(in);
    q.captureType = in.take<uint8_t>();
    (void)gService->getCaptureCapabilityInfo(id, q, [](CaptureReturn, const getQueryInfo&) {});
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    capture_fuzz::quietLogs();
    // Mesa's driver would otherwise be unloaded at the end of every conversion, taking the
    // names of what it keeps for the process with it.
    host_gl::keepDriverLoaded();
    setenv("CAPTURE_SUBHAL_PATH", CAPTURE_EMULATOR_LIBRARY, 1);
    setenv("CAPTURE_DEVICE_TREE_ROOT", CAPTURE_EMULATOR_DEVICE_TREE, 1);
    if (capture_emulator::registerPqService() != ::android::OK) abort();
    gService = new Capture();
    if (gService->initLib() != CaptureReturn::SUCCESS) abort();
    makeBuffers();
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
        switch (op % 5) {
            case 0: setCaptureInfo(target, in); break;
            case 1: setCaptureFrameInfo(target, in); break;
            case 2: query(target, in); break;
            case 3: (void)gService->captureOnce(target); break;
            case 4:
                android::base::SetProperty("vendor.zor.capture.forcegpu", (op & 8) ? "1" : "0");
                break;
        }
    }
    (void)gService->close(id);
    // Nothing of this input reaches the next one.
    android::base::SetProperty("vendor.zor.capture.forcegpu", "0");
    std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
    for (int slot = 0; slot < kMaxCaptureSlots; ++slot) {
        mUseGpu[slot] = 0;
        mSrcFrameInfo[slot] = CaptureSrcFrameInfo{};
        mDstFrameInfo[slot] = CaptureDstFrameInfo{};
        mPqStreamInfo[slot].pqId = -1;
    }
    return 0;
}
