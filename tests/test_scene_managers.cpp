// EntranceManager, ExclusionManager and GeometryManager.
#include "EntranceManager.h"
#include "ExclusionManager.h"
#include "GeometryManager.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Ombrel;

namespace {

// Three doorways side by side along the top of a 300x100 picture.
EntranceManager doorways() {
    EntranceManager manager;
    manager.setEntrance(0, true, IPolygon(IRectangle(0, 0, 100, 20)));
    manager.setEntrance(1, true, IPolygon(IRectangle(100, 0, 100, 20)));
    manager.setEntrance(2, true, IPolygon(IRectangle(200, 0, 100, 20)));
    return manager;
}

const FPoint kExterior(150, 80);
const FPoint kIn0(50, 10);
const FPoint kIn1(150, 10);
const FPoint kIn2(250, 10);

void expectInfo(const EntranceInfo& info, EntranceLocation location, EntranceActivity activity) {
    EXPECT_EQ(info.location, location);
    EXPECT_EQ(info.activity, activity);
}

} // namespace

TEST(EntranceManager, ReportsChangesOnly) {
    EntranceManager manager = doorways();
    // First seen inside an entrance: counts as coming from the exterior.
    expectInfo(manager.add(1, kIn1), EntranceLocation::Entrance1, EntranceActivity::EnterEntrance1);
    expectInfo(manager.add(1, kIn1), EntranceLocation::Exterior, EntranceActivity::None);
    // First seen outside: nothing happened.
    expectInfo(manager.add(2, kExterior), EntranceLocation::Exterior, EntranceActivity::None);
    // Entrance to entrance is no crossing, but the location is taken.
    expectInfo(manager.add(3, kIn0), EntranceLocation::Entrance0, EntranceActivity::EnterEntrance0);
    expectInfo(manager.add(3, kIn2), EntranceLocation::Entrance2, EntranceActivity::None);
    expectInfo(manager.add(3, kExterior), EntranceLocation::Exterior,
               EntranceActivity::ExitEntrance2);
    // After remove the object is new again.
    manager.remove(3);
    manager.remove(99);
    expectInfo(manager.add(3, kIn2), EntranceLocation::Entrance2, EntranceActivity::EnterEntrance2);
}

TEST(EntranceManager, CameraInsideSwapsTheWordsAtTheNextCrossing) {
    EntranceManager manager = doorways();
    expectInfo(manager.add(5, kExterior), EntranceLocation::Exterior, EntranceActivity::None);
    manager.setCameraInside(true);
    expectInfo(manager.add(5, kIn0), EntranceLocation::Entrance0, EntranceActivity::ExitEntrance0);
    expectInfo(manager.add(5, kExterior), EntranceLocation::Exterior,
               EntranceActivity::EnterEntrance0);

    // The whole table, both sides.
    const EntranceLocation entrances[] = {EntranceLocation::Entrance0, EntranceLocation::Entrance1,
                                          EntranceLocation::Entrance2};
    for (bool inside : {false, true}) {
        manager.setCameraInside(inside);
        for (int i = 0; i < 3; ++i) {
            const auto enter = static_cast<EntranceActivity>(2 * i);
            const auto exit = static_cast<EntranceActivity>(2 * i + 1);
            EXPECT_EQ(manager.getEntranceActivity(EntranceLocation::Exterior, entrances[i]),
                      inside ? exit : enter);
            EXPECT_EQ(manager.getEntranceActivity(entrances[i], EntranceLocation::Exterior),
                      inside ? enter : exit);
            for (int j = 0; j < 3; ++j) {
                EXPECT_EQ(manager.getEntranceActivity(entrances[i], entrances[j]),
                          EntranceActivity::None);
            }
            EXPECT_EQ(manager.getEntranceActivity(entrances[i], EntranceLocation::Unknown),
                      EntranceActivity::None);
            EXPECT_EQ(manager.getEntranceActivity(EntranceLocation::Unknown, entrances[i]),
                      EntranceActivity::None);
        }
        EXPECT_EQ(
            manager.getEntranceActivity(EntranceLocation::Exterior, EntranceLocation::Exterior),
            EntranceActivity::None);
        EXPECT_EQ(
            manager.getEntranceActivity(EntranceLocation::Exterior, EntranceLocation::Unknown),
            EntranceActivity::None);
    }
}

