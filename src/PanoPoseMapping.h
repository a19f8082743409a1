// The mapping that both panoramic pose detectors share. Private to the library.
#pragma once

#include "PanoImageFrameSource.h"
#include "PoseBase.h"

#include <vector>

namespace Ombrel {
namespace detail {

// Each detection's skeleton in the source image's coordinates, with its box and confidence;
// detections whose box is empty are left out.
std::vector<PoseDetectionBase<BodypixBodyPart>>
inverseMapPoseDetections(const std::vector<PoseDetectionBase<BodypixBodyPart>>& detections,
                         const PanoImageFrameSource& panoImageFrameSource);

} // namespace detail
} // namespace Ombrel
