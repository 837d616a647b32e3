// The GPU path run for real on Mesa: shaders, EGL environment, entry points, draw geometry.
#include <android-base/stringprintf.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "GpuTestUtil.h"
#include "hostgl/HostGl.h"

#include <GLES2/gl2ext.h>  // after the GLES headers it extends

namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using ::android::base::StringPrintf;

class GpuEnvTest : public ::testing::Test {
protected:
    void SetUp() override { gpu_test::keepMesaDriverLoaded(); }
    LogCapture log;
};

// The fragment text of every type. Types differ in the YUV-target extension line, the sampler
// type, the output layout and the colour conversion: parts that, but for a samplerExternalOES
// sampler, only the device's driver understands.
constexpr char kFragment[] =
    "#version 300 es\n"
    "#extension GL_OES_EGL_image_external_essl3 : require\n"
    "%s"
    "uniform %s sampler_video;\n"
    "precision highp float;\n"
    "in vec2 texcoord_video;\n"
    "%sout vec4 outColor;\n"
    "void main() {\n"
    "  vec4 texColor = texture(sampler_video, texcoord_video);\n"
    "%s"
    "  outColor = texColor;\n"
    "}\n";
constexpr char kYuvTarget[] = "#extension GL_EXT_YUV_target: require\n";

TEST(ShaderTextTest, TextsAreExactForEveryType) {
    const std::string plain = StringPrintf(kFragment, kYuvTarget, "samplerExternalOES", "", "");
    const std::string rgbToYuv =
        StringPrintf(kFragment, kYuvTarget, "samplerExternalOES", "layout (yuv) ",
                     "  texColor = vec4(rgb_2_yuv(texColor.xyz, itu_601), texColor.w);\n");
    const std::string yuvToYuv =
        StringPrintf(kFragment, kYuvTarget, "__samplerExternal2DY2YEXT", "layout (yuv) ", "");
    // Types 0 and 2 and every value out of range share the plain text.
    const std::pair<int32_t, const std::string*> cases[] = {
        {0, &plain}, {1, &rgbToYuv}, {2, &plain}, {3, &yuvToYuv}, {4, &plain}, {-1, &plain}};
    for (const auto& c : cases) {
        SCOPED_TRACE("type " + std::to_string(c.first));
        EXPECT_EQ(*c.second,
                  gpu_fragment_shader_source(static_cast<gpu_format_covert_type>(c.first)));
    }
    EXPECT_STREQ(
        "#version 300 es\n"
        "#extension GL_OES_EGL_image_external_essl3 : require\n"
        "precision mediump float;\n"
        "precision mediump int;\n"
        "in vec4 in_vertex_video;\n"
        "in vec2 in_texcoord_video;\n"
        "out highp vec2 texcoord_video;\n"
        "uniform mat4 transform;\n"
        "void main(void)\n"
        "{\n"
        "    gl_Position = transform * in_vertex_video;\n"
        "    texcoord_video = in_texcoord_video;\n"
        "}",
        gpu_vertex_shader_source());
}

TEST_F(GpuEnvTest, EglAndShadersRunOnMesaAndLogWhatThePlatformRefuses) {
    gpu_test::HostGlLayerOff layerOff;
    gpu_set_debug_log_level(64);
    GpuDrawing env;
    ASSERT_EQ(1u, env.egl_init_env()) << log.dump();
    EXPECT_NE(EGL_NO_CONTEXT, env.context);
    EXPECT_EQ(env.context, eglGetCurrentContext());
    // No 16-sample config: the context is made without one, and the pbuffer needing one refused.
    EXPECT_EQ(1u, log.countExact("eglGetConfigs numConfigs=0\n"));
    EXPECT_EQ(1u, log.count("Call EGL API result is not GL_TRUE in tv/hardware/interfaces/"
                            "capture/1.0/default/gpu/gpu_draw,egl_init_env,"))
        << log.dump();

    // What is left of every type's text without the device-only parts.
    const std::string shared = StringPrintf(kFragment, "", "samplerExternalOES", "", "");
    ASSERT_EQ(1u, env.gles_compile_shaders(gpu_vertex_shader_source(), shared.c_str()))
        << log.dump();
    env.program = glCreateProgram();
    glAttachShader(env.program, env.vertex_shader);
    glAttachShader(env.program, env.fragment_shader);
    EXPECT_EQ(1u, env.gles_link_program()) << log.dump();
    EXPECT_GE(glGetUniformLocation(env.program, "sampler_video"), 0);
    env.gles_cleanup();

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
        EXPECT_EQ(1u, log.count("[gles_link_program("));
        EXPECT_EQ(1u, log.count("OpenGL error 0x0502 in tv/hardware/interfaces/capture/1.0/"
                                "default/gpu/gpu_draw,gles_init_shaders,"));
        EXPECT_TRUE(full.program != 0 && full.vertex_array != 0 && full.fragment_shader == 0);
    }
    EXPECT_EQ(1u, env.egl_cleanup());
    EXPECT_EQ(EGL_NO_DISPLAY, env.display);
    EXPECT_EQ(EGL_NO_CONTEXT, eglGetCurrentContext());
}

