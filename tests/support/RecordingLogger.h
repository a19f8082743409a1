// A Logger that keeps every line it receives, with its level, for tests of the reporting road.
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
    void info(const std::string& message) override { lines.push_back({"info", message}); }
    void warning(const std::string& message) override { lines.push_back({"warning", message}); }
    void error(const std::string& message) override { lines.push_back({"error", message}); }

    std::vector<LoggedLine> lines;
};

} // namespace StemlibTest
