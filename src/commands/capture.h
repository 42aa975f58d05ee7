// The capture command.
#pragma once

#include <string>

namespace vornix {

// Copies the disk with that number, chunk after chunk, into a new image at `outPath`, which must not exist. With
// `encrypt` the image is sealed under a key from the password file. With `vss` the disk's volumes are read from shadow
// copies where that comes about. With a `basePath` the capture builds on an earlier image of the disk, and with `thin`
// it stores only what differs from it. Returns when the image is published; any failure ends the process and leaves
// nothing that a reader accepts under `outPath`.
void CaptureDisk(int disk, const std::string& outPath, bool encrypt, const std::string& passwordFile, bool vss,
                 const std::string& basePath, bool thin);

} // namespace vornix
