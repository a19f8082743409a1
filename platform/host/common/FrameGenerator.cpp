#include "FrameGenerator.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace stemlib_host {

namespace {

// Rounds down to an even number, at least 2: every size and position of the scene is even, so
// that each shape covers whole 2 by 2 chroma blocks.
int evenAtLeast2(std::int64_t value) {
    return static_cast<int>(std::max<std::int64_t>(2, value & ~std::int64_t{1}));
}

int evenDown(std::int64_t value) {
    return static_cast<int>(std::max<std::int64_t>(0, value & ~std::int64_t{1}));
}

// Triangle wave: n * speed folded into 0..limit..0.
std::int64_t triangle(std::uint64_t n, std::int64_t speed, std::int64_t limit) {
    if (limit <= 0) {
        return 0;
    }
    const std::uint64_t period = static_cast<std::uint64_t>(2 * limit);
    const std::uint64_t phase =
        ((n % period) * (static_cast<std::uint64_t>(speed) % period)) % period;
    const std::int64_t p = static_cast<std::int64_t>(phase);
    return p <= limit ? p : 2 * limit - p;
}

// Largest m with m * m <= value, for value >= 0.
std::int64_t isqrt(std::int64_t value) {
    std::int64_t root = static_cast<std::int64_t>(std::sqrt(static_cast<double>(value)));
    while (root * root > value) {
        --root;
    }
    while ((root + 1) * (root + 1) <= value) {
        ++root;
    }
    return root;
}

// Seven-segment rectangles of a digit, in units of the stroke, from the digit's top-left.
struct Segment {
    int x0;
    int y0;
    int x1;
    int y1;
};
constexpr Segment kSegments[7] = {
    {0, 0, 4, 1}, // a: top
    {3, 0, 4, 4}, // b: upper right
    {3, 3, 4, 7}, // c: lower right
    {0, 6, 4, 7}, // d: bottom
    {0, 3, 1, 7}, // e: lower left
    {0, 0, 1, 4}, // f: upper left
    {0, 3, 4, 4}, // g: middle
};
// Bit i lights segment i (a to g).
constexpr unsigned char kDigitSegments[10] = {0x3F, 0x06, 0x5B, 0x4F, 0x66,
                                              0x6D, 0x7D, 0x07, 0x7F, 0x6F};
constexpr int kDigits = 8;

// Writes count U,V pairs from line: 16-bit stores that the compiler can vectorise.
void fillPairs(std::uint8_t* line, std::size_t count, std::uint8_t u, std::uint8_t v) {
    const std::uint8_t pair[2] = {u, v};
    std::uint16_t pattern = 0;
    std::memcpy(&pattern, pair, sizeof pattern);
    for (std::size_t i = 0; i < count; ++i) {
        std::memcpy(line + 2 * i, &pattern, sizeof pattern);
    }
}

} // namespace

std::size_t FrameGenerator::memoryBytes(std::uint32_t width, std::uint32_t height) {
    const std::size_t luma = std::size_t{width} * height;
    const auto radius = static_cast<std::size_t>(evenAtLeast2(std::min(width, height) / 12));
    return luma + luma / 2 + 3 * radius * sizeof(int);
}

