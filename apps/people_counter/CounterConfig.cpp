#include "CounterConfig.h"

#include "Localization.h"
#include "LoggerWrapper.h"

#include <cmath>
#include <sstream>

namespace PeopleCounting {

using namespace Ombrel;

namespace {

// The clip's frame, 768 x 576, in which the default areas were placed by eye.
constexpr float kClipWidth = 768.0f;
constexpr float kClipHeight = 576.0f;

FPolygon clipPolygon(std::initializer_list<float> pixels) {
    FPolygon polygon;
    for (auto it = pixels.begin(); it != pixels.end(); it += 2) {
        polygon.addPoint(*it / kClipWidth, *(it + 1) / kClipHeight);
    }
    return polygon;
}

// A polygon with a switch: "0|1 <count> x y ...", each fraction in [0, 1], 3 to 8 vertices (an
// area without vertices is allowed when switched off).
bool readPolygon(std::istream& in, const std::string& what, bool& active, FPolygon& polygon,
                 std::string& why) {
    int flag = -1;
    long count = -1;
    if (!(in >> flag) || (flag != 0 && flag != 1)) {
        why = what + ": the switch must be 0 or 1";
        return false;
    }
    if (!(in >> count) || count < 0 || count > 8 || (count > 0 && count < 3)) {
        why = what + ": a polygon needs 3 to 8 vertices";
        return false;
    }
    if (flag == 1 && count == 0) {
        why = what + ": a switched-on polygon needs vertices";
        return false;
    }
    polygon.clear();
    for (long i = 0; i < count; ++i) {
        float x = 0.0f;
        float y = 0.0f;
        if (!(in >> x >> y)) {
            why = what + ": vertex " + std::to_string(i + 1) + " is missing or not a number";
            return false;
        }
        if (!std::isfinite(x) || !std::isfinite(y) || x < 0.0f || x > 1.0f || y < 0.0f ||
            y > 1.0f) {
            why = what + ": vertex " + std::to_string(i + 1) +
                  " lies outside the picture (fractions from 0 to 1)";
            return false;
        }
        polygon.addPoint(x, y);
    }
    active = flag == 1;
    return true;
}

bool readCount(std::istream& in, const std::string& what, int most, int& count, std::string& why) {
    if (!(in >> count) || count < 0 || count > most) {
        why = what + ": a count from 0 to " + std::to_string(most) + " is expected";
        return false;
    }
    return true;
}

bool readNumber(std::istream& in, const std::string& what, float low, float high, float& value,
                std::string& why) {
    float read = 0.0f;
    if (!(in >> read) || !std::isfinite(read) || read < low || read > high) {
        std::ostringstream text;
        text << what << ": a number from " << low << " to " << high << " is expected";
        why = text.str();
        return false;
    }
    value = read;
    return true;
}

} // namespace

CounterSettings CounterSettings::defaults() {
    CounterSettings settings;
    settings.areas[0] = FAOI(
        true, clipPolygon({0, 186, 470, 188, 650, 118, 768, 150, 768, 492, 440, 338, 0, 243}), 5);
    settings.areas[1] =
        FAOI(true, clipPolygon({0, 250, 300, 294, 440, 346, 768, 500, 768, 576, 0, 576}), 10);
    settings.areas[2] = FAOI();
    settings.entrances[0] =
        FActivablePolygon(true, clipPolygon({0, 168, 250, 172, 250, 282, 0, 246}));
    settings.exclusions[0] =
        FActivablePolygon(true, clipPolygon({405, 196, 452, 196, 452, 250, 405, 250}));
    return settings;
}

std::string CounterSettings::serializeBody() const {
    std::ostringstream out;
    out << controlPoints << '\n' << areas.size() << '\n';
    for (const FAOI& area : areas) {
        out << area << '\n';
    }
    out << entrances.size() << '\n';
    for (const FActivablePolygon& entrance : entrances) {
        out << entrance << '\n';
    }
    out << (cameraInside ? 1 : 0) << '\n';
    out << exclusions.size() << '\n';
    for (const FActivablePolygon& exclusion : exclusions) {
        out << exclusion << '\n';
    }
    out << poseScore << ' ' << jointScore << ' ' << trackTimeoutSeconds << ' ' << trackGate << '\n';
    return out.str();
}

bool CounterSettings::readBody(std::istream& in, CounterSettings& settings, std::string& why) {
    CounterSettings read;
    long controlPoints = 0;
    if (!(in >> controlPoints) ||
        (controlPoints != 4 && controlPoints != 6 && controlPoints != 8)) {
        why = "control points: 4, 6 or 8 expected";
        return false;
    }
    read.controlPoints = static_cast<unsigned int>(controlPoints);

    int count = 0;
    if (!readCount(in, "areas", NAOI, count, why)) {
        return false;
    }
    for (int i = 0; i < count; ++i) {
        const std::string what = "area " + std::to_string(i);
        bool active = false;
        FPolygon polygon;
        long seconds = -1;
        if (!readPolygon(in, what, active, polygon, why)) {
            return false;
        }
        if (!(in >> seconds) || seconds < 0 || seconds > 86400) {
            why = what + ": dwell seconds from 0 to 86400 expected";
            return false;
        }
        read.areas[static_cast<std::size_t>(i)] = FAOI(active, polygon, static_cast<int>(seconds));
    }

    if (!readCount(in, "entrances", EntranceManager::MAX_ENTRANCES, count, why)) {
        return false;
    }
    for (int i = 0; i < count; ++i) {
        bool active = false;
        FPolygon polygon;
        if (!readPolygon(in, "entrance " + std::to_string(i), active, polygon, why)) {
            return false;
        }
        read.entrances[static_cast<std::size_t>(i)] = FActivablePolygon(active, polygon);
    }
    int inside = -1;
    if (!(in >> inside) || (inside != 0 && inside != 1)) {
        why = "camera inside: 0 or 1 expected";
        return false;
    }
    read.cameraInside = inside == 1;

    if (!readCount(in, "exclusions", ExclusionManager::MAX_EXCLUSIONS, count, why)) {
        return false;
    }
    for (int i = 0; i < count; ++i) {
        bool active = false;
        FPolygon polygon;
        if (!readPolygon(in, "exclusion " + std::to_string(i), active, polygon, why)) {
            return false;
        }
        read.exclusions[static_cast<std::size_t>(i)] = FActivablePolygon(active, polygon);
    }

    if (!readNumber(in, "pose score", 0.0f, 1.0f, read.poseScore, why) ||
        !readNumber(in, "joint score", 0.0f, 1.0f, read.jointScore, why) ||
        !readNumber(in, "track time-out", 0.1f, 60.0f, read.trackTimeoutSeconds, why) ||
        !readNumber(in, "track gate", 0.001f, 1.0f, read.trackGate, why)) {
        return false;
    }
    std::string rest;
    if (in >> rest) {
        why = "unexpected text after the settings: " + rest;
        return false;
    }
    settings = read;
    return true;
}

CounterConfig::CounterConfig(const std::string& filename) : Config(filename, kVersion) {
    initialize();
}

std::string CounterConfig::serialize() const {
    return Config::serialize() + _settings.serializeBody();
}

bool CounterConfig::deserializeStream(std::stringstream& stream, int /*versionNumber*/) {
    std::string why;
    if (!CounterSettings::readBody(stream, _settings, why)) {
        g_stemlibLogger.bareError("CounterConfig: configuration refused: " + why);
        return false;
    }
    return true;
}

std::string CounterConfig::validate(const std::string& text) {
    std::istringstream in(text);
    long version = 0;
    if (!(in >> version)) {
        return "the text does not start with a version number";
    }
    if (version > kVersion) {
        return "version " + std::to_string(version) + " is newer than this application's " +
               std::to_string(kVersion);
    }
    if (version < 2) {
        return "version " + std::to_string(version) + " is older than any this application wrote";
    }
    std::string language;
    if (!(in >> language) || !Localization::isLanguageSupported(language)) {
        return "language \"" + language + "\" is not supported";
    }
    CounterSettings settings;
    std::string why;
    if (!CounterSettings::readBody(in, settings, why)) {
        return why;
    }
    return "";
}

} // namespace PeopleCounting
