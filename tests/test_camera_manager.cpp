// Camera facts through the host parameter and video services: followers, parameters, processor,
// rotation, resolutions and the compatible-resolution rules, with every failure row.
#include "CameraManager.h"
#include "HostCameraScope.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"
#include "stemlib-host.h"

#include <gtest/gtest.h>

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

// The messages logged at level, in order; the log is emptied.
std::vector<std::string> take(RecordingLogger& logger, const std::string& level) {
    std::vector<std::string> result;
    for (const auto& line : logger.lines) {
        if (line.level == level) {
            result.push_back(line.message);
        }
    }
    logger.lines.clear();
    return result;
}

std::vector<int> indices(const CameraManager& manager) {
    std::vector<int> result;
    for (const FollowerInfo& info : manager) {
        result.push_back(info.index);
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
    EXPECT_EQ(door.cameraName + door.ipAddress + door.userName + door.password,
              "Door10.0.0.5rootsecret");
    EXPECT_EQ(door.status, 0);

    // An unknown index gives a default entry and adds none.
    const FollowerInfo unknown = manager.getFollowerInfo(9);
    EXPECT_EQ(unknown.index, 0);
    EXPECT_FALSE(unknown.active);
    EXPECT_TRUE(unknown.cameraName.empty() && unknown.password.empty());
    EXPECT_EQ(indices(manager), (std::vector<int>{2, 5}));

    // Status travels with copies, and a new setting for an index replaces it with 0.
    for (FollowerInfo& info : manager) {
        info.status = 3;
    }
    EXPECT_EQ(manager.getFollowerInfo(2).status, 3);
    manager.setFollowerInfo(2, true, "Hall 2", "10.0.0.3", "viewer", "pw2");
    EXPECT_EQ(manager.getFollowerInfo(2).status, 0);
    EXPECT_EQ(manager.getFollowerInfo(2).cameraName, "Hall 2");
    EXPECT_EQ(indices(manager), (std::vector<int>{2, 5}));
}

TEST(CameraManager, NamesProcessorsAndStreamTypes) {
    const std::vector<std::string> socs = {"Unknown",  "ARTPEC-5", "ARTPEC-6",   "ARTPEC-7",
                                           "ARTPEC-8", "ARTPEC-9", "Invalid SOC"};
    for (int value = 0; value < 7; ++value) {
        EXPECT_EQ(toString(static_cast<SystemOnChip>(value)), socs[value]);
    }
    const std::vector<std::string> types = {"Unknown", "Application", "Anonymized",
                                            "Overlay", "Other",       "Unknown"};
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
    EXPECT_EQ(logger.lines.size(), 2U);
    EXPECT_EQ(take(logger, "info"),
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
    const std::string failed = "STEMLIB::getParameterAsString: Failed to get camera parameter ";
    const std::string noRotation =
        "STEMLIB::getCameraRotation: Failed to get camera rotation. Assuming rotation = 0";

    // No parameter service: the object stands and every read fails.
    stemlib_host_set_failure("ax_parameter_new", "no service");
    {
        AxisCameraManager manager("Demo");
        EXPECT_EQ(manager.getCameraName(), "");
        EXPECT_EQ(manager.getCameraRotation(), 0);
        EXPECT_EQ(manager.getSensorAspectRatioType(), AspectRatio::Invalid);
        EXPECT_EQ(manager.getCameraSOC(), SystemOnChip::Unknown);
    }
    const std::string noHandle = ". Error: axParameter is not initialized";
    EXPECT_EQ(take(logger, "error"),
              (std::vector<std::string>{
                  "STEMLIB::AxisCameraManager: Error initializing axParameter.",
                  failed + "root.Brand.ProdFullName" + noHandle,
                  failed + "root.Image.I0.Appearance.Rotation" + noHandle, noRotation,
                  failed + "root.ImageSource.I0.Sensor.AspectRatio" + noHandle,
                  failed + "root.Properties.System.Soc" + noHandle}));
    stemlib_host_clear_failures();

    // Reads refused by the service, and a parameter the camera lacks.
    AxisCameraManager manager("Demo");
    stemlib_host_set_failure("ax_parameter_get", "Parameter not readable");
    EXPECT_EQ(manager.getCameraSerialNumber(), "");
    EXPECT_EQ(manager.getCameraRotation(), 0);
    stemlib_host_clear_failures();
    EXPECT_EQ(manager.getParameterAsString("root.Image.I1.Appearance.Rotation"), "");
    EXPECT_EQ(
        take(logger, "error"),
        (std::vector<std::string>{
            failed + "root.Properties.System.SerialNumber. Error: Parameter not readable",
            failed + "root.Image.I0.Appearance.Rotation. Error: Parameter not readable", noRotation,
            failed + "root.Image.I1.Appearance.Rotation. Error: parameter "
                     "root.Image.I1.Appearance.Rotation does not exist"}));
}

TEST(AxisCameraManager, UnitesTheResolutionsOfAllChannels) {
    HostCameraScope camera(kCamera);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    AxisCameraManager manager("Demo");
    logger.lines.clear();
    const ResolutionSet expected{Resolution(640, 480),  Resolution(800, 600),
                                 Resolution(1024, 768), Resolution(1280, 720),
                                 Resolution(1280, 960), Resolution(1920, 1080)};
    EXPECT_EQ(manager.getSupportedResolutions(), expected);
    EXPECT_EQ(getCameraResolutions(), expected);
    EXPECT_EQ(take(logger, "info"),
              (std::vector<std::string>{
                  "STEMLIB::getSupportedResolutions: Successfully got all channels.",
                  "STEMLIB::getCameraResolutions: Successfully got all channels."}));
    EXPECT_EQ(getCamerasResolutionsAsCsv(),
              "640x480,800x600,1024x768,1280x720,1280x960,1920x1080,");
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Widescreen), Resolution(1920, 1080));
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Fullscreen), Resolution(1280, 960));
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Square), Resolution(0, 0));

    // Equal areas: the first in set order stays.
    camera.reload("channels = 1\nchannel.1.resolutions = 1200x1200, 1440x1000, 1000x1440, "
                  "800x800\n");
    EXPECT_EQ(manager.getMaxResolution(AspectRatio::Square), Resolution(1200, 1200));
}

