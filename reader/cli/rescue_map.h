// The map of a salvaged disk in the form of GNU ddrescue's mapfile, as its manual describes it ("Mapfile structure").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vrnx_cli {

class RescueMap {
public:
    // What comes next on the disk, from its first byte on.
    void Add(uint64_t length, bool good);

    // The whole map of a disk; what was not added is not tried ('?').
    std::string Text(uint64_t diskSize) const;

    // Bytes that are not good.
    uint64_t BadBytes() const;

private:
    struct Block {
        uint64_t position;
        uint64_t length;
        char status; // '+' good, '-' bad
    };

    std::vector<Block> blocks_; // none has the status of the next
    uint64_t end_ = 0;
};

} // namespace vrnx_cli
