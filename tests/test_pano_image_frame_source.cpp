#include "ImageTestUtils.h"
#include "PanoImageFrameSource.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

using P = BodypixBodyPart;

// The source pixel (x, y) that a mosaic pixel shows, read back from the coordinate image.
std::pair<int, int> shownAt(const PanoImageFrameSource& mosaic, unsigned int x, unsigned int y) {
    const std::vector<uint8_t> p =
        pixelAt(mosaic.getImageData(), mosaic.getResolution().width, x, y);
    return {p[0], p[1]};
}

bool isBlack(const PanoImageFrameSource& mosaic, unsigned int x, unsigned int y) {
    return pixelAt(mosaic.getImageData(), mosaic.getResolution().width, x, y) ==
           std::vector<uint8_t>(3, 0);
}

Skeleton<P> skeletonOf(std::initializer_list<std::pair<P, IPoint>> joints) {
    Keypoints keypoints;
    for (const auto& [part, point] : joints) {
        keypoints.add(Keypoint(point, part, 0.9f));
    }
    return Skeleton<P>(keypoints);
}

} // namespace

TEST(PanoImageFrameSource, OnePatchIsCentredWithBlackMargins) {
    const std::vector<uint8_t> image = makeCoordinateImage(40, 30);
    ImageBufferFrameSource source(Resolution(40, 30), image.data());
    PanoImageFrameSource mosaic(Resolution(8, 8));
    EXPECT_EQ(mosaic.getGridResolution(), Resolution(1, 1));
    std::memset(mosaic.getImageData(), 0x55, 8 * 8 * 3);

    mosaic.loadImagePatches(source, {IRectangle(10, 5, 16, 8)}); // 2:1 into 8 by 8: scale 0.5
    ASSERT_EQ(mosaic.getNumberOfLoadedPatches(), 1u);
    const ImagePatchInfo info = mosaic.getImagePatchInfo(0);
    EXPECT_EQ(info.sourceRectangle, IRectangle(10, 5, 16, 8));
    EXPECT_EQ(info.sourceResolution, Resolution(40, 30));
    EXPECT_EQ(info.destRectangle, IRectangle(0, 2, 8, 4));
    EXPECT_EQ(info.destResolution, Resolution(8, 8));
    for (unsigned int y = 0; y < 8; ++y) {
        for (unsigned int x = 0; x < 8; ++x) {
            if (y < 2 || y >= 6) {
                EXPECT_TRUE(isBlack(mosaic, x, y)) << x << "," << y;
            } else { // nearest sample: every second source pixel from the patch's corner
                EXPECT_EQ(shownAt(mosaic, x, y), std::make_pair(10 + 2 * static_cast<int>(x),
                                                                5 + 2 * static_cast<int>(y - 2)));
            }
        }
    }
    // A patch in the source's far corner reads its very last pixel.
    mosaic.loadImagePatches(source, {IRectangle(32, 26, 8, 4)});
    EXPECT_EQ(shownAt(mosaic, 7, 5), std::make_pair(39, 29));
    EXPECT_EQ(shownAt(mosaic, 0, 2), std::make_pair(32, 26));
    EXPECT_TRUE(isBlack(mosaic, 7, 6));

    // The mosaic is an ordinary frame source.
    std::vector<uint8_t> frame(8 * 8 * 3);
    EXPECT_TRUE(mosaic.getFrame(Resolution(8, 8), 0, frame.data()));
    EXPECT_EQ(pixelAt(frame.data(), 8, 1, 2), std::vector<uint8_t>({33, 26, 137}));
}

TEST(PanoImageFrameSource, CellsFillRowByRowAndSurplusPatchesAreSkipped) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(60, 40);
    ImageBufferFrameSource source(Resolution(60, 40), image.data());
    PanoImageFrameSource mosaic(Resolution(21, 21));
    mosaic.setGridResolution(Resolution(2, 2));
    EXPECT_EQ(mosaic.getCellResolution(), Resolution(10, 10));
    EXPECT_EQ(mosaic.getCellRectangle(1, 1), IRectangle(10, 10, 10, 10));
    EXPECT_EQ(mosaic.getNextCellRectangle(), IRectangle(0, 0, 10, 10));

    mosaic.loadImagePatches(source, {IRectangle(0, 0, 10, 10), IRectangle(20, 0, 10, 10),
                                     IRectangle(40, 20, 10, 10), IRectangle(5, 30, 10, 10),
                                     IRectangle(30, 30, 10, 10)});
    EXPECT_EQ(mosaic.getNumberOfLoadedPatches(), 4u);
    EXPECT_TRUE(hasLine(capture,
                        "loadImagePatches: Number of loaded patches (4) exceeds number of "
                        "available cells (4). Skipping remaining patches.",
                        LOG_WARNING));
    // Top-left, top-right, bottom-left, bottom-right, at scale 1.
    EXPECT_EQ(shownAt(mosaic, 0, 0), std::make_pair(0, 0));
    EXPECT_EQ(shownAt(mosaic, 10, 0), std::make_pair(20, 0));
    EXPECT_EQ(shownAt(mosaic, 0, 10), std::make_pair(40, 20));
    EXPECT_EQ(shownAt(mosaic, 19, 19), std::make_pair(14, 39));
    for (unsigned int i = 0; i < 21; ++i) { // the remainder of the division stays black
        EXPECT_TRUE(isBlack(mosaic, 20, i));
        EXPECT_TRUE(isBlack(mosaic, i, 20));
    }
    EXPECT_EQ(mosaic.getImagePatchInfo(3).destRectangle, IRectangle(10, 10, 10, 10));
    EXPECT_EQ(mosaic.getNextCellRectangle(), IRectangle(0, 20, 10, 10));

    // An empty list leaves a black mosaic and no patches.
    mosaic.loadImagePatches(source, {});
    EXPECT_EQ(mosaic.getNumberOfLoadedPatches(), 0u);
    EXPECT_EQ(std::vector<uint8_t>(mosaic.getImageData(), mosaic.getImageData() + 21 * 21 * 3),
              std::vector<uint8_t>(21 * 21 * 3, 0));
}

