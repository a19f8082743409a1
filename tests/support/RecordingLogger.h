// A Logger that keeps every line it receives, with its level, for tests of the reporting road.
// Its own file is /dev/null, so the base class's STARTING and STOPPING lines go nowhere.
#pragma once

#include "Logger.h"

#include <string>
#include <vector>

namespace StemlibTest {

struct LoggedLine {
    std::string level; // "info", "warning" or "error"
    std::string message;
};

class RecordingLogger : public Ombrel::Logger {
public:
    RecordingLogger() : Ombrel::Logger("RecordingLogger", "/dev/null") {}

    void info(const std::string& message) override { lines.push_back({"info", message}); }
    void warning(const std::string& message) override { lines.push_back({"warning", message}); }
    void error(const std::string& message) override { lines.push_back({"error", message}); }

    std::vector<LoggedLine> lines;
};

} // namespace StemlibTest
