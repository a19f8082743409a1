// The PoseNet decoder: its small functions, the candidate queue, interpolation, displacement,
// backtracking, soft keypoint suppression and whole decodes of synthetic grids whose poses are
// known exactly.
#include "PosenetDecoder.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <vector>

using namespace Ombrel::PosenetDecoder;

namespace {

struct Cell {
    int y;
    int x;
};

// Float tensors of a grid: background logits, zero offsets, and poses painted in so that every
// hop of the pose tree lands exactly on its keypoint's cell.
struct PoseGrid {
    int height;
    int width;
    std::vector<float> scores;
    std::vector<float> shortOffsets;
    std::vector<float> midOffsets;

    PoseGrid(int height_, int width_, float background = -10.0f)
        : height(height_), width(width_),
          scores(static_cast<std::size_t>(height_ * width_ * kNumKeypoints), background),
          shortOffsets(static_cast<std::size_t>(height_ * width_ * 2 * kNumKeypoints), 0.0f),
          midOffsets(static_cast<std::size_t>(height_ * width_ * 4 * kNumEdges), 0.0f) {}

    float& score(int y, int x, int k) { return scores[(y * width + x) * kNumKeypoints + k]; }
    float& shortOffset(int y, int x, int channel) {
        return shortOffsets[(y * width + x) * 2 * kNumKeypoints + channel];
    }
    float& midOffset(int y, int x, int channel) {
        return midOffsets[(y * width + x) * 4 * kNumEdges + channel];
    }

    void addPose(const std::array<Cell, kNumKeypoints>& cells, float logit) {
        for (int k = 0; k < kNumKeypoints; ++k) {
            score(cells[k].y, cells[k].x, k) = logit;
        }
        for (int e = 0; e < static_cast<int>(kEdgeList.size()); ++e) {
            const Cell parent = cells[kEdgeList[e].first];
            const Cell child = cells[kEdgeList[e].second];
            const int channel = e < kNumEdges ? e : e + kNumEdges;
            midOffset(parent.y, parent.x, channel) = static_cast<float>(child.y - parent.y);
            midOffset(parent.y, parent.x, channel + kNumEdges) =
                static_cast<float>(child.x - parent.x);
        }
    }

