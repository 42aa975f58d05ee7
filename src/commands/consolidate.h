// The consolidate command.
#pragma once

#include <string>

namespace vornix {

struct ConsolidateOptions {
    std::string inPath;
    std::string outPath;
    bool encrypt = false;
    std::string passwordFile; // empty when none was given
};

// Folds the image at `inPath` and everything below it into one full image at `outPath`, which must not exist, and
// verifies what it wrote. With `encrypt` the output is sealed under the same password file and a key of its own, else
// it is plain, whatever the input was. The input images are only read. Returns when the output verified; a run that
// ends earlier leaves a file under `outPath` that no reader accepts, or one that its verification refused.
void ConsolidateImage(const ConsolidateOptions& options);

} // namespace vornix
