// The reporting facade: both routes, their prefixes and priorities, and messages as data.
#include "Points.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"
#include "SyslogCapture.h"

#include <gtest/gtest.h>

using namespace Ombrel;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;
using StemlibTest::SyslogCapture;

namespace {

// Sends message through each of the six operations in turn.
void logEverywhere(const std::string& message) {
    g_stemlibLogger.info(message);
    g_stemlibLogger.warning(message);
    g_stemlibLogger.error(message);
    g_stemlibLogger.bareInfo(message);
    g_stemlibLogger.bareWarning(message);
    g_stemlibLogger.bareError(message);
}

const char* const kLevels[] = {"info", "warning", "error", "info", "warning", "error"};

} // namespace

TEST(LoggerWrapper, WithoutALoggerLinesGoToSyslogAsDataWithTheStarPrefix) {
    StemlibTest::resetStemlibLogger();
    SyslogCapture capture;
    const std::string hostile = "100%% done %s %n";
    logEverywhere(hostile);

    const auto records = capture.records();
    ASSERT_EQ(records.size(), 6u);
    const int priorities[] = {6, 4, 3, 6, 4, 3}; // LOG_INFO, LOG_WARNING, LOG_ERR
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].priority, priorities[i]) << i;
        EXPECT_EQ(records[i].format, "%s") << i;
        EXPECT_EQ(records[i].message, (i < 3 ? "STEMLIB*::" : "") + hostile) << i;
    }
}

TEST(LoggerWrapper, WithALoggerLinesGoToTheNewestOneWithThePrefixAndNothingToSyslog) {
    RecordingLogger first;
    RecordingLogger second;
    SyslogCapture capture;
    {
        ScopedLogger scope(first);
        g_stemlibLogger.warning("f: w");
        useLogger(second); // replaces the earlier logger
        logEverywhere("f: x");
    }
    ASSERT_EQ(first.lines.size(), 1u);
    EXPECT_EQ(first.lines[0].message, "STEMLIB::f: w");
    ASSERT_EQ(second.lines.size(), 6u);
    for (std::size_t i = 0; i < second.lines.size(); ++i) {
        EXPECT_EQ(second.lines[i].level, kLevels[i]) << i;
        EXPECT_EQ(second.lines[i].message, i < 3 ? "STEMLIB::f: x" : "f: x") << i;
    }
    EXPECT_TRUE(capture.records().empty());
}
