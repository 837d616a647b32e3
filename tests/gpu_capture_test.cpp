// captureOnce's GPU branch on the kept frame rows, with real buffers and Mesa.
#include <EGL/egl.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <ui/GrallocPrivate.h>

#include <mutex>
#include <string>
#include <vector>

#include "Capture.h"
#include "CaptureLog.h"
#include "GpuTestUtil.h"
#include "TestUtil.h"
#include "gpu_draw.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

struct GpuCaptureTestPeer {
    static CaptureReturn captureOnceGpu(int32_t captureId) {
        return Capture::captureOnceGpu(captureId);
    }
};

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor

namespace {

using namespace capture_test;
using gpu_test::GraphicBuffer;
using gpu_test::makeFilledBuffer;
using gpu_test::sp;

constexpr int kSlot = 5;
constexpr int32_t kCaptureId = kCaptureIdBase + kSlot;

// What a client configures for one GPU conversion.
struct Frames {
    CaptureFormat srcFormat = CaptureFormat::NV12;
    uint32_t srcWidth = 64;
    uint32_t srcHeight = 32;
    sp<GraphicBuffer> src;
    CaptureFormat dstFormat = CaptureFormat::ARGB8888;
    uint32_t dstWidth = 32;
    uint32_t dstHeight = 32;
    uint32_t rotation = 0;
    sp<GraphicBuffer> dst;
};

class GpuCaptureTest : public ServiceTest {
protected:
    void SetUp() override {
        gpu_test::keepMesaDriverLoaded();
        ServiceTest::SetUp();
    }

    // The rows setCaptureFrameInfo keeps for a GPU instance, with the flag set.
    static void keepRows(const Frames& f) {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        CaptureSrcFrameInfo& src = mSrcFrameInfo[kSlot];
        src = CaptureSrcFrameInfo{};
        src.width = f.srcWidth;
        src.height = f.srcHeight;
        src.format = f.srcFormat;
        // Copying a hidl_handle clones it: the row owns its handle, like a configured one.
        const hidl_handle srcBorrowed(f.src != nullptr ? f.src->handle : nullptr);
        src.buffer = srcBorrowed;
        CaptureDstFrameInfo& dst = mDstFrameInfo[kSlot];
        dst = CaptureDstFrameInfo{};
        dst.cropWidth = f.srcWidth;
        dst.cropHeight = f.srcHeight;
        dst.width = f.dstWidth;
        dst.height = f.dstHeight;
        dst.rotateAngle = f.rotation;
        dst.format = f.dstFormat;
        const hidl_handle dstBorrowed(f.dst != nullptr ? f.dst->handle : nullptr);
        dst.buffer = dstBorrowed;
        mUseGpu[kSlot] = 1;
    }

    static bool rowsAreClear() {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        const CaptureSrcFrameInfo& src = mSrcFrameInfo[kSlot];
        const CaptureDstFrameInfo& dst = mDstFrameInfo[kSlot];
        return src.width == 0 && src.height == 0 && static_cast<uint32_t>(src.format) == 0 &&
               src.buffer.getNativeHandle() == nullptr && dst.width == 0 && dst.height == 0 &&
               static_cast<uint32_t>(dst.format) == 0 && dst.buffer.getNativeHandle() == nullptr;
    }

    static Frames smallFrames() {
        Frames f;
        f.src = makeFilledBuffer(f.srcWidth, f.srcHeight, GRALLOC_PRIVATE_FORMAT_NV12, 3);
        f.dst = makeFilledBuffer(f.dstWidth, f.dstHeight, HAL_PIXEL_FORMAT_RGBA_8888, 4);
        return f;
    }

