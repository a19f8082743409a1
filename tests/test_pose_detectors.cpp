// The four pose detectors on the host inference service, with forged pass-through models: a
// frame painted with chosen tensor bytes gives chosen people, whom the tests predict; the
// confidence cut, the mapping into the caller's rectangle, the rewinds between frames, every
// failure of detect, and the texts of construction and destruction.
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

using namespace Ombrel;
using namespace StemlibTest;

namespace {

PoseTensorLayout posenetLayout() {
    const modelforge::PassThroughModel model = modelforge::posenetPassThrough();
    return PoseTensorLayout{23,
                            31,
                            model.output("heatmaps").inputOffset,
                            &posenetHeatmapDequantizer,
                            model.output("short_offsets").inputOffset,
                            &posenetShortOffsetDequantizer,
                            model.output("mid_offsets").inputOffset,
                            &posenetMidOffsetDequantizer};
}

PoseTensorLayout bodypixLayout() {
    const modelforge::PassThroughModel model = modelforge::bodypixPassThrough();
    return PoseTensorLayout{46,
                            81,
                            model.output("heatmaps").inputOffset,
                            &heatmapDequantizer,
                            model.output("short_offsets").inputOffset,
                            &shortOffsetDequantizer,
                            model.output("mid_offsets").inputOffset,
                            &midOffsetDequantizer};
}

// The detector of the 320 x 240 model reads its mid offsets as the forward displacements
// followed by the backward ones.
PoseTensorLayout bodypix320Layout() {
    const modelforge::PassThroughModel model = modelforge::bodypix320PassThrough();
    using Detector = Bodypix_320W_240H_PoseDetector;
    return PoseTensorLayout{15,
                            20,
                            model.output("heatmaps").inputOffset,
                            &Detector::_heatmapDequantizer,
                            model.output("short_offsets").inputOffset,
                            &Detector::_shortOffsetDequantizer,
                            model.output("displacement_fwd").inputOffset,
                            &Detector::_displacementForwardDequantizer,
                            model.output("displacement_bwd").inputOffset,
                            &Detector::_displacementBackwardDequantizer};
}

const Resolution kPosenetInput(481, 353);
const Resolution kCamera(1920, 1080);

std::unique_ptr<PosenetPoseDetector> posenetDetector() {
    auto detector = std::make_unique<PosenetPoseDetector>(forgedModel("posenet_481x353"), "");
    EXPECT_TRUE(detector->initialize());
    return detector;
}

TEST(PosenetPoseDetector, DecodesPaintedPeopleIntoTheCallersRectangle) {
    const PoseTensorLayout layout = posenetLayout();
    PosePicture picture(modelforge::posenetPassThrough().inputBytes(), layout);
    const PersonCells strong = gridPerson(12, 18, 2);
    const PersonCells weaker = gridPerson(2, 2, 2);
    picture.addPerson(weaker, 200);
    picture.addPerson(strong, 255);
    PaintedFrameSource source(kCamera, kPosenetInput, picture.bytes);

    auto detector = posenetDetector();
    EXPECT_EQ(detector->getInputResolution(), kPosenetInput);
    const IRectangle rectangle(100, 50, 962, 706);
    const auto detections = detector->detect(source, rectangle);
    expectSamePoses(detections, expectedPoses(picture, layout, 0.5f, kPosenetInput, &rectangle));
    ASSERT_EQ(detections.size(), 2u);
    // Twice the model's pixels: the quantised offsets keep each joint within a few pixels.
    expectPersonAt(detections[0], strong, kPosenetInput, rectangle, 3.0f);
    expectPersonAt(detections[1], weaker, kPosenetInput, rectangle, 3.0f);
    EXPECT_GT(detections[0].confidence, 0.99f);
    EXPECT_GT(detections[1].confidence, detections[0].confidence - 0.01f);
    EXPECT_EQ(detections[0].boundingBox, detections[0].skeleton.getBoundingBox());

    // The result accessors speak the model's input pixels.
    ASSERT_EQ(detector->getNumberOfPoses(), 2);
    const IPoint nose = detector->getKeypointLocation(0, BodypixBodyPart::Nose);
    EXPECT_NEAR(nose.x, 16 * strong[0].x, 1);
    EXPECT_NEAR(nose.y, 16 * strong[0].y, 1);
    EXPECT_FLOAT_EQ(detector->getPoseScore(0), detections[0].confidence);
    EXPECT_FLOAT_EQ(detector->getKeypointScore(1, BodypixBodyPart::LeftAnkle),
                    detections[1].skeleton.keypoints().get(BodypixBodyPart::LeftAnkle).score);
    EXPECT_EQ(detector->getKeypoints(0).get(BodypixBodyPart::Nose).point, nose);
    EXPECT_EQ(source.calls, 1);
}

TEST(PosenetPoseDetector, CutsAtTheFirstPoseBelowTheThreshold) {
    const PoseTensorLayout layout = posenetLayout();
    PosePicture picture(modelforge::posenetPassThrough().inputBytes(), layout);
    picture.addPerson(gridPerson(2, 2, 2), 255);
    picture.addPerson(gridPerson(12, 18, 2), 123); // about 0.4
    PaintedFrameSource source(kCamera, kPosenetInput, picture.bytes);
    auto detector = posenetDetector();
    const IRectangle rectangle(0, 0, 481, 353);

    auto detections = detector->detect(source, rectangle);
    ASSERT_EQ(detections.size(), 1u);
    detector->setConfidenceThreshold(0.0f);
    detections = detector->detect(source, rectangle);
    ASSERT_EQ(detections.size(), 2u);
    EXPECT_NEAR(detections[1].confidence, 0.4f, 0.05f);
    expectSamePoses(detections, expectedPoses(picture, layout, 0.0f, kPosenetInput, &rectangle));
    detector->setConfidenceThreshold(0.99f);
    EXPECT_EQ(detector->detect(source, rectangle).size(), 1u);
    detector->setConfidenceThreshold(1.0f);
    EXPECT_TRUE(detector->detect(source, rectangle).empty());
    EXPECT_EQ(detector->getNumberOfPoses(), 0);
}

TEST(PosenetPoseDetector, EachFrameGetsItsOwnResult) {
    // Without the rewinds, the second job would write behind the first result and the mapped
    // files would still show the first frame.
    const PoseTensorLayout layout = posenetLayout();
    PosePicture first(modelforge::posenetPassThrough().inputBytes(), layout);
    first.addPerson(gridPerson(2, 2, 2), 255);
    PosePicture second(modelforge::posenetPassThrough().inputBytes(), layout);
    second.addPerson(gridPerson(12, 18, 2), 255);
    PaintedFrameSource source(kCamera, kPosenetInput, first.bytes);
    auto detector = posenetDetector();
    const IRectangle rectangle(0, 0, 481, 353);

    ASSERT_EQ(detector->detect(source, rectangle).size(), 1u);
    source.bytes = second.bytes;
    const auto detections = detector->detect(source, rectangle);
    ASSERT_EQ(detections.size(), 1u);
    expectPersonAt(detections[0], gridPerson(12, 18, 2), kPosenetInput, rectangle, 2.0f);
    source.bytes = PosePicture(modelforge::posenetPassThrough().inputBytes(), layout).bytes;
    EXPECT_TRUE(detector->detect(source, rectangle).empty());
}

TEST(PosenetPoseDetector, FailuresOfDetectGiveOneLineAndNothing) {
    FailureScope failures;
    const PoseTensorLayout layout = posenetLayout();
    PosePicture picture(modelforge::posenetPassThrough().inputBytes(), layout);
    picture.addPerson(gridPerson(2, 2, 2), 255);
    PaintedFrameSource source(kCamera, kPosenetInput, picture.bytes);
    auto detector = posenetDetector();
    const IRectangle rectangle(0, 0, 481, 353);
    RecordingLogger logger;
    ScopedLogger scope(logger);

    source.fail = true;
    stemlib_host_larod_clear_log();
    EXPECT_TRUE(detector->detect(source, rectangle).empty());
    EXPECT_TRUE(larodCallLog({"larodRunJob"}).empty());
    source.fail = false;

    stemlib_host_set_failure("larodRunJob", "accelerator reset");
    EXPECT_TRUE(detector->detect(source, rectangle).empty());
    stemlib_host_clear_failures();

    EXPECT_TRUE(detector->detect(source).empty());
    EXPECT_EQ(
        linesAt(logger, "error"),
        (std::vector<std::string>{
            "detect: Unable to getFrame", "detect: Unable to run inference: accelerator reset",
            "detect: PosenetPoseDetector::detect(ImageFrameSource& imageFrameSource) "
            "called. Use detect(ImageFrameSource& imageFrameSource, const FBoundingBox& "
            "lowResolutionBoundingBox)"}));
    // The detector remains usable.
    EXPECT_EQ(detector->detect(source, rectangle).size(), 1u);

    // Before initialize there is nothing to run.
    auto idle = std::make_unique<PosenetPoseDetector>(forgedModel("posenet_481x353"), "");
    EXPECT_TRUE(idle->detect(source, rectangle).empty());
    EXPECT_TRUE(hasLine(logger, "error", "detect: The model is not initialized"));
}

TEST(PosenetPoseDetector, ConstructionAndTearDownTexts) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    stemlib_host_larod_clear_log();
    { auto detector = posenetDetector(); }
    const std::vector<std::string> lines =
        linesOf(logger, {"PosenetPoseDetector", "~PosenetPoseDetector", "~LarodDetectorBase"});
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "PosenetPoseDetector: PosenetPoseDetector::PosenetPoseDetector: "
                         "modelFilepath " +
                             forgedModel("posenet_481x353"),
                         "~PosenetPoseDetector: PosenetPoseDetector destructor called",
                         "~LarodDetectorBase: LarodDetectorBase destructor called."}));
    EXPECT_EQ(larodCallLog({"larodDestroyTensors"}),
              (std::vector<std::string>{"larodDestroyTensors inputs, files closed",
                                        "larodDestroyTensors outputs, files closed"}));
    EXPECT_EQ(larodCallLog({"larodSetTensorFd"}),
              (std::vector<std::string>{"larodSetTensorFd input 0", "larodSetTensorFd output 0",
                                        "larodSetTensorFd output 1", "larodSetTensorFd output 2"}));
}

