// AOIManager: where a tracked object is among the areas of interest, and whether it has dwelt
// there long enough to count.
//
// An application feeds add() once per frame with each tracked object's findingID and position
// and gets back an AOIInfo. The manager keeps one time entry per object (on the steady clock) and a
// fixed row of AOI areas in pixels of the analysis resolution; its text form is normalized. It
// never expires an entry: call remove() for every object the tracker drops.
//
// No lock: the manager belongs to the thread of the application's loop.
#pragma once

#include "CommonStructs.h"
#include "Location.h"
#include "Polygons.h"

#include <istream>
#include <map>
#include <string>
#include <vector>

namespace Ombrel {

struct AOIInfo {
    AOILocation location;
    AOIDuration duration;

    AOIInfo(AOILocation location_, AOIDuration duration_)
        : location(location_), duration(duration_) {}
};

using AOIS = std::vector<AOI>;
using FAOIS = std::vector<FAOI>;

class AOIManager {
public:
    struct TimeEntry {
        TimePoint startTime;     // when the object was first seen at this location
        AOILocation aoiLocation; // the location to which startTime belongs
    };
    using TimeEntries = std::map<int, TimeEntry>;

    // nAOIs inactive, empty areas with threshold 0; 4 control points.
    explicit AOIManager(int nAOIs);

    // The per-frame call: getLocation, then updateTimeMap. Allocates only for a new findingID.
    AOIInfo add(int findingID, const FPoint& point);
    // Forgets the object; an unknown findingID is ignored.
    void remove(int findingID);

    // The first of areas 0, 1, 2 (those that exist) that contains the point, else Exterior.
    AOILocation getLocation(const FPoint& point) const;

    // Replace one area; false and no change for an index at or past getNAOIs(). Time entries are
    // kept, so an object in the area keeps its time.
    bool setAOI(unsigned int aoiIndex, const AOI& aoi);
    bool setAOI(unsigned int aoiIndex, bool bActive, const IPolygon& aoiPolygon,
                int timeThresholdInSeconds);
    bool setAOI(unsigned int aoiIndex, bool bActive, const IRectangle& aoiRectangle,
                int timeThresholdInSeconds);
    unsigned int getNAOIs() const;
    // A negative threshold wraps to a huge unsigned value, which is never reached.
    bool setAOITimeThreshold(unsigned int aoiIndex, int timeThresholdInSeconds);

    unsigned int getNControlPoints() const;
    // Accepts exactly 4, 6 and 8.
    bool setNControlPoints(unsigned int nControlPoints);

    // Unchecked: an index at or past getNAOIs() is the caller's fault.
    const AOI& getAOI(unsigned int aoiIndex) const;

    // Replaces areas 0 .. getNAOIs() - 1 with faois denormalized at resolution. Returns false,
    // with an error line and nothing changed, when faois holds fewer elements than that.
    bool loadFromNormalized(const FAOIS& faois, const Resolution& resolution);

    // getNAOIs() + 2 lines: control points, number of areas, then each area as FAOI text.
    std::string serialize(const Resolution& resolution) const;
    // Reads the form of serialize. A bad control point count is logged and replaced by 4; more
    // areas than the manager holds are logged, and the first area past the end makes the result
    // false (earlier areas stay replaced). Areas missing from the text keep what they held.
    bool deserialize(std::istream& iss, const Resolution& resolution);

    // Same control points and areas; time entries are not compared.
    bool operator==(const AOIManager& other) const;
    bool operator!=(const AOIManager& other) const { return !(*this == other); }

    // The step of add: starts, restarts or reads the object's clock. An object outside every
    // area (or at a location without an area) is always Briefly.
    AOIInfo updateTimeMap(int findingID, AOILocation aoiLocation);

private:
    TimeEntries _timeEntries;
    AOIS _aois;
    int _nControlPoints;
};

} // namespace Ombrel
