// Settling the mode of a capture over a base image.
#include "commands/incremental_capture.h"

#include <cstdio>
#include <optional>

#include "cli/fatal.h"
#include "image/paths.h"

namespace vornix {

uint64_t EpochOfImage(const ImageHeader& header) {
    uint64_t epoch = 0;
    for (size_t i = header.Epoch.size(); i-- > 0;) {
        epoch = epoch << 8 | header.Epoch[i];
    }
    return epoch;
}

const char* FindMissingProof(const TrackerState& tracker, uint64_t baseEpoch) {
    if (!tracker.Available) {
        return "no change tracker for this disk";
    }
    if (baseEpoch == 0) {
        return "base image has no epoch (captured without the tracker)";
    }
    if (tracker.Status.HasPreviousEpoch == 0) {
        return "driver holds no previous epoch (reboot/reload since the base image)";
    }
    // All 64 bits against the 56 that an image keeps: an epoch that needs more never proves anything.
    if (tracker.Status.PreviousEpoch != baseEpoch) {
        return "base image is not the most recent committed image";
    }
    if (tracker.Status.OtherGap != 0 || tracker.Status.Gap != 0) {
        return "tracker saw an untracked write (gap) since the base image";
    }
    return nullptr;
}

OpenImage OpenBaseImage(const std::string& basePath, const std::string& passwordFile, const SourceLayout& source) {
    std::printf("Incremental mode: base image %s\n", basePath.c_str());
    OpenImage base = OpenImageFile(basePath, passwordFile, 0);
    if (base.Header.DiskSize != source.diskLength || base.Header.SectorSize != source.sectorSize) {
        Fatal("--base image geometry does not match source disk", 0);
    }
    if (base.Header.ChunkSize != source.chunkSize || base.Header.ChunkCount != source.chunkCount) {
        Fatal("--base image chunking parameters do not match", 0);
    }
    return base;
}

bool ProveChanges(const OpenImage& base, const TrackerState& tracker, bool thin) {
    const uint64_t baseEpoch = EpochOfImage(base.Header);
    const char* missingProof = FindMissingProof(tracker, baseEpoch);
    if (missingProof == nullptr) {
        std::printf("  --base: base epoch %llX matches tracker; unchanged chunks will be copied from the base image.\n",
                    static_cast<unsigned long long>(baseEpoch));
    } else if (thin) {
        std::printf("  --base: cannot prove what changed (%s) - reading every chunk and comparing hashes with the base "
                    "(no driver needed; slower to read, still a small file).\n",
                    missingProof);
    } else {
        std::printf("  --base: cannot prove what changed (%s) - doing a FULL capture (correct, just slower).\n",
                    missingProof);
    }
    return missingProof == nullptr;
}

void CheckThinPaths(const std::string& basePath, const std::string& outPath) {
    const std::optional<std::string> absoluteBase = ResolvePath(basePath);
    const std::optional<std::string> absoluteOut = absoluteBase ? ResolvePath(outPath) : std::nullopt;
    if (!absoluteOut) {
        Fatal("could not resolve image paths", 0);
    }
    // A thin image finds its base by name in its own folder, so the two have to lie together under different names.
    if (!IsSamePath(DirectoryOfPath(*absoluteBase), DirectoryOfPath(*absoluteOut))) {
        Fatal("--thin: the image and its --base must be in the same folder", 0);
    }
    if (IsSamePath(*absoluteBase, *absoluteOut)) {
        Fatal("--thin: --out must differ from --base", 0);
    }
}

} // namespace vornix
