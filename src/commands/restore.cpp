// The restore command.
#include "commands/restore.h"

#include <windows.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "cli/fatal.h"
#include "cli/progress.h"
#include "crypto/sha256.h"
#include "disk/aligned_buffer.h"
#include "disk/physical_disk.h"
#include "disk/transfers.h"
#include "image/chunk_retrieval.h"
#include "image/open_image.h"

namespace vornix {

namespace {

constexpr uint64_t smallestBufferAlignment = 4096;

void RefuseSystemDisk(int disk) {
    if (IsSystemDisk(disk)) {
        std::fprintf(stderr,
                     "Refusing: PhysicalDrive%d is the disk this copy of Windows is currently running from.\n"
                     "A live raw write to your own booted system disk cannot be made safe - boot from\n"
                     "separate media (Windows Recovery/PE) and run vornix restore from there instead.\n",
                     disk);
        std::exit(1);
    }
}

void RefuseUnconfirmed(bool confirmed) {
    if (!confirmed) {
        std::fprintf(stderr,
                     "Refusing: restore is destructive (overwrites the ENTIRE target disk). Pass --confirm YES.\n");
        std::exit(1);
    }
}

// Refuses a target that is too small and notes one that is larger. Sector sizes are not compared.
void CompareSizes(int disk, uint64_t targetLength, uint64_t diskSize) {
    if (targetLength < diskSize) {
        std::fprintf(stderr, "Refusing: target disk %d is %.2f GiB, smaller than the image's %.2f GiB source.\n", disk,
                     BytesToGiB(targetLength), BytesToGiB(diskSize));
        std::exit(1);
    }
    if (targetLength > diskSize) {
        std::printf("NOTE: target disk is larger than the image's source disk. The restored GPT's backup\n"
                    "      header (stored at the end of the ORIGINAL disk size) will sit before the end of\n"
                    "      this larger disk - Windows generally repairs this automatically on next boot/\n"
                    "      diskpart rescan, but treat the extra space as unallocated until you've confirmed\n"
                    "      that repair happened. This is a known limitation of restoring to a differently\n"
                    "      sized disk, not specific to this tool.\n");
    }
}

// The plain bytes of sealed chunks go to the target straight from here, and the target's handle takes only aligned
// memory: the ordinary array has room to begin at an aligned place.
class PlainBuffer {
public:
    PlainBuffer(size_t size, size_t alignment) : storage_(size + alignment) {
        void* begin = storage_.data();
        size_t space = storage_.size();
        begin_ = static_cast<uint8_t*>(std::align(alignment, size, begin, space));
    }
    uint8_t* data() { return begin_; }

private:
    std::vector<uint8_t> storage_;
    uint8_t* begin_;
};

// Brings the stored chunk that comes next in the image into memory and checks it. Gives where its plain bytes lie.
const uint8_t* ReadNextStoredChunk(const OpenImage& image, size_t index, uint8_t* readBuffer, uint8_t* plainBuffer) {
    const ChunkRecord& record = image.Chunks[index];
    if (!ReadWhole(image.File, readBuffer, record.StoredLength)) {
        Fatal("could not read chunk data from image - restore aborted, target disk left partially written", 0);
    }
    if (image.Header.Encrypted == 1) {
        // The tag is the only test of a sealed chunk here; its hash is compared by verify.
        if (!UnsealChunk(*image.Key, readBuffer, record.StoredLength, record.Nonce.data(), record.Tag.data(),
                         plainBuffer)) {
            std::fprintf(stderr,
                         "\nFATAL: chunk %zu failed authentication (corrupt/tampered image) - restore aborted, target "
                         "disk left partially written.\n",
                         index);
            std::exit(1);
        }
        return plainBuffer;
    }
    Sha256Digest hash;
    ComputeSha256(readBuffer, record.StoredLength, hash.data());
    if (hash != record.Hash) {
        std::fprintf(stderr,
                     "\nFATAL: chunk %zu hash mismatch (corrupt image) - restore aborted, target disk left partially "
                     "written.\n",
                     index);
        std::exit(1);
    }
    return readBuffer;
}

bool IsAllZero(const uint8_t* bytes, uint32_t length) {
    uint32_t i = 0;
    for (; length - i >= sizeof(uint64_t); i += static_cast<uint32_t>(sizeof(uint64_t))) {
        uint64_t word = 0;
        std::memcpy(&word, bytes + i, sizeof(word));
        if (word != 0) {
            return false;
        }
    }
    for (; i < length; ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

void WriteChunks(OpenImage& image, HANDLE target, bool skipZero, uint8_t* readBuffer, uint8_t* plainBuffer,
                 uint64_t startTicks) {
    for (size_t i = 0; i < image.Chunks.size(); ++i) {
        const ChunkRecord& record = image.Chunks[i];
        const uint32_t length = image.PlainLength(i);
        const uint8_t* plain = readBuffer;
        if (record.StoredLength == 0) {
            ReadChunkPlain(image, i, readBuffer);
        } else {
            plain = ReadNextStoredChunk(image, i, readBuffer, plainBuffer);
        }
        // Unexamined: an offset that the disk does not take is one that it does not write at either.
        MoveFilePointer(target, record.DiskOffset);
        if (!(skipZero && IsAllZero(plain, length)) && !WriteWhole(target, plain, length)) {
            Fatal("WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it "
                  "yet",
                  0);
        }
        if (IsProgressDue(i, image.Chunks.size())) {
            PrintProgress(record.DiskOffset + length, image.Header.DiskSize, startTicks);
        }
    }
}

} // namespace

void RestoreImage(const std::string& inPath, int disk, bool confirmed, const std::string& passwordFile, bool skipZero) {
    RefuseSystemDisk(disk);
    RefuseUnconfirmed(confirmed);
    OpenImage image = OpenImageFile(inPath, passwordFile, 0);
    const HANDLE target = OpenDiskExclusive(disk);
    const DiskGeometry geometry = GetDiskGeometry(target);
    CompareSizes(disk, geometry.length, image.Header.DiskSize);
    std::printf("Restoring %s -> PhysicalDrive%d (%llu chunks, %.2f GiB)\n", inPath.c_str(), disk,
                static_cast<unsigned long long>(image.Header.ChunkCount), BytesToGiB(image.Header.DiskSize));

    const uint64_t alignment = std::max<uint64_t>(geometry.sectorSize, smallestBufferAlignment);
    const AlignedBuffer readBuffer(image.Header.ChunkSize, alignment);
    PlainBuffer plainBuffer(image.Header.ChunkSize, alignment);
    const uint64_t startTicks = GetTickCount64();
    WriteChunks(image, target, skipZero, readBuffer.data(), plainBuffer.data(), startTicks);
    std::printf("\n");

    RefreshPartitionTable(target);
    CloseHandle(target);
    CloseHandle(image.File);
    std::printf("Restore complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n");
}

} // namespace vornix
