// An opened image: its chain, and the plain bytes of its chunks, proved. It is not for the C API's own manners.
#pragma once

#include "exported.h"
#include "layer.h"
#include "port.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace vrnx {

// What a chunk is read into and computed with, by one thread at a time.
struct Worker {
    explicit Worker(const Algorithms& algorithms) : context(algorithms) {}
    Context context;
    Block buffer;                 // of a chunk's size, once one was read
    std::unique_ptr<Worker> next; // while nobody uses it
};

// Which image of the chain holds a chunk.
struct Holder {
    int code = VRNX_OK;             // or why that cannot be told: a code of a bad chunk
    uint32_t level = VRNX_NO_LEVEL; // the level; without one the level that is at fault
};

class Image {
public:
    // Opens the chain; what fails gives its code and fills `error`.
    int Open(const char* path, const vrnx_open_options& options, vrnx_error& error);

    const std::vector<std::unique_ptr<Layer>>& Layers() const { return layers_; }
    const Problems& GetProblems() const { return problems_; }
    // Whether the tables' hashes were kept; without them nothing can be read.
    bool HasHashes() const { return hasHashes_; }

    const Layer& Top() const { return *layers_.front(); }

    Holder FindHolder(uint64_t chunk) const;
    // Whether all tables from the top down to the chunk's holder, or as far as they are there, say that it is zeros.
    bool IsZero(uint64_t chunk) const;
    // Whether a level below the top is the very image that the one above it pins.
    bool IsPinned(uint32_t level) const;
    // VRNX_OK, a code of a bad chunk, or VRNX_NOT_CHECKED.
    int Verdict(uint64_t chunk) const { return Verdict(chunk, FindHolder(chunk)); }
    int Verdict(uint64_t chunk, const Holder& holder) const;

    int Check(uint64_t chunk, vrnx_error& error);
    int Read(uint8_t* buffer, uint64_t offset, size_t length, vrnx_error& error);
    int Prove(uint64_t chunk, const uint8_t* bytes, size_t length, vrnx_error& error);
    int Heal(uint64_t chunk, Image& donor, uint8_t* buffer, vrnx_error& error);

private:
    // Gives a worker back when it goes.
    class Borrowed {
    public:
        Borrowed(Image& image, std::unique_ptr<Worker> worker) : image_(image), worker_(std::move(worker)) {}
        Borrowed(const Borrowed&) = delete;
        Borrowed& operator=(const Borrowed&) = delete;
        ~Borrowed();
        Worker* operator->() const { return worker_.get(); }
        Worker& operator*() const { return *worker_; }

    private:
        Image& image_;
        std::unique_ptr<Worker> worker_;
    };

    // One plain chunk in memory, or the room for one.
    struct Slot {
        uint64_t chunk = VRNX_NO_CHUNK;
        bool loading = false;
        uint32_t users = 0;
        uint64_t lastUse = 0;
        Block bytes;
    };

    class Opening;

    Borrowed Borrow();
    uint8_t* BufferOf(Worker& worker) const;
    void ComputeZeroHashes() const;
    int ReportChunk(vrnx_error& error, int code, uint64_t chunk, uint32_t level, int systemError = 0) const;
    int ReportChunk(vrnx_error& error, int code, uint64_t chunk) const;

    // Who wants the verdict alone gives the memory all the same, whose content is then undefined.
    enum class Wanted {
        bytes,
        verdict
    };
    int Load(Context& context, const Layer& layer, uint64_t chunk, int64_t shift, uint8_t* bytes, Wanted wanted,
             uint8_t hash[hashSize], vrnx_error& error) const;
    int LoadProved(Context& context, uint64_t chunk, uint8_t* bytes, Wanted wanted, vrnx_error& error);
    int LoadAndKeep(Context& context, uint64_t chunk, uint8_t* bytes, Wanted wanted, vrnx_error& error);
    int LoadUnproved(Worker& worker, uint64_t chunk, vrnx_error& error);
    bool IsPassedOn(uint64_t chunk) const;
    int ReadWhole(uint8_t* buffer, uint64_t chunk, vrnx_error& error);
    int ReadPiece(uint8_t* buffer, uint64_t chunk, uint32_t begin, size_t length, vrnx_error& error);
    Slot* FindSlot(uint64_t chunk);
    Slot* ChooseSlot();
    int FillSlot(Slot& slot, uint64_t chunk, vrnx_error& error);

    Algorithms algorithms_;
    bool hasHashes_ = true;
    std::vector<std::unique_ptr<Layer>> layers_;
    Problems problems_;

    mutable std::once_flag zeroHashesOnce_;
    mutable std::atomic<bool> zeroHashesKnown_ = false;
    mutable uint8_t zeroHash_[hashSize] = {};     // of a chunk of full size
    mutable uint8_t lastZeroHash_[hashSize] = {}; // of the last chunk

    // One a chunk: 0 not checked, 1 good, else a code of a bad chunk.
    std::unique_ptr<std::atomic<uint8_t>[]> verdicts_;
    // Of each level the shift (see Layer::PlaceOf) that led to the right bytes last.
    std::unique_ptr<std::atomic<int64_t>[]> shifts_;

    std::mutex workersMutex_;
    std::unique_ptr<Worker> idleWorkers_;

    std::mutex slotsMutex_;
    std::condition_variable slotLoaded_;
    std::vector<Slot> slots_;
    uint64_t uses_ = 0;
};

} // namespace vrnx
