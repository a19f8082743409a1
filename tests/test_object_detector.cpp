// LarodObjectDetector on the host inference service: decoding into the source's pixels, the
// threshold and the cap of 100 results, suppression of overlapping boxes, every failure of
// detect, the texts of binding and destruction, and real post-processing by the
// TFLite_Detection_PostProcess operator of an SSD-style model.
#include "HostInference.h"

#ifdef STEMLIB_TEST_HOST_LAROD

#include "LarodObjectDetector.h"
#include "Location.h"
#include "LogLines.h"
#include "PosePainting.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

const Resolution kCamera(1920, 1080);
const Resolution kModelInput(300, 300);

// One result of the pass-through detector model: box edges and score in 256ths, class as is.
struct RawResult {
    std::uint8_t top;
    std::uint8_t left;
    std::uint8_t bottom;
    std::uint8_t right;
    std::uint8_t classID;
    std::uint8_t score;
};

std::vector<std::uint8_t> rawPicture(const std::vector<RawResult>& results, std::uint8_t count) {
    const modelforge::PassThroughModel model = modelforge::rawDetectorPassThrough();
    std::vector<std::uint8_t> bytes(model.inputBytes(), 0);
    const std::size_t locations = model.output("locations").inputOffset;
    const std::size_t classes = model.output("classes").inputOffset;
    const std::size_t scores = model.output("scores").inputOffset;
    for (std::size_t i = 0; i < results.size(); ++i) {
        bytes[locations + 4 * i] = results[i].top;
        bytes[locations + 4 * i + 1] = results[i].left;
        bytes[locations + 4 * i + 2] = results[i].bottom;
        bytes[locations + 4 * i + 3] = results[i].right;
        bytes[classes + i] = results[i].classID;
        bytes[scores + i] = results[i].score;
    }
    bytes[model.output("count").inputOffset] = count;
    return bytes;
}

// Where a normalised edge lands in a source of the given extent (size - 1), truncated.
float pixel(std::uint8_t value, unsigned int size) {
    return std::trunc(static_cast<float>(value) / 256.0f * static_cast<float>(size - 1));
}

FRectangle expectedBox(const RawResult& r, const Resolution& source) {
    const float left = pixel(r.left, source.width);
    const float top = pixel(r.top, source.height);
    return FRectangle(left, top, pixel(r.right, source.width) - left,
                      pixel(r.bottom, source.height) - top);
}

std::unique_ptr<LarodObjectDetector> rawDetector() {
    auto detector = std::make_unique<LarodObjectDetector>(forgedModel("detector_raw_300x300"));
    EXPECT_TRUE(detector->initialize());
    return detector;
}

TEST(LarodObjectDetector, DecodesBoxesIntoTheSourcesPixels) {
    const std::vector<RawResult> results = {
        {64, 128, 192, 192, 0, 230}, // a person
        {10, 10, 60, 40, 7, 200},    // a truck
        {0, 0, 32, 32, 1, 100},      // below the threshold: skipped while decoding
        {200, 10, 250, 60, 2, 128},  // exactly at the threshold: decoded, then dropped
    };
    PaintedFrameSource source(kCamera, kModelInput, rawPicture(results, 4));
    auto detector = rawDetector();
    EXPECT_EQ(detector->getDeviceName(), "a9-dlpu-tflite");
    EXPECT_EQ(detector->getInputResolution(), kModelInput);

    const auto detections = detector->detect(source);
    ASSERT_EQ(detections.size(), 2u);
    EXPECT_EQ(detections[0].boundingBox, expectedBox(results[0], kCamera));
    EXPECT_EQ(detections[0].boundingBox, FRectangle(959, 269, 480, 540));
    EXPECT_EQ(static_cast<Objects>(detections[0].classID), Objects::Person);
    EXPECT_FLOAT_EQ(detections[0].confidence, 230 / 256.0f);
    EXPECT_EQ(detections[1].boundingBox, expectedBox(results[1], kCamera));
    EXPECT_EQ(static_cast<Objects>(detections[1].classID), Objects::Truck);

    const auto decoded = detector->tensorsToDetections(kCamera);
    ASSERT_EQ(decoded.size(), 3u);
    EXPECT_FLOAT_EQ(decoded[2].confidence, 0.5f);
    EXPECT_EQ(decoded[2].classID, 2);
    // Another source size scales the same outputs.
    EXPECT_EQ(detector->tensorsToDetections(kModelInput)[0].boundingBox,
              expectedBox(results[0], kModelInput));
}

