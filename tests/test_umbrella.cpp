// The umbrella header includes every public header, and each public header stands on its own.
#include "Stemlib.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#ifndef STEMLIB_SOURCE_DIR
#error "STEMLIB_SOURCE_DIR must name the source tree"
#endif

TEST(Umbrella, IncludesEveryPublicHeader) {
    const std::filesystem::path include = std::filesystem::path(STEMLIB_SOURCE_DIR) / "include";
    std::ifstream umbrella(include / "Stemlib.h");
    ASSERT_TRUE(umbrella.good());
    std::set<std::string> included;
    std::string line;
    while (std::getline(umbrella, line)) {
        const std::string prefix = "#include \"";
        if (line.rfind(prefix, 0) == 0) {
            included.insert(
                line.substr(prefix.size(), line.find('"', prefix.size()) - prefix.size()));
        }
    }
    for (const auto& entry : std::filesystem::directory_iterator(include)) {
        const std::string name = entry.path().filename().string();
        if (entry.path().extension() == ".h" && name != "Stemlib.h") {
            EXPECT_EQ(included.count(name), 1u) << name << " is missing from Stemlib.h";
        }
    }
}
