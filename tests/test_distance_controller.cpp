// The chessboard distance controller on Debian's real chessboard photographs and on rendered
// floor scenes of known geometry, taken through image files and through the host camera, with the
// focal length from the host busctl.
#include "AxisVideoStreamSource.h"
#include "HostCameraScope.h"
#include "ImageBufferFrameSource.h"
#include "ImageFromImageFileSource.h"
#include "LogLines.h"
#include "SampleData.h"
#include "ScopedLogger.h"
#include "distance_controller.h"
#include "stemlib-host.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Ombrel;
using StemlibTest::HostCameraScope;
using StemlibTest::linesAt;
using StemlibTest::linesOf;
using StemlibTest::RecordingLogger;
using StemlibTest::sampleDataPath;
using StemlibTest::ScopedLogger;
using StemlibTest::ScratchDirectory;
using Feet = Distance_Controller::Feet;

// Sets the stream globals for one test and puts every global of the controller back afterwards.
class StreamGlobals {
public:
    StreamGlobals(int32_t width, int32_t height, bool portrait = false)
        : _width(g_StreamWidth), _height(g_StreamHeight), _portrait(g_IsPortrait),
          _detection(g_DetectionParams), _calibration(g_CalibrationParams) {
        g_StreamWidth = width;
        g_StreamHeight = height;
        g_IsPortrait = portrait;
    }
    ~StreamGlobals() {
        g_StreamWidth = _width;
        g_StreamHeight = _height;
        g_IsPortrait = _portrait;
        g_DetectionParams = _detection;
        g_CalibrationParams = _calibration;
    }
    StreamGlobals(const StreamGlobals&) = delete;
    StreamGlobals& operator=(const StreamGlobals&) = delete;

private:
    int32_t _width, _height;
    bool _portrait;
    DetectionParams _detection;
    CalibrationParams _calibration;
};

// What the library writes to standard output while the guard lives.
class CapturedStdout {
public:
    CapturedStdout() : _old(std::cout.rdbuf(_text.rdbuf())) {}
    ~CapturedStdout() { std::cout.rdbuf(_old); }
    CapturedStdout(const CapturedStdout&) = delete;
    CapturedStdout& operator=(const CapturedStdout&) = delete;
    std::string take() {
        const std::string text = _text.str();
        _text.str("");
        return text;
    }

private:
    std::ostringstream _text;
    std::streambuf* _old;
};

// Puts a folder first on PATH while the guard lives.
class PathPrefix {
public:
    explicit PathPrefix(const std::string& folder) : _old(std::getenv("PATH")) {
        setenv("PATH", (folder + ":" + _old).c_str(), 1);
    }
    ~PathPrefix() { setenv("PATH", _old.c_str(), 1); }
    PathPrefix(const PathPrefix&) = delete;
    PathPrefix& operator=(const PathPrefix&) = delete;

private:
    std::string _old;
};

// The corners that OpenCV finds, with the controller's flags, in a picture that holds the frame
// bytes exactly as the controller sees them (red first).
std::vector<cv::Point2f> cornersOf(const cv::Mat& rgb) {
    std::vector<cv::Point2f> corners;
    cv::findChessboardCorners(rgb, cv::Size(9, 6), corners, 0);
    return corners;
}

cv::Mat rgbPhotograph(const std::string& name) {
    cv::Mat rgb;
    cv::cvtColor(cv::imread(sampleDataPath(name)), rgb, cv::COLOR_BGR2RGB);
    return rgb;
}

Quad quadOf(const DetectionParams& params) {
    const int32_t* q = params.i_FallCalibration;
    return Quad(static_cast<float>(q[0]), static_cast<float>(q[1]), static_cast<float>(q[2]),
                static_cast<float>(q[3]), static_cast<float>(q[4]), static_cast<float>(q[5]),
                static_cast<float>(q[6]), static_cast<float>(q[7]));
}

// The controller's image-to-floor map, rebuilt from the published quad with the same float
// arithmetic.
Matrix3x3 floorMapOf(const DetectionParams& params) {
    const float w = params.f_WRectM, h = params.f_HRectM;
    return CreatePerspectiveTransformMatrix(quadOf(params), Quad(0, 0, 0, h, w, h, w, 0));
}

float floorDistance(const Matrix3x3& map, std::pair<int32_t, int32_t> a,
                    std::pair<int32_t, int32_t> b) {
    const Vector3 pa =
        ApplyTransform(map, static_cast<float>(a.first), static_cast<float>(a.second));
    const Vector3 pb =
        ApplyTransform(map, static_cast<float>(b.first), static_cast<float>(b.second));
    const float dx = pb(0) - pa(0), dy = pb(1) - pa(1);
    return std::sqrt(dx * dx + dy * dy);
}

