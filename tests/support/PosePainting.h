// Frames for the forged pass-through models: a picture whose bytes are the model's output
// tensors, painted so that a detector decodes chosen people, and an oracle that predicts the
// detector's result from the same bytes.
#pragma once

#include "Dequantizer.h"
#include "ForgedModels.h"
#include "ImageFrameSource.h"
#include "PoseBase.h"
#include "PosenetDecoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

namespace StemlibTest {

// A frame source that reports one resolution and hands out a painted picture of the model's
// size, or fails when told to. Counts its calls.
class PaintedFrameSource : public Ombrel::ImageFrameSource {
public:
    PaintedFrameSource(const Ombrel::Resolution& reported, const Ombrel::Resolution& painted,
                       std::vector<std::uint8_t> bytes)
        : Ombrel::ImageFrameSource(reported), _painted(painted), bytes(std::move(bytes)) {}

    bool getFrame(const Ombrel::Resolution& requested, int rotation,
                  uint8_t* pOutputPixels) override {
        ++calls;
        EXPECT_EQ(rotation, 0);
        if (fail) {
            return false;
        }
        EXPECT_EQ(requested, _painted);
        EXPECT_EQ(bytes.size(), static_cast<std::size_t>(requested.area()) * 3);
        std::memcpy(pOutputPixels, bytes.data(), bytes.size());
        return true;
    }

    bool fail = false;
    int calls = 0;

private:
    Ombrel::Resolution _painted;

public:
    std::vector<std::uint8_t> bytes;
};

struct GridCell {
    int y;
    int x;
};
using PersonCells = std::array<GridCell, 17>;

// A standing person on the grid, its joints u cells apart: every edge of the pose tree moves by
// -u, 0 or u cells in each direction. 4u + 1 rows and columns.
inline PersonCells gridPerson(int top, int left, int u) {
    return {{{top, left + 2 * u},
             {top, left + u},
             {top, left + 3 * u},
             {top + u, left},
             {top + u, left + 4 * u},
             {top + u, left + u},
             {top + u, left + 3 * u},
             {top + 2 * u, left},
             {top + 2 * u, left + 4 * u},
             {top + 3 * u, left},
             {top + 3 * u, left + 4 * u},
             {top + 2 * u, left + u},
             {top + 2 * u, left + 3 * u},
             {top + 3 * u, left + u},
             {top + 3 * u, left + 3 * u},
             {top + 4 * u, left + u},
             {top + 4 * u, left + 3 * u}}};
}

// The byte that a dequantiser turns into the value nearest to value.
inline std::uint8_t quantize(const Ombrel::Dequantizer& dequantizer, float value) {
    const float steps = std::round(value / dequantizer.getScale());
    const float byte = static_cast<float>(dequantizer.getZeroPoint()) + steps;
    return static_cast<std::uint8_t>(std::min(255.0f, std::max(0.0f, byte)));
}

// The three tensors the decoder reads, as runs of the picture's bytes with their dequantisers.
// The mid offsets may be split over two runs (forward, then backward displacements), which the
// detector of the 320 x 240 model concatenates.
struct PoseTensorLayout {
    int height;
    int width;
    std::size_t heatmapsOffset;
    const Ombrel::Dequantizer* heatmaps;
    std::size_t shortOffsetsOffset;
    const Ombrel::Dequantizer* shortOffsets;
    std::size_t midOffset;
    const Ombrel::Dequantizer* mid;
    std::size_t midSecondOffset = 0; // where the second half of the mid offsets lies, if split
    const Ombrel::Dequantizer* midSecond = nullptr;

    std::size_t cells() const { return static_cast<std::size_t>(height) * width; }
};

class PosePicture {
public:
    PosePicture(std::size_t pictureBytes, const PoseTensorLayout& layout)
        : bytes(pictureBytes, 0), _layout(layout) {
        const std::size_t cells = layout.cells();
        fill(layout.heatmapsOffset, cells * 17, 0);
        fill(layout.shortOffsetsOffset, cells * 34, layout.shortOffsets->getZeroPoint());
        if (layout.midSecond == nullptr) {
            fill(layout.midOffset, cells * 64, layout.mid->getZeroPoint());
        } else {
            fill(layout.midOffset, cells * 32, layout.mid->getZeroPoint());
            fill(layout.midSecondOffset, cells * 32, layout.midSecond->getZeroPoint());
        }
    }

