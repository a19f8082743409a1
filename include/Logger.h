// Logger: the destination of log lines that an application hands to useLogger.
//
// The reporting facade (LoggerWrapper) uses only the three virtual operations below; an
// application may derive its own destination from this class.
#pragma once

#include <string>

namespace Ombrel {

class Logger {
public:
    virtual ~Logger();

    virtual void info(const std::string& message) = 0;
    virtual void warning(const std::string& message) = 0;
    virtual void error(const std::string& message) = 0;
};

} // namespace Ombrel
