// Formatting of local time, shared by the log file and the archive records. Private to the
// library.
#pragma once

#include <ctime>
#include <string>

namespace Ombrel {
namespace detail {

// epochTime in the local time zone, formatted with strftime into 80 bytes through the
// re-entrant localtime_r. Empty if the time cannot be converted or the result does not fit.
inline std::string formatLocalTime(std::time_t epochTime, const char* format) {
    std::tm local{};
    if (localtime_r(&epochTime, &local) == nullptr) {
        return std::string();
    }
    char buffer[80];
    // The format may be a caller's; strftime takes no further arguments, so a foreign format can
    // only produce text, never read memory.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const std::size_t length = std::strftime(buffer, sizeof(buffer), format, &local);
#pragma GCC diagnostic pop
    return std::string(buffer, length);
}

} // namespace detail
} // namespace Ombrel
