// Cost of the floor-plane map: building a quad-to-quad matrix, and sending one point through it.
#include "PerspectiveMath.h"

#include <benchmark/benchmark.h>

using namespace Ombrel;

namespace {

const Quad kFloor(120.5f, 400.0f, 80.0f, 620.0f, 700.0f, 610.0f, 560.0f, 395.0f);
const Quad kPlan(0, 0, 0, 500, 300, 500, 300, 0);

void BM_CreatePerspectiveTransformMatrix(benchmark::State& state) {
    Quad source = kFloor;
    for (auto _ : state) {
        benchmark::DoNotOptimize(source);
        benchmark::DoNotOptimize(CreatePerspectiveTransformMatrix(source, kPlan));
    }
}
BENCHMARK(BM_CreatePerspectiveTransformMatrix);

void BM_ApplyTransformPerPoint(benchmark::State& state) {
    const Matrix3x3 T = CreatePerspectiveTransformMatrix(kFloor, kPlan);
    float x = 300.0f, y = 500.0f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(y);
        benchmark::DoNotOptimize(ApplyTransform(T, x, y));
    }
}
BENCHMARK(BM_ApplyTransformPerPoint);

// Both together, as a caller that maps one foot point with a fresh calibration would.
void BM_CreateAndApplyPerPoint(benchmark::State& state) {
    Quad source = kFloor;
    float x = 300.0f, y = 500.0f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(source);
        benchmark::DoNotOptimize(x);
        const Matrix3x3 T = CreatePerspectiveTransformMatrix(source, kPlan);
        benchmark::DoNotOptimize(ApplyTransform(T, x, y));
    }
}
BENCHMARK(BM_CreateAndApplyPerPoint);

} // namespace