// Renders a 9 by 6 chessboard (10 by 7 squares in a white margin of one square) onto a grey
// floor, the board's inner-corner plane mapped into the picture by boardToImage (board
// coordinates in squares, inner corner 0 at the origin, 8 at (8, 0), 45 at (0, 5)). Drawn at
// twice the size (pixel centres kept in place) and reduced, so that edges are smooth as a camera
// sees them.
cv::Mat renderBoard(cv::Size size, const cv::Matx33d& boardToImage) {
    const int S = 48;
    cv::Mat texture(9 * S, 12 * S, CV_8UC3, cv::Scalar(255, 255, 255));
    for (int a = 0; a < 10; ++a) {
        for (int b = 0; b < 7; ++b) {
            if ((a + b) % 2 == 0) {
                texture(cv::Rect((a + 1) * S, (b + 1) * S, S, S)).setTo(cv::Scalar(0, 0, 0));
            }
        }
    }
    const cv::Matx33d textureToBoard(1.0 / S, 0, -2, 0, 1.0 / S, -2, 0, 0, 1);
    const cv::Matx33d twice(2, 0, 0.5, 0, 2, 0.5, 0, 0, 1);
    cv::Mat big;
    cv::warpPerspective(texture, big, cv::Mat(twice * boardToImage * textureToBoard),
                        cv::Size(size.width * 2, size.height * 2), cv::INTER_LINEAR,
                        cv::BORDER_CONSTANT, cv::Scalar(110, 110, 110));
    cv::Mat picture;
    cv::resize(big, picture, size, 0, 0, cv::INTER_AREA);
    return picture;
}

// The board map that sends inner corners 0, 8, 45 and 53 to the given picture points.
cv::Matx33d boardMap(cv::Point2f c0, cv::Point2f c8, cv::Point2f c45, cv::Point2f c53) {
    const std::vector<cv::Point2f> board = {{0, 0}, {8, 0}, {0, 5}, {8, 5}};
    const std::vector<cv::Point2f> picture = {c0, c8, c45, c53};
    return cv::Matx33d(cv::getPerspectiveTransform(board, picture));
}

// A camera at (0, 0, height) over the floor z = 0, looking along +y and tilted down.
struct FloorCamera {
    cv::Matx33d R;
    cv::Vec3d T;
    double fx, fy, cx, cy;

    FloorCamera(double height, double tiltDeg, double fx_, double fy_, double cx_, double cy_)
        : fx(fx_), fy(fy_), cx(cx_), cy(cy_) {
        const double t = tiltDeg * CV_PI / 180.0, c = std::cos(t), s = std::sin(t);
        R = cv::Matx33d(1, 0, 0, 0, -s, -c, 0, c, -s); // rows: right, down, forward
        T = -(R * cv::Vec3d(0, 0, height));
    }
    cv::Point2d project(const cv::Vec3d& world) const {
        const cv::Vec3d p = R * world + T;
        return {fx * p[0] / p[2] + cx, fy * p[1] / p[2] + cy};
    }
    std::pair<int32_t, int32_t> foot(const cv::Vec3d& world) const {
        const cv::Point2d p = project(world);
        return {static_cast<int32_t>(std::lround(p.x)), static_cast<int32_t>(std::lround(p.y))};
    }
};

// The distances that set_locations wrote, in pair order.
std::vector<double> printedDistances(const std::string& text) {
    std::vector<double> distances;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        distances.push_back(std::stod(line.substr(line.rfind(" = ") + 3)));
    }
    return distances;
}