TEST(AxisCameraManager, ResolutionFailuresLogAndLeaveOutWhatCannotBeRead) {
    HostCameraScope camera(kCamera);
    RecordingLogger logger;
    ScopedLogger scope(logger);
    stemlib_host_set_failure("vdo_channel_get_all", "video service down");
    EXPECT_TRUE(AxisCameraManager("Demo").getSupportedResolutions().empty());
    EXPECT_EQ(getCamerasResolutionsAsCsv(), "");
    EXPECT_EQ(getHighestCompatibleResolution(Resolution(1920, 1080)), Resolution(0, 0));
    EXPECT_EQ(
        take(logger, "error"),
        (std::vector<std::string>{"STEMLIB::getSupportedResolutions: Failed to get all channels.",
                                  "STEMLIB::getCameraResolutions: Failed to get all channels.",
                                  "STEMLIB::getCameraResolutions: Failed to get all channels."}));
    stemlib_host_clear_failures();

    // One channel unreadable: logged, the others still count.
    stemlib_host_set_failure_after("vdo_channel_get_resolutions", 1, "channel busy");
    EXPECT_EQ(getCameraResolutions(),
              (ResolutionSet{Resolution(640, 480), Resolution(800, 600), Resolution(1280, 720),
                             Resolution(1920, 1080)}));
    EXPECT_EQ(take(logger, "error"),
              (std::vector<std::string>{"STEMLIB::getCameraResolutions: Failed to get resolutions "
                                        "of channel 2. Error: channel busy"}));
}

TEST(AxisCameraManager, PicksTheHighestCompatibleResolution) {
    HostCameraScope camera("channels = 1\nchannel.1.resolutions = 1920x1080, 1280x720, 1366x768, "
                           "1080x1080, 640x480\n");
    // Portrait targets are matched in landscape form and turned back; a square one is not
    // portrait. The tolerance is tight: 1366x768, nearly 16:9, matches only itself. Nothing is
    // 3:2, and a target without height matches nothing.
    const std::vector<std::pair<Resolution, Resolution>> cases = {
        {Resolution(1920, 1080), Resolution(1920, 1080)},
        {Resolution(640, 360), Resolution(1920, 1080)},
        {Resolution(1080, 1920), Resolution(1080, 1920)},
        {Resolution(480, 640), Resolution(480, 640)},
        {Resolution(300, 300), Resolution(1080, 1080)},
        {Resolution(1366, 768), Resolution(1366, 768)},
        {Resolution(600, 400), Resolution(0, 0)},
        {Resolution(400, 600), Resolution(0, 0)},
        {Resolution(640, 0), Resolution(0, 0)}};
    for (const auto& [target, expected] : cases) {
        EXPECT_EQ(getHighestCompatibleResolution(target), expected) << target.toString();
    }
}

} // namespace