    int decode(int maxDetections, float threshold, std::vector<PoseKeypoints>& poses,
               std::vector<PoseKeypointScores>& keypointScores, std::vector<float>& poseScores,
               float nmsRadius = 2.0f) const {
        poses.assign(static_cast<std::size_t>(std::max(maxDetections, 1)), PoseKeypoints{});
        keypointScores.assign(poses.size(), PoseKeypointScores{});
        poseScores.assign(poses.size(), -7.0f);
        return DecodeAllPoses(scores.data(), shortOffsets.data(), midOffsets.data(), height, width,
                              maxDetections, threshold, 5, nmsRadius, 16, poses.data(),
                              keypointScores.data(), poseScores.data());
    }
};

// A standing person whose nose is at (top, left + 2), six rows tall and four columns wide.
std::array<Cell, kNumKeypoints> person(int top, int left) {
    return {{{top, left + 2},
             {top, left + 1},
             {top, left + 3},
             {top + 1, left},
             {top + 1, left + 4},
             {top + 2, left},
             {top + 2, left + 4},
             {top + 3, left},
             {top + 3, left + 4},
             {top + 4, left},
             {top + 4, left + 4},
             {top + 4, left + 1},
             {top + 4, left + 3},
             {top + 5, left + 1},
             {top + 5, left + 3},
             {top + 6, left + 1},
             {top + 6, left + 3}}};
}

std::vector<KeypointWithScore> drain(DecreasingScoreKeypointPriorityQueue& queue) {
    std::vector<KeypointWithScore> items;
    while (!queue.empty()) {
        items.push_back(queue.top());
        queue.pop();
    }
    return items;
}

TEST(PosenetDecoder, SmallFunctions) {
    EXPECT_NEAR(Logodds(0.5f), 0.0f, 1e-5f);
    // Computed in double: -log(1 / (0.01 + 1e-6) - 1).
    EXPECT_FLOAT_EQ(Logodds(0.01f), static_cast<float>(-std::log(1.0 / (0.01f + 1e-6) - 1.0)));
    EXPECT_FLOAT_EQ(Sigmoid(0.0f), 0.5f);
    EXPECT_NEAR(Sigmoid(Logodds(0.3f)), 0.3f, 1e-5f);
    EXPECT_FLOAT_EQ(ComputeSquaredDistance(Point{1, 2}, Point{4, 6}), 25.0f);
    EXPECT_EQ(clamp(-1.0f, 0.0f, 3.0f), 0.0f);
    EXPECT_EQ(clamp(5.0f, 0.0f, 3.0f), 3.0f);
    EXPECT_EQ(clamp(2.5f, 0.0f, 3.0f), 2.5f);

    std::vector<int> indices;
    DecreasingArgSort(std::vector<float>{0.2f, 0.9f, 0.5f}, &indices);
    EXPECT_EQ(indices, (std::vector<int>{1, 2, 0}));
    const float withNaN[] = {std::numeric_limits<float>::quiet_NaN(), 1.0f, -3.0f};
    DecreasingArgSort(withNaN, 3, &indices);
    EXPECT_EQ(indices, (std::vector<int>{1, 2, 0}));
    DecreasingArgSort(std::vector<float>{}, &indices);
    EXPECT_TRUE(indices.empty());
}

TEST(PosenetDecoder, AdjacencyFollowsTheEdgeList) {
    const AdjacencyList list = BuildAdjacencyList();
    ASSERT_EQ(list.child_ids.size(), 17u);
    EXPECT_EQ(list.child_ids[kNose],
              (std::vector<int>{kLeftEye, kRightEye, kLeftShoulder, kRightShoulder}));
    EXPECT_EQ(list.edge_ids[kNose], (std::vector<int>{0, 2, 4, 10}));
    EXPECT_EQ(list.child_ids[kLeftEye], (std::vector<int>{kLeftEar, kNose}));
    EXPECT_EQ(list.edge_ids[kLeftEye], (std::vector<int>{1, 16}));
    EXPECT_EQ(list.child_ids[kRightAnkle], (std::vector<int>{kRightKnee}));
    EXPECT_EQ(list.edge_ids[kRightAnkle], (std::vector<int>{31}));
    std::size_t edges = 0;
    for (const auto& children : list.child_ids) {
        edges += children.size();
    }
    EXPECT_EQ(edges, 32u);
}

TEST(PosenetDecoder, InterpolationWeightsAndCorners) {
    int lo = 0;
    int hi = 0;
    float lerp = 0.0f;
    BuildLinearInterpolation(2.25f, 5, &lo, &hi, &lerp);
    EXPECT_EQ(lo, 2);
    EXPECT_EQ(hi, 3);
    EXPECT_FLOAT_EQ(lerp, 0.25f);
    // Outside the grid the corners are clamped but the weight is not.
    BuildLinearInterpolation(-1.0f, 5, &lo, &hi, &lerp);
    EXPECT_EQ(lo, 0);
    EXPECT_EQ(hi, 0);
    EXPECT_FLOAT_EQ(lerp, -1.0f);
    BuildLinearInterpolation(7.0f, 5, &lo, &hi, &lerp);
    EXPECT_EQ(lo, 4);
    EXPECT_EQ(hi, 4);
    EXPECT_FLOAT_EQ(lerp, 3.0f);
    BuildLinearInterpolation(std::numeric_limits<float>::quiet_NaN(), 5, &lo, &hi, &lerp);
    EXPECT_EQ(lo, 0);
    EXPECT_EQ(hi, 0);

    int tl = 0;
    int tr = 0;
    int bl = 0;
    int br = 0;
    float yl = 0.0f;
    float xl = 0.0f;
    BuildBilinearInterpolation(1.5f, 2.0f, 3, 4, 2, &tl, &tr, &bl, &br, &yl, &xl);
    EXPECT_EQ(tl, (1 * 4 + 2) * 2);
    EXPECT_EQ(tr, (1 * 4 + 2) * 2);
    EXPECT_EQ(bl, (2 * 4 + 2) * 2);
    EXPECT_EQ(br, (2 * 4 + 2) * 2);
    EXPECT_FLOAT_EQ(yl, 0.5f);
    EXPECT_FLOAT_EQ(xl, 0.0f);

    // A 2 x 2 grid of two channels; channel 1 holds 10 * y + x.
    const float tensor[] = {5, 0, 5, 1, 5, 10, 5, 11};
    EXPECT_FLOAT_EQ(SampleTensorAtSingleChannel(tensor, 2, 2, 2, Point{0.5f, 0.25f}, 1), 5.25f);
    EXPECT_FLOAT_EQ(SampleTensorAtSingleChannel(tensor, 2, 2, 2, Point{1.0f, 1.0f}, 1), 11.0f);
    const int channels[] = {1, 0};
    float both[2];
    SampleTensorAtMultipleChannels(tensor, 2, 2, 2, 0.0f, 1.0f, channels, 2, both);
    EXPECT_FLOAT_EQ(both[0], 1.0f);
    EXPECT_FLOAT_EQ(both[1], 5.0f);
}

TEST(PosenetDecoder, CandidatesAreLocalMaximaMovedByTheirShortOffsets) {
    PoseGrid grid(4, 5);
    grid.score(0, 0, kNose) = 3.0f; // corner: only in-grid neighbours count
    grid.score(0, 1, kNose) = 2.0f; // beaten by the corner
    grid.score(3, 4, kLeftEye) = 1.0f;
    grid.shortOffset(3, 4, kLeftEye) = 0.5f;                   // y, clamped to row 3
    grid.shortOffset(3, 4, kNumKeypoints + kLeftEye) = -1.25f; // x
    grid.score(2, 1, kRightEye) = 4.0f;                        // a plateau of two equal cells
    grid.score(2, 2, kRightEye) = 4.0f;
    grid.score(1, 3, kLeftEar) = -0.5f; // below the threshold

    DecreasingScoreKeypointPriorityQueue queue;
    BuildKeypointWithScoreQueue(grid.scores.data(), grid.shortOffsets.data(), 4, 5, kNumKeypoints,
                                0.0f, 1, &queue);
    const std::vector<KeypointWithScore> items = drain(queue);
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(items[0].id, kRightEye);
    EXPECT_EQ(items[1].id, kRightEye);
    EXPECT_EQ(items[2].id, kNose);
    EXPECT_FLOAT_EQ(items[2].point.y, 0.0f);
    EXPECT_FLOAT_EQ(items[2].point.x, 0.0f);
    EXPECT_FLOAT_EQ(items[2].score, 3.0f);
    EXPECT_EQ(items[3].id, kLeftEye);
    EXPECT_FLOAT_EQ(items[3].point.y, 3.0f);
    EXPECT_FLOAT_EQ(items[3].point.x, 2.75f);
    EXPECT_FLOAT_EQ(items[3].score, 1.0f); // the raw cell score, not resampled
}

TEST(PosenetDecoder, KeypointSuppressionIncludesTheRadius) {
    PoseKeypoints accepted{};
    accepted.keypoint[kLeftWrist] = Point{4.0f, 4.0f};
    EXPECT_FALSE(
        PassKeypointNMS(&accepted, 1, KeypointWithScore({4.0f, 6.0f}, kLeftWrist, 1.0f), 4.0f));
    EXPECT_TRUE(
        PassKeypointNMS(&accepted, 1, KeypointWithScore({4.0f, 6.1f}, kLeftWrist, 1.0f), 4.0f));
    // Only the same keypoint type competes, and only among accepted poses.
    EXPECT_TRUE(PassKeypointNMS(&accepted, 1, KeypointWithScore({4.0f, 4.0f}, kNose, 1.0f), 4.0f));
    EXPECT_TRUE(
        PassKeypointNMS(&accepted, 0, KeypointWithScore({4.0f, 4.0f}, kLeftWrist, 1.0f), 4.0f));
}

TEST(PosenetDecoder, DisplacementFollowsMidThenShortOffsetsWithinTheGrid) {
    PoseGrid grid(6, 6);
    const int edge = 5; // kLeftShoulder -> kLeftElbow
    grid.midOffset(1, 1, edge) = 2.0f;
    grid.midOffset(1, 1, kNumEdges + edge) = 1.0f;
    grid.shortOffset(3, 2, kLeftElbow) = 0.25f;
    grid.shortOffset(3, 2, kNumKeypoints + kLeftElbow) = -0.5f;
    // One refinement step moves to (3.25, 1.5); the next samples there: rows 3 and 4, columns
    // 1 and 2, of which only (3, 2) holds an offset, weighted (1 - 0.25) * 0.5.
    Point p =
        FindDisplacedPosition(grid.shortOffsets.data(), grid.midOffsets.data(), 6, 6, kNumKeypoints,
                              kNumEdges, Point{1.0f, 1.0f}, edge, kLeftElbow, 1);
    EXPECT_FLOAT_EQ(p.y, 3.25f);
    EXPECT_FLOAT_EQ(p.x, 1.5f);
    p = FindDisplacedPosition(grid.shortOffsets.data(), grid.midOffsets.data(), 6, 6, kNumKeypoints,
                              kNumEdges, Point{1.0f, 1.0f}, edge, kLeftElbow, 2);
    EXPECT_FLOAT_EQ(p.y, 3.25f + 0.25f * 0.375f);
    EXPECT_FLOAT_EQ(p.x, 1.5f - 0.5f * 0.375f);

    // An offset that points out of the grid ends on its edge.
    grid.midOffset(1, 1, edge) = -9.0f;
    grid.midOffset(1, 1, kNumEdges + edge) = 40.0f;
    p = FindDisplacedPosition(grid.shortOffsets.data(), grid.midOffsets.data(), 6, 6, kNumKeypoints,
                              kNumEdges, Point{1.0f, 1.0f}, edge, kLeftElbow, 0);
    EXPECT_FLOAT_EQ(p.y, 0.0f);
    EXPECT_FLOAT_EQ(p.x, 5.0f);
}

TEST(PosenetDecoder, BacktrackingReachesEveryKeypointAlongForwardAndBackwardEdges) {
    PoseGrid grid(12, 12);
    const auto cells = person(2, 3);
    grid.addPose(cells, 2.0f);
    grid.score(cells[kLeftKnee].y, cells[kLeftKnee].x, kLeftKnee) = 6.0f;
    const AdjacencyList adjacency = BuildAdjacencyList();
    // Root at the left knee: the rest is reached through backward edges towards the nose.
    const KeypointWithScore root(Point{7.0f, 4.0f}, kLeftKnee, 0.0f);
    Point keypoints[kNumKeypoints];
    float scores[kNumKeypoints];
    BacktrackDecodePose(grid.scores.data(), grid.shortOffsets.data(), grid.midOffsets.data(), 12,
                        12, kNumKeypoints, kNumEdges, root, adjacency, 5, keypoints, scores);
    for (int k = 0; k < kNumKeypoints; ++k) {
        EXPECT_FLOAT_EQ(keypoints[k].y, static_cast<float>(cells[k].y)) << k;
        EXPECT_FLOAT_EQ(keypoints[k].x, static_cast<float>(cells[k].x)) << k;
        // Scores stay logits; the root's is resampled at its position.
        EXPECT_FLOAT_EQ(scores[k], k == kLeftKnee ? 6.0f : 2.0f) << k;
    }
}

TEST(PosenetDecoder, SoftSuppressionScoresCoveredKeypointsAsZero) {
    PoseKeypoints poses[3];
    PoseKeypointScores scores[3];
    for (int p = 0; p < 3; ++p) {
        for (int k = 0; k < kNumKeypoints; ++k) {
            poses[p].keypoint[k] = Point{static_cast<float>(k), static_cast<float>(10 * p)};
            scores[p].keypoint[k] = 0.5f;
        }
    }
    // Pose 2 lies on pose 0 except for its last four keypoints.
    for (int k = 0; k < kNumKeypoints; ++k) {
        poses[2].keypoint[k].x = k < 13 ? 1.0f : 50.0f;
    }
    std::vector<float> instanceScores;
    PerformSoftKeypointNMS({0, 2, 1}, poses, scores, kNumKeypoints, 4.0f, 17, &instanceScores);
    ASSERT_EQ(instanceScores.size(), 3u);
    EXPECT_FLOAT_EQ(instanceScores[0], 0.5f);
    EXPECT_FLOAT_EQ(instanceScores[1], 0.5f);
    EXPECT_FLOAT_EQ(instanceScores[2], 4 * 0.5f / 17);

    std::vector<bool> mask(kNumKeypoints, false);
    FindOverlappingKeypoints(poses[0], poses[2], 1.0f, &mask);
    EXPECT_TRUE(mask[0]);
    EXPECT_FALSE(mask[16]);
}

TEST(PosenetDecoder, DecodesSeparatePosesInFallingOrderOfScore) {
    PoseGrid grid(23, 31);
    const auto weak = person(1, 2);
    const auto strong = person(10, 20);
    grid.addPose(weak, 1.0f);
    grid.addPose(strong, 3.0f);
    std::vector<PoseKeypoints> poses;
    std::vector<PoseKeypointScores> keypointScores;
    std::vector<float> poseScores;
    ASSERT_EQ(grid.decode(20, 0.01f, poses, keypointScores, poseScores), 2);
    EXPECT_NEAR(poseScores[0], Sigmoid(3.0f), 1e-6f);
    EXPECT_NEAR(poseScores[1], Sigmoid(1.0f), 1e-6f);
    for (int k = 0; k < kNumKeypoints; ++k) {
        EXPECT_FLOAT_EQ(poses[0].keypoint[k].y, 16.0f * strong[k].y) << k;
        EXPECT_FLOAT_EQ(poses[0].keypoint[k].x, 16.0f * strong[k].x) << k;
        EXPECT_FLOAT_EQ(poses[1].keypoint[k].y, 16.0f * weak[k].y) << k;
        EXPECT_FLOAT_EQ(poses[1].keypoint[k].x, 16.0f * weak[k].x) << k;
        EXPECT_FLOAT_EQ(keypointScores[0].keypoint[k], Sigmoid(3.0f));
    }
    EXPECT_EQ(poseScores[2], -7.0f); // untouched past the count

    // The threshold cuts the weaker pose, and with it every later one.
    EXPECT_EQ(grid.decode(20, 0.8f, poses, keypointScores, poseScores), 1);
    // The count is capped.
    EXPECT_EQ(grid.decode(1, 0.01f, poses, keypointScores, poseScores), 1);
    EXPECT_NEAR(poseScores[0], Sigmoid(3.0f), 1e-6f);
    EXPECT_EQ(grid.decode(0, 0.01f, poses, keypointScores, poseScores), 0);
}

TEST(PosenetDecoder, AnEmptyGridWritesNothing) {
    PoseGrid grid(5, 5);
    std::vector<PoseKeypoints> poses;
    std::vector<PoseKeypointScores> keypointScores;
    std::vector<float> poseScores;
    EXPECT_EQ(grid.decode(20, 0.01f, poses, keypointScores, poseScores), 0);
    EXPECT_EQ(poseScores[0], -7.0f);
}

TEST(PosenetDecoder, APoseOnTopOfAnotherIsSoftSuppressed) {
    // A lone right-ankle peak whose backward offset leads to the first pose's right knee: its
    // pose is the first one but for the ankle, so it passes the root test and then keeps only
    // its ankle in the soft score.
    PoseGrid grid(23, 31);
    const auto first = person(5, 5);
    grid.addPose(first, 3.0f);
    grid.score(20, 25, kRightAnkle) = 2.5f;
    const int backwardEdge = 31; // kRightAnkle -> kRightKnee
    grid.midOffset(20, 25, backwardEdge + kNumEdges) = static_cast<float>(first[kRightKnee].y - 20);
    grid.midOffset(20, 25, backwardEdge + 2 * kNumEdges) =
        static_cast<float>(first[kRightKnee].x - 25);
    std::vector<PoseKeypoints> poses;
    std::vector<PoseKeypointScores> keypointScores;
    std::vector<float> poseScores;
    ASSERT_EQ(grid.decode(20, 0.01f, poses, keypointScores, poseScores), 2);
    EXPECT_NEAR(poseScores[0], Sigmoid(3.0f), 1e-5f);
    EXPECT_NEAR(poseScores[1], Sigmoid(2.5f) / 17, 1e-5f);
    EXPECT_FLOAT_EQ(poses[1].keypoint[kRightAnkle].y, 16.0f * 20);
    EXPECT_FLOAT_EQ(poses[1].keypoint[kNose].x, 16.0f * first[kNose].x);
    // Above its soft score, the threshold ends the output before it.
    EXPECT_EQ(grid.decode(20, 0.1f, poses, keypointScores, poseScores), 1);
}

TEST(PosenetDecoder, NonFiniteTensorsGiveNoUndefinedBehaviour) {
    PoseGrid grid(8, 7);
    grid.addPose(person(0, 1), 4.0f);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    for (std::size_t i = 0; i < grid.midOffsets.size(); i += 3) {
        grid.midOffsets[i] = (i % 2 == 0) ? nan : -inf;
    }
    for (std::size_t i = 0; i < grid.shortOffsets.size(); i += 5) {
        grid.shortOffsets[i] = inf;
    }
    grid.scores[3] = nan;
    std::vector<PoseKeypoints> poses;
    std::vector<PoseKeypointScores> keypointScores;
    std::vector<float> poseScores;
    const int count = grid.decode(20, 0.01f, poses, keypointScores, poseScores);
    EXPECT_GE(count, 0);
    EXPECT_LE(count, 20);
}

} // namespace
