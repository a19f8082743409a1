// The versioned configuration file: head lines, older and newer data,
// initialize, load, save, update, the language, and bad text.
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
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;
using StemlibTest::ScratchDirectory;
using StemlibTest::writeWholeFile;

namespace {

// Version 3 writes a threshold and a name; version 2 and older data hold the threshold only.
class DoorConfig : public Config {
public:
    explicit DoorConfig(const std::string& filename) : Config(filename, 3) {}

    using Config::deserializeStream;
    using Config::loadValues;

    std::string serialize() const override {
        return Config::serialize() + std::to_string(threshold) + " " + name + "\n";
    }

    int threshold = 5;
    std::string name = "door";
    int versionSeen = -1;

protected:
    bool deserializeStream(std::stringstream& s, int versionNumber) override {
        versionSeen = versionNumber;
        int newThreshold = 0;
        std::string newName = name;
        s >> newThreshold;
        if (versionNumber >= 3) {
            s >> newName;
        }
        if (s.fail()) {
            return false;
        }
        threshold = newThreshold;
        name = newName;
        return true;
    }
};

class ConfigTest : public ::testing::Test {
protected:
    void TearDown() override {
        StemlibTest::resetStemlibLogger();
        Localization::setLanguage("en");
    }

    ScratchDirectory dir;
    const std::string path = dir.file("app.conf");
    RecordingLogger logger;
};

} // namespace

TEST_F(ConfigTest, FirstStartWritesTheDefaultsAndALaterStartReadsThem) {
    DoorConfig first(path);
    first.initialize();
    EXPECT_EQ(readWholeFile(path), "3\nen\n5 door\n");

    writeWholeFile(path, "3\nde\n7 gate\n");
    DoorConfig second(path);
    second.initialize();
    EXPECT_EQ(second.threshold, 7);
    EXPECT_EQ(second.name, "gate");
    EXPECT_EQ(second.versionSeen, 3);
    EXPECT_EQ(second.getLanguage(), "de");
    EXPECT_EQ(Localization::getLanguage(), "de") << "the head sets the process-wide language";
    EXPECT_EQ(second.serialize(), "3\nde\n7 gate\n");

    second.threshold = 9;
    EXPECT_TRUE(second.saveValues());
    EXPECT_EQ(readWholeFile(path), "3\nde\n9 gate\n");
}

TEST_F(ConfigTest, OlderDataIsReadAndNewerDataIsRefused) {
    ScopedLogger scope(logger);

    writeWholeFile(path, "1 9");
    DoorConfig versionOne(path);
    versionOne.setLanguage("fr");
    versionOne.initialize();
    EXPECT_EQ(versionOne.versionSeen, 1);
    EXPECT_EQ(versionOne.threshold, 9);
    EXPECT_EQ(versionOne.getLanguage(), "en") << "version 1 has no language line";
    EXPECT_EQ(readWholeFile(path), "1 9") << "an older file is not rewritten on load";

    writeWholeFile(path, "2");
    DoorConfig endsAfterVersion(path);
    endsAfterVersion.setLanguage("fr");
    EXPECT_FALSE(endsAfterVersion.loadValues());
    EXPECT_EQ(endsAfterVersion.getLanguage(), "en");
    EXPECT_EQ(Localization::getLanguage(), "en");
    EXPECT_EQ(endsAfterVersion.versionSeen, 2) << "the derived reader got the exhausted stream";

    writeWholeFile(path, "4\nde\n1 newer\n");
    DoorConfig newer(path);
    EXPECT_FALSE(newer.loadValues());
    EXPECT_EQ(newer.threshold, 5);
    EXPECT_EQ(newer.getLanguage(), "en");
    EXPECT_EQ(newer.versionSeen, -1);

    writeWholeFile(path, "three\nen\n1 x\n");
    DoorConfig notANumber(path);
    notANumber.initialize();
    EXPECT_EQ(notANumber.threshold, 5);

    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message,
              "STEMLIB::deserializeStream: Config version mismatch. Expected: 3, got: 4");
    EXPECT_EQ(logger.lines[1].level, "error");
    EXPECT_EQ(logger.lines[1].message,
              "STEMLIB::deserializeStream: Failed to read version number from config stream.");
}

TEST_F(ConfigTest, UpdateWritesTheCallersTextByteForByte) {
    ScopedLogger scope(logger);
    DoorConfig config(path);
    config.initialize();

    const std::string older = "2   fr\n\n11\t";
    EXPECT_TRUE(config.update(older));
    EXPECT_EQ(readWholeFile(path), older);
    EXPECT_EQ(config.threshold, 11);
    EXPECT_EQ(config.getLanguage(), "fr");
    EXPECT_EQ(Localization::getLanguage(), "fr");

    const std::string hostile = "x 100%% %s %n|\n";
    EXPECT_FALSE(config.update(hostile));
    EXPECT_EQ(readWholeFile(path), older) << "refused text leaves the file alone";
    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[1].level, "error");
    EXPECT_EQ(logger.lines[1].message,
              "STEMLIB::update: Failed to deserialize config string: " + hostile);

    DoorConfig unwritable(dir.file("missing/app.conf"));
    EXPECT_TRUE(unwritable.deserialize("3\nen\n4 gate\n"));
    EXPECT_FALSE(unwritable.update("3\nsv\n8 hall\n"));
    EXPECT_EQ(unwritable.threshold, 8) << "the object holds the new values";
    EXPECT_EQ(logger.lines.back().message,
              "STEMLIB::update: Failed to open config file for writing: " +
                  dir.file("missing/app.conf"));
}

TEST_F(ConfigTest, FilesThatCannotBeOpened) {
    ScopedLogger scope(logger);
    const std::string missing = dir.file("missing/app.conf");
    DoorConfig config(missing);
    EXPECT_FALSE(config.saveValues());
    EXPECT_TRUE(logger.lines.empty()) << "saveValues fails without a log line";

    EXPECT_FALSE(config.loadValues());
    ASSERT_EQ(logger.lines.size(), 1u);
    EXPECT_EQ(logger.lines[0].level, "warning");
    EXPECT_EQ(logger.lines[0].message,
              "STEMLIB::loadValues: Failed to open config file for reading: " + missing);

    config.initialize(); // no file and no directory: saveValues fails quietly
    EXPECT_FALSE(std::filesystem::exists(missing));
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
    ScopedLogger scope(logger);
    DoorConfig config(path);
    const std::string samples[] = {"",
                                   "\n\n",
                                   "-2147483649",
                                   "99999999999999999999",
                                   "-5 de 1",
                                   "3",
                                   "3\n",
                                   "3\nen",
                                   "3\nen\n12",
                                   std::string("3\0en\n1 a", 8),
                                   "3 \xff\xfe\xfd 1 x",
                                   "0x10 en 1 x"};
    for (const std::string& sample : samples) {
        config.deserialize(sample);
    }
    config.setLanguage("de");
    EXPECT_TRUE(config.deserialize("-5 1")) << "negative versions read like version 1";
    EXPECT_EQ(config.getLanguage(), "en");

    std::mt19937 random(7);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> length(0, 64);
    for (int i = 0; i < 2000; ++i) {
        std::string text(static_cast<std::size_t>(length(random)), '\0');
        for (char& c : text) {
            c = static_cast<char>(byte(random));
        }
        if (i % 2 == 0) {
            text = "3 " + text;
        }
        config.deserialize(text);
    }
    SUCCEED();
}
