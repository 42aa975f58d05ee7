// What is kept of a chunk table, whose records are 72 bytes and can be millions: the hashes, one for a run of equal
// ones, and the nonces and tags of what is sealed. Disk offsets and lengths follow from the chunk's number once they
// were judged. Memory is what opening a large image costs most, so no more of it is taken. It is not for judging.
#pragma once

#include "block.h"
#include "port.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace vrnx {

// A bit for each of many things, of which one can ask how many are set before any.
class CountedBits {
public:
    // All clear, and room for them all.
    void Resize(uint64_t size) { words_.resize(static_cast<size_t>(size / 64 + 1)); }

    // From front to back; each bit once.
    void Append(bool bit) {
        Word& word = words_[static_cast<size_t>(size_ / 64)];
        if (size_ % 64 == 0) {
            word.before = total_;
        }
        word.bits |= static_cast<uint64_t>(bit) << size_ % 64;
        total_ += bit ? 1 : 0;
        size_++;
    }

    // Of a bit that was appended.
    bool operator[](uint64_t number) const {
        return (words_[static_cast<size_t>(number / 64)].bits >> number % 64 & 1) != 0;
    }

    // How many bits before this one are set, which may be any up to the one behind the last.
    uint32_t CountBefore(uint64_t number) const {
        if (number >= size_) {
            return total_;
        }
        const Word& word = words_[static_cast<size_t>(number / 64)];
        const uint64_t below = word.bits & ((uint64_t{1} << number % 64) - 1);
        return word.before + CountOnes(below);
    }

private:
    struct Word {
        uint64_t bits = 0;
        uint32_t before = 0;
    };

    // By hand: what every processor has, std::popcount calls a function for.
    static uint32_t CountOnes(uint64_t bits) {
        bits -= bits >> 1 & 0x5555555555555555;
        bits = (bits & 0x3333333333333333) + (bits >> 2 & 0x3333333333333333);
        bits = (bits + (bits >> 4)) & 0x0F0F0F0F0F0F0F0F;
        return static_cast<uint32_t>(bits * 0x0101010101010101 >> 56);
    }

    std::vector<Word> words_;
    uint64_t size_ = 0;
    uint32_t total_ = 0;
};

// Entries of one size, in blocks that stay where they are while it grows.
class Entries {
public:
    explicit Entries(size_t entrySize) : entrySize_(entrySize) {}

    // `most` is how many can still come, this one included. Throws std::bad_alloc.
    void Append(const uint8_t* entry, uint64_t most) {
        if (size_ % perBlock == 0) {
            blocks_.push_back(AllocateBlock(entrySize_ * static_cast<size_t>(std::min<uint64_t>(most, perBlock))));
        }
        std::copy_n(entry, entrySize_, blocks_.back().get() + entrySize_ * (size_ % perBlock));
        size_++;
    }

    const uint8_t* operator[](uint32_t number) const {
        return blocks_[number / perBlock].get() + entrySize_ * (number % perBlock);
    }

    const uint8_t* Last() const { return (*this)[size_ - 1]; }
    bool IsEmpty() const { return size_ == 0; }

private:
    static constexpr uint32_t perBlock = 0x10000;
    size_t entrySize_;
    std::vector<Block> blocks_;
    uint32_t size_ = 0;
};

} // namespace vrnx
