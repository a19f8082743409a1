// The people counter's own parts: its tracker, its configuration and the refusal of bad text,
// its archive lines, its status JSON, the choice of camera description, and its web actions.
#if defined(PEOPLE_COUNTER_BINARY)

#include "ArchiveWriter.h"
#include "CameraSetup.h"
#include "CounterConfig.h"
#include "Localization.h"
#include "Logger.h"
#include "PeopleCounter.h"
#include "PersonTracker.h"
#include "ScratchDirectory.h"
#include "StatusJson.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cstdlib>
#include <filesystem>
#include <sstream>

using namespace PeopleCounting;
using namespace StemlibTest;
using Ombrel::FPoint;
using Ombrel::FRectangle;

namespace {

Sighting at(float x, float y) {
    Sighting sighting;
    sighting.centre = FPoint(x, y);
    sighting.feet = FPoint(x, y + 40.0f);
    sighting.box = FRectangle(x - 10.0f, y - 40.0f, 20.0f, 80.0f);
    sighting.score = 0.8f;
    return sighting;
}

int idNear(const PersonTracker& tracker, float x, float y = 200.0f) {
    for (const Track& track : tracker.tracks()) {
        if (track.matched && std::abs(track.centre.x - x) < 1.0f &&
            std::abs(track.centre.y - y) < 1.0f) {
            return track.id;
        }
    }
    return 0;
}

} // namespace

// Two people walking towards each other and past each other keep their ids; a person missed
// for a few frames keeps theirs within the time-out and loses it after; stray detections are
// never confirmed.
TEST(PeopleCounterTracker, KeepsIdsThroughCrossingsGapsAndTimeOuts) {
    TrackerOptions options;
    options.gatePixels = 30.0f;
    options.maxSpeed = 200.0f;
    options.timeoutSeconds = 1.0;
    options.minHits = 3;
    PersonTracker tracker(options);

    // Walking at 100 pixels a second, 10 frames a second, one from each side, passing at
    // frame 10 with 20 pixels between their paths.
    int left = 0;
    int right = 0;
    for (int frame = 0; frame <= 20; ++frame) {
        const double t = frame / 10.0;
        const float a = 100.0f + 10.0f * frame;
        const float b = 300.0f - 10.0f * frame;
        EXPECT_TRUE(tracker.update({at(a, 200.0f), at(b, 220.0f)}, t).empty());
        if (frame == 0) {
            left = idNear(tracker, a);
            right = idNear(tracker, b, 220.0f);
            EXPECT_NE(left, right);
        }
        EXPECT_EQ(idNear(tracker, a), left) << "frame " << frame;
        EXPECT_EQ(idNear(tracker, b, 220.0f), right) << "frame " << frame;
        for (const Track& track : tracker.tracks()) {
            EXPECT_EQ(track.confirmed, frame >= 2);
            EXPECT_EQ(track.newlyConfirmed, frame == 2);
        }
    }

    // The left walker is hidden for 0.8 s (behind a post) and comes back where their speed
    // takes them: same id. The right walker stops being seen and is dropped once more than the
    // time-out has passed, with the id handed back.
    std::vector<int> dropped;
    for (int frame = 21; frame <= 28; ++frame) {
        const auto gone = tracker.update({}, frame / 10.0);
        dropped.insert(dropped.end(), gone.begin(), gone.end());
    }
    EXPECT_TRUE(dropped.empty());
    EXPECT_TRUE(tracker.update({at(100.0f + 10.0f * 29, 200.0f)}, 2.9).empty());
    EXPECT_EQ(idNear(tracker, 390.0f), left);
    const auto gone = tracker.update({at(400.0f, 200.0f)}, 3.05);
    ASSERT_EQ(gone.size(), 1u);
    EXPECT_EQ(gone[0], right);
    EXPECT_EQ(idNear(tracker, 400.0f), left);

    // A detection far from everyone starts a track of its own, which is never confirmed when it
    // does not come back, and is dropped after the time-out.
    tracker.update({at(400.0f, 200.0f), at(700.0f, 500.0f)}, 3.1);
    const int stray = idNear(tracker, 700.0f, 500.0f);
    EXPECT_EQ(stray, right + 1);
    double t = 3.2;
    std::vector<int> later;
    for (; t < 4.4; t += 0.1) {
        const auto out = tracker.update({at(400.0f, 200.0f)}, t);
        later.insert(later.end(), out.begin(), out.end());
    }
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(later[0], stray);
    EXPECT_EQ(tracker.clear(), std::vector<int>{left});
    EXPECT_TRUE(tracker.tracks().empty());
}

