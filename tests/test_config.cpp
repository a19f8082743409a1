// The versioned configuration file: head lines, older and newer data, initialize, load, save,
// update, the language, and bad text.
#include "Config.h"
#include "Localization.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"
#include "ScratchDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

using namespace Ombrel;
using StemlibTest::readWholeFile;
using StemlibTest::writeWholeFile;

namespace {

// Version 3 of an application's configuration: the head lines and one threshold.
class DoorConfig : public Config {
public:
    explicit DoorConfig(const std::string& filename) : Config(filename, 3) {}
    using Config::loadValues;

    std::string serialize() const override {
        return Config::serialize() + std::to_string(threshold) + "\n";
    }

    int threshold = 5;
    int versionSeen = -1;

protected:
    bool deserializeStream(std::stringstream& s, int versionNumber) override {
        versionSeen = versionNumber;
        int value = 0;
        if (!(s >> value)) {
            return false;
        }
        threshold = value;
        return true;
    }
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

TEST_F(ConfigTest, FirstStartWritesTheDefaultsAndALaterStartReadsThem) {
    DoorConfig first(path);
    first.initialize();
    EXPECT_EQ(readWholeFile(path), "3\nen\n5\n");

    writeWholeFile(path, "3\nde\n7\n");
    DoorConfig second(path);
    second.initialize();
    EXPECT_EQ(second.threshold, 7);
    EXPECT_EQ(second.versionSeen, 3);
    EXPECT_EQ(second.getLanguage(), "de");
    EXPECT_EQ(Localization::getLanguage(), "de") << "the head sets the process-wide language";
    second.threshold = 9;
    EXPECT_TRUE(second.saveValues());
    EXPECT_EQ(readWholeFile(path), "3\nde\n9\n");
    EXPECT_TRUE(logger.lines.empty());
}

TEST_F(ConfigTest, OlderDataIsReadAndNewerDataIsRefused) {
    const std::pair<std::string, int> older[] = {{"1 9", 1}, {"-5 9", -5}, {"2\nde\n9", 2}};
    for (const auto& [text, version] : older) {
        writeWholeFile(path, text);
        DoorConfig config(path);
        config.setLanguage("fr");
        config.initialize();
        EXPECT_EQ(config.versionSeen, version) << text;
        EXPECT_EQ(config.threshold, 9) << text;
        EXPECT_EQ(config.getLanguage(), version == 2 ? "de" : "en") << "no language line before 2";
        EXPECT_EQ(readWholeFile(path), text) << "an older file is not rewritten on load";
    }

    writeWholeFile(path, "2");
    DoorConfig endsAfterVersion(path);
    endsAfterVersion.setLanguage("fr");
    EXPECT_FALSE(endsAfterVersion.loadValues());
    EXPECT_EQ(endsAfterVersion.getLanguage(), "en") << "a missing language selects English";
    EXPECT_EQ(endsAfterVersion.versionSeen, 2) << "the derived reader got the exhausted stream";

    writeWholeFile(path, "4\nde\n1\n");
    DoorConfig newer(path);
    EXPECT_FALSE(newer.loadValues());
    EXPECT_EQ(newer.threshold, 5);
    EXPECT_EQ(newer.getLanguage(), "en");
    EXPECT_EQ(newer.versionSeen, -1);

    EXPECT_FALSE(newer.deserialize("three\nen\n1\n"));
    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message,
              "STEMLIB::deserializeStream: Config version mismatch. Expected: 3, got: 4");
    EXPECT_EQ(logger.lines[1].level, "error");
    EXPECT_EQ(logger.lines[1].message,
              "STEMLIB::deserializeStream: Failed to read version number from config stream.");
}

TEST_F(ConfigTest, UpdateWritesTheCallersTextByteForByte) {
    DoorConfig config(path);
    config.initialize();
    const std::string older = "2   fr\n\n11\t";
    EXPECT_TRUE(config.update(older));
    EXPECT_EQ(readWholeFile(path), older);
    EXPECT_EQ(config.threshold, 11);
    EXPECT_EQ(Localization::getLanguage(), "fr");

    const std::string hostile = "x 100%% %s %n|\n";
    EXPECT_FALSE(config.update(hostile));
    EXPECT_EQ(readWholeFile(path), older) << "refused text leaves the file alone";
    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[1].level, "error");
    EXPECT_EQ(logger.lines[1].message,
              "STEMLIB::update: Failed to deserialize config string: " + hostile);

    DoorConfig unwritable(missing);
    EXPECT_FALSE(unwritable.update("3\nsv\n8\n"));
    EXPECT_EQ(unwritable.threshold, 8) << "the object holds the new values";
    EXPECT_EQ(logger.lines.back().level, "error");
    EXPECT_EQ(logger.lines.back().message,
              "STEMLIB::update: Failed to open config file for writing: " + missing);
}

TEST_F(ConfigTest, FilesThatCannotBeOpened) {
    DoorConfig config(missing);
    EXPECT_FALSE(config.saveValues());
    config.initialize(); // no file and no directory: saveValues fails quietly
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_TRUE(logger.lines.empty()) << "saveValues fails without a log line";

    EXPECT_FALSE(config.loadValues());
    ASSERT_EQ(logger.lines.size(), 1u);
    EXPECT_EQ(logger.lines[0].level, "warning");
    EXPECT_EQ(logger.lines[0].message,
              "STEMLIB::loadValues: Failed to open config file for reading: " + missing);
}

TEST_F(ConfigTest, ABareConfigWritesItsHeadButNeverLoads) {
    Config config(path, 7);
    config.initialize();
    EXPECT_EQ(readWholeFile(path), "7\nen\n");
    writeWholeFile(path, "7\nja\n");
    Config reread(path, 7);
    reread.initialize();
    EXPECT_EQ(reread.getLanguage(), "ja") << "taken over although the load failed";
    EXPECT_FALSE(reread.deserialize("7\nko\n"));
    EXPECT_EQ(Localization::getLanguage(), "ko");
}

TEST_F(ConfigTest, TruncatedGarbageAndBinaryTextNeverCrash) {
    DoorConfig config(path);
    std::vector<std::string> samples = {
        "",      "\n\n",      "-2147483649", "99999999999999999999", "3",
        "3\nen", "3\nen\n12", "0x10 en 1 x", "3 \xff\xfe\xfd 1 x"};
    samples.emplace_back("3\0en\n1 a", 8);
    std::mt19937 random(7);
    for (int i = 0; i < 2000; ++i) {
        samples.emplace_back(i % 2 == 0 ? "3 " : "");
        for (std::size_t n = random() % 65; n > 0; --n) {
            samples.back().push_back(static_cast<char>(random()));
        }
    }
    for (const std::string& sample : samples) {
        config.deserialize(sample);
    }
}
