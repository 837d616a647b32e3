#include "PatternFrames.h"

#include <string.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <tuple>

#include "EmuLog.h"
#include "Instance.h"

namespace capture_emulator {
namespace {

using Key = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                       uint32_t, uint32_t, uint32_t, uint32_t>;

struct Entry {
    std::mutex lock;  // held while the picture is made
    std::shared_ptr<const PatternFrames> frames;
};

// Pictures are kept while a buffer shows them, and a few more for the next single frames.
constexpr size_t kKeptPictures = 8;

std::mutex gRegistryLock;
std::map<Key, std::shared_ptr<Entry>> gRegistry;

bool turned(uint32_t rotation) {
    return rotation == 90 || rotation == 270;
}

// Clockwise turns of a rectangle of a w x h picture, and back.
Rect turn(const Rect& r, uint32_t rotation, uint32_t w, uint32_t h) {
    switch (rotation) {
        case 90:
            return Rect{h - (r.y + r.h), r.x, r.h, r.w};
        case 180:
            return Rect{w - (r.x + r.w), h - (r.y + r.h), r.w, r.h};
        case 270:
            return Rect{r.y, w - (r.x + r.w), r.h, r.w};
        default:
            return r;
    }
}

Rect unturn(const Rect& r, uint32_t rotation, uint32_t w, uint32_t h) {
    switch (rotation) {
        case 90:
            return Rect{r.y, h - (r.x + r.w), r.h, r.w};
        case 180:
            return Rect{w - (r.x + r.w), h - (r.y + r.h), r.w, r.h};
        case 270:
            return Rect{w - (r.y + r.h), r.x, r.h, r.w};
        default:
            return r;
    }
}

bool touching(const Rect& a, const Rect& b) {
    return a.x <= b.x + b.w && b.x <= a.x + a.w && a.y <= b.y + b.h && b.y <= a.y + a.h;
}

}  // namespace

PatternFrames::PatternFrames(const Job& job)
    : mFormat(*job.dstFormat),
      mRotation(job.rotation),
      mDstWidth(job.dstWidth),
      mDstHeight(job.dstHeight),
      mLayout(job.dstLayout),
      mSampling(job.srcWidth, job.srcHeight, job.crop,
                turned(job.rotation) ? job.dstHeight : job.dstWidth,
                turned(job.rotation) ? job.dstWidth : job.dstHeight) {
    mBase.assign(size_t{mLayout.lumaSize} + mLayout.chromaSize, 0);
    ArgbImage image, rotated;
    renderPatternRegion(mSampling, nullptr, Rect{0, 0, mSampling.outW, mSampling.outH}, &image);
    if (mRotation != 0) {
        rotate(image, mRotation, &rotated);
        image = std::move(rotated);
    }
    FrameView view{mBase.data(),
                   mLayout.chromaSize != 0 ? mBase.data() + mLayout.chromaOffset : nullptr,
                   mLayout.pitch};
    mValid = writeFrame(mFormat, image, view);
}

std::shared_ptr<const PatternFrames> PatternFrames::of(const Job& job) {
    Key key{job.srcWidth,       job.srcHeight,           job.crop.x,   job.crop.y,    job.crop.w,
            job.crop.h,         job.dstFormat->vxFormat, job.dstWidth, job.dstHeight, job.rotation,
            job.dstLayout.pitch};
    std::shared_ptr<Entry> entry;
    {
        std::lock_guard<std::mutex> guard(gRegistryLock);
        std::shared_ptr<Entry>& slot = gRegistry[key];
        if (slot == nullptr) {
            slot = std::make_shared<Entry>();
            for (auto it = gRegistry.begin();
                 gRegistry.size() > kKeptPictures && it != gRegistry.end();) {
                bool unused = it->second.use_count() == 1 && (it->second->frames == nullptr ||
                                                              it->second->frames.use_count() == 1);
                it = unused && it->first != key ? gRegistry.erase(it) : std::next(it);
            }
        }
        entry = slot;
    }
    std::lock_guard<std::mutex> guard(entry->lock);
    if (entry->frames == nullptr) {
        entry->frames = std::make_shared<PatternFrames>(job);
        EMU_LOGI("pattern picture made for %s", job.describe().c_str());
    }
    return entry->frames;
}

bool PatternFrames::paint(const FrameView& frame, const PatternOverlay& overlay, Rect region) const {
    if (region.w == 0 || region.h == 0) return true;
    // Whole chroma samples of the destination, so that they are computed from the same pixels
    // as in a frame converted at once.
    const uint32_t alignX = isYuv(mFormat) ? 2 : 1;
    const uint32_t alignY = mFormat.chroma == Chroma::kCbCr420 ? 2 : 1;
    Rect d = turn(region, mRotation, mSampling.outW, mSampling.outH);
    uint32_t x0 = d.x / alignX * alignX, y0 = d.y / alignY * alignY;
    uint32_t x1 = std::min<uint32_t>(static_cast<uint32_t>(alignUp(d.x + d.w, alignX)), mDstWidth);
    uint32_t y1 = std::min<uint32_t>(static_cast<uint32_t>(alignUp(d.y + d.h, alignY)), mDstHeight);
    d = Rect{x0, y0, x1 - x0, y1 - y0};
    thread_local ArgbImage image, rotated;
    renderPatternRegion(mSampling, &overlay, unturn(d, mRotation, mSampling.outW, mSampling.outH),
                        &image);
    const ArgbImage* out = &image;
    if (mRotation != 0) {
        rotate(image, mRotation, &rotated);
        out = &rotated;
    }
    FrameView at{frame.luma + size_t{y0} * frame.pitch + size_t{x0} * mFormat.bytesPerPixel,
                 nullptr, frame.pitch};
    if (mFormat.chroma != Chroma::kNone) {
        uint32_t chromaRow = mFormat.chroma == Chroma::kCbCr420 ? y0 / 2 : y0;
        at.chroma = frame.chroma + size_t{chromaRow} * frame.pitch + x0;
    }
    return writeFrame(mFormat, *out, at);
}

bool PatternFrames::draw(const FrameView& frame, const PatternClock& clock, uint64_t mapping,
                         BufferPicture* shown) const {
    if (!mValid) return false;
    BufferPicture unknown;
    if (shown == nullptr) shown = &unknown;
    if (shown->picture.get() != this || shown->mapping != mapping) {
        // Row by row: the padding at the end of each row is the client's, as on the hardware.
        const size_t pitch = mLayout.pitch;
        const size_t lumaRow = size_t{mDstWidth} * mFormat.bytesPerPixel;
        for (size_t row = 0; pitch != 0 && row < mLayout.lumaSize / pitch; ++row) {
            memcpy(frame.luma + row * pitch, mBase.data() + row * pitch, std::min(lumaRow, pitch));
        }
        if (mLayout.chromaSize != 0) {
            // Interleaved Cb/Cr pairs: as many bytes as the luma row of an even width.
            const size_t chromaRow = std::min<size_t>((mDstWidth + 1) / 2 * 2, pitch);
            const uint8_t* chroma = mBase.data() + mLayout.chromaOffset;
            for (size_t row = 0; row < mLayout.chromaSize / pitch; ++row) {
                memcpy(frame.chroma + row * pitch, chroma + row * pitch, chromaRow);
            }
        }
        *shown = BufferPicture{};
        shown->picture = shared_from_this();
        shown->mapping = mapping;
    }
    const PatternOverlay now(mSampling.srcW, mSampling.srcH, clock);
    bool ok = true;
    // The glyphs that differ from those the buffer shows.
    for (uint32_t line = 0; line < 2; ++line) {
        const char* was = shown->lines[line];
        uint32_t len = std::max<uint32_t>(now.lineLen[line], static_cast<uint32_t>(strlen(was)));
        for (uint32_t c = 0; c < len; ++c) {
            if (now.lines[line][c] != was[c]) {
                ok &= paint(frame, now, mSampling.outputOf(now.cells(line, c, c)));
            }
        }
        memcpy(shown->lines[line], now.lines[line], sizeof(shown->lines[line]));
    }
    // The marker where it is now and not before, and where it was and is no longer. It only
    // moves sideways, so a short move changes two strips.
    const Rect marker = now.marker(), was = shown->marker;
    if (was.w == 0 || was.y != marker.y || was.h != marker.h || was.w != marker.w ||
        !touching(was, marker)) {
        if (was.w != 0) ok &= paint(frame, now, mSampling.outputOf(was));
        ok &= paint(frame, now, mSampling.outputOf(marker));
    } else if (was.x != marker.x) {
        const uint32_t left = std::min(was.x, marker.x), step = std::max(was.x, marker.x) - left;
        ok &= paint(frame, now, mSampling.outputOf(Rect{left, marker.y, step, marker.h}));
        ok &= paint(frame, now, mSampling.outputOf(Rect{left + marker.w, marker.y, step, marker.h}));
    }
    shown->marker = marker;
    return ok;
}

}  // namespace capture_emulator
