// Canvas and CairoCanvas: shapes reduced to primitives, text margins, and what CairoCanvas
// really paints, read back from ARGB32 image surfaces.
#include "CairoCanvas.h"
#include "CairoFontManager.h"
#include "LogLines.h"
#include "OverlayTestUtils.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <cairo-ft.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <limits>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

using Calls = std::vector<std::string>;

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char buffer[256];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return buffer;
}

// A canvas that records the primitives it is asked for, with a text size chosen by the test.
class RecordingCanvas : public Canvas {
public:
    using Canvas::Canvas;

    Resolution getTextSize(const std::string& /*text*/) const override { return textSize; }

    Resolution textSize{100, 20};
    Calls calls;

protected:
    void drawLineImpl(int x1, int y1, int x2, int y2, PaletteColors color, int lineWidth,
                      float alpha) override {
        calls.push_back(format("line %d %d %d %d c%d w%d a%g", x1, y1, x2, y2,
                               static_cast<int>(color), lineWidth, alpha));
    }
    void drawCircleImpl(int cx, int cy, int radius, PaletteColors color, int lineWidth, bool fill,
                        float alpha) override {
        calls.push_back(format("circle %d %d r%d c%d w%d %s a%g", cx, cy, radius,
                               static_cast<int>(color), lineWidth, fill ? "fill" : "stroke",
                               alpha));
    }
    void drawTextImpl(const std::string& text, int px, int py, PaletteColors color,
                      float alpha) override {
        calls.push_back(
            format("text %s %d %d c%d a%g", text.c_str(), px, py, static_cast<int>(color), alpha));
    }
    void drawTextNoOutlineImpl(const std::string& text, int px, int py, PaletteColors color,
                               float alpha) override {
        calls.push_back(
            format("plain %s %d %d c%d a%g", text.c_str(), px, py, static_cast<int>(color), alpha));
    }
};

const Argb kRed{255, 255, 0, 0};
const Argb kGreen{255, 0, 255, 0};
const Argb kWhite{255, 255, 255, 255};

bool isInk(const Argb& p) {
    return p.a > 0;
}

} // namespace

