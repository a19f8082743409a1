// GeometryManager's areas as a configuration holds them: in the text form of FActivablePolygon,
// three areas of interest, the queue, the cashier, three exclusions and three entrances, each
// denormalized to the picture. Points and boxes anywhere then get a location.
#include "FuzzSupport.h"

#include "GeometryManager.h"

#include <sstream>

using namespace Ombrel;
using StemlibFuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    const Resolution view(640, 480);
    std::istringstream in(StemlibFuzz::text(data, size));
    GeometryManager manager;
    const auto next = [&in, &view] {
        FActivablePolygon area;
        in >> area;
        return denormalize(area, view);
    };
    for (int i = 0; i < GeometryManager::MAX_AOIS; ++i) {
        const IActivablePolygon area = next();
        check(manager.setAOI(i, area.isActive(), area), "every area index is taken");
    }
    const IActivablePolygon queue = next();
    check(manager.setQueue(0, queue.isActive(), queue), "the queue is taken");
    const IActivablePolygon cashier = next();
    check(manager.setCashier(0, cashier.isActive(), cashier), "the cashier is taken");
    for (int i = 0; i < GeometryManager::MAX_EXCLUSIONS; ++i) {
        const IActivablePolygon area = next();
        check(manager.setExclusion(i, area.isActive(), area), "every exclusion index is taken");
    }
    for (int i = 0; i < GeometryManager::MAX_ENTRANCES; ++i) {
        const IActivablePolygon area = next();
        check(manager.setEntrance(i, area.isActive(), area), "every entrance index is taken");
    }

    for (int y = -40; y <= 520; y += 80) {
        for (int x = -40; x <= 680; x += 90) {
            const FPoint point(static_cast<float>(x), static_cast<float>(y));
            const Location location = manager.getLocation(point);
            check(location != Location::None, "a point is somewhere");
            (void)manager.getLocation(FRectangle(point.x, point.y, 60.0f, 120.0f));
        }
    }
    return 0;
}
