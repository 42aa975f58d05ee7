// The plain bytes of chunks: found in the chain, proved, and kept for a while. It is not for opening an image.

#include "image.h"

#include "report.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace vrnx {

namespace {

// Verdicts as they are kept, one byte each.
constexpr uint8_t notChecked = 0;
constexpr uint8_t proved = 1;
constexpr int codeShift = 62;
static_assert(VRNX_CHUNK_READ - codeShift > proved);

// How many places a chunk of a broken table is looked for at.
constexpr int64_t maxPlaces = 128;

int Hash(Context& context, const uint8_t* bytes, size_t length, uint8_t hash[hashSize], vrnx_error& error) {
    if (context.BeginHash() && context.AddToHash(bytes, length) && context.EndHash(hash)) {
        return VRNX_OK;
    }
    return Report(error, VRNX_ERROR_CRYPTO, vrnx_code_text(VRNX_ERROR_CRYPTO));
}

} // namespace

// --- What tables tell -----------------------------------------------------------------------------------------------

Holder Image::FindHolder(uint64_t chunk) const {
    for (const auto& layer : layers_) {
        if (!layer->HasRecord(chunk)) {
            return {VRNX_CHUNK_ENTRY, layer->Level()};
        }
        if (layer->IsStored(chunk)) {
            return {VRNX_OK, layer->Level()};
        }
    }
    return {VRNX_CHUNK_NO_BASE, layers_.back()->Level()};
}

void Image::ComputeZeroHashes() const {
    static constexpr uint8_t zeros[0x10000] = {};
    const uint32_t lengths[] = {Top().GetHeader().chunkSize, Top().LengthOf(Top().GetHeader().chunkCount - 1)};
    uint8_t* hashes[] = {zeroHash_, lastZeroHash_};
    Context context(algorithms_);
    for (int i = 0; i < 2; i++) {
        if (!context.BeginHash()) {
            return;
        }
        for (uint32_t done = 0; done < lengths[i];) {
            const auto step = std::min<uint32_t>(lengths[i] - done, sizeof zeros);
            if (!context.AddToHash(zeros, step)) {
                return;
            }
            done += step;
        }
        if (!context.EndHash(hashes[i])) {
            return;
        }
    }
    zeroHashesKnown_.store(true, std::memory_order_release);
}

bool Image::IsZero(uint64_t chunk) const {
    if (!zeroHashesKnown_.load(std::memory_order_acquire)) {
        // Where the library of cryptography fails, no chunk is known to be zeros: it is read then.
        std::call_once(zeroHashesOnce_, [this] { ComputeZeroHashes(); });
        if (!zeroHashesKnown_.load(std::memory_order_acquire)) {
            return false;
        }
    }
    if (!Top().HasRecord(chunk)) {
        return false;
    }
    const uint8_t* zeros = chunk + 1 == Top().GetHeader().chunkCount ? lastZeroHash_ : zeroHash_;
    for (const auto& layer : layers_) {
        if (!layer->HasRecord(chunk)) {
            return true; // all that is left of the way up says so
        }
        if (memcmp(layer->HashOf(chunk), zeros, hashSize) != 0) {
            return false;
        }
        if (layer->IsStored(chunk)) {
            return true;
        }
    }
    return true;
}

bool Image::IsPinned(uint32_t level) const {
    const Layer& layer = *layers_[level];
    return layer.Knows(VRNX_KNOWN_DIGEST) && memcmp(layers_[level - 1]->BaseDigest(), layer.Digest(), hashSize) == 0;
}

int Image::Verdict(uint64_t chunk, const Holder& holder) const {
    if (holder.code != VRNX_OK) {
        return holder.code;
    }
    const uint8_t kept = verdicts_[chunk].load(std::memory_order_relaxed);
    return kept == notChecked ? VRNX_NOT_CHECKED : kept == proved ? VRNX_OK : kept + codeShift;
}

int Image::ReportChunk(vrnx_error& error, int code, uint64_t chunk, uint32_t level, int systemError) const {
    Begin(error, code, level, systemError);
    error.chunk = chunk;
    error.disk_offset = chunk * Top().GetHeader().chunkSize;
    error.length = Top().LengthOf(chunk);
    Text text(error);
    text.AddPath(layers_[level]->Path()) << ": chunk " << chunk << " (disk offset " << error.disk_offset
                                         << "): " << vrnx_code_text(code);
    text.AddSystemError(systemError);
    return code;
}

int Image::ReportChunk(vrnx_error& error, int code, uint64_t chunk) const {
    return ReportChunk(error, code, chunk, FindHolder(chunk).level);
}

// --- Workers --------------------------------------------------------------------------------------------------------

