// The port for POSIX systems and libcrypto. It is not for anything that another system could do as well.

#include "port.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrnx {

// --- Files ----------------------------------------------------------------------------------------------------------

File::File(File&& other) noexcept
    : handle_(std::exchange(other.handle_, -1)), size_(other.size_), device_(other.device_), number_(other.number_) {}

File& File::operator=(File&& other) noexcept {
    if (this != &other) {
        std::swap(handle_, other.handle_);
        size_ = other.size_;
        device_ = other.device_;
        number_ = other.number_;
    }
    return *this;
}

File::~File() {
    if (handle_ >= 0) {
        close(static_cast<int>(handle_)); // a failed close of a file that was only read tells nothing
    }
}

int File::Open(const char* path) {
    // Without waiting: opening a pipe that nobody writes to would.
    int fd = -1;
    do {
        fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return errno;
    }
    struct stat status = {};
    int error = fstat(fd, &status) != 0 ? errno : S_ISREG(status.st_mode) ? 0 : notRegular;
    if (error != 0) {
        close(fd);
        return error;
    }
    File opened;
    opened.handle_ = fd;
    opened.size_ = static_cast<uint64_t>(status.st_size);
    opened.device_ = static_cast<uint64_t>(status.st_dev);
    opened.number_ = static_cast<uint64_t>(status.st_ino);
    *this = std::move(opened);
    return 0;
}

int File::Read(uint64_t offset, void* buffer, size_t length, size_t& got) const {
    got = 0;
    while (got < length) {
        ssize_t count = pread(static_cast<int>(handle_), static_cast<uint8_t*>(buffer) + got, length - got,
                              static_cast<off_t>(offset + got));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return errno;
        }
        if (count == 0) {
            break;
        }
        got += static_cast<size_t>(count);
    }
    return 0;
}

bool File::IsSameAs(const File& other) const {
    return device_ == other.device_ && number_ == other.number_;
}

bool FileExists(const char* path) {
    struct stat status = {};
    return stat(path, &status) == 0;
}

int ReadWhole(const char* path, void* buffer, size_t limit, size_t& got) {
    got = 0;
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return errno;
    }
    int error = 0;
    while (got < limit) {
        ssize_t count = read(fd, static_cast<uint8_t*>(buffer) + got, limit - got);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            error = errno;
        }
        if (count <= 0) {
            break;
        }
        got += static_cast<size_t>(count);
    }
    close(fd);
    return error;
}

size_t FolderLength(const char* path) {
    const char* separator = strrchr(path, '/');
    return separator == nullptr ? 0 : static_cast<size_t>(separator - path) + 1;
}

std::string PathInFolder(const std::string& folder, const std::string& name) {
    return folder + name;
}

// --- Memory ---------------------------------------------------------------------------------------------------------

void PreferLargePages(void* block, size_t size) {
    madvise(block, size, MADV_HUGEPAGE); // advice: a kernel that does not take it does as before
}

// --- Cryptography ---------------------------------------------------------------------------------------------------

namespace {

// libcrypto notes each failure for the thread, where a caller that uses it too would take it for one of its own.
class QuietErrors {
public:
    QuietErrors() { ERR_set_mark(); }
    ~QuietErrors() { ERR_pop_to_mark(); }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;
};

} // namespace

Algorithms::~Algorithms() {
    EVP_MD_free(static_cast<EVP_MD*>(digest_));
    EVP_CIPHER_free(static_cast<EVP_CIPHER*>(cipher_));
}

bool Algorithms::Fetch() {
    const QuietErrors quiet;
    digest_ = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    cipher_ = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    return digest_ != nullptr && cipher_ != nullptr;
}

Context::~Context() {
    EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(digest_));
    EVP_CIPHER_CTX_free(static_cast<EVP_CIPHER_CTX*>(cipher_)); // wipes the key that it holds
}

bool Context::BeginHash() {
    const QuietErrors quiet;
    if (digest_ == nullptr) {
        digest_ = EVP_MD_CTX_new();
    }
    return digest_ != nullptr && EVP_DigestInit_ex2(static_cast<EVP_MD_CTX*>(digest_),
                                                    static_cast<const EVP_MD*>(algorithms_.digest_), nullptr) == 1;
}

bool Context::AddToHash(const void* bytes, size_t length) {
    return EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(digest_), bytes, length) == 1;
}

bool Context::EndHash(uint8_t hash[hashSize]) {
    return EVP_DigestFinal_ex(static_cast<EVP_MD_CTX*>(digest_), hash, nullptr) == 1;
}

Unsealed Context::Unseal(const uint8_t key[keySize], const uint8_t nonce[nonceSize], const uint8_t tag[tagSize],
                         uint8_t* bytes, size_t length) {
    const QuietErrors quiet;
    if (cipher_ == nullptr) {
        cipher_ = EVP_CIPHER_CTX_new();
    }
    auto* context = static_cast<EVP_CIPHER_CTX*>(cipher_);
    uint8_t expected[tagSize]; // the call takes it as something that it may change
    std::copy_n(tag, tagSize, expected);
    int count = 0;
    // A nonce of 12 bytes is what the cipher takes by itself.
    if (context == nullptr ||
        EVP_DecryptInit_ex2(context, static_cast<const EVP_CIPHER*>(algorithms_.cipher_), key, nonce, nullptr) != 1 ||
        EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tagSize), expected) != 1 ||
        EVP_DecryptUpdate(context, bytes, &count, bytes, static_cast<int>(length)) != 1 ||
        count != static_cast<int>(length)) {
        return Unsealed::failed;
    }
    return EVP_DecryptFinal_ex(context, bytes + length, &count) == 1 ? Unsealed::good : Unsealed::bad;
}

bool DeriveKey(const uint8_t* password, size_t passwordLength, const uint8_t salt[saltSize], uint32_t iterations,
               uint8_t key[keySize]) {
    const QuietErrors quiet;
    return PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(password), static_cast<int>(passwordLength), salt,
                             static_cast<int>(saltSize), static_cast<int>(iterations), EVP_sha256(),
                             static_cast<int>(keySize), key) == 1;
}

void Wipe(void* bytes, size_t length) {
    OPENSSL_cleanse(bytes, length);
}

} // namespace vrnx
