#include "OverlayPainter.h"

#include "CairoCanvas.h"
#include "CounterTexts.h"
#include "Localization.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdio>
#include <stdexcept>

namespace PeopleCounting {

using namespace Ombrel;

namespace {

const PaletteColors kAreaColours[NAOI] = {PaletteColors::CornflowerBlue, PaletteColors::Green,
                                          PaletteColors::Orange};

std::string fixed(double value, int decimals) {
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%.*f", decimals, value);
    return buffer;
}

int truncated(float value) {
    return static_cast<int>(value);
}

// Where to write a polygon's label: above its topmost vertex, kept inside the picture.
IPoint labelPoint(const IPolygon& polygon, const Resolution& analysis, int textHeight) {
    IPoint top = polygon.getPoint(0);
    for (const IPoint& point : polygon) {
        if (point.y < top.y) {
            top = point;
        }
    }
    const int x = std::max(4, std::min(top.x + 6, static_cast<int>(analysis.width) - 120));
    const int y = std::max(textHeight + 2, top.y + textHeight + 4);
    return IPoint(x, y);
}

} // namespace

OverlayPainter::OverlayPainter(const Resolution& analysis) : _analysis(analysis) {
    const int width = static_cast<int>(analysis.width);
    const int height = static_cast<int>(analysis.height);
    _overlay = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    _frame = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
    _overlayContext = cairo_create(_overlay);
    _frameContext = cairo_create(_frame);
    if (cairo_surface_status(_overlay) != CAIRO_STATUS_SUCCESS ||
        cairo_surface_status(_frame) != CAIRO_STATUS_SUCCESS ||
        cairo_status(_overlayContext) != CAIRO_STATUS_SUCCESS ||
        cairo_status(_frameContext) != CAIRO_STATUS_SUCCESS) {
        release();
        throw std::runtime_error("cannot make the overlay surfaces of " + analysis.toString());
    }
}

OverlayPainter::~OverlayPainter() {
    release();
}

void OverlayPainter::release() {
    if (_frameContext != nullptr) {
        cairo_destroy(_frameContext);
        _frameContext = nullptr;
    }
    if (_overlayContext != nullptr) {
        cairo_destroy(_overlayContext);
        _overlayContext = nullptr;
    }
    if (_frame != nullptr) {
        cairo_surface_destroy(_frame);
        _frame = nullptr;
    }
    if (_overlay != nullptr) {
        cairo_surface_destroy(_overlay);
        _overlay = nullptr;
    }
}

void OverlayPainter::paint(const OverlayScene& scene) {
    cairo_save(_overlayContext);
    cairo_set_operator(_overlayContext, CAIRO_OPERATOR_CLEAR);
    cairo_paint(_overlayContext);
    cairo_restore(_overlayContext);

    const int width = static_cast<int>(_analysis.width);
    const int height = static_cast<int>(_analysis.height);
    CairoCanvas canvas(_overlayContext, width, height);
    const int textHeight = static_cast<int>(canvas.getTextSize("Ag").height);

    for (int i = 0; i < NAOI; ++i) {
        const AOI& area = scene.areas[static_cast<std::size_t>(i)];
        if (!area.isActive() || area.getNPoints() < 3) {
            continue;
        }
        const PaletteColors colour = kAreaColours[i];
        canvas.draw(static_cast<const IPolygon&>(area), colour, 1, true, 0.18f);
        canvas.draw(static_cast<const IPolygon&>(area), colour, 2, false, 0.9f);
        const IPoint at = labelPoint(area, _analysis, textHeight);
        canvas.draw(text("area") + " " + std::to_string(i) + ": " +
                        std::to_string(scene.inside[static_cast<std::size_t>(i)]),
                    at.x, at.y, colour, 1.0f);
    }
    for (const IActivablePolygon& exclusion : scene.exclusions) {
        if (exclusion.isActive() && exclusion.getNPoints() >= 3) {
            canvas.draw(static_cast<const IPolygon&>(exclusion), PaletteColors::Gray, 1, true,
                        0.35f);
            canvas.draw(static_cast<const IPolygon&>(exclusion), PaletteColors::Gray, 2, false,
                        1.0f);
        }
    }
    for (std::size_t i = 0; i < scene.entrances.size(); ++i) {
        const IActivablePolygon& entrance = scene.entrances[i];
        if (!entrance.isActive() || entrance.getNPoints() < 3) {
            continue;
        }
        canvas.draw(static_cast<const IPolygon&>(entrance), PaletteColors::Yellow, 3, false, 1.0f);
        // Beside the top of its right-hand edge, the line counted in the default set-up.
        IPoint corner = entrance.getPoint(0);
        for (const IPoint& point : entrance) {
            if (point.x > corner.x + 2 || (point.x >= corner.x - 2 && point.y < corner.y)) {
                corner = point;
            }
        }
        const std::string label = text("entrance") + " " + std::to_string(i);
        const int labelWidth = static_cast<int>(canvas.getTextSize(label).width);
        canvas.draw(label, std::max(2, corner.x - labelWidth - 6),
                    std::max(textHeight + 2, corner.y - 4), PaletteColors::Yellow, 1.0f);
    }

    for (const OverlayPerson& person : scene.people) {
        const PaletteColors colour = person.lengthily  ? PaletteColors::Red
                                     : person.area < 0 ? PaletteColors::White
                                                       : kAreaColours[person.area];
        canvas.draw(person.box, colour, 2, false, 1.0f);
        canvas.draw(person.skeleton, PaletteColors::Yellow, 2, 0.9f);
        std::string label = "#" + std::to_string(person.id);
        if (person.area >= 0) {
            label += " " + fixed(person.dwellSeconds, 0) + " s";
        }
        canvas.draw(label, truncated(person.box.x),
                    std::max(textHeight, truncated(person.box.y) - 3), colour, 1.0f);
        if (person.hasFloor) {
            canvas.drawNoOutline(
                fixed(person.floor.x, 1) + ", " + fixed(person.floor.y, 1) + " m",
                truncated(person.box.x),
                std::min(height - 2, truncated(person.box.y + person.box.height) + textHeight + 2),
                PaletteColors::White, 1.0f);
        }
    }

    canvas.draw(text("people") + " " + std::to_string(scene.peopleSeen) + "   " + text("inView") +
                    " " + std::to_string(scene.inView),
                TextPosition::TopLeft, PaletteColors::White, 1.0f);
    canvas.draw(text("entries") + " " + std::to_string(scene.entries) + "   " + text("exits") +
                    " " + std::to_string(scene.exits),
                TextPosition::TopRight, PaletteColors::Yellow, 1.0f);
    std::string calibration =
        scene.calibrated ? text("calibrated")
                         : Localization::getString("actions.status.calibrating3D",
                                                   std::to_string(scene.calibrationObservations));
    if (scene.calibrated && scene.walkingSpeed > 0.0) {
        calibration += ", " + fixed(scene.walkingSpeed, 1) + " m/s";
    }
    canvas.draw(calibration, TextPosition::BottomLeft, PaletteColors::White, 1.0f);
    canvas.draw(Localization::getString("markers.status.analysis") + fixed(scene.analysisMs, 0) +
                    Localization::getString("common.status.ms") + fixed(scene.fps, 1) + " fps",
                TextPosition::BottomRight, PaletteColors::White, 1.0f);
    cairo_surface_flush(_overlay);
}

void OverlayPainter::compose(const uint8_t* frame, cv::Mat& bgr) {
    const int width = static_cast<int>(_analysis.width);
    const int height = static_cast<int>(_analysis.height);
    cairo_surface_flush(_frame);
    cv::Mat surface(height, width, CV_8UC4, cairo_image_surface_get_data(_frame),
                    static_cast<std::size_t>(cairo_image_surface_get_stride(_frame)));
    const cv::Mat rgb(height, width, CV_8UC3, const_cast<uint8_t*>(frame));
    // cairo keeps RGB24 pixels as native 32-bit words: blue, green, red, unused in memory.
    cv::cvtColor(rgb, surface, cv::COLOR_RGB2BGRA);
    cairo_surface_mark_dirty(_frame);
    cairo_set_operator(_frameContext, CAIRO_OPERATOR_OVER);
    cairo_set_source_surface(_frameContext, _overlay, 0, 0);
    cairo_paint(_frameContext);
    cairo_surface_flush(_frame);
    cv::cvtColor(surface, bgr, cv::COLOR_BGRA2BGR);
}

bool OverlayPainter::writePng(const cv::Mat& bgr, const std::string& path) {
    // zlib's fastest level: a quarter of the default's time for a file a tenth larger.
    const std::string partial = path + ".partial.png";
    bool written = false;
    try {
        written = cv::imwrite(partial, bgr, {cv::IMWRITE_PNG_COMPRESSION, 1});
    } catch (const cv::Exception&) {
        written = false;
    }
    if (!written) {
        std::remove(partial.c_str());
        return false;
    }
    return std::rename(partial.c_str(), path.c_str()) == 0;
}

} // namespace PeopleCounting
