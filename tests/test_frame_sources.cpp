#include "AllocationCounter.h"
#include "ConstantStreamSource.h"
#include "ImageBufferFrameSource.h"
#include "ImageFromImageFileSource.h"
#include "ImageFromRawBinaryFileSource.h"
#include "ImageTestUtils.h"
#include "PanoImageFrameSource.h"
#include "VideoStreamSource.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

// Opens the protected state of the buffer class to the tests.
class BufferProbe : public ImageBufferFrameSource {
public:
    using ImageBufferFrameSource::ImageBufferFrameSource;
    unsigned int capacity() const { return _imageBufferSize; }
    void forceResolution(const Resolution& resolution) { _resolution = resolution; }
};

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "stemlib_" + std::to_string(getpid()) + "_" + name;
}

std::string readFile(const std::string& path) {
    std::ifstream is(path);
    std::stringstream ss;
    ss << is.rdbuf();
    return ss.str();
}

std::vector<uint8_t> bytesOf(const ImageBufferFrameSource& source, std::size_t n) {
    return std::vector<uint8_t>(source.getImageData(), source.getImageData() + n);
}

// The image of patch is rectangle r of image, a picture imageWidth pixels wide.
void expectRegion(const ImageBufferFrameSource& patch, const std::vector<uint8_t>& image,
                  unsigned int imageWidth, const IRectangle& r) {
    ASSERT_EQ(patch.getResolution(), Resolution(r.width, r.height));
    for (int y = 0; y < r.height; ++y) {
        for (int x = 0; x < r.width; ++x) {
            EXPECT_EQ(pixelAt(patch.getImageData(), r.width, x, y),
                      pixelAt(image.data(), imageWidth, r.x + x, r.y + y))
                << x << "," << y;
        }
    }
}

} // namespace

TEST(FrameRotations, MoveWholePixelsAsTheTableSays) {
    // A 3 by 2 image numbered 0 1 2 / 3 4 5, pixel n being (n, 100 + n, 200 + n); each
    // rotation's output as source numbers, row by row. The _R90 forms read the same bytes as a
    // sideways source of 3 rows of 2 (0 1 / 2 3 / 4 5) and write 2 rows of 3.
    using Rotation = void (ImageFrameSource::*)(const uint8_t*, uint8_t*) const;
    const std::vector<std::pair<Rotation, std::vector<int>>> cases = {
        {&ImageFrameSource::rotate0, {0, 1, 2, 3, 4, 5}},
        {&ImageFrameSource::rotate90, {3, 0, 4, 1, 5, 2}},  // 3 rows of 2, clockwise
        {&ImageFrameSource::rotate180, {5, 4, 3, 2, 1, 0}}, // pixel n to pixel 5 - n
        {&ImageFrameSource::rotate270, {2, 5, 1, 4, 0, 3}}, // 3 rows of 2, counter-clockwise
        {&ImageFrameSource::rotate90_R90, {4, 2, 0, 5, 3, 1}},
        {&ImageFrameSource::rotate270_R90, {1, 3, 5, 0, 2, 4}}};
    const ImageBufferFrameSource probe(Resolution(3, 2));
    std::vector<uint8_t> source;
    for (int n = 0; n < 6; ++n) {
        source.insert(source.end(), {static_cast<uint8_t>(n), static_cast<uint8_t>(100 + n),
                                     static_cast<uint8_t>(200 + n)});
    }
    for (const auto& [rotate, order] : cases) {
        std::vector<uint8_t> out(source.size(), 0xEE);
        (probe.*rotate)(source.data(), out.data());
        std::vector<uint8_t> expected;
        for (int n : order) {
            expected.insert(expected.end(), source.begin() + 3 * n, source.begin() + 3 * n + 3);
        }
        EXPECT_EQ(out, expected) << "first pixel from " << order[0];
    }
}

