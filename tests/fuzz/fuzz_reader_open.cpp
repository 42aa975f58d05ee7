// Opening image files of anybody's making with the library: strictly, for salvage, alone, and to describe them. What
// the ways say of one file has to fit together.

#include "fuzz_reader_files.h"

#include <cstring>

using namespace vrnx_fuzz;

namespace {

vrnx_info InfoOf(const vrnx_image* image) {
    vrnx_info info = {};
    Require(vrnx_get_info(image, &info, sizeof info) == VRNX_OK, "an image can be described");
    return info;
}

// Everything that is told without reading, so that the sanitizers see it.
void Describe(const vrnx_image* image) {
    const vrnx_info info = InfoOf(image);
    static vrnx_error error;
    for (uint32_t level = 0; level < info.level_count; level++) {
        vrnx_layer layer = {};
        Require(vrnx_get_layer(image, level, &layer, sizeof layer) == VRNX_OK, "each level can be described");
        Require(layer.path != nullptr && strlen(layer.path) > 0, "a level has a path");
        Require((layer.base_name != nullptr) == ((layer.known & VRNX_KNOWN_BASE_NAME) != 0),
                "a name is there where known");
        Require(level == 0 || layer.disk_size == info.disk_size, "all that is used is of one shape");
    }
    for (uint32_t number = 0; number < info.problem_count; number++) {
        Require(vrnx_get_problem(image, number, &error) == VRNX_OK, "each problem can be described");
        Require(error.code != VRNX_OK && error.text[0] != 0, "a problem says what it is");
    }
    // The first and the last chunks; there may be millions.
    for (uint64_t number = 0; number < info.chunk_count; number++) {
        if (number == 20 && info.chunk_count > 40) {
            number = info.chunk_count - 20;
        }
        vrnx_chunk chunk = {};
        if (info.chunk_size <= 0x100000) {
            Require(vrnx_get_chunk(image, number, &chunk, sizeof chunk) == VRNX_OK, "each chunk can be described");
            Require(chunk.length > 0 && chunk.disk_offset + chunk.length <= info.disk_size, "a chunk lies on the disk");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t wishes = 0;
    const std::string path = PutFiles(data, size, wishes);
    static vrnx_error strictError;
    static vrnx_error error;
    vrnx_image* strict = Open(path, 0, wishes, strictError);
    vrnx_image* lenient = Open(path, VRNX_OPEN_LENIENT, wishes, error);
    const bool passwordMissing =
        strictError.code == VRNX_ERROR_PASSWORD_NEEDED || error.code == VRNX_ERROR_PASSWORD_NEEDED;
    if (strict != nullptr) {
        Require(lenient != nullptr, "what opens strictly opens leniently");
        Require(InfoOf(lenient).problem_count == 0 && InfoOf(strict).problem_count == 0, "and has no problems then");
        Describe(strict);
    } else if (lenient != nullptr && !passwordMissing) {
        Require(InfoOf(lenient).problem_count > 0, "what is refused has a problem");
    }
    if (lenient != nullptr) {
        Describe(lenient);
    }
    vrnx_image* described = Open(path, VRNX_OPEN_EXAMINE | VRNX_OPEN_NO_PASSWORD, wishes, error);
    Require(described != nullptr, "whatever can be read can be described");
    Require(strict != nullptr || passwordMissing || InfoOf(described).problem_count > 0,
            "with the reason of its refusal");
    Describe(described);
    vrnx_image* alone = Open(path, VRNX_OPEN_ALONE | VRNX_OPEN_NO_PASSWORD, wishes, error);
    if (alone != nullptr) {
        Require(InfoOf(alone).level_count == 1, "alone is alone");
        Describe(alone);
    }
    for (vrnx_image* image : {strict, lenient, described, alone}) {
        vrnx_close(image);
    }
    return 0;
}
