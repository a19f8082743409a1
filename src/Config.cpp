#include "Config.h"

#include "Localization.h"
#include "Points.h"

#include <fstream>

namespace Ombrel {

namespace {

// A file that exists but cannot be read counts as absent.
bool fileExists(const std::string& filename) {
    std::ifstream file(filename);
    return file.good();
}

} // namespace

Config::Config(const std::string& filename, int versionNumber)
    : _configFilename(filename), _versionNumber(versionNumber) {}

void Config::initialize() {
    if (fileExists(_configFilename)) {
        loadValues();
    } else {
        saveValues();
    }
}

bool Config::saveValues() {
    std::ofstream file(_configFilename, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file.good()) {
        return false;
    }
    file << serialize();
    return true;
}

bool Config::update(const std::string& serializedConfig) {
    if (!deserialize(serializedConfig)) {
        g_stemlibLogger.error("update: Failed to deserialize config string: " + serializedConfig);
        return false;
    }
    std::ofstream file(_configFilename, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file.good()) {
        g_stemlibLogger.error("update: Failed to open config file for writing: " + _configFilename);
        return false;
    }
    file << serializedConfig;
    return true;
}

std::string Config::serialize() const {
    std::stringstream s;
    s << _versionNumber << '\n' << _language << '\n';
    return s.str();
}

bool Config::deserialize(const std::string& str) {
    std::stringstream s(str, std::ios::in | std::ios::out);
    return deserializeStream(s);
}

void Config::setLanguage(const std::string& language) {
    _language = language;
    Localization::setLanguage(language);
}

bool Config::loadValues() {
    std::ifstream file(_configFilename, std::ios::binary);
    if (!file.good()) {
        g_stemlibLogger.warning("loadValues: Failed to open config file for reading: " +
                                _configFilename);
        return false;
    }
    std::stringstream s(std::ios::in | std::ios::out);
    s << file.rdbuf();
    return deserializeStream(s);
}

bool Config::deserializeStream(std::stringstream& s) {
    int versionNumber = 0;
    if (!(s >> versionNumber)) {
        g_stemlibLogger.error(
            "deserializeStream: Failed to read version number from config stream.");
        return false;
    }
    if (_versionNumber < versionNumber) {
        g_stemlibLogger.error("deserializeStream: Config version mismatch. Expected: " +
                              std::to_string(_versionNumber) +
                              ", got: " + std::to_string(versionNumber));
        return false;
    }
    // From version 2 on a language word follows; a missing one, like an older version, selects
    // English. A failed extraction leaves the word empty.
    std::string lang;
    if (versionNumber > 1) {
        s >> lang;
    }
    setLanguage(lang.empty() ? "en" : lang);
    return deserializeStream(s, versionNumber);
}

bool Config::deserializeStream(std::stringstream& /*s*/, int /*versionNumber*/) {
    return false;
}

} // namespace Ombrel
