#include "ImageTestUtils.h"
#include "StreamMapper.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>

using namespace Ombrel;
using namespace StemlibTest;

namespace {

using Corners = std::array<int, 4>; // x0, y0, x1, y1

Corners inputCorners(const StreamMapper& mapper) {
    Corners c{};
    mapper.getActiveInputRectangle(c[0], c[1], c[2], c[3]);
    return c;
}

Corners outputCorners(const StreamMapper& mapper) {
    Corners c{};
    mapper.getActiveOutputRectangle(c[0], c[1], c[2], c[3]);
    return c;
}

} // namespace

TEST(StreamMapper, StretchesCornerToCornerAndMirrorsOnlyX) {
    const StreamMapper plain(101, 201, 51, 401, false); // HI, WI, HO, WO
    EXPECT_EQ(plain.toString(), "StreamMapper");
    EXPECT_EQ(plain.mapX(200), 400);
    EXPECT_EQ(plain.mapX(3), 6);
    EXPECT_EQ(plain.mapY(100), 50);
    EXPECT_EQ(plain.mapY(3), 1); // 1.5 truncated
    EXPECT_EQ(plain.mapWidth(10), 20);
    EXPECT_EQ(plain.mapHeight(10), 5);
    EXPECT_EQ(plain.map(IPoint(200, 100)), IPoint(400, 50));
    EXPECT_EQ(inputCorners(plain), (Corners{0, 0, 200, 100}));
    EXPECT_EQ(outputCorners(plain), (Corners{0, 0, 400, 50}));

    const StreamMapper mirrored(101, 201, 51, 401, true);
    EXPECT_EQ(mirrored.mapX(0), 400);
    EXPECT_EQ(mirrored.mapX(200), 0);
    EXPECT_EQ(mirrored.mapY(100), 50);
    EXPECT_EQ(mirrored.mapWidth(10), 20);
}

TEST(ExtractionMapper, FollowsTheCentredCutOfTheCamera) {
    // 1920 by 1080 to 300 by 300: alpha 299 / 1079, a band of 420 at each side.
    const ExtractionMapper mapper(1080, 1920, 300, 300, false);
    EXPECT_EQ(mapper.toString(), "ExtractionMapper");
    EXPECT_FLOAT_EQ(mapper.alpha, 299.0f / 1079.0f);
    EXPECT_FLOAT_EQ(mapper.epsilonX, 420.0f);
    EXPECT_EQ(mapper.epsilonY, 0.0f);
    // In the band the edge; 960 gives 540 * 0.2771 = 149.6; from 1500 = 1920 - 420 on, 299.
    const std::vector<std::pair<int, int>> xs = {
        {419, 0}, {420, 0}, {960, 149}, {1498, 298}, {1500, 299}};
    for (const auto& [x, mapped] : xs) {
        EXPECT_EQ(mapper.mapX(x), mapped) << x;
    }
    EXPECT_EQ(mapper.mapY(1079), 299);
    EXPECT_EQ(mapper.mapY(540), 149);
    EXPECT_EQ(mapper.mapWidth(1079), 299);
    EXPECT_EQ(mapper.mapHeight(1079), 299);
    EXPECT_EQ(inputCorners(mapper), (Corners{420, 0, 1499, 1079}));
    EXPECT_EQ(outputCorners(mapper), (Corners{0, 0, 299, 299}));

    // A taller output cuts top and bottom: 640 by 480 to 480 by 480 has bands of 80 rows.
    const ExtractionMapper tall(640, 480, 480, 480, false);
    EXPECT_EQ(tall.epsilonX, 0.0f);
    EXPECT_FLOAT_EQ(tall.epsilonY, 80.0f);
    EXPECT_EQ(tall.mapY(79), 0);
    EXPECT_EQ(tall.mapY(560), 479);
    EXPECT_EQ(tall.mapX(479), 479);

    // A point left of the band goes to the far edge when mirrored.
    const ExtractionMapper mirrored(1080, 1920, 300, 300, true);
    EXPECT_EQ(mirrored.mapX(100), 299);
    EXPECT_EQ(mirrored.mapX(1800), 0);

    // Equal aspect ratios take the first branch; alpha from the heights need not bring the last
    // column to the last one of the output.
    const ExtractionMapper equal(1080, 1920, 360, 640, false);
    EXPECT_NEAR(equal.epsilonX, 0.0f, 1e-3f);
    EXPECT_FLOAT_EQ(equal.alpha, 359.0f / 1079.0f);
    EXPECT_EQ(equal.mapX(1919), 638);

    // getStreamMapper always gives an extraction, portrait or not.
    for (bool portrait : {false, true}) {
        const auto chosen = getStreamMapper(1080, 1920, 300, 300, portrait, false);
        EXPECT_EQ(chosen->toString(), "ExtractionMapper");
        EXPECT_EQ(chosen->mapX(960), 149);
    }
}

