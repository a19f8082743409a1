// The log file: format, batching, purging, reading back, the lossy reader, the system-log twin,
// the library's route into the file, and logging from several threads at once.
#include "Logger.h"
#include "Points.h"
#include "ScopedLogger.h"
#include "ScratchDirectory.h"
#include "SyslogCapture.h"

#include <gtest/gtest.h>

#include <syslog.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <thread>

using namespace Ombrel;
using StemlibTest::readWholeFile;
using StemlibTest::ScratchDirectory;
using StemlibTest::SyslogCapture;
using StemlibTest::writeWholeFile;

namespace {

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        lines.push_back(line);
    }
    return lines;
}

// Ten lines of nine characters each: 100 bytes.
std::string tenLines() {
    std::string text;
    for (char c = 'a'; c < 'a' + 10; ++c) {
        text += std::string(9, c) + "\n";
    }
    return text;
}

} // namespace

TEST(Logger, WritesFourBarSeparatedFieldsWithStartAndStopLines) {
    ScratchDirectory dir;
    const std::string path = dir.file("app.log");
    {
        Logger logger("care", path);
        const std::vector<std::string> afterStart = splitLines(readWholeFile(path));
        ASSERT_EQ(afterStart.size(), 1u);
        const std::regex line(
            R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\|care\|warning\|STARTING care)");
        EXPECT_TRUE(std::regex_match(afterStart[0], line)) << afterStart[0];

        logger.info("one");
        logger.info("two");
        logger.info("three");
        EXPECT_EQ(splitLines(readWholeFile(path)).size(), 1u) << "info waits in memory";
        logger.warning("four");
        logger.error("five");
    }
    const std::vector<std::string> lines = splitLines(readWholeFile(path));
    ASSERT_EQ(lines.size(), 7u);
    const char* expected[] = {
        "warning|STARTING care", "info|one", "info|two", "info|three", "warning|four", "error|five",
        "warning|STOPPING care"};
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].substr(19, 6), "|care|") << lines[i];
        EXPECT_EQ(lines[i].substr(25), expected[i]);
    }
}

TEST(Logger, TheHundredAndFirstWaitingEntryFlushesAll) {
    ScratchDirectory dir;
    const std::string path = dir.file("app.log");
    Logger logger("app", path);
    for (int i = 0; i < 100; ++i) {
        logger.info("line " + std::to_string(i));
    }
    EXPECT_EQ(splitLines(readWholeFile(path)).size(), 1u);
    logger.info("line 100");
    const std::vector<std::string> lines = splitLines(readWholeFile(path));
    ASSERT_EQ(lines.size(), 102u);
    EXPECT_EQ(lines[1].substr(lines[1].rfind('|') + 1), "line 0");
    EXPECT_EQ(lines[101].substr(lines[101].rfind('|') + 1), "line 100");
}

TEST(Logger, ReadsBackEntriesWithTheLossyRule) {
    ScratchDirectory dir;
    const std::string path = dir.file("app.log");
    Logger logger("app", path);
    logger.info("plain");
    logger.info("first|second|third");

    EXPECT_EQ(logger.getLogEntriesFromFile().size(), 1u) << "does not flush";
    const LogEntries entries = logger.getLogEntries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[1]._appName, "app");
    EXPECT_EQ(entries[1]._logLevel, "info");
    EXPECT_EQ(entries[1]._message, "plain");
    EXPECT_EQ(entries[2]._message, "third") << "only the text behind the last bar survives";

    const std::string date = entries[1]._dateTime;
    EXPECT_EQ(logger.getSerializedLogContents(), entries[0].serialize() + "\n" + date +
                                                     "|app|info|plain\n" + entries[2]._dateTime +
                                                     "|app|info|third\n");
    const std::vector<std::string> plain = splitLines(logger.getPlainLogContents());
    ASSERT_EQ(plain.size(), 3u);
    EXPECT_EQ(plain[1], date + " app info plain");

    logger.clear();
    EXPECT_TRUE(logger.getLogEntries().empty());
    EXPECT_EQ(logger.getLogFileSize(), 0);
}

