// The map of a salvaged disk.

#include "rescue_map.h"

#include <array>
#include <cstdio>

namespace vrnx_cli {

namespace {

std::string Hex(uint64_t number) {
    std::array<char, 24> text = {};
    std::snprintf(text.data(), text.size(), "0x%08llX", static_cast<unsigned long long>(number));
    return text.data();
}

std::string BlockLine(uint64_t position, uint64_t length, char status) {
    return Hex(position) + "  " + Hex(length) + "  " + status + "\n";
}

} // namespace

void RescueMap::Add(uint64_t length, bool good) {
    char status = good ? '+' : '-';
    if (!blocks_.empty() && blocks_.back().status == status) {
        blocks_.back().length += length;
    } else {
        blocks_.push_back({end_, length, status});
    }
    end_ += length;
}

std::string RescueMap::Text(uint64_t diskSize) const {
    bool whole = end_ == diskSize;
    std::string text = "# Mapfile. Created by vrnx\n"
                       "# current_pos  current_status  current_pass\n";
    text += Hex(whole ? 0 : end_) + "     " + (whole ? '+' : '?') + "               1\n";
    text += "#      pos        size  status\n";
    for (const Block& block : blocks_) {
        text += BlockLine(block.position, block.length, block.status);
    }
    if (!whole) {
        text += BlockLine(end_, diskSize - end_, '?');
    }
    return text;
}

uint64_t RescueMap::BadBytes() const {
    uint64_t bytes = 0;
    for (const Block& block : blocks_) {
        bytes += block.status == '-' ? block.length : 0;
    }
    return bytes;
}

} // namespace vrnx_cli
