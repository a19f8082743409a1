// ImageBufferFrameSource: one RGB image held in memory, the central buffer class of the frame
// sources. File sources, the camera stream and the panoramic mosaic derive from it.
//
// The pixels (_imageBuffer) are owned by the object, allocated with new[] and released with
// delete[]. _imageBufferSize is the buffer's capacity in bytes, not the size of the current
// image: setImageBufferResolution only ever grows the buffer, so after a change to a smaller
// size the capacity stays larger than _resolution.area() * 3 and a steady stream of like-sized
// patches allocates nothing. A pointer from getImageData or getPointerToPixel is good only until
// the next loadImagePatch or setImageBufferResolution.
//
// Threading: no lock; one thread at a time. Note that getFrame and even the const toCVMat change
// state. Not copyable.
#pragma once

#include "ImageFrameSource.h"
#include "Points.h"

#include <opencv2/core.hpp>

namespace Ombrel {

class ImageBufferFrameSource : public ImageFrameSource {
public:
    // Allocates area * 3 bytes, left uninitialised.
    explicit ImageBufferFrameSource(const Resolution& resolution);
    // Copies area * 3 bytes from rgbPixelData, which must hold them.
    ImageBufferFrameSource(const Resolution& resolution, const uint8_t* rgbPixelData);
    // Copies a continuous, 8-bit, three-channel, blue-first matrix and makes it red-first.
    explicit ImageBufferFrameSource(const cv::Mat& image);
    ~ImageBufferFrameSource() override;

    // At the image's own size a block copy, whatever the rotation; at any other size resizeTo.
    // Logs and returns false when pOutputPixels or the image buffer is null.
    bool getFrame(const Resolution& requestedResolution, int rotation,
                  uint8_t* pOutputPixels) override;
    // Writes the first channel as a plain PGM picture; logs when the buffer is null.
    void writePixelBufferAsPGM(const std::string& filename) const override;

    // Makes this object a copy of rectangle of videoStreamSource, at the rectangle's size.
    // A rectangle outside the source logs and leaves this object as it was.
    virtual void loadImagePatch(ImageBufferFrameSource& videoStreamSource,
                                const IRectangle& rectangle);
    // Makes this object the size of containingRectangle, black, with the part of the source
    // inside imageRectangle copied in at its place. imageRectangle must lie inside
    // containingRectangle (edges included) and containingRectangle inside the source.
    virtual void loadImagePatch(ImageBufferFrameSource& videoStreamSource,
                                const IRectangle& imageRectangle,
                                const IRectangle& containingRectangle);
    // Writes the image with cv::imwrite (format from the file name). Like toCVMat, it leaves
    // this object's buffer with red and blue exchanged.
    virtual void writePixelBufferAsImage(const std::string& filename) const;
    // A blue-first copy of the image. The colour exchange runs in place over this object's
    // buffer before the copy is taken, so the buffer is left with red and blue exchanged and
    // a second call returns the other colour order. This is deliberate.
    virtual cv::Mat toCVMat() const;

    uint8_t* getImageData() { return _imageBuffer; }
    const uint8_t* getImageData() const { return _imageBuffer; }
    // Address of pixel point, or null (logged) for a point outside the image.
    uint8_t* getPointerToPixel(const IPoint& point) const;
    // Sets _resolution and grows the buffer when area * 3 exceeds its capacity (the old
    // contents are then lost). The buffer never shrinks.
    void setImageBufferResolution(const Resolution& imageResolution);
    // Nearest-sample stretch to requestedResolution, anchored at the top-left, no care for the
    // aspect ratio: output (r, c) takes source (trunc(c * W / w), trunc(r * H / h)) with the
    // scales in single precision. A sample beyond the capacity is logged and skipped. rotation
    // is not used. Allocates nothing.
    void resizeTo(const Resolution& requestedResolution, int rotation,
                  uint8_t* pOutputPixels) const;
    // Zeroes the whole capacity, not only the current image.
    void zeroImageBuffer();
    // Exchanges bytes 0 and 2 of every pixel over the whole capacity.
    void convertBGRToRGB();

    // True when rectangle lies inside an image of imageResolution; a rectangle that ends
    // exactly at the edge is valid. Width and height are not tested for being positive.
    static bool validPatchCoordinates(const IRectangle& rectangle,
                                      const Resolution& imageResolution);

protected:
    // For a buffer that is still null: sets _resolution and allocates exactly area * 3 bytes,
    // uninitialised and without a log line. An image too large for the capacity's type is
    // refused with an error line naming function, and the image is then 0 by 0.
    bool allocateImageBuffer(const Resolution& resolution, const char* function);

    uint8_t* _imageBuffer = nullptr;
    unsigned int _imageBufferSize = 0;
};

} // namespace Ombrel
