// The reporting facade: both routes, their prefixes and priorities, and messages as data.
#include "Points.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"
#include "SyslogCapture.h"

#include <gtest/gtest.h>

#include <syslog.h>

using namespace Ombrel;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;
using StemlibTest::SyslogCapture;

TEST(LoggerWrapper, WithoutLoggerLinesGoToSyslogWithStarPrefix) {
    StemlibTest::resetStemlibLogger();
    SyslogCapture capture;
    g_stemlibLogger.info("f: one");
    g_stemlibLogger.warning("f: two");
    g_stemlibLogger.error("f: three");
    g_stemlibLogger.bareInfo("four");
    g_stemlibLogger.bareWarning("five");
    g_stemlibLogger.bareError("six");

    const auto records = capture.records();
    ASSERT_EQ(records.size(), 6u);
    const int priorities[] = {LOG_INFO, LOG_WARNING, LOG_ERR, LOG_INFO, LOG_WARNING, LOG_ERR};
    const char* texts[] = {
        "STEMLIB*::f: one", "STEMLIB*::f: two", "STEMLIB*::f: three", "four", "five", "six"};
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].priority, priorities[i]) << i;
        EXPECT_EQ(records[i].message, texts[i]) << i;
    }
    EXPECT_EQ(LOG_INFO, 6);
    EXPECT_EQ(LOG_WARNING, 4);
    EXPECT_EQ(LOG_ERR, 3);
}

TEST(LoggerWrapper, PercentSignsReachSyslogAsData) {
    StemlibTest::resetStemlibLogger();
    SyslogCapture capture;
    const std::string hostile = "100%% done %s %n";
    g_stemlibLogger.error(hostile);
    g_stemlibLogger.bareWarning(hostile);

    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    for (const auto& record : records) {
        EXPECT_EQ(record.format, "%s");
    }
    EXPECT_EQ(records[0].message, "STEMLIB*::" + hostile);
    EXPECT_EQ(records[1].message, hostile);
}

TEST(LoggerWrapper, WithLoggerLinesGoToItWithPrefixAndNothingToSyslog) {
    RecordingLogger first;
    RecordingLogger second;
    SyslogCapture capture;
    {
        ScopedLogger scope(first);
        g_stemlibLogger.warning("f: w");
        useLogger(second); // replaces the earlier logger
        g_stemlibLogger.info("f: i");
        g_stemlibLogger.error("f: e");
        g_stemlibLogger.bareInfo("app line");
        g_stemlibLogger.bareError("app error");
    }
    ASSERT_EQ(first.lines.size(), 1u);
    EXPECT_EQ(first.lines[0].level, "warning");
    EXPECT_EQ(first.lines[0].message, "STEMLIB::f: w");

    ASSERT_EQ(second.lines.size(), 4u);
    EXPECT_EQ(second.lines[0].level, "info");
    EXPECT_EQ(second.lines[0].message, "STEMLIB::f: i");
    EXPECT_EQ(second.lines[1].level, "error");
    EXPECT_EQ(second.lines[1].message, "STEMLIB::f: e");
    EXPECT_EQ(second.lines[2].message, "app line");
    EXPECT_EQ(second.lines[3].level, "error");
    EXPECT_EQ(second.lines[3].message, "app error");
    EXPECT_TRUE(capture.records().empty());
}
