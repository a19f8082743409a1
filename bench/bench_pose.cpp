// Dequantisation of the largest pose model's outputs, in bytes per nanosecond.
#include "Dequantizer.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <memory>

using namespace Ombrel;

namespace {

constexpr std::size_t kOutputBytes = 428490;

void BM_Dequantize_428490Bytes(benchmark::State& state) {
    auto file = std::make_unique<MemoryMappedFile>("/tmp/stemlib.bench-XXXXXX",
                                                   static_cast<int>(kOutputBytes));
    auto* bytes = static_cast<uint8_t*>(file->getBuffer());
    for (std::size_t i = 0; i < kOutputBytes; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 131);
    }
    auto values = std::make_unique<std::array<float, kOutputBytes>>();
    const Dequantizer dequantizer(210, 0.08174263f, 1.0f);
    for (auto _ : state) {
        dequantizer.dequantize(file, *values);
        benchmark::DoNotOptimize(values->data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(kOutputBytes));
}

} // namespace

BENCHMARK(BM_Dequantize_428490Bytes)->Unit(benchmark::kMicrosecond);