TEST(ConstantStreamSource, FillsAnySizeAndReportsOneByOne) {
    SyslogCapture capture;
    ConstantStreamSource source(77);
    EXPECT_EQ(source.getResolution(), Resolution(1, 1));
    std::vector<uint8_t> out(5 * 3 * 3, 0);
    EXPECT_TRUE(source.getFrame(Resolution(5, 3), 90, out.data()));
    EXPECT_EQ(out, std::vector<uint8_t>(out.size(), 77));

    source.writePixelBufferAsPGM("unused.pgm");
    EXPECT_TRUE(hasLine(capture, "writePixelBufferAsPGM: writePixelBufferAsPGM not implemented "
                                 "for class ImageFrameSource. Can't write file unused.pgm"));
}

TEST(ImageBufferFrameSource, GetFrameCopiesOrStretchesByNearestSampleFromTheTopLeft) {
    const std::vector<uint8_t> image = makeCoordinateImage(4, 4);
    ImageBufferFrameSource source(Resolution(4, 4), image.data());
    std::vector<uint8_t> out(image.size());
    EXPECT_TRUE(source.getFrame(Resolution(4, 4), 90, out.data())); // a copy, rotation unused
    EXPECT_EQ(out, image);

    // Output (c, r) shows source (trunc(c * 4 / w), trunc(r * 4 / h)), the scales in single
    // precision, the aspect ratio not kept: 2 by 2 takes columns and rows 0 and 2, 8 by 3
    // repeats columns and takes rows 0, 1, 2, 7 by 5 reaches the last pixel.
    for (const Resolution& size : {Resolution(2, 2), Resolution(8, 3), Resolution(7, 5)}) {
        out.assign(static_cast<std::size_t>(size.width) * size.height * 3, 0xEE);
        EXPECT_TRUE(source.getFrame(size, 0, out.data()));
        const float xScale = 4.0f / static_cast<float>(size.width);
        const float yScale = 4.0f / static_cast<float>(size.height);
        for (unsigned int r = 0; r < size.height; ++r) {
            for (unsigned int c = 0; c < size.width; ++c) {
                EXPECT_EQ(pixelAt(out.data(), size.width, c, r),
                          pixelAt(image.data(), 4, static_cast<unsigned int>(c * xScale),
                                  static_cast<unsigned int>(r * yScale)))
                    << size.toString() << " at " << c << "," << r;
            }
        }
    }
}

TEST(ImageBufferFrameSource, GetFrameFailuresAreLoggedAndFalse) {
    SyslogCapture capture;
    ImageBufferFrameSource source(Resolution(2, 2));
    EXPECT_FALSE(source.getFrame(Resolution(2, 2), 0, nullptr));
    EXPECT_TRUE(hasLine(capture, "getFrame: output pointer pOutputPixels is null", LOG_ERR));

    ImageBufferFrameSource empty(Resolution(0, 0));
    uint8_t out[12];
    EXPECT_FALSE(empty.getFrame(Resolution(2, 2), 0, out));
    EXPECT_TRUE(hasLine(capture, "getFrame: _imageBuffer is null"));
    empty.zeroImageBuffer();
    empty.convertBGRToRGB();
    EXPECT_TRUE(hasLine(capture, "zeroImageBuffer: _imageBuffer is null"));
    EXPECT_TRUE(hasLine(capture, "convertBGRToRGB: _imageBuffer is null"));
    empty.writePixelBufferAsPGM(tempPath("never.pgm"));
    EXPECT_TRUE(hasLine(capture, "writePixelBufferAsPGM: Image buffer is null"));
}

