// The C boundary: arguments are judged, structures are filled to their caller's size, and nothing is thrown beyond it.
// It is not for anything about images.

#include "exported.h"
#include "image.h"
#include "report.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

namespace {

// An image as its owner has it is a vrnx_image that is defined nowhere, so that nothing of what it is can be relied on.
vrnx::Image& Inside(vrnx_image* image) {
    return *reinterpret_cast<vrnx::Image*>(image);
}
const vrnx::Image& Inside(const vrnx_image* image) {
    return *reinterpret_cast<const vrnx::Image*>(image);
}

// Runs what can fail with the caller's error or, where there is none, one that nobody sees. What is thrown is no
// memory, or another resource of the system that is used up.
template <typename Function>
int Guard(vrnx_error* error, Function function) {
    vrnx_error unseen; // NOLINT(cppcoreguidelines-pro-type-member-init): five kilobytes
    vrnx_error& failure = error == nullptr ? unseen : *error;
    vrnx::Begin(failure, VRNX_OK);
    try {
        const int code = function(failure);
        if (code == VRNX_OK) {
            vrnx::Begin(failure, VRNX_OK);
        }
        return code;
    } catch (const std::exception&) {
        return vrnx::Report(failure, VRNX_ERROR_MEMORY, vrnx_code_text(VRNX_ERROR_MEMORY));
    }
}

// Copies what the caller has room for; what it knows beyond that is zero.
template <typename Structure>
int Fill(const Structure& from, Structure* to, size_t size) {
    memset(to, 0, size);
    memcpy(to, &from, std::min(size, sizeof from));
    return VRNX_OK;
}

int ReportUsage(vrnx_error& error, const char* text) {
    return vrnx::Report(error, VRNX_ERROR_USAGE, text);
}

// Without hashes nothing can be proved, and what is not proved is not given.
bool CanProve(const vrnx_image* image) {
    return image != nullptr && Inside(image).HasHashes();
}

bool HasChunk(const vrnx_image* image, uint64_t number) {
    return image != nullptr && number < Inside(image).Top().GetHeader().chunkCount;
}

} // namespace

const char* vrnx_library_version(void) {
    return VRNX_LIBRARY_VERSION;
}

int vrnx_open(const char* path, const struct vrnx_open_options* options, size_t size, vrnx_image** image,
              struct vrnx_error* error) {
    return Guard(error, [&](vrnx_error& failure) {
        if (image == nullptr) {
            return ReportUsage(failure, "vrnx_open: image is NULL");
        }
        *image = nullptr;
        if (path == nullptr || (options == nullptr) != (size == 0)) {
            return ReportUsage(failure, "vrnx_open: path is NULL, or options and their size do not fit");
        }
        vrnx_open_options all = {};
        if (options != nullptr) {
            if (size < sizeof all) {
                return ReportUsage(failure, "vrnx_open: options are too short");
            }
            const auto* beyond = reinterpret_cast<const uint8_t*>(options);
            if (std::any_of(beyond + sizeof all, beyond + size, [](uint8_t byte) { return byte != 0; })) {
                return ReportUsage(failure, "vrnx_open: options of a later version");
            }
            memcpy(&all, options, sizeof all);
        }
        constexpr uint32_t known =
            VRNX_OPEN_NO_PASSWORD | VRNX_OPEN_LENIENT | VRNX_OPEN_ALONE | VRNX_OPEN_EXAMINE | VRNX_OPEN_NO_HASHES;
        if ((all.flags & ~known) != 0) {
            return ReportUsage(failure, "vrnx_open: unknown flag");
        }
        if (all.password != nullptr && all.password_file != nullptr) {
            return ReportUsage(failure, "vrnx_open: a password and a password file");
        }
        auto opened = std::make_unique<vrnx::Image>();
        if (int code = opened->Open(path, all, failure)) {
            return code;
        }
        *image = reinterpret_cast<vrnx_image*>(opened.release());
        return static_cast<int>(VRNX_OK);
    });
}

void vrnx_close(vrnx_image* image) {
    delete reinterpret_cast<vrnx::Image*>(image);
}

int vrnx_get_info(const vrnx_image* image, struct vrnx_info* info, size_t size) {
    if (image == nullptr || info == nullptr) {
        return VRNX_ERROR_USAGE;
    }
    const vrnx::Header& header = Inside(image).Top().GetHeader();
    vrnx_info all = {};
    all.disk_size = header.diskSize;
    all.chunk_count = header.chunkCount;
    all.sector_size = header.sectorSize;
    all.chunk_size = header.chunkSize;
    all.level_count = static_cast<uint32_t>(Inside(image).Layers().size());
    all.problem_count = static_cast<uint32_t>(Inside(image).GetProblems().size());
    return Fill(all, info, size);
}

