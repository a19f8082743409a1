#include "ActionRecognizer.h"

#include "Localization.h"
#include "Points.h"

#include <istream>
#include <limits>
#include <sstream>

namespace Ombrel {

namespace {

// A member's localization key and its fixed English word.
struct Word {
    const char* key;
    const char* english;
};

// Aggression to LyingDown, by value.
constexpr Word kActionWords[] = {
    {"actions.names.aggression", "Aggression"}, {"actions.names.running", "Running"},
    {"actions.names.sitting", "Sitting"},       {"actions.names.standing", "Standing"},
    {"actions.names.walking", "Walking"},       {"actions.names.lyingDown", "Lying Down"}};
// Up to Ignore, by value.
constexpr Word kArmPositionWords[] = {{"actions.directions.up", "Up"},
                                      {"actions.directions.out", "Out"},
                                      {"actions.directions.down", "Down"},
                                      {"actions.directions.in", "In"},
                                      {"actions.directions.ignore", "Ignore"}};
// And and Or, by value.
constexpr Word kLogicalOperationWords[] = {{"actions.operators.and", "And"},
                                           {"actions.operators.or", "Or"}};

// The word of an enumeration value, or null for Unknown and values outside the table.
template <typename Enum, std::size_t N>
const Word* wordOf(Enum value, const Word (&words)[N]) {
    const auto index = static_cast<long long>(value);
    return index >= 0 && index < static_cast<long long>(N) ? &words[index] : nullptr;
}

std::string joinArmsParts(const std::string& title, const std::string& left,
                          const std::string& leftArm, const std::string& logical,
                          const std::string& right, const std::string& rightArm) {
    std::ostringstream os;
    os << title << ' ' << left << ' ' << leftArm << ' ' << logical << ' ' << right << ' '
       << rightArm;
    return os.str();
}

const char* englishWord(ArmPosition armPosition) {
    const Word* word = wordOf(armPosition, kArmPositionWords);
    return word != nullptr ? word->english : "Unknown";
}

const char* englishWord(LogicalOperation logicalOperation) {
    const Word* word = wordOf(logicalOperation, kLogicalOperationWords);
    return word != nullptr ? word->english : "";
}

} // namespace

std::string toString(Actions action) {
    if (const Word* word = wordOf(action, kActionWords)) {
        return word->english;
    }
    return action == Actions::Unknown ? "Unknown" : "Unknown other";
}

std::string toLocalizedString(Actions action) {
    const Word* word = wordOf(action, kActionWords);
    return Localization::getString(word != nullptr ? word->key : "actions.names.unknown");
}

std::string toLocalizedString(ArmPosition armPosition) {
    const Word* word = wordOf(armPosition, kArmPositionWords);
    return word != nullptr ? Localization::getString(word->key) : "Unknown";
}

std::string toLocalizedString(LogicalOperation logicalOperation) {
    const Word* word = wordOf(logicalOperation, kLogicalOperationWords);
    return word != nullptr ? Localization::getString(word->key) : std::string();
}

std::string ArmsAction::getLocalizedArmsActionString() const {
    return joinArmsParts(Localization::getString("actions.arms.title"),
                         Localization::getString("actions.arms.left"), toLocalizedString(leftArm),
                         toLocalizedString(logical), Localization::getString("actions.arms.right"),
                         toLocalizedString(rightArm));
}

std::string ArmsAction::getArmsActionString() const {
    return joinArmsParts("Arms:", "Left", englishWord(leftArm), englishWord(logical), "Right",
                         englishWord(rightArm));
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
