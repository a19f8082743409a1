#include "ArchiveRecord.h"

#include "LocalTime.h"

#include <iomanip>
#include <sstream>

namespace Ombrel {

namespace {

std::string joinFields(std::initializer_list<std::string> fields) {
    std::string line;
    bool first = true;
    for (const std::string& field : fields) {
        if (!first) {
            line.push_back(',');
        }
        line += field;
        first = false;
    }
    return line;
}

template <typename Enum>
std::string enumField(Enum value) {
    return std::to_string(static_cast<int>(value));
}

} // namespace

ArchiveRecord::ArchiveRecord() : _dateTime(getCurrentDateTime()) {}

ArchiveRecord::ArchiveRecord(const std::string& dateTime) : _dateTime(dateTime) {}

std::string ArchiveRecord::getCurrentDateTime() {
    return timeToString(std::time(nullptr), _timeFormat);
}

std::string ArchiveRecord::timeToString(std::time_t epochTime, const std::string& timeFormat) {
    return detail::formatLocalTime(epochTime, timeFormat.c_str());
}

std::time_t ArchiveRecord::stringToTime(const std::string& dateTime,
                                        const std::string& timeFormat) {
    std::tm parsed{};
    // A sentinel behind the text: a text that matches the whole format leaves the stream good
    // (standing on the sentinel), while one that ends early fails on it. Without it the standard
    // library reports a complete text and a truncated one alike, as end of input.
    std::istringstream stream(dateTime + '\x01');
    stream >> std::get_time(&parsed, timeFormat.c_str());
    if (!stream.good()) {
        return 0;
    }
    parsed.tm_isdst = 0;
    return std::mktime(&parsed);
}

std::vector<std::string> ArchiveRecord::stringToFields(const std::string& serializedRecord) {
    std::vector<std::string> fields;
    std::istringstream stream(serializedRecord);
    while (stream.good()) {
        std::string field;
        std::getline(stream, field, ',');
        fields.push_back(std::move(field));
    }
    return fields;
}

CrowdCountRecord::CrowdCountRecord(const std::string& dateTime, AOILocation location,
                                   Objects object, int count)
    : ArchiveRecord(dateTime), _location(location), _object(object), _count(count) {}

std::string CrowdCountRecord::serialize() const {
    return joinFields(
        {_dateTime, enumField(_location), enumField(_object), std::to_string(_count)});
}

bool CrowdCountRecord::deserialize(const std::string& line) {
    const std::vector<std::string> fields = stringToFields(line);
    if (fields.size() != 4) {
        return false;
    }
    _dateTime = fields[0];
    _location = static_cast<AOILocation>(std::stoi(fields[1]));
    _object = static_cast<Objects>(std::stoi(fields[2]));
    _count = std::stoi(fields[3]);
    return true;
}

SummaryEntries CrowdCountRecord::getSummaryEntries() const {
    return {SummaryEntry(_dateTime, toString(_location) + "_" + toString(_object), _count)};
}

EntranceActivityRecord::EntranceActivityRecord(const std::string& dateTime,
                                               EntranceLocation location, Objects object,
                                               int entranceCount, int exitCount)
    : ArchiveRecord(dateTime), _location(location), _object(object), _entranceCount(entranceCount),
      _exitCount(exitCount) {}

std::string EntranceActivityRecord::serialize() const {
    return joinFields({_dateTime, enumField(_location), enumField(_object),
                       std::to_string(_entranceCount), std::to_string(_exitCount)});
}

bool EntranceActivityRecord::deserialize(const std::string& line) {
    const std::vector<std::string> fields = stringToFields(line);
    if (fields.size() != 5) {
        return false;
    }
    _dateTime = fields[0];
    _location = static_cast<EntranceLocation>(std::stoi(fields[1]));
    _object = static_cast<Objects>(std::stoi(fields[2]));
    _entranceCount = std::stoi(fields[3]);
    _exitCount = std::stoi(fields[4]);
    return true;
}

SummaryEntries EntranceActivityRecord::getSummaryEntries() const {
    return {
        SummaryEntry(_dateTime, toString(_location) + "_Entrances_" + toString(_object),
                     _entranceCount),
        SummaryEntry(_dateTime, toString(_location) + "_Exits_" + toString(_object), _exitCount)};
}

OccupancyObjectRecord::OccupancyObjectRecord(const std::string& dateTime, Objects object, int count)
    : ArchiveRecord(dateTime), _object(object), _count(count) {}

std::string OccupancyObjectRecord::serialize() const {
    return joinFields({_dateTime, enumField(_object), std::to_string(_count)});
}

bool OccupancyObjectRecord::deserialize(const std::string& line) {
    const std::vector<std::string> fields = stringToFields(line);
    if (fields.size() != 3) {
        return false;
    }
    _dateTime = fields[0];
    _object = static_cast<Objects>(std::stoi(fields[1]));
    _count = std::stoi(fields[2]);
    return true;
}

SummaryEntries OccupancyObjectRecord::getSummaryEntries() const {
    return {SummaryEntry(_dateTime, std::string("Occup") + "_" + toString(_object), _count)};
}

QueueInfoRecord::QueueInfoRecord(const std::string& dateTime, int queueLength, int entrants,
                                 int throughput, int averageDuration)
    : ArchiveRecord(dateTime), _queueLength(queueLength), _entrants(entrants),
      _throughput(throughput), _averageDuration(averageDuration) {}

std::string QueueInfoRecord::serialize() const {
    return joinFields({_dateTime, std::to_string(_queueLength), std::to_string(_entrants),
                       std::to_string(_throughput), std::to_string(_averageDuration)});
}

bool QueueInfoRecord::deserialize(const std::string& line) {
    const std::vector<std::string> fields = stringToFields(line);
    if (fields.size() != 5) {
        return false;
    }
    _dateTime = fields[0];
    _queueLength = std::stoi(fields[1]);
    _entrants = std::stoi(fields[2]);
    _throughput = std::stoi(fields[3]);
    _averageDuration = std::stoi(fields[4]);
    return true;
}

SummaryEntries QueueInfoRecord::getSummaryEntries() const {
    return {};
}

} // namespace Ombrel
