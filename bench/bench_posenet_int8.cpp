// The PoseNet on the host inference service's routes, on frame 200 of opencv-doc's vtest.avi at
// 481 x 353:
//  - one job per route side by side in each iteration (in turns, which goes first rotating):
//    the float network on TensorFlow Lite's default kernels (cpu-tflite), the float and the int8
//    network through XNNPACK (a9-dlpu-tflite) on one and two threads;
//  - PosenetPoseDetector::detect with the int8 network, split into its steps within each
//    iteration, and what share of it lies outside the network;
//  - the road of an application, host camera playing the clip -> int8 detect, frames per second.
// Benchmarks whose models or footage are missing are skipped with the reason.
#include "AxisVideoStreamSource.h"
#include "ImageBufferFrameSource.h"
#include "PosenetDecoder.h"
#include "PosenetPoseDetector.h"
#include "stemlib-host.h"

#include "ForgedModels.h"
#include "SampleData.h"
#include "ScratchDirectory.h"

#include <benchmark/benchmark.h>
#include <larod.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace Ombrel;

namespace {

std::string model(const std::string& name) {
    return std::string(STEMLIB_MODEL_DIR) + "/" + name + ".tflite";
}
const std::string kFloat = modelforge::posenetModel().name;
const std::string kInt8 = modelforge::posenetInt8Model().name;

std::string missing() {
    for (const std::string& name : {kFloat, kInt8}) {
        struct stat info {};
        if (::stat(model(name).c_str(), &info) != 0) {
            return "no " + name +
                   " (scripts/fetch-posenet.sh, scripts/fetch-sample-data.sh, "
                   "then rebuild)";
        }
    }
    struct stat info {};
    if (::stat(StemlibTest::sampleDataPath("vtest.avi").c_str(), &info) != 0) {
        return "no sample footage (scripts/fetch-sample-data.sh)";
    }
    return "";
}

#define STEMLIB_BENCH_REQUIRE_MODELS(state)                                                        \
    if (const std::string why = missing(); !why.empty()) {                                         \
        (state).SkipWithError(why.c_str());                                                        \
        return;                                                                                    \
    }

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Frame 200 of the clip, RGB, at the clip's size.
cv::Mat clipFrame200() {
    cv::VideoCapture clip(StemlibTest::sampleDataPath("vtest.avi"));
    cv::Mat frame;
    for (int i = 0; i <= 200; ++i) {
        clip.read(frame);
    }
    cv::Mat rgb;
    cv::cvtColor(frame, rgb, cv::COLOR_BGR2RGB);
    return rgb;
}

// A host camera playing the clip, its engine on `threads` threads, while the object lives.
class Camera {
public:
    explicit Camera(int threads) {
        std::ofstream(_folder.file("camera.txt"))
            << "root.ImageSource.I0.Sensor.AspectRatio = 4:3\nchannels = 1\n"
               "channel.1.resolutions = 768x576\nlarod.threads = "
            << threads << "\nvideo.input = file:" << StemlibTest::sampleDataPath("vtest.avi")
            << "\n";
        stemlib_host_load_camera(_folder.file("camera.txt").c_str(), nullptr);
    }
    ~Camera() { stemlib_host_load_camera(nullptr, nullptr); }
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

private:
    StemlibTest::ScratchDirectory _folder;
};

// The detector with its steps opened up.
class SteppedDetector : public PosenetPoseDetector {
public:
    SteppedDetector(const std::string& name, const std::string& device, int threads)
        : PosenetPoseDetector(model(name), device) {
        Camera camera(threads); // the thread count is taken when the model is loaded
        initialize();
        setConfidenceThreshold(0.25f);
    }

