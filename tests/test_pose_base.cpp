#include "AllocationCounter.h"
#include "ImageTestUtils.h"
#include "PoseBase.h"

#include <gtest/gtest.h>

#include <optional>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

using P = BodypixBodyPart;
using EdgePairs = std::vector<std::pair<P, P>>;
using Measure = bool (Skeleton<P>::*)(FPoint&, float) const;

Keypoint kp(P part, int x, int y, float score = 0.9f) {
    return Keypoint(IPoint(x, y), part, score);
}

// A person standing upright and facing the camera: the left side lies right in the picture.
Keypoints standingPerson() {
    Keypoints keypoints;
    const std::vector<std::tuple<P, int, int>> joints = {
        {P::Nose, 50, 10},          {P::LeftEye, 53, 8},     {P::RightEye, 47, 8},
        {P::LeftEar, 56, 10},       {P::RightEar, 44, 10},   {P::LeftShoulder, 60, 30},
        {P::RightShoulder, 40, 30}, {P::LeftElbow, 62, 50},  {P::RightElbow, 38, 50},
        {P::LeftWrist, 63, 70},     {P::RightWrist, 37, 70}, {P::LeftHip, 57, 70},
        {P::RightHip, 43, 70},      {P::LeftKnee, 57, 100},  {P::RightKnee, 43, 100},
        {P::LeftAnkle, 57, 130},    {P::RightAnkle, 43, 130}};
    for (const auto& [part, x, y] : joints) {
        keypoints.add(kp(part, x, y));
    }
    return keypoints;
}

Skeleton<P> withJoints(std::initializer_list<Keypoint> joints) {
    Keypoints keypoints;
    for (const Keypoint& joint : joints) {
        keypoints.add(joint);
    }
    return Skeleton<P>(keypoints);
}

EdgePairs edgePairs(const Skeleton<P>& skeleton) {
    EdgePairs pairs;
    for (const Edge<P>& edge : skeleton) {
        pairs.emplace_back(edge.keypoint0.bodyPart, edge.keypoint1.bodyPart);
    }
    return pairs;
}

// The edge table as "bodyPart0-bodyPart1 " for each row.
template <typename BodyPart>
std::string names(const std::vector<SkeletonEdgeSpec<BodyPart>>& specs) {
    std::string text;
    for (const SkeletonEdgeSpec<BodyPart>& spec : specs) {
        text += toString(spec.bodyPart0) + "-" + toString(spec.bodyPart1) + " ";
    }
    return text;
}

// The point that a measure gives at the threshold 0.5, or nothing when it answers false; it
// must then leave the point untouched.
std::optional<FPoint> at(const Skeleton<P>& skeleton, Measure measure) {
    FPoint point(-1.0f, -1.0f);
    if ((skeleton.*measure)(point, 0.5f)) {
        return point;
    }
    EXPECT_EQ(point, FPoint(-1.0f, -1.0f));
    return std::nullopt;
}

} // namespace

TEST(Keypoints, HoldOnePerPartAndAnswerMissingPartsWithTheEmptyKeypoint) {
    Keypoints keypoints;
    keypoints.add(kp(P::RightHip, 5, 6, 0.5f));
    keypoints.add(kp(P::Nose, 1, 2, 0.7f));
    keypoints.add(kp(P::RightHip, 7, 8, 0.6f)); // replaces
    EXPECT_EQ(keypoints.size(), 2u);
    EXPECT_TRUE(keypoints.contains(P::RightHip));
    EXPECT_FALSE(keypoints.contains(P::LeftHip));
    EXPECT_EQ(keypoints.get(P::RightHip).point, IPoint(7, 8));
    std::vector<P> order; // iteration runs over keypoints in part order
    for (const Keypoint& keypoint : keypoints) {
        order.push_back(keypoint.bodyPart);
    }
    EXPECT_EQ(order, std::vector<P>({P::Nose, P::RightHip}));

    const Keypoint& missing = static_cast<const Keypoints&>(keypoints).get(P::LeftAnkle);
    EXPECT_EQ(missing.score, 0.0f);
    EXPECT_EQ(missing.bodyPart, P::Nose);
    EXPECT_EQ(missing.point, IPoint(0, 0));
    // Writing through the mutable form of a missing part changes nothing held or shared.
    keypoints.get(P::LeftAnkle).score = 0.99f;
    EXPECT_FALSE(keypoints.contains(P::LeftAnkle));
    EXPECT_EQ(Keypoints::emptyKeypoint().score, 0.0f);

    Keypoint out = kp(P::LeftEar, 9, 9, 0.1f);
    EXPECT_FALSE(keypoints.getKeypoint(P::Nose, 0.7f, out)); // equal score is not enough
    EXPECT_EQ(out.bodyPart, P::LeftEar);
    EXPECT_TRUE(keypoints.getKeypoint(P::Nose, 0.69f, out));
    EXPECT_EQ(out.point, IPoint(1, 2));

    EXPECT_EQ(keypoints.getMidpoint(P::Nose, P::RightHip), FPoint(4.0f, 5.0f));
    EXPECT_FLOAT_EQ(kp(P::Nose, 0, 0).distance(kp(P::Nose, 3, 4)), 5.0f);
    EXPECT_EQ(kp(P::LeftEye, 12, 34, 0.75f).toString(), "LeftEye (12, 34) 0.75");
}