TEST(Canvas, ReducesShapesToPrimitivesWithCoordinatesTruncatedTowardZero) {
    RecordingCanvas canvas(640, 360);
    canvas.draw(FPoint(1.9f, -1.9f), FPoint(2.5f, 3.99f), PaletteColors::Red, 3, 0.5f);
    // Sums in float before truncation: 0.6 + 0.6 gives 1, where 0 + 0 would give 0.
    canvas.draw(FRectangle(0.6f, 1.5f, 0.6f, 1.6f), PaletteColors::Green, 2, true, 1.0f);
    canvas.draw(Cross(10.7f, 20.2f, 5.9f), PaletteColors::Blue, 1, 1.0f);
    canvas.draw(Cross(3.0f, 4.0f, 0.0f), PaletteColors::Blue, 1, 1.0f);
    canvas.draw(Circle(5.5f, 6.5f, 7.9f), PaletteColors::Yellow, 2, true, 0.25f);
    // The base polygon draws sides, whatever fill says; one point is a side to itself.
    canvas.draw(FPolygon(-1.7f, 2.2f, 8.9f, 2.0f, 4.0f, -0.5f), PaletteColors::White, 1, true,
                1.0f);
    IPolygon single;
    single.addPoint(4, 4);
    canvas.draw(single, PaletteColors::Gray, 1, false, 1.0f);
    canvas.draw(IPolygon(), PaletteColors::Gray, 1, false, 1.0f);
    EXPECT_EQ(canvas.calls,
              (Calls{"line 1 -1 2 3 c1 w3 a0.5", "line 0 1 1 1 c2 w2 a1", "line 1 1 1 3 c2 w2 a1",
                     "line 1 3 0 3 c2 w2 a1", "line 0 3 0 1 c2 w2 a1", "line 5 20 15 20 c3 w1 a1",
                     "line 10 15 10 25 c3 w1 a1", "line 3 4 3 4 c3 w1 a1", "line 3 4 3 4 c3 w1 a1",
                     "circle 5 6 r7 c4 w2 fill a0.25", "line -1 2 8 2 c5 w1 a1",
                     "line 8 2 4 0 c5 w1 a1", "line 4 0 -1 2 c5 w1 a1", "line 4 4 4 4 c8 w1 a1"}));

    // A skeleton draws its edges only: the right eye scores too low for an edge.
    canvas.calls.clear();
    Keypoints joints;
    joints.add(Keypoint(IPoint(10, 10), BodypixBodyPart::Nose, 0.9f));
    joints.add(Keypoint(IPoint(12, 8), BodypixBodyPart::LeftEye, 0.9f));
    joints.add(Keypoint(IPoint(8, 8), BodypixBodyPart::RightEye, 0.1f));
    joints.add(Keypoint(IPoint(30, 40), BodypixBodyPart::LeftShoulder, 0.5f));
    joints.add(Keypoint(IPoint(50, 40), BodypixBodyPart::RightShoulder, 0.5f));
    canvas.draw(Skeleton<BodypixBodyPart>(joints), PaletteColors::Orange, 4, 0.75f);
    EXPECT_EQ(canvas.calls, (Calls{"line 10 10 12 8 c6 w4 a0.75", "line 30 40 50 40 c6 w4 a0.75"}));

    // Text at a point or at a margin, with or without the black outline.
    canvas.calls.clear();
    canvas.draw("abc", 5, 6, PaletteColors::CornflowerBlue, 0.5f);
    canvas.drawNoOutline("abc", 7, 8, PaletteColors::White, 1.0f);
    canvas.draw("abc", TextPosition::BottomRight, PaletteColors::Red, 1.0f);
    canvas.drawNoOutline("abc", TextPosition::TopCentre, PaletteColors::Red, 1.0f);
    EXPECT_EQ(canvas.calls, (Calls{"text abc 5 6 c7 a0.5", "plain abc 7 8 c5 a1",
                                   "text abc 530 338 c1 a1", "plain abc 270 22 c1 a1"}));
}

TEST(Canvas, PlacesTextAtSixMarginsAndCentresOnTheUnsignedDifference) {
    RecordingCanvas canvas(641, 360, 1920, 1080);
    EXPECT_EQ(canvas.getInputResolution(), Resolution(641, 360));
    EXPECT_EQ(canvas.getOutputResolution(), Resolution(1920, 1080));

    canvas.textSize = Resolution(100, 20);
    const std::vector<std::pair<TextPosition, IPoint>> margins = {
        {TextPosition::TopLeft, IPoint(10, 22)},
        {TextPosition::TopRight, IPoint(531, 22)},
        {TextPosition::TopCentre, IPoint(270, 22)},
        {TextPosition::BottomLeft, IPoint(10, 338)},
        {TextPosition::BottomRight, IPoint(531, 338)},
        {TextPosition::BottomCentre, IPoint(270, 338)}}; // 541 / 2 rounds down
    for (const auto& [position, expected] : margins) {
        EXPECT_EQ(canvas.getTextLocation(position, "t"), expected) << static_cast<int>(position);
    }
    EXPECT_EQ(canvas.getTextLocation(static_cast<TextPosition>(6), "t"), IPoint(0, 0));

    // Wider than the input: the right margin goes negative, the centre far to the right.
    canvas.textSize = Resolution(700, 20);
    EXPECT_EQ(canvas.getTextLocation(TextPosition::TopRight, "t").x, 641 - 700 - 10);
    EXPECT_EQ(canvas.getTextLocation(TextPosition::BottomCentre, "t").x,
              static_cast<int>((4294967296ULL - 59) / 2));
    // Whatever size a canvas reports, the margins saturate rather than overflow.
    canvas.textSize = Resolution(4294967295u, 4294967295u);
    const int lowest = std::numeric_limits<int>::min();
    EXPECT_EQ(canvas.getTextLocation(TextPosition::BottomRight, "t"), IPoint(lowest, lowest));
    EXPECT_EQ(canvas.getTextLocation(TextPosition::TopLeft, "t").y,
              std::numeric_limits<int>::max());
}

