#include "distance_controller.h"

#include "CameraManager.h"
#include "Points.h"
#include "utils.h"

#include <opencv2/calib3d.hpp>

#include <array>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace Ombrel {

DetectionParams g_DetectionParams{};
CalibrationParams g_CalibrationParams{};
int32_t g_StreamWidth = 800;
int32_t g_StreamHeight = 450;
bool g_IsPortrait = false;

namespace {

const char* const kFocalLengthCommand =
    "busctl --verbose get-property com.axis.Optics2 /com/axis/Optics0 com.axis.Iris1 FocalLength";

// The number of corners that find_pattern requires: a board of 9 by 6.
constexpr size_t kBoardCorners = 54;

// Larger streams are refused before a frame buffer is allocated for them.
constexpr int32_t kMaxStreamSide = 16384;

struct PipeCloser {
    void operator()(FILE* pipe) const { pclose(pipe); }
};

// Whether a float truncates to an int without leaving the int's range.
bool fitsInt(float value) {
    return std::isfinite(value) && value > -2147483904.0f && value < 2147483648.0f;
}

std::string unreadableFocalLength(const std::string& answer) {
    return "getFocalLength: No focal length in the answer of busctl: \"" + answer + "\"";
}

} // namespace

std::string exec(const char* cmd) {
    if (cmd == nullptr) {
        throw std::runtime_error("popen() failed!");
    }
    std::unique_ptr<FILE, PipeCloser> pipe(popen(cmd, "r"));
    if (!pipe) {
        throw std::runtime_error("popen() failed!");
    }
    std::array<char, 128> buffer{};
    std::string result;
    while (fgets(buffer.data(), static_cast<int>(buffer.size()), pipe.get()) != nullptr) {
        result += buffer.data();
    }
    return result;
}

void logMatrixf2(const std::string& message, const cv::Mat& m) {
    const std::string prefix = "logMatrixf2: [" + message + "] ";
    g_stemlibLogger.info(prefix + "logMatrixf Size=" + std::to_string(m.rows) + " rows x " +
                         std::to_string(m.cols) + " cols");
    if (m.empty()) {
        return;
    }
    cv::Mat values;
    m.reshape(1, m.rows).convertTo(values, CV_32F);
    for (int r = 0; r < values.rows; ++r) {
        std::string row = "[" + message + "] Row " + std::to_string(r) + ": ";
        for (int c = 0; c < values.cols; ++c) {
            row += std::to_string(values.at<float>(r, c)) + " ";
        }
        g_stemlibLogger.info(prefix + row);
    }
}

Distance_Controller::Distance_Controller()
    : distance_limit(200), m_calibrated(false), m_squareSize(0.252f), m_boardSize(9, 6) {
    const std::pair<float, float> small(6.34f, 3.53f);
    const std::pair<float, float> medium(8.10f, 4.51f);
    const std::pair<float, float> large(10.67f, 8.0f);
    // The P3265 rows pair the small width with the medium height.
    const std::pair<float, float> mixed(small.first, medium.second);
    m_sensorDimensions = {
        {"AXIS P3255-LVE", small},  {"AXIS Q1615 Mk III", small}, {"AXIS Q1715", small},
        {"AXIS Q1656", medium},     {"AXIS Q1656-B", medium},     {"AXIS Q1656-BE", medium},
        {"AXIS Q1656-BLE", medium}, {"AXIS Q1656-LE", medium},    {"AXIS P3268-LV", medium},
        {"AXIS P3268-LVE", medium}, {"AXIS P3265-LV", mixed},     {"AXIS P3265-LVE", mixed},
        {"AXIS P3265-V", mixed},    {"AXIS Q3536-LVE", medium},   {"AXIS Q3538-LVE", large},
        {"AXIS P3278-LV", medium},  {"AXIS Q1728", large},
    };
    m_imagePointsForLogIntrinsic.clear();
    m_objectPointsForLogIntrinsic.clear();
}

