// Where a host stream's frames come from: the built-in generator, a video file decoded with
// OpenCV, or a folder of images. Each input writes NV12 frames of one fixed layout, the picture
// fitted to width by height and then turned clockwise by rotation.
#pragma once

#include "FrameGenerator.h"
#include "HostCamera.h"

#include <opencv2/core.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace stemlib_host {

struct InputLayout {
    std::uint32_t width = 0;  // before rotation
    std::uint32_t height = 0; // before rotation
    std::uint32_t rotation = 0;
    bool crop = true; // "image.fit": crop to the aspect ratio, or else stretch
};

class VideoInput {
public:
    virtual ~VideoInput() = default;
    // Writes frame `sequence` into nv12 (width * height * 3 / 2 bytes). damage belongs to the
    // buffer and lets an input redraw only what changed since that buffer's previous frame.
    // False with problem set when no frame can be made.
    virtual bool produce(std::uint64_t sequence, std::uint8_t* nv12, FrameGenerator::Damage& damage,
                         std::string& problem) = 0;
};

// The input that the camera's video.input names: "generator" (the default), "file:<path>" or
// "images:<folder>", relative paths being taken from the description's folder. An image folder
// keeps its converted frames in memory when they fit in cacheBytes (and in 128 MiB). Throws
// std::runtime_error with a clear text when the input is unknown or has no frame, and
// std::bad_alloc when memory runs out.
std::unique_ptr<VideoInput> makeVideoInput(const CameraDescription& camera,
                                           const InputLayout& layout, std::uint64_t cacheBytes);

// What the input that makeVideoInput would make holds at this layout, known before anything is
// allocated: the generator's background, or the pictures in which a file or folder input fits
// and converts each frame (an image folder's cache aside). Not counted is the picture that a
// decoder delivers at the file's own size. 0 for an unknown input, which makeVideoInput refuses.
std::uint64_t videoInputBytes(const CameraDescription& camera, const InputLayout& layout);
// What the input is, for messages: "generator", "video file" or "image folder".
const char* videoInputName(const CameraDescription& camera);

// Fits a blue-first 8-bit picture to the layout and writes it as NV12. scratch avoids
// allocations from frame to frame.
struct ConversionScratch {
    cv::Mat fitted;
    cv::Mat turned;
    cv::Mat i420;
};
void pictureToNv12(const cv::Mat& bgr, const InputLayout& layout, ConversionScratch& scratch,
                   std::uint8_t* nv12);

} // namespace stemlib_host
