#include <gtest/gtest.h>
#include <ui/mat4.h>

#include <cmath>

using android::mat4;
using android::details::TMat44;
using android::details::TMatTransform;
using android::details::TVec3;
using android::details::TVec4;

namespace {

constexpr float kEpsilon = 1e-6f;

void expectNear(const TVec4<float>& actual, const TVec4<float>& expected) {
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_NEAR(actual[i], expected[i], kEpsilon);
    }
}

TEST(Mat4Test, DefaultIsIdentityInColumnMajorOrder) {
    mat4 m;
    const float* values = m.asArray();
    for (size_t i = 0; i < 16; ++i) {
        EXPECT_EQ(values[i], i % 5 == 0 ? 1.0f : 0.0f) << i;
    }
    m[3][0] = 5.0f;  // column 3, row 0: the x translation
    EXPECT_EQ(m.asArray()[12], 5.0f);
    expectNear(m * TVec4<float>(1, 2, 3, 1), TVec4<float>(6, 2, 3, 1));
}

TEST(Mat4Test, RotationAboutZ) {
    const float quarter = 90.0f * 3.1415925f / 180.0f;
    const mat4 r = TMatTransform<TMat44, float>::rotate(quarter, TVec3<float>(0, 0, 1));

    // A quarter-turn counter-clockwise: x goes to y, y to -x, z and w stay.
    expectNear(r * TVec4<float>(1, 0, 0, 1), TVec4<float>(0, 1, 0, 1));
    expectNear(r * TVec4<float>(0, 1, 0, 1), TVec4<float>(-1, 0, 0, 1));
    expectNear(r * TVec4<float>(0, 0, 1, 1), TVec4<float>(0, 0, 1, 1));
    // Column-major: element 1 is column 0, row 1 (sin a); element 4 is column 1, row 0.
    EXPECT_NEAR(r.asArray()[1], 1.0f, kEpsilon);
    EXPECT_NEAR(r.asArray()[4], -1.0f, kEpsilon);

    const float a = 0.3f;
    const mat4 small = TMatTransform<TMat44, float>::rotate(a, TVec3<float>(0, 0, 1));
    expectNear(
        small * TVec4<float>(2, 3, 0, 1),
        TVec4<float>(2 * std::cos(a) - 3 * std::sin(a), 2 * std::sin(a) + 3 * std::cos(a), 0, 1));
}

TEST(Mat4Test, RotationAxesAndDegenerateCases) {
    struct Case {
        const char* name;
        float angle;
        TVec3<float> axis;
        TVec4<float> in;
        TVec4<float> out;
    };
    const float quarter = 1.57079637f;
    const Case cases[] = {
        {"zero angle is identity", 0.0f, {0, 0, 1}, {1, 2, 3, 1}, {1, 2, 3, 1}},
        {"axis length does not matter", quarter, {0, 0, 2}, {1, 0, 0, 1}, {0, 1, 0, 1}},
        {"about x takes y to z", quarter, {1, 0, 0}, {0, 1, 0, 1}, {0, 0, 1, 1}},
        {"about y takes z to x", quarter, {0, 1, 0}, {0, 0, 1, 1}, {1, 0, 0, 1}},
        {"half turn about z", 2 * quarter, {0, 0, 1}, {1, 2, 0, 1}, {-1, -2, 0, 1}},
        {"diagonal axis cycles x y z", 2.0943951f, {1, 1, 1}, {1, 0, 0, 1}, {0, 1, 0, 1}},
        {"zero axis is identity", quarter, {0, 0, 0}, {1, 2, 3, 1}, {1, 2, 3, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        expectNear(TMatTransform<TMat44, float>::rotate(c.angle, c.axis) * c.in, c.out);
    }
}

}  // namespace
