#include "SyslogCapture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace StemlibTest {
namespace {

std::mutex g_mutex;
bool g_capturing = false;
std::vector<SyslogRecord> g_records;

} // namespace

SyslogCapture::SyslogCapture() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_records.clear();
    g_capturing = true;
}

SyslogCapture::~SyslogCapture() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_capturing = false;
}

std::vector<SyslogRecord> SyslogCapture::records() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_records;
}

} // namespace StemlibTest

// Replaces the C library's syslog for the whole test program, so that tests never write to the
// machine's system log. The message is the format expanded with its arguments, as the system log
// would write it.
extern "C" void syslog(int priority, const char* format, ...) {
    using namespace StemlibTest;
    va_list args;
    va_start(args, format);
    va_list measuring;
    va_copy(measuring, args);
    const int length = std::vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);
    std::string message(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) {
        std::vsnprintf(message.data(), message.size() + 1, format, args);
    }
    va_end(args);
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_capturing) {
        g_records.push_back(SyslogRecord{priority, format, message});
    }
}
