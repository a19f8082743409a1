#include "AllocationCounter.h"
#include "ImageTestUtils.h"
#include "PanoImageFrameSource.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

const std::vector<uint8_t> kBlack(3, 0);

// The source pixel (x, y) that a mosaic pixel shows, read back from the coordinate image.
std::pair<int, int> shownAt(const PanoImageFrameSource& mosaic, unsigned int x, unsigned int y) {
    const std::vector<uint8_t> p =
        pixelAt(mosaic.getImageData(), mosaic.getResolution().width, x, y);
    return {p[0], p[1]};
}

bool isBlack(const PanoImageFrameSource& mosaic, unsigned int x, unsigned int y) {
    return pixelAt(mosaic.getImageData(), mosaic.getResolution().width, x, y) == kBlack;
}

void fill(PanoImageFrameSource& mosaic, uint8_t value) {
    const Resolution r = mosaic.getResolution();
    std::memset(mosaic.getImageData(), value, static_cast<std::size_t>(r.width) * r.height * 3);
}

} // namespace

TEST(PanoImageFrameSource, OnePatchIsCentredWithBlackMargins) {
    const std::vector<uint8_t> image = makeCoordinateImage(40, 30);
    ImageBufferFrameSource source(Resolution(40, 30), image.data());
    PanoImageFrameSource mosaic(Resolution(8, 8));
    EXPECT_EQ(mosaic.getGridResolution(), Resolution(1, 1));
    fill(mosaic, 0x55);

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
            } else {
                // Nearest sample: every second source pixel from the patch's corner.
                EXPECT_EQ(shownAt(mosaic, x, y), std::make_pair(10 + 2 * static_cast<int>(x),
                                                                5 + 2 * static_cast<int>(y - 2)));
            }
        }
    }
    // A patch in the source's far corner reads its very last pixel.
    mosaic.loadImagePatches(source, {IRectangle(32, 26, 8, 4)});
    EXPECT_EQ(shownAt(mosaic, 7, 5), std::make_pair(39, 29));
    EXPECT_EQ(shownAt(mosaic, 6, 5), std::make_pair(38, 29));
    EXPECT_EQ(shownAt(mosaic, 0, 2), std::make_pair(32, 26));
    EXPECT_TRUE(isBlack(mosaic, 7, 6));
    mosaic.loadImagePatches(source, {IRectangle(10, 5, 16, 8)});

    // The mosaic is an ordinary frame source.
    std::vector<uint8_t> frame(8 * 8 * 3);
    EXPECT_TRUE(mosaic.getFrame(Resolution(8, 8), 0, frame.data()));
    EXPECT_EQ(pixelAt(frame.data(), 8, 1, 2), std::vector<uint8_t>({12, 5, 162}));
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

    const IRectangles rectangles = {IRectangle(0, 0, 10, 10), IRectangle(20, 0, 10, 10),
                                    IRectangle(40, 20, 10, 10), IRectangle(5, 30, 10, 10),
                                    IRectangle(30, 30, 10, 10)};
    mosaic.loadImagePatches(source, rectangles);
    EXPECT_EQ(mosaic.getNumberOfLoadedPatches(), 4u);
    EXPECT_TRUE(hasLine(capture, "loadImagePatches: Number of loaded patches (4) exceeds number "
                                 "of available cells (4). Skipping remaining patches."));
    for (const SyslogRecord& record : capture.records()) {
        if (record.message.find("Skipping remaining") != std::string::npos) {
            EXPECT_EQ(record.priority, LOG_WARNING);
        }
    }
    // Top-left, top-right, bottom-left, bottom-right, at scale 1.
    EXPECT_EQ(shownAt(mosaic, 0, 0), std::make_pair(0, 0));
    EXPECT_EQ(shownAt(mosaic, 10, 0), std::make_pair(20, 0));
    EXPECT_EQ(shownAt(mosaic, 0, 10), std::make_pair(40, 20));
    EXPECT_EQ(shownAt(mosaic, 19, 19), std::make_pair(14, 39));
    // The remainder of the division, the last column and row, stays black.
    for (unsigned int i = 0; i < 21; ++i) {
        EXPECT_TRUE(isBlack(mosaic, 20, i));
        EXPECT_TRUE(isBlack(mosaic, i, 20));
    }
    EXPECT_EQ(mosaic.getImagePatchInfo(3).destRectangle, IRectangle(10, 10, 10, 10));
    EXPECT_EQ(mosaic.getNextCellRectangle(), IRectangle(0, 20, 10, 10));

    // An empty list leaves a black mosaic and no patches.
    mosaic.loadImagePatches(source, {});
    EXPECT_EQ(mosaic.getNumberOfLoadedPatches(), 0u);
    for (unsigned int y = 0; y < 21; ++y) {
        for (unsigned int x = 0; x < 21; ++x) {
            ASSERT_TRUE(isBlack(mosaic, x, y));
        }
    }
}

