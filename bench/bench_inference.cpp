// Inference costs: decoding poses on the largest grid, and the host inference service's own
// share of a job against TensorFlow Lite called directly on the same model.
#include "PosenetDecoder.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <larod.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#ifdef STEMLIB_BENCH_TFLITE
#include <tensorflow/lite/c/c_api.h>
#endif

using namespace Ombrel::PosenetDecoder;

namespace {

// Tensors of a 46 x 81 grid (3726 cells, the largest model's) holding 20 people in 4 rows of 5,
// far enough apart that none suppresses another, over a noisy background below the threshold.
struct CrowdGrid {
    static constexpr int kHeight = 46;
    static constexpr int kWidth = 81;
    std::vector<float> scores;
    std::vector<float> shortOffsets;
    std::vector<float> midOffsets;

    CrowdGrid()
        : scores(kHeight * kWidth * kNumKeypoints), shortOffsets(kHeight * kWidth * 34, 0.0f),
          midOffsets(kHeight * kWidth * 64, 0.0f) {
        std::uint32_t state = 12345;
        for (float& score : scores) {
            state = state * 1664525u + 1013904223u;
            score = -12.0f + static_cast<float>(state >> 24) / 64.0f; // -12 .. -8
        }
        for (int row = 0; row < 4; ++row) {
            for (int column = 0; column < 5; ++column) {
                addPerson(1 + row * 11, 1 + column * 16, 2.0f + 0.1f * (row * 5 + column));
            }
        }
    }

    void addPerson(int top, int left, float logit) {
        const int cells[kNumKeypoints][2] = {
            {top, left + 2},     {top, left + 1},     {top, left + 3},     {top + 1, left},
            {top + 1, left + 4}, {top + 2, left},     {top + 2, left + 4}, {top + 3, left},
            {top + 3, left + 4}, {top + 4, left},     {top + 4, left + 4}, {top + 4, left + 1},
            {top + 4, left + 3}, {top + 5, left + 1}, {top + 5, left + 3}, {top + 6, left + 1},
            {top + 6, left + 3}};
        for (int k = 0; k < kNumKeypoints; ++k) {
            scores[(cells[k][0] * kWidth + cells[k][1]) * kNumKeypoints + k] = logit;
        }
        for (int e = 0; e < 32; ++e) {
            const int* parent = cells[kEdgeList[e].first];
            const int* child = cells[kEdgeList[e].second];
            const int channel = e < kNumEdges ? e : e + kNumEdges;
            float* mid = &midOffsets[(parent[0] * kWidth + parent[1]) * 64];
            mid[channel] = static_cast<float>(child[0] - parent[0]);
            mid[channel + kNumEdges] = static_cast<float>(child[1] - parent[1]);
        }
    }
};

void BM_DecodeAllPoses_3726Cells_20Poses(benchmark::State& state) {
    const CrowdGrid grid;
    std::array<PoseKeypoints, 20> poses{};
    std::array<PoseKeypointScores, 20> keypointScores{};
    std::array<float, 20> poseScores{};
    int count = 0;
    for (auto _ : state) {
        count = DecodeAllPoses(grid.scores.data(), grid.shortOffsets.data(), grid.midOffsets.data(),
                               CrowdGrid::kHeight, CrowdGrid::kWidth, 20, 0.01f, 5, 2.0f, 16,
                               poses.data(), keypointScores.data(), poseScores.data());
        benchmark::DoNotOptimize(poseScores.data());
    }
    if (count != 20) {
        state.SkipWithError("expected 20 poses");
    }
    state.counters["poses"] = count;
}
BENCHMARK(BM_DecodeAllPoses_3726Cells_20Poses)->Unit(benchmark::kMicrosecond);

std::string modelPath(const char* name) {
    return std::string(STEMLIB_MODEL_DIR) + "/" + name + ".tflite";
}

// A job on the host service, with the picture and outputs in shared memory files as a detector
// holds them.
class ServiceJob {
public:
    explicit ServiceJob(const std::string& path) {
        larodConnect(&_conn, nullptr);
        const larodDevice* device = larodGetDevice(_conn, "cpu-tflite", 0, nullptr);
        const int fd = open(path.c_str(), O_RDONLY);
        _model =
            larodLoadModel(_conn, fd, device, LAROD_ACCESS_PRIVATE, path.c_str(), nullptr, nullptr);
        close(fd);
        _inputs = larodCreateModelInputs(_model, &_numInputs, nullptr);
        _outputs = larodCreateModelOutputs(_model, &_numOutputs, nullptr);
        for (std::size_t i = 0; i < _numInputs + _numOutputs; ++i) {
            larodTensor* tensor = i < _numInputs ? _inputs[i] : _outputs[i - _numInputs];
            std::size_t size = 0;
            larodGetTensorByteSize(tensor, &size, nullptr);
            const int file = memfd_create("bench", 0);
            if (ftruncate(file, static_cast<off_t>(size)) != 0) {
                continue;
            }
            larodSetTensorFd(tensor, file, nullptr);
            _files.push_back(file);
        }
        _job = larodCreateJobRequest(_model, _inputs, _numInputs, _outputs, _numOutputs, nullptr,
                                     nullptr);
    }
    ~ServiceJob() {
        larodDestroyJobRequest(&_job);
        larodDestroyTensors(_conn, &_inputs, _numInputs, nullptr);
        larodDestroyTensors(_conn, &_outputs, _numOutputs, nullptr);
        larodDeleteModel(_conn, _model, nullptr);
        larodDestroyModel(&_model);
        larodDisconnect(&_conn, nullptr);
        for (int file : _files) {
            close(file);
        }
    }
    ServiceJob(const ServiceJob&) = delete;
    ServiceJob& operator=(const ServiceJob&) = delete;

