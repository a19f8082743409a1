#include "LoggerWrapper.h"

#include "Logger.h"
#include "Points.h"

#include <syslog.h>

namespace Ombrel {

LoggerWrapper g_stemlibLogger;

namespace {

const char* const kLoggerPrefix = "STEMLIB::";
const char* const kSyslogPrefix = "STEMLIB*::";

// The message is always an argument, never the format: text from outside may hold '%'.
void toSyslog(int priority, const std::string& text) {
    syslog(priority, "%s", text.c_str());
}

} // namespace

LoggerWrapper::~LoggerWrapper() = default;

void LoggerWrapper::setLogger(Logger& logger) {
    _logger = &logger;
}

void LoggerWrapper::info(const std::string& message) {
    if (_logger != nullptr) {
        _logger->info(kLoggerPrefix + message);
    } else {
        toSyslog(LOG_INFO, kSyslogPrefix + message);
    }
}

void LoggerWrapper::warning(const std::string& message) {
    if (_logger != nullptr) {
        _logger->warning(kLoggerPrefix + message);
    } else {
        toSyslog(LOG_WARNING, kSyslogPrefix + message);
    }
}

void LoggerWrapper::error(const std::string& message) {
    if (_logger != nullptr) {
        _logger->error(kLoggerPrefix + message);
    } else {
        toSyslog(LOG_ERR, kSyslogPrefix + message);
    }
}

void LoggerWrapper::bareInfo(const std::string& message) {
    if (_logger != nullptr) {
        _logger->info(message);
    } else {
        toSyslog(LOG_INFO, message);
    }
}

void LoggerWrapper::bareWarning(const std::string& message) {
    if (_logger != nullptr) {
        _logger->warning(message);
    } else {
        toSyslog(LOG_WARNING, message);
    }
}

void LoggerWrapper::bareError(const std::string& message) {
    if (_logger != nullptr) {
        _logger->error(message);
    } else {
        toSyslog(LOG_ERR, message);
    }
}

void useLogger(Logger& logger) {
    g_stemlibLogger.setLogger(logger);
}

} // namespace Ombrel
