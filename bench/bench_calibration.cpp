// Cost of the two calibrations: the height search on nine sightings beside the same search
// written with plain OpenCV calls, the breach pass over 50 feet, and the chessboard route on a
// 640x480 photograph beside OpenCV's corner search alone.
#include "CoordinateTransformer.h"
#include "HeightCalibrationReference.h"
#include "ImageFromImageFileSource.h"
#include "Logger.h"
#include "SampleData.h"
#include "ScratchDirectory.h"
#include "distance_controller.h"

#include <benchmark/benchmark.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

using namespace Ombrel;

namespace {

// Nine sightings of a camera between grid points, one in each ninth of the picture.
HeightObservations nineSightings() {
    return StemlibTest::sightingsFrom({3.8, 43.4, 690}, {{100, 100},
                                                         {400, 90},
                                                         {700, 110},
                                                         {690, 225},
                                                         {710, 400},
                                                         {400, 410},
                                                         {90, 390},
                                                         {110, 225},
                                                         {400, 230}});
}

// The library's log goes to a file, as in an application, for the rest of the program.
void logToFile() {
    static const StemlibTest::ScratchDirectory dir;
    static Logger logger("bench", dir.file("stemlib.log"));
    useLogger(logger);
}

void perEvaluation(benchmark::State& state) {
    state.counters["per_evaluation"] =
        benchmark::Counter(450.0 * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_CoordinateTransformerCalibrate(benchmark::State& state) {
    logToFile();
    const HeightObservations sightings = nineSightings();
    const StemlibTest::ReferenceResult reference = StemlibTest::referenceCalibration(sightings);
    CoordinateTransformer transformer;
    for (auto _ : state) {
        benchmark::DoNotOptimize(transformer.calibrate(sightings));
    }
    const CameraParams chosen = transformer.getParameters();
    if (chosen.height_m != reference.params.height_m ||
        chosen.tilt_deg != reference.params.tilt_deg ||
        chosen.focal_length_px != reference.params.focal_length_px ||
        std::fabs(transformer.getLastReprojectionError() - reference.error) > 1e-9) {
        state.SkipWithError("the search differs from the plain OpenCV search");
    }
    perEvaluation(state);
}
BENCHMARK(BM_CoordinateTransformerCalibrate)->Unit(benchmark::kMillisecond);

void BM_PlainOpenCVCalibrate(benchmark::State& state) {
    const HeightObservations sightings = nineSightings();
    for (auto _ : state) {
        benchmark::DoNotOptimize(StemlibTest::referenceCalibration(sightings));
    }
    perEvaluation(state);
}
BENCHMARK(BM_PlainOpenCVCalibrate)->Unit(benchmark::kMillisecond);

void BM_SetLocations50Feet(benchmark::State& state) {
    logToFile();
    g_StreamWidth = 640;
    g_StreamHeight = 480;
    ImageFromImageFileSource photograph(StemlibTest::sampleDataPath("left01.jpg"));
    Distance_Controller controller;
    if (!controller.find_pattern(photograph) || !controller.isCalibrated()) {
        state.SkipWithError("no calibration");
        return;
    }
    Distance_Controller::Feet feet;
    for (int i = 0; i < 50; ++i) {
        feet.emplace_back(20 + (i % 10) * 60, 40 + (i / 10) * 90);
    }
    // The line for each pair goes to /dev/null.
    std::ofstream null("/dev/null");
    std::streambuf* const standardOutput = std::cout.rdbuf(null.rdbuf());
    for (auto _ : state) {
        controller.set_locations(feet);
        benchmark::DoNotOptimize(controller.get_breaches().size());
    }
    std::cout.rdbuf(standardOutput);
    state.counters["pairs"] = 1225;
}
BENCHMARK(BM_SetLocations50Feet)->Unit(benchmark::kMicrosecond);

void BM_FindPatternOnPhotograph(benchmark::State& state) {
    logToFile();
    g_StreamWidth = 640;
    g_StreamHeight = 480;
    ImageFromImageFileSource photograph(StemlibTest::sampleDataPath("left01.jpg"));
    Distance_Controller controller;
    for (auto _ : state) {
        benchmark::DoNotOptimize(controller.find_pattern(photograph));
    }
    if (!controller.isCalibrated()) {
        state.SkipWithError("no calibration");
    }
}
BENCHMARK(BM_FindPatternOnPhotograph)->Unit(benchmark::kMillisecond);

// The corner search alone, on the same bytes.
void BM_FindChessboardCornersOnPhotograph(benchmark::State& state) {
    cv::Mat rgb;
    cv::cvtColor(cv::imread(StemlibTest::sampleDataPath("left01.jpg")), rgb, cv::COLOR_BGR2RGB);
    std::vector<cv::Point2f> corners;
    for (auto _ : state) {
        cv::findChessboardCorners(rgb, cv::Size(9, 6), corners, 0);
        benchmark::DoNotOptimize(corners.data());
    }
}
BENCHMARK(BM_FindChessboardCornersOnPhotograph)->Unit(benchmark::kMillisecond);

} // namespace
