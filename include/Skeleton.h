// Skeleton: one person's scored joints, the connections between them worth drawing, and what
// they measure (size, centre, top and bottom, arm positions, attitude).
//
// The edges are computed from the joints at construction, with a fixed score limit of 0.1, and
// every operation here that changes joints (setKeypoint, prune, uncross) computes them again,
// so begin() and end(), which run over the edges, always describe the joints held.
//
// Conventions of the measures: a joint "passes" a threshold when its score exceeds it strictly
// (getKeypoint). Positions are integer pixels, x to the right and y downward; left and right
// are the person's own sides. Skeleton is a value type for both joint enumerations, Skeleton<
// BodypixBodyPart> and Skeleton<BodypixHeadlessBodyPart>; operations that need head joints
// answer as if those were missing on the headless form.
#pragma once

#include "Keypoint.h"
#include "Location.h"

#include <string>
#include <vector>

namespace Ombrel {

class HeightCalibrator3DManager;

// A pair of joints that an edge connects.
template <typename BodyPart>
struct SkeletonEdgeSpec {
    BodyPart bodyPart0;
    BodyPart bodyPart1;

    SkeletonEdgeSpec(BodyPart bodyPart0_, BodyPart bodyPart1_)
        : bodyPart0(bodyPart0_), bodyPart1(bodyPart1_) {}
};

// A connection between two keypoints, held by value.
template <typename BodyPart>
struct Edge {
    using IKeypoint = KeypointT<BodyPart, int>;

    IKeypoint keypoint0;
    IKeypoint keypoint1;

    Edge(const IKeypoint& keypoint0_, const IKeypoint& keypoint1_)
        : keypoint0(keypoint0_), keypoint1(keypoint1_) {}

    // "Nose (1, 2) 0.9 - LeftEye (3, 4) 0.8".
    std::string toString() const { return keypoint0.toString() + " - " + keypoint1.toString(); }
};

// The connections of the skeleton in drawing order: for BodypixBodyPart the 7 pairs of the head
// followed by the 12 of the body (shoulders, arms, trunk, hips, legs); for
// BodypixHeadlessBodyPart those 12 alone.
template <typename BodyPart>
std::vector<SkeletonEdgeSpec<BodyPart>> getEdgeSpecs();
template <>
std::vector<SkeletonEdgeSpec<BodypixBodyPart>> getEdgeSpecs<BodypixBodyPart>();
template <>
std::vector<SkeletonEdgeSpec<BodypixHeadlessBodyPart>> getEdgeSpecs<BodypixHeadlessBodyPart>();

// The edges whose two joints both score above 0.1, in table order.
template <typename BodyPart>
std::vector<Edge<BodyPart>> getEdges(const KeypointsT<BodyPart, int>& keypoints);

// elbowScoreThreshold for the elbows, wristScoreThreshold for the wrists, noseScoreThreshold
// for the nose and defaultKeypointScoreThreshold for every other joint.
float getScoreThreshold(BodypixBodyPart bodyPart, float defaultKeypointScoreThreshold,
                        float elbowScoreThreshold, float wristScoreThreshold,
                        float noseScoreThreshold);

// The angle between two lines given by two points each, in whole degrees truncated toward zero
// (0 to 180). Each line is first made to run from left to right.
int getTopLineBottomLineAngle(FPoint TopLine_a, FPoint TopLine_b, FPoint BottomLine_a,
                              FPoint BottomLine_b);

template <typename BodyPart>
class Skeleton {
public:
    using Keypoint = KeypointT<BodyPart, int>;
    using IKeypoint = Keypoint;
    using Keypoints = KeypointsT<BodyPart, int>;
    using FKeypoint = KeypointT<BodyPart, float>;
    using FKeypoints = KeypointsT<BodyPart, float>;
    using Edges = std::vector<Edge<BodyPart>>;
    using EdgeIterator = typename Edges::iterator;
    using ConstEdgeIterator = typename Edges::const_iterator;

    Skeleton() = default;
    explicit Skeleton(const Keypoints& keypoints);

    // The edges, not the keypoints.
    EdgeIterator begin() { return _edges.begin(); }
    EdgeIterator end() { return _edges.end(); }
    ConstEdgeIterator begin() const { return _edges.begin(); }
    ConstEdgeIterator end() const { return _edges.end(); }

    const Keypoints& keypoints() const { return _keypoints; }

    // The box over every keypoint held, whatever its score; undefined without keypoints.
    IBoundingBox getBoundingBox() const;

    // Copies the joint and returns true when its score exceeds scoreThreshold strictly.
    bool getKeypoint(BodyPart bodyPart, float scoreThreshold, Keypoint& keypoint) const;
    bool hasKeypoint(BodyPart bodyPart, float scoreThreshold) const;

    // The integer coordinates are added first, then halved in floating point.
    static FPoint getMidpoint(const Keypoint& kp0, const Keypoint& kp1);

    // The fallback rule for a pair of sides: the midpoint when both joints pass, the one that
    // passes otherwise; false, with point untouched, when neither does.
    bool useKeypoint(BodyPart bodyPart0, BodyPart bodyPart1, float scoreThreshold,
                     FPoint& point) const;
    // The joint's position when it passes; false, with point untouched, otherwise.
    bool useKeypoint(BodyPart bodyPart, float scoreThreshold, FPoint& point) const;