    // Paints a person: a heatmap peak at each joint, and the mid offsets of every edge around
    // the parent joint's cell (so that a position a little off the cell samples the same).
    void addPerson(const PersonCells& cells, std::uint8_t peak) {
        for (int k = 0; k < 17; ++k) {
            bytes[_layout.heatmapsOffset + cell(cells[k]) * 17 + static_cast<std::size_t>(k)] =
                peak;
        }
        using Ombrel::PosenetDecoder::kEdgeList;
        for (int e = 0; e < 32; ++e) {
            const GridCell parent = cells[kEdgeList[e].first];
            const GridCell child = cells[kEdgeList[e].second];
            const int channel = e < 16 ? e : e + 16;
            for (int dy = -1; dy <= 1; ++dy) {
                for (int dx = -1; dx <= 1; ++dx) {
                    const GridCell at{parent.y + dy, parent.x + dx};
                    if (at.y < 0 || at.x < 0 || at.y >= _layout.height || at.x >= _layout.width) {
                        continue;
                    }
                    setMid(cell(at), channel, static_cast<float>(child.y - parent.y));
                    setMid(cell(at), channel + 16, static_cast<float>(child.x - parent.x));
                }
            }
        }
    }

    // The three float tensors as the detector dequantises them.
    void dequantized(std::vector<float>& heatmaps, std::vector<float>& shortOffsets,
                     std::vector<float>& midOffsets) const {
        const std::size_t cells = _layout.cells();
        heatmaps = values(*_layout.heatmaps, _layout.heatmapsOffset, cells * 17);
        shortOffsets = values(*_layout.shortOffsets, _layout.shortOffsetsOffset, cells * 34);
        if (_layout.midSecond == nullptr) {
            midOffsets = values(*_layout.mid, _layout.midOffset, cells * 64);
        } else {
            midOffsets = values(*_layout.mid, _layout.midOffset, cells * 32);
            const std::vector<float> second =
                values(*_layout.midSecond, _layout.midSecondOffset, cells * 32);
            midOffsets.insert(midOffsets.end(), second.begin(), second.end());
        }
    }

    std::vector<std::uint8_t> bytes;

private:
    std::size_t cell(const GridCell& c) const {
        return static_cast<std::size_t>(c.y) * _layout.width + static_cast<std::size_t>(c.x);
    }
    void fill(std::size_t offset, std::size_t count, std::uint8_t value) {
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                  bytes.begin() + static_cast<std::ptrdiff_t>(offset + count), value);
    }
    // Element (cell, channel) of the 64-channel mid offsets; when split, the element's index
    // in the concatenation decides which half holds it.
    void setMid(std::size_t c, int channel, float value) {
        const std::size_t index = c * 64 + static_cast<std::size_t>(channel);
        const std::size_t half = _layout.cells() * 32;
        if (_layout.midSecond == nullptr || index < half) {
            bytes[_layout.midOffset + index] = quantize(*_layout.mid, value);
        } else {
            bytes[_layout.midSecondOffset + index - half] = quantize(*_layout.midSecond, value);
        }
    }
    std::vector<float> values(const Ombrel::Dequantizer& dequantizer, std::size_t offset,
                              std::size_t count) const {
        std::vector<float> result(count);
        for (std::size_t i = 0; i < count; ++i) {
            result[i] = dequantizer(bytes[offset + i]);
        }
        return result;
    }

    PoseTensorLayout _layout;
};

