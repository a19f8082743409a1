// AOIManager: locations, the dwell state machine, configuration and its text form.
#include "AOIManager.h"
#include "AllocationCounter.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <thread>

using namespace Ombrel;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;

namespace {

// Areas 0 and 1 overlap in x 40..60; area 2 is a triangle further right.
AOIManager threeAreas(int threshold0 = 0, int threshold1 = 0) {
    AOIManager manager(NAOI);
    manager.setAOI(0, true, IRectangle(0, 0, 60, 100), threshold0);
    manager.setAOI(1, true, IPolygon(40, 0, 100, 0, 100, 100, 40, 100), threshold1);
    manager.setAOI(2, true, IPolygon(200, 0, 300, 100, 200, 100), 0);
    return manager;
}

// Adds the object and checks the answer.
void expectAdd(AOIManager& manager, int id, const FPoint& point, AOILocation location,
               AOIDuration duration) {
    const AOIInfo info = manager.add(id, point);
    EXPECT_EQ(info.location, location) << "id " << id << " at " << point;
    EXPECT_EQ(info.duration, duration) << "id " << id << " at " << point;
}

} // namespace

TEST(AOIManager, LocationsAndSetters) {
    AOIManager manager = threeAreas();
    EXPECT_EQ(manager.getLocation(FPoint(50, 50)), AOILocation::AOI0);
    EXPECT_EQ(manager.getLocation(FPoint(80, 50)), AOILocation::AOI1);
    EXPECT_EQ(manager.getLocation(FPoint(210, 95)), AOILocation::AOI2);
    EXPECT_EQ(manager.getLocation(FPoint(150, 50)), AOILocation::Exterior);
    AOI off = manager.getAOI(0);
    off.setActive(false);
    ASSERT_TRUE(manager.setAOI(0, off));
    EXPECT_EQ(manager.getLocation(FPoint(50, 50)), AOILocation::AOI1);

    // The area count bounds the setters; locations stop at AOI2.
    AOIManager none(0);
    EXPECT_FALSE(none.setAOI(0, true, IRectangle(0, 0, 10, 10), 0));
    EXPECT_FALSE(none.setAOITimeThreshold(0, 5));
    EXPECT_EQ(none.getLocation(FPoint(5, 5)), AOILocation::Exterior);

    AOIManager five(5);
    EXPECT_TRUE(five.setAOI(4, true, IRectangle(0, 0, 10, 10), 0));
    EXPECT_FALSE(five.setAOI(5, true, IPolygon(), 0));
    EXPECT_EQ(five.getLocation(FPoint(5, 5)), AOILocation::Exterior) << "area 4 is never reported";

    EXPECT_EQ(five.getNControlPoints(), 4u);
    EXPECT_TRUE(five.setNControlPoints(8));
    EXPECT_FALSE(five.setNControlPoints(5));
    EXPECT_EQ(five.getNControlPoints(), 8u);
    EXPECT_TRUE(five.setAOITimeThreshold(1, -1));
    EXPECT_EQ(five.getAOI(1).getAlertSeconds(), 4294967295u);
}

TEST(AOIManager, DwellStateMachine) {
    const auto briefly = AOIDuration::Briefly;
    const auto lengthily = AOIDuration::Lengthily;
    AOIManager manager = threeAreas(0, 1);
    const FPoint in0(10, 10);
    const FPoint in1(80, 50);
    const FPoint outside(150, 50);
    // The first sighting is Briefly even with threshold 0, the second Lengthily.
    expectAdd(manager, 7, in0, AOILocation::AOI0, briefly);
    expectAdd(manager, 7, FPoint(20, 20), AOILocation::AOI0, lengthily);
    // Every change of area restarts the clock, a move back as well.
    expectAdd(manager, 7, in1, AOILocation::AOI1, briefly);
    expectAdd(manager, 7, in0, AOILocation::AOI0, briefly);
    expectAdd(manager, 7, in0, AOILocation::AOI0, lengthily);
    // After remove the object is new again; an unknown id is ignored.
    manager.remove(7);
    manager.remove(12345);
    expectAdd(manager, 7, in0, AOILocation::AOI0, briefly);
    // Exterior, and a location without an area, stay Briefly however long the object stays.
    expectAdd(manager, 8, outside, AOILocation::Exterior, briefly);
    expectAdd(manager, 8, outside, AOILocation::Exterior, briefly);
    EXPECT_EQ(manager.updateTimeMap(8, AOILocation::Unknown).duration, briefly);
    EXPECT_EQ(manager.updateTimeMap(8, AOILocation::Unknown).duration, briefly);

    // Threshold 1 s in area 1: Briefly until a whole second has passed.
    expectAdd(manager, 9, in1, AOILocation::AOI1, briefly);
    expectAdd(manager, 9, in1, AOILocation::AOI1, briefly);
    std::this_thread::sleep_for(std::chrono::milliseconds(1010));
    expectAdd(manager, 9, in1, AOILocation::AOI1, lengthily);
    // Replacing the area keeps the clocks.
    ASSERT_TRUE(manager.setAOI(1, true, IRectangle(60, 0, 40, 100), 1));
    expectAdd(manager, 9, in1, AOILocation::AOI1, lengthily);
}

