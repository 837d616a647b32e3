// Pixels of the GPU path: conversions run through captureOnce on Mesa and the destination
// buffers compared with the CPU model of GpuReference.h.
//
// Tolerance: 2 codes for 8-bit channels, 8 for 10-bit ones (the same share of the range), one
// code for the narrower channels of RGB_565 and the 2-bit alpha, 2/255 for half floats. Chroma
// is compared per chroma sample. Resampled frames leave out a 2-pixel border, where clamping
// and rasterisation rules leave room; frames drawn at their own size are compared whole.
#include <android-base/properties.h>
#include <sys/stat.h>
#include <ui/GrallocPrivate.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "CaptureLog.h"
#include "EnumMapping.h"
#include "GpuReference.h"
#include "GpuTestUtil.h"
#include "TestUtil.h"

namespace {

using namespace capture_test;
using namespace gpu_reference;
using ::android::GraphicBuffer;
using ::android::sp;

constexpr char kForceGpuProperty[] = "vendor.zor.capture.forcegpu";
// CPU read and write, GPU texture and render target, composer: what a capture client asks for.
constexpr uint32_t kClientUsage = 0x02001B33;

// One conversion as a client describes it.
struct Case {
    uint32_t srcFormat;
    uint32_t dstFormat;
    int srcWidth;
    int srcHeight;
    int dstWidth;
    int dstHeight;
    int cropX;
    int cropY;
    int cropWidth;
    int cropHeight;
    uint32_t rotation;
    int seed;
    int border;  // pixels left out at each edge

