// What vornix-disks makes of texts that come from disks, of what lsblk prints, and of its own report.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "linux/disks_tool/clean_text.h"
#include "linux/disks_tool/print_report.h"
#include "linux/owned_descriptor.h"
#include "linux_host_calls.h"
#include "linux_loop_disks.h"
#include "linux_made_up_host.h"

namespace {

using namespace vornix::disks_tool;

TEST(LinuxCleanText, BytesThatAreNoUtf8AreReplaced) {
    EXPECT_EQ(RepairUtf8("plain \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x92\xBE"),
              "plain \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x92\xBE");
    EXPECT_EQ(RepairUtf8("a\xFF\xC3"), "a\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(RepairUtf8("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD") << "longer than it need be";
    EXPECT_EQ(RepairUtf8("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD") << "half of a pair";
    EXPECT_EQ(RepairUtf8("\xE2\x82z"), "\xEF\xBF\xBDz") << "one mistake";
    EXPECT_EQ(RepairUtf8("\xF4\x90\x80\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD") << "beyond the end";
}

TEST(LinuxCleanText, NothingThatATerminalObeysIsShown) {
    EXPECT_EQ(MakePrintable("\x1B[31mred\x07\r\n\x7F", true), "?[31mred????");
    EXPECT_EQ(MakePrintable("\xC2\x9B"
                            "31m",
                            true),
              "?31m")
        << "the eight-bit form of the same";
    EXPECT_EQ(MakePrintable("a\xE2\x80\xAE"
                            "b\xE2\x80\xA8"
                            "c\xEF\xBB\xBF",
                            true),
              "a?b?c?")
        << "directions and lines";
    EXPECT_EQ(MakePrintable("M\xC3\xA4rz", true), "M\xC3\xA4rz");
    EXPECT_EQ(MakePrintable("M\xC3\xA4rz", false), "M?rz");
    EXPECT_EQ(CountCharacters("M\xC3\xA4rz"), 4u);
}

std::string Encode(uint32_t point) {
    const auto tail = [point](int shift) { return static_cast<char>(0x80 | (point >> shift & 0x3F)); };
    if (point < 0x80) {
        return {static_cast<char>(point)};
    }
    if (point < 0x800) {
        return {static_cast<char>(0xC0 | point >> 6), tail(0)};
    }
    if (point < 0x10000) {
        return {static_cast<char>(0xE0 | point >> 12), tail(6), tail(0)};
    }
    return {static_cast<char>(0xF0 | point >> 18), tail(12), tail(6), tail(0)};
}

TEST(LinuxCleanText, EveryRangeEndsWhereItEnds) {
    for (const uint32_t point : {0x0u, 0x7Fu, 0x80u, 0x7FFu, 0x800u, 0xFFFu, 0x1000u, 0xD7FFu, 0xE000u, 0xFFFFu,
                                 0x10000u, 0x3FFFFu, 0x40000u, 0xFFFFFu, 0x100000u, 0x10FFFFu}) {
        EXPECT_EQ(RepairUtf8(Encode(point)), Encode(point)) << point;
    }
    for (const char* text :
         {"\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xF5\x80\x80\x80", "\xC2\xC0", "\xE1\x80\x7F"}) {
        EXPECT_NE(RepairUtf8(text), text);
    }
    // The first and the last of each range that is not shown.
    const uint32_t ranges[][2] = {{0x0, 0x1F},      {0x7F, 0x9F},     {0x61C, 0x61C},
                                  {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x2069},
                                  {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE007F}};
    for (const auto& [first, last] : ranges) {
        EXPECT_EQ(MakePrintable(Encode(first) + Encode(last), true), "??") << first;
        const std::string beside = (first == 0 ? "" : Encode(first - 1)) + Encode(last + 1);
        EXPECT_EQ(MakePrintable(beside, true), beside) << first;
    }
}

TEST(LinuxLsblk, TreeIsReadWithWhateverTheDisksCallThemselves) {
    const BlockDevices devices = ParseLsblk(
        R"({"blockdevices":[{"kname":"sda","path":"/dev/sda","maj:min":"8:0","type":"disk","model":"  A )"
        "\xFF"
        R"(  ","serial":null,"tran":"usb","mountpoints":[null],"children":[{"kname":"sda1","path":"/dev/sda1",)"
        R"("maj:min":"8:1","type":"part","mountpoints":["/a b","[SWAP]"]}]}]})");
    EXPECT_EQ(devices.Error, "");
    ASSERT_EQ(devices.Devices.size(), 1u);
    const BlockDevice& disk = devices.Devices[0];
    EXPECT_EQ(disk.Model, "A \xEF\xBF\xBD");
    EXPECT_EQ(disk.Serial, "");
    EXPECT_EQ(disk.Transport, "usb");
    EXPECT_TRUE(disk.MountPoints.empty());
    ASSERT_EQ(disk.Children.size(), 1u);
    EXPECT_EQ(disk.Children[0].MountPoints, (std::vector<std::string>{"/a b", "[SWAP]"}));
}

TEST(LinuxLsblk, AnythingElseIsAnError) {
    for (const char* text : {"", "{", "[]", "{}", "null", R"({"blockdevices":3})", R"({"blockdevices":[3]})",
                             R"({"blockdevices":[{"children":[[]]}]})"}) {
        const BlockDevices devices = ParseLsblk(text);
        EXPECT_NE(devices.Error, "") << text;
        EXPECT_TRUE(devices.Devices.empty()) << text;
    }
}

// A report of three disks: the system's with partitions, one that does not open, one above 15 with hostile names.
Report MakeSample() {
    Report report;
    report.Numbers.GoneNumbers = {3, 5};
    report.Numbers.WhyRanks = "no reason";
    DiskReport system;
    system.Disk = {"sda", 0x800, true, "8:0,seq=1", 0, true};
    system.Node = "/dev/sda";
    system.Size = 3ull << 30;
    system.SectorSize = 512;
    system.IsSystem = true;
    system.Model = "Model";
    system.PartitionTable = "gpt";
    ContentReport part;
    part.Node = "/dev/sda1";
    part.Start = 1 << 20;
    part.Size = 1 << 30;
    part.Found = {"ext4", "root", ""};
    part.MountPoints = {"/"};
    part.Users = {{"mount", "/"}, {"loop", "/dev/loop0"}};
    system.Contents.push_back(part);
    DiskReport closed;
    closed.Disk = {"sdb", 0x810, true, "8:16,seq=2", 1, true};
    closed.Node = "/dev/sdb";
    closed.WhyNotOpened = "no medium";
    DiskReport hostile;
    hostile.Disk = {"sdc", 0x820, true, "8:32,seq=3", 16, false};
    hostile.Node = "/dev/sdc";
    hostile.Size = 1ull << 30;
    hostile.SectorSize = 4096;
    hostile.Serial = "\x1B[2J\xFF";
    hostile.Users = {{"process", "dd (process 7)"}};
    ContentReport whole;
    whole.Node = "/dev/sdc";
    whole.Size = hostile.Size;
    whole.Found = {"vfat", "a\nb", ""};
    whole.Users = hostile.Users;
    hostile.Contents.push_back(whole);
    report.Disks = {system, closed, hostile};
    return report;
}

TEST(LinuxDisksTool, TableSaysAllOfEachDisk) {
    EXPECT_EQ(FormatTable(MakeSample(), false),
              "DISK  NODE             SIZE  SECTOR  BUS  MODEL  SERIAL  CONTENT      IN USE\n"
              "  0*  /dev/sda     3.00 GiB     512  -    Model  -       gpt          yes\n"
              "        /dev/sda1  1.00 GiB                              ext4 \"root\"  mounted at /, loop /dev/loop0\n"
              "  1   /dev/sdb     0.00 GiB       0  -    -      -       -            -\n"
              " 16   /dev/sdc     1.00 GiB    4096  -    -      ?[2J?   vfat \"a?b\"   open in dd (process 7)\n"
              "\n"
              "* The system runs from this disk.\n"
              "Disk 1 cannot be opened (no medium): list-disks passes over it.\n"
              "Above 15, which list-disks does not show and every other command takes: 16.\n"
              "Numbers of disks that are gone: 3, 5.\n"
              "Only ranks, which change when disks come and go: 16 (no reason).\n");
    EXPECT_EQ(FormatTable({}, false), "No disks.\n");
}

TEST(LinuxDisksTool, JsonSaysTheSameToScripts) {
    const std::string text = FormatJson(MakeSample(), "1.2.3");
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= ' ' && c < 0x7F); }));
    EXPECT_EQ(text.substr(0, 23), "{\n  \"schema_version\": 1");
    const auto document = nlohmann::json::parse(text);
    EXPECT_EQ(document["program_version"], "1.2.3");
    EXPECT_EQ(document["numbers"]["gone"], (std::vector<int>{3, 5}));
    const auto& disks = document["disks"];
    ASSERT_EQ(disks.size(), 3u);
    EXPECT_EQ(disks[0]["system"], true);
    EXPECT_EQ(disks[0]["in_use"], true) << "by a partition";
    EXPECT_EQ(disks[0]["listed"], true);
    EXPECT_EQ(disks[0]["contents"][0]["start"], 1 << 20);
    EXPECT_EQ(disks[0]["contents"][0]["mount_points"], std::vector<std::string>{"/"});
    EXPECT_EQ(disks[1]["listed"], false);
    EXPECT_EQ(disks[1]["not_opened"], "no medium");
    EXPECT_EQ(disks[1]["model"], nullptr);
    EXPECT_EQ(disks[2]["listed"], false);
    EXPECT_EQ(disks[2]["number_kept"], false);
    EXPECT_EQ(disks[2]["serial"], "\x1B[2J\xEF\xBF\xBD");
    EXPECT_EQ(disks[2]["contents"][0]["label"], "a\nb");
    EXPECT_EQ(disks[2]["used_by"][0]["kind"], "process");
}

