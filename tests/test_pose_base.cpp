#include "AllocationCounter.h"
#include "ImageTestUtils.h"
#include "PoseBase.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

using P = BodypixBodyPart;
using EdgePairs = std::vector<std::pair<P, P>>;

Keypoint kp(P part, int x, int y, float score = 0.9f) {
    return Keypoint(IPoint(x, y), part, score);
}

// A person standing upright and facing the camera: the left side lies right in the picture.
Keypoints standingPerson(float score = 0.9f) {
    Keypoints keypoints;
    const std::vector<std::tuple<P, int, int>> joints = {
        {P::Nose, 50, 10},          {P::LeftEye, 53, 8},     {P::RightEye, 47, 8},
        {P::LeftEar, 56, 10},       {P::RightEar, 44, 10},   {P::LeftShoulder, 60, 30},
        {P::RightShoulder, 40, 30}, {P::LeftElbow, 62, 50},  {P::RightElbow, 38, 50},
        {P::LeftWrist, 63, 70},     {P::RightWrist, 37, 70}, {P::LeftHip, 57, 70},
        {P::RightHip, 43, 70},      {P::LeftKnee, 57, 100},  {P::RightKnee, 43, 100},
        {P::LeftAnkle, 57, 130},    {P::RightAnkle, 43, 130}};
    for (const auto& [part, x, y] : joints) {
        keypoints.add(kp(part, x, y, score));
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

std::vector<std::pair<P, P>> edgePairs(const Skeleton<P>& skeleton) {
    std::vector<std::pair<P, P>> pairs;
    for (const Edge<P>& edge : skeleton) {
        pairs.emplace_back(edge.keypoint0.bodyPart, edge.keypoint1.bodyPart);
    }
    return pairs;
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

    // Iteration runs over keypoints in part order.
    std::vector<P> order;
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
    keypoints.get(P::Nose).score = 0.8f;
    EXPECT_EQ(keypoints.get(P::Nose).score, 0.8f);

    Keypoint out = kp(P::LeftEar, 9, 9, 0.1f);
    EXPECT_FALSE(keypoints.getKeypoint(P::Nose, 0.8f, out)); // equal score is not enough
    EXPECT_EQ(out.bodyPart, P::LeftEar);
    EXPECT_TRUE(keypoints.getKeypoint(P::Nose, 0.79f, out));
    EXPECT_EQ(out.point, IPoint(1, 2));

    EXPECT_EQ(keypoints.getMidpoint(P::Nose, P::RightHip), FPoint(4.0f, 5.0f));
    EXPECT_FLOAT_EQ(kp(P::Nose, 0, 0).distance(kp(P::Nose, 3, 4)), 5.0f);
    EXPECT_EQ(kp(P::LeftEye, 12, 34, 0.75f).toString(), "LeftEye (12, 34) 0.75");
    EXPECT_EQ(toString(BodypixHeadlessBodyPart::LeftShoulder), "LeftShoulder");
    EXPECT_EQ(toString(static_cast<P>(17)), "Unknown");
    EXPECT_EQ(toString(BodyAttitude::StageLeft), "StageLeft");
}

TEST(Skeleton, EdgesFollowTheTableAndNeedBothScoresAboveOneTenth) {
    const std::vector<SkeletonEdgeSpec<P>> specs = getEdgeSpecs<P>();
    ASSERT_EQ(specs.size(), 19u);
    EXPECT_EQ(specs[4].bodyPart0, P::LeftEar);
    EXPECT_EQ(specs[4].bodyPart1, P::LeftEye);
    EXPECT_EQ(specs[18].bodyPart0, P::RightKnee);
    const auto headless = getEdgeSpecs<BodypixHeadlessBodyPart>();
    ASSERT_EQ(headless.size(), 12u);
    for (std::size_t i = 0; i < headless.size(); ++i) {
        EXPECT_EQ(toBodypixBodyPart(headless[i].bodyPart0), specs[i + 7].bodyPart0);
        EXPECT_EQ(toBodypixBodyPart(headless[i].bodyPart1), specs[i + 7].bodyPart1);
    }

    const Skeleton<P> full(standingPerson());
    const std::vector<std::pair<P, P>> pairs = edgePairs(full);
    ASSERT_EQ(pairs.size(), 19u);
    for (std::size_t i = 0; i < specs.size(); ++i) {
        EXPECT_EQ(pairs[i], std::make_pair(specs[i].bodyPart0, specs[i].bodyPart1));
    }

    const Skeleton<P> hips = withJoints(
        {kp(P::LeftHip, 0, 0, 0.1f), kp(P::RightHip, 5, 0, 0.2f), kp(P::RightKnee, 5, 9, 0.11f)});
    EXPECT_EQ(edgePairs(hips), (EdgePairs{{P::RightHip, P::RightKnee}}));

    const Skeleton<P> empty;
    EXPECT_EQ(empty.begin(), empty.end());
    EXPECT_TRUE(empty.getBoundingBox().isUndefined());
    EXPECT_EQ(empty.getSkeletonSize(0.0f), 0.0f);
    FPoint center(-1.0f, -1.0f);
    EXPECT_FALSE(empty.getSkeletonCenter(center, 0.0f));
    EXPECT_EQ(center, FPoint(-1.0f, -1.0f));
}

TEST(Skeleton, MeasuresFollowTheFallbackRules) {
    // useKeypoint: the midpoint keeps a half pixel; one side alone gives that side.
    const Skeleton<P> pair = withJoints({kp(P::LeftEye, 3, 4), kp(P::RightEye, 4, 4)});
    FPoint point;
    EXPECT_TRUE(pair.useKeypoint(P::LeftEye, P::RightEye, 0.5f, point));
    EXPECT_EQ(point, FPoint(3.5f, 4.0f));
    const Skeleton<P> one = withJoints({kp(P::LeftEye, 3, 4, 0.2f), kp(P::RightEye, 8, 6)});
    EXPECT_TRUE(one.useKeypoint(P::LeftEye, P::RightEye, 0.5f, point));
    EXPECT_EQ(point, FPoint(8.0f, 6.0f));
    point = FPoint(-1.0f, -1.0f);
    EXPECT_FALSE(one.useKeypoint(P::LeftEar, P::RightEar, 0.5f, point));
    EXPECT_EQ(point, FPoint(-1.0f, -1.0f));

    // The ankles come first: a left knee does not count when a right ankle is seen.
    const Skeleton<P> legs = withJoints(
        {kp(P::LeftKnee, 10, 80), kp(P::RightAnkle, 30, 120), kp(P::LeftShoulder, 30, 20)});
    EXPECT_TRUE(legs.getInferior(point, 0.5f));
    EXPECT_EQ(point, FPoint(30.0f, 120.0f));
    EXPECT_FLOAT_EQ(legs.getSkeletonSize(0.5f), 100.0f);

    // The centre needs both hips; the hip median takes one.
    const Skeleton<P> oneHip = withJoints({kp(P::LeftHip, 10, 50)});
    point = FPoint(-1.0f, -1.0f);
    EXPECT_FALSE(oneHip.getSkeletonCenter(point, 0.5f));
    EXPECT_EQ(point, FPoint(-1.0f, -1.0f));
    EXPECT_TRUE(oneHip.getHipMedian(point, 0.5f));
    EXPECT_EQ(point, FPoint(10.0f, 50.0f));

    // The box takes every keypoint, even one scored 0.01.
    const Skeleton<P> faint = withJoints({kp(P::Nose, 10, 10), kp(P::LeftAnkle, 40, 90, 0.01f)});
    const IBoundingBox box = faint.getBoundingBox();
    EXPECT_EQ(box, IBoundingBox(10, 10, 30, 80));

    const Skeleton<P> person(standingPerson());
    EXPECT_TRUE(person.getSkeletonCenter(point, 0.5f));
    EXPECT_EQ(point, FPoint(50.0f, 70.0f));
    EXPECT_FLOAT_EQ(person.getSkeletonSize(0.5f), 100.0f);
    EXPECT_TRUE(person.getHeadlessSuperior(point, 0.5f));
    EXPECT_EQ(point, FPoint(50.0f, 30.0f));
}

TEST(Skeleton, ScoreThresholdsAndLineAngles) {
    EXPECT_EQ(getScoreThreshold(P::LeftElbow, 0.1f, 0.2f, 0.3f, 0.4f), 0.2f);
    EXPECT_EQ(getScoreThreshold(P::RightElbow, 0.1f, 0.2f, 0.3f, 0.4f), 0.2f);
    EXPECT_EQ(getScoreThreshold(P::RightWrist, 0.1f, 0.2f, 0.3f, 0.4f), 0.3f);
    EXPECT_EQ(getScoreThreshold(P::Nose, 0.1f, 0.2f, 0.3f, 0.4f), 0.4f);
    EXPECT_EQ(getScoreThreshold(P::LeftEye, 0.1f, 0.2f, 0.3f, 0.4f), 0.1f);

    // Parallel lines give 0 whichever point comes first.
    EXPECT_EQ(getTopLineBottomLineAngle(FPoint(0, 0), FPoint(10, 5), FPoint(20, 15), FPoint(0, 5)),
              0);
    EXPECT_EQ(getTopLineBottomLineAngle(FPoint(0, 0), FPoint(10, 0), FPoint(3, 0), FPoint(3, 9)),
              90);
    // 89.9 degrees truncates to 89.
    EXPECT_EQ(getTopLineBottomLineAngle(FPoint(0, 0), FPoint(10, 0), FPoint(0, 0),
                                        FPoint(1.7453f, 1000.0f)),
              89);
    EXPECT_EQ(
        getTopLineBottomLineAngle(FPoint(0, 0), FPoint(10, 10), FPoint(0, 0), FPoint(10, -10)), 90);

    const Skeleton<P> person(standingPerson());
    int angle = -1;
    EXPECT_TRUE(person.getShoulderHipAngle(0.5f, angle));
    EXPECT_EQ(angle, 0);
    Skeleton<P> bent(standingPerson());
    bent.setKeypoint(kp(P::LeftHip, 57, 90));
    EXPECT_TRUE(bent.getShoulderHipAngle(0.5f, angle));
    EXPECT_EQ(angle, 55); // atan2(20, 14) = 55.0 degrees
    bent.setKeypoint(kp(P::RightHip, 43, 70, 0.3f));
    angle = -1;
    EXPECT_FALSE(bent.getShoulderHipAngle(0.5f, angle));
    EXPECT_EQ(angle, -1);
}

TEST(Skeleton, CompletenessPruningAndChangesKeepTheEdgesInStep) {
    Skeleton<P> person(standingPerson());
    EXPECT_TRUE(person.isComplete());
    EXPECT_TRUE(person.isCompleteHeadless());

    Keypoints noHead = standingPerson();
    noHead.remove(P::LeftEar);
    const Skeleton<P> headless(noHead);
    EXPECT_FALSE(headless.isComplete());
    EXPECT_TRUE(headless.isCompleteHeadless());

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
    EXPECT_FALSE(pruned.keypoints().contains(P::LeftElbow));
    EXPECT_FALSE(pruned.keypoints().contains(P::LeftWrist));
    EXPECT_FALSE(pruned.keypoints().contains(P::Nose));
    EXPECT_TRUE(pruned.keypoints().contains(P::RightElbow));
    EXPECT_FALSE(pruned.isComplete());
    // Edges of removed joints are gone: 19 less 4 at the nose, 2 at the left elbow.
    EXPECT_EQ(edgePairs(pruned).size(), 13u);

    // setKeypoint stores under the given part and adds the edges the joint completes.
    Skeleton<P> arm = withJoints({kp(P::LeftShoulder, 0, 0)});
    EXPECT_EQ(arm.begin(), arm.end());
    arm.setKeypoint(P::LeftElbow, kp(P::Nose, 0, 20));
    EXPECT_EQ(arm.keypoints().get(P::LeftElbow).point, IPoint(0, 20));
    EXPECT_FALSE(arm.keypoints().contains(P::Nose));
    EXPECT_EQ(edgePairs(arm), (EdgePairs{{P::LeftShoulder, P::LeftElbow}}));
    EXPECT_EQ(arm.toString(),
              "Skeleton: 2 keypoints, 1 edges: LeftShoulder (0, 0) 0.9; LeftElbow (0, 20) 0.9");
}

TEST(Skeleton, SuperiorExtremitiesAndNormalisation) {
    Skeleton<P> person(standingPerson());
    FPoint point;
    EXPECT_TRUE(person.getSuperior(point, 0.5f, 0.5f));
    EXPECT_EQ(point, FPoint(50.0f, 10.0f)); // the nose
    EXPECT_TRUE(person.getSuperior(point, 0.5f, 0.95f));
    EXPECT_EQ(point, FPoint(50.0f, 8.0f)); // the eyes when the nose is too faint
    const Skeleton<P> shouldersOnly =
        withJoints({kp(P::LeftShoulder, 60, 30), kp(P::RightShoulder, 40, 31)});
    EXPECT_TRUE(shouldersOnly.getSuperior(point, 0.5f, 0.5f));
    EXPECT_EQ(point, FPoint(50.0f, 30.5f));
    EXPECT_TRUE(shouldersOnly.hasHeadlessSuperior(0.5f));
    EXPECT_FALSE(shouldersOnly.hasInferior(0.5f));
    EXPECT_FALSE(shouldersOnly.hasExtremity(0.5f, 0.5f));
    EXPECT_TRUE(person.hasExtremity(0.95f, 0.5f)); // wrists
    EXPECT_TRUE(person.hasExtremity(0.5f, 0.95f)); // ankles
    EXPECT_FALSE(person.hasExtremity(0.95f, 0.95f));

    FKeypoints normalized;
    ASSERT_TRUE(person.normalize(normalized, 0.5f));
    EXPECT_EQ(normalized.size(), 17u);
    EXPECT_EQ(normalized.get(P::LeftAnkle).point, FPoint(0.07f, 0.6f));
    EXPECT_EQ(normalized.get(P::Nose).point, FPoint(0.0f, -0.6f));
    EXPECT_EQ(normalized.get(P::Nose).score, 0.9f);
    FKeypoints untouched;
    untouched.add(FKeypoint(FPoint(1.0f, 1.0f), P::Nose, 1.0f));
    EXPECT_FALSE(shouldersOnly.normalize(untouched, 0.5f));
    EXPECT_EQ(untouched.size(), 1u);
}

TEST(Skeleton, ArmPositionsAttitudeAndUncrossing) {
    // Facing the camera: the left shoulder at x 60, the right at x 40.
    const auto armWith = [](IPoint leftHand, IPoint rightHand) {
        return withJoints({kp(P::LeftShoulder, 60, 30), kp(P::RightShoulder, 40, 30),
                           kp(P::LeftWrist, leftHand.x, leftHand.y),
                           kp(P::RightWrist, rightHand.x, rightHand.y)});
    };
    const Skeleton<P> hanging = armWith(IPoint(62, 70), IPoint(38, 70));
    EXPECT_EQ(hanging.getLeftArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::Down);
    EXPECT_EQ(hanging.getRightArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::Down);
    const Skeleton<P> spread = armWith(IPoint(100, 35), IPoint(0, 25));
    EXPECT_EQ(spread.getLeftArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::Out);
    EXPECT_EQ(spread.getRightArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::Out);
    const Skeleton<P> raised = armWith(IPoint(65, 0), IPoint(30, -5));
    EXPECT_EQ(raised.getLeftArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::Up);
    EXPECT_EQ(raised.getRightArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::Up);
    const Skeleton<P> folded = armWith(IPoint(30, 40), IPoint(70, 38));
    EXPECT_EQ(folded.getLeftArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::In);
    EXPECT_EQ(folded.getRightArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::In);
    // Exactly 45 degrees is still down; a faint wrist falls back to the elbow; no hand, Unknown.
    EXPECT_EQ(armWith(IPoint(80, 50), IPoint(38, 70)).getLeftArmPosition(0.5f, 0.5f, 0.5f),
              ArmPosition::Down);
    Skeleton<P> elbowOnly = armWith(IPoint(62, 70), IPoint(38, 70));
    elbowOnly.setKeypoint(kp(P::LeftWrist, 62, 70, 0.2f));
    elbowOnly.setKeypoint(kp(P::LeftElbow, 90, 28));
    EXPECT_EQ(elbowOnly.getLeftArmPosition(0.5f, 0.5f, 0.5f), ArmPosition::Out);
    EXPECT_EQ(elbowOnly.getLeftArmPosition(0.5f, 0.95f, 0.5f), ArmPosition::Unknown);
    EXPECT_EQ(withJoints({kp(P::LeftShoulder, 60, 30), kp(P::LeftWrist, 60, 60)})
                  .getLeftArmPosition(0.5f, 0.5f, 0.5f),
              ArmPosition::Unknown);

    // Attitude: frontal from the shoulder order, profile from the nose.
    const Skeleton<P> front(standingPerson());
    EXPECT_EQ(front.getBodyAttitude(0.5f, 0.5f), BodyAttitude::Anterior);
    const Skeleton<P> back = withJoints({kp(P::LeftShoulder, 40, 30), kp(P::RightShoulder, 60, 30),
                                         kp(P::LeftHip, 43, 70), kp(P::RightHip, 57, 70)});
    EXPECT_EQ(back.getBodyAttitude(0.5f, 0.5f), BodyAttitude::Posterior);
    // Shoulders 6 apart over a trunk of 40: profile, the nose to the left of the picture.
    const Skeleton<P> profile =
        withJoints({kp(P::Nose, 38, 10), kp(P::LeftShoulder, 47, 30), kp(P::RightShoulder, 53, 30),
                    kp(P::LeftHip, 50, 70), kp(P::RightHip, 50, 70)});
    EXPECT_EQ(profile.getBodyAttitude(0.5f, 0.5f), BodyAttitude::StageRight);
    EXPECT_EQ(profile.getBodyAttitude(0.5f, 0.95f), BodyAttitude::Unknown);
    const Skeleton<P> oneShoulder = withJoints({kp(P::Nose, 70, 10), kp(P::RightShoulder, 53, 30)});
    EXPECT_EQ(oneShoulder.getBodyAttitude(0.5f, 0.5f), BodyAttitude::StageLeft);
    EXPECT_EQ(Skeleton<P>().getBodyAttitude(0.5f, 0.5f), BodyAttitude::Unknown);

    // Uncrossing: ankles in the opposite order to the shoulders exchange places.
    Keypoints crossedLegs = standingPerson();
    crossedLegs.add(kp(P::LeftAnkle, 43, 130, 0.8f));
    crossedLegs.add(kp(P::RightAnkle, 57, 131, 0.7f));
    Skeleton<P> crossed(crossedLegs);
    EXPECT_TRUE(crossed.uncross(P::LeftAnkle, P::RightAnkle, 0.5f));
    EXPECT_EQ(crossed.keypoints().get(P::LeftAnkle).point, IPoint(57, 131));
    EXPECT_EQ(crossed.keypoints().get(P::LeftAnkle).score, 0.7f);
    EXPECT_EQ(crossed.keypoints().get(P::RightAnkle).point, IPoint(43, 130));
    EXPECT_EQ(crossed.keypoints().get(P::RightAnkle).bodyPart, P::RightAnkle);
    // The edges follow the exchanged joints.
    for (const Edge<P>& edge : crossed) {
        if (edge.keypoint1.bodyPart == P::LeftAnkle) {
            EXPECT_EQ(edge.keypoint1.point, IPoint(57, 131));
        }
    }
    EXPECT_FALSE(crossed.uncross(P::LeftAnkle, P::RightAnkle, 0.5f));
    EXPECT_FALSE(crossed.uncross(P::LeftAnkle, P::RightAnkle, 0.75f));
}

TEST(Skeleton, HeadlessSkeletonsMeasureTheSameWay) {
    using H = BodypixHeadlessBodyPart;
    HeadlessKeypoints keypoints;
    keypoints.add(HeadlessKeypoint(IPoint(60, 30), H::LeftShoulder, 0.9f));
    keypoints.add(HeadlessKeypoint(IPoint(40, 30), H::RightShoulder, 0.9f));
    keypoints.add(HeadlessKeypoint(IPoint(50, 130), H::LeftAnkle, 0.9f));
    Skeleton<H> skeleton(keypoints);
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

    const Dequantizer heatmap(210, 0.08174263f, 1.0f);
    std::vector<uint8_t> bytes(1000);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7);
    }
    std::vector<float> values(bytes.size());
    heatmap.dequantize(bytes.data(), values.data(), static_cast<int>(bytes.size()));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        ASSERT_EQ(values[i], heatmap(bytes[i])) << i;
    }

    auto file = std::make_unique<MemoryMappedFile>("/tmp/stemlib.test-XXXXXX", 300);
    std::memcpy(file->getBuffer(), bytes.data(), 300);
    std::array<float, 300> array{};
    {
        AllocationScope scope;
        heatmap.dequantize(file, array);
        EXPECT_EQ(scope.count(), 0u);
    }
    for (std::size_t i = 0; i < array.size(); ++i) {
        ASSERT_EQ(array[i], heatmap(bytes[i]));
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
    PoseDetectionBase<P> detection;
    EXPECT_EQ(detection.confidence, 0.0f);
    EXPECT_TRUE(detection.boundingBox.isUndefined());
    const Skeleton<P> skeleton = withJoints({kp(P::Nose, 1, 2)});
    const PoseDetectionBase<P> made(skeleton, skeleton.getBoundingBox(), 0.75f);
    EXPECT_FALSE(made.overlap(made));
    EXPECT_EQ(made.toString(), "PoseDetection: confidence 0.75, Rectangle: x=1, y=2, width=0, "
                               "height=0, Skeleton: 1 keypoints, 0 edges: Nose (1, 2) 0.9");
    PoseDetectionBase<P> copy = made;
    EXPECT_EQ(copy.skeleton.keypoints().size(), 1u);
}