TEST(CairoCanvas, SetsAntialiasFontSizeAndTheLanguagesFontOnceAtConstruction) {
    struct Case {
        int wi, hi, wo, ho;
        double fontSize;
    };
    for (const Case& c : {Case{640, 360, 1920, 1080, 32}, Case{320, 240, 320, 240, 16},
                          Case{640, 360, 1280, 720, 21}, Case{100, 100, 100, 5000, 16}}) {
        ImageSurface overlay(c.wo, 8);
        CairoCanvas canvas(overlay.context(), c.wi, c.hi, c.wo, c.ho);
        cairo_matrix_t font{};
        cairo_get_font_matrix(overlay.context(), &font);
        EXPECT_EQ(font.xx, c.fontSize) << c.wo << "x" << c.ho;
        EXPECT_EQ(cairo_get_antialias(overlay.context()), CAIRO_ANTIALIAS_BEST);
    }

    // English has no font of its own: bold "Arial", as fontconfig resolves it.
    ImageSurface english(64, 64);
    CairoCanvas plain(english.context(), 64, 64);
    cairo_font_face_t* fallback = cairo_get_font_face(english.context());
    ASSERT_EQ(cairo_font_face_get_type(fallback), CAIRO_FONT_TYPE_TOY);
    EXPECT_STREQ(cairo_toy_font_face_get_family(fallback), "Arial");
    EXPECT_EQ(cairo_toy_font_face_get_weight(fallback), CAIRO_FONT_WEIGHT_BOLD);
    EXPECT_EQ(cairo_toy_font_face_get_slant(fallback), CAIRO_FONT_SLANT_NORMAL);

    // Japanese takes the manager's face; a later change of language leaves the canvas alone.
    InTestFontsFolder fonts;
    ScopedLanguage japanese("ja");
    ImageSurface overlay(64, 64);
    CairoCanvas canvas(overlay.context(), 64, 64);
    cairo_font_face_t* face = CairoFontManager::getInstance().getFontFaceForLanguage("ja");
    ASSERT_NE(face, nullptr);
    EXPECT_EQ(cairo_get_font_face(overlay.context()), face);
    Localization::setLanguage("en");
    canvas.draw("x", 2, 30, PaletteColors::White, 1.0f);
    EXPECT_EQ(cairo_get_font_face(overlay.context()), face);
}

