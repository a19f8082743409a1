// Distance controller: relates the camera picture to the floor from one printed chessboard lying
// on it, measures the distance between people from their feet and turns a height on the screen
// into a physical height.
//
// find_pattern takes one frame, finds the board's 9 by 6 inner corners and calibrates from the
// quad of its four outer inner corners, which span 8 by 5 squares: an image-to-floor homography,
// and a camera pose (cv::solvePnP) from the camera's sensor size (a table by product name, read
// from the parameter service) and lens focal length (read from the optics service through
// busctl). Floor units are those of the board rectangle: with the default squares of 0.252, the
// rectangle is 2.016 by 1.26, so metres for a board printed at that size.
//
// The records and globals around the controller are what an application shares with it:
// g_StreamWidth, g_StreamHeight and g_IsPortrait say in which picture coordinates are given and
// are only read here; find_pattern fills g_DetectionParams and sets the marker flag of
// g_CalibrationParams.
//
// Ownership: everything by value. Threading: no lock, in the controller or on the globals; one
// thread at a time. find_pattern blocks: it waits for a frame, starts a process and reads the
// parameter service.
#pragma once

#include "ImageFrameSource.h"
#include "PerspectiveMath.h"

#include <opencv2/core.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Ombrel {

// The calibration quad in image pixels, in the order of Quad (x0, y0, ... x3, y3), and the size
// of the real rectangle it stands for.
struct DetectionParams {
    int32_t i_FallCalibration[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    float f_WRectM = 0.0f;
    float f_HRectM = 0.0f;
};

// Settings of the application's page. Every field starts as zero, false or empty.
struct CalibrationParams {
    float f_Sensitivity = 0.0f;
    int32_t i_MaxDisappeared = 0;
    bool b_DetectionOverlaysOn = false;
    bool b_AnonOverlaysOn = false;
    std::string str_DetectionOverlay;
    std::string str_AnonOverlay;
    bool b_ShowCalibrationMarkers = false; // set by find_pattern
};

extern DetectionParams g_DetectionParams;     // filled by find_pattern
extern CalibrationParams g_CalibrationParams; // its marker flag is set by find_pattern
extern int32_t g_StreamWidth;                 // 800: width of the picture of all coordinates
extern int32_t g_StreamHeight;                // 450: its height
extern bool g_IsPortrait;                     // false: the stream stands in portrait

// The size of the calibration rectangle and whether its marks are drawn, for the application to
// keep beside the controller. The defaults are the 8 by 5 squares of the default board.
class Calibrator {
public:
    void setSize(float width, float height) {
        _width = width;
        _height = height;
        _isInitialized = true;
    }
    void getSize(float& width, float& height) const {
        width = _width;
        height = _height;
    }
    bool isInitialized() const { return _isInitialized; }
    bool shouldRender() const { return _render; }
    void setRender(bool render) { _render = render; }

private:
    float _width = 2.016f;
    float _height = 1.26f;
    bool _isInitialized = true;
    bool _render = true;
};

// Runs cmd through the shell (popen, mode "r") and returns its whole standard output. Throws
// std::runtime_error("popen() failed!") when the process cannot be started (or cmd is null).
std::string exec(const char* cmd);

// Logs a float matrix at info level: "logMatrixf2: [<message>] logMatrixf Size=<rows> rows x
// <cols> cols", then one line a row, "logMatrixf2: [<message>] [<message>] Row <r>: " and each
// value (std::to_string) followed by a blank. A matrix of another element type is converted to
// float first.
void logMatrixf2(const std::string& message, const cv::Mat& m);

class Distance_Controller {
public:
    using Feet = std::vector<std::pair<int32_t, int32_t>>;

    // Uncalibrated, with a breach limit of 200, a 9 by 6 board of squares of 0.252 and the
    // sensor table filled.
    Distance_Controller();

    // Takes one frame of g_StreamWidth by g_StreamHeight from imageFrameSource and looks for the
    // board. Without exactly 54 corners: logs "find_pattern: Could not find chessboard corners,
    // size is <n>", changes nothing and returns false. Otherwise fills g_DetectionParams (the
    // corners 0, 45, 53 and 8, truncated; 2.016 by 1.26 with the default squares) and this
    // controller's copy, logs the four corners, sets g_CalibrationParams.b_ShowCalibrationMarkers,
    // calibrates, and returns true: true says that the board was found, isCalibrated() says
    // whether the calibration took. The calibration reads the focal length through busctl, whose
    // failure leaves this call as an exception: std::runtime_error("popen() failed!") when no
    // process starts, std::invalid_argument (or std::out_of_range) when the answer holds no
    // number at the place of "UINT32 <microns>;".
    bool find_pattern(ImageFrameSource& imageFrameSource);

