// The floor that the program is measured against: for each job the transfers and the computations that it cannot do
// without, one after the other on one thread or side by side on three, and nothing else. No checks, no table, no
// messages: not a tool.
//
// What is written is on its medium at the end, and a file's pages out of the cache, as a run of the program leaves
// them.
//
//   floor capture DISK OUT            read directly, SHA-256, write
//   floor seal DISK OUT               the same with AES-256-GCM in between
//   floor verify IMAGE                read header and table, then the chunk data in chunks with SHA-256
//   floor unseal IMAGE                the same with AES-256-GCM before the SHA-256
//   floor restore IMAGE DISK          the same, written directly
//   floor clone FROM TO               read directly, write directly
//   floor clone-verify FROM TO        then read both directly and compare
//   floor open IMAGE                  read header and table, and SHA-256 of them
//   floor overlapped JOB A B          capture, seal, restore, unseal-restore or clone as above, with one thread that
//                                     reads, one that hashes and seals or opens, one that writes, and four blocks
//   floor fold PLAN OUT               a line of PLAN a chunk: file, offset, length, times hashed; written, then read
//                                     from the medium and hashed once more
#include <fcntl.h>
#include <linux/fs.h>
#include <openssl/evp.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t chunkSize = 4194304;
constexpr size_t alignment = 4096;

[[noreturn]] void Die(const char* what) {
    std::perror(what);
    std::exit(2);
}

int Open(const char* path, int flags) {
    const int file = open(path, flags | O_CLOEXEC, 0666);
    if (file < 0) {
        Die(path);
    }
    return file;
}

uint8_t* Allocate(size_t size) {
    void* memory = nullptr;
    if (posix_memalign(&memory, alignment, size) != 0) {
        Die("memory");
    }
    return static_cast<uint8_t*>(memory);
}

uint64_t SizeOfDisk(int disk) {
    uint64_t size = 0;
    if (ioctl(disk, BLKGETSIZE64, &size) != 0) {
        Die("disk size");
    }
    return size;
}

void ReadAt(int file, uint8_t* memory, size_t length, uint64_t offset) {
    for (size_t done = 0; done < length;) {
        const ssize_t moved = pread(file, memory + done, length - done, static_cast<off_t>(offset + done));
        if (moved <= 0) {
            Die("read");
        }
        done += static_cast<size_t>(moved);
    }
}

void WriteAt(int file, const uint8_t* memory, size_t length, uint64_t offset) {
    for (size_t done = 0; done < length;) {
        const ssize_t moved = pwrite(file, memory + done, length - done, static_cast<off_t>(offset + done));
        if (moved <= 0) {
            Die("write");
        }
        done += static_cast<size_t>(moved);
    }
}

// What keeps the hashes from being dropped as unused.
volatile uint8_t sink = 0;

void Hash(const uint8_t* memory, size_t length) {
    static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
    uint8_t digest[32];
    unsigned written = 0;
    if (EVP_Digest(memory, length, digest, &written, sha256, nullptr) != 1) {
        Die("hash");
    }
    sink = digest[0];
}

void Cipher(const uint8_t* from, uint8_t* to, size_t length, bool sealing) {
    static const EVP_CIPHER* const gcm = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    static EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
    const uint8_t key[32] = {1};
    const uint8_t nonce[12] = {2};
    int written = 0;
    uint8_t tag[16];
    if (EVP_CipherInit_ex2(context, gcm, key, nonce, sealing ? 1 : 0, nullptr) != 1 ||
        EVP_CipherUpdate(context, to, &written, from, static_cast<int>(length)) != 1) {
        Die("cipher");
    }
    if (sealing && (EVP_CipherFinal_ex(context, to + written, &written) != 1 ||
                    EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, tag) != 1)) {
        Die("tag");
    }
}

// Brings what was written to a disk to its medium.
void Sync(int file) {
    if (fsync(file) != 0) {
        Die("sync");
    }
}

// The same for a file, whose pages then leave the cache.
void SyncAndForget(int file) {
    Sync(file);
    (void)posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
}

size_t PieceAt(uint64_t total, uint64_t offset) {
    return static_cast<size_t>(std::min<uint64_t>(chunkSize, total - offset));
}

