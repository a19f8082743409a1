// EntranceManager: reports when a tracked object crosses between one of up to three doorway areas
// and the rest of the scene, as entering or exiting depending on the side the camera stands on.
//
// The manager keeps the last location of each findingID until remove(); it never expires an
// entry. Its answers tell of changes only: an unchanged location gives (Exterior, None).
//
// No lock: the manager belongs to the thread of the application's loop.
#pragma once

#include "CommonStructs.h"
#include "Location.h"
#include "Polygons.h"

#include <array>
#include <map>

namespace Ombrel {

using Entrance = IActivablePolygon;
using Entrances = std::array<IActivablePolygon, 3>;
using FEntrance = FActivablePolygon;
using FEntrances = std::array<FActivablePolygon, 3>;
using LocationMap = std::map<int, EntranceLocation>;

struct EntranceInfo {
    EntranceLocation location; // the location the call established
    EntranceActivity activity; // what happened

    EntranceInfo(EntranceLocation location_, EntranceActivity activity_)
        : location(location_), activity(activity_) {}
};

class EntranceManager {
public:
    static constexpr int MAX_ENTRANCES = 3;

    EntranceManager() = default;

    // False for an index outside 0 to 2; otherwise the area is replaced.
    bool setEntrance(int index, bool isActive, const IPolygon& polygon);
    bool setEntrance(int index, const Entrance& entrance);
    // Swaps entering and exiting; takes effect at the next crossing.
    void setCameraInside(bool isCameraInside);

    // The per-frame call: updateLocationMap of getLocation.
    EntranceInfo add(int findingID, const FPoint& point);
    // Forgets the object; an unknown findingID is ignored. It counts as new when it returns.
    void remove(int findingID);

    // The first of entrances 0, 1, 2 that contains the point, else Exterior.
    EntranceLocation getLocation(const FPoint& point) const;
    // Crossings between the exterior and an entrance; everything else is None.
    EntranceActivity getEntranceActivity(EntranceLocation priorLocation,
                                         EntranceLocation currentLocation) const;
    // A new object counts as coming from the exterior. A change gives the new location and its
    // activity; no change gives (Exterior, None).
    EntranceInfo updateLocationMap(int findingID, EntranceLocation currentLocation);

    // Replaces the three areas, denormalized with resolution, with their flags. Always true.
    bool loadFromNormalized(const FEntrances& entrances, const Resolution& resolution);

private:
    Entrances _entrances;
    bool _bCameraInside = false;
    LocationMap _locationMap;
};

} // namespace Ombrel