Quad Distance_Controller::get_target(float w, float h) {
    return Quad(0.0f, 0.0f, 0.0f, h, w, h, w, 0.0f);
}

float Distance_Controller::determinant_check(Quad input) {
    return input.x0 * (input.y1 - input.y3) - input.x1 * (input.y0 - input.y3) +
           input.x2 * (input.y0 - input.y1);
}

float Distance_Controller::get_distance(Vector3 point0, Vector3 point1) {
    const float dx = point1(0) - point0(0);
    const float dy = point1(1) - point0(1);
    return std::sqrt(dx * dx + dy * dy);
}

int Distance_Controller::getFocalLength() {
    const std::string answer = exec(kFocalLengthCommand);
    // "UINT32 4000;\n": the type word and its blank go, and the last character.
    if (answer.size() < 8) {
        g_stemlibLogger.error(unreadableFocalLength(answer));
        throw std::invalid_argument(unreadableFocalLength(answer));
    }
    const std::string number = answer.substr(7, answer.size() - 8);
    try {
        return std::stoi(number);
    } catch (const std::invalid_argument&) {
        g_stemlibLogger.error(unreadableFocalLength(answer));
        throw std::invalid_argument(unreadableFocalLength(answer));
    } catch (const std::out_of_range&) {
        g_stemlibLogger.error(unreadableFocalLength(answer));
        throw std::out_of_range(unreadableFocalLength(answer));
    }
}

bool Distance_Controller::calculate_camera_matrix(const std::string& shortProductName) {
    const std::string name = "calculate_camera_matrix: ";
    float sensorWidthInMM = 6.2f;
    float sensorHeightInMM = 3.5f;
    const auto found = m_sensorDimensions.find(shortProductName);
    if (found != m_sensorDimensions.end()) {
        sensorWidthInMM = found->second.first;
        sensorHeightInMM = found->second.second;
    }
    g_stemlibLogger.info(name + "calculate_camera_matrix: sensorDimensions found for " +
                         shortProductName + ", width=" + std::to_string(sensorWidthInMM) +
                         ", height=" + std::to_string(sensorHeightInMM));

    const int focalLengthInMicrons = getFocalLength();
    g_stemlibLogger.info(name + "focalLengthInMicrons " + std::to_string(focalLengthInMicrons));
    if (focalLengthInMicrons <= 0) {
        g_stemlibLogger.error(name + "A focal length of " + std::to_string(focalLengthInMicrons) +
                              " microns is not usable.");
        return false;
    }
    const double focalLengthInMM = focalLengthInMicrons / 1000.0;

    double xFocalLengthInPixels = 0.0;
    double yFocalLengthInPixels = 0.0;
    if (g_IsPortrait) {
        xFocalLengthInPixels = g_StreamWidth * focalLengthInMM / sensorHeightInMM;
        yFocalLengthInPixels = g_StreamHeight * focalLengthInMM / sensorWidthInMM;
    } else {
        xFocalLengthInPixels = g_StreamWidth * focalLengthInMM / sensorWidthInMM;
        yFocalLengthInPixels = g_StreamHeight * focalLengthInMM / sensorHeightInMM;
    }
    g_stemlibLogger.info(name + "Manual camera matrix calculation");
    g_stemlibLogger.info(name + "FocalLengthInMicrons : " + std::to_string(focalLengthInMicrons));
    g_stemlibLogger.info(name + "FocalLengthInMM      : " + std::to_string(focalLengthInMM));
    g_stemlibLogger.info(name + "xFocalLengthInPixels  : " + std::to_string(xFocalLengthInPixels));
    g_stemlibLogger.info(name + "yFocalLengthInPixels  : " + std::to_string(yFocalLengthInPixels));

    m_cameraMatrix = cv::Mat::zeros(3, 3, CV_32F);
    m_cameraMatrix.at<float>(0, 0) = static_cast<float>(xFocalLengthInPixels);
    m_cameraMatrix.at<float>(0, 2) = static_cast<float>(g_StreamWidth / 2.0);
    m_cameraMatrix.at<float>(1, 1) = static_cast<float>(yFocalLengthInPixels);
    m_cameraMatrix.at<float>(1, 2) = static_cast<float>(g_StreamHeight / 2.0);
    m_cameraMatrix.at<float>(2, 2) = 1.0f;
    // The lens is taken as free of distortion.
    m_distCoeffs = cv::Mat::zeros(1, 5, CV_32F);
    return true;
}

