// The versioned configuration file: head lines, older and newer data, initialize, load, save,
// update, the language, and bad text.
#include "Config.h"
#include "Localization.h"
#include "LogLines.h"
#include "ScopedLogger.h"
#include "ScratchDirectory.h"

#include <gtest/gtest.h>

using namespace Ombrel;
using StemlibTest::readWholeFile;
using StemlibTest::writeWholeFile;
using Lines = std::vector<std::string>;

namespace {

// Version 3 of an application's configuration: the head lines and one threshold.
struct DoorConfig : Config {
    explicit DoorConfig(const std::string& filename) : Config(filename, 3) {}
    using Config::loadValues;
    std::string serialize() const override {
        return Config::serialize() + std::to_string(threshold) + "\n";
    }
    bool deserializeStream(std::stringstream& s, int versionNumber) override {
        versionSeen = versionNumber;
        return static_cast<bool>(s >> threshold);
    }

    int threshold = 5;
    int versionSeen = -1;
};

class ConfigTest : public ::testing::Test {
protected:
    void TearDown() override { Localization::setLanguage("en"); }

    StemlibTest::ScratchDirectory dir;
    const std::string path = dir.file("app.conf");
    const std::string missing = dir.file("missing/app.conf");
    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope{logger};
};

} // namespace

TEST_F(ConfigTest, FirstStartWritesTheDefaultsAndOlderDataIsReadAsItStands) {
    DoorConfig first(path);
    first.initialize();
    EXPECT_EQ(readWholeFile(path), "3\nen\n5\n");
    // No language line before version 2; a version 2 text that ends behind the number selects
    // English and hands the exhausted stream on. Loading sets the process-wide language, and
    // an older file is not rewritten.
    using Case = std::tuple<std::string, int, int, std::string>; // text, version, threshold
    for (const auto& [text, version, threshold, language] :
         {Case{"3\nde\n7\n", 3, 7, "de"}, Case{"1 9", 1, 9, "en"}, Case{"-5 9", -5, 9, "en"},
          Case{"2\nja 9", 2, 9, "ja"}, Case{"2", 2, 5, "en"}}) {
        writeWholeFile(path, text);
        DoorConfig config(path);
        config.setLanguage("fr");
        config.initialize();
        EXPECT_EQ(std::make_tuple(config.versionSeen, config.threshold, config.getLanguage(),
                                  Localization::getLanguage(), readWholeFile(path)),
                  std::make_tuple(version, threshold, language, language, text));
    }
    DoorConfig config(path);
    config.threshold = 9;
    EXPECT_TRUE(config.saveValues());
    EXPECT_EQ(readWholeFile(path), "3\nen\n9\n");
    // A bare Config writes its head but never loads, although the language is taken over.
    EXPECT_FALSE(Config(path, 7).deserialize("7\nko\n"));
    EXPECT_EQ(Localization::getLanguage(), "ko");
    EXPECT_TRUE(logger.lines.empty());
}

TEST_F(ConfigTest, NewerDataUpdatesAndFilesThatCannotBeOpened) {
    writeWholeFile(path, "4\nde\n1\n");
    DoorConfig config(path);
    EXPECT_FALSE(config.loadValues());
    EXPECT_EQ(std::make_tuple(config.threshold, config.versionSeen, config.getLanguage()),
              std::make_tuple(5, -1, std::string("en")));
    EXPECT_FALSE(config.deserialize("three\nen\n1\n"));
    // update takes the caller's text byte for byte, or refuses it and leaves the file alone.
    const std::string older = "2   fr\n\n11\t", hostile = "x 100%% %s %n|\n";
    EXPECT_TRUE(config.update(older));
    EXPECT_FALSE(config.update(hostile));
    EXPECT_EQ(readWholeFile(path), older);
    EXPECT_EQ(config.threshold, 11);
    DoorConfig unwritable(missing);
    EXPECT_FALSE(unwritable.update("3\nsv\n8\n"));
    EXPECT_EQ(unwritable.threshold, 8) << "the object holds the new values";
    EXPECT_FALSE(unwritable.saveValues()) << "without a log line";
    EXPECT_FALSE(unwritable.loadValues());
    EXPECT_EQ(StemlibTest::linesAt(logger, "error"),
              (Lines{"deserializeStream: Config version mismatch. Expected: 3, got: 4",
                     "deserializeStream: Failed to read version number from config stream.",
                     "deserializeStream: Failed to read version number from config stream.",
                     "update: Failed to deserialize config string: " + hostile,
                     "update: Failed to open config file for writing: " + missing}));
    EXPECT_EQ(StemlibTest::linesAt(logger, "warning"),
              Lines{"loadValues: Failed to open config file for reading: " + missing});

    // Truncated, garbage and binary text never crashes.
    for (const std::string& text : {std::string("3\0en\n1 a", 8), std::string("3 \xff\xfe 1 x"),
                                    std::string("-2147483649"), std::string("3\nen")}) {
        config.deserialize(text);
    }
}
