// Text forms of areas and managers: the exact format, the short-text rules, and hostile input.
#include "AOIManager.h"
#include "CommonStructs.h"
#include "ExclusionManager.h"
#include "Polygons.h"
#include "RecordingLogger.h"
#include "ScopedLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace Ombrel;
using StemlibTest::RecordingLogger;
using StemlibTest::ScopedLogger;

TEST(TextForms, SixSignificantDigitsAndStaleValuesOnShortText) {
    std::ostringstream precise; // the stream's default format
    precise << FPolygon(0.123456789f, 1234567.0f, 0, 0, 1, 1);
    EXPECT_EQ(precise.str(), "3 0.123457 1.23457e+06 0 0 1 1 ");

    FPolygon polygon(9, 9, 9, 9, 9, 9);
    std::istringstream in("3 0.5 0.5 0.7 x");
    in >> polygon;
    EXPECT_TRUE(in.fail());
    ASSERT_EQ(polygon.getNPoints(), 3u) << "replaced, not appended to";
    EXPECT_EQ(polygon.getPoint(0), FPoint(0.5f, 0.5f));
    EXPECT_EQ(polygon.getPoint(1), FPoint(0.7f, 0.0f)); // the failed extraction stores 0
    EXPECT_EQ(polygon.getPoint(2), FPoint(0.7f, 0.0f)); // the failed stream changes nothing

    // An exhausted stream leaves the flag and the threshold of an area as they were.
    FAOI area(true, FRectangle(0, 0, 1, 1), 12);
    std::istringstream empty("");
    empty >> area;
    EXPECT_TRUE(area.isActive());
    EXPECT_EQ(area.getAlertSeconds(), 12u);
}

TEST(TextForms, VertexCountAboveTheLimitIsRefused) {
    RecordingLogger logger;
    ScopedLogger scope(logger);
    for (const char* text : {"100001 0 0", "4294967295 1 1", "-1 0 0", "99999999999999999999"}) {
        FPolygon polygon(1, 2, 3, 4, 5, 6);
        std::istringstream in(text);
        in >> polygon;
        EXPECT_TRUE(in.fail()) << text;
        EXPECT_EQ(polygon, FPolygon(1, 2, 3, 4, 5, 6)) << text;
    }
    ASSERT_EQ(logger.lines.size(), 4u); // the overflowing count too
    EXPECT_EQ(logger.lines[0].level, "error");
    EXPECT_EQ(logger.lines[0].message, "STEMLIB::operator>>: Refusing a polygon of 100001 "
                                       "vertices, more than the limit of 100000");

    FPolygon big; // at the limit the count is honoured, with stale values
    std::istringstream limit("100000 1 2");
    limit >> big;
    EXPECT_EQ(big.getNPoints(), 100000u);
}

namespace {

// Every prefix of text, text with each byte replaced in turn by hostile characters, random bytes.
std::vector<std::string> mutations(const std::string& text) {
    std::vector<std::string> result;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        result.push_back(text.substr(0, i));
        for (char c : {'\0', '-', 'e', '9', '\xff', '.'}) {
            result.push_back(text);
            result.back()[std::min(i, text.size() - 1)] = c;
        }
    }
    std::mt19937 random(20261121);
    for (int n = 0; n < 300; ++n) {
        result.emplace_back(random() % 65, '\0');
        for (char& c : result.back()) {
            c = static_cast<char>(random());
        }
    }
    return result;
}

} // namespace

TEST(TextForms, EveryReaderSurvivesTruncatedAndGarbageText) {
    RecordingLogger logger; // keeps the error lines of bad counts out of the system log
    ScopedLogger scope(logger);
    const Resolution res(1920, 1080);
    AOIManager areas(NAOI);
    areas.setAOI(0, true, IPolygon(100, 100, 900, 120, 880, 700, 90, 650), 12);
    areas.setAOI(1, false, IRectangle(1000, 0, 400, 300), 0);
    ExclusionManager exclusions;
    exclusions.setExclusion(0, true, IPolygon(IRectangle(10, 10, 300, 200)));
    std::ostringstream forms;
    forms << FAOI(true, FRectangle(0.1f, 0.1f, 0.5f, 0.5f), 7)
          << ActivableResolution(640, 480, true) << ' ' << ActivableDuration(true, 30) << ' '
          << Resolution(1280, 720);

    for (const std::string& text : mutations(areas.serialize(res))) {
        AOIManager manager(NAOI);
        std::istringstream in(text);
        manager.deserialize(in, res);
        EXPECT_LE(manager.getNControlPoints(), 8u);
    }
    for (const std::string& text : mutations(exclusions.serialize(res))) {
        ExclusionManager manager;
        std::istringstream in(text);
        manager.deserialize(in, res);
    }
    for (const std::string& text : mutations(forms.str())) {
        std::istringstream in(text);
        FAOI faoi;
        ActivableResolution activable;
        ActivableDuration duration;
        Resolution resolution;
        in >> faoi >> activable >> duration >> resolution;
        for (const IPoint& p : AOI(faoi, res)) {
            EXPECT_LE(std::abs(p.x), kMaxPixelCoordinate);
        }
    }
}
