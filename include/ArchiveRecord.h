// Archive records: counts as one comma-separated text line each, with a time stamp, and their
// breakdown into named summary columns.
//
// Line forms (no blanks, no quoting, no line end; enumerations as integers):
//   CrowdCountRecord        dateTime,location,object,count
//   EntranceActivityRecord  dateTime,location,object,entranceCount,exitCount
//   OccupancyObjectRecord   dateTime,object,count
//   QueueInfoRecord         dateTime,queueLength,entrants,throughput,averageDuration
// For example, 7 persons in AOI1: "2025-03-01 12:00:05,1,0,7".
// The form carries no type tag: which kind a line is follows from the file it stands in, which
// belongs to the application (naming, opening and rotating files is not done here).
//
// Time stamps are local time in the form "%Y-%m-%d %H:%M:%S". Records are values without
// locks; the time helpers use the re-entrant localtime_r and may be called from any thread.
#pragma once

#include "Location.h"

#include <ctime>
#include <string>
#include <vector>

namespace Ombrel {

// One named column of a summary table, at the record's time.
struct SummaryEntry {
    std::string _dateTime;
    std::string _name;
    int _count = 0;

    SummaryEntry() = default;
    SummaryEntry(const std::string& dateTime, const std::string& name, int count)
        : _dateTime(dateTime), _name(name), _count(count) {}
};

using SummaryEntries = std::vector<SummaryEntry>;

class ArchiveRecord {
public:
    // Constant-initialised, so it is usable from other modules' static initialisers.
    static constexpr char _timeFormat[] = "%Y-%m-%d %H:%M:%S";

    // Stamps the current local time.
    ArchiveRecord();
    // Takes dateTime as it stands, unchecked.
    explicit ArchiveRecord(const std::string& dateTime);
    virtual ~ArchiveRecord() = default;

    // The record's line, as in the table above.
    virtual std::string serialize() const = 0;
    // Reads a line of this kind. With a field count other than this kind's, returns false and
    // leaves the record unchanged. Otherwise the first field becomes the time stamp as it
    // stands, and each further field is converted with std::stoi and stored in order
    // (enumerations unchecked), so " 12abc" reads as 12. A field that holds no number throws
    // std::invalid_argument, one out of int's range std::out_of_range; the exception reaches
    // the caller, with the fields before the bad one already stored.
    virtual bool deserialize(const std::string& line) = 0;
    // The record's named columns, each stamped with the record's time.
    virtual SummaryEntries getSummaryEntries() const = 0;

    // The current time through timeToString with _timeFormat.
    static std::string getCurrentDateTime();
    // Local time formatted with strftime into 80 bytes; empty if the time cannot be converted
    // or the result does not fit.
    static std::string timeToString(std::time_t epochTime, const std::string& timeFormat);
    // Reads dateTime with std::get_time and converts it with mktime as standard time (no
    // daylight saving, so in summer a round trip is off by the zone's shift). 0 if the text does
    // not match the format.
    static std::time_t stringToTime(const std::string& dateTime, const std::string& timeFormat);
    // Splits at every ",", keeping empty fields: "" gives one empty field, and a trailing comma
    // an empty last field.
    static std::vector<std::string> stringToFields(const std::string& serializedRecord);

    std::string _dateTime;
};

// Persons (or other objects) counted in one area of interest.
class CrowdCountRecord : public ArchiveRecord {
public:
    CrowdCountRecord() = default;
    CrowdCountRecord(const std::string& dateTime, AOILocation location, Objects object, int count);

    std::string serialize() const override;
    bool deserialize(const std::string& line) override;
    // One column "<location>_<object>", e.g. AOI0_Person.
    SummaryEntries getSummaryEntries() const override;

    AOILocation _location = AOILocation::Unknown;
    Objects _object = Objects::Unknown;
    int _count = 0;
};

// Entries and exits at one entrance.
class EntranceActivityRecord : public ArchiveRecord {
public:
    EntranceActivityRecord() = default;
    EntranceActivityRecord(const std::string& dateTime, EntranceLocation location, Objects object,
                           int entranceCount, int exitCount);

    std::string serialize() const override;
    bool deserialize(const std::string& line) override;
    // Two columns, "<location>_Entrances_<object>" and "<location>_Exits_<object>".
    SummaryEntries getSummaryEntries() const override;

    EntranceLocation _location = EntranceLocation::Unknown;
    Objects _object = Objects::Unknown;
    int _entranceCount = 0;
    int _exitCount = 0;
};

// Occupancy by object class.
class OccupancyObjectRecord : public ArchiveRecord {
public:
    OccupancyObjectRecord() = default;
    OccupancyObjectRecord(const std::string& dateTime, Objects object, int count);

    std::string serialize() const override;
    bool deserialize(const std::string& line) override;
    // One column "Occup_<object>", e.g. Occup_Car.
    SummaryEntries getSummaryEntries() const override;

    Objects _object = Objects::Unknown;
    int _count = 0;
};

// The state of a queue.
class QueueInfoRecord : public ArchiveRecord {
public:
    QueueInfoRecord() = default;
    QueueInfoRecord(const std::string& dateTime, int queueLength, int entrants, int throughput,
                    int averageDuration);

    std::string serialize() const override;
    bool deserialize(const std::string& line) override;
    // Queue records take no part in the summary: always empty.
    SummaryEntries getSummaryEntries() const override;

    int _queueLength = 0;
    int _entrants = 0;
    int _throughput = 0;
    int _averageDuration = 0;
};

} // namespace Ombrel