TEST(EntranceManager, SettersAndInactiveAreas) {
    EntranceManager manager = doorways();
    EXPECT_FALSE(manager.setEntrance(-1, true, IPolygon()));
    EXPECT_FALSE(manager.setEntrance(3, Entrance()));
    EXPECT_TRUE(manager.setEntrance(1, false, IPolygon(IRectangle(100, 0, 100, 20))));
    EXPECT_EQ(manager.getLocation(kIn1), EntranceLocation::Exterior);
    // Overlap: the lower index wins.
    EXPECT_TRUE(manager.setEntrance(2, true, IPolygon(IRectangle(0, 0, 300, 20))));
    EXPECT_EQ(manager.getLocation(kIn0), EntranceLocation::Entrance0);
    EXPECT_EQ(manager.getLocation(kIn1), EntranceLocation::Entrance2);

    FEntrances normalized;
    normalized[0] = FActivablePolygon(true, FRectangle(0, 0, 0.5f, 0.5f));
    normalized[2] = FActivablePolygon(false, FRectangle(0.5f, 0.5f, 0.5f, 0.5f));
    EntranceManager loaded;
    EXPECT_TRUE(loaded.loadFromNormalized(normalized, Resolution(200, 100)));
    EXPECT_EQ(loaded.getLocation(FPoint(50, 25)), EntranceLocation::Entrance0);
    EXPECT_EQ(loaded.getLocation(FPoint(150, 75)), EntranceLocation::Exterior); // inactive
}

TEST(ExclusionManager, BoxesMustLieWhollyInside) {
    ExclusionManager manager;
    EXPECT_FALSE(manager.setExclusion(-1, true, IPolygon()));
    EXPECT_FALSE(manager.setExclusion(3, true, IPolygon()));
    ASSERT_TRUE(manager.setExclusion(1, true, IPolygon(IRectangle(0, 0, 100, 100))));
    ASSERT_TRUE(manager.setExclusion(2, true, IPolygon(IRectangle(0, 0, 200, 200))));

    EXPECT_EQ(manager.getLocation(FRectangle(10, 10, 20, 20)), ExclusionLocation::Exclusion1);
    EXPECT_EQ(manager.getLocation(FRectangle(90, 10, 20, 20)), ExclusionLocation::Exclusion2);
    EXPECT_EQ(manager.getLocation(FRectangle(190, 10, 20, 20)), ExclusionLocation::Exterior);
    EXPECT_EQ(manager.getLocation(FPoint(50, 50)), ExclusionLocation::Exclusion1);
    EXPECT_EQ(manager.getLocation(FPoint(150, 50)), ExclusionLocation::Exclusion2);
    EXPECT_EQ(manager.getLocation(FPoint(250, 50)), ExclusionLocation::Exterior);
    EXPECT_EQ(manager.getExclusions()[1], manager.getExclusion(1));
}

