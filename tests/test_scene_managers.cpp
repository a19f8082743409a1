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
    for (int i = 0; i < 3; ++i) {
        manager.setEntrance(i, true, IPolygon(IRectangle(100 * i, 0, 100, 20)));
    }
    return manager;
}

const FPoint kExterior(150, 80);
const FPoint kIn[] = {FPoint(50, 10), FPoint(150, 10), FPoint(250, 10)};

using Loc = EntranceLocation;
using Act = EntranceActivity;

void expectInfo(const EntranceInfo& info, Loc location, Act activity) {
    EXPECT_EQ(info.location, location);
    EXPECT_EQ(info.activity, activity);
}

} // namespace

TEST(EntranceManager, ReportsCrossingsOnly) {
    EntranceManager manager = doorways();
    // First seen inside an entrance: counts as coming from the exterior; then no change.
    expectInfo(manager.add(1, kIn[1]), Loc::Entrance1, Act::EnterEntrance1);
    expectInfo(manager.add(1, kIn[1]), Loc::Exterior, Act::None);
    expectInfo(manager.add(2, kExterior), Loc::Exterior, Act::None);
    // Entrance to entrance is no crossing, but the location is taken.
    expectInfo(manager.add(3, kIn[0]), Loc::Entrance0, Act::EnterEntrance0);
    expectInfo(manager.add(3, kIn[2]), Loc::Entrance2, Act::None);
    expectInfo(manager.add(3, kExterior), Loc::Exterior, Act::ExitEntrance2);
    manager.remove(3);
    manager.remove(99);
    expectInfo(manager.add(3, kIn[2]), Loc::Entrance2, Act::EnterEntrance2);
    // The camera's side swaps the words at the next crossing.
    manager.setCameraInside(true);
    expectInfo(manager.add(2, kIn[0]), Loc::Entrance0, Act::ExitEntrance0);
    expectInfo(manager.add(2, kExterior), Loc::Exterior, Act::EnterEntrance0);
}

TEST(EntranceManager, TheActivityTableOnBothSides) {
    EntranceManager manager;
    const Loc all[] = {Loc::Entrance0, Loc::Entrance1, Loc::Entrance2, Loc::Exterior, Loc::Unknown};
    for (bool inside : {false, true}) {
        manager.setCameraInside(inside);
        for (Loc prior : all) {
            for (Loc current : all) {
                // Only a step between the exterior and entrance i is a crossing.
                Act expected = Act::None;
                if (prior == Loc::Exterior && static_cast<int>(current) < 3) {
                    expected = static_cast<Act>(2 * static_cast<int>(current) + (inside ? 1 : 0));
                } else if (current == Loc::Exterior && static_cast<int>(prior) < 3) {
                    expected = static_cast<Act>(2 * static_cast<int>(prior) + (inside ? 0 : 1));
                }
                EXPECT_EQ(manager.getEntranceActivity(prior, current), expected)
                    << static_cast<int>(prior) << " -> " << static_cast<int>(current);
            }
        }
    }
}

TEST(EntranceManager, SettersOverlapsInactiveAreasAndLoading) {
    EntranceManager manager = doorways();
    EXPECT_FALSE(manager.setEntrance(-1, true, IPolygon()));
    EXPECT_FALSE(manager.setEntrance(3, Entrance()));
    EXPECT_TRUE(manager.setEntrance(1, false, IPolygon(IRectangle(100, 0, 100, 20))));
    EXPECT_EQ(manager.getLocation(kIn[1]), EntranceLocation::Exterior) << "inactive";
    EXPECT_TRUE(manager.setEntrance(2, true, IPolygon(IRectangle(0, 0, 300, 20))));
    EXPECT_EQ(manager.getLocation(kIn[0]), EntranceLocation::Entrance0) << "lower index wins";
    EXPECT_EQ(manager.getLocation(kIn[1]), EntranceLocation::Entrance2);

    FEntrances normalized;
    normalized[0] = FActivablePolygon(true, FRectangle(0, 0, 0.5f, 0.5f));
    normalized[2] = FActivablePolygon(false, FRectangle(0.5f, 0.5f, 0.5f, 0.5f));
    EntranceManager loaded;
    EXPECT_TRUE(loaded.loadFromNormalized(normalized, Resolution(200, 100)));
    EXPECT_EQ(loaded.getLocation(FPoint(50, 25)), EntranceLocation::Entrance0);
    EXPECT_EQ(loaded.getLocation(FPoint(150, 75)), EntranceLocation::Exterior);
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
}

TEST(ExclusionManager, TextFormCountsAndNormalizedForms) {
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

    // Counts below 0 or above 3 are refused with nothing changed; 2 replaces two, keeps the third.
    for (const char* bad : {"4\n1 0 \n1 0 \n1 0 \n1 0 \n", "-1\n"}) {
        std::istringstream refused(bad);
        EXPECT_FALSE(copy.deserialize(refused, res)) << bad;
        EXPECT_EQ(copy.getExclusions(), manager.getExclusions());
    }
    std::istringstream two("2\n0 0 \n1 3 0 0 1 0 1 1 \n");
    EXPECT_TRUE(copy.deserialize(two, res));
    EXPECT_FALSE(copy.getExclusion(0).isActive());
    EXPECT_EQ(copy.getExclusion(1).getPoint(2), IPoint(200, 100));
    EXPECT_EQ(copy.getExclusion(2), manager.getExclusion(2));

    ExclusionManager loaded;
    EXPECT_TRUE(loaded.loadFromNormalized(manager.getNormalizedExclusions(res), res));
    EXPECT_EQ(loaded.getExclusions(), manager.getExclusions());
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
    EXPECT_EQ(manager.getLocation(FPoint(10, 10)), Location::AOI0) << "exclusions ignored";
    EXPECT_EQ(manager.getLocation(FPoint(260, 50)), Location::AOI2) << "areas before the queue";
    EXPECT_EQ(manager.getLocation(FPoint(320, 50)), Location::Queue0);
    EXPECT_EQ(manager.getLocation(FPoint(450, 50)), Location::Cashier0);
    EXPECT_EQ(manager.getLocation(FPoint(650, 50)), Location::Exterior) << "entrances unread";
    EXPECT_TRUE(manager.getEntrance(0).contains(FPoint(650, 50)));

    // A box wholly in the exclusion is Exterior; half out, it is placed by its centre.
    EXPECT_EQ(manager.getLocation(FRectangle(10, 10, 20, 20)), Location::Exterior);
    EXPECT_EQ(manager.getLocation(FRectangle(40, 10, 40, 20)), Location::AOI0);
    EXPECT_EQ(manager.getLocation(FRectangle(300, 10, 40, 40)), Location::Queue0);
}
