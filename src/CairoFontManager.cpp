#include "CairoFontManager.h"

#include <cairo-ft.h>
#include FT_MULTIPLE_MASTERS_H

#include <syslog.h>
#include <unistd.h>

#include <array>

namespace Ombrel {

namespace {

struct LanguageFont {
    const char* languageCode;
    const char* fontFileName;
    bool isThai;
};

constexpr std::array<LanguageFont, 6> kLanguageFonts = {{
    {"th", "NotoSansThai.ttf", true},
    {"ja", "wqy-microhei.ttc", false},
    {"zh", "wqy-microhei.ttc", false},
    {"zh-TW", "wqy-microhei.ttc", false},
    {"ko", "wqy-microhei.ttc", false},
    {"vi", "wqy-microhei.ttc", false},
}};

constexpr std::array<const char*, 8> kFontDirectories = {
    "fonts/",
    "./fonts/",
    "/usr/local/packages/ombrel_care/fonts/",
    "/usr/local/packages/ombrel_markers/fonts/",
    "/usr/local/packages/ombrel_actions/fonts/",
    "/opt/app/fonts/",
    "/opt/fonts/",
    "/usr/share/fonts/truetype/",
};

// Bold weight (700) at normal width (100) on the first two variation axes, in 16.16 fixed point.
constexpr FT_Fixed kThaiWeight = 700 << 16;
constexpr FT_Fixed kThaiWidth = 100 << 16;

} // namespace

CairoFontManager& CairoFontManager::getInstance() {
    static CairoFontManager instance;
    return instance;
}

CairoFontManager::CairoFontManager() = default;

CairoFontManager::~CairoFontManager() {
    for (auto& entry : m_cairoFaces) {
        if (entry.second != nullptr) {
            cairo_font_face_destroy(entry.second);
        }
    }
    m_cairoFaces.clear();
    for (auto& entry : m_ftFaces) {
        if (entry.second != nullptr) {
            FT_Done_Face(entry.second);
        }
    }
    m_ftFaces.clear();
    if (m_ftInitialized && m_ftLibrary != nullptr) {
        FT_Done_FreeType(m_ftLibrary);
        m_ftLibrary = nullptr;
    }
}

cairo_font_face_t* CairoFontManager::getFontFaceForLanguage(const std::string& languageCode) {
    std::lock_guard<std::mutex> lock(m_mutex);

    const LanguageFont* font = nullptr;
    for (const LanguageFont& candidate : kLanguageFonts) {
        if (languageCode == candidate.languageCode) {
            font = &candidate;
            break;
        }
    }
    if (font == nullptr) {
        return nullptr;
    }
    const std::string fontFileName = font->fontFileName;

    const auto loaded = m_cairoFaces.find(fontFileName);
    if (loaded != m_cairoFaces.end()) {
        return loaded->second;
    }

    const std::string resolvedPath = resolveFontPath(fontFileName);
    if (resolvedPath.empty()) {
        syslog(LOG_WARNING, "CairoFontManager: font file %s not found in search paths",
               fontFileName.c_str());
        return nullptr;
    }

    if (!m_ftInitialized) {
        if (FT_Init_FreeType(&m_ftLibrary) != 0) {
            syslog(LOG_ERR, "CairoFontManager: failed to initialize FreeType");
            return nullptr;
        }
        m_ftInitialized = true;
    }

    FT_Face ftFace = nullptr;
    if (FT_New_Face(m_ftLibrary, resolvedPath.c_str(), 0, &ftFace) != 0 || ftFace == nullptr) {
        syslog(LOG_ERR, "CairoFontManager: failed to load font %s", resolvedPath.c_str());
        return nullptr;
    }

    if (font->isThai) {
        // A static font has no axes and refuses the call; it is then drawn as it is.
        FT_Fixed coordinates[2] = {kThaiWeight, kThaiWidth};
        FT_Set_Var_Design_Coordinates(ftFace, 2, coordinates);
    }

    cairo_font_face_t* cairoFace = cairo_ft_font_face_create_for_ft_face(ftFace, 0);
    if (cairoFace == nullptr || cairo_font_face_status(cairoFace) != CAIRO_STATUS_SUCCESS) {
        syslog(LOG_ERR, "CairoFontManager: failed to create cairo font face for %s",
               resolvedPath.c_str());
        if (cairoFace != nullptr) {
            cairo_font_face_destroy(cairoFace);
        }
        FT_Done_Face(ftFace);
        return nullptr;
    }

    m_ftFaces[fontFileName] = ftFace;
    m_cairoFaces[fontFileName] = cairoFace;
    syslog(LOG_INFO, "CairoFontManager: loaded font %s for language %s", resolvedPath.c_str(),
           languageCode.c_str());
    return cairoFace;
}

std::string CairoFontManager::resolveFontPath(const std::string& fontFileName) const {
    for (const char* directory : kFontDirectories) {
        std::string path = directory + fontFileName;
        if (access(path.c_str(), R_OK) == 0) {
            return path;
        }
    }
    return "";
}

} // namespace Ombrel