// In a child process whose EGL finds no driver, so that no context can be made current.
TEST(GpuEnvNoDriverTest, EnvironmentWithoutContextIsStillHandedOutAndDraws) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto child = []() {
        setenv("__EGL_VENDOR_LIBRARY_FILENAMES", "/nonexistent/egl_vendor.json", 1);
        GpuPhotoFeatureIn feature(nullptr, nullptr);
        feature.srcWidth = feature.srcHeight = feature.dstWidth = feature.dstHeight = 16;
        GpuDrawing probe;
        GpuDrawing* drawing = nullptr;
        const bool ok = probe.egl_init_env() == 0 && probe.display == EGL_NO_DISPLAY &&
                        gpu_init_drawing_env(GPU_COVERT_RGB_TO_RGB, &drawing) == 1 &&
                        drawing->context == EGL_NO_CONTEXT &&
                        gpu_draw_frame(&feature, drawing) == 1;
        gpu_deinit_drawing_env(drawing);
        _exit(ok ? 0 : 1);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "");
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
    EXPECT_EQ(1u, log.countExact("gpu_format_covert_type: 1 "));
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

TEST(GpuGeometryTest, ShortenedPiZeroIsTheIdentityAndNinetyAQuarterTurn) {
    uint32_t bits = 0;
    memcpy(&bits, &kGpuRotationPi, sizeof(bits));
    EXPECT_EQ(0x40490FDAu, bits);
    for (const auto& [degrees, cosine, sine] :
         {std::array<float, 3>{0, 1, 0}, {90, 0, 1}, {180, -1, 0}}) {
        SCOPED_TRACE(degrees);
        // Column-major, counter-clockwise about the screen normal.
        const float expected[16] = {cosine, sine, 0, 0, -sine, cosine, 0, 0,
                                    0,      0,    1, 0, 0,     0,      0, 1};
        const ::android::mat4 m = gpu_rotation_matrix(degrees);
        for (int i = 0; i < 16; ++i) EXPECT_NEAR(expected[i], m.asArray()[i], 1e-6f) << i;
    }
}

TEST_F(GpuEnvTest, DrawUploadsTwoTrianglesOfTheViewportWithTheCropsTextureCoords) {
    gpu_set_debug_log_level(0);
    GpuDrawing drawing;
    ASSERT_EQ(1u, drawing.egl_init_env());
    drawing.gles_init_shaders(GPU_COVERT_RGB_TO_RGB);
    GpuPhotoFeatureIn* feature =
        gpu_feature_instance_create(0.0f, 1000, 500, 64, 64, 100, 100, 500, 300, nullptr, nullptr);
    EXPECT_EQ(1, gpu_draw_frame(feature, &drawing));
    gpu_feature_instance_delete(feature);

    // Position xyzw, texture st: the crop's left 0.1, right 0.6, top (last row) 0.8, bottom 0.2.
    const std::vector<float> expected = {
        -1, 1,  0, 1, 0.1f, 0.8f,  //
        -1, -1, 0, 1, 0.1f, 0.2f,  //
        1,  -1, 0, 1, 0.6f, 0.2f,  //
        1,  -1, 0, 1, 0.6f, 0.2f,  //
        1,  1,  0, 1, 0.6f, 0.8f,  //
        -1, 1,  0, 1, 0.1f, 0.8f,  //
    };
    glBindBuffer(GL_ARRAY_BUFFER, drawing.vertex_buffer);
    GLint size = 0;
    glGetBufferParameteriv(GL_ARRAY_BUFFER, GL_BUFFER_SIZE, &size);
    ASSERT_EQ(144, size);
    const auto* mapped =
        static_cast<const float*>(glMapBufferRange(GL_ARRAY_BUFFER, 0, 144, GL_MAP_READ_BIT));
    ASSERT_NE(nullptr, mapped);
    EXPECT_EQ(expected, std::vector<float>(mapped, mapped + 36));
    glUnmapBuffer(GL_ARRAY_BUFFER);
}


