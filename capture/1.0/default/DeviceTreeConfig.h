// Reading of the DIP engines' device-tree properties (Capture::loadSystemConfig folds them).
#pragma once

#include <cstdint>
#include <string>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

// A big-endian property of 1 to 4 bytes; defaultValue when it is missing, empty, longer than
// four bytes or zero.
uint32_t getConfigValue(const std::string& path, int defaultValue);

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
