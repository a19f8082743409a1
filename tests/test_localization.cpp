// Words in 19 languages: the table's completeness and shape, fallback, the argument, the
// process-wide language, and the action vocabulary built on it.
#include "ActionRecognizer.h"
#include "Localization.h"
#include "Points.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <sstream>
#include <thread>

using namespace Ombrel;

namespace {

// Looked up during static initialisation of this test program, before main.
const std::string g_textAtStartup = Localization::getString("license.status.valid");
const std::string g_languageAtStartup = Localization::getLanguage();

const char* const kKeys[] = {
    "common.status.eulaNotAccepted",
    "care.status.patientOutOfBedEventSent",
    "care.status.fallenPersonEventSent",
    "common.status.licenseStatus",
    "care.status.ai",
    "common.status.ms",
    "license.status.validationError",
    "license.status.valid",
    "license.status.expired",
    "license.status.invalidVersion",
    "markers.status.analysis",
    "markers.status.alertActive",
    "markers.status.conditionMet",
    "actions.status.calibrating3D",
    "actions.status.excluded",
    "actions.names.aggression",
    "actions.names.running",
    "actions.names.sitting",
    "actions.names.standing",
    "actions.names.walking",
    "actions.names.lyingDown",
    "actions.names.unknown",
    "actions.arms.title",
    "actions.arms.left",
    "actions.arms.right",
    "actions.directions.up",
    "actions.directions.out",
    "actions.directions.down",
    "actions.directions.in",
    "actions.directions.ignore",
    "actions.operators.and",
    "actions.operators.or",
};

bool isValidUtf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        const std::size_t length = lead < 0x80           ? 1
                                   : (lead >> 5) == 0x6  ? 2
                                   : (lead >> 4) == 0xE  ? 3
                                   : (lead >> 3) == 0x1E ? 4
                                                         : 0;
        if (length == 0 || i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) >> 6) != 0x2) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

struct Shape {
    bool leadingBlank;
    bool trailingBlank;
    bool leadingColon;
    bool placeholder;
    bool operator==(const Shape& other) const {
        return leadingBlank == other.leadingBlank && trailingBlank == other.trailingBlank &&
               leadingColon == other.leadingColon && placeholder == other.placeholder;
    }
};

Shape shapeOf(const std::string& text) {
    return Shape{!text.empty() && text.front() == ' ', !text.empty() && text.back() == ' ',
                 !text.empty() && text.front() == ':', text.find("{0}") != std::string::npos};
}

// Every test leaves the process in English.
class LocalizationTest : public ::testing::Test {
protected:
    void TearDown() override { Localization::setLanguage("en"); }
};

} // namespace

TEST_F(LocalizationTest, TheTableIsUsableDuringStaticInitialisation) {
    EXPECT_EQ(g_textAtStartup, "Valid");
    EXPECT_EQ(g_languageAtStartup, "en");
}

TEST_F(LocalizationTest, EveryLanguageHasEveryKeyInTheShapeOfEnglish) {
    const std::vector<std::string> codes = Localization::getSupportedLanguages();
    const std::set<std::string> expected = {"en", "es", "de",    "fr", "it", "pt", "nl",
                                            "pl", "cs", "sv",    "fi", "ru", "tr", "ja",
                                            "ko", "zh", "zh-TW", "th", "vi"};
    EXPECT_EQ(codes.size(), 19u);
    EXPECT_EQ(std::set<std::string>(codes.begin(), codes.end()), expected);

    std::vector<std::string> english;
    for (const char* key : kKeys) {
        english.push_back(Localization::getString(key));
    }
    std::set<std::string> seenTexts;
    for (const std::string& code : codes) {
        Localization::setLanguage(code);
        ASSERT_EQ(Localization::getLanguage(), code);
        int sameAsEnglish = 0;
        for (std::size_t k = 0; k < std::size(kKeys); ++k) {
            const std::string text = Localization::getString(kKeys[k]);
            SCOPED_TRACE(code + " " + kKeys[k] + " \"" + text + "\"");
            EXPECT_NE(text, kKeys[k]);
            EXPECT_FALSE(text.empty());
            EXPECT_TRUE(isValidUtf8(text));
            EXPECT_TRUE(shapeOf(text) == shapeOf(english[k]));
            const std::string key = kKeys[k];
            const bool shouldHoldPlaceholder =
                key == "markers.status.conditionMet" || key == "actions.status.calibrating3D";
            EXPECT_EQ(shapeOf(text).placeholder, shouldHoldPlaceholder);
            EXPECT_EQ(text.find("{0}"), text.rfind("{0}")) << "one placeholder at most";
            sameAsEnglish += text == english[k] ? 1 : 0;
            seenTexts.insert(code + "/" + text);
        }
        if (code != "en") {
            // Only words that the language shares with English ("AI: ", " ms. ", ...) may match.
            EXPECT_LE(sameAsEnglish, 4) << code;
        }
    }
    EXPECT_EQ(seenTexts.size(), 19u * std::size(kKeys)) << "no two keys of a language share a text";
}

