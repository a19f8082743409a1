#include "Canvas.h"

#include <limits>

namespace Ombrel {

namespace {

// Float coordinates become integers by truncation toward zero; beyond int's range they saturate
// and NaN gives 0, so no caller's value reaches an undefined conversion.
int truncate(float value) {
    return detail::truncateTo<int>(value);
}

int saturate(long long value) {
    if (value > std::numeric_limits<int>::max()) {
        return std::numeric_limits<int>::max();
    }
    if (value < std::numeric_limits<int>::min()) {
        return std::numeric_limits<int>::min();
    }
    return static_cast<int>(value);
}

} // namespace

Canvas::Canvas(int inputWidth, int inputHeight)
    : Canvas(inputWidth, inputHeight, inputWidth, inputHeight) {}

Canvas::Canvas(int inputWidth, int inputHeight, int outputWidth, int outputHeight)
    : WI(inputWidth), HI(inputHeight), WO(outputWidth), HO(outputHeight) {}

Canvas::~Canvas() = default;

void Canvas::draw(const FPoint& p0, const FPoint& p1, PaletteColors paletteColor, int lineWidth,
                  float alpha) {
    drawLine(truncate(p0.x), truncate(p0.y), truncate(p1.x), truncate(p1.y), paletteColor,
             lineWidth, alpha);
}

void Canvas::draw(const FRectangle& rectangle, PaletteColors paletteColor, int lineWidth, bool fill,
                  float alpha) {
    const float right = rectangle.x + rectangle.width;
    const float bottom = rectangle.y + rectangle.height;
    IPolygon polygon;
    polygon.addPoint(truncate(rectangle.x), truncate(rectangle.y));
    polygon.addPoint(truncate(right), truncate(rectangle.y));
    polygon.addPoint(truncate(right), truncate(bottom));
    polygon.addPoint(truncate(rectangle.x), truncate(bottom));
    draw(polygon, paletteColor, lineWidth, fill, alpha);
}

void Canvas::draw(const Cross& cross, PaletteColors paletteColor, int lineWidth, float alpha) {
    drawCross(truncate(cross.x), truncate(cross.y), truncate(cross.radius), paletteColor, lineWidth,
              alpha);
}

void Canvas::draw(const Circle& circle, PaletteColors paletteColor, int lineWidth, bool fill,
                  float alpha) {
    drawCircle(truncate(circle.x), truncate(circle.y), truncate(circle.radius), paletteColor,
               lineWidth, fill, alpha);
}

void Canvas::draw(const IPolygon& polygon, PaletteColors paletteColor, int lineWidth, bool /*fill*/,
                  float alpha) {
    const int n = static_cast<int>(polygon.getNPoints());
    for (int i = 0; i < n; ++i) {
        const IPoint& from = polygon.getPoint(i);
        const IPoint& to = polygon.getPoint((i + 1) % n);
        drawLine(from.x, from.y, to.x, to.y, paletteColor, lineWidth, alpha);
    }
}

void Canvas::draw(const FPolygon& polygon, PaletteColors paletteColor, int lineWidth, bool /*fill*/,
                  float alpha) {
    const int n = static_cast<int>(polygon.getNPoints());
    for (int i = 0; i < n; ++i) {
        const FPoint& from = polygon.getPoint(i);
        const FPoint& to = polygon.getPoint((i + 1) % n);
        drawLine(truncate(from.x), truncate(from.y), truncate(to.x), truncate(to.y), paletteColor,
                 lineWidth, alpha);
    }
}

void Canvas::draw(const std::string& text, int x, int y, PaletteColors paletteColor, float alpha) {
    drawTextImpl(text, x, y, paletteColor, alpha);
}

void Canvas::draw(const std::string& text, TextPosition position, PaletteColors paletteColor,
                  float alpha) {
    const IPoint location = getTextLocation(position, text);
    draw(text, location.x, location.y, paletteColor, alpha);
}

void Canvas::draw(const Skeleton<BodypixBodyPart>& skeleton, PaletteColors paletteColor,
                  int lineWidth, float alpha) {
    for (const Edge<BodypixBodyPart>& edge : skeleton) {
        drawLine(edge.keypoint0.point.x, edge.keypoint0.point.y, edge.keypoint1.point.x,
                 edge.keypoint1.point.y, paletteColor, lineWidth, alpha);
    }
}

void Canvas::drawNoOutline(const std::string& text, int x, int y, PaletteColors paletteColor,
                           float alpha) {
    drawTextNoOutlineImpl(text, x, y, paletteColor, alpha);
}

void Canvas::drawNoOutline(const std::string& text, TextPosition position,
                           PaletteColors paletteColor, float alpha) {
    const IPoint location = getTextLocation(position, text);
    drawNoOutline(text, location.x, location.y, paletteColor, alpha);
}

void Canvas::drawLine(int x1, int y1, int x2, int y2, PaletteColors paletteColor, int lineWidth,
                      float alpha) {
    drawLineImpl(x1, y1, x2, y2, paletteColor, lineWidth, alpha);
}

void Canvas::drawCross(int x, int y, int radius, PaletteColors paletteColor, int lineWidth,
                       float alpha) {
    // Widened so that a cross near the ends of int's range saturates instead of overflowing.
    const long long r = radius;
    drawLine(saturate(x - r), y, saturate(x + r), y, paletteColor, lineWidth, alpha);
    drawLine(x, saturate(y - r), x, saturate(y + r), paletteColor, lineWidth, alpha);
}

void Canvas::drawCircle(int x, int y, int radius, PaletteColors paletteColor, int lineWidth,
                        bool fill, float alpha) {
    drawCircleImpl(x, y, radius, paletteColor, lineWidth, fill, alpha);
}

IPoint Canvas::getTextLocation(TextPosition position, const std::string& text) const {
    const Resolution size = getTextSize(text);
    // Widened, so that no size a subclass reports can overflow.
    const long long width = size.width;
    const long long height = size.height;
    const int right = saturate(WI - width - 10);
    const int top = saturate(height + 2);
    const int bottom = saturate(HI - height - 2);
    // Centring halves the unsigned difference: a text wider than the input lands far right.
    const int centre = static_cast<int>((static_cast<unsigned int>(WI) - size.width) / 2u);
    switch (position) {
    case TextPosition::TopLeft:
        return IPoint(10, top);
    case TextPosition::TopRight:
        return IPoint(right, top);
    case TextPosition::TopCentre:
        return IPoint(centre, top);
    case TextPosition::BottomLeft:
        return IPoint(10, bottom);
    case TextPosition::BottomRight:
        return IPoint(right, bottom);
    case TextPosition::BottomCentre:
        return IPoint(centre, bottom);
    }
    return IPoint(0, 0);
}

Resolution Canvas::getInputResolution() const {
    return Resolution(static_cast<unsigned int>(WI), static_cast<unsigned int>(HI));
}

Resolution Canvas::getOutputResolution() const {
    return Resolution(static_cast<unsigned int>(WO), static_cast<unsigned int>(HO));
}

} // namespace Ombrel
