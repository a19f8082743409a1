// Polygons and the areas built on them.
//
// PolygonT owns the point-in-area decision of every scene rule: the winding-number (nonzero)
// rule, with exact comparisons. ActivablePolygonT adds an on/off switch (an inactive area contains
// nothing), AOIT a dwell threshold in seconds. AOI holds pixels, FAOI normalized coordinates
// (fractions of a Resolution); normalize and denormalize convert between them.
//
// Plain values without locks. Only the float forms have text stream operators; pixel polygons
// reach text through normalize.
#pragma once

#include "CommonStructs.h"
#include "Points.h"

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace Ombrel {

template <typename T>
class PolygonT;
using IPolygon = PolygonT<int>;
using FPolygon = PolygonT<float>;

// Vertices in order; the closing edge from the last vertex to the first is implied.
template <typename T>
class PolygonT {
public:
    using PointVector = std::vector<PointT<T>>;
    using PolygonIterator = typename PointVector::iterator;
    using PolygonConstIterator = typename PointVector::const_iterator;

    PolygonT() = default;
    // nPoints vertices from 2 * nPoints coordinates, each vertex as x then y.
    PolygonT(int nPoints, const T* coordinates) {
        for (int i = 0; i < nPoints; ++i) {
            addPoint(coordinates[2 * i], coordinates[2 * i + 1]);
        }
    }
    PolygonT(T x0, T y0, T x1, T y1, T x2, T y2) {
        addPoint(x0, y0);
        addPoint(x1, y1);
        addPoint(x2, y2);
    }
    PolygonT(T x0, T y0, T x1, T y1, T x2, T y2, T x3, T y3) {
        addPoint(x0, y0);
        addPoint(x1, y1);
        addPoint(x2, y2);
        addPoint(x3, y3);
    }
    PolygonT(T x0, T y0, T x1, T y1, T x2, T y2, T x3, T y3, T x4, T y4, T x5, T y5) {
        addPoint(x0, y0);
        addPoint(x1, y1);
        addPoint(x2, y2);
        addPoint(x3, y3);
        addPoint(x4, y4);
        addPoint(x5, y5);
    }
    PolygonT(T x0, T y0, T x1, T y1, T x2, T y2, T x3, T y3, T x4, T y4, T x5, T y5, T x6, T y6,
             T x7, T y7) {
        addPoint(x0, y0);
        addPoint(x1, y1);
        addPoint(x2, y2);
        addPoint(x3, y3);
        addPoint(x4, y4);
        addPoint(x5, y5);
        addPoint(x6, y6);
        addPoint(x7, y7);
    }
    // Four vertices: top left, top right, bottom right, bottom left.
    explicit PolygonT(const RectangleT<T>& rectangle) {
        addPoint(rectangle.x, rectangle.y);
        addPoint(rectangle.x + rectangle.width, rectangle.y);
        addPoint(rectangle.x + rectangle.width, rectangle.y + rectangle.height);
        addPoint(rectangle.x, rectangle.y + rectangle.height);
    }

    PolygonT(const PolygonT&) = default;
    PolygonT(PolygonT&&) noexcept = default;
    PolygonT& operator=(const PolygonT&) = default;
    PolygonT& operator=(PolygonT&&) noexcept = default;

    virtual ~PolygonT() = default;

    // "Polygon: (1, 2) (3, 4) ", each coordinate in std::to_string form.
    virtual std::string toString() const {
        std::string text = "Polygon: ";
        for (const PointT<T>& point : _pointVector) {
            text += "(" + std::to_string(point.x) + ", " + std::to_string(point.y) + ") ";
        }
        return text;
    }

    // All four corners inside, each through the virtual point test.
    virtual bool contains(const RectangleT<float>& rectangle) const {
        return contains(FPoint(rectangle.x, rectangle.y)) &&
               contains(FPoint(rectangle.x + rectangle.width, rectangle.y)) &&
               contains(FPoint(rectangle.x, rectangle.y + rectangle.height)) &&
               contains(FPoint(rectangle.x + rectangle.width, rectangle.y + rectangle.height));
    }
    // Nonzero rule: inside when the winding number is not zero.
    virtual bool contains(const FPoint& point) const { return getWindingNumber(point) != 0; }
    // All vertices of the other polygon inside, each through the virtual point test.
    virtual bool contains(const PolygonT<float>& polygon) const {
        for (const FPoint& point : polygon) {
            if (!contains(point)) {
                return false;
            }
        }
        return true;
    }

    // Winding number of the polygon around point. All arithmetic is single precision and exact:
    // a point on an edge's line is not counted by that edge, a rising edge includes its start
    // and excludes its end, a falling edge the reverse, a horizontal edge never counts.
    int getWindingNumber(const FPoint& point) const {
        const std::size_t nPoints = _pointVector.size();
        if (nPoints == 0) {
            return 0;
        }
        const PointT<T>* points = _pointVector.data();
        int nWindingNumber = 0;
        float previousX = static_cast<float>(points[nPoints - 1].x);
        float previousY = static_cast<float>(points[nPoints - 1].y);
        for (std::size_t i = 0; i < nPoints; ++i) {
            const float currentX = static_cast<float>(points[i].x);
            const float currentY = static_cast<float>(points[i].y);
            const float cond1 = (previousX - point.x) * (currentY - point.y);
            const float cond2 = (previousY - point.y) * (currentX - point.x);
            // The sign of cond1 - cond2, taken by comparing: a subtraction could be fused with
            // a product into a multiply-add (AArch64 compilers do so by default in applications),
            // which keeps that product unrounded and makes a point on the edge's line count.
            if (previousY <= point.y) {
                if (currentY > point.y && cond1 > cond2) {
                    ++nWindingNumber;
                }
            } else if (currentY <= point.y && cond1 < cond2) {
                --nWindingNumber;
            }
            previousX = currentX;
            previousY = currentY;
        }
        return nWindingNumber;
    }

    void addPoint(T x, T y) { _pointVector.emplace_back(x, y); }
    void addPoint(const PointT<T>& point) { _pointVector.push_back(point); }
    void clear() { _pointVector.clear(); }

    // Unchecked: an index outside the polygon is the caller's fault.
    PointT<T>& getPoint(int index) { return _pointVector[static_cast<std::size_t>(index)]; }
    const PointT<T>& getPoint(int index) const {
        return _pointVector[static_cast<std::size_t>(index)];
    }
    unsigned int getNPoints() const { return static_cast<unsigned int>(_pointVector.size()); }

    // Undefined for an empty polygon.
    BoundingBoxT<T> getBoundingBox() const {
        BoundingBoxT<T> box;
        for (const PointT<T>& point : _pointVector) {
            box.expand(point);
        }
        return box;
    }

    PolygonIterator begin() { return _pointVector.begin(); }
    PolygonIterator end() { return _pointVector.end(); }
    PolygonConstIterator begin() const { return _pointVector.begin(); }
    PolygonConstIterator end() const { return _pointVector.end(); }

    // Same vertices in the same order from the same start.
    bool operator==(const PolygonT<T>& other) const { return _pointVector == other._pointVector; }
    bool operator!=(const PolygonT<T>& other) const { return !(*this == other); }

protected:
    PointVector _pointVector;
};

// A polygon with an on/off switch. An inactive area contains no point, rectangle or polygon with
// a vertex, and keeps its vertices for when it is switched on again.
template <typename T>
class ActivablePolygonT : public PolygonT<T> {
public:
    ActivablePolygonT() = default;
    ActivablePolygonT(bool isActive, T x0, T y0, T x1, T y1, T x2, T y2, T x3, T y3)
        : PolygonT<T>(x0, y0, x1, y1, x2, y2, x3, y3), _isActive(isActive) {}
    ActivablePolygonT(bool isActive, T x0, T y0, T x1, T y1, T x2, T y2, T x3, T y3, T x4, T y4,
                      T x5, T y5)
        : PolygonT<T>(x0, y0, x1, y1, x2, y2, x3, y3, x4, y4, x5, y5), _isActive(isActive) {}
    ActivablePolygonT(bool isActive, T x0, T y0, T x1, T y1, T x2, T y2, T x3, T y3, T x4, T y4,
                      T x5, T y5, T x6, T y6, T x7, T y7)
        : PolygonT<T>(x0, y0, x1, y1, x2, y2, x3, y3, x4, y4, x5, y5, x6, y6, x7, y7),
          _isActive(isActive) {}
    ActivablePolygonT(bool isActive, const PolygonT<T>& polygon)
        : PolygonT<T>(polygon), _isActive(isActive) {}
    ActivablePolygonT(bool isActive, const RectangleT<T>& rectangle)
        : PolygonT<T>(rectangle), _isActive(isActive) {}

    bool isActive() const { return _isActive; }
    void setActive(bool isActive) { _isActive = isActive; }

    // "ActivablePolygon: Polygon: (...) ...  Active:  Active" (or " NOT Active"); the double
    // blanks are part of the form.
    std::string toString() const override {
        return "ActivablePolygon: " + PolygonT<T>::toString() +
               " Active: " + (_isActive ? " Active" : " NOT Active");
    }

    using PolygonT<T>::contains;
    bool contains(const RectangleT<float>& rectangle) const override {
        return _isActive && PolygonT<T>::contains(rectangle);
    }
    bool contains(const FPoint& point) const override {
        return _isActive && PolygonT<T>::contains(point);
    }

    bool operator==(const ActivablePolygonT<T>& other) const {
        return _isActive == other._isActive && PolygonT<T>::operator==(other);
    }
    bool operator!=(const ActivablePolygonT<T>& other) const { return !(*this == other); }

protected:
    bool _isActive = false;
};

using IActivablePolygon = ActivablePolygonT<int>;
using FActivablePolygon = ActivablePolygonT<float>;

// An area of interest: an activable polygon and the seconds an object must dwell in it before it
// counts as lengthily present.
template <typename T>
class AOIT : public ActivablePolygonT<T> {
public:
    AOIT() = default;
    AOIT(bool isActive, const RectangleT<T>& rectangle, int alertSeconds)
        : ActivablePolygonT<T>(isActive, rectangle),
          _alertSeconds(static_cast<unsigned int>(alertSeconds)) {}
    AOIT(bool isActive, const PolygonT<T>& polygon, int alertSeconds)
        : ActivablePolygonT<T>(isActive, polygon),
          _alertSeconds(static_cast<unsigned int>(alertSeconds)) {}
    AOIT(bool isActive, T x0, T y0, T x1, T y1, T x2, T y2, T x3, T y3, int alertSeconds)
        : ActivablePolygonT<T>(isActive, x0, y0, x1, y1, x2, y2, x3, y3),
          _alertSeconds(static_cast<unsigned int>(alertSeconds)) {}

    unsigned int getAlertSeconds() const { return _alertSeconds; }
    void setAlertSeconds(unsigned int alertSeconds) { _alertSeconds = alertSeconds; }

    bool operator==(const AOIT<T>& other) const {
        return ActivablePolygonT<T>::operator==(other) && _alertSeconds == other._alertSeconds;
    }
    bool operator!=(const AOIT<T>& other) const { return !(*this == other); }

protected:
    unsigned int _alertSeconds = 0;
};

class FAOI;

// An area of interest in pixels of the analysis resolution.
class AOI : public AOIT<int> {
public:
    AOI() = default;
    AOI(bool isActive, const RectangleT<int>& rectangle, int alertSeconds)
        : AOIT<int>(isActive, rectangle, alertSeconds) {}
    AOI(bool isActive, const PolygonT<int>& polygon, int alertSeconds)
        : AOIT<int>(isActive, polygon, alertSeconds) {}
    AOI(bool isActive, int x0, int y0, int x1, int y1, int x2, int y2, int x3, int y3,
        int alertSeconds)
        : AOIT<int>(isActive, x0, y0, x1, y1, x2, y2, x3, y3, alertSeconds) {}
    // denormalize(faoi, resolution).
    AOI(const FAOI& faoi, const Resolution& resolution);
};

// An area of interest in normalized coordinates, as stored in configuration text.
class FAOI : public AOIT<float> {
public:
    FAOI() = default;
    FAOI(bool isActive, const RectangleT<float>& rectangle, int alertSeconds)
        : AOIT<float>(isActive, rectangle, alertSeconds) {}
    FAOI(bool isActive, const PolygonT<float>& polygon, int alertSeconds)
        : AOIT<float>(isActive, polygon, alertSeconds) {}
    FAOI(bool isActive, float x0, float y0, float x1, float y1, float x2, float y2, float x3,
         float y3, int alertSeconds)
        : AOIT<float>(isActive, x0, y0, x1, y1, x2, y2, x3, y3, alertSeconds) {}
    // normalize(aoi, resolution).
    FAOI(const AOI& aoi, const Resolution& resolution);
};

// Largest pixel coordinate that denormalize produces; larger values saturate here so that later
// integer arithmetic (sums of coordinates and extents) cannot overflow.
inline constexpr int kMaxPixelCoordinate = 1 << 28;

// Pixels to fractions: x / width, y / height in single precision. A zero resolution gives
// infinity or NaN.
FPolygon normalize(const IPolygon& polygon, const Resolution& resolution);
// Fractions to pixels: x * width + 0.5 and y * height + 0.5 in single precision, truncated toward
// zero (half up for non-negative values). Not clamped to the picture; NaN becomes 0 and values
// beyond +-kMaxPixelCoordinate saturate.
IPolygon denormalize(const FPolygon& polygon, const Resolution& resolution);
// The activable forms keep the flag, the AOI forms the flag and the threshold.
FActivablePolygon normalize(const IActivablePolygon& polygon, const Resolution& resolution);
IActivablePolygon denormalize(const FActivablePolygon& polygon, const Resolution& resolution);
FAOI normalize(const AOI& aoi, const Resolution& resolution);
AOI denormalize(const FAOI& faoi, const Resolution& resolution);

// Largest vertex count that the polygon reader accepts.
inline constexpr unsigned int kMaxPolygonVertices = 100000;

// Text forms, blank-separated in the stream's default format:
//   FPolygon:          "<count> x0 y0 x1 y1 ... "
//   FActivablePolygon: "<0|1> " + polygon form
//   AOIT<float>/FAOI:  activable form + "<alertSeconds> "
// The readers do not test the stream: a short text leaves what the failing extraction leaves, and
// the caller tests the stream. The polygon reader replaces the vertices; a count above
// kMaxPolygonVertices is refused with an error line, leaves the polygon unchanged and the stream
// failed.
std::ostream& operator<<(std::ostream& os, const FPolygon& polygon);
std::istream& operator>>(std::istream& is, FPolygon& polygon);
std::ostream& operator<<(std::ostream& os, const FActivablePolygon& polygon);
std::istream& operator>>(std::istream& is, FActivablePolygon& polygon);
std::ostream& operator<<(std::ostream& os, const AOIT<float>& aoi);
std::istream& operator>>(std::istream& is, AOIT<float>& aoi);

} // namespace Ombrel
