// android.hidl.base@1.0 records, as the platform's interface library declares them.
#pragma once

#include <hidl/HidlSupport.h>
#include <stddef.h>
#include <stdint.h>

#include <string>

namespace android {
namespace hidl {
namespace base {
namespace V1_0 {

// What getDebugInfo() reports: the serving process, the object's address and the word size.
struct DebugInfo final {
    enum class Architecture : int32_t {
        UNKNOWN = 0,
        IS_64BIT = 1,
        IS_32BIT = 2,
    };

    int32_t pid __attribute__((aligned(4)));
    uint64_t ptr __attribute__((aligned(8)));
    Architecture arch __attribute__((aligned(4)));
};

static_assert(offsetof(DebugInfo, ptr) == 8, "wrong offset");
static_assert(offsetof(DebugInfo, arch) == 16, "wrong offset");
static_assert(sizeof(DebugInfo) == 24, "wrong size");

static inline std::string toString(DebugInfo::Architecture o) {
    switch (o) {
        case DebugInfo::Architecture::UNKNOWN:
            return "UNKNOWN";
        case DebugInfo::Architecture::IS_64BIT:
            return "IS_64BIT";
        case DebugInfo::Architecture::IS_32BIT:
            return "IS_32BIT";
    }
    return ::android::hardware::details::toHexString(static_cast<int32_t>(o));
}

static inline std::string toString(const DebugInfo& o) {
    return "{.pid = " + ::android::hardware::toString(o.pid) +
           ", .ptr = " + ::android::hardware::toString(o.ptr) + ", .arch = " + toString(o.arch) +
           "}";
}

static inline bool operator==(const DebugInfo& lhs, const DebugInfo& rhs) {
    return lhs.pid == rhs.pid && lhs.ptr == rhs.ptr && lhs.arch == rhs.arch;
}
static inline bool operator!=(const DebugInfo& lhs, const DebugInfo& rhs) {
    return !(lhs == rhs);
}

}  // namespace V1_0
}  // namespace base
}  // namespace hidl
}  // namespace android
