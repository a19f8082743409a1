// ArucoDetector: finds ArUco markers in a frame with OpenCV's ArUco module and hands back each
// marker's number and corners in the pixels of the whole frame. It searches the whole frame, a
// rectangle of it or the bounding box of a polygon; the rectangle is moved into the frame (not
// clipped) and searched as a view of the frame's matrix, so a crop copies no pixels.
//
// A new detector uses the 6 by 6 dictionary of 1000 markers, with subpixel corner refinement,
// an error correction rate of 0.5 and 8 pixels per cell when the perspective is removed; all
// other detector parameters are OpenCV's defaults.
//
// OpenCV 4.7 and later detect through the class cv::aruco::ArucoDetector; earlier releases
// through the free functions of the contrib module, wrapped here in a class of the same shape.
// Both give the same result.
//
// Ownership: the detector owns its dictionary, its parameters and the OpenCV detector by value.
// Threading: no lock. One detector serves one thread; setDictionarySize must not run during a
// detection. Detection changes no state of the detector, but it calls the source's toCVMat,
// which exchanges red and blue in the source's own buffer (see ImageBufferFrameSource).
#pragma once

#include "ImageBufferFrameSource.h"
#include "Polygons.h"

#include <opencv2/core/version.hpp>

#include <vector>

// The one test of OpenCV's version: which route the detector takes.
#if CV_VERSION_MAJOR > 4 || (CV_VERSION_MAJOR == 4 && CV_VERSION_MINOR >= 7)
#define STEMLIB_OPENCV_ARUCO_DETECTOR_CLASS 1
#include <opencv2/objdetect/aruco_detector.hpp>
#else
#define STEMLIB_OPENCV_ARUCO_DETECTOR_CLASS 0
#include <opencv2/aruco.hpp>
#endif

namespace Ombrel {

// One marker found: its number in the dictionary and its four corners in frame pixels, in
// OpenCV's order (clockwise from the marker's own top-left corner).
struct ArucoDetection {
    int id = 0;
    FPolygon corners;
};

using ArucoDetections = std::vector<ArucoDetection>;

#if !STEMLIB_OPENCV_ARUCO_DETECTOR_CLASS
namespace detail {

// The detector class of later OpenCV releases, over the contrib module's free functions, which
// take the dictionary and the parameters as shared pointers. The refinement parameters of the
// later class serve only the refinement against a board, which the library does not do.
class LegacyArucoDetector {
public:
    LegacyArucoDetector(const cv::aruco::Dictionary& dictionary,
                        const cv::aruco::DetectorParameters& detectorParameters);

    void setDictionary(const cv::aruco::Dictionary& dictionary);
    void setDetectorParameters(const cv::aruco::DetectorParameters& detectorParameters);
    void detectMarkers(cv::InputArray image, cv::OutputArrayOfArrays corners, cv::OutputArray ids,
                       cv::OutputArrayOfArrays rejectedImgPoints) const;

private:
    cv::Ptr<cv::aruco::Dictionary> _dictionary;
    cv::Ptr<cv::aruco::DetectorParameters> _detectorParameters;
};

} // namespace detail
#endif

class ArucoDetector {
public:
    // The 6 by 6 dictionary and the parameters above.
    ArucoDetector();

    // 4, 5, 6 or 7: the side of the marker grid; the dictionary of 1000 markers of that size
    // is used. Any other size logs an error and selects 6.
    void setDictionarySize(int size);
    // Fresh default parameters with the library's three settings, handed to the OpenCV detector.
    void setDetectorParameters();

    // OpenCV's predefined dictionary (cv::aruco::DICT_*_1000) for a grid side of 4, 5, 6 or 7;
    // any other side gives the 6 by 6 one. For drawing markers the detector will find.
    static int dictionaryValueForSize(int size);

    // Markers in the whole frame, in OpenCV's order. An empty frame logs and gives none.
    ArucoDetections detectMarkers(const ImageBufferFrameSource& source);
    // Markers in cropRect after it has been moved into the frame (a rectangle larger than the
    // frame shrinks to it), in frame pixels. A rectangle with no area, or one that does not fit
    // the source's image (a stated resolution that differs from the image), logs and gives none.
    ArucoDetections detectMarkers(const ImageBufferFrameSource& source, const IRectangle& cropRect);
    // Markers found in the polygon's bounding box (as above) whose four corners all lie inside
    // the polygon, by the polygon's own point test. Fewer than three vertices log and give none.
    ArucoDetections detectMarkers(const ImageBufferFrameSource& source,
                                  const IPolygon& cropPolygon);

private:
    // Detection in image (the frame or a view of it), corners moved by offset.
    ArucoDetections detectIn(const cv::Mat& image, const cv::Point2f& offset) const;

#if STEMLIB_OPENCV_ARUCO_DETECTOR_CLASS
    using CvArucoDetector = cv::aruco::ArucoDetector;
#else
    using CvArucoDetector = detail::LegacyArucoDetector;
#endif

    int _dictionarySize = 6;
    cv::aruco::Dictionary _dictionary;
    cv::aruco::DetectorParameters _detectorParameters;
    CvArucoDetector _cvArucoDetector;
};

} // namespace Ombrel
