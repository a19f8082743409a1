// The words of the actions application: the actions a person can be seen doing, their fixed
// English names for logs and their localized names for the user, and ArmsAction, one
// user-defined arm pose to watch for. Recognising actions is the application's own business.
//
// Localized texts come from Localization in the language selected at the time of the call.
// ArmsAction is a plain value without locks.
#pragma once

#include "Location.h"

#include <iosfwd>
#include <string>

namespace Ombrel {

enum class Actions {
    Aggression = 0,
    Running = 1,
    Sitting = 2,
    Standing = 3,
    Walking = 4,
    LyingDown = 5,
    Loitering = 6,
    ArmsPosition = 7,
    Unknown = 100
};

// Fixed English word for logs: "Aggression", ..., "Lying Down", "Unknown"; "Unknown other" for
// any other value, Loitering and ArmsPosition included.
std::string toString(Actions action);

// "actions.names.*"; Loitering, ArmsPosition and unknown values use "actions.names.unknown".
std::string toLocalizedString(Actions action);
// "actions.directions.*"; Unknown and unknown values give the plain "Unknown" in every language.
std::string toLocalizedString(ArmPosition armPosition);
// "actions.operators.and" or "actions.operators.or"; anything else gives an empty text.
std::string toLocalizedString(LogicalOperation logicalOperation);

// One arm pose to watch for: both arm positions, combined by a logical operation, held for
// alertSeconds.
struct ArmsAction {
    bool isActive = false;
    ArmPosition leftArm = ArmPosition::Unknown;
    LogicalOperation logical = LogicalOperation::Unknown;
    ArmPosition rightArm = ArmPosition::Unknown;
    unsigned int alertSeconds = 0;

    ArmsAction() = default;
    ArmsAction(bool isActive_, ArmPosition leftArm_, LogicalOperation logical_,
               ArmPosition rightArm_, unsigned int alertSeconds_)
        : isActive(isActive_), leftArm(leftArm_), logical(logical_), rightArm(rightArm_),
          alertSeconds(alertSeconds_) {}

    // "Arms: Left Up And Right Down" in the current language: title, left, left position,
    // operation, right, right position, joined by single blanks. An unknown operation leaves
    // an empty part, so two blanks stand in a row.
    std::string getLocalizedArmsActionString() const;
    // The same in English, independent of the selected language.
    std::string getArmsActionString() const;

    // "1 0 0 2 30": the flag as 1 or 0, then left arm, operation and right arm as integers, then
    // the seconds, separated by blanks.
    std::string serialize() const;
    // Reads the form of serialize (any white space between the fields). A non-zero flag is
    // active; the enumerations take any integer, as the other stream forms do. A missing or
    // malformed field, or seconds outside 0 to 4294967295, leave this action unchanged, log an
    // error and return false; the stream is then in a failed state.
    bool deserialize(std::istream& is);

    bool operator==(const ArmsAction& other) const {
        return isActive == other.isActive && leftArm == other.leftArm && logical == other.logical &&
               rightArm == other.rightArm && alertSeconds == other.alertSeconds;
    }
    bool operator!=(const ArmsAction& other) const { return !(*this == other); }
};

} // namespace Ombrel