TEST(PanoImageFrameSource, DetectorSizedMosaicKeepsItsRemainderBlack) {
    std::vector<uint8_t> white(640 * 480 * 3, 255);
    ImageBufferFrameSource source(Resolution(640, 480), white.data());
    PanoImageFrameSource mosaic(Resolution(481, 353));
    mosaic.setGridResolution(Resolution(2, 2));
    EXPECT_EQ(mosaic.getCellResolution(), Resolution(240, 176));
    const IRectangle quarter(0, 0, 240, 176);
    mosaic.loadImagePatches(source, {quarter, quarter, quarter, quarter});
    ASSERT_EQ(mosaic.getNumberOfLoadedPatches(), 4u);
    for (unsigned int y = 0; y < 353; ++y) {
        EXPECT_TRUE(isBlack(mosaic, 480, y));
    }
    for (unsigned int x = 0; x < 481; ++x) {
        EXPECT_TRUE(isBlack(mosaic, x, 352));
    }
    EXPECT_FALSE(isBlack(mosaic, 479, 351));
}

TEST(PanoImageFrameSource, FailedPatchTakesNoCell) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(40, 30);
    ImageBufferFrameSource source(Resolution(40, 30), image.data());
    PanoImageFrameSource mosaic(Resolution(20, 10));
    mosaic.setGridResolution(Resolution(2, 1));
    mosaic.loadImagePatches(source, {IRectangle(35, 0, 10, 10), IRectangle(3, 4, 10, 10)});
    EXPECT_EQ(mosaic.getNumberOfLoadedPatches(), 1u);
    EXPECT_TRUE(hasLine(capture, "resizePatchPreserveAspectRatio: Invalid source patch "
                                 "rectangle coordinates: Rectangle: x=35, y=0, width=10, "
                                 "height=10 for source image resolution: 40 30"));
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
    std::vector<uint8_t> src(10 * 10 * 3, 7);
    std::vector<uint8_t> dst(10 * 10 * 3, 0);
    const Resolution res(10, 10);
    using Pano = PanoImageFrameSource;
    EXPECT_FALSE(Pano::resizePatchPreserveAspectRatio(nullptr, IRectangle(0, 0, 4, 4), res,
                                                      dst.data(), IRectangle(0, 0, 2, 2), res));
    EXPECT_TRUE(hasLine(capture, "resizePatchPreserveAspectRatio: Source pixel pointer "
                                 "pSourcePixels is null."));
    EXPECT_FALSE(Pano::resizePatchPreserveAspectRatio(src.data(), IRectangle(0, 0, 4, 4), res,
                                                      nullptr, IRectangle(0, 0, 2, 2), res));
    EXPECT_TRUE(hasLine(capture, "resizePatchPreserveAspectRatio: Destination pixel pointer "
                                 "pDestPixels is null."));
    // 1.0 against 1.1 is beyond 0.05; 1.0 against 1.04 is within it.
    EXPECT_FALSE(Pano::resizePatchPreserveAspectRatio(src.data(), IRectangle(0, 0, 4, 4), res,
                                                      dst.data(), IRectangle(0, 0, 11, 10), res));
    EXPECT_TRUE(hasLine(capture, "resizePatchPreserveAspectRatio: Source and destination patch "
                                 "rectangles do not have the same aspect ratio."));
    EXPECT_FALSE(Pano::resizePatchPreserveAspectRatio(src.data(), IRectangle(0, 0, 4, 4), res,
                                                      dst.data(), IRectangle(5, 5, 6, 6), res));
    EXPECT_TRUE(hasLine(capture, "resizePatchPreserveAspectRatio: Invalid destination patch "
                                 "rectangle coordinates: Rectangle: x=5, y=5, width=6, height=6 "
                                 "for destination image resolution: 10 10"));
    EXPECT_TRUE(Pano::resizePatchPreserveAspectRatio(src.data(), IRectangle(0, 0, 5, 5), res,
                                                     dst.data(), IRectangle(0, 0, 5, 5), res));
    EXPECT_EQ(pixelAt(dst.data(), 10, 4, 4), std::vector<uint8_t>(3, 7));
    EXPECT_EQ(pixelAt(dst.data(), 10, 5, 5), kBlack);
}

