// One image file of a chain: its header, table and trailer, read and judged. It is not for what ties it to its base,
// and reads no chunk.
#pragma once

#include "block.h"
#include "exported.h"
#include "format.h"
#include "port.h"
#include "table.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vrnx {

// A problem that a lenient open met. Texts of vrnx_error's size would be too many bytes for many of them.
struct Problem {
    int code;
    int systemError;
    uint32_t level;
    uint64_t chunk; // or VRNX_NO_CHUNK
    std::string text;
};

using Problems = std::vector<Problem>;

// A derived key, wiped with its owner.
struct Key {
    Key() = default;
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    ~Key() { Wipe(bytes, sizeof bytes); }
    uint8_t bytes[keySize] = {};
};

// The hashes of chunks of zeros, for a table of which nothing else is kept. The images of a chain have chunks of the
// same two lengths, as a rule.
class ZeroHashes {
public:
    // False where the library of cryptography fails.
    bool Prepare(Context& context, uint32_t length, uint32_t lastLength);

    const uint8_t* Of(bool isLast) const { return hashes_[isLast ? 1 : 0]; }

private:
    uint32_t lengths_[2] = {};
    uint8_t hashes_[2][hashSize] = {};
};

class Layer {
public:
    Layer(std::string path, uint32_t level) : path_(std::move(path)), level_(level) {}

    // Opens the file and reads header and table. What is refused gives its code and fills `error`; with `problems`, all
    // but a header that is refused, which is one too where `examine` is set, is put there instead. Then Known() tells
    // what is to be had.
    // With `zeros`, no hash is kept but theirs: HashOf gives another one for all the rest.
    int Load(Context& context, Problems* problems, bool examine, ZeroHashes* zeros, vrnx_error& error);

    // Reads the trailer of a thin image, behind a good header. As above.
    int LoadTrailer(Problems* problems, vrnx_error& error);

    // The plain length of a chunk.
    uint32_t LengthOf(uint64_t chunk) const;

    // Whether the table holds a record of this chunk that breaks no rule.
    bool HasRecord(uint64_t chunk) const {
        return chunk < presentRecords_ && (badRecords_.empty() || !badRecords_[chunk]);
    }

    // Of a chunk with a record: the hash of its plain bytes, and whether it is stored in this file.
    const uint8_t* HashOf(uint64_t chunk) const { return hashes_[hashChanges_.CountBefore(chunk + 1) - 1]; }
    bool IsStored(uint64_t chunk) const { return !IsThin() || stored_[chunk]; }

    // Of a chunk that is stored sealed.
    const uint8_t* NonceOf(uint64_t chunk) const { return seals_[StoredBefore(chunk)]; }
    const uint8_t* TagOf(uint64_t chunk) const { return NonceOf(chunk) + nonceSize; }

    // Where a stored chunk begins in the file, if as many chunks more than the records say are stored before it.
    uint64_t PlaceOf(uint64_t chunk, int64_t shift = 0) const;

    // By how many chunks the records before a chunk may be wrong about what is stored: any number from 0 to this one,
    // which may be negative. Always 0 where nothing is broken.
    int64_t WrongBefore() const { return wrongRecords_; }

    bool IsThin() const { return header_.version == 3; }
    bool IsSealed() const { return header_.encrypted == 1; }
    bool Knows(uint32_t what) const { return (known_ & what) == what; }

    const std::string& Path() const { return path_; }
    std::string BasePath() const; // of an image that knows its base's name
    const vrnx::File& File() const { return file_; }
    const Header& GetHeader() const { return header_; }
    uint32_t Level() const { return level_; }
    uint32_t Known() const { return known_; }
    bool IsUnfinished() const { return unfinished_; }
    const uint8_t* Digest() const { return digest_; }
    const std::string& BaseName() const { return baseName_; }
    const uint8_t* BaseDigest() const { return baseDigest_; }

    std::shared_ptr<const Key> key;             // of a sealed image whose password was given
    std::optional<std::string> basePath;        // where the base was looked for
    vrnx_base_state baseState = VRNX_BASE_NONE; // as the image over it sees it

private:
    int JudgeHeader(vrnx_error& error);
    int ReadTable(Context& context, Problems* problems, ZeroHashes* zeros, vrnx_error& error);
    void TakeRecord(const Record& record, bool strict, const ZeroHashes* zeros);
    int JudgeTable(Problems* problems, vrnx_error& error);
    uint32_t StoredBefore(uint64_t chunk) const {
        return IsThin() ? stored_.CountBefore(chunk) : static_cast<uint32_t>(chunk);
    }
    void MeasureWrongRecords(uint64_t trailerStart);

    std::string path_;
    uint32_t level_;
    vrnx::File file_;
    Header header_;
    uint32_t known_ = 0;
    bool unfinished_ = false;
    uint64_t presentRecords_ = 0;
    uint64_t badRecordCount_ = 0;
    uint64_t firstBadRecord_ = 0;
    std::vector<bool> badRecords_; // empty where none is bad
    CountedBits hashChanges_;      // the records whose hash is not that of the record before
    Entries hashes_{hashSize};
    CountedBits stored_; // thin: the chunks that are stored, by their records
    Entries seals_{nonceSize + tagSize};
    uint64_t dataEnd_ = 0;
    int64_t wrongRecords_ = 0;
    uint8_t digest_[hashSize] = {};
    std::string baseName_;
    uint8_t baseDigest_[hashSize] = {};
};

// Hands a refusal on: as a problem where they are collected, giving VRNX_OK, else as the error that it is.
int Refuse(Problems* problems, vrnx_error& error);

} // namespace vrnx
