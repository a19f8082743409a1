// Camera facts through the host parameter and video services: followers, parameters, processor,
// rotation, resolutions and the compatible-resolution rules, with every failure row.
#include "CameraManager.h"
#include "HostCameraScope.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"
#include "stemlib-host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Ombrel;
using StemlibTest::HostCameraScope;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;

const char* const kCamera = R"(
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

std::vector<std::string> messages(const RecordingLogger& logger, const std::string& level) {
    std::vector<std::string> result;
    for (const auto& line : logger.lines) {
        if (line.level == level) {
            result.push_back(line.message);
        }
    }
    return result;
}

TEST(CameraManager, KeepsFollowersByIndex) {
    CameraManager manager;
    EXPECT_TRUE(manager.getSupportedResolutions().empty());
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Widescreen), Resolution(0, 0));

    EXPECT_TRUE(manager.setFollowerInfo(5, true, "Door", "10.0.0.5", "root", "secret"));
    EXPECT_TRUE(manager.setFollowerInfo(2, false, "Hall", "10.0.0.2", "viewer", "pw"));
    const FollowerInfo door = manager.getFollowerInfo(5);
    EXPECT_EQ(door.index, 5);
    EXPECT_TRUE(door.active);
    EXPECT_EQ(door.cameraName, "Door");
    EXPECT_EQ(door.ipAddress, "10.0.0.5");
    EXPECT_EQ(door.userName, "root");
    EXPECT_EQ(door.password, "secret");
    EXPECT_EQ(door.status, 0);

    // An unknown index gives a default entry and adds none.
    const FollowerInfo unknown = manager.getFollowerInfo(9);
    EXPECT_EQ(unknown.index, 0);
    EXPECT_FALSE(unknown.active);
    EXPECT_TRUE(unknown.cameraName.empty() && unknown.password.empty());
    std::vector<int> order;
    for (const FollowerInfo& info : static_cast<const CameraManager&>(manager)) {
        order.push_back(info.index);
    }
    EXPECT_EQ(order, (std::vector<int>{2, 5}));

    // Status travels with copies, and a new setting for an index replaces it with 0.
    for (FollowerInfo& info : manager) {
        info.status = 3;
    }
    FollowerInfo copy = manager.getFollowerInfo(2);
    EXPECT_EQ(copy.status, 3);
    manager.setFollowerInfo(2, true, "Hall 2", "10.0.0.3", "viewer", "pw2");
    const FollowerInfo replaced = manager.getFollowerInfo(2);
    EXPECT_EQ(replaced.status, 0);
    EXPECT_EQ(replaced.cameraName, "Hall 2");
    order.clear();
    for (const FollowerInfo& info : manager) {
        order.push_back(info.index);
    }
    EXPECT_EQ(order, (std::vector<int>{2, 5}));
}

TEST(CameraManager, NamesProcessorsAndStreamTypes) {
    EXPECT_EQ(toString(SystemOnChip::Unknown), "Unknown");
    EXPECT_EQ(toString(SystemOnChip::ARTPEC_5), "ARTPEC-5");
    EXPECT_EQ(toString(SystemOnChip::ARTPEC_8), "ARTPEC-8");
    EXPECT_EQ(toString(SystemOnChip::ARTPEC_9), "ARTPEC-9");
    EXPECT_EQ(toString(static_cast<SystemOnChip>(6)), "Invalid SOC");
    EXPECT_EQ(toString(StreamType::Application), "Application");
    EXPECT_EQ(toString(StreamType::Anonymized), "Anonymized");
    EXPECT_EQ(toString(StreamType::Overlay), "Overlay");
    EXPECT_EQ(toString(StreamType::Other), "Other");
    EXPECT_EQ(toString(static_cast<StreamType>(-1)), "Unknown");
}

TEST(AxisCameraManager, ReadsTheCameraFromTheParameterService) {
    HostCameraScope camera(kCamera);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    {
        AxisCameraManager manager("Demo");
        const AxisCameraInfo info = manager.getCameraInfo();
        EXPECT_EQ(info.productName, "AXIS Q1656 Box Camera");
        EXPECT_EQ(info.serialNumber, "B8A44F123456");
        EXPECT_EQ(info.systemOnChip, SystemOnChip::ARTPEC_7);
        EXPECT_EQ(info.firmwareVersion, "11.9.60");
        EXPECT_EQ(info.architecture, "aarch64");
        EXPECT_EQ(info.sensorAspectRatio, "4:3");
        EXPECT_EQ(info.rotation, 180);
        EXPECT_FALSE(info.isPortrait);
        EXPECT_EQ(manager.getCameraProductShortName(), "AXIS Q1656");
        EXPECT_EQ(manager.getSensorAspectRatioType(), AspectRatio::Fullscreen);
        EXPECT_EQ(manager.getParameterAsString("Brand.ProdShortName"), "AXIS Q1656");
    }
    EXPECT_TRUE(messages(logger, "error").empty());
    EXPECT_EQ(messages(logger, "info"),
              (std::vector<std::string>{
                  "STEMLIB::AxisCameraManager: AxisCameraManager constructor called appName = Demo",
                  "STEMLIB::~AxisCameraManager: AxisCameraManager destructor called"}));
}

