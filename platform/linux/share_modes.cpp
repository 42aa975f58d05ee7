// Share modes by advisory locks.
//
// Four facts decide whether two handles agree: one reads, writes, denies others reading, denies others writing. Each
// fact has a stretch of lock positions far behind any byte of a file, and a handle states a fact by holding a lock
// there. The locks belong to the open file description (not to the process), so they hold between handles of one run
// as well as between runs, and end with the description, however the process ends.
//
// A lock that states a fact must never collide with another handle's statement of the same fact. Read locks do not
// collide, so handles that may read all take one at the first position. A handle that may only write can only take
// write locks, and takes one at a position of its own.
#include "share_modes.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <thread>

namespace vornix::platform {

namespace {

enum Fact : int {
    Reads,
    Writes,
    DeniesReading,
    DeniesWriting,
    FactCount,
};

constexpr off_t firstPosition = off_t{1} << 62;
constexpr off_t stretchLength = off_t{1} << 32;

enum class LockOutcome {
    Taken,
    Conflict,
    Unavailable,
};

struct flock MakeLock(short type, off_t start, off_t length) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return lock;
}

std::minstd_rand& RandomPositions() {
    static std::minstd_rand generator{std::random_device{}()};
    return generator;
}

LockOutcome StateFact(int fd, bool mayRead, Fact fact) {
    const off_t start = firstPosition + static_cast<off_t>(fact) * stretchLength;
    std::uniform_int_distribution<off_t> ownPositions(1, stretchLength - 1);
    for (int attempt = 0; attempt < 8; attempt++) {
        struct flock lock =
            mayRead ? MakeLock(F_RDLCK, start, 1) : MakeLock(F_WRLCK, start + ownPositions(RandomPositions()), 1);
        if (fcntl(fd, F_OFD_SETLK, &lock) == 0) {
            return LockOutcome::Taken;
        }
        if (errno != EAGAIN && errno != EACCES) {
            return LockOutcome::Unavailable;
        }
    }
    return LockOutcome::Conflict;
}

LockOutcome TestFact(int fd, Fact fact) {
    struct flock lock = MakeLock(F_WRLCK, firstPosition + static_cast<off_t>(fact) * stretchLength, stretchLength);
    if (fcntl(fd, F_OFD_GETLK, &lock) != 0) {
        return LockOutcome::Unavailable;
    }
    return lock.l_type == F_UNLCK ? LockOutcome::Taken : LockOutcome::Conflict;
}

void RetractFacts(int fd) {
    struct flock lock = MakeLock(F_UNLCK, firstPosition, FactCount * stretchLength);
    // Unlocking cannot fail on a file whose locks were just taken, and the close that follows a refusal unlocks anyway.
    (void)fcntl(fd, F_OFD_SETLK, &lock);
}

// States all facts of the handle first and looks at the others' afterwards, so that of two handles that exclude each
// other at least one sees the other.
LockOutcome StateAndTest(int fd, DWORD access, DWORD share) {
    const bool mayRead = (fcntl(fd, F_GETFL) & O_ACCMODE) != O_WRONLY;
    const bool stated[FactCount] = {(access & GENERIC_READ) != 0, (access & GENERIC_WRITE) != 0,
                                    (share & FILE_SHARE_READ) == 0, (share & FILE_SHARE_WRITE) == 0};
    // What must not be stated by another, for each fact stated here.
    const Fact excluded[FactCount] = {DeniesReading, DeniesWriting, Reads, Writes};
    for (int fact = 0; fact < FactCount; fact++) {
        if (stated[fact]) {
            const LockOutcome outcome = StateFact(fd, mayRead, static_cast<Fact>(fact));
            if (outcome != LockOutcome::Taken) {
                return outcome;
            }
        }
    }
    for (int fact = 0; fact < FactCount; fact++) {
        if (stated[fact]) {
            const LockOutcome outcome = TestFact(fd, excluded[fact]);
            if (outcome != LockOutcome::Taken) {
                return outcome;
            }
        }
    }
    return LockOutcome::Taken;
}

} // namespace

bool TakeSharePlace(int fd, DWORD access, DWORD share) {
    // Two opens at the same moment may each see the other's statement and give way; so one tries again after a moment
    // of random length before it believes in the conflict.
    constexpr int attempts = 4;
    for (int attempt = 0; attempt < attempts; attempt++) {
        switch (StateAndTest(fd, access, share)) {
        case LockOutcome::Taken:
            return true;
        case LockOutcome::Unavailable:
            RetractFacts(fd);
            return true;
        case LockOutcome::Conflict:
            RetractFacts(fd);
            break;
        }
        if (attempt + 1 < attempts) {
            std::uniform_int_distribution<int> pauses(100, 1000 << attempt);
            std::this_thread::sleep_for(std::chrono::microseconds(pauses(RandomPositions())));
        }
    }
    return false;
}

bool IsHeldByAnother(int fd) {
    struct flock lock = MakeLock(F_WRLCK, firstPosition, FactCount * stretchLength);
    return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

} // namespace vornix::platform
