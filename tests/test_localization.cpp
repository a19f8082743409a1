// Words in 19 languages: the table's completeness and shape, fallback, the argument, the
// process-wide language, and the action vocabulary built on it.
#include "ActionRecognizer.h"
#include "Localization.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <sstream>

using namespace Ombrel;

namespace {

// Looked up during static initialisation of this test program, before main.
const std::string g_textAtStartup = Localization::getString("license.status.valid");
const std::string g_languageAtStartup = Localization::getLanguage();

// The 32 keys of the table, by group.
std::vector<std::string> allKeys() {
    const std::pair<std::string, const char*> groups[] = {
        {"common.status.", "eulaNotAccepted licenseStatus ms"},
        {"care.status.", "patientOutOfBedEventSent fallenPersonEventSent ai"},
        {"license.status.", "validationError valid expired invalidVersion"},
        {"markers.status.", "analysis alertActive conditionMet"},
        {"actions.status.", "calibrating3D excluded"},
        {"actions.names.", "aggression running sitting standing walking lyingDown unknown"},
        {"actions.arms.", "title left right"},
        {"actions.directions.", "up out down in ignore"},
        {"actions.operators.", "and or"}};
    std::vector<std::string> keys;
    for (const auto& [group, names] : groups) {
        std::istringstream words(names);
        for (std::string name; words >> name;) {
            keys.push_back(group + name);
        }
    }
    return keys;
}

// Leading blank, trailing blank, leading colon, and the number of placeholders.
std::string shapeOf(const std::string& text) {
    std::size_t placeholders = 0;
    for (std::size_t at = text.find("{0}"); at != std::string::npos;
         at = text.find("{0}", at + 1)) {
        ++placeholders;
    }
    return std::string(!text.empty() && text.front() == ' ' ? "lead " : "") +
           (!text.empty() && text.back() == ' ' ? "trail " : "") +
           (!text.empty() && text.front() == ':' ? "colon " : "") + std::to_string(placeholders);
}

// Every test leaves the process in English.
class LocalizationTest : public ::testing::Test {
protected:
    void TearDown() override { Localization::setLanguage("en"); }
};

} // namespace

TEST_F(LocalizationTest, EveryLanguageHasEveryKeyInTheShapeOfEnglish) {
    EXPECT_EQ(g_textAtStartup, "Valid") << "usable during static initialisation";
    EXPECT_EQ(g_languageAtStartup, "en");

    const std::vector<std::string> codes = Localization::getSupportedLanguages();
    EXPECT_EQ(std::set<std::string>(codes.begin(), codes.end()),
              (std::set<std::string>{"en", "es", "de", "fr", "it", "pt", "nl", "pl", "cs", "sv",
                                     "fi", "ru", "tr", "ja", "ko", "zh", "zh-TW", "th", "vi"}));
    EXPECT_EQ(codes.size(), 19u);

    const std::vector<std::string> keys = allKeys();
    ASSERT_EQ(keys.size(), 32u);
    std::vector<std::string> english;
    for (const std::string& key : keys) {
        english.push_back(Localization::getString(key));
    }
    EXPECT_EQ(shapeOf(Localization::getString("markers.status.conditionMet")), "colon 1");
    EXPECT_EQ(shapeOf(Localization::getString("actions.status.calibrating3D")), "lead 1");
    std::set<std::string> texts;
    for (const std::string& code : codes) {
        Localization::setLanguage(code);
        int sameAsEnglish = 0;
        for (std::size_t k = 0; k < keys.size(); ++k) {
            const std::string text = Localization::getString(keys[k]);
            EXPECT_NE(text, keys[k]) << code;
            EXPECT_FALSE(text.empty()) << code << " " << keys[k];
            EXPECT_EQ(shapeOf(text), shapeOf(english[k])) << code << " \"" << text << "\"";
            sameAsEnglish += text == english[k] ? 1 : 0;
            texts.insert(code + "/" + text);
        }
        // Only words that a language shares with English ("AI: ", " ms. ", ...) may match.
        EXPECT_LE(sameAsEnglish, code == "en" ? 32 : 4) << code;
    }
    EXPECT_EQ(texts.size(), 19u * keys.size()) << "no two keys of a language share a text";
}

TEST_F(LocalizationTest, GivenRowsAreKeptExactlyAndTheArgumentFillsTheFirstPlaceholder) {
    Localization::setLanguage("de");
    EXPECT_EQ(Localization::getString("care.status.patientOutOfBedEventSent"),
              "Ereignis 'Patient hat Bett verlassen' gesendet. ");
    EXPECT_EQ(Localization::getString("markers.status.conditionMet", "12"),
              ": Bedingung seit 12 s erfüllt.");
    Localization::setLanguage("ja");
    EXPECT_EQ(Localization::getString("actions.arms.title"), "腕：");
    EXPECT_EQ(Localization::getString("actions.status.calibrating3D", "3/8"),
              " 3Dキャリブレーション中 (3/8)");

    Localization::setLanguage("en");
    EXPECT_EQ(Localization::getString("actions.status.calibrating3D", "{0}"),
              " Calibrating 3D ({0})")
        << "the argument is inserted as it stands";
    EXPECT_EQ(Localization::getString("license.status.valid", "ignored"), "Valid");
    EXPECT_EQ(Localization::getString("markers.status.conditionMet", ""),
              ": Condition met for  seconds.");
}

