// CairoCanvas: a Canvas that draws on an application's cairo context.
//
// Every coordinate goes through an ExtractionMapper from the input picture (WI by HI) to the
// overlay (WO by HO): the largest centred region of the overlay's aspect ratio is cut from the
// input and scaled to fill the overlay, and a point outside the region sticks to the overlay's
// edge. A circle's radius is mapped as a horizontal position (mapX), not as a width, so on a cut
// input it shrinks by the cut-off band. Shapes are drawn with CAIRO_OPERATOR_SOURCE: they replace
// colour and alpha under them instead of blending, so an alpha of 0 erases. Text keeps the
// context's operator as it stands (SOURCE once any shape was drawn).
//
// At construction the canvas sets the best antialiasing, a font size of 3% of the overlay's
// smaller side (at least 16) and the font of the current language (CairoFontManager), or bold
// "Arial" as fontconfig resolves it when the language has no font of its own. A later change of
// language reaches only canvases built after it.
//
// Ownership: the context is the application's; it must outlive the canvas, which never destroys
// it and leaves its colour, line width and operator as the last operation set them. The canvas
// owns its mapper. Threading: a canvas belongs to the thread that owns its context.
//
// The five checkerboard patterns are for applications: 8 by 8 pixels in cairo's
// CAIRO_FORMAT_ARGB32 memory layout (blue, green, red, alpha on a little-endian processor, stride
// 32), the top-left and bottom-right 4 by 4 quarters in the colour and the two others opaque
// white. cairo only reads a surface used as a source, so
//   cairo_image_surface_create_for_data(const_cast<unsigned char*>(redCheckerboardPatternData),
//                                       CAIRO_FORMAT_ARGB32, 8, 8, 32)
// makes a pattern of one without copying.
#pragma once

#include "Canvas.h"
#include "StreamMapper.h"

#include <cairo.h>

#include <memory>
#include <string>

namespace Ombrel {

extern const unsigned char redCheckerboardPatternData[256];
extern const unsigned char greenCheckerboardPatternData[256];
extern const unsigned char yellowCheckerboardPatternData[256];
extern const unsigned char orangeCheckerboardPatternData[256];
extern const unsigned char grayCheckerboardPatternData[256];

class CairoCanvas : public Canvas {
public:
    // An overlay of the input's own size.
    CairoCanvas(cairo_t* pContext, int inputWidth, int inputHeight);
    CairoCanvas(cairo_t* pContext, int inputWidth, int inputHeight, int outputWidth,
                int outputHeight);
    ~CairoCanvas() override;

    CairoCanvas(const CairoCanvas&) = delete;
    CairoCanvas& operator=(const CairoCanvas&) = delete;

    using Canvas::draw;

    // One closed path, filled or stroked (an FPolygon's points truncated first). A polygon
    // without points draws nothing.
    void draw(const IPolygon& polygon, PaletteColors paletteColor, int lineWidth, bool fill,
              float alpha) override;
    void draw(const FPolygon& polygon, PaletteColors paletteColor, int lineWidth, bool fill,
              float alpha) override;
    // Every edge in one path and one stroke, in one colour and width; no joints, no scores.
    void draw(const Skeleton<BodypixBodyPart>& skeleton, PaletteColors paletteColor, int lineWidth,
              float alpha) override;
    // cairo's extents of the text in the context's font, brought back to input coordinates
    // (divided by WO / WI and HO / HI) and truncated.
    Resolution getTextSize(const std::string& text) const override;

protected:
    // A stroked line.
    void drawLineImpl(int x1, int y1, int x2, int y2, PaletteColors paletteColor, int lineWidth,
                      float alpha) override;
    // The centre mapped, the radius mapped with mapX; filled or stroked.
    void drawCircleImpl(int cx, int cy, int radius, PaletteColors paletteColor, int inLineWidth,
                        bool fill, float alpha) override;
    // The letters in the colour over an opaque black outline 2 pixels wide (its inner half
    // covered by the fill).
    void drawTextImpl(const std::string& text, int px, int py, PaletteColors paletteColor,
                      float alpha) override;
    // The letters in the colour with a 1 pixel outline of the same colour, opaque whatever
    // alpha is.
    void drawTextNoOutlineImpl(const std::string& text, int px, int py, PaletteColors paletteColor,
                               float alpha) override;

private:
    // The palette's colour with alpha as cairo's source; an unknown colour logs an error and
    // gives black.
    void usePaletteColor(PaletteColors paletteColor, double alpha);
    // The colour, the line width (in overlay pixels, not mapped) and CAIRO_OPERATOR_SOURCE.
    void initializeOperation(PaletteColors paletteColor, double alpha, int lineWidth);
    void moveTo(const IPoint& point);
    void lineTo(const IPoint& point);

    cairo_t* m_pContext;
    std::unique_ptr<StreamMapper> m_pStreamMapper;
};

} // namespace Ombrel