    CaptureReturn captureOnce(int32_t captureId) {
        return static_cast<CaptureReturn>(service->captureOnce(captureId));
    }
};

TEST_F(GpuCaptureTest, ConvertsTheKeptRowsAndClearsTheFlag) {
    const Frames frames = smallFrames();
    ASSERT_NE(nullptr, frames.src);
    keepRows(frames);
    const int fdsBefore = countOpenFds();

    EXPECT_EQ(CaptureReturn::SUCCESS, GpuCaptureTestPeer::captureOnceGpu(kCaptureId));

    EXPECT_EQ(0, mUseGpu[kSlot]);
    const LogLine formats = log.find("mFeaturein->src_format[");
    EXPECT_EQ(ANDROID_LOG_INFO, formats.priority);
    EXPECT_EQ("mFeaturein->src_format[21], mFeaturein->dst_format[1]",
              stripLogPrefix(formats.message));
    // The service's level is handed to the GPU path, so its debug lines are there too.
    EXPECT_EQ(64u, GPU_LOG_LEVEL);
    EXPECT_EQ(1u, log.countExact("gpu_format_covert_type: 2 ")) << log.dump();
    EXPECT_EQ(1u, log.countExact("debug postion 5"));
    EXPECT_EQ(1u, log.countExact("GpuPhotoFeatureIn Destructor"));
    EXPECT_EQ(1u, log.countExact("GpuDrawing Destructor"));
    // Every clone made for the conversion is closed again.
    EXPECT_EQ(fdsBefore, countOpenFds());
    // Resetting the rows is captureOnce's own last step, not the branch's.
    std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
    EXPECT_NE(nullptr, mSrcFrameInfo[kSlot].buffer.getNativeHandle());
}

TEST_F(GpuCaptureTest, ConversionTypeFollowsWhetherEachSideIsRgb) {
    struct Case {
        CaptureFormat src;
        CaptureFormat dst;
        int type;
    };
    const Case cases[] = {
        {CaptureFormat::ARGB8888, CaptureFormat::ABGR8888, 0},     // 1 -> 5
        {CaptureFormat::BGR888, CaptureFormat::RGB565, 0},         // 3 -> 4
        {CaptureFormat::ARGB8888, CaptureFormat::YUYV, 1},         // 1 -> 20
        {CaptureFormat::ARGB16161616, CaptureFormat::YV12, 1},     // 22 -> YV12
        {CaptureFormat::NV12, CaptureFormat::ARGB8888, 2},         // 21 -> 1
        {CaptureFormat::YUYV_10B, CaptureFormat::ABGR2101010, 2},  // 262 -> 43
        {CaptureFormat::NV12, CaptureFormat::NV21, 3},             // 21 -> 17
        {CaptureFormat::RZ21S10L, CaptureFormat::NV16, 3},         // 54 -> 16
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("source 0x" + std::to_string(static_cast<uint32_t>(c.src)) + " type " +
                     std::to_string(c.type));
        Frames frames = smallFrames();
        frames.srcFormat = c.src;
        frames.dstFormat = c.dst;
        keepRows(frames);
        log.clear();
        EXPECT_EQ(CaptureReturn::SUCCESS, GpuCaptureTestPeer::captureOnceGpu(kCaptureId));
        EXPECT_EQ(1u, log.countExact("gpu_format_covert_type: " + std::to_string(c.type) + " "))
            << log.dump();
    }
}

TEST_F(GpuCaptureTest, FormatWithoutGpuMappingIsRefusedAndTheFlagKept) {
    for (const auto& formats : {std::make_pair(CaptureFormat::RGBA8888, CaptureFormat::ARGB8888),
                                std::make_pair(CaptureFormat::NV12, CaptureFormat::ARGB2101010)}) {
        Frames frames = smallFrames();
        frames.srcFormat = formats.first;
        frames.dstFormat = formats.second;
        keepRows(frames);
        log.clear();
        const CaptureReturn result = GpuCaptureTestPeer::captureOnceGpu(kCaptureId);
        EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, result);
        EXPECT_EQ(1, mUseGpu[kSlot]);
        const LogLine line = log.find("GPU Not Support!!!");
        EXPECT_EQ(ANDROID_LOG_WARN, line.priority) << log.dump();
        EXPECT_EQ("CAPTURE_HIDL", line.tag);
        EXPECT_EQ(0u, log.count("GpuDrawing"));
    }
}

TEST_F(GpuCaptureTest, RowsThatWereNeverConfiguredAreNotDrawn) {
    // All-zero rows: no format maps.
    {
        std::lock_guard<std::mutex> lock(mCaptureFrameParamsMutex);
        mSrcFrameInfo[kSlot] = CaptureSrcFrameInfo{};
        mDstFrameInfo[kSlot] = CaptureDstFrameInfo{};
    }
    mUseGpu[kSlot] = 1;
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, GpuCaptureTestPeer::captureOnceGpu(kCaptureId));

    // Formats without buffers.
    for (int missing = 0; missing < 3; ++missing) {
        SCOPED_TRACE(missing);
        Frames frames = smallFrames();
        if (missing != 1) frames.src = nullptr;
        if (missing != 0) frames.dst = nullptr;
        keepRows(frames);
        log.clear();
        EXPECT_EQ(CaptureReturn::INVALID_BUFFER, GpuCaptureTestPeer::captureOnceGpu(kCaptureId));
        EXPECT_EQ(1, mUseGpu[kSlot]);
        EXPECT_EQ(1u, log.count("GPU frame buffers not configured")) << log.dump();
        EXPECT_EQ(0u, log.count("GpuDrawing"));
    }
}

TEST_F(GpuCaptureTest, IdentifierOutsideTheTablesIsRefused) {
    for (int32_t id : {kCaptureIdBase - 1, kCaptureIdBase + kMaxCaptureSlots, -1}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(CaptureReturn::INVALID_CAPTURE_ID, GpuCaptureTestPeer::captureOnceGpu(id));
    }
}

TEST_F(GpuCaptureTest, CaptureOnceConvertsThenForgetsTheConfiguration) {
    keepRows(smallFrames());
    EXPECT_EQ(CaptureReturn::SUCCESS, captureOnce(kCaptureId));
    EXPECT_EQ(0, mUseGpu[kSlot]);
    EXPECT_TRUE(rowsAreClear());
    EXPECT_EQ(1u, log.countExact("debug postion 5")) << log.dump();
}

