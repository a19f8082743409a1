// MarkersManager: the two events of the markers application for each configured area.
//
// - Alert: the number of markers in the area satisfies the area's comparison with its threshold
//   and has done so for the area's whole seconds. It stays true while the rule holds.
// - Data: the set of marker numbers in the area has stayed the same for dataDuration whole
//   seconds and has not been reported yet. Each stable set (the emptying of an area included)
//   gives one event, acknowledged with setDataEventSent.
//
// Per frame the application calls updateDetections once for each area with the detections that
// belong to it (for instance from ArucoDetector's polygon form), then asks the two conditions.
// The manager does not filter detections. Its text form (areas normalized) is:
//
//   <number of areas>
//   <one line per area, MarkersAreaAlertInfo::serialize>
//   <dataDuration> <selectedDictionary>
//
// Configuration changes only through deserialize; the data states are never part of the text.
// Every operation with an index logs an error and answers neutrally for an index outside
// 0 .. getNumberOfAreaAlertInfos() - 1.
//
// Ownership: one MarkersAreaAlertInfo and one MarkersDataInfo per area, by value; the number of
// areas is fixed at construction. No lock: the manager belongs to the application's loop, and
// configuration that arrives on another thread must be brought to it by the application.
#pragma once

#include "ArucoDetector.h"
#include "MarkersAreaAlertInfo.h"
#include "MarkersDataInfo.h"

#include <istream>
#include <string>
#include <vector>

namespace Ombrel {

class MarkersManager {
public:
    using AreaAlertInfosIterator = std::vector<MarkersAreaAlertInfo>::iterator;
    using AreaAlertInfosConstIterator = std::vector<MarkersAreaAlertInfo>::const_iterator;

    // nAlertInfos areas (none for a negative number): area 0 active, every area i with index i,
    // at least 1 marker for 1 second, and no polygon. dataDuration 1, dictionary size 6.
    explicit MarkersManager(int nAlertInfos);

    std::string serialize(const Resolution& resolution) const;
    // Reads the text form, polygons denormalized with resolution. Each area line is parsed by
    // itself. A count above the manager's areas reads the areas it has, skips the surplus lines
    // and logs one error; a negative count reads no area and logs. The closing numbers are read
    // in both cases. The data states are not touched; the caller tests the stream.
    void deserialize(std::istream& ss, const Resolution& resolution);
    void deserialize(const std::string& text, const Resolution& resolution);

    // The dictionary size for ArucoDetector::setDictionarySize, as read from the text.
    int getDictionarySize() const { return selectedDictionary; }
    int getDataDuration() const { return dataDuration; }
    int getNumberOfAreaAlertInfos() const { return static_cast<int>(areaAlertInfos.size()); }

    bool isActive(int areaAlertInfoIndex) const;
    bool isAlertConditionSatisfied(int areaAlertInfoIndex) const;
    bool isDataConditionSatisfied(int areaAlertInfoIndex) const;
    void setDataEventSent(int areaAlertInfoIndex);
    // The area's marker set as text ("3,12", "empty"); empty before the first update.
    std::string getDataEventState(int areaAlertInfoIndex) const;
    IPolygon getPolygon(int areaAlertInfoIndex) const;
    // The frame's detections of one area: the data state changes only when the set of numbers
    // changes (OpenCV's order plays no part), then the alert rule takes them.
    bool updateDetections(const ArucoDetections& detections, int areaAlertInfoIndex);

    AreaAlertInfosIterator begin() { return areaAlertInfos.begin(); }
    AreaAlertInfosIterator end() { return areaAlertInfos.end(); }
    AreaAlertInfosConstIterator begin() const { return areaAlertInfos.begin(); }
    AreaAlertInfosConstIterator end() const { return areaAlertInfos.end(); }

private:
    // Whether index is an area's; otherwise logs "<operation>: Invalid areaAlertInfoIndex
    // (<index><tail>".
    bool checkIndex(int index, const char* operation, const char* tail) const;

    std::vector<MarkersAreaAlertInfo> areaAlertInfos;
    std::vector<MarkersDataInfo> dataInfos;
    int dataDuration = 1;
    int selectedDictionary = 6;
};

} // namespace Ombrel
