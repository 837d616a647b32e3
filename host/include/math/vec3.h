// Three-component vector of libui's math templates (the subset the service needs).
#pragma once

#include <stddef.h>

namespace android {
namespace details {

template <typename T>
class TVec3 {
public:
    T x, y, z;

    constexpr TVec3() : x(0), y(0), z(0) {}
    constexpr TVec3(T v) : x(v), y(v), z(v) {}  // NOLINT(google-explicit-constructor)
    constexpr TVec3(T px, T py, T pz) : x(px), y(py), z(pz) {}

    static constexpr size_t size() { return 3; }

    // Indices past the last component clamp to it rather than leave the object.
    T& operator[](size_t i) { return i == 0 ? x : (i == 1 ? y : z); }
    const T& operator[](size_t i) const { return i == 0 ? x : (i == 1 ? y : z); }
};

}  // namespace details

typedef details::TVec3<float> vec3;

}  // namespace android