TEST_F(LocalizationTest, GivenRowsAreKeptExactly) {
    Localization::setLanguage("de");
    EXPECT_EQ(Localization::getString("care.status.patientOutOfBedEventSent"),
              "Ereignis 'Patient hat Bett verlassen' gesendet. ");
    EXPECT_EQ(Localization::getString("actions.directions.out"), "Außen");
    EXPECT_EQ(Localization::getString("markers.status.conditionMet", "12"),
              ": Bedingung seit 12 s erfüllt.");
    Localization::setLanguage("ja");
    EXPECT_EQ(Localization::getString("actions.arms.title"), "腕：");
    EXPECT_EQ(Localization::getString("actions.status.calibrating3D", "3/8"),
              " 3Dキャリブレーション中 (3/8)");
    Localization::setLanguage("en");
    EXPECT_EQ(Localization::getString("common.status.ms"), " ms. ");
    EXPECT_EQ(Localization::getString("markers.status.conditionMet", "12"),
              ": Condition met for 12 seconds.");
}

TEST_F(LocalizationTest, UnknownLanguagesFallBackToEnglishAndUnknownKeysComeBackAsThemselves) {
    Localization::setLanguage("de");
    EXPECT_EQ(Localization::getLanguage(), "de");
    Localization::setLanguage("xx");
    EXPECT_EQ(Localization::getLanguage(), "en") << "an unknown code does not keep German";
    for (const char* code : {"DE", "zh-tw", "pt-BR", "", "en "}) {
        EXPECT_FALSE(Localization::isLanguageSupported(code)) << code;
        Localization::setLanguage("fr");
        Localization::setLanguage(code);
        EXPECT_EQ(Localization::getLanguage(), "en") << code;
    }
    EXPECT_TRUE(Localization::isLanguageSupported("zh-TW"));

    for (const std::string& code : Localization::getSupportedLanguages()) {
        Localization::setLanguage(code);
        EXPECT_EQ(Localization::getString("no.such.key"), "no.such.key");
        EXPECT_EQ(Localization::getString("no.such.{0}", "x"), "no.such.x")
            << "the key itself is the text, placeholder included";
        EXPECT_EQ(Localization::getString(""), "");
    }
}

TEST_F(LocalizationTest, TheArgumentFillsTheFirstPlaceholderOnly) {
    EXPECT_EQ(Localization::getString("actions.status.calibrating3D", "{0}"),
              " Calibrating 3D ({0})")
        << "the argument is inserted as it stands";
    EXPECT_EQ(Localization::getString("license.status.valid", "ignored"), "Valid");
    EXPECT_EQ(Localization::getString("markers.status.conditionMet", ""),
              ": Condition met for  seconds.");
    Localization::setLanguage("zh-TW");
    EXPECT_EQ(Localization::getString("markers.status.conditionMet", "7"), ": 條件已符合 7 秒。");
}

TEST_F(LocalizationTest, LanguageChangesWhileOtherThreadsLookUp) {
    std::atomic<bool> done{false};
    std::atomic<int> bad{0};
    std::set<std::string> valid;
    for (const std::string& code : Localization::getSupportedLanguages()) {
        Localization::setLanguage(code);
        valid.insert(Localization::getString("actions.names.walking"));
    }
    std::thread reader([&] {
        while (!done.load()) {
            if (valid.count(Localization::getString("actions.names.walking")) == 0) {
                ++bad;
            }
        }
    });
    const std::vector<std::string> codes = Localization::getSupportedLanguages();
    for (int i = 0; i < 20000; ++i) {
        Localization::setLanguage(codes[static_cast<std::size_t>(i) % codes.size()]);
    }
    done = true;
    reader.join();
    EXPECT_EQ(bad.load(), 0);
}

