// Points, rectangles, bounding boxes and polygons: arithmetic, containment rules and text forms.
#include "Points.h"
#include "Polygons.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <sstream>

using namespace Ombrel;

namespace {
const float kNaN = std::numeric_limits<float>::quiet_NaN();
} // namespace

TEST(Point, DistanceAndText) {
    EXPECT_FLOAT_EQ(FPoint(1.5f, 1.0f).distance(FPoint(-1.5f, 5.0f)), 5.0f);
    // Differences are taken in float: integer extremes do not overflow.
    EXPECT_GT(IPoint(std::numeric_limits<int>::min(), 0)
                  .distance(IPoint(std::numeric_limits<int>::max(), 0)),
              4.0e9f);
    std::ostringstream os;
    os << IPoint(3, -4);
    EXPECT_EQ(os.str(), "(3, -4)");
    EXPECT_EQ(FPoint(1.5f, 2.0f).toString(), "(1.5, 2)");
}

TEST(Rectangle, PointsAreaAndText) {
    const IRectangle r(10, 20, 5, 5);
    EXPECT_EQ(r.getCentroid(), FPoint(12.5f, 22.5f)) << "half pixels survive";
    EXPECT_EQ(r.getBottomMidpoint(), FPoint(12.5f, 25.0f));
    EXPECT_EQ(r.getTopMidpoint(), FPoint(12.5f, 20.0f));
    EXPECT_EQ(r.topLeftPoint(), IPoint(10, 20));
    EXPECT_EQ(r.bottomRightPoint(), IPoint(15, 25));
    EXPECT_FLOAT_EQ(r.area(), 25.0f);
    EXPECT_FLOAT_EQ(FRectangle(0, 0, 16, 9).aspectRatio(), 16.0f / 9.0f);
    EXPECT_TRUE(std::isinf(FRectangle(0, 0, 16, 0).aspectRatio())) << "no guard";
    EXPECT_EQ(FRectangle(1.5f, 2, 3, 4).toString(), "Rectangle: x=1.5, y=2, width=3, height=4");
}

TEST(Rectangle, IntersectionBoundingExpandingAndWidening) {
    const IRectangle a(0, 0, 10, 10);
    EXPECT_FLOAT_EQ(a.intersectionArea(IRectangle(10, 0, 10, 10)), 0.0f); // touching
    EXPECT_FLOAT_EQ(a.intersectionArea(IRectangle(5, 5, 10, 10)), 25.0f);
    EXPECT_TRUE(a.intersects(IRectangle(5, 5, 10, 10)));
    EXPECT_FALSE(a.intersects(IRectangle(10, 0, 10, 10)));
    EXPECT_FALSE(a.intersects(IRectangle(3, 3, 0, 0))) << "no area";
    EXPECT_EQ(a.intersection(IRectangle(5, 5, 10, 10)), IRectangle(5, 5, 5, 5));
    EXPECT_EQ(a.intersection(IRectangle(20, 0, 5, 5)).width, 0);

    // Moved into the picture, shrunk only when larger than it, never clipped.
    const Resolution vga(640, 480);
    EXPECT_EQ(IRectangle(-5, 700, 100, 100).getBoundedRectangle(vga), IRectangle(0, 380, 100, 100));
    EXPECT_EQ(IRectangle(10, 10, 1000, 100).getBoundedRectangle(vga), IRectangle(0, 10, 640, 100));

    // Grown by the margin on every side and clipped to the picture.
    EXPECT_EQ(IRectangle(2, 470, 20, 5).getExpandedRectangle(5, vga), IRectangle(0, 465, 27, 15));
    EXPECT_EQ(IRectangle(10, 10, 4, 4).getExpandedRectangle(-3, vga), IRectangle(13, 13, 0, 0));

    // Widened about the same centre; integer sizes round up so that the result still contains it.
    EXPECT_EQ(IRectangle(0, 0, 3, 10).getSmallestContainingRectangle(0.5f),
              IRectangle(-1, 0, 5, 10));
    EXPECT_EQ(FRectangle(0, 0, 4, 1).getSmallestContainingRectangle(2.0f),
              FRectangle(0, -0.5f, 4, 2));
    EXPECT_EQ(IRectangle(1, 2, 3, 4).getSmallestContainingRectangle(0.0f), IRectangle(1, 2, 3, 4));
}