    // The top of the body without the head: the shoulders by the fallback rule.
    bool getHeadlessSuperior(FPoint& superior, float scoreThreshold) const;
    bool hasHeadlessSuperior(float scoreThreshold) const;
    // The top of the body: the nose when it passes noseScoreThreshold, otherwise the eyes, then
    // the ears (each pair by the fallback rule at scoreThreshold), and last the headless
    // superior.
    bool getSuperior(FPoint& superior, float scoreThreshold, float noseScoreThreshold) const;
    // The bottom of the body: the ankles by the fallback rule, the knees when neither ankle
    // passes.
    bool getInferior(FPoint& point, float scoreThreshold) const;
    bool hasInferior(float scoreThreshold) const;
    // True when a hand or a foot is seen: a wrist passing wristScoreThreshold or an ankle
    // passing scoreThreshold.
    bool hasExtremity(float scoreThreshold, float wristScoreThreshold) const;

    // The distance from the headless superior to the inferior, in pixels; 0 without either.
    float getSkeletonSize(float scoreThreshold) const;
    // The midpoint of the hips; both must pass, there is no fallback to one hip.
    bool getSkeletonCenter(FPoint& point, float scoreThreshold) const;
    // The hips by the fallback rule: one hip is enough.
    bool getHipMedian(FPoint& point, float scoreThreshold) const;

    // Every joint is held with a score above 0, or every joint below the head.
    bool isComplete() const;
    bool isCompleteHeadless() const;

    // Removes each joint whose score does not exceed its threshold by getScoreThreshold, and
    // recomputes the edges.
    void prune(float defaultKeypointScoreThreshold, float elbowScoreThreshold,
               float wristScoreThreshold, float noseScoreThreshold);

    // Body-relative joints: each joint that passes scoreThreshold, moved so that the skeleton
    // center is the origin and divided by the skeleton size. Returns false, leaving normalized
    // untouched, without a center or with a size of 0; otherwise replaces its contents.
    bool normalize(FKeypoints& normalized, float scoreThreshold) const;

    // Where an arm points from its shoulder to its hand (the wrist, or the elbow when the wrist
    // does not pass), to the nearest of four directions in the picture: Up, Out (away from the
    // other shoulder), Down, In (across the body); each covers 45 degrees on either side.
    // Unknown when either shoulder does not pass scoreThreshold, no hand joint passes its
    // threshold, or the hand lies on the shoulder.
    ArmPosition getLeftArmPosition(float scoreThreshold, float elbowScoreThreshold,
                                   float wristScoreThreshold) const;
    ArmPosition getRightArmPosition(float scoreThreshold, float elbowScoreThreshold,
                                    float wristScoreThreshold) const;

    // How the person faces the camera. With both shoulders passing and, when the trunk length
    // (shoulder midpoint to hip midpoint by the fallback rules) is known, a shoulder width of
    // at least a quarter of it: Anterior when the left shoulder lies right of the right one in
    // the picture, Posterior otherwise. In profile (narrower shoulders, or one shoulder only):
    // StageRight when the nose (at noseScoreThreshold) lies left of the shoulders, StageLeft
    // when right of them. Unknown without shoulders, or in profile without the nose.
    BodyAttitude getBodyAttitude(float scoreThreshold, float noseScoreThreshold) const;

    // The angle between the shoulder line and the hip line in whole degrees; all four joints
    // must pass, otherwise false with angle untouched.
    bool getShoulderHipAngle(float scoreThreshold, int& angle) const;

    // Repairs a left-right mix-up of a model: bodyPart0 is a joint of the left side and
    // bodyPart1 its right counterpart. When both pass, both shoulders pass, and the pair lies
    // in the opposite left-right order to the shoulders, the two joints exchange positions and
    // scores (each keeps its part) and true is returned.
    bool uncross(BodyPart bodyPart0, BodyPart bodyPart1, float scoreThreshold);

    // Stores keypoint under bodyPart (its bodyPart field set to it), or under its own part,
    // replacing a joint that is there; recomputes the edges.
    void setKeypoint(BodyPart bodyPart, const Keypoint& keypoint);
    void setKeypoint(const Keypoint& keypoint);

    // Whether the skeleton is implausible for a person at its place by the height calibration.
    // Defined by the height calibration module.
    bool isMonster(const HeightCalibrator3DManager& heightCalibrator, float scoreThreshold,
                   float tolerance) const;

    // "Skeleton: 2 keypoints, 1 edges: Nose (1, 2) 0.9; LeftEye (3, 4) 0.8".
    std::string toString() const;

private:
    // The direction of an arm; see getLeftArmPosition.
    ArmPosition getArmPosition(BodyPart shoulder, BodyPart otherShoulder, BodyPart elbow,
                               BodyPart wrist, float scoreThreshold, float elbowScoreThreshold,
                               float wristScoreThreshold) const;

    Keypoints _keypoints;
    Edges _edges;
};

extern template class Skeleton<BodypixBodyPart>;
extern template class Skeleton<BodypixHeadlessBodyPart>;
extern template std::vector<Edge<BodypixBodyPart>>
getEdges<BodypixBodyPart>(const KeypointsT<BodypixBodyPart, int>&);
extern template std::vector<Edge<BodypixHeadlessBodyPart>>
getEdges<BodypixHeadlessBodyPart>(const KeypointsT<BodypixHeadlessBodyPart, int>&);

} // namespace Ombrel
