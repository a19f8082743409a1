// The text form of ArmsAction: flag, left arm, operation, right arm, seconds. A refused text
// leaves the action unchanged; an accepted one writes a form that reads back equal, and its
// words can be built in the selected language.
#include "FuzzSupport.h"

#include "ActionRecognizer.h"

#include <sstream>

using namespace Ombrel;
using StemlibFuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    std::istringstream in(StemlibFuzz::text(data, size));
    while (in) {
        const ArmsAction before(true, ArmPosition::Up, LogicalOperation::Or, ArmPosition::Down, 7);
        ArmsAction action = before;
        if (!action.deserialize(in)) {
            check(action == before, "a refused text leaves the action unchanged");
            break;
        }
        std::istringstream written(action.serialize());
        ArmsAction copy;
        check(copy.deserialize(written) && copy == action, "the written form reads back equal");
        (void)action.getArmsActionString();
        (void)action.getLocalizedArmsActionString();
    }
    return 0;
}
