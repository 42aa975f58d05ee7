// Writing of image files.
#include "image/image_writer.h"

#include "cli/fatal.h"
#include "crypto/key_derivation.h"
#include "crypto/random_bytes.h"
#include "disk/transfers.h"

namespace vornix {

ChunkKey SealImage(ImageHeader& header, const std::string& passwordFilePath) {
    header.Encrypted = 1;
    FillRandomBytes(header.Salt.data(), header.Salt.size());
    header.KdfIterations = writtenKdfIterations;
    return DeriveChunkKey(passwordFilePath, header.Salt.data(), header.KdfIterations);
}

ImageWriter::ImageWriter(HANDLE file, const ImageHeader& header, const std::optional<ChunkKey>& key,
                         const char* writeFailure)
    : file_(file), header_(header), key_(key), writeFailure_(writeFailure) {
    table_.reserve(header.ChunkCount);
    // Unexamined, like all that Finish does: where one of these came to nothing, the file begins with zeros, or does
    // not verify, and is no image to any reader.
    MoveFilePointer(file_, ChunkDataStart(header.ChunkCount));
}

void ImageWriter::AddChunk(const Sha256Digest& hash, const uint8_t* plain, uint8_t* sealed) {
    const uint32_t length = PlainLengthOfChunk(header_.DiskSize, header_.ChunkSize, table_.size());
    ChunkRecord& record = AddRecord(hash);
    record.StoredLength = length;
    const uint8_t* stored = plain;
    if (key_.has_value()) {
        FillRandomBytes(record.Nonce.data(), record.Nonce.size());
        SealChunk(*key_, plain, length, record.Nonce.data(), sealed, record.Tag.data());
        stored = sealed;
    }
    if (!WriteWhole(file_, stored, length)) {
        Fatal(writeFailure_, 0);
    }
}

void ImageWriter::AddReference(const Sha256Digest& hash) {
    AddRecord(hash); // stores nothing: a length of 0 is what makes a reference
}

void ImageWriter::AddTrailer(const ThinTrailer& trailer) {
    const std::vector<uint8_t> bytes = BuildThinTrailer(trailer);
    if (!WriteWhole(file_, bytes.data(), static_cast<uint32_t>(bytes.size()))) {
        Fatal("could not write thin image trailer", 0);
    }
}

void ImageWriter::Finish() {
    MoveFilePointer(file_, 0);
    WriteWhole(file_, &header_, sizeof(header_));
    WriteWhole(file_, table_.data(), static_cast<uint32_t>(sizeof(ChunkRecord) * table_.size()));
    CloseHandle(file_);
}

ChunkRecord& ImageWriter::AddRecord(const Sha256Digest& hash) {
    const uint64_t diskOffset = table_.size() * header_.ChunkSize;
    ChunkRecord& record = table_.emplace_back();
    record.DiskOffset = diskOffset;
    record.Hash = hash;
    return record;
}

} // namespace vornix
