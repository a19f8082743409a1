// The height calibration written the plain way, one OpenCV call after another for every
// observation of every parameter set, as a yardstick for the library's search: same chosen set,
// same cost.
#pragma once

#include "CoordinateTransformer.h"

#include <opencv2/calib3d.hpp>

#include <cmath>
#include <limits>
#include <vector>

namespace StemlibTest {

struct ReferenceResult {
    Ombrel::CameraParams params;
    double error = std::numeric_limits<double>::max();
};

inline cv::Mat referenceIntrinsics(double focalLength, int width, int height) {
    return (cv::Mat_<double>(3, 3) << focalLength, 0.0, width / 2.0, 0.0, focalLength, height / 2.0,
            0.0, 0.0, 1.0);
}

inline void referenceExtrinsics(const Ombrel::CameraParams& params, cv::Mat& R, cv::Mat& T) {
    const double tilt = params.tilt_deg * CV_PI / 180.0;
    const cv::Mat basis = (cv::Mat_<double>(3, 3) << 1, 0, 0, 0, 0, 1, 0, -1, 0);
    const cv::Mat turn = (cv::Mat_<double>(3, 3) << 1, 0, 0, 0, std::cos(tilt), -std::sin(tilt), 0,
                          std::sin(tilt), std::cos(tilt));
    R = turn * basis;
    T = -R * (cv::Mat_<double>(3, 1) << 0, 0, params.height_m);
}

// A double as a float, out of range becoming an infinity.
inline float toFloat(double value) {
    return std::fabs(value) > std::numeric_limits<float>::max() && std::isfinite(value)
               ? std::copysign(std::numeric_limits<float>::infinity(), static_cast<float>(value))
               : static_cast<float>(value);
}

// The mean pixel distance between each observed top and the reprojected neck above its feet.
inline double referenceError(const Ombrel::CameraParams& params,
                             const Ombrel::HeightObservations& observations, int width = 800,
                             int height = 450, float neckHeightCm = 138.0f) {
    const cv::Mat K = referenceIntrinsics(params.focal_length_px, width, height);
    cv::Mat R, T, rVec;
    referenceExtrinsics(params, R, T);
    cv::Rodrigues(R, rVec);
    double total = 0.0;
    for (const Ombrel::HeightObservation& obs : observations) {
        const cv::Mat pCam = K.inv() * (cv::Mat_<double>(3, 1) << obs.bottom.x, obs.bottom.y, 1.0);
        const cv::Mat dW = R.t() * pCam;
        const cv::Mat cW = -R.t() * T;
        const double t = -cW.at<double>(2) / dW.at<double>(2);
        const cv::Mat pW = cW + t * dW;
        const std::vector<cv::Point3f> top = {
            cv::Point3f(toFloat(pW.at<double>(0)), toFloat(pW.at<double>(1)), neckHeightCm / 100)};
        std::vector<cv::Point2f> image;
        cv::projectPoints(top, rVec, T, K, cv::noArray(), image);
        const double dx = obs.top.x - image[0].x;
        const double dy = obs.top.y - image[0].y;
        total += std::sqrt(dx * dx + dy * dy);
    }
    return total / static_cast<double>(observations.size());
}

// The whole grid, in loop order, keeping the first strictly smallest cost.
inline ReferenceResult referenceCalibration(const Ombrel::HeightObservations& observations) {
    ReferenceResult best;
    for (double h = 2.25; h <= 5.0; h += 0.5) {
        for (double t = 31.0; t <= 60.0; t += 2.0) {
            for (double f = 400.0; f <= 800.0; f += 100.0) {
                const Ombrel::CameraParams candidate(h, t, f);
                const double error = referenceError(candidate, observations);
                if (error < best.error) {
                    best = {candidate, error};
                }
            }
        }
    }
    return best;
}

// Sightings of people of neck height standing on the floor, seen by a camera of these
// parameters in an 800 by 450 image: one for each feet pixel, with the neck where that camera
// shows it.
inline Ombrel::HeightObservations sightingsFrom(const Ombrel::CameraParams& camera,
                                                const std::vector<cv::Point2f>& feet,
                                                float neckHeightCm = 138.0f) {
    const cv::Mat K = referenceIntrinsics(camera.focal_length_px, 800, 450);
    cv::Mat R, T, rVec;
    referenceExtrinsics(camera, R, T);
    cv::Rodrigues(R, rVec);
    Ombrel::HeightObservations sightings;
    for (const cv::Point2f& foot : feet) {
        const cv::Mat pCam = K.inv() * (cv::Mat_<double>(3, 1) << foot.x, foot.y, 1.0);
        const cv::Mat dW = R.t() * pCam;
        const cv::Mat cW = -R.t() * T;
        const double t = -cW.at<double>(2) / dW.at<double>(2);
        const cv::Mat pW = cW + t * dW;
        const std::vector<cv::Point3d> neck = {
            cv::Point3d(pW.at<double>(0), pW.at<double>(1), neckHeightCm / 100.0)};
        std::vector<cv::Point2d> image;
        cv::projectPoints(neck, rVec, T, K, cv::noArray(), image);
        sightings.push_back(
            {Ombrel::FPoint(static_cast<float>(image[0].x), static_cast<float>(image[0].y)),
             Ombrel::FPoint(foot.x, foot.y)});
    }
    return sightings;
}

} // namespace StemlibTest