TEST(CairoCanvas, MapsEveryCoordinateButNotTheLineWidth) {
    // 640x360 onto 1920x1080: alpha 1079 / 359, no band; x 100 -> 300, 150 -> 450,
    // y 100 -> 300, 130 -> 390.
    {
        ImageSurface overlay(1920, 1080);
        CairoCanvas canvas(overlay.context(), 640, 360, 1920, 1080);
        canvas.draw(FRectangle(100, 100, 50, 30), PaletteColors::Red, 1, true, 1.0f);
        EXPECT_EQ(overlay.pixel(300, 300), kRed);
        EXPECT_EQ(overlay.pixel(449, 389), kRed);
        for (const auto& [x, y] : {std::pair{299, 300}, {450, 300}, {300, 299}, {300, 390}}) {
            EXPECT_EQ(overlay.pixel(x, y), kTransparent) << x << "," << y;
        }
        EXPECT_EQ(overlay.count(isInk), 150 * 90);
    }
    {
        // An outline 4 overlay pixels wide, centred on the mapped edge x = 300.
        ImageSurface overlay(1920, 1080);
        CairoCanvas canvas(overlay.context(), 640, 360, 1920, 1080);
        canvas.draw(FRectangle(100, 100, 50, 30), PaletteColors::Green, 4, false, 1.0f);
        EXPECT_EQ(overlay.pixel(297, 345), kTransparent);
        EXPECT_EQ(overlay.pixel(298, 345), kGreen);
        EXPECT_EQ(overlay.pixel(301, 345), kGreen);
        EXPECT_EQ(overlay.pixel(302, 345), kTransparent);
        EXPECT_EQ(overlay.pixel(375, 388), kGreen);
        EXPECT_EQ(overlay.pixel(375, 392), kTransparent);
    }
    {
        // 640x360 onto a square: a band of 140 is cut at each side, alpha 1079 / 359. Points in
        // the band stick to the edge; the radius is mapped as a position, so 150 becomes
        // (150 - 140) * alpha = 30 and 100 becomes 0.
        ImageSurface overlay(1080, 1080);
        CairoCanvas canvas(overlay.context(), 640, 360, 1080, 1080);
        canvas.draw(Circle(320, 180, 100), PaletteColors::Red, 1, true, 1.0f);
        EXPECT_EQ(overlay.count(isInk), 0);
        canvas.draw(Circle(320, 180, 150), PaletteColors::Red, 1, true, 1.0f);
        EXPECT_EQ(overlay.pixel(541, 541), kRed);
        EXPECT_EQ(overlay.pixel(541 + 28, 541), kRed);
        EXPECT_EQ(overlay.pixel(541 + 32, 541), kTransparent);
        EXPECT_EQ(overlay.pixel(541, 541 - 32), kTransparent);
        canvas.drawLine(50, 20, 320, 20, PaletteColors::Green, 2, 1.0f); // y 20 -> 60
        EXPECT_EQ(overlay.pixel(0, 59), kGreen);
        EXPECT_EQ(overlay.pixel(540, 60), kGreen);
        EXPECT_EQ(overlay.pixel(542, 60), kTransparent);
        EXPECT_EQ(overlay.pixel(300, 61), kTransparent);
    }
}

TEST(CairoCanvas, PaintsThePaletteAndReplacesWhatLiesUnder) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    ImageSurface overlay(100, 10);
    CairoCanvas canvas(overlay.context(), 100, 10);
    EXPECT_EQ(cairo_get_operator(overlay.context()), CAIRO_OPERATOR_OVER);
    const std::vector<Argb> palette = {
        {255, 0, 0, 0},       {255, 255, 0, 0},     {255, 0, 255, 0},   {255, 0, 0, 255},
        {255, 255, 255, 0},   {255, 255, 255, 255}, {255, 255, 153, 0}, {255, 70, 119, 207},
        {255, 150, 150, 150}, {255, 0, 0, 0}}; // 9: black
    overlay.paint(1, 1, 1);
    for (int i = 0; i < 10; ++i) {
        canvas.draw(FRectangle(10.0f * i, 0, 10, 10), static_cast<PaletteColors>(i), 1, true, 1.0f);
        EXPECT_EQ(overlay.pixel(10 * i + 5, 5), palette[i]) << "colour " << i;
    }
    EXPECT_EQ(linesAt(logger, "error"), (Calls{"usePaletteColor: Unknown color index passed to "
                                               "OverlayManager::usePaletteColor. Using Black."}));
    EXPECT_EQ(cairo_get_operator(overlay.context()), CAIRO_OPERATOR_SOURCE);

    // Half-transparent red replaces white instead of tinting it; alpha 0 erases.
    overlay.paint(1, 1, 1);
    canvas.draw(FRectangle(0, 0, 50, 10), PaletteColors::Red, 1, true, 0.5f);
    canvas.drawCircle(75, 5, 20, PaletteColors::Blue, 1, true, 0.0f);
    EXPECT_TRUE(near(overlay.pixel(20, 5), Argb{128, 128, 0, 0}, 1)) << overlay.pixel(20, 5);
    EXPECT_EQ(overlay.pixel(75, 5), kTransparent);
    EXPECT_EQ(overlay.pixel(99, 9), kWhite);
}

