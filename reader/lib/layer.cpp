// One image file of a chain: its header, table and trailer, in the order of the checks that docs/image-format.md gives.
// It is not for what ties it to its base.

#include "layer.h"

#include "report.h"

#include <algorithm>
#include <cstring>

namespace vrnx {

int Refuse(Problems* problems, vrnx_error& error) {
    if (problems == nullptr) {
        return error.code;
    }
    problems->push_back({error.code, error.system_error, error.level, error.chunk, error.text});
    return VRNX_OK;
}

bool ZeroHashes::Prepare(Context& context, uint32_t length, uint32_t lastLength) {
    static constexpr uint8_t zeros[0x10000] = {};
    const uint32_t wanted[] = {length, lastLength};
    for (int i = 0; i < 2; i++) {
        if (lengths_[i] == wanted[i]) {
            continue;
        }
        bool hashed = context.BeginHash();
        for (uint32_t done = 0; done < wanted[i] && hashed;) {
            const auto step = std::min<uint32_t>(wanted[i] - done, sizeof zeros);
            hashed = context.AddToHash(zeros, step);
            done += step;
        }
        if (!hashed || !context.EndHash(hashes_[i])) {
            return false;
        }
        lengths_[i] = wanted[i];
    }
    return true;
}

int Layer::Load(Context& context, Problems* problems, bool examine, ZeroHashes* zeros, vrnx_error& error) {
    int systemError = file_.Open(path_.c_str());
    if (systemError == vrnx::File::notRegular) {
        return ReportFile(error, VRNX_ERROR_OPEN, level_, path_, "is no regular file");
    }
    if (systemError != 0) {
        return ReportFile(error, VRNX_ERROR_OPEN, level_, path_, {}, systemError);
    }
    if (JudgeHeader(error) != VRNX_OK) {
        return examine && VRNX_IS_REFUSAL(error.code) ? Refuse(problems, error) : error.code;
    }
    if (ReadTable(context, problems, zeros, error) != VRNX_OK) {
        return error.code;
    }
    return JudgeTable(problems, error);
}

int Layer::JudgeHeader(vrnx_error& error) {
    uint8_t bytes[headerSize];
    size_t got = 0;
    if (int systemError = file_.Read(0, bytes, sizeof bytes, got)) {
        return ReportFile(error, VRNX_ERROR_FILE_READ, level_, path_, "could not read image header", systemError);
    }
    if (got < sizeof bytes) {
        return ReportFile(error, VRNX_REFUSED_NO_HEADER, level_, path_);
    }
    unfinished_ = std::all_of(bytes, bytes + sizeof bytes, [](uint8_t byte) { return byte == 0; });
    Header header(bytes);
    if (memcmp(bytes, headerMagic, magicSize) != 0 || (header.version != 2 && header.version != 3)) {
        return ReportFile(error, VRNX_REFUSED_NOT_AN_IMAGE, level_, path_);
    }
    header_.version = header.version;
    header_.epoch = header.epoch;
    known_ |= VRNX_KNOWN_VERSION | VRNX_KNOWN_EPOCH;

    // All three are looked at, so that as much as possible is known; the first that is wrong is the reason.
    bool geometry = header.diskSize != 0 && header.sectorSize >= minSectorSize &&
                    (header.sectorSize & (header.sectorSize - 1)) == 0 && header.chunkSize >= header.sectorSize &&
                    header.chunkSize <= maxChunkSize && header.chunkSize % header.sectorSize == 0;
    bool seal = header.encrypted == 0 ? header.kdfIterations == 0
                                      : header.encrypted == 1 && header.kdfIterations >= minIterations &&
                                            header.kdfIterations <= maxIterations;
    bool count = geometry && header.chunkCount == (header.diskSize - 1) / header.chunkSize + 1 &&
                 header.chunkCount <= maxChunkCount;
    if (seal) {
        header_.encrypted = header.encrypted;
        header_.kdfIterations = header.kdfIterations;
        std::copy_n(header.salt, saltSize, header_.salt);
        known_ |= VRNX_KNOWN_SEAL;
    }
    if (count) {
        header_.diskSize = header.diskSize;
        header_.sectorSize = header.sectorSize;
        header_.chunkSize = header.chunkSize;
        header_.chunkCount = header.chunkCount;
        known_ |= VRNX_KNOWN_GEOMETRY;
    }
    if (!geometry) {
        return ReportFile(error, VRNX_REFUSED_GEOMETRY, level_, path_);
    }
    if (!seal) {
        return ReportFile(error, VRNX_REFUSED_SEAL_PARAMETERS, level_, path_);
    }
    if (!count) {
        return ReportFile(error, VRNX_REFUSED_CHUNK_COUNT, level_, path_);
    }
    return VRNX_OK;
}

int Layer::ReadTable(Context& context, Problems* problems, ZeroHashes* zeros, vrnx_error& error) {
    const uint64_t whole = recordSize * header_.chunkCount;
    uint64_t present = whole;
    if (file_.Size() < headerSize + whole) {
        ReportFile(error, VRNX_REFUSED_TABLE_TRUNCATED, level_, path_);
        if (Refuse(problems, error) != VRNX_OK) {
            return error.code;
        }
        present = file_.Size() - headerSize;
    }
    hashChanges_.Resize(header_.chunkCount);
    if (IsThin()) {
        stored_.Resize(header_.chunkCount);
    }
    uint8_t header[headerSize];
    size_t got = 0;
    if (int systemError = file_.Read(0, header, sizeof header, got)) {
        return ReportFile(error, VRNX_ERROR_FILE_READ, level_, path_, "could not read image header", systemError);
    }
    bool hashed = zeros == nullptr || zeros->Prepare(context, header_.chunkSize, LengthOf(header_.chunkCount - 1));
    hashed = hashed && context.BeginHash() && context.AddToHash(header, got);
    // Each piece is hashed and taken apart while it is in the processor's cache.
    constexpr size_t pieceRecords = 0x40000 / recordSize;
    const Block piece = AllocateBlock(static_cast<size_t>(std::min<uint64_t>(present, recordSize * pieceRecords)));
    uint64_t at = 0;
    while (at < present && hashed) {
        size_t wanted = static_cast<size_t>(std::min<uint64_t>(recordSize * pieceRecords, present - at));
        int systemError = file_.Read(headerSize + at, piece.get(), wanted, got);
        hashed = context.AddToHash(piece.get(), got);
        at += got;
        for (size_t begin = 0; begin + recordSize <= got; begin += recordSize) {
            TakeRecord({piece.get() + begin}, problems == nullptr, zeros);
        }
        if (systemError != 0 || got < wanted) {
            ReportFile(error, VRNX_ERROR_FILE_READ, level_, path_, "could not read chunk table", systemError);
            if (Refuse(problems, error) != VRNX_OK) {
                return error.code;
            }
            break;
        }
    }
    if (!hashed || !context.EndHash(digest_)) {
        return ReportFile(error, VRNX_ERROR_CRYPTO, level_, path_);
    }
    if (at == whole) {
        known_ |= VRNX_KNOWN_DIGEST;
    }
    return VRNX_OK;
}

// Judges the next record, and keeps what is needed of it. Opened strictly, an image is refused at the first bad one.
void Layer::TakeRecord(const Record& record, bool strict, const ZeroHashes* zeros) {
    if (strict && badRecordCount_ != 0) {
        return;
    }
    const uint64_t chunk = presentRecords_++;
    const uint64_t left = header_.chunkCount - chunk;
    const uint32_t length = record.StoredLength();
    const bool good =
        record.DiskOffset() == chunk * header_.chunkSize && (length == LengthOf(chunk) || (length == 0 && IsThin()));
    if (!good) {
        if (badRecordCount_++ == 0) {
            firstBadRecord_ = chunk;
            badRecords_.resize(static_cast<size_t>(header_.chunkCount));
        }
        badRecords_[static_cast<size_t>(chunk)] = true;
    }
    const bool stored = good && length != 0;
    if (IsThin()) {
        stored_.Append(stored);
    }
    const uint8_t* hash = record.Hash();
    if (zeros != nullptr && memcmp(hash, zeros->Of(left == 1), hashSize) != 0) {
        static constexpr uint8_t ofSomethingElse[hashSize] = {};
        hash = ofSomethingElse;
    }
    const bool changed = hashes_.IsEmpty() || memcmp(hashes_.Last(), hash, hashSize) != 0;
    hashChanges_.Append(changed);
    if (changed) {
        hashes_.Append(hash, left);
    }
    if (IsSealed() && (stored || !IsThin())) {
        seals_.Append(record.Nonce(), left); // and the tag behind it
    }
}

int Layer::JudgeTable(Problems* problems, vrnx_error& error) {
    const uint64_t count = header_.chunkCount;
    const uint64_t bad = badRecordCount_;
    const uint64_t firstBad = firstBadRecord_;
    if (bad == 0 && presentRecords_ == count) {
        known_ |= VRNX_KNOWN_TABLE;
    }
    if (bad != 0) {
        Begin(error, VRNX_REFUSED_TABLE_ENTRY, level_);
        error.chunk = firstBad;
        error.disk_offset = firstBad * header_.chunkSize;
        error.length = LengthOf(firstBad);
        Text text(error);
        text.AddPath(path_) << ": " << vrnx_code_text(error.code) << " (chunk " << firstBad << ", disk offset "
                            << error.disk_offset;
        if (bad > 1) {
            text << ", and " << bad - 1 << " more";
        }
        text << ")";
        if (Refuse(problems, error) != VRNX_OK) {
            return error.code;
        }
    }

    // Only the last chunk can be shorter, and nothing lies behind it.
    bool lastStored = !IsThin() || (HasRecord(count - 1) && IsStored(count - 1));
    dataEnd_ = lastStored ? PlaceOf(count - 1) + LengthOf(count - 1) : PlaceOf(count);
    if (dataEnd_ > file_.Size()) {
        ReportFile(error, VRNX_REFUSED_DATA_TRUNCATED, level_, path_);
        if (Refuse(problems, error) != VRNX_OK) {
            return error.code;
        }
    }
    // Until the trailer says more, each record that cannot be trusted may be one of a stored chunk.
    if (IsThin()) {
        wrongRecords_ = static_cast<int64_t>(bad);
    }
    return VRNX_OK;
}

int Layer::LoadTrailer(Problems* problems, vrnx_error& error) {
    const bool strict = problems == nullptr;
    const uint64_t size = file_.Size();
    // Where records are broken, the end of the data is not known for sure. That of the table is.
    const uint64_t tableEnd = headerSize + recordSize * header_.chunkCount;
    uint8_t bytes[maxTrailerSize];
    size_t got = 0;
    uint64_t total = 0;
    int systemError = 0;
    if (size >= tableEnd + trailerSize) {
        systemError = file_.Read(size - 4, bytes, 4, got);
        total = systemError == 0 && got == 4 ? LoadU32(bytes) : 0;
    }
    const bool present = total >= trailerSize && total <= maxTrailerSize && total <= size - tableEnd;
    if (!present || size < dataEnd_ + total) {
        ReportFile(error, VRNX_REFUSED_NO_TRAILER, level_, path_, {}, systemError);
        if (Refuse(problems, error) != VRNX_OK || !present) {
            return strict ? error.code : VRNX_OK;
        }
    }
    systemError = file_.Read(size - total, bytes, static_cast<size_t>(total), got);
    if (systemError != 0 || got < total) {
        ReportFile(error, VRNX_ERROR_FILE_READ, level_, path_, "could not read thin image trailer", systemError);
        return Refuse(problems, error);
    }
    uint64_t nameLength = LoadU32(bytes + 8);
    if (memcmp(bytes, trailerMagic, magicSize) != 0 || nameLength + trailerSize != total || nameLength == 0) {
        ReportFile(error, VRNX_REFUSED_TRAILER_MALFORMED, level_, path_);
        return Refuse(problems, error);
    }
    baseName_.assign(reinterpret_cast<const char*>(bytes) + 12, static_cast<size_t>(nameLength));
    std::copy_n(bytes + 12 + nameLength, hashSize, baseDigest_);
    known_ |= VRNX_KNOWN_BASE_NAME;
    if (!strict) {
        MeasureWrongRecords(size - total);
    }
    return VRNX_OK;
}

// The records of a thin image say which chunks are stored, and so where the others lie. Writers leave no gap, so the
// room between table and trailer tells how many are stored in truth.
void Layer::MeasureWrongRecords(uint64_t trailerStart) {
    const uint64_t count = header_.chunkCount;
    const uint64_t room = trailerStart - (headerSize + recordSize * count);
    const bool shortLast = LengthOf(count - 1) < header_.chunkSize;
    const auto inTruth = static_cast<int64_t>(room / header_.chunkSize);
    wrongRecords_ = inTruth - static_cast<int64_t>(StoredBefore(shortLast ? count - 1 : count));
}

uint32_t Layer::LengthOf(uint64_t chunk) const {
    return static_cast<uint32_t>(std::min<uint64_t>(header_.chunkSize, header_.diskSize - chunk * header_.chunkSize));
}

uint64_t Layer::PlaceOf(uint64_t chunk, int64_t shift) const {
    const uint64_t before = StoredBefore(chunk) + static_cast<uint64_t>(shift);
    return headerSize + recordSize * header_.chunkCount + before * header_.chunkSize;
}

std::string Layer::BasePath() const {
    return PathInFolder(path_.substr(0, FolderLength(path_.c_str())), baseName_);
}

} // namespace vrnx