TEST(AxisCameraManager, MapsProcessorTextsAspectRatiosAndRotations) {
    HostCameraScope camera(kCamera);
    const std::vector<std::pair<std::string, SystemOnChip>> socs = {
        {"Axis Artpec-6", SystemOnChip::ARTPEC_6}, {"Axis Artpec-8", SystemOnChip::ARTPEC_8},
        {"Axis Artpec-9", SystemOnChip::ARTPEC_9}, {"Axis Artpec-5", SystemOnChip::Unknown},
        {"axis artpec-8", SystemOnChip::Unknown},  {"Ambarella CV25", SystemOnChip::Unknown}};
    for (const auto& [text, expected] : socs) {
        camera.reload("root.Properties.System.Soc = " + text + "\n");
        EXPECT_EQ(AxisCameraManager("Demo").getCameraSOC(), expected) << text;
    }
    const std::vector<std::pair<std::string, AspectRatio>> ratios = {
        {"16:9", AspectRatio::Widescreen},
        {"1:1", AspectRatio::Square},
        {"4:3", AspectRatio::Fullscreen},
        {"3:2", AspectRatio::Invalid}};
    for (const auto& [text, expected] : ratios) {
        camera.reload("root.ImageSource.I0.Sensor.AspectRatio = " + text + "\n");
        EXPECT_EQ(AxisCameraManager("Demo").getSensorAspectRatioType(), expected) << text;
    }
    for (int rotation : {0, 90, 180, 270}) {
        camera.reload("root.Image.I0.Appearance.Rotation = " + std::to_string(rotation) + "\n");
        const AxisCameraInfo info = AxisCameraManager("Demo").getCameraInfo();
        EXPECT_EQ(info.rotation, rotation);
        EXPECT_EQ(info.isPortrait, rotation == 90 || rotation == 270) << rotation;
    }
    camera.reload("root.Image.I0.Appearance.Rotation = upside down\n");
    EXPECT_THROW(AxisCameraManager("Demo").getCameraRotation(), std::invalid_argument);
}

TEST(AxisCameraManager, FailedReadsGiveEmptyTextsAndTheirLogLines) {
    HostCameraScope camera(kCamera);
    RecordingLogger logger;
    ScopedLogger scope(logger);

    // No parameter service: the object stands and every read fails.
    stemlib_host_set_failure("ax_parameter_new", "no service");
    {
        AxisCameraManager manager("Demo");
        EXPECT_EQ(manager.getCameraName(), "");
        EXPECT_EQ(manager.getCameraRotation(), 0);
        EXPECT_EQ(manager.getSensorAspectRatioType(), AspectRatio::Invalid);
        EXPECT_EQ(manager.getCameraSOC(), SystemOnChip::Unknown);
    }
    EXPECT_EQ(
        messages(logger, "error"),
        (std::vector<std::string>{
            "STEMLIB::AxisCameraManager: Error initializing axParameter.",
            "STEMLIB::getParameterAsString: Failed to get camera parameter "
            "root.Brand.ProdFullName. "
            "Error: axParameter is not initialized",
            "STEMLIB::getParameterAsString: Failed to get camera parameter "
            "root.Image.I0.Appearance.Rotation. Error: axParameter is not initialized",
            "STEMLIB::getCameraRotation: Failed to get camera rotation. Assuming rotation = 0",
            "STEMLIB::getParameterAsString: Failed to get camera parameter "
            "root.ImageSource.I0.Sensor.AspectRatio. Error: axParameter is not initialized",
            "STEMLIB::getParameterAsString: Failed to get camera parameter "
            "root.Properties.System.Soc. Error: axParameter is not initialized"}));
    stemlib_host_clear_failures();
    logger.lines.clear();

    // Reads refused by the service, and a parameter the camera lacks.
    AxisCameraManager manager("Demo");
    stemlib_host_set_failure("ax_parameter_get", "Parameter not readable");
    EXPECT_EQ(manager.getCameraSerialNumber(), "");
    EXPECT_EQ(manager.getCameraRotation(), 0);
    stemlib_host_clear_failures();
    EXPECT_EQ(manager.getParameterAsString("root.Image.I1.Appearance.Rotation"), "");
    EXPECT_EQ(
        messages(logger, "error"),
        (std::vector<std::string>{
            "STEMLIB::getParameterAsString: Failed to get camera parameter "
            "root.Properties.System.SerialNumber. Error: Parameter not readable",
            "STEMLIB::getParameterAsString: Failed to get camera parameter "
            "root.Image.I0.Appearance.Rotation. Error: Parameter not readable",
            "STEMLIB::getCameraRotation: Failed to get camera rotation. Assuming rotation = 0",
            "STEMLIB::getParameterAsString: Failed to get camera parameter "
            "root.Image.I1.Appearance.Rotation. Error: parameter "
            "root.Image.I1.Appearance.Rotation does not exist"}));
}

