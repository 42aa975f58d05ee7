// What vornix-disks has to say of each disk.
#include "disk_report.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>

#include "linux/owned_descriptor.h"
#include "linux/root_disks.h"

namespace vornix::disks_tool {

using platform::HostDisk;
using platform::HostExtent;
using platform::HostRoots;
using platform::IsAttributeSet;
using platform::OwnedDescriptor;
using platform::ReadFirstLine;

namespace {

using UsersOfDevices = std::map<dev_t, std::vector<DeviceUser>>;

const BlockDevice* FindDevice(const std::vector<BlockDevice>& devices, const std::string& number) {
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [&](const BlockDevice& device) { return device.Number == number; });
    return found == devices.end() ? nullptr : &*found;
}

std::string NumberText(dev_t device) {
    return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

// A number of 512-byte units, whatever the sectors of the disk.
uint64_t ReadUnits(const std::string& path) {
    return std::strtoull(ReadFirstLine(path).c_str(), nullptr, 10) * 512;
}

// Who uses the device: what is mounted from it, what is composed of it and where that is mounted, and the others.
std::vector<DeviceUser> ListUsers(const BlockDevice& device, const UsersOfDevices& others) {
    std::vector<DeviceUser> users;
    for (const std::string& point : device.MountPoints) {
        users.push_back(point == "[SWAP]" ? DeviceUser{"swap", point} : DeviceUser{"mount", point});
    }
    for (const BlockDevice& child : device.Children) {
        if (child.Type != "part") {
            users.push_back({"device", child.Type + " " + child.Path});
            for (const DeviceUser& user : ListUsers(child, others)) {
                users.push_back(user);
            }
        }
    }
    const std::optional<dev_t> number = platform::ParseDeviceNumber(device.Number);
    if (const auto found = number ? others.find(*number) : others.end(); found != others.end()) {
        // What is mounted here as well is said already.
        std::copy_if(
            found->second.begin(), found->second.end(), std::back_inserter(users),
            [&](const DeviceUser& user) { return user.Kind != "foreign_mount" || device.MountPoints.empty(); });
    }
    return users;
}

Signature LookInto(const std::string& node) {
    const OwnedDescriptor device(open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return device.IsOpen() ? FindSignature(device.Get()) : Signature{};
}

ContentReport DescribeContent(const HostRoots& roots, const BlockDevice& device, const UsersOfDevices& others) {
    const std::string folder = roots.Sys + "/class/block/" + device.Name;
    ContentReport content;
    content.Node = device.Path;
    content.Start = ReadUnits(folder + "/start");
    content.Size = ReadUnits(folder + "/size");
    content.Found = LookInto(device.Path);
    content.MountPoints = device.MountPoints;
    content.Users = ListUsers(device, others);
    return content;
}

// What lsblk has to say of the disk: its names, what lies on it, who uses it.
void AddWhatLsblkKnows(const HostRoots& roots, const BlockDevice& device, const UsersOfDevices& others,
                       DiskReport& report) {
    report.Model = device.Model;
    report.Serial = device.Serial;
    report.Transport = device.Transport;
    for (const BlockDevice& child : device.Children) {
        if (child.Type == "part") {
            report.Contents.push_back(DescribeContent(roots, child, others));
        }
    }
    report.Users = ListUsers(device, others);
}

// Opens the disk as list-disks does, and takes from it what an open disk tells.
void Open(const HostRoots& roots, DiskReport& report) {
    const OwnedDescriptor device(OpenNode(roots, report.Disk, O_RDONLY | O_NONBLOCK));
    if (!device.IsOpen()) {
        report.WhyNotOpened = errno == ENXIO || errno == ENODEV ? "no device behind the node" : std::strerror(errno);
        return;
    }
    int sectorSize = 0;
    if (ioctl(device.Get(), BLKGETSIZE64, &report.Size) != 0 || ioctl(device.Get(), BLKSSZGET, &sectorSize) != 0) {
        report.WhyNotOpened = std::strerror(errno);
        return;
    }
    report.SectorSize = static_cast<uint32_t>(sectorSize);
    if (report.Size == 0) {
        report.WhyNotOpened = "no medium";
        return;
    }
    const Signature whole = FindSignature(device.Get());
    report.PartitionTable = whole.PartitionTable;
    if (report.Contents.empty() && !whole.Type.empty()) {
        ContentReport content;
        content.Node = report.Node;
        content.Size = report.Size;
        content.Found = whole;
        report.Contents.push_back(content);
    }
}

// Whether the kernel refuses its exclusive claim, which it does to a target in use. Asked only where nothing else shows
// a user: for as long as the question takes, the answer would be this process.
bool IsClaimed(const HostRoots& roots, const HostDisk& disk) {
    const OwnedDescriptor device(OpenNode(roots, disk, O_RDONLY | O_NONBLOCK | O_EXCL));
    return !device.IsOpen() && errno == EBUSY;
}

} // namespace

bool DiskReport::IsInUse() const {
    return !Users.empty() || std::any_of(Contents.begin(), Contents.end(),
                                         [](const ContentReport& content) { return !content.Users.empty(); });
}

Report MakeReport(const HostRoots& roots, const BlockDevices& devices) {
    Report report;
    report.Numbers = NumberDisks(roots);
    report.Error = devices.Error;
    const UsersOfDevices others = FindDeviceUsers(roots);
    const std::vector<HostExtent> system = FindRootExtents(roots, report.Numbers.Disks);
    for (const HostDisk& disk : report.Numbers.Disks) {
        const std::string folder = roots.Sys + "/block/" + disk.Name;
        DiskReport entry;
        entry.Disk = disk;
        entry.Node = NodeOf(roots, disk);
        entry.Size = ReadUnits(folder + "/size");
        entry.SectorSize = static_cast<uint32_t>(
            std::strtoul(ReadFirstLine(folder + "/queue/logical_block_size").c_str(), nullptr, 10));
        entry.IsReadOnly = IsAttributeSet(folder + "/ro");
        entry.IsRemovable = IsAttributeSet(folder + "/removable");
        entry.IsSystem = std::any_of(system.begin(), system.end(),
                                     [&disk](const HostExtent& extent) { return extent.Disk == disk.Device; });
        BlockDevice unknown;
        unknown.Number = NumberText(disk.Device);
        const BlockDevice* const known = FindDevice(devices.Devices, unknown.Number);
        AddWhatLsblkKnows(roots, known == nullptr ? unknown : *known, others, entry);
        Open(roots, entry);
        if (!entry.IsInUse() && entry.WhyNotOpened.empty() && IsClaimed(roots, disk)) {
            entry.Users.push_back({"kernel", "claimed by the kernel"});
        }
        // The whole of a disk is used by those who use the disk.
        if (entry.Contents.size() == 1 && entry.Contents.front().Node == entry.Node) {
            entry.Contents.front().MountPoints = known == nullptr ? std::vector<std::string>() : known->MountPoints;
            entry.Contents.front().Users = entry.Users;
        }
        report.Disks.push_back(std::move(entry));
    }
    return report;
}

} // namespace vornix::disks_tool
