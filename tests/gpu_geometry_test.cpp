// Crop, rotation and the vertex data of a conversion, read back from GL where GL holds them.
#include <GLES3/gl3.h>
#include <gtest/gtest.h>
#include <string.h>

#include <cmath>
#include <ostream>
#include <string>

#include "GpuTestUtil.h"
#include "LogCapture.h"
#include "gpu_draw.h"

namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;

struct CropCase {
    const char* name;
    int srcWidth, srcHeight, cropX, cropY, cropWidth, cropHeight;
    GpuTextureCoords expected;
};

void PrintTo(const CropCase& c, std::ostream* os) {
    *os << c.name;
}

class TextureCoordsTest : public ::testing::TestWithParam<CropCase> {};

TEST_P(TextureCoordsTest, FollowTheCropWithTheTopEdgeOnTheCropsLastRow) {
    const CropCase& c = GetParam();
    GpuPhotoFeatureIn feature(nullptr, nullptr);
    feature.srcWidth = c.srcWidth;
    feature.srcHeight = c.srcHeight;
    feature.cropX = c.cropX;
    feature.cropY = c.cropY;
    feature.cropWidth = c.cropWidth;
    feature.cropHeight = c.cropHeight;
    GpuTextureCoords coords{};
    ASSERT_TRUE(gpu_texture_coords(feature, &coords));
    EXPECT_EQ(c.expected.left, coords.left);
    EXPECT_EQ(c.expected.right, coords.right);
    EXPECT_EQ(c.expected.top, coords.top);
    EXPECT_EQ(c.expected.bottom, coords.bottom);
}

INSTANTIATE_TEST_SUITE_P(
    Crops, TextureCoordsTest,
    ::testing::Values(
        // The whole source gives exactly 0 and 1.
        CropCase{"whole", 1920, 1080, 0, 0, 1920, 1080, {0.0f, 1.0f, 1.0f, 0.0f}},
        CropCase{"centre", 1920, 1080, 480, 270, 960, 540, {0.25f, 0.75f, 0.75f, 0.25f}},
        CropCase{"corner", 1000, 500, 750, 0, 250, 125, {0.75f, 1.0f, 0.25f, 0.0f}},
        // Thirds are computed in double and rounded once to float.
        CropCase{"thirds", 3, 3, 1, 1, 1, 1, {0.33333334f, 0.6666667f, 0.6666667f, 0.33333334f}},
        // A crop past the source samples outside [0, 1]; the GPU clamps.
        CropCase{"beyond", 100, 100, 50, 50, 100, 100, {0.5f, 1.5f, 1.5f, 0.5f}}),
    [](const ::testing::TestParamInfo<CropCase>& info) { return info.param.name; });

TEST(TextureCoordsTest, SourceWithoutSizeIsRefusedAndNothingWritten) {
    for (const auto& size : {std::make_pair(0, 1080), std::make_pair(1920, 0),
                             std::make_pair(-1920, 1080), std::make_pair(1920, -2)}) {
        SCOPED_TRACE(std::to_string(size.first) + "x" + std::to_string(size.second));
        GpuPhotoFeatureIn feature(nullptr, nullptr);
        feature.srcWidth = size.first;
        feature.srcHeight = size.second;
        feature.cropWidth = 16;
        feature.cropHeight = 16;
        GpuTextureCoords coords{7.0f, 7.0f, 7.0f, 7.0f};
        EXPECT_FALSE(gpu_texture_coords(feature, &coords));
        EXPECT_EQ(7.0f, coords.left);
        EXPECT_EQ(7.0f, coords.bottom);
    }
}

TEST(RotationTest, PiConstantIsOneUnitBelowTheNearestFloat) {
    uint32_t bits = 0;
    memcpy(&bits, &kGpuRotationPi, sizeof(bits));
    EXPECT_EQ(0x40490FDAu, bits);
}

TEST(RotationTest, ZeroDegreesIsTheIdentity) {
    const ::android::mat4 m = gpu_rotation_matrix(0.0f);
    const float* values = m.asArray();
    for (int i = 0; i < 16; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(i % 5 == 0 ? 1.0f : 0.0f, values[i]);
    }
}

