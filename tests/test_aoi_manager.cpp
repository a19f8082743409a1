// AOIManager: locations, the dwell state machine, configuration and its text form.
#include "AOIManager.h"
#include "AllocationCounter.h"
#include "LogLines.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

using namespace Ombrel;
using Lines = std::vector<std::string>;

namespace {

// Areas 0 and 1 overlap in x 40..60; area 2 is a triangle further right.
AOIManager threeAreas(int threshold1 = 0) {
    AOIManager manager(NAOI);
    manager.setAOI(0, true, IRectangle(0, 0, 60, 100), 0);
    manager.setAOI(1, true, IPolygon(40, 0, 100, 0, 100, 100, 40, 100), threshold1);
    manager.setAOI(2, true, IPolygon(200, 0, 300, 100, 200, 100), 0);
    return manager;
}

// The answers to a sequence of (findingID, point) sightings, as "AOI0 briefly, ...".
std::string play(AOIManager& manager, std::initializer_list<std::pair<int, FPoint>> sightings) {
    std::string answers;
    for (const auto& [id, point] : sightings) {
        const AOIInfo info = manager.add(id, point);
        answers += (answers.empty() ? "" : ", ") + toString(info.location) +
                   (info.duration == AOIDuration::Lengthily ? " lengthily" : " briefly");
    }
    return answers;
}

} // namespace

TEST(AOIManager, LocationsAndSetters) {
    AOIManager manager = threeAreas();
    std::string locations; // the lower index wins an overlap; an inactive area is passed over
    for (const FPoint& point : {FPoint(50, 50), FPoint(210, 95), FPoint(150, 50)}) {
        locations += toString(manager.getLocation(point)) + " ";
    }
    AOI off = manager.getAOI(0);
    off.setActive(false);
    ASSERT_TRUE(manager.setAOI(0, off));
    EXPECT_EQ(locations + toString(manager.getLocation(FPoint(50, 50))), "AOI0 AOI2 Exterior AOI1");
    // The area count bounds the setters; locations stop at AOI2.
    AOIManager five(5);
    EXPECT_TRUE(five.setAOI(4, true, IRectangle(0, 0, 10, 10), 0));
    EXPECT_FALSE(five.setAOI(5, true, IPolygon(), 0) || AOIManager(0).setAOITimeThreshold(0, 5) ||
                 five.setNControlPoints(5));
    EXPECT_EQ(five.getLocation(FPoint(5, 5)), AOILocation::Exterior) << "area 4 is never reported";
}

TEST(AOIManager, DwellStateMachine) {
    AOIManager manager = threeAreas(1);
    const FPoint in0(10, 10), in1(80, 50), outside(150, 50);
    // The first sighting is briefly even with threshold 0, the second lengthily; every change of
    // area restarts the clock, a move back as well; the exterior has no threshold.
    EXPECT_EQ(play(manager, {{7, in0}, {7, in0}, {7, in1}, {7, in0}, {8, outside}, {8, outside}}),
              "AOI0 briefly, AOI0 lengthily, AOI1 briefly, AOI0 briefly, Exterior briefly, "
              "Exterior briefly");
    // After remove the object is new again.
    manager.remove(7);
    manager.remove(12345);
    EXPECT_EQ(play(manager, {{7, in0}}), "AOI0 briefly");
    // Threshold 1 s: briefly until a whole second has passed; replacing the area keeps the clock.
    EXPECT_EQ(play(manager, {{10, in1}, {10, in1}}), "AOI1 briefly, AOI1 briefly");
    std::this_thread::sleep_for(std::chrono::milliseconds(1010));
    ASSERT_TRUE(manager.setAOI(1, true, IRectangle(60, 0, 40, 100), 1));
    EXPECT_EQ(play(manager, {{10, in1}}), "AOI1 lengthily");
}

TEST(AOIManager, KnownIdsDoNotAllocate) {
    AOIManager manager = threeAreas(5);
    for (int id = 0; id < 50; ++id) {
        manager.add(id, FPoint(static_cast<float>(id * 4), 50));
    }
    StemlibTest::AllocationScope scope;
    for (int frame = 0; frame < 10; ++frame) {
        for (int id = 0; id < 50; ++id) {
            manager.add(id, FPoint(static_cast<float>(id * 4 + frame), 50));
        }
    }
    EXPECT_EQ(scope.count(), 0u);
    manager.add(1000, FPoint(1, 1));
    EXPECT_GT(scope.count(), 0u) << "a new id allocates its entry";
}

TEST(AOIManager, TextFormRoundTripEqualityAndLoading) {
    const Resolution res(640, 480);
    AOIManager manager(NAOI);
    manager.setNControlPoints(6);
    manager.setAOI(0, true, IPolygon(64, 48, 576, 48, 576, 432, 64, 432), 30);
    manager.setAOI(2, false, IRectangle(320, 240, 320, 240), 5);
    const std::string text = manager.serialize(res);
    EXPECT_EQ(text, "6\n3\n1 4 0.1 0.1 0.9 0.1 0.9 0.9 0.1 0.9 30 \n0 0 0 \n"
                    "0 4 0.5 0.5 1 0.5 1 1 0.5 1 5 \n");
    // Independent of the analysis resolution: read at another size, written back the same.
    AOIManager copy(NAOI);
    std::istringstream in(text + text);
    EXPECT_TRUE(copy.deserialize(in, Resolution(1280, 960)));
    EXPECT_EQ(copy.getAOI(0).getPoint(1), IPoint(1152, 96));
    EXPECT_EQ(copy.serialize(Resolution(1280, 960)), text);
    EXPECT_TRUE(copy.deserialize(in, res));
    copy.add(1, FPoint(100, 100));
    EXPECT_TRUE(copy == manager) << "time entries take no part";
    copy.setAOITimeThreshold(0, 31);
    EXPECT_FALSE(copy == manager);

    FAOIS faois{FAOI(true, FRectangle(0, 0, 0.5f, 0.5f), 3), FAOI(), FAOI()};
    EXPECT_TRUE(copy.loadFromNormalized(faois, res));
    EXPECT_TRUE(copy.getAOI(0) == AOI(true, IRectangle(0, 0, 320, 240), 3));
    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    faois.pop_back();
    EXPECT_FALSE(manager.loadFromNormalized(faois, res));
    EXPECT_EQ(manager.serialize(res), text) << "too few elements: nothing changed";
    // A bad control point count becomes 4 and the areas are still read; fewer areas than the
    // manager holds leave the others; more fail at the first past the end, after the others.
    std::istringstream five("5\n1\n1 3 0 0 1 0 1 1 7 \n");
    EXPECT_TRUE(manager.deserialize(five, res));
    EXPECT_EQ(manager.getNControlPoints(), 4u);
    EXPECT_EQ(manager.getAOI(0).getAlertSeconds(), 7u);
    EXPECT_TRUE(manager.getAOI(2) == AOI(false, IRectangle(320, 240, 320, 240), 5));
    AOIManager two(2);
    std::istringstream three("4\n3\n1 3 0 0 1 0 1 1 1 \n1 3 0 0 1 0 1 1 2 \n1 3 0 0 1 0 1 1 3 \n");
    EXPECT_FALSE(two.deserialize(three, res));
    EXPECT_EQ(two.getAOI(1).getAlertSeconds(), 2u);
    EXPECT_EQ(StemlibTest::linesAt(logger, "error"),
              (Lines{"loadFromNormalized: Expected 3 areas, got 2",
                     "deserialize: Invalid number of control points: 5",
                     "deserialize: Invalid number of AOIs: 3"}));
}
