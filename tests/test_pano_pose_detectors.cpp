// The panoramic pose detectors: one inference over a mosaic of patches, skeletons back in the
// source image's coordinates, the largest skeleton kept in each cell, and the dropping of
// skeletons that map to no patch.
#include "HostInference.h"

#ifdef STEMLIB_TEST_HOST_LAROD

#include "BodypixPanoPoseDetector.h"
#include "ImageBufferFrameSource.h"
#include "LogLines.h"
#include "PosePainting.h"
#include "PosenetPanoDetector.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

using PoseDetection = PoseDetectionBase<BodypixBodyPart>;

// A mosaic of the given grid whose patches come from a 1920 x 1080 picture, painted over with a
// model's tensors.
struct PaintedMosaic {
    ImageBufferFrameSource camera{Resolution(1920, 1080)};
    PanoImageFrameSource mosaic;

    PaintedMosaic(const PosePicture& picture, const Resolution& grid, const IRectangles& patches)
        : mosaic(picture.input) {
        camera.zeroImageBuffer();
        mosaic.setGridResolution(grid);
        mosaic.loadImagePatches(camera, patches);
        std::memcpy(mosaic.getImageData(), picture.bytes.data(), picture.bytes.size());
    }
};

bool inside(const PoseDetection& pose, const IRectangle& rectangle) {
    const IBoundingBox& box = pose.boundingBox;
    return box.x >= rectangle.x && box.y >= rectangle.y &&
           box.x + box.width <= rectangle.x + rectangle.width &&
           box.y + box.height <= rectangle.y + rectangle.height;
}

// A skeleton with shoulders at (x, top), hips at (x, top + size / 2) and ankles at
// (x, top + size), all joints scored score, except the hips, scored hipScore.
PoseDetection standing(int x, int top, int size, float hipScore, float confidence,
                       float score = 0.9f) {
    Keypoints keypoints;
    for (BodypixBodyPart part : BodyParts) {
        int y = top;
        float s = score;
        if (part == BodypixBodyPart::LeftHip || part == BodypixBodyPart::RightHip) {
            y = top + size / 2;
            s = hipScore;
        } else if (part == BodypixBodyPart::LeftAnkle || part == BodypixBodyPart::RightAnkle) {
            y = top + size;
        }
        const int side = static_cast<int>(part) % 2 == 1 ? -5 : 5;
        keypoints.add(Keypoint(IPoint(x + side, y), part, s));
    }
    const Skeleton<BodypixBodyPart> skeleton(keypoints);
    return PoseDetection(skeleton, skeleton.getBoundingBox(), confidence);
}

// Without a session the base detect gives nothing, and so does the panoramic one. Skeletons
// that map to no patch are dropped; a suppressed one is passed on with its confidence of 0.
TEST(PosenetPanoDetector, FindsPeopleInEveryPatchInSourceCoordinates) {
    PosePicture picture(modelforge::posenetPassThrough());
    picture.addPerson(gridPerson(2, 2, 2), 255);   // in the left cell
    picture.addPerson(gridPerson(12, 18, 2), 230); // in the right cell
    const IRectangles patches = {IRectangle(100, 40, 680, 1000), IRectangle(1000, 40, 680, 1000)};
    PaintedMosaic mosaic(picture, Resolution(2, 1), patches);

    RecordingLogger logger;
    ScopedLogger scope(logger);
    auto detector = std::make_unique<PosenetPanoDetector>(forgedModel("posenet_481x353"), "");
    EXPECT_TRUE(detector->detect(mosaic.mosaic).empty());
    EXPECT_TRUE(hasLine(logger, "error", "detect: The model is not initialized"));
    const auto mapped = detector->inverseMapDetections(
        {standing(-2000, -2000, 100, 0.9f, 0.8f), standing(100, 100, 100, 0.9f, 0.0f)},
        mosaic.mosaic);
    ASSERT_EQ(mapped.size(), 1u);
    EXPECT_EQ(mapped[0].confidence, 0.0f);

    ASSERT_TRUE(detector->initialize());
    const auto detections = detector->detect(mosaic.mosaic);
    ASSERT_EQ(detections.size(), 2u);
    EXPECT_TRUE(inside(detections[0], patches[0]));
    EXPECT_TRUE(inside(detections[1], patches[1]));
    EXPECT_GT(detections[1].confidence, 0.99f);
    detector.reset();
    EXPECT_EQ(
        linesOf(logger, {"PosenetPanoDetector", "inverseMapDetections", "~PosenetPanoDetector"}),
        (std::vector<std::string>{
            "PosenetPanoDetector: PosenetPanoDetector::PosenetPanoDetector: modelFilepath " +
                forgedModel("posenet_481x353"),
            "inverseMapDetections: Inverse Mapping 0 Pano Detections.",
            "inverseMapDetections: Inverse Mapping 2 Pano Detections.",
            "inverseMapDetections: Inverse Mapping 2 Pano Detections.",
            "~PosenetPanoDetector: PosenetPanoDetector destructor called"}));
}

