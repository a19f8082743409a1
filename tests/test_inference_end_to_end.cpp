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
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <filesystem>
#include <functional>
#include <memory>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

// A picture `factor` times the model's size in each direction, each model pixel repeated
// over a square of factor x factor: the nearest-sample resize of a frame source gives back the
// model's bytes exactly.
ImageBufferFrameSource upscaled(std::vector<std::uint8_t> bytes, const Resolution& model,
                                unsigned int factor) {
    const cv::Mat picture(static_cast<int>(model.height), static_cast<int>(model.width), CV_8UC3,
                          bytes.data());
    cv::Mat big;
    cv::resize(picture, big, cv::Size(), factor, factor, cv::INTER_NEAREST_EXACT);
    return ImageBufferFrameSource(Resolution(model.width * factor, model.height * factor),
                                  big.data);
}

// Two frames of one object at point, in a scene whose area 0 is a 20-pixel square around it with
// a dwell threshold of 0 seconds: Briefly on the first sighting, then Lengthily.
void expectDwell(int findingID, const FPoint& point) {
    AOIManager areas(NAOI);
    areas.setAOI(0, true,
                 IRectangle(static_cast<int>(point.x) - 10, static_cast<int>(point.y) - 10, 20, 20),
                 0);
    for (const AOIDuration duration : {AOIDuration::Briefly, AOIDuration::Lengthily}) {
        const AOIInfo info = areas.add(findingID, point);
        EXPECT_EQ(info.location, AOILocation::AOI0);
        EXPECT_EQ(info.duration, duration);
    }
}

// The person's centre between the hips.
FPoint hipCentre(const PoseDetectionBase<BodypixBodyPart>& detection) {
    FPoint centre;
    EXPECT_TRUE(detection.skeleton.getSkeletonCenter(centre, 0.5f));
    return centre;
}

struct SsdBox {
    float centreY;
    float centreX;
    float logHeight;
    float logWidth;
    int classID;
    std::uint8_t score;
};

// The SSD model's picture: each box encoded against its anchor at (0.5, 0.5) of size 1 with the
// score of its class; the other boxes encode nothing. Values are in 64ths.
std::vector<std::uint8_t> ssdPicture(const std::vector<SsdBox>& boxes) {
    const modelforge::SsdDetectorModel model;
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(model.width * model.height * 3), 0);
    std::fill_n(bytes.begin(), 4 * model.numBoxes, static_cast<std::uint8_t>(model.boxZeroPoint));
    auto encode = [&model](float value) {
        return static_cast<std::uint8_t>(model.boxZeroPoint + std::lround(value * 64));
    };
    for (std::size_t i = 0; i < boxes.size(); ++i) {
        const SsdBox& box = boxes[i];
        const float values[] = {box.centreY - 0.5f, box.centreX - 0.5f, box.logHeight,
                                box.logWidth};
        std::transform(values, values + 4, bytes.begin() + static_cast<std::ptrdiff_t>(4 * i),
                       encode);
        bytes[model.scoreOffset + i * (model.numClasses + 1) + 1 +
              static_cast<std::size_t>(box.classID)] = box.score;
    }
    return bytes;
}

TEST(InferenceEndToEnd, SsdObjectDetectorFromFrameToDwell) {
    // A person (class 0), the same person again a little lower, which the model's own
    // post-processing suppresses, a car (class 2), and a bus (class 5) below the detector's
    // threshold.
    const std::vector<SsdBox> boxes = {{0.40625f, 0.5f, -44 / 64.0f, -89 / 64.0f, 0, 250},
                                       {0.42f, 0.5f, -44 / 64.0f, -89 / 64.0f, 0, 180},
                                       {0.75f, 0.25f, -1.0f, -1.5f, 2, 200},
                                       {0.2f, 0.85f, -2.0f, -2.0f, 5, 100}};
    ImageBufferFrameSource camera = upscaled(ssdPicture(boxes), Resolution(300, 300), 3);
    auto detector = std::make_unique<LarodObjectDetector>(forgedModel("detector_ssd_300x300"));
    ASSERT_TRUE(detector->initialize());

    const auto detections = detector->detect(camera);
    ASSERT_EQ(detections.size(), 2u);
    EXPECT_EQ(static_cast<Objects>(detections[0].classID), Objects::Person);
    EXPECT_FLOAT_EQ(detections[0].confidence, 250 / 256.0f);
    EXPECT_EQ(static_cast<Objects>(detections[1].classID), Objects::Car);
    EXPECT_FLOAT_EQ(detections[1].confidence, 200 / 256.0f);
    // In the camera's 900 x 900 pixels: centre y 0.40625, height exp(-44/64), width exp(-89/64).
    const FRectangle& box = detections[0].boundingBox;
    const float height = std::exp(-44.0f / 64.0f);
    const float width = std::exp(-89.0f / 64.0f);
    EXPECT_NEAR(box.x, (0.5f - width / 2) * 899, 1.0f);
    EXPECT_NEAR(box.width, width * 899, 2.0f);
    EXPECT_NEAR(box.y, (0.40625f - height / 2) * 899, 1.0f);
    EXPECT_NEAR(box.height, height * 899, 2.0f);
    expectDwell(7, box.getBottomMidpoint());
}