FrameGenerator::FrameGenerator(std::uint32_t width, std::uint32_t height, std::uint32_t rotation)
    : _width(width), _height(height), _rotation(rotation) {
    if (width < 2 || height < 2 || width > 65534 || height > 65534 || width % 2 != 0 ||
        height % 2 != 0) {
        throw std::invalid_argument("the generator needs an even width and height from 2 to 65534");
    }
    if (rotation != 0 && rotation != 90 && rotation != 180 && rotation != 270) {
        throw std::invalid_argument("rotation must be 0, 90, 180 or 270");
    }
    const bool sideways = rotation == 90 || rotation == 270;
    _outWidth = sideways ? height : width;
    _outHeight = sideways ? width : height;
    const std::size_t lumaSize = std::size_t{_outWidth} * _outHeight;
    _background.resize(lumaSize + lumaSize / 2);

    const std::int64_t w = width;
    const std::int64_t h = height;
    const std::int64_t cell = evenAtLeast2(std::min(w, h) / 9);
    // Maps a pixel of the delivered picture back to the picture before rotation.
    auto toSensor = [&](std::int64_t ox, std::int64_t oy, std::int64_t& x, std::int64_t& y) {
        switch (rotation) {
        case 90:
            x = oy;
            y = h - 1 - ox;
            break;
        case 180:
            x = w - 1 - ox;
            y = h - 1 - oy;
            break;
        case 270:
            x = w - 1 - oy;
            y = ox;
            break;
        default:
            x = ox;
            y = oy;
            break;
        }
    };
    std::uint8_t* luma = _background.data();
    for (std::int64_t oy = 0; oy < _outHeight; ++oy) {
        for (std::int64_t ox = 0; ox < _outWidth; ++ox) {
            std::int64_t x = 0;
            std::int64_t y = 0;
            toSensor(ox, oy, x, y);
            const std::int64_t check = ((x / cell + y / cell) & 1) != 0 ? 32 : 0;
            luma[oy * _outWidth + ox] = static_cast<std::uint8_t>(40 + 96 * x / w + check);
        }
    }
    std::uint8_t* chroma = _background.data() + lumaSize;
    for (std::int64_t by = 0; by < _outHeight / 2; ++by) {
        for (std::int64_t bx = 0; bx < _outWidth / 2; ++bx) {
            std::int64_t x = 0;
            std::int64_t y = 0;
            toSensor(2 * bx, 2 * by, x, y);
            // The sensor block holding that pixel, by its top-left corner.
            x &= ~std::int64_t{1};
            y &= ~std::int64_t{1};
            chroma[by * _outWidth + 2 * bx] = static_cast<std::uint8_t>(104 + 48 * y / h);
            chroma[by * _outWidth + 2 * bx + 1] = static_cast<std::uint8_t>(152 - 48 * x / w);
        }
    }

    // Pixel row k of the disc: |2x + 1 - 2cx| <= m, m = floor(sqrt(4r^2 - (2k + 1 - 2r)^2)),
    // so x runs over [cx - (m + 1) / 2, cx + (m + 1) / 2). Block row k: |2bx + 1 - cx| <= m,
    // m = floor(sqrt(r^2 - (2k + 1 - r)^2)), cx being even.
    const std::int64_t radius = evenAtLeast2(std::min(w, h) / 12);
    _discPixelHalf.resize(static_cast<std::size_t>(2 * radius));
    for (std::int64_t k = 0; k < 2 * radius; ++k) {
        const std::int64_t d = 2 * k + 1 - 2 * radius;
        const std::int64_t rest = 4 * radius * radius - d * d;
        _discPixelHalf[static_cast<std::size_t>(k)] =
            rest < 0 ? -1 : static_cast<int>((isqrt(rest) + 1) / 2);
    }
    _discBlockHalf.resize(static_cast<std::size_t>(radius));
    for (std::int64_t k = 0; k < radius; ++k) {
        const std::int64_t d = 2 * k + 1 - radius;
        const std::int64_t rest = radius * radius - d * d;
        _discBlockHalf[static_cast<std::size_t>(k)] =
            rest < 0 ? -1 : static_cast<int>((isqrt(rest) + 1) / 2);
    }
}

FrameGenerator::Rect FrameGenerator::toOutput(const Rect& r) const {
    const int w = static_cast<int>(_width);
    const int h = static_cast<int>(_height);
    switch (_rotation) {
    case 90:
        return Rect{h - r.y1, r.x0, h - r.y0, r.x1};
    case 180:
        return Rect{w - r.x1, h - r.y1, w - r.x0, h - r.y0};
    case 270:
        return Rect{r.y0, w - r.x1, r.y1, w - r.x0};
    default:
        return r;
    }
}

FrameGenerator::Rect FrameGenerator::clip(const Rect& r) const {
    Rect c;
    c.x0 = std::clamp(r.x0, 0, static_cast<int>(_outWidth));
    c.x1 = std::clamp(r.x1, c.x0, static_cast<int>(_outWidth));
    c.y0 = std::clamp(r.y0, 0, static_cast<int>(_outHeight));
    c.y1 = std::clamp(r.y1, c.y0, static_cast<int>(_outHeight));
    return c;
}

void FrameGenerator::restore(std::uint8_t* nv12, const Rect& r) const {
    const std::size_t stride = _outWidth;
    const std::size_t lumaSize = stride * _outHeight;
    const std::size_t length = static_cast<std::size_t>(r.x1 - r.x0);
    if (length == 0) {
        return;
    }
    for (int y = r.y0; y < r.y1; ++y) {
        const std::size_t offset = static_cast<std::size_t>(y) * stride + r.x0;
        std::memcpy(nv12 + offset, _background.data() + offset, length);
    }
    for (int by = r.y0 / 2; by < r.y1 / 2; ++by) {
        const std::size_t offset = lumaSize + static_cast<std::size_t>(by) * stride + r.x0;
        std::memcpy(nv12 + offset, _background.data() + offset, length);
    }
}

