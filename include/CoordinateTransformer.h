// CoordinateTransformer (also HeightCalibrator3D): calibrates a fixed camera from sightings of
// people, without any marker in the scene, and then turns pixels into floor positions.
//
// Each sighting is the pixel of a person's neck (top) and of their feet (bottom); everyone is
// taken to have the same neck height above the floor. calibrate searches a fixed grid of camera
// heights (2.25 to 4.75 m in steps of 0.5), tilts (31 to 59 degrees in steps of 2) and focal
// lengths (400 to 800 px in steps of 100), 450 sets in all, for the one under which a person of
// neck height standing at each observed feet pixel appears with the neck nearest the observed
// one, and derives from it a homography from pixels to metres on the floor.
//
// The world: metres, the floor is z = 0, z points up, the camera stands at (0, 0, height). The
// intrinsic matrix has the focal length on its diagonal and the image centre as principal point,
// with no distortion.
//
// Ownership: everything by value. Threading: no lock; one thread at a time. calibrate runs the
// whole search synchronously on the caller's thread.
#pragma once

#include "Points.h"

#include <opencv2/core.hpp>

#include <limits>
#include <vector>

namespace Ombrel {

// One sighting in pixels: the upper body point (the neck) and the feet.
struct HeightObservation {
    FPoint top;
    FPoint bottom;
};
using HeightObservations = std::vector<HeightObservation>;

struct CameraParams {
    double height_m = 0.0;        // camera height above the floor, metres
    double tilt_deg = 0.0;        // downward tilt, degrees
    double focal_length_px = 0.0; // pixels

    CameraParams() = default;
    CameraParams(double height, double tilt, double focalLength)
        : height_m(height), tilt_deg(tilt), focal_length_px(focalLength) {}
};

class CoordinateTransformer {
public:
    // An 800 by 450 image, a neck height of 138 cm, uncalibrated.
    CoordinateTransformer() = default;

    bool isCalibrated() const { return _is_calibrated; }
    void setCalibrated(bool calibrated) { _is_calibrated = calibrated; }

    // Takes the parameters as they are, counts as calibrated and sets up the homography. The
    // last reprojection error is left as it was. Parameters that give no homography (a focal
    // length or height of 0, say) leave the transformer uncalibrated, with an error line.
    void setParameters(const CameraParams& params);
    CameraParams getParameters() const { return _params; }
    // The cost of the current parameters; the largest finite double before any calibration.
    double getLastReprojectionError() const { return _lastReprojectionError; }

    // Centimetres: 138 means 1.38 m. Neither setter recalculates anything.
    void setNeckHeight(float neckHeight) { _neckHeight = neckHeight; }
    void setDimensions(int width, int height) {
        _img_width = width;
        _img_height = height;
    }

    // R and T of the camera: R turns the world's up axis into the camera's axes and tilts it;
    // T = -R times the camera centre (0, 0, height).
    void buildExtrinsics(const CameraParams& cameraParams, cv::Mat& R, cv::Mat& T) const;
    // Where the ray through pixel p meets the floor, under intrinsics K and pose R, T.
    // test_params is not used. A ray parallel to the floor gives what the arithmetic gives.
    cv::Point3f pixelToGround(const FPoint& p, const CameraParams& test_params, const cv::Mat& K,
                              const cv::Mat& R, const cv::Mat& T) const;

    // With at least 5 observations, runs the grid search and takes the set with the smallest
    // cost (the first in loop order on a tie: lower height, then tilt, then focal length).
    // Fewer than 5: the error line "calibrate: Error: Not enough observations for calibration."
    // and false. No set with a finite cost (not-a-number observations, say): "Calibration
    // failed. Could not find a valid parameter set." on standard error and false. A failure
    // changes nothing, so an earlier calibration stays in force.
    bool calibrate(const HeightObservations& observations);
    // The mean distance in pixels between each observed top and where a person of neck height
    // standing at the observed feet appears under inputParams. Not-a-number for no observations.
    double calculateReprojectionError(const CameraParams& inputParams,
                                      const HeightObservations& inputObservations) const;
    // Logs the parameters and computes the pixel-to-floor homography from them.
    void setupHomography();
    // The floor point under a pixel, in metres. Before calibration: the error line
    // "pixelToWorld: Error: Must calibrate the system first." and (-1, -1), which is also a
    // possible floor position, so test isCalibrated() first.
    FPoint pixelToWorld(const FPoint& p_pixel) const;

private:
    int _img_width = 800;
    int _img_height = 450;
    bool _is_calibrated = false;
    float _neckHeight = 138.0f;
    CameraParams _params;
    double _lastReprojectionError = std::numeric_limits<double>::max();
    cv::Mat _homography_matrix;
};

using HeightCalibrator3D = CoordinateTransformer;

} // namespace Ombrel