TEST(CairoCanvas, OutlinesTextInBlackOrInItsOwnColour) {
    // Red text at alpha 0.5: premultiplied, pure red has r == a, and any black lowers r.
    auto hasBlack = [](const Argb& p) { return p.a >= 64 && p.r + 16 < p.a; };
    auto isStrongRed = [](const Argb& p) {
        return p.a >= 180 && std::abs(p.r - p.a) <= 2 && p.g <= 2 && p.b <= 2;
    };
    auto isHalfRed = [](const Argb& p) { return near(p, Argb{128, 128, 0, 0}, 2); };
    auto alphaSum = [](const ImageSurface& s) {
        long sum = 0;
        s.count([&sum](const Argb& p) { return (sum += p.a) < 0; });
        return sum;
    };

    // Fresh contexts: text keeps cairo's OVER, and the fill covers the outline's inner half.
    ImageSurface outlined(300, 200);
    CairoCanvas withOutline(outlined.context(), 300, 200);
    cairo_set_font_size(outlined.context(), 150);
    withOutline.draw("H", 20, 170, PaletteColors::Red, 0.5f);
    EXPECT_GT(outlined.count(hasBlack), 300);
    EXPECT_GT(outlined.count(isHalfRed), 3000);
    EXPECT_EQ(outlined.count(isStrongRed), 0);
    EXPECT_EQ(cairo_get_operator(outlined.context()), CAIRO_OPERATOR_OVER);

    ImageSurface plain(300, 200);
    CairoCanvas noOutline(plain.context(), 300, 200);
    cairo_set_font_size(plain.context(), 150);
    noOutline.drawNoOutline("H", 20, 170, PaletteColors::Red, 0.5f);
    EXPECT_EQ(plain.count(hasBlack), 0);
    EXPECT_GT(plain.count(isStrongRed), 300);
    EXPECT_GT(plain.count(isHalfRed), 3000);
    // Both styles cover the same letter, the outline reaching half a pixel further.
    const ImageSurface::Box a = outlined.inkBox();
    const ImageSurface::Box b = plain.inkBox();
    EXPECT_NEAR(a.x0, b.x0, 1);
    EXPECT_NEAR(a.y1, b.y1, 1);

    // After a shape, text replaces too: the half-transparent fill takes over the inner half of
    // the outline instead of darkening it, so less is opaque.
    ImageSurface afterShape(300, 200);
    CairoCanvas shaped(afterShape.context(), 300, 200);
    cairo_set_font_size(afterShape.context(), 150);
    shaped.drawLine(0, 0, 1, 0, PaletteColors::Blue, 1, 1.0f);
    shaped.draw("H", 20, 170, PaletteColors::Red, 0.5f);
    EXPECT_GT(afterShape.count(hasBlack), 300);
    EXPECT_LT(alphaSum(afterShape), alphaSum(outlined) - 40000);
}

TEST(CairoCanvas, MeasuresAndPlacesTextInInputCoordinates) {
    ImageSurface overlay(1920, 1080);
    CairoCanvas canvas(overlay.context(), 640, 360, 1920, 1080);
    cairo_text_extents_t extents;
    cairo_text_extents(overlay.context(), "Hello", &extents);
    ASSERT_GT(extents.width, 60.0);
    EXPECT_EQ(canvas.getTextSize("Hello"), Resolution(static_cast<unsigned>(extents.width / 3.0),
                                                      static_cast<unsigned>(extents.height / 3.0)));

    // The baseline starts at the mapped point: (100, 200) -> (300, 601), font size 32.
    canvas.draw("H", 100, 200, PaletteColors::White, 1.0f);
    const ImageSurface::Box ink = overlay.inkBox();
    EXPECT_GE(ink.x0, 298);
    EXPECT_LE(ink.x0, 306);
    EXPECT_GE(ink.y1, 599);
    EXPECT_LE(ink.y1, 603);
    EXPECT_LE(ink.y0, 601 - 18);

    // At a margin: bottom right, 10 input pixels (30 overlay pixels) from the right edge.
    ImageSurface corner(1920, 1080);
    CairoCanvas margins(corner.context(), 640, 360, 1920, 1080);
    margins.drawNoOutline("Hello", TextPosition::BottomRight, PaletteColors::Yellow, 1.0f);
    const ImageSurface::Box text = corner.inkBox();
    EXPECT_GE(text.x1, 1920 - 35);
    EXPECT_LE(text.x1, 1920 - 15);
    EXPECT_GT(text.y0, 1000);
    EXPECT_LT(text.y1, 1080 - 6);
}