class LinuxDisksToolHost : public MadeUpHostTest {
protected:
    // "kind what, kind what"
    static std::string Text(const std::vector<DeviceUser>& users) {
        std::string text;
        for (const DeviceUser& user : users) {
            text += (text.empty() ? "" : ", ") + user.Kind + " " + user.What;
        }
        return text;
    }

    // A process in the namespace of mounts of this name, with this table of them.
    void AddProcess(const std::string& name, const std::string& space, const std::string& mounts) const {
        Link("proc/" + name + "/ns/mnt", space);
        Write("proc/" + name + "/mountinfo", mounts);
    }
};

TEST_F(LinuxDisksToolHost, EachDiskHasItsContentsAndItsUsers) {
    Add({"sda", "8:0", true, "1", "1000"});
    Write("sys/block/sda/queue/logical_block_size", "4096");
    Write("sys/block/sda/removable", "1");
    AddPartition("sda", "sda1", "8:1", "100", "300");
    AddPartition("sda", "sda2", "8:2", "400", "500");
    Add({"sdb", "8:16", true, "2", "2000"});
    Write("sys/block/sdb/ro", "1");
    Write("sys/class/block/sda1/start", "100");
    Write("sys/class/block/sda1/size", "300");
    AddProcess("self", "space0", "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n21 1 8:16 / /b rw - ext4 /dev/sdb rw");
    AddProcess("1", "space0", "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n21 1 8:16 / /b rw - ext4 /dev/sdb rw");
    AddProcess("70", "space1", "20 1 8:2 / /\n20 1 8:2 / /c\n20 1 8:1 / /d\n20 1 none / /e");
    AddProcess("71", "space2", "20 1 8:2 / /");
    AddProcess("72", "space1", "20 1 8:16 / /");
    AddProcess("fs", "space3", "20 1 8:16 / /");
    BlockDevices devices;
    BlockDevice volume{"dm-0", "/dev/mapper/v", "253:0", "lvm", "", "", "", {"/v"}, {}};
    BlockDevice member{"md0", "/dev/md0", "9:0", "raid1", "", "", "", {}, {volume}};
    BlockDevice first{"sda1", "/none/sda1", "8:1", "part", "", "", "", {"/", "[SWAP]"}, {member}};
    BlockDevice second{"sda2", "/none/sda2", "8:2", "part", "", "", "", {}, {}};
    devices.Devices = {{"sda", "/dev/sda", "8:0", "disk", "Model", "Serial", "usb", {}, {first, second, volume}}};
    const Report report = MakeReport(roots_, devices);
    ASSERT_EQ(report.Disks.size(), 2u);
    const DiskReport& disk = report.Disks[0];
    EXPECT_EQ(disk.Model + disk.Serial + disk.Transport, "ModelSerialusb");
    EXPECT_EQ(disk.Size, 512000u);
    EXPECT_EQ(disk.SectorSize, 4096u);
    EXPECT_TRUE(disk.IsRemovable && disk.IsSystem && disk.IsInUse() && !disk.IsReadOnly);
    EXPECT_EQ(Text(disk.Users), "device lvm /dev/mapper/v, mount /v");
    ASSERT_EQ(disk.Contents.size(), 2u);
    EXPECT_EQ(disk.Contents[0].Node, "/none/sda1");
    EXPECT_EQ(disk.Contents[0].Start, 51200u);
    EXPECT_EQ(disk.Contents[0].Size, 153600u);
    EXPECT_EQ(disk.Contents[0].MountPoints, first.MountPoints);
    EXPECT_EQ(Text(disk.Contents[0].Users),
              "mount /, swap [SWAP], device raid1 /dev/md0, device lvm /dev/mapper/v, mount /v");
    EXPECT_EQ(Text(disk.Contents[1].Users), "foreign_mount process 70");
    const DiskReport& other = report.Disks[1];
    EXPECT_TRUE(other.IsReadOnly && !other.IsSystem && !other.IsRemovable && !other.IsInUse());
    EXPECT_EQ(other.WhyNotOpened, "No such file or directory");
}

