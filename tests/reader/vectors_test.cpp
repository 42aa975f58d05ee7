// The committed image files through the library, on every platform: each is good, or bad for the reason that stands in
// the expectations.

#include "reader_files.h"

#include <nlohmann/json.hpp>

using namespace vrnx_tests;

namespace {

nlohmann::json ReadExpectations() {
    std::ifstream file(vectors + "expectations.json");
    return nlohmann::json::parse(file);
}

// What the program would end with: empty, the refusal's text, or its last line about bad chunks.
std::string VerdictOf(const std::string& name) {
    vrnx_error error;
    vrnx_open_options options = {};
    const std::string passwordFile = vectors + "password.txt";
    options.password_file = passwordFile.c_str();
    const ImagePointer image = Open(vectors + name, options, error);
    if (image == nullptr)
        return error.text;
    const uint64_t count = InfoOf(image.get()).chunk_count;
    uint64_t bad = 0;
    bool badReference = false;
    for (uint64_t number = 0; number < count; number++) {
        if (vrnx_check_chunk(image.get(), number, &error) == VRNX_OK)
            continue;
        EXPECT_TRUE(VRNX_IS_BAD_CHUNK(error.code)) << error.text;
        EXPECT_EQ(error.chunk, number);
        vrnx_chunk chunk = {};
        EXPECT_EQ(vrnx_get_chunk(image.get(), number, &chunk, sizeof chunk), VRNX_OK);
        EXPECT_EQ(chunk.verdict, error.code);
        bad++;
        badReference = badReference || chunk.reference != 0;
    }
    if (badReference)
        return "chunk failed its hash check (corrupt image or base)";
    return bad == 0 ? ""
                    : "Verify FAILED - " + std::to_string(bad) + " of " + std::to_string(count) +
                          " chunks did not match. Do not trust this image for restore.";
}

} // namespace

TEST(Vectors, EveryFileHasItsVerdict) {
    const nlohmann::json expectations = ReadExpectations();
    ASSERT_GT(expectations.size(), 50U);
    for (const auto& [name, expected] : expectations.items()) {
        const std::string verdict = VerdictOf(name);
        if (expected["message"].is_null())
            EXPECT_EQ(verdict, "") << name;
        else
            EXPECT_NE(verdict.find(expected["message"].get<std::string>()), std::string::npos)
                << name << ": " << verdict;
    }
}
