// On which disks of a made-up host the root folder lies, through everything that can be between the two.
#include "linux/root_disks.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <functional>
#include <sstream>

#include "linux_host_calls.h"
#include "linux_made_up_host.h"

namespace {

using vornix::platform::FindRootExtents;
using vornix::platform::FindWholeDisks;
using vornix::platform::HostExtent;

class LinuxRootDisks : public MadeUpHostTest {
protected:
    void SetUp() override {
        MadeUpHostTest::SetUp();
        Add({"sda", "8:0", true, "1", "1000"});
        AddPartition("sda", "sda1", "8:1", "100", "300");
        AddPartition("sda", "sda2", "8:2", "400", "500");
        Add({"sdb", "8:16", true, "2", "2000"});
        AddPartition("sdb", "sdb1", "8:17", "10", "1000");
    }

    // One line of a table of mounts.
    static std::string Mounted(const std::string& device, const std::string& point, const std::string& type,
                               const std::string& source, const std::string& options = "rw", int id = 20) {
        return std::to_string(id) + " 1 " + device + " / " + point + " rw shared:1 master:2 - " + type + " " + source +
               " " + options + "\n";
    }

    void SetMounts(const std::string& own, const std::string& process1 = "") const {
        Write("proc/self/mountinfo", own);
        Write("proc/1/mountinfo", process1);
    }

    // "8:0 512+1024 8:16 0+2048": devices, and first byte and length of each stretch.
    std::string Find() const {
        std::ostringstream text;
        for (const HostExtent& extent : FindRootExtents(roots_, FindWholeDisks(roots_))) {
            text << (text.tellp() > 0 ? " " : "") << major(extent.Disk) << ':' << minor(extent.Disk) << ' '
                 << extent.Start << '+' << extent.Length;
        }
        return text.str();
    }

    // Devices upon each other, `count` of them upon the partition sda1 or another. Gives the number of the topmost.
    std::string AddLayers(int count, std::string below = "8:1") {
        for (int layer = 0; layer < count; layer++) {
            const std::string name = "dm-" + std::to_string(++layers_);
            const std::string device = "253:" + std::to_string(layers_);
            Add({name, device, false});
            AddSlave(name, "below", below);
            below = device;
        }
        return below;
    }

    // The device number that the made-up root folder really has.
    dev_t DeviceOfRoot() const {
        struct stat status {};
        EXPECT_EQ(stat(roots_.Root.c_str(), &status), 0);
        return status.st_dev;
    }

