#include "GeometryManager.h"

namespace Ombrel {

namespace {

template <std::size_t N>
bool setArea(std::array<IActivablePolygon, N>& areas, int index, bool isActive,
             const IPolygon& polygon) {
    if (index < 0 || static_cast<std::size_t>(index) >= N) {
        return false;
    }
    areas[static_cast<std::size_t>(index)] = IActivablePolygon(isActive, polygon);
    return true;
}

} // namespace

bool GeometryManager::setQueue(int index, bool isActive, const IPolygon& polygon) {
    if (index != 0) {
        return false;
    }
    _queue = IActivablePolygon(isActive, polygon);
    return true;
}

bool GeometryManager::setCashier(int index, bool isActive, const IPolygon& polygon) {
    if (index != 0) {
        return false;
    }
    _cashier = IActivablePolygon(isActive, polygon);
    return true;
}

bool GeometryManager::setExclusion(int index, bool isActive, const IPolygon& polygon) {
    return setArea(_exclusion, index, isActive, polygon);
}

bool GeometryManager::setAOI(int index, bool isActive, const IPolygon& polygon) {
    return setArea(_aoi, index, isActive, polygon);
}

bool GeometryManager::setEntrance(int index, bool isActive, const IPolygon& polygon) {
    return setArea(_entrance, index, isActive, polygon);
}

const IActivablePolygon& GeometryManager::getEntrance(int index) const {
    return _entrance[static_cast<std::size_t>(index)];
}

Location GeometryManager::getLocation(const FPoint& point) const {
    if (_aoi[0].contains(point)) {
        return Location::AOI0;
    }
    if (_aoi[1].contains(point)) {
        return Location::AOI1;
    }
    if (_aoi[2].contains(point)) {
        return Location::AOI2;
    }
    if (_queue.contains(point)) {
        return Location::Queue0;
    }
    if (_cashier.contains(point)) {
        return Location::Cashier0;
    }
    return Location::Exterior;
}

Location GeometryManager::getLocation(const FRectangle& box) const {
    for (const IActivablePolygon& exclusion : _exclusion) {
        if (exclusion.contains(box)) {
            return Location::Exterior;
        }
    }
    return getLocation(box.getCentroid());
}

} // namespace Ombrel