TEST(BoundingBox, StartsUndefinedAndGrowsToTheExtremes) {
    IBoundingBox box;
    EXPECT_TRUE(box.isUndefined());
    box.expand(IPoint(3, 4));
    EXPECT_FALSE(box.isUndefined());
    EXPECT_EQ(static_cast<IRectangle>(box), IRectangle(3, 4, 0, 0));
    box.expand(IPoint(1, 9));
    box.expand(IPoint(2, 5)); // inside: no change
    EXPECT_EQ(static_cast<IRectangle>(box), IRectangle(1, 4, 2, 5));

    EXPECT_TRUE(IPolygon().getBoundingBox().isUndefined());
    const FBoundingBox fbox = FPolygon(0.5f, 1.0f, 2.5f, -1.0f, 1.0f, 3.0f).getBoundingBox();
    EXPECT_EQ(static_cast<FRectangle>(fbox), FRectangle(0.5f, -1.0f, 2.0f, 4.0f));
}

TEST(Polygon, ConstructorsKeepVertexOrderAndEqualityNeedsIt) {
    const std::array<int, 10> coordinates = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const IPolygon fromArray(5, coordinates.data());
    ASSERT_EQ(fromArray.getNPoints(), 5u);
    EXPECT_EQ(fromArray.getPoint(4), IPoint(9, 10));
    EXPECT_EQ(IPolygon(0, 0, 1, 0, 2, 0, 2, 1, 2, 2, 1, 2, 0, 2, 0, 1).getPoint(7), IPoint(0, 1));

    const IPolygon square(IRectangle(1, 2, 10, 20));
    EXPECT_EQ(square.toString(), "Polygon: (1, 2) (11, 2) (11, 22) (1, 22) ");
    EXPECT_EQ(FPolygon(0, 0, 12.5f, 0, 1, 1).toString(),
              "Polygon: (0.000000, 0.000000) (12.500000, 0.000000) (1.000000, 1.000000) ");
    EXPECT_EQ(IPolygon().toString(), "Polygon: ");
    // The same vertices from another start or in the other direction are another polygon.
    EXPECT_TRUE(square == IPolygon(1, 2, 11, 2, 11, 22, 1, 22));
    EXPECT_FALSE(square == IPolygon(11, 2, 11, 22, 1, 22, 1, 2));
    EXPECT_FALSE(square == IPolygon(1, 2, 1, 22, 11, 22, 11, 2));
}

TEST(Polygon, WindingNumberIsHalfOpenSignedAndNonzero) {
    const IPolygon square(IRectangle(0, 0, 10, 10));
    for (const FPoint& inside :
         {FPoint(0, 0), FPoint(5, 0), FPoint(0, 5), FPoint(9.999f, 9.999f)}) {
        EXPECT_EQ(square.getWindingNumber(inside), 1) << inside;
    }
    for (const FPoint& outside : {FPoint(10, 0), FPoint(10, 10), FPoint(0, 10), FPoint(5, 10),
                                  FPoint(10, 5), FPoint(-0.001f, 5), FPoint(kNaN, 5)}) {
        EXPECT_FALSE(square.contains(outside)) << outside;
    }
    EXPECT_EQ(IPolygon(0, 0, 0, 10, 10, 10, 10, 0).getWindingNumber(FPoint(5, 5)), -1);

    // Zero, one or two vertices contain nothing.
    EXPECT_EQ(IPolygon().getWindingNumber(FPoint(0, 0)), 0);
    EXPECT_FALSE(IPolygon(1, std::array<int, 2>{5, 5}.data()).contains(FPoint(5, 5)));
    EXPECT_FALSE(IPolygon(2, std::array<int, 4>{0, 0, 10, 10}.data()).contains(FPoint(2, 5)));

    // Nonzero rule: a region wound twice in the same direction is inside.
    const std::array<float, 16> twice = {0, 0, 10, 0, 10, 10, 0, 10, 0, 0, 10, 0, 10, 10, 0, 10};
    EXPECT_EQ(FPolygon(8, twice.data()).getWindingNumber(FPoint(5, 5)), 2);

    // Integer vertices are compared in single precision: 16777217 becomes 16777216.
    const IPolygon tall(0, 0, 10, 0, 10, 16777217, 0, 16777217);
    EXPECT_FALSE(tall.contains(FPoint(5.0f, 16777216.0f)));
    EXPECT_TRUE(tall.contains(FPoint(5.0f, 16777214.0f)));
}

