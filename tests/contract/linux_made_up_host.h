// A host that is a few folders: what the kernel would show below /sys, /proc and /run, written down by a test.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "linux/host_disks.h"
#include "temporary_folder.h"

class MadeUpHostTest : public TemporaryFolderTest {
protected:
    struct Disk {
        std::string Name;
        std::string Device; // "8:0"
        bool IsHardware = true;
        std::string Sequence = {}; // empty: the kernel does not count its disks
        std::string Size = "2048";
    };

    void SetUp() override {
        TemporaryFolderTest::SetUp();
        roots_.Sys = Path("sys");
        roots_.Dev = Path("dev");
        roots_.Proc = Path("proc");
        roots_.Run = Path("run");
        roots_.Root = Path("root");
        roots_.Owner = geteuid();
        for (const char* folder : {"sys/block", "sys/dev/block", "dev", "run", "root", "proc/1", "proc/self"}) {
            std::filesystem::create_directories(Folder() / folder);
        }
        Write("proc/sys/kernel/random/boot_id", "11111111-2222-3333-4444-555555555555");
    }

    std::string Path(const std::string& name) const { return (Folder() / name).string(); }

    void Write(const std::string& name, const std::string& text) const {
        const std::filesystem::path path = Folder() / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream file(path);
        file << text << (text.ends_with('\n') ? "" : "\n");
        ASSERT_TRUE(file.flush()) << path;
    }

    std::string Read(const std::string& name) const {
        std::ifstream file(Folder() / name);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    void Add(const Disk& disk) const {
        // Whole from the moment that it can be seen, as the kernel shows a disk.
        const std::string folder = "sys/new-" + disk.Name;
        Write(folder + "/dev", disk.Device);
        Write(folder + "/size", disk.Size);
        if (!disk.Sequence.empty()) {
            Write(folder + "/diskseq", disk.Sequence);
        }
        if (disk.IsHardware) {
            std::filesystem::create_directories(Folder() / folder / "device");
        }
        std::filesystem::rename(Folder() / folder, Folder() / "sys/block" / disk.Name);
        Link("sys/dev/block/" + disk.Device, "sys/block/" + disk.Name);
    }

    // A loop device that holds something.
    void AddLoop(int minor, int sequence) const {
        Add({"loop" + std::to_string(minor), "7:" + std::to_string(minor), false, std::to_string(sequence)});
    }

    void AddPartition(const std::string& disk, const std::string& name, const std::string& device,
                      const std::string& start, const std::string& size) const {
        const std::string folder = "sys/block/" + disk + "/" + name;
        Write(folder + "/partition", "1");
        Write(folder + "/dev", device);
        Write(folder + "/start", start);
        Write(folder + "/size", size);
        Link("sys/dev/block/" + device, folder);
    }

    // What `above` is composed of.
    void AddSlave(const std::string& above, const std::string& slave, const std::string& device) const {
        Write("sys/block/" + above + "/slaves/" + slave + "/dev", device);
    }

    void Remove(const std::string& name, const std::string& device) const {
        std::filesystem::remove_all(Folder() / "sys/block" / name);
        std::filesystem::remove(Folder() / "sys/dev/block" / device);
    }

    void Link(const std::string& name, const std::string& target) const {
        const std::filesystem::path path = Folder() / name;
        std::filesystem::create_directories(path.parent_path());
        std::filesystem::create_symlink(Folder() / target, path);
    }

    vornix::platform::HostRoots roots_;
};
