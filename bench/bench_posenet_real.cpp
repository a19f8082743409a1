// The published PoseNet as the model forge converts it (posenet_mobilenet_481x353), on real
// footage (frame 200 of opencv-doc's vtest.avi, six people):
//  - one job on the host inference service against the same model called directly through the
//    TensorFlow Lite C API, one thread each: the service's overhead, also measured side by side
//    within each iteration;
//  - a whole PosenetPoseDetector::detect and each of its steps alone (frame copy, job,
//    dequantisation, decode, mapping);
//  - the whole road, host camera playing the clip -> detect -> skeletons, with the engine on one
//    and on two threads: frames per second.
// Benchmarks whose model or footage is missing are skipped with the reason.
#include "AxisVideoStreamSource.h"
#include "ImageBufferFrameSource.h"
#include "PosenetDecoder.h"
#include "PosenetPoseDetector.h"
#include "stemlib-host.h"

#include "ForgedModels.h"
#include "HostCameraScope.h"
#include "SampleClip.h"
#include "SteppedPosenetDetector.h"

#include <benchmark/benchmark.h>
#include <larod.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

#ifdef STEMLIB_BENCH_TFLITE
#include <tensorflow/lite/c/c_api.h>
#endif

using namespace Ombrel;

namespace {

const int kWidth = 481;
const int kHeight = 353;

std::string realModel() {
    return std::string(STEMLIB_MODEL_DIR) + "/" + modelforge::posenetModel().name + ".tflite";
}

bool exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

// Why the benchmarks cannot run, or empty.
std::string missing() {
    if (!exists(realModel())) {
        return "no converted PoseNet (scripts/fetch-posenet.sh, then rebuild)";
    }
    if (!exists(StemlibTest::sampleDataPath("vtest.avi"))) {
        return "no sample footage (scripts/fetch-sample-data.sh)";
    }
    return "";
}

// The frame as the model sees it.
std::vector<std::uint8_t> modelPicture() {
    cv::Mat rgb = StemlibTest::sampleClipFrame(200);
    ImageBufferFrameSource source(Resolution(768, 576), rgb.data);
    std::vector<std::uint8_t> picture(kWidth * kHeight * 3);
    source.getFrame(Resolution(kWidth, kHeight), 0, picture.data());
    return picture;
}

// The clip on the host camera, its engine on the default kernels on `threads` threads.
std::string clipCamera(int threads) {
    return StemlibTest::sampleClipCamera(
        "larod.devices = cpu-tflite\nlarod.threads = " + std::to_string(threads) + "\n");
}

double wallSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Frame 200 in a buffer source at the clip's size, and a started detector.
struct Fixture {
    cv::Mat rgb = StemlibTest::sampleClipFrame(200);
    ImageBufferFrameSource source{Resolution(768, 576), rgb.data};
    StemlibTest::HostCameraScope camera{clipCamera(1)};
    std::unique_ptr<StemlibTest::SteppedPosenetDetector> detector =
        std::make_unique<StemlibTest::SteppedPosenetDetector>(realModel(), "cpu-tflite");
    const IRectangle rectangle{0, 0, 768, 576};