TEST_F(GpuCaptureTest, CaptureOnceWithUnsupportedFormatKeepsTheFlagButForgetsTheRows) {
    Frames frames = smallFrames();
    frames.srcFormat = CaptureFormat::RGBA8888;
    keepRows(frames);
    EXPECT_EQ(CaptureReturn::FORMAT_NOT_SUPPORT, captureOnce(kCaptureId));
    EXPECT_EQ(1, mUseGpu[kSlot]);
    EXPECT_TRUE(rowsAreClear());
}

TEST_F(GpuCaptureTest, InputDumpIsTheSourceBufferTakenBeforeAnyImageWork) {
    gpu_test::DumpFolder folder;
    dump_input_index = 1;  // as in a fresh process
    dump_output_index = 1;
    Frames frames;
    frames.srcWidth = 1916;
    frames.srcHeight = 1080;
    frames.src = makeFilledBuffer(1916, 1080, GRALLOC_PRIVATE_FORMAT_NV12, 9);
    frames.dstWidth = 640;
    frames.dstHeight = 360;
    frames.dst = makeFilledBuffer(640, 360, HAL_PIXEL_FORMAT_RGBA_8888, 10);
    ASSERT_NE(nullptr, frames.src);
    ASSERT_NE(nullptr, frames.dst);
    keepRows(frames);

    EXPECT_EQ(CaptureReturn::SUCCESS, captureOnce(kCaptureId));

    EXPECT_EQ((std::vector<std::string>{"gpu_intput-0001_s1920_1916x1080_NV12.raw",
                                        "gpu_output-0001_640x360_RGBA8888.raw"}),
              folder.files());
    const std::vector<uint8_t> source = gpu_test::bufferContents(frames.src);
    ASSERT_EQ(1920u * 1080 * 3 / 2, source.size());
    EXPECT_TRUE(source ==
                gpu_test::readFile(folder.path() + "gpu_intput-0001_s1920_1916x1080_NV12.raw"));
    // Mesa cannot import the destination, so it still holds what the client put there.
    EXPECT_TRUE(gpu_test::bufferContents(frames.dst) ==
                gpu_test::readFile(folder.path() + "gpu_output-0001_640x360_RGBA8888.raw"));
    // The input was dumped before the platform refused to make an image of it.
    const auto lines = log.lines();
    const auto dumped = gpu_test::indicesOf(lines, "gpu_intput-0001_s1920_1916x1080_NV12.raw");
    const auto refused = gpu_test::indicesOf(lines, "eglCreateImageKHR of a 1916x1080 buffer");
    ASSERT_EQ(1u, dumped.size()) << log.dump();
    ASSERT_EQ(1u, refused.size());
    EXPECT_LT(dumped[0], refused[0]);
}

// What the EGL implementation itself keeps per display initialisation, measured the same way.
void bareEglCycle() {
    EGLDisplay display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    eglInitialize(display, nullptr, nullptr);
    const EGLint attribs[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    EGLContext context = eglCreateContext(display, nullptr, EGL_NO_CONTEXT, attribs);
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, context);
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(display, context);
    eglTerminate(display);
}

TEST_F(GpuCaptureTest, ManyConversionsLeakNoDescriptorAndNoHeap) {
    // Quiet service; the GPU path's failed calls are written anyway and cleared each round.
    __atomic_store_n(&CAPTURE_HAL_LOG_LEVEL, 0u, __ATOMIC_RELAXED);
    const Frames frames = smallFrames();
    auto convert = [&]() {
        keepRows(frames);
        ASSERT_EQ(CaptureReturn::SUCCESS, captureOnce(kCaptureId));
        log.clear();
    };
    // Mesa fills its caches over the first few dozen rounds.
    for (int i = 0; i < 30; ++i) convert();
    for (int i = 0; i < 20; ++i) bareEglCycle();
    const int fds = countOpenFds();

    // Whatever the EGL implementation keeps per eglInitialize/eglTerminate pair (Mesa: about
    // 150 bytes when it reloads its driver) the conversions may cost, and nothing of their own.
    constexpr int kRounds = 40;
    const size_t start = mallinfo2().uordblks;
    for (int i = 0; i < kRounds; ++i) bareEglCycle();
    const size_t afterEgl = mallinfo2().uordblks;
    for (int i = 0; i < kRounds; ++i) convert();
    const size_t afterConversions = mallinfo2().uordblks;

    EXPECT_EQ(fds, countOpenFds());
    const long long platform = static_cast<long long>(afterEgl) - static_cast<long long>(start);
    const long long conversions =
        static_cast<long long>(afterConversions) - static_cast<long long>(afterEgl);
    // A handle or record lost per conversion would add several kilobytes over the rounds.
    EXPECT_LE(conversions, platform + 512)
        << kRounds << " conversions grew the heap by " << conversions << " bytes, " << kRounds
        << " bare EGL set-ups by " << platform;
}

}  // namespace
