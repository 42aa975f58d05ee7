// The block devices of the host as lsblk shows them.
#include "block_devices.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "clean_text.h"

namespace vornix::disks_tool {

namespace {

using Json = nlohmann::json;

// As text, since lsblk gives some columns as numbers or as null.
std::string GetText(const Json& record, const char* key) {
    const auto found = record.find(key);
    if (found == record.end() || !found->is_string()) {
        return {};
    }
    std::string text = found->get<std::string>();
    // Disks fill their names with blanks.
    const size_t from = text.find_first_not_of(' ');
    return from == std::string::npos ? std::string() : text.substr(from, text.find_last_not_of(' ') - from + 1);
}

std::vector<BlockDevice> ReadDevices(const Json& records) {
    std::vector<BlockDevice> devices;
    for (const Json& record : records) {
        BlockDevice device;
        device.Name = GetText(record, "kname");
        device.Path = GetText(record, "path");
        device.Number = GetText(record, "maj:min");
        device.Type = GetText(record, "type");
        device.Model = GetText(record, "model");
        device.Serial = GetText(record, "serial");
        device.Transport = GetText(record, "tran");
        for (const Json& point : record.value("mountpoints", Json::array())) {
            if (point.is_string()) {
                device.MountPoints.push_back(point.get<std::string>());
            }
        }
        device.Children = ReadDevices(record.value("children", Json::array()));
        devices.push_back(std::move(device));
    }
    return devices;
}

} // namespace

BlockDevices ParseLsblk(const std::string& output) {
    BlockDevices result;
    // lsblk passes on what the disks call themselves, which need not be text.
    const Json document = Json::parse(RepairUtf8(output), nullptr, false);
    if (!document.is_object() || !document.contains("blockdevices")) {
        result.Error = "lsblk printed something else than a list of devices";
        return result;
    }
    try {
        result.Devices = ReadDevices(document["blockdevices"]);
    } catch (const Json::exception& error) {
        result.Devices.clear();
        result.Error = std::string("the list of lsblk cannot be understood: ") + error.what();
    }
    return result;
}

BlockDevices AskLsblk() {
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) {
        return {{}, std::string("lsblk could not be run: ") + std::strerror(errno)};
    }
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions);
    (void)posix_spawn_file_actions_adddup2(&actions, channel[1], STDOUT_FILENO);
    const char* const arguments[] = {
        "lsblk", "--json", "--all", "--output", "KNAME,PATH,MAJ:MIN,TYPE,MODEL,SERIAL,TRAN,MOUNTPOINTS", nullptr};
    // Nothing of the caller's: lsblk runs with root's rights, and its output has to be the one that is read here.
    const char* const environment[] = {"LC_ALL=C.UTF-8", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", nullptr};
    pid_t child = -1;
    int code = ENOENT;
    for (const char* path : {"/usr/bin/lsblk", "/bin/lsblk", "/usr/sbin/lsblk", "/sbin/lsblk"}) {
        if (code == ENOENT) {
            code = posix_spawn(&child, path, &actions, nullptr, const_cast<char* const*>(arguments),
                               const_cast<char* const*>(environment));
        }
    }
    (void)posix_spawn_file_actions_destroy(&actions);
    (void)close(channel[1]);
    std::string output;
    char block[4096];
    while (code == 0) {
        const ssize_t count = read(channel[0], block, sizeof block);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        output.append(block, static_cast<size_t>(count));
    }
    (void)close(channel[0]);
    if (code != 0) {
        return {{}, std::string("lsblk could not be run: ") + std::strerror(code)};
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return {{}, "lsblk failed"};
    }
    return ParseLsblk(output);
}

} // namespace vornix::disks_tool
