// Overlays as applications draw them: every text of every language with real glyphs, and an
// overlay composited over a frame of the host camera playing a real clip.
#include "AxisVideoStreamSource.h"
#include "CairoCanvas.h"
#include "CairoFontManager.h"
#include "HostCameraScope.h"
#include "OverlayTestUtils.h"
#include "SampleData.h"

#include <gtest/gtest.h>

#include <cairo-ft.h>

#include <set>
#include <sys/stat.h>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

const std::vector<std::string> kTextKeys = {"common.status.eulaNotAccepted",
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
                                            "actions.operators.or"};

const std::set<std::string> kOwnFontLanguages = {"th", "ja", "zh", "zh-TW", "ko", "vi"};

// The code points of a UTF-8 text (the table's texts are well formed).
std::vector<unsigned long> codePoints(const std::string& text) {
    std::vector<unsigned long> points;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const int length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        unsigned long point = length == 1 ? lead : lead & (0x3Fu >> (length - 1));
        for (int k = 1; k < length && i + k < text.size(); ++k) {
            point = (point << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3Fu);
        }
        points.push_back(point);
        i += static_cast<std::size_t>(length);
    }
    return points;
}

bool isInk(const Argb& p) {
    return p.a > 0;
}

} // namespace

TEST(Overlay, DrawsEveryTextOfEveryLanguageWithGlyphsOfTheFaceInUse) {
    InTestFontsFolder fonts;
    const std::vector<std::string> languages = Localization::getSupportedLanguages();
    ASSERT_EQ(languages.size(), 19u);
    for (const std::string& language : languages) {
        SCOPED_TRACE(language);
        ScopedLanguage scope(language);
        ImageSurface overlay(1280, 720);
        cairo_t* context = overlay.context();
        CairoCanvas canvas(context, 640, 360, 1280, 720);
        const bool ownFont = kOwnFontLanguages.count(language) == 1;
        cairo_font_face_t* managed =
            CairoFontManager::getInstance().getFontFaceForLanguage(language);
        EXPECT_EQ(managed != nullptr, ownFont);
        EXPECT_EQ(cairo_get_font_face(context) == managed, ownFont);

        cairo_scaled_font_t* scaled = cairo_get_scaled_font(context);
        ASSERT_EQ(cairo_scaled_font_get_type(scaled), CAIRO_FONT_TYPE_FT);
        FT_Face face = cairo_ft_scaled_font_lock_face(scaled);
        ASSERT_NE(face, nullptr);
        SCOPED_TRACE(face->family_name);
        for (std::size_t k = 0; k < kTextKeys.size(); ++k) {
            const std::string text = Localization::getString(kTextKeys[k], "12");
            ASSERT_NE(text, kTextKeys[k]);
            for (const unsigned long point : codePoints(text)) {
                EXPECT_NE(FT_Get_Char_Index(face, point), 0u)
                    << kTextKeys[k] << ": no glyph for U+" << std::hex << point;
            }
            // And the glyphs cairo draws are none of them the missing-glyph box (index 0).
            cairo_glyph_t* glyphs = nullptr;
            int nGlyphs = 0;
            ASSERT_EQ(cairo_scaled_font_text_to_glyphs(scaled, 0, 0, text.c_str(), -1, &glyphs,
                                                       &nGlyphs, nullptr, nullptr, nullptr),
                      CAIRO_STATUS_SUCCESS);
            for (int g = 0; g < nGlyphs; ++g) {
                EXPECT_NE(glyphs[g].index, 0u) << kTextKeys[k] << " glyph " << g;
            }
            cairo_glyph_free(glyphs);

            const auto position = static_cast<TextPosition>(k % 6);
            if (k % 2 == 0) {
                canvas.draw(text, position, PaletteColors::White, 1.0f);
            } else {
                canvas.drawNoOutline(text, position, PaletteColors::Yellow, 0.8f);
            }
        }
        cairo_ft_scaled_font_unlock_face(scaled);
        EXPECT_EQ(cairo_status(context), CAIRO_STATUS_SUCCESS);
        EXPECT_GT(overlay.count(isInk), 5000);
    }
}

TEST(Overlay, CompositesOverAFrameOfTheHostCameraPlayingAClip) {
    const std::string clip = sampleDataPath("vtest.avi");
    struct stat info {};
    ASSERT_EQ(::stat(clip.c_str(), &info), 0) << clip << " missing: run scripts/install-deps.sh";
    HostCameraScope camera(
        "channels = 1\nchannel.1.resolutions = 1920x1080\nvideo.input = file:" + clip + "\n");
    AxisVideoStreamSource source(Resolution(1920, 1080));
    std::vector<uint8_t> rgb(1920u * 1080u * 3u);
    ASSERT_TRUE(source.getFrame(Resolution(1920, 1080), 0, rgb.data()));

    // The frame as cairo's RGB24, then an overlay drawn in 640x360 analysis coordinates.
    ImageSurface composite(1920, 1080);
    cairo_surface_flush(composite.surface());
    unsigned char* data = cairo_image_surface_get_data(composite.surface());
    const int stride = cairo_image_surface_get_stride(composite.surface());
    for (int y = 0; y < 1080; ++y) {
        for (int x = 0; x < 1920; ++x) {
            const uint8_t* p = &rgb[(static_cast<std::size_t>(y) * 1920 + x) * 3];
            auto* out = reinterpret_cast<uint32_t*>(data + y * stride) + x;
            *out = 0xFF000000u | (uint32_t{p[0]} << 16) | (uint32_t{p[1]} << 8) | p[2];
        }
    }
    cairo_surface_mark_dirty(composite.surface());
    auto framePixel = [&](int x, int y) {
        const uint8_t* p = &rgb[(static_cast<std::size_t>(y) * 1920 + x) * 3];
        return Argb{255, p[0], p[1], p[2]};
    };

    ImageSurface overlay(1920, 1080);
    {
        CairoCanvas canvas(overlay.context(), 640, 360, 1920, 1080);
        const FPolygon area(100, 100, 300, 100, 300, 250, 100, 250);
        canvas.draw(area, PaletteColors::Yellow, 1, true, 0.25f);
        canvas.draw(area, PaletteColors::Yellow, 3, false, 1.0f);
    }
    cairo_set_source_surface(composite.context(), overlay.surface(), 0, 0);
    cairo_paint(composite.context());

    // Inside the area (x 300..901, y 300..751 on the overlay) a quarter of yellow over the
    // frame; on its edge opaque yellow; outside the frame untouched.
    int varied = 0;
    for (const auto& [x, y] : {std::pair{400, 400}, {600, 500}, {850, 700}, {320, 740}}) {
        const Argb f = framePixel(x, y);
        const Argb expected{255, (f.r * 3 + 255) / 4, (f.g * 3 + 255) / 4, (f.b * 3) / 4};
        EXPECT_TRUE(near(composite.pixel(x, y), expected, 2))
            << x << "," << y << ": " << composite.pixel(x, y) << " over " << f;
        varied += f != framePixel(400, 400) ? 1 : 0;
    }
    EXPECT_GT(varied, 0) << "a real frame varies";
    EXPECT_EQ(composite.pixel(300, 500), (Argb{255, 255, 255, 0}));
    EXPECT_EQ(composite.pixel(600, 751), (Argb{255, 255, 255, 0}));
    for (const auto& [x, y] : {std::pair{200, 200}, {1000, 500}, {600, 900}, {297, 500}}) {
        EXPECT_EQ(composite.pixel(x, y), framePixel(x, y)) << x << "," << y;
    }
}
