/*
 * vrnx.h: the C API of libvrnx, which reads Vornix images without restoring them.
 *
 * It is not for writing images, and not for restoring one to a disk: that is the program's work. Nothing here writes to
 * a file or a disk, prints, calls back, or keeps state outside of the handles. docs/image-format.md tells what the
 * words mean: chunk, chunk table, thin, base, chain, image digest, sealed.
 *
 * Units: offsets, lengths and sizes are bytes; chunks are counted from 0. A *level* is a place in a chain: level 0 is
 * the image that was opened, level 1 its base, and so on down to the full image.
 *
 * Errors: a function that can fail returns VRNX_OK (0) or one of enum vrnx_code, and describes the failure in the
 * caller's struct vrnx_error, which may be NULL for who does not care. The process is never ended: running out of
 * memory is VRNX_ERROR_MEMORY. After a failure an image stays usable, and out parameters are untouched unless said
 * otherwise.
 *
 * Ownership: an image belongs to whoever opened it, until vrnx_close. Every pointer that a function hands out points
 * into the image and is good until then. What the caller passes in is read during the call and not kept.
 *
 * Threads: an image may be used by any number of threads at once, with every function but vrnx_close, which must be the
 * last call on it. Different images share nothing.
 *
 * Growth: a structure that crosses the API does so with its size, sizeof(struct ...) as its caller was compiled. Later
 * versions append fields; a caller that knows fewer gets those it knows.
 *
 * Paths: on POSIX systems the bytes that open() takes; on Windows UTF-8.
 */
#ifndef VRNX_H
#define VRNX_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An opened image with its chain. */
typedef struct vrnx_image vrnx_image;

/* --- Errors --------------------------------------------------------------------------------------------------------
 */

/* Where there is no chunk, no level. */
#define VRNX_NO_CHUNK UINT64_MAX
#define VRNX_NO_LEVEL UINT32_MAX

enum vrnx_code {
    VRNX_OK = 0,

    /* What could not be done; it says nothing about the image. */
    VRNX_ERROR_USAGE = 1,           /* a NULL, an unknown flag, a range beyond the disk */
    VRNX_ERROR_MEMORY = 2,          /* no memory */
    VRNX_ERROR_OPEN = 3,            /* a file cannot be opened, or is no regular file */
    VRNX_ERROR_FILE_READ = 4,       /* header, table or trailer could not be read: the medium failed */
    VRNX_ERROR_CRYPTO = 5,          /* the library of cryptography failed */
    VRNX_ERROR_PASSWORD_NEEDED = 6, /* sealed, and no password was given */
    VRNX_ERROR_PASSWORD = 7,        /* the password, or its file, is empty or too large, or the file cannot be read */

    /* A refused image, in the order of the checks; a failure of a base is reported as its own. */
    VRNX_REFUSED_CHAIN_LENGTH = 32,      /* more than 65 images, or a loop */
    VRNX_REFUSED_NO_HEADER = 33,         /* shorter than a header */
    VRNX_REFUSED_NOT_AN_IMAGE = 34,      /* magic or version */
    VRNX_REFUSED_GEOMETRY = 35,          /* disk, sector or chunk size */
    VRNX_REFUSED_SEAL_PARAMETERS = 36,   /* Encrypted or KdfIterations */
    VRNX_REFUSED_CHUNK_COUNT = 37,       /* impossible chunk count */
    VRNX_REFUSED_TABLE_TRUNCATED = 38,   /* the file ends before its table does */
    VRNX_REFUSED_TABLE_ENTRY = 39,       /* a record with a wrong offset or length */
    VRNX_REFUSED_DATA_TRUNCATED = 40,    /* the file ends before its chunk data do */
    VRNX_REFUSED_NO_TRAILER = 41,        /* thin, and no trailer at its end */
    VRNX_REFUSED_TRAILER_MALFORMED = 42, /* the trailer contradicts itself */
    VRNX_REFUSED_BASE_NAME = 43,         /* a base's name that leads out of the folder, or is none */
    VRNX_REFUSED_BASE_MISSING = 44,      /* no file of the base's name in the folder */
    VRNX_REFUSED_BASE_REPLACED = 45,     /* the base has another digest than the one pinned */
    VRNX_REFUSED_BASE_GEOMETRY = 46,     /* the base is one of a disk of another shape */

