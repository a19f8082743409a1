// The camera source on the host's default camera, side by side with the same conversion on a
// buffer already in memory: the difference is the host video service's share of a frame.
// Compare the figures of one run.
#include "AxisVideoStreamSource.h"
#include "imgconverter.h"
#include "stemlib-host.h"

#include <vdo-stream.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

using namespace Ombrel;

namespace {

constexpr unsigned int kW = 1920;
constexpr unsigned int kH = 1080;

std::vector<uint8_t> generatorFrame() {
    std::vector<uint8_t> nv12(std::size_t{kW} * kH * 3 / 2);
    stemlib_host_render_generator_frame(kW, kH, 0, 0, nv12.data(), nv12.size());
    return nv12;
}

void BM_StreamGetFrame(benchmark::State& state) {
    stemlib_host_load_camera(nullptr, nullptr);
    const Resolution requested(static_cast<unsigned>(state.range(0)),
                               static_cast<unsigned>(state.range(1)));
    AxisVideoStreamSource source(Resolution(kW, kH));
    std::vector<uint8_t> out(std::size_t{requested.width} * requested.height * 3);
    for (auto _ : state) {
        if (!source.getFrame(requested, 0, out.data())) {
            state.SkipWithError("getFrame failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
}

// What getFrame does with a camera buffer, on a buffer in memory: at the stream's size the
// conversion into the image buffer and the copy out, at any other size crop and scale.
void BM_DirectConversion(benchmark::State& state) {
    const unsigned w = static_cast<unsigned>(state.range(0));
    const unsigned h = static_cast<unsigned>(state.range(1));
    std::vector<uint8_t> nv12 = generatorFrame();
    std::vector<uint8_t> image(std::size_t{kW} * kH * 3);
    std::vector<uint8_t> out(std::size_t{w} * h * 3);
    for (auto _ : state) {
        if (w == kW && h == kH) {
            convertU8yuvToRGBlibYuv(kW, kH, nv12.data(), image.data());
            std::memcpy(out.data(), image.data(), out.size());
        } else if (!convertCropScaleU8yuvToRGB(nv12.data(), kW, kH, out.data(), w, h)) {
            state.SkipWithError("conversion failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
}

// The host video service alone: one buffer taken and given back a frame.
void BM_HostStreamBuffer(benchmark::State& state) {
    stemlib_host_load_camera(nullptr, nullptr);
    VdoMap* settings = vdo_map_new();
    vdo_map_set_uint32(settings, "width", kW);
    vdo_map_set_uint32(settings, "height", kH);
    VdoStream* stream = vdo_stream_new(settings, nullptr, nullptr);
    g_object_unref(settings);
    if (stream == nullptr || !vdo_stream_start(stream, nullptr)) {
        state.SkipWithError("no stream");
        return;
    }
    for (auto _ : state) {
        VdoBuffer* buffer = vdo_stream_get_buffer(stream, nullptr);
        benchmark::DoNotOptimize(vdo_buffer_get_data(buffer));
        vdo_stream_buffer_unref(stream, &buffer, nullptr);
    }
    g_object_unref(stream);
}

} // namespace

BENCHMARK(BM_StreamGetFrame)->Args({kW, kH})->Args({481, 353})->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectConversion)->Args({kW, kH})->Args({481, 353})->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HostStreamBuffer)->Unit(benchmark::kMicrosecond);
