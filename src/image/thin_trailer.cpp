// Reading, checking and building thin trailers.
#include "image/thin_trailer.h"

#include <cstdio>
#include <cstring>

#include "cli/fatal.h"
#include "disk/transfers.h"
#include "image/paths.h"

namespace vornix {

namespace {

// The length of the whole trailer, which its last four bytes give. It lies within what the file has behind its chunk
// data.
uint32_t ReadTrailerLength(HANDLE file, int64_t size, uint64_t dataEnd) {
    constexpr const char* noTrailer = "thin image has no valid trailer - file is truncated";
    const int64_t room = size - static_cast<int64_t>(dataEnd);
    if (room < thinTrailerFrame) {
        Fatal(noTrailer, 0);
    }
    uint32_t totalLength = 0;
    if (!MoveFilePointer(file, static_cast<uint64_t>(size) - sizeof(totalLength)) ||
        !ReadWhole(file, &totalLength, sizeof(totalLength))) {
        Fatal(noTrailer, 0);
    }
    if (totalLength < thinTrailerFrame || totalLength > largestThinTrailer || totalLength > room) {
        Fatal(noTrailer, 0);
    }
    return totalLength;
}

} // namespace

ThinTrailer ReadThinTrailer(HANDLE file, int64_t size, uint64_t dataEnd) {
    const uint32_t totalLength = ReadTrailerLength(file, size, dataEnd);
    std::vector<uint8_t> bytes(totalLength);
    if (!MoveFilePointer(file, static_cast<uint64_t>(size) - totalLength) ||
        !ReadWhole(file, bytes.data(), totalLength)) {
        Fatal("could not read thin image trailer", 0);
    }

    ThinTrailerHead head;
    std::memcpy(&head, bytes.data(), sizeof(head));
    if (head.Magic != thinTrailerMagic || uint64_t{head.NameLength} + thinTrailerFrame != totalLength ||
        head.NameLength == 0) {
        Fatal("thin image trailer is malformed", 0);
    }
    ThinTrailerTail tail;
    std::memcpy(&tail, bytes.data() + sizeof(head) + head.NameLength, sizeof(tail));
    const char* name = reinterpret_cast<const char*>(bytes.data()) + sizeof(head);
    return {std::string(name, head.NameLength), tail.BaseDigest};
}

std::string FindBaseImage(const std::string& imagePath, const ThinTrailer& trailer) {
    // Separators and drive letters are what would lead elsewhere; without them a base lies beside its image.
    if (trailer.BaseName.find_first_of("\\/:") != std::string::npos) {
        Fatal("thin image trailer names a base outside its folder - refusing", 0);
    }
    std::string basePath = DirectoryOfPath(imagePath) + trailer.BaseName;
    if (!PathExists(basePath)) {
        std::fprintf(stderr,
                     "This is a thin (incremental) image; its base image is missing: %s\n"
                     "Keep every image of a chain in the same folder.\n",
                     basePath.c_str());
        Fatal("base image of a thin image not found", 0);
    }
    return basePath;
}

void ProveBaseImage(const std::string& basePath, const ThinTrailer& trailer, const Sha256Digest& baseDigest,
                    const ImageHeader& base, const ImageHeader& image) {
    if (trailer.BaseDigest != baseDigest) {
        std::fprintf(stderr,
                     "Base image %s is not the one this image was made against (it was modified or replaced).\n",
                     basePath.c_str());
        Fatal("base image does not match the one pinned in the thin image", 0);
    }
    // The sector size stays out of this: it does not enter where a chunk lies or how long it is.
    if (base.DiskSize != image.DiskSize || base.ChunkSize != image.ChunkSize || base.ChunkCount != image.ChunkCount) {
        Fatal("base image geometry differs from the thin image", 0);
    }
}

std::vector<uint8_t> BuildThinTrailer(const ThinTrailer& trailer) {
    const auto nameLength = static_cast<uint32_t>(trailer.BaseName.size());
    const ThinTrailerHead head{thinTrailerMagic, nameLength};
    const ThinTrailerTail tail{trailer.BaseDigest, nameLength + thinTrailerFrame};
    std::vector<uint8_t> bytes(thinTrailerFrame + trailer.BaseName.size());
    std::memcpy(bytes.data(), &head, sizeof(head));
    std::memcpy(bytes.data() + sizeof(head), trailer.BaseName.data(), trailer.BaseName.size());
    std::memcpy(bytes.data() + sizeof(head) + trailer.BaseName.size(), &tail, sizeof(tail));
    return bytes;
}

} // namespace vornix
