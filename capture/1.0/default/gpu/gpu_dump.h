// Raw dumps of the GPU path's input and output frames, for viewing a conversion off the device.
// Switched on per frame by the property "vendor.zor.capture_hal.dumpdata" = "1".
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

constexpr const char* kDumpDataProperty = "vendor.zor.capture_hal.dumpdata";
constexpr const char* kDumpInputPrefix = "gpu_intput-";
constexpr const char* kDumpOutputPrefix = "gpu_output-";
// Both the format-name buffer of CalculateDumpInfo and the path buffer of DumpData.
constexpr size_t kDumpNameSize = 128;
// Names count 0001..9999 and then start again.
constexpr uint32_t kDumpIndexLimit = 10000;
// For callers that cannot tell how large the mapping behind a buffer is.
constexpr uint64_t kDumpBufferSizeUnknown = std::numeric_limits<uint64_t>::max();

// Sequence numbers of the next input and output dump file (both start at 1).
extern std::atomic<uint32_t> dump_input_index;
extern std::atomic<uint32_t> dump_output_index;

// Pitch in pixels, size in bytes and a printable name of a frame in a HAL pixel format, from its
// row stride in bytes. Formats without a name leave pitch and size 0. formatName must hold
// kDumpNameSize bytes.
void CalculateDumpInfo(uint32_t stride, uint32_t height, uint32_t format, uint32_t* pitchInPixel,
                       uint64_t* size, char* formatName);

// Writes one frame to "<dump directory><prefix><index>[_s<pitch>]_<w>x<h>[_<format>].raw".
// A frame larger than bufferSize is refused rather than read past the mapping. 1 when the file
// was opened, else 0.
int DumpData(const char* prefix, uint32_t index, uint32_t stride, uint32_t width, uint32_t height,
             uint32_t format, const void* buffer, uint64_t bufferSize = kDumpBufferSizeUnknown);

// Dump under the next input (output) sequence number; the new counter value, 0 when nothing
// was written.
uint32_t DumpInputData(uint32_t stride, uint32_t width, uint32_t height, uint32_t format,
                       const void* buffer, uint64_t bufferSize = kDumpBufferSizeUnknown);
uint32_t DumpOutputData(uint32_t stride, uint32_t width, uint32_t height, uint32_t format,
                        const void* buffer, uint64_t bufferSize = kDumpBufferSizeUnknown);

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
