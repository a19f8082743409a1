#include "Skeleton.h"

#include <cmath>
#include <sstream>

namespace Ombrel {

namespace {

// Edges are kept only between joints that score above this, whatever else a detector applies.
constexpr float kEdgeScoreThreshold = 0.1f;

// Share of the trunk length below which the shoulders are taken to be seen from the side.
constexpr float kProfileShoulderShare = 0.25f;

int sign(float value) {
    return (value > 0.0f) - (value < 0.0f);
}

} // namespace

template <>
std::vector<SkeletonEdgeSpec<BodypixBodyPart>> getEdgeSpecs<BodypixBodyPart>() {
    using P = BodypixBodyPart;
    return {{P::Nose, P::LeftEye},
            {P::Nose, P::RightEye},
            {P::Nose, P::LeftEar},
            {P::Nose, P::RightEar},
            {P::LeftEar, P::LeftEye},
            {P::RightEar, P::RightEye},
            {P::LeftEye, P::RightEye},
            {P::LeftShoulder, P::RightShoulder},
            {P::LeftShoulder, P::LeftElbow},
            {P::LeftShoulder, P::LeftHip},
            {P::RightShoulder, P::RightElbow},
            {P::RightShoulder, P::RightHip},
            {P::LeftElbow, P::LeftWrist},
            {P::RightElbow, P::RightWrist},
            {P::LeftHip, P::RightHip},
            {P::LeftHip, P::LeftKnee},
            {P::RightHip, P::RightKnee},
            {P::LeftKnee, P::LeftAnkle},
            {P::RightKnee, P::RightAnkle}};
}

template <>
std::vector<SkeletonEdgeSpec<BodypixHeadlessBodyPart>> getEdgeSpecs<BodypixHeadlessBodyPart>() {
    using P = BodypixHeadlessBodyPart;
    return {{P::LeftShoulder, P::RightShoulder}, {P::LeftShoulder, P::LeftElbow},
            {P::LeftShoulder, P::LeftHip},       {P::RightShoulder, P::RightElbow},
            {P::RightShoulder, P::RightHip},     {P::LeftElbow, P::LeftWrist},
            {P::RightElbow, P::RightWrist},      {P::LeftHip, P::RightHip},
            {P::LeftHip, P::LeftKnee},           {P::RightHip, P::RightKnee},
            {P::LeftKnee, P::LeftAnkle},         {P::RightKnee, P::RightAnkle}};
}

template <typename BodyPart>
std::vector<Edge<BodyPart>> getEdges(const KeypointsT<BodyPart, int>& keypoints) {
    static const std::vector<SkeletonEdgeSpec<BodyPart>> edgeSpecs = getEdgeSpecs<BodyPart>();
    std::vector<Edge<BodyPart>> edges;
    for (const SkeletonEdgeSpec<BodyPart>& spec : edgeSpecs) {
        const KeypointT<BodyPart, int>& keypoint0 = keypoints.get(spec.bodyPart0);
        if (keypoint0.score > kEdgeScoreThreshold) {
            const KeypointT<BodyPart, int>& keypoint1 = keypoints.get(spec.bodyPart1);
            if (keypoint1.score > kEdgeScoreThreshold) {
                edges.emplace_back(keypoint0, keypoint1);
            }
        }
    }
    return edges;
}

float getScoreThreshold(BodypixBodyPart bodyPart, float defaultKeypointScoreThreshold,
                        float elbowScoreThreshold, float wristScoreThreshold,
                        float noseScoreThreshold) {
    switch (bodyPart) {
    case BodypixBodyPart::LeftElbow:
    case BodypixBodyPart::RightElbow:
        return elbowScoreThreshold;
    case BodypixBodyPart::LeftWrist:
    case BodypixBodyPart::RightWrist:
        return wristScoreThreshold;
    case BodypixBodyPart::Nose:
        return noseScoreThreshold;
    default:
        return defaultKeypointScoreThreshold;
    }
}

int getTopLineBottomLineAngle(FPoint TopLine_a, FPoint TopLine_b, FPoint BottomLine_a,
                              FPoint BottomLine_b) {
    constexpr float pi = 3.1415927f;
    if (TopLine_a.x > TopLine_b.x) {
        std::swap(TopLine_a, TopLine_b);
    }
    if (BottomLine_a.x > BottomLine_b.x) {
        std::swap(BottomLine_a, BottomLine_b);
    }
    const float deltaY_Topline = TopLine_b.y - TopLine_a.y;
    const float deltaX_Topline = TopLine_b.x - TopLine_a.x;
    const float deltaY_Bottomline = BottomLine_b.y - BottomLine_a.y;
    const float deltaX_Bottomline = BottomLine_b.x - BottomLine_a.x;
    const float angleTopline = std::atan2(deltaY_Topline, deltaX_Topline) * 180.0f / pi;
    const float angleBottomline = std::atan2(deltaY_Bottomline, deltaX_Bottomline) * 180.0f / pi;
    const float angleDifference = std::fabs(angleTopline - angleBottomline);
    return detail::truncateTo<int>(angleDifference);
}

template <typename BodyPart>
Skeleton<BodyPart>::Skeleton(const Keypoints& keypoints)
    : _keypoints(keypoints), _edges(getEdges(_keypoints)) {}

template <typename BodyPart>
IBoundingBox Skeleton<BodyPart>::getBoundingBox() const {
    IBoundingBox box;
    for (const Keypoint& keypoint : _keypoints) {
        box.expand(keypoint.point);
    }
    return box;
}

template <typename BodyPart>
bool Skeleton<BodyPart>::getKeypoint(BodyPart bodyPart, float scoreThreshold,
                                     Keypoint& keypoint) const {
    return _keypoints.getKeypoint(bodyPart, scoreThreshold, keypoint);
}

template <typename BodyPart>
bool Skeleton<BodyPart>::hasKeypoint(BodyPart bodyPart, float scoreThreshold) const {
    return scoreThreshold < _keypoints.get(bodyPart).score;
}

template <typename BodyPart>
FPoint Skeleton<BodyPart>::getMidpoint(const Keypoint& kp0, const Keypoint& kp1) {
    const int64_t sumX = static_cast<int64_t>(kp0.point.x) + kp1.point.x;
    const int64_t sumY = static_cast<int64_t>(kp0.point.y) + kp1.point.y;
    return FPoint(static_cast<float>(static_cast<float>(sumX) / 2.0),
                  static_cast<float>(static_cast<float>(sumY) / 2.0));
}

template <typename BodyPart>
bool Skeleton<BodyPart>::useKeypoint(BodyPart bodyPart0, BodyPart bodyPart1, float scoreThreshold,
                                     FPoint& point) const {
    Keypoint keypoint0;
    Keypoint keypoint1;
    if (getKeypoint(bodyPart0, scoreThreshold, keypoint0)) {
        if (getKeypoint(bodyPart1, scoreThreshold, keypoint1)) {
            point = getMidpoint(keypoint0, keypoint1);
        } else {
            point = FPoint(static_cast<float>(keypoint0.point.x),
                           static_cast<float>(keypoint0.point.y));
        }
        return true;
    }
    if (getKeypoint(bodyPart1, scoreThreshold, keypoint1)) {
        point =
            FPoint(static_cast<float>(keypoint1.point.x), static_cast<float>(keypoint1.point.y));
        return true;
    }
    return false;
}

template <typename BodyPart>
bool Skeleton<BodyPart>::useKeypoint(BodyPart bodyPart, float scoreThreshold, FPoint& point) const {
    Keypoint keypoint;
    if (!getKeypoint(bodyPart, scoreThreshold, keypoint)) {
        return false;
    }
    point = FPoint(static_cast<float>(keypoint.point.x), static_cast<float>(keypoint.point.y));
    return true;
}

template <typename BodyPart>
bool Skeleton<BodyPart>::getHeadlessSuperior(FPoint& superior, float scoreThreshold) const {
    return useKeypoint(BodyPart::LeftShoulder, BodyPart::RightShoulder, scoreThreshold, superior);
}

template <typename BodyPart>
bool Skeleton<BodyPart>::hasHeadlessSuperior(float scoreThreshold) const {
    FPoint point;
    return getHeadlessSuperior(point, scoreThreshold);
}

template <typename BodyPart>
bool Skeleton<BodyPart>::getSuperior(FPoint& superior, float scoreThreshold,
                                     float noseScoreThreshold) const {
    if constexpr (BodyPartTraits<BodyPart>::hasHead) {
        if (useKeypoint(BodyPart::Nose, noseScoreThreshold, superior) ||
            useKeypoint(BodyPart::LeftEye, BodyPart::RightEye, scoreThreshold, superior) ||
            useKeypoint(BodyPart::LeftEar, BodyPart::RightEar, scoreThreshold, superior)) {
            return true;
        }
    } else {
        (void)noseScoreThreshold;
    }
    return getHeadlessSuperior(superior, scoreThreshold);
}

template <typename BodyPart>
bool Skeleton<BodyPart>::getInferior(FPoint& point, float scoreThreshold) const {
    return useKeypoint(BodyPart::LeftAnkle, BodyPart::RightAnkle, scoreThreshold, point) ||
           useKeypoint(BodyPart::LeftKnee, BodyPart::RightKnee, scoreThreshold, point);
}

template <typename BodyPart>
bool Skeleton<BodyPart>::hasInferior(float scoreThreshold) const {
    FPoint point;
    return getInferior(point, scoreThreshold);
}

template <typename BodyPart>
bool Skeleton<BodyPart>::hasExtremity(float scoreThreshold, float wristScoreThreshold) const {
    return hasKeypoint(BodyPart::LeftWrist, wristScoreThreshold) ||
           hasKeypoint(BodyPart::RightWrist, wristScoreThreshold) ||
           hasKeypoint(BodyPart::LeftAnkle, scoreThreshold) ||
           hasKeypoint(BodyPart::RightAnkle, scoreThreshold);
}

template <typename BodyPart>
float Skeleton<BodyPart>::getSkeletonSize(float scoreThreshold) const {
    FPoint superior;
    FPoint inferior;
    if (getHeadlessSuperior(superior, scoreThreshold) && getInferior(inferior, scoreThreshold)) {
        return superior.distance(inferior);
    }
    return 0.0f;
}

template <typename BodyPart>
bool Skeleton<BodyPart>::getSkeletonCenter(FPoint& point, float scoreThreshold) const {
    Keypoint leftHip;
    Keypoint rightHip;
    if (getKeypoint(BodyPart::LeftHip, scoreThreshold, leftHip) &&
        getKeypoint(BodyPart::RightHip, scoreThreshold, rightHip)) {
        point = getMidpoint(leftHip, rightHip);
        return true;
    }
    return false;
}

template <typename BodyPart>
bool Skeleton<BodyPart>::getHipMedian(FPoint& point, float scoreThreshold) const {
    return useKeypoint(BodyPart::LeftHip, BodyPart::RightHip, scoreThreshold, point);
}

template <typename BodyPart>
bool Skeleton<BodyPart>::isComplete() const {
    for (BodyPart bodyPart : BodyPartTraits<BodyPart>::all) {
        if (!hasKeypoint(bodyPart, 0.0f)) {
            return false;
        }
    }
    return true;
}

template <typename BodyPart>
bool Skeleton<BodyPart>::isCompleteHeadless() const {
    for (BodyPart bodyPart : BodyPartTraits<BodyPart>::headless) {
        if (!hasKeypoint(bodyPart, 0.0f)) {
            return false;
        }
    }
    return true;
}

template <typename BodyPart>
void Skeleton<BodyPart>::prune(float defaultKeypointScoreThreshold, float elbowScoreThreshold,
                               float wristScoreThreshold, float noseScoreThreshold) {
    for (BodyPart bodyPart : BodyPartTraits<BodyPart>::all) {
        const float threshold =
            getScoreThreshold(toBodypixBodyPart(bodyPart), defaultKeypointScoreThreshold,
                              elbowScoreThreshold, wristScoreThreshold, noseScoreThreshold);
        if (_keypoints.contains(bodyPart) && !hasKeypoint(bodyPart, threshold)) {
            _keypoints.remove(bodyPart);
        }
    }
    _edges = getEdges(_keypoints);
}

template <typename BodyPart>
bool Skeleton<BodyPart>::normalize(FKeypoints& normalized, float scoreThreshold) const {
    FPoint center;
    if (!getSkeletonCenter(center, scoreThreshold)) {
        return false;
    }
    const float size = getSkeletonSize(scoreThreshold);
    if (!(size > 0.0f)) {
        return false;
    }
    FKeypoints result;
    for (const Keypoint& keypoint : _keypoints) {
        if (scoreThreshold < keypoint.score) {
            const FPoint point((static_cast<float>(keypoint.point.x) - center.x) / size,
                               (static_cast<float>(keypoint.point.y) - center.y) / size);
            result.add(FKeypoint(point, keypoint.bodyPart, keypoint.score));
        }
    }
    normalized = result;
    return true;
}

template <typename BodyPart>
ArmPosition Skeleton<BodyPart>::getArmPosition(BodyPart shoulder, BodyPart otherShoulder,
                                               BodyPart elbow, BodyPart wrist, float scoreThreshold,
                                               float elbowScoreThreshold,
                                               float wristScoreThreshold) const {
    Keypoint shoulderKeypoint;
    Keypoint otherShoulderKeypoint;
    if (!getKeypoint(shoulder, scoreThreshold, shoulderKeypoint) ||
        !getKeypoint(otherShoulder, scoreThreshold, otherShoulderKeypoint)) {
        return ArmPosition::Unknown;
    }
    Keypoint hand;
    if (!getKeypoint(wrist, wristScoreThreshold, hand) &&
        !getKeypoint(elbow, elbowScoreThreshold, hand)) {
        return ArmPosition::Unknown;
    }
    // Outward is away from the other shoulder; with the shoulders one above the other there is
    // no outward, and only up and down remain.
    const float outward =
        static_cast<float>(sign(static_cast<float>(shoulderKeypoint.point.x) -
                                static_cast<float>(otherShoulderKeypoint.point.x)));
    const float dxOut =
        outward * (static_cast<float>(hand.point.x) - static_cast<float>(shoulderKeypoint.point.x));
    const float dyDown =
        static_cast<float>(hand.point.y) - static_cast<float>(shoulderKeypoint.point.y);
    if (dxOut == 0.0f && dyDown == 0.0f) {
        return ArmPosition::Unknown;
    }
    // 0 degrees points straight down, 90 outward, -90 across the body, 180 up.
    const float angle = std::atan2(dxOut, dyDown) * 180.0f / 3.1415927f;
    if (std::fabs(angle) <= 45.0f) {
        return ArmPosition::Down;
    }
    if (std::fabs(angle) > 135.0f) {
        return ArmPosition::Up;
    }
    return angle > 0.0f ? ArmPosition::Out : ArmPosition::In;
}

template <typename BodyPart>
ArmPosition Skeleton<BodyPart>::getLeftArmPosition(float scoreThreshold, float elbowScoreThreshold,
                                                   float wristScoreThreshold) const {
    return getArmPosition(BodyPart::LeftShoulder, BodyPart::RightShoulder, BodyPart::LeftElbow,
                          BodyPart::LeftWrist, scoreThreshold, elbowScoreThreshold,
                          wristScoreThreshold);
}

template <typename BodyPart>
ArmPosition Skeleton<BodyPart>::getRightArmPosition(float scoreThreshold, float elbowScoreThreshold,
                                                    float wristScoreThreshold) const {
    return getArmPosition(BodyPart::RightShoulder, BodyPart::LeftShoulder, BodyPart::RightElbow,
                          BodyPart::RightWrist, scoreThreshold, elbowScoreThreshold,
                          wristScoreThreshold);
}

template <typename BodyPart>
BodyAttitude Skeleton<BodyPart>::getBodyAttitude(float scoreThreshold,
                                                 float noseScoreThreshold) const {
    Keypoint leftShoulder;
    Keypoint rightShoulder;
    const bool hasLeft = getKeypoint(BodyPart::LeftShoulder, scoreThreshold, leftShoulder);
    const bool hasRight = getKeypoint(BodyPart::RightShoulder, scoreThreshold, rightShoulder);
    if (!hasLeft && !hasRight) {
        return BodyAttitude::Unknown;
    }
    FPoint shoulders;
    getHeadlessSuperior(shoulders, scoreThreshold);
    if (hasLeft && hasRight) {
        const float width =
            static_cast<float>(leftShoulder.point.x) - static_cast<float>(rightShoulder.point.x);
        FPoint hips;
        const bool frontal = !getHipMedian(hips, scoreThreshold) ||
                             std::fabs(width) >= kProfileShoulderShare * shoulders.distance(hips);
        if (frontal && width != 0.0f) {
            return width > 0.0f ? BodyAttitude::Anterior : BodyAttitude::Posterior;
        }
    }
    if constexpr (BodyPartTraits<BodyPart>::hasHead) {
        FPoint nose;
        if (useKeypoint(BodyPart::Nose, noseScoreThreshold, nose) && nose.x != shoulders.x) {
            return nose.x < shoulders.x ? BodyAttitude::StageRight : BodyAttitude::StageLeft;
        }
    } else {
        (void)noseScoreThreshold;
    }
    return BodyAttitude::Unknown;
}

template <typename BodyPart>
bool Skeleton<BodyPart>::getShoulderHipAngle(float scoreThreshold, int& angle) const {
    FPoint leftShoulder;
    FPoint rightShoulder;
    FPoint leftHip;
    FPoint rightHip;
    if (!useKeypoint(BodyPart::LeftShoulder, scoreThreshold, leftShoulder) ||
        !useKeypoint(BodyPart::RightShoulder, scoreThreshold, rightShoulder) ||
        !useKeypoint(BodyPart::LeftHip, scoreThreshold, leftHip) ||
        !useKeypoint(BodyPart::RightHip, scoreThreshold, rightHip)) {
        return false;
    }
    angle = getTopLineBottomLineAngle(leftShoulder, rightShoulder, leftHip, rightHip);
    return true;
}

template <typename BodyPart>
bool Skeleton<BodyPart>::uncross(BodyPart bodyPart0, BodyPart bodyPart1, float scoreThreshold) {
    Keypoint keypoint0;
    Keypoint keypoint1;
    Keypoint leftShoulder;
    Keypoint rightShoulder;
    if (!getKeypoint(bodyPart0, scoreThreshold, keypoint0) ||
        !getKeypoint(bodyPart1, scoreThreshold, keypoint1) ||
        !getKeypoint(BodyPart::LeftShoulder, scoreThreshold, leftShoulder) ||
        !getKeypoint(BodyPart::RightShoulder, scoreThreshold, rightShoulder)) {
        return false;
    }
    const int shoulderOrder =
        sign(static_cast<float>(leftShoulder.point.x) - static_cast<float>(rightShoulder.point.x));
    const int pairOrder =
        sign(static_cast<float>(keypoint0.point.x) - static_cast<float>(keypoint1.point.x));
    if (shoulderOrder == 0 || pairOrder != -shoulderOrder) {
        return false;
    }
    _keypoints.add(Keypoint(keypoint1.point, bodyPart0, keypoint1.score));
    _keypoints.add(Keypoint(keypoint0.point, bodyPart1, keypoint0.score));
    _edges = getEdges(_keypoints);
    return true;
}

template <typename BodyPart>
void Skeleton<BodyPart>::setKeypoint(BodyPart bodyPart, const Keypoint& keypoint) {
    _keypoints.add(Keypoint(keypoint.point, bodyPart, keypoint.score));
    _edges = getEdges(_keypoints);
}

template <typename BodyPart>
void Skeleton<BodyPart>::setKeypoint(const Keypoint& keypoint) {
    setKeypoint(keypoint.bodyPart, keypoint);
}

template <typename BodyPart>
std::string Skeleton<BodyPart>::toString() const {
    std::ostringstream os;
    os << "Skeleton: " << _keypoints.size() << " keypoints, " << _edges.size() << " edges:";
    const char* separator = " ";
    for (const Keypoint& keypoint : _keypoints) {
        os << separator << keypoint.toString();
        separator = "; ";
    }
    return os.str();
}

template class Skeleton<BodypixBodyPart>;
template class Skeleton<BodypixHeadlessBodyPart>;
template std::vector<Edge<BodypixBodyPart>>
getEdges<BodypixBodyPart>(const KeypointsT<BodypixBodyPart, int>&);
template std::vector<Edge<BodypixHeadlessBodyPart>>
getEdges<BodypixHeadlessBodyPart>(const KeypointsT<BodypixHeadlessBodyPart, int>&);

} // namespace Ombrel
