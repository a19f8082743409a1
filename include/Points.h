// Plane geometry in pixels, x to the right and y downward: points, rectangles, bounding boxes and
// circles. Plain values with no threads, files or state.
//
// This header also declares g_stemlibLogger, the reporting facade through which every class of
// the library logs (see LoggerWrapper.h).
#pragma once

#include "CommonStructs.h"
#include "LoggerWrapper.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>

namespace Ombrel {

// The one reporting facade of the library, created during static initialisation.
extern LoggerWrapper g_stemlibLogger;

namespace detail {

// Converts to T by truncation toward zero. For an integral T, values beyond T's range saturate
// and NaN gives 0, so that no input can reach the undefined float-to-int conversion.
template <typename T>
T truncateTo(double value) {
    if constexpr (std::is_integral_v<T>) {
        if (std::isnan(value)) {
            return 0;
        }
        if (value >= static_cast<double>(std::numeric_limits<T>::max())) {
            return std::numeric_limits<T>::max();
        }
        if (value <= static_cast<double>(std::numeric_limits<T>::min())) {
            return std::numeric_limits<T>::min();
        }
        return static_cast<T>(value);
    } else {
        return static_cast<T>(value);
    }
}

// sqrt(dx * dx + dy * dy): squares and sum rounded to single precision each, root in double,
// narrowed to float. Compiled in the library, where no multiply-add fuses a square with the sum
// whatever the application's compiler settings.
float planeDistance(float dx, float dy);

} // namespace detail

template <typename T>
struct PointT {
    T x;
    T y;

    PointT() : x(0), y(0) {}
    PointT(T x_, T y_) : x(x_), y(y_) {}

    // Euclidean distance: differences, squares and sum in single precision, root in double.
    float distance(const PointT<T>& other) const {
        const float dx = static_cast<float>(x) - static_cast<float>(other.x);
        const float dy = static_cast<float>(y) - static_cast<float>(other.y);
        return detail::planeDistance(dx, dy);
    }

    // "(x, y)", as the stream form.
    std::string toString() const {
        std::ostringstream os;
        os << '(' << x << ", " << y << ')';
        return os.str();
    }

    // Exact comparison, also for float.
    bool operator==(const PointT<T>& other) const { return x == other.x && y == other.y; }
    bool operator!=(const PointT<T>& other) const { return !(*this == other); }
};

using IPoint = PointT<int>;
using FPoint = PointT<float>;

template <typename T>
std::ostream& operator<<(std::ostream& os, const PointT<T>& point) {
    return os << '(' << point.x << ", " << point.y << ')';
}

// An axis-aligned rectangle covering [x, x + width) x [y, y + height). Serves as a base class.
template <typename T>
class RectangleT {
public:
    T x;
    T y;
    T width;
    T height;

    RectangleT() : x(0), y(0), width(0), height(0) {}
    RectangleT(T x_, T y_, T width_, T height_) : x(x_), y(y_), width(width_), height(height_) {}
    virtual ~RectangleT() = default;

    RectangleT(const RectangleT&) = default;
    RectangleT& operator=(const RectangleT&) = default;

    // Centre, in float also for integer rectangles, so half pixels survive.
    FPoint getCentroid() const {
        return FPoint(static_cast<float>(x) + static_cast<float>(width) / 2.0f,
                      static_cast<float>(y) + static_cast<float>(height) / 2.0f);
    }
    // Middle of the bottom edge: where a standing person touches the floor.
    FPoint getBottomMidpoint() const {
        return FPoint(static_cast<float>(x) + static_cast<float>(width) / 2.0f,
                      static_cast<float>(y) + static_cast<float>(height));
    }
    // Middle of the top edge.
    FPoint getTopMidpoint() const {
        return FPoint(static_cast<float>(x) + static_cast<float>(width) / 2.0f,
                      static_cast<float>(y));
    }

    // True when the two share an area larger than zero; touching edges do not intersect.
    bool intersects(const RectangleT<T>& other) const {
        return std::min(x + width, other.x + other.width) > std::max(x, other.x) &&
               std::min(y + height, other.y + other.height) > std::max(y, other.y);
    }
    // The common part. Without one, a rectangle of zero width and/or height at the corner where
    // the common part would begin.
    RectangleT<T> intersection(const RectangleT<T>& other) const {
        const T x0 = std::max(x, other.x);
        const T y0 = std::max(y, other.y);
        const T x1 = std::min(x + width, other.x + other.width);
        const T y1 = std::min(y + height, other.y + other.height);
        return RectangleT<T>(x0, y0, x1 > x0 ? x1 - x0 : T(0), y1 > y0 ? y1 - y0 : T(0));
    }
    // Area of the common part, in single precision; 0 for rectangles that only touch.
    float intersectionArea(const RectangleT<T>& other) const {
        const float x0 = std::max(static_cast<float>(x), static_cast<float>(other.x));
        const float x1 = std::min(static_cast<float>(x) + static_cast<float>(width),
                                  static_cast<float>(other.x) + static_cast<float>(other.width));
        const float y0 = std::max(static_cast<float>(y), static_cast<float>(other.y));
        const float y1 = std::min(static_cast<float>(y) + static_cast<float>(height),
                                  static_cast<float>(other.y) + static_cast<float>(other.height));
        return std::max(0.0f, x1 - x0) * std::max(0.0f, y1 - y0);
    }

