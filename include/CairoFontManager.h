// CairoFontManager: the fonts of the languages whose script needs one of its own.
//
// Thai ("th") uses "NotoSansThai.ttf", drawn bold where the file is a variable font; Japanese,
// Chinese ("zh", "zh-TW"), Korean and Vietnamese use "wqy-microhei.ttc". A font file is looked up
// by name in these folders, in order, and the first readable one is used:
//
//   fonts/   ./fonts/   (both relative to the working directory)
//   /usr/local/packages/ombrel_care/fonts/   /usr/local/packages/ombrel_markers/fonts/
//   /usr/local/packages/ombrel_actions/fonts/   /opt/app/fonts/   /opt/fonts/
//   /usr/share/fonts/truetype/
//
// Each file is loaded once per process with FreeType and handed out as a cairo font face; any
// other language gets null, and the caller uses a font family of its own. Failures give null and
// one line in the system log (written with syslog directly); they are not remembered, so a later
// call searches again.
//
// Ownership: the manager owns every face it hands out, for the life of the process; callers must
// not destroy them (cairo_set_font_face takes a reference of its own). Threading: one lock guards
// every lookup and load, so canvases may be built on any thread.
#pragma once

#include <cairo.h>
#include <ft2build.h>
#include FT_FREETYPE_H

#include <mutex>
#include <string>
#include <unordered_map>

namespace Ombrel {

class CairoFontManager {
public:
    // The process-wide manager, built on first use and destroyed at exit.
    static CairoFontManager& getInstance();

    CairoFontManager(const CairoFontManager&) = delete;
    CairoFontManager& operator=(const CairoFontManager&) = delete;

    // The face for languageCode (compared exactly, case included), loading its file on first
    // use; null for a language without a font of its own or when the file cannot be found or
    // loaded.
    cairo_font_face_t* getFontFaceForLanguage(const std::string& languageCode);

    // The first readable path of fontFileName in the search folders, or "" when there is none.
    // Takes no lock and touches no member.
    std::string resolveFontPath(const std::string& fontFileName) const;

protected:
    // Only getInstance makes the manager that applications share. A subclass may make one of its
    // own (tests do); faces it handed out must not be drawn with after it is destroyed.
    CairoFontManager();
    // Releases the cairo faces, then the FreeType faces, then FreeType itself.
    ~CairoFontManager();

private:
    bool m_ftInitialized = false;
    FT_Library m_ftLibrary = nullptr;
    std::mutex m_mutex;
    // Both keyed by font file name, so languages that share a file share one entry; a key is in
    // one map exactly when it is in the other.
    std::unordered_map<std::string, FT_Face> m_ftFaces;
    std::unordered_map<std::string, cairo_font_face_t*> m_cairoFaces;
};

} // namespace Ombrel
