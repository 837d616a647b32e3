// Shader texts of the GPU path, and proof on real compilers that their shared part is valid.
#include <android/log.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <ostream>
#include <string>

#include "GpuTestUtil.h"
#include "LogCapture.h"
#include "gpu_draw.h"

namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;

const std::string kVertexText =
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
    "}";

// RGB in, RGB out (types 0, 2 and every out-of-range value).
const std::string kPlainFragmentText =
    "#version 300 es\n"
    "#extension GL_OES_EGL_image_external_essl3 : require\n"
    "#extension GL_EXT_YUV_target: require\n"
    "uniform samplerExternalOES sampler_video;\n"
    "precision highp float;\n"
    "in vec2 texcoord_video;\n"
    "out vec4 outColor;\n"
    "void main() {\n"
    "  vec4 texColor = texture(sampler_video, texcoord_video);\n"
    "  outColor = texColor;\n"
    "}\n";

const std::string kRgbToYuvFragmentText =
    "#version 300 es\n"
    "#extension GL_OES_EGL_image_external_essl3 : require\n"
    "#extension GL_EXT_YUV_target: require\n"
    "uniform samplerExternalOES sampler_video;\n"
    "precision highp float;\n"
    "in vec2 texcoord_video;\n"
    "layout (yuv) out vec4 outColor;\n"
    "void main() {\n"
    "  vec4 texColor = texture(sampler_video, texcoord_video);\n"
    "  texColor = vec4(rgb_2_yuv(texColor.xyz, itu_601), texColor.w);\n"
    "  outColor = texColor;\n"
    "}\n";

const std::string kYuvToYuvFragmentText =
    "#version 300 es\n"
    "#extension GL_OES_EGL_image_external_essl3 : require\n"
    "#extension GL_EXT_YUV_target: require\n"
    "uniform __samplerExternal2DY2YEXT sampler_video;\n"
    "precision highp float;\n"
    "in vec2 texcoord_video;\n"
    "layout (yuv) out vec4 outColor;\n"
    "void main() {\n"
    "  vec4 texColor = texture(sampler_video, texcoord_video);\n"
    "  outColor = texColor;\n"
    "}\n";

struct FragmentCase {
    int32_t type;
    const std::string* expected;
};

void PrintTo(const FragmentCase& c, std::ostream* os) {
    *os << "type " << c.type;
}

class FragmentTextTest : public ::testing::TestWithParam<FragmentCase> {};

TEST_P(FragmentTextTest, IsExactForType) {
    const FragmentCase& c = GetParam();
    EXPECT_EQ(*c.expected, gpu_fragment_shader_source(static_cast<gpu_format_covert_type>(c.type)));
}

INSTANTIATE_TEST_SUITE_P(
    AllTypes, FragmentTextTest,
    ::testing::Values(FragmentCase{0, &kPlainFragmentText}, FragmentCase{1, &kRgbToYuvFragmentText},
                      FragmentCase{2, &kPlainFragmentText}, FragmentCase{3, &kYuvToYuvFragmentText},
                      // Out of range: the plain text, whatever bits happen to be set.
                      FragmentCase{4, &kPlainFragmentText}, FragmentCase{5, &kPlainFragmentText},
                      FragmentCase{7, &kPlainFragmentText}, FragmentCase{-1, &kPlainFragmentText},
                      FragmentCase{-3, &kPlainFragmentText}),
    [](const ::testing::TestParamInfo<FragmentCase>& info) {
        const int32_t t = info.param.type;
        return t < 0 ? "minus" + std::to_string(-t) : "type" + std::to_string(t);
    });

TEST(ShaderTextTest, VertexTextIsExact) {
    EXPECT_EQ(kVertexText, gpu_vertex_shader_source());
}