TEST(RotationTest, QuarterTurnsTurnCounterClockwiseAboutTheScreenNormal) {
    struct Case {
        float degrees;
        float cosine;  // expected, to within 1e-6
        float sine;
    };
    for (const Case& c : {Case{90.0f, 0.0f, 1.0f}, Case{180.0f, -1.0f, 0.0f},
                          Case{270.0f, 0.0f, -1.0f}, Case{45.0f, 0.70710677f, 0.70710677f}}) {
        SCOPED_TRACE(c.degrees);
        const ::android::mat4 m = gpu_rotation_matrix(c.degrees);
        const float* v = m.asArray();  // column-major
        const float expected[16] = {c.cosine, c.sine, 0, 0, -c.sine, c.cosine, 0, 0,
                                    0,        0,      1, 0, 0,       0,        0, 1};
        for (int i = 0; i < 16; ++i) EXPECT_NEAR(expected[i], v[i], 1e-6f) << "element " << i;
        // The x axis of the quad goes to where the rotation says.
        const ::android::vec4 x = m * ::android::vec4(1.0f, 0.0f, 0.0f, 1.0f);
        EXPECT_NEAR(c.cosine, x.x, 1e-6f);
        EXPECT_NEAR(c.sine, x.y, 1e-6f);
        EXPECT_EQ(1.0f, x.w);
    }
    // The shortened pi keeps a quarter-turn just short of 90 degrees: cos stays positive, where
    // the nearest float to pi would overshoot and make it negative.
    EXPECT_GT(gpu_rotation_matrix(90.0f)[0][0], 0.0f);
}

// A current context with the environment's vertex names, for reading back what was uploaded.
class VertexBufferTest : public ::testing::Test {
protected:
    void SetUp() override {
        gpu_test::keepMesaDriverLoaded();
        gpu_test::setGpuLogLevel(32);
        ASSERT_EQ(1u, drawing.egl_init_env());
        drawing.gles_init_shaders(GPU_COVERT_RGB_TO_RGB);
        ASSERT_NE(0u, drawing.vertex_buffer);
        // What Mesa said about the unlinkable program is not these tests' business.
        log.clear();
    }

    // The 36 floats in the environment's vertex buffer.
    std::vector<float> readBack() {
        glBindBuffer(GL_ARRAY_BUFFER, drawing.vertex_buffer);
        GLint size = 0;
        glGetBufferParameteriv(GL_ARRAY_BUFFER, GL_BUFFER_SIZE, &size);
        EXPECT_EQ(144, size);
        std::vector<float> floats(36, -99.0f);
        const void* mapped = glMapBufferRange(GL_ARRAY_BUFFER, 0, 144, GL_MAP_READ_BIT);
        EXPECT_NE(nullptr, mapped);
        if (mapped != nullptr && size == 144) memcpy(floats.data(), mapped, 144);
        glUnmapBuffer(GL_ARRAY_BUFFER);
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        return floats;
    }

    LogCapture log;
    GpuDrawing drawing;
};

TEST_F(VertexBufferTest, TwoTrianglesInTheDocumentedOrder) {
    ASSERT_EQ(1u, drawing.gles_generate_vertex(-0.5f, 0.75f, 0.25f, -1.0f, 0.1f, 0.9f, 0.8f, 0.2f));
    const float l = -0.5f, r = 0.75f, t = 0.25f, b = -1.0f;
    const float tl = 0.1f, tr = 0.9f, tt = 0.8f, tb = 0.2f;
    const float expected[36] = {
        l, t, 0, 1, tl, tt,  //
        l, b, 0, 1, tl, tb,  //
        r, b, 0, 1, tr, tb,  //
        r, b, 0, 1, tr, tb,  //
        r, t, 0, 1, tr, tt,  //
        l, t, 0, 1, tl, tt,  //
    };
    const std::vector<float> actual = readBack();
    for (int i = 0; i < 36; ++i) EXPECT_EQ(expected[i], actual[i]) << "float " << i;
}

TEST_F(VertexBufferTest, AttributesDescribeTheInterleavedLayoutAndBindingsAreRestored) {
    drawing.gles_generate_vertex(-1, 1, 1, -1, 0, 1, 1, 0);
    GLint binding = -1;
    glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &binding);
    EXPECT_EQ(0, binding);
    glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &binding);
    EXPECT_EQ(0, binding);

    glBindVertexArray(drawing.vertex_array);
    struct Attribute {
        GLuint index;
        GLint size;
        uintptr_t offset;
    };
    for (const Attribute& a : {Attribute{0, 4, 0}, Attribute{1, 2, 16}}) {
        SCOPED_TRACE(a.index);
        GLint value = -1;
        glGetVertexAttribiv(a.index, GL_VERTEX_ATTRIB_ARRAY_ENABLED, &value);
        EXPECT_EQ(GL_TRUE, value);
        glGetVertexAttribiv(a.index, GL_VERTEX_ATTRIB_ARRAY_SIZE, &value);
        EXPECT_EQ(a.size, value);
        glGetVertexAttribiv(a.index, GL_VERTEX_ATTRIB_ARRAY_STRIDE, &value);
        EXPECT_EQ(24, value);
        glGetVertexAttribiv(a.index, GL_VERTEX_ATTRIB_ARRAY_TYPE, &value);
        EXPECT_EQ(GL_FLOAT, value);
        glGetVertexAttribiv(a.index, GL_VERTEX_ATTRIB_ARRAY_NORMALIZED, &value);
        EXPECT_EQ(GL_FALSE, value);
        glGetVertexAttribiv(a.index, GL_VERTEX_ATTRIB_ARRAY_BUFFER_BINDING, &value);
        EXPECT_EQ(static_cast<GLint>(drawing.vertex_buffer), value);
        void* pointer = reinterpret_cast<void*>(1);
        glGetVertexAttribPointerv(a.index, GL_VERTEX_ATTRIB_ARRAY_POINTER, &pointer);
        EXPECT_EQ(a.offset, reinterpret_cast<uintptr_t>(pointer));
    }
    glBindVertexArray(0);
    EXPECT_EQ(0u, log.count("OpenGL error")) << log.dump();
}

