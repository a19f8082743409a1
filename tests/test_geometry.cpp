// Points, rectangles, bounding boxes and polygons: arithmetic, containment rules and text forms.
#include "Points.h"
#include "Polygons.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

using namespace Ombrel;

TEST(Point, DistanceEqualityAndText) {
    EXPECT_FLOAT_EQ(IPoint(0, 0).distance(IPoint(3, 4)), 5.0f);
    EXPECT_FLOAT_EQ(FPoint(1.5f, 1.0f).distance(FPoint(-1.5f, 5.0f)), 5.0f);
    // Integer extremes do not overflow: differences are taken in float.
    EXPECT_GT(IPoint(std::numeric_limits<int>::min(), 0)
                  .distance(IPoint(std::numeric_limits<int>::max(), 0)),
              4.0e9f);

    EXPECT_EQ(FPoint(0.1f, 2.0f), FPoint(0.1f, 2.0f));
    EXPECT_FALSE(FPoint(0.1f, 2.0f) == FPoint(0.1f + 1e-7f, 2.0f));

    std::ostringstream os;
    os << IPoint(3, -4);
    EXPECT_EQ(os.str(), "(3, -4)");
    EXPECT_EQ(FPoint(1.5f, 2.0f).toString(), "(1.5, 2)");
}

TEST(Rectangle, CentroidMidpointsAreaAndCorners) {
    const IRectangle r(0, 0, 5, 5);
    EXPECT_EQ(r.getCentroid(), FPoint(2.5f, 2.5f));
    EXPECT_EQ(r.getBottomMidpoint(), FPoint(2.5f, 5.0f));
    EXPECT_EQ(r.getTopMidpoint(), FPoint(2.5f, 0.0f));
    EXPECT_FLOAT_EQ(r.area(), 25.0f);
    EXPECT_EQ(IRectangle(10, 20, 30, 40).topLeftPoint(), IPoint(10, 20));
    EXPECT_EQ(IRectangle(10, 20, 30, 40).bottomRightPoint(), IPoint(40, 60));
    EXPECT_FLOAT_EQ(FRectangle(0, 0, 16, 9).aspectRatio(), 16.0f / 9.0f);
    EXPECT_TRUE(std::isinf(FRectangle(0, 0, 16, 0).aspectRatio()));
    EXPECT_EQ(IRectangle().toString(), "Rectangle: x=0, y=0, width=0, height=0");
    EXPECT_EQ(FRectangle(1.5f, 2, 3, 4).toString(), "Rectangle: x=1.5, y=2, width=3, height=4");
}

TEST(Rectangle, IntersectionRules) {
    const IRectangle a(0, 0, 10, 10);
    EXPECT_FLOAT_EQ(a.intersectionArea(IRectangle(10, 0, 10, 10)), 0.0f);
    EXPECT_FLOAT_EQ(a.intersectionArea(IRectangle(5, 5, 10, 10)), 25.0f);
    EXPECT_FLOAT_EQ(a.intersectionArea(IRectangle(50, 50, 10, 10)), 0.0f);

    EXPECT_TRUE(a.intersects(IRectangle(5, 5, 10, 10)));
    EXPECT_FALSE(a.intersects(IRectangle(10, 0, 10, 10))); // touching edges only
    EXPECT_FALSE(a.intersects(IRectangle(3, 3, 0, 0)));    // no area

    EXPECT_EQ(a.intersection(IRectangle(5, 5, 10, 10)), IRectangle(5, 5, 5, 5));
    EXPECT_EQ(a.intersection(IRectangle(2, 3, 4, 5)), IRectangle(2, 3, 4, 5));
    const IRectangle none = a.intersection(IRectangle(20, 0, 5, 5));
    EXPECT_EQ(none.width, 0);
    EXPECT_FLOAT_EQ(none.area(), 0.0f);
}

