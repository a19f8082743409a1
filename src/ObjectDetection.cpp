#include "ObjectDetection.h"

#include <algorithm>
#include <sstream>

namespace Ombrel {

float ObjectDetection::overlap(const ObjectDetection& other) const {
    const float smallerArea = std::min(boundingBox.area(), other.boundingBox.area());
    if (!(smallerArea > 0.0f)) {
        return 0.0f;
    }
    return boundingBox.intersectionArea(other.boundingBox) / smallerArea;
}

float ObjectDetection::distance(const ObjectDetection& other) const {
    return boundingBox.getCentroid().distance(other.boundingBox.getCentroid());
}

std::string ObjectDetection::toString() const {
    std::ostringstream os;
    os << "class " << classID << " confidence " << confidence << " " << boundingBox.toString();
    return os.str();
}

} // namespace Ombrel
