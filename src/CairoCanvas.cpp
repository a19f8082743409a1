#include "CairoCanvas.h"

#include "CairoFontManager.h"
#include "Localization.h"
#include "LoggerWrapper.h"

#include <algorithm>

namespace Ombrel {

// 8 by 8 pixels, 4 bytes each in the order blue, green, red, alpha: the top-left and bottom-right
// 4 by 4 quarters in the colour, the two others opaque white.
#define STEMLIB_COLOUR(b, g, r) b, g, r, 255
#define STEMLIB_WHITE 255, 255, 255, 255
#define STEMLIB_FOUR(pixel) pixel, pixel, pixel, pixel
#define STEMLIB_TOP_ROW(b, g, r) STEMLIB_FOUR(STEMLIB_COLOUR(b, g, r)), STEMLIB_FOUR(STEMLIB_WHITE)
#define STEMLIB_BOTTOM_ROW(b, g, r)                                                                \
    STEMLIB_FOUR(STEMLIB_WHITE), STEMLIB_FOUR(STEMLIB_COLOUR(b, g, r))
#define STEMLIB_CHECKERBOARD(b, g, r)                                                              \
    { STEMLIB_FOUR(STEMLIB_TOP_ROW(b, g, r)), STEMLIB_FOUR(STEMLIB_BOTTOM_ROW(b, g, r)) }

const unsigned char redCheckerboardPatternData[256] = STEMLIB_CHECKERBOARD(0, 0, 255);
const unsigned char greenCheckerboardPatternData[256] = STEMLIB_CHECKERBOARD(0, 255, 0);
const unsigned char yellowCheckerboardPatternData[256] = STEMLIB_CHECKERBOARD(0, 255, 255);
const unsigned char orangeCheckerboardPatternData[256] = STEMLIB_CHECKERBOARD(0, 153, 255);
const unsigned char grayCheckerboardPatternData[256] = STEMLIB_CHECKERBOARD(128, 128, 128);

#undef STEMLIB_CHECKERBOARD
#undef STEMLIB_BOTTOM_ROW
#undef STEMLIB_TOP_ROW
#undef STEMLIB_FOUR
#undef STEMLIB_WHITE
#undef STEMLIB_COLOUR

namespace {

constexpr double kTwoPi = 6.283185307179586;

} // namespace

CairoCanvas::CairoCanvas(cairo_t* pContext, int inputWidth, int inputHeight)
    : CairoCanvas(pContext, inputWidth, inputHeight, inputWidth, inputHeight) {}

CairoCanvas::CairoCanvas(cairo_t* pContext, int inputWidth, int inputHeight, int outputWidth,
                         int outputHeight)
    : Canvas(inputWidth, inputHeight, outputWidth, outputHeight), m_pContext(pContext),
      m_pStreamMapper(getStreamMapper(HI, WI, HO, WO, false, false)) {
    const int minDim = std::min(WO, HO);
    const int fontSize = std::max(16, static_cast<int>(minDim * 0.03));
    cairo_set_antialias(m_pContext, CAIRO_ANTIALIAS_BEST);

    const std::string lang = Localization::getLanguage();
    cairo_font_face_t* fontFace = CairoFontManager::getInstance().getFontFaceForLanguage(lang);
    if (fontFace != nullptr) {
        cairo_set_font_face(m_pContext, fontFace);
    } else {
        cairo_select_font_face(m_pContext, "Arial", CAIRO_FONT_SLANT_NORMAL,
                               CAIRO_FONT_WEIGHT_BOLD);
    }
    cairo_set_font_size(m_pContext, fontSize);
}

CairoCanvas::~CairoCanvas() = default;

void CairoCanvas::draw(const IPolygon& polygon, PaletteColors paletteColor, int lineWidth,
                       bool fill, float alpha) {
    const int n = static_cast<int>(polygon.getNPoints());
    if (n == 0) {
        return;
    }
    cairo_new_path(m_pContext);
    initializeOperation(paletteColor, alpha, lineWidth);
    moveTo(polygon.getPoint(0));
    for (int i = 1; i < n; ++i) {
        lineTo(polygon.getPoint(i));
    }
    cairo_close_path(m_pContext);
    if (fill) {
        cairo_fill(m_pContext);
    } else {
        cairo_stroke(m_pContext);
    }
}

void CairoCanvas::draw(const FPolygon& polygon, PaletteColors paletteColor, int lineWidth,
                       bool fill, float alpha) {
    IPolygon truncated;
    for (const FPoint& point : polygon) {
        truncated.addPoint(detail::truncateTo<int>(point.x), detail::truncateTo<int>(point.y));
    }
    draw(truncated, paletteColor, lineWidth, fill, alpha);
}

void CairoCanvas::draw(const Skeleton<BodypixBodyPart>& skeleton, PaletteColors paletteColor,
                       int lineWidth, float alpha) {
    initializeOperation(paletteColor, alpha, lineWidth);
    for (const Edge<BodypixBodyPart>& edge : skeleton) {
        moveTo(edge.keypoint0.point);
        lineTo(edge.keypoint1.point);
    }
    cairo_stroke(m_pContext);
}

Resolution CairoCanvas::getTextSize(const std::string& text) const {
    cairo_text_extents_t extents;
    cairo_text_extents(m_pContext, text.c_str(), &extents);
    const float scaleX = static_cast<float>(WO) / static_cast<float>(WI);
    const float scaleY = static_cast<float>(HO) / static_cast<float>(HI);
    return Resolution(detail::truncateTo<unsigned int>(extents.width / scaleX),
                      detail::truncateTo<unsigned int>(extents.height / scaleY));
}

void CairoCanvas::drawLineImpl(int x1, int y1, int x2, int y2, PaletteColors paletteColor,
                               int lineWidth, float alpha) {
    initializeOperation(paletteColor, alpha, lineWidth);
    moveTo(IPoint(x1, y1));
    lineTo(IPoint(x2, y2));
    cairo_stroke(m_pContext);
}

void CairoCanvas::drawCircleImpl(int cx, int cy, int radius, PaletteColors paletteColor,
                                 int inLineWidth, bool fill, float alpha) {
    initializeOperation(paletteColor, alpha, inLineWidth);
    const IPoint c = m_pStreamMapper->map(cx, cy);
    // A radius is mapped as a position, which on a cut input takes off the cut-off band.
    const int radiusp = m_pStreamMapper->mapX(radius);
    cairo_new_sub_path(m_pContext);
    cairo_arc(m_pContext, c.x, c.y, radiusp, 0.0, kTwoPi);
    if (fill) {
        cairo_fill(m_pContext);
    } else {
        cairo_stroke(m_pContext);
    }
}

void CairoCanvas::drawTextImpl(const std::string& text, int px, int py, PaletteColors paletteColor,
                               float alpha) {
    moveTo(IPoint(px, py));
    cairo_text_path(m_pContext, text.c_str());
    usePaletteColor(PaletteColors::Black, 1.0);
    cairo_set_line_width(m_pContext, 2);
    cairo_stroke_preserve(m_pContext);
    usePaletteColor(paletteColor, alpha);
    cairo_fill(m_pContext);
}

void CairoCanvas::drawTextNoOutlineImpl(const std::string& text, int px, int py,
                                        PaletteColors paletteColor, float alpha) {
    const int pxp = m_pStreamMapper->mapX(px);
    const int pyp = m_pStreamMapper->mapY(py);
    cairo_move_to(m_pContext, pxp, pyp);
    usePaletteColor(paletteColor, alpha);
    cairo_text_path(m_pContext, text.c_str());
    cairo_fill_preserve(m_pContext);
    usePaletteColor(paletteColor, 1.0);
    cairo_set_line_width(m_pContext, 1);
    cairo_stroke(m_pContext);
}

void CairoCanvas::usePaletteColor(PaletteColors paletteColor, double alpha) {
    double red = 0.0;
    double green = 0.0;
    double blue = 0.0;
    switch (paletteColor) {
    case PaletteColors::Black:
        break;
    case PaletteColors::Red:
        red = 1.0;
        break;
    case PaletteColors::Green:
        green = 1.0;
        break;
    case PaletteColors::Blue:
        blue = 1.0;
        break;
    case PaletteColors::Yellow:
        red = 1.0;
        green = 1.0;
        break;
    case PaletteColors::White:
        red = 1.0;
        green = 1.0;
        blue = 1.0;
        break;
    case PaletteColors::Orange:
        red = 1.0;
        green = 0.6;
        break;
    // The fractions are single precision, widened.
    case PaletteColors::CornflowerBlue:
        red = 70.0f / 255.0f;
        green = 119.0f / 255.0f;
        blue = 207.0f / 255.0f;
        break;
    case PaletteColors::Gray:
        red = 150.0f / 255.0f;
        green = 150.0f / 255.0f;
        blue = 150.0f / 255.0f;
        break;
    default:
        g_stemlibLogger.error("usePaletteColor: Unknown color index passed to "
                              "OverlayManager::usePaletteColor. Using Black.");
        break;
    }
    cairo_set_source_rgba(m_pContext, red, green, blue, alpha);
}

void CairoCanvas::initializeOperation(PaletteColors paletteColor, double alpha, int lineWidth) {
    usePaletteColor(paletteColor, alpha);
    cairo_set_line_width(m_pContext, lineWidth);
    cairo_set_operator(m_pContext, CAIRO_OPERATOR_SOURCE);
}

void CairoCanvas::moveTo(const IPoint& point) {
    const IPoint mapped = m_pStreamMapper->map(point);
    cairo_move_to(m_pContext, mapped.x, mapped.y);
}

void CairoCanvas::lineTo(const IPoint& point) {
    const IPoint mapped = m_pStreamMapper->map(point);
    cairo_line_to(m_pContext, mapped.x, mapped.y);
}

} // namespace Ombrel
