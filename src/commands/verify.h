// The verify command.
#pragma once

#include <string>

namespace vornix {

// Reads the image at `inPath` from end to end and returns when every chunk matched its recorded hash. Chunks stored in
// the image itself that do not match are printed one by one, and the process ends with status 1 behind the last; a bad
// chunk in a base image ends it at once.
void VerifyImage(const std::string& inPath, const std::string& passwordFile);

} // namespace vornix
