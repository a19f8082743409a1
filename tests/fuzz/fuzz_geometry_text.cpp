// The text forms of the geometry and area types: FPolygon, FActivablePolygon, FAOI, Resolution,
// ActivableResolution and ActivableDuration. The first byte chooses the type ('0' to '5'), the
// rest is the text. Whatever was read whole must write out in a form that reads back the same,
// and the areas must survive the trip to pixels and the containment tests.
#include "FuzzSupport.h"

#include "CommonStructs.h"
#include "Polygons.h"

#include <cmath>
#include <sstream>

using namespace Ombrel;
using StemlibFuzz::check;

namespace {

const Resolution kView(640, 480);

template <typename T>
std::string written(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

// Floats that print in six digits and read back to the same float (no subnormals).
bool printable(const FPolygon& polygon) {
    for (const FPoint& p : polygon) {
        for (const float v : {p.x, p.y}) {
            if (v != 0.0f && std::fpclassify(v) != FP_NORMAL) {
                return false;
            }
        }
    }
    return true;
}

// Reads a value, and when the stream held, checks that its text reads back to the same text.
template <typename T>
bool readAndRoundTrip(const std::string& input, T& value) {
    std::istringstream in(input);
    in >> value;
    if (in.fail()) {
        return false;
    }
    const std::string once = written(value);
    std::istringstream again(once);
    T copy;
    again >> copy;
    check(!again.fail(), "the written form reads back");
    check(written(copy) == once, "the written form reads back to the same text");
    return true;
}

void exercise(const FPolygon& normalized) {
    const IPolygon pixels = denormalize(normalized, kView);
    check(pixels.getNPoints() == normalized.getNPoints(), "denormalize keeps every vertex");
    const FPolygon back = normalize(pixels, kView);
    FPolygon asFloat;
    for (const IPoint& p : pixels) {
        asFloat.addPoint(static_cast<float>(p.x), static_cast<float>(p.y));
    }
    for (const FPoint& probe : {FPoint(0.0f, 0.0f), FPoint(320.5f, 240.5f), FPoint(639.0f, 1.0f)}) {
        (void)pixels.contains(probe);
        (void)asFloat.contains(probe);
    }
    (void)asFloat.contains(FRectangle(10.0f, 10.0f, 100.0f, 50.0f));
    // Polygon in polygon is quadratic in the vertices; the reader allows 100000 of them.
    if (back.getNPoints() <= 1000) {
        (void)asFloat.contains(back);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    if (size == 0) {
        return 0;
    }
    const std::string input = StemlibFuzz::text(data + 1, size - 1);
    switch ((data[0] - '0' + 256) % 6) {
    case 0: {
        FPolygon polygon;
        std::istringstream in(input);
        in >> polygon;
        if (!in.fail() && printable(polygon)) {
            readAndRoundTrip(input, polygon);
        }
        exercise(polygon);
        break;
    }
    case 1: {
        FActivablePolygon polygon;
        std::istringstream in(input);
        in >> polygon;
        if (!in.fail() && printable(polygon)) {
            readAndRoundTrip(input, polygon);
        }
        exercise(polygon);
        (void)denormalize(polygon, kView).contains(FPoint(1.0f, 1.0f));
        break;
    }
    case 2: {
        FAOI area;
        std::istringstream in(input);
        in >> area;
        if (!in.fail() && printable(area)) {
            readAndRoundTrip(input, area);
        }
        exercise(area);
        const AOI pixels(area, kView);
        check(pixels.getAlertSeconds() == area.getAlertSeconds(), "the threshold survives");
        break;
    }
    case 3: {
        Resolution resolution;
        if (readAndRoundTrip(input, resolution)) {
            (void)resolution.aspectRatio();
            (void)resolution.area();
        }
        break;
    }
    case 4: {
        ActivableResolution resolution;
        readAndRoundTrip(input, resolution);
        break;
    }
    default: {
        ActivableDuration duration;
        readAndRoundTrip(input, duration);
        break;
    }
    }
    return 0;
}