TEST(Rectangle, BoundedExpandedAndContaining) {
    const Resolution vga(640, 480);
    EXPECT_EQ(IRectangle(-5, 700, 100, 100).getBoundedRectangle(vga), IRectangle(0, 380, 100, 100));
    EXPECT_EQ(IRectangle(10, 10, 1000, 100).getBoundedRectangle(vga), IRectangle(0, 10, 640, 100));
    EXPECT_EQ(IRectangle(600, 10, 100, 100).getBoundedRectangle(vga),
              IRectangle(540, 10, 100, 100));

    EXPECT_EQ(IRectangle(10, 10, 20, 20).getExpandedRectangle(5, vga), IRectangle(5, 5, 30, 30));
    EXPECT_EQ(IRectangle(2, 470, 20, 5).getExpandedRectangle(5, vga), IRectangle(0, 465, 27, 15));
    EXPECT_EQ(IRectangle(10, 10, 4, 4).getExpandedRectangle(-3, vga), IRectangle(13, 13, 0, 0));
    EXPECT_EQ(IRectangle(700, 10, 4, 4).getExpandedRectangle(1, vga).width, 0);

    // Widened about the same centre; integer sizes round up so the result still contains it.
    EXPECT_EQ(IRectangle(10, 0, 10, 10).getSmallestContainingRectangle(2.0f),
              IRectangle(5, 0, 20, 10));
    EXPECT_EQ(IRectangle(0, 10, 20, 10).getSmallestContainingRectangle(1.0f),
              IRectangle(0, 5, 20, 20));
    const IRectangle odd = IRectangle(0, 0, 3, 10).getSmallestContainingRectangle(0.5f);
    EXPECT_EQ(odd, IRectangle(-1, 0, 5, 10));
    const FRectangle f = FRectangle(0, 0, 4, 1).getSmallestContainingRectangle(2.0f);
    EXPECT_EQ(f, FRectangle(0, -0.5f, 4, 2));
    EXPECT_EQ(IRectangle(1, 2, 3, 4).getSmallestContainingRectangle(0.0f), IRectangle(1, 2, 3, 4));
}

TEST(BoundingBox, StartsUndefinedAndGrowsToExtremes) {
    IBoundingBox box;
    EXPECT_TRUE(box.isUndefined());
    box.expand(IPoint(3, 4));
    EXPECT_FALSE(box.isUndefined());
    EXPECT_EQ(static_cast<IRectangle>(box), IRectangle(3, 4, 0, 0));
    box.expand(IPoint(1, 9));
    EXPECT_EQ(static_cast<IRectangle>(box), IRectangle(1, 4, 2, 5));
    box.expand(IPoint(2, 5)); // inside: no change
    EXPECT_EQ(static_cast<IRectangle>(box), IRectangle(1, 4, 2, 5));

    EXPECT_TRUE(IPolygon().getBoundingBox().isUndefined());
    EXPECT_TRUE(FPolygon().getBoundingBox().isUndefined());
    const FBoundingBox fbox = FPolygon(0.5f, 1.0f, 2.5f, -1.0f, 1.0f, 3.0f).getBoundingBox();
    EXPECT_EQ(static_cast<FRectangle>(fbox), FRectangle(0.5f, -1.0f, 2.0f, 4.0f));
}