void Capture(const char* diskPath, const char* outPath, bool sealing) {
    const int disk = Open(diskPath, O_RDONLY | O_DIRECT);
    const int out = Open(outPath, O_WRONLY | O_CREAT | O_TRUNC);
    const uint64_t size = SizeOfDisk(disk);
    const uint64_t start = 64 + 72 * ((size - 1) / chunkSize + 1);
    uint8_t* const plain = Allocate(chunkSize);
    uint8_t* const sealed = Allocate(chunkSize);
    for (uint64_t offset = 0; offset < size; offset += chunkSize) {
        const size_t length = PieceAt(size, offset);
        ReadAt(disk, plain, length, offset);
        Hash(plain, length);
        if (sealing) {
            Cipher(plain, sealed, length, true);
        }
        WriteAt(out, sealing ? sealed : plain, length, start + offset);
    }
    SyncAndForget(out);
}

struct ImageExtent {
    uint64_t DataStart;
    uint64_t DiskSize;
};

// Reads and hashes header and table, as every open does.
ImageExtent OpenImage(int image) {
    uint8_t header[64];
    ReadAt(image, header, sizeof header, 0);
    uint64_t count = 0;
    ImageExtent extent{};
    std::memcpy(&count, header + 28, sizeof count);
    std::memcpy(&extent.DiskSize, header + 12, sizeof extent.DiskSize);
    extent.DataStart = 64 + 72 * count;
    std::vector<uint8_t> head(extent.DataStart);
    ReadAt(image, head.data(), head.size(), 0);
    Hash(head.data(), head.size());
    return extent;
}

void Verify(const char* imagePath, const char* diskPath, bool unsealing) {
    const int image = Open(imagePath, O_RDONLY);
    posix_fadvise(image, 0, 0, POSIX_FADV_SEQUENTIAL);
    const int disk = diskPath != nullptr ? Open(diskPath, O_RDWR | O_DIRECT | O_EXCL) : -1;
    const ImageExtent extent = OpenImage(image);
    uint8_t* const stored = Allocate(chunkSize);
    uint8_t* const plain = unsealing ? Allocate(chunkSize) : stored;
    for (uint64_t offset = 0; offset < extent.DiskSize; offset += chunkSize) {
        const size_t length = PieceAt(extent.DiskSize, offset);
        ReadAt(image, stored, length, extent.DataStart + offset);
        if (unsealing) {
            Cipher(stored, plain, length, false);
        }
        Hash(plain, length);
        if (disk >= 0) {
            WriteAt(disk, plain, length, offset);
        }
    }
    if (disk >= 0) {
        Sync(disk);
    }
}

void Clone(const char* fromPath, const char* toPath, bool comparing) {
    const int from = Open(fromPath, O_RDONLY | O_DIRECT);
    const int to = Open(toPath, O_RDWR | O_DIRECT | O_EXCL);
    const uint64_t size = SizeOfDisk(from);
    uint8_t* const first = Allocate(chunkSize);
    uint8_t* const second = Allocate(chunkSize);
    for (uint64_t offset = 0; offset < size; offset += chunkSize) {
        const size_t length = PieceAt(size, offset);
        ReadAt(from, first, length, offset);
        WriteAt(to, first, length, offset);
    }
    Sync(to);
    for (uint64_t offset = 0; comparing && offset < size; offset += chunkSize) {
        const size_t length = PieceAt(size, offset);
        ReadAt(from, first, length, offset);
        ReadAt(to, second, length, offset);
        if (std::memcmp(first, second, length) != 0) {
            Die("difference");
        }
    }
}

// What each of the three threads does with the chunk at `offset`, of which block `slot` of the ring is.
using Stage = std::function<void(size_t slot, uint64_t offset, size_t length)>;

constexpr size_t ringSize = 4;

void RunOverlapped(uint64_t total, const std::array<Stage, 3>& stages) {
    std::mutex mutex;
    std::condition_variable changed;
    std::array<uint64_t, 3> done{};
    const uint64_t count = (total - 1) / chunkSize + 1;
    const auto serve = [&](size_t stage) {
        for (uint64_t i = 0; i < count; i++) {
            {
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait(lock, [&] { return stage == 0 ? i < done[2] + ringSize : i < done[stage - 1]; });
            }
            stages[stage](i % ringSize, i * chunkSize, PieceAt(total, i * chunkSize));
            const std::lock_guard<std::mutex> lock(mutex);
            done[stage]++;
            changed.notify_all();
        }
    };
    std::thread reader(serve, 0);
    std::thread writer(serve, 2);
    serve(1);
    reader.join();
    writer.join();
}

