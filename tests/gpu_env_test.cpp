// The GPU path's environment, render targets and entry points, run for real on Mesa.
#include <EGL/egl.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <ui/GrallocPrivate.h>
#include <unistd.h>

#include <string>

#include "GpuTestUtil.h"
#include "LogCapture.h"
#include "TestUtil.h"
#include "gpu_draw.h"

namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using gpu_test::makeFilledBuffer;
using gpu_test::setGpuLogLevel;

constexpr const char* kEglCheckPrefix =
    "Call EGL API result is not GL_TRUE in "
    "tv/hardware/interfaces/capture/1.0/default/gpu/gpu_draw,";

class GpuEnvTest : public ::testing::Test {
protected:
    void SetUp() override { gpu_test::keepMesaDriverLoaded(); }
};

TEST_F(GpuEnvTest, EglInitOnMesaMakesTheContextCurrentAndReportsWhatItRefuses) {
    LogCapture log;
    setGpuLogLevel(64);
    GpuDrawing drawing;
    ASSERT_EQ(1u, drawing.egl_init_env()) << log.dump();
    EXPECT_NE(EGL_NO_DISPLAY, drawing.display);
    EXPECT_NE(EGL_NO_CONTEXT, drawing.context);
    EXPECT_EQ(drawing.context, eglGetCurrentContext());
    EXPECT_EQ(EGL_NO_SURFACE, eglGetCurrentSurface(EGL_DRAW));

    // No 16-sample config: the count is logged and the context is made without a config.
    const LogLine count = log.find("eglGetConfigs numConfigs=");
    EXPECT_EQ(ANDROID_LOG_INFO, count.priority);
    EXPECT_EQ("GPU_CAPTURE", count.tag);
    EXPECT_EQ("eglGetConfigs numConfigs=0\n", stripLogPrefix(count.message));
    // The pbuffer needs a config, so there is no surface to destroy: a refused EGL call.
    const LogLine refused = log.find(std::string(kEglCheckPrefix) + "egl_init_env,");
    EXPECT_EQ(ANDROID_LOG_INFO, refused.priority) << log.dump();
    const LogLine version = log.find("egl version = \"OpenGL ES 3");
    EXPECT_EQ(ANDROID_LOG_DEBUG, version.priority) << log.dump();
    EXPECT_NE(std::string::npos, version.message.find("vendor = \"")) << version.message;

    EXPECT_EQ(1u, drawing.egl_cleanup());
    EXPECT_EQ(EGL_NO_DISPLAY, drawing.display);
    EXPECT_EQ(EGL_NO_CONTEXT, drawing.context);
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
    log.clear();
    EXPECT_EQ(1u, drawing.egl_cleanup());
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

// Runs `body` in a fresh process of this binary in which EGL finds no driver at all, so
// eglMakeCurrent fails; the child's exit code carries the verdict.
void inProcessWithoutEglDriver(bool (*body)()) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("__EGL_VENDOR_LIBRARY_FILENAMES", "/nonexistent/egl_vendor.json", 1);
            _exit(body() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(GpuEnvNoDriverTest, EglInitFailureKeepsNothingAndCleanupDoesNothing) {
    inProcessWithoutEglDriver([]() {
        LogCapture log;
        setGpuLogLevel(32);
        GpuDrawing drawing;
        bool ok = drawing.egl_init_env() == 0;
        ok = ok && drawing.display == EGL_NO_DISPLAY && drawing.context == EGL_NO_CONTEXT;
        // EGL_BAD_DISPLAY, as an error line.
        const LogLine line = log.find("Failed to make the OpenGL ES Context current: ");
        ok = ok && line.priority == ANDROID_LOG_ERROR &&
             stripLogPrefix(line.message) ==
                 "Failed to make the OpenGL ES Context current: " + std::to_string(EGL_BAD_DISPLAY);
        log.clear();
        ok = ok && drawing.egl_cleanup() == 1 && log.lines().empty();
        if (!ok) fprintf(stderr, "%s", log.dump().c_str());
        return ok;
    });
}

TEST(GpuEnvNoDriverTest, EnvironmentWithoutContextIsStillHandedOutAndDraws) {
    inProcessWithoutEglDriver([]() {
        LogCapture log;
        GpuDrawing* drawing = nullptr;
        bool ok = gpu_init_drawing_env(GPU_COVERT_RGB_TO_RGB, &drawing) == 1;
        ok = ok && drawing != nullptr && drawing->display == EGL_NO_DISPLAY;
        GpuPhotoFeatureIn* feature =
            gpu_feature_instance_create(0.0f, 16, 16, 16, 16, 0, 0, 16, 16, nullptr, nullptr);
        ok = ok && gpu_draw_frame(feature, drawing) == 1;
        gpu_feature_instance_delete(feature);
        gpu_deinit_drawing_env(drawing);
        if (!ok) fprintf(stderr, "%s", log.dump().c_str());
        return ok;
    });
}

TEST_F(GpuEnvTest, LogLinesAreGatedByLevelExceptFailedCalls) {
    struct Case {
        uint32_t level;
        bool debug;
        bool info;
        bool gatedError;
    };
    const Case cases[] = {
        {0, false, false, false}, {31, false, false, false}, {32, false, false, true},
        {47, false, false, true}, {48, true, false, true},   {63, true, false, true},
        {64, true, true, true},   {255, true, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("level " + std::to_string(c.level));
        LogCapture log;
        setGpuLogLevel(c.level);
        {
            GpuDrawing drawing;                     // debug: constructor line
            ASSERT_EQ(1u, drawing.egl_init_env());  // info: config count; EGL refusal
            gpu_draw_frame(nullptr, &drawing);      // gated error
            drawing.gles_link_program();            // program 0: a GL error
        }
        EXPECT_EQ(c.debug ? 1u : 0u, log.countExact("GpuDrawing Constructor"));
        EXPECT_EQ(c.debug ? 1u : 0u, log.countExact("GpuDrawing Destructor"));
        EXPECT_EQ(c.info ? 1u : 0u, log.count("eglGetConfigs numConfigs="));
        EXPECT_EQ(c.gatedError ? 1u : 0u, log.count("nothing to draw"));
        // Failed calls are always written.
        EXPECT_EQ(1u, log.count(std::string(kEglCheckPrefix) + "egl_init_env,"));
        const LogLine glError = log.find(
            "OpenGL error 0x0501 in tv/hardware/interfaces/capture/1.0/default/gpu/gpu_draw,"
            "gles_link_program,");
        EXPECT_EQ(ANDROID_LOG_ERROR, glError.priority) << log.dump();
        if (c.debug) {
            const LogLine ctor = log.find("GpuDrawing Constructor");
            EXPECT_EQ(ANDROID_LOG_DEBUG, ctor.priority);
            EXPECT_EQ("GPU_CAPTURE", ctor.tag);
            EXPECT_EQ(0u, ctor.message.rfind("[GpuDrawing][", 0)) << ctor.message;
        }
    }
}

TEST(GpuLogLevelTest, SetDebugLogLevelStoresTheLevel) {
    // The initial value, in a process where nothing has set it yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(GPU_LOG_LEVEL == 32u ? 0 : 1), ::testing::ExitedWithCode(0), "");
    gpu_set_debug_log_level(64);
    EXPECT_EQ(64u, GPU_LOG_LEVEL);
    gpu_set_debug_log_level(0);
    EXPECT_EQ(0u, GPU_LOG_LEVEL);
}

TEST_F(GpuEnvTest, FeatureRecordTakesTheNineValuesInOrderAndFormatsStayZero) {
    LogCapture log;
    setGpuLogLevel(48);
    capture_test::TestHandle src;
    capture_test::TestHandle dst;
    GpuPhotoFeatureIn* feature =
        gpu_feature_instance_create(90.5f, 1, 2, 3, 4, 5, 6, 7, 8, src.get(), dst.get());
    ASSERT_NE(nullptr, feature);
    EXPECT_EQ(90.5f, feature->rotation);
    EXPECT_EQ(1, feature->srcWidth);
    EXPECT_EQ(2, feature->srcHeight);
    EXPECT_EQ(3, feature->dstWidth);
    EXPECT_EQ(4, feature->dstHeight);
    EXPECT_EQ(5, feature->cropX);
    EXPECT_EQ(6, feature->cropY);
    EXPECT_EQ(7, feature->cropWidth);
    EXPECT_EQ(8, feature->cropHeight);
    EXPECT_EQ(src.get(), feature->srcHandle);
    EXPECT_EQ(dst.get(), feature->dstHandle);
    EXPECT_EQ(0u, feature->srcFormat);
    EXPECT_EQ(0u, feature->dstFormat);
    EXPECT_EQ(1u, log.countExact("GpuPhotoFeatureIn Constructor")) << log.dump();
    gpu_feature_instance_delete(feature);
    EXPECT_EQ(1u, log.countExact("GpuPhotoFeatureIn Destructor")) << log.dump();
}

TEST_F(GpuEnvTest, NullObjectsAreIgnored) {
    LogCapture log;
    setGpuLogLevel(255);
    gpu_deinit_drawing_env(nullptr);
    gpu_feature_instance_delete(nullptr);
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    // No place for the result: nothing is created, so nothing can leak.
    EXPECT_EQ(0, gpu_init_drawing_env(GPU_COVERT_RGB_TO_RGB, nullptr));
    EXPECT_EQ(0u, log.count("GpuDrawing Constructor"));
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
}

TEST_F(GpuEnvTest, InitAndDeinitDrawingEnvOwnTheContext) {
    LogCapture log;
    setGpuLogLevel(48);
    GpuDrawing* drawing = nullptr;
    ASSERT_EQ(1, gpu_init_drawing_env(GPU_COVERT_RGB_TO_YUV, &drawing));
    ASSERT_NE(nullptr, drawing);
    EXPECT_EQ(drawing->context, eglGetCurrentContext());
    EXPECT_NE(0u, drawing->program);
    EXPECT_EQ(1u, log.countExact("gpu_format_covert_type: 1 "));
    const GLuint program = drawing->program;
    EXPECT_EQ(GL_TRUE, glIsProgram(program));
    gpu_deinit_drawing_env(drawing);
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
    EXPECT_EQ(1u, log.countExact("GpuDrawing Destructor"));
}

TEST_F(GpuEnvTest, GlesCleanupTwiceOnlyDeletesTheVertexNamesAgain) {
    setGpuLogLevel(32);
    GpuDrawing drawing;
    ASSERT_EQ(1u, drawing.egl_init_env());
    drawing.gles_init_shaders(GPU_COVERT_RGB_TO_RGB);
    const GLuint program = drawing.program;
    const GLuint vertexArray = drawing.vertex_array;
    const GLuint vertexBuffer = drawing.vertex_buffer;
    // Make the names real objects, so that their deletion can be seen.
    drawing.gles_generate_vertex(-1, 1, 1, -1, 0, 1, 1, 0);
    ASSERT_EQ(GL_TRUE, glIsVertexArray(vertexArray));
    ASSERT_EQ(GL_TRUE, glIsBuffer(vertexBuffer));
    glGetError();

    EXPECT_EQ(1u, drawing.gles_cleanup());
    EXPECT_EQ(GL_FALSE, glIsVertexArray(vertexArray));
    EXPECT_EQ(GL_FALSE, glIsBuffer(vertexBuffer));
    EXPECT_EQ(GL_FALSE, glIsProgram(program));
    EXPECT_EQ(0u, drawing.program);
    // The two vertex names are not cleared.
    EXPECT_EQ(vertexArray, drawing.vertex_array);
    EXPECT_EQ(vertexBuffer, drawing.vertex_buffer);

    EXPECT_EQ(1u, drawing.gles_cleanup());
    EXPECT_EQ(static_cast<GLenum>(GL_NO_ERROR), glGetError());
}

// A render target and a source from the host allocator.
struct Buffers {
    Buffers(uint32_t srcWidth, uint32_t srcHeight, int32_t srcFormat, uint32_t dstWidth,
            uint32_t dstHeight, int32_t dstFormat)
        : src(makeFilledBuffer(srcWidth, srcHeight, srcFormat, 1)),
          dst(makeFilledBuffer(dstWidth, dstHeight, dstFormat, 2)) {}
    native_handle_t* srcHandle() const { return const_cast<native_handle_t*>(src->handle); }
    native_handle_t* dstHandle() const { return const_cast<native_handle_t*>(dst->handle); }
    gpu_test::sp<gpu_test::GraphicBuffer> src;
    gpu_test::sp<gpu_test::GraphicBuffer> dst;
};

TEST_F(GpuEnvTest, DrawOnMesaLogsWhatThePlatformRefusesAndGoesOn) {
    LogCapture log;
    setGpuLogLevel(48);
    Buffers buffers(60, 34, GRALLOC_PRIVATE_FORMAT_NV12, 30, 20, HAL_PIXEL_FORMAT_RGBA_8888);
    ASSERT_NE(nullptr, buffers.src);
    ASSERT_NE(nullptr, buffers.dst);
    GpuDrawing* drawing = nullptr;
    ASSERT_EQ(1, gpu_init_drawing_env(GPU_COVERT_YUV_TO_RGB, &drawing));
    GpuPhotoFeatureIn* feature = gpu_feature_instance_create(
        0.0f, 60, 34, 30, 20, 0, 0, 60, 34, buffers.srcHandle(), buffers.dstHandle());
    feature->srcFormat = GRALLOC_PRIVATE_FORMAT_NV12;
    feature->dstFormat = HAL_PIXEL_FORMAT_RGBA_8888;
    log.clear();

    EXPECT_EQ(1, gpu_draw_frame(feature, drawing));

    // The allocator's strides: NV12 rows align to 64 pixels, RGBA rows to 16.
    EXPECT_EQ(1u, log.countExact("dst: private_handle->stride = [32] ")) << log.dump();
    EXPECT_EQ(1u, log.countExact("src: private_handle->stride = [64], out_bytes_perstride = [64]"))
        << log.dump();
    // No Android native-buffer images here, for either buffer.
    EXPECT_EQ(2u, log.count("eglCreateImageKHR of a ")) << log.dump();
    EXPECT_EQ(ANDROID_LOG_ERROR, log.find("eglCreateImageKHR of a 30x20 buffer failed").priority);
    EXPECT_EQ(ANDROID_LOG_ERROR, log.find("glCheckFramebufferStatus() error: ").priority)
        << log.dump();
    EXPECT_GE(log.count("OpenGL error 0x"), 1u);

    // The draw ran to its end, in order.
    const auto lines = log.lines();
    size_t previous = 0;
    for (int marker = 1; marker <= 5; ++marker) {
        SCOPED_TRACE("marker " + std::to_string(marker));
        const auto found = gpu_test::indicesOf(lines, "debug postion " + std::to_string(marker));
        ASSERT_EQ(1u, found.size()) << log.dump();
        EXPECT_GT(found[0], previous);
        previous = found[0];
    }
    EXPECT_EQ(1u, log.countExact("out_bytes_perstride: 128"));

    EXPECT_NE(0u, drawing->dst_image.texture);
    EXPECT_NE(0u, drawing->dst_image.framebuffer);
    EXPECT_NE(0u, drawing->src_image.texture);
    EXPECT_EQ(0u, drawing->src_image.framebuffer);
    EXPECT_EQ(feature, drawing->dst_image.feature);
    EXPECT_EQ(nullptr, drawing->src_image.feature);
    ASSERT_NE(nullptr, drawing->dst_image.buffer);
    // The wrap holds a clone of the handle, not the caller's.
    EXPECT_NE(buffers.dstHandle(), drawing->dst_image.buffer->handle);
    EXPECT_EQ(30u, drawing->dst_image.buffer->getWidth());

    gpu_feature_instance_delete(feature);
    gpu_deinit_drawing_env(drawing);
}

TEST_F(GpuEnvTest, RenderTargetsOfAnEarlierDrawAreReleased) {
    setGpuLogLevel(32);
    Buffers buffers(64, 32, HAL_PIXEL_FORMAT_RGBA_8888, 64, 32, HAL_PIXEL_FORMAT_RGBA_8888);
    GpuDrawing drawing;
    ASSERT_EQ(1u, drawing.egl_init_env());
    GpuPhotoFeatureIn feature(buffers.srcHandle(), buffers.dstHandle());
    feature.srcWidth = feature.dstWidth = feature.cropWidth = 64;
    feature.srcHeight = feature.dstHeight = feature.cropHeight = 32;
    feature.srcFormat = feature.dstFormat = HAL_PIXEL_FORMAT_RGBA_8888;

    const int fdsBefore = capture_test::countOpenFds();
    drawing.gles_init_RenderTargets(&feature);
    const GLuint firstTexture = drawing.src_image.texture;
    const GLuint firstFramebuffer = drawing.dst_image.framebuffer;
    ASSERT_EQ(GL_TRUE, glIsTexture(firstTexture));
    ASSERT_EQ(GL_TRUE, glIsFramebuffer(firstFramebuffer));
    const int fdsWithOne = capture_test::countOpenFds();
    EXPECT_EQ(fdsBefore + 2, fdsWithOne);  // one cloned handle per wrapped buffer

    drawing.gles_init_RenderTargets(&feature);
    EXPECT_EQ(GL_FALSE, glIsFramebuffer(firstFramebuffer));
    EXPECT_EQ(fdsWithOne, capture_test::countOpenFds());
    EXPECT_EQ(GL_TRUE, glIsTexture(drawing.src_image.texture));
}

TEST_F(GpuEnvTest, SourceWithoutSizeIsNeverDrawn) {
    struct Case {
        int width;
        int height;
    };
    for (const Case c : {Case{0, 1080}, Case{1920, 0}, Case{0, 0}, Case{-4, 10}}) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        LogCapture log;
        setGpuLogLevel(48);
        GpuDrawing drawing;
        GpuPhotoFeatureIn* feature = gpu_feature_instance_create(0.0f, c.width, c.height, 16, 16, 0,
                                                                 0, 16, 16, nullptr, nullptr);
        EXPECT_EQ(0, gpu_draw_frame(feature, &drawing));
        const std::string size = std::to_string(c.width) + "x" + std::to_string(c.height);
        EXPECT_EQ(1u, log.countExact("source size " + size + " cannot be sampled, nothing drawn"))
            << log.dump();
        EXPECT_EQ(0u, log.count("debug postion"));
        EXPECT_EQ(nullptr, drawing.dst_image.feature);
        gpu_feature_instance_delete(feature);
    }
}

TEST_F(GpuEnvTest, MissingPiecesAreRefusedWithoutDrawing) {
    LogCapture log;
    setGpuLogLevel(48);
    GpuDrawing drawing;
    EXPECT_EQ(0u, drawing.gles_draw_frame());  // no render target yet
    EXPECT_EQ(0u, drawing.gles_init_RenderTargets(nullptr));
    GpuPhotoFeatureIn feature(nullptr, nullptr);
    EXPECT_EQ(0, gpu_draw_frame(&feature, nullptr));
    EXPECT_EQ(0, gpu_draw_frame(nullptr, &drawing));
    EXPECT_EQ(0u, log.count("debug postion")) << log.dump();

    // Never-configured buffers: logged, and the draw still goes through without them.
    feature.srcWidth = feature.srcHeight = feature.dstWidth = feature.dstHeight = 8;
    ASSERT_EQ(1u, drawing.egl_init_env());
    drawing.gles_init_shaders(GPU_COVERT_RGB_TO_RGB);
    EXPECT_EQ(1, gpu_draw_frame(&feature, &drawing));
    EXPECT_EQ(2u, log.count("no buffer to wrap: handle ")) << log.dump();
    EXPECT_EQ(1u, log.count("debug postion 5"));
    EXPECT_EQ(nullptr, drawing.dst_image.buffer);
}

}  // namespace
