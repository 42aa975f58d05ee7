// What the tests of the library share: the folder of the vectors, an image that closes itself, files of a test's own.
// It is not for anything of the format.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "vrnx.h"

namespace vrnx_tests {

inline const std::string vectors = VRNX_VECTORS "/";
inline const char password[] = "correct horse";

struct Close {
    void operator()(vrnx_image* image) const { vrnx_close(image); }
};
using ImagePointer = std::unique_ptr<vrnx_image, Close>;

inline vrnx_open_options WithPassword(uint32_t flags = 0) {
    vrnx_open_options options = {};
    options.flags = flags;
    options.password = password;
    options.password_length = sizeof password - 1;
    return options;
}

// Opens an image; `error` says what became of it.
inline ImagePointer Open(const std::string& path, const vrnx_open_options& options, vrnx_error& error) {
    vrnx_image* image = nullptr;
    EXPECT_EQ(vrnx_open(path.c_str(), &options, sizeof options, &image, &error), error.code);
    EXPECT_EQ(image != nullptr, error.code == VRNX_OK) << error.text;
    return ImagePointer(image);
}

inline vrnx_info InfoOf(const vrnx_image* image) {
    vrnx_info info = {};
    EXPECT_EQ(vrnx_get_info(image, &info, sizeof info), VRNX_OK);
    return info;
}

inline std::vector<uint8_t> ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A folder that is gone with the test.
class Folder {
public:
    Folder() {
        const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
        path_ = std::filesystem::temp_directory_path() /
                (std::string("vrnx-") + test.test_suite_name() + "-" + test.name() + "-" +
                 std::to_string(reinterpret_cast<uintptr_t>(this)));
        std::filesystem::create_directories(path_);
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string Path(const std::string& name) const { return (path_ / name).string(); }
    std::string Write(const std::string& name, const std::vector<uint8_t>& content) const {
        std::ofstream(Path(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
        return Path(name);
    }

private:
    std::filesystem::path path_;
};

} // namespace vrnx_tests