TEST(AOIManager, KnownIdsDoNotAllocate) {
    AOIManager manager = threeAreas(5, 5);
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
    EXPECT_EQ(text, "6\n3\n"
                    "1 4 0.1 0.1 0.9 0.1 0.9 0.9 0.1 0.9 30 \n"
                    "0 0 0 \n"
                    "0 4 0.5 0.5 1 0.5 1 1 0.5 1 5 \n");

    AOIManager copy(NAOI);
    std::istringstream in(text);
    EXPECT_TRUE(copy.deserialize(in, res));
    EXPECT_TRUE(copy == manager);
    copy.add(1, FPoint(100, 100));
    EXPECT_TRUE(copy == manager) << "time entries take no part";
    copy.setAOITimeThreshold(0, 31);
    EXPECT_FALSE(copy == manager);

    // Independent of the analysis resolution: read at another size, written back the same.
    AOIManager scaled(NAOI);
    std::istringstream again(text);
    EXPECT_TRUE(scaled.deserialize(again, Resolution(1280, 960)));
    EXPECT_EQ(scaled.getAOI(0).getPoint(1), IPoint(1152, 96));
    EXPECT_EQ(scaled.serialize(Resolution(1280, 960)), text);

    FAOIS faois{FAOI(true, FRectangle(0, 0, 0.5f, 0.5f), 3), FAOI(), FAOI()};
    AOIManager loaded(NAOI);
    EXPECT_TRUE(loaded.loadFromNormalized(faois, res));
    EXPECT_TRUE(loaded.getAOI(0) == AOI(true, IRectangle(0, 0, 320, 240), 3));

    RecordingLogger logger;
    ScopedLogger scope(logger);
    faois.pop_back();
    EXPECT_FALSE(loaded.loadFromNormalized(faois, res)) << "too few elements: nothing changed";
    EXPECT_TRUE(loaded.getAOI(0) == AOI(true, IRectangle(0, 0, 320, 240), 3));
    ASSERT_EQ(logger.lines.size(), 1u);
    EXPECT_EQ(logger.lines[0].level, "error");
}

TEST(AOIManager, DeserializeReportsBadCountsAndKeepsWhatItRead) {
    const Resolution res(100, 100);
    RecordingLogger logger;
    ScopedLogger scope(logger);

    // Five control points: logged, replaced by 4, and the areas are still read.
    AOIManager manager(NAOI);
    std::istringstream five("5\n1\n1 3 0 0 1 0 1 1 7 \n");
    EXPECT_TRUE(manager.deserialize(five, res));
    EXPECT_EQ(manager.getNControlPoints(), 4u);
    EXPECT_EQ(manager.getAOI(0).getAlertSeconds(), 7u);

    // Three areas into a manager of two: logged, areas 0 and 1 replaced, false at the third.
    AOIManager two(2);
    std::istringstream three("4\n3\n1 3 0 0 1 0 1 1 1 \n1 3 0 0 1 0 1 1 2 \n1 3 0 0 1 0 1 1 3 \n");
    EXPECT_FALSE(two.deserialize(three, res));
    EXPECT_EQ(two.getAOI(0).getAlertSeconds(), 1u);
    EXPECT_EQ(two.getAOI(1).getAlertSeconds(), 2u);

    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::deserialize: Invalid number of control points: 5");
    EXPECT_EQ(logger.lines[1].level, "error");
    EXPECT_EQ(logger.lines[1].message, "STEMLIB::deserialize: Invalid number of AOIs: 3");

    // Fewer areas than the manager holds: success, the rest untouched.
    AOIManager keep = threeAreas();
    std::istringstream one("4\n1\n0 0 9 \n");
    EXPECT_TRUE(keep.deserialize(one, res));
    EXPECT_EQ(keep.getAOI(0).getNPoints(), 0u);
    EXPECT_TRUE(keep.getAOI(2) == threeAreas().getAOI(2));
}
