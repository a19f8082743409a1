#include "ExclusionManager.h"

#include <sstream>

namespace Ombrel {

namespace {

// The first exclusion, in index order, that contains probe (a point or a whole box).
template <typename Probe>
ExclusionLocation firstContaining(const Exclusions& exclusions, const Probe& probe) {
    for (std::size_t i = 0; i < exclusions.size(); ++i) {
        if (exclusions[i].contains(probe)) {
            return ValidExclusions[i];
        }
    }
    return ExclusionLocation::Exterior;
}

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
    return firstContaining(_exclusions, box);
}

ExclusionLocation ExclusionManager::getLocation(const FPoint& point) const {
    return firstContaining(_exclusions, point);
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
        if (!setExclusion(i, denormalize(exclusion, resolution))) {
            return false;
        }
    }
    return true;
}

bool ExclusionManager::loadFromNormalized(const FExclusions& exclusions,
                                          const Resolution& resolution) {
    _exclusions = denormalize(exclusions, resolution);
    return true;
}

FExclusions ExclusionManager::getNormalizedExclusions(const Resolution& resolution) const {
    return normalize(_exclusions, resolution);
}

} // namespace Ombrel
