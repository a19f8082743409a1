// people_counter: counts people on a camera's video (see PeopleCounter.h and the README).
//
// Usage: people_counter [options]
//   --camera FILE       camera description to play (default: $STEMLIB_HOST_CAMERA, else the
//                       shipped vtest-camera.txt: the sample clip at its own frame rate)
//   --video FILE        a video file instead, at its own size and frame rate
//   --images DIR        the images of a folder instead, in name order
//   --fast              take frames as fast as the analysis goes, instead of in real time
//   --frames N          stop after the first N frames of video (default: the clip's end)
//   --fps F             the video's frame rate, where neither description nor file tells it
//   --size WxH          analysis resolution (default: the video's size)
//   --model FILE        pose model (default: the build's int8 PoseNet, 481x353)
//   --device NAME       inference device (default: the inference service's first accelerator)
//   --threads N         inference engine threads (host camera)
//   --mosaic            detect over a mosaic of area 0 (PosenetPanoDetector) instead of the frame
//   --out DIR           where the video, snapshot, archives, log and summary go
//                       (default: <temp>/people_counter)
//   --config FILE       configuration file (default: <out>/<name>.conf)
//   --name NAME         application name: log, socket and package folder (default people_counter)
//   --serve             keep analysing until stopped, with the web page required
//   --no-video          no annotated video
//   --no-web            no web page (its socket and package folder are left alone)
//   --snapshot-seconds S  video seconds between snapshots (default 1)
//   --quiet             no progress lines
// SIGINT and SIGTERM stop it after the frame in hand, with everything written.
#include "CameraSetup.h"
#include "Logger.h"
#include "LoggerWrapper.h"
#include "PeopleCounter.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#ifndef PEOPLE_COUNTER_DEFAULT_MODEL
#define PEOPLE_COUNTER_DEFAULT_MODEL "models/posenet_mobilenet_int8_481x353.tflite"
#endif

using namespace PeopleCounting;
namespace fs = std::filesystem;

