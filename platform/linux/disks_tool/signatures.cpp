// What lies on a disk or a partition by its own account, found by libblkid.
#include "signatures.h"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>

namespace vornix::disks_tool {

namespace {

std::string LookUp(blkid_probe probe, const char* name) {
    const char* data = nullptr;
    size_t size = 0;
    if (blkid_probe_lookup_value(probe, name, &data, &size) != 0 || data == nullptr) {
        return {};
    }
    // The size counts the zero behind the text.
    return {data, size > 0 && data[size - 1] == '\0' ? size - 1 : size};
}

Signature Probe(int descriptor) {
    const std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> probe(blkid_new_probe(), blkid_free_probe);
    Signature signature;
    if (probe == nullptr || blkid_probe_set_device(probe.get(), descriptor, 0, 0) != 0) {
        return signature;
    }
    (void)blkid_probe_enable_superblocks(probe.get(), 1);
    (void)blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL);
    (void)blkid_probe_enable_partitions(probe.get(), 1);
    constexpr int ambivalent = -2;
    const int found = blkid_do_safeprobe(probe.get());
    if (found == 0) {
        signature.Type = LookUp(probe.get(), "TYPE");
        signature.Label = LookUp(probe.get(), "LABEL");
        signature.PartitionTable = LookUp(probe.get(), "PTTYPE");
    } else if (found == ambivalent) {
        // More than one kind has left its mark here; which one counts is not for a guess.
        signature.Type = "ambivalent";
    }
    return signature;
}

// How long a disk has for its answer. A dying one may keep a read for minutes, and longer.
constexpr int patienceInMs = 15000;

std::string ReadUntil(int channel, int timeoutInMs) {
    std::string text;
    for (;;) {
        pollfd wanted{channel, POLLIN, 0};
        const int ready = poll(&wanted, 1, timeoutInMs);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        std::array<char, 4096> block{};
        const ssize_t count = ready > 0 ? read(channel, block.data(), block.size()) : -1;
        if (count <= 0) {
            return count == 0 ? text : std::string();
        }
        text.append(block.data(), static_cast<size_t>(count));
    }
}

} // namespace

Signature FindSignature(int descriptor) {
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) {
        return Probe(descriptor);
    }
    // A read that hangs cannot be called off. Another process can be left alone with it.
    const pid_t child = fork();
    if (child == 0) {
        const Signature found = Probe(descriptor);
        const std::string text =
            found.Type + std::string(1, '\0') + found.Label + std::string(1, '\0') + found.PartitionTable + '\n';
        _exit(write(channel[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    (void)close(channel[1]);
    const std::string text = child < 0 ? std::string() : ReadUntil(channel[0], patienceInMs);
    (void)close(channel[0]);
    const size_t first = text.find('\0');
    const size_t second = first == std::string::npos ? first : text.find('\0', first + 1);
    if (second == std::string::npos || text.back() != '\n') {
        if (child > 0) {
            (void)kill(child, SIGKILL);
        }
        return {"does not answer", "", ""};
    }
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return {text.substr(0, first), text.substr(first + 1, second - first - 1),
            text.substr(second + 1, text.size() - second - 2)};
}

} // namespace vornix::disks_tool
