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
//   floor uring JOB A B               the same jobs and blocks with one thread, which leaves the transfers to io_uring
//   floor uring-workers JOB A B       the same, where the kernel has each transfer done by one of its own threads from
//                                     the start: else what goes through the page cache is copied while one asks for it
//   floor fold PLAN OUT               a line of PLAN a chunk: file, offset, length, times hashed; written, then read
//                                     from the medium and hashed once more
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/io_uring.h>
#include <openssl/evp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
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

constexpr size_t ringSize = 4;

// What goes on side by side: the two files or disks of a job, and the blocks between them.
struct Passage {
    bool IsCapture = false;
    bool IsSealed = false;
    bool IsHashed = false;
    int From = -1;
    int To = -1;
    uint64_t ReadStart = 0;
    uint64_t WriteStart = 0;
    uint64_t Size = 0;
    std::array<uint8_t*, ringSize> Read{};
    std::array<uint8_t*, ringSize> Written{};
    uint64_t Sent = 0;

    // Where the bytes up to `end` of what is written are enough to be sent to their disk: those that are not yet.
    uint64_t LengthToSend(uint64_t end) const { return IsCapture && end - Sent >= 2 * chunkSize ? end - Sent : 0; }

    void Work(size_t slot, size_t length) const {
        if (IsHashed) {
            Hash(Read[slot], length);
        }
        if (IsSealed) {
            Cipher(Read[slot], Written[slot], length, IsCapture);
        }
    }

    void End() const {
        if (IsCapture) {
            SyncAndForget(To);
        } else {
            Sync(To);
        }
    }
};

Passage OpenPassage(const std::string& job, const char* fromPath, const char* toPath) {
    Passage passage;
    const bool isClone = job == "clone";
    passage.IsCapture = job == "capture" || job == "seal";
    passage.IsSealed = job == "seal" || job == "unseal-restore";
    passage.IsHashed = passage.IsCapture || job == "restore";
    const bool isDiskRead = passage.IsCapture || isClone;
    passage.From = Open(fromPath, isDiskRead ? O_RDONLY | O_DIRECT : O_RDONLY);
    passage.To =
        passage.IsCapture ? Open(toPath, O_WRONLY | O_CREAT | O_TRUNC) : Open(toPath, O_RDWR | O_DIRECT | O_EXCL);
    if (isDiskRead) {
        passage.Size = SizeOfDisk(passage.From);
        passage.WriteStart = passage.IsCapture ? 64 + 72 * ((passage.Size - 1) / chunkSize + 1) : 0;
    } else {
        const ImageExtent extent = OpenImage(passage.From);
        passage.ReadStart = extent.DataStart;
        passage.Size = extent.DiskSize;
    }
    for (size_t i = 0; i < ringSize; i++) {
        passage.Read[i] = Allocate(chunkSize);
        passage.Written[i] = passage.IsSealed ? Allocate(chunkSize) : passage.Read[i];
    }
    return passage;
}

// What each of the three threads does with the chunk at `offset`, of which block `slot` of the ring is.
using Stage = std::function<void(size_t slot, uint64_t offset, size_t length)>;

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
    Passage passage = OpenPassage(job, fromPath, toPath);
    RunOverlapped(passage.Size, {[&](size_t slot, uint64_t offset, size_t length) {
                                     ReadAt(passage.From, passage.Read[slot], length, passage.ReadStart + offset);
                                 },
                                 [&](size_t slot, uint64_t, size_t length) { passage.Work(slot, length); },
                                 [&](size_t slot, uint64_t offset, size_t length) {
                                     WriteAt(passage.To, passage.Written[slot], length, passage.WriteStart + offset);
                                     const uint64_t end = passage.WriteStart + offset + length;
                                     if (const uint64_t unsent = passage.LengthToSend(end); unsent != 0) {
                                         (void)sync_file_range(passage.To, static_cast<off_t>(passage.Sent),
                                                               static_cast<off_t>(unsent), SYNC_FILE_RANGE_WRITE);
                                         passage.Sent = end;
                                     }
                                 }});
    passage.End();
}