TEST(ImageBufferFrameSource, BufferIsACapacityThatOnlyGrows) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(4, 3);
    BufferProbe source(Resolution(4, 3), image.data());
    EXPECT_EQ(source.capacity(), 36u);

    // Shrinking keeps capacity and contents.
    source.setImageBufferResolution(Resolution(2, 2));
    EXPECT_EQ(source.getResolution(), Resolution(2, 2));
    EXPECT_EQ(source.capacity(), 36u);
    EXPECT_EQ(bytesOf(source, 36), image);
    EXPECT_EQ(countLinesStartingWith(capture, "setImageBufferResolution:"), 0u);

    // convertBGRToRGB and zeroImageBuffer run over the whole capacity, not the 2 by 2 image.
    source.convertBGRToRGB();
    EXPECT_EQ(source.getImageData()[33], image[35]);
    EXPECT_EQ(source.getImageData()[35], image[33]);
    source.zeroImageBuffer();
    EXPECT_EQ(bytesOf(source, 36), std::vector<uint8_t>(36, 0));

    // Growing reallocates at exactly the new size, with one info line.
    source.setImageBufferResolution(Resolution(5, 3));
    EXPECT_EQ(source.capacity(), 45u);
    EXPECT_TRUE(hasLine(capture,
                        "setImageBufferResolution: requested frame size (45) exceeds image "
                        "buffer size (36). Resizing image buffer.",
                        LOG_INFO));
}

TEST(ImageBufferFrameSource, ResizeSkipsAndLogsSamplesBeyondTheCapacity) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(2, 2);
    BufferProbe source(Resolution(2, 2), image.data());
    // An image larger than its buffer: samples of the third row lie beyond the 12 bytes.
    source.forceResolution(Resolution(2, 3));
    std::vector<uint8_t> out(2 * 3 * 3, 0xEE);
    source.resizeTo(Resolution(2, 3), 0, out.data());
    EXPECT_EQ(pixelAt(out.data(), 2, 1, 1), pixelAt(image.data(), 2, 1, 1));
    EXPECT_EQ(pixelAt(out.data(), 2, 0, 2), std::vector<uint8_t>(3, 0xEE));
    EXPECT_TRUE(
        hasLine(capture, "resizeTo: source index out of bounds srcIndex: 12 _imageBufferSize: 12"));
    EXPECT_TRUE(
        hasLine(capture, "resizeTo: source index out of bounds srcIndex: 15 _imageBufferSize: 12"));
}

TEST(ImageBufferFrameSource, LoadImagePatchCopiesARectangleOrKeepsTheImage) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(6, 5);
    ImageBufferFrameSource video(Resolution(6, 5), image.data());
    EXPECT_EQ(video.getPointerToPixel(IPoint(2, 1)), video.getImageData() + 24);
    EXPECT_EQ(video.getPointerToPixel(IPoint(0, -1)), nullptr);
    EXPECT_EQ(video.getPointerToPixel(IPoint(6, 0)), nullptr);
    EXPECT_TRUE(hasLine(capture, "getPointerToPixel: Invalid pixel coordinates: (6, 0). Valid "
                                 "range is (0,0) to (5,4)"));

    BufferProbe patch(Resolution(1, 1));
    patch.loadImagePatch(video, IRectangle(3, 2, 3, 3)); // ends exactly at the edge
    expectRegion(patch, image, 6, IRectangle(3, 2, 3, 3));
    // One column or row more, a negative corner or size, or an overflowing sum is rejected,
    // and the patch keeps its image.
    patch.loadImagePatch(video, IRectangle(3, 2, 4, 3));
    EXPECT_TRUE(hasLine(capture, "loadImagePatch: Invalid input patch rectangle coordinates: "
                                 "Rectangle: x=3, y=2, width=4, height=3 for video stream "
                                 "resolution: 6 5"));
    for (const IRectangle& bad :
         {IRectangle(3, 2, 3, 4), IRectangle(-1, 0, 2, 2), IRectangle(1, 1, -1, 2),
          IRectangle(2147483000, 0, 2147483000, 1)}) {
        patch.loadImagePatch(video, bad);
    }
    EXPECT_EQ(countLinesStartingWith(capture, "loadImagePatch: Invalid input patch"), 5u);
    expectRegion(patch, image, 6, IRectangle(3, 2, 3, 3));

    // A smaller patch reuses the capacity.
    patch.loadImagePatch(video, IRectangle(0, 0, 2, 1));
    EXPECT_EQ(patch.getResolution(), Resolution(2, 1));
    EXPECT_EQ(patch.capacity(), 27u);

    // A patch of the object itself crops it in place.
    BufferProbe self(Resolution(6, 5), image.data());
    self.loadImagePatch(self, IRectangle(1, 2, 4, 3));
    expectRegion(self, image, 6, IRectangle(1, 2, 4, 3));
}

