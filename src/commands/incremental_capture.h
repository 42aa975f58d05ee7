// What a capture over a base image decides before its first chunk: whether the tracker proves what changed since the
// base was made, and whether the paths allow a thin image. What follows for each chunk stands in the capture's loop.
#pragma once

#include <cstdint>
#include <string>

#include "image/open_image.h"
#include "tracker/tracker_client.h"

namespace vornix {

// How the source is split; what the base must have in common with it.
struct SourceLayout {
    uint64_t diskLength;
    uint32_t sectorSize;
    uint32_t chunkSize;
    uint64_t chunkCount;
};

// The epoch that an image carries; 0 is none.
uint64_t EpochOfImage(const ImageHeader& header);

// Why the tracker proves nothing about what changed since the base, in the words of the console; null when the proof
// holds.
const char* FindMissingProof(const TrackerState& tracker, uint64_t baseEpoch);

// Opens the base and ends the process where it does not open or is of another shape than the source.
OpenImage OpenBaseImage(const std::string& basePath, const std::string& passwordFile, const SourceLayout& source);

// Tells on the console, and as its result, whether the tracker proves what changed since the base was made, and what
// the capture does without that proof.
bool ProveChanges(const OpenImage& base, const TrackerState& tracker, bool thin);

// Ends the process where the paths do not allow a thin image.
void CheckThinPaths(const std::string& basePath, const std::string& outPath);

} // namespace vornix
