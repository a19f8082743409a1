#include "CoordinateTransformer.h"

#include "LoggerWrapper.h"

#include <opencv2/calib3d.hpp>

#include <cfloat>
#include <cmath>
#include <iostream>
#include <limits>
#include <string>

namespace Ombrel {

namespace {

constexpr double kPi = 3.14159265358979323846;

cv::Mat intrinsics(double focalLength, int width, int height) {
    return (cv::Mat_<double>(3, 3) << focalLength, 0.0, width / 2.0, 0.0, focalLength, height / 2.0,
            0.0, 0.0, 1.0);
}

// A double narrowed to float as the hardware does it (out of range becomes an infinity), without
// the undefined conversion of a finite value beyond the float range.
float narrow(double value) {
    if (std::isfinite(value) && std::fabs(value) > FLT_MAX) {
        return std::copysign(std::numeric_limits<float>::infinity(), static_cast<float>(value));
    }
    return static_cast<float>(value);
}

// Everything about one parameter set that the cost of an observation needs, computed once. The
// arithmetic below repeats, step for step, the matrix expressions of pixelToGround and the
// distortion-free path of cv::projectPoints (which rotates by the matrix that Rodrigues gives
// back from the rotation vector), so that the cost equals that of the plain OpenCV calls.
struct CostModel {
    double kInv[9];
    double r[9];
    double centre[3];
    double rp[9];
    double t[3];
    double fx, fy, cx, cy;
    float neck;

    CostModel(const CoordinateTransformer& transformer, const CameraParams& params, int width,
              int height, float neckHeight) {
        const cv::Mat K = intrinsics(params.focal_length_px, width, height);
        cv::Mat R, T;
        transformer.buildExtrinsics(params, R, T);
        cv::Mat rVec, rBack;
        cv::Rodrigues(R, rVec);
        cv::Rodrigues(rVec, rBack);
        const cv::Mat KInv = K.inv();
        for (int i = 0; i < 9; ++i) {
            kInv[i] = KInv.at<double>(i / 3, i % 3);
            r[i] = R.at<double>(i / 3, i % 3);
            rp[i] = rBack.at<double>(i / 3, i % 3);
        }
        for (int i = 0; i < 3; ++i) {
            t[i] = T.at<double>(i);
        }
        // C_w = -(R transposed) T
        for (int i = 0; i < 3; ++i) {
            double sum = 0.0;
            sum += r[0 * 3 + i] * t[0];
            sum += r[1 * 3 + i] * t[1];
            sum += r[2 * 3 + i] * t[2];
            centre[i] = -1.0 * sum;
        }
        fx = K.at<double>(0, 0);
        fy = K.at<double>(1, 1);
        cx = K.at<double>(0, 2);
        cy = K.at<double>(1, 2);
        neck = neckHeight / 100;
    }

