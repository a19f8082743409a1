// The marker area rules: the state text, the alert rule and its timing, the data event's cycle,
// the index checks with their exact lines, and the text form with its bound on the area count.
#include "MarkersManager.h"

#include "LogLines.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <sstream>

using namespace Ombrel;
using namespace StemlibTest;
using std::chrono::milliseconds;

namespace {

ArucoDetections markers(const std::vector<int>& ids) {
    ArucoDetections detections;
    for (const int id : ids) {
        ArucoDetection detection;
        detection.id = id;
        detection.corners = FPolygon(0, 0, 10, 0, 10, 10, 0, 10);
        detections.push_back(detection);
    }
    return detections;
}

// A manager of nAreas read from text: every area active with the given rule and an empty
// polygon, then dataDuration and dictionary size 6.
MarkersManager managerWith(int nAreas, ComparisonOperation operation, int threshold,
                           int durationSeconds, int dataDuration) {
    std::ostringstream text;
    text << nAreas << '\n';
    for (int i = 0; i < nAreas; ++i) {
        text << "1 " << i << ' ' << static_cast<int>(operation) << ' ' << threshold << ' '
             << durationSeconds << " 0 \n";
    }
    text << dataDuration << " 6\n";
    MarkersManager manager(nAreas);
    manager.deserialize(text.str(), Resolution(640, 480));
    return manager;
}

} // namespace

TEST(MarkersManager, StateTextIsTheSortedNumbersOrEmpty) {
    const std::vector<std::pair<std::vector<int>, std::string>> cases = {
        {{12, 3}, "3,12"}, {{3, 12}, "3,12"},    {{}, "empty"},
        {{10, 9}, "9,10"}, {{9, 5, 5}, "5,5,9"}, {{0, 999, -1}, "-1,0,999"},
    };
    MarkersManager manager(1);
    for (const auto& [ids, state] : cases) {
        MarkersDataInfo info;
        info.setDataEventSent();
        info.updateDetections(markers(ids));
        EXPECT_EQ(info.getState(), state);
        EXPECT_FALSE(info.isDataEventSent());
        EXPECT_LE(std::chrono::steady_clock::now() - info.getTime(), milliseconds(100));

        ASSERT_TRUE(manager.updateDetections(markers(ids), 0));
        EXPECT_EQ(manager.getDataEventState(0), state);
    }

    // The same state keeps its time and its sent flag; another one restarts both.
    MarkersDataInfo info;
    EXPECT_EQ(info.getState(), "");
    EXPECT_EQ(info.getTime(), TimePoint());
    info.updateFromState("3,12");
    const TimePoint past = std::chrono::steady_clock::now() - milliseconds(5000);
    info.setTime(past);
    info.setDataEventSent();
    info.updateFromState("3,12");
    EXPECT_EQ(info.getTime(), past);
    EXPECT_TRUE(info.isDataEventSent());
    info.updateFromState("3,12,40");
    EXPECT_GT(info.getTime(), past);
    EXPECT_FALSE(info.isDataEventSent());
}

TEST(MarkersManager, AlertRuleComparesTheCountAndWaitsWholeSeconds) {
    struct Case {
        ComparisonOperation operation;
        int threshold;
        int count;
        bool satisfied;
    };
    const std::vector<Case> cases = {
        {ComparisonOperation::LessThan, 1, 0, true}, {ComparisonOperation::LessThan, 1, 1, false},
        {ComparisonOperation::Equal, 2, 2, true},    {ComparisonOperation::Equal, 2, 3, false},
        {ComparisonOperation::AtLeast, 1, 0, false}, {ComparisonOperation::AtLeast, 1, 1, true},
        {ComparisonOperation::AtLeast, 2, 5, true},
    };
    for (const Case& c : cases) {
        const MarkersAreaAlertInfo info(true, 0, c.operation, c.threshold, 0, IPolygon());
        EXPECT_EQ(info.doesCountSatisfyCondition(c.count), c.satisfied)
            << static_cast<int>(c.operation) << " " << c.threshold << " " << c.count;
    }
    // An operation read from text that is none of the three logs on every call.
    for (const int operation : {100, 7}) {
        RecordingLogger logger;
        ScopedLogger scope(logger);
        MarkersAreaAlertInfo info;
        info.deserialize("1 0 " + std::to_string(operation) + " 1 0 0 ", Resolution(640, 480));
        EXPECT_FALSE(info.doesCountSatisfyCondition(1));
        EXPECT_FALSE(info.updateDetections(markers({1})) && info.isAlertConditionSatisfied());
        const std::string line = "doesCountSatisfyCondition: Invalid comparison operation (" +
                                 std::to_string(operation) + "). Returning false.";
        EXPECT_EQ(linesAt(logger, "error"), (std::vector<std::string>{line, line}));
    }

    // With 0 seconds the alert is immediate; an empty area satisfies "fewer than 1" from the
    // first update with no markers.
    MarkersManager immediate = managerWith(2, ComparisonOperation::LessThan, 1, 0, 1);
    EXPECT_FALSE(immediate.isAlertConditionSatisfied(0));
    immediate.updateDetections(markers({}), 0);
    EXPECT_TRUE(immediate.isAlertConditionSatisfied(0));
    immediate.updateDetections(markers({4}), 0);
    EXPECT_FALSE(immediate.isAlertConditionSatisfied(0));

    // With 2 seconds: 1999 ms is still 1 whole second, 2000 ms alerts. Further satisfying
    // updates keep the start time; one failing frame resets it.
    MarkersAreaAlertInfo info(true, 0, ComparisonOperation::AtLeast, 1, 2, IPolygon());
    EXPECT_TRUE(info.updateDetections(markers({}))); // the result is always true
    EXPECT_FALSE(info.isSatisfied);
    info.updateDetections(markers({8}));
    EXPECT_TRUE(info.isSatisfied);
    EXPECT_FALSE(info.isAlertConditionSatisfied());
    info.satisfiedStartTime = std::chrono::steady_clock::now() - milliseconds(1999);
    EXPECT_FALSE(info.isAlertConditionSatisfied());
    info.satisfiedStartTime -= milliseconds(1);
    EXPECT_TRUE(info.isAlertConditionSatisfied());
    const TimePoint start = info.satisfiedStartTime;
    info.updateDetections(markers({8, 9}));
    EXPECT_EQ(info.satisfiedStartTime, start);
    EXPECT_TRUE(info.isAlertConditionSatisfied());
    EXPECT_EQ(info.getDetections().size(), 2u);
    info.updateDetections(markers({}));
    EXPECT_FALSE(info.isAlertConditionSatisfied());
    EXPECT_TRUE(info.getDetections().empty());
    info.updateDetections(markers({8}));
    EXPECT_FALSE(info.isAlertConditionSatisfied());
    EXPECT_GT(info.satisfiedStartTime, start);
}

