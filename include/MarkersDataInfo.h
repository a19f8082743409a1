// MarkersDataInfo: the set of marker numbers in one area as text, when that set began, and
// whether it has been reported. The text is the numbers in ascending numeric order joined with
// "," (duplicates kept, as in "5,5,9"), or "empty" when the area holds no marker; before the
// first update it is the empty string with the clock's epoch as its time.
//
// A plain value. No lock: it belongs to the application's loop.
#pragma once

#include "ArucoDetector.h"
#include "CommonStructs.h"

#include <string>

namespace Ombrel {

class MarkersDataInfo {
public:
    // Sets the state of detections, restarts its time and clears the sent flag, whatever the
    // state was before.
    void updateDetections(const ArucoDetections& detections);
    // Takes over state if it differs from the current one (exact text): restarts the time and
    // clears the sent flag. The same state changes nothing, so its time keeps running.
    void updateFromState(const std::string& state);

    void setState(const std::string& state) { _state = state; }
    std::string getState() const { return _state; }
    void setTime(const TimePoint& time) { _stateStartTime = time; }
    TimePoint getTime() const { return _stateStartTime; }
    void setDataEventSent() { _dataEventSent = true; }
    bool isDataEventSent() const { return _dataEventSent; }

private:
    std::string _state;
    TimePoint _stateStartTime{};
    bool _dataEventSent = false;
};

} // namespace Ombrel