TEST(DistanceController, CalibratesOnRealPhotographsWithTheDescribedSensorAndLens) {
    struct Case {
        const char* photograph;
        std::string description; // "AXIS Host Camera" with a 4 mm lens when empty
        bool portrait;
        std::string name;
        float width, height; // the sensor's row, in millimetres
        int microns;
    };
    const Case cases[] = {
        {"left01.jpg", "", false, "AXIS Host Camera", 6.2f, 3.5f, 4000}, // not in the table
        {"left04.jpg", "root.Brand.ProdShortName = AXIS P3265-LV\noptics.focal_length_um = 2800\n",
         false, "AXIS P3265-LV", 6.34f, 4.51f, 2800},
        {"left12.jpg", "root.Brand.ProdShortName = AXIS Q1728\noptics.focal_length_um = 9000\n",
         true, "AXIS Q1728", 10.67f, 8.0f, 9000},
        {"left02.jpg",
         "root.Brand.ProdShortName = AXIS Q1615 Mk III\noptics.focal_length_um = 3900\n", false,
         "AXIS Q1615 Mk III", 6.34f, 3.53f, 3900},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.photograph);
        const auto camera = c.description.empty()
                                ? std::make_unique<HostCameraScope>()
                                : std::make_unique<HostCameraScope>(c.description);
        const StreamGlobals stream(640, 480, c.portrait);
        RecordingLogger logger;
        const ScopedLogger scope(logger);
        g_CalibrationParams.b_ShowCalibrationMarkers = false;
        ImageFromImageFileSource photograph(sampleDataPath(c.photograph));
        Distance_Controller controller;
        ASSERT_TRUE(controller.find_pattern(photograph));
        EXPECT_TRUE(controller.isCalibrated());
        EXPECT_TRUE(g_CalibrationParams.b_ShowCalibrationMarkers);
        EXPECT_TRUE(linesAt(logger, "error").empty());

        // Corners 0, 45, 53 and 8, truncated, of the 54 that OpenCV finds in the same bytes.
        const std::vector<cv::Point2f> corners = cornersOf(rgbPhotograph(c.photograph));
        ASSERT_EQ(corners.size(), 54u);
        const int order[4] = {0, 45, 53, 8};
        const int32_t* q = g_DetectionParams.i_FallCalibration;
        std::vector<std::string> found;
        const char* const labels[4] = {"Red Top Left (", "Yellow Bottom Left (",
                                       "Blue Bottom Right (", "Green Top Right ("};
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(q[2 * i], static_cast<int32_t>(corners[order[i]].x));
            EXPECT_EQ(q[2 * i + 1], static_cast<int32_t>(corners[order[i]].y));
            found.push_back("find_pattern: " + std::string(labels[i]) + std::to_string(q[2 * i]) +
                            "," + std::to_string(q[2 * i + 1]) + ")");
        }
        EXPECT_EQ(g_DetectionParams.f_WRectM, 0.252f * 8);
        EXPECT_EQ(g_DetectionParams.f_HRectM, 0.252f * 5);
        EXPECT_EQ(linesOf(logger, {"find_pattern"}), found);
        EXPECT_EQ(linesOf(logger, {"calibrate"}),
                  (std::vector<std::string>{
                      "calibrate: Source Quad: " + quadOf(g_DetectionParams).toString(),
                      "calibrate: Target Quad: [( 0,0 ),( 0,1.26 ),( 2.016,1.26 ),( 2.016,0 )]"}));

        // The camera matrix: the sensor's row (in portrait its height divides the width), the
        // lens, the picture's centre.
        const double mm = c.microns / 1000.0;
        const double fx = 640 * mm / (c.portrait ? c.height : c.width);
        const double fy = 480 * mm / (c.portrait ? c.width : c.height);
        const std::string n = "calculate_camera_matrix: ";
        EXPECT_EQ(
            linesOf(logger, {"calculate_camera_matrix"}),
            (std::vector<std::string>{n + "calculate_camera_matrix: sensorDimensions found for " +
                                          c.name + ", width=" + std::to_string(c.width) +
                                          ", height=" + std::to_string(c.height),
                                      n + "focalLengthInMicrons " + std::to_string(c.microns),
                                      n + "Manual camera matrix calculation",
                                      n + "FocalLengthInMicrons : " + std::to_string(c.microns),
                                      n + "FocalLengthInMM      : " + std::to_string(mm),
                                      n + "xFocalLengthInPixels  : " + std::to_string(fx),
                                      n + "yFocalLengthInPixels  : " + std::to_string(fy)}));
        const std::vector<std::string> info = linesAt(logger, "info");
        const auto at = std::find(info.begin(), info.end(),
                                  "writeCVMatFloatToLog: [Camera Matrix "
                                  "calculate_world_to_screen_transformations] CV Mat. Size=3 rows "
                                  "x 3 cols");
        ASSERT_NE(at, info.end());
        std::ostringstream rows;
        rows << std::fixed << std::setprecision(4) << static_cast<float>(fx)
             << " 0.0000 320.0000|0.0000 " << static_cast<float>(fy) << " 240.0000";
        EXPECT_EQ((at + 1)->substr(27) + "|" + (at + 2)->substr(27), rows.str());

        // Every one of the 54 corners lands on its square of the floor grid. (The pose rests on
        // the described lens, not the one that took the photograph: it is checked on rendered
        // scenes.)
        for (int i = 0; i < 54; ++i) {
            const cv::Point3f floor = controller.screen_point_to_world_floor(corners[i]);
            EXPECT_NEAR(floor.x, (i % 9) * 0.252f, 0.04f) << i;
            EXPECT_NEAR(floor.y, (i / 9) * 0.252f, 0.04f) << i;
            EXPECT_EQ(floor.z, 1.0f);
        }
    }
}

