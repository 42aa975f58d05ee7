// The document of vrnx check --json, read back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vrnx_cli {

// Which chunks of an image are bad by the document in a file. The image is found in it by its path as given or, where
// that is not there, by its file's name. Gives an empty text, or why the document cannot be used.
std::string ReadCheckDocument(const std::string& path, const std::string& imagePath, uint64_t chunkCount,
                              std::vector<bool>& bad);

} // namespace vrnx_cli