TEST(Skeleton, EdgesFollowTheTableAndNeedBothScoresAboveOneTenth) {
    const std::string table =
        "Nose-LeftEye Nose-RightEye Nose-LeftEar Nose-RightEar LeftEar-LeftEye RightEar-RightEye "
        "LeftEye-RightEye LeftShoulder-RightShoulder LeftShoulder-LeftElbow LeftShoulder-LeftHip "
        "RightShoulder-RightElbow RightShoulder-RightHip LeftElbow-LeftWrist "
        "RightElbow-RightWrist LeftHip-RightHip LeftHip-LeftKnee RightHip-RightKnee "
        "LeftKnee-LeftAnkle RightKnee-RightAnkle ";
    EXPECT_EQ(names(getEdgeSpecs<P>()), table);
    // The headless table is the same from the shoulders on, in the headless enumeration.
    EXPECT_EQ(names(getEdgeSpecs<BodypixHeadlessBodyPart>()),
              table.substr(table.find("LeftShoulder")));
    std::string edges;
    for (const Edge<P>& edge : Skeleton<P>(standingPerson())) {
        edges += toString(edge.keypoint0.bodyPart) + "-" + toString(edge.keypoint1.bodyPart) + " ";
    }
    EXPECT_EQ(edges, table);

    const Skeleton<P> hips = withJoints(
        {kp(P::LeftHip, 0, 0, 0.1f), kp(P::RightHip, 5, 0, 0.2f), kp(P::RightKnee, 5, 9, 0.11f)});
    EXPECT_EQ(edgePairs(hips), (EdgePairs{{P::RightHip, P::RightKnee}}));

    const Skeleton<P> empty;
    EXPECT_EQ(empty.begin(), empty.end());
    EXPECT_TRUE(empty.getBoundingBox().isUndefined());
    EXPECT_EQ(empty.getSkeletonSize(0.0f), 0.0f);
    EXPECT_EQ(at(empty, &Skeleton<P>::getSkeletonCenter), std::nullopt);
}

