// Archive records: the four line forms, reading back, the field-count rule, the exceptions that
// std::stoi passes to the caller, summary columns and the time helpers.
#include "ArchiveRecord.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <regex>
#include <stdexcept>

using namespace Ombrel;

namespace {

const char* const kStamp = "2025-03-01 12:00:05";

// Sets the time zone for the scope of a test and restores the previous one.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* previous = std::getenv("TZ")) {
            _previous = previous;
            _hadPrevious = true;
        }
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~ScopedTimeZone() {
        if (_hadPrevious) {
            ::setenv("TZ", _previous.c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }

private:
    std::string _previous;
    bool _hadPrevious = false;
};

std::vector<std::unique_ptr<ArchiveRecord>> oneOfEachKind() {
    std::vector<std::unique_ptr<ArchiveRecord>> records;
    records.push_back(std::make_unique<CrowdCountRecord>());
    records.push_back(std::make_unique<EntranceActivityRecord>());
    records.push_back(std::make_unique<OccupancyObjectRecord>());
    records.push_back(std::make_unique<QueueInfoRecord>());
    return records;
}

} // namespace

TEST(ArchiveRecord, LineFormsOfTheFourKinds) {
    const CrowdCountRecord fresh;
    EXPECT_TRUE(std::regex_match(fresh.serialize(),
                                 std::regex(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2},4,100,0)")))
        << fresh.serialize();

    EXPECT_EQ(CrowdCountRecord(kStamp, AOILocation::AOI1, Objects::Person, 7).serialize(),
              "2025-03-01 12:00:05,1,0,7");
    EXPECT_EQ(EntranceActivityRecord(kStamp, EntranceLocation::Entrance2, Objects::Car, 3, -1)
                  .serialize(),
              "2025-03-01 12:00:05,2,2,3,-1");
    EXPECT_EQ(OccupancyObjectRecord(kStamp, Objects::Boat, 12).serialize(),
              "2025-03-01 12:00:05,8,12");
    EXPECT_EQ(QueueInfoRecord(kStamp, 4, 12, 9, 35).serialize(), "2025-03-01 12:00:05,4,12,9,35");
    EXPECT_EQ(EntranceActivityRecord().serialize().substr(19), ",4,100,0,0");
    EXPECT_EQ(OccupancyObjectRecord().serialize().substr(19), ",100,0");
    EXPECT_EQ(QueueInfoRecord().serialize().substr(19), ",0,0,0,0");
}

TEST(ArchiveRecord, EachKindReadsBackItsOwnLine) {
    const CrowdCountRecord crowd(kStamp, AOILocation::Exterior, Objects::Truck, 2147483647);
    const EntranceActivityRecord entrance(kStamp, EntranceLocation::Entrance1, Objects::Bicycle,
                                          -2147483647 - 1, 0);
    const OccupancyObjectRecord occupancy("any text", Objects::Unknown, 5);
    const QueueInfoRecord queue(kStamp, 1, 2, 3, 4);
    const ArchiveRecord* originals[] = {&crowd, &entrance, &occupancy, &queue};

    std::vector<std::unique_ptr<ArchiveRecord>> copies = oneOfEachKind();
    for (std::size_t i = 0; i < copies.size(); ++i) {
        EXPECT_TRUE(copies[i]->deserialize(originals[i]->serialize()));
        EXPECT_EQ(copies[i]->serialize(), originals[i]->serialize());
    }
    EXPECT_EQ(static_cast<CrowdCountRecord&>(*copies[0])._count, 2147483647);
    EXPECT_EQ(copies[2]->_dateTime, "any text") << "the time stamp is taken as it stands";

    CrowdCountRecord lenient;
    EXPECT_TRUE(lenient.deserialize("t, 7,0,12abc"));
    EXPECT_EQ(static_cast<int>(lenient._location), 7) << "enumerations are not checked";
    EXPECT_EQ(lenient._count, 12) << "std::stoi stops at the first non-digit";
}

TEST(ArchiveRecord, AWrongFieldCountIsRefusedAndLeavesTheRecordUnchanged) {
    EXPECT_EQ(ArchiveRecord::stringToFields(""), std::vector<std::string>{""});
    EXPECT_EQ(ArchiveRecord::stringToFields("a,,b,"), (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(ArchiveRecord::stringToFields("no commas"), std::vector<std::string>{"no commas"});

    const CrowdCountRecord crowdBefore(kStamp, AOILocation::AOI2, Objects::Bus, 9);
    CrowdCountRecord crowd = crowdBefore;
    EXPECT_FALSE(crowd.deserialize("2025-03-01 12:00:05,1,0,7,8"));
    EXPECT_FALSE(crowd.deserialize("2025-03-01 12:00:05,1,0,7,")) << "a trailing comma";
    EXPECT_EQ(crowd.serialize(), crowdBefore.serialize());

    EntranceActivityRecord entrance(kStamp, EntranceLocation::Entrance0, Objects::Person, 1, 2);
    EXPECT_FALSE(entrance.deserialize("2025-03-01 12:00:05,1,0,7"));
    EXPECT_EQ(entrance.serialize(), "2025-03-01 12:00:05,0,0,1,2");

    for (const auto& record : oneOfEachKind()) {
        const std::string before = record->serialize();
        EXPECT_FALSE(record->deserialize(""));
        EXPECT_FALSE(record->deserialize(",,,,,,"));
        EXPECT_EQ(record->serialize(), before);
    }
}

TEST(ArchiveRecord, BadNumbersThrowToTheCallerAfterStoringTheFieldsBefore) {
    CrowdCountRecord crowd(kStamp, AOILocation::AOI0, Objects::Person, 1);
    EXPECT_THROW(crowd.deserialize("new,2,x,5"), std::invalid_argument);
    EXPECT_EQ(crowd._dateTime, "new");
    EXPECT_EQ(crowd._location, AOILocation::AOI2);
    EXPECT_EQ(crowd._object, Objects::Person);
    EXPECT_EQ(crowd._count, 1);

    QueueInfoRecord queue;
    EXPECT_THROW(queue.deserialize("t,1,2,99999999999,4"), std::out_of_range);
    EXPECT_EQ(queue._entrants, 2);
    EXPECT_EQ(queue._throughput, 0);

    // Truncated, garbage and binary lines: a refusal or one of the two documented exceptions,
    // never anything else.
    std::mt19937 random(11);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> length(0, 40);
    const char alphabet[] = ",,,,0123456789- \xff\x80";
    for (int i = 0; i < 4000; ++i) {
        std::string line(static_cast<std::size_t>(length(random)), '\0');
        for (char& c : line) {
            c = i % 2 == 0
                    ? static_cast<char>(byte(random))
                    : alphabet[static_cast<std::size_t>(byte(random)) % (sizeof(alphabet) - 1)];
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
    const SummaryEntries crowd =
        CrowdCountRecord(kStamp, AOILocation::AOI0, Objects::Person, 7).getSummaryEntries();
    ASSERT_EQ(crowd.size(), 1u);
    EXPECT_EQ(crowd[0]._dateTime, kStamp);
    EXPECT_EQ(crowd[0]._name, "AOI0_Person");
    EXPECT_EQ(crowd[0]._count, 7);

    CrowdCountRecord odd;
    ASSERT_TRUE(odd.deserialize("t,7,2,1"));
    EXPECT_EQ(odd.getSummaryEntries()[0]._name, "Unknown_Car");

    const SummaryEntries entrance =
        EntranceActivityRecord(kStamp, EntranceLocation::Entrance0, Objects::Person, 4, 3)
            .getSummaryEntries();
    ASSERT_EQ(entrance.size(), 2u);
    EXPECT_EQ(entrance[0]._name, "Entrance0_Entrances_Person");
    EXPECT_EQ(entrance[0]._count, 4);
    EXPECT_EQ(entrance[1]._name, "Entrance0_Exits_Person");
    EXPECT_EQ(entrance[1]._count, 3);
    EXPECT_EQ(entrance[1]._dateTime, kStamp);

    EXPECT_EQ(OccupancyObjectRecord(kStamp, Objects::Car, 2).getSummaryEntries()[0]._name,
              "Occup_Car");
    EXPECT_EQ(OccupancyObjectRecord().getSummaryEntries()[0]._name, "Occup_Unknown");
    EXPECT_TRUE(QueueInfoRecord(kStamp, 1, 2, 3, 4).getSummaryEntries().empty());
}

TEST(ArchiveRecord, TimeHelpersWorkInLocalStandardTime) {
    {
        ScopedTimeZone utc("UTC0");
        EXPECT_EQ(ArchiveRecord::timeToString(0, ArchiveRecord::_timeFormat),
                  "1970-01-01 00:00:00");
        EXPECT_EQ(ArchiveRecord::stringToTime("1970-01-02 00:00:00", ArchiveRecord::_timeFormat),
                  86400);
        EXPECT_EQ(ArchiveRecord::timeToString(86400, "%d.%m.%Y"), "02.01.1970");
    }
    {
        // Central Europe: in summer the round trip gains the hour of daylight saving time.
        ScopedTimeZone cet("CET-1CEST,M3.5.0,M10.5.0/3");
        const std::time_t summer = 1719828000; // 2024-07-01 10:00:00 UTC
        const std::string text = ArchiveRecord::timeToString(summer, ArchiveRecord::_timeFormat);
        EXPECT_EQ(text, "2024-07-01 12:00:00");
        EXPECT_EQ(ArchiveRecord::stringToTime(text, ArchiveRecord::_timeFormat), summer + 3600);
        const std::time_t winter = 1704103200; // 2024-01-01 10:00:00 UTC
        EXPECT_EQ(ArchiveRecord::stringToTime(
                      ArchiveRecord::timeToString(winter, ArchiveRecord::_timeFormat),
                      ArchiveRecord::_timeFormat),
                  winter);
    }

    const std::time_t now = std::time(nullptr);
    const std::time_t parsed = ArchiveRecord::stringToTime(ArchiveRecord::getCurrentDateTime(),
                                                           ArchiveRecord::_timeFormat);
    EXPECT_LE(std::llabs(static_cast<long long>(parsed - now)), 3601LL);

    for (const char* bad :
         {"", "yesterday", "2025-03-01", "2025-03-01 12:00", "2025-13-45 99:99:99", "\xff\x01"}) {
        EXPECT_EQ(ArchiveRecord::stringToTime(bad, ArchiveRecord::_timeFormat), 0) << bad;
    }
    EXPECT_EQ(ArchiveRecord::timeToString(now, std::string(100, 'x')), "")
        << "a result that does not fit in 80 bytes";
    EXPECT_EQ(ArchiveRecord::timeToString(std::numeric_limits<std::time_t>::max(),
                                          ArchiveRecord::_timeFormat),
              "");
}
