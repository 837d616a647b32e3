// The GPU path's environment on Mesa without the host graphics layer, as on a platform whose
// driver lacks the YUV target; its entry points' refusals.
#include <gmock/gmock.h>

#include "GpuTestUtil.h"

#include <GLES2/gl2ext.h>  // after the GLES headers it extends

namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;

class GpuEnvTest : public ::testing::Test {
protected:
    void SetUp() override { host_gl::keepDriverLoaded(); }
    LogCapture log;
};

TEST_F(GpuEnvTest, WithoutTheYuvTargetTheDriversRefusalIsLoggedAndTheEnvironmentHandedOut) {
    gpu_test::HostGlLayerOff layerOff;
    gpu_set_debug_log_level(64);
    GpuDrawing env;
    ASSERT_EQ(1u, env.egl_init_env()) << log.dump();
    EXPECT_EQ(env.context, eglGetCurrentContext());

    for (int32_t type = 0; type <= 3; ++type) {
        SCOPED_TRACE("type " + std::to_string(type));
        log.clear();
        GpuDrawing full;  // in the context made above
        EXPECT_EQ(1u, full.gles_init_shaders(static_cast<gpu_format_covert_type>(type)));
        // The driver's complaint is logged, the link then fails, and using the unlinked program
        // is an OpenGL error; the environment still gets its program and vertex names.
        const LogLine refused = log.find("[gles_compile_shaders(");
        EXPECT_EQ(ANDROID_LOG_ERROR, refused.priority) << log.dump();
        EXPECT_NE(std::string::npos, refused.message.find("GL_EXT_YUV_target"));
        // The driver's text and nothing after it.
        EXPECT_THAT(refused.message, ::testing::MatchesRegex("[[:print:]\n]*"));
        EXPECT_EQ(1u, log.count("[gles_link_program("));
        EXPECT_EQ(1u, log.count("OpenGL error 0x0502 in tv/hardware/interfaces/capture/1.0/"
                                "default/gpu/gpu_draw,gles_init_shaders,"));
        EXPECT_TRUE(full.program != 0 && full.vertex_array != 0 && full.fragment_shader == 0);
    }
    EXPECT_EQ(1u, env.egl_cleanup());
    EXPECT_EQ(EGL_NO_DISPLAY, env.display);
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
}

TEST_F(GpuEnvTest, EntryPointsOwnWhatTheyMakeAndRefuseWhatCannotBeDrawn) {
    gpu_set_debug_log_level(48);
    gpu_deinit_drawing_env(nullptr);
    gpu_feature_instance_delete(nullptr);
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    GpuDrawing* drawing = nullptr;
    ASSERT_EQ(1, gpu_init_drawing_env(GPU_COVERT_RGB_TO_YUV, &drawing));
    EXPECT_EQ(drawing->context, eglGetCurrentContext());
    EXPECT_EQ(GL_TRUE, glIsProgram(drawing->program));
    gpu_deinit_drawing_env(drawing);
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
    EXPECT_EQ(1u, log.countExact("GpuDrawing Destructor"));  // a debug line: 48 lets it through
    EXPECT_EQ(0u, log.count("eglGetConfigs numConfigs="));   // an information line does not

    // A source without size never reaches the texture-coordinate division; nothing is drawn
    // without a request or an environment either.
    GpuDrawing bare;  // no context
    GpuPhotoFeatureIn feature(nullptr, nullptr);
    feature.srcHeight = 1080;
    EXPECT_EQ(0, gpu_draw_frame(&feature, &bare));
    feature.srcWidth = 1920;
    feature.srcHeight = 0;
    EXPECT_EQ(0, gpu_draw_frame(&feature, &bare));
    EXPECT_EQ(1u, log.countExact("source size 0x1080 cannot be sampled, nothing drawn"));
    EXPECT_EQ(1u, log.countExact("source size 1920x0 cannot be sampled, nothing drawn"));
    EXPECT_EQ(0, gpu_draw_frame(&feature, nullptr));
    EXPECT_EQ(0, gpu_draw_frame(nullptr, &bare));
    EXPECT_EQ(0u, log.count("debug postion")) << log.dump();
}

// The host graphics layer does GL work of its own behind the client's calls: an error the client
// raised before it is still the client's to read, once.
TEST_F(GpuEnvTest, HostLayerLeavesTheClientsPendingErrorToTheClient) {
    ASSERT_TRUE(host_gl::layerInterposed());
    GpuDrawing env;
    ASSERT_EQ(1u, env.egl_init_env());
    const auto buffer = gpu_test::allocate(HAL_PIXEL_FORMAT_RGBA_8888, 64, 32);
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, texture);
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_WRAP_S, GL_REPEAT);  // invalid here
    const auto create =
        reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    EGLImageKHR image = create(eglGetCurrentDisplay(), EGL_NO_CONTEXT, EGL_NATIVE_BUFFER_ANDROID,
                               static_cast<EGLClientBuffer>(buffer->getNativeBuffer()), nullptr);
    ASSERT_NE(EGL_NO_IMAGE_KHR, image);
    const auto target = reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(
        eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    target(GL_TEXTURE_EXTERNAL_OES, image);  // the layer uploads and binds its own texture here
    EXPECT_EQ(static_cast<GLenum>(GL_INVALID_ENUM), glGetError());
    EXPECT_EQ(static_cast<GLenum>(GL_NO_ERROR), glGetError());
    glDeleteTextures(1, &texture);
    EXPECT_EQ(1u, env.egl_cleanup());
}

}  // namespace
