// Camera facts through the host parameter and video services: followers, parameters, processor,
// rotation, resolutions and the compatible-resolution rules, with every failure row.
#include "CameraManager.h"
#include "HostCameraScope.h"
#include "LogLines.h"
#include "ScopedLogger.h"
#include "stemlib-host.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Ombrel;
using StemlibTest::HostCameraScope;
using StemlibTest::linesAt;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;
using Lines = std::vector<std::string>;

const std::string kCamera = R"(
root.Brand.ProdFullName = AXIS Q1656 Box Camera
root.Brand.ProdShortName = AXIS Q1656
root.Properties.System.SerialNumber = B8A44F123456
root.Properties.Firmware.Version = 11.9.60
root.Properties.System.Architecture = aarch64
root.Properties.System.Soc = Axis Artpec-7
root.ImageSource.I0.Sensor.AspectRatio = 4:3
root.Image.I0.Appearance.Rotation = 180
channels = 1, 2
channel.1.resolutions = 1920x1080, 1280x720, 800x600, 640x480
channel.2.resolutions = 1280x720, 1024x768, 1280x960
)";

// The lines logged at level, in order; the log is emptied.
Lines take(RecordingLogger& logger, const std::string& level) {
    Lines lines = linesAt(logger, level);
    logger.lines.clear();
    return lines;
}

std::string describe(const FollowerInfo& f) {
    return std::to_string(f.index) + std::to_string(f.active) + f.cameraName + f.ipAddress +
           f.userName + f.password + std::to_string(f.status) + ";";
}

// Every follower, in the order of iteration.
std::string followers(const CameraManager& manager) {
    std::string text;
    for (const FollowerInfo& f : manager) {
        text += describe(f);
    }
    return text;
}

TEST(CameraManager, KeepsFollowersByIndex) {
    CameraManager manager;
    EXPECT_TRUE(manager.getSupportedResolutions().empty());
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Widescreen), Resolution(0, 0));
    EXPECT_TRUE(manager.setFollowerInfo(5, true, "Door", "10.0.0.5", "root", "secret"));
    EXPECT_TRUE(manager.setFollowerInfo(2, false, "Hall", "10.0.0.2", "viewer", "pw"));
    const std::string both = "20Hall10.0.0.2viewerpw0;51Door10.0.0.5rootsecret0;";
    EXPECT_EQ(followers(manager), both);
    EXPECT_EQ(describe(manager.getFollowerInfo(5)), "51Door10.0.0.5rootsecret0;");
    // An unknown index gives a default entry and adds none.
    EXPECT_EQ(describe(manager.getFollowerInfo(9)), "000;");
    EXPECT_EQ(followers(manager), both);

    // Status travels with copies, and a new setting for an index replaces it with 0.
    for (FollowerInfo& info : manager) {
        info.status = 3;
    }
    EXPECT_EQ(manager.getFollowerInfo(2).status, 3);
    manager.setFollowerInfo(2, true, "Hall 2", "10.0.0.3", "viewer", "pw2");
    EXPECT_EQ(followers(manager), "21Hall 210.0.0.3viewerpw20;51Door10.0.0.5rootsecret3;");
}

TEST(CameraManager, NamesProcessorsAndStreamTypes) {
    const Lines socs = {"Unknown",  "ARTPEC-5", "ARTPEC-6",   "ARTPEC-7",
                        "ARTPEC-8", "ARTPEC-9", "Invalid SOC"};
    for (int value = 0; value < 7; ++value) {
        EXPECT_EQ(toString(static_cast<SystemOnChip>(value)), socs[value]);
    }
    const Lines types = {"Unknown", "Application", "Anonymized", "Overlay", "Other", "Unknown"};
    for (int value = -1; value < 5; ++value) {
        EXPECT_EQ(toString(static_cast<StreamType>(value)), types[value + 1]);
    }
}