TEST(LogEntry, DeserializeConsumesTheLineAndKeepsOnlyTheLastToken) {
    LogEntry entry;
    std::string line = "d|a|l|m1|m2|tail";
    entry.deserialize(line);
    EXPECT_TRUE(line.empty());
    EXPECT_EQ(entry, LogEntry("d", "a", "l", "tail"));

    LogEntry shortLine;
    shortLine.deserialize(std::string("date|rest"));
    EXPECT_EQ(shortLine, LogEntry("date", "", "", "rest"));

    LogEntry noBar;
    noBar.deserialize(std::string("just a message"));
    EXPECT_EQ(noBar, LogEntry("", "", "", "just a message"));

    LogEntry empty;
    empty.deserialize(std::string());
    EXPECT_EQ(empty, LogEntry());

    LogEntry trailing;
    trailing.deserialize(std::string("a|b|c|"));
    EXPECT_EQ(trailing, LogEntry("a", "b", "c", ""));

    const char raw[] = "\0\xff|\x01\n|\x80\x7f|\0rest";
    const std::string binary(raw, sizeof(raw) - 1);
    LogEntry garbage;
    garbage.deserialize(std::string(binary));
    EXPECT_EQ(garbage._dateTime, std::string("\0\xff", 2));
    EXPECT_EQ(garbage._appName, "\x01\n");
    EXPECT_EQ(garbage._message, std::string("\0rest", 5));

    const LogEntry written("2024-03-09 17:05:42", "app", "error", "disk full");
    EXPECT_EQ(written.serialize(), "2024-03-09 17:05:42|app|error|disk full");
    EXPECT_EQ(written.serializeAsPlainText(), "2024-03-09 17:05:42 app error disk full");
    LogEntry back;
    back.deserialize(written.serialize());
    EXPECT_EQ(back, written);
}

TEST(Logger, PurgesFromTheUpperLimitOnKeepingTheLinesThatCrossTheLowerOne) {
    ScratchDirectory dir;
    const std::string path = dir.file("app.log");
    Logger logger("app", path);
    logger.setSizeLimits(35, 100);

    // 99 bytes stay as they are.
    writeWholeFile(path, tenLines().substr(1));
    logger.flush();
    EXPECT_EQ(logger.getLogFileSize(), 99);

    // 100 bytes: the last four lines (36 characters without newlines) cross 35 and are kept.
    writeWholeFile(path, tenLines());
    logger.flush();
    EXPECT_EQ(readWholeFile(path), "ggggggggg\nhhhhhhhhh\niiiiiiiii\njjjjjjjjj\n");

    // The two report lines waited in memory and arrive with the next flush (limits raised so
    // that this flush does not purge again).
    logger.setSizeLimits(35, 1000);
    const LogEntries entries = logger.getLogEntries();
    ASSERT_EQ(entries.size(), 6u);
    EXPECT_EQ(entries[4]._logLevel, "info");
    EXPECT_EQ(entries[4]._message, "Purging log file. Initial log file size=100 bytes.");
    EXPECT_EQ(entries[5]._message, "Purging log file. Final log file size=40 bytes.");
}

TEST(Logger, PurgeKeepsOnlyTheLastLineWhenNothingCrossesTheLowerLimit) {
    ScratchDirectory dir;
    const std::string path = dir.file("app.log");
    Logger logger("app", path);

    // Lower limit above the upper one: only the newest line survives.
    logger.setSizeLimits(1000, 100);
    writeWholeFile(path, tenLines());
    logger.flush();
    EXPECT_EQ(readWholeFile(path), "jjjjjjjjj\n");

    // A negative lower limit is a huge one; a file without a final newline gets one.
    logger.clear();
    logger.setSizeLimits(-1, 10);
    writeWholeFile(path, "first line\nlast line without newline");
    logger.flush();
    EXPECT_EQ(readWholeFile(path), "last line without newline\n");

    // A last line longer than the upper limit cannot shrink, so every flush purges again.
    logger.clear();
    logger.setSizeLimits(5, 10);
    writeWholeFile(path, std::string(30, 'x') + "\n");
    logger.flush();
    EXPECT_EQ(readWholeFile(path), std::string(30, 'x') + "\n");
    // The next flush writes the two report lines and purges again: the last line alone is over
    // the lower limit, and the line before it, which carries the sum across, is kept as well.
    logger.flush();
    const std::vector<std::string> lines = splitLines(readWholeFile(path));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("|info|Purging log file. Initial log file size=31 bytes."),
              std::string::npos)
        << lines[0];
    EXPECT_NE(lines[1].find("|info|Purging log file. Final log file size=31 bytes."),
              std::string::npos)
        << lines[1];

    // A negative upper limit is a huge one: no purging.
    logger.clear();
    logger.setSizeLimits(5, -1);
    writeWholeFile(path, tenLines());
    logger.flush();
    EXPECT_EQ(logger.getLogFileSize(), 100);
}