TEST(Skeleton, MeasuresFollowTheFallbackRules) {
    // useKeypoint: the midpoint keeps a half pixel; one side alone gives that side.
    FPoint point;
    const Skeleton<P> pair = withJoints({kp(P::LeftEye, 3, 4), kp(P::RightEye, 4, 4)});
    EXPECT_TRUE(pair.useKeypoint(P::LeftEye, P::RightEye, 0.5f, point));
    EXPECT_EQ(point, FPoint(3.5f, 4.0f));
    const Skeleton<P> one = withJoints({kp(P::LeftEye, 3, 4, 0.2f), kp(P::RightEye, 8, 6)});
    EXPECT_TRUE(one.useKeypoint(P::LeftEye, P::RightEye, 0.5f, point));
    EXPECT_EQ(point, FPoint(8.0f, 6.0f));
    EXPECT_FALSE(one.useKeypoint(P::LeftEar, P::RightEar, 0.5f, point));
    EXPECT_EQ(point, FPoint(8.0f, 6.0f));

    // The ankles come first: a left knee does not count when a right ankle is seen.
    const Skeleton<P> legs = withJoints(
        {kp(P::LeftKnee, 10, 80), kp(P::RightAnkle, 30, 120), kp(P::LeftShoulder, 30, 20)});
    EXPECT_EQ(at(legs, &Skeleton<P>::getInferior), FPoint(30.0f, 120.0f));
    EXPECT_FLOAT_EQ(legs.getSkeletonSize(0.5f), 100.0f);
    EXPECT_EQ(at(withJoints({kp(P::RightKnee, 10, 80)}), &Skeleton<P>::getInferior),
              FPoint(10.0f, 80.0f));

    // The centre needs both hips; the hip median takes one.
    const Skeleton<P> oneHip = withJoints({kp(P::LeftHip, 10, 50)});
    EXPECT_EQ(at(oneHip, &Skeleton<P>::getSkeletonCenter), std::nullopt);
    EXPECT_EQ(at(oneHip, &Skeleton<P>::getHipMedian), FPoint(10.0f, 50.0f));

    // The box takes every keypoint, even one scored 0.01.
    const Skeleton<P> faint = withJoints({kp(P::Nose, 10, 10), kp(P::LeftAnkle, 40, 90, 0.01f)});
    EXPECT_EQ(faint.getBoundingBox(), IBoundingBox(10, 10, 30, 80));

    const Skeleton<P> person(standingPerson());
    EXPECT_EQ(at(person, &Skeleton<P>::getSkeletonCenter), FPoint(50.0f, 70.0f));
    EXPECT_EQ(at(person, &Skeleton<P>::getHeadlessSuperior), FPoint(50.0f, 30.0f));
    EXPECT_FLOAT_EQ(person.getSkeletonSize(0.5f), 100.0f);
}

TEST(Skeleton, ScoreThresholdsAndLineAngles) {
    const std::vector<std::pair<P, float>> thresholds = {
        {P::LeftElbow, 0.2f},  {P::RightElbow, 0.2f}, {P::LeftWrist, 0.3f},
        {P::RightWrist, 0.3f}, {P::Nose, 0.4f},       {P::LeftEye, 0.1f}};
    for (const auto& [part, threshold] : thresholds) {
        EXPECT_EQ(getScoreThreshold(part, 0.1f, 0.2f, 0.3f, 0.4f), threshold);
    }

    // Parallel lines give 0 whichever point comes first; 89.9 degrees truncates to 89.
    const FPoint o(0, 0);
    EXPECT_EQ(getTopLineBottomLineAngle(o, FPoint(10, 5), FPoint(20, 15), FPoint(0, 5)), 0);
    EXPECT_EQ(getTopLineBottomLineAngle(o, FPoint(10, 0), FPoint(3, 0), FPoint(3, 9)), 90);
    EXPECT_EQ(getTopLineBottomLineAngle(o, FPoint(10, 0), o, FPoint(1.7453f, 1000.0f)), 89);
    EXPECT_EQ(getTopLineBottomLineAngle(o, FPoint(10, 10), o, FPoint(10, -10)), 90);

    int angle = -1;
    EXPECT_TRUE(Skeleton<P>(standingPerson()).getShoulderHipAngle(0.5f, angle));
    EXPECT_EQ(angle, 0);
    Skeleton<P> bent(standingPerson());
    bent.setKeypoint(kp(P::LeftHip, 57, 90));
    EXPECT_TRUE(bent.getShoulderHipAngle(0.5f, angle));
    EXPECT_EQ(angle, 55); // atan2(20, 14) = 55.0 degrees
    bent.setKeypoint(kp(P::RightHip, 43, 70, 0.3f));
    EXPECT_FALSE(bent.getShoulderHipAngle(0.5f, angle));
    EXPECT_EQ(angle, 55);
}