TEST(ExclusionManager, TextFormAndCounts) {
    const Resolution res(200, 100);
    ExclusionManager manager;
    manager.setExclusion(0, true, IPolygon(IRectangle(20, 10, 100, 50)));
    manager.setExclusion(2, false, IPolygon(0, 0, 200, 0, 100, 100));
    const std::string text = manager.serialize(res);
    EXPECT_EQ(text, "3\n1 4 0.1 0.1 0.6 0.1 0.6 0.6 0.1 0.6 \n0 0 \n0 3 0 0 1 0 0.5 1 \n");

    ExclusionManager copy;
    std::istringstream in(text);
    EXPECT_TRUE(copy.deserialize(in, res));
    EXPECT_EQ(copy.getExclusions(), manager.getExclusions());
    EXPECT_EQ(copy.getNormalizedExclusions(res), manager.getNormalizedExclusions(res));

    // A count of 4 is refused with nothing changed; a count of 2 replaces two and keeps the third.
    std::istringstream four("4\n1 0 \n1 0 \n1 0 \n1 0 \n");
    EXPECT_FALSE(copy.deserialize(four, res));
    EXPECT_EQ(copy.getExclusions(), manager.getExclusions());
    std::istringstream negative("-1\n");
    EXPECT_FALSE(copy.deserialize(negative, res));
    std::istringstream two("2\n0 0 \n1 3 0 0 1 0 1 1 \n");
    EXPECT_TRUE(copy.deserialize(two, res));
    EXPECT_FALSE(copy.getExclusion(0).isActive());
    EXPECT_EQ(copy.getExclusion(1).getPoint(2), IPoint(200, 100));
    EXPECT_EQ(copy.getExclusion(2), manager.getExclusion(2));

    ExclusionManager loaded;
    EXPECT_TRUE(loaded.loadFromNormalized(manager.getNormalizedExclusions(res), res));
    EXPECT_EQ(loaded.getExclusions(), manager.getExclusions());
    EXPECT_EQ(denormalize(normalize(manager.getExclusions(), res), res), manager.getExclusions());
}

TEST(GeometryManager, FixedOrderAndExclusionsForBoxes) {
    GeometryManager manager;
    EXPECT_FALSE(manager.setQueue(1, true, IPolygon()));
    EXPECT_FALSE(manager.setCashier(1, true, IPolygon()));
    EXPECT_FALSE(manager.setAOI(3, true, IPolygon()));
    EXPECT_FALSE(manager.setExclusion(-1, true, IPolygon()));
    EXPECT_FALSE(manager.setEntrance(3, true, IPolygon()));

    ASSERT_TRUE(manager.setAOI(0, true, IPolygon(IRectangle(0, 0, 100, 100))));
    ASSERT_TRUE(manager.setAOI(2, true, IPolygon(IRectangle(200, 0, 100, 100))));
    ASSERT_TRUE(manager.setQueue(0, true, IPolygon(IRectangle(250, 0, 100, 100))));
    ASSERT_TRUE(manager.setCashier(0, true, IPolygon(IRectangle(400, 0, 100, 100))));
    ASSERT_TRUE(manager.setEntrance(0, true, IPolygon(IRectangle(600, 0, 100, 100))));
    ASSERT_TRUE(manager.setExclusion(1, true, IPolygon(IRectangle(0, 0, 60, 60))));

    EXPECT_EQ(manager.getLocation(FPoint(50, 50)), Location::AOI0);
    EXPECT_EQ(manager.getLocation(FPoint(260, 50)), Location::AOI2); // AOI before queue
    EXPECT_EQ(manager.getLocation(FPoint(320, 50)), Location::Queue0);
    EXPECT_EQ(manager.getLocation(FPoint(450, 50)), Location::Cashier0);
    EXPECT_EQ(manager.getLocation(FPoint(650, 50)), Location::Exterior); // entrances unread
    EXPECT_TRUE(manager.getEntrance(0).contains(FPoint(650, 50)));
    EXPECT_EQ(manager.getLocation(FPoint(10, 10)), Location::AOI0); // exclusions ignored for points

    // A box wholly in the exclusion is Exterior; half out, it is placed by its centre.
    EXPECT_EQ(manager.getLocation(FRectangle(10, 10, 20, 20)), Location::Exterior);
    EXPECT_EQ(manager.getLocation(FRectangle(40, 10, 40, 20)), Location::AOI0);
    EXPECT_EQ(manager.getLocation(FRectangle(300, 10, 40, 40)), Location::Queue0);
}