    /* A bad chunk. Only these are kept as a chunk's verdict. */
    VRNX_CHUNK_READ = 64,           /* its bytes could not be read, or the file ends before them */
    VRNX_CHUNK_AUTHENTICATION = 65, /* its tag does not fit: damage, or a wrong password */
    VRNX_CHUNK_HASH = 66,           /* its bytes have not the hash that a table on their way up demands */
    VRNX_CHUNK_ENTRY = 67,          /* lenient: its record in a table is broken or missing */
    VRNX_CHUNK_NO_BASE = 68         /* lenient or alone: it lies in a base that was not opened */
};

/* Whether a code says that an image is refused, or that a chunk is bad. */
#define VRNX_IS_REFUSAL(code) ((code) >= 32 && (code) < 64)
#define VRNX_IS_BAD_CHUNK(code) ((code) >= 64 && (code) < 96)

/* The description of a failure. It is the caller's, needs no initialisation, and holds nothing that must be freed. */
struct vrnx_error {
    int32_t code;         /* enum vrnx_code; VRNX_OK after a success */
    int32_t system_error; /* errno or GetLastError() where the system said something, else 0 */
    uint64_t chunk;       /* the chunk concerned, or VRNX_NO_CHUNK */
    uint64_t disk_offset; /* where that chunk lies on the disk; 0 without a chunk */
    uint32_t length;      /* plain length of that chunk; 0 without a chunk */
    uint32_t level;       /* the level of the file concerned, or VRNX_NO_LEVEL */
    char text[5120];      /* one line without line end that names file, chunk and disk offset; always terminated */
};

/* The code in a few words, for who has no text at hand: a constant, also for numbers that are no code. */
const char* vrnx_code_text(int code);

/* The version of the library, as "1.0.0": a constant. */
const char* vrnx_library_version(void);

/* --- Opening -------------------------------------------------------------------------------------------------------
 */

/* How to open; 0 is strict: whatever `vornix verify` refuses when it opens the image is refused, for the same reason.
 */
enum vrnx_open_flag {
    /* Open sealed images without a password. Whatever lies in tables is there; sealed chunks that are not zeros by
     * their hash fail with VRNX_ERROR_PASSWORD_NEEDED. A password that is given is not looked at. */
    VRNX_OPEN_NO_PASSWORD = 1,

    /* Salvage: a broken table, a truncated end, an unusable trailer and a missing, replaced or refused base become
     * problems of the image (vrnx_get_problem) and take away the chunks concerned and nothing else. What is read is
     * proved all the same. A file without a good header is refused as ever. */
    VRNX_OPEN_LENIENT = 2,

    /* Do not look for a base: for what concerns this one file, and for comparing tables. Chunks that lie in the base
     * fail with VRNX_CHUNK_NO_BASE. */
    VRNX_OPEN_ALONE = 4,

    /* To describe what cannot be used: as lenient, and a bad or missing header is a problem as well. Fails only where
     * the file cannot be opened or read. What is known then is in vrnx_layer.known; without VRNX_KNOWN_GEOMETRY there
     * are no chunks, and no bytes to read. */
    VRNX_OPEN_EXAMINE = 8,

    /* Forget the hashes of the tables but for what is zeros: to count and to describe, without the memory that they
     * take. vrnx_chunk.hash is zero then, and reading, checking, proving and healing are wrong use. */
    VRNX_OPEN_NO_HASHES = 16
};

/* vrnx_open_options.cache_chunks for no cache at all. */
#define VRNX_CACHE_NONE UINT32_MAX

/* How to open. All zero is strict, without a password, with the default cache. */
struct vrnx_open_options {
    uint32_t flags;            /* of enum vrnx_open_flag */
    uint32_t cache_chunks;     /* plain chunks to keep in memory for vrnx_read; 0 is the default of 8 */
    const void* password;      /* the password's bytes as they are, nothing trimmed; NULL for none */
    size_t password_length;    /* 1 to 1,048,576 where there is a password */
    const char* password_file; /* instead: a password file, read only if an image of the chain is sealed, in which line
                                  ends (CR and LF) at the very end are no part of the password; NULL for none */
};