TEST(DistanceController, FindsTheBoardThroughTheHostCamera) {
    const std::string description = "root.Brand.ProdShortName = AXIS P3255-LVE\n"
                                    "root.ImageSource.I0.Sensor.AspectRatio = 4:3\n"
                                    "root.Image.I0.Appearance.Rotation = 0\n"
                                    "channels = 1\nchannel.1.resolutions = 640x480\n"
                                    "optics.focal_length_um = 2800\n";
    HostCameraScope camera(description);
    std::filesystem::create_directory(camera.folder() + "/frames");
    for (const char* name : {"left02.jpg", "left13.jpg"}) {
        std::filesystem::copy_file(sampleDataPath(name), camera.folder() + "/frames/" + name);
    }
    camera.reload(description + "video.input = images:frames\n");
    const StreamGlobals stream(640, 480);
    RecordingLogger logger;
    const ScopedLogger scope(logger);

    AxisVideoStreamSource source(Resolution(640, 480));
    Distance_Controller controller;
    // One frame a call: the folder's pictures in name order, each through the video service's
    // NV12 frames, so the corners move by a fraction of a pixel at most.
    for (const char* name : {"left02.jpg", "left13.jpg"}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(controller.find_pattern(source));
        EXPECT_TRUE(controller.isCalibrated());
        const std::vector<cv::Point2f> corners = cornersOf(rgbPhotograph(name));
        ASSERT_EQ(corners.size(), 54u);
        const int order[4] = {0, 45, 53, 8};
        for (int i = 0; i < 4; ++i) {
            EXPECT_NEAR(g_DetectionParams.i_FallCalibration[2 * i], corners[order[i]].x, 1.5);
            EXPECT_NEAR(g_DetectionParams.i_FallCalibration[2 * i + 1], corners[order[i]].y, 1.5);
        }
    }
    EXPECT_TRUE(StemlibTest::hasLine(
        logger, "info",
        "calculate_camera_matrix: calculate_camera_matrix: sensorDimensions found for AXIS "
        "P3255-LVE, width=6.340000, height=3.530000"));
    EXPECT_TRUE(
        StemlibTest::hasLine(logger, "info", "calculate_camera_matrix: focalLengthInMicrons 2800"));
    EXPECT_EQ(linesAt(logger, "error"), std::vector<std::string>{});

    // A frame that does not come: no corners, and nothing changes.
    const DetectionParams before = g_DetectionParams;
    stemlib_host_set_failure("vdo_stream_get_buffer", "sensor offline");
    logger.lines.clear();
    EXPECT_FALSE(controller.find_pattern(source));
    stemlib_host_set_failure("vdo_stream_get_buffer", nullptr);
    const std::vector<std::string> errors = linesAt(logger, "error");
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ(errors[errors.size() - 2],
              "detect_chessboard: Distance_Controller::detect_chessboard Unable to getFrame");
    EXPECT_EQ(errors.back(), "find_pattern: Could not find chessboard corners, size is 0");
    EXPECT_EQ(std::memcmp(&before, &g_DetectionParams, sizeof before), 0);
    EXPECT_TRUE(controller.isCalibrated());
}

TEST(DistanceController, RefusesPicturesWithoutABoardAndStreamsWithoutPixels) {
    const HostCameraScope camera;
    const StreamGlobals stream(640, 480);
    RecordingLogger logger;
    const ScopedLogger scope(logger);
    g_CalibrationParams.b_ShowCalibrationMarkers = false;
    const DetectionParams before = g_DetectionParams;
    Distance_Controller controller;

    ImageFromImageFileSource people(sampleDataPath("messi5.jpg"));
    EXPECT_FALSE(controller.find_pattern(people));
    EXPECT_EQ(
        linesAt(logger, "error"),
        (std::vector<std::string>{"find_pattern: Could not find chessboard corners, size is 0"}));
    EXPECT_FALSE(controller.isCalibrated());
    EXPECT_FALSE(g_CalibrationParams.b_ShowCalibrationMarkers);
    EXPECT_EQ(std::memcmp(&before, &g_DetectionParams, sizeof before), 0);

    // Sizes of no pixels, or of absurdly many, are refused before any buffer is made.
    ImageFromImageFileSource board(sampleDataPath("left01.jpg"));
    for (const auto& size :
         {std::pair<int32_t, int32_t>{0, 480}, {640, 0}, {-640, -480}, {1 << 30, 1 << 30}}) {
        g_StreamWidth = size.first;
        g_StreamHeight = size.second;
        logger.lines.clear();
        EXPECT_FALSE(controller.find_pattern(board));
        const std::string dims = std::to_string(size.first) + " x " + std::to_string(size.second);
        EXPECT_EQ(linesAt(logger, "error"),
                  (std::vector<std::string>{
                      "detect_chessboard: No frame of " + dims + " pixels can be taken",
                      "find_pattern: Could not find chessboard corners, size is 0"}));
        EXPECT_EQ(linesAt(logger, "info"),
                  (std::vector<std::string>{
                      "detect_chessboard: Detecting chessboard with stream of " + dims}));
    }

    // Before any calibration: no height, and no pose to project with.
    float height = 7.0f;
    EXPECT_FALSE(controller.getPhysicalHeight(cv::Point2f(1, 1), -100.0f, height));
    EXPECT_EQ(height, 7.0f);
    logger.lines.clear();
    const cv::Point2f nowhere = controller.world_to_screen_point(cv::Point3f(0, 0, 0));
    EXPECT_TRUE(std::isnan(nowhere.x) && std::isnan(nowhere.y));
    EXPECT_EQ(
        linesAt(logger, "error"),
        (std::vector<std::string>{"world_to_screen_point: No camera pose: calibrate first."}));
}