TEST(EmbeddingMapper, FitsTheWholeInputCentredWithMargins) {
    // Equal sizes: alpha 1, no shift; the second branch runs.
    const EmbeddingMapper same(480, 640, 480, 640, false);
    EXPECT_EQ(same.toString(), "EmbeddingMapper");
    EXPECT_EQ(same.alpha, 1.0f);
    EXPECT_EQ(same.deltaX, 0.0f);
    EXPECT_EQ(same.deltaY, 0.0f);
    EXPECT_EQ(same.map(IPoint(639, 479)), IPoint(639, 479));

    // 1080 by 1920 into 300 by 300: the width limits, alpha 299 / 1919, and the scaled height
    // 1079 * alpha + 1 = 169.12 leaves deltaY = 65.44.
    const EmbeddingMapper wide(1080, 1920, 300, 300, false);
    EXPECT_FLOAT_EQ(wide.alpha, 299.0f / 1919.0f);
    EXPECT_EQ(wide.deltaX, 0.0f);
    EXPECT_NEAR(wide.deltaY, 65.4403f, 1e-3f);
    EXPECT_EQ(wide.mapX(1919), 299);
    EXPECT_EQ(wide.mapY(0), 65);         // 65.44 + 0.5 truncated
    EXPECT_EQ(wide.mapY(1079), 234);     // 168.12 + 65.44 + 0.5
    EXPECT_EQ(wide.mapWidth(1000), 155); // 155.8 without rounding
    EXPECT_EQ(outputCorners(wide), (Corners{0, 65, 299, 234}));
    EXPECT_EQ(wide.getActiveOutputRectangle(), IRectangle(0, 65, 300, 170));
    EXPECT_EQ(wide.getActiveInputRectangle(), IRectangle(0, 0, 1919, 1079));
    EXPECT_EQ(inputCorners(wide), (Corners{0, 0, 1919, 1079}));

    // The height limits: deltaX comes from the truncated width, 50 by 100 into 31 by 100 has
    // wTilde trunc(30 / 49 * 99 + 1) = 61 and deltaX 19.5, not 19.19.
    EXPECT_EQ(EmbeddingMapper(50, 100, 31, 100, false).deltaX, 19.5f);
    // 480 by 480 into 480 by 640: wTilde 480 and deltaX 80.
    const EmbeddingMapper tall(IRectangle(5, 5, 480, 480), IRectangle(0, 0, 640, 480), true);
    EXPECT_EQ(tall.alpha, 1.0f);
    EXPECT_EQ(tall.deltaX, 80.0f);
    // Mirrored: x0 lies right of x1.
    EXPECT_EQ(outputCorners(tall), (Corners{559, 0, 80, 479}));
    EXPECT_EQ(tall.getActiveOutputRectangle(), IRectangle(559, 0, -478, 480));
}

TEST(VideoStreamMapper, MapsBetweenStreamsOfOneAspectRatio) {
    SyslogCapture capture;
    VideoStreamSource low(Resolution(640, 360));
    VideoStreamSource high(Resolution(1920, 1080));
    const VideoStreamMapper mapper(low, high);
    EXPECT_TRUE(hasLine(capture, "VideoStreamMapper: VideoStreamMapper constructor called"));
    EXPECT_EQ(mapper.map(10), 30);
    EXPECT_EQ(mapper.inverseMap(31), 10); // 10.33 + 0.5 truncated
    EXPECT_EQ(mapper.inverseMap(32), 11);
    EXPECT_FLOAT_EQ(mapper.map(1.5f), 4.5f);
    EXPECT_FLOAT_EQ(mapper.inverseMap(4.5f), 1.5f);
    EXPECT_EQ(mapper.map<int>(IRectangle(1, 2, 3, 4)), IRectangle(3, 6, 9, 12));

    // A box smaller than the patch gives a rectangle of exactly the patch's size, centred on
    // the mapped box (900, 450, 30, 60): the offsets -84.5 and -19.5 truncate toward zero.
    EXPECT_EQ(mapper.getContainingRectangle(IRectangle(300, 150, 10, 20), Resolution(200, 100)),
              IRectangle(816, 431, 200, 100));
    // A tall box keeps its height and widens to the patch's ratio: 90 by 180 becomes 360 by 180.
    EXPECT_EQ(mapper.getContainingRectangle(IRectangle(300, 150, 30, 60), Resolution(200, 100)),
              IRectangle(766, 450, 360, 180));
    // Near the top-left corner it is clamped at 0; at the far edge moved one pixel in.
    EXPECT_EQ(mapper.getContainingRectangle(IRectangle(0, 0, 10, 10), Resolution(200, 100)),
              IRectangle(0, 0, 200, 100));
    EXPECT_EQ(mapper.getContainingRectangle(IRectangle(630, 350, 10, 10), Resolution(200, 100)),
              IRectangle(1719, 979, 200, 100));
}