Image::Borrowed Image::Borrow() {
    {
        const std::lock_guard lock(workersMutex_);
        if (idleWorkers_ != nullptr) {
            std::unique_ptr<Worker> worker = std::move(idleWorkers_);
            idleWorkers_ = std::move(worker->next);
            return {*this, std::move(worker)};
        }
    }
    return {*this, std::make_unique<Worker>(algorithms_)};
}

Image::Borrowed::~Borrowed() {
    const std::lock_guard lock(image_.workersMutex_);
    worker_->next = std::move(image_.idleWorkers_);
    image_.idleWorkers_ = std::move(worker_);
}

uint8_t* Image::BufferOf(Worker& worker) const {
    if (worker.buffer == nullptr) {
        worker.buffer = AllocateBlock(Top().GetHeader().chunkSize);
    }
    return worker.buffer.get();
}

// --- Proving --------------------------------------------------------------------------------------------------------

// Takes a chunk's plain bytes out of the file that holds it, authenticated where it is sealed. Gives their hash, which
// nobody has compared with anything.
int Image::Load(Context& context, const Layer& layer, uint64_t chunk, int64_t shift, uint8_t* bytes, Wanted wanted,
                uint8_t hash[hashSize], vrnx_error& error) const {
    if (layer.IsSealed() && layer.key == nullptr) {
        return ReportChunk(error, VRNX_ERROR_PASSWORD_NEEDED, chunk, layer.Level());
    }
    const uint32_t length = layer.LengthOf(chunk);
    const uint64_t place = layer.PlaceOf(chunk, shift);
    // Piece by piece, so that a piece is hashed while it is still in the processor's cache.
    const uint32_t piece = layer.IsSealed() ? length : 0x40000;
    bool hashed = context.BeginHash();
    for (uint32_t done = 0; done < length;) {
        const uint32_t step = std::min(piece, length - done);
        size_t got = 0;
        // Of bytes that nobody wants each piece takes the place of the one before, which is in the cache already.
        uint8_t* const to = layer.IsSealed() || wanted == Wanted::bytes ? bytes + done : bytes;
        const int systemError = layer.File().Read(place + done, to, step, got);
        if (systemError != 0 || got < step) {
            return ReportChunk(error, VRNX_CHUNK_READ, chunk, layer.Level(), systemError);
        }
        if (!layer.IsSealed()) {
            hashed = hashed && context.AddToHash(to, step);
        }
        done += step;
    }
    if (layer.IsSealed()) {
        const Unsealed unsealed =
            context.Unseal(layer.key->bytes, layer.NonceOf(chunk), layer.TagOf(chunk), bytes, length);
        if (unsealed == Unsealed::bad) {
            return ReportChunk(error, VRNX_CHUNK_AUTHENTICATION, chunk, layer.Level());
        }
        hashed = hashed && unsealed == Unsealed::good && context.AddToHash(bytes, length);
    }
    if (!hashed || !context.EndHash(hash)) {
        return Report(error, VRNX_ERROR_CRYPTO, vrnx_code_text(VRNX_ERROR_CRYPTO));
    }
    return VRNX_OK;
}

// The plain bytes of a chunk, proved against the hash in every table from the image that holds it to the top.
int Image::LoadProved(Context& context, uint64_t chunk, uint8_t* bytes, Wanted wanted, vrnx_error& error) {
    const Holder holder = FindHolder(chunk);
    if (holder.code != VRNX_OK) {
        return ReportChunk(error, holder.code, chunk, holder.level);
    }
    const Layer& layer = *layers_[holder.level];

    auto tryPlace = [&](int64_t shift, vrnx_error& failure) {
        uint8_t hash[hashSize];
        if (int code = Load(context, layer, chunk, shift, bytes, wanted, hash, failure)) {
            return code;
        }
        for (uint32_t level = 0; level <= holder.level; level++) {
            if (memcmp(layers_[level]->HashOf(chunk), hash, hashSize) != 0) {
                return ReportChunk(failure, VRNX_CHUNK_HASH, chunk, holder.level);
            }
        }
        return static_cast<int>(VRNX_OK);
    };

    std::atomic<int64_t>& preferred = shifts_[holder.level];
    const int64_t first = preferred.load(std::memory_order_relaxed);
    const int code = tryPlace(first, error);
    const int64_t wrong = std::clamp(layer.WrongBefore(), -maxPlaces, maxPlaces);
    if (wrong == 0 || !VRNX_IS_BAD_CHUNK(code)) {
        return code;
    }
    // Broken records before this one may have moved it. Wherever the right bytes are found, they are the right bytes.
    const auto failure = std::make_unique<vrnx_error>();
    for (int64_t shift = std::min<int64_t>(wrong, 0); shift <= std::max<int64_t>(wrong, 0); shift++) {
        if (shift == first) {
            continue;
        }
        const int other = tryPlace(shift, *failure);
        if (other == VRNX_OK) {
            preferred.store(shift, std::memory_order_relaxed);
        }
        if (!VRNX_IS_BAD_CHUNK(other)) {
            error = *failure;
            return other;
        }
    }
    return code;
}

