#include "ScopedLogger.h"

#include "Points.h"

#include <new>

void StemlibTest::resetStemlibLogger() {
    // Ends the global's lifetime and begins a fresh one in the same storage: the only way back
    // to "no logger set", which the facade deliberately does not offer.
    Ombrel::g_stemlibLogger.~LoggerWrapper();
    ::new (static_cast<void*>(&Ombrel::g_stemlibLogger)) Ombrel::LoggerWrapper();
}