TEST_F(LocalizationTest, ActionWordsFixedAndLocalized) {
    EXPECT_EQ(toString(Actions::LyingDown), "Lying Down");
    EXPECT_EQ(toString(Actions::Unknown), "Unknown");
    EXPECT_EQ(toString(Actions::Loitering), "Unknown other");
    EXPECT_EQ(toString(Actions::ArmsPosition), "Unknown other");
    EXPECT_EQ(toString(static_cast<Actions>(42)), "Unknown other");

    Localization::setLanguage("de");
    EXPECT_EQ(toString(Actions::Running), "Running") << "the fixed words ignore the language";
    EXPECT_EQ(toLocalizedString(Actions::Running), "Laufen");
    EXPECT_EQ(toLocalizedString(Actions::ArmsPosition), "Unbekannt");
    EXPECT_EQ(toLocalizedString(Actions::Loitering), "Unbekannt");
    EXPECT_EQ(toLocalizedString(static_cast<Actions>(-3)), "Unbekannt");
    EXPECT_EQ(toLocalizedString(ArmPosition::Ignore), "Ignorieren");
    EXPECT_EQ(toLocalizedString(ArmPosition::Unknown), "Unknown") << "English in every language";
    EXPECT_EQ(toLocalizedString(static_cast<ArmPosition>(7)), "Unknown");
    EXPECT_EQ(toLocalizedString(LogicalOperation::Or), "Oder");
    EXPECT_EQ(toLocalizedString(LogicalOperation::Unknown), "");
    EXPECT_EQ(toLocalizedString(static_cast<LogicalOperation>(2)), "");
}

TEST_F(LocalizationTest, ArmsActionTexts) {
    const ArmsAction upAndDown(true, ArmPosition::Up, LogicalOperation::And, ArmPosition::Down, 5);
    EXPECT_EQ(upAndDown.getLocalizedArmsActionString(), "Arms: Left Up And Right Down");
    EXPECT_EQ(upAndDown.getArmsActionString(), "Arms: Left Up And Right Down");

    const ArmsAction noOperation(false, ArmPosition::Unknown, LogicalOperation::Unknown,
                                 ArmPosition::Out, 0);
    EXPECT_EQ(noOperation.getLocalizedArmsActionString(), "Arms: Left Unknown  Right Out");

    Localization::setLanguage("de");
    EXPECT_EQ(upAndDown.getLocalizedArmsActionString(), "Arme: Links Oben Und Rechts Unten");
    EXPECT_EQ(noOperation.getLocalizedArmsActionString(), "Arme: Links Unknown  Rechts Außen");
    EXPECT_EQ(upAndDown.getArmsActionString(), "Arms: Left Up And Right Down");
    EXPECT_EQ(noOperation.getArmsActionString(), "Arms: Left Unknown  Right Out");
}

TEST_F(LocalizationTest, ArmsActionTextFormRoundTrips) {
    const std::vector<ArmsAction> actions = {
        ArmsAction(),
        ArmsAction(true, ArmPosition::Up, LogicalOperation::And, ArmPosition::Down, 30),
        ArmsAction(false, ArmPosition::Ignore, LogicalOperation::Or, ArmPosition::In, 4294967295u),
    };
    EXPECT_EQ(actions[0].serialize(), "0 100 100 100 0");
    EXPECT_EQ(actions[1].serialize(), "1 0 0 2 30");

    std::stringstream stream;
    for (const ArmsAction& action : actions) {
        stream << action.serialize() << '\n';
    }
    for (const ArmsAction& action : actions) {
        ArmsAction back(true, ArmPosition::Out, LogicalOperation::Or, ArmPosition::Out, 9);
        EXPECT_TRUE(back.deserialize(stream));
        EXPECT_EQ(back, action) << action.serialize();
    }

    std::istringstream lenient("7 -1 5 100 12");
    ArmsAction read;
    EXPECT_TRUE(read.deserialize(lenient));
    EXPECT_TRUE(read.isActive) << "any non-zero flag is active";
    EXPECT_EQ(static_cast<int>(read.leftArm), -1) << "enumerations are not checked";
}

TEST_F(LocalizationTest, ArmsActionRefusesBadTextAndStaysUnchanged) {
    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    const ArmsAction original(true, ArmPosition::Up, LogicalOperation::Or, ArmPosition::In, 8);
    const std::string bad[] = {"",
                               "1 0 0",
                               "one two three four five",
                               "1 0 0 2 -5",
                               "1 0 0 2 4294967296",
                               "1 99999999999 0 2 3",
                               std::string("\0\xff\x01 \x80", 5),
                               "1 0 0 2 x"};
    for (const std::string& text : bad) {
        std::istringstream stream(text);
        ArmsAction action = original;
        EXPECT_FALSE(action.deserialize(stream)) << text;
        EXPECT_EQ(action, original) << text;
        EXPECT_TRUE(stream.fail());
    }
    ASSERT_EQ(logger.lines.size(), std::size(bad));
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message,
              "STEMLIB::deserialize: ArmsAction::deserialize failed to read values from stream");
}