namespace {

volatile std::sig_atomic_t g_stopRequested = 0;

void requestStop(int) {
    g_stopRequested = 1;
}

int usage(const char* problem) {
    if (problem != nullptr) {
        std::fprintf(stderr, "people_counter: %s\n", problem);
    }
    std::fprintf(stderr,
                 "usage: people_counter [--camera FILE | --video FILE | --images DIR] [--fast]\n"
                 "         [--frames N] [--fps F] [--size WxH] [--model FILE] [--device NAME]\n"
                 "         [--threads N] [--mosaic] [--out DIR] [--config FILE] [--name NAME]\n"
                 "         [--serve] [--no-video] [--no-web] [--snapshot-seconds S] [--quiet]\n");
    return 2;
}

bool positive(const char* text, double& value) {
    char* end = nullptr;
    value = std::strtod(text, &end);
    return end != text && *end == '\0' && value > 0.0;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    options.model = PEOPLE_COUNTER_DEFAULT_MODEL;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        const bool hasValue = i + 1 < argc;
        double number = 0.0;
        if (flag == "--fast") {
            options.camera.fast = true;
        } else if (flag == "--mosaic") {
            options.mosaic = true;
        } else if (flag == "--serve") {
            options.serve = true;
        } else if (flag == "--no-video") {
            options.writeVideo = false;
        } else if (flag == "--no-web") {
            options.web = false;
        } else if (flag == "--quiet") {
            options.progress = false;
        } else if (flag == "--help" || flag == "-h") {
            return usage(nullptr);
        } else if (!hasValue) {
            return usage(("unknown option or missing value: " + flag).c_str());
        } else if (flag == "--camera") {
            options.camera.description = argv[++i];
        } else if (flag == "--video") {
            options.camera.video = argv[++i];
        } else if (flag == "--images") {
            options.camera.images = argv[++i];
        } else if (flag == "--frames") {
            if (!positive(argv[++i], number)) {
                return usage("--frames takes a positive number");
            }
            options.frames = static_cast<long>(number);
        } else if (flag == "--fps") {
            if (!positive(argv[++i], number) || number > 1000.0) {
                return usage("--fps takes a number from above 0 to 1000");
            }
            options.fps = number;
        } else if (flag == "--size") {
            unsigned int width = 0;
            unsigned int height = 0;
            char x = 0;
            if (std::sscanf(argv[++i], "%u%c%u", &width, &x, &height) != 3 || x != 'x' ||
                width < 16 || height < 16 || width % 2 != 0 || height % 2 != 0) {
                return usage("--size takes an even WxH, at least 16x16");
            }
            options.size = Ombrel::Resolution(width, height);
        } else if (flag == "--model") {
            options.model = argv[++i];
        } else if (flag == "--device") {
            options.device = argv[++i];
        } else if (flag == "--threads") {
            if (!positive(argv[++i], number) || number > 64) {
                return usage("--threads takes a number from 1 to 64");
            }
            options.camera.threads = static_cast<int>(number);
        } else if (flag == "--out") {
            options.outputFolder = argv[++i];
        } else if (flag == "--config") {
            options.configFile = argv[++i];
        } else if (flag == "--name") {
            options.appName = argv[++i];
            if (options.appName.empty() ||
                options.appName.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                                  "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") !=
                    std::string::npos) {
                return usage("--name takes letters, digits and underscores");
            }
        } else if (flag == "--snapshot-seconds") {
            if (!positive(argv[++i], options.snapshotSeconds)) {
                return usage("--snapshot-seconds takes a positive number");
            }
        } else {
            return usage(("unknown option: " + flag).c_str());
        }
    }
    if (options.serve && !options.web) {
        return usage("--serve needs the web page: leave out --no-web");
    }
    if (static_cast<int>(!options.camera.description.empty()) +
            static_cast<int>(!options.camera.video.empty()) +
            static_cast<int>(!options.camera.images.empty()) >
        1) {
        return usage("give at most one of --camera, --video and --images");
    }

    if (options.outputFolder.empty()) {
        options.outputFolder = (fs::temp_directory_path() / options.appName).string();
    }
    std::error_code failed;
    fs::create_directories(options.outputFolder, failed);
    if (failed) {
        std::fprintf(stderr, "people_counter: cannot make %s: %s\n", options.outputFolder.c_str(),
                     failed.message().c_str());
        return 1;
    }
    options.outputFolder = fs::absolute(options.outputFolder).string();
    if (options.configFile.empty()) {
        options.configFile = options.outputFolder + "/" + options.appName + ".conf";
    }

    // The camera is chosen before anything opens a stream.
    CameraPlan plan;
    std::string error;
    if (!planCamera(options.camera, options.outputFolder, plan, error)) {
        std::fprintf(stderr, "people_counter: %s\n", error.c_str());
        return 1;
    }

    Ombrel::Logger logger(options.appName, options.outputFolder + "/" + options.appName + ".log");
    Ombrel::useLogger(logger);
    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);

    int status = 0;
    {
        PeopleCounter application(options, plan, logger, &g_stopRequested);
        if (!application.initialize()) {
            std::fprintf(stderr, "people_counter: %s\n", application.error().c_str());
            return 1;
        }
        std::printf("%s: watching %s (camera description %s)\n", options.appName.c_str(),
                    plan.source.c_str(), plan.description.c_str());
        if (application.webPageUp()) {
            std::printf("%s: web page actions on %s\n", options.appName.c_str(),
                        application.socketPath().c_str());
        } else {
            std::printf("%s: no web page (see the log)\n", options.appName.c_str());
        }
        std::fflush(stdout);
        application.run();
        std::printf("%s", application.summary().c_str());
        if (!application.error().empty()) {
            std::fprintf(stderr, "people_counter: %s\n", application.error().c_str());
            status = 1;
        }
    }
    return status;
}
