#include "PoseDecoding.h"

#include "LarodSession.h"
#include "PosenetDecoder.h"

#include <algorithm>

namespace Ombrel {
namespace detail {

namespace {

constexpr float kDecoderScoreThreshold = 0.01f;
constexpr int kRefinementSteps = 5;
constexpr float kNmsRadius = 2.0f;
constexpr int kStride = 16;

int truncated(float value) {
    return truncateTo<int>(static_cast<double>(value));
}

} // namespace

bool poseGrid(const larodTensor* outputTensor, std::size_t heatmapsLength,
              std::size_t shortOffsetsLength, std::size_t midOffsetsLength, int& height,
              int& width) {
    unsigned int gridWidth = 0;
    unsigned int gridHeight = 0;
    if (!getLarodTensorSize(outputTensor, "detect", gridWidth, gridHeight)) {
        return false;
    }
    const std::size_t cells = static_cast<std::size_t>(gridWidth) * gridHeight;
    if (cells * 17 > heatmapsLength || cells * 34 > shortOffsetsLength ||
        cells * 64 > midOffsetsLength) {
        g_stemlibLogger.error("detect: A grid of " + std::to_string(gridHeight) + "x" +
                              std::to_string(gridWidth) +
                              " cells does not fit the detector's tensors");
        return false;
    }
    height = static_cast<int>(gridHeight);
    width = static_cast<int>(gridWidth);
    return true;
}

void decodePoses(const float* heatmaps, const float* shortOffsets, const float* midOffsets,
                 int height, int width, float confidenceThreshold, const PoseResults& results) {
    results.keypoints.fill(0.0f);
    results.keypointScores.fill(0.0f);
    results.poseScores.fill(0.0f);

    std::array<PosenetDecoder::PoseKeypoints, kMaxPoses> poses;
    std::array<PosenetDecoder::PoseKeypointScores, kMaxPoses> scores;
    const int count = PosenetDecoder::DecodeAllPoses(
        heatmaps, shortOffsets, midOffsets, height, width, kMaxPoses, kDecoderScoreThreshold,
        kRefinementSteps, kNmsRadius, kStride, poses.data(), scores.data(),
        results.poseScores.data());
    for (int p = 0; p < count; ++p) {
        for (int k = 0; k < 17; ++k) {
            results.keypoints[(p * 17 + k) * 2] = poses[p].keypoint[k].y;
            results.keypoints[(p * 17 + k) * 2 + 1] = poses[p].keypoint[k].x;
            results.keypointScores[p * 17 + k] = scores[p].keypoint[k];
        }
    }

    // The decoder returns poses in falling order of score: the first below the threshold ends
    // the list.
    results.nPoses = count;
    for (int i = 0; i < kMaxPoses; ++i) {
        if (results.poseScores[i] < confidenceThreshold) {
            results.nPoses = i;
            break;
        }
    }
}

IPoint keypointLocation(const PoseKeypointArray& keypoints, int nPose, BodypixBodyPart part) {
    const std::size_t index = (static_cast<std::size_t>(nPose) * 17 + static_cast<int>(part)) * 2;
    return IPoint(truncated(keypoints[index + 1]), truncated(keypoints[index]));
}

float keypointScore(const PoseKeypointScoreArray& keypointScores, int nPose, BodypixBodyPart part) {
    return keypointScores[static_cast<std::size_t>(nPose) * 17 + static_cast<std::size_t>(part)];
}

Keypoints poseKeypoints(const PoseKeypointArray& keypoints,
                        const PoseKeypointScoreArray& keypointScores, int nPose) {
    Keypoints result;
    for (BodypixBodyPart part : BodyParts) {
        result.add(Keypoint(keypointLocation(keypoints, nPose, part), part,
                            keypointScore(keypointScores, nPose, part)));
    }
    return result;
}

PoseDetections posesToDetections(const PoseKeypointArray& keypoints,
                                 const PoseKeypointScoreArray& keypointScores,
                                 const PoseScoreArray& poseScores, int nPoses,
                                 const Resolution& inputResolution, const IRectangle* rectangle) {
    PoseDetections detections;
    detections.reserve(static_cast<std::size_t>(std::max(nPoses, 0)));
    const float inputWidth = static_cast<float>(inputResolution.width);
    const float inputHeight = static_cast<float>(inputResolution.height);
    for (int i = 0; i < nPoses; ++i) {
        Keypoints mapped;
        for (BodypixBodyPart part : BodyParts) {
            IPoint point = keypointLocation(keypoints, i, part);
            if (rectangle != nullptr) {
                point.x = truncated(static_cast<float>(point.x) / inputWidth *
                                        static_cast<float>(rectangle->width) +
                                    static_cast<float>(rectangle->x) + 0.5f);
                point.y = truncated(static_cast<float>(point.y) / inputHeight *
                                        static_cast<float>(rectangle->height) +
                                    static_cast<float>(rectangle->y) + 0.5f);
            }
            mapped.add(Keypoint(point, part, keypointScore(keypointScores, i, part)));
        }
        const Skeleton<BodypixBodyPart> skeleton(mapped);
        detections.emplace_back(skeleton, skeleton.getBoundingBox(), poseScores[i]);
    }
    return detections;
}

PoseDetectionBase<BodypixBodyPart> normalizedPoseToDetection(const float* rows,
                                                             const IRectangle& rectangle) {
    Keypoints keypoints;
    for (BodypixBodyPart part : BodyParts) {
        const float* row = rows + 3 * static_cast<int>(part);
        const int x = truncated(row[1] * static_cast<float>(rectangle.width) +
                                static_cast<float>(rectangle.x) + 0.5f);
        const int y = truncated(row[0] * static_cast<float>(rectangle.height) +
                                static_cast<float>(rectangle.y) + 0.5f);
        keypoints.add(Keypoint(IPoint(x, y), part, row[2]));
    }
    const Skeleton<BodypixBodyPart> skeleton(keypoints);
    // The model gives no pose score.
    return PoseDetectionBase<BodypixBodyPart>(skeleton, skeleton.getBoundingBox(), 0.5f);
}

} // namespace detail
} // namespace Ombrel
