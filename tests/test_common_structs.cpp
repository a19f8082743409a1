// Resolutions, switchable values, enumeration words, iterators and their text forms.
#include "CommonStructs.h"
#include "Location.h"
#include "Points.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <vector>

using namespace Ombrel;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;

TEST(Resolution, AspectRatioTypesWithTheirZeroCases) {
    const std::pair<Resolution, AspectRatio> cases[] = {
        {{640, 480}, AspectRatio::Fullscreen},   {{480, 640}, AspectRatio::Fullscreen},
        {{800, 600}, AspectRatio::Fullscreen},   {{1920, 1080}, AspectRatio::Widescreen},
        {{1080, 1920}, AspectRatio::Widescreen}, {{300, 300}, AspectRatio::Square},
        {{1000, 700}, AspectRatio::Invalid},     {{481, 353}, AspectRatio::Invalid}, // 0.0292 off
        {{0, 480}, AspectRatio::Invalid},
    };
    for (const auto& [resolution, type] : cases) {
        EXPECT_EQ(resolution.getAspectRatioType(), type) << resolution.toString();
    }

    RecordingLogger logger;
    ScopedLogger scope(logger);
    EXPECT_EQ(Resolution(640, 0).aspectRatio(), 0.0f);
    EXPECT_EQ(Resolution(640, 0).getAspectRatioType(), AspectRatio::Invalid);
    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::aspectRatio: Resolution::aspectRatio called "
                                       "with height = 0, returning 0");
}

TEST(Resolution, ValueOperationsAndTextForms) {
    EXPECT_EQ(Resolution(640, 480).toString(), "640 480");
    EXPECT_EQ(Resolution(65536, 65537).area(), 65536u) << "unsigned 32-bit arithmetic";
    EXPECT_EQ(Resolution(640, 480).transpose(), Resolution(480, 640));

    std::ostringstream os; // the set is ordered by width, then height
    os << ResolutionSet{{1280, 720}, {640, 480}, {640, 360}} << '|' << Resolution(3, 4);
    EXPECT_EQ(os.str(), "3 640 360 640 480 1280 720 |3 4");

    // The reader skips exactly one character of any kind between the numbers.
    Resolution r;
    for (const char* text : {"640x480", "640 480", "640,  480 tail"}) {
        std::istringstream(text) >> r;
        EXPECT_EQ(r, Resolution(640, 480)) << text;
        r = Resolution();
    }
}

TEST(ActivableResolution, FlagsEqualityAndTextForm) {
    const ActivableResolution off(640, 480, false);
    const ActivableResolution on(640, 480, true);
    EXPECT_FALSE(off == Resolution(640, 480)) << "an inactive entry never matches";
    EXPECT_TRUE(on == Resolution(640, 480));
    EXPECT_FALSE(on == Resolution(640, 481));
    EXPECT_FALSE(on == off);
    EXPECT_EQ(on.toString(), "640 480 Active");
    EXPECT_EQ(off.toString(), "640 480 Inactive");

    std::stringstream text;
    text << on << ' ' << off;
    EXPECT_EQ(text.str(), "1 640 480 0 640 480");
    ActivableResolution back(1, 1, true);
    EXPECT_TRUE(back.deserialize(text));
    text >> back;
    EXPECT_EQ(back, off);
    std::istringstream seven("7 1920 1080");
    EXPECT_TRUE(back.deserialize(seven));
    EXPECT_EQ(back, ActivableResolution(1920, 1080, true)) << "any non-zero flag is active";
}

TEST(ActivableResolution, AFailedReadIsLoggedAndKeepsTheFlag) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    ActivableResolution r(1, 1, true);
    std::istringstream shortText("0 640 x");
    EXPECT_FALSE(r.deserialize(shortText));
    EXPECT_TRUE(r.isActive());
    EXPECT_EQ(r.width, 640u) << "what extraction left";
    std::istringstream cross("1 640x480");
    EXPECT_FALSE(r.deserialize(cross)) << "only white space separates the numbers here";
    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::deserialize: ActivableResolution::deserialize "
                                       "failed to read values from stream");
}

TEST(ActivableDuration, OnlyTheFlagOneIsActive) {
    ActivableDuration d(true, 5);
    std::istringstream("2 30") >> d;
    EXPECT_EQ(d, ActivableDuration(false, 30));
    std::istringstream("1,45") >> d;
    EXPECT_EQ(d, ActivableDuration(true, 45));
    EXPECT_FALSE(ActivableDuration(true, 12) == ActivableDuration(false, 12));
    std::ostringstream os;
    os << ActivableDuration(true, 12);
    EXPECT_EQ(os.str(), "1 12");
}

TEST(Enumerations, WordsWithUnknownForAnyOtherValue) {
    EXPECT_EQ(toString(AOILocation::AOI2), "AOI2");
    EXPECT_EQ(toString(AOILocation::Exterior), "Exterior");
    EXPECT_EQ(toString(static_cast<AOILocation>(7)), "Unknown");
    EXPECT_EQ(toString(ExclusionLocation::Exclusion1), "Exclusion1");
    EXPECT_EQ(toString(static_cast<ExclusionLocation>(4)), "Unknown");
    EXPECT_EQ(toString(EntranceLocation::Entrance0), "Entrance0");
    EXPECT_EQ(toString(EntranceLocation::Unknown), "Unknown");
    const char* objects[] = {"Person", "Bicycle", "Car",   "Motorcycle", "Airplane",
                             "Bus",    "Train",   "Truck", "Boat",       "Unknown"};
    for (int i = 0; i <= NOBJECTCLASSES; ++i) {
        EXPECT_EQ(toString(static_cast<Objects>(i)), objects[i]);
    }
    EXPECT_EQ(toString(Objects::Unknown), "Unknown");
    EXPECT_EQ(getStemlibVersion(), "1.0.0");
}

TEST(CommonStructs, LogResolutionSetMemoryStateAndValueIterators) {
    RecordingLogger logger;
    {
        ScopedLogger scope(logger);
        logResolutionSet({Resolution(640, 480), Resolution(320, 240)}, "Camera ");
    }
    ASSERT_EQ(logger.lines.size(), 3u);
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::logResolutionSet: Camera ResolutionSet: <2>: ");
    EXPECT_EQ(logger.lines[1].message, "STEMLIB::logResolutionSet:    320 240");
    EXPECT_EQ(logger.lines[2].message, "STEMLIB::logResolutionSet:    640 480");

    MemoryState state;
    state.totalram = 1;
    state.freehigh = 8;
    EXPECT_EQ(state.toCSV(), "1,0,0,0,0,0,0,8");

    std::map<int, std::string> map{{3, "c"}, {1, "a"}, {2, "b"}};
    for (ValueIteratorT<int, std::string> it(map.begin()), end(map.end()); it != end; it++) {
        it->append("!");
    }
    const std::map<int, std::string>& constMap = map;
    const std::vector<std::string> values(ConstValueIteratorT<int, std::string>(constMap.begin()),
                                          ConstValueIteratorT<int, std::string>(constMap.end()));
    EXPECT_EQ(values, (std::vector<std::string>{"a!", "b!", "c!"}));
}