TEST(MarkersManager, EachStableStateGivesOneDataEvent) {
    // Before any update the state is empty text with the clock's epoch as its time: it reads as
    // ready, which is why an application updates before it asks.
    MarkersManager fresh(2);
    EXPECT_TRUE(fresh.isDataConditionSatisfied(1));
    EXPECT_EQ(fresh.getDataEventState(1), "");

    // dataDuration 1: a state just set is not ready, and a state that changes on every frame
    // never becomes ready.
    MarkersManager waiting = managerWith(1, ComparisonOperation::AtLeast, 1, 0, 1);
    for (int frame = 0; frame < 6; ++frame) {
        waiting.updateDetections(markers(frame % 2 == 0 ? std::vector<int>{3} : std::vector<int>{}),
                                 0);
        EXPECT_FALSE(waiting.isDataConditionSatisfied(0));
    }

    // dataDuration 0: ready at once, quiet once sent while the set stays (whatever OpenCV's
    // order), and ready again after each change: 3, empty, 3.
    MarkersManager manager = managerWith(1, ComparisonOperation::AtLeast, 1, 0, 0);
    manager.updateDetections(markers({12, 3}), 0);
    EXPECT_TRUE(manager.isDataConditionSatisfied(0));
    EXPECT_EQ(manager.getDataEventState(0), "3,12");
    manager.setDataEventSent(0);
    EXPECT_FALSE(manager.isDataConditionSatisfied(0));
    manager.updateDetections(markers({3, 12}), 0);
    EXPECT_FALSE(manager.isDataConditionSatisfied(0));
    for (const auto& [ids, state] : std::vector<std::pair<std::vector<int>, std::string>>{
             {{3}, "3"}, {{}, "empty"}, {{3}, "3"}}) {
        manager.updateDetections(markers(ids), 0);
        EXPECT_TRUE(manager.isDataConditionSatisfied(0)) << state;
        EXPECT_EQ(manager.getDataEventState(0), state);
        manager.setDataEventSent(0);
        EXPECT_FALSE(manager.isDataConditionSatisfied(0));
    }
}

TEST(MarkersManager, BadIndicesLogTheirLineAndAnswerNeutrally) {
    MarkersManager manager = managerWith(2, ComparisonOperation::AtLeast, 1, 0, 0);
    manager.updateDetections(markers({5}), 1);
    manager.setDataEventSent(1);

    struct Case {
        std::string operation;
        std::function<bool(int)> call; // true when the answer is the neutral one
        std::string tail;
    };
    const std::vector<Case> cases = {
        {"isActive", [&](int i) { return !manager.isActive(i); }, ") specified. Returning false."},
        {"isAlertConditionSatisfied", [&](int i) { return !manager.isAlertConditionSatisfied(i); },
         ") specified. Returning false."},
        {"isDataConditionSatisfied", [&](int i) { return !manager.isDataConditionSatisfied(i); },
         ") specified. Returning false."},
        {"setDataEventSent",
         [&](int i) {
             manager.setDataEventSent(i);
             return true;
         },
         ") specified. Doing nothing."},
        {"getDataEventState", [&](int i) { return manager.getDataEventState(i).empty(); },
         ") specified. Returning empty state."},
        {"getPolygon", [&](int i) { return manager.getPolygon(i).getNPoints() == 0; },
         ") specified. Returning empty polygon."},
        {"updateDetections", [&](int i) { return !manager.updateDetections(markers({9}), i); },
         ") specified. Returning false."},
    };
    for (const Case& c : cases) {
        for (const int index : {-1, 2}) {
            RecordingLogger logger;
            ScopedLogger scope(logger);
            EXPECT_TRUE(c.call(index)) << c.operation << " " << index;
            EXPECT_EQ(linesAt(logger, "error"),
                      std::vector<std::string>{c.operation + ": Invalid areaAlertInfoIndex (" +
                                               std::to_string(index) + c.tail});
        }
    }
    // Nothing changed: area 1 still holds 5, sent; area 0 was never updated.
    EXPECT_EQ(manager.getDataEventState(1), "5");
    EXPECT_FALSE(manager.isDataConditionSatisfied(1));
    EXPECT_TRUE(manager.isAlertConditionSatisfied(1));
    EXPECT_EQ(manager.getDataEventState(0), "");
    EXPECT_FALSE(manager.isAlertConditionSatisfied(0));
}

