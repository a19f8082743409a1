// The main road of the library, through the real engine: a frame source larger than the model's
// input, each detector, detections in the caller's pixels, and an AOIManager's location and
// dwell answer for the person found.
#include "HostInference.h"

#ifdef STEMLIB_TEST_HOST_LAROD

#include "AOIManager.h"
#include "AxisVideoStreamSource.h"
#include "Bodypix_320W_240H_PoseDetector.h"
#include "ImageBufferFrameSource.h"
#include "LarodObjectDetector.h"
#include "LarodPoseDetector.h"
#include "MovenetPoseDetector.h"
#include "PosePainting.h"
#include "PosenetPoseDetector.h"

#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>

#include <cmath>
#include <filesystem>
#include <memory>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

// A picture `factor` times the model's size in each direction, each model pixel repeated
// over a square of factor x factor: the nearest-sample resize of a frame source gives back the
// model's bytes exactly.
ImageBufferFrameSource upscaled(const std::vector<std::uint8_t>& bytes, const Resolution& model,
                                unsigned int factor) {
    const Resolution big(model.width * factor, model.height * factor);
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(big.area()) * 3);
    for (unsigned int y = 0; y < big.height; ++y) {
        for (unsigned int x = 0; x < big.width; ++x) {
            const std::size_t from =
                (static_cast<std::size_t>(y / factor) * model.width + x / factor) * 3;
            const std::size_t to = (static_cast<std::size_t>(y) * big.width + x) * 3;
            std::copy(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                      bytes.begin() + static_cast<std::ptrdiff_t>(from + 3),
                      pixels.begin() + static_cast<std::ptrdiff_t>(to));
        }
    }
    return ImageBufferFrameSource(big, pixels.data());
}

// A scene of the analysis resolution with area 0 around `where`, dwell threshold 0 seconds, and
// area 1 elsewhere with an hour's threshold.
struct Scene {
    AOIManager areas{NAOI};

    explicit Scene(const IRectangle& area0) {
        areas.setAOI(0, true, area0, 0);
        areas.setAOI(1, true, IRectangle(0, 0, 5, 5), 3600);
    }
    // Two frames of the same object: Briefly on the first sighting, then Lengthily.
    void expectDwell(int findingID, const FPoint& point) {
        const AOIInfo first = areas.add(findingID, point);
        EXPECT_EQ(first.location, AOILocation::AOI0);
        EXPECT_EQ(first.duration, AOIDuration::Briefly);
        const AOIInfo second = areas.add(findingID, point);
        EXPECT_EQ(second.location, AOILocation::AOI0);
        EXPECT_EQ(second.duration, AOIDuration::Lengthily);
        areas.remove(findingID);
    }
};

// The person's centre between the hips, which must lie where the painted person's hips map.
FPoint hipCentre(const PoseDetectionBase<BodypixBodyPart>& detection) {
    FPoint centre;
    EXPECT_TRUE(detection.skeleton.getSkeletonCenter(centre, 0.5f));
    return centre;
}

TEST(InferenceEndToEnd, ObjectDetectorFromFrameToDwell) {
    const modelforge::SsdDetectorModel model;
    // The SSD model's person, as the operator of the model decodes it: centre (0.4, 0.5), a
    // box 0.5 high and 0.25 wide, class 0.
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(model.width * model.height * 3), 0);
    std::fill(bytes.begin(), bytes.begin() + 4 * model.numBoxes,
              static_cast<std::uint8_t>(model.boxZeroPoint));
    auto encode = [&model](float v) {
        return static_cast<std::uint8_t>(model.boxZeroPoint + std::lround(v / model.boxScale));
    };
    bytes[0] = encode(0.4f - 0.5f);
    bytes[1] = encode(0.0f);
    bytes[2] = encode(std::log(0.5f));
    bytes[3] = encode(std::log(0.25f));
    bytes[model.scoreOffset + 1] = 250;
    ImageBufferFrameSource camera = upscaled(bytes, Resolution(300, 300), 3);
    ASSERT_EQ(camera.getResolution(), Resolution(900, 900));

    auto detector = std::make_unique<LarodObjectDetector>(forgedModel("detector_ssd_300x300"));
    ASSERT_TRUE(detector->initialize());
    const auto detections = detector->detect(camera);
    ASSERT_EQ(detections.size(), 1u);
    EXPECT_EQ(static_cast<Objects>(detections[0].classID), Objects::Person);
    // In the camera's 900 x 900 pixels, as the bytes encode it: centre y 0.5 - 6/64, height
    // exp(-44/64), width exp(-89/64).
    const float height = std::exp(-44.0f / 64.0f);
    const float width = std::exp(-89.0f / 64.0f);
    EXPECT_NEAR(detections[0].boundingBox.x, (0.5f - width / 2) * 899, 1.0f);
    EXPECT_NEAR(detections[0].boundingBox.width, width * 899, 2.0f);
    EXPECT_NEAR(detections[0].boundingBox.y, (0.40625f - height / 2) * 899, 1.0f);
    EXPECT_NEAR(detections[0].boundingBox.height, height * 899, 2.0f);

    Scene scene(IRectangle(400, 500, 100, 200));
    scene.expectDwell(7, detections[0].boundingBox.getBottomMidpoint());
}

