// MarkersManager's text form: an area count, one line per area (flag, index, comparison,
// threshold, seconds, polygon), then the data duration and the dictionary size. Whatever the text,
// the manager's own text must read back to the same configuration where pixels survive the trip
// exactly, and every area must then take a frame's markers and answer both conditions as its
// rule says.
#include "FuzzSupport.h"

#include "MarkersManager.h"

#include <algorithm>
#include <sstream>

using namespace Ombrel;
using StemlibFuzz::check;

namespace {

constexpr int kAreas = 4;

bool sameConfiguration(const MarkersAreaAlertInfo& a, const MarkersAreaAlertInfo& b) {
    return a.isActive() == b.isActive() && a.getAreaIndex() == b.getAreaIndex() &&
           a.getComparisonOperation() == b.getComparisonOperation() &&
           a.getCountThreshold() == b.getCountThreshold() &&
           a.getDurationSeconds() == b.getDurationSeconds() && a.getPolygon() == b.getPolygon();
}

ArucoDetections markers(std::initializer_list<int> ids) {
    ArucoDetections detections;
    for (int id : ids) {
        detections.push_back({id, FPolygon(0.0f, 0.0f, 8.0f, 0.0f, 8.0f, 8.0f, 0.0f, 8.0f)});
    }
    return detections;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    const Resolution view(640, 480);
    MarkersManager manager(kAreas);
    manager.deserialize(StemlibFuzz::text(data, size), view);
    check(manager.getNumberOfAreaAlertInfos() == kAreas, "the number of areas stays");

    const std::string text = manager.serialize(view);
    MarkersManager again(kAreas);
    std::istringstream written(text);
    again.deserialize(written, view);
    check(!written.fail(), "the manager reads its own text");
    check(again.getDataDuration() == manager.getDataDuration() &&
              again.getDictionarySize() == manager.getDictionarySize(),
          "its own text reads back to the same durations and dictionary");
    auto area = manager.begin();
    auto areaAgain = again.begin();
    for (; area != manager.end(); ++area, ++areaAgain) {
        check(!StemlibFuzz::roundTripsExactly(area->getPolygon()) ||
                  sameConfiguration(*area, *areaAgain),
              "its own text reads back to the same areas");
    }

    // One frame per area: the data state is the sorted numbers, and an alert needs the count
    // rule to hold.
    const ArucoDetections frame = markers({12, 3, 3});
    for (int i = 0; i < kAreas; ++i) {
        check(manager.updateDetections(frame, i), "an area takes its detections");
        check(manager.getDataEventState(i) == "3,3,12", "the state is the sorted numbers");
        const MarkersAreaAlertInfo& info = *(manager.begin() + i);
        const bool holds = info.doesCountSatisfyCondition(static_cast<int>(frame.size()));
        check(!manager.isAlertConditionSatisfied(i) || holds, "an alert needs the count rule");
        check(!holds || info.getDurationSeconds() > 0 || manager.isAlertConditionSatisfied(i),
              "a rule of no seconds alerts at once");
        (void)manager.isDataConditionSatisfied(i);
        manager.setDataEventSent(i);
        check(!manager.isDataConditionSatisfied(i), "a sent state does not fire again");
        (void)manager.getPolygon(i);
        (void)manager.isActive(i);
    }
    check(!manager.updateDetections(frame, kAreas), "an index past the areas is refused");
    return 0;
}
