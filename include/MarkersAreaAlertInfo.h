// MarkersAreaAlertInfo: one marker area of the markers application and its alert rule: the
// number of markers in the area compared with a threshold (less than, equal, at least), which
// must hold for a number of whole seconds before the area alerts.
//
// The first six fields are configuration (the area in pixels of the analysis resolution; its
// text form is normalized); isSatisfied, satisfiedStartTime and currentDetections are the live
// state, which the text form leaves out, so that all timing starts again after a reload. Time
// is the steady clock's.
//
// A plain value that owns everything by value. No lock: it belongs to the application's loop.
#pragma once

#include "ArucoDetector.h"
#include "CommonStructs.h"
#include "Polygons.h"

#include <istream>
#include <string>

namespace Ombrel {

// How an area's marker count is compared with its threshold. The text form holds the integer;
// any other integer read from text is kept and counts as never satisfied.
enum class ComparisonOperation : int { LessThan = 0, Equal = 1, AtLeast = 2, Unknown = 100 };

class MarkersAreaAlertInfo {
public:
    // Inactive, area 0, at least 1 marker, 0 seconds, no polygon.
    MarkersAreaAlertInfo() = default;
    MarkersAreaAlertInfo(bool isActive, int areaIndex, ComparisonOperation comparisonOperation,
                         int countThreshold, int durationSeconds, const IPolygon& polygon);

    // One line without a line end: the flag as 1 or 0, the area index, the operation's integer,
    // the threshold and the seconds, each followed by a blank, then the polygon normalized with
    // resolution in its stream form (count, then x y pairs, each followed by a blank).
    std::string serialize(const Resolution& resolution) const;
    // Reads the form of serialize into the configuration fields, unchecked; the polygon is
    // denormalized with resolution. The live state is left alone. The caller tests the stream.
    void deserialize(std::istream& stream, const Resolution& resolution);
    void deserialize(const std::string& text, const Resolution& resolution);

    // Takes the area's detections of this frame. The condition's start time is set when the
    // count begins to satisfy the rule and survives while it keeps doing so; a failing count
    // clears it. Always true.
    bool updateDetections(const ArucoDetections& detections);

    bool isActive() const { return _isActive; }
    int getAreaIndex() const { return _areaIndex; }
    ComparisonOperation getComparisonOperation() const { return _comparisonOperation; }
    int getCountThreshold() const { return _countThreshold; }
    int getDurationSeconds() const { return _durationSeconds; }
    const IPolygon& getPolygon() const { return _polygon; }
    const ArucoDetections& getDetections() const { return currentDetections; }

    // Whether the count rule holds and has held for at least the area's whole seconds.
    bool isAlertConditionSatisfied() const;
    // count against the threshold by the area's operation; an unknown operation logs an error
    // and gives false.
    bool doesCountSatisfyCondition(int count) const;

private:
    bool _isActive = false;
    int _areaIndex = 0;
    ComparisonOperation _comparisonOperation = ComparisonOperation::AtLeast;
    int _countThreshold = 1;
    int _durationSeconds = 0;
    IPolygon _polygon;

public:
    // Live state, open to the application (to show or to restart it); not part of the text form.
    bool isSatisfied = false;          // whether the count rule holds now
    TimePoint satisfiedStartTime{};    // when it began to hold
    ArucoDetections currentDetections; // the latest detections
};

} // namespace Ombrel
