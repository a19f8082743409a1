#include "PosenetDecoder.h"

#include "Points.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace Ombrel {
namespace PosenetDecoder {

namespace {

constexpr int kLocalMaximumRadius = 1;
constexpr int kTopK = 17;

// Grid positions become indices by truncation; a non-finite position must not reach the
// undefined float-to-int conversion.
int toIndex(float value) {
    return detail::truncateTo<int>(static_cast<double>(value));
}

} // namespace

const std::array<std::pair<KeypointType, KeypointType>, 32> kEdgeList = {{
    // Forward edges, spreading out from the nose.
    {kNose, kLeftEye},
    {kLeftEye, kLeftEar},
    {kNose, kRightEye},
    {kRightEye, kRightEar},
    {kNose, kLeftShoulder},
    {kLeftShoulder, kLeftElbow},
    {kLeftElbow, kLeftWrist},
    {kLeftShoulder, kLeftHip},
    {kLeftHip, kLeftKnee},
    {kLeftKnee, kLeftAnkle},
    {kNose, kRightShoulder},
    {kRightShoulder, kRightElbow},
    {kRightElbow, kRightWrist},
    {kRightShoulder, kRightHip},
    {kRightHip, kRightKnee},
    {kRightKnee, kRightAnkle},
    // The same edges reversed.
    {kLeftEye, kNose},
    {kLeftEar, kLeftEye},
    {kRightEye, kNose},
    {kRightEar, kRightEye},
    {kLeftShoulder, kNose},
    {kLeftElbow, kLeftShoulder},
    {kLeftWrist, kLeftElbow},
    {kLeftHip, kLeftShoulder},
    {kLeftKnee, kLeftHip},
    {kLeftAnkle, kLeftKnee},
    {kRightShoulder, kNose},
    {kRightElbow, kRightShoulder},
    {kRightWrist, kRightElbow},
    {kRightHip, kRightShoulder},
    {kRightKnee, kRightHip},
    {kRightAnkle, kRightKnee},
}};

float Logodds(float x) {
    const double value = static_cast<double>(x);
    return static_cast<float>(-std::log(1.0 / (value + 1e-6) - 1.0));
}

float Sigmoid(float x) {
    return 1.0f / (1.0f + std::exp(-x));
}

float ComputeSquaredDistance(const Point& a, const Point& b) {
    const float dy = b.y - a.y;
    const float dx = b.x - a.x;
    return dy * dy + dx * dx;
}

void BuildKeypointWithScoreQueue(const float* scores, const float* short_offsets, int height,
                                 int width, int num_keypoints, float score_threshold,
                                 int local_maximum_radius,
                                 DecreasingScoreKeypointPriorityQueue* queue) {
    const float maxY = static_cast<float>(height - 1);
    const float maxX = static_cast<float>(width - 1);
    int score_index = 0;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            int offset_index = 2 * score_index;
            for (int j = 0; j < num_keypoints; ++j, ++score_index, ++offset_index) {
                const float score = scores[score_index];
                if (!(score >= score_threshold)) {
                    continue;
                }
                // A candidate must not be beaten by the same keypoint in the window, cut to
                // the grid; equal neighbours do not beat it.
                const int y_start = std::max(y - local_maximum_radius, 0);
                const int y_end = std::min(y + local_maximum_radius + 1, height);
                const int x_start = std::max(x - local_maximum_radius, 0);
                const int x_end = std::min(x + local_maximum_radius + 1, width);
                bool local_maximum = true;
                for (int yc = y_start; yc < y_end && local_maximum; ++yc) {
                    for (int xc = x_start; xc < x_end; ++xc) {
                        if (scores[(yc * width + xc) * num_keypoints + j] > score) {
                            local_maximum = false;
                            break;
                        }
                    }
                }
                if (!local_maximum) {
                    continue;
                }
                const float dy = short_offsets[offset_index];
                const float dx = short_offsets[offset_index + num_keypoints];
                const float refinedY = clamp(static_cast<float>(y) + dy, 0.0f, maxY);
                const float refinedX = clamp(static_cast<float>(x) + dx, 0.0f, maxX);
                queue->emplace(Point{refinedY, refinedX}, j, score);
            }
        }
    }
}