// What a decoding pose detector returns for a picture: decode with the detectors' constants,
// cut at the first pose below the threshold, keypoints truncated, then mapped into the
// rectangle (or left in input pixels when it is null).
inline std::vector<Ombrel::PoseDetectionBase<Ombrel::BodypixBodyPart>>
expectedPoses(const PosePicture& picture, const PoseTensorLayout& layout, float confidenceThreshold,
              const Ombrel::Resolution& input, const Ombrel::IRectangle* rectangle) {
    using namespace Ombrel;
    std::vector<float> heatmaps;
    std::vector<float> shortOffsets;
    std::vector<float> midOffsets;
    picture.dequantized(heatmaps, shortOffsets, midOffsets);
    std::array<PosenetDecoder::PoseKeypoints, 20> poses{};
    std::array<PosenetDecoder::PoseKeypointScores, 20> scores{};
    std::array<float, 20> poseScores{};
    int count = PosenetDecoder::DecodeAllPoses(
        heatmaps.data(), shortOffsets.data(), midOffsets.data(), layout.height, layout.width, 20,
        0.01f, 5, 2.0f, 16, poses.data(), scores.data(), poseScores.data());
    for (int i = 0; i < count; ++i) {
        if (poseScores[static_cast<std::size_t>(i)] < confidenceThreshold) {
            count = i;
        }
    }
    std::vector<PoseDetectionBase<BodypixBodyPart>> detections;
    for (int i = 0; i < count; ++i) {
        Keypoints keypoints;
        for (BodypixBodyPart part : BodyParts) {
            const int k = static_cast<int>(part);
            int x = static_cast<int>(poses[i].keypoint[k].x);
            int y = static_cast<int>(poses[i].keypoint[k].y);
            if (rectangle != nullptr) {
                x = static_cast<int>(static_cast<float>(x) / static_cast<float>(input.width) *
                                         static_cast<float>(rectangle->width) +
                                     static_cast<float>(rectangle->x) + 0.5f);
                y = static_cast<int>(static_cast<float>(y) / static_cast<float>(input.height) *
                                         static_cast<float>(rectangle->height) +
                                     static_cast<float>(rectangle->y) + 0.5f);
            }
            keypoints.add(Keypoint(IPoint(x, y), part, scores[i].keypoint[k]));
        }
        const Skeleton<BodypixBodyPart> skeleton(keypoints);
        detections.emplace_back(skeleton, skeleton.getBoundingBox(), poseScores[i]);
    }
    return detections;
}

// Equality of two pose results, keypoint by keypoint.
inline void
expectSamePoses(const std::vector<Ombrel::PoseDetectionBase<Ombrel::BodypixBodyPart>>& actual,
                const std::vector<Ombrel::PoseDetectionBase<Ombrel::BodypixBodyPart>>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_FLOAT_EQ(actual[i].confidence, expected[i].confidence) << "pose " << i;
        EXPECT_EQ(actual[i].boundingBox, expected[i].boundingBox) << "pose " << i;
        for (Ombrel::BodypixBodyPart part : Ombrel::BodyParts) {
            const auto& a = actual[i].skeleton.keypoints().get(part);
            const auto& e = expected[i].skeleton.keypoints().get(part);
            EXPECT_EQ(a.point, e.point) << "pose " << i << " " << Ombrel::toString(part);
            EXPECT_FLOAT_EQ(a.score, e.score) << "pose " << i << " " << Ombrel::toString(part);
        }
    }
}

// Each keypoint of a detection within tolerance pixels of where the person's cells map: the
// cell times the stride of 16, scaled from the input into the rectangle.
inline void expectPersonAt(const Ombrel::PoseDetectionBase<Ombrel::BodypixBodyPart>& detection,
                           const PersonCells& cells, const Ombrel::Resolution& input,
                           const Ombrel::IRectangle& rectangle, float tolerance) {
    for (Ombrel::BodypixBodyPart part : Ombrel::BodyParts) {
        const GridCell cell = cells[static_cast<std::size_t>(part)];
        const float x = 16.0f * static_cast<float>(cell.x) / static_cast<float>(input.width) *
                            static_cast<float>(rectangle.width) +
                        static_cast<float>(rectangle.x);
        const float y = 16.0f * static_cast<float>(cell.y) / static_cast<float>(input.height) *
                            static_cast<float>(rectangle.height) +
                        static_cast<float>(rectangle.y);
        const auto& keypoint = detection.skeleton.keypoints().get(part);
        EXPECT_NEAR(static_cast<float>(keypoint.point.x), x, tolerance) << Ombrel::toString(part);
        EXPECT_NEAR(static_cast<float>(keypoint.point.y), y, tolerance) << Ombrel::toString(part);
    }
}

} // namespace StemlibTest