// What one thread asks the kernel for, and what it is told.
class Uring {
public:
    explicit Uring(bool withWorkers) : flags_(withWorkers ? IOSQE_ASYNC : 0) {
        io_uring_params given{};
        descriptor_ = static_cast<int>(syscall(SYS_io_uring_setup, 4 * ringSize, &given));
        if (descriptor_ < 0) {
            Die("io_uring");
        }
        const size_t asked = given.sq_off.array + given.sq_entries * sizeof(uint32_t);
        const size_t told = given.cq_off.cqes + given.cq_entries * sizeof(io_uring_cqe);
        auto* const asking = static_cast<uint8_t*>(Map(asked, IORING_OFF_SQ_RING));
        auto* const telling = static_cast<uint8_t*>(Map(told, IORING_OFF_CQ_RING));
        requests_ = static_cast<io_uring_sqe*>(Map(given.sq_entries * sizeof(io_uring_sqe), IORING_OFF_SQES));
        order_ = reinterpret_cast<uint32_t*>(asking + given.sq_off.array);
        askedMask_ = *reinterpret_cast<uint32_t*>(asking + given.sq_off.ring_mask);
        askedTail_ = reinterpret_cast<uint32_t*>(asking + given.sq_off.tail);
        toldMask_ = *reinterpret_cast<uint32_t*>(telling + given.cq_off.ring_mask);
        toldHead_ = reinterpret_cast<uint32_t*>(telling + given.cq_off.head);
        toldTail_ = reinterpret_cast<uint32_t*>(telling + given.cq_off.tail);
        answers_ = reinterpret_cast<io_uring_cqe*>(telling + given.cq_off.cqes);
    }

    // `id` comes back with the answer.
    void Ask(uint8_t kind, int file, const uint8_t* memory, size_t length, uint64_t offset, uint64_t id) {
        const uint32_t tail = *askedTail_;
        io_uring_sqe& request = requests_[tail & askedMask_];
        request = {};
        request.opcode = kind;
        request.flags = flags_;
        request.fd = file;
        request.addr = reinterpret_cast<uintptr_t>(memory);
        request.len = static_cast<uint32_t>(length);
        request.off = offset;
        request.user_data = id;
        if (kind == IORING_OP_SYNC_FILE_RANGE) {
            request.sync_range_flags = SYNC_FILE_RANGE_WRITE;
        }
        order_[tail & askedMask_] = tail & askedMask_;
        std::atomic_ref<uint32_t>(*askedTail_).store(tail + 1, std::memory_order_release);
        if (syscall(SYS_io_uring_enter, descriptor_, 1, 0, 0, nullptr, 0) != 1) {
            Die("io_uring");
        }
    }

    bool IsAnswered() const {
        return *toldHead_ != std::atomic_ref<uint32_t>(*toldTail_).load(std::memory_order_acquire);
    }

    io_uring_cqe WaitForAnswer() {
        while (!IsAnswered()) {
            if (syscall(SYS_io_uring_enter, descriptor_, 0, 1, IORING_ENTER_GETEVENTS, nullptr, 0) < 0) {
                Die("io_uring");
            }
        }
        const io_uring_cqe answer = answers_[*toldHead_ & toldMask_];
        std::atomic_ref<uint32_t>(*toldHead_).store(*toldHead_ + 1, std::memory_order_release);
        if (answer.res < 0) {
            errno = -answer.res;
            Die("transfer");
        }
        return answer;
    }

private:
    void* Map(size_t size, uint64_t what) const {
        void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, descriptor_,
                                  static_cast<off_t>(what));
        if (memory == MAP_FAILED) {
            Die("io_uring");
        }
        return memory;
    }

    uint8_t flags_;
    int descriptor_ = -1;
    io_uring_sqe* requests_ = nullptr;
    uint32_t* order_ = nullptr;
    uint32_t* askedTail_ = nullptr;
    uint32_t askedMask_ = 0;
    io_uring_cqe* answers_ = nullptr;
    uint32_t* toldHead_ = nullptr;
    uint32_t* toldTail_ = nullptr;
    uint32_t toldMask_ = 0;
};

