// Captures the system log of the test program: the program defines syslog itself, and the
// dynamic linker binds the library's calls to it instead of the C library's.
#pragma once

#include <string>
#include <vector>

namespace StemlibTest {

struct SyslogRecord {
    int priority;
    std::string format;  // the format argument as passed
    std::string message; // the text that would be logged: the format expanded
};

// Starts capturing (clearing earlier records) until the guard goes out of scope.
class SyslogCapture {
public:
    SyslogCapture();
    ~SyslogCapture();
    SyslogCapture(const SyslogCapture&) = delete;
    SyslogCapture& operator=(const SyslogCapture&) = delete;

    std::vector<SyslogRecord> records() const;
};

} // namespace StemlibTest