int Image::LoadAndKeep(Context& context, uint64_t chunk, uint8_t* bytes, Wanted wanted, vrnx_error& error) {
    const int code = LoadProved(context, chunk, bytes, wanted, error);
    if (code == VRNX_OK) {
        verdicts_[chunk].store(proved, std::memory_order_relaxed);
    } else if (VRNX_IS_BAD_CHUNK(code)) {
        verdicts_[chunk].store(static_cast<uint8_t>(code - codeShift), std::memory_order_relaxed);
    }
    return code;
}

int Image::Check(uint64_t chunk, vrnx_error& error) {
    const int verdict = Verdict(chunk);
    if (verdict == VRNX_OK) {
        return VRNX_OK;
    }
    if (verdict != VRNX_NOT_CHECKED) {
        return ReportChunk(error, verdict, chunk);
    }
    const Borrowed worker = Borrow();
    return LoadAndKeep(worker->context, chunk, BufferOf(*worker), Wanted::verdict, error);
}

// --- Reading --------------------------------------------------------------------------------------------------------

int Image::Read(uint8_t* buffer, uint64_t offset, size_t length, vrnx_error& error) {
    const uint32_t chunkSize = Top().GetHeader().chunkSize;
    while (length > 0) {
        const uint64_t chunk = offset / chunkSize;
        const auto begin = static_cast<uint32_t>(offset % chunkSize);
        const size_t step = std::min<size_t>(length, Top().LengthOf(chunk) - begin);
        int code = VRNX_OK;
        if (IsZero(chunk)) {
            std::fill_n(buffer, step, uint8_t{0});
        } else if (step == Top().LengthOf(chunk) && IsPassedOn(chunk)) {
            code = ReadWhole(buffer, chunk, error);
        } else {
            code = ReadPiece(buffer, chunk, begin, step, error);
        }
        if (code != VRNX_OK) {
            return code;
        }
        buffer += step;
        offset += step;
        length -= step;
    }
    return VRNX_OK;
}

// Whether a chunk that is asked for whole goes straight into the caller's buffer. Who reads a disk from front to back
// takes each chunk once, and is spared a copy of it; one that is asked for again is kept.
bool Image::IsPassedOn(uint64_t chunk) const {
    const int verdict = Verdict(chunk);
    return verdict == VRNX_NOT_CHECKED || (verdict == VRNX_OK && slots_.empty());
}

int Image::ReadWhole(uint8_t* buffer, uint64_t chunk, vrnx_error& error) {
    // Whatever happens, nothing that was not proved stays in the caller's buffer.
    struct Unproved {
        uint8_t* bytes;
        size_t length;
        ~Unproved() { std::fill_n(bytes, length, uint8_t{0}); }
    } unproved{buffer, Top().LengthOf(chunk)};
    const Borrowed worker = Borrow();
    const int code = LoadAndKeep(worker->context, chunk, buffer, Wanted::bytes, error);
    if (code == VRNX_OK) {
        unproved.length = 0;
    }
    return code;
}

// A part of one chunk, out of a slot, which whoever comes first fills while the others wait.
int Image::ReadPiece(uint8_t* buffer, uint64_t chunk, uint32_t begin, size_t length, vrnx_error& error) {
    std::unique_lock lock(slotsMutex_);
    Slot* slot = FindSlot(chunk);
    while (slot != nullptr && slot->loading) {
        slotLoaded_.wait(lock);
        slot = FindSlot(chunk);
    }
    if (slot == nullptr) {
        const int verdict = Verdict(chunk);
        if (VRNX_IS_BAD_CHUNK(verdict)) {
            return ReportChunk(error, verdict, chunk);
        }
        slot = ChooseSlot();
        if (slot == nullptr) {
            lock.unlock();
            const Borrowed worker = Borrow();
            uint8_t* bytes = BufferOf(*worker);
            if (int code = LoadAndKeep(worker->context, chunk, bytes, Wanted::bytes, error)) {
                return code;
            }
            std::copy_n(bytes + begin, length, buffer);
            return VRNX_OK;
        }
        slot->chunk = chunk;
        slot->loading = true;
        lock.unlock();
        const int code = FillSlot(*slot, chunk, error);
        lock.lock();
        slot->loading = false;
        if (code != VRNX_OK) {
            slot->chunk = VRNX_NO_CHUNK;
        }
        slotLoaded_.notify_all();
        if (code != VRNX_OK) {
            return code;
        }
    }
    slot->users++;
    slot->lastUse = ++uses_;
    lock.unlock();
    std::copy_n(slot->bytes.get() + begin, length, buffer);
    lock.lock();
    slot->users--;
    return VRNX_OK;
}

