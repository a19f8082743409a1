// Resolutions, switchable values, enumeration words, iterators and their text forms.
#include "CommonStructs.h"
#include "Location.h"
#include "Points.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>
#include <vector>

using namespace Ombrel;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;

TEST(Resolution, AspectRatioTypes) {
    EXPECT_EQ(Resolution(640, 480).getAspectRatioType(), AspectRatio::Fullscreen);
    EXPECT_EQ(Resolution(480, 640).getAspectRatioType(), AspectRatio::Fullscreen);
    EXPECT_EQ(Resolution(800, 600).getAspectRatioType(), AspectRatio::Fullscreen);
    EXPECT_EQ(Resolution(1920, 1080).getAspectRatioType(), AspectRatio::Widescreen);
    EXPECT_EQ(Resolution(1080, 1920).getAspectRatioType(), AspectRatio::Widescreen);
    EXPECT_EQ(Resolution(300, 300).getAspectRatioType(), AspectRatio::Square);
    EXPECT_EQ(Resolution(1000, 700).getAspectRatioType(), AspectRatio::Invalid);
    // 481x353 differs from 4:3 by 0.0292: beyond the tolerance.
    EXPECT_EQ(Resolution(481, 353).getAspectRatioType(), AspectRatio::Invalid);
    EXPECT_EQ(Resolution(0, 480).getAspectRatioType(), AspectRatio::Invalid);
}

TEST(Resolution, ZeroHeightIsLoggedAndGivesZero) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    EXPECT_EQ(Resolution(640, 0).aspectRatio(), 0.0f);
    EXPECT_EQ(Resolution(640, 0).getAspectRatioType(), AspectRatio::Invalid);
    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::aspectRatio: Resolution::aspectRatio called "
                                       "with height = 0, returning 0");
}

TEST(Resolution, ValueOperations) {
    EXPECT_EQ(Resolution(640, 480).toString(), "640 480");
    EXPECT_EQ(Resolution(640, 480).area(), 307200u);
    EXPECT_EQ(Resolution(65536, 65537).area(), 65536u); // unsigned 32-bit wrap
    EXPECT_EQ(Resolution(640, 480).transpose(), Resolution(480, 640));
    EXPECT_TRUE(Resolution(640, 480) < Resolution(640, 481));
    EXPECT_TRUE(Resolution(639, 1000) < Resolution(640, 1));
    EXPECT_FALSE(Resolution(640, 480) < Resolution(640, 480));

    const ResolutionSet set{Resolution(1280, 720), Resolution(640, 480), Resolution(640, 360)};
    std::ostringstream os;
    os << set;
    EXPECT_EQ(os.str(), "3 640 360 640 480 1280 720 ");
}

TEST(Resolution, ReaderSkipsExactlyOneSeparator) {
    Resolution r;
    std::istringstream("640x480") >> r;
    EXPECT_EQ(r, Resolution(640, 480));
    std::istringstream("800 600") >> r;
    EXPECT_EQ(r, Resolution(800, 600));
    std::istringstream in("1024,  768 tail");
    in >> r;
    EXPECT_EQ(r, Resolution(1024, 768));
    std::ostringstream os;
    os << Resolution(3, 4);
    EXPECT_EQ(os.str(), "3 4");
}

TEST(ActivableResolution, FlagsEqualityAndText) {
    const ActivableResolution off(640, 480, false);
    const ActivableResolution on(640, 480, true);
    EXPECT_FALSE(off == Resolution(640, 480));
    EXPECT_TRUE(on == Resolution(640, 480));
    EXPECT_FALSE(on == Resolution(640, 481));
    EXPECT_FALSE(on == off);
    EXPECT_TRUE(on == ActivableResolution(640, 480, true));
    EXPECT_EQ(on.toString(), "640 480 Active");
    EXPECT_EQ(off.toString(), "640 480 Inactive");
    EXPECT_EQ(on.serialize(), "1 640 480");

    ActivableResolution read;
    std::istringstream in("7 1920 1080");
    EXPECT_TRUE(read.deserialize(in));
    EXPECT_EQ(read, ActivableResolution(1920, 1080, true)); // any non-zero flag is active

    std::stringstream roundTrip;
    roundTrip << off;
    ActivableResolution back(1, 1, true);
    roundTrip >> back;
    EXPECT_EQ(back, off);
}

