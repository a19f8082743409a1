#include "SyslogCapture.h"

#include <cstdarg>
#include <cstring>
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
// machine's system log. A format other than "%s" is recorded as it stands and never expanded.
extern "C" void syslog(int priority, const char* format, ...) {
    using namespace StemlibTest;
    std::string message = format;
    if (std::strcmp(format, "%s") == 0) {
        va_list args;
        va_start(args, format);
        message = va_arg(args, const char*);
        va_end(args);
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_capturing) {
        g_records.push_back(SyslogRecord{priority, format, message});
    }
}