AdjacencyList BuildAdjacencyList() {
    AdjacencyList list;
    list.child_ids.resize(kNumKeypoints);
    list.edge_ids.resize(kNumKeypoints);
    for (int k = 0; k < static_cast<int>(kEdgeList.size()); ++k) {
        const int parent = kEdgeList[k].first;
        const int child = kEdgeList[k].second;
        list.child_ids[parent].push_back(child);
        list.edge_ids[parent].push_back(k);
    }
    return list;
}

bool PassKeypointNMS(const PoseKeypoints* poses, std::size_t n_poses,
                     const KeypointWithScore& keypoint, float squared_nms_radius) {
    for (std::size_t index = 0; index < n_poses; ++index) {
        if (squared_nms_radius >=
            ComputeSquaredDistance(keypoint.point, poses[index].keypoint[keypoint.id])) {
            return false;
        }
    }
    return true;
}

void BuildLinearInterpolation(float x, int n, int* x_floor, int* x_ceil, float* x_lerp) {
    const float x_proj = clamp(x, 0.0f, static_cast<float>(n - 1));
    *x_floor = toIndex(std::floor(x_proj));
    *x_ceil = toIndex(std::ceil(x_proj));
    *x_lerp = x - static_cast<float>(*x_floor);
}

void BuildBilinearInterpolation(float y, float x, int height, int width, int num_channels,
                                int* top_left, int* top_right, int* bottom_left, int* bottom_right,
                                float* y_lerp, float* x_lerp) {
    int y_floor = 0;
    int y_ceil = 0;
    BuildLinearInterpolation(y, height, &y_floor, &y_ceil, y_lerp);
    int x_floor = 0;
    int x_ceil = 0;
    BuildLinearInterpolation(x, width, &x_floor, &x_ceil, x_lerp);
    *top_left = (y_floor * width + x_floor) * num_channels;
    *top_right = (y_floor * width + x_ceil) * num_channels;
    *bottom_left = (y_ceil * width + x_floor) * num_channels;
    *bottom_right = (y_ceil * width + x_ceil) * num_channels;
}

void SampleTensorAtMultipleChannels(const float* tensor, int height, int width, int num_channels,
                                    float y, float x, const int* result_channels,
                                    int n_result_channels, float* result) {
    int top_left = 0;
    int top_right = 0;
    int bottom_left = 0;
    int bottom_right = 0;
    float y_lerp = 0.0f;
    float x_lerp = 0.0f;
    BuildBilinearInterpolation(y, x, height, width, num_channels, &top_left, &top_right,
                               &bottom_left, &bottom_right, &y_lerp, &x_lerp);
    for (int i = 0; i < n_result_channels; ++i) {
        const int c = result_channels[i];
        result[i] =
            (1 - y_lerp) * ((1 - x_lerp) * tensor[top_left + c] + x_lerp * tensor[top_right + c]) +
            y_lerp * ((1 - x_lerp) * tensor[bottom_left + c] + x_lerp * tensor[bottom_right + c]);
    }
}

float SampleTensorAtSingleChannel(const float* tensor, int height, int width, int num_channels,
                                  const Point& point, int c) {
    float result = 0.0f;
    SampleTensorAtMultipleChannels(tensor, height, width, num_channels, point.y, point.x, &c, 1,
                                   &result);
    return result;
}

Point FindDisplacedPosition(const float* short_offsets, const float* mid_offsets, int height,
                            int width, int num_keypoints, int num_edges, const Point& source,
                            int edge_id, int target_id, int mid_short_offset_refinement_steps) {
    const float maxY = static_cast<float>(height - 1);
    const float maxX = static_cast<float>(width - 1);
    float y = source.y;
    float x = source.x;
    float offsets[2];

    const int mid_channels[2] = {edge_id, num_edges + edge_id};
    SampleTensorAtMultipleChannels(mid_offsets, height, width, 4 * num_edges, y, x, mid_channels, 2,
                                   offsets);
    y = clamp(y + offsets[0], 0.0f, maxY);
    x = clamp(x + offsets[1], 0.0f, maxX);

    const int short_channels[2] = {target_id, num_keypoints + target_id};
    for (int step = 0; step < mid_short_offset_refinement_steps; ++step) {
        SampleTensorAtMultipleChannels(short_offsets, height, width, 2 * num_keypoints, y, x,
                                       short_channels, 2, offsets);
        y = clamp(y + offsets[0], 0.0f, maxY);
        x = clamp(x + offsets[1], 0.0f, maxX);
    }
    return Point{y, x};
}

