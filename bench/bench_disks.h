// The disks of a described machine: each a file of the host behind a device name, with the length, the sectors and the
// share modes of a disk. Their control codes are in bench_disks.cpp.
#pragma once

#include "host.h"
#include "machine_description.h"
#include "open_objects.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vornix::bench {

class FrozenExtent;
class Tracker;

// The file behind a disk, or behind several: disks of one file are one disk that the machine has under several numbers,
// and what is written through one of them changes all.
class DiskFile {
public:
    explicit DiskFile(std::string path) : path_(std::move(path)) {}
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;

    // Opens the file at the first use: for writing too if the host allows it. False if it cannot be opened; the other
    // operations are for a file that could be.
    bool Open();

    HostTransfer ReadAt(std::uint64_t offset, void* buffer, std::size_t length);

    // Moves what is frozen of these bytes to safety first.
    HostTransfer WriteAt(std::uint64_t offset, const void* buffer, std::size_t length);

    // In bytes; 0 if the host does not tell.
    std::uint64_t FindSize();

private:
    friend class FrozenExtent;

    const std::string path_;
    std::unique_ptr<HostFile> file_;
    std::vector<FrozenExtent*> frozen_;
};

class Disk {
public:
    // The tracker is told of the program's writes; null where the machine has none. It must outlive the disk.
    Disk(DiskDescription description, std::shared_ptr<DiskFile> file, Tracker* tracker);
    Disk(const Disk&) = delete;
    Disk& operator=(const Disk&) = delete;

    const DiskDescription& Description() const { return description_; }

    // Answers an open of the disk's device.
    OpenOutcome Open(const OpenRequest& request);

    // A transfer of the program, within the disk's length. Short without an error where the file ends before the
    // length.
    HostTransfer ReadAt(std::uint64_t offset, void* buffer, std::size_t length);
    HostTransfer WriteAt(std::uint64_t offset, const void* buffer, std::size_t length);

    // A write of somebody else, which the tracker does not see. False if the host refuses it.
    bool Poke(std::uint64_t offset, const std::vector<std::uint8_t>& bytes);

    const std::shared_ptr<DiskFile>& File() const { return file_; }

private:
    friend class DiskObject;

    const DiskDescription description_;
    const std::shared_ptr<DiskFile> file_;
    Tracker* const tracker_;
    ShareLedger shares_;
};

// The bytes that a stretch of a disk held when this was made, for as long as it lives. What is written to the disk
// afterwards moves the old bytes here first, so that freezing costs nothing until then.
class FrozenExtent {
public:
    // The file must be open.
    FrozenExtent(std::shared_ptr<DiskFile> file, std::uint64_t start, std::uint64_t length);
    FrozenExtent(const FrozenExtent&) = delete;
    FrozenExtent& operator=(const FrozenExtent&) = delete;
    ~FrozenExtent();

    // `offset` is from the start of the extent.
    HostTransfer ReadAt(std::uint64_t offset, void* buffer, std::size_t length);

private:
    friend class DiskFile;

    // Called before `length` bytes of the disk are overwritten at `offset`.
    void Preserve(std::uint64_t offset, std::uint64_t length);

    // The old bytes of one block, or as many of them as were on the disk.
    std::vector<std::uint8_t> ReadBlock(std::uint64_t block);

    const std::shared_ptr<DiskFile> file_;
    std::uint64_t start_;
    std::uint64_t length_;
    std::map<std::uint64_t, std::vector<std::uint8_t>> preserved_; // by block
};

} // namespace vornix::bench