TEST(ImageBufferFrameSource, FramedPatchIsBlackOutsideTheImageRectangle) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(8, 6);
    ImageBufferFrameSource video(Resolution(8, 6), image.data());
    ImageBufferFrameSource patch(Resolution(1, 1));

    patch.loadImagePatch(video, IRectangle(3, 2, 2, 3), IRectangle(2, 1, 5, 4));
    ASSERT_EQ(patch.getResolution(), Resolution(5, 4));
    for (unsigned int y = 0; y < 4; ++y) {
        for (unsigned int x = 0; x < 5; ++x) {
            const bool inside = x >= 1 && x < 3 && y >= 1 && y < 4;
            EXPECT_EQ(pixelAt(patch.getImageData(), 5, x, y),
                      inside ? pixelAt(image.data(), 8, 2 + x, 1 + y) : std::vector<uint8_t>(3, 0))
                << x << "," << y;
        }
    }

    // Equal rectangles leave nothing black.
    patch.loadImagePatch(video, IRectangle(0, 0, 8, 6), IRectangle(0, 0, 8, 6));
    EXPECT_EQ(bytesOf(patch, image.size()), image);

    patch.loadImagePatch(video, IRectangle(1, 1, 2, 2), IRectangle(7, 0, 2, 2));
    EXPECT_TRUE(hasLine(capture, "loadImagePatch: Invalid input containing rectangle "
                                 "coordinates: Rectangle: x=7, y=0, width=2, height=2 for video "
                                 "stream resolution: 8 6"));
    patch.loadImagePatch(video, IRectangle(1, 1, 3, 2), IRectangle(1, 1, 2, 2));
    EXPECT_TRUE(hasLine(capture, "loadImagePatch: Invalid input image rectangle coordinates: "
                                 "Rectangle: x=1, y=1, width=3, height=2 for containing "
                                 "rectangle: Rectangle: x=1, y=1, width=2, height=2"));
    EXPECT_EQ(patch.getResolution(), Resolution(8, 6));
    // An empty image rectangle on the containing rectangle's right edge has no destination.
    patch.loadImagePatch(video, IRectangle(4, 1, 0, 2), IRectangle(2, 1, 2, 2));
    EXPECT_TRUE(hasLine(capture, "getPointerToPixel: Invalid pixel coordinates: (2, 0). Valid "
                                 "range is (0,0) to (1,1)"));
    EXPECT_TRUE(hasLine(capture, "loadImagePatch: Invalid destination pixel coordinates: (2, 0). "
                                 "Valid range is (0,0) to (1,1)"));
}

TEST(ImageBufferFrameSource, ToCVMatExchangesColoursInPlaceOnEveryCall) {
    const std::vector<uint8_t> image = makeCoordinateImage(3, 2);
    ImageBufferFrameSource source(Resolution(3, 2), image.data());
    const cv::Mat first = source.toCVMat();
    ASSERT_EQ(first.type(), CV_8UC3);
    ASSERT_EQ(first.size(), cv::Size(3, 2));
    // Blue first in the matrix, and the object's own buffer is now blue first too.
    EXPECT_EQ(first.at<cv::Vec3b>(1, 2), cv::Vec3b(112, 1, 2));
    EXPECT_EQ(pixelAt(source.getImageData(), 3, 2, 1), std::vector<uint8_t>({112, 1, 2}));
    EXPECT_EQ(source.toCVMat().at<cv::Vec3b>(1, 2), cv::Vec3b(2, 1, 112));
    EXPECT_EQ(bytesOf(source, image.size()), image);

    // A blue-first matrix comes in red first, also from a view into a larger matrix, with no
    // resizing line: the buffer is allocated at its size.
    SyslogCapture capture;
    cv::Mat big(4, 5, CV_8UC3, cv::Scalar(1, 2, 3));
    big.at<cv::Vec3b>(2, 3) = cv::Vec3b(10, 20, 30);
    ImageBufferFrameSource fromMat(big(cv::Rect(2, 1, 2, 2)));
    EXPECT_EQ(fromMat.getResolution(), Resolution(2, 2));
    EXPECT_EQ(pixelAt(fromMat.getImageData(), 2, 1, 1), std::vector<uint8_t>({30, 20, 10}));
    EXPECT_EQ(pixelAt(fromMat.getImageData(), 2, 0, 0), std::vector<uint8_t>({3, 2, 1}));
    EXPECT_TRUE(capture.records().empty());
}

