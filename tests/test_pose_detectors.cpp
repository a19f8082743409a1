// The four pose detectors on the host inference service, with forged pass-through models: a
// frame painted with chosen tensor bytes gives chosen people. The confidence cut, the mapping
// into the caller's rectangle, the rewinds between frames, every failure of detect, and the
// texts of construction and destruction. Each decoding detector's whole road, the 320 x 240
// model's concatenated displacements among them, is in test_inference_end_to_end.
#include "HostInference.h"

#ifdef STEMLIB_TEST_HOST_LAROD

#include "Bodypix_320W_240H_PoseDetector.h"
#include "LarodPoseDetector.h"
#include "LogLines.h"
#include "MovenetPoseDetector.h"
#include "PosePainting.h"
#include "PosenetPoseDetector.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

const Resolution kCamera(1920, 1080);

TEST(PosenetPoseDetector, DecodesPaintedPeopleCutsAtTheThresholdAndReadsEachFrameAfresh) {
    PosePicture picture(modelforge::posenetPassThrough());
    const PersonCells strong = gridPerson(12, 18, 2);
    const PersonCells weaker = gridPerson(2, 2, 2);
    picture.addPerson(weaker, 200);
    picture.addPerson(strong, 255);
    picture.addPerson(gridPerson(14, 2, 2), 123); // logit -0.39: a score of about 0.4
    PaintedFrameSource source(kCamera, picture.bytes);
    auto detector = std::make_unique<PosenetPoseDetector>(forgedModel("posenet_481x353"), "");
    ASSERT_TRUE(detector->initialize());

    const IRectangle rectangle(100, 50, 700, 500);
    const auto detections = detector->detect(source, rectangle);
    ASSERT_EQ(detections.size(), 2u);
    expectMappedFromInput(*detector, detections, picture.input, rectangle);
    // Twice the model's pixels: the quantised offsets keep each joint within a few pixels.
    expectPersonAt(detections[0], strong, picture.input, rectangle, 3.0f);
    expectPersonAt(detections[1], weaker, picture.input, rectangle, 3.0f);
    EXPECT_EQ(detector->getKeypoints(1).get(BodypixBodyPart::Nose).point,
              detector->getKeypointLocation(1, BodypixBodyPart::Nose));

    // The list ends at the first pose below the threshold.
    detector->setConfidenceThreshold(0.0f);
    const auto all = detector->detect(source, rectangle);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_NEAR(all[2].confidence, 0.4f, 0.05f);
    detector->setConfidenceThreshold(0.999f);
    EXPECT_EQ(detector->detect(source, rectangle).size(), 1u);
    detector->setConfidenceThreshold(1.0f);
    EXPECT_TRUE(detector->detect(source, rectangle).empty());

    // Without the rewinds the job would write behind the last result, and the mapped files
    // would still show the first frame.
    detector->setConfidenceThreshold(0.5f);
    PosePicture other(modelforge::posenetPassThrough());
    other.addPerson(weaker, 255);
    source.bytes = other.bytes;
    const auto moved = detector->detect(source, rectangle);
    ASSERT_EQ(moved.size(), 1u);
    expectPersonAt(moved[0], weaker, picture.input, rectangle, 3.0f);
    source.bytes = PosePicture(modelforge::posenetPassThrough()).bytes;
    EXPECT_TRUE(detector->detect(source, rectangle).empty());
}

// MoveNet's output is 17 rows of y, x, score: here bytes over 256 from the picture's start.
std::vector<std::uint8_t> movenetPicture(const std::array<std::uint8_t, 51>& rows) {
    std::vector<std::uint8_t> bytes(modelforge::movenetPassThrough().inputBytes(), 7);
    std::copy(rows.begin(), rows.end(), bytes.begin());
    return bytes;
}

TEST(MovenetPoseDetector, MapsTheModelsSkeletonIntoTheRectangle) {
    std::array<std::uint8_t, 51> rows{};
    for (std::size_t k = 1; k < 17; ++k) {                    // the nose stays at (0, 0)
        rows[3 * k] = static_cast<std::uint8_t>(10 * k);      // y
        rows[3 * k + 1] = static_cast<std::uint8_t>(250 - k); // x
        rows[3 * k + 2] = static_cast<std::uint8_t>(128 + k); // score
    }
    PaintedFrameSource source(kCamera, movenetPicture(rows));
    MovenetPoseDetector detector(forgedModel("movenet_192x192"));
    ASSERT_TRUE(detector.initialize());

    const IRectangle rectangle(-100, 20, 800, 600);
    const auto detection = detector.detect(source, rectangle);
    EXPECT_FLOAT_EQ(detection.confidence, 0.5f);
    ASSERT_EQ(detection.skeleton.keypoints().size(), 17u);
    for (BodypixBodyPart part : BodyParts) {
        const auto k = static_cast<std::size_t>(part);
        const auto& keypoint = detection.skeleton.keypoints().get(part);
        EXPECT_EQ(keypoint.point.x, static_cast<int>(rows[3 * k + 1] / 256.0f * 800.0f - 99.5f));
        EXPECT_EQ(keypoint.point.y, static_cast<int>(rows[3 * k] / 256.0f * 600.0f + 20.5f));
        EXPECT_FLOAT_EQ(keypoint.score, rows[3 * k + 2] / 256.0f);
    }
    // Input (0, 0): -99.5 truncates toward zero.
    EXPECT_EQ(detection.skeleton.keypoints().get(BodypixBodyPart::Nose).point, IPoint(-99, 20));
    EXPECT_EQ(detection.boundingBox, detection.skeleton.getBoundingBox());
}