void FrameGenerator::fillRect(std::uint8_t* nv12, const Rect& r, Colour colour) const {
    const std::size_t stride = _outWidth;
    const std::size_t lumaSize = stride * _outHeight;
    const std::size_t length = static_cast<std::size_t>(r.x1 - r.x0);
    if (length == 0) {
        return;
    }
    for (int y = r.y0; y < r.y1; ++y) {
        std::memset(nv12 + static_cast<std::size_t>(y) * stride + r.x0, colour.y, length);
    }
    for (int by = r.y0 / 2; by < r.y1 / 2; ++by) {
        fillPairs(nv12 + lumaSize + static_cast<std::size_t>(by) * stride + r.x0, length / 2,
                  colour.u, colour.v);
    }
}

namespace {

// Calls action on the up to four rectangles that make up a minus b.
template <typename Rect, typename Action>
void forEachOutside(const Rect& a, const Rect& b, Action action) {
    const Rect common{std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1),
                      std::min(a.y1, b.y1)};
    if (common.x0 >= common.x1 || common.y0 >= common.y1) {
        action(a);
        return;
    }
    // Above and below the common part across the full width, then left and right of it.
    action(Rect{a.x0, a.y0, a.x1, common.y0});
    action(Rect{a.x0, common.y1, a.x1, a.y1});
    action(Rect{a.x0, common.y0, common.x0, common.y1});
    action(Rect{common.x1, common.y0, a.x1, common.y1});
}

// Calls action on the up to two intervals that make up [a0, a1) minus [b0, b1).
template <typename Action>
void forEachOutside(std::int64_t a0, std::int64_t a1, std::int64_t b0, std::int64_t b1,
                    Action action) {
    if (a0 >= a1) {
        return;
    }
    if (b0 >= b1 || b1 <= a0 || b0 >= a1) {
        action(a0, a1);
        return;
    }
    if (a0 < b0) {
        action(a0, b0);
    }
    if (b1 < a1) {
        action(b1, a1);
    }
}

} // namespace

void FrameGenerator::restoreUncovered(std::uint8_t* nv12, const Rect& oldRect,
                                      const Rect& newRect) const {
    forEachOutside(oldRect, newRect, [&](const Rect& part) { restore(nv12, part); });
}

void FrameGenerator::fillUncovered(std::uint8_t* nv12, const Rect& newRect, const Rect& oldRect,
                                   Colour colour) const {
    forEachOutside(newRect, oldRect, [&](const Rect& part) { fillRect(nv12, part, colour); });
}

// The disc holds the pixels whose centres lie within radius of the centre of its box (a pixel
// corner with even coordinates), and the chroma blocks whose centres do. Rotation maps centres
// onto centres, so the same rule drawn in output coordinates gives the turned disc exactly. The
// rest of the box is background.
void FrameGenerator::fillDisc(std::uint8_t* nv12, const Rect& box, Colour colour) const {
    const std::int64_t stride = _outWidth;
    const std::int64_t lumaSize = stride * _outHeight;
    const std::int64_t cx = (box.x0 + box.x1) / 2;
    const Rect clipped = clip(box);
    const std::uint8_t* background = _background.data();
    // Writes [from, to) of a row: background outside [spanFrom, spanTo), fill inside.
    auto row = [&](std::int64_t offset, std::int64_t from, std::int64_t to, std::int64_t spanFrom,
                   std::int64_t spanTo, auto fill) {
        spanFrom = std::clamp(spanFrom, from, to);
        spanTo = std::clamp(spanTo, spanFrom, to);
        std::memcpy(nv12 + offset + from, background + offset + from,
                    static_cast<std::size_t>(spanFrom - from));
        fill(nv12 + offset, spanFrom, spanTo);
        std::memcpy(nv12 + offset + spanTo, background + offset + spanTo,
                    static_cast<std::size_t>(to - spanTo));
    };
    for (std::int64_t y = clipped.y0; y < clipped.y1; ++y) {
        const std::int64_t half = _discPixelHalf[static_cast<std::size_t>(y - box.y0)];
        row(y * stride, clipped.x0, clipped.x1, cx - half, cx + half,
            [&](std::uint8_t* line, std::int64_t from, std::int64_t to) {
                std::memset(line + from, colour.y, static_cast<std::size_t>(to - from));
            });
    }
    for (std::int64_t by = clipped.y0 / 2; by < clipped.y1 / 2; ++by) {
        const std::int64_t half = _discBlockHalf[static_cast<std::size_t>(by - box.y0 / 2)];
        row(lumaSize + by * stride, clipped.x0, clipped.x1, 2 * (cx / 2 - half),
            2 * (cx / 2 + half), [&](std::uint8_t* line, std::int64_t from, std::int64_t to) {
                fillPairs(line + from, static_cast<std::size_t>(to - from) / 2, colour.u, colour.v);
            });
    }
}

