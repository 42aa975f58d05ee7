// The manners of the C API: what is wrong use, what sizes of structures mean, and that a NULL error is let pass.

#include "reader_files.h"

#include <cstring>
#include <thread>

using namespace vrnx_tests;

namespace {

int OpenWith(const char* path, const vrnx_open_options* options, size_t size, vrnx_error* error) {
    vrnx_image* image = reinterpret_cast<vrnx_image*>(1);
    const int code = vrnx_open(path, options, size, &image, error);
    EXPECT_EQ(image == nullptr, code != VRNX_OK);
    vrnx_close(image);
    return code;
}

} // namespace

TEST(Api, WrongUseIsAnError) {
    vrnx_error error;
    const std::string full = vectors + "full.vrnx";
    vrnx_open_options options = {};
    EXPECT_EQ(vrnx_open(full.c_str(), nullptr, 0, nullptr, &error), VRNX_ERROR_USAGE);
    EXPECT_STREQ(error.text, "vrnx_open: image is NULL");
    EXPECT_EQ(OpenWith(nullptr, nullptr, 0, &error), VRNX_ERROR_USAGE);
    EXPECT_EQ(OpenWith(full.c_str(), nullptr, sizeof options, &error), VRNX_ERROR_USAGE);
    EXPECT_EQ(OpenWith(full.c_str(), &options, 0, &error), VRNX_ERROR_USAGE);
    EXPECT_EQ(OpenWith(full.c_str(), &options, sizeof options - 1, &error), VRNX_ERROR_USAGE);
    options.flags = 32;
    EXPECT_EQ(OpenWith(full.c_str(), &options, sizeof options, &error), VRNX_ERROR_USAGE);
    options = WithPassword();
    options.password_file = "password";
    EXPECT_EQ(OpenWith(full.c_str(), &options, sizeof options, &error), VRNX_ERROR_USAGE);

    const ImagePointer image = Open(full, {}, error);
    ASSERT_NE(image, nullptr);
    char byte = 0;
    vrnx_info info = {};
    vrnx_layer layer = {};
    vrnx_chunk chunk = {};
    EXPECT_EQ(vrnx_get_info(nullptr, &info, sizeof info), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_get_info(image.get(), nullptr, sizeof info), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_get_layer(image.get(), 1, &layer, sizeof layer), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_get_chunk(image.get(), 3, &chunk, sizeof chunk), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_get_problem(image.get(), 0, &error), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_check_chunk(image.get(), 3, &error), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_check_chunk(nullptr, 0, &error), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_read(nullptr, &byte, 0, 1, &error), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_read(image.get(), nullptr, 0, 1, &error), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_prove_chunk(image.get(), 0, nullptr, 0, &error), VRNX_ERROR_USAGE);
    EXPECT_EQ(vrnx_heal_chunk(image.get(), 0, nullptr, &byte, &error), VRNX_ERROR_USAGE);
    vrnx_close(nullptr);
}

TEST(Api, WithoutHashesEverythingIsToldAndNothingRead) {
    vrnx_error error;
    for (const char* const name : {"full.vrnx", "thin.vrnx", "sealed.vrnx"}) {
        vrnx_open_options options = {};
        options.flags = VRNX_OPEN_NO_PASSWORD;
        const ImagePointer whole = Open(vectors + name, options, error);
        options.flags |= VRNX_OPEN_NO_HASHES;
        const ImagePointer counted = Open(vectors + name, options, error);
        ASSERT_TRUE(whole != nullptr && counted != nullptr) << error.text;
        vrnx_info info = {};
        ASSERT_EQ(vrnx_get_info(counted.get(), &info, sizeof info), VRNX_OK);
        for (uint64_t number = 0; number < info.chunk_count; number++) {
            vrnx_chunk expected = {};
            vrnx_chunk chunk = {};
            ASSERT_EQ(vrnx_get_chunk(whole.get(), number, &expected, sizeof expected), VRNX_OK);
            ASSERT_EQ(vrnx_get_chunk(counted.get(), number, &chunk, sizeof chunk), VRNX_OK);
            memset(expected.hash, 0, sizeof expected.hash);
            EXPECT_EQ(memcmp(&chunk, &expected, sizeof chunk), 0) << name << ", chunk " << number;
        }
        uint8_t byte = 0;
        EXPECT_EQ(vrnx_read(counted.get(), &byte, 0, 1, &error), VRNX_ERROR_USAGE);
        EXPECT_STREQ(error.text, "vrnx_read: opened without hashes");
        EXPECT_EQ(vrnx_check_chunk(counted.get(), 0, &error), VRNX_ERROR_USAGE);
        EXPECT_EQ(vrnx_prove_chunk(counted.get(), 0, &byte, 1, &error), VRNX_ERROR_USAGE);
        EXPECT_EQ(vrnx_heal_chunk(counted.get(), 0, whole.get(), &byte, &error), VRNX_ERROR_USAGE);
        EXPECT_EQ(vrnx_heal_chunk(whole.get(), 0, counted.get(), &byte, &error), VRNX_ERROR_USAGE);
    }
}