TEST(AxisCameraManager, UnitesTheResolutionsOfAllChannels) {
    HostCameraScope camera(kCamera);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    AxisCameraManager manager("Demo");
    const ResolutionSet expected{Resolution(640, 480),  Resolution(800, 600),
                                 Resolution(1024, 768), Resolution(1280, 720),
                                 Resolution(1280, 960), Resolution(1920, 1080)};
    EXPECT_EQ(manager.getSupportedResolutions(), expected);
    EXPECT_EQ(getCameraResolutions(), expected);
    EXPECT_EQ(getCamerasResolutionsAsCsv(),
              "640x480,800x600,1024x768,1280x720,1280x960,1920x1080,");
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Widescreen), Resolution(1920, 1080));
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Fullscreen), Resolution(1280, 960));
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Square), Resolution(0, 0));
    const std::vector<std::string> infos = messages(logger, "info");
    EXPECT_NE(std::find(infos.begin(), infos.end(),
                        "STEMLIB::getSupportedResolutions: Successfully got all channels."),
              infos.end());
    EXPECT_NE(std::find(infos.begin(), infos.end(),
                        "STEMLIB::getCameraResolutions: Successfully got all channels."),
              infos.end());

    // Equal areas: the first in set order stays.
    camera.reload("channels = 1\nchannel.1.resolutions = 1200x1200, 1440x1000, 1000x1440, "
                  "800x800\n");
    EXPECT_EQ(AxisCameraManager("Demo").getMaxResolution(AspectRatio::Square),
              Resolution(1200, 1200));
}

TEST(AxisCameraManager, ResolutionFailuresLogAndLeaveOutWhatCannotBeRead) {
    HostCameraScope camera(kCamera);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    stemlib_host_set_failure("vdo_channel_get_all", "video service down");
    EXPECT_TRUE(AxisCameraManager("Demo").getSupportedResolutions().empty());
    EXPECT_TRUE(getCameraResolutions().empty());
    EXPECT_EQ(getCamerasResolutionsAsCsv(), "");
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(1920, 1080)), Resolution(0, 0));
    const std::vector<std::string> errors = messages(logger, "error");
    EXPECT_EQ(errors, (std::vector<std::string>{
                          "STEMLIB::getSupportedResolutions: Failed to get all channels.",
                          "STEMLIB::getCameraResolutions: Failed to get all channels.",
                          "STEMLIB::getCameraResolutions: Failed to get all channels.",
                          "STEMLIB::getCameraResolutions: Failed to get all channels."}));
    stemlib_host_clear_failures();
    logger.lines.clear();

    // One channel unreadable: logged, the others still count.
    stemlib_host_set_failure_after("vdo_channel_get_resolutions", 1, "channel busy");
    EXPECT_EQ(getCameraResolutions(),
              (ResolutionSet{Resolution(640, 480), Resolution(800, 600), Resolution(1280, 720),
                             Resolution(1920, 1080)}));
    EXPECT_EQ(messages(logger, "error"),
              (std::vector<std::string>{"STEMLIB::getCameraResolutions: Failed to get resolutions "
                                        "of channel 2. Error: channel busy"}));
}

TEST(AxisCameraManager, PicksTheHighestCompatibleResolution) {
    HostCameraScope camera("channels = 1\nchannel.1.resolutions = 1920x1080, 1280x720, 1366x768, "
                           "1080x1080, 640x480\n");
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(1920, 1080)), Resolution(1920, 1080));
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(640, 360)), Resolution(1920, 1080));
    // A portrait target is matched in landscape form and turned back.
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(1080, 1920)), Resolution(1080, 1920));
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(480, 640)), Resolution(480, 640));
    // A square target is not portrait.
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(300, 300)), Resolution(1080, 1080));
    // The tolerance is tight: 1366x768, nearly 16:9, matches only itself. Nothing is 3:2.
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(1366, 768)), Resolution(1366, 768));
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(600, 400)), Resolution(0, 0));
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(400, 600)), Resolution(0, 0));
}

} // namespace