// The defaults survive their own text; every kind of bad text is refused with its reason, and
// validate touches nothing (not even the process's language).
TEST(PeopleCounterConfig, RoundTripsAndRefusesBadTextWithReasons) {
    const CounterSettings defaults = CounterSettings::defaults();
    const std::string text = "2\nen\n" + defaults.serializeBody();
    EXPECT_EQ(CounterConfig::validate(text), "");
    std::istringstream body(defaults.serializeBody());
    CounterSettings read;
    std::string why;
    ASSERT_TRUE(CounterSettings::readBody(body, read, why)) << why;
    EXPECT_EQ(read, defaults);
    EXPECT_TRUE(defaults.areas[0].isActive());
    EXPECT_FALSE(defaults.areas[2].isActive());
    // The entrance's right-hand edge is the counted line at x = 250 of the clip's 768.
    EXPECT_NEAR(defaults.entrances[0].getPoint(1).x * 768.0f, 250.0f, 0.01f);

    Ombrel::Localization::setLanguage("fr");
    const auto refusal = [&](const std::string& changed) {
        return CounterConfig::validate(changed);
    };
    std::string bad = text;
    bad.replace(0, 1, "3");
    EXPECT_EQ(refusal(bad), "version 3 is newer than this application's 2");
    EXPECT_EQ(refusal("1\n" + defaults.serializeBody()),
              "version 1 is older than any this application wrote");
    EXPECT_EQ(refusal("2\nxx\n" + defaults.serializeBody()), "language \"xx\" is not supported");
    EXPECT_EQ(refusal("two\nen\n"), "the text does not start with a version number");
    EXPECT_EQ(refusal("2\nen\n5\n3\n"), "control points: 4, 6 or 8 expected");
    EXPECT_EQ(refusal("2\nen\n4\n3\n1 2 0 0 1 1 5\n"), "area 0: a polygon needs 3 to 8 vertices");
    EXPECT_EQ(refusal("2\nen\n4\n3\n1 3 0 0 1.5 0 0 1 5\n"),
              "area 0: vertex 2 lies outside the picture (fractions from 0 to 1)");
    EXPECT_EQ(refusal("2\nen\n4\n3\n1 3 0 0 1 0 0 1 -5\n"),
              "area 0: dwell seconds from 0 to 86400 expected");
    EXPECT_EQ(refusal("2\nen\n4\n4\n"), "areas: a count from 0 to 3 is expected");
    EXPECT_EQ(refusal("2\nen\n4\n0\n0\n2\n"), "camera inside: 0 or 1 expected");
    EXPECT_EQ(refusal("2\nen\n4\n0\n0\n0\n0\n0.25 0.3 1\n"),
              "track gate: a number from 0.001 to 1 is expected");
    EXPECT_EQ(refusal(text + "more"), "unexpected text after the settings: more");
    EXPECT_EQ(refusal("2\nen\n4\n0\n0\n0\n0\n0.25 0.3 1 0.05\n"), "");
    EXPECT_EQ(Ombrel::Localization::getLanguage(), "fr");
    Ombrel::Localization::setLanguage("en");
}