TEST(Polygon, RectangleAndPolygonContainmentTestOnlyCornersAndVertices) {
    const IPolygon square(IRectangle(0, 0, 10, 10));
    EXPECT_TRUE(square.contains(FRectangle(1, 1, 8, 8)));
    EXPECT_FALSE(square.contains(FRectangle(0, 0, 10, 10))) << "its own far corners are outside";
    EXPECT_FALSE(square.contains(FPolygon(1, 1, 20, 1, 1, 5)));

    // An L shape: a box or polygon whose corners lie inside counts, although its middle does not.
    const IPolygon lShape(0, 0, 10, 0, 10, 2, 2, 2, 2, 10, 10, 10, 10, 12, 0, 12);
    EXPECT_FALSE(lShape.contains(FPoint(6, 6)));
    EXPECT_TRUE(lShape.contains(FRectangle(5, 1, 2, 10)));
    EXPECT_TRUE(lShape.contains(FPolygon(1, 1, 9, 1, 9, 11, 1, 11)));

    EXPECT_TRUE(IPolygon().contains(FPolygon()));
    EXPECT_FALSE(IPolygon().contains(FRectangle(0, 0, 0, 0)));
}

TEST(ActivablePolygon, TheSwitchGovernsEveryContainmentFormAndEquality) {
    IActivablePolygon area(false, IRectangle(0, 0, 10, 10));
    for (bool active : {false, true}) {
        area.setActive(active);
        EXPECT_EQ(area.contains(FPoint(5, 5)), active);
        EXPECT_EQ(area.contains(FRectangle(1, 1, 2, 2)), active);
        EXPECT_EQ(area.contains(FPolygon(1, 1, 2, 1, 2, 2)), active);
        EXPECT_TRUE(area.contains(FPolygon())) << "no vertex can fail";
        EXPECT_EQ(area.getWindingNumber(FPoint(5, 5)), 1) << "the vertices are kept";
        EXPECT_EQ(area == IActivablePolygon(true, IRectangle(0, 0, 10, 10)), active);
    }
    EXPECT_EQ(IActivablePolygon(true, IPolygon(0, 0, 1, 0, 1, 1)).toString(),
              "ActivablePolygon: Polygon: (0, 0) (1, 0) (1, 1)  Active:  Active");
    EXPECT_EQ(IActivablePolygon().toString(), "ActivablePolygon: Polygon:  Active:  NOT Active");
}

TEST(Normalization, RoundsHalfUpTruncatesTowardZeroAndSaturates) {
    const FPolygon f(2, std::array<float, 4>{0.5f, -0.001f, -0.9f, 1.0f}.data());
    const IPolygon p = denormalize(f, Resolution(641, 100));
    EXPECT_EQ(p.getPoint(0), IPoint(321, 0));    // 320.5 + 0.5; -0.1 + 0.5 truncated
    EXPECT_EQ(p.getPoint(1), IPoint(-576, 100)); // -576.9 + 0.5 = -576.4 truncated toward zero

    // The area forms keep the flag and the threshold; inside the picture the pixels come back.
    const AOI aoi(true, IRectangle(13, 7, 600, 400), 30);
    const Resolution res(640, 480);
    const FAOI faoi(aoi, res);
    EXPECT_EQ(faoi.getPoint(2), FPoint(613.0f / 640, 407.0f / 480));
    EXPECT_TRUE(faoi.isActive());
    EXPECT_EQ(faoi.getAlertSeconds(), 30u);
    EXPECT_TRUE(AOI(faoi, res) == aoi);
    EXPECT_FALSE(normalize(IActivablePolygon(false, aoi), res).isActive());
    EXPECT_TRUE(denormalize(FActivablePolygon(true, f), res).isActive());
    EXPECT_EQ(AOI(true, IRectangle(0, 0, 1, 1), -1).getAlertSeconds(), 4294967295u);

    // Hostile fractions saturate instead of overflowing; NaN becomes 0.
    const IPolygon clamped =
        denormalize(FPolygon(2, std::array<float, 4>{1e30f, -1e30f, kNaN, 0.0f}.data()), res);
    EXPECT_EQ(clamped.getPoint(0), IPoint(kMaxPixelCoordinate, -kMaxPixelCoordinate));
    EXPECT_EQ(clamped.getPoint(1), IPoint(0, 0));
}
