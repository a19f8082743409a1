// Config: an application's configuration, kept in a versioned text file.
//
// The text is the same in the file, in serialize()'s result and in what update() receives: the
// version number and a newline, from version 2 on the language code and a newline, then whatever
// the derived class writes. Fields are read by formatted extraction, separated by any white
// space. Data of the same or an older version is read (the derived reader learns the version
// found), data of a newer version is refused. Reading the head also sets the process-wide
// language of Localization.
//
// A derived class overrides serialize() (appending its lines to Config::serialize()) and
// deserializeStream(std::stringstream&, int), and calls initialize() at the end of its own
// constructor. Add `using Config::deserializeStream;` to keep the head reader visible.
//
// Ownership: the object owns its file name; the file is opened only inside loadValues,
// saveValues and update. Threading: no locks; an application that calls update from its web
// handler while the analysis loop reads the values guards them itself.
//
// Failures give false and one log line; nothing throws for a bad file or bad text.
#pragma once

#include <sstream>
#include <string>

namespace Ombrel {

class Config {
public:
    // Stores both; the language starts as "en". Touches no file.
    Config(const std::string& filename, int versionNumber);
    virtual ~Config() = default;

    // Loads the file if it exists, otherwise writes it with the current values.
    virtual void initialize();

    // Writes serialize() to the file, replacing it. False, with no log line, if it cannot be
    // opened for writing.
    bool saveValues();
    // Takes over a whole serialized configuration: on success the file holds serializedConfig
    // byte for byte (not a fresh serialize()). If the text is refused the file is untouched.
    bool update(const std::string& serializedConfig);

    // The head lines: the version number and the language, each followed by a newline.
    virtual std::string serialize() const;
    // Reads str through deserializeStream(std::stringstream&).
    virtual bool deserialize(const std::string& str);

    const std::string& getLanguage() const { return _language; }
    // Stores the code and passes it to Localization::setLanguage.
    void setLanguage(const std::string& language);

protected:
    // Reads the file through deserializeStream(std::stringstream&). A file that cannot be
    // opened gives a warning and false.
    bool loadValues();
    // Reads the head: the version number (an error and false if missing or newer than
    // _versionNumber), from version 2 on the language (a missing one selects "en"), then hands
    // the stream to the derived reader. The language is taken over even if that reader fails.
    virtual bool deserializeStream(std::stringstream& s);
    // The derived class's reader, with the stream behind the head lines and the version found
    // in the data. The base reads nothing and returns false.
    virtual bool deserializeStream(std::stringstream& s, int versionNumber);

    std::string _configFilename;
    int _versionNumber;
    std::string _language = "en";
};

} // namespace Ombrel
