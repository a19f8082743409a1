// CameraSetup: which camera the people counter watches, and what it knows of the video.
//
// On a camera the application simply opens the camera's stream. On a PC the stream comes from
// the host camera, which plays whatever a camera description names (see the README's "Describing
// a camera"); this module chooses that description before anything opens the stream:
//
//   --camera FILE   a description of one's own;
//   --video FILE    a video file, played at its own size and frame rate;
//   --images DIR    the images of a folder, in name order;
//   otherwise the description in STEMLIB_HOST_CAMERA, or else the one shipped beside the
//   application, which plays the sample clip from the sample-data folder.
//
// A description may refer to environment variables as ${NAME}. ${STEMLIB_SAMPLE_DATA_DIR}, when
// unset, stands for the folder where scripts/fetch-sample-data.sh puts the sample data (its
// system folder when that holds the clip, else the project's cache). The chosen description, with
// the references expanded, relative video paths made absolute and the command line's overrides
// appended (video.framerate = 0 for --fast, larod.threads), is written to camera.txt in the
// output folder and handed to the host camera through STEMLIB_HOST_CAMERA.
//
// The application also learns from the description and the video itself how long the clip is
// and at what rate it was filmed, so that it can stop at the clip's end and keep video time.
#pragma once

#include "CommonStructs.h"

#include <string>
#include <vector>

namespace PeopleCounting {

struct CameraRequest {
    std::string description; // --camera
    std::string video;       // --video
    std::string images;      // --images
    bool fast = false;       // as fast as frames can be taken
    int threads = 0;         // inference engine threads; 0 leaves the description's
};

struct CameraPlan {
    std::string source;          // where the description came from (a file, or "--video ...")
    std::string description;     // the description handed to the host camera
    std::string input;           // "generator", "file:<path>" or "images:<folder>"
    double framerate = 0.0;      // the camera's frame rate before --fast; 0 as fast as asked
    double clipFps = 0.0;        // the video's own frame rate, when known
    long clipFrames = 0;         // frames in the clip; 0 for an endless source
    Ombrel::Resolution clipSize; // the video's picture size, when known
    std::vector<Ombrel::Resolution> channelResolutions; // from the description, when listed
    bool fast = false;
};

// Chooses and writes the description (into outputFolder) and sets STEMLIB_HOST_CAMERA. False,
// with error, when the description cannot be read, names an unset variable, or its video
// cannot be opened.
bool planCamera(const CameraRequest& request, const std::string& outputFolder, CameraPlan& plan,
                std::string& error);

// ${NAME} references replaced by the environment's values (see above for the sample data);
// false, with error naming the variable, for an unset one.
bool expandVariables(const std::string& text, std::string& expanded, std::string& error);

// The sample-data folder, by the rule of scripts/fetch-sample-data.sh.
std::string sampleDataDirectory();

// The analysis resolution for a plan: the clip's size when known, else the largest listed
// resolution at most 1024 pixels wide, else 1024x576; sizes made even.
Ombrel::Resolution analysisResolutionFor(const CameraPlan& plan);

} // namespace PeopleCounting
