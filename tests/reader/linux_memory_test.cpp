// No memory, and what memory holds: every allocation of the library and of libcrypto below it fails in turn, and no
// block goes back to the heap with a key or a password in it.
//
// operator new and libcrypto's allocation are replaced in this one program. One thread.

#include "reader_files.h"

#include "port.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include <malloc.h>
#include <openssl/crypto.h>

using namespace vrnx_tests;

namespace {

long allocations = 0;     // since the count began
long failing = 0;         // the one that fails; 0 is none
bool fromThenOn = false;  // and all behind it
long blocks = 0;          // of operator new, at this moment
bool secretFreed = false; // a block with a secret in it was given back
std::vector<std::vector<uint8_t>>* secrets = nullptr;

bool IsToFail() {
    allocations++;
    return failing != 0 && (allocations == failing || (fromThenOn && allocations > failing));
}

void LookForSecrets(const void* block) {
    if (block == nullptr || secrets == nullptr)
        return;
    const auto* begin = static_cast<const uint8_t*>(block);
    const auto* end = begin + malloc_usable_size(const_cast<void*>(block));
    for (const auto& secret : *secrets)
        secretFreed = secretFreed || std::search(begin, end, secret.begin(), secret.end()) != end;
}

void* Allocate(size_t size) {
    return IsToFail() ? nullptr : malloc(size == 0 ? 1 : size);
}

void* CryptoAllocate(size_t size, const char*, int) {
    return size == 0 ? nullptr : Allocate(size);
}

void CryptoFree(void* block, const char*, int) {
    LookForSecrets(block);
    free(block);
}

void* CryptoReallocate(void* block, size_t size, const char* file, int line) {
    if (size == 0) {
        CryptoFree(block, file, line);
        return nullptr;
    }
    // By hand, so that what is left behind is looked at as well.
    void* grown = CryptoAllocate(size, file, line);
    if (grown != nullptr && block != nullptr) {
        memcpy(grown, block, std::min(size, malloc_usable_size(block)));
        CryptoFree(block, file, line);
    }
    return grown;
}

// Before anything of libcrypto runs.
const bool replaced = CRYPTO_set_mem_functions(CryptoAllocate, CryptoReallocate, CryptoFree) == 1;

} // namespace

void* operator new(size_t size) {
    void* block = Allocate(size);
    if (block == nullptr)
        throw std::bad_alloc();
    blocks++;
    return block;
}

void operator delete(void* block) noexcept {
    if (block == nullptr)
        return;
    LookForSecrets(block);
    blocks--;
    free(block);
}

void operator delete(void* block, size_t) noexcept {
    operator delete(block);
}

