// Threads that read, check and describe one image at once, for the thread sanitizer: parallel_reads PASSWORD IMAGE...
// Ends with status 1 where a thread saw other bytes than the first reading, and with the sanitizer's own where it finds
// a race.

#include "vrnx.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<int> wrong = 0;

void Use(vrnx_image* image, const std::vector<uint8_t>& plain, unsigned seed) {
    std::mt19937 chance(seed);
    std::vector<uint8_t> bytes(plain.size());
    auto error = std::make_unique<vrnx_error>();
    vrnx_info info = {};
    vrnx_get_info(image, &info, sizeof info);
    for (int round = 0; round < 200; round++) {
        const size_t offset = chance() % plain.size();
        const size_t length = chance() % (plain.size() - offset + 1);
        if (vrnx_read(image, bytes.data(), offset, length, error.get()) != VRNX_OK ||
            memcmp(bytes.data(), plain.data() + offset, length) != 0) {
            wrong++;
        }
        const uint64_t number = chance() % info.chunk_count;
        vrnx_chunk chunk = {};
        if (vrnx_get_chunk(image, number, &chunk, sizeof chunk) != VRNX_OK ||
            vrnx_check_chunk(image, number, error.get()) != VRNX_OK ||
            vrnx_heal_chunk(image, number, image, bytes.data(), error.get()) != VRNX_OK) {
            wrong++;
        }
    }
}

bool Try(const char* path, const std::string& password, uint32_t cacheChunks) {
    vrnx_open_options options = {};
    options.cache_chunks = cacheChunks;
    options.password = password.data();
    options.password_length = password.size();
    auto error = std::make_unique<vrnx_error>();
    vrnx_image* image = nullptr;
    std::vector<uint8_t> plain;
    if (vrnx_open(path, &options, sizeof options, &image, error.get()) == VRNX_OK) {
        vrnx_info info = {};
        vrnx_get_info(image, &info, sizeof info);
        plain.resize(info.disk_size);
        vrnx_read(image, plain.data(), 0, plain.size(), error.get());
        vrnx_close(image);
    }
    // Anew, so that nothing is known of any chunk.
    if (error->code != VRNX_OK || vrnx_open(path, &options, sizeof options, &image, error.get()) != VRNX_OK) {
        std::fprintf(stderr, "%s\n", error->text);
        return false;
    }
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 4; seed++) {
        threads.emplace_back([&plain, image, seed] { Use(image, plain, seed); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    vrnx_close(image);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    int tried = 0;
    for (int i = 2; i < argc; i++) {
        for (const uint32_t cacheChunks : {1U, 2U, 0U, VRNX_CACHE_NONE}) {
            if (!Try(argv[i], argv[1], cacheChunks)) {
                return 1;
            }
            tried++;
        }
    }
    std::printf("%d passed, %d failed\n", wrong == 0 ? tried : 0, wrong == 0 ? 0 : tried);
    return wrong == 0 && tried > 0 ? 0 : 1;
}