TEST(LarodPoseDetector, DecodesInInputPixelsOrIntoTheRectangle) {
    const PoseTensorLayout layout = bodypixLayout();
    const Resolution input(1281, 721);
    PosePicture picture(modelforge::bodypixPassThrough().inputBytes(), layout);
    const PersonCells big = gridPerson(10, 40, 2);
    const PersonCells small = gridPerson(30, 5, 1);
    picture.addPerson(big, 255);
    picture.addPerson(small, 230);
    PaintedFrameSource source(kCamera, input, picture.bytes);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    auto detector =
        std::make_unique<LarodPoseDetector>(forgedModel("bodypix_1281x721"), "cpu-tflite");
    ASSERT_TRUE(detector->initialize());
    EXPECT_EQ(detector->getDeviceName(), "cpu-tflite");
    EXPECT_EQ(detector->getInputResolution(), input);

    auto detections = detector->detect(source);
    expectSamePoses(detections, expectedPoses(picture, layout, 0.5f, input, nullptr));
    ASSERT_EQ(detections.size(), 2u);
    expectPersonAt(detections[0], big, input, IRectangle(0, 0, 1281, 721), 2.0f);
    expectPersonAt(detections[1], small, input, IRectangle(0, 0, 1281, 721), 2.0f);

    const IRectangle rectangle(-40, 10, 640, 360);
    detections = detector->detect(source, rectangle);
    expectSamePoses(detections, expectedPoses(picture, layout, 0.5f, input, &rectangle));
    EXPECT_TRUE(linesAt(logger, "error").empty());
    EXPECT_TRUE(hasLine(logger, "info",
                        "LarodPoseDetector: LarodPoseDetector::LarodPoseDetector: modelFilepath " +
                            forgedModel("bodypix_1281x721")));
}

