#include "MarkersDataInfo.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace Ombrel {

void MarkersDataInfo::updateDetections(const ArucoDetections& detections) {
    if (detections.empty()) {
        _state = "empty";
    } else {
        std::vector<int> markerIDs;
        markerIDs.reserve(detections.size());
        for (const ArucoDetection& detection : detections) {
            markerIDs.push_back(detection.id);
        }
        // Numeric order, so that 9 comes before 10; duplicates stay.
        std::sort(markerIDs.begin(), markerIDs.end());
        std::string state;
        for (std::size_t i = 0; i < markerIDs.size(); ++i) {
            if (i > 0) {
                state += ',';
            }
            state += std::to_string(markerIDs[i]);
        }
        _state = std::move(state);
    }
    _stateStartTime = std::chrono::steady_clock::now();
    _dataEventSent = false;
}

void MarkersDataInfo::updateFromState(const std::string& state) {
    if (state == _state) {
        return;
    }
    _state = state;
    _stateStartTime = std::chrono::steady_clock::now();
    _dataEventSent = false;
}

} // namespace Ombrel
