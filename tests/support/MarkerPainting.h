// Marker scenes for the marker tests and benchmarks: ArUco markers drawn by OpenCV on a white
// quiet zone, placed with an in-plane turn and a tilt seen under perspective, on a grey gradient,
// with Gaussian noise. Pictures are blue-first 8-bit, as cv::imwrite takes them.
#pragma once

#include "ArucoDetector.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

namespace StemlibTest {

// A marker of that dictionary, grey, side pixels square including its black border of one cell.
inline cv::Mat markerImage(int dictionarySize, int id, int side) {
    cv::Mat image;
#if STEMLIB_OPENCV_ARUCO_DETECTOR_CLASS
    cv::aruco::generateImageMarker(
        cv::aruco::getPredefinedDictionary(
            Ombrel::ArucoDetector::dictionaryValueForSize(dictionarySize)),
        id, side, image, 1);
#else
    cv::aruco::drawMarker(cv::aruco::getPredefinedDictionary(
                              Ombrel::ArucoDetector::dictionaryValueForSize(dictionarySize)),
                          id, side, image, 1);
#endif
    return image;
}

struct MarkerPlacement {
    int dictionarySize = 6;
    int id = 0;
    float side = 48.0f;       // side in pixels when seen square on
    cv::Point2f centre;       // frame pixels
    float tiltDegrees = 0.0f; // turned about its horizontal axis, top edge away from the camera
    float turnDegrees = 0.0f; // turned in its plane, clockwise on the picture
};

// The corners of a square of side half * 2 centred on the marker, in the marker's plane, as the
// picture shows them: turned, tilted, and seen from four marker sides' distance.
inline std::array<cv::Point2f, 4> projectSquare(const MarkerPlacement& placement, float half) {
    const float turn = placement.turnDegrees * static_cast<float>(CV_PI) / 180.0f;
    const float tilt = placement.tiltDegrees * static_cast<float>(CV_PI) / 180.0f;
    const float distance = 4.0f * placement.side;
    const std::array<cv::Point2f, 4> square = {cv::Point2f(-half, -half), cv::Point2f(half, -half),
                                               cv::Point2f(half, half), cv::Point2f(-half, half)};
    std::array<cv::Point2f, 4> corners;
    for (std::size_t i = 0; i < 4; ++i) {
        const float x = square[i].x * std::cos(turn) - square[i].y * std::sin(turn);
        const float y = square[i].x * std::sin(turn) + square[i].y * std::cos(turn);
        const float depth = -y * std::sin(tilt);
        const float scale = distance / (distance + depth);
        corners[i] = placement.centre + cv::Point2f(x * scale, y * std::cos(tilt) * scale);
    }
    return corners;
}

// The marker's outline corners in frame pixels, in OpenCV's order: the marker's own top-left,
// then clockwise.
inline std::array<cv::Point2f, 4> markerCorners(const MarkerPlacement& placement) {
    return projectSquare(placement, placement.side / 2.0f);
}

// Draws the marker, with a white quiet zone of two cells around it, into frame (blue-first,
// 8-bit, three channels) and returns its outline corners as markerCorners gives them.
inline std::array<cv::Point2f, 4> paintMarker(cv::Mat& frame, const MarkerPlacement& placement) {
    const int cells = placement.dictionarySize + 2;
    const int cellPixels = std::max(2, static_cast<int>(std::ceil(placement.side / cells)));
    const int side = cells * cellPixels;
    const int zoneCells = 2;
    const int margin = zoneCells * cellPixels;
    cv::Mat grey(side + 2 * margin, side + 2 * margin, CV_8UC1, cv::Scalar(255));
    markerImage(placement.dictionarySize, placement.id, side)
        .copyTo(grey(cv::Rect(margin, margin, side, side)));
    cv::Mat tile;
    cv::cvtColor(grey, tile, cv::COLOR_GRAY2BGR);

    // The quiet zone is mapped with the marker: its corners lie two cells further out.
    const std::array<cv::Point2f, 4> corners = markerCorners(placement);
    const std::array<cv::Point2f, 4> zone =
        projectSquare(placement, placement.side / 2.0f * static_cast<float>(cells + 2 * zoneCells) /
                                     static_cast<float>(cells));
    const float outer = static_cast<float>(tile.cols) - 0.5f;
    const std::array<cv::Point2f, 4> source = {cv::Point2f(-0.5f, -0.5f), cv::Point2f(outer, -0.5f),
                                               cv::Point2f(outer, outer),
                                               cv::Point2f(-0.5f, outer)};

    // Warp into the region that the zone covers only, not the whole frame.
    const cv::Rect bounds = cv::boundingRect(std::vector<cv::Point2f>(zone.begin(), zone.end())) +
                            cv::Size(2, 2) - cv::Point(1, 1);
    const cv::Rect region = bounds & cv::Rect(0, 0, frame.cols, frame.rows);
    if (region.empty()) {
        return corners;
    }
    std::array<cv::Point2f, 4> target;
    for (std::size_t i = 0; i < 4; ++i) {
        target[i] =
            zone[i] - cv::Point2f(static_cast<float>(region.x), static_cast<float>(region.y));
    }
    const cv::Mat homography = cv::getPerspectiveTransform(source.data(), target.data());
    cv::Mat view = frame(region);
    cv::warpPerspective(tile, view, homography, view.size(), cv::INTER_LINEAR,
                        cv::BORDER_TRANSPARENT);
    return corners;
}

// A blue-first frame with a light grey gradient from left to right.
inline cv::Mat markerBackground(int width, int height) {
    cv::Mat frame(height, width, CV_8UC3);
    for (int x = 0; x < width; ++x) {
        const auto grey = static_cast<uint8_t>(150 + 70 * x / std::max(1, width - 1));
        frame.col(x).setTo(cv::Scalar(grey, grey, grey));
    }
    return frame;
}

// Adds Gaussian noise of sigma grey levels, the same for a given seed, saturating at 0 and 255.
inline void addNoise(cv::Mat& frame, double sigma, uint64_t seed) {
    cv::Mat noise(frame.size(), CV_16SC3);
    cv::RNG rng(seed);
    rng.fill(noise, cv::RNG::NORMAL, 0.0, sigma);
    cv::Mat sum;
    frame.convertTo(sum, CV_16SC3);
    sum += noise;
    sum.convertTo(frame, CV_8UC3);
}

} // namespace StemlibTest
