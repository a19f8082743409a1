// Archive records: the four line forms, reading back, the field-count rule, the exceptions that
// std::stoi passes to the caller, summary columns and the time helpers.
#include "ArchiveRecord.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <regex>

using namespace Ombrel;

namespace {

// Each summary column as "name=count", followed by "?" if stamped otherwise than the record.
std::string columns(const ArchiveRecord& record) {
    std::string text;
    for (const SummaryEntry& entry : record.getSummaryEntries()) {
        text += entry._name + "=" + std::to_string(entry._count) +
                (entry._dateTime == record._dateTime ? " " : "? ");
    }
    return text;
}

} // namespace

TEST(ArchiveRecord, LineFormsSummariesReadingBackAndTheFieldCountRule) {
    const std::string t = "2025-03-01 12:00:05";
    const CrowdCountRecord crowd(t, AOILocation::AOI1, Objects::Person, 7);
    const EntranceActivityRecord entrance(t, EntranceLocation::Entrance0, Objects::Car, INT32_MIN,
                                          3);
    const OccupancyObjectRecord occupancy("any text", Objects::Boat, 12);
    const QueueInfoRecord queue(t, 4, 12, 9, 35);
    const ArchiveRecord* originals[] = {&crowd, &entrance, &occupancy, &queue};
    const std::string lines[] = {t + ",1,0,7", t + ",0,2,-2147483648,3", "any text,8,12",
                                 t + ",4,12,9,35"};
    const char* summaries[] = {"AOI1_Person=7 ",
                               "Entrance0_Entrances_Car=-2147483648 Entrance0_Exits_Car=3 ",
                               "Occup_Boat=12 ", ""};
    const char* defaults[] = {",4,100,0", ",4,100,0,0", ",100,0", ",0,0,0,0"};
    CrowdCountRecord c;
    EntranceActivityRecord e;
    OccupancyObjectRecord o;
    QueueInfoRecord q;
    ArchiveRecord* copies[] = {&c, &e, &o, &q};
    for (std::size_t i = 0; i < 4; ++i) {
        const std::string line = originals[i]->serialize(), fresh = copies[i]->serialize();
        EXPECT_EQ(line, lines[i]);
        EXPECT_EQ(columns(*originals[i]), summaries[i]);
        EXPECT_TRUE(
            std::regex_match(fresh.substr(0, 19), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)")));
        EXPECT_EQ(fresh.substr(19), defaults[i]);
        EXPECT_TRUE(copies[i]->deserialize(line));
        // Too few, too many (a trailing comma), empty: refused, the record unchanged.
        for (const std::string& wrong :
             {line.substr(0, line.rfind(',')), line + ",", std::string()}) {
            EXPECT_FALSE(copies[i]->deserialize(wrong)) << wrong;
        }
        EXPECT_EQ(copies[i]->serialize(), line);
    }
    EXPECT_TRUE(c.deserialize("t, 7,0,12abc"));
    EXPECT_EQ(c.serialize() + " " + columns(c), "t,7,0,12 Unknown_Person=12 ")
        << "unchecked enumerations; stoi stops at 'a'";
    EXPECT_EQ(columns(OccupancyObjectRecord()), "Occup_Unknown=0 ");
    EXPECT_EQ(ArchiveRecord::stringToFields("a,,b,"), (std::vector<std::string>{"a", "", "b", ""}));

    // Bad numbers throw to the caller after the fields before them are stored.
    EXPECT_THROW(c.deserialize("new,2,x,5"), std::invalid_argument);
    EXPECT_EQ(c.serialize(), "new,2,0,12");
    EXPECT_THROW(q.deserialize("t,1,2,99999999999,4"), std::out_of_range);
    EXPECT_EQ(q.serialize(), "t,1,2,9,35");
    // Truncated, garbage and binary lines: a refusal or one of the two exceptions, nothing else.
    std::mt19937 random(11);
    const char alphabet[] = ",,,,0123456789- \xff\x80";
    for (int n = 0; n < 4000; ++n) {
        std::string line(random() % 41, '\0');
        for (char& ch : line) {
            ch = n % 2 == 0 ? static_cast<char>(random())
                            : alphabet[random() % (sizeof(alphabet) - 1)];
        }
        for (ArchiveRecord* record : copies) {
            try {
                record->deserialize(line);
            } catch (const std::invalid_argument&) {
            } catch (const std::out_of_range&) {
            }
        }
    }
}

TEST(ArchiveRecord, TimeHelpersWorkInLocalStandardTime) {
    const std::string format = ArchiveRecord::_timeFormat;
    // Central Europe: in summer the round trip through the text gains the hour of daylight
    // saving time, in winter it is exact.
    const bool hadZone = std::getenv("TZ") != nullptr;
    const std::string zone = hadZone ? std::getenv("TZ") : "";
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    ::tzset();
    const std::time_t summer = 1719828000, winter = 1704103200; // 10:00 UTC on 1 July, 1 January
    EXPECT_EQ(ArchiveRecord::timeToString(summer, format), "2024-07-01 12:00:00");
    EXPECT_EQ(ArchiveRecord::stringToTime("2024-07-01 12:00:00", format), summer + 3600);
    EXPECT_EQ(ArchiveRecord::timeToString(winter, "%d.%m.%Y %H"), "01.01.2024 11");
    EXPECT_EQ(ArchiveRecord::stringToTime("2024-01-01 11:00:00", format), winter);
    hadZone ? ::setenv("TZ", zone.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();

    const std::time_t now = std::time(nullptr);
    EXPECT_LE(
        std::abs(ArchiveRecord::stringToTime(ArchiveRecord::getCurrentDateTime(), format) - now),
        3601);
    for (const char* bad : {"", "yesterday", "2025-03-01 12:00", "2025-13-45 99:99:99"}) {
        EXPECT_EQ(ArchiveRecord::stringToTime(bad, format), 0) << bad;
    }
    EXPECT_EQ(ArchiveRecord::timeToString(std::numeric_limits<std::time_t>::max(), format), "");
}