TEST(PanoImageFrameSource, FailedPatchTakesNoCell) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(40, 30);
    ImageBufferFrameSource source(Resolution(40, 30), image.data());
    PanoImageFrameSource mosaic(Resolution(20, 10));
    mosaic.setGridResolution(Resolution(2, 1));
    mosaic.loadImagePatches(source, {IRectangle(35, 0, 10, 10), IRectangle(3, 4, 10, 10)});
    EXPECT_EQ(mosaic.getNumberOfLoadedPatches(), 1u);
    EXPECT_TRUE(hasLine(capture, "loadImagePatch2: Failed to resize and load image patch from "
                                 "source rectangle: Rectangle: x=35, y=0, width=10, height=10 to "
                                 "destination rectangle: Rectangle: x=0, y=0, width=10, "
                                 "height=10"));
    // The second rectangle went into the first cell.
    EXPECT_EQ(shownAt(mosaic, 0, 0), std::make_pair(3, 4));
    EXPECT_TRUE(isBlack(mosaic, 10, 0));

    // A grid without columns is refused.
    mosaic.setGridResolution(Resolution(0, 2));
    EXPECT_EQ(mosaic.getGridResolution(), Resolution(2, 1));
    EXPECT_EQ(countLinesStartingWith(capture, "setGridResolution: Invalid grid resolution 0 2"),
              1u);
}

TEST(PanoImageFrameSource, ResizeChecksItsArgumentsInOrder) {
    SyslogCapture capture;
    std::vector<uint8_t> src(30 * 30 * 3, 7);
    std::vector<uint8_t> dst(30 * 30 * 3, 0);
    const Resolution res(30, 30);
    struct Case {
        const uint8_t* source;
        IRectangle sourcePatch;
        uint8_t* dest;
        IRectangle destPatch;
        std::string line;
    };
    const std::vector<Case> cases = {
        {nullptr, IRectangle(0, 0, 4, 4), dst.data(), IRectangle(0, 0, 2, 2),
         "Source pixel pointer pSourcePixels is null."},
        {src.data(), IRectangle(0, 0, 4, 4), nullptr, IRectangle(0, 0, 2, 2),
         "Destination pixel pointer pDestPixels is null."},
        // 1.0 against 1.1 is beyond 0.05.
        {src.data(), IRectangle(0, 0, 4, 4), dst.data(), IRectangle(0, 0, 11, 10),
         "Source and destination patch rectangles do not have the same aspect ratio."},
        {src.data(), IRectangle(28, 0, 4, 4), dst.data(), IRectangle(0, 0, 2, 2),
         "Invalid source patch rectangle coordinates: Rectangle: x=28, y=0, width=4, height=4 "
         "for source image resolution: 30 30"},
        {src.data(), IRectangle(0, 0, 4, 4), dst.data(), IRectangle(25, 25, 6, 6),
         "Invalid destination patch rectangle coordinates: Rectangle: x=25, y=25, width=6, "
         "height=6 for destination image resolution: 30 30"}};
    for (const Case& c : cases) {
        EXPECT_FALSE(PanoImageFrameSource::resizePatchPreserveAspectRatio(
            c.source, c.sourcePatch, res, c.dest, c.destPatch, res));
        EXPECT_TRUE(hasLine(capture, "resizePatchPreserveAspectRatio: " + c.line, LOG_ERR))
            << c.line;
    }
    EXPECT_EQ(dst, std::vector<uint8_t>(dst.size(), 0));
    // 1.0 against 1.04 is within the tolerance.
    EXPECT_TRUE(PanoImageFrameSource::resizePatchPreserveAspectRatio(
        src.data(), IRectangle(0, 0, 5, 5), res, dst.data(), IRectangle(0, 0, 26, 25), res));
    EXPECT_EQ(pixelAt(dst.data(), 30, 25, 24), std::vector<uint8_t>(3, 7));
    EXPECT_EQ(pixelAt(dst.data(), 30, 26, 24), std::vector<uint8_t>(3, 0));
    EXPECT_EQ(pixelAt(dst.data(), 30, 25, 25), std::vector<uint8_t>(3, 0));
}

