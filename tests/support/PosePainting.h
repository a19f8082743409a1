// Frames for the forged pass-through models (painted as PosePicture.h paints them), and what a
// test expects of the detections decoded from them.
#pragma once

#include "ImageFrameSource.h"
#include "PoseBase.h"
#include "PosePicture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace StemlibTest {

// A frame source that reports one resolution and hands out a painted picture of the model's
// size, or fails when told to.
class PaintedFrameSource : public Ombrel::ImageFrameSource {
public:
    PaintedFrameSource(const Ombrel::Resolution& reported, std::vector<std::uint8_t> bytes_)
        : Ombrel::ImageFrameSource(reported), bytes(std::move(bytes_)) {}

    bool getFrame(const Ombrel::Resolution& requested, int rotation,
                  uint8_t* pOutputPixels) override {
        EXPECT_EQ(rotation, 0);
        if (fail) {
            return false;
        }
        EXPECT_EQ(bytes.size(), static_cast<std::size_t>(requested.area()) * 3);
        std::memcpy(pOutputPixels, bytes.data(), bytes.size());
        return true;
    }

    std::vector<std::uint8_t> bytes;
    bool fail = false;
};

// A coordinate in the model's input pixels taken into a span of the caller's pixels.
inline float intoSpan(float value, unsigned int inputExtent, int extent, int origin) {
    return value / static_cast<float>(inputExtent) * static_cast<float>(extent) +
           static_cast<float>(origin);
}

// Each keypoint of a detection within tolerance pixels of where the person's cells map: the
// cell times the stride of 16, taken into the rectangle.
inline void expectPersonAt(const Ombrel::PoseDetectionBase<Ombrel::BodypixBodyPart>& detection,
                           const PersonCells& cells, const Ombrel::Resolution& input,
                           const Ombrel::IRectangle& r, float tolerance) {
    for (Ombrel::BodypixBodyPart part : Ombrel::BodyParts) {
        const GridCell cell = cells[static_cast<std::size_t>(part)];
        const Ombrel::IPoint at = detection.skeleton.keypoints().get(part).point;
        EXPECT_NEAR(static_cast<float>(at.x), intoSpan(16.0f * cell.x, input.width, r.width, r.x),
                    tolerance)
            << Ombrel::toString(part);
        EXPECT_NEAR(static_cast<float>(at.y), intoSpan(16.0f * cell.y, input.height, r.height, r.y),
                    tolerance)
            << Ombrel::toString(part);
    }
}

// The detections are the detector's last poses, each keypoint taken from the model's input
// pixels into the rectangle with 0.5 added before truncation, with the pose's score as
// confidence.
template <typename PoseDetector>
void expectMappedFromInput(
    const PoseDetector& detector,
    const std::vector<Ombrel::PoseDetectionBase<Ombrel::BodypixBodyPart>>& detections,
    const Ombrel::Resolution& input, const Ombrel::IRectangle& r) {
    ASSERT_EQ(static_cast<int>(detections.size()), detector.getNumberOfPoses());
    for (std::size_t i = 0; i < detections.size(); ++i) {
        const int pose = static_cast<int>(i);
        EXPECT_FLOAT_EQ(detections[i].confidence, detector.getPoseScore(pose));
        EXPECT_EQ(detections[i].boundingBox, detections[i].skeleton.getBoundingBox());
        for (Ombrel::BodypixBodyPart part : Ombrel::BodyParts) {
            const Ombrel::IPoint at = detector.getKeypointLocation(pose, part);
            const auto& keypoint = detections[i].skeleton.keypoints().get(part);
            EXPECT_EQ(keypoint.point,
                      Ombrel::IPoint(
                          static_cast<int>(intoSpan(at.x, input.width, r.width, r.x) + 0.5f),
                          static_cast<int>(intoSpan(at.y, input.height, r.height, r.y) + 0.5f)))
                << i << " " << Ombrel::toString(part);
            EXPECT_FLOAT_EQ(keypoint.score, detector.getKeypointScore(pose, part));
        }
    }
}

} // namespace StemlibTest