    std::string name() const {
        char text[160];
        snprintf(text, sizeof(text), "%s %dx%d -> %s %dx%d, crop (%d,%d %dx%d), %u deg",
                 describe(srcFormat).name, srcWidth, srcHeight, describe(dstFormat).name, dstWidth,
                 dstHeight, cropX, cropY, cropWidth, cropHeight, rotation);
        return text;
    }
};

// A frame drawn at its own size: every pixel samples exactly one texel.
Case sameSize(uint32_t srcFormat, uint32_t dstFormat, int width, int height) {
    return {srcFormat, dstFormat, width, height, width, height, 0, 0, width, height, 0, 0, 0};
}

Case resampled(uint32_t srcFormat, uint32_t dstFormat, int srcWidth, int srcHeight, int dstWidth,
               int dstHeight, int cropX, int cropY, int cropWidth, int cropHeight,
               uint32_t rotation, int seed = 0) {
    return {srcFormat, dstFormat, srcWidth,   srcHeight, dstWidth, dstHeight, cropX,
            cropY,     cropWidth, cropHeight, rotation,  seed,     2};
}

sp<GraphicBuffer> allocate(uint32_t format, int width, int height) {
    sp<GraphicBuffer> buffer =
        new GraphicBuffer(width, height, static_cast<int32_t>(format), kClientUsage, "pixel-test");
    return buffer->initCheck() == ::android::NO_ERROR ? buffer : nullptr;
}

// Runs `use` on the buffer's whole memory; false when it cannot be mapped.
bool withMemory(const sp<GraphicBuffer>& buffer, const std::function<void(uint8_t*, size_t)>& use) {
    struct stat st;
    void* memory = nullptr;
    if (fstat(buffer->handle->data[0], &st) != 0 || buffer->lock(0x33, &memory) != 0) {
        return false;
    }
    use(static_cast<uint8_t*>(memory), static_cast<size_t>(st.st_size));
    buffer->unlock();
    return true;
}

// Conversions below a few right angles go through the client's calls: the capability query
// (with the GPU forced) marks the instance, setCaptureFrameInfo keeps the frames, captureOnce
// draws. setCaptureFrameInfo refuses formats the sub-HAL does not know (RGBA_FP16, YV12) and
// angles other than right ones even for GPU instances, so those frames are kept in the slot's
// rows directly, as setCaptureFrameInfo would have kept them.
std::string convertAndCheck(Capture& service, int32_t id, const Case& c,
                            Comparison* comparison = nullptr) {
    const std::string name = c.name();
    auto failure = [&name](const std::string& why) { return name + ": " + why; };
    const FormatDesc& sf = describe(c.srcFormat);
    const FormatDesc& df = describe(c.dstFormat);

    // The source, with padding bytes unlike any value of the pattern.
    const Image source = makePattern(c.srcFormat, c.srcWidth, c.srcHeight, c.seed);
    sp<GraphicBuffer> src = allocate(c.srcFormat, c.srcWidth, c.srcHeight);
    sp<GraphicBuffer> dst = allocate(c.dstFormat, c.dstWidth, c.dstHeight);
    if (src == nullptr || dst == nullptr) return failure("the allocator refused a buffer");
    const int srcStride = gralloc_private_stride(src->handle);
    const int dstStride = gralloc_private_stride(dst->handle);
    const Layout srcLayout = layoutOf(c.srcFormat, c.srcHeight, srcStride);
    bool sized = true;
    const bool filled = withMemory(src, [&](uint8_t* memory, size_t size) {
        sized = size >= srcLayout.size;
        if (!sized) return;
        memset(memory, 0xE7, size);
        pack(source, srcStride, memory);
    });
    std::vector<uint8_t> before;
    const bool primed = withMemory(dst, [&](uint8_t* memory, size_t size) {
        sized = sized && size >= layoutOf(c.dstFormat, c.dstHeight, dstStride).size;
        for (size_t i = 0; i < size; ++i) memory[i] = static_cast<uint8_t>(i * 29 + 7);
        before.assign(memory, memory + size);
    });
    if (!filled || !primed) return failure("a buffer could not be mapped");
    if (!sized) return failure("a buffer is smaller than its documented layout");

    const bool rightAngle = c.rotation % 90 == 0;
    setQueryInfo query{};
    query.src_width = c.srcWidth;
    query.src_height = c.srcHeight;
    query.src_format = static_cast<CaptureFormat>(sf.captureFormat);
    query.dst_width = c.dstWidth;
    query.dst_height = c.dstHeight;
    query.dst_format = static_cast<CaptureFormat>(df.captureFormat);
    query.rotationAngle = rightAngle ? c.rotation : 0;
    query.crop_x = c.cropX;
    query.crop_y = c.cropY;
    query.crop_width = c.cropWidth;
    query.crop_height = c.cropHeight;
    query.captureType = 1;  // memory to memory: the only kind with a GPU fallback
    CaptureReturn code = CaptureReturn::FAIL;
    getQueryInfo answer{};
    service.getCaptureCapabilityInfo(id, query, [&](CaptureReturn r, const getQueryInfo& a) {
        code = r;
        answer = a;
    });
    if (code != CaptureReturn::SUCCESS || answer.useGpu != 1 ||
        answer.gpuSrcFormat != c.srcFormat || answer.gpuDstFormat != c.dstFormat) {
        return failure("the capability query did not choose the GPU for these formats");
    }

    CaptureSrcFrameInfo srcInfo{};
    srcInfo.width = c.srcWidth;
    srcInfo.height = c.srcHeight;
    srcInfo.format = query.src_format;
    srcInfo.buffer = hidl_handle(src->handle);
    srcInfo.vPlaneOffset = std::vector<uint32_t>{0, static_cast<uint32_t>(srcLayout.chromaOffset)};
    CaptureDstFrameInfo dstInfo{};
    dstInfo.cropX = c.cropX;
    dstInfo.cropY = c.cropY;
    dstInfo.cropWidth = c.cropWidth;
    dstInfo.cropHeight = c.cropHeight;
    dstInfo.width = c.dstWidth;
    dstInfo.height = c.dstHeight;
    dstInfo.pitch = dstStride;
    dstInfo.rotateAngle = c.rotation;
    dstInfo.format = query.dst_format;
    dstInfo.buffer = hidl_handle(dst->handle);
    if (rightAngle && formatMapping(sf.captureFormat) != kVxFormatUnknown &&
        formatMapping(df.captureFormat) != kVxFormatUnknown) {
        service.setCaptureFrameInfo(id, srcInfo, dstInfo,
                                    [&](CaptureReturn r, const hidl_vec<uint32_t>&) { code = r; });
        if (code != CaptureReturn::SUCCESS) return failure("setCaptureFrameInfo refused");
    } else {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        mSrcFrameInfo[slotOf(id)] = srcInfo;
        mDstFrameInfo[slotOf(id)] = dstInfo;
    }
    code = service.captureOnce(id);
    if (code != CaptureReturn::SUCCESS) return failure("captureOnce refused");

    std::vector<uint8_t> after;
    withMemory(dst, [&](uint8_t* memory, size_t size) { after.assign(memory, memory + size); });
    if (after.size() != before.size()) return failure("the destination could not be read back");
    for (size_t offset : paddingBytes(c.dstFormat, c.dstWidth, c.dstHeight, dstStride)) {
        if (after[offset] != before[offset]) {
            return failure("row padding written at byte " + std::to_string(offset) + " (" +
                           std::to_string(before[offset]) + " -> " + std::to_string(after[offset]) +
                           ")");
        }
    }

    Request request;
    request.srcWidth = c.srcWidth;
    request.srcHeight = c.srcHeight;
    request.dstWidth = c.dstWidth;
    request.dstHeight = c.dstHeight;
    request.cropX = c.cropX;
    request.cropY = c.cropY;
    request.cropWidth = c.cropWidth;
    request.cropHeight = c.cropHeight;
    request.rotation = c.rotation;
    request.dstFormat = c.dstFormat;
    const Comparison result =
        compare(predict(source, request),
                unpack(c.dstFormat, c.dstWidth, c.dstHeight, dstStride, after.data()), c.border);
    if (comparison != nullptr) *comparison = result;
    if (result.compared == 0) return failure("no sample was compared");
    return result.ok() ? std::string() : failure(result.describe());
}

// The service on the sub-HAL double with the GPU forced for memory-to-memory conversions.
class GpuPixelTest : public ServiceTest {
protected:
    void SetUp() override {
        gpu_test::keepMesaDriverLoaded();
        ServiceTest::SetUp();
        // Refusals only: per-conversion traces would bury a failure's cause.
        __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 32u, __ATOMIC_RELAXED);
        ::android::base::SetProperty(kForceGpuProperty, "1");
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
    }