void FrameGenerator::moveDisc(std::uint8_t* nv12, const Rect& oldBox, const Rect& newBox,
                              Colour colour) const {
    const std::int64_t stride = _outWidth;
    const std::int64_t lumaSize = stride * _outHeight;
    const std::uint8_t* background = _background.data();
    // The disc's span on row y (a block row when chroma), in bytes of the row, clipped.
    auto span = [&](const Rect& box, std::int64_t y, bool chroma, std::int64_t& from,
                    std::int64_t& to) {
        const std::int64_t cx = (box.x0 + box.x1) / 2;
        const std::int64_t row = chroma ? y - box.y0 / 2 : y - box.y0;
        const std::vector<int>& halves = chroma ? _discBlockHalf : _discPixelHalf;
        if (row < 0 || row >= static_cast<std::int64_t>(halves.size()) ||
            halves[static_cast<std::size_t>(row)] < 0) {
            from = to = 0;
            return;
        }
        const std::int64_t half = halves[static_cast<std::size_t>(row)];
        from = chroma ? 2 * (cx / 2 - half) : cx - half;
        to = chroma ? 2 * (cx / 2 + half) : cx + half;
        from = std::clamp<std::int64_t>(from, 0, stride);
        to = std::clamp<std::int64_t>(to, from, stride);
    };
    auto rows = [&](bool chroma) {
        const std::int64_t scale = chroma ? 2 : 1;
        const std::int64_t first =
            std::max<std::int64_t>(0, std::min(oldBox.y0, newBox.y0) / scale);
        const std::int64_t last =
            std::min<std::int64_t>(_outHeight / scale, std::max(oldBox.y1, newBox.y1) / scale);
        for (std::int64_t y = first; y < last; ++y) {
            std::int64_t oldFrom = 0;
            std::int64_t oldTo = 0;
            std::int64_t newFrom = 0;
            std::int64_t newTo = 0;
            span(oldBox, y, chroma, oldFrom, oldTo);
            span(newBox, y, chroma, newFrom, newTo);
            const std::int64_t offset = (chroma ? lumaSize : 0) + y * stride;
            forEachOutside(oldFrom, oldTo, newFrom, newTo, [&](std::int64_t a, std::int64_t b) {
                std::memcpy(nv12 + offset + a, background + offset + a,
                            static_cast<std::size_t>(b - a));
            });
            forEachOutside(newFrom, newTo, oldFrom, oldTo, [&](std::int64_t a, std::int64_t b) {
                if (chroma) {
                    fillPairs(nv12 + offset + a, static_cast<std::size_t>(b - a) / 2, colour.u,
                              colour.v);
                } else {
                    std::memset(nv12 + offset + a, colour.y, static_cast<std::size_t>(b - a));
                }
            });
        }
    };
    rows(false);
    rows(true);
}

FrameGenerator::Layout FrameGenerator::layout(std::uint64_t n) const {
    const std::int64_t w = _width;
    const std::int64_t h = _height;
    const std::int64_t s = std::min(w, h);
    Layout layout;

    // Bar, blue, moving up and down near the right.
    const int barWidth = evenAtLeast2(s / 24);
    const int barHeight = evenAtLeast2(s / 4);
    const int barX = std::min(evenDown(3 * w / 4), evenDown(w - barWidth));
    const int barY = evenDown(triangle(n, evenAtLeast2(s / 90), h - barHeight));
    layout.bar = clip(toOutput(Rect{barX, barY, barX + barWidth, barY + barHeight}));

    // Disc, green, bouncing across the picture.
    const int radius = evenAtLeast2(s / 12);
    const int cx = radius + evenDown(triangle(n, evenAtLeast2(s / 70), w - 2 * radius));
    const int cy = radius + evenDown(triangle(n, evenAtLeast2(s / 110), h - 2 * radius));
    layout.discBox = toOutput(Rect{cx - radius, cy - radius, cx + radius, cy + radius});

    // Square, red, moving up and down a third of the way across.
    const int side = evenAtLeast2(s / 6);
    const int squareX = std::min(evenDown(w / 3), evenDown(w - side));
    const int squareY = evenDown(triangle(n, evenAtLeast2(s / 60), h - side));
    layout.square = clip(toOutput(Rect{squareX, squareY, squareX + side, squareY + side}));

    // Frame counter, white digits in a black box at the top-left.
    const int t = evenAtLeast2(s / 120);
    layout.box = clip(toOutput(Rect{t, t, t + (1 + 5 * kDigits) * t, t + 9 * t}));
    return layout;
}

