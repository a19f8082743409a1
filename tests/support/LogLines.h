// Reading the lines a RecordingLogger received from the library, without their "STEMLIB::"
// prefix.
#pragma once

#include "RecordingLogger.h"

#include <algorithm>
#include <string>
#include <vector>

namespace StemlibTest {

inline std::string withoutPrefix(const std::string& message) {
    const std::string prefix = "STEMLIB::";
    return message.compare(0, prefix.size(), prefix) == 0 ? message.substr(prefix.size()) : message;
}

// The library lines at one level ("info", "warning", "error"), in order.
inline std::vector<std::string> linesAt(const RecordingLogger& logger, const std::string& level) {
    std::vector<std::string> lines;
    for (const LoggedLine& line : logger.lines) {
        if (line.level == level) {
            lines.push_back(withoutPrefix(line.message));
        }
    }
    return lines;
}

// Whether the logger received exactly this library line at this level.
inline bool hasLine(const RecordingLogger& logger, const std::string& level,
                    const std::string& text) {
    const std::vector<std::string> lines = linesAt(logger, level);
    return std::find(lines.begin(), lines.end(), text) != lines.end();
}

// The library lines, at any level, that start with one of the given function names and ": ".
inline std::vector<std::string> linesOf(const RecordingLogger& logger,
                                        const std::vector<std::string>& functions) {
    std::vector<std::string> lines;
    for (const LoggedLine& line : logger.lines) {
        const std::string text = withoutPrefix(line.message);
        for (const std::string& function : functions) {
            if (text.compare(0, function.size() + 2, function + ": ") == 0) {
                lines.push_back(text);
                break;
            }
        }
    }
    return lines;
}

} // namespace StemlibTest
