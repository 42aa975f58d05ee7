// Thin trailers: whatever stands at the end of a file, what comes out of it is a name without a folder, or nothing.
#include "fuzz_world.h"

#include <windows.h>
#include <cstring>

#include "image/thin_trailer.h"

using namespace vornix;
using namespace vornix::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ResetWorld();
    Input input(data, size);
    const uint64_t dataEnd = input.TakeNumber(2);
    const Bytes file = input.TakeRest();
    if (dataEnd > file.size()) {
        return 0; // an open has refused this before it comes to the trailer
    }
    TheWorld().Files["image"] = file;
    SurvivesFatal([&] {
        const HANDLE handle = CreateFileW(L"image", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        const ThinTrailer trailer = ReadThinTrailer(handle, static_cast<int64_t>(file.size()), dataEnd);
        const Bytes again = BuildThinTrailer(trailer);
        if (again.size() > file.size() - dataEnd ||
            std::memcmp(again.data(), file.data() + file.size() - again.size(), again.size()) != 0) {
            ReportBroken("a trailer that was read is the one at the end of the file");
        }
        TheWorld().Files["folder/" + trailer.BaseName] = {};
        const std::string found = FindBaseImage("folder/image", trailer);
        if (found != "folder/" + trailer.BaseName || trailer.BaseName.find_first_of("\\/:") != std::string::npos) {
            ReportBroken("a base lies in the folder of its image");
        }
    });
    return 0;
}