std::size_t poseCount(const std::vector<PoseDetectionBase<BodypixBodyPart>>& detections) {
    return detections.size();
}
std::size_t poseCount(const PoseDetectionBase<BodypixBodyPart>& detection) {
    return detection.skeleton.keypoints().size() == 17 ? 1 : 0;
}

// Through the real service: detect before initialize, without a frame, after a failed job and,
// for the decoding detectors, without the grid's dimensions gives one error line and nothing;
// then the detector finds its one painted person again, mapped into a rectangle that reaches
// left of the caller's pixels. detect(source) alone is refused with a line, except by
// LarodPoseDetector, which gives its poses in the model's input pixels. Construction and
// destruction are logged in order.
template <typename PoseDetector, typename... Args>
void expectFailuresAndTexts(const std::string& name, const std::string& constructorText,
                            std::vector<std::uint8_t> picture, const std::string& model,
                            const Args&... args) {
    SCOPED_TRACE(name);
    constexpr bool decodes = !std::is_same_v<PoseDetector, MovenetPoseDetector>;
    HostCameraScope camera; // clears the requested failures at the end
    RecordingLogger logger;
    ScopedLogger scope(logger);
    PaintedFrameSource source(kCamera, std::move(picture));
    const IRectangle rectangle(-100, 10, 640, 360);
    std::vector<std::string> errors = {"detect: The model is not initialized",
                                       "detect: Unable to getFrame",
                                       "detect: Unable to run inference: accelerator reset"};
    {
        auto detector = std::make_unique<PoseDetector>(model, args...);
        EXPECT_EQ(poseCount(detector->detect(source, rectangle)), 0u);
        ASSERT_TRUE(detector->initialize());
        source.fail = true;
        EXPECT_EQ(poseCount(detector->detect(source, rectangle)), 0u);
        source.fail = false;
        stemlib_host_set_failure("larodRunJob", "accelerator reset");
        EXPECT_EQ(poseCount(detector->detect(source, rectangle)), 0u);
        stemlib_host_clear_failures();
        if (decodes) {
            stemlib_host_set_failure("larodGetTensorDims", "no dimensions");
            EXPECT_EQ(poseCount(detector->detect(source, rectangle)), 0u);
            stemlib_host_clear_failures();
            errors.push_back("detect: Unable to get tensor dimensions: no dimensions");
        }
        const auto found = detector->detect(source, rectangle);
        EXPECT_EQ(poseCount(found), 1u);
        const Resolution input = detector->getInputResolution();
        if constexpr (decodes) {
            expectMappedFromInput(*detector, found, input, rectangle);
        }

        const bool refused = !std::is_same_v<PoseDetector, LarodPoseDetector>;
        const auto inInput = detector->detect(source);
        EXPECT_EQ(inInput.size(), refused ? 0u : 1u);
        if constexpr (std::is_same_v<PoseDetector, LarodPoseDetector>) {
            expectMappedFromInput(
                *detector, inInput, input,
                IRectangle(0, 0, static_cast<int>(input.width), static_cast<int>(input.height)));
        }
        if (refused) {
            errors.push_back("detect: " + name +
                             "::detect(ImageFrameSource& imageFrameSource) called. Use "
                             "detect(ImageFrameSource& imageFrameSource, const FBoundingBox& "
                             "lowResolutionBoundingBox)");
        }
    }
    EXPECT_EQ(linesAt(logger, "error"), errors);
    EXPECT_EQ(
        linesOf(logger, {name, "~" + name, "~LarodDetectorBase"}),
        (std::vector<std::string>{name + ": " + constructorText + ": modelFilepath " + model,
                                  "~" + name + ": " + name + " destructor called",
                                  "~LarodDetectorBase: LarodDetectorBase destructor called."}));
}

TEST(PoseDetectors, EachMapsIntoTheRectangleAndGivesOneLineAndNothingOnFailure) {
    PosePicture posenet(modelforge::posenetPassThrough());
    posenet.addPerson(gridPerson(2, 2, 2), 255);
    expectFailuresAndTexts<PosenetPoseDetector>("PosenetPoseDetector",
                                                "PosenetPoseDetector::PosenetPoseDetector",
                                                posenet.bytes, forgedModel("posenet_481x353"), "");
    PosePicture bodypix(modelforge::bodypixPassThrough());
    bodypix.addPerson(gridPerson(2, 2, 2), 255);
    expectFailuresAndTexts<LarodPoseDetector>("LarodPoseDetector",
                                              "LarodPoseDetector::LarodPoseDetector", bodypix.bytes,
                                              forgedModel("bodypix_1281x721"), "");
    PosePicture bodypix320(modelforge::bodypix320PassThrough());
    bodypix320.addPerson(gridPerson(0, 1, 1), 255);
    // This detector logs the PoseNet detector's text behind its own name.
    expectFailuresAndTexts<Bodypix_320W_240H_PoseDetector>(
        "Bodypix_320W_240H_PoseDetector", "PosenetPoseDetector::PosenetPoseDetector",
        bodypix320.bytes, forgedModel("bodypix_320x240"));
    expectFailuresAndTexts<MovenetPoseDetector>("MovenetPoseDetector",
                                                "MovenetPoseDetector::MovenetPoseDetector",
                                                movenetPicture({}), forgedModel("movenet_192x192"));
}

} // namespace

#endif