TEST(DistanceController, FocalLengthFailuresLeaveCalibrateAsExceptions) {
    const StreamGlobals stream(640, 480);
    RecordingLogger logger;
    const ScopedLogger scope(logger);
    ImageFromImageFileSource board(sampleDataPath("left01.jpg"));
    Distance_Controller controller;
    {
        const HostCameraScope camera;
        ASSERT_TRUE(controller.find_pattern(board));
        ASSERT_TRUE(controller.isCalibrated());
    }
    // A camera without an optics service, a failing bus, a number beyond an int.
    const std::string name = "root.Brand.ProdShortName = AXIS Q1715\n";
    for (const std::string& description :
         {name, name + "optics.focal_length_um = 4000\nfail.busctl = Connection timed out\n",
          name + "optics.focal_length_um = 4294967295\n"}) {
        SCOPED_TRACE(description);
        const HostCameraScope camera(description);
        logger.lines.clear();
        EXPECT_THROW(controller.find_pattern(board), std::logic_error);
        const std::vector<std::string> errors = linesAt(logger, "error");
        ASSERT_EQ(errors.size(), 1u);
        EXPECT_EQ(errors[0].rfind("getFocalLength: No focal length in the answer of busctl: \"", 0),
                  0u);
    }
    {
        // A tool that prints garbage.
        const HostCameraScope camera;
        const ScratchDirectory bin;
        StemlibTest::writeWholeFile(bin.file("busctl"), "#!/bin/sh\necho 'UINT32 none;'\n");
        ::chmod(bin.file("busctl").c_str(), 0755);
        const PathPrefix path(bin.path().string());
        logger.lines.clear();
        EXPECT_THROW(controller.find_pattern(board), std::invalid_argument);
        EXPECT_EQ(linesAt(logger, "error"),
                  (std::vector<std::string>{"getFocalLength: No focal length in the answer of "
                                            "busctl: \"UINT32 none;\n\""}));
    }
    // A lens of 0 microns is no lens: calibrate fails at the camera matrix and the earlier
    // calibration stays in force.
    const HostCameraScope camera(name + "optics.focal_length_um = 0\n");
    logger.lines.clear();
    EXPECT_TRUE(controller.find_pattern(board));
    EXPECT_EQ(linesAt(logger, "error"),
              (std::vector<std::string>{
                  "calculate_camera_matrix: A focal length of 0 microns is not usable.",
                  "calibrate: Distance_Controller::calibrate failed to calculate_camera_matrix."}));
    EXPECT_TRUE(controller.isCalibrated());

    EXPECT_THROW(exec(nullptr), std::runtime_error);
    EXPECT_EQ(exec("printf 'a%.0s' $(seq 300); printf '\\nlast'"),
              std::string(300, 'a') + "\nlast");
}

TEST(DistanceController, RefusesADegenerateQuadButReportsTheBoardFound) {
    // A board whose corners 0, 45 and (x of 53, y of 8) lie on one line: a proper board in the
    // picture, seen at a grazing angle along its long side, refused by the check, which pairs x2
    // with y3. The corners are drawn where OpenCV finds them inside the chosen pixels.
    const cv::Point2f c0(300.4f, 80.95f), c8(393.4f, 115.95f), c45(196.4f, 360.95f),
        c53(287.4f, 396.95f);
    const cv::Mat picture = renderBoard(cv::Size(640, 480), boardMap(c0, c8, c45, c53));
    cv::Mat bgr;
    cv::cvtColor(picture, bgr, cv::COLOR_RGB2BGR);
    ImageBufferFrameSource source(bgr);
    const HostCameraScope camera;
    const StreamGlobals stream(640, 480);
    RecordingLogger logger;
    const ScopedLogger scope(logger);

    Distance_Controller controller;
    ASSERT_TRUE(controller.find_pattern(source));
    const int32_t* q = g_DetectionParams.i_FallCalibration;
    EXPECT_EQ(std::vector<int32_t>(q, q + 8),
              (std::vector<int32_t>{300, 80, 196, 360, 287, 396, 393, 115}));
    EXPECT_FALSE(controller.isCalibrated());
    EXPECT_EQ(linesAt(logger, "error"), (std::vector<std::string>{"calibrate: Degenerate Matrix"}));
    EXPECT_TRUE(g_CalibrationParams.b_ShowCalibrationMarkers);
}

