#include "AOIManager.h"

#include <chrono>
#include <cstdint>
#include <sstream>

namespace Ombrel {

namespace {

// The vertex counts of the scalar area constructors: 4, 6 or 8.
bool isControlPointCount(long long n) {
    return n == 4 || n == 6 || n == 8;
}

} // namespace

AOIManager::AOIManager(int nAOIs)
    : _aois(nAOIs > 0 ? static_cast<std::size_t>(nAOIs) : 0U), _nControlPoints(4) {}

AOIInfo AOIManager::add(int findingID, const FPoint& point) {
    return updateTimeMap(findingID, getLocation(point));
}

void AOIManager::remove(int findingID) {
    _timeEntries.erase(findingID);
}

AOILocation AOIManager::getLocation(const FPoint& point) const {
    static constexpr AOILocation kLocations[] = {AOILocation::AOI0, AOILocation::AOI1,
                                                 AOILocation::AOI2};
    const std::size_t nAreas = std::min<std::size_t>(_aois.size(), 3);
    for (std::size_t i = 0; i < nAreas; ++i) {
        if (_aois[i].contains(point)) {
            return kLocations[i];
        }
    }
    return AOILocation::Exterior;
}

AOIInfo AOIManager::updateTimeMap(int findingID, AOILocation aoiLocation) {
    const TimePoint now = std::chrono::steady_clock::now();
    const auto found = _timeEntries.find(findingID);
    if (found == _timeEntries.end()) {
        _timeEntries.emplace(findingID, TimeEntry{now, aoiLocation});
        return AOIInfo(aoiLocation, AOIDuration::Briefly);
    }
    TimeEntry& entry = found->second;
    if (entry.aoiLocation != aoiLocation) {
        entry.startTime = now;
        entry.aoiLocation = aoiLocation;
        return AOIInfo(aoiLocation, AOIDuration::Briefly);
    }
    // Only the three area locations have a threshold; Exterior and Unknown are always Briefly.
    const int areaIndex = static_cast<int>(aoiLocation);
    if (areaIndex < 0 || areaIndex > static_cast<int>(AOILocation::AOI2) ||
        static_cast<std::size_t>(areaIndex) >= _aois.size()) {
        return AOIInfo(aoiLocation, AOIDuration::Briefly);
    }
    const std::int64_t secondsInAOI =
        std::chrono::duration_cast<std::chrono::seconds>(now - entry.startTime).count();
    const std::uint64_t threshold = _aois[static_cast<std::size_t>(areaIndex)].getAlertSeconds();
    if (static_cast<std::uint64_t>(secondsInAOI) >= threshold) {
        return AOIInfo(aoiLocation, AOIDuration::Lengthily);
    }
    return AOIInfo(aoiLocation, AOIDuration::Briefly);
}

bool AOIManager::setAOI(unsigned int aoiIndex, const AOI& aoi) {
    if (aoiIndex >= getNAOIs()) {
        return false;
    }
    _aois[aoiIndex] = aoi;
    return true;
}

bool AOIManager::setAOI(unsigned int aoiIndex, bool bActive, const IPolygon& aoiPolygon,
                        int timeThresholdInSeconds) {
    return setAOI(aoiIndex, AOI(bActive, aoiPolygon, timeThresholdInSeconds));
}

bool AOIManager::setAOI(unsigned int aoiIndex, bool bActive, const IRectangle& aoiRectangle,
                        int timeThresholdInSeconds) {
    return setAOI(aoiIndex, AOI(bActive, aoiRectangle, timeThresholdInSeconds));
}

unsigned int AOIManager::getNAOIs() const {
    return static_cast<unsigned int>(_aois.size());
}

bool AOIManager::setAOITimeThreshold(unsigned int aoiIndex, int timeThresholdInSeconds) {
    if (aoiIndex >= getNAOIs()) {
        return false;
    }
    _aois[aoiIndex].setAlertSeconds(static_cast<unsigned int>(timeThresholdInSeconds));
    return true;
}

unsigned int AOIManager::getNControlPoints() const {
    return static_cast<unsigned int>(_nControlPoints);
}

bool AOIManager::setNControlPoints(unsigned int nControlPoints) {
    if (!isControlPointCount(nControlPoints)) {
        return false;
    }
    _nControlPoints = static_cast<int>(nControlPoints);
    return true;
}

const AOI& AOIManager::getAOI(unsigned int aoiIndex) const {
    return _aois[aoiIndex];
}

bool AOIManager::loadFromNormalized(const FAOIS& faois, const Resolution& resolution) {
    if (faois.size() < _aois.size()) {
        g_stemlibLogger.error("loadFromNormalized: Expected " + std::to_string(_aois.size()) +
                              " areas, got " + std::to_string(faois.size()));
        return false;
    }
    for (unsigned int i = 0; i < getNAOIs(); ++i) {
        if (!setAOI(i, AOI(faois[i], resolution))) {
            return false;
        }
    }
    return true;
}

std::string AOIManager::serialize(const Resolution& resolution) const {
    std::ostringstream os;
    os << _nControlPoints << '\n' << getNAOIs() << '\n';
    for (const AOI& aoi : _aois) {
        os << FAOI(aoi, resolution) << '\n';
    }
    return os.str();
}

bool AOIManager::deserialize(std::istream& iss, const Resolution& resolution) {
    iss >> _nControlPoints;
    if (!isControlPointCount(_nControlPoints)) {
        g_stemlibLogger.error("deserialize: Invalid number of control points: " +
                              std::to_string(_nControlPoints));
        _nControlPoints = 4;
    }
    unsigned int nAOIs = 0;
    iss >> nAOIs;
    if (getNAOIs() < nAOIs) {
        g_stemlibLogger.error("deserialize: Invalid number of AOIs: " + std::to_string(nAOIs));
    }
    for (unsigned int i = 0; i < nAOIs; ++i) {
        FAOI faoi;
        iss >> faoi;
        if (!setAOI(i, AOI(faoi, resolution))) {
            return false;
        }
    }
    return true;
}

bool AOIManager::operator==(const AOIManager& other) const {
    return _nControlPoints == other._nControlPoints && _aois == other._aois;
}

} // namespace Ombrel
