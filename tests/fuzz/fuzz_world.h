// The small world in which the fuzz targets run: files that lie in memory, a tracker and volumes that answer whatever
// the input says, cheap key derivation, and a fatal end that is an exception, so that one process tries many inputs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vornix::fuzz {

using Bytes = std::vector<uint8_t>;

// What the program's fatal report throws here in place of ending the process.
struct FatalEnd {};

// The world of one input. Reset at the beginning of each; the calls of the program answer from it.
struct World {
    std::map<std::string, Bytes> Files;
    Bytes PasswordFile;
    std::vector<Bytes> TrackerReplies; // to the first QUERY, to the second, ...
    std::vector<Bytes> VolumeExtents;  // of each volume enumerated; an empty one does not open
    std::vector<std::u16string> VolumeNames;
};

World& TheWorld();
void ResetWorld();

// The file position of the in-memory file that a handle was opened on.
uint64_t PositionOf(void* handle);

// Runs `body` and swallows a fatal end; tells whether it came back.
bool SurvivesFatal(const std::function<void()>& body);

// Ends the process the way a sanitizer does: an invariant of the program does not hold.
[[noreturn]] void ReportBroken(const char* invariant);

// Takes an input apart.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), left_(size) {}
    uint64_t TakeNumber(size_t width);
    Bytes TakeBytes(size_t count);
    // A stretch with its 16-bit length in front.
    Bytes TakeStretch() { return TakeBytes(TakeNumber(2)); }
    Bytes TakeRest() { return TakeBytes(left_); }
    bool IsEmpty() const { return left_ == 0; }

private:
    const uint8_t* data_;
    size_t left_;
};

} // namespace vornix::fuzz