    // Projects a world point into the picture with the camera pose (floor points have z = 0,
    // heights above the floor are negative z). Without any pose yet, logs an error and returns
    // not-a-numbers.
    cv::Point2f world_to_screen_point(cv::Point3f pw) const;
    // The floor point under image point ps, through the homography; z is always 1. Does not look
    // at the calibration state: an uncalibrated controller gives not-a-numbers.
    cv::Point3f screen_point_to_world_floor(cv::Point2f ps) const;
    // The physical height of something standing at floor position ps (floor coordinates, not
    // pixels) that is screenHeight pixels high on the screen (top y minus bottom y, so negative
    // for an upright object): screenHeight divided by the screen height of a stake one unit high
    // at ps. The sign is kept. False, with physicalHeight untouched, when not calibrated.
    bool getPhysicalHeight(cv::Point2f ps, float screenHeight, float& physicalHeight) const;

    // Takes the feet (image pixels) of everyone in view, maps them to the floor and marks every
    // pair at or below the breach limit (200, in floor units). Replaces the results of earlier
    // calls. Writes one line a pair to standard output, "a: (x,y) | b: (x,y) = distance", pairs
    // in order (0,1), (0,2) ... (1,2) ... Quadratic in the number of feet.
    void set_locations(Feet feet);
    // Adds one person known by floor position (x and y in floor units; z is ignored) to those of
    // the last call. The image position is the inverse homography's, truncated toward zero, and
    // the breaches are worked out again over all pairs, as if the whole list had been handed in
    // again with this person's floor position as given. Writes the lines of the new pairs only. A
    // point with no finite image position that fits an int (no calibration yet, a degenerate map)
    // is refused with an error line.
    void set_locations(Vector3 floorPoint);
    // The image positions of the breachers, each once, in the order in which they were found.
    Feet get_breaches() const { return breach_position; }
    bool isCalibrated() const { return m_calibrated; }
    void saveCalibrationParams(const CalibrationParams& params) { m_calibrationParams = params; }
    void saveDetectionParams(const DetectionParams& params) { m_detectionParams = params; }

    // Diagnostic: takes the board from one more frame and works the sensor size backwards from
    // all views taken so far (cv::initCameraMatrix2D), logging what it finds. Changes no
    // calibration member. False, after logging, when the frame shows no corners at all; an
    // exception of the estimation (a partial board, a failing busctl) is logged as
    // "log_intrinsic_matrix: initCameraMatrix2D Exception: <what>" and the result is true.
    bool log_intrinsic_matrix(ImageFrameSource& imageFrameSource);

private:
    // Homography from source to the w by h rectangle, then the camera matrix and the pose.
    // False after "Degenerate Matrix" (not calibrated), a focal length that is not positive
    // (calibration state kept) or a pose step that OpenCV refuses (not calibrated).
    bool calibrate(Quad source, float wrect, float hrect);
    void makeCombiUtil(std::vector<std::vector<int>>& ans, std::vector<int>& tmp, int n, int left,
                       int k);
    // Every k-combination of 0 to n inclusive, each increasing, in lexicographic order.
    std::vector<std::vector<int>> makeCombi(int n, int k);
    // Works the breaches out again over every pair of the current floor positions, with limit:
    // flags cleared and breach_position rebuilt in pair order, so that whoever is no longer
    // within limit of anyone drops out.
    void clean_non_infractor(float limit);
    // The rectangle (0,0), (0,h), (w,h), (w,0).
    Quad get_target(float w, float h);
    // Distance in the floor plane; z is ignored.
    float get_distance(Vector3 point0, Vector3 point1);
    // x0 (y1 - y3) - x1 (y0 - y3) + x2 (y0 - y1): pairs x2 with y3 on purpose.
    float determinant_check(Quad input);
    bool calculate_world_to_screen_transformations(Quad source, float wrect, float hrect);
    bool calculate_camera_matrix(const std::string& shortProductName);
    std::vector<cv::Point2f> detect_chessboard(ImageFrameSource& imageFrameSource);
    // Lens focal length in microns, from busctl; throws as find_pattern says.
    int getFocalLength();

    // Breach pass over the pairs of makeCombi; writes the lines of pairs with an index of at
    // least firstPrinted.
    void markBreaches(float limit, size_t firstPrinted);

    int32_t distance_limit;
    Matrix3x3 homography;
    Feet people_position;
    std::vector<Vector3> people_position_transform;
    std::vector<bool> is_breacher;
    Feet breach_position;
    cv::Mat m_rotationVec;
    cv::Mat m_translationVec;
    cv::Mat m_cameraMatrix;
    cv::Mat m_distCoeffs;
    bool m_calibrated;
    float m_squareSize;
    cv::Size m_boardSize;
    std::vector<std::vector<cv::Point2f>> m_imagePointsForLogIntrinsic;
    std::vector<std::vector<cv::Point3f>> m_objectPointsForLogIntrinsic;
    std::map<std::string, std::pair<float, float>> m_sensorDimensions;
    DetectionParams m_detectionParams{};
    CalibrationParams m_calibrationParams{};
};

} // namespace Ombrel