TEST(Logger, AFileThatCannotBeOpenedLosesEntriesSilently) {
    ScratchDirectory dir;
    for (const std::string& path : {dir.file("missing/dir/app.log"), dir.path().string()}) {
        SyslogCapture capture;
        Logger logger("app", path);
        logger.info("lost");
        logger.warning("lost too");
        logger.error("and this");
        EXPECT_LT(logger.getLogFileSize(), 0) << path;
        EXPECT_TRUE(logger.getLogEntries().empty());
        EXPECT_TRUE(logger.getLogEntriesFromFile().empty());
        EXPECT_EQ(logger.getSerializedLogContents(), "");
        EXPECT_EQ(logger.getPlainLogContents(), "");
        logger.clear();
        EXPECT_TRUE(capture.records().empty()) << "the logger reports nothing of its own";
    }
}

TEST(SysloggingLogger, SendsEachLineToSyslogAsDataAndToTheFile) {
    ScratchDirectory dir;
    const std::string path = dir.file("app.log");
    const std::string hostile = "100%% done %s %n";
    std::vector<StemlibTest::SyslogRecord> records;
    {
        SyslogCapture capture;
        SysloggingLogger logger("app", path);
        logger.info(hostile);
        logger.warning("w " + hostile);
        logger.error("e " + hostile);
        records = capture.records();
    }
    ASSERT_EQ(records.size(), 3u) << "STARTING and STOPPING reach the file only";
    const int priorities[] = {LOG_INFO, LOG_WARNING, LOG_ERR};
    const std::string messages[] = {hostile, "w " + hostile, "e " + hostile};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(records[i].priority, priorities[i]);
        EXPECT_EQ(records[i].format, "%s");
        EXPECT_EQ(records[i].message, messages[i]);
    }
    const std::vector<std::string> lines = splitLines(readWholeFile(path));
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[1].substr(19), "|app|info|" + hostile);
    EXPECT_EQ(lines[4].substr(19), "|app|warning|STOPPING app");
}

TEST(SysloggingLogger, PurgeReportsReachSyslogToo) {
    ScratchDirectory dir;
    const std::string path = dir.file("app.log");
    SyslogCapture capture;
    SysloggingLogger logger("app", path);
    logger.setSizeLimits(35, 100);
    writeWholeFile(path, tenLines());
    logger.flush();
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, "Purging log file. Initial log file size=100 bytes.");
    EXPECT_EQ(records[1].message, "Purging log file. Final log file size=40 bytes.");
}

TEST(Logger, LibraryLinesReachTheFileWithThePrefix) {
    ScratchDirectory dir;
    const std::string path = dir.file("app.log");
    Logger logger("app", path);
    {
        StemlibTest::ScopedLogger scope(logger);
        g_stemlibLogger.warning("deserialize: bad text");
        g_stemlibLogger.bareInfo("application line");
        EXPECT_EQ(splitLines(readWholeFile(path)).size(), 2u) << "bareInfo waits in memory";
        g_stemlibLogger.error("f: 50% %s");
    }
    const LogEntries entries = logger.getLogEntries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[1]._logLevel, "warning");
    EXPECT_EQ(entries[1]._message, "STEMLIB::deserialize: bad text");
    EXPECT_EQ(entries[2]._message, "application line");
    EXPECT_EQ(entries[3]._logLevel, "error");
    EXPECT_EQ(entries[3]._message, "STEMLIB::f: 50% %s");
}

TEST(Logger, ThreeThreadsLogConcurrentlyAndEveryLineArrivesWholeAndOnce) {
    ScratchDirectory dir;
    const std::string path = dir.file("app.log");
    Logger logger("app", path);
    constexpr int kThreads = 3;
    constexpr int kLines = 1500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&logger, t] {
            const std::string padding(40, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i) {
                const std::string message =
                    "thread " + std::to_string(t) + " line " + std::to_string(i) + " " + padding;
                if (i % 97 == 0) {
                    logger.warning(message);
                } else if (i % 251 == 0) {
                    logger.getLogEntries(); // reading back while others write
                    logger.info(message);
                } else {
                    logger.info(message);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    const LogEntries entries = logger.getLogEntries();
    ASSERT_EQ(entries.size(), 1u + kThreads * kLines);
    std::vector<int> next(kThreads, 0);
    for (std::size_t n = 1; n < entries.size(); ++n) {
        const LogEntry& entry = entries[n];
        ASSERT_EQ(entry._appName, "app");
        int t = -1;
        int i = -1;
        char tail[64] = {};
        ASSERT_EQ(std::sscanf(entry._message.c_str(), "thread %d line %d %63s", &t, &i, tail), 3)
            << entry._message;
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(i, next[t]) << "each thread's lines arrive once and in order";
        EXPECT_EQ(std::string(tail), std::string(40, static_cast<char>('a' + t)));
        EXPECT_EQ(entry._logLevel, i % 97 == 0 ? "warning" : "info");
        next[t] = i + 1;
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}