    int layers_ = 0;
};

TEST_F(LinuxRootDisks, PartitionLiesInItsDiskAndADiskIsAllOfItself) {
    SetMounts(Mounted("8:1", "/", "ext4", "/dev/sda1") + Mounted("8:17", "/home", "ext4", "/dev/sdb1"));
    EXPECT_EQ(Find(), "8:0 51200+153600");
    SetMounts(Mounted("8:16", "/", "ext4", "/dev/sdb"));
    EXPECT_EQ(Find(), "8:16 0+1024000");
    SetMounts(Mounted("8:1", "/", "ext4", "/dev/sda1") + Mounted("8:17", "/", "ext4", "/dev/sdb1"));
    EXPECT_EQ(Find(), "8:16 5120+512000") << "the last one covers the others";
}

TEST_F(LinuxRootDisks, ComposedDevicesLieOnAllThatTheyAreComposedOf) {
    // Encrypted, in a logical volume, on a RAID of two partitions.
    Add({"dm-1", "253:1", false});
    AddSlave("dm-1", "dm-0", "253:0");
    Add({"dm-0", "253:0", false});
    AddSlave("dm-0", "md0", "9:0");
    Add({"md0", "9:0", false});
    AddSlave("md0", "sda2", "8:2");
    AddSlave("md0", "sdb1", "8:17");
    AddPartition("md0", "md0p1", "259:5", "64", "100");
    SetMounts(Mounted("253:1", "/", "ext4", "/dev/mapper/root"));
    EXPECT_EQ(Find(), "8:0 204800+256000 8:16 5120+512000");
    SetMounts(Mounted("259:5", "/", "ext4", "/dev/md0p1"));
    EXPECT_EQ(Find(), "8:0 204800+256000 8:16 5120+512000") << "a partition of a RAID";
    // A circle has an end.
    AddSlave("dm-0", "dm-1", "253:1");
    SetMounts(Mounted("253:1", "/", "ext4", "/dev/mapper/root"));
    EXPECT_EQ(Find(), "8:0 204800+256000 8:16 5120+512000");
}

TEST_F(LinuxRootDisks, BtrfsLiesOnAllItsMembers) {
    Write("sys/class/block/sda1/dev", "8:1");
    Write("sys/fs/btrfs/features/none", "0");
    Write("sys/fs/btrfs/6f0a/devices/sda1/dev", "8:1");
    Write("sys/fs/btrfs/6f0a/devices/sdb1/dev", "8:17");
    Write("sys/fs/btrfs/7f0a/devices/sda2/dev", "8:2");
    SetMounts(Mounted("0:30", "/", "btrfs", "/dev/sda1", "rw,subvolid=256,subvol=/@"));
    EXPECT_EQ(Find(), "8:0 51200+153600 8:16 5120+512000");
    // Another kind of file system names them all.
    SetMounts(Mounted("0:30", "/", "bcachefs", "/dev/sda1:/dev/sda2"));
    EXPECT_EQ(Find(), "8:0 51200+153600");
    Write("sys/class/block/sda2/dev", "8:2");
    EXPECT_EQ(Find(), "8:0 51200+153600 8:0 204800+256000");
}

TEST_F(LinuxRootDisks, BtrfsIsAskedForItsNameAndNotForItsSource) {
    Write("sys/class/block/sdb1/dev", "8:17");
    Write("sys/fs/btrfs/01234567-89ab-cdef-fedc-ba9876543210/devices/sda1/dev", "8:1");
    const ScopedHostCalls scope;
    TheHostCalls().BtrfsId = "\x01\x23\x45\x67\x89\xab\xcd\xef\xfe\xdc\xba\x98\x76\x54\x32\x10";
    SetMounts(Mounted("0:30", "/", "btrfs", "/dev/sdb1"));
    EXPECT_EQ(Find(), "8:0 51200+153600");
    SetMounts(Mounted("0:30", "/", "ext4", "/dev/sdb1"));
    EXPECT_EQ(Find(), "8:16 5120+512000") << "a name is only asked of btrfs";
}

TEST_F(LinuxRootDisks, SourcesAreWrittenWithOctalNumbersAndAreNodes) {
    for (const char* name : {"a b", "a\\089", "a\\7 8", "a\\06"}) {
        Write(std::string("sys/class/block/") + name + "/dev", "8:1");
        SetMounts(Mounted("0:30", "/", "bcachefs", "/dev/x"));
        EXPECT_EQ(Find(), "");
    }
    for (const char* source :
         {"/dev/a\\040b", "/dev/\\141\\040\\142", "/dev/a\\089", "/dev/a\\7\\0408", "/dev/a\\06"}) {
        SetMounts(Mounted("0:30", "/", "bcachefs", source));
        EXPECT_EQ(Find(), "8:0 51200+153600") << source;
    }
    // The node says which device it is, where it is one.
    Write("dev/a b", "");
    SetMounts(Mounted("0:30", "/", "bcachefs", "/dev/a\\040b"));
    EXPECT_EQ(Find(), "8:0 51200+153600");
    std::filesystem::remove(Path("dev/a b"));
    if (mknod(Path("dev/a b").c_str(), S_IFBLK | 0600, makedev(8, 17)) != 0) {
        GTEST_SKIP() << "no nodes can be made here";
    }
    EXPECT_EQ(Find(), "8:16 5120+512000");
}

TEST_F(LinuxRootDisks, WhatIsNoDiskIsNotTold) {
    Add({"ram0", "1:0"});
    SetMounts(Mounted("1:0", "/", "ext2", "/dev/ram0"));
    EXPECT_EQ(Find(), "");
}

TEST_F(LinuxRootDisks, SixteenLayersAreFollowedWhateverTheyAre) {
    const ScopedHostCalls scope;
    TheHostCalls().BtrfsId = std::string(16, '\x11');
    Write("system.img", "");
    AddLoop(0, 5);
    Write("sys/block/loop0/loop/backing_file", Path("system.img"));
    const std::string silent = Mounted("0:21", "/proc", "proc", "proc", "rw", 4000001);
    Add({"dm-root", std::to_string(major(DeviceOfRoot())) + ":" + std::to_string(minor(DeviceOfRoot())), false});
    // What is mounted, and how many layers may lie below that.
    const struct {
        const char* What;
        int Layers;
        std::function<void(const std::string& top)> Mount;
    } cases[] = {
        {"the device", 16, [&](const std::string& top) { SetMounts(Mounted(top, "/", "ext4", "none")); }},
        {"of process 1", 16, [&](const std::string& top) { SetMounts("", Mounted(top, "/", "ext4", "none")); }},
        {"a source", 15,
         [&](const std::string& top) {
             Write("sys/class/block/top/dev", top);
             SetMounts(Mounted("0:30", "/", "bcachefs", "/dev/top"));
         }},
        {"a member of btrfs", 15,
         [&](const std::string& top) {
             Write("sys/fs/btrfs/11111111-1111-1111-1111-111111111111/devices/top/dev", top);
             SetMounts(Mounted("0:30", "/", "btrfs", "none"));
         }},
        {"a layer of an overlay", 15,
         [&](const std::string& top) {
             SetMounts(Mounted("0:40", "/", "overlay", "none", "upperdir=" + Folder().string()) +
                       Mounted(top, Folder().string(), "ext4", "none"));
         }},
        {"the file of a loop device", 15,
         [&](const std::string& top) {
             SetMounts(Mounted("7:0", "/", "ext4", "none") + Mounted(top, Folder().string(), "ext4", "none"));
         }},
        {"the mount of process 1 with the number of the folder's", 16,
         [&](const std::string& top) {
             struct statx status {};
             ASSERT_EQ(statx(AT_FDCWD, roots_.Root.c_str(), 0, STATX_MNT_ID, &status), 0);
             SetMounts(silent, Mounted(top, "/srv", "ext4", "none", "rw", static_cast<int>(status.stx_mnt_id)));
         }},
        {"the device of the folder", 15,
         [&](const std::string& top) {
             AddSlave("dm-root", "below", top);
             SetMounts(silent);
         }},
        {"a folder in memory of a btrfs", 15, [&](const std::string& top) {
             roots_.Root = "/dev/shm";
             Write("sys/fs/btrfs/11111111-1111-1111-1111-111111111111/devices/top/dev", top);
             SetMounts(silent);
         }}};
    for (const auto& oneCase : cases) {
        if (std::string(oneCase.What) == "the device of the folder" && major(DeviceOfRoot()) == 0) {
            continue; // it lies on no block device of its own
        }
        oneCase.Mount(AddLayers(oneCase.Layers));
        EXPECT_EQ(Find(), "8:0 51200+153600") << oneCase.What;
        oneCase.Mount(AddLayers(oneCase.Layers + 1));
        EXPECT_EQ(Find().find("8:0"), std::string::npos) << oneCase.What;
    }
    for (const int layers : {15, 16}) {
        SetMounts(Mounted(AddLayers(layers, "7:0"), "/", "ext4", "none") +
                  Mounted("8:1", Folder().string(), "ext4", "none"));
        EXPECT_EQ(Find(), layers == 15 ? "8:0 51200+153600" : "7:0 0+1048576") << "upon a loop device";
    }
}

TEST_F(LinuxRootDisks, OverlayUponItselfHasAnEnd) {
    std::string options = "upperdir=" + Path("root");
    for (int layer = 0; layer < 8; layer++) {
        options += ",lowerdir=" + Path("root");
    }
    SetMounts(Mounted("0:40", "/", "overlay", "overlay", options));
    EXPECT_EQ(Find(), "");
}

TEST_F(LinuxRootDisks, OverlayLiesWhereItsLayersLie) {
    std::filesystem::create_directories(Folder() / "live");
    std::filesystem::create_directories(Folder() / "changes");
    const std::string options =
        "rw,lowerdir=" + Path("live") + ",upperdir=" + Path("changes") + ",workdir=" + Path("w");
    const std::string overlay = Mounted("0:40", "/", "overlay", "overlay", options);
    SetMounts(overlay + Mounted("0:41", Path("changes"), "tmpfs", "tmpfs") +
              Mounted("8:17", Path("live"), "ext4", "/dev/sdb1"));
    EXPECT_EQ(Find(), "8:16 5120+512000") << "the changes are in memory";
    SetMounts(overlay + Mounted("8:1", Path("changes"), "ext4", "/dev/sda1") +
              Mounted("8:17", Path("live"), "ext4", "/dev/sdb1"));
    EXPECT_EQ(Find(), "8:0 51200+153600");
}

TEST_F(LinuxRootDisks, LoopDeviceLiesWhereItsFileLies) {
    AddLoop(0, 5);
    Write("system.img", "");
    Write("sys/block/loop0/loop/backing_file", Path("system.img"));
    const std::string holder = Mounted("8:17", Folder().string(), "ext4", "/dev/sdb1");
    SetMounts(Mounted("7:0", "/", "squashfs", "/dev/loop0") + holder);
    EXPECT_EQ(Find(), "8:16 5120+512000");
    // From a changed root the path is one of process 1's.
    SetMounts(Mounted("7:0", "/", "squashfs", "/dev/loop0"), Mounted("8:17", "/images", "ext4", "/dev/sdb1"));
    Write("sys/block/loop0/loop/backing_file", "/images/system.img");
    EXPECT_EQ(Find(), "7:0 0+1048576") << "no such file anywhere";
    Write("proc/1/root/images/system.img", "");
    EXPECT_EQ(Find(), "8:16 5120+512000");
}

TEST_F(LinuxRootDisks, MemoryAndNetworkAreNoDisks) {
    SetMounts(Mounted("0:30", "/", "tmpfs", "tmpfs"), Mounted("0:31", "/", "nfs4", "server:/root"));
    EXPECT_EQ(Find(), "");
    SetMounts("no table\n");
    std::filesystem::remove_all(roots_.Root);
    EXPECT_EQ(Find(), "");
}

TEST_F(LinuxRootDisks, RootOfProcess1CountsBehindTheOwn) {
    SetMounts(Mounted("8:17", "/", "ext4", "/dev/sdb1"), Mounted("8:1", "/", "ext4", "/dev/sda1"));
    EXPECT_EQ(Find(), "8:16 5120+512000 8:0 51200+153600");
    SetMounts(Mounted("8:2", "/", "ext4", "/dev/sda2"), Mounted("8:1", "/", "ext4", "/dev/sda1"));
    EXPECT_EQ(Find(), "8:0 204800+256000") << "that disk is the system's already";
    SetMounts(Mounted("0:30", "/", "tmpfs", "tmpfs"), Mounted("8:1", "/", "ext4", "/dev/sda1"));
    EXPECT_EQ(Find(), "8:0 51200+153600") << "a changed root in memory";
}

TEST_F(LinuxRootDisks, SilentTableIsHelpedByTheMountOfProcess1) {
    // A changed root that is no mount point: the table has only what is mounted below it.
    struct statx status {};
    ASSERT_EQ(statx(AT_FDCWD, roots_.Root.c_str(), 0, STATX_BASIC_STATS | STATX_MNT_ID, &status), 0);
    const std::string below = Mounted("0:21", "/proc", "proc", "proc", "rw", 4000001);
    const std::string tables = Mounted("8:1", "/", "ext4", "/dev/sda1", "rw", 4000002) +
                               Mounted("0:30", "/srv", "btrfs", "/dev/sdb1", "rw", static_cast<int>(status.stx_mnt_id));
    Write("sys/class/block/sdb1/dev", "8:17");
    if ((status.stx_mask & STATX_MNT_ID) == 0) {
        GTEST_SKIP() << "this kernel does not tell to which mount a folder belongs";
    }
    SetMounts(below, tables);
    EXPECT_EQ(Find(), "8:16 5120+512000 8:0 51200+153600");
}

TEST_F(LinuxRootDisks, SilentTableIsHelpedByADeviceNumber) {
    const std::string below = Mounted("0:21", "/proc", "proc", "proc", "rw", 4000001);
    const std::string device = std::to_string(major(DeviceOfRoot())) + ":" + std::to_string(minor(DeviceOfRoot()));
    // In a namespace of its own, where the numbers of mounts are others.
    SetMounts(below, Mounted("8:1", "/", "ext4", "/dev/sda1", "rw", 4000002) +
                         Mounted(device, "/srv", "ext4", "/dev/sdx1", "rw", 4000003));
    if (major(DeviceOfRoot()) == 0) {
        GTEST_SKIP() << "the folder lies on no block device of its own";
    }
    std::filesystem::remove(Folder() / "sys/dev/block" / device);
    Add({"sdx", device == "8:160" ? "8:176" : "8:160", true, "3", "5000"});
    AddPartition("sdx", "sdx1", device, "8", "4000");
    EXPECT_EQ(Find(), "8:160 4096+2048000 8:0 51200+153600");
    // Process 1 cannot be looked at: a container that shares its processes with nobody, or a kernel that hides them.
    std::filesystem::remove(Folder() / "proc/1/mountinfo");
    EXPECT_EQ(Find(), "8:160 4096+2048000");
}

} // namespace
