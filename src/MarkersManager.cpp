#include "MarkersManager.h"

#include "Points.h"

#include <chrono>
#include <limits>
#include <sstream>

namespace Ombrel {

MarkersManager::MarkersManager(int nAlertInfos) {
    const std::size_t nAreas = nAlertInfos > 0 ? static_cast<std::size_t>(nAlertInfos) : 0U;
    areaAlertInfos.reserve(nAreas);
    for (std::size_t i = 0; i < nAreas; ++i) {
        areaAlertInfos.emplace_back(i == 0, static_cast<int>(i), ComparisonOperation::AtLeast, 1, 1,
                                    IPolygon());
    }
    dataInfos.resize(nAreas);
}

bool MarkersManager::checkIndex(int index, const char* operation, const char* tail) const {
    if (index >= 0 && index < getNumberOfAreaAlertInfos()) {
        return true;
    }
    g_stemlibLogger.error(std::string(operation) + ": Invalid areaAlertInfoIndex (" +
                          std::to_string(index) + tail);
    return false;
}

std::string MarkersManager::serialize(const Resolution& resolution) const {
    std::ostringstream os;
    os << getNumberOfAreaAlertInfos() << '\n';
    for (const MarkersAreaAlertInfo& info : areaAlertInfos) {
        os << info.serialize(resolution) << '\n';
    }
    os << dataDuration << ' ' << selectedDictionary << '\n';
    return os.str();
}

void MarkersManager::deserialize(std::istream& ss, const Resolution& resolution) {
    int numberOfAreaAlertInfos = 0;
    ss >> numberOfAreaAlertInfos;
    ss.ignore(std::numeric_limits<std::streamsize>::max(), '\n');

    const int nAreas = getNumberOfAreaAlertInfos();
    if (numberOfAreaAlertInfos > nAreas) {
        g_stemlibLogger.error(
            "deserialize: Invalid number of areas (" + std::to_string(numberOfAreaAlertInfos) +
            ") specified. Reading the first " + std::to_string(nAreas) + " and skipping the rest.");
    } else if (numberOfAreaAlertInfos < 0) {
        g_stemlibLogger.error("deserialize: Invalid number of areas (" +
                              std::to_string(numberOfAreaAlertInfos) +
                              ") specified. Reading no area.");
    }
    // Each line is parsed by itself, so that a short line cannot eat the next one. The loop
    // ends with the text, whatever the count claims.
    std::string areaAlertInfoSerialized;
    for (int i = 0; i < numberOfAreaAlertInfos && std::getline(ss, areaAlertInfoSerialized); ++i) {
        if (i < nAreas) {
            areaAlertInfos[static_cast<std::size_t>(i)].deserialize(areaAlertInfoSerialized,
                                                                    resolution);
        }
    }
    ss >> dataDuration >> selectedDictionary;
}

void MarkersManager::deserialize(const std::string& text, const Resolution& resolution) {
    std::istringstream ss(text);
    deserialize(ss, resolution);
}

bool MarkersManager::isActive(int areaAlertInfoIndex) const {
    if (!checkIndex(areaAlertInfoIndex, "isActive", ") specified. Returning false.")) {
        return false;
    }
    return areaAlertInfos[static_cast<std::size_t>(areaAlertInfoIndex)].isActive();
}

bool MarkersManager::isAlertConditionSatisfied(int areaAlertInfoIndex) const {
    if (!checkIndex(areaAlertInfoIndex, "isAlertConditionSatisfied",
                    ") specified. Returning false.")) {
        return false;
    }
    return areaAlertInfos[static_cast<std::size_t>(areaAlertInfoIndex)].isAlertConditionSatisfied();
}

bool MarkersManager::isDataConditionSatisfied(int areaAlertInfoIndex) const {
    if (!checkIndex(areaAlertInfoIndex, "isDataConditionSatisfied",
                    ") specified. Returning false.")) {
        return false;
    }
    const MarkersDataInfo& dataInfo = dataInfos[static_cast<std::size_t>(areaAlertInfoIndex)];
    if (dataInfo.isDataEventSent()) {
        return false;
    }
    const auto elapsedSeconds = std::chrono::duration_cast<std::chrono::seconds>(
                                    std::chrono::steady_clock::now() - dataInfo.getTime())
                                    .count();
    return elapsedSeconds >= dataDuration;
}

void MarkersManager::setDataEventSent(int areaAlertInfoIndex) {
    if (!checkIndex(areaAlertInfoIndex, "setDataEventSent", ") specified. Doing nothing.")) {
        return;
    }
    dataInfos[static_cast<std::size_t>(areaAlertInfoIndex)].setDataEventSent();
}

std::string MarkersManager::getDataEventState(int areaAlertInfoIndex) const {
    if (!checkIndex(areaAlertInfoIndex, "getDataEventState",
                    ") specified. Returning empty state.")) {
        return std::string();
    }
    return dataInfos[static_cast<std::size_t>(areaAlertInfoIndex)].getState();
}

IPolygon MarkersManager::getPolygon(int areaAlertInfoIndex) const {
    if (!checkIndex(areaAlertInfoIndex, "getPolygon", ") specified. Returning empty polygon.")) {
        return IPolygon();
    }
    return areaAlertInfos[static_cast<std::size_t>(areaAlertInfoIndex)].getPolygon();
}

bool MarkersManager::updateDetections(const ArucoDetections& detections, int areaAlertInfoIndex) {
    if (!checkIndex(areaAlertInfoIndex, "updateDetections", ") specified. Returning false.")) {
        return false;
    }
    const auto index = static_cast<std::size_t>(areaAlertInfoIndex);
    MarkersDataInfo currentDataInfo;
    currentDataInfo.updateDetections(detections);
    dataInfos[index].updateFromState(currentDataInfo.getState());
    return areaAlertInfos[index].updateDetections(detections);
}

} // namespace Ombrel
