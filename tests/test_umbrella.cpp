// The umbrella header includes every public header, and each public header stands on its own.
#include "ScratchDirectory.h"
#include "Stemlib.h"

#include <gtest/gtest.h>

TEST(Umbrella, IncludesEveryPublicHeader) {
    const std::filesystem::path include = std::filesystem::path(STEMLIB_SOURCE_DIR) / "include";
    const std::string umbrella = StemlibTest::readWholeFile((include / "Stemlib.h").string());
    for (const auto& entry : std::filesystem::directory_iterator(include)) {
        const std::string name = entry.path().filename().string();
        if (entry.path().extension() == ".h" && name != "Stemlib.h") {
            EXPECT_NE(umbrella.find("\n#include \"" + name + "\"\n"), std::string::npos) << name;
        }
    }
}
