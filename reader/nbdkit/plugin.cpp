// nbdkit-vrnx-plugin: serves the disk that a Vornix image stands for over NBD, read-only. All that is known of images
// is libvrnx's; this is what nbdkit asks, and what its server says to the user.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <sys/prctl.h>

#define NBDKIT_API_VERSION 2
#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL
#include <nbdkit-plugin.h>

#include "vrnx.h"

namespace {

// The one image of this server, and what it was asked for.
char* imagePath = nullptr;
char* passwordPath = nullptr;
uint32_t cacheChunks = 0;
vrnx_image* image = nullptr;
vrnx_info info = {};

int LoadFailed() {
    nbdkit_error("vrnx: out of memory");
    return -1;
}

// Says what a call failed with, in one line, and gives nbdkit the error that its client gets.
int Report(const vrnx_error& error) {
    nbdkit_error("%s", error.text);
    nbdkit_set_error(error.code == VRNX_ERROR_MEMORY ? ENOMEM : EIO);
    return -1;
}

int SetPath(const char* key, const char* value, char*& path) {
    if (path != nullptr) {
        nbdkit_error("vrnx: %s is given twice", key);
        return -1;
    }
    // The server changes its folder when it goes into the background.
    path = nbdkit_absolute_path(value);
    return path == nullptr ? -1 : 0;
}

int SetCacheChunks(const char* value) {
    if (nbdkit_parse_uint32_t("cache", value, &cacheChunks) == -1) {
        return -1;
    }
    if (cacheChunks == 0) {
        cacheChunks = VRNX_CACHE_NONE;
    }
    return 0;
}

int Config(const char* key, const char* value) {
    if (strcmp(key, "image") == 0) {
        return SetPath(key, value, imagePath);
    }
    if (strcmp(key, "password-file") == 0) {
        return SetPath(key, value, passwordPath);
    }
    if (strcmp(key, "cache") == 0) {
        return SetCacheChunks(value);
    }
    nbdkit_error("vrnx: unknown parameter %s", key);
    return -1;
}

int ConfigComplete() {
    if (imagePath == nullptr) {
        nbdkit_error("vrnx: which image? Give its path, as in: nbdkit vrnx monday.vrnx");
        return -1;
    }
    return 0;
}

// Before the server goes into the background, so that a refusal is seen by who started it and nobody finds a server
// without a disk.
int GetReady() {
    // Neither a core nor another process of the same user gets to see a key.
    if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
        nbdkit_error("vrnx: prctl(PR_SET_DUMPABLE): %m");
        return -1;
    }
    vrnx_open_options options = {};
    options.cache_chunks = cacheChunks;
    options.password_file = passwordPath;
    const std::unique_ptr<vrnx_error> error(new (std::nothrow) vrnx_error);
    if (error == nullptr) {
        return LoadFailed();
    }
    if (vrnx_open(imagePath, &options, sizeof options, &image, error.get()) != VRNX_OK) {
        return Report(*error);
    }
    vrnx_get_info(image, &info, sizeof info);
    return 0;
}

void Unload() {
    vrnx_close(image);
    free(imagePath);
    free(passwordPath);
}

void* Open(int /*readOnly*/) {
    return NBDKIT_HANDLE_NOT_NEEDED;
}

int64_t GetSize(void* /*handle*/) {
    return static_cast<int64_t>(info.disk_size);
}

// Every connection reads the same bytes, and nobody writes.
int CanMultiConn(void* /*handle*/) {
    return 1;
}

// A part of a chunk costs as much as the chunk, which the library keeps for the next part: whole chunks are best.
int BlockSize(void* /*handle*/, uint32_t* minimum, uint32_t* preferred, uint32_t* maximum) {
    *minimum = 1;
    *maximum = UINT32_MAX;
    // A power of two is asked for, of 512 bytes to 32 MiB.
    uint32_t size = 512;
    while (size < 0x2000000 && info.chunk_size % (2 * size) == 0) {
        size *= 2;
    }
    *preferred = size;
    return 0;
}

int ReadAt(void* /*handle*/, void* buffer, uint32_t count, uint64_t offset, uint32_t /*flags*/) {
    const std::unique_ptr<vrnx_error> error(new (std::nothrow) vrnx_error);
    if (error == nullptr) {
        nbdkit_set_error(ENOMEM);
        return LoadFailed();
    }
    return vrnx_read(image, buffer, offset, count, error.get()) == VRNX_OK ? 0 : Report(*error);
}

int CanExtents(void* /*handle*/) {
    return 1;
}

// Runs of chunks that are zeros are holes, all others data.
int Extents(void* /*handle*/, uint32_t count, uint64_t offset, uint32_t flags, nbdkit_extents* extents) {
    const uint64_t end = offset + count;
    for (uint64_t number = offset / info.chunk_size; number < info.chunk_count; number++) {
        vrnx_chunk chunk = {};
        if (vrnx_get_chunk(image, number, &chunk, sizeof chunk) != VRNX_OK) {
            nbdkit_error("vrnx: chunk %llu cannot be described", static_cast<unsigned long long>(number));
            return -1;
        }
        if (chunk.disk_offset >= end) {
            break;
        }
        const uint32_t type = chunk.zero != 0 ? NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO : 0;
        if (nbdkit_add_extent(extents, chunk.disk_offset, chunk.length, type) == -1) {
            return -1;
        }
        if ((flags & NBDKIT_FLAG_REQ_ONE) != 0 && number > offset / info.chunk_size) {
            break;
        }
    }
    return 0;
}

nbdkit_plugin MakePlugin() {
    nbdkit_plugin made = {};
    made.name = "vrnx";
    made.version = VRNX_PLUGIN_VERSION;
    made.longname = "Vornix image";
    made.description = "Serves the disk of a Vornix image, read-only.";
    made.config_help = "[image=]IMAGE       (required) the image, with its base images beside it\n"
                       "password-file=FILE  the password of a sealed image\n"
                       "cache=CHUNKS        chunks to keep in memory (8)";
    made.magic_config_key = "image";
    made.unload = Unload;
    made.config = Config;
    made.config_complete = ConfigComplete;
    made.get_ready = GetReady;
    made.open = Open;
    made.get_size = GetSize;
    made.can_multi_conn = CanMultiConn;
    made.can_extents = CanExtents;
    made.block_size = BlockSize;
    made.pread = ReadAt;
    made.extents = Extents;
    made.errno_is_preserved = 0;
    return made;
}

nbdkit_plugin plugin = MakePlugin();

} // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