// The same as Overlap. Chunk i goes through block i % ringSize: read, worked on in its turn, written, and then the
// block is that of the next.
class UringPassage {
public:
    UringPassage(Passage& passage, bool withWorkers)
        : passage_(passage), uring_(withWorkers), count_((passage.Size - 1) / chunkSize + 1) {}

    void Run() {
        for (uint64_t i = 0; i < std::min<uint64_t>(ringSize, count_); i++) {
            AskToRead(i);
        }
        for (uint64_t i = 0; i < count_; i++) {
            while (!isRead_[i % ringSize]) {
                TakeAnswer();
            }
            isRead_[i % ringSize] = false;
            passage_.Work(i % ringSize, LengthOf(i));
            uring_.Ask(IORING_OP_WRITE, passage_.To, passage_.Written[i % ringSize], LengthOf(i), PlaceToWrite(i),
                       i * kinds + write);
            underWay_++;
            while (uring_.IsAnswered()) {
                TakeAnswer();
            }
        }
        while (underWay_ != 0) {
            TakeAnswer();
        }
        passage_.End();
    }

private:
    static constexpr uint64_t read = 0;
    static constexpr uint64_t write = 1;
    static constexpr uint64_t send = 2;
    static constexpr uint64_t kinds = 3;

    size_t LengthOf(uint64_t i) const { return PieceAt(passage_.Size, i * chunkSize); }
    uint64_t PlaceToRead(uint64_t i) const { return passage_.ReadStart + i * chunkSize; }
    uint64_t PlaceToWrite(uint64_t i) const { return passage_.WriteStart + i * chunkSize; }

    void AskToRead(uint64_t i) {
        uring_.Ask(IORING_OP_READ, passage_.From, passage_.Read[i % ringSize], LengthOf(i), PlaceToRead(i),
                   i * kinds + read);
        underWay_++;
    }

    void TakeAnswer() {
        const io_uring_cqe answer = uring_.WaitForAnswer();
        const uint64_t i = answer.user_data / kinds;
        const size_t slot = i % ringSize;
        const auto done = static_cast<size_t>(answer.res);
        underWay_--;
        if (answer.user_data % kinds == read) {
            ReadAt(passage_.From, passage_.Read[slot] + done, LengthOf(i) - done, PlaceToRead(i) + done);
            isRead_[slot] = true;
        } else if (answer.user_data % kinds == write) {
            WriteAt(passage_.To, passage_.Written[slot] + done, LengthOf(i) - done, PlaceToWrite(i) + done);
            Send(i);
            if (i + ringSize < count_) {
                AskToRead(i + ringSize);
            }
        }
    }

    // Chunks are not written in their order where the kernel has several at work.
    void Send(uint64_t i) {
        const uint64_t end = PlaceToWrite(i) + LengthOf(i);
        if (end <= passage_.Sent) {
            return;
        }
        if (const uint64_t unsent = passage_.LengthToSend(end); unsent != 0) {
            uring_.Ask(IORING_OP_SYNC_FILE_RANGE, passage_.To, nullptr, unsent, passage_.Sent, i * kinds + send);
            underWay_++;
            passage_.Sent = end;
        }
    }

    Passage& passage_;
    Uring uring_;
    uint64_t count_;
    std::array<bool, ringSize> isRead_{};
    size_t underWay_ = 0;
};

void RunUring(const std::string& job, const char* fromPath, const char* toPath, bool withWorkers) {
    Passage passage = OpenPassage(job, fromPath, toPath);
    UringPassage(passage, withWorkers).Run();
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
    } else if (argc == 5 && (job == "uring" || job == "uring-workers")) {
        RunUring(argv[2], argv[3], argv[4], job == "uring-workers");
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
