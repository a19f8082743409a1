#include "ArchiveWriter.h"

#include "ArchiveRecord.h"
#include "LoggerWrapper.h"

#include <cmath>
#include <fstream>

namespace PeopleCounting {

using namespace Ombrel;

ArchiveWriter::ArchiveWriter(const std::string& folder, std::time_t runStart)
    : TimedTaskThreadBase("archives", 1), _folder(folder), _runStart(runStart) {}

void ArchiveWriter::setRunStart(std::time_t runStart) {
    std::lock_guard<std::mutex> lock(_mutex);
    _runStart = runStart;
}

void ArchiveWriter::push(const IntervalCounts& counts) {
    std::lock_guard<std::mutex> lock(_mutex);
    _pending.push_back(counts);
}

int ArchiveWriter::recordsWritten() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _recordsWritten;
}

std::string ArchiveWriter::stamp(const IntervalCounts& counts, std::time_t runStart) {
    const std::time_t start =
        runStart + static_cast<std::time_t>(std::llround(counts.index * kIntervalSeconds));
    return ArchiveRecord::timeToString(start, ArchiveRecord::_timeFormat);
}

std::vector<std::string> ArchiveWriter::crowdLines(const IntervalCounts& counts,
                                                   std::time_t runStart) {
    std::vector<std::string> lines;
    const std::string when = stamp(counts, runStart);
    for (int area = 0; area < NAOI; ++area) {
        if (counts.areaActive[static_cast<std::size_t>(area)]) {
            lines.push_back(CrowdCountRecord(when, static_cast<AOILocation>(area), Objects::Person,
                                             counts.arrivals[static_cast<std::size_t>(area)])
                                .serialize());
        }
    }
    return lines;
}

std::vector<std::string> ArchiveWriter::entranceLines(const IntervalCounts& counts,
                                                      std::time_t runStart) {
    std::vector<std::string> lines;
    const std::string when = stamp(counts, runStart);
    for (int entrance = 0; entrance < EntranceManager::MAX_ENTRANCES; ++entrance) {
        const auto at = static_cast<std::size_t>(entrance);
        if (counts.entranceActive[at]) {
            lines.push_back(EntranceActivityRecord(when, static_cast<EntranceLocation>(entrance),
                                                   Objects::Person, counts.entries[at],
                                                   counts.exits[at])
                                .serialize());
        }
    }
    return lines;
}

std::string ArchiveWriter::occupancyLine(const IntervalCounts& counts, std::time_t runStart) {
    return OccupancyObjectRecord(stamp(counts, runStart), Objects::Person, counts.peakInView)
        .serialize();
}

bool ArchiveWriter::writePending() {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_pending.empty()) {
        return true;
    }
    std::ofstream crowd(crowdPath(), std::ios::app);
    std::ofstream entrances(entrancesPath(), std::ios::app);
    std::ofstream occupancy(occupancyPath(), std::ios::app);
    if (!crowd || !entrances || !occupancy) {
        g_stemlibLogger.bareError("ArchiveWriter: cannot open the archives in " + _folder);
        return false;
    }
    int written = 0;
    for (const IntervalCounts& counts : _pending) {
        for (const std::string& line : crowdLines(counts, _runStart)) {
            crowd << line << '\n';
            ++written;
        }
        for (const std::string& line : entranceLines(counts, _runStart)) {
            entrances << line << '\n';
            ++written;
        }
        occupancy << occupancyLine(counts, _runStart) << '\n';
        ++written;
    }
    crowd.flush();
    entrances.flush();
    occupancy.flush();
    if (!crowd || !entrances || !occupancy) {
        g_stemlibLogger.bareError("ArchiveWriter: writing the archives in " + _folder + " failed");
        return false;
    }
    _recordsWritten += written;
    _pending.clear();
    return true;
}

void ArchiveWriter::doTask() {
    writePending();
}

} // namespace PeopleCounting
