// The published PoseNet, converted by the model forge, finding real people: a photograph, frames
// of a surveillance clip through the host camera, a mosaic of the clip's path, and the same
// network at the other detectors' input sizes.
#include "AxisVideoStreamSource.h"
#include "Bodypix_320W_240H_PoseDetector.h"
#include "HostCameraScope.h"
#include "ImageFromImageFileSource.h"
#include "LarodPoseDetector.h"
#include "LogLines.h"
#include "PanoImageFrameSource.h"
#include "PosenetPanoDetector.h"
#include "PosenetPoseDetector.h"
#include "RealPosenet.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

using Poses = std::vector<PoseDetectionBase<BodypixBodyPart>>;

constexpr float kJointScore = 0.3f;
constexpr float kPoseScore = 0.25f;

// The bottom of a person: the ankles (or knees), else the bottom of the box.
FPoint feetOf(const PoseDetectionBase<BodypixBodyPart>& person) {
    FPoint feet;
    if (!person.skeleton.getInferior(feet, kJointScore)) {
        feet = FPoint(static_cast<float>(person.boundingBox.x) +
                          static_cast<float>(person.boundingBox.width) / 2.0f,
                      static_cast<float>(person.boundingBox.y + person.boundingBox.height));
    }
    return feet;
}

float distance(const FPoint& a, const FPoint& b) {
    return std::hypot(a.x - b.x, a.y - b.y);
}

IPoint jointAt(const PoseDetectionBase<BodypixBodyPart>& person, BodypixBodyPart part) {
    return person.skeleton.keypoints().get(part).point;
}

// People in frames of vtest.avi, counted by eye on the frames: where each one's feet touch the
// ground, in the clip's 768 x 576 pixels. People who stand behind another or behind the sign
// are listed but need not be found.
struct Person {
    float x;
    float y;
    bool required;
};
struct CountedFrame {
    int index;
    std::vector<Person> people;
};

const std::vector<CountedFrame>& countedFrames() {
    static const std::vector<CountedFrame> frames = {
        {0, {{268, 303, true}, {515, 228, true}, {662, 317, true}}},
        {200,
         {{97, 212, true},
          {235, 263, true},
          {502, 218, true},
          {633, 365, true},
          {722, 350, true},
          {688, 152, false}, // a pair walking side by side, far away
          {711, 152, false}}},
        {400, {{290, 283, true}, {603, 200, true}, {713, 405, true}}},
        {600,
         {{200, 212, false}, // far away, about 50 pixels tall
          {578, 285, true},
          {686, 292, true},
          {475, 413, true},
          {652, 407, true},
          {305, 572, true}}},
        {700,
         {{197, 236, true},
          {292, 292, true},
          {380, 252, true},
          {413, 200, false}, // behind the sign
          {487, 197, true},
          {533, 230, true},
          {702, 302, true},
          {125, 392, true}}},
    };
    return frames;
}

// Each required person has a pose whose feet lie within 30 pixels of theirs, and every pose
// lies within 40 pixels of a counted person: nobody missed, nobody invented.
void expectPeopleWhereCounted(const Poses& poses, const CountedFrame& frame) {
    for (const Person& person : frame.people) {
        float nearest = 1e9f;
        for (const auto& pose : poses) {
            nearest = std::min(nearest, distance(feetOf(pose), FPoint(person.x, person.y)));
        }
        if (person.required) {
            EXPECT_LE(nearest, 30.0f) << "nobody found at " << person.x << "," << person.y;
        }
    }
    for (const auto& pose : poses) {
        const FPoint feet = feetOf(pose);
        float nearest = 1e9f;
        for (const Person& person : frame.people) {
            nearest = std::min(nearest, distance(feet, FPoint(person.x, person.y)));
        }
        EXPECT_LE(nearest, 40.0f) << "a pose (score " << pose.confidence << ") at " << feet.x << ","
                                  << feet.y << " where nobody was counted";
    }
}

// People counted once: poses whose feet lie within 30 pixels of each other are one person.
std::size_t distinctPeople(const Poses& poses) {
    std::vector<FPoint> seen;
    for (const auto& pose : poses) {
        const FPoint feet = feetOf(pose);
        bool known = false;
        for (const FPoint& other : seen) {
            known = known || distance(feet, other) <= 30.0f;
        }
        if (!known) {
            seen.push_back(feet);
        }
    }
    return seen.size();
}

