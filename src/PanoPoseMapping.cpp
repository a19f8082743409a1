#include "PanoPoseMapping.h"

namespace Ombrel {
namespace detail {

std::vector<PoseDetectionBase<BodypixBodyPart>>
inverseMapPoseDetections(const std::vector<PoseDetectionBase<BodypixBodyPart>>& detections,
                         const PanoImageFrameSource& panoImageFrameSource) {
    std::vector<PoseDetectionBase<BodypixBodyPart>> mapped;
    mapped.reserve(detections.size());
    for (const PoseDetectionBase<BodypixBodyPart>& detection : detections) {
        const Skeleton<BodypixBodyPart> skeleton =
            panoImageFrameSource.inverseMapSkeleton(detection.skeleton);
        const IBoundingBox boundingBox = skeleton.getBoundingBox();
        // An undefined box (no keypoints) has a negative width and height as well.
        if (boundingBox.width > 0 && boundingBox.height > 0) {
            mapped.emplace_back(skeleton, boundingBox, detection.confidence);
        }
    }
    return mapped;
}

} // namespace detail
} // namespace Ombrel