bool Distance_Controller::calculate_world_to_screen_transformations(Quad source, float wrect,
                                                                    float hrect) {
    // Screen corner 0 goes with the origin, 3 with (w, 0), 2 with (w, h) and 1 with (0, h).
    const std::vector<cv::Point2f> screenPoints = {{source.x0, source.y0},
                                                   {source.x3, source.y3},
                                                   {source.x2, source.y2},
                                                   {source.x1, source.y1}};
    const std::vector<cv::Point3f> worldPoints = {
        {0.0f, 0.0f, 0.0f}, {wrect, 0.0f, 0.0f}, {wrect, hrect, 0.0f}, {0.0f, hrect, 0.0f}};
    try {
        cv::solvePnP(worldPoints, screenPoints, m_cameraMatrix, m_distCoeffs, m_rotationVec,
                     m_translationVec, false, 0);
    } catch (const cv::Exception& e) {
        g_stemlibLogger.error("calculate_world_to_screen_transformations: solvePnP failed: " +
                              std::string(e.what()));
        m_rotationVec.release();
        m_translationVec.release();
        return false;
    }
    const std::string where = " calculate_world_to_screen_transformations";
    writeMatrix3x3ToLog("Homography in" + where, homography);
    writeCVMatFloatToLog("Camera Matrix" + where, m_cameraMatrix);
    writeCVMatToLog("Rotation Vector" + where + " AS DOUBLE", m_rotationVec);
    writeCVMatToLog("Translation Vector" + where + " AS DOUBLE", m_translationVec);
    writeCVMatToLog("Distortion Coefficients" + where + " AS DOUBLE", m_distCoeffs);
    writeCVPointsToLog("Screen Points in" + where, screenPoints);
    writeCVPointsToLog("World Points in" + where, worldPoints);
    return true;
}

bool Distance_Controller::calibrate(Quad source, float wrect, float hrect) {
    const std::string name = "calibrate: ";
    const Quad target = get_target(wrect, hrect);
    if (std::fabs(determinant_check(source)) < 0.0001) {
        g_stemlibLogger.error(name + "Degenerate Matrix");
        m_calibrated = false;
        return false;
    }
    homography = CreatePerspectiveTransformMatrix(source, target);
    g_stemlibLogger.info(name + "Source Quad: " + source.toString());
    g_stemlibLogger.info(name + "Target Quad: " + target.toString());

    std::string shortProductName;
    {
        const AxisCameraManager cameraManager("Stemlib");
        shortProductName = cameraManager.getCameraProductShortName();
    }
    if (!calculate_camera_matrix(shortProductName)) {
        g_stemlibLogger.error(name +
                              "Distance_Controller::calibrate failed to calculate_camera_matrix.");
        return false;
    }
    if (!calculate_world_to_screen_transformations(source, wrect, hrect)) {
        g_stemlibLogger.error(name + "Distance_Controller::calibrate failed to "
                                     "calculate_world_to_screen_transformations.");
        m_calibrated = false;
        return false;
    }
    m_calibrated = true;
    return true;
}

cv::Point3f Distance_Controller::screen_point_to_world_floor(cv::Point2f ps) const {
    const Vector3 floor = ApplyTransform(homography, ps.x, ps.y);
    return cv::Point3f(floor(0), floor(1), floor(2));
}

