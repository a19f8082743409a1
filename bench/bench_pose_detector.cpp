// A whole PosenetPoseDetector::detect on the pass-through pose model, and each of its steps
// alone: the frame copy, the job on the host service, the dequantisation, the decode and the
// mapping into the caller's rectangle.
#include "ImageBufferFrameSource.h"
#include "PosenetDecoder.h"
#include "PosenetPoseDetector.h"

#include "PosePicture.h"
#include "SteppedPosenetDetector.h"

#include <benchmark/benchmark.h>

#include <larod.h>

#include <memory>
#include <string>
#include <vector>

using namespace Ombrel;

namespace {

// Six people painted into the model's tensors, in two rows of three.
std::vector<std::uint8_t> crowdPicture() {
    StemlibTest::PosePicture picture(modelforge::posenetPassThrough());
    for (int row = 0; row < 2; ++row) {
        for (int column = 0; column < 3; ++column) {
            picture.addPerson(StemlibTest::gridPerson(2 + 11 * row, 11 * column, 2), 250);
        }
    }
    return picture.bytes;
}

struct Fixture {
    std::vector<std::uint8_t> picture = crowdPicture();
    ImageBufferFrameSource source{Resolution(481, 353), picture.data()};
    std::unique_ptr<StemlibTest::SteppedPosenetDetector> detector =
        std::make_unique<StemlibTest::SteppedPosenetDetector>(
            std::string(STEMLIB_MODEL_DIR) + "/posenet_481x353.tflite", "");
    const IRectangle rectangle{0, 0, 1920, 1080};

    Fixture() { detector->initialize(); }
};

void BM_PosenetDetect_Whole(benchmark::State& state) {
    Fixture f;
    std::size_t people = 0;
    for (auto _ : state) {
        people = f.detector->detect(f.source, f.rectangle).size();
    }
    state.counters["people"] = static_cast<double>(people);
}
BENCHMARK(BM_PosenetDetect_Whole)->Unit(benchmark::kMicrosecond);

void BM_PosenetDetect_1_FrameCopy(benchmark::State& state) {
    Fixture f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.detector->copyFrame(f.source));
    }
}
BENCHMARK(BM_PosenetDetect_1_FrameCopy)->Unit(benchmark::kMicrosecond);

void BM_PosenetDetect_2_Job(benchmark::State& state) {
    Fixture f;
    f.detector->copyFrame(f.source);
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.detector->runJob());
    }
}
BENCHMARK(BM_PosenetDetect_2_Job)->Unit(benchmark::kMicrosecond);

void BM_PosenetDetect_3_Dequantize(benchmark::State& state) {
    Fixture f;
    f.detector->copyFrame(f.source);
    f.detector->runJob();
    for (auto _ : state) {
        f.detector->dequantize();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_PosenetDetect_3_Dequantize)->Unit(benchmark::kMicrosecond);

void BM_PosenetDetect_4_Decode(benchmark::State& state) {
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
BENCHMARK(BM_PosenetDetect_4_Decode)->Unit(benchmark::kMicrosecond);

void BM_PosenetDetect_5_Mapping(benchmark::State& state) {
    Fixture f;
    f.detector->detect(f.source, f.rectangle);
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.detector->tensorsToDetections(f.rectangle));
    }
}
BENCHMARK(BM_PosenetDetect_5_Mapping)->Unit(benchmark::kMicrosecond);

} // namespace
