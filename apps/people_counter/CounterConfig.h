// CounterConfig: the people counter's configuration file, and the settings it holds.
//
// The text is the library's configuration head (the version, 2, and the language code) followed
// by, one item a line:
//
//   4                                   control points of the areas
//   3                                   areas of interest, then one area a line:
//   1 6 0 0.32 ... 0.40 5               switch, vertex count, x y fractions, dwell seconds
//   3                                   entrances, then one a line: switch, vertex count, x y ...
//   0                                   1 when the camera stands inside (swaps entries and exits)
//   3                                   exclusions, then one a line, as the entrances
//   0.25 0.3 1 0.05                     pose score, joint score, track time-out in seconds,
//                                       track gate as a fraction of the picture's width
//
// Areas, entrances and exclusions are written in the library's text forms and stored as
// fractions of the picture, so the file fits any analysis resolution.
//
// Unlike the managers' own readers, which take over part of a text before they find its fault,
// a text is checked whole before anything of it is used: validate() says why a text is refused,
// and a refused text changes neither the object, nor the file, nor the process's language.
//
// Threading: no lock; the application guards the object (its web thread updates it while the
// analysis loop reads it).
#pragma once

#include "AOIManager.h"
#include "Config.h"
#include "EntranceManager.h"
#include "ExclusionManager.h"

#include <istream>
#include <string>

namespace PeopleCounting {

struct CounterSettings {
    unsigned int controlPoints = 4;
    Ombrel::FAOIS areas = Ombrel::FAOIS(Ombrel::NAOI);
    Ombrel::FEntrances entrances{};
    bool cameraInside = false;
    Ombrel::FExclusions exclusions{};
    float poseScore = 0.25f;
    float jointScore = 0.3f;
    float trackTimeoutSeconds = 1.0f;
    float trackGate = 0.05f;

    // The settings that fit the sample clip: the path (area 0, 5 s), the lawn (area 1, 10 s),
    // the west end of the path as the entrance, whose edge across the path (x = 250 of the
    // clip's 768) is the line counted: walking west across it enters, walking east exits; and
    // an exclusion over the lamp post's sign.
    static CounterSettings defaults();

    // The lines behind the configuration head.
    std::string serializeBody() const;
    // Reads the lines behind the head into settings; false, with why, for anything out of place.
    // settings is changed only on success.
    static bool readBody(std::istream& stream, CounterSettings& settings, std::string& why);

    bool operator==(const CounterSettings& other) const {
        return serializeBody() == other.serializeBody();
    }
};

class CounterConfig : public Ombrel::Config {
public:
    static constexpr int kVersion = 2;

    // Loads filename, or creates it with the default settings.
    explicit CounterConfig(const std::string& filename);

    std::string serialize() const override;

    // Empty when text is a whole configuration this application takes; otherwise why not.
    // Touches nothing.
    static std::string validate(const std::string& text);

    const CounterSettings& settings() const { return _settings; }

protected:
    using Ombrel::Config::deserializeStream;
    bool deserializeStream(std::stringstream& stream, int versionNumber) override;

private:
    CounterSettings _settings = CounterSettings::defaults();
};

} // namespace PeopleCounting
