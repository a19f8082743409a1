// Archive records: the four line forms, reading back, the field-count rule, the exceptions that
// std::stoi passes to the caller, summary columns and the time helpers.
#include "ArchiveRecord.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <regex>
#include <stdexcept>

using namespace Ombrel;

namespace {

const char* const kStamp = "2025-03-01 12:00:05";

std::vector<std::unique_ptr<ArchiveRecord>> oneOfEachKind() {
    std::vector<std::unique_ptr<ArchiveRecord>> records;
    records.push_back(std::make_unique<CrowdCountRecord>());
    records.push_back(std::make_unique<EntranceActivityRecord>());
    records.push_back(std::make_unique<OccupancyObjectRecord>());
    records.push_back(std::make_unique<QueueInfoRecord>());
    return records;
}

// Runs body in the time zone zone, then restores the previous one.
template <typename Body>
void inTimeZone(const char* zone, Body body) {
    const char* previous = std::getenv("TZ");
    const std::string saved = previous != nullptr ? previous : "";
    ::setenv("TZ", zone, 1);
    ::tzset();
    body();
    previous != nullptr ? ::setenv("TZ", saved.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
}

} // namespace

TEST(ArchiveRecord, LineFormsOfTheFourKindsAndTheirDefaults) {
    EXPECT_EQ(CrowdCountRecord(kStamp, AOILocation::AOI1, Objects::Person, 7).serialize(),
              "2025-03-01 12:00:05,1,0,7");
    EXPECT_EQ(EntranceActivityRecord(kStamp, EntranceLocation::Entrance2, Objects::Car, 3, -1)
                  .serialize(),
              "2025-03-01 12:00:05,2,2,3,-1");
    EXPECT_EQ(OccupancyObjectRecord(kStamp, Objects::Boat, 12).serialize(),
              "2025-03-01 12:00:05,8,12");
    EXPECT_EQ(QueueInfoRecord(kStamp, 4, 12, 9, 35).serialize(), "2025-03-01 12:00:05,4,12,9,35");

    const char* defaults[] = {",4,100,0", ",4,100,0,0", ",100,0", ",0,0,0,0"};
    const std::regex stamp(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2},.*)");
    const auto records = oneOfEachKind();
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::string line = records[i]->serialize();
        EXPECT_TRUE(std::regex_match(line, stamp)) << line;
        EXPECT_EQ(line.substr(19), defaults[i]);
    }
}

TEST(ArchiveRecord, EachKindReadsBackItsOwnLineAndRefusesOtherFieldCounts) {
    const CrowdCountRecord crowd(kStamp, AOILocation::Exterior, Objects::Truck, 2147483647);
    const EntranceActivityRecord entrance(kStamp, EntranceLocation::Entrance1, Objects::Bicycle,
                                          -2147483647 - 1, 0);
    const OccupancyObjectRecord occupancy("any text", Objects::Unknown, 5);
    const QueueInfoRecord queue(kStamp, 1, 2, 3, 4);
    const ArchiveRecord* originals[] = {&crowd, &entrance, &occupancy, &queue};
    const auto copies = oneOfEachKind();
    for (std::size_t i = 0; i < copies.size(); ++i) {
        EXPECT_TRUE(copies[i]->deserialize(originals[i]->serialize()));
        EXPECT_EQ(copies[i]->serialize(), originals[i]->serialize());
        // Too few, too many (a trailing comma too), empty: refused, the record unchanged.
        const std::string line = originals[i]->serialize();
        for (const std::string& wrong : {line.substr(0, line.rfind(',')), line + ",1", line + ",",
                                         std::string(), std::string(",,,,,,")}) {
            EXPECT_FALSE(copies[i]->deserialize(wrong)) << wrong;
            EXPECT_EQ(copies[i]->serialize(), line);
        }
    }
    EXPECT_EQ(copies[2]->_dateTime, "any text") << "the time stamp is taken as it stands";

    CrowdCountRecord lenient;
    EXPECT_TRUE(lenient.deserialize("t, 7,0,12abc"));
    EXPECT_EQ(static_cast<int>(lenient._location), 7) << "enumerations are not checked";
    EXPECT_EQ(lenient._count, 12) << "std::stoi stops at the first non-digit";

    EXPECT_EQ(ArchiveRecord::stringToFields(""), std::vector<std::string>{""});
    EXPECT_EQ(ArchiveRecord::stringToFields("a,,b,"), (std::vector<std::string>{"a", "", "b", ""}));
}

