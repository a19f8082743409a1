// The log file and the reporting facade: format, batching, purging, reading back, the lossy
// reader, the system-log twin, both routes of library lines, and logging from several threads.
#include "Logger.h"
#include "Points.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"
#include "ScratchDirectory.h"
#include "SyslogCapture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <thread>

using namespace Ombrel;
using StemlibTest::readWholeFile;
using Lines = std::vector<std::string>;

namespace {

const std::string kTenLines = "aaaaaaaaa\nbbbbbbbbb\nccccccccc\nddddddddd\neeeeeeeee\n"
                              "fffffffff\nggggggggg\nhhhhhhhhh\niiiiiiiii\njjjjjjjjj\n";

// Sends message through each of the facade's six operations in turn.
void logEverywhere(const std::string& message) {
    for (auto operation :
         {&LoggerWrapper::info, &LoggerWrapper::warning, &LoggerWrapper::error,
          &LoggerWrapper::bareInfo, &LoggerWrapper::bareWarning, &LoggerWrapper::bareError}) {
        (g_stemlibLogger.*operation)(message);
    }
}

// Each system-log record as "<priority> <format> <message>".
Lines syslogLines(const StemlibTest::SyslogCapture& capture) {
    Lines lines;
    for (const StemlibTest::SyslogRecord& record : capture.records()) {
        lines.push_back(std::to_string(record.priority) + " " + record.format + " " +
                        record.message);
    }
    return lines;
}

class LoggerTest : public ::testing::Test {
protected:
    // The file's lines without the 19 characters of their time stamp; shorter lines, written by
    // the test itself, stay whole.
    Lines fileLines() const {
        Lines lines;
        std::istringstream stream(readWholeFile(path));
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line.size() < 19 ? line : line.substr(19));
        }
        return lines;
    }

    StemlibTest::ScratchDirectory dir;
    const std::string path = dir.file("app.log");
};

} // namespace

TEST_F(LoggerTest, BatchesInfoAndWritesFourBarSeparatedFieldsBetweenStartAndStopLines) {
    {
        Logger logger("care", path);
        EXPECT_EQ(fileLines(), Lines{"|care|warning|STARTING care"}) << "written at once";
        logger.info("one");
        logger.info("two|x");
        EXPECT_EQ(fileLines().size(), 1u) << "info waits in memory";
        logger.warning("three");
        EXPECT_EQ(fileLines().size(), 4u) << "warning writes everything waiting, in order";
        StemlibTest::ScopedLogger scope(logger); // library lines, with their prefix
        g_stemlibLogger.error("f: 50% %s");
    }
    EXPECT_EQ(fileLines(),
              (Lines{"|care|warning|STARTING care", "|care|info|one", "|care|info|two|x",
                     "|care|warning|three", "|care|error|STEMLIB::f: 50% %s",
                     "|care|warning|STOPPING care"}));
    EXPECT_TRUE(std::regex_search(readWholeFile(path),
                                  std::regex(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\|)")));
    std::filesystem::remove(path);
    Logger logger("app", path);
    for (int i = 0; i <= 100; ++i) {
        EXPECT_EQ(fileLines().size(), 1u);
        logger.info("line " + std::to_string(i));
    }
    const Lines lines = fileLines();
    ASSERT_EQ(lines.size(), 102u) << "the 101st waiting entry flushes all";
    EXPECT_EQ(lines[1] + lines[101], "|app|info|line 0|app|info|line 100");
}

TEST_F(LoggerTest, ReadsBackThroughTheLossyReader) {
    Logger logger("app", path);
    logger.info("first|second|third");
    EXPECT_EQ(logger.getLogEntriesFromFile().size(), 1u) << "does not flush";
    const LogEntries entries = logger.getLogEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1], LogEntry(entries[1]._dateTime, "app", "info", "third"));
    EXPECT_EQ(logger.getPlainLogContents().substr(entries[0].serialize().size() + 1),
              entries[1]._dateTime + " app info third\n");
    logger.clear();
    EXPECT_TRUE(logger.getLogEntries().empty());
    std::filesystem::remove(path);
    EXPECT_TRUE(logger.getLogFileSize() < 0 && logger.getLogEntriesFromFile().empty());
    logger.flush();
    EXPECT_EQ(logger.getLogFileSize(), 0) << "a flush creates the file, also with nothing waiting";

    // Fields up to the third bar, the message behind the last one, the line consumed, any
    // bytes accepted; fewer bars leave fields empty.
    std::string line("\0\xff|\x01\n|\x80|m1|\0rest", 16);
    LogEntry entry;
    entry.deserialize(line);
    EXPECT_TRUE(line.empty());
    EXPECT_EQ(entry,
              LogEntry(std::string("\0\xff", 2), "\x01\n", "\x80", std::string("\0rest", 5)));
    LogEntry damaged;
    damaged.deserialize("date|rest");
    EXPECT_EQ(damaged, LogEntry("date", "", "", "rest"));
}

