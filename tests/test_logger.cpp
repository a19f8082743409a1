// The log file: format, batching, purging, reading back, the lossy reader, the system-log twin,
// the library's route into the file, and logging from several threads at once.
#include "Logger.h"
#include "Points.h"
#include "ScopedLogger.h"
#include "ScratchDirectory.h"
#include "SyslogCapture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>

using namespace Ombrel;
using StemlibTest::readWholeFile;
using StemlibTest::SyslogCapture;
using StemlibTest::writeWholeFile;

namespace {

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
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

class LoggerTest : public ::testing::Test {
protected:
    std::size_t linesInFile() const { return splitLines(readWholeFile(path)).size(); }

    StemlibTest::ScratchDirectory dir;
    const std::string path = dir.file("app.log");
};

} // namespace

TEST_F(LoggerTest, WritesFourBarSeparatedFieldsBetweenStartAndStopLines) {
    {
        Logger logger("care", path);
        EXPECT_EQ(linesInFile(), 1u) << "STARTING is written at once";
        logger.info("one");
        logger.info("two");
        logger.info("three");
        EXPECT_EQ(linesInFile(), 1u) << "info waits in memory";
        logger.warning("four");
        EXPECT_EQ(linesInFile(), 5u) << "warning writes everything waiting, in order";
        logger.error("five");
    }
    const std::vector<std::string> lines = splitLines(readWholeFile(path));
    const char* expected[] = {
        "warning|STARTING care", "info|one", "info|two", "info|three", "warning|four", "error|five",
        "warning|STOPPING care"};
    ASSERT_EQ(lines.size(), std::size(expected));
    const std::regex stamp(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\|care\|.*)");
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_TRUE(std::regex_match(lines[i], stamp)) << lines[i];
        EXPECT_EQ(lines[i].substr(25), expected[i]);
    }
}

TEST_F(LoggerTest, TheHundredAndFirstWaitingEntryFlushesAll) {
    Logger logger("app", path);
    for (int i = 0; i < 100; ++i) {
        logger.info("line " + std::to_string(i));
    }
    EXPECT_EQ(linesInFile(), 1u);
    logger.info("line 100");
    const std::vector<std::string> lines = splitLines(readWholeFile(path));
    ASSERT_EQ(lines.size(), 102u);
    EXPECT_EQ(lines[1].substr(19), "|app|info|line 0");
    EXPECT_EQ(lines[101].substr(19), "|app|info|line 100");
}

TEST_F(LoggerTest, ReadsBackThroughTheLossyReader) {
    Logger logger("app", path);
    logger.info("plain");
    logger.info("first|second|third");
    EXPECT_EQ(logger.getLogEntriesFromFile().size(), 1u) << "does not flush";

    const LogEntries entries = logger.getLogEntries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[1], LogEntry(entries[1]._dateTime, "app", "info", "plain"));
    EXPECT_EQ(entries[2]._message, "third") << "only the text behind the last bar survives";
    EXPECT_EQ(logger.getSerializedLogContents(), entries[0].serialize() + "\n" +
                                                     entries[1].serialize() + "\n" +
                                                     entries[2].serialize() + "\n");
    EXPECT_EQ(splitLines(logger.getPlainLogContents())[1],
              entries[1]._dateTime + " app info plain");

    logger.clear();
    EXPECT_TRUE(logger.getLogEntries().empty());
    EXPECT_EQ(logger.getLogFileSize(), 0);
    std::filesystem::remove(path);
    EXPECT_LT(logger.getLogFileSize(), 0);
    EXPECT_TRUE(logger.getLogEntriesFromFile().empty());
    logger.flush();
    EXPECT_EQ(logger.getLogFileSize(), 0) << "a flush creates the file, also with nothing waiting";
}

TEST(LogEntry, DeserializeConsumesTheLineAndKeepsOnlyTheLastToken) {
    const std::pair<std::string, LogEntry> cases[] = {
        {"d|a|l|m1|m2|tail", LogEntry("d", "a", "l", "tail")},
        {"date|rest", LogEntry("date", "", "", "rest")},
        {"just a message", LogEntry("", "", "", "just a message")},
        {"", LogEntry()},
        {"a|b|c|", LogEntry("a", "b", "c", "")},
        {std::string("\0\xff|\x01\n|\x80|\0rest", 13),
         LogEntry(std::string("\0\xff", 2), "\x01\n", "\x80", std::string("\0rest", 5))},
    };
    for (const auto& [text, expected] : cases) {
        std::string line = text;
        LogEntry entry;
        entry.deserialize(line);
        EXPECT_TRUE(line.empty());
        EXPECT_EQ(entry, expected) << text;
    }
}