    bool copyFrame(ImageFrameSource& source) {
        return source.getFrame(_inputResolution, 0,
                               static_cast<std::uint8_t*>(_PosenetInputImageFile->getBuffer()));
    }
    bool runJob() {
        _PosenetOutputMidOffsetsFile->rewind();
        _PosenetOutputHeatmapsFile->rewind();
        _PosenetOutputShortOffsetsFile->rewind();
        return larodRunJob(_larodConnection, _larodJobRequest, nullptr);
    }
    void dequantize() {
        posenetHeatmapDequantizer.dequantize(
            static_cast<const std::uint8_t*>(_PosenetOutputHeatmapsFile->getBuffer()),
            _PosenetOutputHeatmapsDequantized.data(), 12121);
        posenetShortOffsetDequantizer.dequantize(
            static_cast<const std::uint8_t*>(_PosenetOutputShortOffsetsFile->getBuffer()),
            _PosenetOutputShortOffsetsDequantized.data(), 24242);
        posenetMidOffsetDequantizer.dequantize(
            static_cast<const std::uint8_t*>(_PosenetOutputMidOffsetsFile->getBuffer()),
            _PosenetOutputMidOffsetsDequantized.data(), 45632);
    }
    int decode() {
        return PosenetDecoder::DecodeAllPoses(_PosenetOutputHeatmapsDequantized.data(),
                                              _PosenetOutputShortOffsetsDequantized.data(),
                                              _PosenetOutputMidOffsetsDequantized.data(), 23, 31,
                                              20, 0.01f, 5, 2.0f, 16, _poses, _scores, _poseScores);
    }

private:
    PosenetDecoder::PoseKeypoints _poses[20];
    PosenetDecoder::PoseKeypointScores _scores[20];
    float _poseScores[20];
};

// Five routes, one job each per iteration in rotating order, so that all meet the same load:
// milliseconds per job of each, and each route's speed-up over the float network on the
// default kernels.
void BM_PosenetRoutes_SideBySide(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODELS(state);
    const struct {
        const char* label;
        const std::string& name;
        const char* device;
        int threads;
    } routes[] = {{"float_default", kFloat, "cpu-tflite", 1},
                  {"float_xnnpack_1", kFloat, "a9-dlpu-tflite", 1},
                  {"float_xnnpack_2", kFloat, "a9-dlpu-tflite", 2},
                  {"int8_xnnpack_1", kInt8, "a9-dlpu-tflite", 1},
                  {"int8_xnnpack_2", kInt8, "a9-dlpu-tflite", 2}};
    constexpr std::size_t kRoutes = sizeof routes / sizeof routes[0];
    cv::Mat rgb = clipFrame200();
    ImageBufferFrameSource source(Resolution(768, 576), rgb.data);
    std::vector<std::unique_ptr<SteppedDetector>> detectors;
    for (const auto& route : routes) {
        detectors.push_back(
            std::make_unique<SteppedDetector>(route.name, route.device, route.threads));
        detectors.back()->copyFrame(source);
    }
    double spent[kRoutes] = {};
    std::size_t first = 0;
    for (auto _ : state) {
        for (std::size_t turn = 0; turn < kRoutes; ++turn) {
            const std::size_t which = (first + turn) % kRoutes;
            const double start = seconds();
            if (!detectors[which]->runJob()) {
                state.SkipWithError("job failed");
                return;
            }
            spent[which] += seconds() - start;
        }
        first = (first + 1) % kRoutes;
    }
    const double n = static_cast<double>(state.iterations());
    for (std::size_t i = 0; i < kRoutes; ++i) {
        state.counters[std::string(routes[i].label) + "_ms"] = 1e3 * spent[i] / n;
        if (i > 0) {
            state.counters[std::string(routes[i].label) + "_speedup"] = spent[0] / spent[i];
        }
    }
}
BENCHMARK(BM_PosenetRoutes_SideBySide)->Unit(benchmark::kMillisecond)->MinTime(5.0)->UseRealTime();

// One detect with the int8 network through XNNPACK on state.range(0) threads, its steps timed
// one after the other within each iteration: the frame scaled into the input file, the job,
// the dequantisation, the decoding and the mapping of the poses kept; and the share outside the
// network.
void BM_PosenetInt8_DetectSteps(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODELS(state);
    cv::Mat rgb = clipFrame200();
    ImageBufferFrameSource source(Resolution(768, 576), rgb.data);
    SteppedDetector detector(kInt8, "a9-dlpu-tflite", static_cast<int>(state.range(0)));
    const IRectangle rectangle(0, 0, 768, 576);
    // The mapping step maps the poses of this first detect (the stepped decode keeps its own).
    detector.detect(source, rectangle);
    double steps[5] = {};
    std::size_t people = 0;
    for (auto _ : state) {
        double t = seconds();
        const auto lap = [&t](double& into) {
            const double now = seconds();
            into += now - t;
            t = now;
        };
        detector.copyFrame(source);
        lap(steps[0]);
        detector.runJob();
        lap(steps[1]);
        detector.dequantize();
        lap(steps[2]);
        benchmark::DoNotOptimize(detector.decode());
        lap(steps[3]);
        people = detector.tensorsToDetections(rectangle).size();
        lap(steps[4]);
    }
    const double n = static_cast<double>(state.iterations());
    const double whole = steps[0] + steps[1] + steps[2] + steps[3] + steps[4];
    state.counters["1_frame_us"] = 1e6 * steps[0] / n;
    state.counters["2_job_ms"] = 1e3 * steps[1] / n;
    state.counters["3_dequantize_us"] = 1e6 * steps[2] / n;
    state.counters["4_decode_us"] = 1e6 * steps[3] / n;
    state.counters["5_mapping_us"] = 1e6 * steps[4] / n;
    state.counters["outside_network_%"] = 100.0 * (whole - steps[1]) / whole;
    state.counters["mapped"] = static_cast<double>(people);
}
BENCHMARK(BM_PosenetInt8_DetectSteps)
    ->Arg(1)
    ->Arg(2)
    ->ArgName("threads")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(3.0)
    ->UseRealTime();

// The whole detect with the int8 network, as an application calls it.
void BM_PosenetInt8_DetectWhole(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODELS(state);
    cv::Mat rgb = clipFrame200();
    ImageBufferFrameSource source(Resolution(768, 576), rgb.data);
    SteppedDetector detector(kInt8, "a9-dlpu-tflite", static_cast<int>(state.range(0)));
    const IRectangle rectangle(0, 0, 768, 576);
    std::size_t people = 0;
    for (auto _ : state) {
        people = detector.detect(source, rectangle).size();
    }
    state.counters["people"] = static_cast<double>(people);
}
BENCHMARK(BM_PosenetInt8_DetectWhole)
    ->Arg(1)
    ->Arg(2)
    ->ArgName("threads")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(3.0)
    ->UseRealTime();

// The road of an application on the fast route: the host camera plays the clip as fast as it
// is asked, each frame is cropped and scaled from NV12 into the model's input, poses are
// decoded with the int8 network and each skeleton's centre taken. Frames per second.
void BM_PosenetInt8_Road(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODELS(state);
    Camera camera(static_cast<int>(state.range(0)));
    AxisVideoStreamSource stream(Resolution(768, 576));
    PosenetPoseDetector detector(model(kInt8), "");
    detector.initialize();
    detector.setConfidenceThreshold(0.25f);
    const IRectangle view(0, 6, 768, 563);
    std::size_t people = 0;
    for (auto _ : state) {
        for (const auto& person : detector.detect(stream, view)) {
            FPoint centre;
            people += person.skeleton.getSkeletonCenter(centre, 0.3f);
        }
    }
    state.counters["fps"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["people/frame"] =
        static_cast<double>(people) / static_cast<double>(std::max<std::int64_t>(
                                          1, static_cast<std::int64_t>(state.iterations())));
}
BENCHMARK(BM_PosenetInt8_Road)
    ->Arg(1)
    ->Arg(2)
    ->ArgName("threads")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(3.0)
    ->UseRealTime();

} // namespace
