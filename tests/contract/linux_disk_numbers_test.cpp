// Which devices of a made-up host are disks, in which order, and how their numbers stay with them until the next boot.
#include "linux/disk_numbers.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <sstream>

#include "linux_host_calls.h"
#include "linux_loop_disks.h"
#include "linux_made_up_host.h"

namespace {

using vornix::platform::FindWholeDisks;
using vornix::platform::HostDisk;
using vornix::platform::NumberDisks;
using vornix::platform::NumberedDisks;
using vornix::platform::OpenNode;
using Names = std::vector<std::string>;

class LinuxWholeDisks : public MadeUpHostTest {
protected:
    Names Find() const {
        Names names;
        for (const HostDisk& disk : FindWholeDisks(roots_)) {
            names.push_back(disk.Name);
        }
        return names;
    }
};

TEST_F(LinuxWholeDisks, HardwareComesFirstAndEachKindInTheOrderOfDeviceNumbers) {
    Add({"nvme0n1", "259:0"});
    Add({"vda", "254:0"});
    Add({"sdb", "8:16"});
    Add({"sda", "8:0"});
    Add({"sdaa", "65:160"});
    Add({"loop10", "7:10", false});
    Add({"loop9", "7:9", false});
    Add({"nbd0", "43:0", false});
    EXPECT_EQ(Find(), (Names{"sda", "sdb", "sdaa", "vda", "nvme0n1", "loop9", "loop10", "nbd0"}));
}

TEST_F(LinuxWholeDisks, EmptyLoopAndNetworkDevicesAreNoneAndEmptyDrivesAre) {
    Add({"loop0", "7:0", false, "1", "0"});
    Add({"nbd0", "43:0", false, "1", "0"});
    Add({"sda", "8:0", true, "1", "0"});
    EXPECT_EQ(Find(), Names{"sda"});
}

TEST_F(LinuxWholeDisks, DevicesComposedOfOthersAndMemoryAreNone) {
    int minor = 0;
    for (const char* name : {"ram0", "zram0", "dm-0", "md127", "bcache0", "drbd0", "zd0", "sr0", "fd0", "mtdblock0",
                             "ubiblock0_0", "mmcblk0boot0", "mmcblk0rpmb"}) {
        Add({name, "240:" + std::to_string(minor++), true, "1"});
    }
    // Whatever it is called: what lists others below it is reached through those.
    Add({"combined0", "241:0", true, "1"});
    AddSlave("combined0", "sda", "8:0");
    Add({"sda", "8:0"});
    std::filesystem::create_directories(Folder() / "sys/block/sda/slaves");
    Add({"mmcblk0", "179:0"});
    EXPECT_EQ(Find(), (Names{"sda", "mmcblk0"}));
}

TEST_F(LinuxWholeDisks, HiddenPathsOfADiskAreNone) {
    Add({"nvme0n1", "259:0"});
    Add({"nvme0c0n1", "259:1"});
    Write("sys/block/nvme0n1/hidden", "0");
    Write("sys/block/nvme0c0n1/hidden", "1");
    EXPECT_EQ(Find(), Names{"nvme0n1"});
}

TEST_F(LinuxWholeDisks, ExclamationMarkOfANameIsAFolderOfItsNode) {
    HostDisk disk;
    disk.Name = "cciss!c0d0";
    EXPECT_EQ(vornix::platform::NodeOf(roots_, disk), Path("dev/cciss/c0d0"));
}

TEST_F(LinuxWholeDisks, NodeOfAnotherDeviceIsNotOpened) {
    const LoopDisks& loops = TheLoopDisks();
    if (!loops.WhyNone.empty()) {
        GTEST_SKIP() << loops.WhyNone;
    }
    roots_.Sys = "/sys";
    const std::vector<HostDisk> disks = FindWholeDisks(roots_);
    const auto small =
        std::find_if(disks.begin(), disks.end(), [&](const HostDisk& disk) { return disk.Name == loops.Small.Name; });
    ASSERT_NE(small, disks.end());
    const auto open = [&](const std::string& target, const HostDisk& disk) {
        const std::filesystem::path node = Folder() / "dev" / disk.Name;
        std::filesystem::remove(node);
        std::filesystem::create_symlink(target, node);
        errno = 0;
        const int descriptor = OpenNode(roots_, disk, O_RDONLY);
        const int code = errno;
        if (descriptor >= 0) {
            close(descriptor);
            return 0;
        }
        return code;
    };
    EXPECT_EQ(open("/dev/" + loops.Small.Name, *small), 0);
    EXPECT_EQ(open("/dev/" + loops.Large.Name, *small), ENXIO);
    EXPECT_EQ(open("/dev/null", *small), ENXIO);
    EXPECT_EQ(open("/dev/no such device", *small), ENOENT);
    HostDisk earlier = *small;
    earlier.Identity += "0";
    EXPECT_EQ(open("/dev/" + loops.Small.Name, earlier), ENXIO) << "the device has been given to something else";
}

class LinuxNumbers : public MadeUpHostTest {
protected:
    // The numbers and what has them: "0 sda 2 loop1".
    std::string Look() const { return Describe(NumberDisks(roots_)); }

