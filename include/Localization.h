// Localization: every user-visible word of the library's status lines and action names, in 19
// languages, looked up by a dotted key ("markers.status.conditionMet").
//
// The table is built into the library; there are no language files. One process-wide language
// applies to every lookup (Config::setLanguage sets it). A key that no table holds comes back as
// itself, so a missing text is visible but harmless.
//
// Language codes: "en", "es", "de", "fr", "it", "pt", "nl", "pl", "cs", "sv", "fi", "ru", "tr",
// "ja", "ko", "zh" (simplified), "zh-TW" (traditional), "th", "vi".
//
// Threading: the table is read-only and built on first use, so lookups are safe from any thread,
// also from static initialisers of other modules. The current language is held atomically:
// setLanguage may run on the web thread while the analysis loop looks texts up.
#pragma once

#include <atomic>
#include <string>
#include <unordered_map>
#include <vector>

namespace Ombrel {

class Localization {
public:
    Localization() = delete;

    // Selects languageCode if it is supported, otherwise "en" (the previous language is not
    // kept). Codes are compared exactly, case included.
    static void setLanguage(const std::string& languageCode);
    // The language in force; "en" until setLanguage is first called.
    static std::string getLanguage();

    // The text of key in the current language, else the English text, else key itself.
    static std::string getString(const std::string& key);
    // The same with the first "{0}" replaced by arg0 as it stands; a text without a placeholder
    // is returned unchanged.
    static std::string getString(const std::string& key, const std::string& arg0);

    static bool isLanguageSupported(const std::string& languageCode);
    // All 19 codes, in no particular order.
    static std::vector<std::string> getSupportedLanguages();

private:
    using Dictionary = std::unordered_map<std::string, std::string>;
    using Dictionaries = std::unordered_map<std::string, Dictionary>;

    static const Dictionaries& dictionaries();
    static const std::string* findText(const std::string& key);

    // Points at a code of the table (or the literal "en"), never at a temporary.
    static std::atomic<const char*> s_currentLanguage;
};

} // namespace Ombrel