/* Opens the image at `path` with its chain; each base is looked for in the folder part of the path as given.
 *
 * Keys are derived here, once for each salt of the chain, which takes a while for each (about a tenth of a second for
 * an image of the program). A wrong password is not noticed here: it shows as VRNX_CHUNK_AUTHENTICATION of every sealed
 * chunk. `options` may be NULL, `size` being 0 then. On success *image is the new image; on failure it is NULL. */
int vrnx_open(const char* path, const struct vrnx_open_options* options, size_t size, vrnx_image** image,
              struct vrnx_error* error);

/* Closes an image: files are closed, memory is freed, keys are wiped. NULL is let pass. */
void vrnx_close(vrnx_image* image);

/* --- What an image is ----------------------------------------------------------------------------------------------
 */

/* The disk that an image stands for. Without VRNX_KNOWN_GEOMETRY of level 0 all sizes are 0. */
struct vrnx_info {
    uint64_t disk_size;
    uint64_t chunk_count;
    uint32_t sector_size;
    uint32_t chunk_size;
    uint32_t level_count;   /* images that were opened, the image itself included: levels 0 to level_count - 1 */
    uint32_t problem_count; /* 0 in an image that was opened strictly */
};

/* Fills `info`, of which `size` bytes are the caller's. Fails with VRNX_ERROR_USAGE only. */
int vrnx_get_info(const vrnx_image* image, struct vrnx_info* info, size_t size);

/* What is known of an image; always all of it where nothing was refused. */
enum vrnx_known {
    VRNX_KNOWN_VERSION = 1, /* version: magic and version are good */
    VRNX_KNOWN_GEOMETRY =
        2,                /* disk_size, sector_size, chunk_size, chunk_count: each of them and their relation is good */
    VRNX_KNOWN_SEAL = 4,  /* encrypted, kdf_iterations, salt */
    VRNX_KNOWN_EPOCH = 8, /* epoch: with the version */
    VRNX_KNOWN_DIGEST = 16,   /* digest: the whole table is there */
    VRNX_KNOWN_TABLE = 32,    /* no record of the table breaks a rule */
    VRNX_KNOWN_BASE_NAME = 64 /* base_name and base_digest: thin, and the trailer is good */
};

/* The base of an image, as the image over it sees it. */
enum vrnx_base_state {
    VRNX_BASE_NONE = 0,     /* a full image has no base */
    VRNX_BASE_GOOD = 1,     /* it is there, is the one pinned, and so is all below it */
    VRNX_BASE_MISSING = 2,  /* no file of that name */
    VRNX_BASE_REPLACED = 3, /* an image with another digest or of another shape */
    VRNX_BASE_REFUSED = 4,  /* it is there and cannot be opened, or is refused; also a name that is refused */
    VRNX_BASE_INCOMPLETE =
        5,                /* it is the one pinned, and what it is based on is missing, replaced, refused, incomplete */
    VRNX_BASE_UNKNOWN = 6 /* not looked for (VRNX_OPEN_ALONE), or nothing tells which it is */
};

/* One image of the chain. Fields whose bit is not in `known` are zero. */
struct vrnx_layer {
    const char* path;      /* as given, or folder part and base name */
    const char* base_name; /* as it stands in the trailer, base_name_length bytes and a zero; NULL without one */
    const char*
        base_path; /* where the base was looked for, or would be; NULL where there is no name, or it is refused */
    uint64_t file_size;
    uint64_t disk_size;
    uint64_t chunk_count;
    uint64_t epoch; /* 56 bits; 0 is none */
    uint32_t base_name_length;
    uint32_t known; /* of enum vrnx_known */
    uint32_t version;
    uint32_t sector_size;
    uint32_t chunk_size;
    uint32_t kdf_iterations;
    uint8_t salt[16];
    uint8_t digest[32];
    uint8_t base_digest[32]; /* the one pinned */
    uint8_t encrypted;
    uint8_t unfinished;  /* the file begins with 64 zero bytes: a capture that is not, or never was, finished */
    uint8_t base_state;  /* enum vrnx_base_state */
    uint8_t pinned;      /* level 0, or this is the very image that the one above pins, by digest and shape */
    uint8_t reserved[4]; /* 0 */
};

/* Fills `layer`, of which `size` bytes are the caller's, for one level. Fails with VRNX_ERROR_USAGE only. */
int vrnx_get_layer(const vrnx_image* image, uint32_t level, struct vrnx_layer* layer, size_t size);

