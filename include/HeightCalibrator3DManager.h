// HeightCalibrator3DManager: decides which sightings of people a height calibration rests on,
// and when to calibrate.
//
// Calibration observations are spread over nine sectors of the stream (a 3 by 3 grid placed by
// the feet point). The first calibration runs at the seventh observation; after that the
// transformer is calibrated again only when an observation opens a sector not seen before, the
// total being held at nine by dropping the newest observation of the fullest sector. Once every
// sector holds exactly one observation the set is balanced and further observations are ignored.
// Monitoring observations come in batches of three: each fourth one has the previous three
// evaluated under the current parameters, and an error above twice the calibration's own starts
// the whole process over.
//
// getStatus() says in words where the process stands: "Not started", "Observations: <n>", "Min
// Observations found, initial calibration.", "New sector observation, recalibrating.", "New
// observation in  known sectors, not recalibrating.", "Balanced observations." or "Beginning
// homography process".
//
// setDimensions serves the sectors only: the transformer keeps its own image size (800 by 450).
// An observation with a point that is not finite is refused with an error line. Ownership: the
// manager owns its transformer and observations by value. Threading: no lock; one thread at a
// time; calibrating runs synchronously inside addCalibrationObservation.
#pragma once

#include "CoordinateTransformer.h"

#include <string>

namespace Ombrel {

class HeightCalibrator3DManager {
public:
    HeightCalibrator3DManager() = default;

    bool isCalibrated() const { return _calibrator3D.isCalibrated(); }
    FPoint pixelToWorld(const FPoint& p_pixel) const { return _calibrator3D.pixelToWorld(p_pixel); }

    // The stream size that the sectors divide; call it before the first observation.
    void setDimensions(int inStreamWidth, int inStreamHeight) {
        _streamWidth = inStreamWidth;
        _streamHeight = inStreamHeight;
    }

    // Starts over: the sectors are emptied (the monitoring batch is kept), the balance is lost
    // and the transformer stops counting as calibrated, its old parameters kept but not in force.
    void beginHomographyProcess();
    void addCalibrationObservation(const HeightObservation& observation);
    void addMonitoringObservation(const HeightObservation& observation);
    // Whether the monitoring batch's error under the current parameters is more than twice the
    // calibration's own.
    bool isNewHomographyNeeded();
    // The observations in all nine sectors.
    int countCalibrationObservations() const;
    // 7: the observations that the first calibration waits for.
    int getMinimumRequiredObservations() const { return _minObservations; }
    // The last state of the process, in words.
    const std::string& getStatus() const { return _status; }

private:
    void clearCalibrationObservations();
    // Appends to the sector of the feet point; true if it is the first in that sector.
    bool placeInSector(const HeightObservation& observation);
    // Drops the newest observation of the fullest sector (the first of equals, in merge order).
    void lightenHeaviestSector();
    bool findIsBalanced() const;
    // Sector by sector: NW, N, NE, E, SE, S, SW, W, CENTER.
    HeightObservations mergeCalibrationObservations() const;

    bool _isBalanced = false;
    std::string _status = "Not started";
    HeightObservations _sector_NW;
    HeightObservations _sector_N;
    HeightObservations _sector_NE;
    HeightObservations _sector_E;
    HeightObservations _sector_SE;
    HeightObservations _sector_S;
    HeightObservations _sector_SW;
    HeightObservations _sector_W;
    HeightObservations _sector_CENTER;
    HeightObservations _monitoringObservations;
    int _streamWidth = 0;
    int _streamHeight = 0;
    const int _maxObservations = 9;
    const int _minObservations = 7;
    const int _maxMonitoringObservations = 3;
    HeightCalibrator3D _calibrator3D;
};

} // namespace Ombrel