// Takes frames from the stream, cheaply, until the next one delivered is frame `index`.
void skipTo(AxisVideoStreamSource& stream, int& next, int index) {
    std::vector<std::uint8_t> small(64 * 48 * 3);
    for (; next < index; ++next) {
        ASSERT_TRUE(stream.getFrame(Resolution(64, 48), 0, small.data()));
    }
}

template <typename Detector>
std::unique_ptr<Detector> started(const std::string& model) {
    auto detector = std::make_unique<Detector>(forgedModel(model), "");
    EXPECT_TRUE(detector->initialize());
    detector->setConfidenceThreshold(kPoseScore);
    return detector;
}

} // namespace

// The photograph of a footballer: the strongest pose is him, upright, with his joints in a
// body's order from head to feet and his left and right sides on consistent sides.
TEST(PosenetRealPictures, FindsTheFootballerUpright) {
    STEMLIB_REQUIRE_REAL_POSENET();
    HostCameraScope camera;
    ImageFromImageFileSource picture(sampleDataPath("messi5.jpg"));
    const Resolution size = picture.getResolution();
    auto detector = started<PosenetPoseDetector>(modelforge::posenetModel().name);
    const Poses poses = detector->detect(
        picture, IRectangle(0, 0, static_cast<int>(size.width), static_cast<int>(size.height)));
    ASSERT_FALSE(poses.empty());
    const auto& player = poses.front();
    EXPECT_GE(player.confidence, 0.6f);
    // He stands in the middle of the 548 x 342 picture, about 290 pixels wide with his arms
    // out and 210 tall from his hand to his boot.
    EXPECT_NEAR(player.boundingBox.x + player.boundingBox.width / 2, 280, 40);
    EXPECT_GE(player.boundingBox.height, 150);
    EXPECT_GE(player.boundingBox.width, 200);

    using P = BodypixBodyPart;
    int sure = 0;
    for (P part : BodyParts) {
        sure += player.skeleton.keypoints().get(part).score >= kJointScore;
    }
    EXPECT_GE(sure, 15);
    const auto y = [&](P part) { return jointAt(player, part).y; };
    const auto x = [&](P part) { return jointAt(player, part).x; };
    EXPECT_LT(y(P::Nose), y(P::LeftShoulder));
    EXPECT_LT(y(P::Nose), y(P::RightShoulder));
    EXPECT_LT(std::max(y(P::LeftShoulder), y(P::RightShoulder)),
              std::min(y(P::LeftHip), y(P::RightHip)));
    EXPECT_LT(std::max(y(P::LeftHip), y(P::RightHip)), std::min(y(P::LeftAnkle), y(P::RightAnkle)));
    EXPECT_LT(y(P::LeftEye), y(P::LeftShoulder));
    // Facing the camera, his left side is on the picture's right, for every pair.
    const std::pair<P, P> sides[] = {{P::LeftEye, P::RightEye},
                                     {P::LeftShoulder, P::RightShoulder},
                                     {P::LeftHip, P::RightHip},
                                     {P::LeftWrist, P::RightWrist}};
    for (const auto& [left, right] : sides) {
        EXPECT_GT(x(left), x(right)) << toString(left);
    }
}

// Frames of the clip through the host camera, the stream's NV12 cropped and scaled to the
// model's input: people are found where they were counted, and only there.
TEST(PosenetRealFootage, FindsPeopleWhereTheyWereCounted) {
    STEMLIB_REQUIRE_REAL_POSENET();
    HostCameraScope camera(sampleClipCamera());
    AxisVideoStreamSource stream(Resolution(768, 576));
    auto detector = started<PosenetPoseDetector>(modelforge::posenetModel().name);
    // 481 x 353 takes the centred 768 x 563 of the frame.
    const IRectangle modelView(0, 6, 768, 563);
    int next = 0;
    for (const CountedFrame& frame : countedFrames()) {
        if (kSanitizedBuild && frame.index > 200) {
            break;
        }
        SCOPED_TRACE("frame " + std::to_string(frame.index));
        skipTo(stream, next, frame.index);
        const Poses poses = detector->detect(stream, modelView);
        ++next;
        expectPeopleWhereCounted(poses, frame);
    }
}

// Whether a pose lies on a counted person: its box above that person's feet and across them,
// as a whole person or one cut at a patch's edge.
bool onCountedPerson(const PoseDetectionBase<BodypixBodyPart>& pose, const CountedFrame& frame) {
    const IBoundingBox& box = pose.boundingBox;
    for (const Person& person : frame.people) {
        const float centre = static_cast<float>(box.x) + static_cast<float>(box.width) / 2.0f;
        if (std::fabs(centre - person.x) <= 30.0f &&
            static_cast<float>(box.y + box.height) <= person.y + 30.0f &&
            static_cast<float>(box.y) >= person.y - 160.0f) {
            return true;
        }
    }
    return false;
}