TEST(BodypixPanoPoseDetector, KeepsTheLargestSkeletonOfEachCell) {
    // A 1281 x 721 mosaic of 2 x 2 cells of 640 x 360.
    PaintedMosaic mosaic(PosePicture(modelforge::bodypixPassThrough()), Resolution(2, 2), {});
    auto detector = std::make_unique<BodypixPanoPoseDetector>(forgedModel("bodypix_1281x721"), "");
    std::vector<PoseDetection> detections = {
        standing(100, 50, 100, 0.9f, 0.9f),        // 0: cell 0
        standing(300, 50, 100, 0.9f, 0.8f),        // 1: cell 0, same size: loses to 0
        standing(900, 50, 80, 0.9f, 0.7f),         // 2: cell 1
        standing(1000, 40, 120, 0.9f, 0.6f),       // 3: cell 1, larger: wins over 2
        standing(200, 100, 50, 0.1f, 0.5f),        // 4: hips too weak: takes no part
        standing(-900, 10, 40, 0.9f, 0.4f),        // 5: centre in no cell
        standing(200, 400, 90, 0.9f, 0.3f),        // 6: alone in cell 2
        standing(150, 20, 250, 0.9f, 0.2f, 0.15f), // 7: cell 0, size 0 without shoulders
    };
    detector->retainLargestDetectionInEachCell(detections, mosaic.mosaic);
    const float expected[] = {0.9f, 0.0f, 0.0f, 0.6f, 0.5f, 0.4f, 0.3f, 0.0f};
    ASSERT_EQ(detections.size(), 8u);
    for (std::size_t i = 0; i < detections.size(); ++i) {
        EXPECT_FLOAT_EQ(detections[i].confidence, expected[i]) << i;
    }
}

TEST(BodypixPanoPoseDetector, OneInferenceOverFourCells) {
    PosePicture picture(modelforge::bodypixPassThrough());
    picture.addPerson(gridPerson(2, 2, 2), 255);   // large, cell 0
    picture.addPerson(gridPerson(12, 20, 1), 250); // small, cell 0: loses
    picture.addPerson(gridPerson(30, 55, 2), 245); // cell 3
    const IRectangles patches = {IRectangle(0, 0, 960, 540), IRectangle(960, 0, 960, 540),
                                 IRectangle(0, 540, 960, 540), IRectangle(960, 540, 960, 540)};
    PaintedMosaic mosaic(picture, Resolution(2, 2), patches);
    auto detector = std::make_unique<BodypixPanoPoseDetector>(forgedModel("bodypix_1281x721"), "");
    ASSERT_TRUE(detector->initialize());

    const auto detections = detector->detect(mosaic.mosaic);
    ASSERT_EQ(detections.size(), 3u);
    int suppressed = 0;
    for (const PoseDetection& detection : detections) {
        if (detection.confidence == 0.0f) {
            ++suppressed; // the small one, still in the result
            EXPECT_TRUE(inside(detection, patches[0]));
        } else {
            EXPECT_TRUE(inside(detection, patches[0]) || inside(detection, patches[3]));
        }
    }
    EXPECT_EQ(suppressed, 1);
}

} // namespace

#endif