TEST(AxisCameraManager, ReadsTheCameraFromTheParameterService) {
    HostCameraScope camera(kCamera);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    {
        AxisCameraManager manager("Demo");
        const AxisCameraInfo info = manager.getCameraInfo();
        EXPECT_EQ(info.productName + "|" + info.serialNumber + "|" + info.firmwareVersion + "|" +
                      info.architecture + "|" + info.sensorAspectRatio,
                  "AXIS Q1656 Box Camera|B8A44F123456|11.9.60|aarch64|4:3");
        EXPECT_EQ(info.rotation, 180);
        EXPECT_EQ(manager.getCameraProductShortName(), "AXIS Q1656");
    }
    EXPECT_EQ(linesAt(logger, "error"), Lines{});
    EXPECT_EQ(take(logger, "info"),
              (Lines{"AxisCameraManager: AxisCameraManager constructor called appName = Demo",
                     "~AxisCameraManager: AxisCameraManager destructor called"}));
}

TEST(AxisCameraManager, MapsProcessorTextsAspectRatiosAndRotations) {
    // Processor text, sensor aspect ratio, rotation; and what they give: the processor, the aspect
    // ratio's value (Invalid 0, Fullscreen 1, Widescreen 2, Square 3) and whether the camera is
    // portrait. Processor texts match whole: none names ARTPEC-5, and case counts.
    const std::vector<std::array<std::string, 4>> cases = {
        {"Axis Artpec-6", "16:9", "90", "ARTPEC-6 2 1"},
        {"Axis Artpec-7", "4:3", "0", "ARTPEC-7 1 0"},
        {"Axis Artpec-8", "1:1", "270", "ARTPEC-8 3 1"},
        {"Axis Artpec-9", "4:3", "0", "ARTPEC-9 1 0"},
        {"Axis Artpec-5", "3:2", "180", "Unknown 0 0"},
        {"axis artpec-8", "16:10", "0", "Unknown 0 0"}};
    HostCameraScope camera;
    for (const auto& [soc, ratio, rotation, expected] : cases) {
        camera.reload("root.Properties.System.Soc = " + soc + "\nroot.ImageSource.I0.Sensor." +
                      "AspectRatio = " + ratio +
                      "\nroot.Image.I0.Appearance.Rotation = " + rotation);
        const AxisCameraManager manager("Demo");
        EXPECT_EQ(toString(manager.getCameraSOC()) + " " +
                      std::to_string(static_cast<int>(manager.getSensorAspectRatioType())) + " " +
                      std::to_string(manager.getCameraInfo().isPortrait),
                  expected);
    }
    camera.reload("root.Image.I0.Appearance.Rotation = upside down\n");
    EXPECT_THROW(AxisCameraManager("Demo").getCameraRotation(), std::invalid_argument);
}

TEST(AxisCameraManager, FailedReadsGiveEmptyTextsAndTheirLogLines) {
    HostCameraScope camera(kCamera);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    const std::string failed = "getParameterAsString: Failed to get camera parameter ";
    const std::string noRotation =
        "getCameraRotation: Failed to get camera rotation. Assuming rotation = 0";

    // No parameter service: the object stands and every read fails.
    stemlib_host_set_failure("ax_parameter_new", "no service");
    {
        AxisCameraManager manager("Demo");
        EXPECT_EQ(manager.getCameraRotation(), 0);
        EXPECT_EQ(manager.getSensorAspectRatioType(), AspectRatio::Invalid);
    }
    const std::string noHandle = ". Error: axParameter is not initialized";
    EXPECT_EQ(take(logger, "error"),
              (Lines{"AxisCameraManager: Error initializing axParameter.",
                     failed + "root.Image.I0.Appearance.Rotation" + noHandle, noRotation,
                     failed + "root.ImageSource.I0.Sensor.AspectRatio" + noHandle}));
    stemlib_host_clear_failures();

    // Reads refused by the service, and a parameter the camera lacks.
    AxisCameraManager manager("Demo");
    stemlib_host_set_failure("ax_parameter_get", "Parameter not readable");
    EXPECT_EQ(manager.getCameraRotation(), 0);
    stemlib_host_clear_failures();
    EXPECT_EQ(manager.getParameterAsString("root.Image.I1.Appearance.Rotation"), "");
    EXPECT_EQ(take(logger, "error"),
              (Lines{failed + "root.Image.I0.Appearance.Rotation. Error: Parameter not readable",
                     noRotation,
                     failed + "root.Image.I1.Appearance.Rotation. Error: parameter "
                              "root.Image.I1.Appearance.Rotation does not exist"}));
}