cv::Point2f Distance_Controller::world_to_screen_point(cv::Point3f pw) const {
    if (m_rotationVec.empty() || m_translationVec.empty() || m_cameraMatrix.empty()) {
        g_stemlibLogger.error("world_to_screen_point: No camera pose: calibrate first.");
        const float nan = std::numeric_limits<float>::quiet_NaN();
        return cv::Point2f(nan, nan);
    }
    const std::vector<cv::Point3f> world = {pw};
    std::vector<cv::Point2f> screen;
    cv::projectPoints(world, m_rotationVec, m_translationVec, m_cameraMatrix, m_distCoeffs, screen,
                      cv::noArray(), 0.0);
    return screen.front();
}

bool Distance_Controller::getPhysicalHeight(cv::Point2f ps, float screenHeight,
                                            float& physicalHeight) const {
    if (!m_calibrated) {
        return false;
    }
    // An imaginary stake one unit high standing at ps; heights above the floor are negative z.
    const float stakeHeightPhysical = 1.0f;
    const cv::Point2f p0 = world_to_screen_point(cv::Point3f(ps.x, ps.y, -0.0f));
    const cv::Point2f p1 = world_to_screen_point(cv::Point3f(ps.x, ps.y, -stakeHeightPhysical));
    const float stakeHeightScreen = p1.y - p0.y;
    physicalHeight = screenHeight / stakeHeightScreen;
    return true;
}

void Distance_Controller::makeCombiUtil(std::vector<std::vector<int>>& ans, std::vector<int>& tmp,
                                        int n, int left, int k) {
    if (k == 0) {
        ans.push_back(tmp);
        return;
    }
    for (int i = left; i <= n; ++i) {
        tmp.push_back(i);
        makeCombiUtil(ans, tmp, n, i + 1, k - 1);
        tmp.pop_back();
    }
}

std::vector<std::vector<int>> Distance_Controller::makeCombi(int n, int k) {
    std::vector<std::vector<int>> ans;
    std::vector<int> tmp;
    makeCombiUtil(ans, tmp, n, 0, k);
    return ans;
}

void Distance_Controller::markBreaches(float limit, size_t firstPrinted) {
    breach_position.clear();
    is_breacher.assign(people_position.size(), false);
    const auto mark = [this](size_t person) {
        if (!is_breacher[person]) {
            breach_position.push_back(people_position[person]);
            is_breacher[person] = true;
        }
    };
    const int combination_size = 2;
    const std::vector<std::vector<int>> ans =
        makeCombi(static_cast<int>(people_position.size()) - 1, combination_size);
    for (const std::vector<int>& pair : ans) {
        const auto a = static_cast<size_t>(pair[0]);
        const auto b = static_cast<size_t>(pair[1]);
        const float distance =
            get_distance(people_position_transform[a], people_position_transform[b]);
        if (distance <= limit) {
            mark(a);
            mark(b);
        }
        if (b >= firstPrinted) {
            std::cout << a << ": (" << people_position[a].first << "," << people_position[a].second
                      << ")"
                      << " | " << b << ": (" << people_position[b].first << ","
                      << people_position[b].second << ")"
                      << " = " << distance << "\n";
        }
    }
}

void Distance_Controller::clean_non_infractor(float limit) {
    markBreaches(limit, std::numeric_limits<size_t>::max());
}

void Distance_Controller::set_locations(Feet feet) {
    people_position.clear();
    people_position_transform.clear();
    breach_position.clear();
    is_breacher.clear();
    for (const std::pair<int32_t, int32_t>& foot : feet) {
        is_breacher.push_back(false);
        people_position.push_back(foot);
        people_position_transform.push_back(ApplyTransform(
            homography, static_cast<float>(foot.first), static_cast<float>(foot.second)));
    }
    markBreaches(static_cast<float>(distance_limit), 0);
}