void BacktrackDecodePose(const float* scores, const float* short_offsets, const float* mid_offsets,
                         int height, int width, int num_keypoints, int num_edges,
                         const KeypointWithScore& root, const AdjacencyList& adjacency_list,
                         int mid_short_offset_refinement_steps, Point* pose_keypoints,
                         float* keypoint_scores) {
    // The root is rescored at its refined position.
    const float root_score =
        SampleTensorAtSingleChannel(scores, height, width, num_keypoints, root.point, root.id);
    DecreasingScoreKeypointPriorityQueue decode_queue;
    decode_queue.emplace(root.point, root.id, root_score);
    std::vector<bool> keypoint_decoded(static_cast<std::size_t>(num_keypoints), false);

    while (!decode_queue.empty()) {
        const KeypointWithScore current = decode_queue.top();
        decode_queue.pop();
        if (keypoint_decoded[current.id]) {
            continue;
        }
        pose_keypoints[current.id] = current.point;
        keypoint_scores[current.id] = current.score;
        keypoint_decoded[current.id] = true;

        const std::vector<int>& children = adjacency_list.child_ids[current.id];
        const std::vector<int>& edges = adjacency_list.edge_ids[current.id];
        for (std::size_t k = 0; k < children.size(); ++k) {
            const int child_id = children[k];
            if (keypoint_decoded[child_id]) {
                continue;
            }
            // Backward edges 16 to 31 address channels 32 to 47 (y) and, through the
            // num_edges term, 48 to 63 (x).
            int edge_id = edges[k];
            if (edge_id > num_edges - 1) {
                edge_id += num_edges;
            }
            const Point child_point = FindDisplacedPosition(
                short_offsets, mid_offsets, height, width, num_keypoints, num_edges, current.point,
                edge_id, child_id, mid_short_offset_refinement_steps);
            const float child_score = SampleTensorAtSingleChannel(
                scores, height, width, num_keypoints, child_point, child_id);
            decode_queue.emplace(child_point, child_id, child_score);
        }
    }
}

void DecreasingArgSort(const float* values, std::size_t len, std::vector<int>* indices) {
    indices->resize(len);
    std::iota(indices->begin(), indices->end(), 0);
    // NaN sorts as the lowest value, which keeps the ordering strict and weak.
    auto key = [values](int i) {
        const float value = values[i];
        return std::isnan(value) ? -std::numeric_limits<float>::infinity() : value;
    };
    std::sort(indices->begin(), indices->end(), [&key](int i, int j) { return key(i) > key(j); });
}

void DecreasingArgSort(const std::vector<float>& values, std::vector<int>* indices) {
    DecreasingArgSort(values.data(), values.size(), indices);
}

void FindOverlappingKeypoints(const PoseKeypoints& pose1, const PoseKeypoints& pose2,
                              float squared_radius, std::vector<bool>* mask) {
    const std::size_t count = std::min<std::size_t>(mask->size(), kNumKeypoints);
    for (std::size_t k = 0; k < count; ++k) {
        if (squared_radius >= ComputeSquaredDistance(pose1.keypoint[k], pose2.keypoint[k])) {
            (*mask)[k] = true;
        }
    }
}

void PerformSoftKeypointNMS(const std::vector<int>& decreasing_indices,
                            const PoseKeypoints* all_keypoint_coords,
                            const PoseKeypointScores* all_keypoint_scores, int num_keypoints,
                            float squared_nms_radius, int topk,
                            std::vector<float>* all_instance_scores) {
    const std::size_t num_instances = decreasing_indices.size();
    all_instance_scores->resize(num_instances);
    std::vector<bool> keypoint_occluded(static_cast<std::size_t>(num_keypoints));
    std::vector<int> indices(static_cast<std::size_t>(num_keypoints));
    const int summed = std::min(topk, num_keypoints);
    for (std::size_t i = 0; i < num_instances; ++i) {
        const int current_index = decreasing_indices[i];
        std::fill(keypoint_occluded.begin(), keypoint_occluded.end(), false);
        for (std::size_t j = 0; j < i; ++j) {
            FindOverlappingKeypoints(all_keypoint_coords[current_index],
                                     all_keypoint_coords[decreasing_indices[j]], squared_nms_radius,
                                     &keypoint_occluded);
        }
        const float* keypoint_scores = all_keypoint_scores[current_index].keypoint;
        DecreasingArgSort(keypoint_scores, static_cast<std::size_t>(num_keypoints), &indices);
        float sum = 0.0f;
        for (int k = 0; k < summed; ++k) {
            if (!keypoint_occluded[indices[k]]) {
                sum += keypoint_scores[indices[k]];
            }
        }
        // Occluded keypoints count as zero; they stay in the divisor.
        (*all_instance_scores)[current_index] = sum / static_cast<float>(topk);
    }
}