TEST(Skeleton, CompletenessPruningAndChangesKeepTheEdgesInStep) {
    EXPECT_TRUE(Skeleton<P>(standingPerson()).isComplete());
    Keypoints noEar = standingPerson();
    noEar.remove(P::LeftEar);
    EXPECT_FALSE(Skeleton<P>(noEar).isComplete());
    EXPECT_TRUE(Skeleton<P>(noEar).isCompleteHeadless());
    noEar.add(kp(P::LeftHip, 57, 70, 0.0f));
    EXPECT_FALSE(Skeleton<P>(noEar).isCompleteHeadless());

    // Prune with a threshold per part: elbows 0.5, wrists 0.6, nose 0.7, others 0.3.
    Keypoints scored = standingPerson();
    scored.add(kp(P::LeftElbow, 62, 50, 0.5f));   // not above 0.5: removed
    scored.add(kp(P::RightElbow, 38, 50, 0.55f)); // kept
    scored.add(kp(P::LeftWrist, 63, 70, 0.55f));  // below 0.6: removed
    scored.add(kp(P::Nose, 50, 10, 0.65f));       // below 0.7: removed
    scored.add(kp(P::LeftEye, 53, 8, 0.35f));     // kept
    Skeleton<P> pruned(scored);
    pruned.prune(0.3f, 0.5f, 0.6f, 0.7f);
    EXPECT_EQ(pruned.keypoints().size(), 14u);
    for (P removed : {P::LeftElbow, P::LeftWrist, P::Nose}) {
        EXPECT_FALSE(pruned.keypoints().contains(removed));
    }
    // Edges of removed joints are gone: 19 less 4 at the nose, 2 at the left elbow.
    EXPECT_EQ(edgePairs(pruned).size(), 13u);

    // setKeypoint stores under the given part and adds the edges the joint completes.
    Skeleton<P> arm = withJoints({kp(P::LeftShoulder, 0, 0)});
    arm.setKeypoint(P::LeftElbow, kp(P::Nose, 0, 20));
    EXPECT_FALSE(arm.keypoints().contains(P::Nose));
    EXPECT_EQ(edgePairs(arm), (EdgePairs{{P::LeftShoulder, P::LeftElbow}}));
    EXPECT_EQ(arm.toString(),
              "Skeleton: 2 keypoints, 1 edges: LeftShoulder (0, 0) 0.9; LeftElbow (0, 20) 0.9");
}

TEST(Skeleton, SuperiorExtremitiesAndNormalisation) {
    const Skeleton<P> person(standingPerson());
    FPoint point;
    EXPECT_TRUE(person.getSuperior(point, 0.5f, 0.5f));
    EXPECT_EQ(point, FPoint(50.0f, 10.0f)); // the nose
    EXPECT_TRUE(person.getSuperior(point, 0.5f, 0.95f));
    EXPECT_EQ(point, FPoint(50.0f, 8.0f)); // the eyes when the nose is too faint
    const Skeleton<P> shoulders =
        withJoints({kp(P::LeftShoulder, 60, 30), kp(P::RightShoulder, 40, 31)});
    EXPECT_TRUE(shoulders.getSuperior(point, 0.5f, 0.5f));
    EXPECT_EQ(point, FPoint(50.0f, 30.5f));
    EXPECT_TRUE(shoulders.hasHeadlessSuperior(0.5f));
    EXPECT_FALSE(shoulders.hasInferior(0.5f));
    EXPECT_FALSE(shoulders.hasExtremity(0.5f, 0.5f));
    EXPECT_TRUE(person.hasExtremity(0.95f, 0.5f)); // wrists
    EXPECT_TRUE(person.hasExtremity(0.5f, 0.95f)); // ankles
    EXPECT_FALSE(person.hasExtremity(0.95f, 0.95f));

    // Centred on the hips (50, 70) and divided by the size 100.
    FKeypoints normalized;
    ASSERT_TRUE(person.normalize(normalized, 0.5f));
    EXPECT_EQ(normalized.size(), 17u);
    EXPECT_EQ(normalized.get(P::LeftAnkle).point, FPoint(0.07f, 0.6f));
    EXPECT_EQ(normalized.get(P::Nose).point, FPoint(0.0f, -0.6f));
    EXPECT_EQ(normalized.get(P::Nose).score, 0.9f);
    EXPECT_FALSE(shoulders.normalize(normalized, 0.5f));
    EXPECT_EQ(normalized.size(), 17u);
}

