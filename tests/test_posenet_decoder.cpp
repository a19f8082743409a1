// The PoseNet decoder: its arithmetic, the candidate queue, interpolation, displacement, and
// whole decodes of synthetic grids whose poses are known
// exactly, soft keypoint suppression among them.
#include "PosePicture.h"
#include "PosenetDecoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

using namespace Ombrel::PosenetDecoder;
using StemlibTest::gridPerson;
using StemlibTest::PersonCells;

namespace {

// What DecodeAllPoses wrote; poseScores is -7 where it wrote nothing.
struct Decoded {
    int count;
    std::vector<PoseKeypoints> poses;
    std::vector<float> poseScores;
};

// Float tensors of a grid: background logits, zero offsets, and people painted in so that every
// hop of the pose tree lands exactly on its keypoint's cell.
struct PoseGrid {
    int height;
    int width;
    std::vector<float> scores;
    std::vector<float> shortOffsets;
    std::vector<float> midOffsets;

    PoseGrid(int height_, int width_)
        : height(height_), width(width_),
          scores(static_cast<std::size_t>(height_ * width_ * kNumKeypoints), -10.0f),
          shortOffsets(static_cast<std::size_t>(height_ * width_ * 2 * kNumKeypoints), 0.0f),
          midOffsets(static_cast<std::size_t>(height_ * width_ * 4 * kNumEdges), 0.0f) {}

    float& score(int y, int x, int k) { return scores[(y * width + x) * kNumKeypoints + k]; }
    float& shortOffset(int y, int x, int channel) {
        return shortOffsets[(y * width + x) * 2 * kNumKeypoints + channel];
    }
    float& midOffset(int y, int x, int channel) {
        return midOffsets[(y * width + x) * 4 * kNumEdges + channel];
    }

    void addPose(const PersonCells& cells, float logit) {
        for (int k = 0; k < kNumKeypoints; ++k) {
            score(cells[k].y, cells[k].x, k) = logit;
        }
        for (int e = 0; e < static_cast<int>(kEdgeList.size()); ++e) {
            const auto parent = cells[kEdgeList[e].first];
            const auto child = cells[kEdgeList[e].second];
            const int channel = e < kNumEdges ? e : e + kNumEdges;
            midOffset(parent.y, parent.x, channel) = static_cast<float>(child.y - parent.y);
            midOffset(parent.y, parent.x, channel + kNumEdges) =
                static_cast<float>(child.x - parent.x);
        }
    }