TEST_F(LoggerTest, PurgesAtTheUpperLimitKeepingTheLinesThatCrossTheLowerOne) {
    Logger logger("app", path);
    const auto purgeOnce = [&](int minSize, int maxSize, const std::string& contents) {
        logger.clear();
        logger.setSizeLimits(minSize, maxSize);
        StemlibTest::writeWholeFile(path, contents);
        logger.flush();
        return readWholeFile(path);
    };
    EXPECT_EQ(purgeOnce(36, 100, kTenLines.substr(1)), kTenLines.substr(1)) << "99 < 100";
    // 100 bytes: the last five lines (45 characters without newlines) are the first to exceed
    // 36, and are kept. The two report lines wait in memory and arrive with the next flush.
    purgeOnce(36, 100, kTenLines);
    logger.setSizeLimits(36, 1000);
    logger.flush();
    EXPECT_EQ(fileLines(), (Lines{"fffffffff", "ggggggggg", "hhhhhhhhh", "iiiiiiiii", "jjjjjjjjj",
                                  "|app|info|Purging log file. Initial log file size=100 bytes.",
                                  "|app|info|Purging log file. Final log file size=50 bytes."}));
    EXPECT_EQ(purgeOnce(1000, 100, kTenLines), "jjjjjjjjj\n") << "nothing crosses: last line";
    EXPECT_EQ(purgeOnce(-1, 10, "first line\nlast line"), "last line\n") << "-1 is a huge limit";
    // A last line longer than the upper limit cannot shrink, so every flush purges again; the
    // second time the line before it carries the sum across and is kept as well.
    const std::string longLine = std::string(30, 'x') + "\n";
    EXPECT_EQ(purgeOnce(5, 10, longLine), longLine);
    logger.flush();
    EXPECT_EQ(fileLines(), (Lines{"|app|info|Purging log file. Initial log file size=31 bytes.",
                                  "|app|info|Purging log file. Final log file size=31 bytes."}));
}

TEST_F(LoggerTest, FileProblemsLoseEntriesSilentlyAndSysloggingLoggersSendDataToo) {
    StemlibTest::SyslogCapture capture;
    for (const std::string& bad : {dir.file("missing/dir/app.log"), dir.path().string()}) {
        Logger logger("app", bad);
        logger.error("lost");
        EXPECT_LT(logger.getLogFileSize(), 0) << bad;
        EXPECT_EQ(logger.getSerializedLogContents(), "");
        logger.clear();
    }
    EXPECT_TRUE(capture.records().empty()) << "the logger reports nothing of its own";

    const std::string m = "100%% done %s %n";
    {
        SysloggingLogger logger("app", path);
        logger.info(m);
        logger.warning("w " + m);
        logger.error("e " + m);
    }
    EXPECT_EQ(syslogLines(capture), (Lines{"6 %s " + m, "4 %s w " + m, "3 %s e " + m}))
        << "STARTING and STOPPING reach the file only";
    EXPECT_EQ(fileLines(),
              (Lines{"|app|warning|STARTING app", "|app|info|" + m, "|app|warning|w " + m,
                     "|app|error|e " + m, "|app|warning|STOPPING app"}));
}

TEST_F(LoggerTest, ThreeThreadsLogConcurrentlyAndEveryLineArrivesWholeAndOnce) {
    const auto message = [](int t, int i) {
        return std::to_string(t) + " " + std::to_string(i) + std::string(40, 'a' + t);
    };
    Logger logger("app", path);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 1500; ++i) {
                if (i % 251 == 0) {
                    logger.getLogEntries(); // reading back while others write
                }
                i % 97 == 0 ? logger.warning(message(t, i)) : logger.info(message(t, i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<int> next(3, 0); // each thread's lines arrive whole, once and in order
    for (const LogEntry& entry : logger.getLogEntries()) {
        const auto t = static_cast<std::size_t>(entry._message[0] - '0'); // STARTING aside
        if (t < 3) {
            EXPECT_EQ(entry._message, message(static_cast<int>(t), next[t]++));
        }
    }
    EXPECT_EQ(next, std::vector<int>(3, 1500));
}

TEST(LoggerWrapper, BothRoutesWithTheirPrefixesPrioritiesAndMessagesAsData) {
    // No logger set: the system log, priorities 6, 4, 3, the message as the argument of "%s".
    StemlibTest::resetStemlibLogger();
    StemlibTest::SyslogCapture capture;
    const std::string m = "100%% done %s %n";
    logEverywhere(m);
    EXPECT_EQ(syslogLines(capture),
              (Lines{"6 %s STEMLIB*::" + m, "4 %s STEMLIB*::" + m, "3 %s STEMLIB*::" + m,
                     "6 %s " + m, "4 %s " + m, "3 %s " + m}));
    // A logger set: it gets every line, and the system log none.
    StemlibTest::RecordingLogger recorder;
    {
        StemlibTest::ScopedLogger scope(recorder);
        logEverywhere("f: x");
    }
    Lines lines;
    for (const StemlibTest::LoggedLine& line : recorder.lines) {
        lines.push_back(line.level + " " + line.message);
    }
    EXPECT_EQ(lines, (Lines{"info STEMLIB::f: x", "warning STEMLIB::f: x", "error STEMLIB::f: x",
                            "info f: x", "warning f: x", "error f: x"}));
    EXPECT_EQ(capture.records().size(), 6u);
}
