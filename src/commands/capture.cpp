// The capture command: one disk into one new image file.
//
// What a capture promises, and what not. The disk is read from its first chunk to its last while the system may go on
// writing to it. Without --vss the image therefore shows each chunk as it stood when it was read, not the disk as it
// stood at one moment: it is what a power cut would leave behind, at best, and programs that were writing meanwhile
// have to recover from it as from a crash. Such an image is called crash-consistent. With --vss the volumes of the disk
// are frozen by the shadow copy service, and every chunk that lies wholly inside one of them comes from the frozen
// copy. Everything else is read live all the same: partition tables, unpartitioned space, the chunks at the edges of a
// volume, and every volume that could not be snapshotted. For a disk that nobody writes to, the two are the same.
//
// The image is written under a work name, with its first bytes left zero until the very end, and gets its own name by a
// rename when it is whole. So an interrupted capture can never pass for an image.
#include "commands/capture.h"

#include <windows.h>
#include <cstdio>
#include <optional>
#include <vector>

#include "cli/fatal.h"
#include "cli/progress.h"
#include "commands/incremental_capture.h"
#include "crypto/key_derivation.h"
#include "crypto/random_bytes.h"
#include "crypto/sha256.h"
#include "disk/aligned_buffer.h"
#include "disk/physical_disk.h"
#include "disk/transfers.h"
#include "image/chunk_retrieval.h"
#include "image/image_format.h"
#include "image/open_image.h"
#include "image/paths.h"
#include "image/thin_trailer.h"
#include "snapshot/read_routing.h"
#include "snapshot/snapshot_session.h"
#include "tracker/tracker_client.h"

namespace vornix {

namespace {

constexpr uint32_t preferredChunkSize = 0x400000;

// 4 MiB, or the next multiple of the sector size above it.
uint32_t ChooseChunkSize(uint32_t sectorSize) {
    if (sectorSize == 0) {
        // No chunk can be cut from such a disk, and the division would end the process without a word.
        Fatal("source disk reports a sector size of 0", 0);
    }
    if (preferredChunkSize % sectorSize == 0) {
        return preferredChunkSize;
    }
    return (preferredChunkSize / sectorSize + 1) * sectorSize;
}

SourceLayout LayOutSource(const DiskGeometry& geometry) {
    const uint32_t chunkSize = ChooseChunkSize(geometry.sectorSize);
    // In this form a length of 0 gives no chunks.
    const uint64_t chunkCount = (geometry.length - 1 + chunkSize) / chunkSize;
    return {geometry.length, geometry.sectorSize, chunkSize, chunkCount};
}

void NoteLiveSystemDisk(int disk, bool vss) {
    if (IsSystemDisk(disk) && !vss) {
        std::printf("NOTE: this is the currently booted system disk and -vss was not given - reading it live\n"
                    "      is crash-consistent only (see the file header comment). Proceeding anyway.\n");
    }
}

// Fetches epoch and bitmap, after the snapshot was taken, so that they are those of its moment. A tracker that does not
// answer is off for the rest of the run.
void QueryTracker(TrackerState& tracker, int disk) {
    if (tracker.Available && TrackerQuery(tracker)) {
        std::printf("Change tracker: disk %d epoch %llX%s\n", disk,
                    static_cast<unsigned long long>(tracker.Status.CurrentEpoch),
                    tracker.Status.Gap != 0 ? " (GAP - untracked write seen)" : "");
        return;
    }
    tracker.Available = false;
    std::printf(
        "Change tracker: not available for this disk (Wendrel not loaded/attached) - image carries no epoch.\n");
}

ImageHeader BuildHeader(const SourceLayout& source, const TrackerState& tracker, bool thin, bool encrypt) {
    ImageHeader header{};
    header.Magic = imageMagic;
    header.Version = thin ? thinImageVersion : fullImageVersion;
    header.DiskSize = source.diskLength;
    header.SectorSize = source.sectorSize;
    header.ChunkSize = source.chunkSize;
    header.ChunkCount = source.chunkCount;
    header.Encrypted = encrypt ? 1 : 0;
    if (tracker.Available) {
        for (size_t i = 0; i < header.Epoch.size(); ++i) {
            header.Epoch[i] = static_cast<uint8_t>(tracker.Status.CurrentEpoch >> (8 * i));
        }
    }
    return header;
}

bool EndsInWorkSuffix(const std::string& path) {
    return path.ends_with(".partial");
}

HANDLE CreateWorkFile(const std::string& workPath) {
    const HANDLE file = CreateFileW(WidenPath(workPath).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        Fatal("could not create output image file", 0);
    }
    return file;
}

// What the chunk loop works on.
struct CaptureRun {
    const SourceLayout& source;
    HANDLE sourceDisk;
    const std::vector<SnapshotRange>& ranges;
    bool vss;
    const TrackerState& tracker;
    OpenImage* base; // null without one
    bool useBitmap;  // the tracker proved what changed since the base
    bool thin;
    const ChunkKey* imageKey; // null for a plain image
    HANDLE imageFile;
    AlignedBuffer& plainBuffer;
    AlignedBuffer& sealedBuffer;