TEST(AxisCameraManager, UnitesTheResolutionsOfAllChannelsAndLeavesOutWhatCannotBeRead) {
    HostCameraScope camera(kCamera);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    AxisCameraManager manager("Demo");
    logger.lines.clear();
    const ResolutionSet expected{Resolution(640, 480),  Resolution(800, 600),
                                 Resolution(1024, 768), Resolution(1280, 720),
                                 Resolution(1280, 960), Resolution(1920, 1080)};
    EXPECT_EQ(manager.getSupportedResolutions(), expected);
    EXPECT_EQ(getCamerasResolutionsAsCsv(),
              "640x480,800x600,1024x768,1280x720,1280x960,1920x1080,");
    EXPECT_EQ(take(logger, "info"),
              (Lines{"getSupportedResolutions: Successfully got all channels.",
                     "getCameraResolutions: Successfully got all channels."}));
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Widescreen), Resolution(1920, 1080));
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Fullscreen), Resolution(1280, 960));
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Square), Resolution(0, 0));

    // One channel unreadable: logged, the others still count.
    stemlib_host_set_failure_after("vdo_channel_get_resolutions", 1, "channel busy");
    EXPECT_EQ(getCameraResolutions(),
              (ResolutionSet{Resolution(640, 480), Resolution(800, 600), Resolution(1280, 720),
                             Resolution(1920, 1080)}));
    // No channels at all.
    stemlib_host_set_failure("vdo_channel_get_all", "video service down");
    EXPECT_TRUE(manager.getSupportedResolutions().empty());
    EXPECT_EQ(getCamerasResolutionsAsCsv(), "");
    EXPECT_EQ(take(logger, "error"),
              (Lines{"getCameraResolutions: Failed to get resolutions of channel 2. Error: "
                     "channel busy",
                     "getSupportedResolutions: Failed to get all channels.",
                     "getCameraResolutions: Failed to get all channels."}));

    // Equal areas: the first in set order stays.
    stemlib_host_clear_failures();
    camera.reload("channels = 1\nchannel.1.resolutions = 1200x1200, 1440x1000, 800x800\n");
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Square), Resolution(1200, 1200));
}

TEST(AxisCameraManager, PicksTheHighestCompatibleResolution) {
    HostCameraScope camera("channels = 1\nchannel.1.resolutions = 1920x1080, 1280x720, 1366x768, "
                           "1080x1080, 640x480\n");
    // Portrait targets are matched in landscape form and turned back; a square one is not
    // portrait. The tolerance is tight: 1366x768, nearly 16:9, matches only itself. Nothing is
    // 3:2, and a target without height matches nothing.
    const std::vector<std::pair<Resolution, Resolution>> cases = {
        {Resolution(640, 360), Resolution(1920, 1080)},
        {Resolution(1080, 1920), Resolution(1080, 1920)},
        {Resolution(480, 640), Resolution(480, 640)},
        {Resolution(300, 300), Resolution(1080, 1080)},
        {Resolution(1366, 768), Resolution(1366, 768)},
        {Resolution(400, 600), Resolution(0, 0)},
        {Resolution(640, 0), Resolution(0, 0)}};
    for (const auto& [target, expected] : cases) {
        EXPECT_EQ(getHighestCompatibleResolution(target), expected) << target.toString();
    }
}

} // namespace
