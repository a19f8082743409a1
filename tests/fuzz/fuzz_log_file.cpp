// A log file read back: whatever bytes the file holds (another program's lines, a cut-off last
// line, binary garbage), the logger reads one entry per line, appends after them and purges down
// to whole lines, keeping the newest.
#include "FuzzSupport.h"

#include "Logger.h"

#include <algorithm>
#include <fstream>
#include <iterator>

using namespace Ombrel;
using StemlibFuzz::check;

namespace {

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    static const StemlibFuzz::ScratchFile file(".log");
    const std::string input = StemlibFuzz::text(data, size);
    file.write(input);

    Logger logger("fuzz", file.path());
    const std::string lastLine = "last line of the fuzz run";
    logger.setSizeLimits(256, 1024);
    logger.warning(lastLine);

    const LogEntries entries = logger.getLogEntries();
    const std::string stored = contents(file.path());
    const std::size_t lines =
        static_cast<std::size_t>(std::count(stored.begin(), stored.end(), '\n'));
    check(entries.size() == lines, "one entry per line of the file");
    check(!entries.empty() && entries.back()._message == lastLine, "the newest line is kept");
    (void)logger.getPlainLogContents();
    (void)logger.getSerializedLogContents();
    return 0;
}
