// Words in 19 languages: the table's completeness and shape, fallback, the argument, the
// process-wide language, and the action vocabulary built on it.
#include "ActionRecognizer.h"
#include "Localization.h"
#include "LogLines.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

using namespace Ombrel;

namespace {

// Looked up during static initialisation of this test program, before main.
const std::string g_startup =
    Localization::getLanguage() + Localization::getString("license.status.valid");

// The blank pattern of a text (its first character if a blank or a colon, its last if a blank)
// and whether it holds the placeholder.
std::string shapeOf(const std::string& t) {
    const bool lead = !t.empty() && (t.front() == ' ' || t.front() == ':');
    return std::string(lead ? t.substr(0, 1) : "-") + (!t.empty() && t.back() == ' ' ? " " : "-") +
           (t.find("{0}") != std::string::npos ? "{0}" : "");
}

class LocalizationTest : public ::testing::Test {
protected:
    void TearDown() override { Localization::setLanguage("en"); }
};

} // namespace

TEST_F(LocalizationTest, EveryLanguageHasEveryKeyInTheShapeOfEnglish) {
    EXPECT_EQ(g_startup, "enValid") << "usable during static initialisation";
    const std::vector<std::string> codes = Localization::getSupportedLanguages();
    EXPECT_EQ(
        std::multiset<std::string>(codes.begin(), codes.end()),
        (std::multiset<std::string>{"en", "es", "de", "fr", "it", "pt", "nl", "pl", "cs", "sv",
                                    "fi", "ru", "tr", "ja", "ko", "zh", "zh-TW", "th", "vi"}));
    std::vector<std::string> keys; // the 32 keys, by group
    std::istringstream groups(
        "common.status. eulaNotAccepted licenseStatus ms ; care.status. patientOutOfBedEventSent "
        "fallenPersonEventSent ai ; license.status. validationError valid expired invalidVersion ; "
        "markers.status. analysis alertActive conditionMet ; actions.status. calibrating3D "
        "excluded ; actions.names. aggression running sitting standing walking lyingDown unknown "
        "; actions.arms. title left right ; actions.directions. up out down in ignore ; "
        "actions.operators. and or ;");
    for (std::string group, word; groups >> group;) {
        while (groups >> word && word != ";") {
            keys.push_back(group + word);
        }
    }
    ASSERT_EQ(keys.size(), 32u);
    std::vector<std::string> english;
    for (const std::string& key : keys) {
        english.push_back(Localization::getString(key));
    }
    EXPECT_EQ(shapeOf(english[12]) + shapeOf(english[13]), ":-{0} -{0}") << keys[12] << keys[13];
    std::set<std::string> texts;
    for (const std::string& code : codes) {
        Localization::setLanguage(code);
        int sameAsEnglish = 0;
        for (std::size_t k = 0; k < keys.size(); ++k) {
            const std::string text = Localization::getString(keys[k]);
            ASSERT_FALSE(text.empty() || text == keys[k]) << code << " " << keys[k];
            EXPECT_EQ(shapeOf(text), shapeOf(english[k])) << code << " \"" << text << "\"";
            sameAsEnglish += text == english[k] ? 1 : 0;
            texts.insert(code + "/" + text);
        }
        // Only words that a language shares with English ("AI: ", " ms. ", ...) may match.
        EXPECT_LE(sameAsEnglish, code == "en" ? 32 : 4) << code;
    }
    EXPECT_EQ(texts.size(), 19u * keys.size()) << "no two keys of a language share a text";
}

