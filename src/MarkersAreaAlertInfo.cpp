#include "MarkersAreaAlertInfo.h"

#include "Points.h"

#include <chrono>
#include <sstream>

namespace Ombrel {

MarkersAreaAlertInfo::MarkersAreaAlertInfo(bool isActive, int areaIndex,
                                           ComparisonOperation comparisonOperation,
                                           int countThreshold, int durationSeconds,
                                           const IPolygon& polygon)
    : _isActive(isActive), _areaIndex(areaIndex), _comparisonOperation(comparisonOperation),
      _countThreshold(countThreshold), _durationSeconds(durationSeconds), _polygon(polygon) {}

std::string MarkersAreaAlertInfo::serialize(const Resolution& resolution) const {
    std::ostringstream os;
    os << (_isActive ? 1 : 0) << ' ' << _areaIndex << ' ' << static_cast<int>(_comparisonOperation)
       << ' ' << _countThreshold << ' ' << _durationSeconds << ' '
       << normalize(_polygon, resolution);
    return os.str();
}

void MarkersAreaAlertInfo::deserialize(std::istream& stream, const Resolution& resolution) {
    // The locals start from the current values, so that a stream that is already exhausted
    // leaves them as they were; the polygon is taken only from a stream that has not failed.
    int isActive = _isActive ? 1 : 0;
    int comparisonOperation = static_cast<int>(_comparisonOperation);
    FPolygon polygon;
    stream >> isActive >> _areaIndex >> comparisonOperation >> _countThreshold >>
        _durationSeconds >> polygon;
    _isActive = isActive != 0;
    _comparisonOperation = static_cast<ComparisonOperation>(comparisonOperation);
    if (stream) {
        _polygon = denormalize(polygon, resolution);
    }
}

void MarkersAreaAlertInfo::deserialize(const std::string& text, const Resolution& resolution) {
    std::istringstream stream(text);
    deserialize(stream, resolution);
}

bool MarkersAreaAlertInfo::updateDetections(const ArucoDetections& detections) {
    currentDetections = detections;
    if (!doesCountSatisfyCondition(static_cast<int>(detections.size()))) {
        isSatisfied = false;
    } else if (!isSatisfied) {
        isSatisfied = true;
        satisfiedStartTime = std::chrono::steady_clock::now();
    }
    return true;
}

bool MarkersAreaAlertInfo::isAlertConditionSatisfied() const {
    if (!isSatisfied) {
        return false;
    }
    const auto elapsedSeconds = std::chrono::duration_cast<std::chrono::seconds>(
                                    std::chrono::steady_clock::now() - satisfiedStartTime)
                                    .count();
    return elapsedSeconds >= _durationSeconds;
}

bool MarkersAreaAlertInfo::doesCountSatisfyCondition(int count) const {
    switch (_comparisonOperation) {
    case ComparisonOperation::LessThan:
        return count < _countThreshold;
    case ComparisonOperation::Equal:
        return count == _countThreshold;
    case ComparisonOperation::AtLeast:
        return count >= _countThreshold;
    default:
        g_stemlibLogger.error("doesCountSatisfyCondition: Invalid comparison operation (" +
                              std::to_string(static_cast<int>(_comparisonOperation)) +
                              "). Returning false.");
        return false;
    }
}

} // namespace Ombrel