TEST(DistanceController, SetLocationsPairsEveryoneOnceAndMarksBreachesAtTheLimit) {
    const HostCameraScope camera;
    const StreamGlobals stream(640, 480);
    RecordingLogger logger;
    const ScopedLogger scope(logger);
    CapturedStdout out;

    // Before any calibration the map is the zero matrix: distances are not numbers and no pair
    // is a breach.
    Distance_Controller controller;
    controller.set_locations(Feet{{10, 20}, {30, 40}});
    const std::string line = out.take();
    EXPECT_EQ(line.rfind("0: (10,20) | 1: (30,40) = ", 0), 0u);
    EXPECT_EQ(line.substr(line.size() - 4), "nan\n");
    EXPECT_TRUE(controller.get_breaches().empty());

    // A board seen head-on, its quad (120,100) (120,300) (440,300) (440,100): 0.0063 floor units
    // a pixel.
    cv::Mat bgr;
    cv::cvtColor(renderBoard(cv::Size(640, 480), boardMap({120.5f, 100.5f}, {440.5f, 100.5f},
                                                          {120.5f, 300.5f}, {440.5f, 300.5f})),
                 bgr, cv::COLOR_RGB2BGR);
    ImageBufferFrameSource board(bgr);
    ASSERT_TRUE(controller.find_pattern(board));
    const int32_t* q = g_DetectionParams.i_FallCalibration;
    ASSERT_EQ(std::vector<int32_t>(q, q + 8),
              (std::vector<int32_t>{120, 100, 120, 300, 440, 300, 440, 100}));
    const Matrix3x3 map = floorMapOf(g_DetectionParams);

    // No feet, or one: no pairs.
    controller.set_locations(Feet{});
    controller.set_locations(Feet{{5, 5}});
    EXPECT_EQ(out.take(), "");
    EXPECT_TRUE(controller.get_breaches().empty());

    // The limit of 200 is some 31746 pixels away. A foot exactly 200 from another is a breach,
    // one a float step beyond is not.
    const std::pair<int32_t, int32_t> a{120, 100};
    std::pair<int32_t, int32_t> atLimit{0, 0}, beyond{0, 0};
    float beyondDistance = std::numeric_limits<float>::infinity();
    bool found = false;
    for (int32_t y = 100; y < 2100 && !found; ++y) {
        int32_t below = 120, above = 200000; // the distance grows along the row
        while (above - below > 1) {
            const int32_t middle = below + (above - below) / 2;
            (floorDistance(map, a, {middle, y}) < 200.0f ? below : above) = middle;
        }
        for (int32_t x = below - 2; x <= above + 2; ++x) {
            const float d = floorDistance(map, a, {x, y});
            found = found || d == 200.0f;
            atLimit = d == 200.0f ? std::make_pair(x, y) : atLimit;
            if (d > 200.0f && d < beyondDistance) {
                beyondDistance = d;
                beyond = {x, y};
            }
        }
    }
    ASSERT_TRUE(found);
    ASSERT_LT(beyondDistance, 200.01f); // a pixel further
    controller.set_locations(Feet{a, atLimit});
    EXPECT_EQ(controller.get_breaches(), (Feet{a, atLimit}));
    controller.set_locations(Feet{a, beyond});
    EXPECT_TRUE(controller.get_breaches().empty());
    out.take();

    // Pairs in order (0,1), (0,2), (0,3), (1,2), (1,3), (2,3), each written with its distance;
    // the breachers in the order first found, each once: 0 and 3 are near each other far to
    // the right, 1 and 2 are on the board.
    const Feet feet = {{40120, 100}, {120, 100}, {440, 300}, {35120, 100}};
    const auto distance = [&](size_t i, size_t j) { return floorDistance(map, feet[i], feet[j]); };
    ASSERT_GT(distance(0, 1), 200.0f);
    ASSERT_GT(distance(0, 2), 200.0f);
    ASSERT_GT(distance(1, 3), 200.0f);
    ASSERT_GT(distance(2, 3), 200.0f);
    controller.set_locations(feet);
    std::ostringstream expected;
    const size_t pairs[6][2] = {{0, 1}, {0, 2}, {0, 3}, {1, 2}, {1, 3}, {2, 3}};
    for (const auto& p : pairs) {
        expected << p[0] << ": (" << feet[p[0]].first << "," << feet[p[0]].second << ") | " << p[1]
                 << ": (" << feet[p[1]].first << "," << feet[p[1]].second
                 << ") = " << distance(p[0], p[1]) << "\n";
    }
    EXPECT_EQ(out.take(), expected.str());
    EXPECT_EQ(controller.get_breaches(), (Feet{feet[0], feet[3], feet[1], feet[2]}));

    // One more person given on the floor, near 1 and 2: the new pairs are written, and the
    // breaches come out as for the whole list.
    const Vector3 floorPoint(0.5f, 0.5f, 1.0f);
    const Vector3 pixel = ApplyTransform(map.inverse(), 0.5f, 0.5f);
    const std::pair<int32_t, int32_t> added{static_cast<int32_t>(pixel(0)),
                                            static_cast<int32_t>(pixel(1))};
    controller.set_locations(floorPoint);
    const std::string lines = out.take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 4);
    EXPECT_NE(lines.find("3: (35120,100) | 4: (" + std::to_string(added.first) + "," +
                         std::to_string(added.second) + ") = "),
              std::string::npos);
    EXPECT_EQ(controller.get_breaches(), (Feet{feet[0], feet[3], feet[1], feet[2], added}));

    // A point without an image position is refused.
    logger.lines.clear();
    controller.set_locations(Vector3(std::numeric_limits<float>::quiet_NaN(), 1.0f, 1.0f));
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(
        linesAt(logger, "error"),
        (std::vector<std::string>{"set_locations: No image position for the floor point (nan,1)"}));
    EXPECT_EQ(controller.get_breaches().size(), 5u);
}

