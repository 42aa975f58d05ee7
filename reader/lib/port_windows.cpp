// The port for Win32 and CNG. It is not for anything that another system could do as well.

#include "port.h"

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <utility>

namespace vrnx {

namespace {

HANDLE AsHandle(intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

// Text of one code page as UTF-16; empty where it is none.
std::wstring Widen(UINT codePage, const char* text, size_t length) {
    std::wstring wide;
    int count = MultiByteToWideChar(codePage, 0, text, static_cast<int>(length), nullptr, 0);
    if (count > 0) {
        wide.resize(static_cast<size_t>(count));
        MultiByteToWideChar(codePage, 0, text, static_cast<int>(length), wide.data(), count);
    }
    return wide;
}

std::wstring WidenPath(const char* path) {
    return Widen(CP_UTF8, path, std::char_traits<char>::length(path));
}

int OpenHandle(const char* path, HANDLE& handle) {
    // Whoever else has the file open, for whatever: a capture may be writing it.
    handle = CreateFileW(WidenPath(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    return handle == INVALID_HANDLE_VALUE ? static_cast<int>(GetLastError()) : 0;
}

} // namespace

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
    if (AsHandle(handle_) != INVALID_HANDLE_VALUE)
        CloseHandle(AsHandle(handle_)); // a failed close of a file that was only read tells nothing
}

int File::Open(const char* path) {
    HANDLE handle = INVALID_HANDLE_VALUE;
    int error = OpenHandle(path, handle);
    if (error != 0)
        return error;
    File opened;
    opened.handle_ = reinterpret_cast<intptr_t>(handle);
    if (GetFileType(handle) != FILE_TYPE_DISK)
        return notRegular;
    BY_HANDLE_FILE_INFORMATION information = {};
    if (!GetFileInformationByHandle(handle, &information))
        return static_cast<int>(GetLastError());
    opened.size_ = static_cast<uint64_t>(information.nFileSizeHigh) << 32 | information.nFileSizeLow;
    opened.device_ = information.dwVolumeSerialNumber;
    opened.number_ = static_cast<uint64_t>(information.nFileIndexHigh) << 32 | information.nFileIndexLow;
    *this = std::move(opened);
    return 0;
}

int File::Read(uint64_t offset, void* buffer, size_t length, size_t& got) const {
    got = 0;
    while (got < length) {
        // With a place of its own each read leaves the handle's alone.
        OVERLAPPED place = {};
        place.Offset = static_cast<DWORD>(offset + got);
        place.OffsetHigh = static_cast<DWORD>((offset + got) >> 32);
        DWORD step = static_cast<DWORD>(std::min<size_t>(length - got, 0x4000000));
        DWORD count = 0;
        if (!ReadFile(AsHandle(handle_), static_cast<uint8_t*>(buffer) + got, step, &count, &place)) {
            DWORD error = GetLastError();
            return error == ERROR_HANDLE_EOF ? 0 : static_cast<int>(error);
        }
        if (count == 0)
            break;
        got += count;
    }
    return 0;
}

bool File::IsSameAs(const File& other) const {
    return device_ == other.device_ && number_ == other.number_;
}

bool FileExists(const char* path) {
    return GetFileAttributesW(WidenPath(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

int ReadWhole(const char* path, void* buffer, size_t limit, size_t& got) {
    got = 0;
    HANDLE handle = INVALID_HANDLE_VALUE;
    int error = OpenHandle(path, handle);
    if (error != 0)
        return error;
    while (got < limit) {
        DWORD count = 0;
        if (!ReadFile(handle, static_cast<uint8_t*>(buffer) + got, static_cast<DWORD>(limit - got), &count, nullptr)) {
            error = GetLastError() == ERROR_BROKEN_PIPE ? 0 : static_cast<int>(GetLastError());
            break;
        }
        if (count == 0)
            break;
        got += count;
    }
    CloseHandle(handle);
    return error;
}

size_t FolderLength(const char* path) {
    // A colon too: what is beside C:x lies in the current folder of that drive.
    size_t separator = std::string(path).find_last_of("\\/:");
    return separator == std::string::npos ? 0 : separator + 1;
}

std::string PathInFolder(const std::string& folder, const std::string& name) {
    // The system's own code page is what the program takes a name for.
    std::wstring wide = Widen(CP_ACP, name.data(), name.size());
    std::string path = folder;
    int count =
        WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
    if (count > 0) {
        path.resize(folder.size() + static_cast<size_t>(count));
        WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), path.data() + folder.size(), count,
                            nullptr, nullptr);
    }
    return path;
}

// --- Memory ---------------------------------------------------------------------------------------------------------

void PreferLargePages(void* /*block*/, size_t /*size*/) {
    // They take a privilege there, and are locked in memory.
}

// --- Cryptography ---------------------------------------------------------------------------------------------------

Algorithms::~Algorithms() {
    if (digest_ != nullptr)
        BCryptCloseAlgorithmProvider(digest_, 0);
    if (cipher_ != nullptr)
        BCryptCloseAlgorithmProvider(cipher_, 0);
}

bool Algorithms::Fetch() {
    return BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&digest_, BCRYPT_SHA256_ALGORITHM, nullptr, 0)) &&
           BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&cipher_, BCRYPT_AES_ALGORITHM, nullptr, 0)) &&
           BCRYPT_SUCCESS(BCryptSetProperty(cipher_, BCRYPT_CHAINING_MODE,
                                            reinterpret_cast<PUCHAR>(const_cast<wchar_t*>(BCRYPT_CHAIN_MODE_GCM)),
                                            sizeof BCRYPT_CHAIN_MODE_GCM, 0));
}