TEST(LarodPoseDetector, FailuresOfDetectGiveOneLineAndNothing) {
    FailureScope failures;
    PosePicture picture(modelforge::bodypixPassThrough().inputBytes(), bodypixLayout());
    PaintedFrameSource source(kCamera, Resolution(1281, 721), picture.bytes);
    auto detector = std::make_unique<LarodPoseDetector>(forgedModel("bodypix_1281x721"), "");
    ASSERT_TRUE(detector->initialize());
    RecordingLogger logger;
    ScopedLogger scope(logger);
    source.fail = true;
    EXPECT_TRUE(detector->detect(source).empty());
    EXPECT_TRUE(detector->detect(source, IRectangle(0, 0, 10, 10)).empty());
    source.fail = false;
    stemlib_host_set_failure("larodRunJob", "busy");
    EXPECT_TRUE(detector->detect(source).empty());
    EXPECT_EQ(linesAt(logger, "error"),
              (std::vector<std::string>{"detect: Unable to getFrame", "detect: Unable to getFrame",
                                        "detect: Unable to run inference: busy"}));
}

TEST(Bodypix_320W_240H_PoseDetector, ReadsTheDisplacementsAsOneConcatenatedArray) {
    const PoseTensorLayout layout = bodypix320Layout();
    const Resolution input(320, 240);
    PosePicture picture(modelforge::bodypix320PassThrough().inputBytes(), layout);
    // Rows 0 to 7 take their mid offsets from the forward displacements, rows 7 to 14 from the
    // backward ones: the second person straddles the seam.
    const PersonCells first = gridPerson(0, 1, 1);
    const PersonCells second = gridPerson(5, 10, 2);
    picture.addPerson(first, 255);
    picture.addPerson(second, 240);
    PaintedFrameSource source(Resolution(640, 480), input, picture.bytes);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    auto detector =
        std::make_unique<Bodypix_320W_240H_PoseDetector>(forgedModel("bodypix_320x240"));
    ASSERT_TRUE(detector->initialize());
    EXPECT_EQ(detector->getDeviceName(), "a9-dlpu-tflite");

    const IRectangle rectangle(0, 0, 640, 480);
    const auto detections = detector->detect(source, rectangle);
    expectSamePoses(detections, expectedPoses(picture, layout, 0.5f, input, &rectangle));
    ASSERT_EQ(detections.size(), 2u);
    expectPersonAt(detections[0], first, input, rectangle, 3.0f);
    expectPersonAt(detections[1], second, input, rectangle, 3.0f);

    EXPECT_TRUE(detector->detect(source).empty());
    EXPECT_EQ(linesAt(logger, "error"),
              std::vector<std::string>{
                  "detect: Bodypix_320W_240H_PoseDetector::detect(ImageFrameSource& "
                  "imageFrameSource) called. Use detect(ImageFrameSource& imageFrameSource, "
                  "const FBoundingBox& lowResolutionBoundingBox)"});
    detector.reset();
    EXPECT_EQ(
        linesOf(logger, {"Bodypix_320W_240H_PoseDetector", "~Bodypix_320W_240H_PoseDetector"}),
        (std::vector<std::string>{
            "Bodypix_320W_240H_PoseDetector: PosenetPoseDetector::PosenetPoseDetector: "
            "modelFilepath " +
                forgedModel("bodypix_320x240"),
            "~Bodypix_320W_240H_PoseDetector: Bodypix_320W_240H_PoseDetector destructor "
            "called"}));
}