TEST(MarkersManager, TextFormRoundTripsTheConfigurationAndBoundsTheAreaCount) {
    const Resolution view(640, 480);
    MarkersManager fresh(3);
    EXPECT_EQ(fresh.serialize(view), "3\n1 0 2 1 1 0 \n0 1 2 1 1 0 \n0 2 2 1 1 0 \n1 6\n");
    EXPECT_TRUE(fresh.isActive(0));
    EXPECT_FALSE(fresh.isActive(2));
    EXPECT_EQ(fresh.getDictionarySize(), 6);
    EXPECT_EQ(MarkersManager(-2).getNumberOfAreaAlertInfos(), 0);

    // Area 1 has too few values on its line: it keeps what it cannot read, and the next line
    // is not eaten.
    const std::string text = "3\n"
                             "1 0 0 3 10 4 0.1 0.2 0.5 0.2 0.5 0.6 0.1 0.6 \n"
                             "1 5\n"
                             "1 2 1 2 0 3 0.25 0.25 0.75 0.25 0.5 0.75 \n"
                             "30 5\n";
    MarkersManager manager(3);
    manager.deserialize(text, view);
    EXPECT_EQ(manager.getPolygon(0), IPolygon(64, 96, 320, 96, 320, 288, 64, 288));
    EXPECT_EQ(manager.getPolygon(2), IPolygon(160, 120, 480, 120, 320, 360));
    EXPECT_EQ(manager.getDataDuration(), 30);
    EXPECT_EQ(manager.getDictionarySize(), 5);

    // Through text again at the same resolution: the same configuration, no run-time state.
    manager.updateDetections(markers({1, 2, 3}), 0);
    const std::string stored = manager.serialize(view);
    EXPECT_EQ(stored, "3\n"
                      "1 0 0 3 10 4 0.1 0.2 0.5 0.2 0.5 0.6 0.1 0.6 \n"
                      "1 5 2 1 1 0 \n"
                      "1 2 1 2 0 3 0.25 0.25 0.75 0.25 0.5 0.75 \n"
                      "30 5\n");
    MarkersManager reloaded(3);
    reloaded.deserialize(stored, view);
    EXPECT_EQ(reloaded.serialize(view), stored);
    EXPECT_FALSE(reloaded.isAlertConditionSatisfied(0));
    EXPECT_EQ(reloaded.getDataEventState(0), "");

    // More areas than the manager has: its own are read, the surplus lines skipped with one
    // error line, and the closing numbers still read.
    {
        RecordingLogger logger;
        ScopedLogger scope(logger);
        MarkersManager two(2);
        two.deserialize("4\n1 0 2 1 0 0 \n1 1 1 3 0 0 \n1 2 0 9 9 0 \n1 3 0 9 9 0 \n2 7\n", view);
        EXPECT_EQ(two.serialize(view), "2\n1 0 2 1 0 0 \n1 1 1 3 0 0 \n2 7\n");
        EXPECT_EQ(linesAt(logger, "error"),
                  std::vector<std::string>{"deserialize: Invalid number of areas (4) specified. "
                                           "Reading the first 2 and skipping the rest."});
    }
    // A negative count reads no area; a count far beyond the text ends with the text.
    {
        RecordingLogger logger;
        ScopedLogger scope(logger);
        MarkersManager two(2);
        two.deserialize("-1\n4 5\n", view);
        EXPECT_EQ(two.serialize(view), "2\n1 0 2 1 1 0 \n0 1 2 1 1 0 \n4 5\n");
        EXPECT_EQ(linesAt(logger, "error"),
                  std::vector<std::string>{
                      "deserialize: Invalid number of areas (-1) specified. Reading no area."});
        std::istringstream huge("2147483647\n1 0 1 0 0 0 \n");
        two.deserialize(huge, view);
        EXPECT_TRUE(huge.fail());
        EXPECT_EQ(two.begin()->getComparisonOperation(), ComparisonOperation::Equal);
    }
}
