// Text forms of areas and managers: the exact format, the short-text rules, and hostile input.
#include "AOIManager.h"
#include "CommonStructs.h"
#include "ExclusionManager.h"
#include "Polygons.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace Ombrel;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;

TEST(TextForms, AreaFormsAsWritten) {
    const FAOI faoi(true, 0.1f, 0.2f, 0.9f, 0.2f, 0.9f, 0.8f, 0.1f, 0.8f, 30);
    std::ostringstream os;
    os << faoi;
    EXPECT_EQ(os.str(), "1 4 0.1 0.2 0.9 0.2 0.9 0.8 0.1 0.8 30 ");

    FAOI back;
    std::istringstream in(os.str());
    in >> back;
    EXPECT_TRUE(back == faoi);

    // Six significant digits, the stream's default.
    std::ostringstream precise;
    precise << FPolygon(0.123456789f, 1234567.0f, 0, 0, 1, 1);
    EXPECT_EQ(precise.str(), "3 0.123457 1.23457e+06 0 0 1 1 ");
}

TEST(TextForms, PolygonReaderReplacesAndKeepsStaleValuesOnShortText) {
    FPolygon polygon(9, 9, 9, 9, 9, 9);
    std::istringstream in("3 0.5 0.5 0.7 x");
    in >> polygon;
    EXPECT_TRUE(in.fail());
    ASSERT_EQ(polygon.getNPoints(), 3u); // replaced, not appended to
    EXPECT_EQ(polygon.getPoint(0), FPoint(0.5f, 0.5f));
    EXPECT_EQ(polygon.getPoint(1), FPoint(0.7f, 0.0f)); // failed extraction stores 0
    EXPECT_EQ(polygon.getPoint(2), FPoint(0.7f, 0.0f)); // failed stream leaves values as they were

    // A flag that is not 0 or 1 fails the stream; the polygon behind it reads as empty.
    FActivablePolygon area(true, FRectangle(0, 0, 1, 1));
    std::istringstream flag("2 3 0 0 1 0 1 1");
    flag >> area;
    EXPECT_TRUE(flag.fail());
    EXPECT_EQ(area.getNPoints(), 0u);
}

TEST(TextForms, VertexCountAboveLimitIsRefused) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    for (const char* text : {"100001 0 0", "4294967295 1 1", "-1 0 0", "99999999999999999999"}) {
        FPolygon polygon(1, 2, 3, 4, 5, 6);
        std::istringstream in(text);
        in >> polygon;
        EXPECT_TRUE(in.fail()) << text;
        EXPECT_EQ(polygon, FPolygon(1, 2, 3, 4, 5, 6)) << text;
    }
    // The overflowing count fails extraction itself (stored as the maximum) and is refused too.
    ASSERT_EQ(logger.lines.size(), 4u);
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::operator>>: Refusing a polygon of 100001 "
                                       "vertices, more than the limit of 100000");

    // At the limit the count is honoured, with stale values: memory stays bounded.
    FPolygon big;
    std::istringstream limit("100000 1 2");
    limit >> big;
    EXPECT_EQ(big.getNPoints(), 100000u);

    // A manager meeting a hostile area count stops at its first index out of range.
    logger.lines.clear();
    AOIManager manager(NAOI);
    std::istringstream hostile("4 4000000000 1 100000000 0 0");
    EXPECT_FALSE(manager.deserialize(hostile, Resolution(640, 480)));
    ASSERT_GE(logger.lines.size(), 2u);
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::deserialize: Invalid number of AOIs: 4000000000");
}

namespace {

// Every prefix of text, and text with each byte replaced in turn by a few hostile characters.
std::vector<std::string> mutations(const std::string& text) {
    std::vector<std::string> result;
    for (std::size_t length = 0; length <= text.size(); ++length) {
        result.push_back(text.substr(0, length));
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        for (char c : {'\0', '-', 'e', '9', '\xff', '.'}) {
            std::string changed = text;
            changed[i] = c;
            result.push_back(changed);
        }
    }
    std::mt19937 random(20261121);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<std::size_t> length(0, 64);
    for (int n = 0; n < 300; ++n) {
        std::string garbage(length(random), '\0');
        for (char& c : garbage) {
            c = static_cast<char>(byte(random));
        }
        result.push_back(garbage);
    }
    return result;
}

} // namespace

TEST(TextForms, EveryReaderSurvivesTruncatedAndGarbageText) {
    RecordingLogger logger; // keeps the error lines of bad counts out of the system log
    ScopedLogger scope(logger);
    const Resolution res(1920, 1080);

    AOIManager source(NAOI);
    source.setAOI(0, true, IPolygon(100, 100, 900, 120, 880, 700, 90, 650), 12);
    source.setAOI(1, false, IRectangle(1000, 0, 400, 300), 0);
    for (const std::string& text : mutations(source.serialize(res))) {
        AOIManager manager(NAOI);
        std::istringstream in(text);
        manager.deserialize(in, res);
        EXPECT_LE(manager.getNControlPoints(), 8u);
    }

    ExclusionManager exclusions;
    exclusions.setExclusion(0, true, IPolygon(IRectangle(10, 10, 300, 200)));
    for (const std::string& text : mutations(exclusions.serialize(res))) {
        ExclusionManager manager;
        std::istringstream in(text);
        manager.deserialize(in, res);
    }

    std::ostringstream forms;
    forms << FAOI(true, FRectangle(0.1f, 0.1f, 0.5f, 0.5f), 7)
          << ActivableResolution(640, 480, true) << ' ' << ActivableDuration(true, 30) << ' '
          << Resolution(1280, 720);
    for (const std::string& text : mutations(forms.str())) {
        std::istringstream in(text);
        FAOI faoi;
        ActivableResolution activable;
        ActivableDuration duration;
        Resolution resolution;
        in >> faoi >> activable >> duration >> resolution;
        EXPECT_LE(faoi.getNPoints(), kMaxPolygonVertices);
        const AOI pixels(faoi, res);
        for (const IPoint& p : pixels) {
            EXPECT_LE(std::abs(p.x), kMaxPixelCoordinate);
        }
    }
}