    double error(const HeightObservation& obs) const {
        // The feet on the floor.
        const double p[3] = {obs.bottom.x, obs.bottom.y, 1.0};
        double pCam[3];
        for (int i = 0; i < 3; ++i) {
            double sum = 0.0;
            sum += kInv[i * 3 + 0] * p[0];
            sum += kInv[i * 3 + 1] * p[1];
            sum += kInv[i * 3 + 2] * p[2];
            pCam[i] = sum;
        }
        double dW[3];
        for (int i = 0; i < 3; ++i) {
            double sum = 0.0;
            sum += r[0 * 3 + i] * pCam[0];
            sum += r[1 * 3 + i] * pCam[1];
            sum += r[2 * 3 + i] * pCam[2];
            dW[i] = sum;
        }
        const double s = -centre[2] / dW[2];
        const float X = narrow(centre[0] * 1.0 + dW[0] * s);
        const float Y = narrow(centre[1] * 1.0 + dW[1] * s);
        const float Z = neck;

        // The neck above them, projected.
        const double wx = X, wy = Y, wz = Z;
        double x = rp[0] * wx + rp[1] * wy + rp[2] * wz + t[0];
        double y = rp[3] * wx + rp[4] * wy + rp[5] * wz + t[1];
        double z = rp[6] * wx + rp[7] * wy + rp[8] * wz + t[2];
        z = z != 0.0 ? 1.0 / z : 1.0;
        x *= z;
        y *= z;
        const double r2 = x * x + y * y;
        if (!std::isfinite(r2 * r2 * r2)) {
            // The zero distortion terms times an infinity.
            x = y = std::numeric_limits<double>::quiet_NaN();
        }
        const float u = narrow(x * fx + cx);
        const float v = narrow(y * fy + cy);

        const double dx = obs.top.x - u;
        const double dy = obs.top.y - v;
        return std::sqrt(dx * dx + dy * dy);
    }
};

} // namespace

void CoordinateTransformer::buildExtrinsics(const CameraParams& cameraParams, cv::Mat& R,
                                            cv::Mat& T) const {
    const double tilt_rad = cameraParams.tilt_deg * kPi / 180.0;
    const double H = cameraParams.height_m;
    // The world's up axis becomes the camera's axes.
    const cv::Mat R_basis = (cv::Mat_<double>(3, 3) << 1, 0, 0, 0, 0, 1, 0, -1, 0);
    const double c = std::cos(tilt_rad);
    const double s = std::sin(tilt_rad);
    const cv::Mat R_tilt = (cv::Mat_<double>(3, 3) << 1, 0, 0, 0, c, -s, 0, s, c);
    R = R_tilt * R_basis;
    const cv::Mat C_w = (cv::Mat_<double>(3, 1) << 0, 0, H);
    T = -R * C_w;
}

cv::Point3f CoordinateTransformer::pixelToGround(const FPoint& p, const CameraParams& test_params,
                                                 const cv::Mat& K, const cv::Mat& R,
                                                 const cv::Mat& T) const {
    (void)test_params;
    const cv::Mat K_inv = K.inv();
    const cv::Mat p_cam = K_inv * (cv::Mat_<double>(3, 1) << p.x, p.y, 1.0);
    const cv::Mat d_w = R.t() * p_cam;
    const cv::Mat C_w = -R.t() * T;
    const double t = -C_w.at<double>(2) / d_w.at<double>(2);
    const cv::Mat P_w = C_w + t * d_w;
    return cv::Point3f(narrow(P_w.at<double>(0)), narrow(P_w.at<double>(1)),
                       narrow(P_w.at<double>(2)));
}

double CoordinateTransformer::calculateReprojectionError(
    const CameraParams& inputParams, const HeightObservations& inputObservations) const {
    if (inputObservations.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const CostModel model(*this, inputParams, _img_width, _img_height, _neckHeight);
    double total_error = 0.0;
    for (const HeightObservation& obs : inputObservations) {
        total_error += model.error(obs);
    }
    return total_error / static_cast<double>(inputObservations.size());
}

bool CoordinateTransformer::calibrate(const HeightObservations& observations) {
    if (observations.size() < 5) {
        g_stemlibLogger.error("calibrate: Error: Not enough observations for calibration.");
        return false;
    }
    CameraParams best_params;
    double min_error = std::numeric_limits<double>::max();
    // The whole search: bounds tested inclusively on accumulating values.
    for (double h = 2.25; h <= 5.0; h += 0.5) {
        for (double t = 31.0; t <= 60.0; t += 2.0) {
            for (double f = 400.0; f <= 800.0; f += 100.0) {
                const CameraParams candidate(h, t, f);
                const double error = calculateReprojectionError(candidate, observations);
                // Strictly smaller: the first wins a tie, and not-a-number never wins.
                if (error < min_error) {
                    min_error = error;
                    best_params = candidate;
                }
            }
        }
    }
    if (min_error == std::numeric_limits<double>::max()) {
        std::cerr << "Calibration failed. Could not find a valid parameter set." << std::endl;
        return false;
    }
    _params = best_params;
    _is_calibrated = true;
    _lastReprojectionError = min_error;
    setupHomography();
    return true;
}

void CoordinateTransformer::setParameters(const CameraParams& params) {
    _params = params;
    _is_calibrated = true;
    setupHomography();
}

void CoordinateTransformer::setupHomography() {
    g_stemlibLogger.info(
        "setupHomography: Camera Parameters: H=" + std::to_string(_params.height_m) + " m, Tilt=" +
        std::to_string(_params.tilt_deg) + " deg, f=" + std::to_string(_params.focal_length_px) +
        " px" + " lastReprojectionError=" + std::to_string(_lastReprojectionError) + " px");
    const cv::Mat K = intrinsics(_params.focal_length_px, _img_width, _img_height);
    cv::Mat R, T, r_vec;
    buildExtrinsics(_params, R, T);
    cv::Rodrigues(R, r_vec);

    // Any four floor points span the plane; these are the default board's rectangle.
    const float wrect = 2.016f;
    const float hrect = 1.26f;
    const std::vector<cv::Point3f> ground_points_3d = {
        {0.0f, 0.0f, 0.0f}, {wrect, 0.0f, 0.0f}, {wrect, hrect, 0.0f}, {0.0f, hrect, 0.0f}};
    std::vector<cv::Point2f> image_points;
    std::vector<cv::Point2f> ground_points_2d;
    for (const cv::Point3f& point : ground_points_3d) {
        ground_points_2d.emplace_back(point.x, point.y);
    }
    try {
        cv::projectPoints(ground_points_3d, r_vec, T, K, cv::noArray(), image_points);
        _homography_matrix =
            cv::findHomography(image_points, ground_points_2d, 0, 3.0, cv::noArray(), 2000, 0.995);
    } catch (const cv::Exception& e) {
        g_stemlibLogger.error("setupHomography: " + std::string(e.what()));
        _homography_matrix.release();
    }
    if (_homography_matrix.empty()) {
        g_stemlibLogger.error(
            "setupHomography: Error: These camera parameters give no homography.");
        _is_calibrated = false;
    }
}

FPoint CoordinateTransformer::pixelToWorld(const FPoint& p_pixel) const {
    if (!_is_calibrated || _homography_matrix.empty()) {
        g_stemlibLogger.error("pixelToWorld: Error: Must calibrate the system first.");
        return FPoint(-1.0f, -1.0f);
    }
    const std::vector<cv::Point2f> pixel = {cv::Point2f(p_pixel.x, p_pixel.y)};
    std::vector<cv::Point2f> world;
    cv::perspectiveTransform(pixel, world, _homography_matrix);
    return FPoint(world.front().x, world.front().y);
}

} // namespace Ombrel
