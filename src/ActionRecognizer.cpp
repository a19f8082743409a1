#include "ActionRecognizer.h"

#include "Localization.h"
#include "Points.h"

#include <istream>
#include <limits>
#include <sstream>

namespace Ombrel {

namespace {

const char* armPositionWord(ArmPosition armPosition) {
    switch (armPosition) {
    case ArmPosition::Up:
        return "Up";
    case ArmPosition::Out:
        return "Out";
    case ArmPosition::Down:
        return "Down";
    case ArmPosition::In:
        return "In";
    case ArmPosition::Ignore:
        return "Ignore";
    case ArmPosition::Unknown:
        break;
    }
    return "Unknown";
}

const char* logicalOperationWord(LogicalOperation logicalOperation) {
    switch (logicalOperation) {
    case LogicalOperation::And:
        return "And";
    case LogicalOperation::Or:
        return "Or";
    case LogicalOperation::Unknown:
        break;
    }
    return "";
}

std::string joinArmsParts(const std::string& title, const std::string& left,
                          const std::string& leftArm, const std::string& logical,
                          const std::string& right, const std::string& rightArm) {
    std::ostringstream os;
    os << title << ' ' << left << ' ' << leftArm << ' ' << logical << ' ' << right << ' '
       << rightArm;
    return os.str();
}

} // namespace

std::string toString(Actions action) {
    switch (action) {
    case Actions::Aggression:
        return "Aggression";
    case Actions::Running:
        return "Running";
    case Actions::Sitting:
        return "Sitting";
    case Actions::Standing:
        return "Standing";
    case Actions::Walking:
        return "Walking";
    case Actions::LyingDown:
        return "Lying Down";
    case Actions::Unknown:
        return "Unknown";
    case Actions::Loitering:
    case Actions::ArmsPosition:
        break;
    }
    return "Unknown other";
}

std::string toLocalizedString(Actions action) {
    switch (action) {
    case Actions::Aggression:
        return Localization::getString("actions.names.aggression");
    case Actions::Running:
        return Localization::getString("actions.names.running");
    case Actions::Sitting:
        return Localization::getString("actions.names.sitting");
    case Actions::Standing:
        return Localization::getString("actions.names.standing");
    case Actions::Walking:
        return Localization::getString("actions.names.walking");
    case Actions::LyingDown:
        return Localization::getString("actions.names.lyingDown");
    case Actions::Loitering:
    case Actions::ArmsPosition:
    case Actions::Unknown:
        break;
    }
    return Localization::getString("actions.names.unknown");
}

std::string toLocalizedString(ArmPosition armPosition) {
    switch (armPosition) {
    case ArmPosition::Up:
        return Localization::getString("actions.directions.up");
    case ArmPosition::Out:
        return Localization::getString("actions.directions.out");
    case ArmPosition::Down:
        return Localization::getString("actions.directions.down");
    case ArmPosition::In:
        return Localization::getString("actions.directions.in");
    case ArmPosition::Ignore:
        return Localization::getString("actions.directions.ignore");
    case ArmPosition::Unknown:
        break;
    }
    return "Unknown";
}

std::string toLocalizedString(LogicalOperation logicalOperation) {
    switch (logicalOperation) {
    case LogicalOperation::And:
        return Localization::getString("actions.operators.and");
    case LogicalOperation::Or:
        return Localization::getString("actions.operators.or");
    case LogicalOperation::Unknown:
        break;
    }
    return std::string();
}

std::string ArmsAction::getLocalizedArmsActionString() const {
    return joinArmsParts(Localization::getString("actions.arms.title"),
                         Localization::getString("actions.arms.left"), toLocalizedString(leftArm),
                         toLocalizedString(logical), Localization::getString("actions.arms.right"),
                         toLocalizedString(rightArm));
}

std::string ArmsAction::getArmsActionString() const {
    return joinArmsParts("Arms:", "Left", armPositionWord(leftArm), logicalOperationWord(logical),
                         "Right", armPositionWord(rightArm));
}

std::string ArmsAction::serialize() const {
    std::ostringstream os;
    os << (isActive ? 1 : 0) << ' ' << static_cast<int>(leftArm) << ' ' << static_cast<int>(logical)
       << ' ' << static_cast<int>(rightArm) << ' ' << alertSeconds;
    return os.str();
}

bool ArmsAction::deserialize(std::istream& is) {
    int flag = 0;
    int left = 0;
    int operation = 0;
    int right = 0;
    long long seconds = 0;
    is >> flag >> left >> operation >> right >> seconds;
    if (!is.fail() &&
        (seconds < 0 || seconds > static_cast<long long>(std::numeric_limits<unsigned>::max()))) {
        is.setstate(std::ios::failbit);
    }
    if (is.fail()) {
        g_stemlibLogger.error("deserialize: ArmsAction::deserialize failed to read values from "
                              "stream");
        return false;
    }
    isActive = flag != 0;
    leftArm = static_cast<ArmPosition>(left);
    logical = static_cast<LogicalOperation>(operation);
    rightArm = static_cast<ArmPosition>(right);
    alertSeconds = static_cast<unsigned int>(seconds);
    return true;
}

} // namespace Ombrel