TEST(DistanceController, MeasuresARenderedFloorSceneThroughTheHostCamera) {
    // A camera 3 m up, tilted 40 degrees down, with the lens and sensor of its description; a
    // board of 0.252 m squares lies on the floor 4 m ahead, turned by 15 degrees.
    const int W = 1920, H = 1080;
    const double fx = W * 4.0 / static_cast<double>(8.10f),
                 fy = H * 4.0 / static_cast<double>(4.51f);
    const FloorCamera truth(3.0, 40.0, fx, fy, W / 2.0, H / 2.0);
    const double turn = 15.0 * CV_PI / 180.0;
    const cv::Vec3d e1(std::cos(turn), std::sin(turn), 0), e2(std::sin(turn), -std::cos(turn), 0);
    const cv::Vec3d origin(-0.8, 4.6, 0);
    const auto onBoard = [&](double i, double j) { return origin + 0.252 * (i * e1 + j * e2); };
    const auto seen = [&](double i, double j) {
        const cv::Point2d p = truth.project(onBoard(i, j));
        return cv::Point2f(static_cast<float>(p.x), static_cast<float>(p.y));
    };
    const cv::Mat picture =
        renderBoard(cv::Size(W, H), boardMap(seen(0, 0), seen(8, 0), seen(0, 5), seen(8, 5)));

    const std::string description = "root.Brand.ProdShortName = AXIS Q1656\nchannels = 1\n"
                                    "channel.1.resolutions = 1920x1080\n"
                                    "optics.focal_length_um = 4000\n";
    HostCameraScope camera(description);
    std::filesystem::create_directory(camera.folder() + "/frames");
    cv::Mat bgr;
    cv::cvtColor(picture, bgr, cv::COLOR_RGB2BGR);
    ASSERT_TRUE(cv::imwrite(camera.folder() + "/frames/floor.png", bgr));
    camera.reload(description + "video.input = images:frames\n");
    const StreamGlobals stream(W, H);
    RecordingLogger logger;
    const ScopedLogger scope(logger);
    CapturedStdout out;

    AxisVideoStreamSource source(Resolution(W, H));
    Distance_Controller controller;
    ASSERT_TRUE(controller.find_pattern(source));
    ASSERT_TRUE(controller.isCalibrated());

    // The controller's floor frame: inner corner 0 at the origin, x toward corner 8, y toward
    // corner 45. OpenCV may number the board from either end.
    const cv::Point2f first(static_cast<float>(g_DetectionParams.i_FallCalibration[0]),
                            static_cast<float>(g_DetectionParams.i_FallCalibration[1]));
    const bool reversed = cv::norm(first - seen(8, 5)) < cv::norm(first - seen(0, 0));
    const cv::Vec3d frameOrigin = reversed ? onBoard(8, 5) : onBoard(0, 0);
    const cv::Vec3d ex = reversed ? -e1 : e1, ey = reversed ? -e2 : e2;
    const auto toFrame = [&](const cv::Vec3d& world) {
        return cv::Point2f(static_cast<float>((world - frameOrigin).dot(ex)),
                           static_cast<float>((world - frameOrigin).dot(ey)));
    };

    // Feet 1 to 5 board widths apart, across and along the view: distances within 2 %, and all
    // are breaches of the limit of 200.
    const double width = 8 * 0.252;
    for (const auto& pair : {std::pair<cv::Vec3d, cv::Vec3d>{{-4, 6, 0}, {1, 0, 0}},
                             {{0.5, 2, 0}, {0, 1, 0}},
                             {{-3, 2.5, 0}, {0.6, 0.8, 0}}}) {
        Feet feet = {truth.foot(pair.first)};
        std::vector<double> truthDistances;
        for (int k = 1; k <= 5; ++k) {
            const cv::Vec3d other = pair.first + k * width * pair.second;
            feet.push_back(truth.foot(other));
            truthDistances.push_back(k * width);
        }
        controller.set_locations(feet);
        const std::vector<double> printed = printedDistances(out.take());
        ASSERT_EQ(printed.size(), 15u);
        for (int k = 0; k < 5; ++k) {
            EXPECT_NEAR(printed[static_cast<size_t>(k)], truthDistances[static_cast<size_t>(k)],
                        0.02 * truthDistances[static_cast<size_t>(k)])
                << "pair " << k;
        }
        EXPECT_EQ(controller.get_breaches(), feet);
    }

    // The floor map agrees with the truth, and the pose projects the floor where the truth does.
    for (const cv::Vec3d& spot : {cv::Vec3d(-2, 3, 0), cv::Vec3d(2.5, 7, 0), cv::Vec3d(0, 10, 0)}) {
        const cv::Point2d pixel = truth.project(spot);
        const cv::Point3f floor = controller.screen_point_to_world_floor(
            cv::Point2f(static_cast<float>(pixel.x), static_cast<float>(pixel.y)));
        const cv::Point2f expected = toFrame(spot);
        EXPECT_NEAR(floor.x, expected.x, 0.02 * cv::norm(spot));
        EXPECT_NEAR(floor.y, expected.y, 0.02 * cv::norm(spot));
        const cv::Point2f back =
            controller.world_to_screen_point(cv::Point3f(expected.x, expected.y, 0));
        EXPECT_NEAR(back.x, pixel.x, 4.0);
        EXPECT_NEAR(back.y, pixel.y, 4.0);
    }

    // A stake 1.75 m high, 6 m ahead: its screen height over that of a one-unit stake at its
    // foot, which is what the truth predicts, and near its height.
    const cv::Vec3d base(1.0, 6.0, 0), up(0, 0, 1);
    const double screenHeight = truth.project(base + 1.75 * up).y - truth.project(base).y;
    const double oneUnit = truth.project(base + up).y - truth.project(base).y;
    float physical = 0.0f;
    ASSERT_TRUE(
        controller.getPhysicalHeight(toFrame(base), static_cast<float>(screenHeight), physical));
    EXPECT_NEAR(physical, screenHeight / oneUnit, 0.02 * screenHeight / oneUnit);
    EXPECT_NEAR(physical, 1.75, 0.25);
    // Upside down, the sign follows.
    ASSERT_TRUE(
        controller.getPhysicalHeight(toFrame(base), static_cast<float>(-screenHeight), physical));
    EXPECT_LT(physical, 0.0f);
}