TEST(PanoImageFrameSource, CellIndicesAndPatchRecords) {
    SyslogCapture capture;
    PanoImageFrameSource mosaic(Resolution(20, 20));
    mosaic.setGridResolution(Resolution(2, 2));
    EXPECT_EQ(mosaic.getCellIndex(FPoint(5.0f, 5.0f)), 0);
    EXPECT_EQ(mosaic.getCellIndex(FPoint(-0.5f, 3.0f)), 0); // truncates toward zero
    EXPECT_EQ(mosaic.getCellIndex(FPoint(15.0f, 5.0f)), 1);
    EXPECT_EQ(mosaic.getCellIndex(FPoint(19.9f, 19.9f)), 3);
    EXPECT_EQ(mosaic.getCellIndex(FPoint(25.0f, 5.0f)), 2); // past the right edge: next row
    EXPECT_EQ(mosaic.getCellIndex(FPoint(5.0f, 25.0f)), -1);
    EXPECT_TRUE(hasLine(capture, "getCellIndex: Calculated cell index out of bounds: 4 for "
                                 "point: 5.000000, 25.000000"));
    EXPECT_EQ(mosaic.getCellIndex(FPoint(-15.0f, 5.0f)), -1);

    mosaic.getImagePatchInfo(0);

    const ImagePatchInfo none = mosaic.getImagePatchInfo(-1);
    EXPECT_EQ(none.sourceRectangle, IRectangle(0, 0, 0, 0));
    EXPECT_EQ(none.destRectangle, IRectangle(0, 0, 0, 0));
    EXPECT_EQ(none.sourceResolution, Resolution(0, 0));
    EXPECT_EQ(none.destResolution, Resolution(0, 0));
    EXPECT_TRUE(hasLine(capture, "getImagePatchInfo: Invalid patch index: -1. Valid range is 0 "
                                 "to 18446744073709551615"));
    EXPECT_TRUE(hasLine(capture, "getImagePatchInfo: Invalid patch index: 0. Valid range is 0 "
                                 "to 18446744073709551615"));
}