TEST(ArchiveRecord, BadNumbersThrowToTheCallerAfterStoringTheFieldsBefore) {
    CrowdCountRecord crowd(kStamp, AOILocation::AOI0, Objects::Person, 1);
    EXPECT_THROW(crowd.deserialize("new,2,x,5"), std::invalid_argument);
    EXPECT_EQ(crowd.serialize(), "new,2,0,1");
    QueueInfoRecord queue;
    EXPECT_THROW(queue.deserialize("t,1,2,99999999999,4"), std::out_of_range);
    EXPECT_EQ(queue.serialize(), "t,1,2,0,0");

    // Truncated, garbage and binary lines: a refusal or one of the two documented exceptions,
    // never anything else.
    std::mt19937 random(11);
    const char alphabet[] = ",,,,0123456789- \xff\x80";
    for (int i = 0; i < 4000; ++i) {
        std::string line(random() % 41, '\0');
        for (char& c : line) {
            c = i % 2 == 0 ? static_cast<char>(random())
                           : alphabet[random() % (sizeof(alphabet) - 1)];
        }
        for (const auto& record : oneOfEachKind()) {
            try {
                record->deserialize(line);
            } catch (const std::invalid_argument&) {
            } catch (const std::out_of_range&) {
            }
        }
    }
}

TEST(ArchiveRecord, SummaryColumns) {
    // "name=count" for each entry; an entry stamped otherwise than its record is marked "?".
    const auto columns = [](const ArchiveRecord& record) {
        std::string text;
        for (const SummaryEntry& entry : record.getSummaryEntries()) {
            text += entry._name + "=" + std::to_string(entry._count) +
                    (entry._dateTime == record._dateTime ? " " : "? ");
        }
        return text;
    };
    EXPECT_EQ(columns(CrowdCountRecord(kStamp, AOILocation::AOI0, Objects::Person, 7)),
              "AOI0_Person=7 ");
    EXPECT_EQ(columns(CrowdCountRecord(kStamp, static_cast<AOILocation>(7), Objects::Car, 1)),
              "Unknown_Car=1 ");
    EXPECT_EQ(
        columns(EntranceActivityRecord(kStamp, EntranceLocation::Entrance0, Objects::Person, 4, 3)),
        "Entrance0_Entrances_Person=4 Entrance0_Exits_Person=3 ");
    EXPECT_EQ(columns(OccupancyObjectRecord(kStamp, Objects::Car, 2)), "Occup_Car=2 ");
    EXPECT_EQ(columns(OccupancyObjectRecord()), "Occup_Unknown=0 ");
    EXPECT_EQ(columns(QueueInfoRecord(kStamp, 1, 2, 3, 4)), "");
}

TEST(ArchiveRecord, TimeHelpersWorkInLocalStandardTime) {
    const std::string format = ArchiveRecord::_timeFormat;
    inTimeZone("UTC0", [&] {
        EXPECT_EQ(ArchiveRecord::timeToString(0, format), "1970-01-01 00:00:00");
        EXPECT_EQ(ArchiveRecord::stringToTime("1970-01-02 00:00:00", format), 86400);
        EXPECT_EQ(ArchiveRecord::timeToString(86400, "%d.%m.%Y"), "02.01.1970");
    });
    // Central Europe: in summer the round trip gains the hour of daylight saving time.
    inTimeZone("CET-1CEST,M3.5.0,M10.5.0/3", [&] {
        const std::time_t summer = 1719828000; // 2024-07-01 10:00:00 UTC
        const std::string text = ArchiveRecord::timeToString(summer, format);
        EXPECT_EQ(text, "2024-07-01 12:00:00");
        EXPECT_EQ(ArchiveRecord::stringToTime(text, format), summer + 3600);
        const std::time_t winter = 1704103200; // 2024-01-01 10:00:00 UTC
        EXPECT_EQ(ArchiveRecord::stringToTime(ArchiveRecord::timeToString(winter, format), format),
                  winter);
    });

    const std::time_t now = std::time(nullptr);
    const std::time_t parsed =
        ArchiveRecord::stringToTime(ArchiveRecord::getCurrentDateTime(), format);
    EXPECT_LE(std::llabs(static_cast<long long>(parsed - now)), 3601LL);
    for (const char* bad :
         {"", "yesterday", "2025-03-01", "2025-03-01 12:00", "2025-13-45 99:99:99", "\xff\x01"}) {
        EXPECT_EQ(ArchiveRecord::stringToTime(bad, format), 0) << bad;
    }
    EXPECT_EQ(ArchiveRecord::timeToString(now, std::string(100, 'x')), "") << "does not fit in 80";
    EXPECT_EQ(ArchiveRecord::timeToString(std::numeric_limits<std::time_t>::max(), format), "");
}