TEST_F(LocalizationTest, UnknownLanguagesFallBackToEnglishAndUnknownKeysComeBackAsThemselves) {
    for (const char* code : {"xx", "DE", "zh-tw", "pt-BR", "", "en "}) {
        EXPECT_FALSE(Localization::isLanguageSupported(code)) << code;
        Localization::setLanguage("de");
        Localization::setLanguage(code);
        EXPECT_EQ(Localization::getLanguage(), "en") << "an unknown code does not keep German";
    }
    EXPECT_TRUE(Localization::isLanguageSupported("zh-TW"));

    for (const std::string& code : Localization::getSupportedLanguages()) {
        Localization::setLanguage(code);
        EXPECT_EQ(Localization::getString("no.such.key"), "no.such.key");
        EXPECT_EQ(Localization::getString("no.such.{0}", "x"), "no.such.x");
    }
}

TEST_F(LocalizationTest, ActionWordsFixedAndLocalized) {
    EXPECT_EQ(toString(Actions::LyingDown), "Lying Down");
    EXPECT_EQ(toString(Actions::Unknown), "Unknown");
    for (Actions other : {Actions::Loitering, Actions::ArmsPosition, static_cast<Actions>(42)}) {
        EXPECT_EQ(toString(other), "Unknown other");
    }

    Localization::setLanguage("de");
    EXPECT_EQ(toString(Actions::Running), "Running") << "the fixed words ignore the language";
    EXPECT_EQ(toLocalizedString(Actions::Running), "Laufen");
    for (Actions other : {Actions::Loitering, Actions::ArmsPosition, static_cast<Actions>(-3)}) {
        EXPECT_EQ(toLocalizedString(other), "Unbekannt");
    }
    EXPECT_EQ(toLocalizedString(ArmPosition::Ignore), "Ignorieren");
    EXPECT_EQ(toLocalizedString(ArmPosition::Unknown), "Unknown") << "English in every language";
    EXPECT_EQ(toLocalizedString(static_cast<ArmPosition>(7)), "Unknown");
    EXPECT_EQ(toLocalizedString(LogicalOperation::Or), "Oder");
    EXPECT_EQ(toLocalizedString(LogicalOperation::Unknown), "");
    EXPECT_EQ(toLocalizedString(static_cast<LogicalOperation>(2)), "");
}

TEST_F(LocalizationTest, ArmsActionTexts) {
    const ArmsAction upAndDown(true, ArmPosition::Up, LogicalOperation::And, ArmPosition::Down, 5);
    const ArmsAction noOperation(false, ArmPosition::Unknown, LogicalOperation::Unknown,
                                 ArmPosition::Out, 0);
    EXPECT_EQ(upAndDown.getLocalizedArmsActionString(), "Arms: Left Up And Right Down");
    EXPECT_EQ(noOperation.getLocalizedArmsActionString(), "Arms: Left Unknown  Right Out");
    Localization::setLanguage("de");
    EXPECT_EQ(upAndDown.getLocalizedArmsActionString(), "Arme: Links Oben Und Rechts Unten");
    EXPECT_EQ(noOperation.getLocalizedArmsActionString(), "Arme: Links Unknown  Rechts Außen");
    EXPECT_EQ(upAndDown.getArmsActionString(), "Arms: Left Up And Right Down");
    EXPECT_EQ(noOperation.getArmsActionString(), "Arms: Left Unknown  Right Out");
}

TEST_F(LocalizationTest, ArmsActionTextFormRoundTripsAndRefusesBadText) {
    const ArmsAction actions[] = {
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
    EXPECT_EQ(read, ArmsAction(true, static_cast<ArmPosition>(-1), static_cast<LogicalOperation>(5),
                               ArmPosition::Unknown, 12))
        << "any non-zero flag is active, and enumerations are not checked";

    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    const ArmsAction original(true, ArmPosition::Up, LogicalOperation::Or, ArmPosition::In, 8);
    const std::string bad[] = {"",
                               "1 0 0",
                               "one two three four five",
                               "1 0 0 2 -5",
                               "1 0 0 2 4294967296",
                               "1 99999999999 0 2 3",
                               std::string("\0\xff\x01 \x80", 5)};
    for (const std::string& text : bad) {
        std::istringstream in(text);
        ArmsAction action = original;
        EXPECT_FALSE(action.deserialize(in)) << text;
        EXPECT_EQ(action, original) << text;
        EXPECT_TRUE(in.fail());
    }
    ASSERT_EQ(logger.lines.size(), std::size(bad));
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message,
              "STEMLIB::deserialize: ArmsAction::deserialize failed to read values from stream");
}
