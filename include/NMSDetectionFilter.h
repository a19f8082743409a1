// NMSDetectionFilter<T>: thins overlapping detections in place.
//
// The vector's order is taken as given (the model's, best first) and nothing is removed: among
// detections at or above minConfidence, each one lowers the confidence of every later one that
// overlaps it by minOverlap or more to 0.01, so the earlier always wins. The caller drops the
// suppressed entries by comparing with its threshold. T provides a `confidence` field and an
// `overlap(const T&) const` whose result compares with a float.
//
// A plain value; no lock.
#pragma once

#include <vector>

namespace Ombrel {

template <typename T>
class NMSDetectionFilter {
public:
    using Detections = std::vector<T>;

    NMSDetectionFilter() = default;
    NMSDetectionFilter(float minConfidence_, float minOverlap_)
        : minConfidence(minConfidence_), minOverlap(minOverlap_) {}
    virtual ~NMSDetectionFilter() = default;

    // Returns the number of detections it suppressed.
    virtual int filter(Detections& detections) {
        int suppressed = 0;
        for (std::size_t i = 0; i < detections.size(); ++i) {
            if (!(detections[i].confidence >= minConfidence)) {
                continue;
            }
            for (std::size_t j = i + 1; j < detections.size(); ++j) {
                if (detections[j].confidence >= minConfidence &&
                    detections[i].overlap(detections[j]) >= minOverlap) {
                    detections[j].confidence = 0.01f;
                    ++suppressed;
                }
            }
        }
        return suppressed;
    }

    void setConfidenceThreshold(float confidenceThreshold) { minConfidence = confidenceThreshold; }

    float minConfidence = 0.35f;
    float minOverlap = 0.4f;
};

} // namespace Ombrel
