// Markers: ArucoDetector on a full HD frame with twelve markers, the whole frame against the
// rectangle form over a 480x270 region holding three of them (compare the figures of one run
// side by side), and MarkersManager's per-frame work for eight areas.
//
// The detection benchmarks also count, in one pass outside the timing, the pixel matrices that
// OpenCV allocates: colourBytes are the three-channel bytes (the frame's copies in toCVMat, the
// same for both forms: the crop is a view and copies nothing), largestGreyBytes the largest
// working image (frame-sized for the whole frame, crop-sized for the rectangle).
//
// The argument is OpenCV's thread count: 0 leaves OpenCV its default (all cores; the wall time
// then counts), 1 runs it on the calling thread (less sensitive to a busy machine).
#include "ArucoDetector.h"
#include "ImageBufferFrameSource.h"
#include "MarkerPainting.h"
#include "MarkersManager.h"
#include "MatAllocationLog.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

const IRectangle kRegion(960, 540, 480, 270);

// Twelve 6x6 markers of 72 pixels, somewhat tilted, with noise; three inside kRegion.
const ImageBufferFrameSource& markerFrame() {
    static const std::unique_ptr<ImageBufferFrameSource> source = [] {
        cv::Mat frame = markerBackground(1920, 1080);
        for (int i = 0; i < 12; ++i) {
            MarkerPlacement placement;
            placement.dictionarySize = 6;
            placement.id = 100 + 37 * i;
            placement.side = 72;
            placement.centre = cv::Point2f(150.0f + 320.0f * static_cast<float>(i % 6),
                                           200.0f + 500.0f * static_cast<float>(i / 6));
            placement.tiltDegrees = 15.0f;
            placement.turnDegrees = 10.0f * static_cast<float>(i);
            if (i >= 9) {
                placement.centre = cv::Point2f(1040.0f + 160.0f * static_cast<float>(i - 9),
                                               i == 10 ? 700.0f : 620.0f);
            }
            paintMarker(frame, placement);
        }
        addNoise(frame, 4.0, 11);
        return std::make_unique<ImageBufferFrameSource>(frame);
    }();
    return *source;
}

// Sets OpenCV's thread count for the benchmark's life.
class OpenCVThreads {
public:
    explicit OpenCVThreads(int threads) : _previous(cv::getNumThreads()) {
        if (threads > 0) {
            cv::setNumThreads(threads);
        }
    }
    ~OpenCVThreads() { cv::setNumThreads(_previous); }
    OpenCVThreads(const OpenCVThreads&) = delete;
    OpenCVThreads& operator=(const OpenCVThreads&) = delete;

private:
    int _previous;
};

template <typename Detect>
void countAllocations(benchmark::State& state, Detect detect) {
    MatAllocationLog log;
    const ArucoDetections found = detect();
    double colourBytes = 0;
    double largestGreyBytes = 0;
    for (const MatAllocation& allocation : log.allocations()) {
        if (CV_MAT_CN(allocation.type) == 3) {
            colourBytes += static_cast<double>(allocation.bytes);
        } else {
            largestGreyBytes = std::max(largestGreyBytes, static_cast<double>(allocation.bytes));
        }
    }
    state.counters["markers"] = static_cast<double>(found.size());
    state.counters["colourBytes"] = colourBytes;
    state.counters["largestGreyBytes"] = largestGreyBytes;
}

void BM_DetectMarkers_WholeFrame(benchmark::State& state) {
    const OpenCVThreads threads(static_cast<int>(state.range(0)));
    const ImageBufferFrameSource& source = markerFrame();
    ArucoDetector detector;
    for (auto _ : state) {
        benchmark::DoNotOptimize(detector.detectMarkers(source));
    }
    countAllocations(state, [&] { return detector.detectMarkers(source); });
}

void BM_DetectMarkers_Rectangle480x270(benchmark::State& state) {
    const OpenCVThreads threads(static_cast<int>(state.range(0)));
    const ImageBufferFrameSource& source = markerFrame();
    ArucoDetector detector;
    for (auto _ : state) {
        benchmark::DoNotOptimize(detector.detectMarkers(source, kRegion));
    }
    countAllocations(state, [&] { return detector.detectMarkers(source, kRegion); });
}

// The floor under both forms: the frame's blue-first copy.
void BM_DetectMarkers_ToCVMatOnly(benchmark::State& state) {
    const OpenCVThreads threads(static_cast<int>(state.range(0)));
    const ImageBufferFrameSource& source = markerFrame();
    for (auto _ : state) {
        benchmark::DoNotOptimize(source.toCVMat());
    }
}

// One frame of a markers application for eight areas: updateDetections, both queries, and the
// acknowledgement of a ready data event. The areas' sets change every few frames.
void BM_MarkersManager_EightAreasPerFrame(benchmark::State& state) {
    constexpr int kAreas = 8;
    std::string text = std::to_string(kAreas) + "\n";
    for (int i = 0; i < kAreas; ++i) {
        text += "1 " + std::to_string(i) + " 2 1 0 4 0.1 0.1 0.2 0.1 0.2 0.2 0.1 0.2 \n";
    }
    text += "0 6\n";
    MarkersManager manager(kAreas);
    manager.deserialize(text, Resolution(1920, 1080));

    std::vector<ArucoDetections> variants(4);
    for (std::size_t v = 0; v < variants.size(); ++v) {
        for (std::size_t m = 0; m < v; ++m) {
            ArucoDetection detection;
            detection.id = static_cast<int>(40 - 7 * m);
            detection.corners = FPolygon(0, 0, 10, 0, 10, 10, 0, 10);
            variants[v].push_back(detection);
        }
    }
    std::size_t frame = 0;
    int events = 0;
    for (auto _ : state) {
        for (int area = 0; area < kAreas; ++area) {
            const ArucoDetections& detections =
                variants[(frame / 8 + static_cast<std::size_t>(area)) % variants.size()];
            manager.updateDetections(detections, area);
            benchmark::DoNotOptimize(manager.isAlertConditionSatisfied(area));
            if (manager.isDataConditionSatisfied(area)) {
                benchmark::DoNotOptimize(manager.getDataEventState(area));
                manager.setDataEventSent(area);
                ++events;
            }
        }
        ++frame;
    }
    state.counters["dataEventsPerFrame"] =
        static_cast<double>(events) / static_cast<double>(std::max<std::size_t>(frame, 1));
}

} // namespace

BENCHMARK(BM_DetectMarkers_WholeFrame)
    ->Arg(0)
    ->Arg(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DetectMarkers_Rectangle480x270)
    ->Arg(0)
    ->Arg(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DetectMarkers_ToCVMatOnly)
    ->Arg(0)
    ->Arg(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MarkersManager_EightAreasPerFrame)->Unit(benchmark::kMicrosecond);
