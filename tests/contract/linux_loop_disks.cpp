// Loop devices for the tests of disks.
#include "linux_loop_disks.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <windows.h>

#include <winioctl.h>

#include "linux/linux_disks.h"

namespace {

LoopDisks& Disks() {
    static LoopDisks& disks = *new LoopDisks;
    return disks;
}

// Attaches a loop device over a file that has no name any more, and keeps both open: the device goes with its last
// descriptor and the file with the device, however the test program ends.
bool Attach(LoopDisk& disk, uint64_t length, uint32_t sectorSize, bool isReadOnly) {
    char path[] = "/tmp/vornix-loop-XXXXXX";
    const int file = mkostemp(path, O_CLOEXEC);
    if (file < 0 || unlink(path) != 0 || ftruncate(file, static_cast<off_t>(length)) != 0) {
        return false;
    }
    disk.File = "/proc/self/fd/" + std::to_string(file);
    disk.Length = length;
    disk.SectorSize = sectorSize;
    const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (control < 0) {
        return false;
    }
    // Another process may take the free device between the two steps.
    for (int attempt = 0; attempt < 1000 && disk.Name.empty(); attempt++) {
        const int number = ioctl(control, LOOP_CTL_GET_FREE);
        const std::string name = "loop" + std::to_string(number);
        const int device = number < 0 ? -1 : open(("/dev/" + name).c_str(), O_RDWR | O_CLOEXEC);
        if (device < 0) {
            break;
        }
        loop_config config{};
        config.fd = static_cast<uint32_t>(file);
        config.block_size = sectorSize;
        config.info.lo_flags = LO_FLAGS_PARTSCAN | LO_FLAGS_AUTOCLEAR | (isReadOnly ? LO_FLAGS_READ_ONLY : 0);
        if (ioctl(device, LOOP_CONFIGURE, &config) == 0) {
            disk.Name = name;
        } else {
            close(device);
        }
    }
    const int code = errno;
    close(control);
    errno = code;
    return !disk.Name.empty();
}

// How many descriptors of this process are of the device.
int CountDescriptors(const std::string& name) {
    struct stat wanted {};
    if (stat(("/dev/" + name).c_str(), &wanted) != 0) {
        return -1;
    }
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        struct stat status {};
        if (stat(entry.path().c_str(), &status) == 0 && S_ISBLK(status.st_mode) && status.st_rdev == wanted.st_rdev) {
            count++;
        }
    }
    return count;
}

// Whether the platform opens this device, and no other, under its number.
bool IsFoundByItsNumber(const LoopDisk& disk) {
    const int before = CountDescriptors(disk.Name);
    const HANDLE handle = OpenNumber(disk.Number, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, 0);
    const int opened = CountDescriptors(disk.Name);
    return handle != INVALID_HANDLE_VALUE && CloseHandle(handle) && opened == before + 1;
}

class LoopEnvironment : public testing::Environment {
public:
    void SetUp() override {
        // The numbers of this program alone: those of the machine stay as they are, whatever others attach meanwhile.
        std::string run = (std::filesystem::temp_directory_path() / "vornix-run-XXXXXX").string();
        ASSERT_NE(mkdtemp(run.data()), nullptr);
        run_ = run;
        vornix::platform::TheHostRoots().Run = run;
        vornix::platform::TheHostRoots().Owner = geteuid();
        LoopDisks& disks = Disks();
        constexpr uint64_t length = 16 << 20;
        // A last stretch that is no whole chunk, and for the small sectors no whole page.
        if (!Attach(disks.Small, length + 3ull * 512, 512, false) ||
            !Attach(disks.Large, length + 3ull * 4096, 4096, false) || !Attach(disks.ReadOnly, length, 512, true)) {
            disks.WhyNone = std::string("no loop devices here: ") + std::strerror(errno);
            return;
        }
        const auto& hostDisks = vornix::platform::HostDisks();
        for (LoopDisk* disk : {&disks.Small, &disks.Large, &disks.ReadOnly}) {
            for (const vornix::platform::HostDisk& hostDisk : hostDisks) {
                if (hostDisk.Name == disk->Name) {
                    disk->Number = hostDisk.Number;
                }
            }
            // The tests write to what has this number, and it must be nobody else's.
            if (!IsFoundByItsNumber(*disk)) {
                std::fprintf(stderr, "%s is not what PhysicalDrive%d opens\n", disk->Name.c_str(), disk->Number);
                std::exit(1);
            }
        }
    }

    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(run_, ignored);
    }

private:
    std::filesystem::path run_;
};

[[maybe_unused]] testing::Environment* const environment = testing::AddGlobalTestEnvironment(new LoopEnvironment);

} // namespace

const LoopDisks& TheLoopDisks() {
    return Disks();
}

HANDLE OpenNumber(int number, DWORD access, DWORD share, DWORD flags) {
    const std::wstring path = L"\\\\.\\PhysicalDrive" + std::to_wstring(number);
    return CreateFileW(path.c_str(), access, share, nullptr, OPEN_EXISTING, flags, nullptr);
}

BOOL UpdateProperties(HANDLE disk, DWORD* returned) {
    DWORD count = 99;
    const BOOL isUpdated = DeviceIoControl(disk, IOCTL_DISK_UPDATE_PROPERTIES, nullptr, 0, nullptr, 0, &count, nullptr);
    if (returned != nullptr) {
        *returned = count;
    }
    return isUpdated;
}