    static std::string Describe(const NumberedDisks& numbered) {
        std::ostringstream text;
        for (const HostDisk& disk : numbered.Disks) {
            text << (text.tellp() > 0 ? " " : "") << disk.Number << ' ' << disk.Name << (disk.IsNumberKept ? "" : "?");
        }
        return text.str();
    }
};

TEST_F(LinuxNumbers, StayWithTheirDisksWhateverComesAndGoes) {
    Add({"sda", "8:0", true, "1"});
    AddLoop(0, 2);
    AddLoop(1, 3);
    EXPECT_EQ(Look(), "0 sda 1 loop0 2 loop1");
    Remove("loop0", "7:0");
    EXPECT_EQ(Look(), "0 sda 2 loop1");
    Add({"sdb", "8:16", true, "4"});
    EXPECT_EQ(Look(), "0 sda 2 loop1 3 sdb");
    EXPECT_EQ(NumberDisks(roots_).GoneNumbers, std::vector<int>{1});
    // The same device over another file.
    AddLoop(0, 5);
    EXPECT_EQ(Look(), "0 sda 2 loop1 3 sdb 4 loop0");
    Remove("sda", "8:0");
    Remove("sdb", "8:16");
    EXPECT_EQ(Look(), "2 loop1 4 loop0");
    Add({"sda", "8:0", true, "1"});
    EXPECT_EQ(Look(), "0 sda 2 loop1 4 loop0") << "out of sight for a while";
}

TEST_F(LinuxNumbers, AreGivenAgainOnlyWhenSixteenAreUsedUpAndTheLongestGoneFirst) {
    for (int minor = 0; minor < 15; minor++) {
        AddLoop(minor, minor + 1);
    }
    (void)Look();
    Remove("loop7", "7:7");
    (void)Look();
    Remove("loop3", "7:3");
    (void)Look();
    AddLoop(20, 20);
    const auto numberOf = [this](const std::string& name) {
        for (const HostDisk& disk : NumberDisks(roots_).Disks) {
            if (disk.Name == name) {
                return disk.Number;
            }
        }
        return -1;
    };
    EXPECT_EQ(numberOf("loop20"), 15) << "one was left";
    AddLoop(21, 21);
    EXPECT_EQ(numberOf("loop21"), 7);
    AddLoop(22, 22);
    EXPECT_EQ(numberOf("loop22"), 3);
    AddLoop(23, 23);
    EXPECT_EQ(numberOf("loop23"), 16) << "each of the sixteen has a disk";
    EXPECT_EQ(numberOf("loop0"), 0);
    EXPECT_EQ(numberOf("loop20"), 15);
    Remove("loop23", "7:23");
    AddLoop(24, 24);
    EXPECT_EQ(numberOf("loop24"), 17);
    EXPECT_NE(Read("run/vornix/disks").find("\ndisk 6 0 7:6,seq=7\ndisk 7 0 7:21,seq=21\ndisk 8 "), std::string::npos);
}

TEST_F(LinuxNumbers, KnowADiskBySizeAndSerialWhereTheKernelDoesNotCountDisks) {
    Add({"sda", "8:0"});
    Write("sys/block/sda/device/serial", "S, 1%\x7F");
    Add({"sdb", "8:16"});
    EXPECT_EQ(Look(), "0 sda 1 sdb");
    EXPECT_NE(Read("run/vornix/disks").find("\ndisk 0 0 8:0,size=2048,serial=S%2C%201%25%7F\n"), std::string::npos);
    EXPECT_EQ(Look(), "0 sda 1 sdb");
    Write("sys/block/sda/device/serial", "S2");
    EXPECT_EQ(Look(), "1 sdb 2 sda");
    Write("sys/block/sdb/size", "4096");
    EXPECT_EQ(Look(), "2 sda 3 sdb");
}

TEST_F(LinuxNumbers, KnowANetworkDeviceByItsConnectionToo) {
    Add({"nbd0", "43:0", false, "7"});
    Write("sys/block/nbd0/pid", "100");
    EXPECT_EQ(Look(), "0 nbd0");
    Write("sys/block/nbd0/pid", "101");
    EXPECT_EQ(Look(), "1 nbd0");
}

TEST_F(LinuxNumbers, BeginAnewWithTheNextBoot) {
    AddLoop(0, 1);
    AddLoop(1, 2);
    (void)Look();
    Remove("loop0", "7:0");
    EXPECT_EQ(Look(), "1 loop1");
    Write("proc/sys/kernel/random/boot_id", "99999999-2222-3333-4444-555555555555");
    const NumberedDisks numbered = NumberDisks(roots_);
    EXPECT_EQ(Describe(numbered), "0 loop1");
    EXPECT_EQ(numbered.Damage, "");
}

TEST_F(LinuxNumbers, StandInAFileThatEverybodyReadsAndTheOwnerWrites) {
    AddLoop(0, 12);
    const mode_t mask = umask(077);
    (void)Look();
    umask(mask);
    EXPECT_EQ(Read("run/vornix/disks"), "vornix disk numbers 1\nboot 11111111-2222-3333-4444-555555555555\n"
                                        "disk 0 0 7:0,seq=12\nend 1\n");
    const auto modeOf = [this](const char* name) {
        struct stat status {};
        EXPECT_EQ(stat(Path(name).c_str(), &status), 0);
        return status.st_mode & 07777;
    };
    EXPECT_EQ(modeOf("run/vornix"), 0755u);
    EXPECT_EQ(modeOf("run/vornix/disks"), 0644u);
    EXPECT_EQ(modeOf("run/vornix/lock"), 0600u);
}

TEST_F(LinuxNumbers, OfADamagedRegistryAreNotBelieved) {
    const std::string head = "vornix disk numbers 1\nboot 11111111-2222-3333-4444-555555555555\n";
    AddLoop(0, 1);
    AddLoop(1, 2);
    for (const std::string& text : {
             std::string(),
             std::string("\n"),
             std::string("vornix disk numbers 2\nboot 11111111-2222-3333-4444-555555555555\nend 0\n"),
             std::string("vornix disk numbers 1\n"),
             std::string("vornix disk numbers 1\nboots\n"),
             head,
             head.substr(0, head.size() - 9),
             head + "disk 0 0 7:1,seq=2\n",
             head + "disk 0 0 7:1,seq=2\nend 2\n",
             head + "disk 0 0 7:1,seq=2\nend 1",
             head + "disk 0 0 7:1,seq=2\nend 1\nend 1\n",
             head + "disk 0 0 7:1,seq=2\nend 1\n" + std::string(1, '\0'),
             head + "disk 0 0 7:1,seq=2\ndisk 0 0 7:0,seq=1\nend 2\n",
             head + "disk 0 0 7:1,seq=2\ndisk 1 0 7:1,seq=2\nend 2\n",
             head + "disk 00 0 7:1,seq=2\nend 1\n",
             head + "disk -1 0 7:1,seq=2\nend 1\n",
             head + "disk 1024 0 7:1,seq=2\nend 1\n",
             head + "disk 99999999999 0 7:1,seq=2\nend 1\n",
             head + "disk 0 -1 7:1,seq=2\nend 1\n",
             head + "disk 0 0 7:1,seq=2 \nend 1\n",
             head + "disk 0 0\nend 1\n",
             head + "disc 0 0 7:1,seq=2\nend 1\n",
             head + std::string(2 << 20, 'x'),
         }) {
        std::filesystem::create_directories(Folder() / "run/vornix");
        std::ofstream(Folder() / "run/vornix/disks", std::ios::binary) << text;
        const NumberedDisks numbered = NumberDisks(roots_);
        EXPECT_NE(numbered.Damage, "") << text.substr(0, 200);
        EXPECT_EQ(numbered.Damage == "its first lines are not those of a registry",
                  !text.starts_with("vornix disk numbers 1\nboot "));
        EXPECT_EQ(Describe(numbered), "0 loop0 1 loop1");
        const NumberedDisks again = NumberDisks(roots_);
        EXPECT_EQ(again.Damage, "") << "written anew";
        EXPECT_EQ(Describe(again), "0 loop0 1 loop1");
    }
    Write("run/vornix/disks", head + "disk 0 0 7:1,seq=2\nend 1\n");
    EXPECT_EQ(Look(), "0 loop1 1 loop0") << "the form above, undamaged";
}

TEST_F(LinuxNumbers, OfAFileThatOthersCanWriteAreNotBelieved) {
    AddLoop(0, 1);
    const std::string text = "vornix disk numbers 1\nboot 11111111-2222-3333-4444-555555555555\n"
                             "disk 5 0 7:0,seq=1\nend 1\n";
    const std::string path = Path("run/vornix/disks");
    Write("run/vornix/disks", text);
    EXPECT_EQ(Look(), "5 loop0");
    for (const mode_t mode : {0664u, 0646u}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        const NumberedDisks numbered = NumberDisks(roots_);
        EXPECT_NE(numbered.Damage, "");
        EXPECT_EQ(Describe(numbered), "0 loop0");
        Write("run/vornix/disks", text);
    }
    // A link is neither followed nor written through.
    Write("elsewhere", text);
    std::filesystem::remove(path);
    Link("run/vornix/disks", "elsewhere");
    EXPECT_NE(NumberDisks(roots_).Damage, "");
    EXPECT_EQ(Read("elsewhere"), text);
    EXPECT_FALSE(std::filesystem::is_symlink(path));
    // A pipe keeps nobody waiting.
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    EXPECT_EQ(NumberDisks(roots_).Damage, "it is no file that root alone can write");
    // Of a folder not even the name can be taken back.
    std::filesystem::remove(path);
    std::filesystem::create_directories(path);
    const NumberedDisks numbered = NumberDisks(roots_);
    EXPECT_EQ(Describe(numbered), "0 loop0?");
    EXPECT_NE(numbered.WhyRanks, "");
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
    std::filesystem::remove(path);
    std::filesystem::create_directories(path + ".new");
    EXPECT_EQ(Look(), "0 loop0?");
    std::filesystem::remove(path + ".new");
    Write("run/vornix/disks.new", "of a run that was killed");
    EXPECT_EQ(Look(), "0 loop0");
}

TEST_F(LinuxNumbers, AreWholeOrNotThereWhateverBecomesOfATransfer) {
    const ScopedHostCalls scope;
    HostCalls& calls = TheHostCalls();
    AddLoop(0, 1);
    AddLoop(1, 2);
    calls.LongestTransfer = 10;
    calls.InterruptTransfers = 1;
    EXPECT_EQ(Look(), "0 loop0 1 loop1");
    Remove("loop0", "7:0");
    calls.InterruptTransfers = 1;
    EXPECT_EQ(Look(), "1 loop1");
    EXPECT_NE(Read("run/vornix/disks").find("\ndisk 0 1 7:0,seq=1\ndisk 1 0 7:1,seq=2\nend 2\n"), std::string::npos);
    // Nothing is changed, so that nothing is written.
    calls.TransferError = EIO;
    calls.FailTransferAfter = 1;
    EXPECT_EQ(NumberDisks(roots_).Damage, "it cannot be read");
    // The writes behind what is read.
    std::filesystem::remove(Path("run/vornix/disks"));
    calls.TransferError = ENOSPC;
    calls.FailTransferAfter = 2;
    EXPECT_EQ(Look(), "0 loop1?");
    EXPECT_FALSE(std::filesystem::exists(Path("run/vornix/disks")));
    calls.LockError = EINTR;
    EXPECT_EQ(Look(), "0 loop1");
    calls.LockError = ENOLCK;
    Remove("loop1", "7:1");
    AddLoop(2, 3);
    EXPECT_EQ(NumberDisks(roots_).WhyRanks, "the registry cannot be locked: No locks available");
}

TEST_F(LinuxNumbers, GoNoFurtherThanThereAreNumbers) {
    for (int minor = 0; minor <= vornix::platform::endOfNumbers; minor++) {
        AddLoop(minor, minor + 1);
    }
    const NumberedDisks numbered = NumberDisks(roots_);
    ASSERT_EQ(numbered.Disks.size(), static_cast<size_t>(vornix::platform::endOfNumbers));
    EXPECT_EQ(numbered.Disks.back().Number, vornix::platform::endOfNumbers - 1);
}

TEST_F(LinuxNumbers, AreRanksWhereTheFolderCannotBeBelieved) {
    AddLoop(0, 1);
    AddLoop(1, 2);
    const auto expectRanks = [this](const char* why) {
        const NumberedDisks numbered = NumberDisks(roots_);
        EXPECT_EQ(Describe(numbered), "0 loop0? 1 loop1?");
        EXPECT_NE(numbered.WhyRanks.find(why), std::string::npos) << numbered.WhyRanks;
        EXPECT_EQ(numbered.Damage, "");
    };
    std::filesystem::create_directories(Folder() / "elsewhere");
    Link("run/vornix", "elsewhere");
    expectRanks("cannot be opened as a folder");
    EXPECT_TRUE(std::filesystem::is_empty(Folder() / "elsewhere"));
    std::filesystem::remove(Folder() / "run/vornix");
    Write("run/vornix", "no folder");
    expectRanks("cannot be opened as a folder");
    std::filesystem::remove(Folder() / "run/vornix");
    std::filesystem::create_directories(Folder() / "run/vornix");
    ASSERT_EQ(chmod(Path("run/vornix").c_str(), 0775), 0);
    expectRanks("that root alone can write");
    if (geteuid() == 0) {
        ASSERT_EQ(chmod(Path("run/vornix").c_str(), 0755), 0);
        ASSERT_EQ(chown(Path("run/vornix").c_str(), 65534, 65534), 0);
        expectRanks("that root alone can write");
    }
    std::filesystem::remove_all(Folder() / "run");
    expectRanks("cannot be made");
    std::filesystem::create_directories(Folder() / "run");
    std::filesystem::remove(Folder() / "proc/sys/kernel/random/boot_id");
    expectRanks("which boot");
}

TEST_F(LinuxNumbers, AreReadByOthersForWhomRanksFollow) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    ASSERT_EQ(chmod(Folder().c_str(), 0755), 0);
    const auto lookAsNobody = [this] {
        int channel[2];
        EXPECT_EQ(pipe(channel), 0);
        const pid_t child = fork();
        if (child == 0) {
            if (setgid(65534) != 0 || setuid(65534) != 0) {
                _exit(1);
            }
            const NumberedDisks numbered = NumberDisks(roots_);
            const std::string text = Describe(numbered) + "\n" + numbered.WhyRanks;
            _exit(write(channel[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
        }
        close(channel[1]);
        const std::string text = ReadToTheEnd(channel[0]);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        return text;
    };
    AddLoop(0, 1);
    AddLoop(1, 2);
    EXPECT_EQ(lookAsNobody(), "0 loop0? 1 loop1?\nno disk was given a number by root in this boot");
    EXPECT_FALSE(std::filesystem::exists(Folder() / "run/vornix"));
    (void)Look();
    Remove("loop0", "7:0");
    EXPECT_EQ(lookAsNobody(), "1 loop1\n");
    AddLoop(2, 3);
    const std::string before = Read("run/vornix/disks");
    EXPECT_EQ(lookAsNobody(), "1 loop1 2 loop2?\nonly root gives numbers that stay");
    EXPECT_EQ(Read("run/vornix/disks"), before);
    Write("run/vornix/disks", "nothing");
    EXPECT_EQ(lookAsNobody().substr(0, 18), "0 loop1? 1 loop2?\n");
}

TEST_F(LinuxNumbers, AreTheSameForAllThatLookAtOnce) {
    constexpr int lookers = 12;
    std::map<std::string, int> numbers;
    for (int round = 0; round < 5; round++) {
        std::filesystem::remove_all(Folder() / "run/vornix");
        numbers.clear();
        int channel[2];
        ASSERT_EQ(pipe(channel), 0);
        std::vector<pid_t> children;
        for (int looker = 0; looker < lookers; looker++) {
            children.push_back(fork());
            if (children.back() == 0) {
                // Each finds a disk that those before it did not see.
                AddLoop(100 * round + looker, 100 * round + looker + 1);
                std::ostringstream text;
                for (const HostDisk& disk : NumberDisks(roots_).Disks) {
                    text << disk.Name << ' ' << disk.Number << '\n';
                }
                const std::string lines = text.str();
                _exit(write(channel[1], lines.data(), lines.size()) == static_cast<ssize_t>(lines.size()) ? 0 : 1);
            }
        }
        close(channel[1]);
        const std::string text = ReadToTheEnd(channel[0]);
        for (const pid_t child : children) {
            int status = 0;
            waitpid(child, &status, 0);
            EXPECT_EQ(status, 0);
        }
        std::istringstream lines(text);
        std::string name;
        int number = 0;
        size_t seen = 0;
        while (lines >> name >> number) {
            EXPECT_EQ(numbers.emplace(name, number).first->second, number) << name;
            seen++;
        }
        EXPECT_GE(seen, static_cast<size_t>(lookers));
        EXPECT_GE(numbers.size(), static_cast<size_t>(lookers));
    }
}

} // namespace
