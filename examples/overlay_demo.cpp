// Draws an application's overlay over a frame of the camera and writes the picture as PNG.
//
// The analysis runs at 640x360; the overlay is 1920x1080, the camera's full stream, and
// CairoCanvas maps every position from the one to the other. The overlay holds three areas
// (filled at low alpha and outlined), people found in the picture (a box, a skeleton, a cross at
// the hips, a circle round the head and the name of an action), and status lines at the six
// margins, all in the chosen language.
//
// On a PC the camera is the host camera: STEMLIB_HOST_CAMERA names a camera description, whose
// "video.input = file:<clip>" plays a recording (see the README). Fonts for Thai, Chinese,
// Japanese, Korean and Vietnamese come from fonts/ in the working directory
// (scripts/make-fonts-dir.sh makes it).
//
// Usage: overlay_demo [--lang xx] [--out overlay.png] [--overlay-out overlay-only.png]
//                     [--frame N]   (default: frame 200 of the camera's stream)
#include "AxisVideoStreamSource.h"
#include "CairoCanvas.h"
#include "Localization.h"
#include "PoseBase.h"

#include <cairo.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Ombrel;

namespace {

const Resolution kAnalysis(640, 360);
const Resolution kOverlay(1920, 1080);

// A person seen in the frame, in analysis pixels: where the feet are, how tall, which way the
// arms hang, and what the application took the action to be.
struct Person {
    float footX;
    float footY;
    float height;
    float stride; // leg spread, as a fraction of the height
    bool armsUp;
    const char* actionKey;
};

// The people of the clip's frame 200 that the picture shows, placed by hand on them.
const std::vector<Person> kPeople = {
    {80, 118, 50, 0.16f, false, "actions.names.walking"},
    {195, 161, 61, 0.27f, false, "actions.names.walking"},
    {418, 124, 63, 0.12f, false, "actions.names.walking"},
    {530, 244, 84, 0.15f, false, "actions.names.standing"},
    {604, 233, 81, 0.21f, false, "actions.names.walking"},
};

// A skeleton of 17 joints for a person: a standing figure with the legs spread by the stride.
Skeleton<BodypixBodyPart> makeSkeleton(const Person& p) {
    const float h = p.height;
    struct Joint {
        BodypixBodyPart part;
        float dx; // fractions of the height, from the feet's middle
        float up;
    };
    const float s = p.stride / 2;
    const float wristUp = p.armsUp ? 0.98f : 0.48f;
    const float elbowUp = p.armsUp ? 0.86f : 0.62f;
    const std::vector<Joint> joints = {
        {BodypixBodyPart::Nose, 0.0f, 0.93f},
        {BodypixBodyPart::LeftEye, 0.02f, 0.95f},
        {BodypixBodyPart::RightEye, -0.02f, 0.95f},
        {BodypixBodyPart::LeftEar, 0.045f, 0.935f},
        {BodypixBodyPart::RightEar, -0.045f, 0.935f},
        {BodypixBodyPart::LeftShoulder, 0.11f, 0.81f},
        {BodypixBodyPart::RightShoulder, -0.11f, 0.81f},
        {BodypixBodyPart::LeftElbow, 0.15f, elbowUp},
        {BodypixBodyPart::RightElbow, -0.15f, elbowUp},
        {BodypixBodyPart::LeftWrist, p.armsUp ? 0.16f : 0.17f, wristUp},
        {BodypixBodyPart::RightWrist, p.armsUp ? -0.16f : -0.17f, wristUp},
        {BodypixBodyPart::LeftHip, 0.07f, 0.52f},
        {BodypixBodyPart::RightHip, -0.07f, 0.52f},
        {BodypixBodyPart::LeftKnee, 0.04f + s / 2, 0.27f},
        {BodypixBodyPart::RightKnee, -0.04f - s / 2, 0.27f},
        {BodypixBodyPart::LeftAnkle, 0.03f + s, 0.02f},
        {BodypixBodyPart::RightAnkle, -0.03f - s, 0.02f},
    };
    Keypoints keypoints;
    for (const Joint& j : joints) {
        const IPoint at(static_cast<int>(p.footX + j.dx * h), static_cast<int>(p.footY - j.up * h));
        keypoints.add(Keypoint(at, j.part, 0.8f));
    }
    return Skeleton<BodypixBodyPart>(keypoints);
}

void drawOverlay(CairoCanvas& canvas) {
    // Three areas of interest, filled at low alpha and outlined.
    const std::vector<std::pair<FPolygon, PaletteColors>> areas = {
        {FPolygon(20, 230, 200, 215, 230, 345, 30, 352), PaletteColors::Green},
        {FPolygon(300, 100, 470, 95, 490, 140, 310, 150), PaletteColors::CornflowerBlue},
        {FPolygon(450, 205, 620, 200, 630, 340, 440, 345, 470, 300, 465, 250),
         PaletteColors::Orange},
    };
    for (const auto& [area, colour] : areas) {
        canvas.draw(area, colour, 1, true, 0.25f);
        canvas.draw(area, colour, 3, false, 1.0f);
    }

    for (const Person& person : kPeople) {
        const Skeleton<BodypixBodyPart> skeleton = makeSkeleton(person);
        const IBoundingBox bounds = skeleton.getBoundingBox();
        const FRectangle box(static_cast<float>(bounds.x - 6), static_cast<float>(bounds.y - 8),
                             static_cast<float>(bounds.width + 12),
                             static_cast<float>(bounds.height + 12));
        canvas.draw(box, PaletteColors::Yellow, 2, false, 1.0f);
        canvas.draw(skeleton, PaletteColors::Red, 3, 1.0f);
        FPoint centre;
        if (skeleton.getSkeletonCenter(centre, 0.5f)) {
            canvas.draw(Cross(centre.x, centre.y, 6), PaletteColors::White, 2, 1.0f);
        }
        const Keypoint& nose = skeleton.keypoints().get(BodypixBodyPart::Nose);
        canvas.draw(Circle(static_cast<float>(nose.point.x), static_cast<float>(nose.point.y),
                           person.height * 0.09f),
                    PaletteColors::Blue, 2, false, 1.0f);
        canvas.draw(Localization::getString(person.actionKey), static_cast<int>(box.x),
                    static_cast<int>(box.y) - 4, PaletteColors::Yellow, 1.0f);
    }

    // What area 0 has seen, inside it.
    canvas.drawNoOutline("AOI 0" + Localization::getString("markers.status.conditionMet", "12"), 30,
                         252, PaletteColors::White, 1.0f);

    // Status lines at the six margins.
    const auto text = [](const char* key) { return Localization::getString(key); };
    canvas.draw(text("common.status.licenseStatus") + text("license.status.valid"),
                TextPosition::TopLeft, PaletteColors::White, 1.0f);
    canvas.draw(text("markers.status.analysis") + "23" + text("common.status.ms"),
                TextPosition::TopCentre, PaletteColors::Green, 1.0f);
    canvas.draw(text("care.status.fallenPersonEventSent"), TextPosition::TopRight,
                PaletteColors::Orange, 1.0f);
    canvas.draw(text("actions.arms.title") + " " + text("actions.arms.left") + " " +
                    text("actions.directions.up") + ", " + text("actions.arms.right") + " " +
                    text("actions.directions.down"),
                TextPosition::BottomLeft, PaletteColors::White, 1.0f);
    canvas.drawNoOutline(Localization::getString("actions.status.calibrating3D", "12"),
                         TextPosition::BottomCentre, PaletteColors::Yellow, 1.0f);
    canvas.draw("AOI 2" + text("markers.status.alertActive"), TextPosition::BottomRight,
                PaletteColors::Red, 1.0f);
}

// The camera's frame as an opaque cairo image.
cairo_surface_t* frameSurface(const std::vector<uint8_t>& rgb) {
    cairo_surface_t* surface = cairo_image_surface_create(
        CAIRO_FORMAT_RGB24, static_cast<int>(kOverlay.width), static_cast<int>(kOverlay.height));
    cairo_surface_flush(surface);
    unsigned char* data = cairo_image_surface_get_data(surface);
    const int stride = cairo_image_surface_get_stride(surface);
    for (unsigned int y = 0; y < kOverlay.height; ++y) {
        auto* row = reinterpret_cast<uint32_t*>(data + static_cast<std::size_t>(y) * stride);
        const uint8_t* in = &rgb[static_cast<std::size_t>(y) * kOverlay.width * 3];
        for (unsigned int x = 0; x < kOverlay.width; ++x, in += 3) {
            row[x] = 0xFF000000u | (uint32_t{in[0]} << 16) | (uint32_t{in[1]} << 8) | in[2];
        }
    }
    cairo_surface_mark_dirty(surface);
    return surface;
}

bool writePng(cairo_surface_t* surface, const std::string& path) {
    const cairo_status_t status = cairo_surface_write_to_png(surface, path.c_str());
    if (status != CAIRO_STATUS_SUCCESS) {
        std::fprintf(stderr, "overlay_demo: cannot write %s: %s\n", path.c_str(),
                     cairo_status_to_string(status));
        return false;
    }
    std::printf("overlay_demo: wrote %s\n", path.c_str());
    return true;
}

int usage() {
    std::fprintf(stderr, "usage: overlay_demo [--lang xx] [--out file.png] "
                         "[--overlay-out file.png] [--frame N]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    std::string language = "en";
    std::string out;
    std::string overlayOut;
    int frame = 200;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (std::strcmp(argv[i], "--lang") == 0 && hasValue) {
            language = argv[++i];
        } else if (std::strcmp(argv[i], "--out") == 0 && hasValue) {
            out = argv[++i];
        } else if (std::strcmp(argv[i], "--overlay-out") == 0 && hasValue) {
            overlayOut = argv[++i];
        } else if (std::strcmp(argv[i], "--frame") == 0 && hasValue) {
            frame = std::atoi(argv[++i]);
        } else {
            return usage();
        }
    }
    if (!Localization::isLanguageSupported(language)) {
        std::fprintf(stderr, "overlay_demo: unknown language %s\n", language.c_str());
        return 2;
    }
    Localization::setLanguage(language);
    if (out.empty()) {
        out = "overlay-" + language + ".png";
    }

    // The frame: the camera's newest, after skipping to the one asked for.
    std::vector<uint8_t> rgb(static_cast<std::size_t>(kOverlay.area()) * 3);
    try {
        AxisVideoStreamSource camera(kOverlay);
        for (int i = 0; i <= frame; ++i) {
            if (!camera.getFrame(kOverlay, 0, rgb.data())) {
                std::fprintf(stderr, "overlay_demo: the camera gave no frame\n");
                return 1;
            }
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "overlay_demo: no camera: %s\n", e.what());
        return 1;
    }

    // The overlay, transparent where nothing is drawn, as a camera's overlay is.
    cairo_surface_t* overlay = cairo_image_surface_create(
        CAIRO_FORMAT_ARGB32, static_cast<int>(kOverlay.width), static_cast<int>(kOverlay.height));
    cairo_t* context = cairo_create(overlay);
    {
        CairoCanvas canvas(context, static_cast<int>(kAnalysis.width),
                           static_cast<int>(kAnalysis.height), static_cast<int>(kOverlay.width),
                           static_cast<int>(kOverlay.height));
        drawOverlay(canvas);
    }
    cairo_destroy(context);

    // The composite: the overlay laid over the frame.
    cairo_surface_t* picture = frameSurface(rgb);
    cairo_t* composer = cairo_create(picture);
    cairo_set_source_surface(composer, overlay, 0, 0);
    cairo_paint(composer);
    cairo_destroy(composer);

    bool ok = writePng(picture, out);
    if (!overlayOut.empty()) {
        ok = writePng(overlay, overlayOut) && ok;
    }
    cairo_surface_destroy(picture);
    cairo_surface_destroy(overlay);
    return ok ? 0 : 1;
}
