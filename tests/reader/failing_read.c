/* A library to be loaded before a program: reads of a file at one offset fail, as on a medium that is going bad.
 *
 * FAILING_READ is the offset; every pread that touches it gives EIO.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

typedef ssize_t (*Pread)(int, void*, size_t, off_t);

static ssize_t read_unless_bad(const char* name, int fd, void* buffer, size_t length, off_t offset) {
    const off_t bad = (off_t)strtoll(getenv("FAILING_READ"), NULL, 10);
    if (offset <= bad && bad < offset + (off_t)length) {
        errno = EIO;
        return -1;
    }
    return ((Pread)dlsym(RTLD_NEXT, name))(fd, buffer, length, offset);
}

ssize_t pread(int fd, void* buffer, size_t length, off_t offset) {
    return read_unless_bad("pread", fd, buffer, length, offset);
}

ssize_t pread64(int fd, void* buffer, size_t length, off_t offset) {
    return read_unless_bad("pread64", fd, buffer, length, offset);
}
