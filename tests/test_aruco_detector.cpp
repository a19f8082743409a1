// ArucoDetector on painted frames: the four dictionaries and the fallback, where the rectangle and
// polygon forms search and how they map corners back, their refusals with the exact lines, and
// that a crop is a view of the frame.
#include "ArucoDetector.h"

#include "ImageBufferFrameSource.h"
#include "LogLines.h"
#include "MarkerPainting.h"
#include "MatAllocationLog.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

// A frame with the given markers, and the true corners of each by id.
struct Scene {
    cv::Mat bgr;
    std::map<int, std::array<cv::Point2f, 4>> corners;
};

Scene paintScene(int width, int height, const std::vector<MarkerPlacement>& markers,
                 double noiseSigma = 0.0) {
    Scene scene{markerBackground(width, height), {}};
    for (const MarkerPlacement& marker : markers) {
        scene.corners[marker.id] = paintMarker(scene.bgr, marker);
    }
    if (noiseSigma > 0.0) {
        addNoise(scene.bgr, noiseSigma, 7);
    }
    return scene;
}

MarkerPlacement marker(int dictionarySize, int id, float side, float x, float y) {
    MarkerPlacement placement;
    placement.dictionarySize = dictionarySize;
    placement.id = id;
    placement.side = side;
    placement.centre = cv::Point2f(x, y);
    return placement;
}

std::vector<int> idsOf(const ArucoDetections& detections) {
    std::vector<int> ids;
    for (const ArucoDetection& detection : detections) {
        ids.push_back(detection.id);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

// Largest distance between a detection's corners and the true ones, in order.
float cornerError(const ArucoDetection& detection, const std::array<cv::Point2f, 4>& truth) {
    if (detection.corners.getNPoints() != 4) {
        return 1e9f;
    }
    float worst = 0.0f;
    for (int i = 0; i < 4; ++i) {
        const FPoint& corner = detection.corners.getPoint(i);
        worst = std::max(worst, static_cast<float>(cv::norm(cv::Point2f(corner.x, corner.y) -
                                                            truth[static_cast<std::size_t>(i)])));
    }
    return worst;
}

} // namespace

TEST(ArucoDetector, FindsSubpixelCornersAndFallsBackToTheSixBySixDictionary) {
    // The other dictionaries are tried through the camera in the end-to-end tests.
    const Scene scene = paintScene(
        640, 480,
        {marker(6, 0, 64, 120, 120), marker(6, 517, 80, 420, 140), marker(6, 999, 56, 300, 360)});
    ImageBufferFrameSource clean(scene.bgr);
    ArucoDetector detector;
    const ArucoDetections found = detector.detectMarkers(clean);
    ASSERT_EQ(idsOf(found), (std::vector<int>{0, 517, 999}));
    for (const ArucoDetection& detection : found) {
        // Subpixel refinement puts the corners on the drawn outline.
        EXPECT_LT(cornerError(detection, scene.corners.at(detection.id)), 0.3f)
            << "marker " << detection.id;
    }

    // Out-of-range sizes select the 6 by 6 dictionary: its markers are found, the 4 by 4 ones not.
    const Scene mixed =
        paintScene(640, 480, {marker(6, 42, 72, 160, 200), marker(4, 7, 72, 460, 200)});
    ImageBufferFrameSource source(mixed.bgr);
    for (const int size : {3, 8}) {
        RecordingLogger logger;
        ScopedLogger scope(logger);
        ArucoDetector detector;
        detector.setDictionarySize(4);
        detector.setDictionarySize(size);
        EXPECT_EQ(linesAt(logger, "error"),
                  std::vector<std::string>{"setDictionarySize: Invalid ARUCO dictionary size (" +
                                           std::to_string(size) +
                                           ") specified. Assuming dictionary size of 6."});
        EXPECT_EQ(idsOf(detector.detectMarkers(source)), std::vector<int>{42});
    }
    ArucoDetector fresh;
    EXPECT_EQ(idsOf(fresh.detectMarkers(source)), std::vector<int>{42});
}

TEST(ArucoDetector, RectangleFormSearchesTheBoundedRectangleAndMapsCornersBack) {
    const Scene scene = paintScene(
        640, 480,
        {marker(6, 1, 48, 130, 230), marker(6, 2, 48, 470, 150), marker(6, 3, 48, 590, 420)}, 4.0);
    ImageBufferFrameSource source(scene.bgr);
    ArucoDetector detector;
    const ArucoDetections whole = detector.detectMarkers(source);
    ASSERT_EQ(idsOf(whole), (std::vector<int>{1, 2, 3}));

    // A crop at (100, 200) reports marker 1 in frame pixels, where the whole-frame search has it.
    const ArucoDetections cropped = detector.detectMarkers(source, IRectangle(100, 200, 60, 60));
    ASSERT_EQ(idsOf(cropped), std::vector<int>{1});
    const auto wholeOne =
        std::find_if(whole.begin(), whole.end(), [](const ArucoDetection& d) { return d.id == 1; });
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(cropped[0].corners.getPoint(i).x, wholeOne->corners.getPoint(i).x, 0.05f);
        EXPECT_NEAR(cropped[0].corners.getPoint(i).y, wholeOne->corners.getPoint(i).y, 0.05f);
    }
    EXPECT_LT(cornerError(cropped[0], scene.corners.at(1)), 0.5f);

    // Larger than the frame: reduced to it, everything is found.
    EXPECT_EQ(idsOf(detector.detectMarkers(source, IRectangle(-50, -50, 2000, 2000))),
              (std::vector<int>{1, 2, 3}));
    // Sticking out on the right: moved left with its full width, so it takes in marker 2 at
    // x 446..494, which the rectangle's part inside the frame (x >= 540) would miss; likewise
    // at the bottom for marker 3.
    EXPECT_EQ(idsOf(detector.detectMarkers(source, IRectangle(540, 100, 200, 100))),
              std::vector<int>{2});
    EXPECT_EQ(idsOf(detector.detectMarkers(source, IRectangle(540, 440, 100, 100))),
              std::vector<int>{3});
    EXPECT_TRUE(detector.detectMarkers(source, IRectangle(540, 100, 100, 100)).empty());
}