void Distance_Controller::set_locations(Vector3 floorPoint) {
    const Vector3 image = ApplyTransform(homography.inverse(), floorPoint(0), floorPoint(1));
    if (!fitsInt(image(0)) || !fitsInt(image(1))) {
        std::ostringstream text;
        text << "set_locations: No image position for the floor point (" << floorPoint(0) << ","
             << floorPoint(1) << ")";
        g_stemlibLogger.error(text.str());
        return;
    }
    const size_t added = people_position.size();
    people_position.emplace_back(static_cast<int32_t>(image(0)), static_cast<int32_t>(image(1)));
    people_position_transform.push_back(Vector3(floorPoint(0), floorPoint(1), 1.0f));
    is_breacher.push_back(false);
    markBreaches(static_cast<float>(distance_limit), added);
}

std::vector<cv::Point2f>
Distance_Controller::detect_chessboard(ImageFrameSource& imageFrameSource) {
    const std::string name = "detect_chessboard: ";
    g_stemlibLogger.info(name + "Detecting chessboard with stream of " +
                         std::to_string(g_StreamWidth) + " x " + std::to_string(g_StreamHeight));
    std::vector<cv::Point2f> pointbuf;
    if (g_StreamWidth <= 0 || g_StreamHeight <= 0 || g_StreamWidth > kMaxStreamSide ||
        g_StreamHeight > kMaxStreamSide) {
        g_stemlibLogger.error(name + "No frame of " + std::to_string(g_StreamWidth) + " x " +
                              std::to_string(g_StreamHeight) + " pixels can be taken");
        return pointbuf;
    }
    const int channels = 3;
    // On the heap: an application thread may have a small stack.
    std::vector<uint8_t> pixels(static_cast<size_t>(g_StreamWidth) *
                                static_cast<size_t>(g_StreamHeight) * channels);
    if (!imageFrameSource.getFrame(
            Resolution(static_cast<unsigned>(g_StreamWidth), static_cast<unsigned>(g_StreamHeight)),
            0, pixels.data())) {
        g_stemlibLogger.error(name + "Distance_Controller::detect_chessboard Unable to getFrame");
        pointbuf.clear();
        return pointbuf;
    }
    const cv::Mat frame(g_StreamHeight, g_StreamWidth, CV_8UC3, pixels.data());
    cv::findChessboardCorners(frame, m_boardSize, pointbuf, 0);
    return pointbuf;
}

bool Distance_Controller::find_pattern(ImageFrameSource& imageFrameSource) {
    const std::string name = "find_pattern: ";
    const std::vector<cv::Point2f> pointbuf = detect_chessboard(imageFrameSource);
    if (pointbuf.size() != kBoardCorners) {
        g_stemlibLogger.error(name + "Could not find chessboard corners, size is " +
                              std::to_string(pointbuf.size()));
        return false;
    }
    // Top left, bottom left, bottom right, top right: corners 0, 45, 53 and 8 of the 9 by 6.
    const size_t corners[4] = {0, 45, 53, 8};
    for (int i = 0; i < 4; ++i) {
        g_DetectionParams.i_FallCalibration[2 * i] = static_cast<int32_t>(pointbuf[corners[i]].x);
        g_DetectionParams.i_FallCalibration[2 * i + 1] =
            static_cast<int32_t>(pointbuf[corners[i]].y);
    }
    // The four corners span 8 by 5 squares.
    g_DetectionParams.f_WRectM = m_squareSize * 8;
    g_DetectionParams.f_HRectM = m_squareSize * 5;
    saveDetectionParams(g_DetectionParams);

    const int32_t* q = g_DetectionParams.i_FallCalibration;
    const char* const labels[4] = {"Red Top Left (", "Yellow Bottom Left (", "Blue Bottom Right (",
                                   "Green Top Right ("};
    for (int i = 0; i < 4; ++i) {
        g_stemlibLogger.info(name + labels[i] + std::to_string(q[2 * i]) + "," +
                             std::to_string(q[2 * i + 1]) + ")");
    }
    const Quad source(static_cast<float>(q[0]), static_cast<float>(q[1]), static_cast<float>(q[2]),
                      static_cast<float>(q[3]), static_cast<float>(q[4]), static_cast<float>(q[5]),
                      static_cast<float>(q[6]), static_cast<float>(q[7]));
    g_CalibrationParams.b_ShowCalibrationMarkers = true;
    // True says that the board was found; m_calibrated says whether the calibration took.
    calibrate(source, g_DetectionParams.f_WRectM, g_DetectionParams.f_HRectM);
    return true;
}