TEST(Bodypix_320W_240H_PoseDetector, FailuresOfDetectGiveOneLineAndNothing) {
    FailureScope failures;
    PosePicture picture(modelforge::bodypix320PassThrough().inputBytes(), bodypix320Layout());
    picture.addPerson(gridPerson(0, 1, 1), 255);
    PaintedFrameSource source(Resolution(640, 480), Resolution(320, 240), picture.bytes);
    auto detector =
        std::make_unique<Bodypix_320W_240H_PoseDetector>(forgedModel("bodypix_320x240"));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    const IRectangle rectangle(0, 0, 640, 480);
    EXPECT_TRUE(detector->detect(source, rectangle).empty());
    ASSERT_TRUE(detector->initialize());
    source.fail = true;
    EXPECT_TRUE(detector->detect(source, rectangle).empty());
    source.fail = false;
    stemlib_host_set_failure("larodRunJob", "thermal shutdown");
    EXPECT_TRUE(detector->detect(source, rectangle).empty());
    stemlib_host_set_failure("larodRunJob", nullptr);
    // The grid comes from the service: without it there is nothing to decode.
    stemlib_host_set_failure("larodGetTensorDims", "no dimensions");
    EXPECT_TRUE(detector->detect(source, rectangle).empty());
    stemlib_host_clear_failures();
    EXPECT_EQ(linesAt(logger, "error"),
              (std::vector<std::string>{"detect: The model is not initialized",
                                        "detect: Unable to getFrame",
                                        "detect: Unable to run inference: thermal shutdown",
                                        "detect: Unable to get tensor dimensions: no dimensions"}));
    EXPECT_EQ(detector->detect(source, rectangle).size(), 1u);
}

