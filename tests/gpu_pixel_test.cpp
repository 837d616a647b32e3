// Pixels of the GPU path: conversions run through captureOnce on Mesa and the destination
// buffers compared with the CPU model of GpuReference.h.
//
// Tolerance: 2 codes for 8-bit channels, 8 for 10-bit ones (the same share of the range), one
// code for the narrower channels of RGB_565 and the 2-bit alpha, 2/255 for half floats. Chroma
// is compared per chroma sample. Resampled frames leave out a 2-pixel border, where clamping
// and rasterisation rules leave room; frames drawn at their own size are compared whole.
#include <android-base/properties.h>
#include <ui/GrallocPrivate.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
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
using gpu_test::allocate;
using gpu_test::contents;
using gpu_test::withMemory;

std::string nameOf(const Request& r) {
    char text[160];
    snprintf(text, sizeof(text), "%s %dx%d -> %s %dx%d, crop (%d,%d %dx%d), %u deg",
             describe(r.srcFormat).name, r.srcWidth, r.srcHeight, describe(r.dstFormat).name,
             r.dstWidth, r.dstHeight, r.cropX, r.cropY, r.cropWidth, r.cropHeight, r.rotation);
    return text;
}

// A frame drawn at its own size: every pixel samples exactly one texel.
Request sameSize(uint32_t srcFormat, uint32_t dstFormat, int width, int height) {
    return {srcFormat, dstFormat, width, height, width, height, 0, 0, width, height, 0};
}

Request resampled(uint32_t srcFormat, uint32_t dstFormat, int srcWidth, int srcHeight, int dstWidth,
                  int dstHeight, int cropX, int cropY, int cropWidth, int cropHeight,
                  uint32_t rotation) {
    return {srcFormat, dstFormat, srcWidth,  srcHeight,  dstWidth, dstHeight,
            cropX,     cropY,     cropWidth, cropHeight, rotation};
}

// Conversions below a few right angles go through the client's calls: the capability query
// (with the GPU forced) marks the instance, setCaptureFrameInfo keeps the frames, captureOnce
// draws. setCaptureFrameInfo refuses formats the sub-HAL does not know (RGBA_FP16, YV12) and
// angles other than right ones even for GPU instances, so those frames are kept in the slot's
// rows directly, as setCaptureFrameInfo would have kept them. Returns what went wrong, or "".
std::string convertAndCheck(Capture& service, int32_t id, const Request& c,
                            Comparison* comparison = nullptr) {
    auto failure = [&c](const std::string& why) { return nameOf(c) + ": " + why; };
    const FormatDesc& sf = describe(c.srcFormat);
    const FormatDesc& df = describe(c.dstFormat);

    // The source, with padding bytes unlike any value of the pattern; the destination primed
    // with bytes the conversion must overwrite or, outside the frame, leave alone.
    const Image source = makePattern(c.srcFormat, c.srcWidth, c.srcHeight);
    android::sp<android::GraphicBuffer> src = allocate(c.srcFormat, c.srcWidth, c.srcHeight);
    android::sp<android::GraphicBuffer> dst = allocate(c.dstFormat, c.dstWidth, c.dstHeight);
    if (src == nullptr || dst == nullptr) return failure("the allocator refused a buffer");
    const int srcStride = gralloc_private_stride(src->handle);
    const int dstStride = gralloc_private_stride(dst->handle);
    const Layout srcLayout = layoutOf(c.srcFormat, c.srcHeight, srcStride);
    bool sized = true;
    const bool filled = withMemory(src, [&](uint8_t* memory, size_t size) {
        sized = size >= srcLayout.size;
        memset(memory, 0xE7, size);
        if (sized) pack(source, srcStride, memory);
    });
    withMemory(dst, [&](uint8_t* memory, size_t size) {
        sized = sized && size >= layoutOf(c.dstFormat, c.dstHeight, dstStride).size;
        for (size_t i = 0; i < size; ++i) memory[i] = static_cast<uint8_t>(i * 29 + 7);
    });
    const std::vector<uint8_t> before = contents(dst);
    if (!filled || before.empty()) return failure("a buffer could not be mapped");
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
    if (service.captureOnce(id) != CaptureReturn::SUCCESS) return failure("captureOnce refused");

    const std::vector<uint8_t> after = contents(dst);
    if (after.size() != before.size()) return failure("the destination could not be read back");
    const Image actual = unpack(c.dstFormat, c.dstWidth, c.dstHeight, dstStride, after.data());
    // Packing what was read over the primed bytes gives back every byte the conversion left:
    // a difference is a byte outside the frame's samples (row padding) that it wrote.
    std::vector<uint8_t> repacked = before;
    pack(actual, dstStride, repacked.data());
    const auto written = std::mismatch(repacked.begin(), repacked.end(), after.begin()).first;
    if (written != repacked.end()) {
        return failure("a byte outside the frame written at offset " +
                       std::to_string(written - repacked.begin()));
    }

    const bool whole = c.srcWidth == c.dstWidth && c.srcHeight == c.dstHeight &&
                       c.cropWidth == c.srcWidth && c.cropHeight == c.srcHeight && c.rotation == 0;
    const Comparison result = compare(predict(source, c), actual, whole ? 0 : 2);
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
        ::android::base::SetProperty("vendor.zor.capture.forcegpu", "1");
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        id = openInstance();
        ASSERT_TRUE(isValidCaptureId(id));
    }

    void TearDown() override {
        if (HasFailure()) {
            for (const LogLine& line : log.lines()) {
                if (line.priority >= ANDROID_LOG_WARN) printf("  log: %s\n", line.message.c_str());
            }
        }
        ServiceTest::TearDown();
    }

    void expectConverts(const Request& c, Comparison* comparison = nullptr) {
        const std::string failure = convertAndCheck(*service, id, c, comparison);
        EXPECT_TRUE(failure.empty()) << failure;
    }

    int32_t id = -1;
};

