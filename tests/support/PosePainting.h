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
// size, or fails when told to. Counts its calls.
class PaintedFrameSource : public Ombrel::ImageFrameSource {
public:
    PaintedFrameSource(const Ombrel::Resolution& reported, std::vector<std::uint8_t> bytes_)
        : Ombrel::ImageFrameSource(reported), bytes(std::move(bytes_)) {}

    bool getFrame(const Ombrel::Resolution& requested, int rotation,
                  uint8_t* pOutputPixels) override {
        ++calls;
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
    int calls = 0;
};

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

// The detections are the detector's last poses, each keypoint taken from the model's input
// pixels into the rectangle as x / input width * rectangle width + rectangle x + 0.5, truncated
// (and likewise y), with the pose's score as confidence.
template <typename PoseDetector>
void expectMappedFromInput(
    const PoseDetector& detector,
    const std::vector<Ombrel::PoseDetectionBase<Ombrel::BodypixBodyPart>>& detections,
    const Ombrel::Resolution& input, const Ombrel::IRectangle& rectangle) {
    ASSERT_EQ(static_cast<int>(detections.size()), detector.getNumberOfPoses());
    for (std::size_t i = 0; i < detections.size(); ++i) {
        const int pose = static_cast<int>(i);
        EXPECT_FLOAT_EQ(detections[i].confidence, detector.getPoseScore(pose));
        EXPECT_EQ(detections[i].boundingBox, detections[i].skeleton.getBoundingBox());
        for (Ombrel::BodypixBodyPart part : Ombrel::BodyParts) {
            const Ombrel::IPoint at = detector.getKeypointLocation(pose, part);
            const Ombrel::IPoint expected(
                static_cast<int>(static_cast<float>(at.x) / static_cast<float>(input.width) *
                                     static_cast<float>(rectangle.width) +
                                 static_cast<float>(rectangle.x) + 0.5f),
                static_cast<int>(static_cast<float>(at.y) / static_cast<float>(input.height) *
                                     static_cast<float>(rectangle.height) +
                                 static_cast<float>(rectangle.y) + 0.5f));
            const auto& keypoint = detections[i].skeleton.keypoints().get(part);
            EXPECT_EQ(keypoint.point, expected) << i << " " << Ombrel::toString(part);
            EXPECT_FLOAT_EQ(keypoint.score, detector.getKeypointScore(pose, part));
        }
    }
}

} // namespace StemlibTest
