// ExclusionManager: up to three exclusion areas, and in which of them a point or a box lies.
//
// A box counts as excluded only when all four corners lie inside one exclusion. The areas are
// pixel polygons of the analysis resolution; the text form is normalized.
//
// No lock: the manager belongs to the thread of the application's loop.
#pragma once

#include "CommonStructs.h"
#include "Location.h"
#include "Polygons.h"

#include <array>
#include <istream>
#include <string>

namespace Ombrel {

using Exclusion = IActivablePolygon;
using Exclusions = std::array<IActivablePolygon, 3>;
using FExclusion = FActivablePolygon;
using FExclusions = std::array<FActivablePolygon, 3>;

// Convert the three areas in index order, keeping their flags.
Exclusions denormalize(const FExclusions& exclusions, const Resolution& resolution);
FExclusions normalize(const Exclusions& exclusions, const Resolution& resolution);

class ExclusionManager {
public:
    static constexpr int MAX_EXCLUSIONS = 3;

    ExclusionManager() = default;

    // False for an index outside 0 to 2; otherwise the area is replaced.
    bool setExclusion(int index, bool isActive, const IPolygon& polygon);
    bool setExclusion(int index, const Exclusion& exclusion);

    // The first of exclusions 0, 1, 2 that contains the whole box (all four corners), else
    // Exterior.
    ExclusionLocation getLocation(const FRectangle& box) const;
    // The first of exclusions 0, 1, 2 that contains the point, else Exterior.
    ExclusionLocation getLocation(const FPoint& point) const;

    // Unchecked: an index outside 0 to 2 is the caller's fault.
    const Exclusion& getExclusion(int index) const;
    Exclusions getExclusions() const { return _exclusions; }

    // Four lines: "3", then each exclusion as normalized FActivablePolygon text.
    std::string serialize(const Resolution& resolution) const;
    // Reads the form of serialize. A count below 0 or above 3 gives false with nothing changed;
    // a smaller count replaces that many areas and keeps the rest. No log line.
    bool deserialize(std::istream& iss, const Resolution& resolution);

    // Replaces the three areas, denormalized with resolution, with their flags. Always true.
    bool loadFromNormalized(const FExclusions& exclusions, const Resolution& resolution);
    FExclusions getNormalizedExclusions(const Resolution& resolution) const;

private:
    Exclusions _exclusions;
};

} // namespace Ombrel