TEST(Skeleton, ArmPositionsAttitudeAndUncrossing) {
    // Facing the camera: the left shoulder at x 60, the right at x 40.
    const auto armWith = [](IPoint leftHand, IPoint rightHand) {
        return withJoints({kp(P::LeftShoulder, 60, 30), kp(P::RightShoulder, 40, 30),
                           kp(P::LeftWrist, leftHand.x, leftHand.y),
                           kp(P::RightWrist, rightHand.x, rightHand.y)});
    };
    struct ArmCase {
        IPoint leftHand, rightHand;
        ArmPosition expected;
    };
    const std::vector<ArmCase> arms = {{IPoint(62, 70), IPoint(38, 70), ArmPosition::Down},
                                       {IPoint(100, 35), IPoint(0, 25), ArmPosition::Out},
                                       {IPoint(65, 0), IPoint(30, -5), ArmPosition::Up},
                                       {IPoint(30, 40), IPoint(70, 38), ArmPosition::In},
                                       {IPoint(80, 50), IPoint(20, 50), ArmPosition::Down}};
    for (const ArmCase& c : arms) { // the last at exactly 45 degrees
        const Skeleton<P> skeleton = armWith(c.leftHand, c.rightHand);
        EXPECT_EQ(skeleton.getLeftArmPosition(0.5f, 0.5f, 0.5f), c.expected);
        EXPECT_EQ(skeleton.getRightArmPosition(0.5f, 0.5f, 0.5f), c.expected);
    }
    // A faint wrist falls back to the elbow; no hand, or no second shoulder, gives Unknown.
    const Skeleton<P> elbowOnly =
        withJoints({kp(P::LeftShoulder, 60, 30), kp(P::RightShoulder, 40, 30),
                    kp(P::LeftWrist, 62, 70, 0.2f), kp(P::LeftElbow, 90, 28)});
    EXPECT_EQ(elbowOnly.getLeftArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::Out);
    EXPECT_EQ(elbowOnly.getLeftArmPosition(0.5f, 0.95f, 0.5f), ArmPosition::Unknown);
    EXPECT_EQ(withJoints({kp(P::LeftShoulder, 60, 30), kp(P::LeftWrist, 60, 60)})
                  .getLeftArmPosition(0.5f, 0.5f, 0.5f),
              ArmPosition::Unknown);

    // Attitude: frontal from the shoulder order, profile from the nose. The profile has its
    // shoulders 6 apart over a trunk of 40.
    EXPECT_EQ(Skeleton<P>(standingPerson()).getBodyAttitude(0.5f, 0.5f), BodyAttitude::Anterior);
    const Skeleton<P> back = withJoints({kp(P::LeftShoulder, 40, 30), kp(P::RightShoulder, 60, 30),
                                         kp(P::LeftHip, 43, 70), kp(P::RightHip, 57, 70)});
    EXPECT_EQ(back.getBodyAttitude(0.5f, 0.5f), BodyAttitude::Posterior);
    const Skeleton<P> profile =
        withJoints({kp(P::Nose, 38, 10), kp(P::LeftShoulder, 47, 30), kp(P::RightShoulder, 53, 30),
                    kp(P::LeftHip, 50, 70), kp(P::RightHip, 50, 70)});
    EXPECT_EQ(profile.getBodyAttitude(0.5f, 0.5f), BodyAttitude::StageRight);
    EXPECT_EQ(profile.getBodyAttitude(0.5f, 0.95f), BodyAttitude::Unknown);
    const Skeleton<P> oneShoulder = withJoints({kp(P::Nose, 70, 10), kp(P::RightShoulder, 53, 30)});
    EXPECT_EQ(oneShoulder.getBodyAttitude(0.5f, 0.5f), BodyAttitude::StageLeft);
    EXPECT_EQ(Skeleton<P>().getBodyAttitude(0.5f, 0.5f), BodyAttitude::Unknown);

    // Uncrossing: ankles in the opposite order to the shoulders exchange places and scores,
    // and the edges follow.
    Keypoints crossedLegs = standingPerson();
    crossedLegs.add(kp(P::LeftAnkle, 43, 130, 0.8f));
    crossedLegs.add(kp(P::RightAnkle, 57, 131, 0.7f));
    Skeleton<P> crossed(crossedLegs);
    EXPECT_TRUE(crossed.uncross(P::LeftAnkle, P::RightAnkle, 0.5f));
    const Keypoint& left = crossed.keypoints().get(P::LeftAnkle);
    EXPECT_EQ(left.toString(), "LeftAnkle (57, 131) 0.7");
    EXPECT_EQ(crossed.keypoints().get(P::RightAnkle).toString(), "RightAnkle (43, 130) 0.8");
    EXPECT_EQ((crossed.end() - 2)->keypoint1.point, left.point); // LeftKnee to LeftAnkle
    EXPECT_FALSE(crossed.uncross(P::LeftAnkle, P::RightAnkle, 0.5f));
    EXPECT_FALSE(crossed.uncross(P::LeftAnkle, P::RightAnkle, 0.75f));
}

