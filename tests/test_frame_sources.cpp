#include "AllocationCounter.h"
#include "ConstantStreamSource.h"
#include "ImageBufferFrameSource.h"
#include "ImageFromImageFileSource.h"
#include "ImageFromRawBinaryFileSource.h"
#include "ImageTestUtils.h"
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

// A source whose rotations can be called on any layout.
class RotationProbe : public ConstantStreamSource {
public:
    RotationProbe(unsigned int w, unsigned int h) : ConstantStreamSource(0) {
        _resolution = Resolution(w, h);
    }
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

// The pixel identity of makeCoordinateImage: x and y of the source pixel.
std::pair<int, int> sourceOf(const uint8_t* frame, unsigned int w, unsigned int x, unsigned int y) {
    const uint8_t* p = frame + (static_cast<std::size_t>(y) * w + x) * 3;
    return {p[0], p[1]};
}

} // namespace

TEST(FrameRotations, MoveWholePixelsAsTheTableSays) {
    const unsigned int W = 3;
    const unsigned int H = 2;
    RotationProbe probe(W, H);
    const std::vector<uint8_t> image = makeCoordinateImage(W, H); // H rows of W
    std::vector<uint8_t> out(image.size());

    probe.rotate0(image.data(), out.data());
    EXPECT_EQ(out, image);

    // rotate90: W rows of H; (i, j) -> (j, H - 1 - i). Channel order stays in each pixel.
    probe.rotate90(image.data(), out.data());
    for (unsigned int i = 0; i < H; ++i) {
        for (unsigned int j = 0; j < W; ++j) {
            EXPECT_EQ(pixelAt(out.data(), H, H - 1 - i, j), pixelAt(image.data(), W, j, i));
        }
    }
    // The top-left of a quarter turn clockwise is the bottom-left of the source.
    EXPECT_EQ(sourceOf(out.data(), H, 0, 0), std::make_pair(0, 1));

    probe.rotate270(image.data(), out.data());
    for (unsigned int i = 0; i < H; ++i) {
        for (unsigned int j = 0; j < W; ++j) {
            EXPECT_EQ(pixelAt(out.data(), H, i, W - 1 - j), pixelAt(image.data(), W, j, i));
        }
    }
    EXPECT_EQ(sourceOf(out.data(), H, 0, 0), std::make_pair(2, 0));

    probe.rotate180(image.data(), out.data());
    for (unsigned int n = 0; n < W * H; ++n) {
        EXPECT_EQ(pixelAt(out.data(), W * H, W * H - 1 - n, 0), pixelAt(image.data(), W * H, n, 0));
    }

    // The _R90 forms read W rows of H pixels and write H rows of W.
    const std::vector<uint8_t> sideways = makeCoordinateImage(H, W);
    probe.rotate90_R90(sideways.data(), out.data());
    for (unsigned int i = 0; i < W; ++i) {
        for (unsigned int j = 0; j < H; ++j) {
            EXPECT_EQ(pixelAt(out.data(), W, W - 1 - i, j), pixelAt(sideways.data(), H, j, i));
        }
    }
    probe.rotate270_R90(sideways.data(), out.data());
    for (unsigned int i = 0; i < W; ++i) {
        for (unsigned int j = 0; j < H; ++j) {
            EXPECT_EQ(pixelAt(out.data(), W, i, H - 1 - j), pixelAt(sideways.data(), H, j, i));
        }
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

TEST(ImageBufferFrameSource, GetFrameCopiesOrResamplesNearestFromTopLeft) {
    const std::vector<uint8_t> image = makeCoordinateImage(4, 4);
    ImageBufferFrameSource source(Resolution(4, 4), image.data());

    // The own size is a copy, whatever the rotation.
    std::vector<uint8_t> same(image.size());
    EXPECT_TRUE(source.getFrame(Resolution(4, 4), 90, same.data()));
    EXPECT_EQ(same, image);

    // Half size takes columns and rows 0 and 2.
    std::vector<uint8_t> half(2 * 2 * 3);
    EXPECT_TRUE(source.getFrame(Resolution(2, 2), 0, half.data()));
    EXPECT_EQ(sourceOf(half.data(), 2, 0, 0), std::make_pair(0, 0));
    EXPECT_EQ(sourceOf(half.data(), 2, 1, 0), std::make_pair(2, 0));
    EXPECT_EQ(sourceOf(half.data(), 2, 0, 1), std::make_pair(0, 2));
    EXPECT_EQ(sourceOf(half.data(), 2, 1, 1), std::make_pair(2, 2));

    // A larger size repeats pixels; the aspect ratio is not kept: 4 by 4 to 8 by 3.
    std::vector<uint8_t> stretched(8 * 3 * 3);
    EXPECT_TRUE(source.getFrame(Resolution(8, 3), 0, stretched.data()));
    for (unsigned int c = 0; c < 8; ++c) {
        EXPECT_EQ(sourceOf(stretched.data(), 8, c, 0).first, static_cast<int>(c / 2));
    }
    // Rows: trunc(r * 4 / 3) = 0, 1, 2.
    EXPECT_EQ(sourceOf(stretched.data(), 8, 0, 1).second, 1);
    EXPECT_EQ(sourceOf(stretched.data(), 8, 0, 2).second, 2);
    EXPECT_EQ(pixelAt(stretched.data(), 8, 7, 2), pixelAt(image.data(), 4, 3, 2));

    // Upscaling up to the image's last pixel: 3 by 2 to 7 by 5 takes (c * 3 / 7, r * 2 / 5).
    const std::vector<uint8_t> small = makeCoordinateImage(3, 2);
    ImageBufferFrameSource smallSource(Resolution(3, 2), small.data());
    std::vector<uint8_t> large(7 * 5 * 3);
    EXPECT_TRUE(smallSource.getFrame(Resolution(7, 5), 0, large.data()));
    for (unsigned int r = 0; r < 5; ++r) {
        for (unsigned int c = 0; c < 7; ++c) {
            EXPECT_EQ(pixelAt(large.data(), 7, c, r),
                      pixelAt(small.data(), 3, c * 3 / 7, r * 2 / 5))
                << c << "," << r;
        }
    }
}

TEST(ImageBufferFrameSource, GetFrameFailuresAreLoggedAndFalse) {
    SyslogCapture capture;
    ImageBufferFrameSource source(Resolution(2, 2));
    EXPECT_FALSE(source.getFrame(Resolution(2, 2), 0, nullptr));
    EXPECT_TRUE(hasLine(capture, "getFrame: output pointer pOutputPixels is null"));

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
    EXPECT_EQ(std::vector<uint8_t>(source.getImageData(), source.getImageData() + 36), image);
    EXPECT_EQ(countLinesStartingWith(capture, "setImageBufferResolution:"), 0u);

    // convertBGRToRGB and zeroImageBuffer run over the whole capacity, not the 2 by 2 image.
    source.convertBGRToRGB();
    EXPECT_EQ(source.getImageData()[33], image[35]);
    EXPECT_EQ(source.getImageData()[35], image[33]);
    source.zeroImageBuffer();
    EXPECT_EQ(std::vector<uint8_t>(source.getImageData(), source.getImageData() + 36),
              std::vector<uint8_t>(36, 0));

    // Growing reallocates at exactly the new size, with one info line.
    source.setImageBufferResolution(Resolution(5, 3));
    EXPECT_EQ(source.capacity(), 45u);
    EXPECT_TRUE(hasLine(capture, "setImageBufferResolution: requested frame size (45) exceeds "
                                 "image buffer size (36). Resizing image buffer."));
    for (const SyslogRecord& record : capture.records()) {
        if (record.message.find("Resizing image buffer") != std::string::npos) {
            EXPECT_EQ(record.priority, LOG_INFO);
        }
    }
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

TEST(ImageBufferFrameSource, PixelPointersAndPatchRectangles) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(3, 2);
    ImageBufferFrameSource source(Resolution(3, 2), image.data());
    EXPECT_EQ(source.getPointerToPixel(IPoint(2, 1)), source.getImageData() + 15);
    EXPECT_EQ(source.getPointerToPixel(IPoint(3, 0)), nullptr);
    EXPECT_EQ(source.getPointerToPixel(IPoint(0, -1)), nullptr);
    EXPECT_TRUE(hasLine(capture, "getPointerToPixel: Invalid pixel coordinates: (3, 0). Valid "
                                 "range is (0,0) to (2,1)"));

    const Resolution res(10, 8);
    EXPECT_TRUE(ImageBufferFrameSource::validPatchCoordinates(IRectangle(6, 5, 4, 3), res));
    EXPECT_FALSE(ImageBufferFrameSource::validPatchCoordinates(IRectangle(6, 5, 5, 3), res));
    EXPECT_FALSE(ImageBufferFrameSource::validPatchCoordinates(IRectangle(6, 5, 4, 4), res));
    EXPECT_FALSE(ImageBufferFrameSource::validPatchCoordinates(IRectangle(-1, 0, 2, 2), res));
    EXPECT_FALSE(ImageBufferFrameSource::validPatchCoordinates(
        IRectangle(2147483000, 0, 2147483000, 1), res));
}

TEST(ImageBufferFrameSource, LoadImagePatchCopiesARectangleOrKeepsTheImage) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(6, 5);
    ImageBufferFrameSource video(Resolution(6, 5), image.data());
    BufferProbe patch(Resolution(1, 1));

    // A rectangle ending exactly at the edge is valid.
    patch.loadImagePatch(video, IRectangle(3, 2, 3, 3));
    ASSERT_EQ(patch.getResolution(), Resolution(3, 3));
    for (unsigned int y = 0; y < 3; ++y) {
        for (unsigned int x = 0; x < 3; ++x) {
            EXPECT_EQ(pixelAt(patch.getImageData(), 3, x, y),
                      pixelAt(image.data(), 6, 3 + x, 2 + y));
        }
    }
    // One column more is rejected, and the patch keeps its image.
    patch.loadImagePatch(video, IRectangle(3, 2, 4, 3));
    EXPECT_TRUE(hasLine(capture, "loadImagePatch: Invalid input patch rectangle coordinates: "
                                 "Rectangle: x=3, y=2, width=4, height=3 for video stream "
                                 "resolution: 6 5"));
    EXPECT_EQ(patch.getResolution(), Resolution(3, 3));
    EXPECT_EQ(pixelAt(patch.getImageData(), 3, 0, 0), pixelAt(image.data(), 6, 3, 2));
    patch.loadImagePatch(video, IRectangle(1, 1, -1, 2));
    EXPECT_EQ(patch.getResolution(), Resolution(3, 3));

    // A smaller patch reuses the capacity; the stale bytes beyond the image stay.
    patch.loadImagePatch(video, IRectangle(0, 0, 2, 1));
    EXPECT_EQ(patch.getResolution(), Resolution(2, 1));
    EXPECT_EQ(patch.capacity(), 27u);

    // A patch of the object itself crops it in place.
    BufferProbe self(Resolution(6, 5), image.data());
    self.loadImagePatch(self, IRectangle(1, 2, 4, 3));
    for (unsigned int y = 0; y < 3; ++y) {
        for (unsigned int x = 0; x < 4; ++x) {
            EXPECT_EQ(pixelAt(self.getImageData(), 4, x, y),
                      pixelAt(image.data(), 6, 1 + x, 2 + y));
        }
    }
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
    EXPECT_EQ(std::vector<uint8_t>(patch.getImageData(), patch.getImageData() + image.size()),
              image);

    patch.loadImagePatch(video, IRectangle(1, 1, 2, 2), IRectangle(7, 0, 2, 2));
    EXPECT_TRUE(hasLine(capture, "loadImagePatch: Invalid input containing rectangle "
                                 "coordinates: Rectangle: x=7, y=0, width=2, height=2 for video "
                                 "stream resolution: 8 6"));
    patch.loadImagePatch(video, IRectangle(1, 1, 3, 2), IRectangle(1, 1, 2, 2));
    EXPECT_TRUE(hasLine(capture, "loadImagePatch: Invalid input image rectangle coordinates: "
                                 "Rectangle: x=1, y=1, width=3, height=2 for containing "
                                 "rectangle: Rectangle: x=1, y=1, width=2, height=2"));
    EXPECT_EQ(patch.getResolution(), Resolution(8, 6));
}

TEST(ImageBufferFrameSource, ToCVMatExchangesColoursInPlaceOnEveryCall) {
    const std::vector<uint8_t> image = makeCoordinateImage(3, 2);
    ImageBufferFrameSource source(Resolution(3, 2), image.data());
    const cv::Mat first = source.toCVMat();
    ASSERT_EQ(first.type(), CV_8UC3);
    ASSERT_EQ(first.rows, 2);
    ASSERT_EQ(first.cols, 3);
    // Blue first in the matrix, and the object's own buffer is now blue first too.
    EXPECT_EQ(first.at<cv::Vec3b>(1, 2), cv::Vec3b(100 + 2 + 10, 1, 2));
    EXPECT_EQ(pixelAt(source.getImageData(), 3, 2, 1), std::vector<uint8_t>({112, 1, 2}));
    const cv::Mat second = source.toCVMat();
    EXPECT_EQ(second.at<cv::Vec3b>(1, 2), cv::Vec3b(2, 1, 112));
    EXPECT_EQ(std::vector<uint8_t>(source.getImageData(), source.getImageData() + image.size()),
              image);

    // A blue-first matrix comes in red first, also from a view into a larger matrix.
    cv::Mat big(4, 5, CV_8UC3, cv::Scalar(1, 2, 3));
    big.at<cv::Vec3b>(2, 3) = cv::Vec3b(10, 20, 30);
    ImageBufferFrameSource fromMat(big(cv::Rect(2, 1, 2, 2)));
    EXPECT_EQ(fromMat.getResolution(), Resolution(2, 2));
    EXPECT_EQ(pixelAt(fromMat.getImageData(), 2, 1, 1), std::vector<uint8_t>({30, 20, 10}));
    EXPECT_EQ(pixelAt(fromMat.getImageData(), 2, 0, 0), std::vector<uint8_t>({3, 2, 1}));
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

    // Read back through the image file source: red first again.
    ImageFromImageFileSource fromFile(png);
    EXPECT_EQ(fromFile.getResolution(), Resolution(3, 2));
    EXPECT_EQ(std::vector<uint8_t>(fromFile.getImageData(), fromFile.getImageData() + 18), image);
    std::remove(png.c_str());

    SyslogCapture capture;
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
    EXPECT_TRUE(
        hasLine(capture, "ImageFromImageFileSource: Failed to load image from file: " + missing));
}

TEST(ImageFromRawBinaryFileSource, ReadsRawPixelsAndServesOnlyItsOwnSize) {
    SyslogCapture capture;
    const std::vector<uint8_t> image = makeCoordinateImage(3, 2);
    const std::string path = tempPath("frame.rgb");
    {
        std::ofstream os(path, std::ios::binary);
        os.write(reinterpret_cast<const char*>(image.data()),
                 static_cast<std::streamsize>(image.size()));
    }
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
    EXPECT_EQ(std::vector<uint8_t>(large.getImageData(), large.getImageData() + 18), image);
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
    EXPECT_TRUE(
        hasLine(capture, "VideoStreamSource: VideoStreamSource constructor from resolution 3 2"));
    EXPECT_TRUE(source.isDirty());

    const std::vector<uint8_t> first = makeCoordinateImage(3, 2);
    source.loadImageData(const_cast<uint8_t*>(first.data()));
    std::vector<uint8_t> out(first.size());
    EXPECT_TRUE(source.getFrame(Resolution(3, 2), 0, out.data()));
    EXPECT_EQ(out, first);

    // Held: a new frame is ignored, and so is a null pointer, silently.
    source.setIsDirty(false);
    std::vector<uint8_t> second(first.size(), 9);
    source.loadImageData(second.data());
    source.loadImageData(nullptr);
    EXPECT_TRUE(source.getFrame(Resolution(3, 2), 0, out.data()));
    EXPECT_EQ(out, first);
    EXPECT_EQ(countLinesStartingWith(capture, "loadImageData:"), 0u);

    source.setIsDirty(true);
    source.loadImageData(nullptr);
    EXPECT_TRUE(hasLine(capture, "loadImageData: Input image data pointer is null"));
    source.loadImageData(second.data());
    EXPECT_TRUE(source.getFrame(Resolution(3, 2), 0, out.data()));
    EXPECT_EQ(out, second);
}

TEST(FrameSourceAllocations, SteadyStatePathsAllocateNothing) {
    const std::vector<uint8_t> image = makeCoordinateImage(64, 48);
    ImageBufferFrameSource source(Resolution(64, 48), image.data());
    ImageBufferFrameSource patch(Resolution(32, 32));
    std::vector<uint8_t> exact(image.size());
    std::vector<uint8_t> small(20 * 15 * 3);

    AllocationScope scope;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(source.getFrame(Resolution(64, 48), 0, exact.data()));
        source.resizeTo(Resolution(20, 15), 0, small.data());
        patch.loadImagePatch(source, IRectangle(i, i, 30, 20));
        patch.loadImagePatch(source, IRectangle(5, 5, 10, 10), IRectangle(i, i, 30, 20));
    }
    EXPECT_EQ(scope.count(), 0u);
}
