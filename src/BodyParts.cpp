#include "BodyParts.h"

namespace Ombrel {

std::string toString(BodypixBodyPart bodyPart) {
    switch (bodyPart) {
    case BodypixBodyPart::Nose:
        return "Nose";
    case BodypixBodyPart::LeftEye:
        return "LeftEye";
    case BodypixBodyPart::RightEye:
        return "RightEye";
    case BodypixBodyPart::LeftEar:
        return "LeftEar";
    case BodypixBodyPart::RightEar:
        return "RightEar";
    case BodypixBodyPart::LeftShoulder:
        return "LeftShoulder";
    case BodypixBodyPart::RightShoulder:
        return "RightShoulder";
    case BodypixBodyPart::LeftElbow:
        return "LeftElbow";
    case BodypixBodyPart::RightElbow:
        return "RightElbow";
    case BodypixBodyPart::LeftWrist:
        return "LeftWrist";
    case BodypixBodyPart::RightWrist:
        return "RightWrist";
    case BodypixBodyPart::LeftHip:
        return "LeftHip";
    case BodypixBodyPart::RightHip:
        return "RightHip";
    case BodypixBodyPart::LeftKnee:
        return "LeftKnee";
    case BodypixBodyPart::RightKnee:
        return "RightKnee";
    case BodypixBodyPart::LeftAnkle:
        return "LeftAnkle";
    case BodypixBodyPart::RightAnkle:
        return "RightAnkle";
    }
    return "Unknown";
}

std::string toString(BodypixHeadlessBodyPart bodyPart) {
    const int value = static_cast<int>(bodyPart);
    if (value < 0 || value > static_cast<int>(BodypixHeadlessBodyPart::RightAnkle)) {
        return "Unknown";
    }
    return toString(toBodypixBodyPart(bodyPart));
}

std::string toString(BodyAttitude attitude) {
    switch (attitude) {
    case BodyAttitude::Anterior:
        return "Anterior";
    case BodyAttitude::Posterior:
        return "Posterior";
    case BodyAttitude::StageRight:
        return "StageRight";
    case BodyAttitude::StageLeft:
        return "StageLeft";
    case BodyAttitude::Unknown:
        break;
    }
    return "Unknown";
}

} // namespace Ombrel
