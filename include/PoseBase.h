// The body model: joints (BodyParts.h, Keypoint.h), skeletons (Skeleton.h), dequantisation of
// model outputs (Dequantizer.h), and PoseDetectionBase, the detection type of the pose
// detectors.
//
// PoseDetectionBase is a plain value: the detector that makes one owns it until it hands it
// out, and then the caller does.
#pragma once

#include "BodyParts.h"
#include "Dequantizer.h"
#include "Keypoint.h"
#include "Skeleton.h"

#include <sstream>
#include <string>

namespace Ombrel {

template <typename BodyPart>
struct PoseDetectionBase {
    Skeleton<BodyPart> skeleton;
    // Box around the person, usually skeleton.getBoundingBox(); undefined by default.
    IBoundingBox boundingBox;
    // Score of the detection, set by the detector that makes it; 0 by default.
    float confidence = 0.0f;

    PoseDetectionBase() = default;
    PoseDetectionBase(const Skeleton<BodyPart>& skeleton_, const IBoundingBox& boundingBox_,
                      float confidence_)
        : skeleton(skeleton_), boundingBox(boundingBox_), confidence(confidence_) {}

    // Pose detections never suppress one another in the generic overlap filter: always false.
    bool overlap(const PoseDetectionBase& /*other*/) const { return false; }

    // "PoseDetection: confidence 0.9, Rectangle: x=..., Skeleton: ...".
    std::string toString() const {
        std::ostringstream os;
        os << "PoseDetection: confidence " << confidence << ", " << boundingBox.toString() << ", "
           << skeleton.toString();
        return os.str();
    }
};

} // namespace Ombrel
