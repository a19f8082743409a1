// Image acquisition: colour conversion and resampling against OpenCV doing the same job on the
// same input. Compare the figures of one run side by side.
#include "ImageBufferFrameSource.h"
#include "PanoImageFrameSource.h"
#include "imgconverter.h"

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <vector>

using namespace Ombrel;

namespace {

constexpr unsigned int kSrcW = 1920;
constexpr unsigned int kSrcH = 1080;
constexpr unsigned int kDstW = 481;
constexpr unsigned int kDstH = 353;

const std::vector<uint8_t>& cameraFrame() {
    static const std::vector<uint8_t> nv12 = [] {
        std::vector<uint8_t> frame(static_cast<std::size_t>(kSrcW) * kSrcH * 3 / 2);
        for (std::size_t i = 0; i < frame.size(); ++i) {
            frame[i] = static_cast<uint8_t>((i * 2654435761u) >> 24);
        }
        return frame;
    }();
    return nv12;
}

// The centred crop of the destination's aspect ratio, as the converter computes it.
cv::Rect centredCrop() {
    const float ratio = static_cast<float>(kDstW) / static_cast<float>(kDstH);
    float clipW = static_cast<float>(kSrcW);
    float clipH = clipW / ratio;
    if (clipH > static_cast<float>(kSrcH)) {
        clipH = static_cast<float>(kSrcH);
        clipW = clipH * ratio;
    }
    const int w = static_cast<int>(clipW);
    const int h = static_cast<int>(clipH);
    return cv::Rect((static_cast<int>(kSrcW) - w) / 2, (static_cast<int>(kSrcH) - h) / 2, w, h);
}

void BM_CropScale_Stemlib(benchmark::State& state) {
    const std::vector<uint8_t>& nv12 = cameraFrame();
    std::vector<uint8_t> rgb(static_cast<std::size_t>(kDstW) * kDstH * 3);
    for (auto _ : state) {
        convertCropScaleU8yuvToRGB(nv12.data(), kSrcW, kSrcH, rgb.data(), kDstW, kDstH);
        benchmark::DoNotOptimize(rgb.data());
    }
}

void cropScaleOpenCV(benchmark::State& state) {
    const std::vector<uint8_t>& nv12 = cameraFrame();
    const cv::Mat y(kSrcH, kSrcW, CV_8UC1, const_cast<uint8_t*>(nv12.data()));
    const cv::Mat uv(kSrcH / 2, kSrcW / 2, CV_8UC2,
                     const_cast<uint8_t*>(nv12.data()) + static_cast<std::size_t>(kSrcW) * kSrcH);
    const cv::Rect crop = centredCrop();
    cv::Mat rgb;
    cv::Mat out(kDstH, kDstW, CV_8UC3);
    for (auto _ : state) {
        cv::cvtColorTwoPlane(y, uv, rgb, cv::COLOR_YUV2RGB_NV12);
        cv::resize(rgb(crop), out, out.size(), 0, 0, cv::INTER_LINEAR);
        benchmark::DoNotOptimize(out.data);
    }
}

void BM_CropScale_OpenCV(benchmark::State& state) {
    cropScaleOpenCV(state);
}

void BM_CropScale_OpenCV_1Thread(benchmark::State& state) {
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);
    cropScaleOpenCV(state);
    cv::setNumThreads(threads);
}

void BM_NV12ToRGB_Stemlib(benchmark::State& state) {
    std::vector<uint8_t> nv12 = cameraFrame();
    std::vector<uint8_t> rgb(static_cast<std::size_t>(kSrcW) * kSrcH * 3);
    for (auto _ : state) {
        convertU8yuvToRGBlibYuv(kSrcW, kSrcH, nv12.data(), rgb.data());
        benchmark::DoNotOptimize(rgb.data());
    }
}

void nv12ToRGBOpenCV(benchmark::State& state) {
    const std::vector<uint8_t>& nv12 = cameraFrame();
    const cv::Mat y(kSrcH, kSrcW, CV_8UC1, const_cast<uint8_t*>(nv12.data()));
    const cv::Mat uv(kSrcH / 2, kSrcW / 2, CV_8UC2,
                     const_cast<uint8_t*>(nv12.data()) + static_cast<std::size_t>(kSrcW) * kSrcH);
    cv::Mat rgb(kSrcH, kSrcW, CV_8UC3);
    for (auto _ : state) {
        cv::cvtColorTwoPlane(y, uv, rgb, cv::COLOR_YUV2RGB_NV12);
        benchmark::DoNotOptimize(rgb.data);
    }
}

