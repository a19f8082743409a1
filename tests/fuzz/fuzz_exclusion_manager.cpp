// ExclusionManager's text form: a count, then that many areas. Accepted or not, the manager's own
// text must read back, to the same areas where pixels survive the trip exactly, and boxes and
// points anywhere get an answer.
#include "FuzzSupport.h"

#include "ExclusionManager.h"

#include <sstream>

using namespace Ombrel;
using StemlibFuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    const Resolution view(640, 480);
    ExclusionManager manager;
    std::istringstream in(StemlibFuzz::text(data, size));
    (void)manager.deserialize(in, view);

    const std::string text = manager.serialize(view);
    ExclusionManager again;
    std::istringstream written(text);
    check(again.deserialize(written, view), "the manager reads its own text");
    for (int i = 0; i < ExclusionManager::MAX_EXCLUSIONS; ++i) {
        const Exclusion& area = manager.getExclusion(i);
        check(!StemlibFuzz::roundTripsExactly(area) || again.getExclusion(i) == area,
              "its own text reads back to the same areas");
    }

    for (const FRectangle& box :
         {FRectangle(0.0f, 0.0f, 640.0f, 480.0f), FRectangle(600.0f, 20.0f, 30.0f, 200.0f),
          FRectangle(-5.0f, -5.0f, 1.0f, 1.0f)}) {
        (void)manager.getLocation(box);
        (void)manager.getLocation(box.getBottomMidpoint());
    }
    return 0;
}