TEST(ImageWriters, PgmHoldsTheFirstChannelAndImagesKeepColours) {
    const std::vector<uint8_t> image = makeCoordinateImage(3, 2);
    ImageBufferFrameSource source(Resolution(3, 2), image.data());
    const std::string pgm = tempPath("frame.pgm");
    source.writePixelBufferAsPGM(pgm);
    EXPECT_EQ(readFile(pgm), " P2\n 3 2\n 255\n   0   1   2\n   0   1   2\n");
    std::remove(pgm.c_str());

    const std::string png = tempPath("frame.png");
    source.writePixelBufferAsImage(png);
    const cv::Mat written = cv::imread(png, cv::IMREAD_COLOR);
    ASSERT_FALSE(written.empty());
    EXPECT_EQ(written.at<cv::Vec3b>(1, 2), cv::Vec3b(112, 1, 2));
    // Like toCVMat, the writer leaves the buffer blue first.
    EXPECT_EQ(pixelAt(source.getImageData(), 3, 2, 1), std::vector<uint8_t>({112, 1, 2}));

    // Read back through the image file source: red first again, allocated with no log line.
    SyslogCapture capture;
    ImageFromImageFileSource fromFile(png);
    EXPECT_EQ(fromFile.getResolution(), Resolution(3, 2));
    EXPECT_EQ(bytesOf(fromFile, 18), image);
    EXPECT_TRUE(capture.records().empty());
    std::remove(png.c_str());

    source.writePixelBufferAsImage(tempPath("no_extension"));
    EXPECT_EQ(countLinesStartingWith(capture, "writePixelBufferAsImage: Failed to write"), 1u);
}

TEST(ImageFromImageFileSource, MissingFileLogsAndThrows) {
    SyslogCapture capture;
    const std::string missing = tempPath("missing.png");
    try {
        ImageFromImageFileSource source(missing);
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()), "Failed to load image from file: " + missing);
    }
    EXPECT_TRUE(hasLine(
        capture, "ImageFromImageFileSource: Failed to load image from file: " + missing, LOG_ERR));
}

