// PosenetDecoder: decodes up to a given number of human poses of 17 keypoints from the three
// float tensors of a PoseNet-style model (keypoint heatmaps, short offsets, mid offsets) on a
// coarse grid.
//
// A pure numeric routine in a namespace of its own: no state, no logging, only local vectors.
// Positions are (y, x), y first everywhere, and stay in grid cells until DecodeAllPoses
// multiplies them by the stride; offsets arrive already divided by the stride. Tensors are
// row-major floats with the channel index fastest: element (y, x, c) of a tensor with C channels
// is tensor[(y * width + x) * C + c].
//   scores         17 channels of logits, one per keypoint;
//   short_offsets  34 channels: y offset of keypoint k in channel k, its x offset in 17 + k;
//   mid_offsets    64 channels in blocks of 16: forward y, forward x, backward y, backward x.
// Dimensions and buffer lengths are the caller's to get right; they are not checked. Values that
// are not finite do not lead to undefined behaviour, only to meaningless poses.
//
// Thread-safe: every function may run on any thread.
#pragma once

#include <array>
#include <cstddef>
#include <queue>
#include <utility>
#include <vector>

namespace Ombrel {
namespace PosenetDecoder {

constexpr int kNumKeypoints = 17;
constexpr int kNumEdges = 16;

enum KeypointType {
    kNose,
    kLeftEye,
    kRightEye,
    kLeftEar,
    kRightEar,
    kLeftShoulder,
    kRightShoulder,
    kLeftElbow,
    kRightElbow,
    kLeftWrist,
    kRightWrist,
    kLeftHip,
    kRightHip,
    kLeftKnee,
    kRightKnee,
    kLeftAnkle,
    kRightAnkle
};

struct Point {
    float y;
    float x;
};

struct PoseKeypoints {
    Point keypoint[kNumKeypoints];
};

struct PoseKeypointScores {
    float keypoint[kNumKeypoints];
};

struct KeypointWithScore {
    KeypointWithScore(const Point& point_, int id_, float score_)
        : point(point_), id(id_), score(score_) {}

    Point point;
    int id; // a KeypointType value
    float score;
};

// Ascending score, so that a priority queue with it pops the highest score first. Equal scores
// have no further key.
struct KeypointWithScoreComparator {
    bool operator()(const KeypointWithScore& a, const KeypointWithScore& b) const {
        return a.score < b.score;
    }
};

using DecreasingScoreKeypointPriorityQueue =
    std::priority_queue<KeypointWithScore, std::vector<KeypointWithScore>,
                        KeypointWithScoreComparator>;

struct AdjacencyList {
    std::vector<std::vector<int>> child_ids;
    std::vector<std::vector<int>> edge_ids;
};

// The 32 (parent, child) edges of the pose tree; the edge id is the index. Ids 0 to 15 spread
// out from the nose, ids 16 to 31 are the same edges reversed, in the same order.
extern const std::array<std::pair<KeypointType, KeypointType>, 32> kEdgeList;

// -log(1 / (x + 1e-6) - 1), computed in double.
float Logodds(float x);
float Sigmoid(float x);
float ComputeSquaredDistance(const Point& a, const Point& b);

// lo if v < lo, else hi if hi < v, else v.
template <typename T>
T clamp(T v, T lo, T hi) {
    if (v < lo) {
        return lo;
    }
    if (hi < v) {
        return hi;
    }
    return v;
}

// Pushes every local maximum (within local_maximum_radius, equal neighbours allowed) whose score
// is at least score_threshold, at its cell moved by its short offset and clamped to the grid,
// with the raw score of its cell.
void BuildKeypointWithScoreQueue(const float* scores, const float* short_offsets, int height,
                                 int width, int num_keypoints, float score_threshold,
                                 int local_maximum_radius,
                                 DecreasingScoreKeypointPriorityQueue* queue);

// Children and edge ids of each keypoint, from kEdgeList.
AdjacencyList BuildAdjacencyList();

// False when the keypoint lies within the radius (inclusive) of the same keypoint of one of the
// first n_poses poses.
bool PassKeypointNMS(const PoseKeypoints* poses, std::size_t n_poses,
                     const KeypointWithScore& keypoint, float squared_nms_radius);

// Floor and ceiling of x clamped to 0 .. n - 1, and the weight x - floor of the unclamped x.
void BuildLinearInterpolation(float x, int n, int* x_floor, int* x_ceil, float* x_lerp);
// Element offsets of the four grid corners around (y, x), and the two weights.
void BuildBilinearInterpolation(float y, float x, int height, int width, int num_channels,
                                int* top_left, int* top_right, int* bottom_left, int* bottom_right,
                                float* y_lerp, float* x_lerp);
void SampleTensorAtMultipleChannels(const float* tensor, int height, int width, int num_channels,
                                    float y, float x, const int* result_channels,
                                    int n_result_channels, float* result);
float SampleTensorAtSingleChannel(const float* tensor, int height, int width, int num_channels,
                                  const Point& point, int c);

// Follows edge edge_id's mid offset from source, then refines towards keypoint target_id with
// its short offsets, clamping to the grid after every step.
Point FindDisplacedPosition(const float* short_offsets, const float* mid_offsets, int height,
                            int width, int num_keypoints, int num_edges, const Point& source,
                            int edge_id, int target_id, int mid_short_offset_refinement_steps);

// Grows one pose from root along the best-scoring frontier; scores stay logits.
void BacktrackDecodePose(const float* scores, const float* short_offsets, const float* mid_offsets,
                         int height, int width, int num_keypoints, int num_edges,
                         const KeypointWithScore& root, const AdjacencyList& adjacency_list,
                         int mid_short_offset_refinement_steps, Point* pose_keypoints,
                         float* keypoint_scores);

// Indices 0 .. len - 1 ordered by decreasing value (unstable; NaN counts as the lowest value).
void DecreasingArgSort(const float* values, std::size_t len, std::vector<int>* indices);
void DecreasingArgSort(const std::vector<float>& values, std::vector<int>* indices);

// Sets the flag of each keypoint k that lies within the radius (inclusive) in both poses.
void FindOverlappingKeypoints(const PoseKeypoints& pose1, const PoseKeypoints& pose2,
                              float squared_radius, std::vector<bool>* mask);

// Rescores each pose as the sum of its topk best keypoint scores not covered by a better pose,
// divided by topk.
void PerformSoftKeypointNMS(const std::vector<int>& decreasing_indices,
                            const PoseKeypoints* all_keypoint_coords,
                            const PoseKeypointScores* all_keypoint_scores, int num_keypoints,
                            float squared_nms_radius, int topk,
                            std::vector<float>* all_instance_scores);

// Decodes up to max_detections poses into the three output arrays (each holding max_detections
// entries) in falling order of pose score, and returns their number. Coordinates are in image
// pixels (grid position times stride), keypoint scores are probabilities.
int DecodeAllPoses(const float* scores, const float* short_offsets, const float* mid_offsets,
                   int height, int width, int max_detections, float score_threshold,
                   int mid_short_offset_refinement_steps, float nms_radius, int stride,
                   PoseKeypoints* pose_keypoints, PoseKeypointScores* pose_keypoint_scores,
                   float* pose_scores);

} // namespace PosenetDecoder
} // namespace Ombrel
