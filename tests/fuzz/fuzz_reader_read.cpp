// Reading image files of anybody's making with the library: no byte comes out that does not have the hash that the
// table demands, checks and readings agree, and a part of a chunk is a part of it.

#include "fuzz_reader_files.h"

#include <algorithm>
#include <cstring>
#include <vector>

using namespace vrnx_fuzz;

namespace {

// Reading chunks larger than this only costs time.
constexpr uint32_t largestChunkRead = 1 << 20;
constexpr uint64_t mostChunksRead = 64;

void ReadChunk(vrnx_image* image, uint64_t number, std::vector<uint8_t>& bytes) {
    static vrnx_error error;
    vrnx_chunk chunk = {};
    Require(vrnx_get_chunk(image, number, &chunk, sizeof chunk) == VRNX_OK, "a chunk can be described");
    bytes.assign(chunk.length, 0xEE);
    const int code = vrnx_read(image, bytes.data(), chunk.disk_offset, chunk.length, &error);
    const auto isAll = [&](uint8_t value) {
        return std::all_of(bytes.begin(), bytes.end(), [value](uint8_t byte) { return byte == value; });
    };
    const bool untouchedOrWiped = isAll(0xEE) || isAll(0);
    const int check = vrnx_check_chunk(image, number, &error);
    if (code == VRNX_OK) {
        Require(vrnx_prove_chunk(image, number, bytes.data(), chunk.length, &error) == VRNX_OK,
                "what is read is proved");
        Require(check == VRNX_OK || chunk.zero != 0, "what is read has a good verdict, or is zeros by its hash");
        uint8_t middle = 0;
        const uint32_t at = chunk.length / 2;
        Require(vrnx_read(image, &middle, chunk.disk_offset + at, 1, &error) == VRNX_OK && middle == bytes[at],
                "a part of a chunk is a part of it");
        Require(vrnx_heal_chunk(image, number, image, bytes.data(), &error) == VRNX_OK, "it is its own donor");
    } else {
        Require(untouchedOrWiped, "nothing comes out of what is bad");
        Require(code == check, "check and read agree");
        Require(VRNX_IS_BAD_CHUNK(code) || code == VRNX_ERROR_PASSWORD_NEEDED, "a chunk is bad, or has no key");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t wishes = 0;
    const std::string path = PutFiles(data, size, wishes);
    static vrnx_error error;
    std::vector<uint8_t> bytes;
    for (const uint32_t flags :
         {0U, static_cast<uint32_t>(VRNX_OPEN_LENIENT), static_cast<uint32_t>(VRNX_OPEN_NO_PASSWORD)}) {
        vrnx_image* image = Open(path, flags, wishes, error);
        vrnx_info info = {};
        if (image != nullptr) {
            vrnx_get_info(image, &info, sizeof info);
        }
        for (uint64_t number = 0; number < std::min(info.chunk_count, mostChunksRead); number++) {
            if (info.chunk_size <= largestChunkRead) {
                ReadChunk(image, number, bytes);
            }
        }
        vrnx_close(image);
    }
    return 0;
}
