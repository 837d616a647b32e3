// What the emulated two-engine platform can do: read from the same device-tree files the
// service reads, so that editing the tree changes the hardware and the service's view alike.
#pragma once

#include <stdint.h>

#include <string>

#include "VxCaptureHal.h"
#include "capture_emulator/FrameLayout.h"

namespace capture_emulator {

// Engine limits that the device tree does not describe (the sub-HAL's own knowledge).
constexpr uint32_t kMinWidth = 64;
constexpr uint32_t kMinHeight = 16;
constexpr uint32_t kMaxWidth = 1920;       // one engine's line buffer
constexpr uint32_t kMaxWidthRwSep = 4096;  // with read/write separation
constexpr uint32_t kMaxHeight = 2304;
constexpr uint32_t kMaxSourceWidth = 4096;  // live video timings
constexpr uint32_t kMaxSourceHeight = 2304;
constexpr uint32_t kMaxScale = 8;  // either way
constexpr uint32_t kMaxFps = 240;
constexpr uint32_t kDefaultFps = 60;
constexpr uint64_t kBandwidthBudget = 6400ull * 1000 * 1000;  // bytes per second, both engines
constexpr uint32_t kCapturePointOsd = 12;
constexpr uint32_t kCapturePointCount = 13;

struct HwCaps {
    std::string root;          // device-tree root the capabilities came from
    uint8_t rotate = 0;        // 0x01: 90 degrees, 0x02: 270 degrees
    uint32_t hMirrorSize = 0;  // widest crop that can be turned by 180 degrees
    bool crop = false;
    bool downscale = false;
    bool upscale = false;
    bool rwSep = false;
    bool osd = false;
    uint32_t tileWidthMax = 0;
    uint32_t writeMask = 0;  // CaptureFormat bits the engines write and the emulator produces
    uint32_t readMask = 0;   // ... read and the emulator decodes

    bool canWrite(const PixelFormatInfo& f) const {
        return f.writable && (writeMask & f.captureFormat) != 0;
    }
    bool canRead(const PixelFormatInfo& f) const {
        return f.readable && (readMask & f.captureFormat) != 0;
    }
    uint32_t maxWidth() const { return rwSep ? kMaxWidthRwSep : kMaxWidth; }
};

// Reads CAPTURE_DEVICE_TREE_ROOT (or the tree shipped with the emulator).
HwCaps loadHwCaps();

// The answers of VX_CAPTURE_GetCapabilityInfo and the usable flag of VX_CAPTURE_GetDipInfo.
void fillQueryAnswer(const HwCaps& caps, const VX_CAPTURE_setQueryInfo_s& query,
                     VX_CAPTURE_getQueryInfo_s* answer);
// Zero when the engines can do the conversion; otherwise the reason, as a status.
uint32_t checkConversion(const HwCaps& caps, const VX_CAPTURE_setQueryInfo_s& query,
                         std::string* why);
// Bytes per second the conversion moves at `fps` (destination written, source read from memory).
uint64_t conversionBandwidth(const VX_CAPTURE_setQueryInfo_s& query, uint32_t fps);
uint64_t frameBytes(uint32_t vxFormat, uint32_t width, uint32_t height);

}  // namespace capture_emulator
