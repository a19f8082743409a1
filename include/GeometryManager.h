// GeometryManager: classifies a point or a box against a fixed layout of three areas of interest,
// one queue, one cashier and three exclusions.
//
// Points take the first hit of AOI0, AOI1, AOI2, Queue0, Cashier0, else Exterior; exclusions are
// not consulted for points. A box wholly inside an exclusion is Exterior; any other box is placed
// by its centre.
//
// No lock: the manager belongs to the thread of the application's loop.
#pragma once

#include "Location.h"
#include "Polygons.h"

#include <array>

namespace Ombrel {

class GeometryManager {
public:
    static constexpr int MAX_AOIS = 3;
    static constexpr int MAX_ENTRANCES = 3;
    static constexpr int MAX_EXCLUSIONS = 3;

    GeometryManager() = default;

    // The index must be exactly 0: there is one queue and one cashier.
    bool setQueue(int index, bool isActive, const IPolygon& polygon);
    bool setCashier(int index, bool isActive, const IPolygon& polygon);
    // The index must be 0 to 2.
    bool setExclusion(int index, bool isActive, const IPolygon& polygon);
    bool setAOI(int index, bool isActive, const IPolygon& polygon);
    // Stored only; no location query reads the entrances.
    bool setEntrance(int index, bool isActive, const IPolygon& polygon);
    const IActivablePolygon& getEntrance(int index) const;

    Location getLocation(const FPoint& point) const;
    Location getLocation(const FRectangle& box) const;

private:
    std::array<IActivablePolygon, MAX_AOIS> _aoi;
    std::array<IActivablePolygon, MAX_ENTRANCES> _entrance;
    IActivablePolygon _queue;
    std::array<IActivablePolygon, MAX_EXCLUSIONS> _exclusion;
    IActivablePolygon _cashier;
};

} // namespace Ombrel