TEST_F(LinuxDisksToolHost, DeviceIsUsedByOtherProcessesAndLoopsThatHaveItOpen) {
    if (!TheLoopDisks().WhyNone.empty()) {
        GTEST_SKIP() << TheLoopDisks().WhyNone;
    }
    const LoopDisk& loop = TheLoopDisks().Large;
    struct stat status {};
    ASSERT_EQ(stat(("/dev/" + loop.Name).c_str(), &status), 0);
    AddLoop(static_cast<int>(minor(status.st_rdev)), 1);
    std::filesystem::create_symlink("/dev/" + loop.Name, Path("dev/" + loop.Name));
    Link("proc/70/fd/3", "dev/" + loop.Name);
    Link("proc/70/fd/4", "dev/" + loop.Name);
    Link("proc/70/fd/5", "proc");
    // No block device, though of the same number. Where there may be no such node there is none to be mistaken.
    (void)mknod(Path("dev/tty").c_str(), S_IFCHR | 0600, status.st_rdev);
    Link("proc/71/fd/3", "dev/tty");
    Write("proc/70/comm", "holder");
    Link("proc/" + std::to_string(getpid()) + "/fd/3", "dev/" + loop.Name);
    Link("proc/fs/fd/3", "dev/" + loop.Name);
    Write("sys/class/block/loop99/loop/backing_file", Path("dev/" + loop.Name));
    Write("sys/class/block/loop98/loop/backing_file", "/dev/" + loop.Name);
    const Report report = MakeReport(roots_, {});
    ASSERT_EQ(report.Disks.size(), 1u);
    const DiskReport& disk = report.Disks[0];
    EXPECT_EQ(Text(disk.Users), "loop /dev/loop99, process holder (process 70)");
    EXPECT_EQ(disk.WhyNotOpened, "");
    EXPECT_EQ(disk.Size, loop.Length);
    EXPECT_EQ(disk.SectorSize, loop.SectorSize);
    EXPECT_TRUE(disk.Contents.empty());
}

