// Stream mappers: where a position measured in one picture lies in another picture of the same
// scene at another size, such as a detector's input, a camera stream and an overlay.
//
// StreamMapper stretches the input over the output corner to corner. ExtractionMapper follows
// the cut that the camera source makes for a detector (convertCropScaleU8yuvToRGB): the largest
// centred region of the output's aspect ratio, scaled to fill the output; positions in the
// cut-off band stick to the output's edge. EmbeddingMapper fits the whole input inside the
// output, centred, leaving margins. Sizes are passed heights first (HI, WI, HO, WO) throughout
// this family. The arithmetic is single precision; results become integers by truncation
// toward zero unless a comment says they are rounded. Nothing guards against sizes of 0 or 1.
//
// Mappers are fixed at construction and can be shared between threads. The two other mapper
// classes of this module, VideoStreamMapper and EmbeddingPointMapper, are included below.
#pragma once

#include "Points.h"

#include <memory>
#include <string>

namespace Ombrel {

class StreamMapper {
public:
    StreamMapper(int inputStreamHeight, int inputStreamWidth, int outputStreamHeight,
                 int outputStreamWidth, bool isStreamMirrored);
    virtual ~StreamMapper();

    // (HO - 1) / (HI - 1) * y.
    virtual int mapY(int y) const;
    // width * ((WO - 1) / (WI - 1)); heights alike. Sizes are not mirrored.
    virtual int mapWidth(int width) const;
    virtual int mapHeight(int height) const;
    // The corners (not a size) of the part of the input that is shown: 0, 0, WI - 1, HI - 1.
    virtual void getActiveInputRectangle(int& x0, int& y0, int& x1, int& y1) const;
    // The corners of the part of the output that shows it: 0, 0, WO - 1, HO - 1.
    virtual void getActiveOutputRectangle(int& x0, int& y0, int& x1, int& y1) const;
    // The class's name: "StreamMapper".
    virtual std::string toString() const;
    // The unmirrored horizontal map: (WO - 1) / (WI - 1) * x.
    virtual int _mapX(int x) const;

    // _mapX(x), or WO - _mapX(x) - 1 on a mirrored mapper; the one mirror rule of the family.
    int mapX(int x) const;
    IPoint map(int x, int y) const { return IPoint(mapX(x), mapY(y)); }
    IPoint map(const IPoint& point) const { return map(point.x, point.y); }

    int HI;
    int WI;
    int HO;
    int WO;
    bool isMirrored;
};

class ExtractionMapper : public StreamMapper {
public:
    // alpha is the ratio of heights less one when the input is the wider (and epsilonX the
    // width of the band cut at each side), otherwise the ratio of widths less one (and
    // epsilonY the band at top and bottom). The bands stay fractional.
    ExtractionMapper(int inputStreamHeight, int inputStreamWidth, int outputStreamHeight,
                     int outputStreamWidth, bool isStreamMirrored);

    // 0 left of the band, HO - 1 at or beyond its far edge, otherwise alpha * (y - epsilonY).
    int mapY(int y) const override;
    // alpha * size, for widths and heights alike.
    int mapWidth(int width) const override;
    int mapHeight(int height) const override;
    // The corners of the kept region: epsilon + 0.5 and size - epsilon - 0.5, truncated.
    void getActiveInputRectangle(int& x0, int& y0, int& x1, int& y1) const override;
    std::string toString() const override;
    int _mapX(int x) const override;

    float alpha;
    float epsilonX;
    float epsilonY;
};

class EmbeddingMapper : public StreamMapper {
public:
    EmbeddingMapper(int inputStreamHeight, int inputStreamWidth, int outputStreamHeight,
                    int outputStreamWidth, bool isStreamMirrored);
    // Takes only the sizes of the rectangles.
    EmbeddingMapper(const IRectangle& input, const IRectangle& output, bool isStreamMirrored);

    // Rounded: alpha * y + deltaY + 0.5, truncated.
    int mapY(int y) const override;
    // alpha * size, truncated.
    int mapWidth(int width) const override;
    int mapHeight(int height) const override;
    void getActiveInputRectangle(int& x0, int& y0, int& x1, int& y1) const override;
    // mapX(0), mapY(0), mapX(WI - 1), mapY(HI - 1): on a mirrored mapper x0 exceeds x1.
    void getActiveOutputRectangle(int& x0, int& y0, int& x1, int& y1) const override;
    std::string toString() const override;
    // Rounded: alpha * x + deltaX + 0.5, truncated.
    int _mapX(int x) const override;

    // At 0, 0 with width WI - 1 and height HI - 1: one less than the input's size.
    virtual IRectangle getActiveInputRectangle() const;
    // From the corner form: at x0, y0 with width x1 - x0 + 1 and height y1 - y0 + 1.
    virtual IRectangle getActiveOutputRectangle() const;

    float alpha;
    float deltaX;
    float deltaY;
};

// Always an ExtractionMapper of the four sizes; isPortrait has no influence.
std::unique_ptr<StreamMapper> getStreamMapper(int inputStreamHeight, int inputStreamWidth,
                                              int outputStreamHeight, int outputStreamWidth,
                                              bool isPortrait, bool isStreamMirrored);

} // namespace Ombrel

#include "EmbeddingPointMapper.h"
#include "VideoStreamMapper.h"
