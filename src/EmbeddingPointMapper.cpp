#include "EmbeddingPointMapper.h"

#include <cmath>

namespace Ombrel {

namespace {

float difference(int a, int b) {
    return static_cast<float>(static_cast<long long>(a) - b);
}

} // namespace

EmbeddingPointMapper::EmbeddingPointMapper(const IRectangle& sourceRectangle,
                                           const IRectangle& targetRectangle)
    : _sourceRectangle(sourceRectangle), _targetRectangle(targetRectangle),
      _activeTargetRectangle(0, 0, 0, 0), _scale(1.0f) {
    const IRectangle& source = _sourceRectangle;
    const IRectangle& target = _targetRectangle;
    const float sourceAspect = source.aspectRatio();
    const float targetAspect = target.aspectRatio();
    if (sourceAspect >= targetAspect) {
        // The source fills the width; margins at top and bottom.
        _scale = static_cast<float>(target.width) / static_cast<float>(source.width);
        const float scaledHeight = static_cast<float>(source.height) * _scale;
        const float marginHeight = static_cast<float>(target.height) - scaledHeight;
        _activeTargetRectangle = IRectangle(
            target.x, detail::truncateTo<int>(static_cast<float>(target.y) + marginHeight / 2.0f),
            target.width, detail::truncateTo<int>(scaledHeight));
    } else {
        // The source fills the height; margins at left and right.
        _scale = static_cast<float>(target.height) / static_cast<float>(source.height);
        const float scaledWidth = static_cast<float>(source.width) * _scale;
        const float marginWidth = static_cast<float>(target.width) - scaledWidth;
        _activeTargetRectangle =
            IRectangle(detail::truncateTo<int>(static_cast<float>(target.x) + marginWidth / 2.0f),
                       target.y, detail::truncateTo<int>(scaledWidth), target.height);
    }
}

IPoint EmbeddingPointMapper::map(const IPoint& point) const {
    const float dx = difference(point.x, _sourceRectangle.x) * _scale;
    const float dy = difference(point.y, _sourceRectangle.y) * _scale;
    return IPoint(detail::truncateTo<int>(_activeTargetRectangle.x + std::floor(dx + 0.5)),
                  detail::truncateTo<int>(_activeTargetRectangle.y + std::floor(dy + 0.5)));
}

IRectangle EmbeddingPointMapper::map(const IRectangle& rectangle) const {
    const IPoint topLeft = map(IPoint(rectangle.x, rectangle.y));
    const IPoint bottomRight = map(rectangle.bottomRightPoint());
    return IRectangle(topLeft.x, topLeft.y,
                      detail::truncateTo<int>(static_cast<double>(bottomRight.x) - topLeft.x),
                      detail::truncateTo<int>(static_cast<double>(bottomRight.y) - topLeft.y));
}

Keypoint EmbeddingPointMapper::map(const Keypoint& keypoint) const {
    return Keypoint(map(keypoint.point), keypoint.bodyPart, keypoint.score);
}

Skeleton<BodypixBodyPart>
EmbeddingPointMapper::map(const Skeleton<BodypixBodyPart>& skeleton) const {
    Keypoints keypoints;
    for (const Keypoint& keypoint : skeleton.keypoints()) {
        keypoints.add(map(keypoint));
    }
    return Skeleton<BodypixBodyPart>(keypoints);
}

IPoint EmbeddingPointMapper::inverseMap(const IPoint& point) const {
    const double mappedX =
        std::trunc(difference(point.x, _activeTargetRectangle.x) / _scale) + _sourceRectangle.x;
    const double mappedY =
        std::trunc(difference(point.y, _activeTargetRectangle.y) / _scale) + _sourceRectangle.y;
    return IPoint(detail::truncateTo<int>(mappedX), detail::truncateTo<int>(mappedY));
}

IRectangle EmbeddingPointMapper::inverseMap(const IRectangle& rectangle) const {
    const IPoint topLeft = inverseMap(IPoint(rectangle.x, rectangle.y));
    const IPoint bottomRight = inverseMap(rectangle.bottomRightPoint());
    return IRectangle(topLeft.x, topLeft.y,
                      detail::truncateTo<int>(static_cast<double>(bottomRight.x) - topLeft.x),
                      detail::truncateTo<int>(static_cast<double>(bottomRight.y) - topLeft.y));
}

Keypoint EmbeddingPointMapper::inverseMap(const Keypoint& keypoint) const {
    return Keypoint(inverseMap(keypoint.point), keypoint.bodyPart, keypoint.score);
}

Skeleton<BodypixBodyPart>
EmbeddingPointMapper::inverseMap(const Skeleton<BodypixBodyPart>& skeleton) const {
    Keypoints keypoints;
    for (const Keypoint& keypoint : skeleton.keypoints()) {
        keypoints.add(inverseMap(keypoint));
    }
    return Skeleton<BodypixBodyPart>(keypoints);
}

} // namespace Ombrel
