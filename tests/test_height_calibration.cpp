// Height calibration from sightings of people: the grid search against the plain OpenCV search,
// bad sightings, and the calibration manager's whole life on a stream of sightings.
#include "HeightCalibrationReference.h"
#include "HeightCalibrator3DManager.h"
#include "LogLines.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

using namespace Ombrel;
using StemlibTest::linesAt;
using StemlibTest::linesOf;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;
using StemlibTest::sightingsFrom;

// Feet spread over an 800 by 450 picture, one in each ninth, NW, N, NE, E, SE, S, SW, W and
// CENTER, some on the limits: 266 and 150 begin the middle bands, 533 and 300 still belong to them.
const std::vector<cv::Point2f> kSpread = {{100, 100}, {266, 149}, {700, 110},
                                          {534, 150}, {710, 400}, {400, 410},
                                          {90, 390},  {110, 225}, {533, 300}};

std::string parametersLine(const CameraParams& p, double error) {
    return "setupHomography: Camera Parameters: H=" + std::to_string(p.height_m) +
           " m, Tilt=" + std::to_string(p.tilt_deg) +
           " deg, f=" + std::to_string(p.focal_length_px) +
           " px lastReprojectionError=" + std::to_string(error) + " px";
}

void expectSameParameters(const CameraParams& a, const CameraParams& b) {
    EXPECT_EQ(a.height_m, b.height_m);
    EXPECT_EQ(a.tilt_deg, b.tilt_deg);
    EXPECT_EQ(a.focal_length_px, b.focal_length_px);
}

TEST(CoordinateTransformer, FindsTheGridCameraAsThePlainOpenCVSearchDoes) {
    RecordingLogger logger;
    const ScopedLogger scope(logger);
    // On the grid: recovered exactly, with only float rounding left as error. Between grid
    // points: the nearest one, with the error that the plain search gives.
    const std::vector<std::pair<CameraParams, CameraParams>> cameras = {
        {{2.25, 31, 400}, {2.25, 31, 400}},
        {{3.75, 45, 600}, {3.75, 45, 600}},
        {{4.75, 59, 800}, {4.75, 59, 800}},
        {{3.8, 43.4, 690}, {3.75, 43, 700}},
    };
    for (const auto& [camera, nearest] : cameras) {
        SCOPED_TRACE(camera.tilt_deg);
        const HeightObservations sightings = sightingsFrom(camera, kSpread);
        const StemlibTest::ReferenceResult reference = StemlibTest::referenceCalibration(sightings);
        CoordinateTransformer transformer;
        logger.lines.clear();
        ASSERT_TRUE(transformer.calibrate(sightings));
        ASSERT_TRUE(transformer.isCalibrated());
        expectSameParameters(transformer.getParameters(), nearest);
        expectSameParameters(reference.params, nearest);
        EXPECT_NEAR(transformer.getLastReprojectionError(), reference.error, 1e-9);
        if (camera.height_m == nearest.height_m) {
            EXPECT_LT(reference.error, 1e-4);
        } else {
            EXPECT_GT(reference.error, 1.0);
        }
        EXPECT_EQ(linesAt(logger, "info"),
                  std::vector<std::string>{parametersLine(nearest, reference.error)});

        // The homography puts each feet pixel where the chosen camera's ray meets the floor.
        cv::Mat R, T;
        transformer.buildExtrinsics(nearest, R, T);
        const cv::Mat K = StemlibTest::referenceIntrinsics(nearest.focal_length_px, 800, 450);
        for (const cv::Point2f& foot : kSpread) {
            const cv::Point3f floor =
                transformer.pixelToGround(FPoint(foot.x, foot.y), {}, K, R, T);
            const FPoint world = transformer.pixelToWorld(FPoint(foot.x, foot.y));
            EXPECT_NEAR(world.x, floor.x, 1e-3 * (1 + std::fabs(floor.x)));
            EXPECT_NEAR(world.y, floor.y, 1e-3 * (1 + std::fabs(floor.y)));
            EXPECT_NEAR(floor.z, 0.0f, 1e-6f);
        }
    }

    // The neck height is in centimetres and the image size is the transformer's own: sightings of
    // taller people in a larger picture are recovered only once both are told.
    const CameraParams camera(3.25, 37, 700);
    HeightObservations tall = sightingsFrom(camera, kSpread, 170.0f);
    for (HeightObservation& sighting : tall) { // moved with the principal point to (640, 360)
        sighting.top = FPoint(sighting.top.x + 240, sighting.top.y + 135);
        sighting.bottom = FPoint(sighting.bottom.x + 240, sighting.bottom.y + 135);
    }
    CoordinateTransformer transformer;
    ASSERT_TRUE(transformer.calibrate(tall));
    EXPECT_GT(transformer.getLastReprojectionError(), 1.0);
    transformer.setNeckHeight(170.0f);
    transformer.setDimensions(1280, 720);
    ASSERT_TRUE(transformer.calibrate(tall));
    expectSameParameters(transformer.getParameters(), camera);
    EXPECT_LT(transformer.getLastReprojectionError(), 1e-4);
}

