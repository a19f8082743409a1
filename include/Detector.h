// Detector<T>: the interface that applications hold: one object that takes a frame source and
// returns a vector of detections of type T, thinned by a non-maximum suppression filter whose
// confidence follows the detector's threshold once that is set.
//
// The base detect returns nothing; model families override it. No lock: one thread at a time.
#pragma once

#include "DetectorBase.h"
#include "NMSDetectionFilter.h"

#include <vector>

namespace Ombrel {

class ImageFrameSource;

template <typename T>
class Detector : public DetectorBase {
public:
    using Detection = T;
    using Detections = std::vector<T>;

    explicit Detector(const std::string& modelPath) : DetectorBase(modelPath) {}

    // Sets the threshold and the filter's minConfidence, which stay equal from then on. Until
    // the first call they differ: 0.5 against 0.35.
    void setConfidenceThreshold(float confidenceThreshold) override {
        DetectorBase::setConfidenceThreshold(confidenceThreshold);
        _nmsFilter.setConfidenceThreshold(confidenceThreshold);
    }

    virtual Detections detect(ImageFrameSource& imageFrameSource) {
        (void)imageFrameSource;
        return Detections();
    }

protected:
    NMSDetectionFilter<T> _nmsFilter;
};

} // namespace Ombrel
