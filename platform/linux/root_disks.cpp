// On which disks the root folder lies.
//
// The table of mounts names what the root is mounted from. Down from there the kernel shows every layer under
// /sys/dev/block: a partition lies in the folder of its disk, and what is composed of other devices (logical volumes,
// encryption, RAID) lists them in its "slaves" folder.
#include "root_disks.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "linux_disks.h"

namespace vornix::platform {

namespace {

// Layers upon layers are finite; a loop in what the kernel shows would not be.
constexpr int deepestLayer = 16;

struct Mount {
    dev_t Device = 0;
    std::string Point;
    std::string Type;
    std::string Source;
    std::string Options;
};

// The table of mounts writes blanks and backslashes in names as octal numbers.
std::string DecodeOctal(const std::string& text) {
    std::string decoded;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            const std::string digits = text.substr(i + 1, 3);
            if (digits.find_first_not_of("01234567") == std::string::npos) {
                decoded.push_back(static_cast<char>(std::strtol(digits.c_str(), nullptr, 8)));
                i += 3;
                continue;
            }
        }
        decoded.push_back(text[i]);
    }
    return decoded;
}

std::vector<Mount> ReadMounts() {
    std::vector<Mount> mounts;
    std::ifstream table("/proc/self/mountinfo");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string word;
        std::string device;
        std::string point;
        // Two numbers in front of the device, and the mounted folder behind it, are of no interest here.
        fields >> word >> word >> device >> word >> point;
        // Any number of optional fields ends with a single dash.
        while (fields >> word && word != "-") {
        }
        Mount mount;
        fields >> mount.Type >> mount.Source >> mount.Options;
        unsigned majorNumber = 0;
        unsigned minorNumber = 0;
        if (std::sscanf(device.c_str(), "%u:%u", &majorNumber, &minorNumber) != 2) {
            continue;
        }
        mount.Device = makedev(majorNumber, minorNumber);
        mount.Point = DecodeOctal(point);
        mount.Source = DecodeOctal(mount.Source);
        mount.Options = DecodeOctal(mount.Options);
        mounts.push_back(mount);
    }
    return mounts;
}

std::string JoinPath(std::initializer_list<std::string_view> parts) {
    std::string path;
    for (const std::string_view part : parts) {
        if (!path.empty()) {
            path += '/';
        }
        path += part;
    }
    return path;
}

std::optional<dev_t> ReadDeviceNumber(const std::string& path) {
    std::ifstream file(path);
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    char colon = 0;
    if (!(file >> majorNumber >> colon >> minorNumber)) {
        return std::nullopt;
    }
    return makedev(majorNumber, minorNumber);
}