TEST(Polygon, ConstructorsKeepVertexOrder) {
    const int coordinates[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const IPolygon fromArray(5, coordinates);
    ASSERT_EQ(fromArray.getNPoints(), 5u);
    EXPECT_EQ(fromArray.getPoint(4), IPoint(9, 10));

    EXPECT_EQ(IPolygon(0, 0, 1, 0, 1, 1).getNPoints(), 3u);
    const IPolygon six(0, 0, 1, 0, 2, 0, 2, 1, 1, 1, 0, 1);
    EXPECT_EQ(six.getPoint(5), IPoint(0, 1));
    const IPolygon eight(0, 0, 1, 0, 2, 0, 2, 1, 2, 2, 1, 2, 0, 2, 0, 1);
    EXPECT_EQ(eight.getNPoints(), 8u);
    EXPECT_EQ(eight.getPoint(7), IPoint(0, 1));

    const IPolygon fromRectangle(IRectangle(1, 2, 10, 20));
    EXPECT_EQ(fromRectangle, IPolygon(1, 2, 11, 2, 11, 22, 1, 22));
    EXPECT_EQ(fromRectangle.toString(), "Polygon: (1, 2) (11, 2) (11, 22) (1, 22) ");
    EXPECT_EQ(FPolygon(0, 0, 12.5f, 0, 1, 1).toString(),
              "Polygon: (0.000000, 0.000000) (12.500000, 0.000000) (1.000000, 1.000000) ");
    EXPECT_EQ(IPolygon().toString(), "Polygon: ");

    // Same vertices from another start or in the other direction are different polygons.
    const IPolygon square(0, 0, 10, 0, 10, 10, 0, 10);
    EXPECT_FALSE(square == IPolygon(10, 0, 10, 10, 0, 10, 0, 0));
    EXPECT_FALSE(square == IPolygon(0, 0, 0, 10, 10, 10, 10, 0));
    EXPECT_TRUE(square == IPolygon(0, 0, 10, 0, 10, 10, 0, 10));
}

TEST(Polygon, WindingNumberIsHalfOpenAndSigned) {
    const IPolygon square(IRectangle(0, 0, 10, 10));
    for (const FPoint& inside :
         {FPoint(0, 0), FPoint(5, 0), FPoint(0, 5), FPoint(9.999f, 9.999f)}) {
        EXPECT_TRUE(square.contains(inside)) << inside;
        EXPECT_EQ(square.getWindingNumber(inside), 1) << inside;
    }
    for (const FPoint& outside : {FPoint(10, 0), FPoint(10, 10), FPoint(0, 10), FPoint(5, 10),
                                  FPoint(10, 5), FPoint(-0.001f, 5), FPoint(5, -0.001f)}) {
        EXPECT_FALSE(square.contains(outside)) << outside;
    }
    const IPolygon reversed(0, 0, 0, 10, 10, 10, 10, 0);
    EXPECT_EQ(reversed.getWindingNumber(FPoint(5, 5)), -1);
    EXPECT_TRUE(reversed.contains(FPoint(5, 5)));

    // Degenerate polygons contain nothing.
    EXPECT_EQ(IPolygon().getWindingNumber(FPoint(0, 0)), 0);
    IPolygon one;
    one.addPoint(5, 5);
    EXPECT_FALSE(one.contains(FPoint(5, 5)));
    IPolygon two;
    two.addPoint(0, 0);
    two.addPoint(10, 10);
    EXPECT_FALSE(two.contains(FPoint(5, 5)));
    EXPECT_FALSE(two.contains(FPoint(2, 5)));

    // Nonzero rule: a region wound twice in the same direction is inside (winding number 2).
    const float twice[] = {0, 0, 10, 0, 10, 10, 0, 10, 0, 0, 10, 0, 10, 10, 0, 10};
    const FPolygon doubleSquare(8, twice);
    EXPECT_EQ(doubleSquare.getWindingNumber(FPoint(5, 5)), 2);
    EXPECT_TRUE(doubleSquare.contains(FPoint(5, 5)));

    // NaN coordinates compare false everywhere: outside, no trap.
    EXPECT_FALSE(square.contains(FPoint(std::numeric_limits<float>::quiet_NaN(), 5)));
}

TEST(Polygon, IntegerVerticesAreTestedInSinglePrecision) {
    // 16777217 is not a float: as a float vertex it becomes 16777216, on which the point lies.
    const IPolygon tall(0, 0, 10, 0, 10, 16777217, 0, 16777217);
    EXPECT_FALSE(tall.contains(FPoint(5.0f, 16777216.0f)));
    EXPECT_TRUE(tall.contains(FPoint(5.0f, 16777214.0f)));
}

TEST(Polygon, RectangleAndPolygonContainmentTestOnlyCorners) {
    const IPolygon square(IRectangle(0, 0, 10, 10));
    EXPECT_TRUE(square.contains(FRectangle(1, 1, 8, 8)));
    // The far corners of the polygon's own rectangle lie outside the half-open extent.
    EXPECT_FALSE(square.contains(FRectangle(0, 0, 10, 10)));

    // An L shape: a box whose corners are inside but whose middle is not still counts.
    const IPolygon lShape(0, 0, 10, 0, 10, 2, 2, 2, 2, 10, 10, 10, 10, 12, 0, 12);
    EXPECT_TRUE(lShape.contains(FRectangle(5, 1, 2, 10)));
    EXPECT_FALSE(lShape.contains(FPoint(6, 6)));
    EXPECT_TRUE(lShape.contains(FPolygon(1, 1, 9, 1, 9, 11, 1, 11)));
    EXPECT_FALSE(lShape.contains(FPoint(5, 5)));

    EXPECT_TRUE(IPolygon().contains(FPolygon()));
    EXPECT_FALSE(IPolygon().contains(FRectangle(0, 0, 0, 0)));
    EXPECT_FALSE(square.contains(FPolygon(1, 1, 20, 1, 1, 5)));
}

TEST(ActivablePolygon, SwitchGovernsEveryContainmentForm) {
    IActivablePolygon area(false, IRectangle(0, 0, 10, 10));
    EXPECT_FALSE(area.contains(FPoint(5, 5)));
    EXPECT_FALSE(area.contains(FRectangle(1, 1, 2, 2)));
    EXPECT_FALSE(area.contains(FPolygon(1, 1, 2, 1, 2, 2)));
    EXPECT_TRUE(area.contains(FPolygon())); // no vertex can fail
    EXPECT_EQ(area.getWindingNumber(FPoint(5, 5)), 1);

    area.setActive(true);
    EXPECT_TRUE(area.contains(FPoint(5, 5)));
    EXPECT_TRUE(area.contains(FRectangle(1, 1, 2, 2)));
    EXPECT_TRUE(area.contains(FPolygon(1, 1, 2, 1, 2, 2)));

    // The switch is part of equality.
    EXPECT_FALSE(area == IActivablePolygon(false, IRectangle(0, 0, 10, 10)));
    EXPECT_TRUE(area == IActivablePolygon(true, IRectangle(0, 0, 10, 10)));

    EXPECT_EQ(IActivablePolygon(true, IPolygon(0, 0, 1, 0, 1, 1)).toString(),
              "ActivablePolygon: Polygon: (0, 0) (1, 0) (1, 1)  Active:  Active");
    EXPECT_EQ(IActivablePolygon().toString(), "ActivablePolygon: Polygon:  Active:  NOT Active");
}

TEST(AOI, ThresholdEqualityAndConversion) {
    AOI aoi(true, IRectangle(0, 0, 100, 50), 30);
    EXPECT_EQ(aoi.getAlertSeconds(), 30u);
    EXPECT_FALSE(aoi == AOI(true, IRectangle(0, 0, 100, 50), 31));
    EXPECT_TRUE(aoi == AOI(true, 0, 0, 100, 0, 100, 50, 0, 50, 30));
    EXPECT_EQ(AOI(true, IRectangle(0, 0, 1, 1), -1).getAlertSeconds(), 4294967295u);

    const Resolution res(200, 100);
    const FAOI faoi(aoi, res);
    EXPECT_TRUE(faoi.isActive());
    EXPECT_EQ(faoi.getAlertSeconds(), 30u);
    EXPECT_EQ(faoi.getPoint(2), FPoint(0.5f, 0.5f));
    EXPECT_TRUE(AOI(faoi, res) == aoi);
}

TEST(Normalization, RoundsHalfUpAndTruncatesNegativesTowardZero) {
    FPolygon f;
    f.addPoint(0.5f, -0.001f);
    f.addPoint(-0.9f, 1.0f);
    const IPolygon p = denormalize(f, Resolution(641, 100));
    EXPECT_EQ(p.getPoint(0), IPoint(321, 0));    // 320.5 + 0.5 truncated; -0.1 + 0.5 truncated
    EXPECT_EQ(p.getPoint(1), IPoint(-576, 100)); // -576.9 + 0.5 = -576.4 truncated toward zero

    const IPolygon inside(IRectangle(13, 7, 600, 400));
    const Resolution res(640, 480);
    EXPECT_EQ(denormalize(normalize(inside, res), res), inside);

    // Zero resolution: normalize divides by zero without a trap.
    const FPolygon infinite = normalize(IPolygon(1, 1, 2, 2, 0, 0), Resolution(0, 0));
    EXPECT_TRUE(std::isinf(infinite.getPoint(0).x));
    EXPECT_TRUE(std::isnan(infinite.getPoint(2).x));

    // Hostile values saturate instead of overflowing; NaN becomes 0.
    FPolygon hostile;
    hostile.addPoint(1e30f, -1e30f);
    hostile.addPoint(std::numeric_limits<float>::quiet_NaN(), 0.0f);
    const IPolygon clamped = denormalize(hostile, res);
    EXPECT_EQ(clamped.getPoint(0), IPoint(kMaxPixelCoordinate, -kMaxPixelCoordinate));
    EXPECT_EQ(clamped.getPoint(1), IPoint(0, 0));

    const IActivablePolygon active = denormalize(FActivablePolygon(true, f), Resolution(641, 100));
    EXPECT_TRUE(active.isActive());
    EXPECT_FALSE(normalize(IActivablePolygon(false, inside), res).isActive());
}
