// The detector's threshold, the overlap of object boxes and the non-maximum suppression filter.
#include "Detector.h"
#include "NMSDetectionFilter.h"
#include "ObjectDetection.h"

#include <gtest/gtest.h>

using namespace Ombrel;

namespace {

class TestDetector : public Detector<ObjectDetection> {
public:
    TestDetector() : Detector<ObjectDetection>("model.tflite") {}
    float filterConfidence() const { return _nmsFilter.minConfidence; }
};

TEST(Detector, TheThresholdAndTheFilterMeetOnceSet) {
    TestDetector detector;
    EXPECT_FLOAT_EQ(detector.getConfidenceThreshold(), 0.5f);
    EXPECT_FLOAT_EQ(detector.filterConfidence(), 0.35f);
    static_cast<DetectorBase&>(detector).setConfidenceThreshold(0.2f);
    EXPECT_FLOAT_EQ(detector.getConfidenceThreshold(), 0.2f);
    EXPECT_FLOAT_EQ(detector.filterConfidence(), 0.2f);
}

TEST(NMSDetectionFilter, TheEarlierDetectionWinsOverTheSmallerAreaWhateverTheConfidences) {
    NMSDetectionFilter<ObjectDetection> filter;
    std::vector<ObjectDetection> detections = {
        ObjectDetection(0, 0, 100, 100, 0, 0.5f),   // wins over the two nested boxes
        ObjectDetection(10, 10, 20, 20, 0, 0.99f),  // nested: overlap 1.0
        ObjectDetection(60, 0, 100, 100, 0, 0.8f),  // 40 % of the smaller area: suppressed
        ObjectDetection(70, 0, 100, 100, 0, 0.6f),  // overlaps only the suppressed one enough
        ObjectDetection(0, 0, 100, 100, 0, 0.3f),   // below minConfidence 0.35: left alone
        ObjectDetection(5, 5, 0, 50, 0, 0.9f),      // zero area: never suppressed
        ObjectDetection(300, 300, 10, 10, 0, 0.4f), // far away
    };
    EXPECT_EQ(filter.filter(detections), 2);
    const float expected[] = {0.5f, 0.01f, 0.01f, 0.6f, 0.3f, 0.9f, 0.4f};
    for (std::size_t i = 0; i < detections.size(); ++i) {
        EXPECT_FLOAT_EQ(detections[i].confidence, expected[i]) << i;
    }
    EXPECT_FLOAT_EQ(detections[1].overlap(detections[0]), 1.0f);

    // An overlap of 0.5 lets the 40 % box through.
    NMSDetectionFilter<ObjectDetection> strict(0.35f, 0.5f);
    std::vector<ObjectDetection> pair = {detections[0], ObjectDetection(60, 0, 100, 100, 0, 0.8f)};
    EXPECT_EQ(strict.filter(pair), 0);

    // The distance joins the centres.
    EXPECT_FLOAT_EQ(detections[0].distance(ObjectDetection(30, 40, 100, 100, 0, 1.0f)), 50.0f);
    EXPECT_EQ(ObjectDetection(FRectangle(10, 10, 5, 5), 2, 0.5f).toString(),
              "class 2 confidence 0.5 Rectangle: x=10, y=10, width=5, height=5");
}

} // namespace