TEST(PanoImageFrameSource, SkeletonsReturnToSourceCoordinatesThroughTheirCell) {
    SyslogCapture capture;
    std::vector<uint8_t> grey(400 * 300 * 3, 100);
    ImageBufferFrameSource source(Resolution(400, 300), grey.data());
    PanoImageFrameSource mosaic(Resolution(200, 100));
    mosaic.setGridResolution(Resolution(2, 1));
    // Cell 0 gets a 200 by 200 patch at scale 0.5 (active 0..100 wide, centred: x 0, y 0);
    // cell 1 a 100 by 50 patch, filling the cell's width at scale 1 with margins of 25.
    mosaic.loadImagePatches(source, {IRectangle(100, 50, 200, 200), IRectangle(250, 200, 100, 50)});
    ASSERT_EQ(mosaic.getNumberOfLoadedPatches(), 2u);
    EXPECT_EQ(mosaic.getImagePatchInfo(1).destRectangle, IRectangle(100, 25, 100, 50));
    EXPECT_EQ(mosaic.getMapper(0).getScale(), 0.5f);
    mosaic.getImagePatchInfo(2);
    EXPECT_TRUE(hasLine(capture, "getImagePatchInfo: Invalid patch index: 2. Valid range is 0 "
                                 "to 1"));

    Keypoints keypoints;
    keypoints.add(Keypoint(IPoint(110, 30), BodypixBodyPart::LeftShoulder, 0.9f));
    keypoints.add(Keypoint(IPoint(150, 70), BodypixBodyPart::LeftAnkle, 0.9f));
    const Skeleton<BodypixBodyPart> inCell1 =
        mosaic.inverseMapSkeleton(Skeleton<BodypixBodyPart>(keypoints));
    EXPECT_EQ(inCell1.keypoints().get(BodypixBodyPart::LeftShoulder).point, IPoint(260, 205));
    EXPECT_EQ(inCell1.keypoints().get(BodypixBodyPart::LeftAnkle).point, IPoint(300, 245));

    Keypoints inFirst;
    inFirst.add(Keypoint(IPoint(10, 20), BodypixBodyPart::Nose, 0.9f));
    const Skeleton<BodypixBodyPart> inCell0 =
        mosaic.inverseMapSkeleton(Skeleton<BodypixBodyPart>(inFirst));
    EXPECT_EQ(inCell0.keypoints().get(BodypixBodyPart::Nose).point, IPoint(120, 90));

    // A centroid in the black margin of cell 1 maps above the patch's source rectangle.
    Keypoints margin;
    margin.add(Keypoint(IPoint(150, 10), BodypixBodyPart::Nose, 0.9f));
    const Skeleton<BodypixBodyPart> outside =
        mosaic.inverseMapSkeleton(Skeleton<BodypixBodyPart>(margin));
    EXPECT_EQ(outside.keypoints().get(BodypixBodyPart::Nose).point, IPoint(300, 185));

    // Outside every cell: an empty skeleton and the error line.
    Keypoints below;
    below.add(Keypoint(IPoint(50, 150), BodypixBodyPart::Nose, 0.9f));
    const Skeleton<BodypixBodyPart> lost =
        mosaic.inverseMapSkeleton(Skeleton<BodypixBodyPart>(below));
    EXPECT_EQ(lost.keypoints().size(), 0u);
    EXPECT_TRUE(hasLine(capture, "inverseMapSkeleton: Failed to get cell index for skeleton "
                                 "centroid at: 50.000000, 150.000000"));
    EXPECT_EQ(mosaic.inverseMapSkeleton(Skeleton<BodypixBodyPart>()).keypoints().size(), 0u);
}

TEST(PanoImageFrameSource, SteadyPatchLoadsAllocateNothing) {
    const std::vector<uint8_t> image = makeCoordinateImage(200, 150);
    ImageBufferFrameSource source(Resolution(200, 150), image.data());
    PanoImageFrameSource mosaic(Resolution(101, 73));
    mosaic.setGridResolution(Resolution(2, 2));
    const IRectangles rectangles = {IRectangle(0, 0, 100, 75), IRectangle(100, 0, 100, 75),
                                    IRectangle(0, 75, 80, 75), IRectangle(120, 75, 80, 60)};
    mosaic.loadImagePatches(source, rectangles); // the first frame sizes the record list
    AllocationScope scope;
    for (int i = 0; i < 3; ++i) {
        mosaic.loadImagePatches(source, rectangles);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(mosaic.getNumberOfLoadedPatches(), 4u);
}