Image::Slot* Image::FindSlot(uint64_t chunk) {
    auto slot = std::find_if(slots_.begin(), slots_.end(), [&](const Slot& s) { return s.chunk == chunk; });
    return slot == slots_.end() ? nullptr : &*slot;
}

// The slot that has not been used for longest, or one that was never used; nullptr where all are at work.
Image::Slot* Image::ChooseSlot() {
    Slot* chosen = nullptr;
    for (Slot& slot : slots_) {
        if (!slot.loading && slot.users == 0 && (chosen == nullptr || slot.lastUse < chosen->lastUse)) {
            chosen = &slot;
        }
    }
    return chosen;
}

// Nothing may be thrown here: others wait for this slot.
int Image::FillSlot(Slot& slot, uint64_t chunk, vrnx_error& error) {
    try {
        if (slot.bytes == nullptr) {
            slot.bytes = AllocateBlock(Top().GetHeader().chunkSize);
        }
        const Borrowed worker = Borrow();
        return LoadAndKeep(worker->context, chunk, slot.bytes.get(), Wanted::bytes, error);
    } catch (const std::bad_alloc&) {
        return Report(error, VRNX_ERROR_MEMORY, vrnx_code_text(VRNX_ERROR_MEMORY));
    }
}

// --- Bytes from elsewhere -------------------------------------------------------------------------------------------

int Image::Prove(uint64_t chunk, const uint8_t* bytes, size_t length, vrnx_error& error) {
    if (!Top().HasRecord(chunk)) {
        return ReportChunk(error, VRNX_CHUNK_ENTRY, chunk, 0);
    }
    if (length != Top().LengthOf(chunk)) {
        return ReportChunk(error, VRNX_CHUNK_HASH, chunk, 0);
    }
    const Borrowed worker = Borrow();
    uint8_t hash[hashSize];
    if (int code = Hash(worker->context, bytes, length, hash, error)) {
        return code;
    }
    if (memcmp(Top().HashOf(chunk), hash, hashSize) != 0) {
        return ReportChunk(error, VRNX_CHUNK_HASH, chunk, 0);
    }
    return VRNX_OK;
}

// What this image has for a chunk, though its own tables say that it is something else.
int Image::LoadUnproved(Worker& worker, uint64_t chunk, vrnx_error& error) {
    uint8_t* bytes = BufferOf(worker);
    if (IsZero(chunk)) {
        std::fill_n(bytes, Top().LengthOf(chunk), uint8_t{0});
        return VRNX_OK;
    }
    const int code = LoadProved(worker.context, chunk, bytes, Wanted::bytes, error);
    if (code != VRNX_CHUNK_HASH) {
        return code;
    }
    const Holder holder = FindHolder(chunk);
    uint8_t hash[hashSize];
    return Load(worker.context, *layers_[holder.level], chunk, shifts_[holder.level].load(std::memory_order_relaxed),
                bytes, Wanted::bytes, hash, error);
}

int Image::Heal(uint64_t chunk, Image& donor, uint8_t* buffer, vrnx_error& error) {
    if (!Top().HasRecord(chunk)) {
        return ReportChunk(error, VRNX_CHUNK_ENTRY, chunk, 0);
    }
    const uint64_t offset = chunk * Top().GetHeader().chunkSize;
    const uint32_t length = Top().LengthOf(chunk);
    const Header& other = donor.Top().GetHeader();
    if (other.diskSize < offset + length) {
        return ReportChunk(error, VRNX_CHUNK_HASH, chunk, 0);
    }
    const Borrowed mine = Borrow();
    uint8_t* whole = BufferOf(*mine);
    {
        const Borrowed theirs = donor.Borrow();
        for (uint32_t done = 0; done < length;) {
            const uint64_t part = (offset + done) / other.chunkSize;
            const auto begin = static_cast<uint32_t>((offset + done) % other.chunkSize);
            const uint32_t step = std::min(length - done, donor.Top().LengthOf(part) - begin);
            if (int code = donor.LoadUnproved(*theirs, part, error)) {
                return code;
            }
            std::copy_n(donor.BufferOf(*theirs) + begin, step, whole + done);
            done += step;
        }
    }
    if (int code = Prove(chunk, whole, length, error)) {
        return code;
    }
    std::copy_n(whole, length, buffer);
    return VRNX_OK;
}

} // namespace vrnx