TEST(InferenceEndToEnd, PoseDetectorsFromFrameToDwell) {
    auto posenet = std::make_unique<PosenetPoseDetector>(forgedModel("posenet_481x353"), "");
    auto bodypix = std::make_unique<LarodPoseDetector>(forgedModel("bodypix_1281x721"), "");
    auto bodypix320 =
        std::make_unique<Bodypix_320W_240H_PoseDetector>(forgedModel("bodypix_320x240"));
    ASSERT_TRUE(posenet->initialize());
    ASSERT_TRUE(bodypix->initialize());
    ASSERT_TRUE(bodypix320->initialize());
    using Detect = std::function<std::vector<PoseDetectionBase<BodypixBodyPart>>(
        ImageFrameSource&, const IRectangle&)>;
    const struct {
        const char* name;
        Detect detect;
        modelforge::PassThroughModel model;
        PersonCells person;
        float tolerance; // in camera pixels, twice the model's
    } roads[] = {
        {"PoseNet", [&](ImageFrameSource& s, const IRectangle& r) { return posenet->detect(s, r); },
         modelforge::posenetPassThrough(), gridPerson(6, 10, 2), 3.0f},
        {"BodyPix", [&](ImageFrameSource& s, const IRectangle& r) { return bodypix->detect(s, r); },
         modelforge::bodypixPassThrough(), gridPerson(20, 40, 2), 5.0f},
        // The person straddles the cell (7, 10) where the forward displacements end and the
        // backward ones begin in the concatenated mid offsets.
        {"BodyPix 320 x 240",
         [&](ImageFrameSource& s, const IRectangle& r) { return bodypix320->detect(s, r); },
         modelforge::bodypix320PassThrough(), gridPerson(3, 6, 2), 3.0f},
    };
    for (const auto& road : roads) {
        SCOPED_TRACE(road.name);
        PosePicture picture(road.model);
        picture.addPerson(road.person, 255);
        ImageBufferFrameSource camera = upscaled(picture.bytes, picture.input, 2);

        // The analysis picture is the camera's; the model sees all of it.
        const IRectangle analysis(0, 0, static_cast<int>(picture.input.width * 2),
                                  static_cast<int>(picture.input.height * 2));
        const auto detections = road.detect(camera, analysis);
        ASSERT_EQ(detections.size(), 1u);
        expectPersonAt(detections[0], road.person, picture.input, analysis, road.tolerance);

        // The hips lie at row top + 2u, columns left + u and left + 3u.
        const GridCell leftHip = road.person[static_cast<int>(BodypixBodyPart::LeftHip)];
        const GridCell rightHip = road.person[static_cast<int>(BodypixBodyPart::RightHip)];
        const FPoint centre = hipCentre(detections[0]);
        EXPECT_NEAR(centre.x, 16.0f * (leftHip.x + rightHip.x), 3.0f);
        EXPECT_NEAR(centre.y, 32.0f * leftHip.y, 3.0f);
        expectDwell(42, centre);
    }
}

TEST(InferenceEndToEnd, MovenetFromACameraStreamToDwell) {
    // The camera shows one picture: its first 17 pixels are grey, so that they come through the
    // stream's NV12 frames with their value; each gives a joint at y = x = value / 256 with
    // score value / 256. The hips are at 160 and 168.
    const auto value = [](BodypixBodyPart part) {
        return part == BodypixBodyPart::LeftHip    ? 160
               : part == BodypixBodyPart::RightHip ? 168
                                                   : 100 + 5 * static_cast<int>(part);
    };
    cv::Mat picture(192, 192, CV_8UC3, cv::Scalar(0, 0, 0));
    for (BodypixBodyPart part : BodyParts) {
        const auto grey = static_cast<std::uint8_t>(value(part));
        picture.at<cv::Vec3b>(0, static_cast<int>(part)) = cv::Vec3b(grey, grey, grey);
    }
    const std::string description = "channels = 1\nchannel.1.resolutions = 1920x1080, 192x192\n";
    HostCameraScope camera(description);
    std::filesystem::create_directory(camera.folder() + "/frames");
    ASSERT_TRUE(cv::imwrite(camera.folder() + "/frames/0.png", picture));
    camera.reload(description + "video.input = images:frames\n");

    AxisVideoStreamSource stream(Resolution(192, 192));
    MovenetPoseDetector detector(forgedModel("movenet_192x192"));
    ASSERT_TRUE(detector.initialize());
    const auto detection = detector.detect(stream, IRectangle(0, 0, 768, 768));
    ASSERT_EQ(detection.skeleton.keypoints().size(), 17u);
    // The video service's colour conversion keeps a grey within a step or two.
    for (BodypixBodyPart part : BodyParts) {
        const float expected = static_cast<float>(value(part)) / 256.0f * 768.0f;
        const auto& keypoint = detection.skeleton.keypoints().get(part);
        EXPECT_NEAR(static_cast<float>(keypoint.point.x), expected, 7.0f) << toString(part);
        EXPECT_NEAR(static_cast<float>(keypoint.point.y), expected, 7.0f) << toString(part);
    }
    const FPoint centre = hipCentre(detection);
    EXPECT_NEAR(centre.x, 164.0f / 256.0f * 768.0f, 7.0f);
    expectDwell(5, centre);
}

} // namespace

#endif
