// A whole PosenetPoseDetector::detect on the pass-through pose model, and each of its steps
// alone: the frame copy, the job on the host service, the dequantisation, the decode and the
// mapping into the caller's rectangle.
#include "ImageBufferFrameSource.h"
#include "PosenetDecoder.h"
#include "PosenetPoseDetector.h"

#include "ForgedModels.h"

#include <benchmark/benchmark.h>

#include <larod.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

using namespace Ombrel;

namespace {

// Six people painted into the model's tensors: heatmap peaks at their joints and the mid
// offsets of every edge at the parent joint, short offsets at zero.
std::vector<std::uint8_t> crowdPicture() {
    const modelforge::PassThroughModel model = modelforge::posenetPassThrough();
    std::vector<std::uint8_t> bytes(model.inputBytes(), 0);
    const std::size_t heatmaps = model.output("heatmaps").inputOffset;
    const std::size_t shortOffsets = model.output("short_offsets").inputOffset;
    const std::size_t mid = model.output("mid_offsets").inputOffset;
    const int width = 31;
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(shortOffsets),
              bytes.begin() + static_cast<std::ptrdiff_t>(shortOffsets + 713 * 34), 128);
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(mid),
              bytes.begin() + static_cast<std::ptrdiff_t>(mid + 713 * 64), 117);
    const float step = 1.3875765f / 16.0f;
    for (int row = 0; row < 2; ++row) {
        for (int column = 0; column < 3; ++column) {
            const int top = 2 + 11 * row;
            const int left = 11 * column;
            const int u = 2;
            const int cells[17][2] = {{top, left + 2 * u},         {top, left + u},
                                      {top, left + 3 * u},         {top + u, left},
                                      {top + u, left + 4 * u},     {top + u, left + u},
                                      {top + u, left + 3 * u},     {top + 2 * u, left},
                                      {top + 2 * u, left + 4 * u}, {top + 3 * u, left},
                                      {top + 3 * u, left + 4 * u}, {top + 2 * u, left + u},
                                      {top + 2 * u, left + 3 * u}, {top + 3 * u, left + u},
                                      {top + 3 * u, left + 3 * u}, {top + 4 * u, left + u},
                                      {top + 4 * u, left + 3 * u}};
            for (int k = 0; k < 17; ++k) {
                bytes[heatmaps +
                      static_cast<std::size_t>((cells[k][0] * width + cells[k][1]) * 17 + k)] = 250;
            }
            // Around the parent joint, so that a position a little off the cell samples the
            // same offsets.
            for (int e = 0; e < 32; ++e) {
                const int* parent = cells[PosenetDecoder::kEdgeList[e].first];
                const int* child = cells[PosenetDecoder::kEdgeList[e].second];
                const int channel = e < 16 ? e : e + 16;
                for (int dy = -1; dy <= 1; ++dy) {
                    for (int dx = -1; dx <= 1; ++dx) {
                        const int y = parent[0] + dy;
                        const int x = parent[1] + dx;
                        if (y < 0 || x < 0 || y >= 23 || x >= width) {
                            continue;
                        }
                        const std::size_t at = mid + static_cast<std::size_t>((y * width + x) * 64);
                        bytes[at + static_cast<std::size_t>(channel)] = static_cast<std::uint8_t>(
                            117 + std::lround(static_cast<float>(child[0] - parent[0]) / step));
                        bytes[at + static_cast<std::size_t>(channel + 16)] =
                            static_cast<std::uint8_t>(
                                117 + std::lround(static_cast<float>(child[1] - parent[1]) / step));
                    }
                }
            }
        }
    }
    return bytes;
}

// The detector with its steps opened up.
class SteppedPosenetDetector : public PosenetPoseDetector {
public:
    SteppedPosenetDetector()
        : PosenetPoseDetector(std::string(STEMLIB_MODEL_DIR) + "/posenet_481x353.tflite", "") {}

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

struct Fixture {
    std::vector<std::uint8_t> picture = crowdPicture();
    ImageBufferFrameSource source{Resolution(481, 353), picture.data()};
    std::unique_ptr<SteppedPosenetDetector> detector = std::make_unique<SteppedPosenetDetector>();
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