Context::~Context() {
    if (digest_ != nullptr)
        BCryptDestroyHash(digest_);
}

bool Context::BeginHash() {
    if (digest_ != nullptr)
        BCryptDestroyHash(std::exchange(digest_, nullptr));
    return BCRYPT_SUCCESS(BCryptCreateHash(algorithms_.digest_, &digest_, nullptr, 0, nullptr, 0, 0));
}

bool Context::AddToHash(const void* bytes, size_t length) {
    auto* input = static_cast<PUCHAR>(const_cast<void*>(bytes));
    return BCRYPT_SUCCESS(BCryptHashData(digest_, input, static_cast<ULONG>(length), 0));
}

bool Context::EndHash(uint8_t hash[hashSize]) {
    return BCRYPT_SUCCESS(BCryptFinishHash(digest_, hash, static_cast<ULONG>(hashSize), 0));
}

Unsealed Context::Unseal(const uint8_t key[keySize], const uint8_t nonce[nonceSize], const uint8_t tag[tagSize],
                         uint8_t* bytes, size_t length) {
    BCRYPT_KEY_HANDLE handle = nullptr;
    if (!BCRYPT_SUCCESS(BCryptGenerateSymmetricKey(algorithms_.cipher_, &handle, nullptr, 0, const_cast<uint8_t*>(key),
                                                   static_cast<ULONG>(keySize), 0)))
        return Unsealed::failed;
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO mode = {};
    BCRYPT_INIT_AUTH_MODE_INFO(mode);
    mode.pbNonce = const_cast<uint8_t*>(nonce);
    mode.cbNonce = static_cast<ULONG>(nonceSize);
    mode.pbTag = const_cast<uint8_t*>(tag);
    mode.cbTag = static_cast<ULONG>(tagSize);
    ULONG count = 0;
    NTSTATUS status = BCryptDecrypt(handle, bytes, static_cast<ULONG>(length), &mode, nullptr, 0, bytes,
                                    static_cast<ULONG>(length), &count, 0);
    BCryptDestroyKey(handle); // wipes it
    constexpr auto tagMismatch = static_cast<NTSTATUS>(0xC000A002);
    return BCRYPT_SUCCESS(status) ? Unsealed::good : status == tagMismatch ? Unsealed::bad : Unsealed::failed;
}

bool DeriveKey(const uint8_t* password, size_t passwordLength, const uint8_t salt[saltSize], uint32_t iterations,
               uint8_t key[keySize]) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    if (!BCRYPT_SUCCESS(
            BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, BCRYPT_ALG_HANDLE_HMAC_FLAG)))
        return false;
    NTSTATUS status = BCryptDeriveKeyPBKDF2(
        algorithm, const_cast<uint8_t*>(password), static_cast<ULONG>(passwordLength), const_cast<uint8_t*>(salt),
        static_cast<ULONG>(saltSize), iterations, key, static_cast<ULONG>(keySize), 0);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return BCRYPT_SUCCESS(status);
}

void Wipe(void* bytes, size_t length) {
    SecureZeroMemory(bytes, length);
}

} // namespace vrnx