// The web actions of a counter that has not started its camera: the status parses, a refused
// configuration is answered with its reason and leaves file and language alone, and an accepted
// one is stored as sent and taken over.
TEST(PeopleCounterConfig, WebActionsStoreOnlyWhatTheyAccept) {
    ScratchDirectory folder;
    Options options;
    options.appName = "stemlibtest_pc_actions";
    options.outputFolder = folder.path().string();
    options.configFile = folder.file("counter.conf");
    Ombrel::Logger logger(options.appName, folder.file("counter.log"));
    Ombrel::Localization::setLanguage("en");
    {
        PeopleCounter counter(options, CameraPlan(), logger, nullptr);
        const std::string initial = readWholeFile(options.configFile);
        EXPECT_EQ(initial, counter.configText());

        const nlohmann::json status = nlohmann::json::parse(counter.statusJson());
        EXPECT_EQ(status["app"], "stemlibtest_pc_actions");
        EXPECT_EQ(status["areas"].size(), 3u);
        EXPECT_TRUE(status["calibration"]["walkingSpeed"].is_null());

        std::string refused = initial;
        refused.replace(refused.find("\nen\n"), 4, "\nde\n");
        refused += "9";
        EXPECT_EQ(counter.setConfig(refused), "ERROR: unexpected text after the settings: 9");
        EXPECT_EQ(readWholeFile(options.configFile), initial);
        EXPECT_EQ(Ombrel::Localization::getLanguage(), "en");

        std::string accepted = initial;
        accepted.replace(accepted.find("\nen\n"), 4, "\nja\n");
        EXPECT_EQ(counter.setConfig(accepted), "OK");
        EXPECT_EQ(readWholeFile(options.configFile), accepted);
        EXPECT_EQ(Ombrel::Localization::getLanguage(), "ja");
        EXPECT_EQ(counter.configText(), accepted);
    }
    Ombrel::Localization::setLanguage("en");
    // The file written by one run is read by the next.
    {
        PeopleCounter counter(options, CameraPlan(), logger, nullptr);
        EXPECT_NE(counter.configText().find("\nja\n"), std::string::npos);
    }
    Ombrel::Localization::setLanguage("en");
}

// Archive lines: one crowd line per active area and one entrance line per active entrance,
// stamped with the interval's start (run start + 10 s per interval), enumerations as integers.
TEST(PeopleCounterArchives, LinesOfAnInterval) {
    IntervalCounts counts;
    counts.index = 3;
    counts.areaActive = {true, false, true};
    counts.arrivals = {4, 9, 1};
    counts.entranceActive = {true, false, false};
    counts.entries = {2, 0, 0};
    counts.exits = {1, 0, 0};
    counts.peakInView = 6;
    std::tm when{};
    when.tm_year = 125;
    when.tm_mon = 2;
    when.tm_mday = 1;
    when.tm_hour = 12;
    when.tm_isdst = -1;
    const std::time_t start = std::mktime(&when);
    EXPECT_EQ(ArchiveWriter::crowdLines(counts, start),
              (std::vector<std::string>{"2025-03-01 12:00:30,0,0,4", "2025-03-01 12:00:30,2,0,1"}));
    EXPECT_EQ(ArchiveWriter::entranceLines(counts, start),
              std::vector<std::string>{"2025-03-01 12:00:30,0,0,2,1"});
    EXPECT_EQ(ArchiveWriter::occupancyLine(counts, start), "2025-03-01 12:00:30,0,6");
}

// The status JSON parses, escapes texts and writes null where a value is unknown.
TEST(PeopleCounterStatus, JsonParsesWithEscapesAndNulls) {
    CounterStatus status;
    status.app = "a\"b\\c\nd";
    status.calibrationStatus = "New observation in  known sectors, not recalibrating.";
    PersonStatus person;
    person.id = 7;
    person.area = 1;
    person.dwellSeconds = 12.25;
    person.feet = FPoint(10.5f, 20.0f);
    status.people.push_back(person);
    person.id = 8;
    person.hasFloor = true;
    person.floor = FPoint(-1.5f, 3.0f);
    status.people.push_back(person);
    status.fps = 1.0 / 0.0;
    const nlohmann::json parsed = nlohmann::json::parse(toJson(status));
    EXPECT_EQ(parsed["app"], "a\"b\\c\nd");
    EXPECT_TRUE(parsed["fps"].is_null());
    EXPECT_TRUE(parsed["people"][0]["floor"].is_null());
    EXPECT_DOUBLE_EQ(parsed["people"][1]["floor"]["x"].get<double>(), -1.5);
    EXPECT_DOUBLE_EQ(parsed["people"][0]["dwellSeconds"].get<double>(), 12.25);
    EXPECT_EQ(parsed["calibration"]["status"], status.calibrationStatus);
}

