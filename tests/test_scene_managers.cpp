// EntranceManager, ExclusionManager and GeometryManager.
#include "EntranceManager.h"
#include "ExclusionManager.h"
#include "GeometryManager.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Ombrel;

namespace {
IPolygon box(int x, int y, int width, int height) {
    return IPolygon(IRectangle(x, y, width, height));
}
} // namespace

TEST(EntranceManager, ReportsCrossingsOnly) {
    using Loc = EntranceLocation;
    using Act = EntranceActivity;
    EntranceManager manager; // three doorways side by side along the top of a 300x100 picture
    for (int i = 0; i < 3; ++i) {
        manager.setEntrance(i, true, box(100 * i, 0, 100, 20));
    }
    const FPoint exterior(150, 80), in0(50, 10), in1(150, 10), in2(250, 10);
    const auto expect = [&manager](int id, const FPoint& point, Loc location, Act activity) {
        const EntranceInfo info = manager.add(id, point);
        EXPECT_TRUE(info.location == location && info.activity == activity) << id << point;
    };
    // First seen inside an entrance counts as coming from the exterior; no change gives
    // (Exterior, None); entrance to entrance is no crossing, but the location is taken.
    expect(1, in1, Loc::Entrance1, Act::EnterEntrance1);
    expect(1, in1, Loc::Exterior, Act::None);
    expect(2, exterior, Loc::Exterior, Act::None);
    expect(3, in0, Loc::Entrance0, Act::EnterEntrance0);
    expect(3, in2, Loc::Entrance2, Act::None);
    expect(3, exterior, Loc::Exterior, Act::ExitEntrance2);
    manager.remove(3);
    expect(3, in2, Loc::Entrance2, Act::EnterEntrance2);
    manager.setCameraInside(true); // swaps the words at the next crossing
    expect(2, in0, Loc::Entrance0, Act::ExitEntrance0);
    expect(2, exterior, Loc::Exterior, Act::EnterEntrance0);
    EXPECT_EQ(manager.getEntranceActivity(Loc::Unknown, Loc::Entrance1), Act::None);

    // Bad indices; an inactive area gives no location; the lower index wins an overlap.
    EXPECT_FALSE(manager.setEntrance(-1, true, IPolygon()) || manager.setEntrance(3, Entrance()));
    manager.setEntrance(1, false, box(100, 0, 100, 20));
    manager.setEntrance(2, true, box(0, 0, 300, 20));
    EXPECT_EQ(manager.getLocation(in0), Loc::Entrance0);
    EXPECT_EQ(manager.getLocation(in1), Loc::Entrance2);
    FEntrances normalized;
    normalized[0] = FActivablePolygon(true, FRectangle(0, 0, 0.5f, 0.5f));
    EXPECT_TRUE(manager.loadFromNormalized(normalized, Resolution(200, 100)));
    EXPECT_EQ(manager.getLocation(FPoint(50, 25)), Loc::Entrance0);
    EXPECT_EQ(manager.getLocation(FPoint(150, 10)), Loc::Exterior);
}

TEST(ExclusionManager, BoxesMustLieWhollyInsideAndTheTextForm) {
    const Resolution res(200, 100);
    ExclusionManager manager;
    EXPECT_FALSE(manager.setExclusion(-1, true, IPolygon()) ||
                 manager.setExclusion(3, true, IPolygon()));
    manager.setExclusion(1, true, box(0, 0, 100, 100));
    manager.setExclusion(2, true, box(0, 0, 200, 200));
    EXPECT_EQ(manager.getLocation(FRectangle(10, 10, 20, 20)), ExclusionLocation::Exclusion1);
    EXPECT_EQ(manager.getLocation(FRectangle(90, 10, 20, 20)), ExclusionLocation::Exclusion2);
    EXPECT_EQ(manager.getLocation(FRectangle(190, 10, 20, 20)), ExclusionLocation::Exterior);
    EXPECT_EQ(manager.getLocation(FPoint(150, 50)), ExclusionLocation::Exclusion2);

    manager.setExclusion(0, true, box(20, 10, 100, 50));
    manager.setExclusion(1, false, IPolygon());
    manager.setExclusion(2, false, IPolygon(0, 0, 200, 0, 100, 100));
    const std::string text = manager.serialize(res);
    EXPECT_EQ(text, "3\n1 4 0.1 0.1 0.6 0.1 0.6 0.6 0.1 0.6 \n0 0 \n0 3 0 0 1 0 0.5 1 \n");
    // Counts below 0 or above 3 are refused with nothing changed; 2 replaces two, keeps the third.
    ExclusionManager copy;
    for (const std::string& input :
         {text, std::string("4\n1 0 \n1 0 \n1 0 \n1 0 \n"), std::string("-1")}) {
        std::istringstream in(input);
        EXPECT_EQ(copy.deserialize(in, res), input == text);
        EXPECT_EQ(copy.getExclusions(), manager.getExclusions());
    }
    std::istringstream two("2\n0 0 \n1 3 0 0 1 0 1 1 \n");
    EXPECT_TRUE(copy.deserialize(two, res));
    EXPECT_EQ(copy.getExclusion(1), IActivablePolygon(true, IPolygon(0, 0, 200, 0, 200, 100)));
    EXPECT_EQ(copy.getExclusion(2), manager.getExclusion(2));
    EXPECT_TRUE(copy.loadFromNormalized(manager.getNormalizedExclusions(res), res));
    EXPECT_EQ(copy.getExclusions(), manager.getExclusions());
}

TEST(GeometryManager, FixedOrderAndExclusionsForBoxes) {
    GeometryManager manager;
    EXPECT_FALSE(manager.setQueue(1, true, IPolygon()) || manager.setCashier(1, true, IPolygon()) ||
                 manager.setAOI(3, true, IPolygon()) ||
                 manager.setExclusion(-1, true, IPolygon()) ||
                 manager.setEntrance(3, true, IPolygon()));
    manager.setAOI(0, true, box(0, 0, 100, 100));
    manager.setAOI(2, true, box(200, 0, 100, 100));
    manager.setQueue(0, true, box(250, 0, 100, 100));
    manager.setCashier(0, true, box(400, 0, 100, 100));
    manager.setEntrance(0, true, box(600, 0, 100, 100));
    manager.setExclusion(1, true, box(0, 0, 60, 60));
    // Points: the areas before the queue before the cashier; exclusions and entrances unread.
    std::string locations;
    for (float x : {10.0f, 260.0f, 320.0f, 450.0f, 650.0f}) {
        locations += std::to_string(static_cast<int>(manager.getLocation(FPoint(x, 10))));
    }
    EXPECT_EQ(locations, "35126"); // AOI0 AOI2 Queue0 Cashier0 Exterior
    // A box wholly in the exclusion is Exterior; half out, it is placed by its centre.
    EXPECT_EQ(manager.getLocation(FRectangle(10, 10, 20, 20)), Location::Exterior);
    EXPECT_EQ(manager.getLocation(FRectangle(40, 10, 40, 20)), Location::AOI0);
}
