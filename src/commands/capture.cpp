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
#include "crypto/sha256.h"
#include "disk/aligned_buffer.h"
#include "disk/physical_disk.h"
#include "disk/transfers.h"
#include "image/chunk_retrieval.h"
#include "image/image_writer.h"
#include "image/open_image.h"
#include "image/paths.h"
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

// The header of a plain image of that source, as it would be without --encrypt.
ImageHeader BuildHeader(const SourceLayout& source, const TrackerState& tracker, bool thin) {
    ImageHeader header{};
    header.Magic = imageMagic;
    header.Version = thin ? thinImageVersion : fullImageVersion;
    header.DiskSize = source.diskLength;
    header.SectorSize = source.sectorSize;
    header.ChunkSize = source.chunkSize;
    header.ChunkCount = source.chunkCount;
    if (tracker.Available) {
        for (size_t i = 0; i < header.Epoch.size(); ++i) {
            header.Epoch[i] = static_cast<uint8_t>(tracker.Status.CurrentEpoch >> (8 * i));
        }
    }
    return header;
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
    const CaptureOptions& options;
    const SourceLayout& source;
    HANDLE sourceDisk;
    const std::vector<SnapshotRange>& ranges;
    const TrackerState& tracker;
    const std::optional<OpenImage>& base; // there with --base
    bool useBitmap;                       // the tracker proved what changed since the base
    ImageWriter& image;
    uint8_t* plainBuffer;
    uint8_t* sealedBuffer;

    uint64_t readFromDisk = 0;   // chunks
    uint64_t copiedFromBase = 0; // chunks taken out of the base and stored again
    uint64_t references = 0;     // chunks for which nothing is written
};

void ReadChunkFromDisk(CaptureRun& run, uint64_t offset, uint32_t length) {
    const ReadSource from = SelectReadSource(run.ranges, run.options.vss, offset, length, run.sourceDisk);
    if (!MoveFilePointer(from.Device, from.Offset)) {
        Fatal("SetFilePointerEx on source failed mid-capture", 0);
    }
    // One attempt: a sector that cannot be read ends the capture, since an image with a hole would pass for the disk.
    if (!ReadWhole(from.Device, run.plainBuffer, length)) {
        Fatal("ReadFile from source disk failed mid-capture - image is incomplete, do not trust it", 0);
    }
}

void CaptureChunk(CaptureRun& run, uint64_t index) {
    const uint64_t offset = index * run.source.chunkSize;
    const uint32_t length = PlainLengthOfChunk(run.source.diskLength, run.source.chunkSize, index);
    Sha256Digest hash{}; // a digest that cannot be had stays zero, as it does in the table
    if (run.useBitmap && !TrackerRangeChanged(run.tracker, offset, length)) {
        hash = run.base->Chunks[index].Hash;
        if (!run.options.thin) {
            // Proves the bytes against that very hash, so it is not computed a second time.
            ReadChunkPlain(*run.base, index, run.plainBuffer);
            ++run.copiedFromBase;
        }
    } else {
        ReadChunkFromDisk(run, offset, length);
        ComputeSha256(run.plainBuffer, length, hash.data());
        ++run.readFromDisk;
    }
    if (run.options.thin && hash == run.base->Chunks[index].Hash) {
        run.image.AddReference(hash);
        ++run.references;
    } else {
        run.image.AddChunk(hash, run.plainBuffer, run.sealedBuffer);
    }
}

void PublishImage(const std::string& workPath, const std::string& outPath) {
    // Without replacing: what appeared under that name since the run began is somebody's file.
    if (!MoveFileExW(WidenPath(workPath).c_str(), WidenPath(outPath).c_str(), MOVEFILE_WRITE_THROUGH)) {
        Fatal("could not atomically publish completed image", 0);
    }
}

void PrintCompletion(const CaptureRun& run) {
    const char* outPath = run.options.outPath.c_str();
    if (run.options.thin) {
        std::printf("Capture complete (thin): %s  (stored %llu of %llu chunks, %llu are references to the base; read "
                    "from disk: %llu)\n",
                    outPath, static_cast<unsigned long long>(run.source.chunkCount - run.references),
                    static_cast<unsigned long long>(run.source.chunkCount),
                    static_cast<unsigned long long>(run.references), static_cast<unsigned long long>(run.readFromDisk));
    } else if (run.useBitmap) {
        std::printf("Capture complete: %s (Read from disk: %llu, Copied from base: %llu chunks)\n", outPath,
                    static_cast<unsigned long long>(run.readFromDisk),
                    static_cast<unsigned long long>(run.copiedFromBase));
    } else {
        std::printf("Capture complete: %s\n", outPath);
    }
}

} // namespace

