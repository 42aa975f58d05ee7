// A file for each key, named by a hash of what it was derived from; what it was derived from stands in it whole, and a
// check of it all behind the key, since another run may be writing the file.
#include "remembered_keys.h"

#include "host.h"
#include "real_calls.h"
#include "text.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace vornix::bench {

namespace {

using Number = std::uint64_t;

// What is longer is not asked for often.
constexpr std::size_t longestInput = 4096;
constexpr std::size_t keySize = 32;
constexpr ULONG saltSize = 16;
using Content = std::array<std::uint8_t, longestInput + keySize + sizeof(Number)>;

// FNV-1a of 64 bits.
Number HashOf(const std::uint8_t* bytes, std::size_t count) {
    Number hash = 0xCBF29CE484222325;
    for (std::size_t i = 0; i < count; i++) {
        hash = (hash ^ bytes[i]) * 0x100000001B3;
    }
    return hash;
}

// Leaves no copy of a password or key behind: there are tests that look through the memory of the process.
void Wipe(Content& content) {
    volatile std::uint8_t* const bytes = content.data();
    for (std::size_t i = 0; i < content.size(); i++) {
        bytes[i] = 0;
    }
}

std::string FileOf(const char* folder, Number hash) {
    std::array<std::uint8_t, sizeof(hash)> bytes{};
    std::memcpy(bytes.data(), &hash, sizeof(hash));
    return JoinHostPath(folder, HexFromBytes(bytes.data(), bytes.size()));
}

// Whether the file has a key for this beginning of the content, which gets it behind it.
bool Find(const std::string& path, Content& content, std::size_t inputLength) {
    const std::unique_ptr<HostFile> file = HostFile::Open(path, HostFile::Mode::Read);
    const std::size_t size = inputLength + keySize + sizeof(Number);
    Content found{};
    bool isFound = false;
    if (file != nullptr && file->ReadAt(0, found.data(), size).Count == size) {
        Number check = 0;
        std::memcpy(&check, found.data() + inputLength + keySize, sizeof(check));
        isFound = check == HashOf(found.data(), inputLength + keySize) &&
                  std::memcmp(found.data(), content.data(), inputLength) == 0;
    }
    if (isFound) {
        content = found;
    }
    Wipe(found);
    return isFound;
}

void Keep(const std::string& path, Content& content, std::size_t inputLength) {
    const Number check = HashOf(content.data(), inputLength + keySize);
    std::memcpy(content.data() + inputLength + keySize, &check, sizeof(check));
    if (const std::unique_ptr<HostFile> file = HostFile::Open(path, HostFile::Mode::Create)) {
        // What is not kept is computed again.
        (void)file->WriteAt(0, content.data(), inputLength + keySize + sizeof(check));
    }
}

} // namespace

NTSTATUS DeriveKeyOnce(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt, ULONG saltLength,
                       ULONGLONG iterations, PUCHAR key, ULONG keyLength, ULONG flags) {
    const auto derive = [&](ULONGLONG rounds) {
        return RealBCryptDeriveKeyPBKDF2(prf, password, passwordLength, salt, saltLength, rounds, key, keyLength,
                                         flags);
    };
    const char* const folder = std::getenv("VORNIX_BENCH_KEYS");
    const std::array<Number, 3> numbers{passwordLength, saltLength, iterations};
    const std::size_t inputLength = sizeof(numbers) + passwordLength + saltLength;
    if (folder == nullptr || *folder == '\0' || inputLength > longestInput || keyLength != keySize ||
        passwordLength == 0 || saltLength == 0 || iterations == 0) {
        return derive(iterations);
    }
    Content content{};
    std::memcpy(content.data(), numbers.data(), sizeof(numbers));
    std::memcpy(content.data() + sizeof(numbers), password, passwordLength);
    std::memcpy(content.data() + sizeof(numbers) + passwordLength, salt, saltLength);
    const std::string path = FileOf(folder, HashOf(content.data(), inputLength));
    NTSTATUS status = 0;
    if (Find(path, content, inputLength)) {
        status = derive(1);
        if (status >= 0) {
            std::memcpy(key, content.data() + inputLength, keySize);
        }
    } else {
        status = derive(iterations);
        if (status >= 0) {
            std::memcpy(content.data() + inputLength, key, keySize);
            Keep(path, content, inputLength);
        }
    }
    Wipe(content);
    return status;
}

NTSTATUS DrawOrSameSalt(BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG length, ULONG flags) {
    const NTSTATUS status = RealBCryptGenRandom(algorithm, buffer, length, flags);
    const char* const wish = std::getenv("VORNIX_BENCH_SALT");
    if (status >= 0 && length == saltSize && wish != nullptr && *wish != '\0') {
        std::memset(buffer, 'S', length);
    }
    return status;
}

} // namespace vornix::bench
