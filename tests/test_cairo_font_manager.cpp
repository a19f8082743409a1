// CairoFontManager with real font files: which languages get a face, the folder search, the
// system-log lines, failures that are retried, the Thai weight and the order of release.
#include "CairoFontManager.h"
#include "FontLibraryHooks.h"
#include "OverlayTestUtils.h"
#include "ScratchDirectory.h"
#include "SyslogCapture.h"

#include <gtest/gtest.h>

#include <cairo-ft.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>

using namespace Ombrel;
using namespace StemlibTest;
namespace fs = std::filesystem;

namespace {

// A manager of the test's own, so that each test starts with nothing loaded.
class OwnFontManager : public CairoFontManager {
public:
    OwnFontManager() = default;
    ~OwnFontManager() = default;
};

using Lines = std::vector<std::string>;

// The captured lines as "<priority> <text>".
Lines syslogLines(const SyslogCapture& capture) {
    Lines lines;
    for (const SyslogRecord& record : capture.records()) {
        lines.push_back(std::to_string(record.priority) + " " + record.message);
    }
    return lines;
}

// A scratch folder, made the working directory, with an empty fonts/ in it.
class FontFolderTest : public ::testing::Test {
protected:
    FontFolderTest() : _inside(dir.path()) { fs::create_directory(fonts); }

    // Links the test font of that name into fonts/.
    void linkTestFont(const std::string& name) {
        fs::remove(fonts / name);
        fs::create_symlink(fs::path(testFontsParent()) / "fonts" / name, fonts / name);
    }

    ScratchDirectory dir;
    const fs::path fonts = dir.path() / "fonts";

private:
    ScopedWorkingDirectory _inside;
};

const std::string kCjk = "wqy-microhei.ttc";
const std::string kThai = "NotoSansThai.ttf";

} // namespace

