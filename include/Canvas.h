// Canvas: the drawing surface of an overlay, addressed in the coordinates of the picture that an
// application analysed (the input, WI by HI), while the overlay itself may have another size (the
// output, WO by HO).
//
// The shape-level operations (lines, rectangles, crosses, circles, polygons, skeletons, text at a
// position or at one of six margins) are written here in terms of four primitives, the *Impl
// operations, which a drawing back end implements; CairoCanvas is the library's. Float
// coordinates are truncated toward zero to integers before they reach a primitive. Line widths
// are in output pixels.
//
// Ownership and threading: a canvas holds only its four sizes; a subclass owns what it draws on.
// A canvas belongs to one thread and takes no lock.
#pragma once

#include "CommonStructs.h"
#include "Points.h"
#include "Polygons.h"
#include "Skeleton.h"

#include <string>

namespace Ombrel {

enum class PaletteColors {
    Black = 0,
    Red = 1,
    Green = 2,
    Blue = 3,
    Yellow = 4,
    White = 5,
    Orange = 6,
    CornflowerBlue = 7,
    Gray = 8
};

// Where getTextLocation places a text: a corner or the middle of the top or bottom edge.
enum class TextPosition {
    TopLeft = 0,
    TopRight = 1,
    TopCentre = 2,
    BottomLeft = 3,
    BottomRight = 4,
    BottomCentre = 5
};

class Canvas {
public:
    // An overlay of the input's own size.
    Canvas(int inputWidth, int inputHeight);
    Canvas(int inputWidth, int inputHeight, int outputWidth, int outputHeight);
    virtual ~Canvas();

    // A line between two points, each coordinate truncated.
    virtual void draw(const FPoint& p0, const FPoint& p1, PaletteColors paletteColor, int lineWidth,
                      float alpha);
    // The rectangle as a four-point polygon: (x, y), (x + width, y), (x + width, y + height),
    // (x, y + height), each sum formed in float before truncation.
    virtual void draw(const FRectangle& rectangle, PaletteColors paletteColor, int lineWidth,
                      bool fill, float alpha);
    virtual void draw(const Cross& cross, PaletteColors paletteColor, int lineWidth, float alpha);
    virtual void draw(const Circle& circle, PaletteColors paletteColor, int lineWidth, bool fill,
                      float alpha);
    // Here the sides as lines, point i to point (i + 1) % n; fill has no effect on this base
    // form.
    virtual void draw(const IPolygon& polygon, PaletteColors paletteColor, int lineWidth, bool fill,
                      float alpha);
    virtual void draw(const FPolygon& polygon, PaletteColors paletteColor, int lineWidth, bool fill,
                      float alpha);
    // Text whose baseline starts at (x, y), with a black outline.
    virtual void draw(const std::string& text, int x, int y, PaletteColors paletteColor,
                      float alpha);
    virtual void draw(const std::string& text, TextPosition position, PaletteColors paletteColor,
                      float alpha);
    // A line for each of the skeleton's edges.
    virtual void draw(const Skeleton<BodypixBodyPart>& skeleton, PaletteColors paletteColor,
                      int lineWidth, float alpha);
    // Text with a thin outline in its own colour instead of the black one.
    virtual void drawNoOutline(const std::string& text, int x, int y, PaletteColors paletteColor,
                               float alpha);
    virtual void drawNoOutline(const std::string& text, TextPosition position,
                               PaletteColors paletteColor, float alpha);
    // The text's width and height in input coordinates.
    virtual Resolution getTextSize(const std::string& text) const = 0;
    virtual void drawLine(int x1, int y1, int x2, int y2, PaletteColors paletteColor, int lineWidth,
                          float alpha);
    // Two lines through (x, y): horizontal, then vertical, each 2 * radius long.
    virtual void drawCross(int x, int y, int radius, PaletteColors paletteColor, int lineWidth,
                           float alpha);
    virtual void drawCircle(int x, int y, int radius, PaletteColors paletteColor, int lineWidth,
                            bool fill, float alpha);
    // The start of the text's baseline at a margin, in input coordinates: x 10 from the left or
    // right edge or centred, y height + 2 from the top or height + 2 above the bottom. Centring
    // halves the unsigned difference WI - width, so a text wider than the input gets a very
    // large x. Any other position gives (0, 0).
    virtual IPoint getTextLocation(TextPosition position, const std::string& text) const;

    // The input's size (WI, HI) and the overlay's (WO, HO).
    Resolution getInputResolution() const;
    Resolution getOutputResolution() const;

protected:
    // The primitives, in input coordinates.
    virtual void drawLineImpl(int x1, int y1, int x2, int y2, PaletteColors paletteColor,
                              int lineWidth, float alpha) = 0;
    virtual void drawCircleImpl(int cx, int cy, int radius, PaletteColors paletteColor,
                                int inLineWidth, bool fill, float alpha) = 0;
    virtual void drawTextImpl(const std::string& text, int px, int py, PaletteColors paletteColor,
                              float alpha) = 0;
    virtual void drawTextNoOutlineImpl(const std::string& text, int px, int py,
                                       PaletteColors paletteColor, float alpha) = 0;

    int WI;
    int HI;
    int WO;
    int HO;
};

} // namespace Ombrel