// The far side of the path, where people are smallest, as two overlapping halves one above the
// other in a mosaic, each enlarged by 0.84 where the whole frame is shrunk by 0.63: the mosaic
// finds at least as many of the people who stand there as the whole frame does, each brought
// back to where they stand in the frame.
TEST(PosenetRealFootage, MosaicOfThePathFindsAsManyAsTheWholeFrame) {
    STEMLIB_REQUIRE_REAL_POSENET();
    HostCameraScope camera(sampleClipCamera());
    AxisVideoStreamSource stream(Resolution(768, 576));
    auto whole = started<PosenetPoseDetector>(modelforge::posenetModel().name);
    auto mosaicDetector = started<PosenetPanoDetector>(modelforge::posenetModel().name);
    PanoImageFrameSource mosaic(Resolution(481, 353));
    mosaic.setGridResolution(Resolution(1, 2));
    const IRectangles path = {IRectangle(0, 60, 404, 210), IRectangle(364, 60, 404, 210)};
    // Who stands whole on that side: feet from 130 to 270.
    const auto onFarSide = [](const FPoint& feet) { return feet.y >= 130.0f && feet.y <= 270.0f; };
    std::vector<std::uint8_t> full(768 * 576 * 3);
    int next = 0;
    for (const CountedFrame& frame : countedFrames()) {
        if (kSanitizedBuild && frame.index != 200) {
            continue;
        }
        SCOPED_TRACE("frame " + std::to_string(frame.index));
        skipTo(stream, next, frame.index);
        std::size_t inFrame = 0;
        for (const auto& pose : whole->detect(stream, IRectangle(0, 6, 768, 563))) {
            inFrame += onFarSide(feetOf(pose));
        }
        // The next frame, a tenth of a second later, whole into the stream's own buffer.
        ASSERT_TRUE(stream.getFrame(Resolution(768, 576), 0, full.data()));
        next += 2;
        mosaic.loadImagePatches(stream, path);
        ASSERT_EQ(mosaic.getNumberOfLoadedPatches(), 2u);
        const Poses inMosaic = mosaicDetector->detect(mosaic);
        EXPECT_GE(distinctPeople(inMosaic), inFrame);
        std::printf("[ posenet  ] frame %d: %zu people on the far side in the whole frame, %zu in "
                    "the mosaic\n",
                    frame.index, inFrame, distinctPeople(inMosaic));
        for (const auto& pose : inMosaic) {
            EXPECT_TRUE(onCountedPerson(pose, frame))
                << "a pose (score " << pose.confidence << ") at " << pose.boundingBox.x << ","
                << pose.boundingBox.y << " where nobody was counted";
        }
    }
}

// The same network written for the 1281 x 721 and 320 x 240 detectors: its tensors bind and jobs
// run without an error line, and the larger one, on the clip's first frame through the host
// camera, finds the people counted there. (The 320 x 240 detector joins forward and backward
// displacements block by block, not channel by channel, so its poses are not compared.)
TEST(PosenetRealFootage, OtherInputSizesBindAndRun) {
    STEMLIB_REQUIRE_REAL_POSENET();
    HostCameraScope camera(sampleClipCamera());
    RecordingLogger logger;
    ScopedLogger scope(logger);
    AxisVideoStreamSource stream(Resolution(768, 576));

    auto large = std::make_unique<LarodPoseDetector>(
        forgedModel(modelforge::posenetModel1281x721().name), "");
    ASSERT_TRUE(large->initialize());
    large->setConfidenceThreshold(kPoseScore);
    // 1281 x 721 takes the centred 768 x 432 of the frame.
    const Poses found = large->detect(stream, IRectangle(0, 72, 768, 432));
    expectPeopleWhereCounted(found, countedFrames().front());

    auto small = std::make_unique<Bodypix_320W_240H_PoseDetector>(
        forgedModel(modelforge::posenetModel320x240().name));
    ASSERT_TRUE(small->initialize());
    small->detect(stream, IRectangle(0, 0, 768, 576));
    const std::vector<std::string> errors = linesAt(logger, "error");
    EXPECT_TRUE(errors.empty()) << errors.front();
}
