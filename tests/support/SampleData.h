// Where the tests find Debian's OpenCV sample data (real photographs and footage), as
// scripts/fetch-sample-data.sh lays it out: $STEMLIB_SAMPLE_DATA_DIR, else the installed package's
// folder when it holds the clip, else the project's cache.
#pragma once

#include <cstdlib>
#include <string>
#include <sys/stat.h>

namespace StemlibTest {

inline std::string sampleDataDirectory() {
    if (const char* dir = std::getenv("STEMLIB_SAMPLE_DATA_DIR"); dir != nullptr && *dir != '\0')
        return dir;
    const std::string system = "/usr/share/doc/opencv-doc/examples/data";
    struct stat info {};
    if (::stat((system + "/vtest.avi").c_str(), &info) == 0)
        return system;
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    const std::string cache = (xdg != nullptr && *xdg != '\0')
                                  ? std::string(xdg)
                                  : std::string(home ? home : "") + "/.cache";
    return cache + "/stemlib/opencv-doc-4.6/data";
}

// The full path of one sample file, such as "vtest.avi" or "left01.jpg".
inline std::string sampleDataPath(const std::string& name) {
    return sampleDataDirectory() + "/" + name;
}

} // namespace StemlibTest
