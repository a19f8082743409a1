// ArchiveWriter: the people counter's archives, written on a thread of their own.
//
// The analysis loop cuts the video into intervals of kIntervalSeconds of video time and hands
// each closed interval's counts to push(). Once a second the writer's thread appends what has
// been handed over to three files in the output folder, one record a line in the library's
// archive forms:
//
//   crowd.csv      CrowdCountRecord       per active area: the people who came into it
//   entrances.csv  EntranceActivityRecord per active entrance: entries and exits
//   occupancy.csv  OccupancyObjectRecord  the most people in view at once
//
// Each record is stamped with the interval's start: the moment the run started plus the
// interval's start in video time, so that a clip played faster than real time is stamped as if
// it had been filmed from the start of the run. Summing a file's counts over its lines gives
// the run's totals, which the summary reports too.
//
// Lifecycle: the thread starts in the constructor. stop() must be called once before
// destruction; it returns once the thread is joined, after which the caller hands over the last
// interval and calls writePending() itself, so that nothing is lost. Threading: push() and
// writePending() take the writer's own lock; files are opened for each write.
#pragma once

#include "CommonStructs.h"
#include "EntranceManager.h"
#include "Tasks.h"

#include <array>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace PeopleCounting {

constexpr double kIntervalSeconds = 10.0;

struct IntervalCounts {
    int index = 0; // interval number from 0: video seconds [10 * index, 10 * index + 10)
    std::array<int, Ombrel::NAOI> arrivals{};
    std::array<bool, Ombrel::NAOI> areaActive{};
    std::array<int, Ombrel::EntranceManager::MAX_ENTRANCES> entries{};
    std::array<int, Ombrel::EntranceManager::MAX_ENTRANCES> exits{};
    std::array<bool, Ombrel::EntranceManager::MAX_ENTRANCES> entranceActive{};
    int peakInView = 0;
};

class ArchiveWriter : public Ombrel::TimedTaskThreadBase {
public:
    ArchiveWriter(const std::string& folder, std::time_t runStart);

    // The moment video time 0 stands for; set before the first interval is handed over.
    void setRunStart(std::time_t runStart);
    void push(const IntervalCounts& counts);
    // Appends every interval handed over so far; false if a file could not be written (the
    // intervals are then kept for the next attempt).
    bool writePending();

    std::string crowdPath() const { return _folder + "/crowd.csv"; }
    std::string entrancesPath() const { return _folder + "/entrances.csv"; }
    std::string occupancyPath() const { return _folder + "/occupancy.csv"; }
    int recordsWritten() const;

    // The record lines of one interval, in the order of the three files.
    static std::vector<std::string> crowdLines(const IntervalCounts& counts, std::time_t runStart);
    static std::vector<std::string> entranceLines(const IntervalCounts& counts,
                                                  std::time_t runStart);
    static std::string occupancyLine(const IntervalCounts& counts, std::time_t runStart);

protected:
    void doTask() override;

private:
    static std::string stamp(const IntervalCounts& counts, std::time_t runStart);

    std::string _folder;
    std::time_t _runStart;
    mutable std::mutex _mutex;
    std::vector<IntervalCounts> _pending;
    int _recordsWritten = 0;
};

} // namespace PeopleCounting
