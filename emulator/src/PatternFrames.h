// The live test pattern as the engine writes it, one configuration at a time.
//
// Consecutive frames of a live source differ only in the lower band's text and marker, so the
// picture without them (bars and an empty band) is converted once per configuration, in the
// destination's format, size and rotation. A frame is that picture with the current text and
// marker drawn into the destination planes; a buffer that already holds an earlier frame of the
// same picture gets only the glyphs and marker positions that differ redrawn. The engine takes
// it that a client only reads the buffers it is handed.
#pragma once

#include <stdint.h>

#include <memory>
#include <vector>

#include "Pixels.h"
#include "capture_emulator/FrameLayout.h"

namespace capture_emulator {

struct Job;
class PatternFrames;

// What the engine last drew into one destination buffer.
struct BufferPicture {
    std::shared_ptr<const PatternFrames> picture;  // null: nothing known
    uint64_t mapping = 0;                          // BufferRef::span's mapping number
    char lines[2][24] = {};
    Rect marker;  // in source coordinates; empty when none is drawn
};

class PatternFrames : public std::enable_shared_from_this<PatternFrames> {
public:
    // The picture of a live job's configuration, shared by every job with the same one.
    static std::shared_ptr<const PatternFrames> of(const Job& job);

    // The frame at `clock` into `frame`. `shown` (null: nothing known) says what the buffer
    // holds, and is updated.
    bool draw(const FrameView& frame, const PatternClock& clock, uint64_t mapping,
              BufferPicture* shown) const;

    explicit PatternFrames(const Job& job);

private:
    // Draws output region `region` (before rotation) as the overlay has it.
    bool paint(const FrameView& frame, const PatternOverlay& overlay, Rect region) const;

    const PixelFormatInfo& mFormat;
    const uint32_t mRotation, mDstWidth, mDstHeight;
    const FrameLayout mLayout;
    const PatternSampling mSampling;
    std::vector<uint8_t> mBase;  // the frame without text and marker, in mLayout
    bool mValid = false;
};

}  // namespace capture_emulator
