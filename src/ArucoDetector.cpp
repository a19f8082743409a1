#include "ArucoDetector.h"

#include "Points.h"

#include <string>

namespace Ombrel {

namespace {

constexpr int kDefaultDictionarySize = 6;

// The predefined dictionary with OpenCV's value for it, as a value in both routes.
cv::aruco::Dictionary predefinedDictionary(int value) {
#if STEMLIB_OPENCV_ARUCO_DETECTOR_CLASS
    return cv::aruco::getPredefinedDictionary(value);
#else
    return *cv::aruco::getPredefinedDictionary(value);
#endif
}

} // namespace

#if !STEMLIB_OPENCV_ARUCO_DETECTOR_CLASS
namespace detail {

LegacyArucoDetector::LegacyArucoDetector(const cv::aruco::Dictionary& dictionary,
                                         const cv::aruco::DetectorParameters& detectorParameters)
    : _dictionary(cv::makePtr<cv::aruco::Dictionary>(dictionary)),
      _detectorParameters(cv::makePtr<cv::aruco::DetectorParameters>(detectorParameters)) {}

void LegacyArucoDetector::setDictionary(const cv::aruco::Dictionary& dictionary) {
    _dictionary = cv::makePtr<cv::aruco::Dictionary>(dictionary);
}

void LegacyArucoDetector::setDetectorParameters(
    const cv::aruco::DetectorParameters& detectorParameters) {
    _detectorParameters = cv::makePtr<cv::aruco::DetectorParameters>(detectorParameters);
}

void LegacyArucoDetector::detectMarkers(cv::InputArray image, cv::OutputArrayOfArrays corners,
                                        cv::OutputArray ids,
                                        cv::OutputArrayOfArrays rejectedImgPoints) const {
    cv::aruco::detectMarkers(image, _dictionary, corners, ids, _detectorParameters,
                             rejectedImgPoints);
}

} // namespace detail
#endif

ArucoDetector::ArucoDetector()
// The first dictionary only serves the OpenCV detector's constructor; the refinement
// parameters (minimum repetition distance 10, error correction rate 3, all orders checked)
// exist in the class route only.
#if STEMLIB_OPENCV_ARUCO_DETECTOR_CLASS
    : _cvArucoDetector(predefinedDictionary(cv::aruco::DICT_4X4_50),
                       cv::aruco::DetectorParameters(),
                       cv::aruco::RefineParameters(10.0f, 3.0f, true))
#else
    : _cvArucoDetector(predefinedDictionary(cv::aruco::DICT_4X4_50),
                       cv::aruco::DetectorParameters())
#endif
{
    setDictionarySize(kDefaultDictionarySize);
    setDetectorParameters();
}

int ArucoDetector::dictionaryValueForSize(int size) {
    switch (size) {
    case 4:
        return cv::aruco::DICT_4X4_1000;
    case 5:
        return cv::aruco::DICT_5X5_1000;
    case 7:
        return cv::aruco::DICT_7X7_1000;
    default:
        return cv::aruco::DICT_6X6_1000;
    }
}

void ArucoDetector::setDictionarySize(int size) {
    if (size >= 4 && size <= 7) {
        _dictionarySize = size;
    } else {
        g_stemlibLogger.error("setDictionarySize: Invalid ARUCO dictionary size (" +
                              std::to_string(size) + ") specified. Assuming dictionary size of 6.");
        _dictionarySize = kDefaultDictionarySize;
    }
    _dictionary = predefinedDictionary(dictionaryValueForSize(_dictionarySize));
    _cvArucoDetector.setDictionary(_dictionary);
}

void ArucoDetector::setDetectorParameters() {
    _detectorParameters = cv::aruco::DetectorParameters();
    _detectorParameters.cornerRefinementMethod = cv::aruco::CORNER_REFINE_SUBPIX;
    _detectorParameters.errorCorrectionRate = 0.5;
    _detectorParameters.perspectiveRemovePixelPerCell = 8;
    _cvArucoDetector.setDetectorParameters(_detectorParameters);
}

ArucoDetections ArucoDetector::detectIn(const cv::Mat& image, const cv::Point2f& offset) const {
    std::vector<std::vector<cv::Point2f>> markerCorners;
    std::vector<int> markerIds;
    std::vector<std::vector<cv::Point2f>> rejectedCandidates;
    _cvArucoDetector.detectMarkers(image, markerCorners, markerIds, rejectedCandidates);

    ArucoDetections detections;
    detections.reserve(markerIds.size());
    for (std::size_t i = 0; i < markerIds.size() && i < markerCorners.size(); ++i) {
        ArucoDetection detection;
        detection.id = markerIds[i];
        for (const cv::Point2f& corner : markerCorners[i]) {
            detection.corners.addPoint(corner.x + offset.x, corner.y + offset.y);
        }
        detections.push_back(std::move(detection));
    }
    return detections;
}

ArucoDetections ArucoDetector::detectMarkers(const ImageBufferFrameSource& source) {
    const cv::Mat image = source.toCVMat();
    if (image.empty()) {
        g_stemlibLogger.error("detectMarkers: Empty frame. Returning empty detections.");
        return {};
    }
    return detectIn(image, cv::Point2f(0.0f, 0.0f));
}

ArucoDetections ArucoDetector::detectMarkers(const ImageBufferFrameSource& source,
                                             const IRectangle& cropRect) {
    if (cropRect.width <= 0 || cropRect.height <= 0) {
        g_stemlibLogger.error("detectMarkers: Invalid crop rectangle with non-positive width or "
                              "height. Returning empty detections.");
        return {};
    }
    const cv::Mat image = source.toCVMat();
    const IRectangle boundedCropRect = cropRect.getBoundedRectangle(source.getResolution());
    const cv::Rect cvCropRect(boundedCropRect.x, boundedCropRect.y, boundedCropRect.width,
                              boundedCropRect.height);
    if (cvCropRect.width <= 0 || cvCropRect.height <= 0) {
        g_stemlibLogger.error(
            "detectMarkers: Invalid crop rectangle dimensions after bounding: width=" +
            std::to_string(cvCropRect.width) + ", height=" + std::to_string(cvCropRect.height) +
            ". Returning empty detections.");
        return {};
    }
    // Both sides are inside the resolution here, so the sums cannot overflow. An image that
    // differs from the stated resolution (an empty one included) is caught by this test.
    if (cvCropRect.x < 0 || cvCropRect.y < 0 || cvCropRect.x + cvCropRect.width > image.cols ||
        cvCropRect.y + cvCropRect.height > image.rows) {
        g_stemlibLogger.error(
            "detectMarkers: Crop rectangle is out of image bounds after bounding: x=" +
            std::to_string(cvCropRect.x) + ", y=" + std::to_string(cvCropRect.y) +
            ", width=" + std::to_string(cvCropRect.width) +
            ", height=" + std::to_string(cvCropRect.height) + ". Returning empty detections.");
        return {};
    }
    // A view of the frame's matrix: the crop shares the pixels.
    const cv::Mat croppedImage = image(cvCropRect);
    return detectIn(croppedImage, cv::Point2f(static_cast<float>(boundedCropRect.x),
                                              static_cast<float>(boundedCropRect.y)));
}

ArucoDetections ArucoDetector::detectMarkers(const ImageBufferFrameSource& source,
                                             const IPolygon& cropPolygon) {
    if (cropPolygon.getNPoints() < 3) {
        g_stemlibLogger.error("detectMarkers: Invalid crop polygon with less than 3 points. "
                              "Returning empty detections.");
        return {};
    }
    const IRectangle boundingBox = cropPolygon.getBoundingBox();
    ArucoDetections detections = detectMarkers(source, boundingBox);
    ArucoDetections inside;
    inside.reserve(detections.size());
    for (ArucoDetection& detection : detections) {
        if (cropPolygon.contains(detection.corners)) {
            inside.push_back(std::move(detection));
        }
    }
    return inside;
}

} // namespace Ombrel