// A number of 512-byte units, whatever the sectors of the disk.
uint64_t ReadUnits(const std::string& path) {
    std::ifstream file(path);
    uint64_t units = 0;
    file >> units;
    return units * 512;
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

class ExtentFinder {
public:
    void AddPath(const std::string& path, int depth);
    std::vector<HostExtent> Take() { return std::move(extents_); }

private:
    void AddDevice(dev_t device, int depth);
    void AddSourceDevices(const Mount& mount, int depth);
    void AddOverlayLayers(const Mount& mount, int depth);
    void AddExtent(dev_t disk, uint64_t start, uint64_t length);

    const std::vector<Mount> mounts_ = ReadMounts();
    std::vector<HostExtent> extents_;
    // The layers of an overlay may lie on the overlay itself, as far as this table can tell them apart.
    std::vector<const Mount*> visited_;
};

void ExtentFinder::AddExtent(dev_t disk, uint64_t start, uint64_t length) {
    const std::vector<HostDisk>& disks = HostDisks();
    if (std::none_of(disks.begin(), disks.end(), [disk](const HostDisk& known) { return known.Device == disk; })) {
        return;
    }
    const bool known = std::any_of(extents_.begin(), extents_.end(), [disk, start](const HostExtent& extent) {
        return extent.Disk == disk && extent.Start == start;
    });
    if (!known) {
        extents_.push_back({disk, start, length});
    }
}

void ExtentFinder::AddDevice(dev_t device, int depth) {
    if (depth > deepestLayer) {
        return;
    }
    const std::string link = "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
    char resolved[PATH_MAX];
    if (realpath(link.c_str(), resolved) == nullptr) {
        return;
    }
    const std::string here = resolved;
    std::string whole = here;
    uint64_t start = 0;
    struct stat status {};
    if (stat((here + "/partition").c_str(), &status) == 0) {
        whole = here.substr(0, here.find_last_of('/'));
        start = ReadUnits(here + "/start");
    }

    const std::vector<std::string> slaves = ListFolder(whole + "/slaves");
    for (const std::string& slave : slaves) {
        if (const std::optional<dev_t> below = ReadDeviceNumber(JoinPath({whole, "slaves", slave, "dev"}))) {
            AddDevice(*below, depth + 1);
        }
    }
    if (!slaves.empty()) {
        return;
    }
    // A loop device is a disk of its own, but the system would lose its root with the disk that holds the file.
    std::ifstream backing(whole + "/loop/backing_file");
    std::string backingPath;
    if (std::getline(backing, backingPath)) {
        const size_t before = extents_.size();
        AddPath(backingPath, depth + 1);
        if (extents_.size() > before) {
            return;
        }
    }
    if (const std::optional<dev_t> disk = ReadDeviceNumber(whole + "/dev")) {
        AddExtent(*disk, start, ReadUnits(here + "/size"));
    }
}

// A file system that shows no device of its own names the device, or several, as its source.
void ExtentFinder::AddSourceDevices(const Mount& mount, int depth) {
    std::istringstream sources(mount.Source);
    std::string source;
    while (std::getline(sources, source, ':')) {
        struct stat status {};
        if (!source.starts_with("/dev/") || stat(source.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) {
            continue;
        }
        AddDevice(status.st_rdev, depth + 1);
        if (mount.Type != "btrfs") {
            continue;
        }
        // The others of the same file system stand beside this one.
        for (const std::string& id : ListFolder("/sys/fs/btrfs")) {
            std::vector<dev_t> members;
            const std::string devices = "/sys/fs/btrfs/" + id + "/devices";
            for (const std::string& name : ListFolder(devices)) {
                if (const std::optional<dev_t> member = ReadDeviceNumber(JoinPath({devices, name, "dev"}))) {
                    members.push_back(*member);
                }
            }
            if (std::find(members.begin(), members.end(), status.st_rdev) != members.end()) {
                for (const dev_t member : members) {
                    AddDevice(member, depth + 1);
                }
            }
        }
    }
}

// An overlay lies where its writable layer lies, or, if that is in memory, where the layers below it lie: live media
// keep the system in a file on a disk and the changes in memory.
void ExtentFinder::AddOverlayLayers(const Mount& mount, int depth) {
    std::vector<std::string> upper;
    std::vector<std::string> lower;
    std::istringstream options(mount.Options);
    std::string option;
    while (std::getline(options, option, ',')) {
        const size_t cut = option.find('=');
        if (cut == std::string::npos) {
            continue;
        }
        const std::string key = option.substr(0, cut);
        std::istringstream paths(option.substr(cut + 1));
        std::string path;
        while ((key == "upperdir" || key.starts_with("lowerdir")) && std::getline(paths, path, ':')) {
            (key == "upperdir" ? upper : lower).push_back(path);
        }
    }
    upper.insert(upper.end(), lower.begin(), lower.end());
    for (const std::string& path : upper) {
        if (!path.starts_with("/")) {
            continue;
        }
        const size_t before = extents_.size();
        AddPath(path, depth + 1);
        if (extents_.size() > before) {
            return;
        }
    }
}

void ExtentFinder::AddPath(const std::string& path, int depth) {
    if (depth > deepestLayer) {
        return;
    }
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) {
        return;
    }
    const std::string target = resolved;
    // The longest mount point that holds the path; of mounts upon the same point the last one covers the others.
    const Mount* covering = nullptr;
    for (const Mount& mount : mounts_) {
        const bool holds = mount.Point == "/" || target == mount.Point || target.starts_with(mount.Point + "/");
        if (holds && (covering == nullptr || mount.Point.size() >= covering->Point.size())) {
            covering = &mount;
        }
    }
    if (covering == nullptr || std::find(visited_.begin(), visited_.end(), covering) != visited_.end()) {
        return;
    }
    visited_.push_back(covering);
    if (covering->Type == "overlay") {
        AddOverlayLayers(*covering, depth);
    } else if (major(covering->Device) != 0) {
        AddDevice(covering->Device, depth);
    } else {
        AddSourceDevices(*covering, depth);
    }
}

} // namespace

std::vector<HostExtent> FindRootExtents() {
    ExtentFinder finder;
    finder.AddPath("/", 0);
    return finder.Take();
}

} // namespace vornix::platform