    float area() const { return static_cast<float>(width) * static_cast<float>(height); }
    // width / height, unguarded: a zero height gives infinity or NaN.
    float aspectRatio() const { return static_cast<float>(width) / static_cast<float>(height); }

    PointT<T> topLeftPoint() const { return PointT<T>(x, y); }
    // The corner just outside the covered area: (x + width, y + height).
    PointT<T> bottomRightPoint() const { return PointT<T>(x + width, y + height); }

    // The smallest rectangle of the given aspect ratio (width / height) that contains this one,
    // with the same centre. The short side is widened on both sides; integer sizes round up so
    // that the result still contains this rectangle. A ratio that is not positive and finite
    // returns this rectangle unchanged.
    RectangleT<T> getSmallestContainingRectangle(float aspectRatio) const {
        if (!(aspectRatio > 0.0f) || !std::isfinite(aspectRatio)) {
            return *this;
        }
        const double w = static_cast<double>(width);
        const double h = static_cast<double>(height);
        RectangleT<T> result = *this;
        if (w < h * aspectRatio) {
            result.width = roundUp(h * aspectRatio);
            result.x = x - half(result.width - width);
        } else if (h < w / aspectRatio) {
            result.height = roundUp(w / aspectRatio);
            result.y = y - half(result.height - height);
        }
        return result;
    }

    // Grows the rectangle by margin on every side (a negative margin shrinks it) and clips the
    // result to the picture [0, width) x [0, height) of resolution. A rectangle that shrinks to
    // nothing or lies outside the picture gets a zero width and/or height.
    RectangleT<T> getExpandedRectangle(T margin, const Resolution& resolution) const {
        const T imageWidth = static_cast<T>(resolution.width);
        const T imageHeight = static_cast<T>(resolution.height);
        const T x0 = std::min(std::max(T(0), x - margin), imageWidth);
        const T y0 = std::min(std::max(T(0), y - margin), imageHeight);
        const T x1 = std::max(std::min(imageWidth, x + width + margin), x0);
        const T y1 = std::max(std::min(imageHeight, y + height + margin), y0);
        return RectangleT<T>(x0, y0, x1 - x0, y1 - y0);
    }

    // Moves the rectangle into the picture, shrinking it only when it is larger than the
    // picture. It is not clipped at the edges.
    RectangleT<T> getBoundedRectangle(const Resolution& resolution) const {
        const T imageWidth = static_cast<T>(resolution.width);
        const T imageHeight = static_cast<T>(resolution.height);
        const T newWidth = std::min(width, imageWidth);
        const T newHeight = std::min(height, imageHeight);
        const T newX = std::max(T(0), std::min(x, imageWidth - newWidth));
        const T newY = std::max(T(0), std::min(y, imageHeight - newHeight));
        return RectangleT<T>(newX, newY, newWidth, newHeight);
    }

    // "Rectangle: x=1, y=2, width=3, height=4".
    std::string toString() const {
        std::ostringstream os;
        os << "Rectangle: x=" << x << ", y=" << y << ", width=" << width << ", height=" << height;
        return os.str();
    }

    bool operator==(const RectangleT<T>& other) const {
        return x == other.x && y == other.y && width == other.width && height == other.height;
    }
    bool operator!=(const RectangleT<T>& other) const { return !(*this == other); }

private:
    static T roundUp(double value) {
        if constexpr (std::is_integral_v<T>) {
            return detail::truncateTo<T>(std::ceil(value));
        } else {
            return static_cast<T>(value);
        }
    }
    static T half(T value) {
        if constexpr (std::is_integral_v<T>) {
            return value / 2;
        } else {
            return value / 2.0f;
        }
    }
};

using IRectangle = RectangleT<int>;
using FRectangle = RectangleT<float>;

// A rectangle that grows to cover the points given to expand. Undefined until the first point:
// all four fields hold std::numeric_limits<T>::min().
template <typename T>
class BoundingBoxT : public RectangleT<T> {
public:
    BoundingBoxT()
        : RectangleT<T>(std::numeric_limits<T>::min(), std::numeric_limits<T>::min(),
                        std::numeric_limits<T>::min(), std::numeric_limits<T>::min()) {}
    BoundingBoxT(T x_, T y_, T width_, T height_) : RectangleT<T>(x_, y_, width_, height_) {}

    bool isUndefined() const { return this->width == std::numeric_limits<T>::min(); }

    // The first point gives a box of zero size at that point; later points widen it to the
    // extreme coordinates (no +1).
    void expand(const PointT<T>& point) {
        if (isUndefined()) {
            this->x = point.x;
            this->y = point.y;
            this->width = 0;
            this->height = 0;
        }
        if (point.x < this->x) {
            this->width += this->x - point.x;
            this->x = point.x;
        } else if (point.x > this->x + this->width) {
            this->width = point.x - this->x;
        }
        if (point.y < this->y) {
            this->height += this->y - point.y;
            this->y = point.y;
        } else if (point.y > this->y + this->height) {
            this->height = point.y - this->y;
        }
    }
};

using IBoundingBox = BoundingBoxT<int>;
using FBoundingBox = BoundingBoxT<float>;

// A circle to be drawn on an overlay; no behaviour of its own.
struct Circle {
    float x = 0.0f;
    float y = 0.0f;
    float radius = 0.0f;

    Circle() = default;
    Circle(float x_, float y_, float radius_) : x(x_), y(y_), radius(radius_) {}
};

} // namespace Ombrel