    Fixture() {
        detector->initialize();
        detector->setConfidenceThreshold(0.25f);
    }
};

#define STEMLIB_BENCH_REQUIRE_MODEL(state)                                                         \
    if (const std::string why = missing(); !why.empty()) {                                         \
        (state).SkipWithError(why.c_str());                                                        \
        return;                                                                                    \
    }

// One job on the service, the picture and outputs in the detector's shared memory files.
void BM_RealPosenet_ServiceJob(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    Fixture f;
    f.detector->copyFrame(f.source);
    for (auto _ : state) {
        if (!f.detector->runJob()) {
            state.SkipWithError("job failed");
            break;
        }
    }
}
BENCHMARK(BM_RealPosenet_ServiceJob)->Unit(benchmark::kMillisecond)->MinTime(2.0);

#ifdef STEMLIB_BENCH_TFLITE
// The same model through the TensorFlow Lite C API, one thread: the picture copied in, each
// output copied out.
class DirectPosenet {
public:
    DirectPosenet()
        : _picture(modelPicture()), _model(TfLiteModelCreateFromFile(realModel().c_str())),
          _options(TfLiteInterpreterOptionsCreate()) {
        TfLiteInterpreterOptionsSetNumThreads(_options, 1);
        _interpreter = TfLiteInterpreterCreate(_model, _options);
        if (_interpreter != nullptr &&
            TfLiteInterpreterAllocateTensors(_interpreter) == kTfLiteOk) {
            for (int i = 0; i < TfLiteInterpreterGetOutputTensorCount(_interpreter); ++i) {
                _outputs.emplace_back(
                    TfLiteTensorByteSize(TfLiteInterpreterGetOutputTensor(_interpreter, i)));
            }
        }
    }
    ~DirectPosenet() {
        TfLiteInterpreterDelete(_interpreter);
        TfLiteInterpreterOptionsDelete(_options);
        TfLiteModelDelete(_model);
    }
    DirectPosenet(const DirectPosenet&) = delete;
    DirectPosenet& operator=(const DirectPosenet&) = delete;

    bool ready() const { return !_outputs.empty(); }
    void run() {
        TfLiteTensorCopyFromBuffer(TfLiteInterpreterGetInputTensor(_interpreter, 0),
                                   _picture.data(), _picture.size());
        TfLiteInterpreterInvoke(_interpreter);
        for (std::size_t i = 0; i < _outputs.size(); ++i) {
            TfLiteTensorCopyToBuffer(
                TfLiteInterpreterGetOutputTensor(_interpreter, static_cast<int>(i)),
                _outputs[i].data(), _outputs[i].size());
        }
        benchmark::DoNotOptimize(_outputs.front().data());
    }

private:
    std::vector<std::uint8_t> _picture;
    TfLiteModel* _model;
    TfLiteInterpreterOptions* _options;
    TfLiteInterpreter* _interpreter = nullptr;
    std::vector<std::vector<std::uint8_t>> _outputs;
};

void BM_RealPosenet_DirectTFLite(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    DirectPosenet direct;
    if (!direct.ready()) {
        state.SkipWithError("cannot load the model");
        return;
    }
    for (auto _ : state) {
        direct.run();
    }
}
BENCHMARK(BM_RealPosenet_DirectTFLite)->Unit(benchmark::kMillisecond)->MinTime(2.0);

double threadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// The service's job and the direct call one after the other in each iteration (in turns, which
// goes first), so that both meet the same load on a shared machine: the service's overhead as
// a ratio measured side by side, in elapsed and in processor time.
void BM_RealPosenet_ServiceOverDirect(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    Fixture f;
    f.detector->copyFrame(f.source);
    DirectPosenet direct;
    if (!direct.ready()) {
        state.SkipWithError("cannot load the model");
        return;
    }
    double wall[2] = {0.0, 0.0}; // service, direct
    double cpu[2] = {0.0, 0.0};
    bool serviceFirst = true;
    for (auto _ : state) {
        for (int turn = 0; turn < 2; ++turn) {
            const int which = (turn == 0) == serviceFirst ? 0 : 1;
            const double w0 = wallSeconds();
            const double c0 = threadSeconds();
            if (which == 0) {
                f.detector->runJob();
            } else {
                direct.run();
            }
            cpu[which] += threadSeconds() - c0;
            wall[which] += wallSeconds() - w0;
        }
        serviceFirst = !serviceFirst;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["service_ms"] = 1e3 * wall[0] / n;
    state.counters["direct_ms"] = 1e3 * wall[1] / n;
    state.counters["overhead_%"] = 100.0 * (wall[0] / wall[1] - 1.0);
    state.counters["cpu_overhead_%"] = 100.0 * (cpu[0] / cpu[1] - 1.0);
}
BENCHMARK(BM_RealPosenet_ServiceOverDirect)->Unit(benchmark::kMillisecond)->MinTime(4.0);
#endif

void BM_RealPosenet_Detect_Whole(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    Fixture f;
    std::size_t people = 0;
    for (auto _ : state) {
        people = f.detector->detect(f.source, f.rectangle).size();
    }
    state.counters["people"] = static_cast<double>(people);
}
BENCHMARK(BM_RealPosenet_Detect_Whole)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// Step 1: the 768 x 576 frame scaled into the model's input file.
void BM_RealPosenet_Detect_1_Frame(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    Fixture f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.detector->copyFrame(f.source));
    }
}
BENCHMARK(BM_RealPosenet_Detect_1_Frame)->Unit(benchmark::kMicrosecond);

