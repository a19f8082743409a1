#include "Logger.h"

#include "LocalTime.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>
#include <utility>

namespace Ombrel {

namespace {

const char* const logLevelStrings[] = {"info", "warning", "error"};

const char* levelWord(LogLevel logLevel) {
    switch (logLevel) {
    case LogLevel::Info:
        return logLevelStrings[0];
    case LogLevel::Warning:
        return logLevelStrings[1];
    case LogLevel::Error:
        return logLevelStrings[2];
    }
    return logLevelStrings[0];
}

// More waiting entries than this force a flush.
constexpr std::size_t kMaxWaitingEntries = 100;

// Writes all of data, retrying after interruptions and short writes. False on a write error.
bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// Appends data to path, creating the file. Failures are silent: the logger reports nothing of
// its own.
void appendToFile(const std::string& path, std::string_view data) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0) {
        return;
    }
    writeAll(fd, data.data(), data.size());
    ::close(fd);
}

// Makes data the whole content of path. The data is written over the start of the file and the
// rest cut off afterwards, rather than truncating first: that reuses the file's blocks and keeps
// file systems from flushing a file that was just truncated to zero.
void replaceFile(const std::string& path, std::string_view data) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        return;
    }
    writeAll(fd, data.data(), data.size());
    while (::ftruncate(fd, static_cast<off_t>(data.size())) != 0 && errno == EINTR) {
    }
    ::close(fd);
}

// The whole file as bytes; false if it cannot be opened or read.
bool readFile(const std::string& path, std::string& contents) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat status {};
    bool ok = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    contents.clear();
    if (ok) {
        // Sized by fstat, grown if the file grows meanwhile.
        contents.resize(static_cast<std::size_t>(status.st_size) + 1);
        std::size_t used = 0;
        for (;;) {
            if (used == contents.size()) {
                contents.resize(contents.size() * 2);
            }
            const ssize_t got = ::read(fd, &contents[used], contents.size() - used);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                ok = got == 0;
                break;
            }
            used += static_cast<std::size_t>(got);
        }
        contents.resize(used);
    }
    ::close(fd);
    return ok;
}

void appendSerialized(std::string& out, const LogEntry& entry, char separator) {
    out.append(entry._dateTime)
        .append(1, separator)
        .append(entry._appName)
        .append(1, separator)
        .append(entry._logLevel)
        .append(1, separator)
        .append(entry._message);
}

// The four fields of entry joined by separator.
std::string joined(const LogEntry& entry, char separator) {
    std::string out;
    out.reserve(entry._dateTime.size() + entry._appName.size() + entry._logLevel.size() +
                entry._message.size() + 3);
    appendSerialized(out, entry, separator);
    return out;
}

// Every entry joined by separator, each followed by a newline.
std::string joinedLines(const LogEntries& entries, char separator) {
    std::string out;
    for (const LogEntry& entry : entries) {
        appendSerialized(out, entry, separator);
        out.push_back('\n');
    }
    return out;
}

} // namespace

LogEntry::LogEntry(std::string dateTime, std::string appName, std::string logLevel,
                   std::string message)
    : _dateTime(std::move(dateTime)), _appName(std::move(appName)), _logLevel(std::move(logLevel)),
      _message(std::move(message)) {}

std::string LogEntry::serialize() const {
    return joined(*this, '|');
}

std::string LogEntry::serializeAsPlainText() const {
    return joined(*this, ' ');
}

void LogEntry::deserialize(std::string& line) {
    // Token i is the text before the i-th bar; the scan runs over every bar, so the message is
    // what follows the last one.
    std::size_t start = 0;
    int token = 0;
    for (std::size_t bar = line.find('|'); bar != std::string::npos; bar = line.find('|', start)) {
        if (token <= 2) {
            std::string& field = token == 0 ? _dateTime : token == 1 ? _appName : _logLevel;
            field.assign(line, start, bar - start);
        }
        ++token;
        start = bar + 1;
    }
    _message.assign(line, start, std::string::npos);
    line.clear();
}

Logger::Logger(const std::string& appName, const std::string& logfilePath)
    : _appName(appName), _logfilePath(logfilePath) {
    _logEntries.reserve(kMaxWaitingEntries + 1);
    _nextPurgeCheckDate = std::time(nullptr);
    incrementNextPurgeDate();
    Logger::warning("STARTING " + _appName);
}

Logger::~Logger() {
    try {
        Logger::warning("STOPPING " + _appName);
        flush();
    } catch (...) {
        // Nothing may leave a destructor; the stop line is lost in that case.
    }
}

void Logger::info(const std::string& message) {
    addLogEntry(LogLevel::Info, message);
}

void Logger::warning(const std::string& message) {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    addLogEntry(LogLevel::Warning, message);
    flushLocked();
}

void Logger::error(const std::string& message) {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    addLogEntry(LogLevel::Error, message);
    flushLocked();
}

void Logger::flush() {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    flushLocked();
}

void Logger::flushLocked() {
    const std::string batch = joinedLines(_logEntries, '|');
    // Entries are dropped even when the file cannot be written: nothing waits forever.
    _logEntries.clear();
    // Opened also with nothing to write, so that every flush creates a missing file.
    appendToFile(_logfilePath, batch);
    purge();
}

