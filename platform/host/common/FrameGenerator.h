// The built-in generator of the host camera: a deterministic moving scene in NV12.
//
// The scene is drawn on the picture before rotation, "width" by "height" pixels (both even), and
// then turned clockwise by "rotation" degrees, as a camera mounted that way would deliver it.
// Every pixel is a pure function of the sequence number, so tests can predict frames; see the
// README ("The camera on a PC") for the layout. With S the smaller side, even(v) rounding down to
// an even number at least 2, and tri(t, L) the triangle wave 0..L..0 of period 2L:
//
//   background  Y = 40 + 96 * x / W, plus 32 on every other square cell of side even(S / 9);
//               U = 104 + 48 * y / H and V = 152 - 48 * x / W, at the 2 by 2 block's top-left
//   bar         blue, even(S / 24) by even(S / 4), x = even(3 W / 4), y = tri(n even(S / 90))
//   disc        green, radius even(S / 12), centre moving on tri(n even(S / 70)) and
//               tri(n even(S / 110))
//   square      red, side even(S / 6), x = even(W / 3), y = tri(n even(S / 60))
//   counter     the sequence number modulo 10^8 in eight seven-segment digits, white on black,
//               in a box of 41 t by 9 t at (t, t), t = even(S / 120)
//
// A stream renders a frame into each buffer of its ring once and afterwards only redraws what
// changed since that buffer's previous frame: for a shape clear of the others and of the counter
// only the pixels that it left or newly covers, otherwise its uncovered old place and the shape
// whole; and the counter's changed digits, or the whole counter when a shape touches it. So a
// frame costs a small fraction of its bytes.
// Immutable after construction; one generator may serve several threads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace stemlib_host {

class FrameGenerator {
public:
    // Half-open pixel rectangle [x0, x1) x [y0, y1).
    struct Rect {
        int x0 = 0;
        int y0 = 0;
        int x1 = 0;
        int y1 = 0;
    };

    // What a buffer holds beyond the background: the frame last drawn into it, with the places
    // of its shapes (bar, disc box, square).
    struct Damage {
        bool valid = false;
        std::uint64_t sequence = 0;
        std::array<Rect, 3> shapes{};
        Rect discBox; // unclipped, for the disc's centre
    };

    // width and height even, from 2 to 65534; rotation 0, 90, 180 or 270. Throws
    // std::invalid_argument otherwise.
    FrameGenerator(std::uint32_t width, std::uint32_t height, std::uint32_t rotation);

    // The bytes that a generator of this size holds, known before any is allocated: its
    // background picture and the disc's tables.
    static std::size_t memoryBytes(std::uint32_t width, std::uint32_t height);

    // Size of the delivered picture: width by height turned by rotation.
    std::uint32_t outputWidth() const { return _outWidth; }
    std::uint32_t outputHeight() const { return _outHeight; }
    // outputWidth * outputHeight * 3 / 2.
    std::size_t frameSize() const { return _background.size(); }

    // Draws frame `sequence` whole into nv12 (frameSize bytes).
    void render(std::uint64_t sequence, std::uint8_t* nv12) const;
    // Turns nv12, which holds what damage records (or anything, when damage is not valid), into
    // frame `sequence`, and records what it drew.
    void update(std::uint64_t sequence, std::uint8_t* nv12, Damage& damage) const;

private:
    struct Colour {
        std::uint8_t y;
        std::uint8_t u;
        std::uint8_t v;
    };

    // Where the shapes of frame n lie, in output pixels, clipped to the picture.
    struct Layout {
        Rect bar;
        Rect discBox; // unclipped, for the disc's centre
        Rect square;
        Rect box; // the counter's
    };
    Layout layout(std::uint64_t sequence) const;

    Rect toOutput(const Rect& sensorRect) const;
    Rect clip(const Rect& rect) const;
    void restore(std::uint8_t* nv12, const Rect& rect) const;
    // Restores the part of oldRect outside newRect.
    void restoreUncovered(std::uint8_t* nv12, const Rect& oldRect, const Rect& newRect) const;
    // Fills the part of newRect outside oldRect.
    void fillUncovered(std::uint8_t* nv12, const Rect& newRect, const Rect& oldRect,
                       Colour colour) const;
    void fillRect(std::uint8_t* nv12, const Rect& rect, Colour colour) const;
    // Draws the disc centred in box (unclipped) and restores the rest of box from the
    // background.
    void fillDisc(std::uint8_t* nv12, const Rect& box, Colour colour) const;
    // Moves the disc from oldBox to newBox, writing only the pixels that change.
    void moveDisc(std::uint8_t* nv12, const Rect& oldBox, const Rect& newBox, Colour colour) const;
    // Draws digit number `position` (0 the leftmost) of the counter showing `digit`, its cell
    // cleared to the box colour first.
    void drawDigit(std::uint8_t* nv12, int position, unsigned digit) const;

    std::uint32_t _width;
    std::uint32_t _height;
    std::uint32_t _rotation;
    std::uint32_t _outWidth;
    std::uint32_t _outHeight;
    std::vector<std::uint8_t> _background;
    // The disc's half-width, by row from its top: in pixels for each of its 2 r pixel rows, and
    // in chroma blocks for each of its r block rows; -1 for a row that it does not reach.
    std::vector<int> _discPixelHalf;
    std::vector<int> _discBlockHalf;
};

} // namespace stemlib_host
