// The map of a disk as an SVG 1.1 file: a cell a square, what it is in its tooltip, a legend below.

#include "disk_map.h"
#include "text.h"

#include <algorithm>
#include <cstdio>

namespace vrnx_cli {

namespace {

constexpr size_t cellsAcross = 64;
constexpr size_t mostRowsDrawn = 64;
constexpr size_t pitch = 14; // of the squares, with the gap
constexpr size_t side = 12;
constexpr size_t left = 96; // room for the offsets
constexpr size_t top = 64;
constexpr size_t legendPitch = 22;

// A text within an element; control characters are gone already, which XML has no way to write.
std::string Escaped(const std::string& text) {
    std::string escaped;
    for (char letter : text) {
        switch (letter) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        default:
            escaped += letter;
        }
    }
    return escaped;
}

std::string HexColour(Colour colour) {
    std::array<char, 8> text = {};
    std::snprintf(text.data(), text.size(), "#%02x%02x%02x", colour.red, colour.green, colour.blue);
    return text.data();
}

std::string Number(size_t number) {
    return std::to_string(number);
}

std::string TextAt(size_t x, size_t y, const char* attributes, const std::string& text) {
    return "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\"" + attributes + ">" + Escaped(text) + "</text>\n";
}

class SvgMap {
public:
    SvgMap(const DiskMap& map, const std::string& path)
        : map_(map), path_(Printable(path)), cells_(map.Cells(cellsAcross * mostRowsDrawn, chunksPerCell_)),
          rows_((cells_.size() + cellsAcross - 1) / cellsAcross) {}

    std::string Draw() const;

private:
    std::string Styles() const;
    std::string Square(size_t x, size_t y, CellKind kind, const std::string& tooltip) const;
    std::string CellTooltip(size_t cell) const;
    std::string Cells() const;
    std::string Legend() const;
    size_t LegendTop() const { return top + rows_ * pitch + 32; }

    // Where colours come again, symbols in the cells tell the images apart.
    bool NeedsSymbols() const { return map_.LevelCount() > 6; }

    const DiskMap& map_;
    std::string path_;
    uint64_t chunksPerCell_ = 0; // before the cells, whose making tells it
    std::vector<CellKind> cells_;
    size_t rows_;
};

std::string SvgMap::Draw() const {
    size_t lines = 0;
    for (CellKind kind = 0; kind < map_.KindCount(); kind++) {
        lines += kind >= firstLevel || map_.Style(kind).chunks > 0;
    }
    size_t width = left + cellsAcross * pitch + 32;
    size_t height = LegendTop() + lines * legendPitch + 16;
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
                       Number(width) + "\" height=\"" + Number(height) + "\" viewBox=\"0 0 " + Number(width) + " " +
                       Number(height) + "\">\n<title>" + Escaped(path_) + "</title>\n" + Styles();
    text += "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
    text += TextAt(left, 28, " class=\"head\"", path_);
    text += TextAt(left, 48, "",
                   BytesText(map_.Info().disk_size) + ", a cell is " + Count(chunksPerCell_, "chunk") + ", " +
                       SizeText(chunksPerCell_ * map_.Info().chunk_size));
    return text + Cells() + Legend() + "</svg>\n";
}

std::string SvgMap::Styles() const {
    std::string text = "<style>text{font:13px sans-serif;fill:#222222}text.head{font-size:17px;font-weight:bold}"
                       "text.offset{font-size:11px;fill:#666666;text-anchor:end}"
                       "text.symbol{font:bold 9px monospace;text-anchor:middle;pointer-events:none}"
                       "path{stroke:#ffffff;stroke-width:1.6;pointer-events:none}";
    for (CellKind kind = 0; kind < map_.KindCount(); kind++) {
        text += ".k" + Number(kind) + "{fill:" + HexColour(map_.Style(kind).colour) + "}";
    }
    return text + "</style>\n";
}

// Bad is a cross and lost a stroke as well, for who sees no red, and on paper.
std::string SvgMap::Square(size_t x, size_t y, CellKind kind, const std::string& tooltip) const {
    std::string text = "<rect class=\"k" + Number(kind) + "\" x=\"" + Number(x) + "\" y=\"" + Number(y) +
                       "\" width=\"" + Number(side) + "\" height=\"" + Number(side) + "\" rx=\"2\"";
    text += tooltip.empty() ? "/>\n" : "><title>" + Escaped(tooltip) + "</title></rect>\n";
    if (kind == badCell || kind == lostCell) {
        std::string stroke = "M" + Number(x + 3) + " " + Number(y + 3) + "l6 6";
        if (kind == badCell) {
            stroke += "m0 -6l-6 6";
        }
        text += "<path d=\"" + stroke + "\"/>\n";
    } else if (kind >= firstLevel && NeedsSymbols()) {
        text += TextAt(x + side / 2, y + side - 3, " class=\"symbol\"", std::string(1, map_.Style(kind).symbol));
    }
    return text;
}

std::string SvgMap::CellTooltip(size_t cell) const {
    uint64_t first = cell * chunksPerCell_;
    uint64_t last = std::min(first + chunksPerCell_, map_.Info().chunk_count) - 1;
    std::string chunks = first == last ? "chunk " + std::to_string(first)
                                       : "chunks " + std::to_string(first) + " to " + std::to_string(last);
    return chunks + ", disk offset " + std::to_string(first * map_.Info().chunk_size) + ": " +
           map_.Style(cells_[cell]).label;
}

std::string SvgMap::Cells() const {
    std::string text;
    for (size_t row = 0; row < rows_; row++) {
        size_t y = top + row * pitch;
        // An offset every few rows is enough to find one's way.
        if (row % 4 == 0) {
            text += TextAt(left - 10, y + side - 2, " class=\"offset\"",
                           SizeText(row * cellsAcross * chunksPerCell_ * map_.Info().chunk_size));
        }
        for (size_t cell = row * cellsAcross; cell < std::min((row + 1) * cellsAcross, cells_.size()); cell++) {
            text += Square(left + cell % cellsAcross * pitch, y, cells_[cell], CellTooltip(cell));
        }
    }
    return text;
}

std::string SvgMap::Legend() const {
    std::string text;
    size_t y = LegendTop();
    for (CellKind kind = 0; kind < map_.KindCount(); kind++) {
        // The images from the top of the chain down, then the rest; what there is none of needs no line.
        CellKind shown = (kind + firstLevel) % map_.KindCount();
        const CellStyle& style = map_.Style(shown);
        if (shown < firstLevel && style.chunks == 0) {
            continue;
        }
        text += Square(left, y, shown, "");
        text += TextAt(left + 22, y + side - 1, "", style.label + ", " + Count(style.chunks, "chunk"));
        y += legendPitch;
    }
    return text;
}

} // namespace

std::string DrawAsSvg(const DiskMap& map, const std::string& path) {
    return SvgMap(map, path).Draw();
}

} // namespace vrnx_cli