TEST(VideoStreamMapper, RefusesStreamsOfDifferentAspectRatios) {
    SyslogCapture capture;
    // Ratios that differ by 0.00009 pass, by 0.0002 fail.
    VideoStreamSource base(Resolution(1, 10000));
    VideoStreamSource close(Resolution(1, 100000));
    EXPECT_NO_THROW(VideoStreamMapper(base, close));
    VideoStreamSource far(Resolution(3, 10000));
    try {
        VideoStreamMapper mapper(base, far);
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()), "Aspect ratio mismatch between video streams");
    }
    EXPECT_TRUE(hasLine(capture, "VideoStreamMapper: Aspect ratios of the two video streams do "
                                 "not match: 0.000100 != 0.000300"));
}

TEST(EmbeddingPointMapper, InverseMapsFromTheActiveRectangleToTheSource) {
    // Equal sizes: scale 1, and the inverse map shifts by the two positions.
    const EmbeddingPointMapper equal(IRectangle(100, 50, 40, 30), IRectangle(10, 20, 40, 30));
    EXPECT_EQ(equal.getScale(), 1.0f);
    EXPECT_EQ(equal.getActiveTargetRectangle(), IRectangle(10, 20, 40, 30));
    EXPECT_EQ(equal.inverseMap(IPoint(15, 27)), IPoint(105, 57));
    EXPECT_EQ(equal.map(IPoint(105, 57)), IPoint(15, 27));

    // A wide source into a square cell fills the width: scale 0.25, margins of 25 above and
    // below.
    const EmbeddingPointMapper wide(IRectangle(400, 200, 400, 200), IRectangle(100, 0, 100, 100));
    EXPECT_EQ(wide.getScale(), 0.25f);
    EXPECT_EQ(wide.getActiveTargetRectangle(), IRectangle(100, 25, 100, 50));
    EXPECT_EQ(wide.inverseMap(IPoint(150, 50)), IPoint(600, 300));
    EXPECT_EQ(wide.inverseMap(IPoint(101, 26)), IPoint(404, 204));
    // The margin is not clamped: it maps above the source rectangle.
    EXPECT_EQ(wide.inverseMap(IPoint(100, 5)), IPoint(400, 120));
    EXPECT_EQ(wide.map(IPoint(600, 300)), IPoint(150, 50));
    EXPECT_EQ(wide.map(IPoint(402, 202)), IPoint(101, 26)); // 0.5 rounds up
    EXPECT_EQ(wide.inverseMap(IRectangle(100, 25, 100, 50)), IRectangle(400, 200, 400, 200));
    EXPECT_EQ(wide.map(IRectangle(400, 200, 400, 200)), IRectangle(100, 25, 100, 50));

    // A tall source fills the height; the active part is centred with truncation.
    const EmbeddingPointMapper tall(IRectangle(0, 0, 50, 100), IRectangle(0, 0, 101, 50));
    EXPECT_EQ(tall.getScale(), 0.5f);
    EXPECT_EQ(tall.getActiveTargetRectangle(), IRectangle(38, 0, 25, 50));

    // Keypoints keep part and score; skeletons are rebuilt with their edges, both ways.
    Keypoints keypoints;
    keypoints.add(Keypoint(IPoint(150, 50), BodypixBodyPart::LeftHip, 0.7f));
    keypoints.add(Keypoint(IPoint(110, 50), BodypixBodyPart::RightHip, 0.8f));
    const Skeleton<BodypixBodyPart> back = wide.inverseMap(Skeleton<BodypixBodyPart>(keypoints));
    EXPECT_EQ(back.toString(),
              "Skeleton: 2 keypoints, 1 edges: LeftHip (600, 300) 0.7; RightHip (440, 300) 0.8");
    EXPECT_EQ(wide.map(back).toString(),
              "Skeleton: 2 keypoints, 1 edges: LeftHip (150, 50) 0.7; RightHip (110, 50) 0.8");
}