TEST_F(LoggerTest, PurgesAtTheUpperLimitKeepingTheLinesThatCrossTheLowerOne) {
    Logger logger("app", path);
    logger.setSizeLimits(35, 100);
    writeWholeFile(path, tenLines().substr(1));
    logger.flush();
    EXPECT_EQ(logger.getLogFileSize(), 99) << "below the upper limit";

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

TEST_F(LoggerTest, PurgeEdgesLimitsAndOverlongLines) {
    Logger logger("app", path);
    const auto purgeOnce = [&](int minSize, int maxSize, const std::string& contents) {
        logger.clear();
        logger.setSizeLimits(minSize, maxSize);
        writeWholeFile(path, contents);
        logger.flush();
        return readWholeFile(path);
    };
    EXPECT_EQ(purgeOnce(1000, 100, tenLines()), "jjjjjjjjj\n") << "nothing crosses: last line";
    EXPECT_EQ(purgeOnce(-1, 10, "first line\nlast line without newline"),
              "last line without newline\n")
        << "a negative lower limit is a huge one";
    EXPECT_EQ(purgeOnce(5, -1, tenLines()), tenLines()) << "a negative upper limit: no purge";

    // A last line longer than the upper limit cannot shrink, so every flush purges again; the
    // second time the line before it carries the sum across and is kept as well.
    const std::string longLine = std::string(30, 'x') + "\n";
    EXPECT_EQ(purgeOnce(5, 10, longLine), longLine);
    logger.flush();
    const std::vector<std::string> lines = splitLines(readWholeFile(path));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(19), "|app|info|Purging log file. Initial log file size=31 bytes.");
    EXPECT_EQ(lines[1].substr(19), "|app|info|Purging log file. Final log file size=31 bytes.");
}

TEST_F(LoggerTest, AFileThatCannotBeOpenedLosesEntriesSilently) {
    for (const std::string& bad : {dir.file("missing/dir/app.log"), dir.path().string()}) {
        SyslogCapture capture;
        Logger logger("app", bad);
        logger.info("lost");
        logger.error("and this");
        EXPECT_LT(logger.getLogFileSize(), 0) << bad;
        EXPECT_EQ(logger.getSerializedLogContents(), "");
        logger.clear();
        EXPECT_TRUE(capture.records().empty()) << "the logger reports nothing of its own";
    }
}

TEST_F(LoggerTest, SysloggingLoggerSendsEachLineToSyslogAsDataAndToTheFile) {
    const std::string hostile = "100%% done %s %n";
    std::vector<StemlibTest::SyslogRecord> records;
    {
        SyslogCapture capture;
        SysloggingLogger logger("app", path);
        logger.info(hostile);
        logger.warning("w " + hostile);
        logger.error("e " + hostile);
        logger.setSizeLimits(35, 100); // the purge reports reach the system log too
        writeWholeFile(path, tenLines());
        logger.flush();
        logger.setSizeLimits(1 << 20, 1 << 21);
        records = capture.records();
    }
    const std::pair<int, std::string> expected[] = {
        {6, hostile},
        {4, "w " + hostile},
        {3, "e " + hostile},
        {6, "Purging log file. Initial log file size=100 bytes."},
        {6, "Purging log file. Final log file size=40 bytes."}};
    ASSERT_EQ(records.size(), std::size(expected)) << "STARTING and STOPPING reach the file only";
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].priority, expected[i].first);
        EXPECT_EQ(records[i].format, "%s");
        EXPECT_EQ(records[i].message, expected[i].second);
    }
    const std::vector<std::string> lines = splitLines(readWholeFile(path));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().substr(19), "|app|warning|STOPPING app");
}

TEST_F(LoggerTest, LibraryLinesReachTheFileWithThePrefix) {
    Logger logger("app", path);
    {
        StemlibTest::ScopedLogger scope(logger);
        g_stemlibLogger.warning("deserialize: bad text");
        g_stemlibLogger.bareInfo("application line");
        EXPECT_EQ(linesInFile(), 2u) << "bareInfo waits in memory";
        g_stemlibLogger.error("f: 50% %s");
    }
    const LogEntries entries = logger.getLogEntries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[1]._logLevel + entries[1]._message, "warningSTEMLIB::deserialize: bad text");
    EXPECT_EQ(entries[2]._logLevel + entries[2]._message, "infoapplication line");
    EXPECT_EQ(entries[3]._logLevel + entries[3]._message, "errorSTEMLIB::f: 50% %s");
}

TEST_F(LoggerTest, ThreeThreadsLogConcurrentlyAndEveryLineArrivesWholeAndOnce) {
    constexpr int kThreads = 3;
    constexpr int kLines = 1500;
    const auto message = [](int t, int i) {
        return std::to_string(t) + " line " + std::to_string(i) + std::string(40, 'a' + t);
    };
    Logger logger("app", path);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i) {
                if (i % 97 == 0) {
                    logger.warning(message(t, i));
                    continue;
                }
                if (i % 251 == 0) {
                    logger.getLogEntries(); // reading back while others write
                }
                logger.info(message(t, i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<std::vector<std::string>> expected(kThreads);
    std::vector<std::vector<std::string>> arrived(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kLines; ++i) {
            expected[t].push_back(message(t, i));
        }
    }
    const LogEntries entries = logger.getLogEntries();
    for (std::size_t n = 1; n < entries.size(); ++n) {
        const int t = entries[n]._message.empty() ? -1 : entries[n]._message[0] - '0';
        ASSERT_TRUE(t >= 0 && t < kThreads) << entries[n]._message;
        arrived[t].push_back(entries[n]._message);
    }
    EXPECT_EQ(arrived, expected) << "each thread's lines arrive whole, once and in order";
}
