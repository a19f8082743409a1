// Points, rectangles, bounding boxes and polygons: arithmetic, containment rules and text forms.
#include "Polygons.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <sstream>

using namespace Ombrel;

TEST(Geometry, PointRectangleAndBoundingBoxArithmetic) {
    // Differences are taken in float: integer extremes do not overflow.
    EXPECT_GT(IPoint(INT32_MIN, 0).distance(IPoint(INT32_MAX, 0)), 4.0e9f);
    std::ostringstream os;
    os << IPoint(3, -4) << FPoint(1.5f, 2.0f).toString() << FRectangle(1.5f, 2, 3, 4).toString();
    EXPECT_EQ(os.str(), "(3, -4)(1.5, 2)Rectangle: x=1.5, y=2, width=3, height=4");
    const IRectangle r(10, 20, 5, 5); // half pixels survive
    EXPECT_EQ(r.getCentroid(), FPoint(12.5f, 22.5f));
    EXPECT_EQ(r.getBottomMidpoint(), FPoint(12.5f, 25.0f));
    EXPECT_EQ(r.getTopMidpoint(), FPoint(12.5f, 20.0f));

    const IRectangle a(0, 0, 10, 10), overlapping(5, 5, 10, 10), touching(10, 0, 10, 10);
    EXPECT_EQ(a.intersectionArea(overlapping) + a.intersectionArea(touching), 25.0f);
    EXPECT_TRUE(a.intersects(overlapping) && !a.intersects(touching));
    EXPECT_EQ(a.intersection(overlapping), IRectangle(5, 5, 5, 5));
    // Moved into the picture and shrunk only when larger than it; expanded ones are clipped.
    const Resolution vga(640, 480);
    EXPECT_EQ(IRectangle(-5, 700, 100, 100).getBoundedRectangle(vga), IRectangle(0, 380, 100, 100));
    EXPECT_EQ(IRectangle(10, 10, 1000, 100).getBoundedRectangle(vga), IRectangle(0, 10, 640, 100));
    EXPECT_EQ(IRectangle(2, 470, 20, 5).getExpandedRectangle(5, vga), IRectangle(0, 465, 27, 15));
    EXPECT_EQ(IRectangle(10, 10, 4, 4).getExpandedRectangle(-3, vga), IRectangle(13, 13, 0, 0));
    // Widened about the same centre; integer sizes round up so that the result still contains it.
    EXPECT_EQ(IRectangle(0, 0, 3, 10).getSmallestContainingRectangle(0.5f),
              IRectangle(-1, 0, 5, 10));
    EXPECT_EQ(FRectangle(0, 0, 4, 1).getSmallestContainingRectangle(2.f),
              FRectangle(0, -.5f, 4, 2));

    IBoundingBox box;
    EXPECT_TRUE(box.isUndefined() && IPolygon().getBoundingBox().isUndefined());
    box.expand(IPoint(3, 4));
    EXPECT_EQ(static_cast<IRectangle>(box), IRectangle(3, 4, 0, 0));
    box.expand(IPoint(1, 9));
    box.expand(IPoint(2, 5)); // inside: no change
    EXPECT_EQ(static_cast<IRectangle>(box), IRectangle(1, 4, 2, 5));
}

