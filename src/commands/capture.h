// The capture command.
#pragma once

#include <string>

namespace vornix {

struct CaptureOptions {
    int disk = 0;
    std::string outPath;
    bool encrypt = false;
    bool vss = false;
    std::string passwordFile; // empty when none was given
    std::string basePath;     // empty without a base
    bool thin = false;
};

// Copies the disk with that number, chunk after chunk, into a new image at `outPath`, which must not exist. With
// `encrypt` the image is sealed under a key from the password file. With `vss` the disk's volumes are read from shadow
// copies where that comes about. With a `basePath` the capture builds on an earlier image of the disk, and with `thin`
// it stores only what differs from it. Returns when the image is published; any failure ends the process and leaves
// nothing that a reader accepts under `outPath`.
void CaptureDisk(const CaptureOptions& options);

} // namespace vornix
