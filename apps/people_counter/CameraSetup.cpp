#include "CameraSetup.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#ifndef PEOPLE_COUNTER_DEFAULT_CAMERA
#define PEOPLE_COUNTER_DEFAULT_CAMERA "vtest-camera.txt"
#endif

namespace PeopleCounting {

namespace fs = std::filesystem;
using Ombrel::Resolution;

namespace {

std::string trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

bool readWholeFile(const std::string& path, std::string& text) {
    std::ifstream in(path);
    if (!in) {
        return false;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
    return true;
}

// Resolutions such as "1920x1080, 1280x720".
std::vector<Resolution> parseResolutions(const std::string& list) {
    std::vector<Resolution> resolutions;
    std::istringstream in(list);
    std::string item;
    while (std::getline(in, item, ',')) {
        unsigned int width = 0;
        unsigned int height = 0;
        char separator = 0;
        std::istringstream one(trim(item));
        if (one >> width >> separator >> height && separator == 'x' && width > 0 && height > 0) {
            resolutions.emplace_back(width, height);
        }
    }
    return resolutions;
}

unsigned int even(double value) {
    return static_cast<unsigned int>(std::max(2.0, 2.0 * std::floor(value / 2.0)));
}

// Frame count, rate and size of a video file, as OpenCV reads it.
bool probeVideo(const std::string& path, CameraPlan& plan, std::string& error) {
    cv::VideoCapture capture(path, cv::CAP_ANY);
    if (!capture.isOpened()) {
        error = "cannot open the video " + path;
        return false;
    }
    plan.clipFrames = std::max(0L, static_cast<long>(capture.get(cv::CAP_PROP_FRAME_COUNT)));
    plan.clipFps = capture.get(cv::CAP_PROP_FPS);
    if (!(plan.clipFps > 0.0 && plan.clipFps < 1000.0)) {
        plan.clipFps = 0.0;
    }
    plan.clipSize = Resolution(static_cast<unsigned int>(capture.get(cv::CAP_PROP_FRAME_WIDTH)),
                               static_cast<unsigned int>(capture.get(cv::CAP_PROP_FRAME_HEIGHT)));
    return true;
}

// The images of a folder that OpenCV reads, and the size of the first.
bool probeImages(const std::string& folder, CameraPlan& plan, std::string& error) {
    std::vector<std::string> files;
    std::error_code failed;
    for (const auto& entry : fs::directory_iterator(folder, failed)) {
        const std::string name = entry.path().filename().string();
        if (!name.empty() && name[0] != '.' && entry.is_regular_file() &&
            cv::haveImageReader(entry.path().string())) {
            files.push_back(entry.path().string());
        }
    }
    if (failed || files.empty()) {
        error = "no image in the folder " + folder;
        return false;
    }
    std::sort(files.begin(), files.end());
    const cv::Mat first = cv::imread(files.front());
    if (first.empty()) {
        error = "cannot read the image " + files.front();
        return false;
    }
    plan.clipFrames = static_cast<long>(files.size());
    plan.clipSize =
        Resolution(static_cast<unsigned int>(first.cols), static_cast<unsigned int>(first.rows));
    return true;
}

// A description for a video or an image folder: one channel at the picture's size (at most
// 1024 wide), the picture's aspect ratio, and the video's own frame rate.
std::string describeInput(const std::string& input, const Resolution& size, double framerate) {
    const double scale = size.width > 1024 ? 1024.0 / size.width : 1.0;
    const unsigned int width = even(size.width * scale);
    const unsigned int height = even(size.height * scale);
    const double ratio = static_cast<double>(size.width) / size.height;
    std::ostringstream out;
    out << "# Written by people_counter for " << input << "\n"
        << "root.ImageSource.I0.Sensor.AspectRatio = "
        << (std::abs(ratio - 4.0 / 3.0) < 0.02 ? "4:3"
            : std::abs(ratio - 1.0) < 0.02     ? "1:1"
                                               : "16:9")
        << "\nroot.Image.I0.Appearance.Rotation = 0\nchannels = 1\nchannel.1.resolutions = "
        << width << "x" << height << "\nvideo.input = " << input << "\n"
        << "video.framerate = " << framerate << "\n";
    return out.str();
}

} // namespace

std::string sampleDataDirectory() {
    if (const char* dir = std::getenv("STEMLIB_SAMPLE_DATA_DIR"); dir != nullptr && *dir != '\0') {
        return dir;
    }
    const std::string system = "/usr/share/doc/opencv-doc/examples/data";
    struct stat info {};
    if (::stat((system + "/vtest.avi").c_str(), &info) == 0) {
        return system;
    }
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    const std::string cache = (xdg != nullptr && *xdg != '\0')
                                  ? std::string(xdg)
                                  : std::string(home != nullptr ? home : "") + "/.cache";
    return cache + "/stemlib/opencv-doc-4.6/data";
}

bool expandVariables(const std::string& text, std::string& expanded, std::string& error) {
    expanded.clear();
    std::size_t lineStart = 0;
    while (lineStart < text.size()) {
        const std::size_t lineEnd = text.find('\n', lineStart);
        const std::size_t next = lineEnd == std::string::npos ? text.size() : lineEnd + 1;
        const std::string line = text.substr(lineStart, next - lineStart);
        lineStart = next;
        if (trim(line).rfind('#', 0) == 0) {
            expanded += line; // comments stay as they are
            continue;
        }
        std::size_t at = 0;
        while (at < line.size()) {
            const std::size_t open = line.find("${", at);
            if (open == std::string::npos) {
                expanded += line.substr(at);
                break;
            }
            const std::size_t close = line.find('}', open);
            if (close == std::string::npos) {
                error = "an unclosed ${ in the camera description";
                return false;
            }
            expanded += line.substr(at, open - at);
            const std::string name = line.substr(open + 2, close - open - 2);
            const char* value = std::getenv(name.c_str());
            if (value != nullptr && *value != '\0') {
                expanded += value;
            } else if (name == "STEMLIB_SAMPLE_DATA_DIR") {
                expanded += sampleDataDirectory();
            } else {
                error = "the camera description refers to ${" + name + "}, which is not set";
                return false;
            }
            at = close + 1;
        }
    }
    return true;
}

bool planCamera(const CameraRequest& request, const std::string& outputFolder, CameraPlan& plan,
                std::string& error) {
    plan = CameraPlan();
    plan.fast = request.fast;
    std::string text;
    fs::path origin; // the folder relative video paths are taken from
    if (!request.video.empty() || !request.images.empty()) {
        const bool video = !request.video.empty();
        const std::string path = fs::absolute(video ? request.video : request.images).string();
        plan.source = (video ? "--video " : "--images ") + path;
        if (video ? !probeVideo(path, plan, error) : !probeImages(path, plan, error)) {
            return false;
        }
        const double framerate = video && plan.clipFps > 0.0 ? plan.clipFps : 10.0;
        text = describeInput((video ? "file:" : "images:") + path, plan.clipSize, framerate);
    } else {
        std::string file = request.description;
        if (file.empty()) {
            const char* chosen = std::getenv("STEMLIB_HOST_CAMERA");
            file = chosen != nullptr && *chosen != '\0' ? chosen : PEOPLE_COUNTER_DEFAULT_CAMERA;
        }
        plan.source = fs::absolute(file).string();
        std::string raw;
        if (!readWholeFile(file, raw)) {
            error = "cannot read the camera description " + file;
            return false;
        }
        if (!expandVariables(raw, text, error)) {
            error = file + ": " + error;
            return false;
        }
        origin = fs::absolute(file).parent_path();
    }

    // The keys that matter here; the last of equal keys wins, as for the host camera.
    std::map<std::string, std::string> keys;
    std::istringstream lines(text);
    std::string line;
    std::string written;
    while (std::getline(lines, line)) {
        const std::string content = trim(line);
        const auto equals = content.find('=');
        if (!content.empty() && content[0] != '#' && equals != std::string::npos) {
            const std::string key = trim(content.substr(0, equals));
            std::string value = trim(content.substr(equals + 1));
            if (key == "video.input") {
                for (const std::string kind : {"file:", "images:"}) {
                    if (value.rfind(kind, 0) == 0 &&
                        !fs::path(value.substr(kind.size())).is_absolute()) {
                        value =
                            kind + (origin / value.substr(kind.size())).lexically_normal().string();
                        line = key + " = " + value;
                    }
                }
            }
            keys[key] = value;
        }
        written += line + "\n";
    }
    plan.input = keys.count("video.input") ? keys["video.input"] : "generator";
    plan.framerate = keys.count("video.framerate") ? std::atof(keys["video.framerate"].c_str()) : 0;
    plan.channelResolutions =
        parseResolutions(keys.count("channel.1.resolutions") ? keys["channel.1.resolutions"] : "");
    if (plan.input.rfind("file:", 0) == 0 && plan.clipFrames == 0 &&
        !probeVideo(plan.input.substr(5), plan, error)) {
        return false;
    }
    if (plan.input.rfind("images:", 0) == 0 && plan.clipFrames == 0 &&
        !probeImages(plan.input.substr(7), plan, error)) {
        return false;
    }

    written += "# Overrides of people_counter's command line\n";
    if (request.fast) {
        written += "video.framerate = 0\n";
    }
    if (request.threads > 0) {
        written += "larod.threads = " + std::to_string(request.threads) + "\n";
    }
    plan.description = (fs::path(outputFolder) / "camera.txt").string();
    std::ofstream out(plan.description);
    out << written;
    out.close();
    if (!out) {
        error = "cannot write " + plan.description;
        return false;
    }
    ::setenv("STEMLIB_HOST_CAMERA", plan.description.c_str(), 1);
    return true;
}

Resolution analysisResolutionFor(const CameraPlan& plan) {
    if (plan.clipSize.width > 0 && plan.clipSize.height > 0) {
        const double scale = plan.clipSize.width > 1024 ? 1024.0 / plan.clipSize.width : 1.0;
        return Resolution(even(plan.clipSize.width * scale), even(plan.clipSize.height * scale));
    }
    Resolution best;
    for (const Resolution& r : plan.channelResolutions) {
        if (r.width <= 1024 && r.width > best.width) {
            best = r;
        }
    }
    if (best.width > 0) {
        return Resolution(even(best.width), even(best.height));
    }
    return Resolution(1024, 576);
}

} // namespace PeopleCounting
