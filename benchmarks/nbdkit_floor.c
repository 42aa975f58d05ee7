/*
 * The floor of the nbdkit plugin: what serving a plain image over NBD costs where nothing is decided. Each request is
 * read from the image's file into the server's own buffer and hashed; the hash is compared with nothing. Every fourth
 * chunk is a hole, as on the disk that benchmarks/reader.py makes.
 *
 *     nbdkit nbdkit_floor.so file=IMAGE data=OFFSET chunk=BYTES
 */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#define NBDKIT_API_VERSION 2
#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL
#include <nbdkit-plugin.h>

static int file = -1;
static int64_t data, size;
static uint32_t chunk;

static int floor_config(const char* key, const char* value) {
    if (strcmp(key, "file") == 0) {
        struct stat status;
        file = open(value, O_RDONLY | O_CLOEXEC);
        if (file < 0 || fstat(file, &status) != 0) {
            nbdkit_error("%s: %m", value);
            return -1;
        }
        size = status.st_size;
        return 0;
    }
    if (strcmp(key, "data") == 0) {
        data = nbdkit_parse_size(value);
        return data < 0 ? -1 : 0;
    }
    if (strcmp(key, "chunk") == 0)
        return nbdkit_parse_uint32_t("chunk", value, &chunk);
    nbdkit_error("unknown parameter %s", key);
    return -1;
}

static void* floor_open(int read_only) {
    (void)read_only;
    return NBDKIT_HANDLE_NOT_NEEDED;
}

static int64_t floor_get_size(void* handle) {
    (void)handle;
    return size - data;
}

static int floor_yes(void* handle) {
    (void)handle;
    return 1;
}

static int floor_block_size(void* handle, uint32_t* minimum, uint32_t* preferred, uint32_t* maximum) {
    (void)handle;
    *minimum = 1;
    *preferred = chunk;
    *maximum = UINT32_MAX;
    return 0;
}

static int floor_pread(void* handle, void* buffer, uint32_t count, uint64_t offset, uint32_t flags) {
    (void)handle;
    (void)flags;
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    int done = context != NULL && EVP_DigestInit_ex(context, EVP_sha256(), NULL) == 1;
    for (uint32_t at = 0; done && at < count;) {
        uint32_t step = count - at < 0x40000 ? count - at : 0x40000;
        done = pread(file, (char*)buffer + at, step, (off_t)((uint64_t)data + offset + at)) == (ssize_t)step &&
               EVP_DigestUpdate(context, (char*)buffer + at, step) == 1;
        at += step;
    }
    unsigned char hash[32];
    done = done && EVP_DigestFinal_ex(context, hash, NULL) == 1;
    EVP_MD_CTX_free(context);
    if (!done)
        nbdkit_error("cannot be read");
    return done ? 0 : -1;
}

static int floor_extents(void* handle, uint32_t count, uint64_t offset, uint32_t flags,
                         struct nbdkit_extents* extents) {
    (void)handle;
    (void)flags;
    for (uint64_t at = offset / chunk * chunk; at < offset + count; at += chunk) {
        uint32_t type = at / chunk % 4 == 2 ? NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO : 0;
        if (nbdkit_add_extent(extents, at, chunk, type) == -1)
            return -1;
    }
    return 0;
}

static struct nbdkit_plugin plugin = {
    .name = "floor",
    .config = floor_config,
    .open = floor_open,
    .get_size = floor_get_size,
    .can_multi_conn = floor_yes,
    .can_extents = floor_yes,
    .block_size = floor_block_size,
    .pread = floor_pread,
    .extents = floor_extents,
};

NBDKIT_REGISTER_PLUGIN(plugin)