void FrameGenerator::drawDigit(std::uint8_t* nv12, int position, unsigned digit) const {
    const int t = evenAtLeast2(std::min<std::int64_t>(_width, _height) / 120);
    const int originX = t + t + 5 * t * position;
    const int originY = t + t;
    fillRect(nv12, clip(toOutput(Rect{originX, originY, originX + 4 * t, originY + 7 * t})),
             Colour{16, 128, 128});
    const unsigned char lit = kDigitSegments[digit % 10];
    for (int segment = 0; segment < 7; ++segment) {
        if ((lit & (1U << segment)) == 0) {
            continue;
        }
        const Segment& g = kSegments[segment];
        const Rect stroke{originX + g.x0 * t, originY + g.y0 * t, originX + g.x1 * t,
                          originY + g.y1 * t};
        fillRect(nv12, clip(toOutput(stroke)), Colour{235, 128, 128});
    }
}

void FrameGenerator::render(std::uint64_t sequence, std::uint8_t* nv12) const {
    Damage damage;
    update(sequence, nv12, damage);
}

void FrameGenerator::update(std::uint64_t sequence, std::uint8_t* nv12, Damage& damage) const {
    const Layout now = layout(sequence);
    const std::array<Rect, 3> shapes{now.bar, clip(now.discBox), now.square};
    const Colour colours[3] = {{41, 240, 110}, {145, 54, 34}, {82, 90, 240}};
    auto meets = [](const Rect& a, const Rect& b) {
        return std::max(a.x0, b.x0) < std::min(a.x1, b.x1) &&
               std::max(a.y0, b.y0) < std::min(a.y1, b.y1);
    };
    auto hull = [](const Rect& a, const Rect& b) {
        return Rect{std::min(a.x0, b.x0), std::min(a.y0, b.y0), std::max(a.x1, b.x1),
                    std::max(a.y1, b.y1)};
    };
    // A shape that keeps clear of the others and of the counter, between the buffer's previous
    // frame and now, needs only the pixels that it leaves or newly covers. The others are drawn
    // whole, in order, over their uncovered old places; and the counter, drawn over the shapes,
    // is drawn whole when one of them touches its box.
    std::array<bool, 3> isolated{};
    bool wholeCounter = !damage.valid;
    if (damage.valid) {
        std::array<Rect, 3> swept{};
        for (std::size_t i = 0; i < shapes.size(); ++i) {
            swept[i] = hull(damage.shapes[i], shapes[i]);
        }
        for (std::size_t i = 0; i < shapes.size(); ++i) {
            const bool touchesCounter = meets(swept[i], now.box);
            wholeCounter = wholeCounter || touchesCounter;
            isolated[i] = !touchesCounter;
            for (std::size_t j = 0; j < shapes.size(); ++j) {
                isolated[i] = isolated[i] && (i == j || !meets(swept[i], swept[j]));
            }
        }
        for (std::size_t i = 0; i < shapes.size(); ++i) {
            if (!isolated[i]) {
                restoreUncovered(nv12, damage.shapes[i], shapes[i]);
            }
        }
    } else {
        std::memcpy(nv12, _background.data(), _background.size());
    }
    for (std::size_t i = 0; i < shapes.size(); ++i) {
        if (i == 1) {
            if (isolated[i]) {
                moveDisc(nv12, damage.discBox, now.discBox, colours[i]);
            } else {
                fillDisc(nv12, now.discBox, colours[i]);
            }
        } else if (isolated[i]) {
            restoreUncovered(nv12, damage.shapes[i], shapes[i]);
            fillUncovered(nv12, shapes[i], damage.shapes[i], colours[i]);
        } else {
            fillRect(nv12, shapes[i], colours[i]);
        }
    }

    if (wholeCounter) {
        fillRect(nv12, now.box, Colour{16, 128, 128});
    }
    std::uint64_t value = sequence % 100000000ULL;
    std::uint64_t previous = damage.sequence % 100000000ULL;
    for (int position = kDigits - 1; position >= 0; --position) {
        const unsigned digit = static_cast<unsigned>(value % 10);
        if (wholeCounter || digit != previous % 10) {
            drawDigit(nv12, position, digit);
        }
        value /= 10;
        previous /= 10;
    }
    damage.valid = true;
    damage.sequence = sequence;
    damage.shapes = shapes;
    damage.discBox = now.discBox;
}

} // namespace stemlib_host
