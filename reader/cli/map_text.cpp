// The map of a disk for a terminal.

#include "disk_map.h"
#include "text.h"

#include <algorithm>

namespace vrnx_cli {

namespace {

constexpr size_t mostRows = 32;
constexpr size_t offsetColumns = 12;

// The nearest of the colours 16 to 231 of a terminal of 256, a cube of six steps each way.
std::string TerminalColour(Colour colour) {
    auto step = [](uint8_t value) { return value < 48 ? 0 : value < 115 ? 1 : (value - 35) / 40; };
    return std::to_string(16 + 36 * step(colour.red) + 6 * step(colour.green) + step(colour.blue));
}

// Black on what is light, white on what is dark, by the luminance of ITU-R BT.601.
bool IsLight(Colour colour) {
    return 299 * colour.red + 587 * colour.green + 114 * colour.blue > 128 * 1000;
}

// `count` cells of one kind. Zeros are pale on a terminal of any background: grey, on none of their own.
std::string Run(const DiskMap& map, CellKind kind, size_t count, bool colours) {
    const CellStyle& style = map.Style(kind);
    std::string symbols(count, style.symbol);
    if (!colours) {
        return symbols;
    }
    if (kind == zeroCell) {
        return "\x1b[38;5;245m" + symbols + "\x1b[0m";
    }
    return "\x1b[38;5;" + std::string(IsLight(style.colour) ? "16" : "231") + ";48;5;" + TerminalColour(style.colour) +
           "m" + symbols + "\x1b[0m";
}

std::string Legend(const DiskMap& map, bool colours) {
    std::string text;
    for (CellKind kind = 0; kind < map.KindCount(); kind++) {
        // The images from the top of the chain down, then the rest; what there is none of needs no line.
        CellKind shown = (kind + firstLevel) % map.KindCount();
        const CellStyle& style = map.Style(shown);
        if (shown >= firstLevel || style.chunks > 0) {
            text +=
                "  " + Run(map, shown, 1, colours) + "  " + style.label + ", " + Count(style.chunks, "chunk") + "\n";
        }
    }
    return text;
}

} // namespace

std::string DrawAsText(const DiskMap& map, const std::string& path, size_t columns, bool colours) {
    // Rows of a length that people can count with.
    size_t width = 8;
    while (width < 128 && width * 2 + offsetColumns < columns) {
        width *= 2;
    }
    uint64_t chunksPerCell = 0;
    std::vector<CellKind> cells = map.Cells(width * mostRows, chunksPerCell);
    uint64_t cellBytes = chunksPerCell * map.Info().chunk_size;
    std::string text = Printable(path) + ": " + BytesText(map.Info().disk_size) + ", a cell is " +
                       Count(chunksPerCell, "chunk") + ", " + SizeText(cellBytes) + "\n\n";
    for (size_t first = 0; first < cells.size(); first += width) {
        size_t last = std::min(first + width, cells.size());
        std::string offset = SizeText(first * cellBytes);
        text += std::string(offsetColumns - 2 - std::min(offsetColumns - 2, offset.size()), ' ') + offset + "  ";
        for (size_t at = first; at < last;) {
            size_t end = at;
            while (end < last && cells[end] == cells[at]) {
                end++;
            }
            text += Run(map, cells[at], end - at, colours);
            at = end;
        }
        text += "\n";
    }
    return text + "\n" + Legend(map, colours);
}

} // namespace vrnx_cli
