// Test-only control of the library's reporting facade. The facade has no operation that clears
// its logger, so tests that hand it a logger use ScopedLogger, which restores the state of a
// program that never called useLogger when it goes out of scope.
#pragma once

#include "Logger.h"
#include "Points.h"

#include <new>

namespace StemlibTest {

// Returns g_stemlibLogger to its state at program start: no logger set. Ends the global's
// lifetime and begins a fresh one in the same storage, the only way back to "no logger set".
inline void resetStemlibLogger() {
    Ombrel::g_stemlibLogger.~LoggerWrapper();
    ::new (static_cast<void*>(&Ombrel::g_stemlibLogger)) Ombrel::LoggerWrapper();
}

class ScopedLogger {
public:
    explicit ScopedLogger(Ombrel::Logger& logger) { Ombrel::useLogger(logger); }
    ~ScopedLogger() { resetStemlibLogger(); }
    ScopedLogger(const ScopedLogger&) = delete;
    ScopedLogger& operator=(const ScopedLogger&) = delete;
};

} // namespace StemlibTest