TEST(ImageFromRawBinaryFileSource, ReadsRawPixelsAndServesOnlyItsOwnSize) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(3, 2);
    const std::string path = tempPath("frame.rgb");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(image.data()),
               static_cast<std::streamsize>(image.size()));
    ImageFromRawBinaryFileSource source(Resolution(3, 2), path);
    std::vector<uint8_t> out(image.size());
    EXPECT_TRUE(source.getFrame(Resolution(3, 2), 180, out.data()));
    EXPECT_EQ(out, image);

    EXPECT_FALSE(source.getFrame(Resolution(3, 3), 0, out.data()));
    EXPECT_TRUE(
        hasLine(capture, "getFrame: mismatch in image dimensions. Expect 2 == 3 and 3 == 3"));
    EXPECT_FALSE(source.getFrame(Resolution(3, 2), 0, nullptr));
    EXPECT_TRUE(hasLine(capture, "getFrame: Output pixel buffer is null"));

    // A short file: the error line, and the missing bytes are black.
    ImageFromRawBinaryFileSource large(Resolution(3, 3), path);
    EXPECT_TRUE(hasLine(capture, "ImageFromRawBinaryFileSource: Failed to read the complete "
                                 "image data from file: " +
                                     path));
    EXPECT_EQ(bytesOf(large, 18), image);
    EXPECT_EQ(std::vector<uint8_t>(large.getImageData() + 18, large.getImageData() + 27),
              std::vector<uint8_t>(9, 0));
    std::remove(path.c_str());

    // A file that cannot be opened: logged, and the object stands with a black image.
    const std::string missing = tempPath("missing.rgb");
    ImageFromRawBinaryFileSource none(Resolution(2, 2), missing);
    EXPECT_EQ(countLinesStartingWith(capture, "ImageFromRawBinaryFileSource: Failed to open "
                                              "image file: " +
                                                  missing),
              1u);
    std::vector<uint8_t> black(12, 0xFF);
    EXPECT_TRUE(none.getFrame(Resolution(2, 2), 0, black.data()));
    EXPECT_EQ(black, std::vector<uint8_t>(12, 0));
}

TEST(VideoStreamSource, TakesPushedFramesOnlyWhileDirty) {
    SyslogCapture capture;
    VideoStreamSource source(Resolution(3, 2));
    EXPECT_TRUE(hasLine(
        capture, "VideoStreamSource: VideoStreamSource constructor from resolution 3 2", LOG_INFO));
    EXPECT_TRUE(source.isDirty());

    const std::vector<uint8_t> first = makeCoordinateImage(3, 2);
    source.loadImageData(const_cast<uint8_t*>(first.data()));
    EXPECT_EQ(bytesOf(source, first.size()), first);

    // Held: a new frame is ignored, and so is a null pointer, silently.
    source.setIsDirty(false);
    std::vector<uint8_t> second(first.size(), 9);
    source.loadImageData(second.data());
    source.loadImageData(nullptr);
    std::vector<uint8_t> out(first.size());
    EXPECT_TRUE(source.getFrame(Resolution(3, 2), 0, out.data()));
    EXPECT_EQ(out, first);
    EXPECT_EQ(countLinesStartingWith(capture, "loadImageData:"), 0u);

    source.setIsDirty(true);
    source.loadImageData(nullptr);
    EXPECT_TRUE(hasLine(capture, "loadImageData: Input image data pointer is null"));
    source.loadImageData(second.data());
    EXPECT_EQ(bytesOf(source, second.size()), second);
}

TEST(FrameSourceAllocations, SteadyStatePathsAllocateNothing) {
    const std::vector<uint8_t> image = makeCoordinateImage(200, 150);
    ImageBufferFrameSource source(Resolution(200, 150), image.data());
    ImageBufferFrameSource patch(Resolution(32, 32));
    PanoImageFrameSource mosaic(Resolution(101, 73));
    mosaic.setGridResolution(Resolution(2, 2));
    const IRectangles rectangles = {IRectangle(0, 0, 100, 75), IRectangle(100, 0, 100, 75),
                                    IRectangle(0, 75, 80, 75), IRectangle(120, 75, 80, 60)};
    mosaic.loadImagePatches(source, rectangles); // the first frame sizes the record list
    std::vector<uint8_t> exact(image.size());
    std::vector<uint8_t> small(20 * 15 * 3);

    AllocationScope scope;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(source.getFrame(Resolution(200, 150), 0, exact.data()));
        source.resizeTo(Resolution(20, 15), 0, small.data());
        patch.loadImagePatch(source, IRectangle(i, i, 30, 20));
        patch.loadImagePatch(source, IRectangle(5, 5, 10, 10), IRectangle(i, i, 30, 20));
        mosaic.loadImagePatches(source, rectangles);
    }
    EXPECT_EQ(scope.count(), 0u);
    EXPECT_EQ(mosaic.getNumberOfLoadedPatches(), 4u);
}
