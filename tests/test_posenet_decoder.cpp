// The PoseNet decoder: its small functions, the candidate queue, interpolation, displacement,
// backtracking along the edge list, and whole decodes of synthetic grids whose poses are known
// exactly, soft keypoint suppression among them.
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

// What DecodeAllPoses wrote; poseScores is -7 where it wrote nothing.
struct Decoded {
    int count;
    std::vector<PoseKeypoints> poses;
    std::vector<PoseKeypointScores> keypointScores;
    std::vector<float> poseScores;
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

    Decoded decode(int maxDetections, float threshold) const {
        Decoded d;
        const auto size = static_cast<std::size_t>(std::max(maxDetections, 1));
        d.poses.assign(size, PoseKeypoints{});
        d.keypointScores.assign(size, PoseKeypointScores{});
        d.poseScores.assign(size, -7.0f);
        d.count = DecodeAllPoses(scores.data(), shortOffsets.data(), midOffsets.data(), height,
                                 width, maxDetections, threshold, 5, 2.0f, 16, d.poses.data(),
                                 d.keypointScores.data(), d.poseScores.data());
        return d;
    }
};

// A standing person whose nose is at (top, left + 2), six rows tall and four columns wide.
std::array<Cell, kNumKeypoints> person(int top, int left) {
    const int rows[kNumKeypoints] = {0, 0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 4, 4, 5, 5, 6, 6};
    const int columns[kNumKeypoints] = {2, 1, 3, 0, 4, 0, 4, 0, 4, 0, 4, 1, 3, 1, 3, 1, 3};
    std::array<Cell, kNumKeypoints> cells;
    for (int k = 0; k < kNumKeypoints; ++k) {
        cells[k] = Cell{top + rows[k], left + columns[k]};
    }
    return cells;
}

TEST(PosenetDecoder, SmallFunctionsAndRootSuppression) {
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

    // Root suppression includes the radius.
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

// The bilinear sampling built on it is checked through FindDisplacedPosition below.
TEST(PosenetDecoder, InterpolationWeightsAreTakenFromTheUnclampedPosition) {
    // Outside the grid the corners are clamped but the weight is not.
    const struct {
        float x;
        int floor;
        int ceil;
        float lerp;
    } linear[] = {{2.25f, 2, 3, 0.25f}, {-1.0f, 0, 0, -1.0f}, {7.0f, 4, 4, 3.0f}};
    for (const auto& c : linear) {
        int lo = -1;
        int hi = -1;
        float lerp = 0.0f;
        BuildLinearInterpolation(c.x, 5, &lo, &hi, &lerp);
        EXPECT_EQ(lo, c.floor) << c.x;
        EXPECT_EQ(hi, c.ceil) << c.x;
        EXPECT_FLOAT_EQ(lerp, c.lerp) << c.x;
    }
    int lo = -1;
    int hi = -1;
    float lerp = 0.0f;
    BuildLinearInterpolation(std::numeric_limits<float>::quiet_NaN(), 5, &lo, &hi, &lerp);
    EXPECT_EQ(lo, 0);
    EXPECT_EQ(hi, 0);
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
    std::vector<KeypointWithScore> items;
    for (; !queue.empty(); queue.pop()) {
        items.push_back(queue.top());
    }
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

TEST(PosenetDecoder, DecodesSeparatePosesInFallingOrderOfScore) {
    PoseGrid grid(23, 31);
    const auto weak = person(1, 2);
    const auto strong = person(10, 20);
    grid.addPose(weak, 1.0f);
    grid.addPose(strong, 3.0f);
    const Decoded d = grid.decode(20, 0.01f);
    ASSERT_EQ(d.count, 2);
    EXPECT_NEAR(d.poseScores[0], Sigmoid(3.0f), 1e-6f);
    EXPECT_NEAR(d.poseScores[1], Sigmoid(1.0f), 1e-6f);
    for (int k = 0; k < kNumKeypoints; ++k) {
        EXPECT_FLOAT_EQ(d.poses[0].keypoint[k].y, 16.0f * strong[k].y) << k;
        EXPECT_FLOAT_EQ(d.poses[0].keypoint[k].x, 16.0f * strong[k].x) << k;
        EXPECT_FLOAT_EQ(d.poses[1].keypoint[k].y, 16.0f * weak[k].y) << k;
        EXPECT_FLOAT_EQ(d.poses[1].keypoint[k].x, 16.0f * weak[k].x) << k;
        EXPECT_FLOAT_EQ(d.keypointScores[0].keypoint[k], Sigmoid(3.0f));
    }
    EXPECT_EQ(d.poseScores[2], -7.0f); // untouched past the count

    // The threshold cuts the weaker pose, and with it every later one.
    EXPECT_EQ(grid.decode(20, 0.8f).count, 1);
    // The count is capped.
    const Decoded one = grid.decode(1, 0.01f);
    EXPECT_EQ(one.count, 1);
    EXPECT_NEAR(one.poseScores[0], Sigmoid(3.0f), 1e-6f);
    EXPECT_EQ(grid.decode(0, 0.01f).count, 0);
    // An empty grid writes nothing.
    const Decoded none = PoseGrid(5, 5).decode(20, 0.01f);
    EXPECT_EQ(none.count, 0);
    EXPECT_EQ(none.poseScores[0], -7.0f);
}

TEST(PosenetDecoder, APoseOnTopOfAnotherIsSoftSuppressed) {
    // A lone right-ankle peak whose backward offset leads to the first pose's right knee: its
    // pose is the first one but for the ankle, so it passes the root test and then keeps only
    // its ankle in the soft score, over all 17.
    PoseGrid grid(23, 31);
    const auto first = person(5, 5);
    grid.addPose(first, 3.0f);
    grid.score(20, 25, kRightAnkle) = 2.5f;
    const int backwardEdge = 31; // kRightAnkle -> kRightKnee
    grid.midOffset(20, 25, backwardEdge + kNumEdges) = static_cast<float>(first[kRightKnee].y - 20);
    grid.midOffset(20, 25, backwardEdge + 2 * kNumEdges) =
        static_cast<float>(first[kRightKnee].x - 25);
    const Decoded d = grid.decode(20, 0.01f);
    ASSERT_EQ(d.count, 2);
    EXPECT_NEAR(d.poseScores[0], Sigmoid(3.0f), 1e-5f);
    EXPECT_NEAR(d.poseScores[1], Sigmoid(2.5f) / 17, 1e-5f);
    EXPECT_FLOAT_EQ(d.poses[1].keypoint[kRightAnkle].y, 16.0f * 20);
    EXPECT_FLOAT_EQ(d.poses[1].keypoint[kNose].x, 16.0f * first[kNose].x);
    // Above its soft score, the threshold ends the output before it.
    EXPECT_EQ(grid.decode(20, 0.1f).count, 1);
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
    const int count = grid.decode(20, 0.01f).count;
    EXPECT_GE(count, 0);
    EXPECT_LE(count, 20);
}

} // namespace
