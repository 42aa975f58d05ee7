// The world of the library's fuzz targets, see fuzz_reader_files.h.

#include "fuzz_reader_files.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

extern "C" int __wrap_PKCS5_PBKDF2_HMAC(const char* password, int passwordLength, const unsigned char* salt,
                                        int saltLength, int iterations, const EVP_MD* digest, int length,
                                        unsigned char* out);

// The linker sends the derivation here: the seeds are sealed with keys of this one.
int __wrap_PKCS5_PBKDF2_HMAC(const char* password, int passwordLength, const unsigned char* salt, int saltLength,
                             int /*iterations*/, const EVP_MD* /*digest*/, int length, unsigned char* out) {
    for (int i = 0; i < length; i++) {
        out[i] = static_cast<unsigned char>(password[i % passwordLength]) ^ salt[i % saltLength];
    }
    return 1;
}

namespace vrnx_fuzz {

namespace {

constexpr size_t headerSize = 64;
constexpr size_t recordSize = 72;
constexpr std::string_view password = "pw";

// Gone with the process.
struct Folder {
    Folder() {
        char name[] = "/tmp/vornix-fuzz-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            std::abort();
        }
        path = name;
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string path;
};

void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || close(fd) != 0) {
        std::abort();
    }
}

// Repairs the digest that an image pins, which no mutation would ever find.
void PinDigest(std::vector<uint8_t>& image, const std::vector<uint8_t>& base) {
    if (base.size() < headerSize || image.size() < 48) {
        return;
    }
    uint64_t count = 0;
    memcpy(&count, base.data() + 28, sizeof count);
    if (count > base.size() / recordSize || headerSize + recordSize * count > base.size()) {
        return;
    }
    EVP_Digest(base.data(), headerSize + recordSize * count, image.data() + image.size() - 36, nullptr, EVP_sha256(),
               nullptr);
}

} // namespace

std::string PutFiles(const uint8_t* data, size_t size, uint8_t& wishes) {
    static const Folder folder;
    size_t at = 0;
    auto takeByte = [&] { return at < size ? data[at++] : uint8_t{0}; };
    wishes = takeByte();
    const size_t count = takeByte() % 4 + 1U;
    std::vector<std::vector<uint8_t>> images;
    for (size_t i = 0; i < count; i++) {
        const size_t low = takeByte();
        const size_t length = std::min(low | static_cast<size_t>(takeByte()) << 8, size - at);
        images.emplace_back(data + at, data + at + length);
        at += length;
    }
    for (size_t i = count - 1; (wishes & 1) != 0 && i-- > 0;) {
        PinDigest(images[i], images[i + 1]);
    }
    for (size_t i = 0; i < 4; i++) {
        const std::string path = folder.path + "/" + std::to_string(i);
        if (i < count) {
            WriteFile(path, images[i].data(), images[i].size());
        } else {
            unlink(path.c_str());
        }
    }
    return folder.path + "/0";
}

vrnx_image* Open(const std::string& path, uint32_t flags, uint8_t wishes, vrnx_error& error) {
    vrnx_open_options options = {};
    options.flags = flags;
    options.cache_chunks = 2;
    if ((wishes & 2) == 0) {
        options.password = password.data();
        options.password_length = password.size();
    }
    vrnx_image* image = nullptr;
    const int code = vrnx_open(path.c_str(), &options, sizeof options, &image, &error);
    Require(code == error.code, "the code is the one described");
    Require((image != nullptr) == (code == VRNX_OK), "an image is there after a success alone");
    Require((error.text[0] == 0) == (code == VRNX_OK), "a failure has a text");
    return image;
}

void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

} // namespace vrnx_fuzz
