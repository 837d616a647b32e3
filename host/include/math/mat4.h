// 4x4 matrices of libui's math templates: column-major storage, m[col][row], identity by
// default, asArray() ready for glUniformMatrix4fv(..., GL_FALSE, ...).
#pragma once

#include <stddef.h>
#include <math/vec3.h>
#include <math/vec4.h>

#include <cmath>

namespace android {
namespace details {

template <typename T>
class TMat44 {
public:
    typedef TVec4<T> col_type;
    static constexpr size_t COL_SIZE = 4;
    static constexpr size_t ROW_SIZE = 4;

    TMat44() {
        for (size_t c = 0; c < COL_SIZE; ++c) {
            mValue[c] = col_type(0);
            mValue[c][c] = T(1);
        }
    }

    TMat44(const col_type& c0, const col_type& c1, const col_type& c2, const col_type& c3)
        : mValue{c0, c1, c2, c3} {}

    // Indices past the last column clamp to it rather than leave the object.
    col_type& operator[](size_t col) { return mValue[col < COL_SIZE ? col : COL_SIZE - 1]; }
    const col_type& operator[](size_t col) const {
        return mValue[col < COL_SIZE ? col : COL_SIZE - 1];
    }

    const T* asArray() const { return &mValue[0].x; }

private:
    col_type mValue[COL_SIZE];
};

// asArray() hands the 16 values to GL as one array.
static_assert(sizeof(TVec4<float>) == 4 * sizeof(float), "TVec4 must be packed");
static_assert(sizeof(TMat44<float>) == 16 * sizeof(float), "TMat44 must be packed");

template <typename T>
TVec4<T> operator*(const TMat44<T>& m, const TVec4<T>& v) {
    TVec4<T> result;
    for (size_t row = 0; row < 4; ++row) {
        result[row] = m[0][row] * v.x + m[1][row] * v.y + m[2][row] * v.z + m[3][row] * v.w;
    }
    return result;
}

template <template <typename> class BASE, typename T>
class TMatTransform {
public:
    // Right-handed rotation by `radian` about `about`, normalised first; a zero axis gives the
    // identity.
    template <typename A>
    static BASE<T> rotate(A radian, const TVec3<A>& about) {
        BASE<T> r;
        const T ax = T(about.x), ay = T(about.y), az = T(about.z);
        const T length = std::sqrt(ax * ax + ay * ay + az * az);
        if (!(length > T(0))) return r;
        const T x = ax / length, y = ay / length, z = az / length;
        const T c = T(std::cos(radian));
        const T s = T(std::sin(radian));
        const T t = T(1) - c;
        r[0][0] = c + x * x * t;
        r[0][1] = y * x * t + z * s;
        r[0][2] = z * x * t - y * s;
        r[1][0] = x * y * t - z * s;
        r[1][1] = c + y * y * t;
        r[1][2] = z * y * t + x * s;
        r[2][0] = x * z * t + y * s;
        r[2][1] = y * z * t - x * s;
        r[2][2] = c + z * z * t;
        return r;
    }
};

}  // namespace details

typedef details::TMat44<float> mat4;

}  // namespace android
