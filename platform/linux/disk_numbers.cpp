// The numbers of the host's disks, and the registry that keeps them until the next boot.
#include "disk_numbers.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sstream>
#include <utility>

#include "owned_descriptor.h"

namespace vornix::platform {

namespace {

constexpr const char* folderName = "vornix";
constexpr const char* fileName = "disks";
constexpr const char* newFileName = "disks.new";
constexpr const char* lockName = "lock";
constexpr const char* firstLine = "vornix disk numbers 1";
// More than the registry of endOfNumbers disks needs.
constexpr size_t longestRegistry = 1 << 20;

struct Binding {
    int Number = -1;
    unsigned Gone = 0; // 0: its disk is there; else its place in the order in which disks were found gone
    std::string Identity;
    bool operator==(const Binding&) const = default;
};

struct Registry {
    std::vector<Binding> Bindings;
    std::string Damage;
};

std::string ReadBootId(const HostRoots& roots) {
    return ReadFirstLine(roots.Proc + "/sys/kernel/random/boot_id");
}

std::string ErrorText() {
    return std::strerror(errno);
}

// --- The text of the registry ---------------------------------------------------------------------------------------

std::string FormatRegistry(const std::string& bootId, const std::vector<Binding>& bindings) {
    std::ostringstream text;
    text << firstLine << "\nboot " << bootId << '\n';
    for (const Binding& binding : bindings) {
        text << "disk " << binding.Number << ' ' << binding.Gone << ' ' << binding.Identity << '\n';
    }
    text << "end " << bindings.size() << '\n';
    return text.str();
}

// The line of a disk; nothing where it is not written as FormatRegistry writes it.
std::optional<Binding> ParseBinding(const std::string& line) {
    std::istringstream words(line);
    std::string word;
    Binding binding;
    if (!(words >> word >> binding.Number >> binding.Gone >> binding.Identity) || word != "disk" ||
        binding.Number < 0 || binding.Number >= endOfNumbers) {
        return std::nullopt;
    }
    const std::string written =
        "disk " + std::to_string(binding.Number) + ' ' + std::to_string(binding.Gone) + ' ' + binding.Identity;
    return written == line ? std::optional(binding) : std::nullopt;
}

// The registry of this boot; empty where the text is the whole registry of another boot, which is what a folder that
// outlives a boot holds. Any deviation from what FormatRegistry writes is damage: half of a registry could give a
// disk's number away.
Registry ParseRegistry(const std::string& text, const std::string& bootId) {
    Registry registry;
    std::istringstream lines(text);
    std::string line;
    if (!std::getline(lines, line) || line != firstLine || !std::getline(lines, line) || !line.starts_with("boot ")) {
        return {{}, "its first lines are not those of a registry"};
    }
    const std::string writtenIn = line.substr(sizeof "boot " - 1);
    while (std::getline(lines, line) && !line.starts_with("end ")) {
        std::optional<Binding> binding = ParseBinding(line);
        const auto isSame = [&binding](const Binding& other) {
            return other.Number == binding->Number || other.Identity == binding->Identity;
        };
        if (!binding) {
            return {{}, "a line of it cannot be understood"};
        }
        if (std::any_of(registry.Bindings.begin(), registry.Bindings.end(), isSame)) {
            return {{}, "it has a number or a disk twice"};
        }
        registry.Bindings.push_back(std::move(*binding));
    }
    if (text != FormatRegistry(writtenIn, registry.Bindings)) {
        return {{}, "its end is missing"};
    }
    return writtenIn == bootId ? registry : Registry{};
}

// --- The files ------------------------------------------------------------------------------------------------------

// Whether nobody but the owner can have written what is open here.
bool IsOwnersAlone(const HostRoots& roots, const struct stat& status) {
    return status.st_uid == roots.Owner && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::optional<std::string> ReadWhole(int file) {
    std::string text;
    char block[4096];
    for (;;) {
        const ssize_t count = read(file, block, sizeof block);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 || text.size() > longestRegistry) {
            return std::nullopt;
        }
        if (count == 0) {
            return text;
        }
        text.append(block, static_cast<size_t>(count));
    }
}

Registry ReadRegistry(const HostRoots& roots, int folder, const std::string& bootId) {
    const OwnedDescriptor file(openat(folder, fileName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen()) {
        return errno == ENOENT ? Registry{} : Registry{{}, "it cannot be opened: " + ErrorText()};
    }
    struct stat status {};
    if (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) || !IsOwnersAlone(roots, status)) {
        return {{}, "it is no file that root alone can write"};
    }
    const std::optional<std::string> text = ReadWhole(file.Get());
    return text ? ParseRegistry(*text, bootId) : Registry{{}, "it cannot be read"};
}

bool WriteWhole(int file, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = write(file, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        done += count < 0 ? 0 : static_cast<size_t>(count);
    }
    return true;
}

// Puts the text in the registry's place in one step, so that whoever reads sees the old one or the new one. It lies in
// memory and has to outlast no power cut. False with errno.
bool ReplaceRegistry(int folder, const std::string& text) {
    (void)unlinkat(folder, newFileName, 0); // of a run that was killed
    const int file = openat(folder, newFileName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (file < 0) {
        return false;
    }
    // Whatever the user's mask says, everybody may read it.
    const bool isWritten = WriteWhole(file, text) && fchmod(file, 0644) == 0;
    if (close(file) == 0 && isWritten && renameat(folder, newFileName, folder, fileName) == 0) {
        return true;
    }
    const int code = errno;
    (void)unlinkat(folder, newFileName, 0);
    errno = code;
    return false;
}

// The folder of the registry, made where `isWriter` and it is not there. Not open, with the reason, where there is none
// that could be believed.
OwnedDescriptor OpenFolder(const HostRoots& roots, bool isWriter, std::string& whyNot) {
    const std::string path = roots.Run + "/" + folderName;
    const bool isMade = isWriter && mkdir(path.c_str(), 0755) == 0;
    const int whyNotMade = isWriter && !isMade ? errno : 0;
    OwnedDescriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!folder.IsOpen()) {
        if (whyNotMade != 0 && whyNotMade != EEXIST) {
            whyNot = path + " cannot be made: " + std::strerror(whyNotMade);
        } else {
            whyNot = errno == ENOENT ? "no disk was given a number by root in this boot"
                                     : path + " cannot be opened as a folder: " + ErrorText();
        }
    } else if (isMade && fchmod(folder.Get(), 0755) != 0) {
        whyNot = path + " cannot be opened to others: " + ErrorText();
    } else if (fstat(folder.Get(), &status) != 0 || !IsOwnersAlone(roots, status)) {
        whyNot = path + " is no folder that root alone can write";
    }
    return whyNot.empty() ? std::move(folder) : OwnedDescriptor(-1);
}

// Held until it is closed. Others than root cannot open this file, and so cannot keep root waiting.
OwnedDescriptor TakeLock(int folder) {
    OwnedDescriptor lock(openat(folder, lockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    while (lock.IsOpen() && flock(lock.Get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            return OwnedDescriptor(-1);
        }
    }
    return lock;
}

// --- The numbers ----------------------------------------------------------------------------------------------------

// The number for a disk that has none: a new one below firstNumbers; else of those below the one that is gone longest;
// else a new one; else whichever is gone longest. -1 where all disks of all numbers are there.
int ChooseNumber(const std::vector<Binding>& bindings) {
    const auto findNew = [&bindings](int from, int end) {
        for (int number = from; number < end; number++) {
            if (std::none_of(bindings.begin(), bindings.end(),
                             [number](const Binding& binding) { return binding.Number == number; })) {
                return number;
            }
        }
        return -1;
    };
    const auto findGone = [&bindings](int end) {
        const Binding* longest = nullptr;
        for (const Binding& binding : bindings) {
            if (binding.Gone != 0 && binding.Number < end && (longest == nullptr || binding.Gone < longest->Gone)) {
                longest = &binding;
            }
        }
        return longest == nullptr ? -1 : longest->Number;
    };
    for (const int number : {findNew(0, firstNumbers), findGone(firstNumbers), findNew(firstNumbers, endOfNumbers),
                             findGone(endOfNumbers)}) {
        if (number >= 0) {
            return number;
        }
    }
    return -1;
}

// Gives each disk its number, and brings the bindings up to date with the disks that are there.
void AssignNumbers(std::vector<HostDisk>& disks, std::vector<Binding>& bindings) {
    unsigned lastGone = 0;
    for (const Binding& binding : bindings) {
        lastGone = std::max(lastGone, binding.Gone);
    }
    for (Binding& binding : bindings) {
        const auto disk = std::find_if(disks.begin(), disks.end(), [&binding](const HostDisk& candidate) {
            return candidate.Identity == binding.Identity;
        });
        if (disk != disks.end()) {
            disk->Number = binding.Number;
            disk->IsNumberKept = true;
            binding.Gone = 0;
        } else if (binding.Gone == 0) {
            binding.Gone = ++lastGone;
        }
    }
    for (HostDisk& disk : disks) {
        if (disk.Number < 0) {
            disk.Number = ChooseNumber(bindings);
            std::erase_if(bindings, [&disk](const Binding& binding) { return binding.Number == disk.Number; });
            if (disk.Number >= 0) {
                bindings.push_back({disk.Number, 0, disk.Identity});
            }
        }
    }
    std::erase_if(disks, [](const HostDisk& disk) { return disk.Number < 0; });
    std::sort(disks.begin(), disks.end(), [](const HostDisk& a, const HostDisk& b) { return a.Number < b.Number; });
    std::sort(bindings.begin(), bindings.end(), [](const Binding& a, const Binding& b) { return a.Number < b.Number; });
}

} // namespace

std::string RegistryPath(const HostRoots& roots) {
    return roots.Run + "/" + folderName + "/" + fileName;
}

NumberedDisks NumberDisks(const HostRoots& roots) {
    NumberedDisks result;
    const bool isWriter = geteuid() == roots.Owner;
    const std::string bootId = ReadBootId(roots);
    if (bootId.empty()) {
        result.WhyRanks = "the kernel does not say which boot this is";
    }
    const OwnedDescriptor folder = bootId.empty() ? OwnedDescriptor(-1) : OpenFolder(roots, isWriter, result.WhyRanks);
    const OwnedDescriptor lock = folder.IsOpen() && isWriter ? TakeLock(folder.Get()) : OwnedDescriptor(-1);
    if (folder.IsOpen() && !lock.IsOpen()) {
        result.WhyRanks =
            isWriter ? "the registry cannot be locked: " + ErrorText() : "only root gives numbers that stay";
    }
    const Registry registry = folder.IsOpen() ? ReadRegistry(roots, folder.Get(), bootId) : Registry{};
    result.Damage = registry.Damage;

    // Looked at under the lock: whoever comes next finds these disks in the registry, or looks later than this.
    result.Disks = FindWholeDisks(roots);
    std::vector<Binding> bindings = registry.Bindings;
    AssignNumbers(result.Disks, bindings);
    if (lock.IsOpen()) {
        if ((bindings == registry.Bindings && registry.Damage.empty()) ||
            ReplaceRegistry(folder.Get(), FormatRegistry(bootId, bindings))) {
            for (HostDisk& disk : result.Disks) {
                disk.IsNumberKept = true;
            }
        } else {
            result.WhyRanks = RegistryPath(roots) + " cannot be written: " + ErrorText();
        }
    }
    if (std::all_of(result.Disks.begin(), result.Disks.end(), [](const HostDisk& disk) { return disk.IsNumberKept; }) &&
        !result.Disks.empty()) {
        result.WhyRanks.clear();
    }
    for (const Binding& binding : bindings) {
        if (binding.Gone != 0) {
            result.GoneNumbers.push_back(binding.Number);
        }
    }
    return result;
}

} // namespace vornix::platform