// MoveNet's output is 17 rows of y, x, score: here bytes over 256 from the picture's start.
std::vector<std::uint8_t> movenetPicture(const std::array<std::uint8_t, 51>& rows) {
    std::vector<std::uint8_t> bytes(modelforge::movenetPassThrough().inputBytes(), 7);
    std::copy(rows.begin(), rows.end(), bytes.begin());
    return bytes;
}

TEST(MovenetPoseDetector, MapsTheModelsSkeletonIntoTheRectangle) {
    std::array<std::uint8_t, 51> rows{};
    for (int k = 0; k < 17; ++k) {
        rows[3 * k] = static_cast<std::uint8_t>(10 * k);      // y
        rows[3 * k + 1] = static_cast<std::uint8_t>(250 - k); // x
        rows[3 * k + 2] = static_cast<std::uint8_t>(128 + k); // score
    }
    rows[0] = 0; // nose at y = 0
    rows[1] = 0; // and x = 0
    PaintedFrameSource source(kCamera, Resolution(192, 192), movenetPicture(rows));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    MovenetPoseDetector detector(forgedModel("movenet_192x192"));
    ASSERT_TRUE(detector.initialize());

    const IRectangle rectangle(-100, 20, 800, 600);
    const auto detection = detector.detect(source, rectangle);
    EXPECT_FLOAT_EQ(detection.confidence, 0.5f);
    ASSERT_EQ(detection.skeleton.keypoints().size(), 17u);
    for (BodypixBodyPart part : BodyParts) {
        const int k = static_cast<int>(part);
        const float y = rows[3 * k] / 256.0f;
        const float x = rows[3 * k + 1] / 256.0f;
        const auto& keypoint = detection.skeleton.keypoints().get(part);
        EXPECT_EQ(keypoint.point.x, static_cast<int>(x * 800.0f + -100.0f + 0.5f)) << k;
        EXPECT_EQ(keypoint.point.y, static_cast<int>(y * 600.0f + 20.0f + 0.5f)) << k;
        EXPECT_FLOAT_EQ(keypoint.score, rows[3 * k + 2] / 256.0f);
    }
    // Input (0, 0): -99.5 truncates toward zero.
    EXPECT_EQ(detection.skeleton.keypoints().get(BodypixBodyPart::Nose).point, IPoint(-99, 20));
    EXPECT_EQ(detection.boundingBox, detection.skeleton.getBoundingBox());
    EXPECT_TRUE(linesAt(logger, "error").empty());
}

TEST(MovenetPoseDetector, FailuresGiveADefaultDetection) {
    FailureScope failures;
    PaintedFrameSource source(kCamera, Resolution(192, 192), movenetPicture({}));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    MovenetPoseDetector detector(forgedModel("movenet_192x192"));
    ASSERT_TRUE(detector.initialize());
    source.fail = true;
    EXPECT_EQ(detector.detect(source, IRectangle(0, 0, 10, 10)).skeleton.keypoints().size(), 0u);
    source.fail = false;
    stemlib_host_set_failure("larodRunJob", "no power");
    const auto detection = detector.detect(source, IRectangle(0, 0, 10, 10));
    EXPECT_EQ(detection.skeleton.keypoints().size(), 0u);
    EXPECT_EQ(detection.confidence, 0.0f);
    EXPECT_TRUE(detector.detect(source).empty());
    EXPECT_EQ(linesAt(logger, "error"),
              (std::vector<std::string>{
                  "detect: Unable to getFrame", "detect: Unable to run inference: no power",
                  "detect: MovenetPoseDetector::detect(ImageFrameSource& imageFrameSource) "
                  "called. Use detect(ImageFrameSource& imageFrameSource, const FBoundingBox& "
                  "lowResolutionBoundingBox)"}));
}

TEST(PoseDetectors, RefuseModelsWithoutTheirOutputs) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    auto posenet = std::make_unique<PosenetPoseDetector>(forgedModel("movenet_192x192"), "");
    EXPECT_THROW(posenet->initialize(), std::runtime_error);
    auto bodypix = std::make_unique<LarodPoseDetector>(forgedModel("posenet_481x353"), "");
    EXPECT_THROW(bodypix->initialize(), std::runtime_error);
    EXPECT_TRUE(hasLine(logger, "error",
                        "bindTensorsToFiles: The model has 1 input and 3 output tensors; "
                        "LarodPoseDetector binds 1 and 6."));
}

} // namespace

#endif
