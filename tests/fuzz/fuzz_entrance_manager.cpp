// The doorways of EntranceManager as a configuration holds them: three areas in the text form of
// FActivablePolygon, then the side of the camera, loaded through loadFromNormalized. Objects then
// walk across the picture.
#include "FuzzSupport.h"

#include "EntranceManager.h"

#include <sstream>

using namespace Ombrel;
using StemlibFuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    const Resolution view(640, 480);
    std::istringstream in(StemlibFuzz::text(data, size));
    FEntrances areas;
    bool cameraInside = false;
    for (FEntrance& area : areas) {
        in >> area;
    }
    in >> cameraInside;

    EntranceManager manager;
    check(manager.loadFromNormalized(areas, view), "loading normalized areas succeeds");
    manager.setCameraInside(cameraInside);
    for (int id = 0; id < 4; ++id) {
        for (int step = 0; step <= 16; ++step) {
            const FPoint point(40.0f * static_cast<float>(step),
                               30.0f * static_cast<float>(id * 4));
            const EntranceLocation where = manager.getLocation(point);
            const EntranceInfo info = manager.add(id, point);
            check(info.activity == EntranceActivity::None || info.location == where,
                  "a crossing answers where the object now is");
        }
        manager.remove(id);
    }
    return 0;
}