    void TearDown() override {
        if (HasFailure()) {
            for (const LogLine& line : log.lines()) {
                if (line.priority >= ANDROID_LOG_WARN) printf("  log: %s\n", line.message.c_str());
            }
        }
        ServiceTest::TearDown();
    }

    int32_t open() { return openInstance(); }

    std::string convert(int32_t id, const Case& c, Comparison* comparison = nullptr) {
        return convertAndCheck(*service, id, c, comparison);
    }
};

std::vector<uint32_t> halFormats() {
    std::vector<uint32_t> formats;
    for (const FormatDesc& f : allFormats()) formats.push_back(f.hal);
    return formats;
}

std::string formatName(const ::testing::TestParamInfo<uint32_t>& info) {
    return describe(info.param).name;
}

// Every destination format from one source format, at odd sizes so that the last chroma
// blocks are partial: each conversion kind and every packing, both ways.
class GpuPixelMatrixTest : public GpuPixelTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(GpuPixelMatrixTest, EveryDestinationFormat) {
    const int32_t id = open();
    ASSERT_TRUE(isValidCaptureId(id));
    for (const FormatDesc& dst : allFormats()) {
        const std::string failure = convert(id, sameSize(GetParam(), dst.hal, 23, 15));
        EXPECT_TRUE(failure.empty()) << failure;
    }
}

INSTANTIATE_TEST_SUITE_P(FromEverySource, GpuPixelMatrixTest, ::testing::ValuesIn(halFormats()),
                         formatName);

// Quarter-turns of a crop at odd offsets, scaled up and down, for one pair of each kind.
class GpuPixelGeometryTest : public GpuPixelTest,
                             public ::testing::WithParamInterface<std::pair<uint32_t, uint32_t>> {};

TEST_P(GpuPixelGeometryTest, CropsScaleAndTurn) {
    const auto [srcFormat, dstFormat] = GetParam();
    const int32_t id = open();
    ASSERT_TRUE(isValidCaptureId(id));
    for (uint32_t rotation : {0u, 90u, 180u, 270u}) {
        // Upscaled, the crop narrower than the destination is wide...
        const std::string up =
            convert(id, resampled(srcFormat, dstFormat, 37, 29, 30, 22, 5, 3, 27, 19, rotation));
        EXPECT_TRUE(up.empty()) << up;
        // ... and downscaled from a crop that reaches the source's right and bottom edges.
        const std::string down =
            convert(id, resampled(srcFormat, dstFormat, 37, 29, 20, 14, 3, 7, 34, 22, rotation, 1));
        EXPECT_TRUE(down.empty()) << down;
    }
}

