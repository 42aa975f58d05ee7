// On which disks the root folder lies.
//
// The table of mounts names what the root is mounted from. Down from there the kernel shows every layer under
// /sys/dev/block: a partition lies in the folder of its disk, and what is composed of other devices (logical volumes,
// encryption, RAID) lists them in its "slaves" folder.
//
// In a changed root whose "/" is no mount point the table is silent about it. Then the table of process 1 speaks, which
// has the mount that "/" belongs to, and where that cannot be found the device number of "/" itself. The system runs
// from where process 1 has its root, whatever the root of this process is: its disks count too.
#include "root_disks.h"

#include <fcntl.h>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string_view>

namespace vornix::platform {

namespace {

// Layers upon layers are finite; a loop in what the kernel shows would not be.
constexpr int deepestNesting = 16;

struct Mount {
    uint64_t Id = 0;
    dev_t Device = 0;
    std::string Point;
    std::string Type;
    std::string Source;
    std::string Options;
};

// The mounts that a process sees, and the folder that is its root.
struct MountView {
    std::string Root; // empty for the root of this process, where paths can be followed as they are
    std::vector<Mount> Mounts;
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

std::vector<Mount> ReadMounts(const std::string& path) {
    std::vector<Mount> mounts;
    std::ifstream table(path);
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string word;
        std::string device;
        std::string point;
        Mount mount;
        // The parent's number, and the mounted folder behind the device, are of no interest here.
        fields >> mount.Id >> word >> device >> word >> point;
        // Any number of optional fields ends with a single dash.
        while (fields >> word && word != "-") {
        }
        fields >> mount.Type >> mount.Source >> mount.Options;
        const std::optional<dev_t> number = ParseDeviceNumber(device);
        if (!number) {
            continue;
        }
        mount.Device = *number;
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

// A number of 512-byte units, whatever the sectors of the disk.
uint64_t ReadUnits(const std::string& path) {
    std::ifstream file(path);
    uint64_t units = 0;
    file >> units;
    return units * 512;
}

// The longest mount point that holds the path; of mounts upon the same point the last one covers the others.
const Mount* FindCoveringMount(const std::vector<Mount>& mounts, const std::string& path) {
    const Mount* covering = nullptr;
    for (const Mount& mount : mounts) {
        const bool holds = mount.Point == "/" || path == mount.Point || path.starts_with(mount.Point + "/");
        if (holds && (covering == nullptr || mount.Point.size() >= covering->Point.size())) {
            covering = &mount;
        }
    }
    return covering;
}

// The name of the file system under /sys/fs/btrfs; empty where the path lies on none.
std::string FindBtrfsName(const std::string& path) {
    const int folder = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (folder < 0) {
        return {};
    }
    btrfs_ioctl_fs_info_args answer{};
    const bool isBtrfs = ioctl(folder, BTRFS_IOC_FS_INFO, &answer) == 0;
    (void)close(folder);
    std::string name;
    for (size_t i = 0; isBtrfs && i < sizeof answer.fsid; i++) {
        constexpr const char* digits = "0123456789abcdef";
        name += i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "";
        name.push_back(digits[answer.fsid[i] >> 4]);
        name.push_back(digits[answer.fsid[i] & 15]);
    }
    return name;
}

class ExtentFinder {
public:
    ExtentFinder(const HostRoots& roots, const std::vector<HostDisk>& disks) : roots_(roots), disks_(disks) {}

    void AddOwnRoot();
    void AddRootOfProcess1();
    std::vector<HostExtent> Take() { return std::move(extents_); }

private:
    void AddDevice(dev_t device, int depth);
    void AddMount(const MountView& view, const Mount& mount, const std::string& inside, int depth);
    bool AddBtrfs(const std::string& name, int depth);
    void AddSources(const Mount& mount, int depth);
    void AddOverlayLayers(const MountView& view, const Mount& mount, int depth);
    void AddPath(const MountView& view, const std::string& path, int depth);
    void AddExtent(dev_t disk, uint64_t start, uint64_t length);

    const HostRoots& roots_;
    const std::vector<HostDisk>& disks_;
    const MountView own_{"", ReadMounts(roots_.Proc + "/self/mountinfo")};
    const MountView process1_{roots_.Proc + "/1/root", ReadMounts(roots_.Proc + "/1/mountinfo")};
    std::vector<HostExtent> extents_;
    // The layers of an overlay may lie on the overlay itself, as far as this table can tell them apart.
    std::vector<const Mount*> visited_;
};

void ExtentFinder::AddExtent(dev_t disk, uint64_t start, uint64_t length) {
    if (std::none_of(disks_.begin(), disks_.end(), [disk](const HostDisk& known) { return known.Device == disk; })) {
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
    if (depth > deepestNesting) {
        return;
    }
    const std::string link =
        roots_.Sys + "/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
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
    // A loop device is a disk of its own, but the system would lose its root with the disk that holds the file. Its
    // path is one of this root or, from a changed root, of that of process 1.
    const std::string backing = ReadFirstLine(whole + "/loop/backing_file");
    for (const MountView* view : {&own_, &process1_}) {
        const size_t before = extents_.size();
        if (!backing.empty()) {
            AddPath(*view, backing, depth + 1);
        }
        if (extents_.size() > before) {
            return;
        }
    }
    if (const std::optional<dev_t> disk = ReadDeviceNumber(whole + "/dev")) {
        AddExtent(*disk, start, ReadUnits(here + "/size"));
    }
}

// All disks of a btrfs file system; false where the kernel does not know it.
bool ExtentFinder::AddBtrfs(const std::string& name, int depth) {
    const std::string devices = JoinPath({roots_.Sys, "fs/btrfs", name, "devices"});
    bool isKnown = false;
    for (const std::string& device : ListFolder(devices)) {
        if (const std::optional<dev_t> member = ReadDeviceNumber(JoinPath({devices, device, "dev"}))) {
            AddDevice(*member, depth + 1);
            isKnown = true;
        }
    }
    return isKnown;
}

// A file system that shows no device of its own names the device, or several, as its source.
void ExtentFinder::AddSources(const Mount& mount, int depth) {
    std::istringstream sources(mount.Source);
    std::string source;
    while (std::getline(sources, source, ':')) {
        if (!source.starts_with("/dev/")) {
            continue;
        }
        // A changed root need not have the node.
        struct stat status {};
        std::optional<dev_t> device =
            ReadDeviceNumber(JoinPath({roots_.Sys, "class/block", source.substr(sizeof "/dev/" - 1), "dev"}));
        if (stat((roots_.Dev + source.substr(sizeof "/dev" - 1)).c_str(), &status) == 0 && S_ISBLK(status.st_mode)) {
            device = status.st_rdev;
        }
        if (!device) {
            continue;
        }
        AddDevice(*device, depth + 1);
        if (mount.Type != "btrfs") {
            continue;
        }
        // The others of the same file system stand beside this one.
        const std::string systems = roots_.Sys + "/fs/btrfs";
        for (const std::string& name : ListFolder(systems)) {
            const std::string devices = JoinPath({systems, name, "devices"});
            const std::vector<std::string> members = ListFolder(devices);
            if (std::any_of(members.begin(), members.end(), [&](const std::string& member) {
                    return ReadDeviceNumber(JoinPath({devices, member, "dev"})) == device;
                })) {
                (void)AddBtrfs(name, depth);
            }
        }
    }
}

// An overlay lies where its writable layer lies, or, if that is in memory, where the layers below it lie: live media
// keep the system in a file on a disk and the changes in memory.
void ExtentFinder::AddOverlayLayers(const MountView& view, const Mount& mount, int depth) {
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
        AddPath(view, path, depth + 1);
        if (extents_.size() > before) {
            return;
        }
    }
}

// `inside`: a path on the mount, by which this process can reach it.
void ExtentFinder::AddMount(const MountView& view, const Mount& mount, const std::string& inside, int depth) {
    if (std::find(visited_.begin(), visited_.end(), &mount) != visited_.end()) {
        return;
    }
    visited_.push_back(&mount);
    if (mount.Type == "overlay") {
        AddOverlayLayers(view, mount, depth);
    } else if (major(mount.Device) != 0) {
        AddDevice(mount.Device, depth);
    } else if (mount.Type != "btrfs" || !AddBtrfs(FindBtrfsName(inside), depth)) {
        AddSources(mount, depth);
    }
}

void ExtentFinder::AddPath(const MountView& view, const std::string& path, int depth) {
    if (depth > deepestNesting) {
        return;
    }
    std::string target = path;
    if (view.Root.empty()) {
        char resolved[PATH_MAX];
        if (realpath(path.c_str(), resolved) == nullptr) {
            return;
        }
        target = resolved;
    } else if (access((view.Root + path).c_str(), F_OK) != 0) {
        // Links on the way cannot be followed in another's root; the kernel's own paths have none.
        return;
    }
    if (const Mount* const mount = FindCoveringMount(view.Mounts, target)) {
        AddMount(view, *mount, view.Root + target, depth);
    }
}

void ExtentFinder::AddOwnRoot() {
    if (const Mount* const mount = FindCoveringMount(own_.Mounts, "/")) {
        AddMount(own_, *mount, roots_.Root, 0);
        return;
    }
    struct statx status {};
    if (statx(AT_FDCWD, roots_.Root.c_str(), 0, STATX_BASIC_STATS | STATX_MNT_ID, &status) != 0) {
        return;
    }
    const dev_t device = makedev(status.stx_dev_major, status.stx_dev_minor);
    const auto find = [this](auto isWanted) -> const Mount* {
        const auto found = std::find_if(process1_.Mounts.begin(), process1_.Mounts.end(), isWanted);
        return found == process1_.Mounts.end() ? nullptr : &*found;
    };
    const Mount* mount = nullptr;
    if ((status.stx_mask & STATX_MNT_ID) != 0) {
        mount = find([&status](const Mount& candidate) { return candidate.Id == status.stx_mnt_id; });
    }
    // In a namespace of its own, where the mounts are copies, what is mounted is still the same.
    if (mount == nullptr) {
        mount = find([device](const Mount& candidate) { return candidate.Device == device; });
    }
    if (mount != nullptr) {
        AddMount(process1_, *mount, roots_.Root, 0);
    } else if (major(device) != 0) {
        AddDevice(device, 0);
    } else {
        (void)AddBtrfs(FindBtrfsName(roots_.Root), 0);
    }
}

void ExtentFinder::AddRootOfProcess1() {
    if (const Mount* const mount = FindCoveringMount(process1_.Mounts, "/")) {
        AddMount(process1_, *mount, process1_.Root, 0);
    }
}

} // namespace

std::vector<HostExtent> FindRootExtents(const HostRoots& roots, const std::vector<HostDisk>& disks) {
    ExtentFinder own(roots, disks);
    own.AddOwnRoot();
    std::vector<HostExtent> extents = own.Take();
    ExtentFinder other(roots, disks);
    other.AddRootOfProcess1();
    const size_t ownCount = extents.size();
    for (const HostExtent& extent : other.Take()) {
        if (std::none_of(extents.begin(), extents.begin() + static_cast<std::ptrdiff_t>(ownCount),
                         [&extent](const HostExtent& known) { return known.Disk == extent.Disk; })) {
            extents.push_back(extent);
        }
    }
    return extents;
}

} // namespace vornix::platform