// The text with what only the device's driver understands taken out: the YUV-target extension
// line, the yuv output layout, the built-in colour conversion and the YUV sampler type.
std::string sharedPart(std::string text) {
    auto removeAll = [&text](const std::string& what, const std::string& with) {
        for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos)) {
            text.replace(pos, what.size(), with);
            pos += with.size();
        }
    };
    removeAll("#extension GL_EXT_YUV_target: require\n", "");
    removeAll("layout (yuv) ", "");
    removeAll("  texColor = vec4(rgb_2_yuv(texColor.xyz, itu_601), texColor.w);\n", "");
    removeAll("__samplerExternal2DY2YEXT", "samplerExternalOES");
    return text;
}

class MesaShaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        gpu_test::keepMesaDriverLoaded();
        gpu_test::setGpuLogLevel(32);
        ASSERT_EQ(1u, drawing.egl_init_env()) << log.dump();
    }

    LogCapture log;
    GpuDrawing drawing;
};

TEST_F(MesaShaderTest, SharedPartOfEveryTypeCompilesAndLinks) {
    for (int32_t type = 0; type <= 3; ++type) {
        SCOPED_TRACE("type " + std::to_string(type));
        const std::string fragment =
            sharedPart(gpu_fragment_shader_source(static_cast<gpu_format_covert_type>(type)));
        ASSERT_EQ(std::string::npos, fragment.find("yuv"));
        log.clear();
        GpuDrawing env;  // fresh shader fields; the context is the fixture's, still current
        ASSERT_EQ(1u, env.gles_compile_shaders(gpu_vertex_shader_source(), fragment.c_str()))
            << log.dump();
        EXPECT_NE(0u, env.vertex_shader);
        EXPECT_NE(0u, env.fragment_shader);
        env.program = glCreateProgram();
        glAttachShader(env.program, env.vertex_shader);
        glAttachShader(env.program, env.fragment_shader);
        glBindAttribLocation(env.program, 0, "in_vertex_video");
        glBindAttribLocation(env.program, 1, "in_texcoord_video");
        EXPECT_EQ(1u, env.gles_link_program()) << log.dump();
        EXPECT_EQ(0u, log.count("OpenGL error")) << log.dump();
        EXPECT_EQ(0, glGetAttribLocation(env.program, "in_vertex_video"));
        EXPECT_EQ(1, glGetAttribLocation(env.program, "in_texcoord_video"));
        EXPECT_GE(glGetUniformLocation(env.program, "transform"), 0);
        EXPECT_GE(glGetUniformLocation(env.program, "sampler_video"), 0);
        env.gles_cleanup();
    }
}

TEST_F(MesaShaderTest, FullFragmentTextFailsWithoutYuvTargetAndLogsTheDriver) {
    for (int32_t type = 0; type <= 3; ++type) {
        SCOPED_TRACE("type " + std::to_string(type));
        log.clear();
        GpuDrawing env;
        const std::string fragment =
            gpu_fragment_shader_source(static_cast<gpu_format_covert_type>(type));
        EXPECT_EQ(0u, env.gles_compile_shaders(gpu_vertex_shader_source(), fragment.c_str()));
        // Nothing is kept from a failed compile.
        EXPECT_EQ(0u, env.vertex_shader);
        EXPECT_EQ(0u, env.fragment_shader);
        const LogLine line = log.find("[gles_compile_shaders(");
        EXPECT_EQ(ANDROID_LOG_ERROR, line.priority) << log.dump();
        EXPECT_EQ("GPU_CAPTURE", line.tag);
        EXPECT_NE(std::string::npos, line.message.find("GL_EXT_YUV_target")) << line.message;
        EXPECT_EQ(1u, log.count("[gles_compile_shaders("));
    }
}

TEST_F(MesaShaderTest, BrokenVertexShaderStopsBeforeTheFragmentShader) {
    // Both are broken; only the vertex shader's complaint may appear.
    EXPECT_EQ(0u, drawing.gles_compile_shaders("#version 300 es\nvoid main() { oops }",
                                               "#version 300 es\nbroken fragment"));
    EXPECT_EQ(1u, log.count("[gles_compile_shaders(")) << log.dump();
    EXPECT_EQ(0u, drawing.vertex_shader);
    EXPECT_EQ(0u, drawing.fragment_shader);
}