int vrnx_get_layer(const vrnx_image* image, uint32_t level, struct vrnx_layer* layer, size_t size) {
    if (image == nullptr || layer == nullptr || level >= Inside(image).Layers().size()) {
        return VRNX_ERROR_USAGE;
    }
    const auto& layers = Inside(image).Layers();
    const vrnx::Layer& from = *layers[level];
    const vrnx::Header& header = from.GetHeader();
    vrnx_layer all = {};
    all.path = from.Path().c_str();
    if (from.Knows(VRNX_KNOWN_BASE_NAME)) {
        all.base_name = from.BaseName().c_str();
        all.base_name_length = static_cast<uint32_t>(from.BaseName().size());
        memcpy(all.base_digest, from.BaseDigest(), sizeof all.base_digest);
    }
    all.base_path = from.basePath.has_value() ? from.basePath->c_str() : nullptr;
    all.file_size = from.File().Size();
    all.disk_size = header.diskSize;
    all.chunk_count = header.chunkCount;
    all.epoch = header.epoch;
    all.known = from.Known();
    all.version = header.version;
    all.sector_size = header.sectorSize;
    all.chunk_size = header.chunkSize;
    all.kdf_iterations = header.kdfIterations;
    memcpy(all.salt, header.salt, sizeof all.salt);
    if (from.Knows(VRNX_KNOWN_DIGEST)) {
        memcpy(all.digest, from.Digest(), sizeof all.digest);
    }
    all.encrypted = header.encrypted;
    all.unfinished = from.IsUnfinished() ? 1 : 0;
    all.base_state = static_cast<uint8_t>(from.baseState);
    all.pinned = level == 0 || Inside(image).IsPinned(level) ? 1 : 0;
    return Fill(all, layer, size);
}

int vrnx_get_problem(const vrnx_image* image, uint32_t number, struct vrnx_error* problem) {
    if (problem == nullptr) {
        return VRNX_ERROR_USAGE;
    }
    if (image == nullptr || number >= Inside(image).GetProblems().size()) {
        return ReportUsage(*problem, "vrnx_get_problem: no such problem");
    }
    const vrnx::Problem& from = Inside(image).GetProblems()[number];
    vrnx::Begin(*problem, from.code, from.level, from.systemError);
    vrnx::Text(*problem) << from.text;
    if (HasChunk(image, from.chunk)) {
        problem->chunk = from.chunk;
        problem->disk_offset = from.chunk * Inside(image).Top().GetHeader().chunkSize;
        problem->length = Inside(image).Top().LengthOf(from.chunk);
    }
    return VRNX_OK;
}

int vrnx_get_chunk(const vrnx_image* image, uint64_t number, struct vrnx_chunk* chunk, size_t size) {
    if (!HasChunk(image, number) || chunk == nullptr) {
        return VRNX_ERROR_USAGE;
    }
    const vrnx::Image& from = Inside(image);
    const vrnx::Layer& top = from.Top();
    const vrnx::Holder holder = from.FindHolder(number);
    // Straight into a structure of this version: tables have millions of chunks.
    vrnx_chunk shorter;
    vrnx_chunk& all = size == sizeof shorter ? *chunk : shorter;
    all = {};
    all.disk_offset = number * top.GetHeader().chunkSize;
    all.length = top.LengthOf(number);
    all.level = VRNX_NO_LEVEL;
    if (holder.code == VRNX_OK) {
        all.level = holder.level;
        all.file_offset = from.Layers()[holder.level]->PlaceOf(number);
    }
    all.verdict = from.Verdict(number, holder);
    if (top.HasRecord(number)) {
        all.reference = top.IsStored(number) ? 0 : 1;
        all.zero = from.IsZero(number) ? 1 : 0;
        if (from.HasHashes()) {
            memcpy(all.hash, top.HashOf(number), sizeof all.hash);
        }
    } else {
        all.bad_entry = 1;
    }
    return &all == chunk ? static_cast<int>(VRNX_OK) : Fill(all, chunk, size);
}

int vrnx_check_chunk(vrnx_image* image, uint64_t number, struct vrnx_error* error) {
    return Guard(error, [&](vrnx_error& failure) {
        if (!HasChunk(image, number)) {
            return ReportUsage(failure, "vrnx_check_chunk: no such chunk");
        }
        if (!CanProve(image)) {
            return ReportUsage(failure, "vrnx_check_chunk: opened without hashes");
        }
        return Inside(image).Check(number, failure);
    });
}

int vrnx_read(vrnx_image* image, void* buffer, uint64_t offset, size_t length, struct vrnx_error* error) {
    return Guard(error, [&](vrnx_error& failure) {
        if (image == nullptr || (buffer == nullptr && length > 0)) {
            return ReportUsage(failure, "vrnx_read: a NULL");
        }
        if (!CanProve(image)) {
            return ReportUsage(failure, "vrnx_read: opened without hashes");
        }
        const uint64_t diskSize = Inside(image).Top().GetHeader().diskSize;
        if (offset > diskSize || length > diskSize - offset) {
            return ReportUsage(failure, "vrnx_read: a range beyond the end of the disk");
        }
        return Inside(image).Read(static_cast<uint8_t*>(buffer), offset, length, failure);
    });
}

int vrnx_prove_chunk(vrnx_image* image, uint64_t number, const void* bytes, size_t length, struct vrnx_error* error) {
    return Guard(error, [&](vrnx_error& failure) {
        if (!HasChunk(image, number) || bytes == nullptr) {
            return ReportUsage(failure, "vrnx_prove_chunk: no such chunk, or a NULL");
        }
        if (!CanProve(image)) {
            return ReportUsage(failure, "vrnx_prove_chunk: opened without hashes");
        }
        return Inside(image).Prove(number, static_cast<const uint8_t*>(bytes), length, failure);
    });
}

int vrnx_heal_chunk(vrnx_image* image, uint64_t number, vrnx_image* donor, void* buffer, struct vrnx_error* error) {
    return Guard(error, [&](vrnx_error& failure) {
        if (!HasChunk(image, number) || donor == nullptr || buffer == nullptr) {
            return ReportUsage(failure, "vrnx_heal_chunk: no such chunk, or a NULL");
        }
        if (!CanProve(image) || !CanProve(donor)) {
            return ReportUsage(failure, "vrnx_heal_chunk: opened without hashes");
        }
        return Inside(image).Heal(number, Inside(donor), static_cast<uint8_t*>(buffer), failure);
    });
}
