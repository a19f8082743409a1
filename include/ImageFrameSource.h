// ImageFrameSource: the abstract root of everything from which a detector or an application takes
// a picture at a size of its own choosing.
//
// Every frame of the family has one layout: 8-bit interleaved red, green, blue, rows from the top,
// left to right, no row padding, so a frame of w by h pixels is exactly w * h * 3 bytes. The
// caller of getFrame owns the output buffer, which must hold requestedResolution.area() * 3
// bytes.
//
// The six rotation helpers move whole 3-byte pixels from one buffer of W * H * 3 bytes to another
// (W and H from _resolution); they check no bounds. The free writers at the end dump a pixel
// buffer to a file for debugging.
//
// Threading: no lock; a source is used by one thread at a time. Sources are not copyable.
#pragma once

#include "CommonStructs.h"

#include <cstdint>
#include <string>

namespace Ombrel {

class ImageFrameSource {
public:
    ImageFrameSource() = default;
    explicit ImageFrameSource(const Resolution& resolution) : _resolution(resolution) {}
    virtual ~ImageFrameSource();

    ImageFrameSource(const ImageFrameSource&) = delete;
    ImageFrameSource& operator=(const ImageFrameSource&) = delete;

    // Writes a full frame of requestedResolution into pOutputPixels and returns true, or logs
    // and returns false. rotation is in degrees (0, 90, 180 or 270); only a camera source acts
    // on it, every other source ignores it.
    virtual bool getFrame(const Resolution& requestedResolution, int rotation,
                          uint8_t* pOutputPixels) = 0;

    virtual Resolution getResolution() const { return _resolution; }

    // This class holds no pixels: logs an error and writes no file.
    virtual void writePixelBufferAsPGM(const std::string& filename) const;

    // Rotations between buffers of W * H * 3 bytes, W and H being _resolution.width and
    // .height. rotate90 and rotate270 read H rows of W pixels and write W rows of H pixels;
    // the _R90 forms read a source that already lies sideways (W rows of H pixels) and write
    // H rows of W pixels.
    //   rotate0:       one block copy.
    //   rotate90:      (row i, col j) -> (row j, col H - 1 - i), a quarter turn clockwise.
    //   rotate90_R90:  (row i, col j) -> (row j, col W - 1 - i), a quarter turn clockwise.
    //   rotate180:     pixel n -> pixel W * H - 1 - n, a half turn.
    //   rotate270:     (row i, col j) -> (row W - 1 - j, col i), a quarter turn counter-clockwise.
    //   rotate270_R90: (row i, col j) -> (row H - 1 - j, col i), a quarter turn counter-clockwise.
    void rotate0(const uint8_t* pSource, uint8_t* pDest) const;
    void rotate90(const uint8_t* pSource, uint8_t* pDest) const;
    void rotate180(const uint8_t* pSource, uint8_t* pDest) const;
    void rotate270(const uint8_t* pSource, uint8_t* pDest) const;
    void rotate90_R90(const uint8_t* pSource, uint8_t* pDest) const;
    void rotate270_R90(const uint8_t* pSource, uint8_t* pDest) const;

protected:
    Resolution _resolution;
};

// Writes a plain (text) PGM picture of the first channel of buf: the header lines " P2",
// " <w> <h>" and " 255", then one line per row with each value right-aligned in 4 characters.
// Pixel (row, column) is read at (row * w + column) * nChannels. A file that cannot be written
// is not reported.
void writePixelBufferAsPGM(const std::string& outputFilename, uint8_t* buf, int w, int h,
                           int nChannels);

// Writes buf, h rows of w red-first pixels, with cv::imwrite, which picks the format from the
// file name's extension. The colour exchange to blue-first runs in place: buf is left with red
// and blue exchanged. nChannels is not used (the buffer is taken as three-channel). A file
// that cannot be written is not reported.
void writePixelBufferAsImage(const std::string& outputFilename, uint8_t* buf, int w, int h,
                             int nChannels);

} // namespace Ombrel
