// Logger: an application's log file, with batching, purging and reading back.
//
// Info entries wait in memory and are appended to the file in batches: the 101st waiting entry
// forces a write, and warning and error write at once. After every write the file is cut back to
// just above the lower size limit once it has reached the upper one, keeping whole lines and
// always the newest. One entry is one line of four fields joined by "|": local time
// ("%Y-%m-%d %H:%M:%S"), application name, level word ("info", "warning", "error") and message,
// with no escaping. The constructor writes "STARTING <appName>" and the destructor
// "STOPPING <appName>".
//
// SysloggingLogger also sends each entry to the system log (as data, never as a format).
//
// Ownership: the logger owns its file path and its waiting entries; the file is opened and
// closed for every write, never kept open. An application hands the logger to useLogger and
// keeps it alive for as long as anything logs.
//
// Threading: every operation takes the logger's own (recursive) mutex, so the analysis loop, the
// web thread and task threads may log into one logger at once; each entry reaches the file whole
// and exactly once. Purging runs on the thread whose write triggered it.
//
// Failures: nothing throws for a file problem. A file that cannot be opened loses the entries of
// that write silently, reads back as empty and has a negative size.
#pragma once

#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace Ombrel {

enum class LogLevel { Info = 0, Warning = 1, Error = 2 };

// One line of the log file, all four fields as text.
struct LogEntry {
    std::string _dateTime; // local time, "%Y-%m-%d %H:%M:%S"
    std::string _appName;
    std::string _logLevel; // the level word, "info", "warning" or "error"
    std::string _message;

    LogEntry() = default;
    LogEntry(std::string dateTime, std::string appName, std::string logLevel, std::string message);

    // The file form: the four fields joined by "|", no line end.
    std::string serialize() const;
    // The four fields joined by a single blank.
    std::string serializeAsPlainText() const;

    // Reads one line of the file form and consumes it (line is left empty). Text before each
    // "|" becomes, in turn, the date, the application name and the level; tokens after the third
    // are dropped, and what follows the last "|" is the message. A message holding bars thus
    // comes back as the text behind its last bar only. A line with fewer than three bars leaves
    // the missing fields empty; nothing marks it as damaged. Any bytes are accepted.
    void deserialize(std::string& line);
    void deserialize(std::string&& line) { deserialize(line); }

    bool operator==(const LogEntry& other) const {
        return _dateTime == other._dateTime && _appName == other._appName &&
               _logLevel == other._logLevel && _message == other._message;
    }
    bool operator!=(const LogEntry& other) const { return !(*this == other); }
};

using LogEntries = std::vector<LogEntry>;
using LogLines = std::vector<std::string>;

class Logger {
public:
    // Sets the defaults (limits 1 MiB and 2 MiB), then logs "STARTING <appName>" as a warning,
    // which writes it to the file at once.
    Logger(const std::string& appName, const std::string& logfilePath);
    // Logs "STOPPING <appName>" as a warning and flushes once more.
    virtual ~Logger();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // info waits in memory (up to 100 entries); warning and error append and flush at once.
    virtual void info(const std::string& message);
    virtual void warning(const std::string& message);
    virtual void error(const std::string& message);

    // Appends the waiting entries to the file (creating it, also with none waiting), empties the
    // list, then purges. Entries are lost if the file cannot be opened.
    void flush();
    // Once the file has reached the upper limit, keeps the newest whole lines whose length
    // (newlines not counted) just exceeds the lower limit. Logs "Purging log file. ..." twice
    // through info.
    void purge();
    // Empties the waiting list and truncates the file.
    void clear();

    // Flushes, reads the file back and joins the entries' serialize() with "\n" behind each.
    // Entries went through LogEntry::deserialize, so this is not a byte copy of the file.
    std::string getSerializedLogContents();
    // The same with serializeAsPlainText().
    std::string getPlainLogContents();
    // Flushes, then getLogEntriesFromFile.
    LogEntries getLogEntries();
    // Every line of the file as an entry, without flushing first. A missing or unreadable file
    // gives an empty result.
    LogEntries getLogEntriesFromFile();

    // Stores both limits in bytes, sign-extended into the unsigned members, without checks: a
    // negative value becomes a huge limit.
    void setSizeLimits(int minSize, int maxSize);
    // Size of the file in bytes; negative if it cannot be opened.
    std::int64_t getLogFileSize() const;

protected:
    std::string getCurrentDateTime();
    // Local time in the form "%Y-%m-%d %H:%M:%S"; empty if the time cannot be represented.
    std::string timeToString(std::time_t epochTime);
    void addLogEntry(LogLevel logLevel, const std::string& message);
    // Adds the check interval (in days) to the next purge check date and returns it. The date
    // takes part in no decision: purging is decided by file size alone.
    std::time_t incrementNextPurgeDate();
    // Every line of the file, without its newline.
    LogLines getLogLines();

    std::string _appName;
    std::string _logfilePath;
    LogEntries _logEntries;
    std::uint64_t _minSize = 1048576;
    std::uint64_t _maxSize = 2097152;
    std::time_t _nextPurgeCheckDate = 0;
    std::int32_t _purgeCheckInterval = 1;

private:
    void flushLocked();

    // Recursive: purge logs through the virtual info while a flush holds the lock.
    mutable std::recursive_mutex _mutex;
    // The last formatted second, so that a burst of entries formats the time once.
    std::time_t _cachedTime = -1;
    std::string _cachedDateTime;
};

// A Logger that also sends every entry to the system log: info, warning and error with priority
// 6, 4 and 3, the message passed as data through a "%s" format. The STARTING and STOPPING lines
// reach the file only.
class SysloggingLogger : public Logger {
public:
    SysloggingLogger(const std::string& appName, const std::string& logfilePath);

    void info(const std::string& message) override;
    void warning(const std::string& message) override;
    void error(const std::string& message) override;
};

} // namespace Ombrel
