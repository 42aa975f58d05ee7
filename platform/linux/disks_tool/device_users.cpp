// Who uses block devices, as far as lsblk does not tell.
#include "device_users.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <set>
#include <sstream>

namespace vornix::disks_tool {

using platform::HostRoots;
using platform::ListFolder;
using platform::ParseDeviceNumber;
using platform::ReadFirstLine;

namespace {

using Users = std::map<dev_t, std::vector<DeviceUser>>;

bool IsProcess(const std::string& name) {
    return name.find_first_not_of("0123456789") == std::string::npos;
}

std::string ReadLink(const std::string& path) {
    char target[4096];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

// The device that `name` seems to be, found by way of `path`. Other files are not touched: one on a file system whose
// server is gone would keep whoever asks about it waiting for ever.
std::optional<dev_t> FindDevice(const HostRoots& roots, const std::string& name, const std::string& path) {
    struct stat status {};
    if (!name.starts_with(roots.Dev + "/") || stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) {
        return std::nullopt;
    }
    return status.st_rdev;
}

// A device that somebody works with as such. Mounting opens none in a process, so that these are no mounts.
void AddProcesses(const HostRoots& roots, Users& users) {
    const std::string self = std::to_string(getpid());
    for (const std::string& process : ListFolder(roots.Proc)) {
        if (!IsProcess(process) || process == self) {
            continue;
        }
        const std::string folder = roots.Proc + "/" + process;
        std::set<dev_t> devices;
        for (const std::string& descriptor : ListFolder(folder + "/fd")) {
            const std::string path = folder + "/fd/" + descriptor;
            if (const std::optional<dev_t> device = FindDevice(roots, ReadLink(path), path)) {
                devices.insert(*device);
            }
        }
        for (const dev_t device : devices) {
            users[device].push_back({"process", ReadFirstLine(folder + "/comm") + " (process " + process + ")"});
        }
    }
}

void AddLoops(const HostRoots& roots, Users& users) {
    for (const std::string& name : ListFolder(roots.Sys + "/class/block")) {
        const std::string backing = ReadFirstLine(roots.Sys + "/class/block/" + name + "/loop/backing_file");
        if (const std::optional<dev_t> device = FindDevice(roots, backing, backing)) {
            users[*device].push_back({"loop", "/dev/" + name});
        }
    }
}

// What is mounted where this process does not see it: containers and services have tables of mounts of their own.
void AddForeignMounts(const HostRoots& roots, Users& users) {
    std::set<dev_t> devices;
    std::set<std::string> namespaces{ReadLink(roots.Proc + "/self/ns/mnt")};
    for (const std::string& process : ListFolder(roots.Proc)) {
        if (!IsProcess(process) || !namespaces.insert(ReadLink(roots.Proc + "/" + process + "/ns/mnt")).second) {
            continue;
        }
        std::ifstream table(roots.Proc + "/" + process + "/mountinfo");
        std::string line;
        while (std::getline(table, line)) {
            std::istringstream fields(line);
            std::string word;
            fields >> word >> word >> word;
            if (const std::optional<dev_t> device = ParseDeviceNumber(word); device && devices.insert(*device).second) {
                users[*device].push_back({"foreign_mount", "process " + process});
            }
        }
    }
}

} // namespace

std::map<dev_t, std::vector<DeviceUser>> FindDeviceUsers(const HostRoots& roots) {
    Users users;
    AddLoops(roots, users);
    AddProcesses(roots, users);
    AddForeignMounts(roots, users);
    return users;
}

} // namespace vornix::disks_tool