    uint64_t readFromDisk = 0;   // chunks
    uint64_t copiedFromBase = 0; // chunks taken out of the base and stored again
    uint64_t references = 0;     // chunks for which nothing is written
};

void ReadChunkFromDisk(CaptureRun& run, uint64_t offset, uint32_t length) {
    const ReadSource from = SelectReadSource(run.ranges, run.vss, offset, length, run.sourceDisk);
    if (!MoveFilePointer(from.Device, from.Offset)) {
        Fatal("SetFilePointerEx on source failed mid-capture", 0);
    }
    // One attempt: a sector that cannot be read ends the capture, since an image with a hole would pass for the disk.
    if (!ReadWhole(from.Device, run.plainBuffer.data(), length)) {
        Fatal("ReadFile from source disk failed mid-capture - image is incomplete, do not trust it", 0);
    }
}

// Appends the chunk in the plain buffer to the image, sealed where the image has a key.
void StoreChunk(CaptureRun& run, ChunkRecord& record, uint32_t length) {
    const uint8_t* stored = run.plainBuffer.data();
    if (run.imageKey != nullptr) {
        FillRandomBytes(record.Nonce.data(), record.Nonce.size());
        SealChunk(*run.imageKey, run.plainBuffer.data(), length, record.Nonce.data(), run.sealedBuffer.data(),
                  record.Tag.data());
        stored = run.sealedBuffer.data();
    }
    if (!WriteWhole(run.imageFile, stored, length)) {
        Fatal("WriteFile to image file failed mid-capture (disk full?)", 0);
    }
}

void MakeThinReference(CaptureRun& run, ChunkRecord& record) {
    record.StoredLength = 0;
    ++run.references;
}

void CaptureChunk(CaptureRun& run, uint64_t index, ChunkRecord& record) {
    const uint64_t offset = index * run.source.chunkSize;
    const uint32_t length = PlainLengthOfChunk(run.source.diskLength, run.source.chunkSize, index);
    record.DiskOffset = offset;
    record.StoredLength = length;

    if (run.useBitmap && !TrackerRangeChanged(run.tracker, offset, length)) {
        // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): the bitmap is used only beside a base
        record.Hash = run.base->Chunks[index].Hash;
        if (run.thin) {
            MakeThinReference(run, record);
            return;
        }
        // Proves the bytes against that very hash, so it is not computed a second time.
        ReadChunkPlain(*run.base, index, run.plainBuffer.data());
        ++run.copiedFromBase;
    } else {
        ReadChunkFromDisk(run, offset, length);
        ComputeSha256(run.plainBuffer.data(), length, record.Hash.data());
        ++run.readFromDisk;
        if (run.thin && record.Hash == run.base->Chunks[index].Hash) {
            MakeThinReference(run, record);
            return;
        }
    }
    StoreChunk(run, record, length);
}

void WriteThinTrailer(HANDLE imageFile, const std::string& basePath, const OpenImage& base) {
    // The name as typed, not out of the absolute path.
    const std::vector<uint8_t> trailer = BuildThinTrailer({FileNameOfPath(basePath), base.Digest});
    if (!WriteWhole(imageFile, trailer.data(), static_cast<uint32_t>(trailer.size()))) {
        Fatal("could not write thin image trailer", 0);
    }
}

// Writes header and table, which turns the file into an image. The results are left unexamined: if these writes came to
// nothing the file still begins with zeros, or does not verify, and is no image to any reader.
void SealOff(HANDLE imageFile, const ImageHeader& header, const std::vector<ChunkRecord>& table) {
    MoveFilePointer(imageFile, 0);
    WriteWhole(imageFile, &header, sizeof(header));
    WriteWhole(imageFile, table.data(), static_cast<uint32_t>(sizeof(ChunkRecord) * table.size()));
}

void PublishImage(const std::string& workPath, const std::string& outPath) {
    // Without replacing: what appeared under that name since the run began is somebody's file.
    if (!MoveFileExW(WidenPath(workPath).c_str(), WidenPath(outPath).c_str(), MOVEFILE_WRITE_THROUGH)) {
        Fatal("could not atomically publish completed image", 0);
    }
}

void PrintCompletion(const CaptureRun& run, const std::string& outPath) {
    if (run.thin) {
        std::printf("Capture complete (thin): %s  (stored %llu of %llu chunks, %llu are references to the base; read "
                    "from disk: %llu)\n",
                    outPath.c_str(), static_cast<unsigned long long>(run.source.chunkCount - run.references),
                    static_cast<unsigned long long>(run.source.chunkCount),
                    static_cast<unsigned long long>(run.references), static_cast<unsigned long long>(run.readFromDisk));
    } else if (run.useBitmap) {
        std::printf("Capture complete: %s (Read from disk: %llu, Copied from base: %llu chunks)\n", outPath.c_str(),
                    static_cast<unsigned long long>(run.readFromDisk),
                    static_cast<unsigned long long>(run.copiedFromBase));
    } else {
        std::printf("Capture complete: %s\n", outPath.c_str());
    }
}

} // namespace

void CaptureDisk(int disk, const std::string& outPath, bool encrypt, const std::string& passwordFile, bool vss,
                 const std::string& basePath, bool thin) {
    const HANDLE sourceDisk = OpenDiskForRead(disk);
    const SourceLayout source = LayOutSource(GetDiskGeometry(sourceDisk));
    std::printf("Source: PhysicalDrive%d  Size: %.2f GiB  SectorSize: %u  Chunks: %llu (%u bytes each)\n", disk,
                BytesToGiB(source.diskLength), source.sectorSize, static_cast<unsigned long long>(source.chunkCount),
                source.chunkSize);
    NoteLiveSystemDisk(disk, vss);

    // Attach, snapshot, query: a write between attach and snapshot is marked, so no write is ever missed.
    TrackerState tracker;
    TrackerOpen(tracker, static_cast<uint32_t>(disk));
    std::vector<SnapshotRange> ranges;
    if (vss) {
        ranges = BeginSnapshotSession(static_cast<uint32_t>(disk));
    }
    QueryTracker(tracker, disk);

    if (thin && basePath.empty()) {
        Fatal("--thin needs --base", 0);
    }
    std::optional<OpenImage> base;
    const bool useBitmap =
        !basePath.empty() && SettleIncrementalMode(basePath, passwordFile, outPath, thin, source, tracker, base);

    ImageHeader header = BuildHeader(source, tracker, thin, encrypt);
    std::optional<ChunkKey> imageKey;
    if (encrypt) {
        FillRandomBytes(header.Salt.data(), header.Salt.size());
        header.KdfIterations = writtenKdfIterations;
        imageKey.emplace(DeriveChunkKey(passwordFile, header.Salt.data(), header.KdfIterations));
    }

    const bool outIsWorkPath = EndsInWorkSuffix(outPath);
    const std::string workPath = outIsWorkPath ? outPath : outPath + ".partial";
    if (!outIsWorkPath && PathExists(outPath)) {
        Fatal("refusing to overwrite an existing output image", 0);
    }
    const HANDLE imageFile = CreateWorkFile(workPath);

    std::vector<ChunkRecord> table(source.chunkCount);
    // Header and table are only reserved. Unexamined: chunks that landed elsewhere are no image to any reader.
    MoveFilePointer(imageFile, ChunkDataStart(source.chunkCount));
    std::optional<AlignedBuffer> plainBuffer(std::in_place, source.chunkSize, source.sectorSize);
    std::optional<AlignedBuffer> sealedBuffer(std::in_place, source.chunkSize, source.sectorSize);

    const uint64_t startTicks = GetTickCount64();
    CaptureRun run{source,    sourceDisk,   ranges,
                   vss,       tracker,      base.has_value() ? &*base : nullptr,
                   useBitmap, thin,         imageKey.has_value() ? &*imageKey : nullptr,
                   imageFile, *plainBuffer, *sealedBuffer};
    for (uint64_t i = 0; i < source.chunkCount; ++i) {
        CaptureChunk(run, i, table[i]);
        if (IsProgressDue(i, source.chunkCount)) {
            PrintProgress(table[i].DiskOffset + PlainLengthOfChunk(source.diskLength, source.chunkSize, i),
                          source.diskLength, startTicks);
        }
    }
    std::printf("\n");

    if (thin) {
        WriteThinTrailer(imageFile, basePath, *base);
    }
    SealOff(imageFile, header, table);
    CloseHandle(imageFile);
    CloseHandle(sourceDisk);
    if (useBitmap || thin) {
        CloseHandle(base->File);
    }
    if (vss) {
        EndSnapshotSession(true);
    }
    // After the file is whole, before it has its name: a run that dies earlier leaves the committed epoch as it was.
    if (tracker.Available && !TrackerCommit(tracker)) {
        std::printf("WARNING: tracker COMMIT failed - the next capture will be a full one.\n");
    }
    if (!outIsWorkPath) {
        PublishImage(workPath, outPath);
    }
    PrintCompletion(run, outPath);

    plainBuffer.reset();
    sealedBuffer.reset();
    imageKey.reset();
    base.reset();
    if (tracker.Device != INVALID_HANDLE_VALUE) {
        CloseHandle(tracker.Device); // also where only the attach failed
    }
}

} // namespace vornix