// The camera description: ${...} comes from the environment (comments left alone), relative
// video paths are taken from the description's folder, --fast and --threads are appended, and
// the host camera is pointed at the written copy.
TEST(PeopleCounterCamera, DescriptionsAreExpandedAndOverridden) {
    ScratchDirectory folder;
    std::string expanded;
    std::string error;
    ::setenv("STEMLIB_TEST_CLIP_DIR", "/clips", 1);
    ASSERT_TRUE(expandVariables(
        "# ${NOT_EXPANDED}\nvideo.input = file:${STEMLIB_TEST_CLIP_DIR}/a\n", expanded, error))
        << error;
    EXPECT_EQ(expanded, "# ${NOT_EXPANDED}\nvideo.input = file:/clips/a\n");
    EXPECT_FALSE(expandVariables("x = ${STEMLIB_TEST_UNSET_VARIABLE}\n", expanded, error));
    EXPECT_EQ(error, "the camera description refers to ${STEMLIB_TEST_UNSET_VARIABLE}, which is "
                     "not set");
    ::unsetenv("STEMLIB_TEST_CLIP_DIR");

    // A folder of two images, named relative to the description.
    std::filesystem::create_directories(folder.file("cam/pictures"));
    const cv::Mat picture(48, 64, CV_8UC3, cv::Scalar(10, 20, 30));
    cv::imwrite(folder.file("cam/pictures/a.png"), picture);
    cv::imwrite(folder.file("cam/pictures/b.png"), picture);
    writeWholeFile(folder.file("cam/camera.txt"),
                   "channel.1.resolutions = 640x480, 320x240\nvideo.input = images:pictures\n"
                   "video.framerate = 5\n");
    const char* previous = std::getenv("STEMLIB_HOST_CAMERA");
    const std::string saved = previous != nullptr ? previous : "";
    CameraRequest request;
    request.description = folder.file("cam/camera.txt");
    request.fast = true;
    request.threads = 2;
    CameraPlan plan;
    ASSERT_TRUE(planCamera(request, folder.path().string(), plan, error)) << error;
    EXPECT_EQ(plan.input, "images:" + folder.file("cam/pictures"));
    EXPECT_EQ(plan.clipFrames, 2);
    EXPECT_EQ(plan.framerate, 5.0);
    EXPECT_EQ(plan.clipSize, Ombrel::Resolution(64, 48));
    EXPECT_EQ(analysisResolutionFor(plan), Ombrel::Resolution(64, 48));
    EXPECT_EQ(plan.description, folder.file("camera.txt"));
    EXPECT_EQ(std::string(std::getenv("STEMLIB_HOST_CAMERA")), plan.description);
    const std::string written = readWholeFile(plan.description);
    EXPECT_NE(written.find("video.input = images:" + folder.file("cam/pictures") + "\n"),
              std::string::npos)
        << written;
    EXPECT_NE(written.find("\nvideo.framerate = 0\nlarod.threads = 2\n"), std::string::npos)
        << written;
    if (saved.empty()) {
        ::unsetenv("STEMLIB_HOST_CAMERA");
    } else {
        ::setenv("STEMLIB_HOST_CAMERA", saved.c_str(), 1);
    }

    // Without a clip of known size, the largest listed resolution up to 1024 wide.
    CameraPlan listed;
    listed.channelResolutions = {Ombrel::Resolution(1920, 1080), Ombrel::Resolution(1024, 576),
                                 Ombrel::Resolution(640, 360)};
    EXPECT_EQ(analysisResolutionFor(listed), Ombrel::Resolution(1024, 576));
    EXPECT_EQ(analysisResolutionFor(CameraPlan()), Ombrel::Resolution(1024, 576));
}

#endif