TEST(Skeleton, HeadlessSkeletonsMeasureTheSameWay) {
    using H = BodypixHeadlessBodyPart;
    HeadlessKeypoints keypoints;
    keypoints.add(HeadlessKeypoint(IPoint(60, 30), H::LeftShoulder, 0.9f));
    keypoints.add(HeadlessKeypoint(IPoint(40, 30), H::RightShoulder, 0.9f));
    keypoints.add(HeadlessKeypoint(IPoint(50, 130), H::LeftAnkle, 0.9f));
    const Skeleton<H> skeleton(keypoints);
    EXPECT_EQ(skeleton.begin(), skeleton.end() - 1); // the shoulder line
    EXPECT_FLOAT_EQ(skeleton.getSkeletonSize(0.5f), 100.0f);
    FPoint point;
    EXPECT_TRUE(skeleton.getSuperior(point, 0.5f, 0.5f));
    EXPECT_EQ(point, FPoint(50.0f, 30.0f));
    EXPECT_FALSE(skeleton.isComplete());
    EXPECT_EQ(skeleton.getBodyAttitude(0.5f, 0.5f), BodyAttitude::Anterior);
}

TEST(Dequantizer, MapsBytesAroundTheZeroPointAndFillsArraysFromMappedFiles) {
    SyslogCapture capture;
    const Dequantizer dequantizer(128, 0.5f, 2.0f);
    EXPECT_EQ(dequantizer.getScale(), 1.0f);
    EXPECT_EQ(dequantizer(128), 0.0f);
    EXPECT_EQ(dequantizer(130), 2.0f);
    EXPECT_EQ(dequantizer(0), -128.0f);

    // Both array forms apply the operator to every byte in order; the mapped-file form
    // allocates nothing.
    const Dequantizer heatmap(210, 0.08174263f, 1.0f);
    auto file = std::make_unique<MemoryMappedFile>("/tmp/stemlib.test-XXXXXX", 300);
    auto* bytes = static_cast<uint8_t*>(file->getBuffer());
    for (std::size_t i = 0; i < 300; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7);
    }
    std::array<float, 300> array{};
    {
        AllocationScope scope;
        heatmap.dequantize(file, array);
        EXPECT_EQ(scope.count(), 0u);
    }
    std::vector<float> values(300);
    heatmap.dequantize(bytes, values.data(), 300);
    for (std::size_t i = 0; i < array.size(); ++i) {
        ASSERT_EQ(array[i], heatmap(bytes[i])) << i;
        ASSERT_EQ(values[i], array[i]) << i;
    }

    std::array<float, 301> tooLarge{};
    tooLarge.fill(5.0f);
    heatmap.dequantize(file, tooLarge);
    EXPECT_EQ(tooLarge[0], 0.0f);
    EXPECT_TRUE(hasLine(capture, "dequantize: Mapped file of 300 bytes is smaller than 301 "
                                 "elements"));
    std::unique_ptr<MemoryMappedFile> none;
    heatmap.dequantize(none, array);
    EXPECT_TRUE(hasLine(capture, "dequantize: No mapped file to dequantize"));
}

TEST(PoseDetectionBase, NeverOverlapsAndPrintsItsParts) {
    const PoseDetectionBase<P> empty;
    EXPECT_EQ(empty.confidence, 0.0f);
    EXPECT_TRUE(empty.boundingBox.isUndefined());
    const Skeleton<P> skeleton = withJoints({kp(P::Nose, 1, 2)});
    const PoseDetectionBase<P> made(skeleton, skeleton.getBoundingBox(), 0.75f);
    EXPECT_FALSE(made.overlap(made));
    EXPECT_EQ(made.toString(), "PoseDetection: confidence 0.75, Rectangle: x=1, y=2, width=0, "
                               "height=0, Skeleton: 1 keypoints, 0 edges: Nose (1, 2) 0.9");
}
