// Per-frame costs of the scene rules: point-in-area tests and the dwell manager.
#include "AOIManager.h"
#include "Polygons.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

using namespace Ombrel;

namespace {

// An octagon of radius r around (cx, cy), as the 8-control-point areas of an application.
IPolygon octagon(float cx, float cy, float r) {
    IPolygon polygon;
    for (int i = 0; i < 8; ++i) {
        const double angle = 2.0 * M_PI * i / 8.0;
        polygon.addPoint(static_cast<int>(cx + r * std::cos(angle)),
                         static_cast<int>(cy + r * std::sin(angle)));
    }
    return polygon;
}

// Query points spread over a 1920x1080 picture, about half of them inside the octagon.
std::vector<FPoint> queryPoints(std::size_t n) {
    std::vector<FPoint> points;
    for (std::size_t i = 0; i < n; ++i) {
        points.emplace_back(static_cast<float>((i * 7919) % 1920),
                            static_cast<float>((i * 104729) % 1080));
    }
    return points;
}

void BM_PolygonContains8Vertices(benchmark::State& state) {
    const IPolygon polygon = octagon(960, 540, 500);
    const std::vector<FPoint> points = queryPoints(1024);
    const PolygonT<int>& area = polygon;
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(area.contains(points[i++ & 1023]));
    }
}
BENCHMARK(BM_PolygonContains8Vertices);

// 200 tracked ids moving over 3 active 8-vertex areas; one iteration is one object in one frame.
void BM_AOIManagerAdd200Objects(benchmark::State& state) {
    AOIManager manager(NAOI);
    manager.setAOI(0, true, octagon(400, 300, 250), 5);
    manager.setAOI(1, true, octagon(1000, 500, 300), 5);
    manager.setAOI(2, true, octagon(1500, 700, 250), 5);
    const int nObjects = 200;
    std::vector<FPoint> positions;
    for (int id = 0; id < nObjects; ++id) {
        positions.emplace_back(static_cast<float>((id * 97) % 1920),
                               static_cast<float>((id * 61) % 1080));
    }
    int id = 0;
    float step = 0.0f;
    for (auto _ : state) {
        const FPoint& p = positions[static_cast<std::size_t>(id)];
        benchmark::DoNotOptimize(manager.add(id, FPoint(p.x + step, p.y)));
        if (++id == nObjects) {
            id = 0;
            step = step > 100.0f ? 0.0f : step + 3.0f; // next frame: everybody moves
        }
    }
}
BENCHMARK(BM_AOIManagerAdd200Objects);

} // namespace
