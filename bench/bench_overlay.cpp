// Per-frame cost of drawing an application's overlay, and of a font lookup after the first load.
#include "CairoCanvas.h"
#include "CairoFontManager.h"
#include "Localization.h"

#include <benchmark/benchmark.h>

#include <cairo.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace Ombrel;

namespace {

// A standing person of height h (analysis pixels) with the feet at (x, y).
Skeleton<BodypixBodyPart> person(int x, int y, int h) {
    const std::vector<std::pair<float, float>> joints = {
        {0.0f, 0.93f},   {0.02f, 0.95f},  {-0.02f, 0.95f}, {0.05f, 0.94f},  {-0.05f, 0.94f},
        {0.11f, 0.81f},  {-0.11f, 0.81f}, {0.15f, 0.62f},  {-0.15f, 0.62f}, {0.17f, 0.48f},
        {-0.17f, 0.48f}, {0.07f, 0.52f},  {-0.07f, 0.52f}, {0.08f, 0.27f},  {-0.08f, 0.27f},
        {0.1f, 0.02f},   {-0.1f, 0.02f}};
    Keypoints keypoints;
    for (std::size_t i = 0; i < joints.size(); ++i) {
        keypoints.add(Keypoint(IPoint(x + static_cast<int>(joints[i].first * h),
                                      y - static_cast<int>(joints[i].second * h)),
                               static_cast<BodypixBodyPart>(i), 0.8f));
    }
    return Skeleton<BodypixBodyPart>(keypoints);
}

struct Scene {
    std::vector<FPolygon> areas;
    std::vector<FRectangle> boxes;
    std::vector<Skeleton<BodypixBodyPart>> skeletons;
    std::vector<std::string> labels;
};

// 3 areas, 20 people (a box and a skeleton each) and 6 status lines, in 640x360 coordinates.
Scene typicalScene() {
    Scene scene;
    scene.areas = {FPolygon(20, 230, 200, 215, 230, 345, 30, 352),
                   FPolygon(300, 100, 470, 95, 490, 140, 310, 150),
                   FPolygon(450, 205, 620, 200, 630, 340, 440, 345, 470, 300, 465, 250)};
    for (int i = 0; i < 20; ++i) {
        const int x = 30 + (i % 10) * 60;
        const int y = 150 + (i / 10) * 150;
        const int h = 70 + (i % 4) * 10;
        scene.skeletons.push_back(person(x, y, h));
        scene.boxes.emplace_back(static_cast<float>(x - h / 4), static_cast<float>(y - h - 6),
                                 static_cast<float>(h / 2), static_cast<float>(h + 10));
    }
    scene.labels = {Localization::getString("common.status.licenseStatus") +
                        Localization::getString("license.status.valid"),
                    Localization::getString("markers.status.analysis") + "23 ms",
                    Localization::getString("care.status.fallenPersonEventSent"),
                    Localization::getString("actions.arms.title"),
                    Localization::getString("actions.status.calibrating3D", "12"),
                    "AOI 2" + Localization::getString("markers.status.alertActive")};
    return scene;
}

void clear(cairo_t* context) {
    cairo_save(context);
    cairo_set_operator(context, CAIRO_OPERATOR_CLEAR);
    cairo_paint(context);
    cairo_restore(context);
}

// The parts of the overlay, each drawn alone by the breakdown benchmark.
enum class Part { Areas = 0, Boxes = 1, Skeletons = 2, Labels = 3, All = 4 };

void drawScene(CairoCanvas& canvas, const Scene& scene, Part part = Part::All) {
    const PaletteColors colours[] = {PaletteColors::Green, PaletteColors::CornflowerBlue,
                                     PaletteColors::Orange};
    const bool all = part == Part::All;
    for (std::size_t i = 0; (all || part == Part::Areas) && i < scene.areas.size(); ++i) {
        canvas.draw(scene.areas[i], colours[i], 1, true, 0.25f);
        canvas.draw(scene.areas[i], colours[i], 3, false, 1.0f);
    }
    for (std::size_t i = 0; i < scene.boxes.size(); ++i) {
        if (all || part == Part::Boxes) {
            canvas.draw(scene.boxes[i], PaletteColors::Yellow, 2, false, 1.0f);
        }
        if (all || part == Part::Skeletons) {
            canvas.draw(scene.skeletons[i], PaletteColors::Red, 3, 1.0f);
        }
    }
    for (std::size_t i = 0; (all || part == Part::Labels) && i < scene.labels.size(); ++i) {
        canvas.draw(scene.labels[i], static_cast<TextPosition>(i), PaletteColors::White, 1.0f);
    }
}

// One frame of a typical overlay: cleared, then 3 filled and outlined areas, 20 boxes, 20
// skeletons and 6 status lines drawn from 640x360 onto 1920x1080. The target is 3.3 ms. The
// argument selects a part alone (0 areas, 1 boxes, 2 skeletons, 3 labels, without clearing) or
// the whole frame (4).
void BM_OverlayFrame1920x1080(benchmark::State& state) {
    static const char* const names[] = {"areas", "boxes", "skeletons", "labels", "whole frame"};
    const auto part = static_cast<Part>(state.range(0));
    state.SetLabel(names[state.range(0)]);
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1920, 1080);
    cairo_t* context = cairo_create(surface);
    const Scene scene = typicalScene();
    {
        CairoCanvas canvas(context, 640, 360, 1920, 1080);
        for (auto _ : state) {
            if (part == Part::All) {
                clear(context);
            }
            drawScene(canvas, scene, part);
            cairo_surface_flush(surface);
        }
    }
    cairo_destroy(context);
    cairo_surface_destroy(surface);
}
BENCHMARK(BM_OverlayFrame1920x1080)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);

// The font manager's answer once the file is loaded: one map search under the lock.
void BM_FontFaceLookupAfterLoad(benchmark::State& state) {
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(STEMLIB_BENCH_FONTS_PARENT);
    CairoFontManager& manager = CairoFontManager::getInstance();
    const bool loaded = manager.getFontFaceForLanguage("ja") != nullptr;
    std::filesystem::current_path(previous);
    if (!loaded) {
        state.SkipWithError("wqy-microhei.ttc not found: run scripts/make-fonts-dir.sh");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager.getFontFaceForLanguage("ja"));
    }
}
BENCHMARK(BM_FontFaceLookupAfterLoad);

// A language without a font of its own: the table alone, for comparison.
void BM_FontFaceLookupNoFont(benchmark::State& state) {
    CairoFontManager& manager = CairoFontManager::getInstance();
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager.getFontFaceForLanguage("en"));
    }
}
BENCHMARK(BM_FontFaceLookupNoFont);

} // namespace