TEST(ActivableResolution, FailedReadIsLoggedAndKeepsFlag) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    ActivableResolution r(1, 1, true);
    std::istringstream in("0 640 x");
    EXPECT_FALSE(r.deserialize(in));
    EXPECT_TRUE(r.isActive());
    EXPECT_EQ(r.width, 640u); // what extraction left
    ASSERT_EQ(logger.lines.size(), 1u);
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::deserialize: ActivableResolution::deserialize "
                                       "failed to read values from stream");
    // The separator-tolerant form of a plain Resolution is not accepted here.
    std::istringstream cross("1 640x480");
    EXPECT_FALSE(r.deserialize(cross));
}

TEST(ActivableDuration, OnlyFlagOneIsActive) {
    ActivableDuration d(true, 5);
    std::istringstream("2 30") >> d;
    EXPECT_FALSE(d.isActive());
    EXPECT_EQ(d.getDuration(), 30u);
    std::istringstream("1,45") >> d;
    EXPECT_TRUE(d.isActive());
    EXPECT_EQ(d.getDuration(), 45u);

    std::ostringstream os;
    os << ActivableDuration(true, 12);
    EXPECT_EQ(os.str(), "1 12");
    EXPECT_TRUE(ActivableDuration(true, 12) == ActivableDuration(true, 12));
    EXPECT_FALSE(ActivableDuration(true, 12) == ActivableDuration(false, 12));
    EXPECT_EQ(ActivableDuration(), ActivableDuration(false, 0));
}

TEST(Enumerations, WordsAndUnknownValues) {
    EXPECT_EQ(toString(AOILocation::AOI2), "AOI2");
    EXPECT_EQ(toString(AOILocation::Exterior), "Exterior");
    EXPECT_EQ(toString(static_cast<AOILocation>(7)), "Unknown");
    EXPECT_EQ(toString(ExclusionLocation::Exclusion1), "Exclusion1");
    EXPECT_EQ(toString(static_cast<ExclusionLocation>(4)), "Unknown");
    EXPECT_EQ(toString(EntranceLocation::Entrance0), "Entrance0");
    EXPECT_EQ(toString(EntranceLocation::Unknown), "Unknown");
    const char* objects[] = {"Person", "Bicycle", "Car",   "Motorcycle", "Airplane",
                             "Bus",    "Train",   "Truck", "Boat"};
    for (int i = 0; i < NOBJECTCLASSES; ++i) {
        EXPECT_EQ(toString(static_cast<Objects>(i)), objects[i]);
    }
    EXPECT_EQ(toString(Objects::Unknown), "Unknown");
    EXPECT_EQ(toString(static_cast<Objects>(9)), "Unknown");

    EXPECT_EQ(static_cast<int>(Location::Exterior), 6);
    EXPECT_EQ(static_cast<int>(EntranceActivity::None), 6);
    EXPECT_EQ(static_cast<int>(ArmPosition::Unknown), 100);
    EXPECT_EQ(ValidExclusions[2], ExclusionLocation::Exclusion2);
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
    EXPECT_EQ(state.toCSV(), "0,0,0,0,0,0,0,0");
    state.totalram = 1;
    state.freehigh = 8;
    EXPECT_EQ(state.toCSV(), "1,0,0,0,0,0,0,8");

    std::map<int, std::string> map{{3, "c"}, {1, "a"}, {2, "b"}};
    std::string joined;
    for (ValueIteratorT<int, std::string> it(map.begin()), end(map.end()); it != end; ++it) {
        joined += *it;
        it->append("!");
    }
    EXPECT_EQ(joined, "abc");
    const std::map<int, std::string>& constMap = map;
    std::vector<std::string> values(ConstValueIteratorT<int, std::string>(constMap.begin()),
                                    ConstValueIteratorT<int, std::string>(constMap.end()));
    EXPECT_EQ(values, (std::vector<std::string>{"a!", "b!", "c!"}));
}
