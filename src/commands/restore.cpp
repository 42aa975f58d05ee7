// The restore command.
#include "commands/restore.h"

#include <windows.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "cli/fatal.h"
#include "cli/progress.h"
#include "disk/aligned_buffer.h"
#include "disk/physical_disk.h"
#include "disk/transfers.h"
#include "image/chunk_retrieval.h"
#include "image/open_image.h"
#include "image/stored_chunk.h"

namespace vornix {

namespace {

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

// Where aligned memory begins in an ordinary array: the plain bytes of sealed chunks go to the target straight from
// there, and the target's handle takes no other.
uint8_t* AlignedBegin(std::vector<uint8_t>& array, uint64_t alignment) {
    void* begin = array.data();
    size_t space = array.size();
    return static_cast<uint8_t*>(std::align(alignment, 1, begin, space));
}

// Brings the stored chunk that comes next in the image into memory, read in sequence without a seek, and checks it. The
// tag is the only test of a sealed one; its hash is verify's to compare. Gives where its plain bytes lie.
const uint8_t* ReadNextStoredChunk(const OpenImage& image, size_t index, uint8_t* readBuffer, uint8_t* plainBuffer) {
    const StoredChunk chunk = ReadStoredChunk(image, index, readBuffer, plainBuffer, HashCheck::PlainImagesOnly);
    switch (chunk.Verdict) {
    case ChunkVerdict::Unreadable:
        Fatal("could not read chunk data from image - restore aborted, target disk left partially written", 0);
    case ChunkVerdict::AuthenticationFailed:
        std::fprintf(stderr,
                     "\nFATAL: chunk %zu failed authentication (corrupt/tampered image) - restore aborted, target disk "
                     "left partially written.\n",
                     index);
        std::exit(1);
    case ChunkVerdict::HashMismatch:
        std::fprintf(stderr,
                     "\nFATAL: chunk %zu hash mismatch (corrupt image) - restore aborted, target disk left partially "
                     "written.\n",
                     index);
        std::exit(1);
    case ChunkVerdict::Good:
        break;
    }
    return chunk.Plain;
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

void RestoreChunk(const OpenImage& image, size_t index, HANDLE target, bool skipZero, uint8_t* readBuffer,
                  uint8_t* plainBuffer) {
    const ChunkRecord& record = image.Chunks[index];
    const uint32_t length = image.PlainLength(index);
    const uint8_t* plain = readBuffer;
    if (record.StoredLength == 0) {
        ReadChunkPlain(image, index, readBuffer);
    } else {
        plain = ReadNextStoredChunk(image, index, readBuffer, plainBuffer);
    }
    // Unexamined: an offset that the disk does not take is one that it does not write at either.
    MoveFilePointer(target, record.DiskOffset);
    if (skipZero && IsAllZero(plain, length)) {
        return;
    }
    if (!WriteWhole(target, plain, length)) {
        Fatal("WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it yet",
              0);
    }
}

} // namespace

void RestoreImage(const RestoreOptions& options) {
    RefuseSystemDisk(options.disk);
    RefuseUnconfirmed(options.confirmed);
    const OpenImage image = OpenImageFile(options.inPath, options.passwordFile, 0);
    const HANDLE target = OpenDiskExclusive(options.disk);
    const DiskGeometry geometry = GetDiskGeometry(target);
    CompareSizes(options.disk, geometry.length, image.Header.DiskSize);
    std::printf("Restoring %s -> PhysicalDrive%d (%llu chunks, %.2f GiB)\n", options.inPath.c_str(), options.disk,
                static_cast<unsigned long long>(image.Header.ChunkCount), BytesToGiB(image.Header.DiskSize));

    const uint64_t alignment = AlignmentForDisk(geometry.sectorSize);
    const AlignedBuffer readBuffer(image.Header.ChunkSize, alignment);
    std::vector<uint8_t> plainArray(image.Header.ChunkSize + alignment);
    uint8_t* const plainBuffer = AlignedBegin(plainArray, alignment);
    const uint64_t startTicks = GetTickCount64();
    for (size_t i = 0; i < image.Chunks.size(); ++i) {
        RestoreChunk(image, i, target, options.skipZero, readBuffer.data(), plainBuffer);
        if (IsProgressDue(i, image.Chunks.size())) {
            PrintProgress(image.EndOnDisk(i), image.Header.DiskSize, startTicks);
        }
    }
    std::printf("\n");

    RefreshPartitionTable(target);
    CloseHandle(target);
    CloseHandle(image.File);
    std::printf("Restore complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n");
}

} // namespace vornix
