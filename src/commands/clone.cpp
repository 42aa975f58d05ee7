// The clone command.
#include "commands/clone.h"

#include <windows.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/fatal.h"
#include "cli/progress.h"
#include "disk/aligned_buffer.h"
#include "disk/physical_disk.h"
#include "disk/transfers.h"

namespace vornix {

namespace {

constexpr uint32_t blockSize = 4194304;

void RefuseTarget(int toDisk, bool confirmed) {
    if (IsSystemDisk(toDisk)) {
        std::fprintf(stderr,
                     "Refusing: PhysicalDrive%d is the disk Windows is running from - it cannot be a clone target.\n",
                     toDisk);
        std::exit(1);
    }
    if (!confirmed) {
        std::fprintf(stderr,
                     "Refusing: clone is destructive (overwrites the ENTIRE target disk). Pass --confirm YES.\n");
        std::exit(1);
    }
}

HANDLE OpenCloneSource(int fromDisk) {
    const HANDLE source =
        CreateFileW(FormatDiskPath(fromDisk).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_NO_BUFFERING | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (source == INVALID_HANDLE_VALUE) {
        const unsigned long lastError = GetLastError();
        std::fprintf(stderr, "Could not open source PhysicalDrive%d (GetLastError=%lu)\n", fromDisk, lastError);
        std::exit(1);
    }
    return source;
}

// Refuses a target that is too small; a larger one passes in silence. Notes what may keep the copy from booting or
// from being consistent.
void CompareDisks(const CloneOptions& options, const DiskGeometry& source, const DiskGeometry& target) {
    if (target.length < source.length) {
        std::fprintf(stderr, "Refusing: target disk %d is %.2f GiB, smaller than the source's %.2f GiB.\n",
                     options.toDisk, BytesToGiB(target.length), BytesToGiB(source.length));
        std::exit(1);
    }
    if (source.sectorSize != target.sectorSize) {
        std::printf("NOTE: sector sizes differ (%u -> %u); a raw clone between different sector sizes may not boot.\n",
                    source.sectorSize, target.sectorSize);
    }
    if (IsSystemDisk(options.fromDisk)) {
        std::printf("NOTE: the source is the running system disk - it is read live (crash-consistent, not a VSS "
                    "snapshot).\n");
    }
}

bool ReadBlock(HANDLE disk, uint64_t offset, const AlignedBuffer& buffer, uint32_t length) {
    return MoveFilePointer(disk, offset) && ReadWhole(disk, buffer.data(), length);
}

bool WriteBlock(HANDLE disk, uint64_t offset, const AlignedBuffer& buffer, uint32_t length) {
    return MoveFilePointer(disk, offset) && WriteWhole(disk, buffer.data(), length);
}

// Bytes of the block at `offset`; the last one is cut to what remains of the disk.
uint32_t BlockLength(uint64_t length, uint64_t offset) {
    return static_cast<uint32_t>(std::min<uint64_t>(blockSize, length - offset));
}

void CopyDisk(HANDLE source, HANDLE target, uint64_t length, const AlignedBuffer& buffer) {
    const uint64_t startTicks = GetTickCount64();
    for (uint64_t offset = 0; offset < length; offset += blockSize) {
        const uint32_t n = BlockLength(length, offset);
        if (!ReadBlock(source, offset, buffer, n)) {
            Fatal("read from the source disk failed - clone aborted, target left partially written", 0);
        }
        if (!WriteBlock(target, offset, buffer, n)) {
            Fatal("write to the target disk failed - clone aborted, target left partially written", 0);
        }
        PrintProgress(offset + n, length, startTicks);
    }
    std::printf("\n");
}

void VerifyCopy(int fromDisk, HANDLE source, HANDLE target, uint64_t length, const AlignedBuffer& sourceBuffer,
                const AlignedBuffer& targetBuffer) {
    std::printf("Verifying the copy...\n");
    const uint64_t startTicks = GetTickCount64(); // so that the rate is that of this pass alone
    for (uint64_t offset = 0; offset < length; offset += blockSize) {
        const uint32_t n = BlockLength(length, offset);
        if (!ReadBlock(source, offset, sourceBuffer, n)) {
            Fatal("verify: read from source failed", 0);
        }
        if (!ReadBlock(target, offset, targetBuffer, n)) {
            Fatal("verify: read from target failed", 0);
        }
        if (std::memcmp(sourceBuffer.data(), targetBuffer.data(), n) == 0) {
            PrintProgress(offset + n, length, startTicks);
        } else if (!IsSystemDisk(fromDisk)) {
            std::fprintf(stderr, "\nVERIFY FAILED at offset %llu\n", static_cast<unsigned long long>(offset));
            std::exit(1);
        }
        // The running system's disk is expected to change between the passes: such a block is passed over without a
        // word, and the closing line then says only that no read failed.
    }
    std::printf("\nVerify OK.\n");
}

} // namespace

void CloneDisk(const CloneOptions& options) {
    if (options.fromDisk == options.toDisk) {
        Fatal("source and target are the same disk", 0);
    }
    RefuseTarget(options.toDisk, options.confirmed);
    const HANDLE source = OpenCloneSource(options.fromDisk);
    const HANDLE target = OpenDiskExclusive(options.toDisk);
    const DiskGeometry sourceGeometry = GetDiskGeometry(source);
    const DiskGeometry targetGeometry = GetDiskGeometry(target);
    CompareDisks(options, sourceGeometry, targetGeometry);
    std::printf("Cloning PhysicalDrive%d -> PhysicalDrive%d (%.2f GiB)\n", options.fromDisk, options.toDisk,
                BytesToGiB(sourceGeometry.length));

    const uint64_t alignment = AlignmentForDisk(sourceGeometry.sectorSize);
    const AlignedBuffer sourceBuffer(blockSize, alignment);
    const AlignedBuffer targetBuffer(blockSize, alignment);
    CopyDisk(source, target, sourceGeometry.length, sourceBuffer);
    if (options.verify) {
        VerifyCopy(options.fromDisk, source, target, sourceGeometry.length, sourceBuffer, targetBuffer);
    }

    RefreshPartitionTable(target);
    CloseHandle(target);
    CloseHandle(source);
    std::printf("Clone complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n");
}

} // namespace vornix