void BM_RealPosenet_Detect_3_Dequantize(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    Fixture f;
    f.detector->copyFrame(f.source);
    f.detector->runJob();
    for (auto _ : state) {
        f.detector->dequantize();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_RealPosenet_Detect_3_Dequantize)->Unit(benchmark::kMicrosecond);

void BM_RealPosenet_Detect_4_Decode(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    Fixture f;
    f.detector->copyFrame(f.source);
    f.detector->runJob();
    f.detector->dequantize();
    int poses = 0;
    for (auto _ : state) {
        poses = f.detector->decode();
    }
    state.counters["poses"] = poses;
}
BENCHMARK(BM_RealPosenet_Detect_4_Decode)->Unit(benchmark::kMicrosecond);

void BM_RealPosenet_Detect_5_Mapping(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    Fixture f;
    f.detector->detect(f.source, f.rectangle);
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.detector->tensorsToDetections(f.rectangle));
    }
}
BENCHMARK(BM_RealPosenet_Detect_5_Mapping)->Unit(benchmark::kMicrosecond);

// The road of an application: the host camera plays the clip as fast as it is asked, each frame
// is cropped and scaled from NV12 into the model's input, poses are decoded and each skeleton's
// centre taken. Reported as frames per second; the engine runs on state.range(0) threads.
void BM_RealPosenet_Road(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    StemlibTest::HostCameraScope camera(clipCamera(static_cast<int>(state.range(0))));
    AxisVideoStreamSource stream(Resolution(768, 576));
    PosenetPoseDetector detector(realModel(), "cpu-tflite");
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
// The road with one and with two engine threads side by side: two detectors, their models
// loaded under each thread count, take the clip's frames in turns (which goes first alternates),
// so that both meet the same load. Frames per second of each and the speed-up.
void BM_RealPosenet_RoadThreads(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    auto camera = std::make_unique<StemlibTest::HostCameraScope>(clipCamera(1));
    PosenetPoseDetector one(realModel(), "cpu-tflite");
    one.initialize();
    camera.reset(); // back to the default camera before the next description
    camera = std::make_unique<StemlibTest::HostCameraScope>(clipCamera(2));
    PosenetPoseDetector two(realModel(), "cpu-tflite");
    two.initialize();
    AxisVideoStreamSource stream(Resolution(768, 576));
    PosenetPoseDetector* detectors[2] = {&one, &two};
    const IRectangle view(0, 6, 768, 563);
    double seconds[2] = {0.0, 0.0};
    bool oneFirst = true;
    for (auto _ : state) {
        for (int turn = 0; turn < 2; ++turn) {
            const int which = (turn == 0) == oneFirst ? 0 : 1;
            const double start = wallSeconds();
            for (const auto& person : detectors[which]->detect(stream, view)) {
                FPoint centre;
                benchmark::DoNotOptimize(person.skeleton.getSkeletonCenter(centre, 0.3f));
            }
            seconds[which] += wallSeconds() - start;
        }
        oneFirst = !oneFirst;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["fps_1_thread"] = n / seconds[0];
    state.counters["fps_2_threads"] = n / seconds[1];
    state.counters["speedup"] = seconds[0] / seconds[1];
}
BENCHMARK(BM_RealPosenet_RoadThreads)->Unit(benchmark::kMillisecond)->MinTime(4.0)->UseRealTime();

BENCHMARK(BM_RealPosenet_Road)
    ->Arg(1)
    ->Arg(2)
    ->ArgName("threads")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(3.0)
    ->UseRealTime();

} // namespace
