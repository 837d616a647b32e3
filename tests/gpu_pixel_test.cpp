// Pixels of the GPU path: conversions run through captureOnce on Mesa and the destination
// buffers compared with the CPU model of GpuReference.h, within its tolerances.
#include <ui/GrallocPrivate.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>

#include "CaptureLog.h"
#include "GpuReference.h"
#include "GpuTestUtil.h"
#include "TestUtil.h"

namespace {

using namespace capture_test;
using namespace gpu_reference;
using namespace gpu_test;

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

// A conversion through captureOnce, with the frame rows and flag that the capability query and
// setCaptureFrameInfo leave for a GPU instance (their own tests check those). Returns what
// went wrong, or "".
std::string convertAndCheck(Capture& service, int32_t id, const Request& c,
                            Comparison* comparison = nullptr) {
    auto failure = [&c](const std::string& why) { return nameOf(c) + ": " + why; };

    // The source, with padding bytes unlike any value of the pattern; the destination primed
    // with bytes the conversion must overwrite or, outside the frame, leave alone.
    const Image source = makePattern(c.srcFormat, c.srcWidth, c.srcHeight);
    android::sp<android::GraphicBuffer> src = allocate(c.srcFormat, c.srcWidth, c.srcHeight);
    android::sp<android::GraphicBuffer> dst = allocate(c.dstFormat, c.dstWidth, c.dstHeight);
    if (src == nullptr || dst == nullptr) return failure("the allocator refused a buffer");
    const int srcStride = gralloc_private_stride(src->handle);
    const int dstStride = gralloc_private_stride(dst->handle);
    bool sized = true;
    const bool filled = withMemory(src, [&](uint8_t* memory, size_t size) {
        sized = size >= layoutOf(c.srcFormat, c.srcHeight, srcStride).size;
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

    {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        CaptureSrcFrameInfo& srcRow = mSrcFrameInfo[slotOf(id)] = CaptureSrcFrameInfo{};
        CaptureDstFrameInfo& dstRow = mDstFrameInfo[slotOf(id)] = CaptureDstFrameInfo{};
        srcRow.width = c.srcWidth;
        srcRow.height = c.srcHeight;
        srcRow.format = static_cast<CaptureFormat>(describe(c.srcFormat).captureFormat);
        srcRow.buffer = hidl_handle(src->handle);
        dstRow.cropX = c.cropX;
        dstRow.cropY = c.cropY;
        dstRow.cropWidth = c.cropWidth;
        dstRow.cropHeight = c.cropHeight;
        dstRow.width = c.dstWidth;
        dstRow.height = c.dstHeight;
        dstRow.rotateAngle = c.rotation;
        dstRow.format = static_cast<CaptureFormat>(describe(c.dstFormat).captureFormat);
        dstRow.buffer = hidl_handle(dst->handle);
        mUseGpu[slotOf(id)] = 1;
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

    const Comparison result = compare(source, c, actual);
    if (comparison != nullptr) *comparison = result;
    if (result.compared == 0) return failure("no sample was compared");
    if (result.failing == 0) return "";
    return failure(std::to_string(result.failing) + " of " + std::to_string(result.compared) +
                   " samples beyond the tolerance; worst " + result.worst);
}

// The service on the sub-HAL double, with an instance open.
class GpuPixelTest : public ServiceTest {
protected:
    void SetUp() override {
        host_gl::keepDriverLoaded();
        ServiceTest::SetUp();
        // Refusals only: per-conversion traces would bury a failure's cause.
        __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 32u, __ATOMIC_RELAXED);
        ASSERT_NO_FATAL_FAILURE(loadLibrary());
        id = openInstance();
        ASSERT_TRUE(isValidCaptureId(id));
    }

    void expectConverts(const Request& c, Comparison* comparison = nullptr) {
        const std::string failure = convertAndCheck(*service, id, c, comparison);
        EXPECT_TRUE(failure.empty()) << failure << "\n" << log.dump();
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
            expectConverts(Request{srcFormat, dstFormat, 37, 29, 30, 22, 5, 3, 27, 19, rotation});
            // ... and downscaled from a crop that reaches the source's right and bottom edges.
            expectConverts(Request{srcFormat, dstFormat, 37, 29, 20, 14, 3, 7, 34, 22, rotation});
        }
    }
}

// Between right angles the turned quad leaves the corners of the destination uncovered: they
// keep the clear colour, opaque black for RGB and all-zero samples for YUV.
TEST_F(GpuPixelGeometryTest, CornersOutsideTheTurnedFrameKeepTheClearColour) {
    const Request cases[] = {
        Request{kRgba8888, kBgra8888, 40, 30, 40, 30, 3, 5, 31, 21, 30},
        Request{kRgb888, kYuyv, 40, 30, 36, 28, 1, 1, 37, 27, 300},
    };
    for (const Request& c : cases) {
        Comparison comparison;
        expectConverts(c, &comparison);
        EXPECT_GE(comparison.uncoveredCompared, 10u) << nameOf(c);
    }
}

TEST_F(GpuPixelGeometryTest, FullHdRgbaToNv12ThroughACrop) {
    expectConverts(Request{kRgba8888, kNv12, 1920, 1080, 1920, 1080, 161, 97, 1600, 900, 0});
}

using GpuPixelStressTest = GpuPixelTest;

// Conversions asked for on two slots from two threads at once: each gets its own frame, whatever
// the two set up and tear down of the process's one EGL display.
TEST_F(GpuPixelStressTest, TwoThreadsConvertOnTwoSlotsAtOnce) {
    const int32_t ids[2] = {id, openInstance()};
    ASSERT_TRUE(isValidCaptureId(ids[1]) && ids[0] != ids[1]);
    const std::vector<Request> work[2] = {
        {Request{kRgba8888, kNv12, 48, 32, 40, 24, 3, 1, 41, 29, 90},
         Request{kNv21, kBgra8888, 40, 30, 32, 32, 0, 0, 40, 30, 180},
         Request{kRgb565, kRgba8888, 33, 21, 33, 21, 0, 0, 33, 21, 270}},
        {Request{kYuyv, kNv16, 46, 30, 46, 30, 0, 0, 46, 30, 0},
         Request{kBgra8888, kYuv420_10, 40, 28, 32, 24, 5, 3, 30, 22, 90},
         Request{kNv12, kRgba1010102, 38, 26, 38, 26, 1, 1, 35, 23, 270}},
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
    EXPECT_EQ("", failures[0] + failures[1]) << log.dump();
}

}  // namespace
