// The markers application's road through the host camera: frames with painted markers played
// from an image folder, the camera source, ArucoDetector's polygon form per area, and
// MarkersManager's conditions over real time, with its configuration round trip through Config.
#include "ArucoDetector.h"
#include "AxisVideoStreamSource.h"
#include "Config.h"
#include "HostCameraScope.h"
#include "MarkerPainting.h"
#include "MarkersManager.h"
#include "ScratchDirectory.h"
#include "utils.h"

#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

std::vector<int> sortedIds(const ArucoDetections& detections) {
    std::vector<int> ids;
    for (const ArucoDetection& detection : detections) {
        ids.push_back(detection.id);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

// Writes the pictures into folder/frames as frame000.png, frame001.png, ... (the camera plays
// them in name order), picture k repeated counts[k] times.
void writeFrames(const std::string& folder, const std::vector<cv::Mat>& pictures,
                 const std::vector<int>& counts) {
    const std::filesystem::path frames = std::filesystem::path(folder) / "frames";
    std::filesystem::create_directory(frames);
    int n = 0;
    for (std::size_t k = 0; k < pictures.size(); ++k) {
        const std::filesystem::path first = frames / "first.png";
        ASSERT_TRUE(cv::imwrite(first.string(), pictures[k]));
        for (int i = 0; i < counts[k]; ++i) {
            char name[32];
            std::snprintf(name, sizeof(name), "frame%03d.png", n++);
            std::filesystem::copy_file(first, frames / name);
        }
        std::filesystem::remove(first);
    }
}

// A markers application's configuration: the head lines, then the manager's text with its
// areas normalized to the analysis resolution.
class MarkersConfig : public Config {
public:
    explicit MarkersConfig(const std::string& file) : Config(file, 3) { initialize(); }
    std::string serialize() const override { return Config::serialize() + markers.serialize(view); }

    Resolution view{640, 360};
    MarkersManager markers{3};

protected:
    using Config::deserializeStream;
    bool deserializeStream(std::stringstream& s, int) override {
        markers.deserialize(s, view);
        return !s.fail();
    }
};

} // namespace

TEST(MarkersEndToEnd, TiltedNoisyMarkersOfEachDictionaryComeThroughTheCamera) {
    // One 1280x720 picture per dictionary: markers of 40, 64 and 96 pixels, tilted and turned,
    // with noise; two areas, a rectangle on the left and a triangle on the right.
    struct Placed {
        int id;
        float side, x, y, tilt, turn;
        int area;
    };
    const std::vector<Placed> layout = {
        {11, 40, 200, 160, 0, 0, 0},     {222, 64, 420, 420, 30, 15, 0},
        {999, 96, 220, 560, 20, -40, 0}, {5, 64, 1000, 180, 25, 0, 1},
        {640, 40, 1150, 300, 0, 90, 1},  {77, 96, 660, 360, 0, 0, -1}, // between the areas
    };
    const IPolygon left(IRectangle(40, 40, 540, 640));
    const IPolygon right(760, 40, 1240, 40, 1240, 520);
    std::vector<cv::Mat> pictures;
    std::vector<std::map<int, std::array<cv::Point2f, 4>>> truth;
    for (int size = 4; size <= 7; ++size) {
        cv::Mat picture = markerBackground(1280, 720);
        truth.emplace_back();
        for (const Placed& p : layout) {
            MarkerPlacement placement;
            placement.dictionarySize = size;
            placement.id = p.id;
            placement.side = p.side;
            placement.centre = cv::Point2f(p.x, p.y);
            placement.tiltDegrees = p.tilt;
            placement.turnDegrees = p.turn;
            truth.back()[p.id] = paintMarker(picture, placement);
        }
        addNoise(picture, 6.0, static_cast<uint64_t>(size));
        pictures.push_back(picture);
    }
    const std::string description = "channels = 1\nchannel.1.resolutions = 1920x1080, 1280x720\n";
    HostCameraScope camera(description);
    writeFrames(camera.folder(), pictures, {1, 1, 1, 1});
    camera.reload(description + "video.input = images:frames\n");

    AxisVideoStreamSource stream(Resolution(1280, 720));
    ArucoDetector detector;
    for (int size = 4; size <= 7; ++size) {
        SCOPED_TRACE("dictionary size " + std::to_string(size));
        ASSERT_TRUE(stream.loadFrameFromCamera());
        detector.setDictionarySize(size);
        const auto& corners = truth[static_cast<std::size_t>(size - 4)];
        for (int area = 0; area < 2; ++area) {
            const ArucoDetections found = detector.detectMarkers(stream, area == 0 ? left : right);
            std::vector<int> expected;
            for (const Placed& p : layout) {
                if (p.area == area) {
                    expected.push_back(p.id);
                }
            }
            std::sort(expected.begin(), expected.end());
            EXPECT_EQ(sortedIds(found), expected) << "area " << area;
            // Corners in the frame's pixels, in OpenCV's order, through the camera's NV12
            // conversion and the noise.
            for (const ArucoDetection& detection : found) {
                const auto& truthCorners = corners.at(detection.id);
                for (int i = 0; i < 4; ++i) {
                    const FPoint& c = detection.corners.getPoint(i);
                    EXPECT_LT(
                        cv::norm(cv::Point2f(c.x, c.y) - truthCorners[static_cast<std::size_t>(i)]),
                        1.0)
                        << "marker " << detection.id << " corner " << i;
                }
            }
        }
    }
}

TEST(MarkersEndToEnd, MarkersApplicationLoopOverRealTime) {
    // The configuration arrives as text (as from a web page), is stored, and a second object
    // reads it back from the file: area 0 on the left alerts with at least one marker for a
    // second, area 1 on the right with fewer than two at once, area 2 is off; a set must stay
    // for a second to be reported; 5 by 5 markers.
    ScratchDirectory configFolder;
    const std::string configFile = configFolder.file("markers.conf");
    const std::string text = "3\nen\n3\n"
                             "1 0 2 1 1 4 0.05 0.1 0.45 0.1 0.45 0.9 0.05 0.9 \n"
                             "1 1 0 2 0 4 0.55 0.1 0.95 0.1 0.95 0.9 0.55 0.9 \n"
                             "0 2 1 1 0 0 \n"
                             "1 5\n";
    {
        MarkersConfig web(configFile);
        ASSERT_TRUE(web.update(text));
    }
    MarkersConfig config(configFile);
    EXPECT_EQ(config.serialize(), text);
    EXPECT_EQ(readWholeFile(configFile), text);
    MarkersManager& markers = config.markers;
    ArucoDetector detector;
    detector.setDictionarySize(markers.getDictionarySize());

    // The scene at 20 frames a second: area 0 empty, then marker 7 laid down (1.4 s), swapped
    // for 3 and 12 (1.4 s), then taken away; area 1 holds marker 20 throughout and marker 21
    // beside it while 3 and 12 are shown.
    const auto picture = [](const std::vector<int>& leftIds, const std::vector<int>& rightIds,
                            uint64_t seed) {
        cv::Mat frame = markerBackground(640, 360);
        const auto place = [&](int id, float x, float y) {
            MarkerPlacement placement;
            placement.dictionarySize = 5;
            placement.id = id;
            placement.side = 52;
            placement.centre = cv::Point2f(x, y);
            placement.tiltDegrees = 25;
            paintMarker(frame, placement);
        };
        for (std::size_t i = 0; i < leftIds.size(); ++i) {
            place(leftIds[i], 100 + 110 * static_cast<float>(i), 120 + 100 * static_cast<float>(i));
        }
        for (std::size_t i = 0; i < rightIds.size(); ++i) {
            place(rightIds[i], 420 + 120 * static_cast<float>(i), 180);
        }
        addNoise(frame, 5.0, seed);
        return frame;
    };
    const std::string description = "channels = 1\nchannel.1.resolutions = 1920x1080, 640x360\n"
                                    "video.framerate = 20\n";
    HostCameraScope camera(description);
    writeFrames(camera.folder(),
                {picture({}, {20}, 1), picture({7}, {20}, 2), picture({12, 3}, {20, 21}, 3),
                 picture({}, {20}, 4)},
                {6, 28, 28, 6});
    camera.reload(description + "video.input = images:frames\n");

    struct Frame {
        TimePoint before, after; // around the area's update and queries
        std::string state;
        bool alert;
    };
    struct Event {
        std::string state;
        TimePoint at;
    };
    std::vector<std::vector<Frame>> frames(3);
    std::vector<std::vector<Event>> events(3);
    std::vector<std::size_t> rightCounts;

    AxisVideoStreamSource stream(Resolution(640, 360));
    const TimePoint start = now();
    while (timeSince(start) < 3350) {
        ASSERT_TRUE(stream.loadFrameFromCamera());
        for (int area = 0; area < markers.getNumberOfAreaAlertInfos(); ++area) {
            if (!markers.isActive(area)) {
                continue;
            }
            const ArucoDetections found = detector.detectMarkers(stream, markers.getPolygon(area));
            Frame frame;
            frame.before = now();
            ASSERT_TRUE(markers.updateDetections(found, area));
            frame.alert = markers.isAlertConditionSatisfied(area);
            if (markers.isDataConditionSatisfied(area)) {
                events[area].push_back({markers.getDataEventState(area), now()});
                markers.setDataEventSent(area);
            }
            frame.state = markers.getDataEventState(area);
            frame.after = now();
            frames[area].push_back(frame);
            if (area == 1) {
                rightCounts.push_back(found.size());
            }
        }
    }
    EXPECT_TRUE(frames[2].empty());

    // Each area went through its sets in order, each seen on several frames.
    const auto runs = [](const std::vector<Frame>& seen) {
        std::vector<std::string> states;
        for (const Frame& f : seen) {
            if (states.empty() || states.back() != f.state) {
                states.push_back(f.state);
            }
        }
        return states;
    };
    ASSERT_EQ(runs(frames[0]), (std::vector<std::string>{"empty", "7", "3,12", "empty"}));
    ASSERT_EQ(runs(frames[1]), (std::vector<std::string>{"20", "20,21", "20"}));

    // One data event per set that stayed a second: never before a second after the set was
    // first seen, and while it was still shown. The first empty set and the last ones are too
    // short.
    for (int area = 0; area < 2; ++area) {
        SCOPED_TRACE("area " + std::to_string(area));
        std::vector<std::string> reported;
        for (const Event& event : events[area]) {
            reported.push_back(event.state);
            const auto first = std::find_if(frames[area].begin(), frames[area].end(),
                                            [&](const Frame& f) { return f.state == event.state; });
            EXPECT_GE(event.at - first->before, std::chrono::milliseconds(1000)) << event.state;
        }
        const std::vector<std::string> expected = area == 0
                                                      ? std::vector<std::string>{"7", "3,12"}
                                                      : std::vector<std::string>{"20", "20,21"};
        EXPECT_EQ(reported, expected);
    }

    // Area 0's alert: only with markers present, never before a whole second since the first
    // marker was laid down (the swap keeps the count satisfied and the time running), always
    // after it, and at once gone when the area empties.
    // The manager's start time lies between the first such frame's before and after.
    const Frame* laidDown = nullptr;
    bool alerted = false;
    for (const Frame& f : frames[0]) {
        if (f.state == "empty") {
            laidDown = nullptr;
            EXPECT_FALSE(f.alert);
            continue;
        }
        if (laidDown == nullptr) {
            laidDown = &f;
        }
        if (f.alert) {
            alerted = true;
            EXPECT_GE(f.after - laidDown->before, std::chrono::milliseconds(1000));
        } else {
            EXPECT_LT(f.before - laidDown->after, std::chrono::milliseconds(1000));
        }
    }
    EXPECT_TRUE(alerted);
    // Area 1's alert, with no waiting: exactly the frames with fewer than two markers.
    for (std::size_t i = 0; i < frames[1].size(); ++i) {
        EXPECT_EQ(frames[1][i].alert, rightCounts[i] < 2) << "frame " << i;
    }
}