void BM_NV12ToRGB_OpenCV(benchmark::State& state) {
    nv12ToRGBOpenCV(state);
}

void BM_NV12ToRGB_OpenCV_1Thread(benchmark::State& state) {
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);
    nv12ToRGBOpenCV(state);
    cv::setNumThreads(threads);
}

void BM_ResizeTo_Stemlib(benchmark::State& state) {
    std::vector<uint8_t> pixels(static_cast<std::size_t>(kSrcW) * kSrcH * 3);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        pixels[i] = static_cast<uint8_t>(i * 31);
    }
    ImageBufferFrameSource source(Resolution(kSrcW, kSrcH), pixels.data());
    std::vector<uint8_t> out(static_cast<std::size_t>(kDstW) * kDstH * 3);
    for (auto _ : state) {
        source.resizeTo(Resolution(kDstW, kDstH), 0, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}

void resizeOpenCVNearest(benchmark::State& state) {
    cv::Mat source(kSrcH, kSrcW, CV_8UC3);
    cv::randu(source, 0, 255);
    cv::Mat out(kDstH, kDstW, CV_8UC3);
    for (auto _ : state) {
        cv::resize(source, out, out.size(), 0, 0, cv::INTER_NEAREST);
        benchmark::DoNotOptimize(out.data);
    }
}

void BM_ResizeTo_OpenCVNearest(benchmark::State& state) {
    resizeOpenCVNearest(state);
}

void BM_ResizeTo_OpenCVNearest_1Thread(benchmark::State& state) {
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);
    resizeOpenCVNearest(state);
    cv::setNumThreads(threads);
}

// Four quarters of a 1920 by 1080 frame into a 2 by 2 mosaic of 481 by 353.
void BM_LoadImagePatches_Stemlib(benchmark::State& state) {
    std::vector<uint8_t> pixels(static_cast<std::size_t>(kSrcW) * kSrcH * 3);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        pixels[i] = static_cast<uint8_t>(i * 31);
    }
    ImageBufferFrameSource source(Resolution(kSrcW, kSrcH), pixels.data());
    PanoImageFrameSource mosaic(Resolution(kDstW, kDstH));
    mosaic.setGridResolution(Resolution(2, 2));
    const IRectangles quarters = {IRectangle(0, 0, 960, 540), IRectangle(960, 0, 960, 540),
                                  IRectangle(0, 540, 960, 540), IRectangle(960, 540, 960, 540)};
    for (auto _ : state) {
        mosaic.loadImagePatches(source, quarters);
        benchmark::DoNotOptimize(mosaic.getImageData());
    }
}

// OpenCV doing the same job: blacken the mosaic, then a nearest-sample resize of each quarter
// into the centred part of its cell.
void BM_LoadImagePatches_OpenCVNearest(benchmark::State& state) {
    cv::Mat source(kSrcH, kSrcW, CV_8UC3);
    cv::randu(source, 0, 255);
    cv::Mat mosaic(kDstH, kDstW, CV_8UC3);
    const cv::Rect quarters[] = {cv::Rect(0, 0, 960, 540), cv::Rect(960, 0, 960, 540),
                                 cv::Rect(0, 540, 960, 540), cv::Rect(960, 540, 960, 540)};
    // 960 by 540 into 240 by 176 fills the width: 240 by 135, 20 rows down.
    const cv::Rect cells[] = {cv::Rect(0, 20, 240, 135), cv::Rect(240, 20, 240, 135),
                              cv::Rect(0, 196, 240, 135), cv::Rect(240, 196, 240, 135)};
    for (auto _ : state) {
        mosaic.setTo(cv::Scalar::all(0));
        for (int i = 0; i < 4; ++i) {
            cv::Mat cell = mosaic(cells[i]);
            cv::resize(source(quarters[i]), cell, cell.size(), 0, 0, cv::INTER_NEAREST);
        }
        benchmark::DoNotOptimize(mosaic.data);
    }
}

} // namespace

BENCHMARK(BM_CropScale_Stemlib)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CropScale_OpenCV)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CropScale_OpenCV_1Thread)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_NV12ToRGB_Stemlib)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_NV12ToRGB_OpenCV)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_NV12ToRGB_OpenCV_1Thread)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ResizeTo_Stemlib)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ResizeTo_OpenCVNearest)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ResizeTo_OpenCVNearest_1Thread)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LoadImagePatches_Stemlib)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LoadImagePatches_OpenCVNearest)->Unit(benchmark::kMicrosecond);
