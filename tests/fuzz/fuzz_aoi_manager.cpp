// AOIManager's text form, as a configuration holds it: control points, area count, the areas.
// Its own text must read back, to the same areas where pixels survive the trip exactly, and
// the manager must then answer for objects anywhere in and around the picture.
#include "FuzzSupport.h"

#include "AOIManager.h"

#include <sstream>

using namespace Ombrel;
using StemlibFuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    const Resolution view(640, 480);
    AOIManager manager(NAOI);
    std::istringstream in(StemlibFuzz::text(data, size));
    const bool accepted = manager.deserialize(in, view);

    const std::string text = manager.serialize(view);
    AOIManager again(NAOI);
    std::istringstream written(text);
    check(again.deserialize(written, view), "the manager reads its own text");
    bool exact = true;
    for (unsigned int i = 0; i < manager.getNAOIs(); ++i) {
        exact = exact && StemlibFuzz::roundTripsExactly(manager.getAOI(i));
    }
    check(!exact || again == manager, "its own text reads back to the same areas");
    (void)accepted;

    int id = 0;
    for (const FPoint& point :
         {FPoint(-1.0f, -1.0f), FPoint(0.0f, 0.0f), FPoint(100.0f, 200.0f), FPoint(320.0f, 240.0f),
          FPoint(639.5f, 479.5f), FPoint(1e9f, 5.0f)}) {
        const AOIInfo info = manager.add(id++, point);
        check(info.location == manager.getLocation(point), "add answers the location");
    }
    manager.remove(0);
    return 0;
}