int DecodeAllPoses(const float* scores, const float* short_offsets, const float* mid_offsets,
                   int height, int width, int max_detections, float score_threshold,
                   int mid_short_offset_refinement_steps, float nms_radius, int stride,
                   PoseKeypoints* pose_keypoints, PoseKeypointScores* pose_keypoint_scores,
                   float* pose_scores) {
    if (max_detections <= 0) {
        return 0;
    }
    const float min_score_logit = Logodds(score_threshold);
    DecreasingScoreKeypointPriorityQueue queue;
    BuildKeypointWithScoreQueue(scores, short_offsets, height, width, kNumKeypoints,
                                min_score_logit, kLocalMaximumRadius, &queue);
    const AdjacencyList adjacency_list = BuildAdjacencyList();

    const auto maxPoses = static_cast<std::size_t>(max_detections);
    std::vector<PoseKeypoints> scratch_poses(maxPoses);
    std::vector<PoseKeypointScores> scratch_keypoint_scores(maxPoses);
    std::vector<float> all_instance_scores;
    all_instance_scores.reserve(maxPoses);
    std::vector<int> indices;
    const float squared_nms_radius = nms_radius * nms_radius;

    int pose_counter = 0;
    while (pose_counter < max_detections && !queue.empty()) {
        const KeypointWithScore root = queue.top();
        queue.pop();
        if (!PassKeypointNMS(scratch_poses.data(), static_cast<std::size_t>(pose_counter), root,
                             squared_nms_radius)) {
            continue;
        }
        PoseKeypoints& pose = scratch_poses[static_cast<std::size_t>(pose_counter)];
        PoseKeypointScores& keypoint_scores =
            scratch_keypoint_scores[static_cast<std::size_t>(pose_counter)];
        for (int k = 0; k < kNumKeypoints; ++k) {
            pose.keypoint[k] = Point{-1.0f, -1.0f};
            keypoint_scores.keypoint[k] = -100000.0f;
        }
        BacktrackDecodePose(scores, short_offsets, mid_offsets, height, width, kNumKeypoints,
                            kNumEdges, root, adjacency_list, mid_short_offset_refinement_steps,
                            pose.keypoint, keypoint_scores.keypoint);
        for (float& score : keypoint_scores.keypoint) {
            score = Sigmoid(score);
        }
        // The mean, summed from the highest score down, which fixes its rounding.
        DecreasingArgSort(keypoint_scores.keypoint, kNumKeypoints, &indices);
        float sum = 0.0f;
        for (int index : indices) {
            sum += keypoint_scores.keypoint[index];
        }
        const auto instance_score = static_cast<float>(sum / 17.0);
        if (score_threshold <= instance_score) {
            ++pose_counter;
            all_instance_scores.push_back(instance_score);
        }
    }

    std::vector<int> decreasing_indices;
    DecreasingArgSort(all_instance_scores, &decreasing_indices);
    PerformSoftKeypointNMS(decreasing_indices, scratch_poses.data(), scratch_keypoint_scores.data(),
                           kNumKeypoints, squared_nms_radius, kTopK, &all_instance_scores);
    DecreasingArgSort(all_instance_scores, &decreasing_indices);

    pose_counter = 0;
    const auto strideScale = static_cast<float>(stride);
    for (int index : decreasing_indices) {
        const float instance_score = all_instance_scores[static_cast<std::size_t>(index)];
        if (instance_score < score_threshold) {
            break;
        }
        const PoseKeypoints& pose = scratch_poses[static_cast<std::size_t>(index)];
        for (int k = 0; k < kNumKeypoints; ++k) {
            pose_keypoints[pose_counter].keypoint[k].y = pose.keypoint[k].y * strideScale;
            pose_keypoints[pose_counter].keypoint[k].x = pose.keypoint[k].x * strideScale;
        }
        pose_keypoint_scores[pose_counter] =
            scratch_keypoint_scores[static_cast<std::size_t>(index)];
        pose_scores[pose_counter] = instance_score;
        ++pose_counter;
    }
    return pose_counter;
}

} // namespace PosenetDecoder
} // namespace Ombrel