ptrdiff_t CountDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// What a function gives, which leaves neither a descriptor nor a process behind, and is interrupted by signals at each
// wait the second time.
template <typename Function>
auto RunInterrupted(Function function, bool HostCalls::*interrupts) {
    const ScopedHostCalls scope;
    const ptrdiff_t before = CountDescriptors();
    (void)function();
    TheHostCalls().*interrupts = true;
    auto result = function();
    TheHostCalls().*interrupts = false;
    EXPECT_EQ(CountDescriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, 0), -1);
    return result;
}

TEST_F(LinuxDisksToolHost, SignatureIsThatOfTheMedium) {
    std::string medium(2 << 20, '\0'); // in a smaller one the library looks for one kind alone
    Write("empty", medium);
    medium.replace(1024, 8, std::string("\1\0\0\0\17\0\0\0", 8)).replace(1036, 16, 16, 'u').replace(1052, 4, "ab c");
    medium.replace(4086, 10, "SWAPSPACE2");
    Write("swap", medium);
    medium.replace(450, 12, std::string("\x83\0\0\0\10\0\0\0\100\0\0\0", 12)).replace(510, 2, "\x55\xAA");
    Write("both", medium);
    medium.replace(0, 4, "hsqs").replace(28, 1, 1, '\4'); // a squashfs as well
    Write("two", medium);
    const std::pair<const char*, std::string> media[] = {
        {"empty", "//"}, {"swap", "swap/ab c/"}, {"both", "swap/ab c/dos"}, {"two", "ambivalent//"}};
    for (const auto& [name, expected] : media) {
        const vornix::platform::OwnedDescriptor file(open(Path(name).c_str(), O_RDONLY | O_CLOEXEC));
        const Signature found = RunInterrupted([&] { return FindSignature(file.Get()); }, &HostCalls::InterruptsWaits);
        EXPECT_EQ(found.Type + "/" + found.Label + "/" + found.PartitionTable, expected);
    }
}

TEST(LinuxLsblk, IsAskedWhateverInterrupts) {
    const std::string error = AskLsblk().Error;
    EXPECT_EQ(RunInterrupted(AskLsblk, &HostCalls::InterruptsPipes).Error, error);
    EXPECT_EQ(RunInterrupted(AskLsblk, &HostCalls::InterruptsWaits).Error, error);
}

} // namespace
