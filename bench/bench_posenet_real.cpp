// The published PoseNet as the model forge converts it (posenet_mobilenet_481x353), on real
// footage (frame 200 of opencv-doc's vtest.avi, six people):
//  - one job on the host inference service against the same model called directly through the
//    TensorFlow Lite C API, one thread each: the service's overhead;
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
#include "SampleData.h"
#include "ScratchDirectory.h"

#include <benchmark/benchmark.h>
#include <larod.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <cstring>
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

// The frame as the model sees it.
std::vector<std::uint8_t> modelPicture() {
    cv::Mat rgb = clipFrame200();
    ImageBufferFrameSource source(Resolution(768, 576), rgb.data);
    std::vector<std::uint8_t> picture(kWidth * kHeight * 3);
    source.getFrame(Resolution(kWidth, kHeight), 0, picture.data());
    return picture;
}

// A host camera described by text, for as long as the object lives.
class Camera {
public:
    explicit Camera(const std::string& text) {
        std::ofstream(_folder.file("camera.txt")) << text;
        stemlib_host_load_camera(_folder.file("camera.txt").c_str(), nullptr);
    }
    ~Camera() { stemlib_host_load_camera(nullptr, nullptr); }
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

private:
    StemlibTest::ScratchDirectory _folder;
};

std::string clipCamera(int threads) {
    return "root.ImageSource.I0.Sensor.AspectRatio = 4:3\n"
           "root.Image.I0.Appearance.Rotation = 0\n"
           "channels = 1\n"
           "channel.1.resolutions = 768x576\n"
           "larod.devices = cpu-tflite\n"
           "larod.threads = " +
           std::to_string(threads) +
           "\nvideo.input = file:" + StemlibTest::sampleDataPath("vtest.avi") + "\n";
}

// The detector with its steps opened up.
class SteppedDetector : public PosenetPoseDetector {
public:
    SteppedDetector() : PosenetPoseDetector(realModel(), "cpu-tflite") {}

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

// Frame 200 in a buffer source at the clip's size, and a started detector.
struct Fixture {
    cv::Mat rgb = clipFrame200();
    ImageBufferFrameSource source{Resolution(768, 576), rgb.data};
    Camera camera{clipCamera(1)};
    std::unique_ptr<SteppedDetector> detector = std::make_unique<SteppedDetector>();
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
// The same model through the TensorFlow Lite C API: the picture copied in, each output out.
void BM_RealPosenet_DirectTFLite(benchmark::State& state) {
    STEMLIB_BENCH_REQUIRE_MODEL(state);
    const std::vector<std::uint8_t> picture = modelPicture();
    TfLiteModel* model = TfLiteModelCreateFromFile(realModel().c_str());
    TfLiteInterpreterOptions* options = TfLiteInterpreterOptionsCreate();
    TfLiteInterpreterOptionsSetNumThreads(options, 1);
    TfLiteInterpreter* interpreter = TfLiteInterpreterCreate(model, options);
    if (interpreter == nullptr || TfLiteInterpreterAllocateTensors(interpreter) != kTfLiteOk) {
        state.SkipWithError("cannot load the model");
    } else {
        TfLiteTensor* input = TfLiteInterpreterGetInputTensor(interpreter, 0);
        std::vector<std::vector<std::uint8_t>> outputs;
        for (int i = 0; i < TfLiteInterpreterGetOutputTensorCount(interpreter); ++i) {
            outputs.emplace_back(
                TfLiteTensorByteSize(TfLiteInterpreterGetOutputTensor(interpreter, i)));
        }
        for (auto _ : state) {
            TfLiteTensorCopyFromBuffer(input, picture.data(), picture.size());
            TfLiteInterpreterInvoke(interpreter);
            for (std::size_t i = 0; i < outputs.size(); ++i) {
                TfLiteTensorCopyToBuffer(
                    TfLiteInterpreterGetOutputTensor(interpreter, static_cast<int>(i)),
                    outputs[i].data(), outputs[i].size());
            }
            benchmark::DoNotOptimize(outputs.front().data());
        }
    }
    TfLiteInterpreterDelete(interpreter);
    TfLiteInterpreterOptionsDelete(options);
    TfLiteModelDelete(model);
}
BENCHMARK(BM_RealPosenet_DirectTFLite)->Unit(benchmark::kMillisecond)->MinTime(2.0);
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
    Camera camera(clipCamera(static_cast<int>(state.range(0))));
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
BENCHMARK(BM_RealPosenet_Road)
    ->Arg(1)
    ->Arg(2)
    ->ArgName("threads")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(3.0)
    ->UseRealTime();

} // namespace
