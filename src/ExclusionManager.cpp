#include "ExclusionManager.h"

#include <sstream>

namespace Ombrel {

namespace {

constexpr ExclusionLocation kExclusionLocations[] = {
    ExclusionLocation::Exclusion0, ExclusionLocation::Exclusion1, ExclusionLocation::Exclusion2};

} // namespace

Exclusions denormalize(const FExclusions& exclusions, const Resolution& resolution) {
    Exclusions result;
    for (std::size_t i = 0; i < exclusions.size(); ++i) {
        result[i] = denormalize(exclusions[i], resolution);
    }
    return result;
}

FExclusions normalize(const Exclusions& exclusions, const Resolution& resolution) {
    FExclusions result;
    for (std::size_t i = 0; i < exclusions.size(); ++i) {
        result[i] = normalize(exclusions[i], resolution);
    }
    return result;
}

bool ExclusionManager::setExclusion(int index, bool isActive, const IPolygon& polygon) {
    return setExclusion(index, Exclusion(isActive, polygon));
}

bool ExclusionManager::setExclusion(int index, const Exclusion& exclusion) {
    if (index < 0 || index >= MAX_EXCLUSIONS) {
        return false;
    }
    _exclusions[static_cast<std::size_t>(index)] = exclusion;
    return true;
}

ExclusionLocation ExclusionManager::getLocation(const FRectangle& box) const {
    for (std::size_t i = 0; i < _exclusions.size(); ++i) {
        if (_exclusions[i].contains(box)) {
            return kExclusionLocations[i];
        }
    }
    return ExclusionLocation::Exterior;
}

ExclusionLocation ExclusionManager::getLocation(const FPoint& point) const {
    for (std::size_t i = 0; i < _exclusions.size(); ++i) {
        if (_exclusions[i].contains(point)) {
            return kExclusionLocations[i];
        }
    }
    return ExclusionLocation::Exterior;
}

const Exclusion& ExclusionManager::getExclusion(int index) const {
    return _exclusions[static_cast<std::size_t>(index)];
}

std::string ExclusionManager::serialize(const Resolution& resolution) const {
    std::ostringstream os;
    os << _exclusions.size() << '\n';
    for (const Exclusion& exclusion : _exclusions) {
        os << normalize(exclusion, resolution) << '\n';
    }
    return os.str();
}

bool ExclusionManager::deserialize(std::istream& iss, const Resolution& resolution) {
    int nExclusions = 0;
    iss >> nExclusions;
    if (nExclusions < 0 || nExclusions > MAX_EXCLUSIONS) {
        return false;
    }
    for (int i = 0; i < nExclusions; ++i) {
        FExclusion exclusion;
        iss >> exclusion;
        const IActivablePolygon pixels = denormalize(exclusion, resolution);
        if (!setExclusion(i, pixels.isActive(), pixels)) {
            return false;
        }
    }
    return true;
}

bool ExclusionManager::loadFromNormalized(const FExclusions& exclusions,
                                          const Resolution& resolution) {
    for (int i = 0; i < MAX_EXCLUSIONS; ++i) {
        const IActivablePolygon pixels =
            denormalize(exclusions[static_cast<std::size_t>(i)], resolution);
        if (!setExclusion(i, pixels.isActive(), pixels)) {
            return false;
        }
    }
    return true;
}

FExclusions ExclusionManager::getNormalizedExclusions(const Resolution& resolution) const {
    return normalize(_exclusions, resolution);
}

} // namespace Ombrel
