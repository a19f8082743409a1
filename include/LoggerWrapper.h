// LoggerWrapper: the one road of every library message.
//
// The library reports through the global g_stemlibLogger (declared in Points.h). While no logger
// is set, lines go to the system log with the prefix "STEMLIB*::"; once an application hands its
// Logger to useLogger, library lines reach that logger with the prefix "STEMLIB::". The bare
// forms carry no prefix on either route and are meant for an application's own lines.
//
// Messages always travel as data: the system log receives them through a "%s" format, so percent
// signs in a message are printed as written.
//
// Ownership: the wrapper holds a non-owning pointer; the application keeps its Logger alive for
// as long as anything logs. Threading: the pointer is unguarded, so call setLogger before other
// threads start. The wrapper itself takes no lock.
#pragma once

#include <string>

namespace Ombrel {

class Logger;

class LoggerWrapper {
public:
    constexpr LoggerWrapper() noexcept = default;
    virtual ~LoggerWrapper();

    LoggerWrapper(const LoggerWrapper&) = delete;
    LoggerWrapper& operator=(const LoggerWrapper&) = delete;

    // Stores the address of logger, replacing any earlier one. Nothing clears it again.
    void setLogger(Logger& logger);

    void info(const std::string& message);
    void warning(const std::string& message);
    void error(const std::string& message);

    void bareInfo(const std::string& message);
    void bareWarning(const std::string& message);
    void bareError(const std::string& message);

protected:
    Logger* _logger = nullptr;
};

// Routes all library lines to logger: g_stemlibLogger.setLogger(logger).
void useLogger(Logger& logger);

} // namespace Ombrel
