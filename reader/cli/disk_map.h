// The disk of an image as a row of cells, each a chunk or several, to be drawn.
#pragma once

#include "image.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace vrnx_cli {

struct Colour {
    uint8_t red;
    uint8_t green;
    uint8_t blue;
};

// What a cell shows. The image of a level is `firstLevel` plus the level.
using CellKind = size_t;
constexpr CellKind badCell = 0;  // a chunk in it is bad
constexpr CellKind lostCell = 1; // a chunk in it lies in no image that is there
constexpr CellKind zeroCell = 2; // all of its chunks are zeros
constexpr CellKind firstLevel = 3;

// One kind of cell as the legend tells it.
struct CellStyle {
    std::string label;
    char symbol = ' ';
    Colour colour = {};
    uint64_t chunks = 0; // of this kind
};

class DiskMap {
public:
    // Looks at every chunk; `bad` has one entry a chunk, or none where nothing is known to be bad.
    DiskMap(const Image& image, const std::vector<bool>& bad);

    // The disk in at most `mostCells` cells of `chunksPerCell` chunks each, of which the last may have fewer.
    std::vector<CellKind> Cells(size_t mostCells, uint64_t& chunksPerCell) const;

    const CellStyle& Style(CellKind kind) const { return styles_[kind]; }
    size_t KindCount() const { return styles_.size(); }
    size_t LevelCount() const { return styles_.size() - firstLevel; }
    const vrnx_info& Info() const { return info_; }

private:
    vrnx_info info_;
    std::vector<uint8_t> kinds_; // of each chunk
    std::vector<CellStyle> styles_;
};

// The two drawings. `path` is the image's.
std::string DrawAsText(const DiskMap& map, const std::string& path, size_t columns, bool colours);
std::string DrawAsSvg(const DiskMap& map, const std::string& path);

} // namespace vrnx_cli
