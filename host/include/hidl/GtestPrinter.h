// Names of the test instances of a VTS module parameterised over HAL instance names: gtest
// allows only letters, digits and '_' in a name, and two instances must not collide.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace android {
namespace hardware {

static inline std::string Sanitize(std::string name) {
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return name;
}

// "<index>/<instance>", sanitised; the index keeps names apart.
static inline std::string PrintInstanceNameToString(
    const testing::TestParamInfo<std::string>& info) {
    return Sanitize(std::to_string(info.index) + "/" + info.param);
}

// "<instance>_<instance>_..._<index>", sanitised.
template <typename... T>
static inline std::string PrintInstanceTupleNameToString(
    const testing::TestParamInfo<std::tuple<T...>>& info) {
    std::string name;
    std::apply([&name](const auto&... instance) { ((name += std::string(instance) + "_"), ...); },
               info.param);
    return Sanitize(name + std::to_string(info.index));
}

}  // namespace hardware
}  // namespace android
