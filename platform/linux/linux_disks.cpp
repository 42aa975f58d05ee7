// Disks of the Linux build: how they are opened, and the answers to DeviceIoControl.
#include "linux_disks.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "disk_numbers.h"
#include "disk_users.h"
#include "durable_writes.h"
#include "last_error.h"
#include "linux_calls.h"
#include "root_disks.h"
#include "share_modes.h"
#include "unsupported.h"

namespace vornix::platform {

namespace {

DWORD ErrorOfDiskOpen(int code) {
    // A node without its device is a disk that is not there; once open, it would be one that was pulled out.
    return code == ENXIO || code == ENODEV ? ERROR_FILE_NOT_FOUND : ErrorFromErrno(code, Subject::Disk);
}

// Whoever gave the number saw it in a list. Where that list is damaged the number may be any disk's, so that nothing is
// done with it; the next run finds the disks numbered anew.
std::vector<HostDisk> NumberDisksOrEnd() {
    NumberedDisks numbered = NumberDisks(TheHostRoots());
    if (!numbered.Damage.empty()) {
        std::fprintf(
            stderr,
            "FATAL: the disk numbers of this boot in %s are damaged (%s) - look at the disks and their numbers "
            "anew before you go on (GetLastError=%u)\n",
            RegistryPath(TheHostRoots()).c_str(), numbered.Damage.c_str(), ERROR_FILE_NOT_FOUND);
        std::exit(1);
    }
    return std::move(numbered.Disks);
}

// What direct transfers demand of memory: the kernel's own word where it gives one, else whole sectors.
uint32_t DirectMemoryAlignment([[maybe_unused]] int descriptor, uint32_t sectorSize) {
#ifdef STATX_DIOALIGN
    struct statx status {};
    if (statx(descriptor, "", AT_EMPTY_PATH, STATX_DIOALIGN, &status) == 0 && (status.stx_mask & STATX_DIOALIGN) != 0 &&
        status.stx_dio_mem_align != 0) {
        return status.stx_dio_mem_align;
    }
#endif
    return sectorSize;
}

// ---------------------------------------------------------------------------------------------------------------
// Device control

// Puts the answer of a control call into the caller's buffer.
BOOL Answer(const void* record, size_t length, LPVOID out, DWORD outLength, LPDWORD returned) {
    if (outLength < length) {
        return FailWith(ERROR_INSUFFICIENT_BUFFER);
    }
    std::memcpy(out, record, length);
    *returned = static_cast<DWORD>(length);
    return TRUE;
}

BOOL AnswerLength(const OpenObject& disk, LPVOID out, DWORD outLength, LPDWORD returned) {
    if ((disk.Access & GENERIC_READ) == 0) {
        return FailWith(ERROR_ACCESS_DENIED);
    }
    GET_LENGTH_INFORMATION answer{};
    answer.Length.QuadPart = static_cast<LONGLONG>(disk.Length);
    return Answer(&answer, sizeof answer, out, outLength, returned);
}

BOOL AnswerGeometry(const OpenObject& disk, LPVOID out, DWORD outLength, LPDWORD returned) {
    // The cylinders of no disk of today; these are the figures that Windows translates every disk to.
    constexpr uint64_t tracksPerCylinder = 255;
    constexpr uint64_t sectorsPerTrack = 63;
    DISK_GEOMETRY_EX answer{};
    answer.Geometry.Cylinders.QuadPart =
        static_cast<LONGLONG>(disk.Length / disk.SectorSize / (tracksPerCylinder * sectorsPerTrack));
    answer.Geometry.MediaType = disk.Removable ? RemovableMedia : FixedMedia;
    answer.Geometry.TracksPerCylinder = tracksPerCylinder;
    answer.Geometry.SectorsPerTrack = sectorsPerTrack;
    answer.Geometry.BytesPerSector = disk.SectorSize;
    answer.DiskSize.QuadPart = static_cast<LONGLONG>(disk.Length);
    return Answer(&answer, sizeof answer, out, outLength, returned);
}

BOOL RereadPartitionTable(OpenObject& disk, LPDWORD returned) {
    *returned = 0;
    if (!FlushDisk(disk)) {
        return FALSE;
    }
    if (ioctl(disk.Descriptor, BLKRRPART) != 0) {
        return FailWith(ErrorFromErrno(errno, Subject::Disk));
    }
    return TRUE;
}

// No disk has this number: the program's are non-negative signed 32-bit values, and this is -1 as one of them.
constexpr DWORD numberOfNoDisk = 0xFFFFFFFF;

DWORD NumberOfDisk(dev_t device) {
    const std::vector<HostDisk>& disks = HostDisks();
    const auto found =
        std::find_if(disks.begin(), disks.end(), [device](const HostDisk& disk) { return disk.Device == device; });
    return found == disks.end() ? numberOfNoDisk : static_cast<DWORD>(found->Number);
}

BOOL AnswerSystemExtents(LPVOID out, DWORD outLength, LPDWORD returned) {
    *returned = 0;
    std::vector<HostExtent> extents = FindRootExtents(TheHostRoots(), HostDisks());
    if (extents.empty()) {
        // The system runs from memory or from the network. It still has a volume, but on no disk.
        extents.emplace_back();
    }
    constexpr size_t head = offsetof(VOLUME_DISK_EXTENTS, Extents);
    if (outLength < head + sizeof(DISK_EXTENT)) {
        return FailWith(ERROR_INSUFFICIENT_BUFFER);
    }
    const size_t room = (outLength - head) / sizeof(DISK_EXTENT);
    auto* const bytes = static_cast<uint8_t*>(out);
    VOLUME_DISK_EXTENTS header{};
    header.NumberOfDiskExtents = static_cast<DWORD>(extents.size());
    std::memcpy(bytes, &header, head);
    const size_t count = std::min(room, extents.size());
    for (size_t i = 0; i < count; i++) {
        DISK_EXTENT extent{};
        extent.DiskNumber = extents[i].Disk == 0 ? numberOfNoDisk : NumberOfDisk(extents[i].Disk);
        extent.StartingOffset.QuadPart = static_cast<LONGLONG>(extents[i].Start);
        extent.ExtentLength.QuadPart = static_cast<LONGLONG>(extents[i].Length);
        std::memcpy(bytes + head + i * sizeof extent, &extent, sizeof extent);
    }
    *returned = static_cast<DWORD>(head + count * sizeof(DISK_EXTENT));
    return count == extents.size() ? TRUE : FailWith(ERROR_MORE_DATA);
}

} // namespace

const std::vector<HostDisk>& HostDisks() {
    static const std::vector<HostDisk>& disks = *new std::vector<HostDisk>(NumberDisksOrEnd());
    return disks;
}

std::unique_ptr<OpenObject> OpenDisk(uint64_t number, DWORD access, DWORD share, DWORD flags) {
    const std::vector<HostDisk>& disks = HostDisks();
    const auto found = std::find_if(disks.begin(), disks.end(), [number](const HostDisk& candidate) {
        return static_cast<uint64_t>(candidate.Number) == number;
    });
    if (found == disks.end()) {
        (void)FailWith(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    const HostDisk& disk = *found;

    int mode = O_NONBLOCK;
    mode |= (access & GENERIC_WRITE) == 0 ? O_RDONLY : (access & GENERIC_READ) != 0 ? O_RDWR : O_WRONLY;
    mode |= (flags & FILE_FLAG_NO_BUFFERING) != 0 ? O_DIRECT : 0;
    // The kernel gives this claim to nobody while the disk or a partition of it is mounted, part of a RAID or in any
    // other exclusive use, and to nobody else while it is held.
    const bool isExclusive = (share & (FILE_SHARE_READ | FILE_SHARE_WRITE)) != (FILE_SHARE_READ | FILE_SHARE_WRITE);
    mode |= isExclusive ? O_EXCL : 0;

    // Some kernels refuse this open and others every single write; here it is the open, before anything happens.
    if ((access & GENERIC_WRITE) != 0 && IsAttributeSet("/sys/block/" + disk.Name + "/ro")) {
        (void)FailWith(ERROR_WRITE_PROTECT);
        return nullptr;
    }

    auto object = std::make_unique<OpenObject>();
    object->Kind = ObjectKind::Disk;
    object->Access = access;
    object->Name = "PhysicalDrive" + std::to_string(number) + " (" + NodeOf(TheHostRoots(), disk) + ")";
    object->Device = disk.Device;
    object->Descriptor = OpenNode(TheHostRoots(), disk, mode);
    if (object->Descriptor < 0) {
        (void)FailWith(ErrorOfDiskOpen(errno));
        return nullptr;
    }
    int sectorSize = 0;
    if (ioctl(object->Descriptor, BLKGETSIZE64, &object->Length) != 0 ||
        ioctl(object->Descriptor, BLKSSZGET, &sectorSize) != 0) {
        (void)FailWith(ErrorFromErrno(errno, Subject::Disk));
        return nullptr;
    }
    if (object->Length == 0) {
        (void)FailWith(ERROR_NOT_READY);
        return nullptr;
    }
    object->SectorSize = static_cast<uint32_t>(sectorSize);
    object->Removable = IsAttributeSet("/sys/block/" + disk.Name + "/removable");
    if ((flags & FILE_FLAG_NO_BUFFERING) != 0) {
        object->MemoryAlignment = DirectMemoryAlignment(object->Descriptor, object->SectorSize);
    }
    if (isExclusive) {
        // Asks what names devices and looks into them to leave this one alone meanwhile. They may be at it just now.
        (void)flock(object->Descriptor, LOCK_EX | LOCK_NB);
    }
    if (!TakeSharePlace(object->Descriptor, access, share) ||
        (isExclusive && IsDiskInUse(object->Descriptor, disk.Device, object->Claims))) {
        (void)FailWith(ERROR_SHARING_VIOLATION);
        return nullptr;
    }
    return object;
}

std::unique_ptr<OpenObject> OpenSystemVolume(DWORD access) {
    if (access != GENERIC_READ) {
        EndUnsupported("CreateFileW", "access to the system volume", access);
    }
    constexpr uint32_t usualSector = 512;
    auto object = std::make_unique<OpenObject>();
    object->Kind = ObjectKind::SystemVolume;
    object->Access = access;
    object->SectorSize = usualSector;
    return object;
}

} // namespace vornix::platform

using namespace vornix::platform;

BOOL WINAPI LinuxDeviceIoControl(HANDLE device, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                                 LPDWORD returned, LPOVERLAPPED overlapped) {
    if (overlapped != nullptr) {
        EndUnsupported("DeviceIoControl", "an overlapped request");
    }
    if (returned == nullptr) {
        EndUnsupported("DeviceIoControl", "a request without a count");
    }
    if (in != nullptr || inLength != 0) {
        EndUnsupported("DeviceIoControl", "input with control code", code);
    }
    OpenObject* const object = FindObject(device);
    if (object == nullptr) {
        return FALSE;
    }
    const bool isDisk = object->Kind == ObjectKind::Disk;
    switch (code) {
    case IOCTL_DISK_GET_LENGTH_INFO:
        return isDisk ? AnswerLength(*object, out, outLength, returned) : FailWith(ERROR_INVALID_FUNCTION);
    case IOCTL_DISK_GET_DRIVE_GEOMETRY_EX:
        return isDisk ? AnswerGeometry(*object, out, outLength, returned) : FailWith(ERROR_INVALID_FUNCTION);
    case IOCTL_DISK_UPDATE_PROPERTIES:
        return isDisk ? RereadPartitionTable(*object, returned) : FailWith(ERROR_INVALID_FUNCTION);
    case IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS:
        return object->Kind == ObjectKind::SystemVolume ? AnswerSystemExtents(out, outLength, returned)
                                                        : FailWith(ERROR_INVALID_FUNCTION);
    default:
        EndUnsupported("DeviceIoControl", "control code", code);
    }
}