TEST(CairoCanvas, DrawsSkeletonEdgesInOneStrokeAndNothingForEmptyPolygons) {
    ImageSurface overlay(200, 200);
    CairoCanvas canvas(overlay.context(), 200, 200);
    canvas.draw(IPolygon(), PaletteColors::Red, 3, true, 1.0f);
    IPolygon single;
    single.addPoint(50, 50);
    canvas.draw(single, PaletteColors::Red, 3, false, 1.0f);
    EXPECT_EQ(overlay.count(isInk), 0);

    Keypoints joints;
    joints.add(Keypoint(IPoint(50, 50), BodypixBodyPart::LeftShoulder, 0.9f));
    joints.add(Keypoint(IPoint(150, 50), BodypixBodyPart::RightShoulder, 0.9f));
    joints.add(Keypoint(IPoint(50, 150), BodypixBodyPart::LeftHip, 0.9f));
    joints.add(Keypoint(IPoint(150, 150), BodypixBodyPart::RightHip, 0.05f));
    canvas.draw(Skeleton<BodypixBodyPart>(joints), PaletteColors::Green, 4, 1.0f);
    EXPECT_EQ(overlay.pixel(100, 50), kGreen);        // shoulders
    EXPECT_EQ(overlay.pixel(50, 100), kGreen);        // left side
    EXPECT_EQ(overlay.pixel(150, 100), kTransparent); // the right hip scores too low
    EXPECT_EQ(overlay.pixel(100, 150), kTransparent);
    EXPECT_EQ(overlay.pixel(153, 50), kTransparent); // no dot at a joint
    EXPECT_EQ(overlay.count(isInk), 4 * 100 + 4 * 100 - 2 * 2);
}

TEST(CheckerboardPatterns, HoldTwoColouredQuartersInCairosPixelLayout) {
    const std::vector<std::pair<const unsigned char*, Argb>> patterns = {
        {redCheckerboardPatternData, {255, 255, 0, 0}},
        {greenCheckerboardPatternData, {255, 0, 255, 0}},
        {yellowCheckerboardPatternData, {255, 255, 255, 0}},
        {orangeCheckerboardPatternData, {255, 255, 153, 0}},
        {grayCheckerboardPatternData, {255, 128, 128, 128}}};
    for (const auto& [data, colour] : patterns) {
        cairo_surface_t* tile = cairo_image_surface_create_for_data(
            const_cast<unsigned char*>(data), CAIRO_FORMAT_ARGB32, 8, 8, 32);
        ImageSurface painted(16, 16);
        cairo_pattern_t* pattern = cairo_pattern_create_for_surface(tile);
        cairo_pattern_set_extend(pattern, CAIRO_EXTEND_REPEAT);
        cairo_set_source(painted.context(), pattern);
        cairo_paint(painted.context());
        cairo_pattern_destroy(pattern);
        cairo_surface_destroy(tile);
        for (int y = 0; y < 16; ++y) {
            for (int x = 0; x < 16; ++x) {
                const bool coloured = (x % 8 < 4) == (y % 8 < 4);
                ASSERT_EQ(painted.pixel(x, y), coloured ? colour : kWhite) << x << "," << y;
            }
        }
    }
}