    bool ready() const { return _job != nullptr; }
    bool run() {
        for (std::size_t i = _numInputs; i < _files.size(); ++i) {
            lseek(_files[i], 0, SEEK_SET);
        }
        return larodRunJob(_conn, _job, nullptr);
    }

private:
    larodConnection* _conn = nullptr;
    larodModel* _model = nullptr;
    larodTensor** _inputs = nullptr;
    larodTensor** _outputs = nullptr;
    std::size_t _numInputs = 0;
    std::size_t _numOutputs = 0;
    larodJobRequest* _job = nullptr;
    std::vector<int> _files;
};

void serviceJob(benchmark::State& state, const char* model) {
    ServiceJob job(modelPath(model));
    if (!job.ready()) {
        state.SkipWithError("cannot load the model");
        return;
    }
    for (auto _ : state) {
        if (!job.run()) {
            state.SkipWithError("job failed");
            break;
        }
    }
}

#ifdef STEMLIB_BENCH_TFLITE

// The same work without the service: the picture is copied into the input tensor and each output
// out of its tensor, from and to memory the caller holds.
void directJob(benchmark::State& state, const char* model) {
    std::ifstream file(modelPath(model), std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                  std::istreambuf_iterator<char>());
    TfLiteModel* tfModel = TfLiteModelCreate(bytes.data(), bytes.size());
    TfLiteInterpreterOptions* options = TfLiteInterpreterOptionsCreate();
    TfLiteInterpreterOptionsSetNumThreads(options, 1);
    TfLiteInterpreter* interpreter = TfLiteInterpreterCreate(tfModel, options);
    if (interpreter == nullptr || TfLiteInterpreterAllocateTensors(interpreter) != kTfLiteOk) {
        state.SkipWithError("cannot load the model");
    } else {
        TfLiteTensor* input = TfLiteInterpreterGetInputTensor(interpreter, 0);
        const std::vector<std::uint8_t> picture(TfLiteTensorByteSize(input), 128);
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
    TfLiteModelDelete(tfModel);
}

BENCHMARK_CAPTURE(directJob, PoseNetwork, "posenet_network_481x353")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);
BENCHMARK_CAPTURE(directJob, PoseNetPassThrough, "posenet_481x353")->Unit(benchmark::kMicrosecond);
#endif

BENCHMARK_CAPTURE(serviceJob, PoseNetwork, "posenet_network_481x353")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);
BENCHMARK_CAPTURE(serviceJob, PoseNetPassThrough, "posenet_481x353")->Unit(benchmark::kMicrosecond);

} // namespace