void CaptureDisk(const CaptureOptions& options) {
    const HANDLE sourceDisk = OpenDiskForRead(options.disk);
    const SourceLayout source = LayOutSource(GetDiskGeometry(sourceDisk));
    std::printf("Source: PhysicalDrive%d  Size: %.2f GiB  SectorSize: %u  Chunks: %llu (%u bytes each)\n", options.disk,
                BytesToGiB(source.diskLength), source.sectorSize, static_cast<unsigned long long>(source.chunkCount),
                source.chunkSize);
    NoteLiveSystemDisk(options.disk, options.vss);

    // Attach, snapshot, query: a write between attach and snapshot is marked, so no write is ever missed.
    TrackerState tracker;
    TrackerOpen(tracker, static_cast<uint32_t>(options.disk));
    std::vector<SnapshotRange> ranges;
    if (options.vss) {
        ranges = BeginSnapshotSession(static_cast<uint32_t>(options.disk));
    }
    QueryTracker(tracker, options.disk);

    if (options.thin && options.basePath.empty()) {
        Fatal("--thin needs --base", 0);
    }
    std::optional<OpenImage> base;
    bool useBitmap = false;
    if (!options.basePath.empty()) {
        base = OpenBaseImage(options.basePath, options.passwordFile, source);
        useBitmap = ProveChanges(*base, tracker, options.thin);
        if (options.thin) {
            CheckThinPaths(options.basePath, options.outPath);
        } else if (!useBitmap) {
            CloseHandle(base->File); // a full capture has no use for it
            base->File = INVALID_HANDLE_VALUE;
        }
    }

    ImageHeader header = BuildHeader(source, tracker, options.thin);
    std::optional<ChunkKey> imageKey;
    if (options.encrypt) {
        imageKey = SealImage(header, options.passwordFile);
    }

    const bool outIsWorkPath = options.outPath.ends_with(".partial");
    const std::string workPath = outIsWorkPath ? options.outPath : options.outPath + ".partial";
    if (!outIsWorkPath && PathExists(options.outPath)) {
        Fatal("refusing to overwrite an existing output image", 0);
    }
    const HANDLE imageFile = CreateWorkFile(workPath);
    ImageWriter image(imageFile, header, imageKey, "WriteFile to image file failed mid-capture (disk full?)");
    const AlignedBuffer plainBuffer(source.chunkSize, source.sectorSize);
    const AlignedBuffer sealedBuffer(source.chunkSize, source.sectorSize);

    const uint64_t startTicks = GetTickCount64();
    CaptureRun run{.options = options,
                   .source = source,
                   .sourceDisk = sourceDisk,
                   .ranges = ranges,
                   .tracker = tracker,
                   .base = base,
                   .useBitmap = useBitmap,
                   .image = image,
                   .plainBuffer = plainBuffer.data(),
                   .sealedBuffer = sealedBuffer.data()};
    for (uint64_t i = 0; i < source.chunkCount; ++i) {
        CaptureChunk(run, i);
        if (IsProgressDue(i, source.chunkCount)) {
            const uint32_t length = PlainLengthOfChunk(source.diskLength, source.chunkSize, i);
            PrintProgress(i * source.chunkSize + length, source.diskLength, startTicks);
        }
    }
    std::printf("\n");

    if (options.thin) {
        image.AddTrailer(
            {FileNameOfPath(options.basePath), base->Digest}); // the name as typed, not the absolute path's
    }
    image.Finish();
    CloseHandle(sourceDisk);
    if (useBitmap || options.thin) {
        CloseHandle(base->File);
    }
    if (options.vss) {
        EndSnapshotSession(true);
    }
    // After the file is whole, before it has its name: a run that dies earlier leaves the committed epoch as it was.
    if (tracker.Available && !TrackerCommit(tracker)) {
        std::printf("WARNING: tracker COMMIT failed - the next capture will be a full one.\n");
    }
    if (!outIsWorkPath) {
        PublishImage(workPath, options.outPath);
    }
    PrintCompletion(run);

    // The keys of the image and of its base end before the tracker's device is closed.
    imageKey.reset();
    base.reset();
    if (tracker.Device != INVALID_HANDLE_VALUE) {
        CloseHandle(tracker.Device); // also where only the attach failed
    }
}

} // namespace vornix
