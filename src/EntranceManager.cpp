#include "EntranceManager.h"

namespace Ombrel {

bool EntranceManager::setEntrance(int index, bool isActive, const IPolygon& polygon) {
    return setEntrance(index, Entrance(isActive, polygon));
}

bool EntranceManager::setEntrance(int index, const Entrance& entrance) {
    if (index < 0 || index >= MAX_ENTRANCES) {
        return false;
    }
    _entrances[static_cast<std::size_t>(index)] = entrance;
    return true;
}

void EntranceManager::setCameraInside(bool isCameraInside) {
    _bCameraInside = isCameraInside;
}

EntranceInfo EntranceManager::add(int findingID, const FPoint& point) {
    return updateLocationMap(findingID, getLocation(point));
}

void EntranceManager::remove(int findingID) {
    _locationMap.erase(findingID);
}

EntranceLocation EntranceManager::getLocation(const FPoint& point) const {
    static constexpr EntranceLocation kLocations[] = {
        EntranceLocation::Entrance0, EntranceLocation::Entrance1, EntranceLocation::Entrance2};
    for (std::size_t i = 0; i < _entrances.size(); ++i) {
        if (_entrances[i].contains(point)) {
            return kLocations[i];
        }
    }
    return EntranceLocation::Exterior;
}

EntranceActivity EntranceManager::getEntranceActivity(EntranceLocation priorLocation,
                                                      EntranceLocation currentLocation) const {
    static constexpr EntranceActivity kEnter[] = {EntranceActivity::EnterEntrance0,
                                                  EntranceActivity::EnterEntrance1,
                                                  EntranceActivity::EnterEntrance2};
    static constexpr EntranceActivity kExit[] = {EntranceActivity::ExitEntrance0,
                                                 EntranceActivity::ExitEntrance1,
                                                 EntranceActivity::ExitEntrance2};
    const auto isEntrance = [](EntranceLocation location) {
        return location == EntranceLocation::Entrance0 || location == EntranceLocation::Entrance1 ||
               location == EntranceLocation::Entrance2;
    };
    if (priorLocation == EntranceLocation::Exterior && isEntrance(currentLocation)) {
        const auto index = static_cast<std::size_t>(currentLocation);
        return _bCameraInside ? kExit[index] : kEnter[index];
    }
    if (isEntrance(priorLocation) && currentLocation == EntranceLocation::Exterior) {
        const auto index = static_cast<std::size_t>(priorLocation);
        return _bCameraInside ? kEnter[index] : kExit[index];
    }
    return EntranceActivity::None;
}

EntranceInfo EntranceManager::updateLocationMap(int findingID, EntranceLocation currentLocation) {
    EntranceInfo entranceInfo(EntranceLocation::Exterior, EntranceActivity::None);
    const auto found = _locationMap.find(findingID);
    if (found == _locationMap.end()) {
        _locationMap.emplace(findingID, currentLocation);
        entranceInfo.location = currentLocation;
        entranceInfo.activity = getEntranceActivity(EntranceLocation::Exterior, currentLocation);
    } else if (found->second != currentLocation) {
        const EntranceLocation priorLocation = found->second;
        found->second = currentLocation;
        entranceInfo.location = currentLocation;
        entranceInfo.activity = getEntranceActivity(priorLocation, currentLocation);
    }
    return entranceInfo;
}

bool EntranceManager::loadFromNormalized(const FEntrances& entrances,
                                         const Resolution& resolution) {
    for (std::size_t i = 0; i < entrances.size(); ++i) {
        _entrances[i] = denormalize(entrances[i], resolution);
    }
    return true;
}

} // namespace Ombrel