    Decoded decode(int maxDetections, float threshold) const {
        const auto size = static_cast<std::size_t>(std::max(maxDetections, 1));
        Decoded d{0, std::vector<PoseKeypoints>(size), std::vector<float>(size, -7.0f)};
        std::vector<PoseKeypointScores> keypointScores(size);
        d.count = DecodeAllPoses(scores.data(), shortOffsets.data(), midOffsets.data(), height,
                                 width, maxDetections, threshold, 5, 2.0f, 16, d.poses.data(),
                                 keypointScores.data(), d.poseScores.data());
        return d;
    }
};

// Each keypoint of the pose at 16 times its cell.
void expectPoseAt(const PoseKeypoints& pose, const PersonCells& cells) {
    for (int k = 0; k < kNumKeypoints; ++k) {
        EXPECT_FLOAT_EQ(pose.keypoint[k].y, 16.0f * cells[k].y) << k;
        EXPECT_FLOAT_EQ(pose.keypoint[k].x, 16.0f * cells[k].x) << k;
    }
}

TEST(PosenetDecoder, ArithmeticAndRootSuppression) {
    // Computed in double: -log(1 / (0.01 + 1e-6) - 1).
    EXPECT_FLOAT_EQ(Logodds(0.01f), static_cast<float>(-std::log(1.0 / (0.01f + 1e-6) - 1.0)));
    EXPECT_NEAR(Sigmoid(Logodds(0.3f)), 0.3f, 1e-5f);
    std::vector<int> indices;
    const float withNaN[] = {0.2f, std::numeric_limits<float>::quiet_NaN(), 1.0f, -3.0f};
    DecreasingArgSort(withNaN, 4, &indices);
    EXPECT_EQ(indices, (std::vector<int>{2, 0, 3, 1}));

    // Root suppression includes the radius, and only the same keypoint type of accepted poses
    // competes.
    PoseKeypoints accepted{};
    accepted.keypoint[kLeftWrist] = Point{4.0f, 4.0f};
    const auto passes = [&accepted](std::size_t n, float x, int id) {
        return PassKeypointNMS(&accepted, n, KeypointWithScore({4.0f, x}, id, 1.0f), 4.0f);
    };
    EXPECT_FALSE(passes(1, 6.0f, kLeftWrist));
    EXPECT_TRUE(passes(1, 6.1f, kLeftWrist));
    EXPECT_TRUE(passes(1, 4.0f, kNose));
    EXPECT_TRUE(passes(0, 4.0f, kLeftWrist));

    // Outside the grid the corners are clamped but the interpolation weight is not.
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
    const auto displaced = [&grid, edge](int steps) {
        return FindDisplacedPosition(grid.shortOffsets.data(), grid.midOffsets.data(), 6, 6,
                                     kNumKeypoints, kNumEdges, Point{1.0f, 1.0f}, edge, kLeftElbow,
                                     steps);
    };
    // One refinement step moves to (3.25, 1.5); the next samples there: rows 3 and 4, columns
    // 1 and 2, of which only (3, 2) holds an offset, weighted (1 - 0.25) * 0.5.
    Point p = displaced(1);
    EXPECT_FLOAT_EQ(p.y, 3.25f);
    EXPECT_FLOAT_EQ(p.x, 1.5f);
    p = displaced(2);
    EXPECT_FLOAT_EQ(p.y, 3.25f + 0.25f * 0.375f);
    EXPECT_FLOAT_EQ(p.x, 1.5f - 0.5f * 0.375f);

    // An offset that points out of the grid ends on its edge.
    grid.midOffset(1, 1, edge) = -9.0f;
    grid.midOffset(1, 1, kNumEdges + edge) = 40.0f;
    p = displaced(0);
    EXPECT_FLOAT_EQ(p.y, 0.0f);
    EXPECT_FLOAT_EQ(p.x, 5.0f);
}

// Two people, and a lone right-ankle peak whose backward offset leads to the strong person's
// right knee: its pose, backtracked along backward edges, is the strong one but for the ankle,
// so it passes the root test and then keeps only its ankle (its logit resampled at the root)
// in the soft score, over all 17.
TEST(PosenetDecoder, DecodesPosesInFallingOrderOfTheirSoftScores) {
    PoseGrid grid(23, 31);
    const PersonCells weak = gridPerson(1, 2, 1);
    const PersonCells strong = gridPerson(10, 20, 2);
    grid.addPose(weak, 1.0f);
    grid.addPose(strong, 3.0f);
    grid.score(21, 8, kRightAnkle) = 2.5f;
    const int backwardEdge = 31; // kRightAnkle -> kRightKnee
    grid.midOffset(21, 8, backwardEdge + kNumEdges) = static_cast<float>(strong[kRightKnee].y - 21);
    grid.midOffset(21, 8, backwardEdge + 2 * kNumEdges) =
        static_cast<float>(strong[kRightKnee].x - 8);
    const Decoded d = grid.decode(20, 0.01f);
    ASSERT_EQ(d.count, 3);
    EXPECT_NEAR(d.poseScores[0], Sigmoid(3.0f), 1e-6f);
    EXPECT_NEAR(d.poseScores[1], Sigmoid(1.0f), 1e-6f);
    EXPECT_NEAR(d.poseScores[2], Sigmoid(2.5f) / 17, 1e-6f);
    expectPoseAt(d.poses[0], strong);
    expectPoseAt(d.poses[1], weak);
    PersonCells ankle = strong;
    ankle[kRightAnkle] = {21, 8};
    expectPoseAt(d.poses[2], ankle);
    EXPECT_EQ(d.poseScores[3], -7.0f); // untouched past the count

    // The threshold cuts a pose, and with it every later one; the count is capped.
    EXPECT_EQ(grid.decode(20, 0.1f).count, 2);
    EXPECT_EQ(grid.decode(20, 0.8f).count, 1);
    const Decoded one = grid.decode(1, 0.01f);
    EXPECT_EQ(one.count, 1);
    EXPECT_NEAR(one.poseScores[0], Sigmoid(3.0f), 1e-6f);
    EXPECT_EQ(grid.decode(0, 0.01f).count, 0);
    // An empty grid writes nothing.
    EXPECT_EQ(PoseGrid(5, 5).decode(20, 0.01f).poseScores[0], -7.0f);
}

TEST(PosenetDecoder, NonFiniteTensorsGiveNoUndefinedBehaviour) {
    PoseGrid grid(8, 7);
    grid.addPose(gridPerson(0, 1, 1), 4.0f);
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
