// Many runs of the program from one process, for tests that need tens of thousands of them: every bit of an image,
// every allocation of a command. Each run is a child of its own that goes through the program's ordinary choice of the
// command and ends as the program ends; what it saves is the start of an executable.
//
// Standard input has one run a line: the number of the allocation that fails (0 for none, negative for that one and
// all after it), a tab, and the arguments, separated by tabs. The answer to each is a line with the exit status (or the
// negated signal), how many allocations the run made, and how many bytes it printed on standard output and standard
// error; these bytes follow.
//
// The key derivation is remembered from run to run: a hundred thousand rounds for every bit of an image would take
// hours, and the same password, salt and number of rounds give the same key.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <windows.h>

#include <bcrypt.h>

#include "cli/command_line.h"
#include "crypto/sha256.h"

extern "C" decltype(BCryptDeriveKeyPBKDF2) __real_BCryptDeriveKeyPBKDF2, __wrap_BCryptDeriveKeyPBKDF2;

namespace {

constexpr size_t mostKeys = 1024;
constexpr size_t longestInput = 256;
constexpr size_t keySize = 32;

struct RememberedKey {
    size_t InputLength;
    std::array<unsigned char, longestInput> Input;
    std::array<unsigned char, keySize> Key;
};

// What the runs have in common, although each is a process: one at a time writes to it.
struct Shared {
    size_t Keys;
    std::array<RememberedKey, mostKeys> Remembered;
    long Allocations; // of the run that goes on
};

Shared* shared = nullptr;
bool isRunning = false; // the program's own allocations alone are counted
long failingAllocation = 0;

[[noreturn]] void Give(const char* what) {
    std::perror(what);
    std::_Exit(2);
}

// Null where there is none, or where it is the turn of this allocation to fail.
void* TryToAllocate(size_t size) {
    if (isRunning) {
        const long number = ++shared->Allocations;
        if (number == failingAllocation || (failingAllocation < 0 && number >= -failingAllocation)) {
            return nullptr;
        }
    }
    return std::malloc(size == 0 ? 1 : size);
}

void* Allocate(size_t size) {
    void* const block = TryToAllocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

// The descriptor of a file in memory that stands for a stream of every run.
int MakeStream(const char* name) {
    const int file = memfd_create(name, 0);
    if (file < 0) {
        Give("memfd_create");
    }
    return file;
}

void Empty(int file) {
    if (ftruncate(file, 0) != 0 || lseek(file, 0, SEEK_SET) != 0) {
        Give("ftruncate");
    }
}

std::string Content(int file) {
    std::string content(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    if (pread(file, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
        Give("pread");
    }
    return content;
}

std::vector<std::string> SplitAtTabs(const std::string& line) {
    std::vector<std::string> fields(1);
    for (const char letter : line) {
        if (letter == '\t') {
            fields.emplace_back();
        } else {
            fields.back().push_back(letter);
        }
    }
    return fields;
}

[[noreturn]] void RunProgram(std::vector<std::string> fields, int out, int err) {
    if (dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0) {
        Give("dup2");
    }
    failingAllocation = std::stol(fields[0]);
    fields[0] = "vornix";
    std::vector<char*> arguments;
    arguments.reserve(fields.size() + 1);
    for (std::string& field : fields) {
        arguments.push_back(field.data());
    }
    arguments.push_back(nullptr);
    isRunning = true;
    const int status = vornix::RunCommandLine(static_cast<int>(fields.size()), arguments.data());
    isRunning = false;
    std::exit(status);
}

void AnswerLine(const std::string& line, int out, int err) {
    Empty(out);
    Empty(err);
    shared->Allocations = 0;
    const pid_t child = fork();
    if (child < 0) {
        Give("fork");
    }
    if (child == 0) {
        RunProgram(SplitAtTabs(line), out, err);
    }
    int ended = 0;
    if (waitpid(child, &ended, 0) != child) {
        Give("waitpid");
    }
    const int status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -WTERMSIG(ended);
    const std::string printed = Content(out);
    const std::string complained = Content(err);
    std::cout << status << ' ' << shared->Allocations << ' ' << printed.size() << ' ' << complained.size() << '\n'
              << printed << complained << std::flush;
}

} // namespace

NTSTATUS __wrap_BCryptDeriveKeyPBKDF2(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                                      ULONG saltLength, ULONGLONG iterations, PUCHAR key, ULONG keyLength,
                                      ULONG flags) {
    RememberedKey asked{};
    asked.InputLength = size_t{passwordLength} + saltLength + sizeof(iterations);
    if (asked.InputLength > longestInput || keyLength != keySize) {
        return __real_BCryptDeriveKeyPBKDF2(prf, password, passwordLength, salt, saltLength, iterations, key, keyLength,
                                            flags);
    }
    std::memcpy(asked.Input.data(), password, passwordLength);
    std::memcpy(asked.Input.data() + passwordLength, salt, saltLength);
    std::memcpy(asked.Input.data() + passwordLength + saltLength, &iterations, sizeof(iterations));
    for (size_t i = 0; i < shared->Keys; ++i) {
        const RememberedKey& known = shared->Remembered[i];
        if (known.InputLength == asked.InputLength && known.Input == asked.Input) {
            std::memcpy(key, known.Key.data(), keySize);
            return 0;
        }
    }
    const NTSTATUS status = __real_BCryptDeriveKeyPBKDF2(prf, password, passwordLength, salt, saltLength, iterations,
                                                         key, keyLength, flags);
    if (status == 0 && shared->Keys < mostKeys) {
        std::memcpy(asked.Key.data(), key, keySize);
        shared->Remembered[shared->Keys++] = asked;
    }
    return status;
}

void* operator new(size_t size) {
    return Allocate(size);
}

void* operator new[](size_t size) {
    return Allocate(size);
}

// The library's own would do for these, but for the sanitizers, whose heap is told apart from this one.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return TryToAllocate(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return TryToAllocate(size);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete[](void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}

void operator delete[](void* block, size_t) noexcept {
    std::free(block);
}

int main() {
    const rlimit noCore{};
    if (setrlimit(RLIMIT_CORE, &noCore) != 0) {
        Give("setrlimit");
    }
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        Give("mmap");
    }
    shared = new (memory) Shared{};
    // Once here, so that not every run starts the library of cryptography anew.
    std::array<uint8_t, 32> digest;
    vornix::ComputeSha256("", 0, digest.data());
    const int out = MakeStream("out");
    const int err = MakeStream("err");
    // Apart from the C library's stream, whose end in a child would set the place in a file of commands back for all.
    std::ios::sync_with_stdio(false);
    std::string line;
    while (std::getline(std::cin, line)) {
        AnswerLine(line, out, err);
    }
    return 0;
}