TEST_F(MesaShaderTest, LinkFailureReturnsZeroWithTheProgramLog) {
    // Compiles on its own, but its input does not match the vertex output.
    const std::string fragment =
        "#version 300 es\n"
        "precision highp float;\n"
        "in vec3 texcoord_video;\n"
        "out vec4 outColor;\n"
        "void main() { outColor = vec4(texcoord_video, 1.0); }\n";
    ASSERT_EQ(1u, drawing.gles_compile_shaders(gpu_vertex_shader_source(), fragment.c_str()))
        << log.dump();
    drawing.program = glCreateProgram();
    glAttachShader(drawing.program, drawing.vertex_shader);
    glAttachShader(drawing.program, drawing.fragment_shader);
    EXPECT_EQ(0u, drawing.gles_link_program());
    const LogLine line = log.find("[gles_link_program(");
    EXPECT_EQ(ANDROID_LOG_ERROR, line.priority) << log.dump();
    EXPECT_GT(line.message.size(), std::string("[gles_link_program(1)] \n").size());
}

TEST_F(MesaShaderTest, InitShadersHandsOutTheEnvironmentEvenWhenTheProgramIsBroken) {
    gpu_test::setGpuLogLevel(48);
    log.clear();
    EXPECT_EQ(1u, drawing.gles_init_shaders(GPU_COVERT_YUV_TO_YUV));
    EXPECT_EQ(1u, log.countExact("gpu_format_covert_type: 3 ")) << log.dump();
    // Mesa lacks GL_EXT_YUV_target: the fragment shader fails, the link then fails too.
    EXPECT_EQ(1u, log.count("[gles_compile_shaders("));
    EXPECT_EQ(1u, log.count("[gles_link_program("));
    EXPECT_NE(0u, drawing.program);
    EXPECT_EQ(0u, drawing.vertex_shader);
    EXPECT_EQ(0u, drawing.fragment_shader);
    EXPECT_NE(0u, drawing.vertex_array);
    EXPECT_NE(0u, drawing.vertex_buffer);
    // Using the unlinked program is a GL error, reported with the path and function.
    const LogLine error = log.find(
        "OpenGL error 0x0502 in "
        "tv/hardware/interfaces/capture/1.0/default/gpu/gpu_draw,"
        "gles_init_shaders,");
    EXPECT_EQ(ANDROID_LOG_ERROR, error.priority) << log.dump();
}

// glslangValidator, when installed, as a second and independent compiler.
std::string writeTemp(const std::string& text, const char* suffix) {
    char pattern[] = "/tmp/gpu-shader-XXXXXX";
    const int fd = mkstemp(pattern);
    if (fd < 0) return "";
    ::close(fd);
    const std::string path = std::string(pattern) + suffix;
    rename(pattern, path.c_str());
    std::ofstream(path) << text;
    return path;
}

int runValidator(const std::string& path, std::string* output) {
    FILE* pipe = popen(("glslangValidator " + path + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return -1;
    char chunk[256];
    while (fgets(chunk, sizeof(chunk), pipe) != nullptr) *output += chunk;
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(GlslangShaderTest, SharedPartIsValidGlslEs300) {
    if (system("command -v glslangValidator >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "glslangValidator is not installed";
    }
    std::string output;
    const std::string vertexPath = writeTemp(gpu_vertex_shader_source(), ".vert");
    EXPECT_EQ(0, runValidator(vertexPath, &output)) << output;
    unlink(vertexPath.c_str());

    for (int32_t type = 0; type <= 3; ++type) {
        SCOPED_TRACE("type " + std::to_string(type));
        output.clear();
        const std::string path = writeTemp(
            sharedPart(gpu_fragment_shader_source(static_cast<gpu_format_covert_type>(type))),
            ".frag");
        EXPECT_EQ(0, runValidator(path, &output)) << output;
        unlink(path.c_str());
    }
    // The validator does reject broken text, so a pass above means something.
    output.clear();
    const std::string broken = writeTemp("#version 300 es\nvoid main() { x }\n", ".frag");
    EXPECT_NE(0, runValidator(broken, &output));
    unlink(broken.c_str());
}

}  // namespace
