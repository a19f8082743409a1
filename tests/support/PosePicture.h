// Pictures for the forged pass-through pose models: bytes that are the model's output tensors,
// painted with the model's own quantization so that a detector decodes chosen people at chosen
// grid cells. Shared by the tests and the benchmarks; no test framework here.
#pragma once

#include "ForgedModels.h"
#include "PoseBase.h"
#include "PosenetDecoder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

namespace StemlibTest {

struct GridCell {
    int y;
    int x;
};
using PersonCells = std::array<GridCell, 17>;

// A standing person on the grid, its joints u cells apart: every edge of the pose tree moves by
// -u, 0 or u cells in each direction. 4u + 1 rows and columns.
inline PersonCells gridPerson(int top, int left, int u) {
    const int rows[17] = {0, 0, 0, 1, 1, 1, 1, 2, 2, 3, 3, 2, 2, 3, 3, 4, 4};
    const int columns[17] = {2, 1, 3, 0, 4, 1, 3, 0, 4, 0, 4, 1, 3, 1, 3, 1, 3};
    PersonCells cells;
    for (std::size_t k = 0; k < 17; ++k) {
        cells[k] = GridCell{top + u * rows[k], left + u * columns[k]};
    }
    return cells;
}

// The picture of a pass-through pose model: heatmaps at 0, offsets at their zero points, and
// people painted in. The mid offsets are the model's "mid_offsets", or its forward then backward
// displacements, which the detector of the 320 x 240 model concatenates.
class PosePicture {
public:
    explicit PosePicture(const modelforge::PassThroughModel& model)
        : bytes(model.inputBytes(), 0),
          input(static_cast<unsigned int>(model.width), static_cast<unsigned int>(model.height)),
          _heatmaps(model.output("heatmaps")), _short(model.output("short_offsets")) {
        _height = _heatmaps.shape[1];
        _width = _heatmaps.shape[2];
        const bool split = model.outputs.front().name == "displacement_bwd";
        _mid = {model.output(split ? "displacement_fwd" : "mid_offsets")};
        if (split) {
            _mid.push_back(model.output("displacement_bwd"));
        }
        fill(_short);
        for (const modelforge::OutputSlice& mid : _mid) {
            fill(mid);
        }
    }

    // A heatmap peak at each joint, and the mid offsets of every edge around the parent joint's
    // cell (so that a position a little off the cell samples the same).
    void addPerson(const PersonCells& cells, std::uint8_t peak) {
        for (std::size_t k = 0; k < 17; ++k) {
            bytes[_heatmaps.inputOffset + cell(cells[k]) * 17 + k] = peak;
        }
        using Ombrel::PosenetDecoder::kEdgeList;
        for (int e = 0; e < 32; ++e) {
            const GridCell parent = cells[kEdgeList[e].first];
            const GridCell child = cells[kEdgeList[e].second];
            const int channel = e < 16 ? e : e + 16;
            for (int dy = -1; dy <= 1; ++dy) {
                for (int dx = -1; dx <= 1; ++dx) {
                    const GridCell at{parent.y + dy, parent.x + dx};
                    if (at.y >= 0 && at.x >= 0 && at.y < _height && at.x < _width) {
                        setMid(cell(at) * 64 + channel, child.y - parent.y);
                        setMid(cell(at) * 64 + channel + 16, child.x - parent.x);
                    }
                }
            }
        }
    }

    std::vector<std::uint8_t> bytes;
    Ombrel::Resolution input;

private:
    std::size_t cell(const GridCell& c) const {
        return static_cast<std::size_t>(c.y * _width + c.x);
    }
    void fill(const modelforge::OutputSlice& slice) {
        std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(slice.inputOffset),
                    slice.elementCount(), static_cast<std::uint8_t>(slice.zeroPoint));
    }
    // A mid offset of `cells` grid cells: the model's values are pixels, 16 to a cell. When the
    // offsets are split, the element's index in the concatenation decides the half.
    void setMid(std::size_t index, int cells) {
        const std::size_t half = _mid.front().elementCount();
        const modelforge::OutputSlice& slice = index < half ? _mid.front() : _mid.back();
        const float byte =
            static_cast<float>(slice.zeroPoint) + std::round(16.0f * cells / slice.scale);
        bytes[slice.inputOffset + index % half] =
            static_cast<std::uint8_t>(std::clamp(byte, 0.0f, 255.0f));
    }

    modelforge::OutputSlice _heatmaps;
    modelforge::OutputSlice _short;
    std::vector<modelforge::OutputSlice> _mid;
    int _height;
    int _width;
};

} // namespace StemlibTest
