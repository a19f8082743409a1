#include "CommonStructs.h"

#include "Points.h"

#include <cmath>
#include <istream>
#include <ostream>
#include <sstream>

namespace Ombrel {

std::string getStemlibVersion() {
    return "1.0.0";
}

float Resolution::aspectRatio() const {
    if (height == 0) {
        g_stemlibLogger.error(
            "aspectRatio: Resolution::aspectRatio called with height = 0, returning 0");
        return 0.0f;
    }
    return static_cast<float>(width) / static_cast<float>(height);
}

std::string Resolution::toString() const {
    return std::to_string(width) + " " + std::to_string(height);
}

unsigned int Resolution::area() const {
    return width * height;
}

AspectRatio Resolution::getAspectRatioType() const {
    constexpr float kTolerance = 0.01f;
    float ratio = aspectRatio();
    if (ratio < 1.0f) {
        ratio = 1.0f / ratio;
    }
    if (std::fabs(ratio - 4.0f / 3.0f) < kTolerance) {
        return AspectRatio::Fullscreen;
    }
    if (std::fabs(ratio - 16.0f / 9.0f) < kTolerance) {
        return AspectRatio::Widescreen;
    }
    if (std::fabs(ratio - 1.0f) < kTolerance) {
        return AspectRatio::Square;
    }
    return AspectRatio::Invalid;
}

std::string ActivableResolution::toString() const {
    return Resolution::toString() + (_isActive ? " Active" : " Inactive");
}

std::string ActivableResolution::serialize() const {
    return std::string(_isActive ? "1" : "0") + " " + std::to_string(width) + " " +
           std::to_string(height);
}

bool ActivableResolution::deserialize(std::istream& is) {
    int flag = 0;
    is >> flag >> width >> height;
    if (is.fail()) {
        g_stemlibLogger.error(
            "deserialize: ActivableResolution::deserialize failed to read values from stream");
        return false;
    }
    _isActive = flag != 0;
    return true;
}

std::string MemoryState::toCSV() const {
    std::ostringstream os;
    os << totalram << ',' << freeram << ',' << sharedram << ',' << bufferram << ',' << totalswap
       << ',' << freeswap << ',' << totalhigh << ',' << freehigh;
    return os.str();
}

void logResolutionSet(const ResolutionSet& resolutionSet, const std::string& prefix) {
    g_stemlibLogger.info("logResolutionSet: " + prefix + "ResolutionSet: <" +
                         std::to_string(resolutionSet.size()) + ">: ");
    for (const Resolution& resolution : resolutionSet) {
        g_stemlibLogger.info("logResolutionSet:    " + resolution.toString());
    }
}

std::ostream& operator<<(std::ostream& os, const Resolution& resolution) {
    return os << resolution.width << ' ' << resolution.height;
}

std::istream& operator>>(std::istream& is, Resolution& resolution) {
    is >> resolution.width;
    is.get();
    return is >> resolution.height;
}

std::ostream& operator<<(std::ostream& os, const ResolutionSet& resolutionSet) {
    os << resolutionSet.size() << ' ';
    for (const Resolution& resolution : resolutionSet) {
        os << resolution << ' ';
    }
    return os;
}

std::ostream& operator<<(std::ostream& os, const ActivableResolution& resolution) {
    return os << resolution.serialize();
}

std::istream& operator>>(std::istream& is, ActivableResolution& resolution) {
    resolution.deserialize(is);
    return is;
}

std::ostream& operator<<(std::ostream& os, const ActivableDuration& duration) {
    return os << (duration._isActive ? 1 : 0) << ' ' << duration._duration;
}

std::istream& operator>>(std::istream& is, ActivableDuration& duration) {
    int flag = 0;
    is >> flag;
    duration._isActive = flag == 1;
    is.get();
    return is >> duration._duration;
}

} // namespace Ombrel