void Overlap(const std::string& job, const char* fromPath, const char* toPath) {
    const bool isCapture = job == "capture" || job == "seal";
    const bool isClone = job == "clone";
    const bool isSealed = job == "seal" || job == "unseal-restore";
    const int from = Open(fromPath, isCapture || isClone ? O_RDONLY | O_DIRECT : O_RDONLY);
    const int to = isCapture ? Open(toPath, O_WRONLY | O_CREAT | O_TRUNC) : Open(toPath, O_RDWR | O_DIRECT | O_EXCL);
    uint64_t readStart = 0;
    uint64_t writeStart = 0;
    uint64_t size = 0;
    if (isCapture || isClone) {
        size = SizeOfDisk(from);
        writeStart = isCapture ? 64 + 72 * ((size - 1) / chunkSize + 1) : 0;
    } else {
        const ImageExtent extent = OpenImage(from);
        readStart = extent.DataStart;
        size = extent.DiskSize;
    }
    std::array<uint8_t*, ringSize> read{};
    std::array<uint8_t*, ringSize> written{};
    for (size_t i = 0; i < ringSize; i++) {
        read[i] = Allocate(chunkSize);
        written[i] = isSealed ? Allocate(chunkSize) : read[i];
    }
    uint64_t sent = 0;
    RunOverlapped(size, {[&](size_t slot, uint64_t offset, size_t length) {
                             ReadAt(from, read[slot], length, readStart + offset);
                         },
                         [&](size_t slot, uint64_t, size_t length) {
                             if (isCapture || job == "restore") {
                                 Hash(read[slot], length);
                             }
                             if (isSealed) {
                                 Cipher(read[slot], written[slot], length, isCapture);
                             }
                         },
                         [&](size_t slot, uint64_t offset, size_t length) {
                             WriteAt(to, written[slot], length, writeStart + offset);
                             const uint64_t end = writeStart + offset + length;
                             if (isCapture && end - sent >= 2 * chunkSize) {
                                 (void)sync_file_range(to, static_cast<off_t>(sent), static_cast<off_t>(end - sent),
                                                       SYNC_FILE_RANGE_WRITE);
                                 sent = end;
                             }
                         }});
    if (isCapture) {
        SyncAndForget(to);
    } else {
        Sync(to);
    }
}

void Fold(const char* planPath, const char* outPath) {
    std::ifstream plan(planPath);
    const int out = Open(outPath, O_RDWR | O_CREAT | O_TRUNC);
    uint8_t* const memory = Allocate(chunkSize);
    std::map<std::string, int> files;
    std::string path;
    uint64_t from = 0;
    size_t length = 0;
    int times = 0;
    uint64_t total = 0;
    while (plan >> path >> from >> length >> times) {
        if (files.count(path) == 0) {
            files[path] = Open(path.c_str(), O_RDONLY);
        }
        ReadAt(files[path], memory, length, from);
        for (int i = 0; i < times; i++) {
            Hash(memory, length);
        }
        WriteAt(out, memory, length, total);
        total += length;
    }
    SyncAndForget(out);
    for (uint64_t offset = 0; offset < total; offset += chunkSize) {
        const size_t piece = PieceAt(total, offset);
        ReadAt(out, memory, piece, offset);
        Hash(memory, piece);
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::string job = argc > 1 ? argv[1] : "";
    if (argc == 4 && (job == "capture" || job == "seal")) {
        Capture(argv[2], argv[3], job == "seal");
    } else if (argc == 3 && (job == "verify" || job == "unseal")) {
        Verify(argv[2], nullptr, job == "unseal");
    } else if (argc == 4 && job == "restore") {
        Verify(argv[2], argv[3], false);
    } else if (argc == 4 && (job == "clone" || job == "clone-verify")) {
        Clone(argv[2], argv[3], job == "clone-verify");
    } else if (argc == 5 && job == "overlapped") {
        Overlap(argv[2], argv[3], argv[4]);
    } else if (argc == 3 && job == "open") {
        (void)OpenImage(Open(argv[2], O_RDONLY));
    } else if (argc == 4 && job == "fold") {
        Fold(argv[2], argv[3]);
    } else {
        std::fputs("floor: see the head of its source for the jobs\n", stderr);
        return 2;
    }
    return 0;
}
