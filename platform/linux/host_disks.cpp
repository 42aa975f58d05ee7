// Which block devices of the host are whole disks.
#include "host_disks.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>

namespace vornix::platform {

namespace {

// What is no disk although the kernel lists it as a whole block device: memory, devices composed of others (they are
// reached through the disks they are composed of), optical and floppy drives, and the special areas of flash cards.
bool IsNoDisk(const std::string& name) {
    for (const char* prefix :
         {"ram", "zram", "nullb", "dm-", "md", "bcache", "drbd", "zd", "sr", "fd", "mtdblock", "ubiblock"}) {
        if (name.starts_with(prefix)) {
            return true;
        }
    }
    return name.starts_with("mmcblk") &&
           (name.find("boot") != std::string::npos || name.find("rpmb") != std::string::npos);
}

// A serial or an identifier as one word; they come from the disk and may hold anything.
std::string EncodeWord(const std::string& text) {
    std::string word;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > ' ' && byte < 0x7F && byte != '%' && byte != ',') {
            word.push_back(c);
        } else {
            char code[4];
            (void)std::snprintf(code, sizeof code, "%%%02X", byte);
            word += code;
        }
    }
    return word;
}

std::string FindSerial(const std::string& folder) {
    for (const char* file : {"/serial", "/device/serial", "/wwid", "/device/wwid", "/device/cid"}) {
        std::string serial = ReadFirstLine(folder + file);
        if (!serial.empty()) {
            return serial;
        }
    }
    return {};
}

std::string IdentifyDisk(const std::string& folder, const std::string& name, dev_t device) {
    std::string identity = std::to_string(major(device)) + ":" + std::to_string(minor(device));
    const std::string sequence = ReadFirstLine(folder + "/diskseq");
    const bool isCounted = !sequence.empty() && sequence != "0";
    if (isCounted) {
        identity += ",seq=" + EncodeWord(sequence);
    }
    // A network block device keeps its sequence number when it is connected to something else.
    const bool isNetwork = name.starts_with("nbd");
    if (!isCounted || isNetwork) {
        identity += ",size=" + EncodeWord(ReadFirstLine(folder + "/size"));
    }
    if (isNetwork) {
        identity += ",pid=" + EncodeWord(ReadFirstLine(folder + "/pid"));
    }
    if (!isCounted) {
        identity += ",serial=" + EncodeWord(FindSerial(folder));
    }
    return identity;
}

} // namespace

HostRoots& TheHostRoots() {
    static HostRoots& roots = *new HostRoots;
    return roots;
}

std::string ReadFirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

bool IsAttributeSet(const std::string& path) {
    const std::string value = ReadFirstLine(path);
    return !value.empty() && value != "0";
}

std::optional<dev_t> ParseDeviceNumber(const std::string& text) {
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    if (std::sscanf(text.c_str(), "%u:%u", &majorNumber, &minorNumber) != 2) {
        return std::nullopt;
    }
    return makedev(majorNumber, minorNumber);
}

std::optional<dev_t> ReadDeviceNumber(const std::string& path) {
    return ParseDeviceNumber(ReadFirstLine(path));
}

std::vector<std::string> ListFolder(const std::string& path) {
    std::vector<std::string> names;
    if (DIR* const folder = opendir(path.c_str())) {
        while (const dirent* entry = readdir(folder)) {
            if (entry->d_name[0] != '.') {
                names.emplace_back(entry->d_name);
            }
        }
        (void)closedir(folder);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<HostDisk> FindWholeDisks(const HostRoots& roots) {
    std::vector<HostDisk> disks;
    for (const std::string& name : ListFolder(roots.Sys + "/block")) {
        const std::string folder = roots.Sys + "/block/" + name;
        const std::optional<dev_t> device = ReadDeviceNumber(folder + "/dev");
        // The hidden attribute marks the single paths of a disk that is reached over several.
        if (!device || IsNoDisk(name) || IsAttributeSet(folder + "/hidden") ||
            !ListFolder(folder + "/slaves").empty()) {
            continue;
        }
        HostDisk disk;
        disk.Name = name;
        disk.Device = *device;
        disk.IsHardware = access((folder + "/device").c_str(), F_OK) == 0;
        disk.Identity = IdentifyDisk(folder, name, *device);
        if (disk.IsHardware || IsAttributeSet(folder + "/size")) {
            disks.push_back(disk);
        }
    }
    std::sort(disks.begin(), disks.end(), [](const HostDisk& a, const HostDisk& b) {
        if (a.IsHardware != b.IsHardware) {
            return a.IsHardware;
        }
        return major(a.Device) != major(b.Device) ? major(a.Device) < major(b.Device)
                                                  : minor(a.Device) < minor(b.Device);
    });
    return disks;
}

std::string NodeOf(const HostRoots& roots, const HostDisk& disk) {
    std::string name = disk.Name;
    std::replace(name.begin(), name.end(), '!', '/');
    return roots.Dev + "/" + name;
}

int OpenNode(const HostRoots& roots, const HostDisk& disk, int flags) {
    const int descriptor = open(NodeOf(roots, disk).c_str(), flags | O_CLOEXEC);
    if (descriptor < 0) {
        return -1;
    }
    struct stat status {};
    // Looked at behind the open: a device that is open does not give its number to another.
    if (fstat(descriptor, &status) == 0 && S_ISBLK(status.st_mode) && status.st_rdev == disk.Device &&
        IdentifyDisk(roots.Sys + "/block/" + disk.Name, disk.Name, disk.Device) == disk.Identity) {
        return descriptor;
    }
    (void)close(descriptor);
    errno = ENXIO;
    return -1;
}

} // namespace vornix::platform
