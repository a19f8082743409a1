// VideoStreamMapper: positions between two camera streams of one aspect ratio, a low-resolution
// stream for detection and a high-resolution stream to cut patches from.
//
// The mapper holds references to both sources, which it does not own: they must outlive it.
// Fixed at construction; read-only afterwards and safe to share between threads.
#pragma once

#include "Points.h"
#include "VideoStreamSource.h"

namespace Ombrel {

class VideoStreamMapper {
public:
    // Logs an error and throws std::runtime_error("Aspect ratio mismatch between video
    // streams") when the width-over-height ratios of the two streams differ by more than
    // 0.0001.
    VideoStreamMapper(VideoStreamSource& vss0, VideoStreamSource& vss1);

    // From the low-resolution stream to the high-resolution one and back. The int forms round
    // (x * alpha + 0.5, truncated); the float forms do not.
    int map(int x) const;
    int inverseMap(int x) const;
    float map(float x) const;
    float inverseMap(float x) const;

    // The int map of x, y, width and height.
    template <typename T>
    RectangleT<T> map(const RectangleT<T>& rectangle) const {
        return RectangleT<T>(map(rectangle.x), map(rectangle.y), map(rectangle.width),
                             map(rectangle.height));
    }

    // A rectangle of the high-resolution stream that has the patch's aspect ratio, contains the
    // mapped box centred in it, is at least the patch's size (so that the patch can be cut
    // without scaling up) and is moved to lie inside the stream; a rectangle reaching the far
    // edge is moved one pixel in.
    IRectangle getContainingRectangle(const IRectangle& lowResBoundingBox,
                                      const Resolution& highResPatchResolution) const;

private:
    VideoStreamSource& _vss0;
    VideoStreamSource& _vss1;
    float _alpha;
};

} // namespace Ombrel
