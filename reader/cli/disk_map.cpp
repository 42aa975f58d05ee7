// What each part of the disk is, and how it looks.

#include "disk_map.h"

#include "port.h"
#include "text.h"

#include <algorithm>

namespace vrnx_cli {

namespace {

// As many as a chain has images.
const char levelSymbols[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789@%&";

// The colours of Okabe and Ito ("Color Universal Design", 2008), which people with any kind of colour vision tell
// apart, without the vermillion that is too close to the red of what is bad.
constexpr std::array<Colour, 6> hues = {{{0x00, 0x72, 0xB2},
                                         {0xE6, 0x9F, 0x00},
                                         {0x00, 0x9E, 0x73},
                                         {0x56, 0xB4, 0xE9},
                                         {0xCC, 0x79, 0xA7},
                                         {0xF0, 0xE4, 0x42}}};
constexpr Colour badColour = {0xD0, 0x00, 0x20};
constexpr Colour lostColour = {0x70, 0x70, 0x70};
constexpr Colour zeroColour = {0xEC, 0xEC, 0xEC};

uint8_t Mix(uint8_t from, uint8_t to, unsigned percent) {
    return static_cast<uint8_t>((from * (100U - percent) + to * percent) / 100U);
}

// Deeper in the chain than there are hues, these come again darker, then lighter; the symbols tell them apart.
Colour LevelColour(size_t level) {
    Colour hue = hues[level % hues.size()];
    size_t round = level / hues.size() % 3;
    uint8_t towards = round == 1 ? 0x00 : 0xFF;
    unsigned percent = round == 0 ? 0 : 45;
    return {Mix(hue.red, towards, percent), Mix(hue.green, towards, percent), Mix(hue.blue, towards, percent)};
}

CellKind KindOf(const vrnx_chunk& chunk) {
    if (chunk.zero) {
        return zeroCell;
    }
    return chunk.level == VRNX_NO_LEVEL ? lostCell : firstLevel + chunk.level;
}

} // namespace

DiskMap::DiskMap(const Image& image, const std::vector<bool>& bad) : info_(image.Info()) {
    styles_.push_back({"bad, by the check", '!', badColour});
    styles_.push_back({"in no image that is there", '?', lostColour});
    styles_.push_back({"zeros", '.', zeroColour});
    for (uint32_t level = 0; level < info_.level_count; level++) {
        styles_.push_back({Printable(NameInPath(image.Layer(level).path)), levelSymbols[level], LevelColour(level)});
    }
    kinds_.reserve(info_.chunk_count);
    for (uint64_t number = 0; number < info_.chunk_count; number++) {
        CellKind kind = !bad.empty() && bad[number] ? badCell : KindOf(image.Chunk(number));
        kinds_.push_back(static_cast<uint8_t>(kind));
        styles_[kind].chunks++;
    }
}

std::vector<CellKind> DiskMap::Cells(size_t mostCells, uint64_t& chunksPerCell) const {
    chunksPerCell = (info_.chunk_count + mostCells - 1) / mostCells;
    std::vector<CellKind> cells;
    for (uint64_t first = 0; first < info_.chunk_count; first += chunksPerCell) {
        uint64_t last = std::min(first + chunksPerCell, info_.chunk_count);
        std::vector<uint64_t> counts(styles_.size());
        for (uint64_t number = first; number < last; number++) {
            counts[kinds_[number]]++;
        }
        // One bad chunk must not vanish among good ones, nor a lost one. Else the image that holds most.
        CellKind shown = zeroCell;
        if (counts[badCell] > 0) {
            shown = badCell;
        } else if (counts[lostCell] > 0) {
            shown = lostCell;
        } else if (counts[zeroCell] < last - first) {
            shown = static_cast<CellKind>(std::max_element(counts.begin() + firstLevel, counts.end()) - counts.begin());
        }
        cells.push_back(shown);
    }
    return cells;
}

} // namespace vrnx_cli