TEST(DistanceController, WorksTheSensorSizeBackwardsFromTheViewsSoFar) {
    const HostCameraScope camera;
    const StreamGlobals stream(640, 480);
    RecordingLogger logger;
    const ScopedLogger scope(logger);
    Distance_Controller controller;
    const std::string n = "log_intrinsic_matrix: ";

    ImageFromImageFileSource first(sampleDataPath("left01.jpg"));
    ImageFromImageFileSource second(sampleDataPath("left02.jpg"));
    ASSERT_TRUE(controller.log_intrinsic_matrix(first));
    logger.lines.clear();
    ASSERT_TRUE(controller.log_intrinsic_matrix(second));
    const std::vector<std::string> lines = linesOf(logger, {"log_intrinsic_matrix", "logMatrixf2"});
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(lines[0], n + "log_intrinsic_matrix manual");
    EXPECT_EQ(lines[1], n + "The chessboard corners size is 54");
    EXPECT_EQ(lines[2], n + "imageSize.width 640");
    EXPECT_EQ(lines[3], n + "imageSize.height 480");
    EXPECT_EQ(lines[4], n + "m_objectPoints.size 2");
    EXPECT_EQ(lines[5], n + "m_imagePoints.size 2");
    EXPECT_EQ(lines[6], "logMatrixf2: [initCameraMatrix2D with] logMatrixf Size=3 rows x 3 cols");

    // The estimate from both views, and the sensor worked out from it and the 4 mm lens.
    const std::string row = "logMatrixf2: [initCameraMatrix2D with] [initCameraMatrix2D with] Row ";
    for (int r = 0; r < 3; ++r) {
        EXPECT_EQ(lines[7 + static_cast<size_t>(r)].rfind(row + std::to_string(r) + ": ", 0), 0u);
    }
    const double fx = std::stod(lines[7].substr(row.size() + 3));
    const double fy = std::stod(lines[8].substr(lines[8].find(' ', row.size() + 3) + 1));
    EXPECT_NEAR(fx, 560, 60); // roughly the lens that took the photographs
    EXPECT_EQ(lines[10],
              n + "sensorWidthInMM " + std::to_string(640 * 4.0 / static_cast<float>(fx)));
    EXPECT_EQ(lines[11],
              n + "sensorHeightInMM " + std::to_string(480 * 4.0 / static_cast<float>(fy)));
    EXPECT_FALSE(controller.isCalibrated());

    // No board at all: false. A failing lens query inside the estimate: logged, and true.
    ImageFromImageFileSource people(sampleDataPath("messi5.jpg"));
    logger.lines.clear();
    EXPECT_FALSE(controller.log_intrinsic_matrix(people));
    EXPECT_EQ(linesAt(logger, "error"),
              (std::vector<std::string>{n + "Could not find chessboard corners, size is 0"}));
    const HostCameraScope noLens("root.Brand.ProdShortName = AXIS Q1715\n");
    logger.lines.clear();
    EXPECT_TRUE(controller.log_intrinsic_matrix(first));
    const std::vector<std::string> errors = linesAt(logger, "error");
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[1], n + "initCameraMatrix2D Exception: " +
                             "getFocalLength: No focal length in the answer of busctl: \"\"");
}

} // namespace
