// The detector interface, the overlap of object boxes and the non-maximum suppression filter.
#include "ConstantStreamSource.h"
#include "Detector.h"
#include "NMSDetectionFilter.h"
#include "ObjectDetection.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace Ombrel;

namespace {

class TestDetector : public Detector<ObjectDetection> {
public:
    TestDetector() : Detector<ObjectDetection>("model.tflite") {}
    float filterConfidence() const { return _nmsFilter.minConfidence; }
};

// A detection type whose overlap answers false, as pose detections do.
struct NeverOverlapping {
    float confidence;
    bool overlap(const NeverOverlapping&) const { return false; }
};

TEST(Detector, TheThresholdAndTheFilterMeetOnceSet) {
    TestDetector detector;
    EXPECT_FLOAT_EQ(detector.getConfidenceThreshold(), 0.5f);
    EXPECT_FLOAT_EQ(detector.filterConfidence(), 0.35f);
    EXPECT_EQ(detector.getInputResolution(), Resolution(0, 0));
    detector.setConfidenceThreshold(0.7f);
    EXPECT_FLOAT_EQ(detector.getConfidenceThreshold(), 0.7f);
    EXPECT_FLOAT_EQ(detector.filterConfidence(), 0.7f);
    DetectorBase& base = detector;
    base.setConfidenceThreshold(0.2f);
    EXPECT_FLOAT_EQ(detector.filterConfidence(), 0.2f);

    // The interface alone detects nothing.
    ConstantStreamSource source(200);
    EXPECT_TRUE(detector.detect(source).empty());
}

TEST(ObjectDetection, OverlapIsOverTheSmallerAreaAndDistanceJoinsTheCentres) {
    const ObjectDetection big(0, 0, 100, 100, 0, 0.9f);
    const ObjectDetection inside(FRectangle(10, 10, 5, 5), 2, 0.5f);
    const ObjectDetection half(50, 0, 100, 100, 0, 0.9f);
    const ObjectDetection flat(10, 10, 50, 0, 0, 0.9f);
    EXPECT_FLOAT_EQ(big.overlap(inside), 1.0f);
    EXPECT_FLOAT_EQ(inside.overlap(big), 1.0f);
    EXPECT_FLOAT_EQ(big.overlap(half), 0.5f);
    EXPECT_FLOAT_EQ(big.overlap(flat), 0.0f);
    EXPECT_FLOAT_EQ(big.overlap(ObjectDetection(200, 0, 10, 10, 0, 1.0f)), 0.0f);
    EXPECT_FLOAT_EQ(big.distance(half), 50.0f);
    EXPECT_FLOAT_EQ(big.distance(ObjectDetection(30, 40, 100, 100, 0, 1.0f)), 50.0f);

    const ObjectDetection empty;
    EXPECT_EQ(empty.classID, 0);
    EXPECT_EQ(empty.confidence, 0.0f);
    EXPECT_EQ(empty.boundingBox, FRectangle());
    EXPECT_EQ(inside.toString(), "class 2 confidence 0.5 Rectangle: x=10, y=10, width=5, height=5");
}

TEST(NMSDetectionFilter, TheEarlierDetectionWinsWhateverTheConfidences) {
    NMSDetectionFilter<ObjectDetection> filter;
    EXPECT_FLOAT_EQ(filter.minConfidence, 0.35f);
    EXPECT_FLOAT_EQ(filter.minOverlap, 0.4f);
    std::vector<ObjectDetection> detections = {
        ObjectDetection(0, 0, 100, 100, 0, 0.5f),   // wins over the two nested boxes
        ObjectDetection(10, 10, 20, 20, 0, 0.99f),  // nested: overlap 1.0
        ObjectDetection(60, 0, 100, 100, 0, 0.8f),  // 40 % of the smaller area: suppressed
        ObjectDetection(70, 0, 100, 100, 0, 0.6f),  // overlaps only the suppressed one enough
        ObjectDetection(0, 0, 100, 100, 0, 0.3f),   // below minConfidence: left alone
        ObjectDetection(5, 5, 0, 50, 0, 0.9f),      // zero area: never suppressed
        ObjectDetection(300, 300, 10, 10, 0, 0.4f), // far away
    };
    EXPECT_EQ(filter.filter(detections), 2);
    const float expected[] = {0.5f, 0.01f, 0.01f, 0.6f, 0.3f, 0.9f, 0.4f};
    for (std::size_t i = 0; i < detections.size(); ++i) {
        EXPECT_FLOAT_EQ(detections[i].confidence, expected[i]) << i;
    }

    // A stricter overlap lets the 40 % box through.
    NMSDetectionFilter<ObjectDetection> strict(0.35f, 0.5f);
    std::vector<ObjectDetection> pair = {ObjectDetection(0, 0, 100, 100, 0, 0.5f),
                                         ObjectDetection(60, 0, 100, 100, 0, 0.8f)};
    EXPECT_EQ(strict.filter(pair), 0);
    strict.setConfidenceThreshold(0.6f);
    EXPECT_FLOAT_EQ(strict.minConfidence, 0.6f);
}

TEST(NMSDetectionFilter, DetectionsThatNeverOverlapAreNeverSuppressed) {
    NMSDetectionFilter<NeverOverlapping> filter;
    std::vector<NeverOverlapping> detections = {{0.9f}, {0.8f}, {0.7f}};
    EXPECT_EQ(filter.filter(detections), 0);
    EXPECT_FLOAT_EQ(detections[2].confidence, 0.7f);
    std::vector<NeverOverlapping> none;
    EXPECT_EQ(filter.filter(none), 0);
}

} // namespace
