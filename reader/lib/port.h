// What the library needs of an operating system and of a library of cryptography: the whole of what a port has to
// supply. port_posix.cpp and port_windows.cpp are the two there are, and the only files here that know a system.
//
// It is not for anything that the format says: a port knows no image.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vrnx {

constexpr size_t hashSize = 32;
constexpr size_t keySize = 32;
constexpr size_t nonceSize = 12;
constexpr size_t tagSize = 16;
constexpr size_t saltSize = 16;

// --- Files ----------------------------------------------------------------------------------------------------------

// A regular file, open for reading; several threads may read at once. Paths are those of vrnx.h.
class File {
public:
    File() = default;
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File();

    // Opens a file and takes its size. Gives 0, the system's error, or `notRegular` for what is no regular file.
    int Open(const char* path);
    static constexpr int notRegular = -1;

    // Reads until `length` bytes are there or the file ends; `got` says how many. Gives 0 or the system's error.
    int Read(uint64_t offset, void* buffer, size_t length, size_t& got) const;

    uint64_t Size() const { return size_; }

    // Whether two open files are one and the same, by whatever names.
    bool IsSameAs(const File& other) const;

private:
    intptr_t handle_ = -1;
    uint64_t size_ = 0;
    uint64_t device_ = 0;
    uint64_t number_ = 0;
};

// Whether anything is there under this name, links followed.
bool FileExists(const char* path);

// Reads at most `limit` bytes of whatever can be read: also of a pipe. Gives 0 or the system's error.
int ReadWhole(const char* path, void* buffer, size_t limit, size_t& got);

// How many bytes of a path are its folder part, the separator included; 0 where it has none.
size_t FolderLength(const char* path);

// The path of a file in a folder, by a name as it stands in an image: there nothing says how it is encoded.
std::string PathInFolder(const std::string& folder, const std::string& name);

// --- Memory ---------------------------------------------------------------------------------------------------------

// Asks for large pages behind a block that nobody has touched yet. Where the system has none, it stays as it is.
void PreferLargePages(void* block, size_t size);

// --- Cryptography ---------------------------------------------------------------------------------------------------

// The algorithms, looked up once.
class Algorithms {
public:
    Algorithms() = default;
    Algorithms(const Algorithms&) = delete;
    Algorithms& operator=(const Algorithms&) = delete;
    ~Algorithms();

    // Gives false where the library of cryptography fails.
    bool Fetch();

private:
    friend class Context;
    void* digest_ = nullptr;
    void* cipher_ = nullptr;
};

enum class Unsealed {
    good,
    bad,   // the tag does not fit
    failed // the library of cryptography failed
};

// What one thread computes with, built on first use. The algorithms have to outlive it.
class Context {
public:
    explicit Context(const Algorithms& algorithms) : algorithms_(algorithms) {}
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context();

    // SHA-256 (FIPS 180-4) of all that is given between begin and end. Each gives false where the library fails.
    bool BeginHash();
    bool AddToHash(const void* bytes, size_t length);
    bool EndHash(uint8_t hash[hashSize]);

    // Opens one message of AES-256-GCM (SP 800-38D) without additional data, in place, of at most 64 MiB. What the
    // buffer holds after anything but `good` is not to be used.
    Unsealed Unseal(const uint8_t key[keySize], const uint8_t nonce[nonceSize], const uint8_t tag[tagSize],
                    uint8_t* bytes, size_t length);

private:
    const Algorithms& algorithms_;
    void* digest_ = nullptr;
    void* cipher_ = nullptr;
};

// PBKDF2 (RFC 8018) with HMAC-SHA-256. Gives false where the library fails.
bool DeriveKey(const uint8_t* password, size_t passwordLength, const uint8_t salt[saltSize], uint32_t iterations,
               uint8_t key[keySize]);

// Overwrites a secret with zeros, in a way that no optimiser removes.
void Wipe(void* bytes, size_t length);

} // namespace vrnx
