// Resolutions, switchable values, enumeration words, iterators and their text forms.
#include "CommonStructs.h"
#include "LogLines.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Ombrel;
using Lines = std::vector<std::string>;

TEST(CommonStructs, AspectRatioTypesWithTheirZeroCases) {
    const std::pair<Resolution, AspectRatio> cases[] = {
        {{640, 480}, AspectRatio::Fullscreen},   {{480, 640}, AspectRatio::Fullscreen},
        {{800, 600}, AspectRatio::Fullscreen},   {{1920, 1080}, AspectRatio::Widescreen},
        {{1080, 1920}, AspectRatio::Widescreen}, {{300, 300}, AspectRatio::Square},
        {{1000, 700}, AspectRatio::Invalid},     {{481, 353}, AspectRatio::Invalid}, // 0.0292 off
        {{0, 480}, AspectRatio::Invalid},        {{640, 0}, AspectRatio::Invalid}};
    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    for (const auto& [resolution, type] : cases) {
        EXPECT_EQ(resolution.getAspectRatioType(), type) << resolution.toString();
    }
    EXPECT_EQ(Resolution(640, 0).aspectRatio(), 0.0f);
    const std::string line = "aspectRatio: Resolution::aspectRatio called with height = 0, "
                             "returning 0";
    EXPECT_EQ(StemlibTest::linesAt(logger, "error"), (Lines{line, line}));
    logResolutionSet({Resolution(640, 480), Resolution(320, 240)}, "Camera ");
    EXPECT_EQ(StemlibTest::linesAt(logger, "info"),
              (Lines{"logResolutionSet: Camera ResolutionSet: <2>: ",
                     "logResolutionSet:    320 240", "logResolutionSet:    640 480"}));
}

TEST(CommonStructs, ResolutionsDurationsAndTheirTextForms) {
    EXPECT_EQ(Resolution(65536, 65537).area(), 65536u) << "unsigned 32-bit arithmetic";
    const ActivableResolution off(640, 480, false), on(640, 480, true);
    EXPECT_TRUE(on == Resolution(640, 480) && !(off == Resolution(640, 480)));
    std::ostringstream forms; // a set is ordered by width, then height
    forms << ResolutionSet{{1280, 720}, {640, 480}, {640, 360}} << '|' << on.toString() << '|'
          << off.toString() << '|' << ActivableDuration(true, 12) << '|' << on << ' ' << off;
    EXPECT_EQ(forms.str(), "3 640 360 640 480 1280 720 |640 480 Active|640 480 Inactive|1 12|"
                           "1 640 480 0 640 480");
    // An activable resolution allows only white space and takes any non-zero flag as active; a
    // failed read keeps the flag and what extraction left.
    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    std::istringstream text("7 1920 1080 1 640x480");
    ActivableResolution back(1, 1, false);
    EXPECT_TRUE(back.deserialize(text));
    EXPECT_EQ(back, ActivableResolution(1920, 1080, true));
    back.setActive(false);
    EXPECT_FALSE(back.deserialize(text));
    EXPECT_EQ(back, ActivableResolution(640, 0, false));
    EXPECT_EQ(StemlibTest::linesAt(logger, "error"),
              Lines{"deserialize: ActivableResolution::deserialize failed to read values from "
                    "stream"});
    // A plain resolution takes one character of any kind between the numbers; a duration is
    // active only for the flag 1, with one character of any kind behind it.
    Resolution r;
    ActivableDuration d(true, 5), e;
    std::istringstream("640x480 2 30 1,45") >> r >> d >> e;
    EXPECT_EQ(r, Resolution(640, 480));
    EXPECT_EQ(d, ActivableDuration(false, 30));
    EXPECT_EQ(e, ActivableDuration(true, 45));
}

TEST(CommonStructs, WordsVersionAndMemoryState) {
    MemoryState state;
    state.freehigh = 8;
    std::string words =
        toString(static_cast<AOILocation>(7)) + toString(EntranceLocation::Entrance2) +
        toString(static_cast<ExclusionLocation>(4)) + getStemlibVersion() + state.toCSV();
    for (int i = 0; i <= NOBJECTCLASSES; ++i) {
        words += " " + toString(static_cast<Objects>(i));
    }
    EXPECT_EQ(words, "UnknownEntrance2Unknown1.0.00,0,0,0,0,0,0,8 Person Bicycle Car Motorcycle "
                     "Airplane Bus Train Truck Boat Unknown");
}
