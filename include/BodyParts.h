// The joints of the pose models and the way a body faces the camera.
//
// BodypixBodyPart numbers the 17 joints of the multi-person pose models; BodypixHeadlessBodyPart
// numbers the 12 joints below the head. BodyParts and HeadlessBodyParts list joints of
// BodypixBodyPart in enumeration order (the second list is not of the headless type).
// BodyPartTraits gives generic code the joints of either enumeration. Plain values, no state.
#pragma once

#include <array>
#include <initializer_list>
#include <string>

namespace Ombrel {

enum class BodypixBodyPart {
    Nose = 0,
    LeftEye = 1,
    RightEye = 2,
    LeftEar = 3,
    RightEar = 4,
    LeftShoulder = 5,
    RightShoulder = 6,
    LeftElbow = 7,
    RightElbow = 8,
    LeftWrist = 9,
    RightWrist = 10,
    LeftHip = 11,
    RightHip = 12,
    LeftKnee = 13,
    RightKnee = 14,
    LeftAnkle = 15,
    RightAnkle = 16
};

enum class BodypixHeadlessBodyPart {
    LeftShoulder = 0,
    RightShoulder = 1,
    LeftElbow = 2,
    RightElbow = 3,
    LeftWrist = 4,
    RightWrist = 5,
    LeftHip = 6,
    RightHip = 7,
    LeftKnee = 8,
    RightKnee = 9,
    LeftAnkle = 10,
    RightAnkle = 11
};

// How a person faces the camera. Anterior: the front is seen; Posterior: the back. In profile,
// StageRight means facing toward the person's own right as seen when facing the camera, that
// is toward the left of the picture, and StageLeft toward the right of the picture.
enum class BodyAttitude {
    Anterior = 0,
    Posterior = 1,
    StageRight = 2,
    StageLeft = 3,
    Unknown = 100
};

inline const std::initializer_list<BodypixBodyPart> BodyParts = {
    BodypixBodyPart::Nose,          BodypixBodyPart::LeftEye,    BodypixBodyPart::RightEye,
    BodypixBodyPart::LeftEar,       BodypixBodyPart::RightEar,   BodypixBodyPart::LeftShoulder,
    BodypixBodyPart::RightShoulder, BodypixBodyPart::LeftElbow,  BodypixBodyPart::RightElbow,
    BodypixBodyPart::LeftWrist,     BodypixBodyPart::RightWrist, BodypixBodyPart::LeftHip,
    BodypixBodyPart::RightHip,      BodypixBodyPart::LeftKnee,   BodypixBodyPart::RightKnee,
    BodypixBodyPart::LeftAnkle,     BodypixBodyPart::RightAnkle};

inline const std::initializer_list<BodypixBodyPart> HeadlessBodyParts = {
    BodypixBodyPart::LeftShoulder, BodypixBodyPart::RightShoulder, BodypixBodyPart::LeftElbow,
    BodypixBodyPart::RightElbow,   BodypixBodyPart::LeftWrist,     BodypixBodyPart::RightWrist,
    BodypixBodyPart::LeftHip,      BodypixBodyPart::RightHip,      BodypixBodyPart::LeftKnee,
    BodypixBodyPart::RightKnee,    BodypixBodyPart::LeftAnkle,     BodypixBodyPart::RightAnkle};

// The member's own name ("Nose", "LeftShoulder", ...), and "Unknown" for a value outside the
// enumeration.
std::string toString(BodypixBodyPart bodyPart);
std::string toString(BodypixHeadlessBodyPart bodyPart);
std::string toString(BodyAttitude attitude);

// The same joint in the 17-joint numbering.
constexpr BodypixBodyPart toBodypixBodyPart(BodypixBodyPart bodyPart) {
    return bodyPart;
}
constexpr BodypixBodyPart toBodypixBodyPart(BodypixHeadlessBodyPart bodyPart) {
    return static_cast<BodypixBodyPart>(static_cast<int>(bodyPart) + 5);
}

template <typename BodyPart>
struct BodyPartTraits;

template <>
struct BodyPartTraits<BodypixBodyPart> {
    static constexpr bool hasHead = true;
    // Every joint, and the joints below the head, in enumeration order.
    static constexpr std::array<BodypixBodyPart, 17> all = {
        BodypixBodyPart::Nose,          BodypixBodyPart::LeftEye,    BodypixBodyPart::RightEye,
        BodypixBodyPart::LeftEar,       BodypixBodyPart::RightEar,   BodypixBodyPart::LeftShoulder,
        BodypixBodyPart::RightShoulder, BodypixBodyPart::LeftElbow,  BodypixBodyPart::RightElbow,
        BodypixBodyPart::LeftWrist,     BodypixBodyPart::RightWrist, BodypixBodyPart::LeftHip,
        BodypixBodyPart::RightHip,      BodypixBodyPart::LeftKnee,   BodypixBodyPart::RightKnee,
        BodypixBodyPart::LeftAnkle,     BodypixBodyPart::RightAnkle};
    static constexpr std::array<BodypixBodyPart, 12> headless = {
        BodypixBodyPart::LeftShoulder, BodypixBodyPart::RightShoulder, BodypixBodyPart::LeftElbow,
        BodypixBodyPart::RightElbow,   BodypixBodyPart::LeftWrist,     BodypixBodyPart::RightWrist,
        BodypixBodyPart::LeftHip,      BodypixBodyPart::RightHip,      BodypixBodyPart::LeftKnee,
        BodypixBodyPart::RightKnee,    BodypixBodyPart::LeftAnkle,     BodypixBodyPart::RightAnkle};
};

template <>
struct BodyPartTraits<BodypixHeadlessBodyPart> {
    static constexpr bool hasHead = false;
    static constexpr std::array<BodypixHeadlessBodyPart, 12> all = {
        BodypixHeadlessBodyPart::LeftShoulder, BodypixHeadlessBodyPart::RightShoulder,
        BodypixHeadlessBodyPart::LeftElbow,    BodypixHeadlessBodyPart::RightElbow,
        BodypixHeadlessBodyPart::LeftWrist,    BodypixHeadlessBodyPart::RightWrist,
        BodypixHeadlessBodyPart::LeftHip,      BodypixHeadlessBodyPart::RightHip,
        BodypixHeadlessBodyPart::LeftKnee,     BodypixHeadlessBodyPart::RightKnee,
        BodypixHeadlessBodyPart::LeftAnkle,    BodypixHeadlessBodyPart::RightAnkle};
    static constexpr std::array<BodypixHeadlessBodyPart, 12> headless = all;
};

} // namespace Ombrel
