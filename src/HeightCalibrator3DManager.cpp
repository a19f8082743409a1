#include "HeightCalibrator3DManager.h"

#include "LoggerWrapper.h"

#include <array>
#include <cmath>
#include <string>

namespace Ombrel {

namespace {

bool isFinite(const HeightObservation& observation) {
    return std::isfinite(observation.top.x) && std::isfinite(observation.top.y) &&
           std::isfinite(observation.bottom.x) && std::isfinite(observation.bottom.y);
}

// Truncation toward zero, held inside the int range (a far point stays in its outer band).
int truncateToInt(float value) {
    if (value >= 2147483648.0f) {
        return 2147483647;
    }
    if (value <= -2147483904.0f) {
        return -2147483647 - 1;
    }
    return static_cast<int>(value);
}

} // namespace

void HeightCalibrator3DManager::beginHomographyProcess() {
    _status = "Beginning homography process";
    clearCalibrationObservations();
    _isBalanced = false;
    _calibrator3D.setCalibrated(false);
}

void HeightCalibrator3DManager::clearCalibrationObservations() {
    _sector_NW.clear();
    _sector_N.clear();
    _sector_NE.clear();
    _sector_E.clear();
    _sector_SE.clear();
    _sector_S.clear();
    _sector_SW.clear();
    _sector_W.clear();
    _sector_CENTER.clear();
}

bool HeightCalibrator3DManager::placeInSector(const HeightObservation& observation) {
    const int x = truncateToInt(observation.bottom.x);
    const int y = truncateToInt(observation.bottom.y);
    // The first limit of each band is exclusive, the second inclusive.
    const int column = x < _streamWidth / 3 ? 0 : x <= 2 * _streamWidth / 3 ? 1 : 2;
    const int row = y < _streamHeight / 3 ? 0 : y <= 2 * _streamHeight / 3 ? 1 : 2;
    HeightObservations* const grid[3][3] = {
        {&_sector_NW, &_sector_W, &_sector_SW},
        {&_sector_N, &_sector_CENTER, &_sector_S},
        {&_sector_NE, &_sector_E, &_sector_SE},
    };
    HeightObservations& sector = *grid[column][row];
    sector.push_back(observation);
    return sector.size() == 1;
}

HeightObservations HeightCalibrator3DManager::mergeCalibrationObservations() const {
    HeightObservations merged;
    merged.reserve(static_cast<size_t>(countCalibrationObservations()));
    for (const HeightObservations* sector :
         {&_sector_NW, &_sector_N, &_sector_NE, &_sector_E, &_sector_SE, &_sector_S, &_sector_SW,
          &_sector_W, &_sector_CENTER}) {
        merged.insert(merged.end(), sector->begin(), sector->end());
    }
    return merged;
}

int HeightCalibrator3DManager::countCalibrationObservations() const {
    size_t total = 0;
    for (const HeightObservations* sector :
         {&_sector_NW, &_sector_N, &_sector_NE, &_sector_E, &_sector_SE, &_sector_S, &_sector_SW,
          &_sector_W, &_sector_CENTER}) {
        total += sector->size();
    }
    return static_cast<int>(total);
}

void HeightCalibrator3DManager::lightenHeaviestSector() {
    HeightObservations* heaviest = &_sector_NW;
    for (HeightObservations* sector : {&_sector_N, &_sector_NE, &_sector_E, &_sector_SE, &_sector_S,
                                       &_sector_SW, &_sector_W, &_sector_CENTER}) {
        if (sector->size() > heaviest->size()) {
            heaviest = sector;
        }
    }
    if (!heaviest->empty()) {
        heaviest->pop_back();
    }
}

bool HeightCalibrator3DManager::findIsBalanced() const {
    for (const HeightObservations* sector :
         {&_sector_NW, &_sector_N, &_sector_NE, &_sector_E, &_sector_SE, &_sector_S, &_sector_SW,
          &_sector_W, &_sector_CENTER}) {
        if (sector->size() != 1) {
            return false;
        }
    }
    return true;
}

void HeightCalibrator3DManager::addCalibrationObservation(const HeightObservation& observation) {
    const std::string name = "addCalibrationObservation: ";
    if (_isBalanced) {
        _status = "Balanced observations.";
        return;
    }
    if (!isFinite(observation)) {
        g_stemlibLogger.error(name + "An observation with a point that is not finite is ignored.");
        return;
    }
    const bool isFirstObservationInSector = placeInSector(observation);
    int totalObservations = countCalibrationObservations();
    if (totalObservations < _minObservations) {
        _status = "Observations: " + std::to_string(totalObservations);
        return;
    }
    if (totalObservations == _minObservations) {
        _status = "Min Observations found, initial calibration.";
        g_stemlibLogger.info(name +
                             "Minimum observations reached, performing initial calibration.");
        _calibrator3D.calibrate(mergeCalibrationObservations());
        return;
    }
    while (totalObservations > _maxObservations) {
        lightenHeaviestSector();
        totalObservations = countCalibrationObservations();
    }
    if (isFirstObservationInSector) {
        _status = "New sector observation, recalibrating.";
        _calibrator3D.calibrate(mergeCalibrationObservations());
        _isBalanced = findIsBalanced();
        return;
    }
    _status = "New observation in  known sectors, not recalibrating.";
}

void HeightCalibrator3DManager::addMonitoringObservation(const HeightObservation& observation) {
    if (_monitoringObservations.size() >= static_cast<size_t>(_maxMonitoringObservations)) {
        // The batch is evaluated and a new one begins; the observation in hand is dropped.
        if (isNewHomographyNeeded()) {
            beginHomographyProcess();
        }
        _monitoringObservations.clear();
        return;
    }
    if (!isFinite(observation)) {
        g_stemlibLogger.error(
            "addMonitoringObservation: An observation with a point that is not finite is ignored.");
        return;
    }
    _monitoringObservations.push_back(observation);
}

bool HeightCalibrator3DManager::isNewHomographyNeeded() {
    const CameraParams camParams = _calibrator3D.getParameters();
    const double lastProjectionError = _calibrator3D.getLastReprojectionError();
    const double currentReprojectionError =
        _calibrator3D.calculateReprojectionError(camParams, _monitoringObservations);
    if (currentReprojectionError > 2 * lastProjectionError) {
        g_stemlibLogger.info(
            "HeightCalibrator3DManager: New homography needed. Last reprojection "
            "error: " +
            std::to_string(lastProjectionError) +
            ", Current reprojection error: " + std::to_string(currentReprojectionError));
        return true;
    }
    return false;
}

} // namespace Ombrel