TEST_F(VertexBufferTest, DrawFrameUploadsTheWholeViewportQuadAndTheCropsCoordinates) {
    GpuPhotoFeatureIn feature(nullptr, nullptr);
    feature.srcWidth = 1920;
    feature.srcHeight = 1080;
    feature.dstWidth = 64;
    feature.dstHeight = 64;
    feature.cropX = 480;
    feature.cropY = 270;
    feature.cropWidth = 960;
    feature.cropHeight = 540;
    gpu_test::setGpuLogLevel(48);
    ASSERT_EQ(1, gpu_draw_frame(&feature, &drawing));
    EXPECT_EQ(1u, log.countExact("model_x_left = -1.000000, model_x_right = 1.000000, "
                                 "model_y_top = 1.000000, model_y_bottom = -1.000000"));
    EXPECT_EQ(1u, log.countExact("texture_x_left = 0.250000, texture_x_right = 0.750000, "
                                 "texture_y_top = 0.750000, texture_y_bottom = 0.250000"))
        << log.dump();
    const float expected[36] = {
        -1, 1,  0, 1, 0.25f, 0.75f,  //
        -1, -1, 0, 1, 0.25f, 0.25f,  //
        1,  -1, 0, 1, 0.75f, 0.25f,  //
        1,  -1, 0, 1, 0.75f, 0.25f,  //
        1,  1,  0, 1, 0.75f, 0.75f,  //
        -1, 1,  0, 1, 0.25f, 0.75f,  //
    };
    const std::vector<float> actual = readBack();
    for (int i = 0; i < 36; ++i) EXPECT_EQ(expected[i], actual[i]) << "float " << i;
}

TEST_F(VertexBufferTest, DrawFrameUploadsTheRotationAsTheTransform) {
    // The real program cannot link on Mesa (no YUV target); put in one that can, with the same
    // vertex shader, so the uniform can be read back.
    GpuDrawing shaders;
    const std::string fragment =
        "#version 300 es\n"
        "#extension GL_OES_EGL_image_external_essl3 : require\n"
        "uniform samplerExternalOES sampler_video;\n"
        "precision highp float;\n"
        "in vec2 texcoord_video;\n"
        "out vec4 outColor;\n"
        "void main() { outColor = texture(sampler_video, texcoord_video); }\n";
    ASSERT_EQ(1u, shaders.gles_compile_shaders(gpu_vertex_shader_source(), fragment.c_str()));
    glDeleteProgram(drawing.program);
    drawing.program = glCreateProgram();
    glAttachShader(drawing.program, shaders.vertex_shader);
    glAttachShader(drawing.program, shaders.fragment_shader);
    ASSERT_EQ(1u, drawing.gles_link_program());

    GpuPhotoFeatureIn feature(nullptr, nullptr);
    feature.srcWidth = feature.srcHeight = feature.dstWidth = feature.dstHeight = 32;
    feature.cropWidth = feature.cropHeight = 32;
    feature.rotation = 90.0f;
    ASSERT_EQ(1, gpu_draw_frame(&feature, &drawing));

    float uploaded[16] = {};
    glGetUniformfv(drawing.program, glGetUniformLocation(drawing.program, "transform"), uploaded);
    const ::android::mat4 expected = gpu_rotation_matrix(90.0f);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(expected.asArray()[i], uploaded[i]) << "element " << i;
    EXPECT_NEAR(1.0f, uploaded[1], 1e-6f);   // column 0, row 1: sin
    EXPECT_NEAR(-1.0f, uploaded[4], 1e-6f);  // column 1, row 0: -sin
    shaders.gles_cleanup();
}

}  // namespace
