// Width alignment of the platform allocator, as the GPU path's destinations need it.
#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

#include "PlatformConfig.h"
#include "gpu_draw.h"

namespace vendor {
namespace quenlark {
namespace hardware {
namespace capture {
namespace V1_0 {
namespace implementation {

namespace {

// CPU read/write often, GPU texture and render target, composer overlay and client target, and
// the platform's private bit: the usage of a real capture destination, so the allocator applies
// the same alignment rules.
constexpr uint32_t kProbeUsage = 0x02001B33;

}  // namespace

uint32_t gpu_get_width_align(uint32_t format) {
    // The stride of a one-pixel-wide buffer is exactly the allocator's alignment for the format.
    ::android::sp<::android::GraphicBuffer> probe = new ::android::GraphicBuffer(
        1, 1, static_cast<::android::PixelFormat>(format), kProbeUsage, "<Unknown>");
    const native_handle_t* handle = probe->handle;
    if (handle == nullptr) return 0;
    return static_cast<uint32_t>(allocatorStride(handle));
}

}  // namespace implementation
}  // namespace V1_0
}  // namespace capture
}  // namespace hardware
}  // namespace quenlark
}  // namespace vendor
