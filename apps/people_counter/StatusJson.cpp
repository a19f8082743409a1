#include "StatusJson.h"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace PeopleCounting {

namespace {

// Finite numbers with up to 3 decimals; JSON has no NaN or infinity, so those become null.
std::string number(double value) {
    if (!std::isfinite(value)) {
        return "null";
    }
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), "%.3f", value);
    std::string text = buffer;
    while (text.back() == '0') {
        text.pop_back();
    }
    if (text.back() == '.') {
        text.pop_back();
    }
    return text == "-0" ? "0" : text;
}

const char* boolean(bool value) {
    return value ? "true" : "false";
}

} // namespace

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned char>(c));
                out += escaped;
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

std::string toJson(const CounterStatus& s) {
    std::ostringstream out;
    out << "{\"app\":" << jsonString(s.app) << ",\"running\":" << boolean(s.running)
        << ",\"frame\":" << s.frame << ",\"videoSeconds\":" << number(s.videoSeconds)
        << ",\"fps\":" << number(s.fps) << ",\"language\":" << jsonString(s.language)
        << ",\"inView\":" << s.inView << ",\"peopleSeen\":" << s.peopleSeen
        << ",\"peakInView\":" << s.peakInView << ",\"entries\":" << s.entries
        << ",\"exits\":" << s.exits << ",\"areas\":[";
    for (std::size_t i = 0; i < s.areas.size(); ++i) {
        const AreaStatus& a = s.areas[i];
        out << (i ? "," : "") << "{\"index\":" << i << ",\"active\":" << boolean(a.active)
            << ",\"inside\":" << a.inside << ",\"arrivals\":" << a.arrivals
            << ",\"dwellSeconds\":" << number(a.dwellSeconds)
            << ",\"longestSeconds\":" << number(a.longestSeconds) << "}";
    }
    out << "],\"people\":[";
    for (std::size_t i = 0; i < s.people.size(); ++i) {
        const PersonStatus& p = s.people[i];
        out << (i ? "," : "") << "{\"id\":" << p.id << ",\"area\":" << p.area
            << ",\"dwellSeconds\":" << number(p.dwellSeconds) << ",\"x\":" << number(p.feet.x)
            << ",\"y\":" << number(p.feet.y) << ",\"floor\":";
        if (p.hasFloor) {
            out << "{\"x\":" << number(p.floor.x) << ",\"y\":" << number(p.floor.y) << "}";
        } else {
            out << "null";
        }
        out << "}";
    }
    out << "],\"calibration\":{\"status\":" << jsonString(s.calibrationStatus)
        << ",\"calibrated\":" << boolean(s.calibrated)
        << ",\"observations\":" << s.calibrationObservations << ",\"walkingSpeed\":"
        << (s.walkingSpeed < 0.0 ? std::string("null") : number(s.walkingSpeed))
        << "},\"snapshot\":{\"file\":" << jsonString(s.snapshotFile)
        << ",\"frame\":" << s.snapshotFrame << "},\"configVersion\":" << s.configVersion << "}";
    return out.str();
}

} // namespace PeopleCounting