TEST(LarodObjectDetector, CapsTheCountAndSuppressesOverlaps) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    auto detector = rawDetector();

    // 150 claimed, 100 read: all the same box, so the first suppresses the rest.
    std::vector<RawResult> same(100, RawResult{10, 10, 100, 100, 0, 255});
    PaintedFrameSource crowded(kCamera, kModelInput, rawPicture(same, 150));
    EXPECT_EQ(detector->detect(crowded).size(), 1u);
    EXPECT_EQ(detector->tensorsToDetections(kCamera).size(), 100u);
    EXPECT_EQ(linesAt(logger, "error"),
              (std::vector<std::string>{"tensorsToDetections: numDetections > "
                                        "MAX_NUMBER_OF_RESULTS",
                                        "tensorsToDetections: numDetections > "
                                        "MAX_NUMBER_OF_RESULTS"}));

    // A box inside an earlier one is suppressed whatever its score; a flat box never is.
    PaintedFrameSource nested(
        kCamera, kModelInput,
        rawPicture({{0, 0, 200, 200, 0, 150}, {50, 50, 60, 60, 0, 250}, {100, 0, 100, 200, 3, 250}},
                   3));
    const auto detections = detector->detect(nested);
    ASSERT_EQ(detections.size(), 2u);
    EXPECT_EQ(detections[0].classID, 0);
    EXPECT_FLOAT_EQ(detections[0].confidence, 150 / 256.0f);
    EXPECT_EQ(detections[1].classID, 3);
    EXPECT_EQ(detections[1].boundingBox.height, 0.0f);

    // The threshold also sets the filter's.
    detector->setConfidenceThreshold(0.9f);
    const auto strict = detector->detect(nested);
    ASSERT_EQ(strict.size(), 2u);
    EXPECT_FLOAT_EQ(strict[0].confidence, 250 / 256.0f);
}

TEST(LarodObjectDetector, EachFrameGetsItsOwnResult) {
    PaintedFrameSource source(kCamera, kModelInput, rawPicture({{0, 0, 100, 100, 4, 200}}, 1));
    auto detector = rawDetector();
    ASSERT_EQ(detector->detect(source).size(), 1u);
    source.bytes = rawPicture({{0, 0, 50, 50, 5, 210}, {100, 100, 200, 200, 6, 220}}, 2);
    const auto detections = detector->detect(source);
    ASSERT_EQ(detections.size(), 2u);
    EXPECT_EQ(detections[0].classID, 5);
    EXPECT_EQ(detections[1].classID, 6);
    source.bytes = rawPicture({}, 0);
    EXPECT_TRUE(detector->detect(source).empty());
}

TEST(LarodObjectDetector, FailuresOfDetectGiveOneLineAndNothing) {
    FailureScope failures;
    PaintedFrameSource source(kCamera, kModelInput, rawPicture({{0, 0, 100, 100, 4, 200}}, 1));
    RecordingLogger logger;
    ScopedLogger scope(logger);
    stemlib_host_larod_clear_log();
    {
        auto detector = rawDetector();
        source.fail = true;
        EXPECT_TRUE(detector->detect(source).empty());
        EXPECT_TRUE(larodCallLog({"larodRunJob"}).empty());
        source.fail = false;
        stemlib_host_set_failure("larodRunJob", "job queue full");
        EXPECT_TRUE(detector->detect(source).empty());
        stemlib_host_clear_failures();
        EXPECT_EQ(detector->detect(source).size(), 1u);
        EXPECT_EQ(linesAt(logger, "error"),
                  (std::vector<std::string>{"detect: Unable to getFrame",
                                            "detect: Unable to run inference: job queue full"}));
    }
    EXPECT_EQ(linesOf(logger, {"bindTensorsToFiles", "~LarodObjectDetector", "~LarodDetectorBase"}),
              (std::vector<std::string>{
                  "bindTensorsToFiles: LarodObjectDetector::bindTensorsToFiles numInputTensors=1 "
                  "numOutputTensors=4",
                  "~LarodObjectDetector: LarodObjectDetector destructor called",
                  "~LarodDetectorBase: LarodDetectorBase destructor called."}));
    EXPECT_EQ(larodCallLog({"larodSetTensorFd", "larodDestroyTensors"}),
              (std::vector<std::string>{"larodSetTensorFd input 0", "larodSetTensorFd output 0",
                                        "larodSetTensorFd output 1", "larodSetTensorFd output 2",
                                        "larodSetTensorFd output 3",
                                        "larodDestroyTensors inputs, files closed",
                                        "larodDestroyTensors outputs, files closed"}));

    LarodObjectDetector idle(forgedModel("detector_raw_300x300"));
    EXPECT_TRUE(idle.detect(source).empty());
    EXPECT_TRUE(hasLine(logger, "error", "detect: The model is not initialized"));
}

// The SSD model's bytes for one box: its centre and size encoded against the anchor at
// (0.5, 0.5) of size 1, and its class scores.
struct SsdBox {
    float centreY;
    float centreX;
    float height;
    float width;
    int classID;
    std::uint8_t score;
};

