// OverlayPainter: the people counter's overlay, drawn with the library's CairoCanvas.
//
// paint() draws one frame's overlay onto a transparent ARGB32 surface of the analysis size: the
// areas (filled faintly, outlined, each with its number and how many people stand in it), the
// entrance with its entries and exits, the exclusions, and each person's box (in the colour of
// their area, red once they have dwelt past the area's threshold), skeleton, id, dwell seconds
// and, once the camera is calibrated, floor position in metres; at the margins the counts, the
// calibration and the analysis speed. Every word comes in the language in force.
//
// compose() lays that overlay over the frame: the frame's RGB pixels are copied into an RGB24
// surface, the overlay painted over them, and the result copied out as BGR for the video writer.
//
// Threading: one thread; the canvas is made afresh for every frame, so a change of language
// reaches the next frame.
#pragma once

#include "AOIManager.h"
#include "CommonStructs.h"
#include "PoseBase.h"

#include <cairo.h>
#include <opencv2/core.hpp>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace PeopleCounting {

struct OverlayPerson {
    int id = 0;
    Ombrel::FRectangle box;
    Ombrel::Skeleton<Ombrel::BodypixBodyPart> skeleton;
    int area = -1;
    double dwellSeconds = 0.0;
    bool lengthily = false;
    bool hasFloor = false;
    Ombrel::FPoint floor;
};

struct OverlayScene {
    std::array<Ombrel::AOI, Ombrel::NAOI> areas;
    std::array<int, Ombrel::NAOI> inside{};
    std::array<Ombrel::IActivablePolygon, 3> entrances;
    std::array<Ombrel::IActivablePolygon, 3> exclusions;
    int peopleSeen = 0;
    int inView = 0;
    int entries = 0;
    int exits = 0;
    bool calibrated = false;
    int calibrationObservations = 0;
    double walkingSpeed = -1.0;
    double analysisMs = 0.0;
    double fps = 0.0;
    std::vector<OverlayPerson> people;
};

class OverlayPainter {
public:
    explicit OverlayPainter(const Ombrel::Resolution& analysis);
    ~OverlayPainter();
    OverlayPainter(const OverlayPainter&) = delete;
    OverlayPainter& operator=(const OverlayPainter&) = delete;

    void paint(const OverlayScene& scene);
    // frame: the analysis-sized RGB frame; bgr receives the composite.
    void compose(const uint8_t* frame, cv::Mat& bgr);
    // Writes a composite as PNG (through a temporary file and a rename, so that a reader never
    // sees half a picture); false if it cannot be written.
    static bool writePng(const cv::Mat& bgr, const std::string& path);

    cairo_surface_t* composite() const { return _frame; }

private:
    void release();

    Ombrel::Resolution _analysis;
    cairo_surface_t* _overlay = nullptr;
    cairo_t* _overlayContext = nullptr;
    cairo_surface_t* _frame = nullptr;
    cairo_t* _frameContext = nullptr;
};

} // namespace PeopleCounting
