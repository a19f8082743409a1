// Shared by the fuzz harnesses: the input as text, a logger that swallows the library's lines,
// a scratch file per process, and a check that aborts (and so reports) when a property fails.
//
// Each harness is one fuzz_<reader>.cpp defining LLVMFuzzerTestOneInput, with its seed inputs in
// corpus/<reader>/. A harness runs one input at a time on one thread.
#pragma once

#include "Logger.h"
#include "LoggerWrapper.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

namespace StemlibFuzz {

inline std::string text(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// Library lines would otherwise go to the system log, thousands a second.
class QuietLogger : public Ombrel::Logger {
public:
    QuietLogger() : Ombrel::Logger("fuzz", "/dev/null") {}
    void info(const std::string&) override {}
    void warning(const std::string&) override {}
    void error(const std::string&) override {}
};

inline void quietLibraryLog() {
    static QuietLogger logger;
    Ombrel::useLogger(logger);
}

// A file of this process that a harness rewrites for every input, removed at exit.
class ScratchFile {
public:
    explicit ScratchFile(const std::string& suffix) {
        const char* tmp = std::getenv("TMPDIR");
        _path = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/stemlib-fuzz-" +
                std::to_string(::getpid()) + suffix;
    }
    ~ScratchFile() { std::remove(_path.c_str()); }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    const std::string& path() const { return _path; }
    void write(const std::string& contents) const {
        std::ofstream(_path, std::ios::binary | std::ios::trunc) << contents;
    }

private:
    std::string _path;
};

// Pixel areas whose text form returns them unchanged: normalized coordinates of six significant
// digits come back to the same pixel below 100000, and negative coordinates move by design (they
// truncate toward zero on the way to pixels, one pixel a round trip).
template <typename Polygon>
bool roundTripsExactly(const Polygon& polygon) {
    for (const auto& point : polygon) {
        if (point.x < 0 || point.y < 0 || point.x >= 100000 || point.y >= 100000) {
            return false;
        }
    }
    return true;
}

// A property that every input must keep; a failure aborts, which the fuzzer reports as a crash
// with the input that caused it.
inline void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz property failed: %s\n", what);
        std::abort();
    }
}

} // namespace StemlibFuzz
