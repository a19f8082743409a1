// The steps that the three decoding pose detectors share: the grid check, the decode with the
// detectors' constants, the cut by the confidence threshold, and the mapping of poses into the
// caller's rectangle. Private to the library.
#pragma once

#include "CommonStructs.h"
#include "Points.h"
#include "PoseBase.h"

#include <array>
#include <string>
#include <vector>

typedef struct larodTensor larodTensor;

namespace Ombrel {
namespace detail {

constexpr int kMaxPoses = 20;
using PoseKeypointArray = std::array<float, kMaxPoses * 17 * 2>; // y then x per keypoint
using PoseKeypointScoreArray = std::array<float, kMaxPoses * 17>;
using PoseScoreArray = std::array<float, kMaxPoses>;
using PoseDetections = std::vector<PoseDetectionBase<BodypixBodyPart>>;

// The decoded poses of the last frame, as a detector holds them.
struct PoseResults {
    PoseKeypointArray& keypoints;
    PoseKeypointScoreArray& keypointScores;
    PoseScoreArray& poseScores;
    int& nPoses;
};

// Reads the grid from the dimensions of outputTensor (height at index 1, width at 2) and checks
// that heatmaps, short and mid offsets of that grid fit in arrays of the given lengths. False,
// after an error line under "detect", when they do not.
bool poseGrid(const larodTensor* outputTensor, std::size_t heatmapsLength,
              std::size_t shortOffsetsLength, std::size_t midOffsetsLength, int& height,
              int& width);

// Steps 7 to 9 of a decoding detector: clears the results, decodes up to 20 poses (score
// threshold 0.01, 5 refinement steps, NMS radius 2, stride 16) and cuts the list at the first
// pose scored below confidenceThreshold.
void decodePoses(const float* heatmaps, const float* shortOffsets, const float* midOffsets,
                 int height, int width, float confidenceThreshold, const PoseResults& results);

IPoint keypointLocation(const PoseKeypointArray& keypoints, int nPose, BodypixBodyPart part);
float keypointScore(const PoseKeypointScoreArray& keypointScores, int nPose, BodypixBodyPart part);
Keypoints poseKeypoints(const PoseKeypointArray& keypoints,
                        const PoseKeypointScoreArray& keypointScores, int nPose);

// The poses as detections, each keypoint mapped from the model's input pixels into the
// rectangle (with 0.5 added before truncation), or left in input pixels when rectangle is null.
PoseDetections posesToDetections(const PoseKeypointArray& keypoints,
                                 const PoseKeypointScoreArray& keypointScores,
                                 const PoseScoreArray& poseScores, int nPoses,
                                 const Resolution& inputResolution, const IRectangle* rectangle);

// One pose from keypoints in 0..1 (y, x, score for each of the 17 joints), mapped into the
// rectangle, with confidence 0.5.
PoseDetectionBase<BodypixBodyPart> normalizedPoseToDetection(const float* rows,
                                                             const IRectangle& rectangle);

} // namespace detail
} // namespace Ombrel
