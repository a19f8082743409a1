// Image converter: the camera's NV12 buffers to the frame layout of the frame sources
// (8-bit interleaved red, green, blue, rows from the top, no padding).
//
// NV12 here is a Y plane of width * height bytes followed at once by an interleaved U,V plane
// whose row stride is also width; each U,V pair serves two columns and two rows. Output buffers
// belong to the caller and must hold width * height * 3 bytes (or floats). Stateless functions,
// safe to call from several threads on separate buffers.
#pragma once

#include <cstdint>

namespace Ombrel {

// One libyuv NV12ToRAW call (RAW is red, green, blue in memory). A libyuv failure is logged;
// rgbOut is then left as libyuv left it.
void convertU8yuvToRGBlibYuv(unsigned int width, unsigned int height, uint8_t* yuvIn,
                             uint8_t* rgbOut);

// The portable form of the same conversion in single precision, per pixel:
//   y = Y / 255, u = U / 255 - 0.5, v = V / 255 - 0.5
//   red = (y + 1.13983 v) * 255, green = (y - 0.39465 u - 0.5806 v) * 255,
//   blue = (y + 2.03211 u) * 255
// each truncated to an unsigned integer of which the low byte is stored: there is no clamping,
// so values past 255 wrap and negative values give 0.
void convertU8yuvToRGBnaive(unsigned int width, unsigned int height, uint8_t* yuvIn,
                            uint8_t* rgbOut);

// The same formulas for a float output in the range [outCenter - outSwing / 2,
// outCenter + outSwing / 2]: each channel is that minimum plus outSwing times the bracket of
// the formula above (the value before the multiplication by 255), clamped to the range.
// Output is interleaved red, green, blue floats.
void convertU8yuvToFloat32RGB(unsigned int width, unsigned int height, uint8_t* inBuffer,
                              float* outBuffer, float outSwing, float outCenter);

// NV12 of srcWidth by srcHeight to RGB of dstWidth by dstHeight: converts to ARGB, cuts the
// largest centred region of the destination's aspect ratio (full width and equal cuts at top
// and bottom for a wider target, any odd row going to the bottom; full height and cuts at left
// and right for a taller one), scales it with a bilinear filter and drops alpha. The crop is
//   clipW = srcWidth, clipH = clipW / (dstWidth / dstHeight), and if clipH > srcHeight:
//   clipH = srcHeight, clipW = clipH * (dstWidth / dstHeight);
//   clipX = (srcWidth - trunc(clipW)) / 2, clipY = (srcHeight - trunc(clipH)) / 2
// all in single precision, the halving in integers. Returns false, after logging, when a
// temporary buffer cannot be allocated or libyuv fails, and for empty or odd-sized input that
// NV12 cannot describe.
bool convertCropScaleU8yuvToRGB(const uint8_t* nv12Data, unsigned int srcWidth,
                                unsigned int srcHeight, uint8_t* rgbData, unsigned int dstWidth,
                                unsigned int dstHeight);

} // namespace Ombrel
