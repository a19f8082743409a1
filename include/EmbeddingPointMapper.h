// EmbeddingPointMapper: positions between a rectangle of a scene and the rectangle (a cell of a
// panoramic mosaic) into which it was scaled, keeping its aspect ratio and centred.
//
// The active target rectangle is the part of the target that the scaled source covers. The
// inverse maps (target to source) truncate and are not clamped to the source: a point in the
// target's margin maps to a place outside the source rectangle. The forward maps (source to
// target) round to the nearest pixel. A plain value, fixed at construction.
#pragma once

#include "Points.h"
#include "Skeleton.h"

namespace Ombrel {

class EmbeddingPointMapper {
public:
    EmbeddingPointMapper(const IRectangle& sourceRectangle, const IRectangle& targetRectangle);

    // Source to target: active.x + round((x - source.x) * scale), likewise y.
    IPoint map(const IPoint& point) const;
    // Both corners, (x, y) and (x + width, y + height), mapped as points.
    IRectangle map(const IRectangle& rectangle) const;
    Keypoint map(const Keypoint& keypoint) const;
    Skeleton<BodypixBodyPart> map(const Skeleton<BodypixBodyPart>& skeleton) const;

    // Target to source: trunc((x - active.x) / scale) + source.x, likewise y.
    IPoint inverseMap(const IPoint& point) const;
    IRectangle inverseMap(const IRectangle& rectangle) const;
    // The same part and score at the inverse-mapped position.
    Keypoint inverseMap(const Keypoint& keypoint) const;
    // Every keypoint inverse-mapped; the edges are computed anew.
    Skeleton<BodypixBodyPart> inverseMap(const Skeleton<BodypixBodyPart>& skeleton) const;

    IRectangle getActiveTargetRectangle() const { return _activeTargetRectangle; }
    // Target pixels per source pixel.
    float getScale() const { return _scale; }

private:
    IRectangle _sourceRectangle;
    IRectangle _targetRectangle;
    IRectangle _activeTargetRectangle;
    float _scale;
};

} // namespace Ombrel