TEST_F(LocalizationTest, GivenRowsTheArgumentAndTheFallbacks) {
    Localization::setLanguage("de");
    EXPECT_EQ(Localization::getString("care.status.patientOutOfBedEventSent"),
              "Ereignis 'Patient hat Bett verlassen' gesendet. ");
    EXPECT_EQ(Localization::getString("markers.status.conditionMet", "12"),
              ": Bedingung seit 12 s erfüllt.");
    Localization::setLanguage("ja");
    EXPECT_EQ(Localization::getString("actions.status.calibrating3D", "{0}"),
              " 3Dキャリブレーション中 ({0})")
        << "the argument is inserted as it stands";
    Localization::setLanguage("en");
    EXPECT_EQ(Localization::getString("license.status.valid", "ignored"), "Valid");
    for (const char* code : {"xx", "DE", "zh-tw", "pt-BR", ""}) {
        Localization::setLanguage("de");
        Localization::setLanguage(code);
        EXPECT_FALSE(Localization::isLanguageSupported(code));
        EXPECT_EQ(Localization::getLanguage(), "en") << "an unknown code does not keep German";
    }
    for (const std::string& code : Localization::getSupportedLanguages()) {
        Localization::setLanguage(code);
        EXPECT_EQ(Localization::getString("no.such.{0}", "x"), "no.such.x");
    }
}

TEST_F(LocalizationTest, ActionWordsFixedLocalizedAndAsText) {
    const ArmsAction upAndDown(true, ArmPosition::Up, LogicalOperation::And, ArmPosition::Down, 5);
    // An unknown arm position reads "Unknown" in every language, an unknown operation nothing.
    const ArmsAction unknowns(false, ArmPosition::Unknown, LogicalOperation::Unknown,
                              ArmPosition::Out, 0);
    Localization::setLanguage("de");
    std::string words;
    for (Actions action : {Actions::LyingDown, Actions::Unknown, Actions::Loitering,
                           Actions::ArmsPosition, static_cast<Actions>(-3)}) {
        words += toString(action) + "/" + toLocalizedString(action) + " ";
    }
    EXPECT_EQ(words, "Lying Down/Liegen Unknown/Unbekannt Unknown other/Unbekannt "
                     "Unknown other/Unbekannt Unknown other/Unbekannt ");
    EXPECT_EQ(upAndDown.getLocalizedArmsActionString(), "Arme: Links Oben Und Rechts Unten");
    EXPECT_EQ(unknowns.getLocalizedArmsActionString(), "Arme: Links Unknown  Rechts Außen");
    EXPECT_EQ(upAndDown.getArmsActionString(), "Arms: Left Up And Right Down");
    EXPECT_EQ(unknowns.getArmsActionString(), "Arms: Left Unknown  Right Out");

    // The text form: five integers; any non-zero flag is active, enumerations are not checked.
    EXPECT_EQ(ArmsAction().serialize() + "/" + upAndDown.serialize(), "0 100 100 100 0/1 0 0 2 5");
    const ArmsAction largest(false, ArmPosition::Ignore, LogicalOperation::Or, ArmPosition::In,
                             4294967295u);
    std::stringstream stream(upAndDown.serialize() + "\n" + largest.serialize() + " 7 -1 5 100 12");
    for (const ArmsAction& expected :
         {upAndDown, largest,
          ArmsAction(true, static_cast<ArmPosition>(-1), static_cast<LogicalOperation>(5),
                     ArmPosition::Unknown, 12)}) {
        ArmsAction back;
        EXPECT_TRUE(back.deserialize(stream) && back == expected) << expected.serialize();
    }
    // A missing or malformed field leaves the action unchanged, logs and fails the stream.
    StemlibTest::RecordingLogger logger;
    StemlibTest::ScopedLogger scope(logger);
    for (const char* text : {"", "1 0 0", "one two three four five", "1 0 0 2 -5",
                             "1 0 0 2 4294967296", "1 99999999999 0 2 3", "\xff\x01 \x80"}) {
        std::istringstream in(text);
        ArmsAction action = upAndDown;
        EXPECT_TRUE(!action.deserialize(in) && action == upAndDown && in.fail()) << text;
    }
    EXPECT_EQ(StemlibTest::linesAt(logger, "error"),
              std::vector<std::string>(7, "deserialize: ArmsAction::deserialize "
                                          "failed to read values from stream"));
}