/* What is wrong with an image that was opened leniently: its code, text, level, and of a bad record the first chunk
 * concerned. `number` counts from 0, from the top of the chain downwards. Fails with VRNX_ERROR_USAGE only, and then
 * `problem` describes that. */
int vrnx_get_problem(const vrnx_image* image, uint32_t number, struct vrnx_error* problem);

/* --- Chunks --------------------------------------------------------------------------------------------------------
 */

/* One chunk of the disk. */
struct vrnx_chunk {
    uint64_t disk_offset;
    uint64_t file_offset; /* where its stored bytes lie in the file of `level`; 0 without a level */
    uint32_t length;      /* plain length, and that of the stored bytes */
    uint32_t level;       /* which image of the chain holds it; VRNX_NO_LEVEL where that cannot be told */
    int32_t verdict;      /* what a check or a read found: VRNX_OK good, a code of a bad chunk, or VRNX_NOT_CHECKED */
    uint8_t reference;    /* the record of level 0 is a thin reference */
    uint8_t bad_entry;    /* lenient: the record of level 0 is broken or missing, and `hash` means nothing */
    uint8_t zero;         /* all its bytes are zero, by the hash in every table on its way up */
    uint8_t reserved;     /* 0 */
    uint8_t hash[32];     /* SHA-256 of the plain bytes, by the record of level 0; zero with VRNX_OPEN_NO_HASHES */
};

#define VRNX_NOT_CHECKED (-1)

/* Fills `chunk`, of which `size` bytes are the caller's. Reads no file and needs no password. Fails with
 * VRNX_ERROR_USAGE only. */
int vrnx_get_chunk(const vrnx_image* image, uint64_t number, struct vrnx_chunk* chunk, size_t size);

/* Reads the stored bytes of a chunk, zeros too, and proves them: VRNX_OK, or a code of a bad chunk with error->level
 * being the level whose file holds the bytes. Of a chunk that was read before, here or by vrnx_read, the verdict is
 * known and given again without reading. Needs memory for one chunk, which is kept for the next call: as many as
 * threads call at once. Fails besides with VRNX_ERROR_USAGE, _MEMORY, _CRYPTO, _PASSWORD_NEEDED, which are no verdicts.
 */
int vrnx_check_chunk(vrnx_image* image, uint64_t number, struct vrnx_error* error);

/* Reads `length` bytes of the disk at `offset` into `buffer`; any alignment, across chunks, and 0 bytes of a range
 * within the disk. Every byte was proved against the hash in every table on its way up, and against its tag where it is
 * sealed; a chunk that is zeros by its hash is not read. The range ends at most at the end of the disk, else
 * VRNX_ERROR_USAGE. A whole chunk that was not asked for before is read straight into the buffer and not kept; one of
 * which a part is asked for, or which is asked for again, is. Fails as vrnx_check_chunk, for the first bad chunk of the
 * range; the buffer's content is then proved bytes, zeros, or what it was before. */
int vrnx_read(vrnx_image* image, void* buffer, uint64_t offset, size_t length, struct vrnx_error* error);

/* --- Bytes from elsewhere ------------------------------------------------------------------------------------------
 */

/* Whether `length` bytes are the plain bytes of a chunk: VRNX_OK where they are as long as it is and have the hash that
 * the record of level 0 demands, VRNX_CHUNK_HASH where not, VRNX_CHUNK_ENTRY where the record is broken. The chunk's
 * verdict stays. */
int vrnx_prove_chunk(vrnx_image* image, uint64_t number, const void* bytes, size_t length, struct vrnx_error* error);

/* Reads a chunk of `image` out of another image, `donor`: the bytes that `donor` has for that range of its disk,
 * whatever its chunk size, proved as vrnx_prove_chunk does, and, as nothing else counts, not against donor's own
 * hashes. `buffer` takes the plain length of the chunk and is written only on VRNX_OK. Otherwise the error tells why
 * donor has them not: its own failure, or VRNX_CHUNK_HASH where its bytes are others or its disk is shorter. */
int vrnx_heal_chunk(vrnx_image* image, uint64_t number, vrnx_image* donor, void* buffer, struct vrnx_error* error);

#ifdef __cplusplus
}
#endif

#endif
