#include "Polygons.h"

#include <algorithm>

namespace Ombrel {

namespace {

int toPixel(float normalized, unsigned int extent) {
    const float value = normalized * static_cast<float>(extent) + 0.5f;
    const int pixel = detail::truncateTo<int>(static_cast<double>(value));
    return std::clamp(pixel, -kMaxPixelCoordinate, kMaxPixelCoordinate);
}

} // namespace

FPolygon normalize(const IPolygon& polygon, const Resolution& resolution) {
    const float width = static_cast<float>(resolution.width);
    const float height = static_cast<float>(resolution.height);
    FPolygon result;
    for (const IPoint& point : polygon) {
        result.addPoint(static_cast<float>(point.x) / width, static_cast<float>(point.y) / height);
    }
    return result;
}

IPolygon denormalize(const FPolygon& polygon, const Resolution& resolution) {
    IPolygon result;
    for (const FPoint& point : polygon) {
        result.addPoint(toPixel(point.x, resolution.width), toPixel(point.y, resolution.height));
    }
    return result;
}

FActivablePolygon normalize(const IActivablePolygon& polygon, const Resolution& resolution) {
    return FActivablePolygon(polygon.isActive(),
                             normalize(static_cast<const IPolygon&>(polygon), resolution));
}

IActivablePolygon denormalize(const FActivablePolygon& polygon, const Resolution& resolution) {
    return IActivablePolygon(polygon.isActive(),
                             denormalize(static_cast<const FPolygon&>(polygon), resolution));
}

FAOI normalize(const AOI& aoi, const Resolution& resolution) {
    FAOI result(aoi.isActive(), normalize(static_cast<const IPolygon&>(aoi), resolution), 0);
    result.setAlertSeconds(aoi.getAlertSeconds());
    return result;
}

AOI denormalize(const FAOI& faoi, const Resolution& resolution) {
    AOI result(faoi.isActive(), denormalize(static_cast<const FPolygon&>(faoi), resolution), 0);
    result.setAlertSeconds(faoi.getAlertSeconds());
    return result;
}

AOI::AOI(const FAOI& faoi, const Resolution& resolution) : AOI(denormalize(faoi, resolution)) {}

FAOI::FAOI(const AOI& aoi, const Resolution& resolution) : FAOI(normalize(aoi, resolution)) {}

std::ostream& operator<<(std::ostream& os, const FPolygon& polygon) {
    os << polygon.getNPoints() << ' ';
    for (const FPoint& point : polygon) {
        os << point.x << ' ' << point.y << ' ';
    }
    return os;
}

std::istream& operator>>(std::istream& is, FPolygon& polygon) {
    unsigned int nPoints = 0;
    is >> nPoints;
    if (nPoints > kMaxPolygonVertices) {
        g_stemlibLogger.error("operator>>: Refusing a polygon of " + std::to_string(nPoints) +
                              " vertices, more than the limit of " +
                              std::to_string(kMaxPolygonVertices));
        is.setstate(std::ios::failbit);
        return is;
    }
    polygon.clear();
    // Declared outside the loop: a short text keeps appending what the failed extraction left.
    float x = 0.0f;
    float y = 0.0f;
    for (unsigned int i = 0; i < nPoints; ++i) {
        is >> x >> y;
        polygon.addPoint(x, y);
    }
    return is;
}

std::ostream& operator<<(std::ostream& os, const FActivablePolygon& polygon) {
    return os << (polygon.isActive() ? 1 : 0) << ' ' << static_cast<const FPolygon&>(polygon);
}

std::istream& operator>>(std::istream& is, FActivablePolygon& polygon) {
    // Starts from the current flag: a stream that is already exhausted leaves it as it was.
    bool isActive = polygon.isActive();
    is >> isActive;
    polygon.setActive(isActive);
    return is >> static_cast<FPolygon&>(polygon);
}

std::ostream& operator<<(std::ostream& os, const AOIT<float>& aoi) {
    return os << static_cast<const FActivablePolygon&>(aoi) << aoi.getAlertSeconds() << ' ';
}

std::istream& operator>>(std::istream& is, AOIT<float>& aoi) {
    is >> static_cast<FActivablePolygon&>(aoi);
    unsigned int alertSeconds = aoi.getAlertSeconds();
    is >> alertSeconds;
    aoi.setAlertSeconds(alertSeconds);
    return is;
}

} // namespace Ombrel