TEST(ArucoDetector, PolygonFormKeepsMarkersWhollyInsideThePolygon) {
    // Markers 1 (x 76..124) and 2 (x 176..224) on one row, marker 3 below them.
    const Scene scene = paintScene(
        400, 300,
        {marker(6, 1, 48, 100, 100), marker(6, 2, 48, 200, 100), marker(6, 3, 48, 100, 220)});
    ImageBufferFrameSource source(scene.bgr);
    ArucoDetector detector;

    // Triangles whose bounding boxes hold all three. The hypotenuse x + y = 340 cuts through
    // marker 2 (far corner 224.5 + 124.5) and passes above marker 3, so only marker 1 stays;
    // x + y = 360 takes in marker 2 whole but still cuts marker 3 (124.5 + 244.5).
    EXPECT_EQ(idsOf(detector.detectMarkers(source, IPolygon(40, 40, 300, 40, 40, 300))),
              (std::vector<int>{1}));
    EXPECT_EQ(idsOf(detector.detectMarkers(source, IPolygon(40, 40, 320, 40, 40, 320))),
              (std::vector<int>{1, 2}));
    // A rectangle ending inside marker 2 keeps only marker 1; one that takes in marker 2 with
    // its quiet zone keeps both.
    EXPECT_EQ(idsOf(detector.detectMarkers(source, IPolygon(IRectangle(50, 50, 160, 100)))),
              std::vector<int>{1});
    EXPECT_EQ(idsOf(detector.detectMarkers(source, IPolygon(IRectangle(50, 50, 190, 100)))),
              (std::vector<int>{1, 2}));
}