TEST(CoordinateTransformer, BadSightingsGetNeutralAnswers) {
    RecordingLogger logger;
    const ScopedLogger scope(logger);
    const HeightObservations good = sightingsFrom({3.75, 45, 600}, kSpread);
    CoordinateTransformer transformer;

    // Uncalibrated: the sentinel point.
    EXPECT_EQ(transformer.pixelToWorld(FPoint(10, 10)), FPoint(-1, -1));
    EXPECT_EQ(transformer.getLastReprojectionError(), std::numeric_limits<double>::max());
    EXPECT_TRUE(std::isnan(transformer.calculateReprojectionError({3, 40, 500}, {})));
    // Four sightings are too few; five are enough.
    EXPECT_FALSE(transformer.calibrate(HeightObservations(good.begin(), good.begin() + 4)));
    EXPECT_EQ(
        linesAt(logger, "error"),
        (std::vector<std::string>{"pixelToWorld: Error: Must calibrate the system first.",
                                  "calibrate: Error: Not enough observations for calibration."}));
    EXPECT_TRUE(transformer.calibrate(HeightObservations(good.begin(), good.begin() + 5)));
    ASSERT_TRUE(transformer.calibrate(good));
    const FPoint known = transformer.pixelToWorld(FPoint(400, 300));

    // A not-a-number or infinite point makes every cost not a number: the search fails on
    // standard error and the earlier calibration stays in force.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    for (const HeightObservation& bad : {HeightObservation{FPoint(nan, 10), FPoint(400, 300)},
                                         HeightObservation{FPoint(400, 200), FPoint(inf, 300)},
                                         HeightObservation{FPoint(400, 200), FPoint(400, -inf)}}) {
        HeightObservations sightings = good;
        sightings[4] = bad;
        testing::internal::CaptureStderr();
        EXPECT_FALSE(transformer.calibrate(sightings));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Calibration failed. Could not find a valid parameter set.\n");
        EXPECT_TRUE(transformer.isCalibrated());
        expectSameParameters(transformer.getParameters(), {3.75, 45, 600});
        EXPECT_EQ(transformer.pixelToWorld(FPoint(400, 300)), known);
    }

    // Sightings all in one pixel, feet far outside the picture or above the horizon, tops
    // below the feet: the search runs to a grid point, matching the plain search.
    const std::vector<HeightObservations> odd = {
        HeightObservations(6, {FPoint(400, 200), FPoint(400, 200)}),
        HeightObservations(6, {FPoint(-5e6f, 3e7f), FPoint(9e6f, -4e7f)}),
        {{FPoint(10, 500), FPoint(20, -900)},
         {FPoint(0, 0), FPoint(799, 0)},
         {FPoint(400, 449), FPoint(400, 100)},
         {FPoint(1e30f, 1e30f), FPoint(-1e30f, 1e30f)},
         {FPoint(3, 3), FPoint(3, 3)}},
    };
    for (const HeightObservations& sightings : odd) {
        CoordinateTransformer other;
        const StemlibTest::ReferenceResult reference = StemlibTest::referenceCalibration(sightings);
        testing::internal::CaptureStderr();
        const bool calibrated = other.calibrate(sightings);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(calibrated, reference.error < std::numeric_limits<double>::max());
        if (calibrated) {
            expectSameParameters(other.getParameters(), reference.params);
            EXPECT_NEAR(other.getLastReprojectionError(), reference.error,
                        1e-9 * (1 + reference.error));
        }
    }

    // Parameters that give no picture give no homography: uncalibrated, with an error line.
    logger.lines.clear();
    transformer.setParameters(CameraParams());
    EXPECT_FALSE(transformer.isCalibrated());
    ASSERT_EQ(linesAt(logger, "error").size(), 1u);
    EXPECT_EQ(linesAt(logger, "error")[0],
              "setupHomography: Error: These camera parameters give no homography.");
    // Set by hand, the parameters are in force at once; the last error is left alone.
    transformer.setParameters({3.75, 45, 600});
    EXPECT_TRUE(transformer.isCalibrated());
    EXPECT_EQ(transformer.pixelToWorld(FPoint(400, 300)), known);
    transformer.setCalibrated(false);
    EXPECT_EQ(transformer.pixelToWorld(FPoint(400, 300)), FPoint(-1, -1));
}