bool Distance_Controller::log_intrinsic_matrix(ImageFrameSource& imageFrameSource) {
    const std::string name = "log_intrinsic_matrix: ";
    g_stemlibLogger.info(name + "log_intrinsic_matrix manual");
    const std::vector<cv::Point2f> corners = detect_chessboard(imageFrameSource);
    if (corners.empty()) {
        g_stemlibLogger.error(name + "Could not find chessboard corners, size is " +
                              std::to_string(corners.size()));
        return false;
    }
    g_stemlibLogger.info(name + "The chessboard corners size is " + std::to_string(corners.size()));

    std::vector<cv::Point3f> objectPoints;
    for (int i = 0; i < m_boardSize.height; ++i) {
        for (int j = 0; j < m_boardSize.width; ++j) {
            objectPoints.emplace_back(static_cast<float>(j) * m_squareSize,
                                      static_cast<float>(i) * m_squareSize, 0.0f);
        }
    }
    m_imagePointsForLogIntrinsic.push_back(corners);
    m_objectPointsForLogIntrinsic.push_back(objectPoints);

    const cv::Size imageSize(g_StreamWidth, g_StreamHeight);
    g_stemlibLogger.info(name + "imageSize.width " + std::to_string(imageSize.width));
    g_stemlibLogger.info(name + "imageSize.height " + std::to_string(imageSize.height));
    g_stemlibLogger.info(name + "m_objectPoints.size " +
                         std::to_string(m_objectPointsForLogIntrinsic.size()));
    g_stemlibLogger.info(name + "m_imagePoints.size " +
                         std::to_string(m_imagePointsForLogIntrinsic.size()));
    try {
        const cv::Mat dCameraMatrix = cv::initCameraMatrix2D(
            m_objectPointsForLogIntrinsic, m_imagePointsForLogIntrinsic, imageSize, 0.0);
        cv::Mat fCameraMatrix;
        dCameraMatrix.convertTo(fCameraMatrix, CV_32F);
        logMatrixf2("initCameraMatrix2D with", fCameraMatrix);

        const double focalLengthInMM = getFocalLength() / 1000.0;
        const float xFocalLengthInPixels = fCameraMatrix.at<float>(0, 0);
        const float yFocalLengthInPixels = fCameraMatrix.at<float>(1, 1);
        double sensorWidthInMM = 0.0;
        double sensorHeightInMM = 0.0;
        if (g_IsPortrait) {
            sensorHeightInMM = g_StreamWidth * focalLengthInMM / xFocalLengthInPixels;
            sensorWidthInMM = g_StreamHeight * focalLengthInMM / yFocalLengthInPixels;
        } else {
            sensorWidthInMM = g_StreamWidth * focalLengthInMM / xFocalLengthInPixels;
            sensorHeightInMM = g_StreamHeight * focalLengthInMM / yFocalLengthInPixels;
        }
        g_stemlibLogger.info(name + "sensorWidthInMM " + std::to_string(sensorWidthInMM));
        g_stemlibLogger.info(name + "sensorHeightInMM " + std::to_string(sensorHeightInMM));
    } catch (const std::exception& e) {
        g_stemlibLogger.error(name + "initCameraMatrix2D Exception: " + e.what());
    }
    return true;
}

} // namespace Ombrel
