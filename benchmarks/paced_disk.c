// A disk of limited speed, as a plugin of nbdkit: for benchmarks alone. It transfers one request after the other at the
// given speed, and answers each of them a while after its transfer ended. Time in which nobody asks it for anything is
// lost to it, as it is to a disk; a filter that hands out credit by the second would let readers and writers that take
// turns be as fast as those that work side by side.
//
//   nbdkit ./paced_disk.so file=PATH speed=BYTES-A-SECOND latency=MICROSECONDS
#define NBDKIT_API_VERSION 2
#define _GNU_SOURCE
#include <nbdkit-plugin.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL

static char* path;
static int file = -1;
static int64_t speed = 200 << 20;
static int64_t latency = 5000;

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static int64_t busyUntil; // nanoseconds

static int Configure(const char* key, const char* value) {
    if (strcmp(key, "file") == 0) {
        path = nbdkit_absolute_path(value);
        return path == NULL ? -1 : 0;
    }
    if (strcmp(key, "speed") == 0) {
        return nbdkit_parse_int64_t("speed", value, &speed);
    }
    if (strcmp(key, "latency") == 0) {
        return nbdkit_parse_int64_t("latency", value, &latency);
    }
    nbdkit_error("unknown parameter %s", key);
    return -1;
}

static int GetReady(void) {
    file = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        nbdkit_error("%s: %m", path == NULL ? "no file" : path);
    }
    return file < 0 ? -1 : 0;
}

static void* Open(int readonly) {
    (void)readonly;
    return NBDKIT_HANDLE_NOT_NEEDED;
}

static int64_t GetSize(void* handle) {
    (void)handle;
    struct stat status;
    return fstat(file, &status) == 0 ? status.st_size : -1;
}

static int Wait(uint32_t count) {
    const int64_t second = 1000000000;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t asked = now.tv_sec * second + now.tv_nsec;
    pthread_mutex_lock(&mutex);
    busyUntil = (busyUntil < asked ? asked : busyUntil) + count * second / speed;
    const int64_t answer = busyUntil + latency * 1000;
    pthread_mutex_unlock(&mutex);
    const struct timespec until = {answer / second, answer % second};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, NULL) == EINTR) {
    }
    return 0;
}

static int Read(void* handle, void* buffer, uint32_t count, uint64_t offset, uint32_t flags) {
    (void)handle;
    (void)flags;
    char* at = buffer;
    for (uint32_t left = count; left > 0;) {
        const ssize_t moved = pread(file, at, left, (off_t)offset);
        if (moved <= 0) {
            nbdkit_error("read: %m");
            return -1;
        }
        at += moved;
        offset += (uint64_t)moved;
        left -= (uint32_t)moved;
    }
    return Wait(count);
}

static int Write(void* handle, const void* buffer, uint32_t count, uint64_t offset, uint32_t flags) {
    (void)handle;
    (void)flags;
    const char* at = buffer;
    for (uint32_t left = count; left > 0;) {
        const ssize_t moved = pwrite(file, at, left, (off_t)offset);
        if (moved <= 0) {
            nbdkit_error("write: %m");
            return -1;
        }
        at += moved;
        offset += (uint64_t)moved;
        left -= (uint32_t)moved;
    }
    return Wait(count);
}

static int Flush(void* handle, uint32_t flags) {
    (void)handle;
    (void)flags;
    return 0;
}

static struct nbdkit_plugin plugin = {
    .name = "paced-disk",
    .config = Configure,
    .get_ready = GetReady,
    .open = Open,
    .get_size = GetSize,
    .pread = Read,
    .pwrite = Write,
    .flush = Flush,
};

NBDKIT_REGISTER_PLUGIN(plugin)
