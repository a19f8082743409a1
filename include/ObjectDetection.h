// ObjectDetection: one box found by an object detector, with the model's class number (the
// numbering of the Objects enumeration: class 0 is a person) and the model's confidence, in the
// pixels of the frame source it came from.
//
// A plain value.
#pragma once

#include "Points.h"

#include <string>

namespace Ombrel {

struct ObjectDetection {
    FRectangle boundingBox;
    int classID = 0;
    float confidence = 0.0f;

    ObjectDetection() = default;
    ObjectDetection(const FRectangle& boundingBox_, int classID_, float confidence_)
        : boundingBox(boundingBox_), classID(classID_), confidence(confidence_) {}
    ObjectDetection(float x, float y, float width, float height, int classID_, float confidence_)
        : boundingBox(x, y, width, height), classID(classID_), confidence(confidence_) {}

    // Intersection area over the smaller of the two areas (not the union), so a box wholly
    // inside the other scores 1.0 whatever its size; 0 when the smaller area is 0 or less.
    float overlap(const ObjectDetection& other) const;
    // Distance between the centroids of the two boxes, in pixels.
    float distance(const ObjectDetection& other) const;
    // "class 0 confidence 0.9 Rectangle: x=..., y=..., width=..., height=...".
    std::string toString() const;
};

} // namespace Ombrel