namespace {

struct Outcome {
    int first = VRNX_OK; // the first failure of the run
    bool wrongBytes = false;
};

// All that can be done with an image: opened by its path, read, checked, healed, described, closed.
Outcome UseEverything(const char* path, const vrnx_open_options& options, const uint8_t* plain, size_t length) {
    Outcome outcome;
    auto note = [&](int code) {
        if (outcome.first == VRNX_OK)
            outcome.first = code;
        return code == VRNX_OK;
    };
    static vrnx_error error;
    static uint8_t buffer[0x1000];
    vrnx_image* image = nullptr;
    if (!note(vrnx_open(path, &options, sizeof options, &image, &error)))
        return outcome;
    for (size_t offset = 0; offset < length; offset += 300) {
        const size_t step = std::min<size_t>(300, length - offset);
        if (note(vrnx_read(image, buffer, offset, step, &error)))
            outcome.wrongBytes = outcome.wrongBytes || memcmp(buffer, plain + offset, step) != 0;
    }
    vrnx_info info = {};
    vrnx_get_info(image, &info, sizeof info);
    for (uint64_t number = 0; number < info.chunk_count; number++) {
        vrnx_chunk chunk = {};
        vrnx_get_chunk(image, number, &chunk, sizeof chunk);
        note(vrnx_check_chunk(image, number, &error));
        if (note(vrnx_heal_chunk(image, number, image, buffer, &error)))
            outcome.wrongBytes = outcome.wrongBytes || memcmp(buffer, plain + chunk.disk_offset, chunk.length) != 0;
    }
    vrnx_close(image);
    return outcome;
}

class Memory : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(replaced);
        path_ = vectors + "thin-sealed-over-sealed.vrnx";
        vrnx_error error;
        const ImagePointer image = Open(path_, WithPassword(), error);
        ASSERT_NE(image, nullptr) << error.text;
        plain_.resize(InfoOf(image.get()).disk_size);
        ASSERT_EQ(vrnx_read(image.get(), plain_.data(), 0, plain_.size(), &error), VRNX_OK);
    }
    void TearDown() override { failing = 0; }

    void FailEachAllocation(bool andAllBehindIt, uint32_t flags, const std::string& path) {
        const vrnx_open_options options = WithPassword(flags);
        fromThenOn = andAllBehindIt;
        int failures = 0;
        for (failing = 1;; failing++) {
            allocations = 0;
            const long before = blocks;
            const Outcome outcome = UseEverything(path.c_str(), options, plain_.data(), plain_.size());
            const long made = allocations;
            const long left = blocks - before;
            const long failed = failing;
            if (made < failed)
                break;
            failing = 0; // the assertions allocate too
            ASSERT_EQ(left, 0) << "allocation " << failed << " leaves blocks behind";
            ASSERT_FALSE(outcome.wrongBytes) << "allocation " << failed;
            ASSERT_TRUE(outcome.first == VRNX_OK || outcome.first == VRNX_ERROR_MEMORY ||
                        outcome.first == VRNX_ERROR_CRYPTO)
                << "allocation " << failed << ": " << vrnx_code_text(outcome.first);
            failures += outcome.first != VRNX_OK ? 1 : 0;
            failing = failed;
        }
        failing = 0;
        EXPECT_GT(failures, 20);
    }

    std::string path_;
    std::vector<uint8_t> plain_;
};

} // namespace

TEST_F(Memory, EachAllocationFailsOnce) {
    FailEachAllocation(false, 0, path_);
}

TEST_F(Memory, EachAllocationFailsWithAllBehindIt) {
    FailEachAllocation(true, 0, path_);
}

TEST_F(Memory, EachAllocationOfALenientOpenFails) {
    FailEachAllocation(false, VRNX_OPEN_LENIENT, path_);
}

TEST_F(Memory, NoBlockIsGivenBackWithASecretInIt) {
    const std::vector<uint8_t> header = ReadFile(path_);
    std::vector<uint8_t> key(vrnx::keySize);
    const std::vector<uint8_t> passwordBytes(password, password + sizeof password - 1);
    ASSERT_TRUE(vrnx::DeriveKey(passwordBytes.data(), passwordBytes.size(), header.data() + 44, 100000, key.data()));
    vrnx_error error;
    vrnx_open_options options = {};
    const std::string passwordFile = vectors + "password.txt";
    options.password_file = passwordFile.c_str();
    std::vector<std::vector<uint8_t>> all = {key, passwordBytes};
    secretFreed = false;
    secrets = &all;
    {
        std::vector<uint8_t> whole(plain_.size());
        const ImagePointer image = Open(path_, options, error);
        const int code = image == nullptr ? -1 : vrnx_read(image.get(), whole.data(), 0, whole.size(), &error);
        secrets = code == VRNX_OK ? secrets : nullptr;
    }
    ASSERT_NE(secrets, nullptr) << error.text;
    secrets = nullptr;
    EXPECT_FALSE(secretFreed);
    // The look itself finds a secret where there is one.
    secrets = &all;
    delete new std::vector<uint8_t>(key);
    secrets = nullptr;
    EXPECT_TRUE(secretFreed);
}