using GpuPixelFormatTest = GpuPixelTest;

// Every format read as a source into one of the other kind (so that a format taken for the
// wrong kind changes the shader) and written as a destination, plus one conversion of each of
// RGB to RGB and YUV to YUV. Odd sizes leave the last chroma blocks partial.
TEST_F(GpuPixelFormatTest, EveryFormatAsSourceAndAsDestination) {
    const std::pair<uint32_t, uint32_t> pairs[] = {
        {kRgba8888, kYuyv},    {kBgra8888, kYuv422_10}, {kRgbaFp16, kNv16},
        {kRgba1010102, kNv12}, {kRgb565, kNv21},        {kRgb888, kYuv420_10},
        {kYuyv, kRgba8888},    {kYuv422_10, kBgra8888}, {kNv16, kRgbaFp16},
        {kNv12, kRgba1010102}, {kNv21, kRgb565},        {kYuv420_10, kRgb888},
        {kYv12, kBgra8888},    {kNv21, kYv12},          {kRgbaFp16, kRgba1010102},
    };
    for (const auto& [srcFormat, dstFormat] : pairs) {
        expectConverts(sameSize(srcFormat, dstFormat, 23, 15));
    }
}

using GpuPixelGeometryTest = GpuPixelTest;

// Quarter-turns of a crop at odd offsets, scaled up and down, for one pair of each kind.
TEST_F(GpuPixelGeometryTest, CropsScaleAndTurnByQuarters) {
    const std::pair<uint32_t, uint32_t> pairs[] = {
        {kRgba8888, kRgba8888}, {kRgb888, kNv21}, {kNv12, kBgra8888}, {kYuv422_10, kNv12}};
    for (const auto& [srcFormat, dstFormat] : pairs) {
        for (uint32_t rotation : {0u, 90u, 180u, 270u}) {
            // Upscaled, the crop narrower than the destination is wide...
            expectConverts(resampled(srcFormat, dstFormat, 37, 29, 30, 22, 5, 3, 27, 19, rotation));
            // ... and downscaled from a crop that reaches the source's right and bottom edges.
            expectConverts(resampled(srcFormat, dstFormat, 37, 29, 20, 14, 3, 7, 34, 22, rotation));
        }
    }
}

// Between right angles the turned quad leaves the corners of the destination uncovered: they
// keep the clear colour, opaque black for RGB and all-zero samples for YUV.
TEST_F(GpuPixelGeometryTest, CornersOutsideTheTurnedFrameKeepTheClearColour) {
    const Request cases[] = {
        resampled(kRgba8888, kBgra8888, 40, 30, 40, 30, 3, 5, 31, 21, 30),
        resampled(kRgb888, kYuyv, 40, 30, 36, 28, 1, 1, 37, 27, 300),
    };
    for (const Request& c : cases) {
        Comparison comparison;
        expectConverts(c, &comparison);
        EXPECT_GE(comparison.uncoveredCompared, 10u) << nameOf(c);
    }
}

TEST_F(GpuPixelGeometryTest, FullHdRgbaToNv12ThroughACrop) {
    expectConverts(resampled(kRgba8888, kNv12, 1920, 1080, 1920, 1080, 161, 97, 1600, 900, 0));
}

using GpuPixelStressTest = GpuPixelTest;

// Conversions asked for on two slots from two threads at once: each gets its own frame, whatever
// the two set up and tear down of the process's one EGL display.
TEST_F(GpuPixelStressTest, TwoThreadsConvertOnTwoSlotsAtOnce) {
    const int32_t ids[2] = {id, openInstance()};
    ASSERT_TRUE(isValidCaptureId(ids[1]) && ids[0] != ids[1]);
    const std::vector<Request> work[2] = {
        {resampled(kRgba8888, kNv12, 48, 32, 40, 24, 3, 1, 41, 29, 90),
         resampled(kNv21, kBgra8888, 40, 30, 32, 32, 0, 0, 40, 30, 180),
         resampled(kRgb565, kRgba8888, 33, 21, 33, 21, 0, 0, 33, 21, 270)},
        {resampled(kYuyv, kNv16, 46, 30, 46, 30, 0, 0, 46, 30, 0),
         resampled(kBgra8888, kYuv420_10, 40, 28, 32, 24, 5, 3, 30, 22, 90),
         resampled(kNv12, kRgba1010102, 38, 26, 38, 26, 1, 1, 35, 23, 270)},
    };
    std::string failures[2];
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t]() {
            ++ready;
            while (ready.load() < 2) std::this_thread::yield();
            for (const Request& c : work[t]) {
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