TEST(Geometry, WindingNumberContainmentTextAndEquality) {
    const IPolygon square(IRectangle(0, 0, 10, 10)); // half open: [0, 10) x [0, 10)
    for (const FPoint& inside :
         {FPoint(0, 0), FPoint(5, 0), FPoint(0, 5), FPoint(9.999f, 9.999f)}) {
        EXPECT_EQ(square.getWindingNumber(inside), 1) << inside;
    }
    for (const FPoint& outside : {FPoint(10, 0), FPoint(10, 10), FPoint(0, 10), FPoint(5, 10),
                                  FPoint(10, 5), FPoint(-0.001f, 5), FPoint(NAN, 5)}) {
        EXPECT_FALSE(square.contains(outside)) << outside;
    }
    EXPECT_EQ(IPolygon(0, 0, 0, 10, 10, 10, 10, 0).getWindingNumber(FPoint(5, 5)), -1);
    EXPECT_FALSE(IPolygon(2, std::array<int, 4>{0, 0, 10, 10}.data()).contains(FPoint(2, 5)));
    // Nonzero rule: a region wound twice in the same direction is inside.
    const std::array<float, 16> twice = {0, 0, 10, 0, 10, 10, 0, 10, 0, 0, 10, 0, 10, 10, 0, 10};
    EXPECT_EQ(FPolygon(8, twice.data()).getWindingNumber(FPoint(5, 5)), 2);
    // Integer vertices are compared in single precision: 16777217 becomes 16777216.
    const IPolygon tall(0, 0, 10, 0, 10, 16777217, 0, 16777217);
    EXPECT_TRUE(!tall.contains(FPoint(5, 16777216.0f)) && tall.contains(FPoint(5, 16777214.0f)));

    // Boxes and polygons: only corners and vertices are tested, so an L shape contains a box
    // whose middle lies outside it, and a polygon does not contain its own rectangle.
    EXPECT_FALSE(square.contains(FRectangle(0, 0, 10, 10)));
    const IPolygon lShape(0, 0, 10, 0, 10, 2, 2, 2, 2, 10, 10, 10, 10, 12, 0, 12);
    EXPECT_FALSE(lShape.contains(FPoint(6, 6)));
    EXPECT_TRUE(lShape.contains(FRectangle(5, 1, 2, 10)));
    EXPECT_TRUE(lShape.contains(FPolygon(1, 1, 9, 1, 9, 11, 1, 11)));
    EXPECT_TRUE(IPolygon().contains(FPolygon()) && !IPolygon().contains(FRectangle()));
    IActivablePolygon area(false, IRectangle(0, 0, 10, 10));
    for (bool active : {false, true}) { // switched on again, the kept vertices count
        area.setActive(active);
        EXPECT_EQ(area.contains(FPoint(5, 5)), active);
        EXPECT_EQ(area.contains(FRectangle(1, 1, 2, 2)), active);
        EXPECT_EQ(area.contains(FPolygon(1, 1, 2, 1, 2, 2)), active);
    }

    EXPECT_EQ(IActivablePolygon(true, IPolygon(0, 0, 1, 0, 1, 1)).toString(),
              "ActivablePolygon: Polygon: (0, 0) (1, 0) (1, 1)  Active:  Active");
    EXPECT_EQ(IActivablePolygon().toString(), "ActivablePolygon: Polygon:  Active:  NOT Active");
    EXPECT_EQ(FPolygon(0, 0, 12.5f, 0, 1, 1).toString(),
              "Polygon: (0.000000, 0.000000) (12.500000, 0.000000) (1.000000, 1.000000) ");
    EXPECT_TRUE(square == IPolygon(4, std::array<int, 8>{0, 0, 10, 0, 10, 10, 0, 10}.data()));
    EXPECT_FALSE(square == IPolygon(10, 0, 10, 10, 0, 10, 0, 0)) << "another start";
    EXPECT_FALSE(area == IActivablePolygon(false, square));
}

TEST(Geometry, NormalizationRoundsHalfUpTruncatesTowardZeroAndSaturates) {
    const auto pixels = [](std::array<float, 4> fractions, const Resolution& resolution) {
        const IPolygon p = denormalize(FPolygon(2, fractions.data()), resolution);
        return std::array<int, 4>{p.getPoint(0).x, p.getPoint(0).y, p.getPoint(1).x,
                                  p.getPoint(1).y};
    };
    // 320.5 + 0.5 and -0.1 + 0.5 truncated; -576.9 + 0.5 = -576.4 truncated toward zero.
    EXPECT_EQ(pixels({0.5f, -0.001f, -0.9f, 1.0f}, Resolution(641, 100)),
              (std::array<int, 4>{321, 0, -576, 100}));
    // Hostile fractions saturate instead of overflowing; NaN becomes 0.
    EXPECT_EQ(pixels({1e30f, -1e30f, NAN, 0}, Resolution(1, 1)),
              (std::array<int, 4>{kMaxPixelCoordinate, -kMaxPixelCoordinate, 0, 0}));
    // The area forms keep the flag and the threshold; inside the picture the pixels come back.
    const AOI aoi(true, IRectangle(13, 7, 600, 400), 30);
    const Resolution res(640, 480);
    const FAOI faoi(aoi, res);
    EXPECT_EQ(faoi.getPoint(2), FPoint(613.0f / 640, 407.0f / 480));
    EXPECT_TRUE(AOI(faoi, res) == aoi);
    EXPECT_FALSE(normalize(IActivablePolygon(false, aoi), res).isActive());
    EXPECT_TRUE(denormalize(FActivablePolygon(true, faoi), res).isActive());
}
