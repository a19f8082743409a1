// LarodObjectDetector on the host inference service with a pass-through model whose four outputs
// are bytes of the picture: decoding into the source's pixels, the threshold and the cap of 100
// results, suppression of overlapping boxes, the rewinds between frames, every failure of
// detect, and the texts of binding and destruction. The road through a real SSD model's
// post-processing is in test_inference_end_to_end.
#include "HostInference.h"

#ifdef STEMLIB_TEST_HOST_LAROD

#include "LarodObjectDetector.h"
#include "Location.h"
#include "LogLines.h"
#include "PosePainting.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <array>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

const Resolution kCamera(1920, 1080);

// One result of the pass-through model: top, left, bottom and right in 256ths, the class as
// is, the score in 256ths.
using RawResult = std::array<std::uint8_t, 6>;

std::vector<std::uint8_t> rawPicture(const std::vector<RawResult>& results, std::uint8_t count) {
    const modelforge::PassThroughModel model = modelforge::rawDetectorPassThrough();
    std::vector<std::uint8_t> bytes(model.inputBytes(), 0);
    for (std::size_t i = 0; i < results.size(); ++i) {
        std::copy_n(results[i].begin(), 4,
                    bytes.begin() +
                        static_cast<std::ptrdiff_t>(model.output("locations").inputOffset + 4 * i));
        bytes[model.output("classes").inputOffset + i] = results[i][4];
        bytes[model.output("scores").inputOffset + i] = results[i][5];
    }
    bytes[model.output("count").inputOffset] = count;
    return bytes;
}

std::unique_ptr<LarodObjectDetector> rawDetector() {
    auto detector = std::make_unique<LarodObjectDetector>(forgedModel("detector_raw_300x300"));
    EXPECT_TRUE(detector->initialize());
    return detector;
}

TEST(LarodObjectDetector, DecodesBoxesIntoTheSourcesPixelsFrameByFrame) {
    PaintedFrameSource source(kCamera, rawPicture(
                                           {
                                               {64, 128, 192, 192, 0, 230}, // a person
                                               {10, 10, 60, 40, 7, 200},    // a truck
                                               {0, 0, 32, 32, 1, 100},      // below the threshold
                                               {200, 10, 250, 60, 2, 128},  // at the threshold
                                           },
                                           4));
    auto detector = rawDetector();
    // Edges times (size - 1), truncated: 128 / 256 * 1919 = 959.5 gives 959.
    const auto detections = detector->detect(source);
    ASSERT_EQ(detections.size(), 2u);
    EXPECT_EQ(detections[0].boundingBox, FRectangle(959, 269, 480, 540));
    EXPECT_EQ(static_cast<Objects>(detections[0].classID), Objects::Person);
    EXPECT_FLOAT_EQ(detections[0].confidence, 230 / 256.0f);
    EXPECT_EQ(detections[1].boundingBox, FRectangle(74, 42, 225, 210));
    EXPECT_EQ(static_cast<Objects>(detections[1].classID), Objects::Truck);
    // The result at the threshold is decoded, then dropped for not being above it.
    const auto decoded = detector->tensorsToDetections(kCamera);
    ASSERT_EQ(decoded.size(), 3u);
    EXPECT_FLOAT_EQ(decoded[2].confidence, 0.5f);

    // Each frame gets its own result: the outputs are rewound before each job.
    source.bytes = rawPicture({{0, 0, 50, 50, 5, 210}, {100, 100, 200, 200, 6, 220}}, 2);
    const auto next = detector->detect(source);
    ASSERT_EQ(next.size(), 2u);
    EXPECT_EQ(next[1].boundingBox, FRectangle(749, 421, 750, 421));
    source.bytes = rawPicture({}, 0);
    EXPECT_TRUE(detector->detect(source).empty());
}

TEST(LarodObjectDetector, CapsTheCountAndSuppressesOverlaps) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    auto detector = rawDetector();

    // 150 claimed, 100 read: all the same box, so the first suppresses the rest.
    PaintedFrameSource source(
        kCamera, rawPicture(std::vector<RawResult>(100, {10, 10, 100, 100, 0, 255}), 150));
    EXPECT_EQ(detector->detect(source).size(), 1u);
    EXPECT_EQ(detector->tensorsToDetections(kCamera).size(), 100u);
    EXPECT_EQ(
        linesAt(logger, "error"),
        std::vector<std::string>(2, "tensorsToDetections: numDetections > MAX_NUMBER_OF_RESULTS"));

    // A box inside an earlier one is suppressed whatever its score.
    source.bytes = rawPicture({{0, 0, 200, 200, 0, 150}, {50, 50, 60, 60, 3, 250}}, 2);
    const auto detections = detector->detect(source);
    ASSERT_EQ(detections.size(), 1u);
    EXPECT_EQ(detections[0].classID, 0);
}

TEST(LarodObjectDetector, FailuresOfDetectGiveOneLineAndNothing) {
    HostCameraScope camera; // clears the requested failures at the end
    PaintedFrameSource source(kCamera, rawPicture({{0, 0, 100, 100, 4, 200}}, 1));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    stemlib_host_larod_clear_log();
    {
        LarodObjectDetector idle(forgedModel("detector_raw_300x300"));
        EXPECT_TRUE(idle.detect(source).empty());
        auto detector = rawDetector();
        source.fail = true;
        EXPECT_TRUE(detector->detect(source).empty());
        EXPECT_TRUE(larodCallLog({"larodRunJob"}).empty()) << "the model does not run";
        source.fail = false;
        stemlib_host_set_failure("larodRunJob", "job queue full");
        EXPECT_TRUE(detector->detect(source).empty());
        stemlib_host_clear_failures();
        EXPECT_EQ(detector->detect(source).size(), 1u);
        EXPECT_EQ(linesAt(logger, "error"),
                  (std::vector<std::string>{"detect: The model is not initialized",
                                            "detect: Unable to getFrame",
                                            "detect: Unable to run inference: job queue full"}));
        stemlib_host_larod_clear_log();
    }
    EXPECT_EQ(linesOf(logger, {"bindTensorsToFiles", "~LarodObjectDetector", "~LarodDetectorBase"}),
              (std::vector<std::string>{
                  "bindTensorsToFiles: LarodObjectDetector::bindTensorsToFiles numInputTensors=1 "
                  "numOutputTensors=4",
                  "~LarodObjectDetector: LarodObjectDetector destructor called",
                  "~LarodDetectorBase: LarodDetectorBase destructor called.",
                  "~LarodObjectDetector: LarodObjectDetector destructor called",
                  "~LarodDetectorBase: LarodDetectorBase destructor called."}));
    // The detector's five files are closed before the session releases the tensors.
    EXPECT_EQ(larodCallLog({"larodDestroyTensors"}),
              (std::vector<std::string>{"larodDestroyTensors inputs, files closed",
                                        "larodDestroyTensors outputs, files closed",
                                        "larodDestroyTensors null", "larodDestroyTensors null"}));
}

} // namespace

#endif