TEST(InferenceEndToEnd, PoseDetectorsFromFrameToDwell) {
    struct Road {
        const char* name;
        std::function<std::vector<PoseDetectionBase<BodypixBodyPart>>(ImageFrameSource&,
                                                                      const IRectangle&)>
            detect;
        modelforge::PassThroughModel model;
        PoseTensorLayout layout;
        PersonCells person;
        float tolerance; // in camera pixels, twice the model's
    };
    auto posenet = std::make_unique<PosenetPoseDetector>(forgedModel("posenet_481x353"), "");
    auto bodypix = std::make_unique<LarodPoseDetector>(forgedModel("bodypix_1281x721"), "");
    auto bodypix320 =
        std::make_unique<Bodypix_320W_240H_PoseDetector>(forgedModel("bodypix_320x240"));
    ASSERT_TRUE(posenet->initialize());
    ASSERT_TRUE(bodypix->initialize());
    ASSERT_TRUE(bodypix320->initialize());

    const modelforge::PassThroughModel posenetModel = modelforge::posenetPassThrough();
    const modelforge::PassThroughModel bodypixModel = modelforge::bodypixPassThrough();
    const modelforge::PassThroughModel bodypix320Model = modelforge::bodypix320PassThrough();
    using B320 = Bodypix_320W_240H_PoseDetector;
    const std::vector<Road> roads = {
        {"PoseNet",
         [&](ImageFrameSource& s, const IRectangle& r) { return posenet->detect(s, r); },
         posenetModel,
         {23, 31, posenetModel.output("heatmaps").inputOffset, &posenetHeatmapDequantizer,
          posenetModel.output("short_offsets").inputOffset, &posenetShortOffsetDequantizer,
          posenetModel.output("mid_offsets").inputOffset, &posenetMidOffsetDequantizer},
         gridPerson(6, 10, 2),
         3.0f},
        {"BodyPix",
         [&](ImageFrameSource& s, const IRectangle& r) { return bodypix->detect(s, r); },
         bodypixModel,
         {46, 81, bodypixModel.output("heatmaps").inputOffset, &heatmapDequantizer,
          bodypixModel.output("short_offsets").inputOffset, &shortOffsetDequantizer,
          bodypixModel.output("mid_offsets").inputOffset, &midOffsetDequantizer},
         gridPerson(20, 40, 2),
         5.0f},
        {"BodyPix 320 x 240",
         [&](ImageFrameSource& s, const IRectangle& r) { return bodypix320->detect(s, r); },
         bodypix320Model,
         {15, 20, bodypix320Model.output("heatmaps").inputOffset, &B320::_heatmapDequantizer,
          bodypix320Model.output("short_offsets").inputOffset, &B320::_shortOffsetDequantizer,
          bodypix320Model.output("displacement_fwd").inputOffset,
          &B320::_displacementForwardDequantizer,
          bodypix320Model.output("displacement_bwd").inputOffset,
          &B320::_displacementBackwardDequantizer},
         gridPerson(3, 6, 2),
         3.0f},
    };
    for (const Road& road : roads) {
        SCOPED_TRACE(road.name);
        const Resolution input(static_cast<unsigned int>(road.model.width),
                               static_cast<unsigned int>(road.model.height));
        PosePicture picture(road.model.inputBytes(), road.layout);
        picture.addPerson(road.person, 255);
        ImageBufferFrameSource camera = upscaled(picture.bytes, input, 2);

        // The analysis picture is the camera's; the model sees all of it.
        const IRectangle analysis(0, 0, static_cast<int>(input.width * 2),
                                  static_cast<int>(input.height * 2));
        const auto detections = road.detect(camera, analysis);
        ASSERT_EQ(detections.size(), 1u);
        expectPersonAt(detections[0], road.person, input, analysis, road.tolerance);

        // The hips of the person lie at row top + 2u, columns left + u and left + 3u.
        const GridCell leftHip = road.person[static_cast<int>(BodypixBodyPart::LeftHip)];
        const GridCell rightHip = road.person[static_cast<int>(BodypixBodyPart::RightHip)];
        const FPoint centre = hipCentre(detections[0]);
        EXPECT_NEAR(centre.x, 16.0f * (leftHip.x + rightHip.x), 3.0f);
        EXPECT_NEAR(centre.y, 32.0f * leftHip.y, 3.0f);
        Scene scene(
            IRectangle(static_cast<int>(centre.x) - 10, static_cast<int>(centre.y) - 10, 20, 20));
        scene.expectDwell(42, centre);
    }
}

