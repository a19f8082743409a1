// marker_characterisation: where marker detection stops working. Paints ArUco markers of each
// dictionary size (4 to 7) and side (12 to 64 pixels) on full HD frames, square on and tilted
// away by 30 degrees (seen from four marker sides' distance), with light noise, runs the
// library's ArucoDetector on the whole frame and prints the share of markers found with their
// own number at their own place, as a Markdown table.
//
//   marker_characterisation [frames per cell, default 3] [noise sigma, default 4] [crop]
//
// Each frame holds up to 60 markers in a grid, each turned in its plane by a different angle,
// on a two-cell white quiet zone. Wrong numbers are counted separately. With "crop" the markers
// fill only the frame's top-left 640x360 and the rectangle form searches that region. OpenCV
// ignores outlines shorter than a share of the searched image's larger side, so small markers
// that the whole frame loses can still be found in a crop.
#include "Stemlib.h"

#include <opencv2/imgproc.hpp>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace Ombrel;

namespace {

cv::Mat markerPicture(int size, int id, int side) {
    cv::Mat image;
#if STEMLIB_OPENCV_ARUCO_DETECTOR_CLASS
    cv::aruco::generateImageMarker(
        cv::aruco::getPredefinedDictionary(ArucoDetector::dictionaryValueForSize(size)), id, side,
        image, 1);
#else
    cv::aruco::drawMarker(
        cv::aruco::getPredefinedDictionary(ArucoDetector::dictionaryValueForSize(size)), id, side,
        image, 1);
#endif
    return image;
}

// A square of half-side half centred at centre, turned in its plane, tilted away about its
// horizontal axis and seen from 4 * side.
std::array<cv::Point2f, 4> project(cv::Point2f centre, float side, float half, float turnDeg,
                                   float tiltDeg) {
    const float turn = turnDeg * static_cast<float>(CV_PI) / 180.0f;
    const float tilt = tiltDeg * static_cast<float>(CV_PI) / 180.0f;
    const float distance = 4.0f * side;
    const std::array<cv::Point2f, 4> square = {cv::Point2f(-half, -half), cv::Point2f(half, -half),
                                               cv::Point2f(half, half), cv::Point2f(-half, half)};
    std::array<cv::Point2f, 4> corners;
    for (std::size_t i = 0; i < 4; ++i) {
        const float x = square[i].x * std::cos(turn) - square[i].y * std::sin(turn);
        const float y = square[i].x * std::sin(turn) + square[i].y * std::cos(turn);
        const float scale = distance / (distance - y * std::sin(tilt));
        corners[i] = centre + cv::Point2f(x * scale, y * std::cos(tilt) * scale);
    }
    return corners;
}

// Warps the marker with its quiet zone into the frame around centre.
void paint(cv::Mat& frame, int size, int id, float side, cv::Point2f centre, float turn,
           float tilt) {
    const int cells = size + 2;
    const int cellPixels = std::max(2, static_cast<int>(std::ceil(side / cells)));
    const int margin = 2 * cellPixels;
    const int inner = cells * cellPixels;
    cv::Mat grey(inner + 2 * margin, inner + 2 * margin, CV_8UC1, cv::Scalar(255));
    markerPicture(size, id, inner).copyTo(grey(cv::Rect(margin, margin, inner, inner)));
    cv::Mat tile;
    cv::cvtColor(grey, tile, cv::COLOR_GRAY2BGR);

    const float zoneHalf = side / 2.0f * static_cast<float>(cells + 4) / static_cast<float>(cells);
    const std::array<cv::Point2f, 4> zone = project(centre, side, zoneHalf, turn, tilt);
    const cv::Rect region = (cv::boundingRect(std::vector<cv::Point2f>(zone.begin(), zone.end())) +
                             cv::Size(2, 2) - cv::Point(1, 1)) &
                            cv::Rect(0, 0, frame.cols, frame.rows);
    const float outer = static_cast<float>(tile.cols) - 0.5f;
    const std::array<cv::Point2f, 4> source = {cv::Point2f(-0.5f, -0.5f), cv::Point2f(outer, -0.5f),
                                               cv::Point2f(outer, outer),
                                               cv::Point2f(-0.5f, outer)};
    std::array<cv::Point2f, 4> target;
    for (std::size_t i = 0; i < 4; ++i) {
        target[i] =
            zone[i] - cv::Point2f(static_cast<float>(region.x), static_cast<float>(region.y));
    }
    cv::Mat view = frame(region);
    cv::warpPerspective(tile, view, cv::getPerspectiveTransform(source.data(), target.data()),
                        view.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
}

struct Tally {
    int placed = 0;
    int found = 0;
    int wrong = 0;
};

Tally measure(ArucoDetector& detector, int size, int side, float tilt, int frames, double sigma,
              const IRectangle& region) {
    Tally tally;
    const int spacing = std::max(4 * side, 120);
    for (int f = 0; f < frames; ++f) {
        cv::Mat frame(1080, 1920, CV_8UC3);
        for (int x = 0; x < frame.cols; ++x) {
            const double level = 150 + 70.0 * x / (frame.cols - 1);
            frame.col(x).setTo(cv::Scalar(level, level, level));
        }
        struct Placed {
            int id;
            cv::Point2f centre;
        };
        std::vector<Placed> placed;
        for (int y = region.y + spacing / 2;
             y + spacing / 2 <= region.y + region.height && placed.size() < 60; y += spacing) {
            for (int x = region.x + spacing / 2;
                 x + spacing / 2 <= region.x + region.width && placed.size() < 60; x += spacing) {
                const int n = static_cast<int>(placed.size());
                const int id = (n * 97 + f * 389 + side * 13) % 1000;
                const cv::Point2f centre(static_cast<float>(x), static_cast<float>(y));
                paint(frame, size, id, static_cast<float>(side), centre,
                      static_cast<float>((n * 37 + f * 11) % 360), tilt);
                placed.push_back({id, centre});
            }
        }
        cv::Mat noise(frame.size(), CV_16SC3);
        cv::RNG rng(static_cast<uint64_t>(1000 * size + 10 * side + f));
        rng.fill(noise, cv::RNG::NORMAL, 0.0, sigma);
        cv::Mat sum;
        frame.convertTo(sum, CV_16SC3);
        sum += noise;
        sum.convertTo(frame, CV_8UC3);

        ImageBufferFrameSource source(frame);
        const bool whole = region.width == frame.cols && region.height == frame.rows;
        const ArucoDetections detections =
            whole ? detector.detectMarkers(source) : detector.detectMarkers(source, region);
        tally.placed += static_cast<int>(placed.size());
        for (const ArucoDetection& detection : detections) {
            const FBoundingBox box = detection.corners.getBoundingBox();
            const cv::Point2f centre(box.x + box.width / 2.0f, box.y + box.height / 2.0f);
            bool matched = false;
            for (const Placed& p : placed) {
                if (p.id == detection.id && cv::norm(p.centre - centre) < side / 2.0) {
                    matched = true;
                }
            }
            ++(matched ? tally.found : tally.wrong);
        }
    }
    return tally;
}

} // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const double sigma = argc > 2 ? std::atof(argv[2]) : 4.0;
    const bool crop = argc > 3 && std::string(argv[3]) == "crop";
    const IRectangle region = crop ? IRectangle(0, 0, 640, 360) : IRectangle(0, 0, 1920, 1080);
    const std::vector<int> sides = {12, 16, 20, 24, 32, 48, 64};

    std::printf("Detection rate on 1920x1080 (%s), noise sigma %.1f, %d frames per cell "
                "(found / placed; wrong numbers in brackets)\n\n",
                crop ? "searching a 640x360 crop" : "searching the whole frame", sigma, frames);
    std::printf("| side px |");
    for (int size = 4; size <= 7; ++size) {
        std::printf(" %dx%d 0° | %dx%d 30° |", size, size, size, size);
    }
    std::printf("\n|---|");
    for (int i = 0; i < 8; ++i) {
        std::printf("---|");
    }
    std::printf("\n");
    for (const int side : sides) {
        std::printf("| %d |", side);
        for (int size = 4; size <= 7; ++size) {
            ArucoDetector detector;
            detector.setDictionarySize(size);
            for (const float tilt : {0.0f, 30.0f}) {
                const Tally t = measure(detector, size, side, tilt, frames, sigma, region);
                std::printf(" %3.0f%%", 100.0 * t.found / std::max(1, t.placed));
                if (t.wrong > 0) {
                    std::printf(" (%d)", t.wrong);
                }
                std::printf(" |");
            }
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    return 0;
}