TEST(Api, AnErrorThatNobodyWants) {
    EXPECT_EQ(OpenWith((vectors + "bad-magic.vrnx").c_str(), nullptr, 0, nullptr), VRNX_REFUSED_NOT_AN_IMAGE);
    EXPECT_EQ(OpenWith((vectors + "full.vrnx").c_str(), nullptr, 0, nullptr), VRNX_OK);
}

TEST(Api, StructuresAreFilledToTheirCallersSize) {
    vrnx_error error;
    const ImagePointer image = Open(vectors + "thin.vrnx", {}, error);
    ASSERT_NE(image, nullptr);
    // An older caller's: what lies behind stays.
    vrnx_info info = {};
    info.problem_count = 77;
    ASSERT_EQ(vrnx_get_info(image.get(), &info, offsetof(vrnx_info, problem_count)), VRNX_OK);
    EXPECT_EQ(info.level_count, 2U);
    EXPECT_EQ(info.problem_count, 77U);
    // A newer caller's: what this version does not know is zero.
    struct {
        vrnx_chunk known;
        uint8_t later[8];
    } chunk;
    memset(&chunk, 0xEE, sizeof chunk);
    ASSERT_EQ(vrnx_get_chunk(image.get(), 1, &chunk.known, sizeof chunk), VRNX_OK);
    EXPECT_EQ(chunk.known.level, 0U);
    EXPECT_EQ(chunk.later[0] | chunk.later[7], 0);
    // Options of a later version that ask for something are not taken for those of this one.
    struct {
        vrnx_open_options known;
        uint64_t later;
    } options = {};
    EXPECT_EQ(OpenWith((vectors + "full.vrnx").c_str(), &options.known, sizeof options, &error), VRNX_OK);
    options.later = 1;
    EXPECT_EQ(OpenWith((vectors + "full.vrnx").c_str(), &options.known, sizeof options, &error), VRNX_ERROR_USAGE);
}

TEST(Api, EveryCodeHasItsWords) {
    for (int code = -1; code < 100; code++)
        EXPECT_NE(std::string(vrnx_code_text(code)), "");
    EXPECT_STREQ(vrnx_code_text(99), "unknown code");
    EXPECT_STRNE(vrnx_code_text(VRNX_CHUNK_NO_BASE), "unknown code");
    EXPECT_EQ(std::string(vrnx_library_version()).find("1."), 0U);
}

TEST(Api, AnErrorIsAllOfIt) {
    vrnx_error error;
    memset(&error, 0xEE, sizeof error);
    const ImagePointer image = Open(vectors + "bad-data.vrnx", {}, error);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(error.code, VRNX_OK);
    EXPECT_STREQ(error.text, "");
    uint8_t bytes[1536] = {0xEE};
    EXPECT_EQ(vrnx_read(image.get(), bytes + 10, 600, 4, &error), VRNX_CHUNK_HASH);
    EXPECT_EQ(error.chunk, 1U);
    EXPECT_EQ(error.disk_offset, 512U);
    EXPECT_EQ(error.length, 512U);
    EXPECT_EQ(error.level, 0U);
    EXPECT_EQ(error.system_error, 0);
    EXPECT_EQ(error.text, vectors + "bad-data.vrnx: chunk 1 (disk offset 512): hash mismatch");
    EXPECT_EQ(bytes[10], 0); // untouched
}

TEST(Api, APathOfAnyLengthLeavesRoomForTheRest) {
    vrnx_error error;
    const std::string longest(9000, 'x');
    EXPECT_EQ(OpenWith(longest.c_str(), nullptr, 0, &error), VRNX_ERROR_OPEN);
    EXPECT_EQ(std::string(error.text).substr(0, 4), "...x");
    EXPECT_NE(std::string(error.text).find("could not open image file"), std::string::npos);
}
