// Who uses a disk, as the kernel shows it below /sys/dev/block and /sys/class/block. Not /sys/block, which may show a
// part of the disks alone.
#include "disk_users.h"

#include <fcntl.h>
#include <linux/blkpg.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

namespace vornix::platform {

namespace {

// What looks at new devices, to name them or to list what is on them, has a partition open for a moment.
constexpr int roundsOfPatience = 20;
constexpr std::chrono::milliseconds betweenRounds{100};

// Loop devices upon loop devices are finite.
constexpr int deepestLayer = 16;

struct Partition {
    dev_t Device = 0;
    int Number = 0;
    long long Start = 0;  // in bytes
    long long Length = 0; // in bytes
};

std::string FolderOfDevice(dev_t device) {
    return "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

template <typename Value>
std::optional<Value> ReadNumber(const std::filesystem::path& path) {
    std::ifstream file(path);
    Value value{};
    return file >> value ? std::optional<Value>(value) : std::nullopt;
}

std::optional<dev_t> ReadDevice(const std::filesystem::path& path) {
    std::ifstream file(path);
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    char colon = 0;
    return file >> majorNumber >> colon >> minorNumber ? std::optional<dev_t>(makedev(majorNumber, minorNumber))
                                                       : std::nullopt;
}

// Calls visit(path) for each entry of a folder, for none where there is no such folder.
template <typename Visit>
void VisitFolder(const std::filesystem::path& folder, Visit visit) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        visit(entry->path());
    }
}

std::vector<Partition> PartitionsOf(dev_t disk) {
    constexpr long long unit = 512; // whatever the sectors of the disk
    std::vector<Partition> partitions;
    VisitFolder(FolderOfDevice(disk), [&](const std::filesystem::path& path) {
        const auto number = ReadNumber<int>(path / "partition");
        const auto device = ReadDevice(path / "dev");
        const auto start = ReadNumber<long long>(path / "start");
        const auto length = ReadNumber<long long>(path / "size");
        if (number && device && start && length) {
            partitions.push_back({*device, *number, *start * unit, *length * unit});
        }
    });
    return partitions;
}

// Opens the device by the name that the kernel gives it; not open where there is no such node.
OwnedDescriptor OpenNode(dev_t device, int mode) {
    std::ifstream file(FolderOfDevice(device) + "/uevent");
    std::string line;
    while (std::getline(file, line)) {
        if (line.starts_with("DEVNAME=")) {
            OwnedDescriptor node(open(("/dev/" + line.substr(8)).c_str(), mode | O_NONBLOCK | O_CLOEXEC));
            struct stat status {};
            if (node.IsOpen() && fstat(node.Get(), &status) == 0 && S_ISBLK(status.st_mode) &&
                status.st_rdev == device) {
                return node;
            }
        }
    }
    return {};
}

bool IsThere(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

bool HasHolders(dev_t device) {
    bool has = false;
    VisitFolder(FolderOfDevice(device) + "/holders", [&](const std::filesystem::path&) { has = true; });
    return has;
}

// The block device that a loop device stands for, if it stands for one.
std::optional<dev_t> DeviceBehindLoop(dev_t loop) {
    const std::string folder = FolderOfDevice(loop);
    std::ifstream file(folder + "/loop/backing_file");
    std::string path;
    if (!std::getline(file, path)) {
        return std::nullopt;
    }
    struct stat status {};
    const bool isFound = stat(path.c_str(), &status) == 0;
    if (isFound && !S_ISBLK(status.st_mode)) {
        // Most stand for files; to open one whose file does not answer would wait for it, though it is none of ours.
        return std::nullopt;
    }
    // The kernel's own word; the path may be one of another root folder, or be gone.
    const OwnedDescriptor node = OpenNode(loop, O_RDONLY);
    loop_info64 info{};
    if (node.IsOpen() && ioctl(node.Get(), LOOP_GET_STATUS64, &info) == 0) {
        return info.lo_rdevice != 0 ? std::optional<dev_t>(info.lo_rdevice) : std::nullopt;
    }
    return isFound ? std::optional<dev_t>(status.st_rdev) : std::nullopt;
}

// Whether a loop device other than `except` stands for one of these devices.
bool HasLoop(const std::vector<dev_t>& devices, dev_t except) {
    bool has = false;
    VisitFolder("/sys/class/block", [&](const std::filesystem::path& path) {
        if (has || !IsThere(path / "loop/backing_file")) {
            return;
        }
        const auto loop = ReadDevice(path / "dev");
        if (loop && *loop != except) {
            const auto behind = DeviceBehindLoop(*loop);
            has = behind && std::find(devices.begin(), devices.end(), *behind) != devices.end();
        }
    });
    return has;
}

// Tells the kernel of a partition, or has it forget one.
int ChangePartition(int descriptor, int operation, const Partition& partition) {
    blkpg_partition change{};
    change.pno = partition.Number;
    change.start = partition.Start;
    change.length = partition.Length;
    blkpg_ioctl_arg argument{operation, 0, sizeof change, &change};
    return ioctl(descriptor, BLKPG, &argument) == 0 ? 0 : errno;
}

// Whether somebody has one of the partitions open. The kernel says so where it is asked to forget them: by reading the
// partition table again, or one by one on a disk whose table it does not read. What it forgot it is told again, since
// not every partition that it knows must stand in a table.
bool IsAnyPartitionOpen(int descriptor, dev_t disk, const std::vector<Partition>& partitions) {
    const int code = ioctl(descriptor, BLKRRPART) == 0 ? 0 : errno;
    bool isOpen = code == EBUSY;
    if (code == EINVAL) {
        isOpen = std::any_of(partitions.begin(), partitions.end(), [&](const Partition& partition) {
            return ChangePartition(descriptor, BLKPG_DEL_PARTITION, partition) == EBUSY;
        });
    }
    const std::vector<Partition> left = PartitionsOf(disk);
    for (const Partition& partition : partitions) {
        const bool isLeft = std::any_of(left.begin(), left.end(),
                                        [&](const Partition& other) { return other.Number == partition.Number; });
        if (!isLeft) {
            // Where the table has another one in its place now, that one stays.
            (void)ChangePartition(descriptor, BLKPG_ADD_PARTITION, partition);
        }
    }
    return isOpen;
}

dev_t WholeDiskOf(dev_t device) {
    const std::string folder = FolderOfDevice(device);
    if (!IsThere(folder + "/partition")) {
        return device;
    }
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(folder, error);
    return ReadDevice(real.parent_path() / "dev").value_or(device);
}

// Whether anything but the loop device `except` uses the disk or one of its partitions.
bool HasUsers(dev_t disk, dev_t except) {
    std::vector<dev_t> devices{disk};
    for (const Partition& partition : PartitionsOf(disk)) {
        devices.push_back(partition.Device);
    }
    return std::any_of(devices.begin(), devices.end(), HasHolders) || HasLoop(devices, except);
}

} // namespace

bool IsDiskInUse(int descriptor, dev_t device, std::vector<OwnedDescriptor>& claims) {
    if (HasUsers(device, 0)) {
        return true;
    }
    const std::vector<Partition> partitions = PartitionsOf(device);
    for (int round = 1; !partitions.empty() && IsAnyPartitionOpen(descriptor, device, partitions); round++) {
        if (round == roundsOfPatience) {
            return true;
        }
        std::this_thread::sleep_for(betweenRounds);
    }
    // Downwards: a write to this disk is one to the device that it stands for.
    dev_t above = device;
    for (int layer = 0; layer < deepestLayer; layer++) {
        const std::optional<dev_t> below = DeviceBehindLoop(above);
        if (!below) {
            return false;
        }
        OwnedDescriptor claim = OpenNode(*below, O_RDONLY | O_EXCL);
        if (!claim.IsOpen() || HasUsers(WholeDiskOf(*below), above)) {
            return true;
        }
        claims.push_back(std::move(claim));
        above = WholeDiskOf(*below);
    }
    return true;
}

void DropCachesOfPartitions(dev_t disk) {
    for (const Partition& partition : PartitionsOf(disk)) {
        const OwnedDescriptor node = OpenNode(partition.Device, O_RDONLY);
        if (node.IsOpen()) {
            (void)ioctl(node.Get(), BLKFLSBUF);
        }
    }
}

} // namespace vornix::platform