TEST(PanoImageFrameSource, CellIndicesAndPatchRecords) {
    SyslogCapture capture;
    PanoImageFrameSource mosaic(Resolution(20, 20));
    mosaic.setGridResolution(Resolution(2, 2));
    // Truncation toward zero keeps -0.5 in column 0; past the right edge is the next row.
    const std::vector<std::pair<FPoint, int>> cases = {
        {FPoint(5.0f, 5.0f), 0},   {FPoint(-0.5f, 3.0f), 0}, {FPoint(15.0f, 5.0f), 1},
        {FPoint(19.9f, 19.9f), 3}, {FPoint(25.0f, 5.0f), 2}, {FPoint(5.0f, 25.0f), -1},
        {FPoint(-15.0f, 5.0f), -1}};
    for (const auto& [point, index] : cases) {
        EXPECT_EQ(mosaic.getCellIndex(point), index) << point.x << "," << point.y;
    }
    EXPECT_TRUE(hasLine(capture, "getCellIndex: Calculated cell index out of bounds: 4 for "
                                 "point: 5.000000, 25.000000"));

    // With no patches the top of the range is the largest unsigned 64-bit value.
    const ImagePatchInfo none = mosaic.getImagePatchInfo(-1);
    EXPECT_EQ(none.sourceRectangle, IRectangle(0, 0, 0, 0));
    EXPECT_EQ(none.destRectangle, IRectangle(0, 0, 0, 0));
    EXPECT_EQ(none.sourceResolution, Resolution(0, 0));
    EXPECT_EQ(none.destResolution, Resolution(0, 0));
    EXPECT_TRUE(hasLine(capture, "getImagePatchInfo: Invalid patch index: -1. Valid range is 0 "
                                 "to 18446744073709551615"));
    // A cell without a patch maps through the all-zero record: logged, and defined.
    mosaic.inverseMapSkeleton(skeletonOf({{P::Nose, IPoint(5, 5)}}));
    EXPECT_TRUE(hasLine(capture, "getImagePatchInfo: Invalid patch index: 0. Valid range is 0 "
                                 "to 18446744073709551615"));
}

TEST(PanoImageFrameSource, SkeletonsReturnToSourceCoordinatesThroughTheirCell) {
    SyslogCapture capture;
    std::vector<uint8_t> grey(400 * 300 * 3, 100);
    ImageBufferFrameSource source(Resolution(400, 300), grey.data());
    PanoImageFrameSource mosaic(Resolution(200, 100));
    mosaic.setGridResolution(Resolution(2, 1));
    // Cell 0 takes a 200 by 200 patch at scale 0.5, filling it; cell 1 a 100 by 50 patch,
    // filling the cell's width at scale 1 with margins of 25 above and below.
    mosaic.loadImagePatches(source, {IRectangle(100, 50, 200, 200), IRectangle(250, 200, 100, 50)});
    ASSERT_EQ(mosaic.getNumberOfLoadedPatches(), 2u);
    EXPECT_EQ(mosaic.getImagePatchInfo(1).destRectangle, IRectangle(100, 25, 100, 50));
    EXPECT_EQ(mosaic.getMapper(0).getScale(), 0.5f);
    mosaic.getImagePatchInfo(2);
    EXPECT_TRUE(hasLine(capture, "getImagePatchInfo: Invalid patch index: 2. Valid range is 0 "
                                 "to 1"));

    const Skeleton<P> inCell1 = mosaic.inverseMapSkeleton(
        skeletonOf({{P::LeftShoulder, IPoint(110, 30)}, {P::LeftAnkle, IPoint(150, 70)}}));
    EXPECT_EQ(inCell1.keypoints().get(P::LeftShoulder).point, IPoint(260, 205));
    EXPECT_EQ(inCell1.keypoints().get(P::LeftAnkle).point, IPoint(300, 245));
    const Skeleton<P> inCell0 = mosaic.inverseMapSkeleton(skeletonOf({{P::Nose, IPoint(10, 20)}}));
    EXPECT_EQ(inCell0.keypoints().get(P::Nose).point, IPoint(120, 90));
    // A centroid in the black margin of cell 1 maps above the patch's source rectangle.
    const Skeleton<P> outside = mosaic.inverseMapSkeleton(skeletonOf({{P::Nose, IPoint(150, 10)}}));
    EXPECT_EQ(outside.keypoints().get(P::Nose).point, IPoint(300, 185));

    // Outside every cell: an empty skeleton and the error line.
    const Skeleton<P> lost = mosaic.inverseMapSkeleton(skeletonOf({{P::Nose, IPoint(50, 150)}}));
    EXPECT_EQ(lost.keypoints().size(), 0u);
    EXPECT_TRUE(hasLine(capture, "inverseMapSkeleton: Failed to get cell index for skeleton "
                                 "centroid at: 50.000000, 150.000000"));
    EXPECT_EQ(mosaic.inverseMapSkeleton(Skeleton<P>()).keypoints().size(), 0u);
}
