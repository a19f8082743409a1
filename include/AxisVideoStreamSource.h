// AxisVideoStreamSource: frames from the camera's video service at any requested size.
//
// The constructor opens and starts one NV12 stream on channel 1 at the larger of the given sizes
// by the smaller (a portrait resolution opens a landscape stream), turned by the camera's own
// rotation, which it reads once from the parameter service. getFrame takes the newest camera
// buffer on every call: at the stream's own size (or its transpose, for a quarter-turn request)
// the buffer is converted whole into the image buffer and rotated into the output; at any other
// size it is cropped to the requested aspect ratio, scaled bilinearly and converted straight into
// the output. While the dirty flag is clear, the exact-size paths deliver the frame held in the
// image buffer. With the camera turned by 90 or 270 degrees the image buffer holds a picture
// _resolution.height pixels wide and _resolution.width pixels tall.
//
// Ownership: the source owns its stream (released with g_object_unref in the destructor; the
// stream is never stopped explicitly). The caller owns getFrame's output. Threading: no lock, one
// thread at a time; getFrame blocks in the video service until the next frame is due. Not
// copyable.
#pragma once

#include "VideoStreamSource.h"

// The video service's stream, as its header declares it.
typedef struct _VdoStream VdoStream;

namespace Ombrel {

class AxisVideoStreamSource : public VideoStreamSource {
public:
    // Opens and starts the stream; throws std::runtime_error when the video service refuses it or
    // the image buffer cannot count the frame's bytes (std::bad_alloc when memory runs out for
    // it, and std::stoi's exception when the camera's rotation is not a number). A failed
    // construction gives back the settings and the stream that it made.
    explicit AxisVideoStreamSource(const Resolution& resolution);
    ~AxisVideoStreamSource() override;
    AxisVideoStreamSource(const AxisVideoStreamSource&) = delete;
    AxisVideoStreamSource& operator=(const AxisVideoStreamSource&) = delete;

    // A frame of requestedResolution in pOutputPixels (which must hold area * 3 bytes), rotated
    // by rotation (0, 90, 180 or 270) where the size allows it. False, after logging, when no
    // camera buffer comes, it cannot be given back, or the conversion fails.
    bool getFrame(const Resolution& requestedResolution, int rotation,
                  uint8_t* pOutputPixels) override;
    // As ImageBufferFrameSource::toCVMat; for a turned camera the matrix keeps the shape of
    // _resolution and does not follow the turned picture.
    cv::Mat toCVMat() const override;
    // While the dirty flag is set, converts one NV12 camera frame into the image buffer. A null
    // pointer is logged first, whatever the flag.
    void loadImageData(uint8_t* pImageData) override;
    // Takes one camera buffer into the image buffer; with the dirty flag clear, does nothing and
    // returns true.
    virtual bool loadFrameFromCamera();

private:
    VdoStream* _vdoStream = nullptr;
    int _cameraRotation = 0;
};

} // namespace Ombrel
