#include "HwCaps.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

#include "capture_emulator/Emulator.h"

namespace capture_emulator {
namespace {

// A big-endian cell of 1..4 bytes as the kernel exports it; 0 when absent or malformed.
uint32_t readCell(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return 0;
    uint8_t bytes[5];
    ssize_t n = ::read(fd, bytes, sizeof(bytes));
    ::close(fd);
    if (n <= 0 || n > 4) return 0;
    uint32_t value = 0;
    for (ssize_t i = 0; i < n; ++i) value = (value << 8) | bytes[i];
    return value;
}

std::string treeRoot() {
    const char* env = getenv("CAPTURE_DEVICE_TREE_ROOT");
    std::string root = env != nullptr && env[0] != '\0' ? env : CAPTURE_EMULATOR_DEVICE_TREE;
    if (root.back() != '/') root += '/';
    return root;
}

bool isRotation(uint32_t angle) {
    return angle == 0 || angle == 90 || angle == 180 || angle == 270;
}

}  // namespace

HwCaps loadHwCaps() {
    HwCaps caps;
    caps.root = treeRoot();
    for (const char* dip : {"dip0/", "dip1/"}) {
        std::string cap = caps.root + dip + "capability/";
        caps.rotate |= static_cast<uint8_t>(readCell(cap + "Rotate") & 0x03);
        caps.hMirrorSize = std::max(caps.hMirrorSize, readCell(cap + "HMirrorSz"));
        caps.crop = caps.crop || readCell(cap + "CropAlign") != 0;
        caps.downscale = caps.downscale || readCell(cap + "DSCL") != 0;
        caps.upscale = caps.upscale || readCell(cap + "USCL") != 0;
        caps.rwSep = caps.rwSep || (readCell(cap + "RWSep") & 0xFF) != 0;
        caps.tileWidthMax = std::max(caps.tileWidthMax, readCell(cap + "TileWidthMax"));
        for (const PixelFormatInfo& f : kPixelFormats) {
            uint32_t v = readCell(caps.root + dip + "format_support/" + f.name);
            if ((v & 0x01) != 0) caps.writeMask |= f.captureFormat;
            if ((v & 0x10) != 0) caps.readMask |= f.captureFormat;
        }
    }
    caps.osd = readCell(caps.root + "dip0/capability/CapOSD") != 0;
    if (caps.rwSep) caps.tileWidthMax *= 4;
    return caps;
}

uint64_t frameBytes(uint32_t vxFormat, uint32_t width, uint32_t height) {
    const PixelFormatInfo* f = findVxFormat(vxFormat);
    FrameLayout layout;
    uint32_t evenWidth =
        static_cast<uint32_t>(std::min<uint64_t>(alignUp(width, 2), UINT32_MAX - 1));
    uint32_t evenHeight =
        static_cast<uint32_t>(std::min<uint64_t>(alignUp(height, 2), UINT32_MAX - 1));
    if (f == nullptr || !computeFrameLayout(*f, evenWidth, evenHeight, 0, &layout)) {
        // Sizes the layout refuses still cost bandwidth: estimate at 4 bytes a pixel.
        return static_cast<uint64_t>(width) * height * 4;
    }
    return static_cast<uint64_t>(layout.lumaSize) + layout.chromaSize;
}

uint64_t conversionBandwidth(const VX_CAPTURE_setQueryInfo_s& query, uint32_t fps) {
    uint64_t bytes = frameBytes(query.dst_format, query.dst_width, query.dst_height);
    if (query.bIsDram != 0)
        bytes += frameBytes(query.src_format, query.src_width, query.src_height);
    return bytes * (fps != 0 ? fps : kDefaultFps);
}

void fillQueryAnswer(const HwCaps& caps, const VX_CAPTURE_setQueryInfo_s& query,
                     VX_CAPTURE_getQueryInfo_s* answer) {
    *answer = VX_CAPTURE_getQueryInfo_s();
    const PixelFormatInfo* dst = findVxFormat(query.dst_format);
    const PixelFormatInfo* src = findVxFormat(query.src_format);
    // Words 0, 1, 3, 7 and 8 are this hardware's own: height limit, frame-rate limit, ring
    // depth, the engine that would run the request (1 or 2), and the largest scale factor.
    answer->u32Word0 = kMaxHeight;
    answer->u32Word1 = kMaxFps;
    answer->u32Word3 = kMaxRingFrames;
    answer->u32Word7 = query.dst_width > kMaxWidth || query.src_width > kMaxWidth ? 1 : 2;
    answer->u32Word8 = kMaxScale;
    if (dst != nullptr) {
        answer->dst_width_align = rowAlignPixels(dst->bytesPerPixel);
        answer->dst_width_align_valid = 1;
    }
    if (src != nullptr) answer->src_width_align = src->tiled ? 16 : (isYuv(*src) ? 2 : 1);
    answer->src_min_width = kMinWidth;
    answer->src_max_width = kMaxWidth;
    answer->src_max_width_rwsep = caps.rwSep ? kMaxWidthRwSep : 0;
    answer->dst_min_width = kMinWidth;
    answer->dst_max_width = kMaxWidth;
    answer->dst_max_width_rwsep = caps.rwSep ? kMaxWidthRwSep : 0;
}

uint32_t checkConversion(const HwCaps& caps, const VX_CAPTURE_setQueryInfo_s& query,
                         std::string* why) {
    const PixelFormatInfo* dst = findVxFormat(query.dst_format);
    const PixelFormatInfo* src = findVxFormat(query.src_format);
    const bool dram = query.bIsDram != 0;
    if (dst == nullptr || !caps.canWrite(*dst)) {
        *why = "destination format not written by the DIP";
        return kFormat;
    }
    if (dram && (src == nullptr || !caps.canRead(*src))) {
        *why = "source format not read by the DIP";
        return kFormat;
    }
    if (!isRotation(query.rotationAngle)) {
        *why = "rotation not a multiple of 90 degrees";
        return kBadRotation;
    }
    if ((query.rotationAngle == 90 && (caps.rotate & 0x01) == 0) ||
        (query.rotationAngle == 270 && (caps.rotate & 0x02) == 0) ||
        (query.rotationAngle == 180 && query.src_width > caps.hMirrorSize)) {
        *why = "rotation beyond the engines";
        return kBadRotation;
    }
    if (query.dst_width < kMinWidth || query.dst_width > caps.maxWidth() ||
        query.dst_height < kMinHeight || query.dst_height > kMaxHeight) {
        *why = "destination size outside the engines' limits";
        return kBadSize;
    }
    if (dram && (query.src_width < kMinWidth || query.src_width > caps.maxWidth() ||
                 query.src_height < kMinHeight || query.src_height > kMaxHeight)) {
        *why = "source size outside the engines' limits";
        return kBadSize;
    }
    if (dram && src->tiled && query.src_width > caps.tileWidthMax) {
        *why = "tiled source wider than the tile reader";
        return kBadSize;
    }
    bool turned = query.rotationAngle == 90 || query.rotationAngle == 270;
    uint64_t outW = turned ? query.dst_height : query.dst_width;
    uint64_t outH = turned ? query.dst_width : query.dst_height;
    if (query.src_width != 0 && query.src_height != 0) {
        bool down = outW < query.src_width || outH < query.src_height;
        bool up = outW > query.src_width || outH > query.src_height;
        if ((down && !caps.downscale) || (up && !caps.upscale) ||
            outW * kMaxScale < query.src_width || outH * kMaxScale < query.src_height ||
            outW > query.src_width * uint64_t{kMaxScale} ||
            outH > query.src_height * uint64_t{kMaxScale}) {
            *why = "scaling beyond the engines";
            return kBadSize;
        }
    }
    return kOk;
}

}  // namespace capture_emulator