INSTANTIATE_TEST_SUITE_P(OnePairOfEachKind, GpuPixelGeometryTest,
                         ::testing::Values(std::make_pair(kRgba8888, kRgba8888),
                                           std::make_pair(kRgb888, kNv21),
                                           std::make_pair(kNv12, kBgra8888),
                                           std::make_pair(kYuv422_10, kNv12)),
                         [](const ::testing::TestParamInfo<std::pair<uint32_t, uint32_t>>& info) {
                             return std::string(describe(info.param.first).name) + "_to_" +
                                    describe(info.param.second).name;
                         });

using GpuPixelAngleTest = GpuPixelTest;

// Between right angles the turned quad leaves the corners of the destination uncovered: they
// keep the clear colour, opaque black for RGB and all-zero samples for YUV.
TEST_F(GpuPixelAngleTest, CornersOutsideTheTurnedFrameKeepTheClearColour) {
    const int32_t id = open();
    ASSERT_TRUE(isValidCaptureId(id));
    const Case cases[] = {
        resampled(kRgba8888, kBgra8888, 40, 30, 40, 30, 3, 5, 31, 21, 30),
        resampled(kNv21, kNv12, 40, 30, 40, 30, 0, 0, 40, 30, 45),
        resampled(kRgb888, kYuyv, 40, 30, 36, 28, 1, 1, 37, 27, 300),
    };
    for (const Case& c : cases) {
        Comparison comparison;
        const std::string failure = convert(id, c, &comparison);
        EXPECT_TRUE(failure.empty()) << failure;
        EXPECT_GE(comparison.uncoveredCompared, 10u) << c.name();
    }
}

using GpuPixelLargeTest = GpuPixelTest;

TEST_F(GpuPixelLargeTest, FullHdRgbaToNv12ThroughACrop) {
    const int32_t id = open();
    ASSERT_TRUE(isValidCaptureId(id));
    const std::string failure =
        convert(id, resampled(kRgba8888, kNv12, 1920, 1080, 1920, 1080, 161, 97, 1600, 900, 0, 2));
    EXPECT_TRUE(failure.empty()) << failure;
}

using GpuPixelStressTest = GpuPixelTest;

// Conversions asked for on two slots from two threads at once: each gets its own frame, whatever
// the two set up and tear down of the process's one EGL display.
TEST_F(GpuPixelStressTest, TwoThreadsConvertOnTwoSlotsAtOnce) {
    const int32_t ids[2] = {open(), open()};
    ASSERT_TRUE(isValidCaptureId(ids[0]) && isValidCaptureId(ids[1]) && ids[0] != ids[1]);
    const std::vector<Case> work[2] = {
        {resampled(kRgba8888, kNv12, 48, 32, 40, 24, 3, 1, 41, 29, 90, 0),
         resampled(kNv21, kBgra8888, 40, 30, 32, 32, 0, 0, 40, 30, 180, 1),
         resampled(kRgb565, kRgba8888, 33, 21, 33, 21, 0, 0, 33, 21, 270, 2)},
        {resampled(kYuyv, kNv16, 46, 30, 46, 30, 0, 0, 46, 30, 0, 1),
         resampled(kBgra8888, kYuv420_10, 40, 28, 32, 24, 5, 3, 30, 22, 90, 2),
         resampled(kNv12, kRgba1010102, 38, 26, 38, 26, 1, 1, 35, 23, 270, 0)},
    };
    std::string failures[2];
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t]() {
            ++ready;
            while (ready.load() < 2) std::this_thread::yield();
            for (const Case& c : work[t]) {
                const std::string failure = convertAndCheck(*service, ids[t], c);
                if (!failure.empty()) failures[t] += failure + "\n";
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ("", failures[0]);
    EXPECT_EQ("", failures[1]);
}

}  // namespace