TEST(ArucoDetector, BadCropsLogTheirLineAndFindNothing) {
    const Scene scene = paintScene(320, 240, {marker(6, 5, 60, 160, 120)});
    ImageBufferFrameSource source(scene.bgr);
    ArucoDetector detector;
    const std::string tail = " Returning empty detections.";

    struct Case {
        std::function<ArucoDetections()> call;
        std::string line;
    };
    // A source whose image is smaller than the resolution it states.
    struct ShrunkSource : ImageBufferFrameSource {
        explicit ShrunkSource(const cv::Mat& bgr) : ImageBufferFrameSource(bgr) {}
        cv::Mat toCVMat() const override {
            return ImageBufferFrameSource::toCVMat()(cv::Rect(0, 0, 200, 100));
        }
    } shrunk(scene.bgr);
    ImageBufferFrameSource empty(Resolution(0, 0));
    const std::vector<Case> cases = {
        {[&] { return detector.detectMarkers(source, IRectangle(10, 10, 0, 50)); },
         "detectMarkers: Invalid crop rectangle with non-positive width or height." + tail},
        {[&] { return detector.detectMarkers(source, IRectangle(10, 10, 50, -1)); },
         "detectMarkers: Invalid crop rectangle with non-positive width or height." + tail},
        {[&] { return detector.detectMarkers(empty, IRectangle(0, 0, 50, 50)); },
         "detectMarkers: Invalid crop rectangle dimensions after bounding: width=0, height=0." +
             tail},
        {[&] { return detector.detectMarkers(shrunk, IRectangle(150, 60, 100, 50)); },
         "detectMarkers: Crop rectangle is out of image bounds after bounding: x=150, y=60, "
         "width=100, height=50." +
             tail},
        {[&] {
             IPolygon line;
             line.addPoint(0, 0);
             line.addPoint(300, 200);
             return detector.detectMarkers(source, line);
         },
         "detectMarkers: Invalid crop polygon with less than 3 points." + tail},
        {[&] { return detector.detectMarkers(empty); }, "detectMarkers: Empty frame." + tail},
    };
    for (const Case& c : cases) {
        RecordingLogger logger;
        ScopedLogger scope(logger);
        const ArucoDetections found = c.call();
        EXPECT_TRUE(found.empty()) << c.line;
        EXPECT_EQ(linesOf(logger, {"detectMarkers"}), std::vector<std::string>{c.line});
    }
}

TEST(ArucoDetector, CropSearchesAViewOfTheFrameWithoutCopyingItsPixels) {
    // Twelve markers on a full HD frame, three of them inside the 480x270 region at (960, 540).
    std::vector<MarkerPlacement> markers;
    for (int i = 0; i < 12; ++i) {
        const float x = 150.0f + 320.0f * static_cast<float>(i % 6);
        const float y = 200.0f + 500.0f * static_cast<float>(i / 6);
        markers.push_back(marker(6, 10 + i, 70, x, y));
    }
    markers[9].centre = cv::Point2f(1040, 620);
    markers[10].centre = cv::Point2f(1200, 700);
    markers[11].centre = cv::Point2f(1360, 620);
    const Scene scene = paintScene(1920, 1080, markers, 3.0);
    ImageBufferFrameSource source(scene.bgr);
    ArucoDetector detector;
    const IRectangle region(960, 540, 480, 270);
    const std::size_t frameBytes = 1920u * 1080u * 3u;
    const std::size_t cropPixels = 480u * 270u;

    MatAllocationLog log;
    const ArucoDetections whole = detector.detectMarkers(source);
    const std::vector<MatAllocation> wholeAllocations = log.allocations();
    log.clear();
    const ArucoDetections cropped = detector.detectMarkers(source, region);
    const std::vector<MatAllocation> cropAllocations = log.allocations();

    EXPECT_EQ(whole.size(), 12u);
    EXPECT_EQ(idsOf(cropped), (std::vector<int>{19, 20, 21}));
    // The only three-channel matrices either form makes are the frame's copies in toCVMat
    // (its colour exchange and the copy it returns); the crop adds none of its own.
    const auto colour = [](const MatAllocation& a) { return CV_MAT_CN(a.type) == 3; };
    const auto colourBytes = [&](const std::vector<MatAllocation>& allocations) {
        std::vector<std::size_t> bytes;
        for (const MatAllocation& a : allocations) {
            if (colour(a)) {
                bytes.push_back(a.bytes);
                EXPECT_EQ(a.bytes, frameBytes);
            }
        }
        return bytes;
    };
    EXPECT_FALSE(colourBytes(wholeAllocations).empty());
    EXPECT_EQ(colourBytes(cropAllocations), colourBytes(wholeAllocations));
    // OpenCV's grey working images are of the crop's size: nothing beyond the frame copy
    // reaches a crop's worth of colour pixels, while the whole-frame search makes frame-sized
    // grey images.
    std::size_t largestCropWork = 0;
    for (const MatAllocation& a : cropAllocations) {
        if (!colour(a)) {
            largestCropWork = std::max(largestCropWork, a.bytes);
        }
    }
    EXPECT_LE(largestCropWork, cropPixels * 2);
    std::size_t largestWholeWork = 0;
    for (const MatAllocation& a : wholeAllocations) {
        if (!colour(a)) {
            largestWholeWork = std::max(largestWholeWork, a.bytes);
        }
    }
    EXPECT_GE(largestWholeWork, 1920u * 1080u);
}
