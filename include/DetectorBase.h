// DetectorBase: what every detector has regardless of what it detects: the path of its model,
// the model's input size and the confidence below which results are dropped.
//
// A value base of the detector classes; no lock, one thread at a time.
#pragma once

#include "CommonStructs.h"

#include <string>

namespace Ombrel {

class DetectorBase {
public:
    explicit DetectorBase(const std::string& modelPath) : _modelPath(modelPath) {}
    virtual ~DetectorBase() = default;

    // The model's input size; 0 x 0 until the model is loaded.
    virtual Resolution getInputResolution() const { return _inputResolution; }
    virtual void setConfidenceThreshold(float confidenceThreshold) {
        _confidenceThreshold = confidenceThreshold;
    }
    float getConfidenceThreshold() const { return _confidenceThreshold; }

protected:
    std::string _modelPath;
    Resolution _inputResolution;
    float _confidenceThreshold = 0.5f;
};

} // namespace Ombrel