std::vector<std::uint8_t> ssdPicture(const std::vector<SsdBox>& boxes) {
    const modelforge::SsdDetectorModel model;
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(model.width * model.height * 3), 0);
    auto encode = [&model](float value) {
        const long byte = model.boxZeroPoint + std::lround(value / model.boxScale);
        EXPECT_TRUE(byte >= 0 && byte <= 255) << value << " cannot be encoded";
        return static_cast<std::uint8_t>(byte);
    };
    for (int i = 0; i < model.numBoxes; ++i) {
        std::uint8_t* box = &bytes[model.boxOffset + 4 * static_cast<std::size_t>(i)];
        std::fill(box, box + 4, static_cast<std::uint8_t>(model.boxZeroPoint));
    }
    for (std::size_t i = 0; i < boxes.size(); ++i) {
        std::uint8_t* box = &bytes[model.boxOffset + 4 * i];
        box[0] = encode(boxes[i].centreY - 0.5f);
        box[1] = encode(boxes[i].centreX - 0.5f);
        box[2] = encode(std::log(boxes[i].height));
        box[3] = encode(std::log(boxes[i].width));
        bytes[model.scoreOffset + i * (model.numClasses + 1) + 1 +
              static_cast<std::size_t>(boxes[i].classID)] = boxes[i].score;
    }
    return bytes;
}

// The box the operator decodes from the bytes ssdPicture wrote, in a source's pixels.
FRectangle decodedSsdBox(const SsdBox& box, const Resolution& source) {
    const modelforge::SsdDetectorModel model;
    auto value = [&model](float v) {
        return static_cast<float>(std::lround(v / model.boxScale)) * model.boxScale;
    };
    const float cy = 0.5f + value(box.centreY - 0.5f);
    const float cx = 0.5f + value(box.centreX - 0.5f);
    const float halfH = 0.5f * std::exp(value(std::log(box.height)));
    const float halfW = 0.5f * std::exp(value(std::log(box.width)));
    const float top = std::trunc((cy - halfH) * static_cast<float>(source.height - 1));
    const float left = std::trunc((cx - halfW) * static_cast<float>(source.width - 1));
    const float bottom = std::trunc((cy + halfH) * static_cast<float>(source.height - 1));
    const float right = std::trunc((cx + halfW) * static_cast<float>(source.width - 1));
    return FRectangle(left, top, right - left, bottom - top);
}

void expectNear(const FRectangle& actual, const FRectangle& expected) {
    EXPECT_NEAR(actual.x, expected.x, 1.0f);
    EXPECT_NEAR(actual.y, expected.y, 1.0f);
    EXPECT_NEAR(actual.width, expected.width, 2.0f);
    EXPECT_NEAR(actual.height, expected.height, 2.0f);
}

TEST(LarodObjectDetector, RunsAnSsdModelWithItsPostProcessing) {
    const std::vector<SsdBox> boxes = {
        {0.3f, 0.3f, 0.2f, 0.2f, 0, 240},    // a person
        {0.7f, 0.6f, 0.3f, 0.2f, 2, 200},    // a car
        {0.31f, 0.3f, 0.2f, 0.2f, 0, 180},   // the person again: suppressed by the operator
        {0.5f, 0.85f, 0.15f, 0.15f, 5, 100}, // a bus below the detector's threshold
    };
    PaintedFrameSource source(kCamera, kModelInput, ssdPicture(boxes));
    auto detector = std::make_unique<LarodObjectDetector>(forgedModel("detector_ssd_300x300"));
    ASSERT_TRUE(detector->initialize());

    const auto decoded = detector->tensorsToDetections(kCamera);
    EXPECT_TRUE(decoded.empty()) << "nothing ran yet";
    const auto detections = detector->detect(source);
    ASSERT_EQ(detections.size(), 2u);
    EXPECT_EQ(detections[0].classID, 0);
    EXPECT_FLOAT_EQ(detections[0].confidence, 240 / 256.0f);
    expectNear(detections[0].boundingBox, decodedSsdBox(boxes[0], kCamera));
    EXPECT_EQ(detections[1].classID, 2);
    EXPECT_FLOAT_EQ(detections[1].confidence, 200 / 256.0f);
    expectNear(detections[1].boundingBox, decodedSsdBox(boxes[1], kCamera));

    // The operator wrote three: the bus is decoded once the threshold allows it.
    detector->setConfidenceThreshold(0.3f);
    const auto all = detector->detect(source);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(static_cast<Objects>(all[2].classID), Objects::Bus);
    expectNear(all[2].boundingBox, decodedSsdBox(boxes[3], kCamera));
}

} // namespace

#endif