TEST(InferenceEndToEnd, MovenetFromFrameToDwell) {
    // The model's skeleton: a standing person around x = 0.5, hips at y = 0.5, in 256ths.
    std::vector<std::uint8_t> bytes(modelforge::movenetPassThrough().inputBytes(), 0);
    for (int k = 0; k < 17; ++k) {
        const int side = k % 2 == 1 ? -10 : 10;
        int y = 40 + 4 * k;
        if (k == static_cast<int>(BodypixBodyPart::LeftHip) ||
            k == static_cast<int>(BodypixBodyPart::RightHip)) {
            y = 128;
        }
        bytes[3 * static_cast<std::size_t>(k)] = static_cast<std::uint8_t>(y);
        bytes[3 * static_cast<std::size_t>(k) + 1] = static_cast<std::uint8_t>(128 + side);
        bytes[3 * static_cast<std::size_t>(k) + 2] = 230;
    }
    ImageBufferFrameSource camera = upscaled(bytes, Resolution(192, 192), 4);
    MovenetPoseDetector detector(forgedModel("movenet_192x192"));
    ASSERT_TRUE(detector.initialize());
    const IRectangle analysis(0, 0, 768, 768);
    const auto detection = detector.detect(camera, analysis);
    const FPoint centre = hipCentre(detection);
    EXPECT_FLOAT_EQ(centre.x, 384.0f);
    EXPECT_FLOAT_EQ(centre.y, 384.0f);
    Scene scene(IRectangle(370, 370, 30, 30));
    scene.expectDwell(3, centre);
}

TEST(InferenceEndToEnd, MovenetFromACameraStreamToDwell) {
    // The camera shows one picture: its first 17 pixels are grey, so that they come through the
    // stream's NV12 frames with their value; each gives a joint at y = x = value / 256 with
    // score value / 256. The hips are at 160 and 168.
    cv::Mat picture(192, 192, CV_8UC3, cv::Scalar(0, 0, 0));
    std::vector<int> values(17);
    for (int k = 0; k < 17; ++k) {
        values[static_cast<std::size_t>(k)] = 100 + 5 * k;
    }
    values[static_cast<std::size_t>(BodypixBodyPart::LeftHip)] = 160;
    values[static_cast<std::size_t>(BodypixBodyPart::RightHip)] = 168;
    for (int k = 0; k < 17; ++k) {
        const auto grey = static_cast<std::uint8_t>(values[static_cast<std::size_t>(k)]);
        picture.at<cv::Vec3b>(0, k) = cv::Vec3b(grey, grey, grey);
    }
    const std::string description = "channels = 1\nchannel.1.resolutions = 1920x1080, 192x192\n";
    HostCameraScope camera(description);
    std::filesystem::create_directory(camera.folder() + "/frames");
    ASSERT_TRUE(cv::imwrite(camera.folder() + "/frames/0.png", picture));
    camera.reload(description + "video.input = images:frames\n");

    AxisVideoStreamSource stream(Resolution(192, 192));
    MovenetPoseDetector detector(forgedModel("movenet_192x192"));
    ASSERT_TRUE(detector.initialize());
    const IRectangle analysis(0, 0, 768, 768);
    const auto detection = detector.detect(stream, analysis);
    ASSERT_EQ(detection.skeleton.keypoints().size(), 17u);
    // The video service's colour conversion keeps a grey within a step or two.
    for (BodypixBodyPart part : BodyParts) {
        const float expected = values[static_cast<std::size_t>(part)] / 256.0f * 768.0f;
        const auto& keypoint = detection.skeleton.keypoints().get(part);
        EXPECT_NEAR(static_cast<float>(keypoint.point.x), expected, 7.0f) << toString(part);
        EXPECT_NEAR(static_cast<float>(keypoint.point.y), expected, 7.0f) << toString(part);
    }
    const FPoint centre = hipCentre(detection);
    EXPECT_NEAR(centre.x, 164.0f / 256.0f * 768.0f, 7.0f);
    Scene scene(
        IRectangle(static_cast<int>(centre.x) - 10, static_cast<int>(centre.y) - 10, 20, 20));
    scene.expectDwell(5, centre);
}

} // namespace

#endif