namespace host_layer {

using ::android::GraphicBuffer;
using ::android::sp;

EGLImageKHR createImage(ANativeWindowBuffer* buffer) {
    const auto create =
        reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    return create(eglGetCurrentDisplay(), EGL_NO_CONTEXT, EGL_NATIVE_BUFFER_ANDROID,
                  static_cast<EGLClientBuffer>(buffer), nullptr);
}

TEST_F(GpuEnvTest, HostLayerGivesWhatTheDeviceHasAndOnlyThat) {
    ASSERT_TRUE(host_gl::layerInterposed());
    GpuDrawing env;
    ASSERT_EQ(1u, env.egl_init_env());

    // Every type's text compiles and links once the YUV target is emulated.
    for (int32_t type = 0; type <= 3; ++type) {
        SCOPED_TRACE("type " + std::to_string(type));
        log.clear();
        GpuDrawing full;
        full.gles_init_shaders(static_cast<gpu_format_covert_type>(type));
        GLint linked = GL_FALSE;
        glGetProgramiv(full.program, GL_LINK_STATUS, &linked);
        EXPECT_EQ(GL_TRUE, linked);
        EXPECT_EQ(0u, log.count("OpenGL error")) << log.dump();
        EXPECT_NE(0u, full.fragment_shader);
    }

    sp<GraphicBuffer> buffer = new GraphicBuffer(64, 32, HAL_PIXEL_FORMAT_RGBA_8888, 0x02001B33);
    ASSERT_EQ(::android::NO_ERROR, buffer->initCheck());
    // A client's GL error raised before the layer's own GL work is still the client's to read.
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, texture);
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_WRAP_S, GL_REPEAT);  // invalid here
    EGLImageKHR image = createImage(buffer->getNativeBuffer());
    ASSERT_NE(EGL_NO_IMAGE_KHR, image);
    const auto target = reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(
        eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    target(GL_TEXTURE_EXTERNAL_OES, image);
    EXPECT_EQ(static_cast<GLenum>(GL_INVALID_ENUM), glGetError());
    EXPECT_EQ(static_cast<GLenum>(GL_NO_ERROR), glGetError());
    // The external texture is a render target of the same pixels.
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_EXTERNAL_OES, texture,
                           0);
    EXPECT_EQ(static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE),
              glCheckFramebufferStatus(GL_FRAMEBUFFER));
    glClearColor(1.0f, 0.5f, 0.0f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glFinish();
    void* pixels = nullptr;
    ASSERT_EQ(::android::NO_ERROR, buffer->lock(0x33, &pixels));
    const auto* bytes = static_cast<const uint8_t*>(pixels);
    const size_t last = (static_cast<size_t>(31) * buffer->getStride() + 63) * 4;
    EXPECT_EQ((std::vector<uint8_t>{255, 128, 0, 255}),
              std::vector<uint8_t>(bytes + last, bytes + last + 4));
    buffer->unlock();
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteTextures(1, &texture);

    // A buffer that claims more than its memory holds is refused, as is any native buffer once
    // the layer is switched off.
    sp<GraphicBuffer> liar = new GraphicBuffer(buffer->handle, GraphicBuffer::CLONE_HANDLE, 64,
                                               4096, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x02000133,
                                               static_cast<uint32_t>(buffer->getStride()));
    EXPECT_EQ(EGL_NO_IMAGE_KHR, createImage(liar->getNativeBuffer()));
    EXPECT_NE(EGL_SUCCESS, eglGetError());
    {
        gpu_test::HostGlLayerOff off;
        EXPECT_EQ(EGL_NO_IMAGE_KHR, createImage(buffer->getNativeBuffer()));
    }
    EXPECT_EQ(1u, env.egl_cleanup());
}

}  // namespace host_layer

}  // namespace
