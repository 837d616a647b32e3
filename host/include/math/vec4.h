// Four-component vector of libui's math templates (the subset the service needs).
#pragma once

#include <stddef.h>

namespace android {
namespace details {

template <typename T>
class TVec4 {
public:
    T x, y, z, w;

    constexpr TVec4() : x(0), y(0), z(0), w(0) {}
    constexpr TVec4(T v) : x(v), y(v), z(v), w(v) {}  // NOLINT(google-explicit-constructor)
    constexpr TVec4(T px, T py, T pz, T pw) : x(px), y(py), z(pz), w(pw) {}

    static constexpr size_t size() { return 4; }

    // Indices past the last component clamp to it rather than leave the object.
    T& operator[](size_t i) { return i == 0 ? x : (i == 1 ? y : (i == 2 ? z : w)); }
    const T& operator[](size_t i) const { return i == 0 ? x : (i == 1 ? y : (i == 2 ? z : w)); }
};

}  // namespace details

typedef details::TVec4<float> vec4;

}  // namespace android
