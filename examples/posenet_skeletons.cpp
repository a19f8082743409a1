// Finds people in a picture or a video clip with a PoseNet model on the inference service and
// writes the skeletons found, drawn over the picture, as PNG files.
//
//   posenet_skeletons [--threshold T] <model.tflite> <picture> <out.png>
//   posenet_skeletons [--threshold T] <model.tflite> <clip> <out folder> [first [count [step]]]
//
// The model is one with PosenetPoseDetector's interface, such as the build's
// models/posenet_mobilenet_481x353.tflite (the published PoseNet). A clip is anything OpenCV's
// videoio reads; from frame `first` (0), every `step`th frame (1), `count` frames (all) are
// written as <out folder>/frame_NNNNN.png. T is the lowest pose score kept (0.25). For each
// picture, one line per person goes to standard output: score, box and the feet's midpoint.
#include "Stemlib.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

using namespace Ombrel;

namespace {

constexpr float kKeypointScore = 0.3f;

// The skeletons over a BGR picture: bones in one colour per person, joints as dots, the score
// above the box.
void drawPoses(cv::Mat& bgr, const PosenetPoseDetector::Detections& people) {
    static const cv::Scalar colours[] = {{0, 255, 255}, {255, 128, 0}, {0, 200, 0},
                                         {255, 0, 255}, {0, 128, 255}, {255, 255, 0}};
    int index = 0;
    for (const PoseDetectionBase<BodypixBodyPart>& person : people) {
        const cv::Scalar& colour = colours[index++ % 6];
        for (const Edge<BodypixBodyPart>& edge : person.skeleton) {
            if (edge.keypoint0.score >= kKeypointScore && edge.keypoint1.score >= kKeypointScore) {
                cv::line(bgr, cv::Point(edge.keypoint0.point.x, edge.keypoint0.point.y),
                         cv::Point(edge.keypoint1.point.x, edge.keypoint1.point.y), colour, 2,
                         cv::LINE_AA);
            }
        }
        for (BodypixBodyPart part : BodyParts) {
            Keypoint joint;
            if (person.skeleton.getKeypoint(part, kKeypointScore, joint)) {
                cv::circle(bgr, cv::Point(joint.point.x, joint.point.y), 3, colour, cv::FILLED,
                           cv::LINE_AA);
            }
        }
        char text[16];
        std::snprintf(text, sizeof text, "%.2f", static_cast<double>(person.confidence));
        cv::putText(bgr, text, cv::Point(person.boundingBox.x, person.boundingBox.y - 4),
                    cv::FONT_HERSHEY_SIMPLEX, 0.45, colour, 1, cv::LINE_AA);
    }
}

void printPoses(const std::string& label, const PosenetPoseDetector::Detections& people) {
    std::cout << label << ": " << people.size() << (people.size() == 1 ? " person" : " people")
              << "\n";
    for (const PoseDetectionBase<BodypixBodyPart>& person : people) {
        FPoint feet;
        const bool hasFeet = person.skeleton.getInferior(feet, kKeypointScore);
        std::printf("  score %.2f  box %d,%d %dx%d", static_cast<double>(person.confidence),
                    person.boundingBox.x, person.boundingBox.y, person.boundingBox.width,
                    person.boundingBox.height);
        if (hasFeet) {
            std::printf("  feet %.0f,%.0f", static_cast<double>(feet.x),
                        static_cast<double>(feet.y));
        }
        std::printf("\n");
    }
}

// Detects in one BGR picture, in its own pixels.
PosenetPoseDetector::Detections detectIn(PosenetPoseDetector& detector, const cv::Mat& bgr) {
    cv::Mat rgb;
    cv::cvtColor(bgr, rgb, cv::COLOR_BGR2RGB);
    ImageBufferFrameSource frame(
        Resolution(static_cast<unsigned int>(rgb.cols), static_cast<unsigned int>(rgb.rows)),
        rgb.data);
    return detector.detect(frame, IRectangle(0, 0, rgb.cols, rgb.rows));
}

int usage() {
    std::cerr << "usage: posenet_skeletons [--threshold T] <model.tflite> <picture> <out.png>\n"
                 "       posenet_skeletons [--threshold T] <model.tflite> <clip> <out folder> "
                 "[first [count [step]]]\n";
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    float threshold = 0.25f;
    if (args.size() >= 2 && args[0] == "--threshold") {
        threshold = std::strtof(args[1].c_str(), nullptr);
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.size() < 3 || args.size() > 6) {
        return usage();
    }
    const std::string& model = args[0];
    const std::string& input = args[1];
    const std::string& output = args[2];

    auto detector = std::make_unique<PosenetPoseDetector>(model, "");
    try {
        detector->initialize();
    } catch (const std::exception& error) {
        std::cerr << "posenet_skeletons: cannot start the model: " << error.what() << "\n";
        return 1;
    }
    detector->setConfidenceThreshold(threshold);

    const cv::Mat picture = cv::imread(input, cv::IMREAD_COLOR);
    if (!picture.empty()) {
        if (args.size() != 3) {
            return usage();
        }
        cv::Mat drawn = picture.clone();
        const auto people = detectIn(*detector, picture);
        printPoses(input, people);
        drawPoses(drawn, people);
        if (!cv::imwrite(output, drawn)) {
            std::cerr << "posenet_skeletons: cannot write " << output << "\n";
            return 1;
        }
        return 0;
    }

    cv::VideoCapture clip(input);
    if (!clip.isOpened()) {
        std::cerr << "posenet_skeletons: " << input << " is neither a picture nor a clip\n";
        return 1;
    }
    const long first = args.size() > 3 ? std::strtol(args[3].c_str(), nullptr, 10) : 0;
    const long count = args.size() > 4 ? std::strtol(args[4].c_str(), nullptr, 10) : -1;
    const long step = args.size() > 5 ? std::max(1L, std::strtol(args[5].c_str(), nullptr, 10)) : 1;
    std::error_code error;
    std::filesystem::create_directories(output, error);
    cv::Mat frame;
    long written = 0;
    for (long index = 0; (count < 0 || written < count) && clip.read(frame); ++index) {
        if (index < first || (index - first) % step != 0) {
            continue;
        }
        const auto people = detectIn(*detector, frame);
        printPoses("frame " + std::to_string(index), people);
        drawPoses(frame, people);
        char name[32];
        std::snprintf(name, sizeof name, "/frame_%05ld.png", index);
        if (!cv::imwrite(output + name, frame)) {
            std::cerr << "posenet_skeletons: cannot write " << output + name << "\n";
            return 1;
        }
        ++written;
    }
    return 0;
}