TEST_F(FontFolderTest, GivesFacesToSixLanguagesLoadingEachFileOnceAndReleasesInOrder) {
    linkTestFont(kCjk);
    linkTestFont(kThai);
    EXPECT_EQ(&CairoFontManager::getInstance(), &CairoFontManager::getInstance());
    auto manager = std::make_unique<OwnFontManager>();
    SyslogCapture capture;
    FontLibraryHooks hooks;

    // Other codes, whatever their case or region, get null at once: no search, no FreeType.
    for (const char* code : {"en", "", "TH", "Ja", "zh-CN", "zh-tw", "de", "th "}) {
        EXPECT_EQ(manager->getFontFaceForLanguage(code), nullptr) << code;
    }
    EXPECT_EQ(syslogLines(capture), Lines{});
    EXPECT_TRUE(hooks.calls().empty());

    cairo_font_face_t* cjk = manager->getFontFaceForLanguage("ja");
    ASSERT_NE(cjk, nullptr);
    EXPECT_EQ(cairo_font_face_status(cjk), CAIRO_STATUS_SUCCESS);
    EXPECT_EQ(cairo_font_face_get_type(cjk), CAIRO_FONT_TYPE_FT);
    for (const char* code : {"zh", "zh-TW", "ko", "vi", "ja"}) {
        EXPECT_EQ(manager->getFontFaceForLanguage(code), cjk) << code;
    }
    cairo_font_face_t* thai = manager->getFontFaceForLanguage("th");
    ASSERT_NE(thai, nullptr);
    EXPECT_NE(thai, cjk);
    EXPECT_EQ(manager->getFontFaceForLanguage("th"), thai);
    EXPECT_EQ(syslogLines(capture),
              (Lines{"6 CairoFontManager: loaded font fonts/wqy-microhei.ttc for language ja",
                     "6 CairoFontManager: loaded font fonts/NotoSansThai.ttf for language th"}));
    EXPECT_EQ(hooks.calls("FT_Init_FreeType").size(), 1u);
    EXPECT_EQ(hooks.calls("cairo_ft_font_face_create_for_ft_face").size(), 2u);
    // Thai only: bold weight and normal width, 700 and 100 in 16.16 fixed point.
    const std::vector<FontCall> variations = hooks.calls("FT_Set_Var_Design_Coordinates");
    ASSERT_EQ(variations.size(), 1u);
    EXPECT_EQ(variations[0].arguments, (std::vector<long>{45875200, 6553600}));

    // Release: both cairo faces, then both FreeType faces, then FreeType.
    const void* library = hooks.calls("FT_Init_FreeType")[0].object;
    const std::size_t before = hooks.calls().size();
    manager.reset();
    const std::vector<FontCall> all = hooks.calls();
    std::vector<FontCall> release(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
    ASSERT_EQ(release.size(), 5u);
    EXPECT_EQ(release[0].function, "cairo_font_face_destroy");
    EXPECT_EQ(release[1].function, "cairo_font_face_destroy");
    EXPECT_EQ(std::set<const void*>({release[0].object, release[1].object}),
              std::set<const void*>({cjk, thai}));
    EXPECT_EQ(release[2].function, "FT_Done_Face");
    EXPECT_EQ(release[3].function, "FT_Done_Face");
    EXPECT_TRUE(release[2].object == variations[0].object ||
                release[3].object == variations[0].object);
    EXPECT_EQ(release[4].function, "FT_Done_FreeType");
    EXPECT_EQ(release[4].object, library);
}

TEST_F(FontFolderTest, SearchesTheFoldersInOrderSkippingUnreadableEntries) {
    OwnFontManager manager;
    linkTestFont(kCjk);
    EXPECT_EQ(manager.resolveFontPath(kCjk), "fonts/" + kCjk);
    // Only the last folder, the system's, has the file under this name; a dangling link in
    // fonts/ does not stop the search.
    const std::string system = "/usr/share/fonts/truetype/wqy/wqy-microhei.ttc";
    ASSERT_TRUE(fs::exists(system)) << "fonts-wqy-microhei is not installed";
    fs::create_directory(fonts / "wqy");
    fs::create_symlink(dir.path() / "gone.ttc", fonts / "wqy" / "wqy-microhei.ttc");
    EXPECT_EQ(manager.resolveFontPath("wqy/wqy-microhei.ttc"), system);
    EXPECT_EQ(manager.resolveFontPath("no-such-font.ttf"), "");
}

TEST_F(FontFolderTest, ReportsEachFailureAndTriesAgainOnTheNextCall) {
    {
        OwnFontManager manager;
        if (!manager.resolveFontPath(kThai).empty()) {
            GTEST_SKIP() << "this machine has " << manager.resolveFontPath(kThai);
        }
        SyslogCapture capture;
        FontLibraryHooks hooks;
        EXPECT_EQ(manager.getFontFaceForLanguage("th"), nullptr);
        EXPECT_EQ(manager.getFontFaceForLanguage("th"), nullptr);
        const std::string missing =
            "4 CairoFontManager: font file NotoSansThai.ttf not found in search paths";
        EXPECT_EQ(syslogLines(capture), (Lines{missing, missing}));
        EXPECT_TRUE(hooks.calls("FT_Init_FreeType").empty()) << "FreeType starts only for a file";

        // A file that is no font, then the real one in its place.
        writeWholeFile((fonts / kCjk).string(), "not a font");
        EXPECT_EQ(manager.getFontFaceForLanguage("zh"), nullptr);
        linkTestFont(kCjk);
        EXPECT_NE(manager.getFontFaceForLanguage("zh"), nullptr);
        EXPECT_EQ(syslogLines(capture),
                  (Lines{missing, missing, "3 CairoFontManager: failed to load font fonts/" + kCjk,
                         "6 CairoFontManager: loaded font fonts/" + kCjk + " for language zh"}));
    }
    linkTestFont(kThai);
    {
        // FreeType refuses to start once; the next call starts it.
        OwnFontManager manager;
        SyslogCapture capture;
        FontLibraryHooks hooks;
        hooks.failNextFreeTypeInit();
        EXPECT_EQ(manager.getFontFaceForLanguage("ko"), nullptr);
        EXPECT_NE(manager.getFontFaceForLanguage("ko"), nullptr);
        EXPECT_EQ(hooks.calls("FT_Init_FreeType").size(), 2u);
        EXPECT_EQ(syslogLines(capture),
                  (Lines{"3 CairoFontManager: failed to initialize FreeType",
                         "6 CairoFontManager: loaded font fonts/" + kCjk + " for language ko"}));
    }
    {
        // cairo gives a face in an error state: it and the FreeType face are released and
        // nothing is kept, so the next call loads the file again.
        OwnFontManager manager;
        SyslogCapture capture;
        FontLibraryHooks hooks;
        hooks.failNextCairoFace();
        EXPECT_EQ(manager.getFontFaceForLanguage("th"), nullptr);
        const std::vector<FontCall> failed = hooks.calls();
        ASSERT_GE(failed.size(), 4u);
        EXPECT_EQ(failed[failed.size() - 2].function, "cairo_font_face_destroy");
        EXPECT_EQ(failed.back().function, "FT_Done_Face");
        EXPECT_EQ(failed.back().object, hooks.calls("FT_Set_Var_Design_Coordinates")[0].object);

        cairo_font_face_t* thai = manager.getFontFaceForLanguage("th");
        ASSERT_NE(thai, nullptr);
        EXPECT_EQ(manager.getFontFaceForLanguage("th"), thai);
        EXPECT_EQ(hooks.calls("FT_Set_Var_Design_Coordinates").size(), 2u);
        EXPECT_EQ(syslogLines(capture),
                  (Lines{"3 CairoFontManager: failed to create cairo font face for fonts/" + kThai,
                         "6 CairoFontManager: loaded font fonts/" + kThai + " for language th"}));
    }
}

TEST_F(FontFolderTest, ThreadsShareEachFaceLoadedOnceAndDrawWithIt) {
    // Canvases are built on any thread: four threads ask at once for every language's face and
    // draw a word of its script with it. Each file is loaded once, every thread gets the same
    // face for a language, and every face draws.
    linkTestFont(kCjk);
    linkTestFont(kThai);
    OwnFontManager manager;
    SyslogCapture capture;
    const std::vector<std::pair<std::string, std::string>> words = {
        {"th", "\xe0\xb8\xaa\xe0\xb8\xa7\xe0\xb8\xb1\xe0\xb8\xaa\xe0\xb8\x94\xe0\xb8\xb5"},
        {"ja", "\xe6\x97\xa5\xe6\x9c\xac"},
        {"zh", "\xe4\xb8\xad\xe6\x96\x87"},
        {"zh-TW", "\xe4\xb8\xad\xe6\x96\x87"},
        {"ko", "\xed\x95\x9c\xea\xb5\xad"},
        {"vi", "Vi\xe1\xbb\x87t"},
        {"en", "English"}};
    constexpr int kThreads = 4;
    std::vector<std::vector<cairo_font_face_t*>> faces(kThreads);
    std::vector<std::vector<int>> inkedPixels(kThreads);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready < kThreads) {
                std::this_thread::yield();
            }
            for (std::size_t i = 0; i < words.size(); ++i) {
                // Each thread starts at another language.
                const auto& [language, word] =
                    words[(i + static_cast<std::size_t>(t)) % words.size()];
                cairo_font_face_t* face = manager.getFontFaceForLanguage(language);
                faces[static_cast<std::size_t>(t)].push_back(face);
                cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 160, 48);
                cairo_t* cr = cairo_create(surface);
                if (face != nullptr) {
                    cairo_set_font_face(cr, face);
                }
                cairo_set_font_size(cr, 24);
                cairo_move_to(cr, 4, 36);
                cairo_show_text(cr, word.c_str());
                cairo_surface_flush(surface);
                int inked = 0;
                const unsigned char* data = cairo_image_surface_get_data(surface);
                for (int y = 0; y < 48; ++y) {
                    for (int x = 0; x < 160; ++x) {
                        inked += data[y * cairo_image_surface_get_stride(surface) + x * 4 + 3] != 0;
                    }
                }
                inkedPixels[static_cast<std::size_t>(t)].push_back(inked);
                cairo_destroy(cr);
                cairo_surface_destroy(surface);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    for (int t = 0; t < kThreads; ++t) {
        for (std::size_t i = 0; i < words.size(); ++i) {
            const std::size_t w = (i + static_cast<std::size_t>(t)) % words.size();
            SCOPED_TRACE(words[w].first);
            EXPECT_EQ(faces[static_cast<std::size_t>(t)][i], faces[0][w]);
            EXPECT_GT(inkedPixels[static_cast<std::size_t>(t)][i], 20);
        }
    }
    // Thread 0 asked in the order of the list.
    EXPECT_NE(faces[0][0], nullptr);
    EXPECT_NE(faces[0][1], nullptr);
    EXPECT_NE(faces[0][0], faces[0][1]);
    for (std::size_t i = 2; i < 6; ++i) {
        EXPECT_EQ(faces[0][i], faces[0][1]) << words[i].first;
    }
    EXPECT_EQ(faces[0][6], nullptr);
    Lines loaded = syslogLines(capture);
    std::sort(loaded.begin(), loaded.end());
    ASSERT_EQ(loaded.size(), 2u);
    EXPECT_EQ(loaded[0], "6 CairoFontManager: loaded font fonts/NotoSansThai.ttf for language th");
    // Whichever language asked first.
    EXPECT_EQ(
        loaded[1].rfind("6 CairoFontManager: loaded font fonts/wqy-microhei.ttc for language ", 0),
        0u);
}
