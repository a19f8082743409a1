// Debian's sample surveillance clip (vtest.avi: 768x576, 795 frames at 10 fps) for tests and
// benchmarks: single frames read with OpenCV, and a host camera description that plays it.
#pragma once

#include "ImageBufferFrameSource.h"
#include "SampleData.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace StemlibTest {

// Frame `index` of the clip, RGB, at the clip's own size; empty when the clip is missing.
inline cv::Mat sampleClipFrame(int index) {
    cv::VideoCapture clip(sampleDataPath("vtest.avi"));
    cv::Mat frame;
    for (int i = 0; i <= index; ++i) {
        if (!clip.read(frame)) {
            return cv::Mat();
        }
    }
    cv::Mat rgb;
    cv::cvtColor(frame, rgb, cv::COLOR_BGR2RGB);
    return rgb;
}

// Frame `index` scaled to width x height, as a frame source delivers it to a model.
inline std::vector<std::uint8_t> sampleClipFrame(int index, int width, int height) {
    const cv::Mat rgb = sampleClipFrame(index);
    Ombrel::ImageBufferFrameSource source(Ombrel::Resolution(static_cast<unsigned int>(rgb.cols),
                                                             static_cast<unsigned int>(rgb.rows)),
                                          rgb.data);
    std::vector<std::uint8_t> picture(static_cast<std::size_t>(width) * height * 3);
    source.getFrame(
        Ombrel::Resolution(static_cast<unsigned int>(width), static_cast<unsigned int>(height)), 0,
        picture.data());
    return picture;
}

// A host camera description that plays the clip at its size (and at half its size), as fast
// as frames are asked for, followed by any further lines.
inline std::string sampleClipCamera(const std::string& furtherLines = "") {
    return "root.ImageSource.I0.Sensor.AspectRatio = 4:3\n"
           "root.Image.I0.Appearance.Rotation = 0\n"
           "channels = 1\n"
           "channel.1.resolutions = 768x576, 384x288\n"
           "video.input = file:" +
           sampleDataPath("vtest.avi") + "\nvideo.framerate = 0\n" + furtherLines;
}

} // namespace StemlibTest