TEST(HeightCalibrator3DManager, RunsItsWholeLifeOnAStreamOfSightings) {
    RecordingLogger logger;
    const ScopedLogger scope(logger);
    const CameraParams camera(3.8, 43.4, 690);
    // One sighting for each ninth, in the order NW, N, NE, E, SE, S, SW, W, CENTER, and two more
    // in the north-west.
    const HeightObservations ninth = sightingsFrom(camera, kSpread);
    const HeightObservations northWest = sightingsFrom(camera, {{120, 130}, {200, 60}});
    const auto lastCalibration = [&]() {
        const std::vector<std::string> lines = linesOf(logger, {"setupHomography"});
        return lines.empty() ? std::string() : lines.back();
    };
    const auto expectedCalibration = [](const HeightObservations& merged) {
        const StemlibTest::ReferenceResult reference = StemlibTest::referenceCalibration(merged);
        return parametersLine(reference.params, reference.error);
    };

    HeightCalibrator3DManager manager;
    EXPECT_EQ(manager.getStatus(), "Not started");
    EXPECT_EQ(manager.getMinimumRequiredObservations(), 7);
    manager.setDimensions(800, 450);
    // Collecting: NW, N, NW again, NE, E, SE.
    const HeightObservations first = {ninth[0], ninth[1], northWest[0],
                                      ninth[2], ninth[3], ninth[4]};
    for (size_t i = 0; i < first.size(); ++i) {
        manager.addCalibrationObservation(first[i]);
        EXPECT_EQ(manager.getStatus(), "Observations: " + std::to_string(i + 1));
    }
    EXPECT_FALSE(manager.isCalibrated());
    // A sighting that is not a number is refused and changes nothing.
    manager.addCalibrationObservation({FPoint(400, 100), FPoint(std::nanf(""), 300)});
    EXPECT_EQ(manager.countCalibrationObservations(), 6);
    EXPECT_EQ(manager.getStatus(), "Observations: 6");
    EXPECT_EQ(linesAt(logger, "error"),
              (std::vector<std::string>{
                  "addCalibrationObservation: An observation with a point that is not finite is "
                  "ignored."}));

    // The seventh (S) calibrates on the merged sectors.
    manager.addCalibrationObservation(ninth[5]);
    EXPECT_EQ(manager.getStatus(), "Min Observations found, initial calibration.");
    EXPECT_TRUE(manager.isCalibrated());
    EXPECT_TRUE(StemlibTest::hasLine(logger, "info",
                                     "addCalibrationObservation: Minimum observations reached, "
                                     "performing initial calibration."));
    EXPECT_EQ(lastCalibration(), expectedCalibration({ninth[0], northWest[0], ninth[1], ninth[2],
                                                      ninth[3], ninth[4], ninth[5]}));

    // A further one in a known sector: no calibration.
    logger.lines.clear();
    manager.addCalibrationObservation(northWest[1]);
    EXPECT_EQ(manager.getStatus(), "New observation in  known sectors, not recalibrating.");
    EXPECT_EQ(lastCalibration(), "");
    // SW opens a sector: recalibration on nine.
    manager.addCalibrationObservation(ninth[6]);
    EXPECT_EQ(manager.getStatus(), "New sector observation, recalibrating.");
    EXPECT_EQ(lastCalibration(),
              expectedCalibration({ninth[0], northWest[0], northWest[1], ninth[1], ninth[2],
                                   ninth[3], ninth[4], ninth[5], ninth[6]}));
    // W and then CENTER: each tenth drops the newest of the fullest sector (NW), until each
    // sector holds one and the set is balanced.
    manager.addCalibrationObservation(ninth[7]);
    EXPECT_EQ(manager.countCalibrationObservations(), 9);
    manager.addCalibrationObservation(ninth[8]);
    EXPECT_EQ(manager.getStatus(), "New sector observation, recalibrating.");
    EXPECT_EQ(manager.countCalibrationObservations(), 9);
    EXPECT_EQ(lastCalibration(), expectedCalibration(ninth));
    manager.addCalibrationObservation(ninth[4]);
    EXPECT_EQ(manager.getStatus(), "Balanced observations.");
    EXPECT_EQ(manager.countCalibrationObservations(), 9);
    const StemlibTest::ReferenceResult calibrated = StemlibTest::referenceCalibration(ninth);

    // Monitoring: a batch of three from the same camera is evaluated at the fourth and keeps the
    // calibration.
    const HeightObservations same = sightingsFrom(camera, {{300, 200}, {500, 300}, {250, 350}});
    for (const HeightObservation& sighting : same) {
        manager.addMonitoringObservation(sighting);
    }
    manager.addMonitoringObservation(same[0]);
    EXPECT_EQ(manager.getStatus(), "Balanced observations.");
    EXPECT_TRUE(manager.isCalibrated());
    // People of another height (or a camera that has moved) cost more than twice as much: the
    // process starts over.
    const HeightObservations moved =
        sightingsFrom({2.25, 55, 450}, {{300, 200}, {500, 300}, {250, 350}});
    for (const HeightObservation& sighting : moved) {
        manager.addMonitoringObservation(sighting);
    }
    EXPECT_TRUE(manager.isCalibrated());
    logger.lines.clear();
    manager.addMonitoringObservation(moved[0]);
    EXPECT_EQ(manager.getStatus(), "Beginning homography process");
    EXPECT_FALSE(manager.isCalibrated());
    EXPECT_EQ(manager.countCalibrationObservations(), 0);
    EXPECT_EQ(manager.pixelToWorld(FPoint(400, 225)), FPoint(-1, -1));
    const double current = StemlibTest::referenceError(calibrated.params, moved);
    ASSERT_GT(current, 2 * calibrated.error);
    EXPECT_EQ(linesAt(logger, "info"),
              std::vector<std::string>{"HeightCalibrator3DManager: New homography needed. Last "
                                       "reprojection error: " +
                                       std::to_string(calibrated.error) +
                                       ", Current reprojection error: " + std::to_string(current)});
    manager.addCalibrationObservation(ninth[0]);
    EXPECT_EQ(manager.getStatus(), "Observations: 1");

    // Without a stream size every sector limit is 0: the origin lies in the centre, anything
    // further right and down in the south-east.
    HeightCalibrator3DManager unsized;
    for (size_t i = 0; i < 7; ++i) {
        unsized.addCalibrationObservation(ninth[i]);
    }
    EXPECT_EQ(unsized.getStatus(), "Min Observations found, initial calibration.");
    unsized.addCalibrationObservation({FPoint(0, -100), FPoint(0, 0)});
    EXPECT_EQ(unsized.getStatus(), "New sector observation, recalibrating.");
    unsized.addCalibrationObservation(ninth[8]);
    EXPECT_EQ(unsized.getStatus(), "New observation in  known sectors, not recalibrating.");
    // Never calibrated: monitoring cannot ask for a restart.
    HeightCalibrator3DManager fresh;
    for (size_t i = 0; i < 4; ++i) {
        fresh.addMonitoringObservation(moved[i % 3]);
    }
    EXPECT_EQ(fresh.getStatus(), "Not started");
}

} // namespace
