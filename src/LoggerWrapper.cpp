#include "LoggerWrapper.h"

#include "Logger.h"
#include "Points.h"

#include <syslog.h>

namespace Ombrel {

LoggerWrapper g_stemlibLogger;

namespace {

const char* const kLoggerPrefix = "STEMLIB::";
const char* const kSyslogPrefix = "STEMLIB*::";

using LoggerOperation = void (Logger::*)(const std::string&);

// The one decision of the facade: a logger set gets the line through operation, otherwise the
// system log gets it at priority. Prefixed lines carry the prefix of their route; bare lines
// travel as they are. The message is always a syslog argument, never the format: text from
// outside may hold '%'.
void route(Logger* logger, LoggerOperation operation, int priority, const std::string& message,
           bool prefixed) {
    if (logger == nullptr) {
        syslog(priority, "%s", (prefixed ? kSyslogPrefix + message : message).c_str());
    } else if (prefixed) {
        (logger->*operation)(kLoggerPrefix + message);
    } else {
        (logger->*operation)(message);
    }
}

} // namespace

LoggerWrapper::~LoggerWrapper() = default;

void LoggerWrapper::setLogger(Logger& logger) {
    _logger = &logger;
}

void LoggerWrapper::info(const std::string& message) {
    route(_logger, &Logger::info, LOG_INFO, message, true);
}

void LoggerWrapper::warning(const std::string& message) {
    route(_logger, &Logger::warning, LOG_WARNING, message, true);
}

void LoggerWrapper::error(const std::string& message) {
    route(_logger, &Logger::error, LOG_ERR, message, true);
}

void LoggerWrapper::bareInfo(const std::string& message) {
    route(_logger, &Logger::info, LOG_INFO, message, false);
}

void LoggerWrapper::bareWarning(const std::string& message) {
    route(_logger, &Logger::warning, LOG_WARNING, message, false);
}

void LoggerWrapper::bareError(const std::string& message) {
    route(_logger, &Logger::error, LOG_ERR, message, false);
}

void useLogger(Logger& logger) {
    g_stemlibLogger.setLogger(logger);
}

} // namespace Ombrel