void Logger::purge() {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    const std::int64_t logFileSize = getLogFileSize();
    if (logFileSize <= 0 || _maxSize > static_cast<std::uint64_t>(logFileSize)) {
        return;
    }
    info("Purging log file. Initial log file size=" + std::to_string(logFileSize) + " bytes.");

    std::string contents;
    if (!readFile(_logfilePath, contents) || contents.empty()) {
        return;
    }
    // Lines as std::getline sees them: split at each newline, a last line without a newline
    // counts, and a newline at the very end starts no further line. Walk back from the newest
    // line, adding lengths without newlines; the line that carries the total past _minSize is
    // the oldest one kept. The last line is always kept, also when nothing crosses the limit.
    const char* const data = contents.data();
    std::size_t lineEnd = contents.size();
    if (data[lineEnd - 1] == '\n') {
        --lineEnd;
    }
    std::size_t firstLineToKeep = 0; // offset of the oldest line kept
    std::uint64_t totalSize = 0;
    for (bool lastLine = true;; lastLine = false) {
        const char* newline =
            lineEnd == 0 ? nullptr : static_cast<const char*>(::memrchr(data, '\n', lineEnd));
        const std::size_t lineStart =
            newline == nullptr ? 0 : static_cast<std::size_t>(newline - data) + 1;
        totalSize += lineEnd - lineStart;
        if (lastLine || totalSize > _minSize) {
            firstLineToKeep = lineStart;
        }
        if ((!lastLine && totalSize > _minSize) || newline == nullptr) {
            break;
        }
        lineEnd = lineStart - 1;
    }
    // Whole lines, each ended by a newline.
    if (contents.back() != '\n') {
        contents.push_back('\n');
    }
    replaceFile(_logfilePath, std::string_view(contents.data() + firstLineToKeep,
                                               contents.size() - firstLineToKeep));
    info("Purging log file. Final log file size=" + std::to_string(getLogFileSize()) + " bytes.");
}

void Logger::clear() {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    _logEntries.clear();
    replaceFile(_logfilePath, std::string_view());
}

std::string Logger::getSerializedLogContents() {
    return joinedLines(getLogEntries(), '|');
}

std::string Logger::getPlainLogContents() {
    return joinedLines(getLogEntries(), ' ');
}

LogEntries Logger::getLogEntries() {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    flushLocked();
    return getLogEntriesFromFile();
}

LogEntries Logger::getLogEntriesFromFile() {
    LogEntries entries;
    for (std::string& line : getLogLines()) {
        LogEntry entry;
        entry.deserialize(line);
        entries.push_back(std::move(entry));
    }
    return entries;
}

void Logger::setSizeLimits(int minSize, int maxSize) {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    _minSize = static_cast<std::uint64_t>(static_cast<std::int64_t>(minSize));
    _maxSize = static_cast<std::uint64_t>(static_cast<std::int64_t>(maxSize));
}

std::int64_t Logger::getLogFileSize() const {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    const int fd = ::open(_logfilePath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct stat status {};
    std::int64_t size = -1;
    if (::fstat(fd, &status) == 0 && !S_ISDIR(status.st_mode)) {
        size = static_cast<std::int64_t>(::lseek(fd, 0, SEEK_END));
    }
    ::close(fd);
    return size;
}

std::string Logger::getCurrentDateTime() {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    const std::time_t now = std::time(nullptr);
    if (now != _cachedTime) {
        _cachedDateTime = timeToString(now);
        _cachedTime = now;
    }
    return _cachedDateTime;
}

std::string Logger::timeToString(std::time_t epochTime) {
    return detail::formatLocalTime(epochTime, "%Y-%m-%d %H:%M:%S");
}

void Logger::addLogEntry(LogLevel logLevel, const std::string& message) {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    _logEntries.emplace_back(getCurrentDateTime(), _appName, levelWord(logLevel), message);
    if (_logEntries.size() > kMaxWaitingEntries) {
        flushLocked();
    }
}

std::time_t Logger::incrementNextPurgeDate() {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    _nextPurgeCheckDate += static_cast<std::time_t>(_purgeCheckInterval) * 86400;
    return _nextPurgeCheckDate;
}

LogLines Logger::getLogLines() {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    LogLines lines;
    std::ifstream file(_logfilePath);
    if (!file.good()) {
        return lines;
    }
    std::string line;
    while (std::getline(file, line)) {
        lines.push_back(line);
    }
    return lines;
}

SysloggingLogger::SysloggingLogger(const std::string& appName, const std::string& logfilePath)
    : Logger(appName, logfilePath) {}

// The message is passed as data: text from outside may hold '%'.
void SysloggingLogger::info(const std::string& message) {
    syslog(LOG_INFO, "%s", message.c_str());
    Logger::info(message);
}

void SysloggingLogger::warning(const std::string& message) {
    syslog(LOG_WARNING, "%s", message.c_str());
    Logger::warning(message);
}

void SysloggingLogger::error(const std::string& message) {
    syslog(LOG_ERR, "%s", message.c_str());
    Logger::error(message);
}

} // namespace Ombrel
