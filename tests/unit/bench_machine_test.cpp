// The described machine as the program meets it, through the published calls: disks and their share modes, volumes, the
// tracker's device and the shadow service, whose order of calls is held as well.
#include "bench/bench_calls.h"
#include "bench/host.h"
#include "bench/machine.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

using namespace vornix::bench;

namespace {

using Json = nlohmann::json;

constexpr DWORD readWrite = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD shareBoth = FILE_SHARE_READ | FILE_SHARE_WRITE;

LARGE_INTEGER At(long long offset) {
    LARGE_INTEGER value;
    value.QuadPart = offset;
    return value;
}

// A block aligned for unbuffered transfers.
class Block {
public:
    explicit Block(std::size_t size) : bytes_(size + 4096) {
        const auto address = reinterpret_cast<std::uintptr_t>(bytes_.data());
        start_ = bytes_.data() + (4096 - address % 4096) % 4096;
    }

    std::uint8_t* Data() { return start_; }

private:
    std::vector<std::uint8_t> bytes_;
    std::uint8_t* start_;
};

class MachineTest : public testing::Test {
protected:
    void SetUp() override {
        const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
        folder_ = std::filesystem::temp_directory_path() / ("vornix-machine-" + std::to_string(ticks));
        ASSERT_TRUE(std::filesystem::create_directory(folder_));
    }

    void TearDown() override {
        InstallMachine(nullptr);
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    std::string PathOf(const std::string& name) const { return (folder_ / name).string(); }

    // A file of the folder; disks below hold byte (offset / 512) in each sector, so that every sector is known.
    void MakeFile(const std::string& name, const std::string& content) const {
        const std::unique_ptr<HostFile> file = HostFile::Open(PathOf(name), HostFile::Mode::Create);
        ASSERT_NE(file, nullptr);
        ASSERT_EQ(file->WriteAt(0, content.data(), content.size()).Count, content.size());
    }

    void MakeDisk(const std::string& name, std::size_t size) const {
        std::string content(size, '\0');
        for (std::size_t offset = 0; offset < size; ++offset) {
            content[offset] = static_cast<char>(static_cast<unsigned char>(offset / 512 % 251));
        }
        MakeFile(name, content);
    }

    std::string ContentOf(const std::string& name) const {
        const std::unique_ptr<HostFile> file = HostFile::Open(PathOf(name), HostFile::Mode::Read);
        if (file == nullptr) {
            ADD_FAILURE() << "no file " << name;
            return "";
        }
        std::string content(static_cast<std::size_t>(file->FindSize().value_or(0)), '\0');
        EXPECT_EQ(file->ReadAt(0, content.data(), content.size()).Count, content.size());
        return content;
    }

    void Start(const Json& description) {
        MakeFile("machine.json", description.dump());
        InstallMachine(LoadMachine(folder_.string()));
    }

    std::vector<Json> Log() const {
        std::vector<Json> lines;
        const std::string text = ContentOf("calls.jsonl");
        for (std::size_t start = 0; start < text.size();) {
            const std::size_t end = text.find('\n', start);
            lines.push_back(Json::parse(text.substr(start, end - start)));
            start = end + 1;
        }
        return lines;
    }

    static HANDLE Open(const wchar_t* path, DWORD access = GENERIC_READ, DWORD share = shareBoth, DWORD flags = 0) {
        return CreateFileW(path, access, share, nullptr, OPEN_EXISTING, flags, nullptr);
    }

    // The last error of an open that must fail.
    static DWORD OpenError(const wchar_t* path, DWORD access = GENERIC_READ, DWORD share = shareBoth) {
        SetLastError(0);
        const HANDLE handle = Open(path, access, share);
        const DWORD error = GetLastError();
        EXPECT_EQ(handle, INVALID_HANDLE_VALUE);
        return error;
    }

    // A transfer at an offset; gives the count, or minus the last error.
    template <typename Call, typename Buffer>
    static long long Transfer(Call call, HANDLE handle, long long offset, Buffer* buffer, DWORD length) {
        EXPECT_TRUE(SetFilePointerEx(handle, At(offset), nullptr, FILE_BEGIN));
        DWORD count = 0;
        const bool ok = call(handle, buffer, length, &count, nullptr) != FALSE;
        return ok ? static_cast<long long>(count) : -static_cast<long long>(GetLastError());
    }

    static long long Read(HANDLE handle, long long offset, void* buffer, DWORD length) {
        return Transfer(ReadFile, handle, offset, buffer, length);
    }

    static long long Write(HANDLE handle, long long offset, const void* buffer, DWORD length) {
        return Transfer(WriteFile, handle, offset, buffer, length);
    }

    // Asks a device; gives how many bytes it answered, or minus the last error.
    static long long Ask(HANDLE device, DWORD code, void* answer = nullptr, DWORD room = 0) {
        DWORD count = 0;
        const bool ok = DeviceIoControl(device, code, nullptr, 0, answer, room, &count, nullptr) != FALSE;
        return ok ? static_cast<long long>(count) : -static_cast<long long>(GetLastError());
    }

private:
    std::filesystem::path folder_;
};

constexpr wchar_t disk1Path[] = L"\\\\.\\PhysicalDrive1";

TEST_F(MachineTest, ADiskAnswersLengthAndGeometry) {
    MakeDisk("d", 8192);
    Start({{"disks", {{{"number", 1}, {"file", "d"}, {"sector_size", 4096}, {"length", 12288}}}}});
    const HANDLE disk = Open(disk1Path);
    ASSERT_NE(disk, INVALID_HANDLE_VALUE);
    GET_LENGTH_INFORMATION length = {};
    EXPECT_EQ(Ask(disk, IOCTL_DISK_GET_LENGTH_INFO, &length, sizeof length), 8);
    EXPECT_EQ(length.Length.QuadPart, 12288);
    DISK_GEOMETRY_EX geometry;
    std::memset(&geometry, 0xFF, sizeof geometry);
    EXPECT_EQ(Ask(disk, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, &geometry, 40), 40);
    EXPECT_EQ(geometry.Geometry.BytesPerSector, 4096u);
    EXPECT_EQ(geometry.Geometry.MediaType, FixedMedia);
    EXPECT_EQ(geometry.DiskSize.QuadPart, 0);
    EXPECT_LT(Ask(disk, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, &geometry, 39), 0);
    EXPECT_EQ(Ask(disk, IOCTL_DISK_UPDATE_PROPERTIES), 0);
    EXPECT_EQ(Ask(disk, 0x00070000), -1);
    EXPECT_TRUE(CloseHandle(disk));
}

TEST_F(MachineTest, ADiskIsReadWithinItsLengthAndItsFile) {
    MakeDisk("d", 2048);
    Start({{"disks",
            {{{"number", 1}, {"file", "d"}, {"length", 4096}}, {{"number", 2}, {"file", "d"}, {"length", 1024}}}}});
    const HANDLE longer = Open(disk1Path);
    std::uint8_t bytes[4096] = {};
    EXPECT_EQ(Read(longer, 512, bytes, 1024), 1024);
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(bytes[512], 2);
    EXPECT_EQ(Read(longer, 1536, bytes, 2048), 512);
    EXPECT_EQ(Read(longer, 3584, bytes, 512), 0);
    EXPECT_EQ(Read(longer, 4096, bytes, 512), -27);
    EXPECT_EQ(Read(longer, 3584, bytes, 1024), 0);
    const HANDLE shorter = Open(L"\\\\.\\PhysicalDrive2");
    EXPECT_EQ(Read(shorter, 512, bytes, 1024), 512);
    EXPECT_EQ(Read(shorter, 1024, bytes, 512), -27);
}

TEST_F(MachineTest, AnUnbufferedHandleTakesWholeSectorsAtAlignedAddresses) {
    MakeDisk("d", 16384);
    Start({{"disks",
            {{{"number", 1}, {"file", "d"}, {"sector_size", 4096}},
             {{"number", 2}, {"file", "d"}, {"sector_size", 520}}}}});
    Block block(16384);
    const HANDLE disk = Open(disk1Path, GENERIC_READ, shareBoth, FILE_FLAG_NO_BUFFERING);
    EXPECT_EQ(Read(disk, 4096, block.Data(), 4096), 4096);
    EXPECT_EQ(Read(disk, 512, block.Data(), 4096), -87);
    EXPECT_EQ(Read(disk, 0, block.Data(), 512), -87);
    EXPECT_EQ(Read(disk, 0, block.Data() + 512, 4096), -87);
    EXPECT_EQ(Read(disk, 0, block.Data(), 0), 0);
    const HANDLE odd = Open(L"\\\\.\\PhysicalDrive2", GENERIC_READ, shareBoth, FILE_FLAG_NO_BUFFERING);
    EXPECT_EQ(Read(odd, 520, block.Data() + 512, 1040), 1040);
    EXPECT_EQ(Read(odd, 520, block.Data() + 520, 1040), -87);
    EXPECT_EQ(Read(odd, 520, block.Data(), 512), -87);
    const HANDLE buffered = Open(disk1Path);
    EXPECT_EQ(Read(buffered, 1, block.Data() + 1, 3), 3);
}

TEST_F(MachineTest, AWriteReachesTheFileAtOnceAndNeedsTheRight) {
    MakeDisk("d", 1024);
    Start({{"disks", {{{"number", 1}, {"file", "d"}}}}});
    const HANDLE disk = Open(disk1Path, readWrite);
    EXPECT_EQ(Write(disk, 512, "xyz", 3), 3);
    EXPECT_EQ(ContentOf("d").substr(512, 4), std::string("xyz\x01", 4));
    const HANDLE reader = Open(disk1Path);
    EXPECT_EQ(Write(reader, 512, "abc", 3), -5);
    const HANDLE writer = Open(disk1Path, GENERIC_WRITE);
    char byte = 0;
    EXPECT_EQ(Read(writer, 512, &byte, 1), -5);
    EXPECT_EQ(ContentOf("d").substr(512, 3), "xyz");
}

TEST_F(MachineTest, ShareModesHoldAmongTheHandlesOfARun) {
    MakeDisk("d", 1024);
    Start({{"disks",
            {{{"number", 1}, {"file", "d"}},
             {{"number", 2}, {"file", "d"}, {"in_use", true}},
             {{"number", 3}, {"file", "d"}, {"open_error", 5}},
             {{"number", 2147483647}, {"file", "d"}}}}});
    const HANDLE exclusive = Open(disk1Path, readWrite, 0);
    ASSERT_NE(exclusive, INVALID_HANDLE_VALUE);
    EXPECT_EQ(OpenError(disk1Path), 32u);
    EXPECT_TRUE(CloseHandle(exclusive));
    const HANDLE reader = Open(disk1Path, GENERIC_READ, FILE_SHARE_READ);
    EXPECT_EQ(OpenError(disk1Path, readWrite), 32u);
    EXPECT_EQ(OpenError(disk1Path, GENERIC_READ, FILE_SHARE_WRITE), 32u);
    const HANDLE second = Open(disk1Path);
    EXPECT_NE(second, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(second));
    EXPECT_TRUE(CloseHandle(reader));
    EXPECT_EQ(OpenError(L"\\\\.\\PhysicalDrive2", readWrite, 0), 32u);
    EXPECT_EQ(OpenError(L"\\\\.\\PhysicalDrive2", GENERIC_READ, FILE_SHARE_READ), 32u);
    EXPECT_NE(Open(L"\\\\.\\PhysicalDrive2"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(OpenError(L"\\\\.\\PhysicalDrive3"), 5u);
    EXPECT_NE(Open(L"\\\\.\\PhysicalDrive2147483647"), INVALID_HANDLE_VALUE);
    for (const wchar_t* missing :
         {L"\\\\.\\PhysicalDrive4", L"\\\\.\\PhysicalDrive01", L"\\\\.\\PhysicalDrive", L"\\\\.\\C:", L"\\\\.\\Wendrel",
          L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy1"}) {
        EXPECT_EQ(OpenError(missing), 2u) << missing;
    }
}

TEST_F(MachineTest, ADeviceIsNotMadeByOpeningIt) {
    MakeDisk("d", 1u << 20);
    Start({{"disks", {{{"number", 1}, {"file", "d"}}}},
           {"system_volume", {{"extents", Json::array()}}},
           {"volumes", {{{"name", "\\\\?\\Volume{1}\\"}}}}});
    const auto error = [](const wchar_t* path, DWORD disposition) {
        SetLastError(0);
        EXPECT_EQ(CreateFileW(path, GENERIC_WRITE, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr),
                  INVALID_HANDLE_VALUE);
        return GetLastError();
    };
    for (const DWORD disposition : {DWORD{CREATE_NEW}, DWORD{CREATE_ALWAYS}}) {
        EXPECT_EQ(error(disk1Path, disposition), 87u);
        EXPECT_EQ(error(L"\\\\.\\C:", disposition), 87u);
        EXPECT_EQ(error(L"\\\\?\\Volume{1}", disposition), 87u);
        for (const wchar_t* missing :
             {L"\\\\.\\PhysicalDrive1.partial", L"\\\\.\\PhysicalDrive2", L"\\\\.\\x", L"\\\\.\\", L"\\\\?\\Volume{2}",
              L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy1"}) {
            EXPECT_EQ(error(missing, disposition), 2u) << missing;
        }
    }
    // Nothing of a refused open stands in the way of another.
    EXPECT_NE(Open(disk1Path, readWrite, 0), INVALID_HANDLE_VALUE);
}

TEST_F(MachineTest, AClosedHandleIsRefusedAndItsNumberNotUsedAgain) {
    MakeDisk("d", 1024);
    Start({{"disks", {{{"number", 1}, {"file", "d"}}}}, {"calls", "calls.jsonl"}});
    const HANDLE first = Open(disk1Path);
    EXPECT_TRUE(CloseHandle(first));
    EXPECT_FALSE(CloseHandle(first));
    EXPECT_EQ(GetLastError(), 6u);
    EXPECT_NE(Open(disk1Path), first);
    const std::vector<Json> log = Log();
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0]["handle"], 1);
    EXPECT_EQ(
        log[1],
        Json({{"n", 2}, {"call", "CloseHandle"}, {"handle", 1}, {"path", "\\\\.\\PhysicalDrive1"}, {"ok", true}}));
    EXPECT_EQ(log[2]["error"], 6);
    EXPECT_EQ(log[3]["handle"], 2);
}

TEST_F(MachineTest, VolumesAreEnumeratedAndAnswerForTheirExtents) {
    const Json extent = {{"disk", 7}, {"start", 512}, {"length", 1024}};
    Start({{"volumes",
            {{{"name", "\\\\?\\Volume{b}\\"}, {"extents", {extent, extent}}},
             {{"name", "\\\\?\\Volume{\xC3\xA4}\\"}, {"open_error", 21}}}},
           {"system_volume", {{"extents", Json::array()}}}});
    wchar_t name[260];
    const HANDLE search = FindFirstVolumeW(name, 260);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_STREQ(name, L"\\\\?\\Volume{b}\\");
    ASSERT_TRUE(FindNextVolumeW(search, name, 260));
    EXPECT_STREQ(name, L"\\\\?\\Volume{\x00E4}\\");
    EXPECT_FALSE(FindNextVolumeW(search, name, 260));
    EXPECT_EQ(GetLastError(), 18u);
    EXPECT_TRUE(FindVolumeClose(search));
    EXPECT_FALSE(FindVolumeClose(search));
    EXPECT_EQ(FindFirstVolumeW(name, 3), INVALID_HANDLE_VALUE);

    EXPECT_EQ(OpenError(L"\\\\?\\Volume{\x00E4}"), 21u);
    const HANDLE volume = Open(L"\\\\?\\Volume{b}");
    VOLUME_DISK_EXTENTS room[4] = {};
    EXPECT_EQ(Ask(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, room, 55), -234);
    EXPECT_EQ(Ask(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, room, 56), 56);
    EXPECT_EQ(room[0].NumberOfDiskExtents, 2u);
    EXPECT_EQ(room[0].Extents[0].DiskNumber, 7u);
    EXPECT_EQ(room[0].Extents[0].StartingOffset.QuadPart, 512);
    EXPECT_EQ(room[0].Extents[0].ExtentLength.QuadPart, 1024);
    EXPECT_GT(Ask(Open(L"\\\\.\\C:"), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, room, sizeof room), 0);
    EXPECT_EQ(room[0].NumberOfDiskExtents, 0u);
}

TEST_F(MachineTest, WithoutVolumesThereIsNothingToFind) {
    Start(Json::object());
    wchar_t name[260];
    EXPECT_EQ(FindFirstVolumeW(name, 260), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), 18u);
}

class TrackerTest : public MachineTest {
protected:
    void StartTracking(const Json& tracked) {
        MakeDisk("d", 1u << 20);
        MakeFile("tracker.json", Json({{"disks", {tracked}}}).dump());
        Start({{"disks", {{{"number", 1}, {"file", "d"}}}}, {"tracker", "tracker.json"}});
        device_ = Open(L"\\\\.\\Wendrel", readWrite, 0);
        ASSERT_NE(device_, INVALID_HANDLE_VALUE);
    }

    Json TrackedDisk() const { return Json::parse(ContentOf("tracker.json"))["disks"][0]; }

    // The last error of a request, 0 for success.
    DWORD Request(DWORD code, std::uint32_t disk, std::vector<std::uint8_t>* out, std::uint64_t epoch = 0) {
        std::uint8_t in[16] = {};
        std::memcpy(in, &disk, 4);
        std::memcpy(in + 8, &epoch, 8);
        const DWORD inLength = code == 0x8C7D200C ? 16 : 8;
        return DeviceIoControl(device_, code, in, inLength, out == nullptr ? nullptr : out->data(),
                               out == nullptr ? 0 : static_cast<DWORD>(out->size()), &returned_, nullptr)
                   ? 0
                   : GetLastError();
    }

    // The status at the beginning of an answer, as words of 32 bits: active, has previous epoch, previous epoch (two
    // words), current epoch (two), other gap, gap, tracked extent (two), granularity shift, bytes of the bitmap.
    static std::vector<std::uint32_t> StatusIn(const std::vector<std::uint8_t>& answer) {
        std::vector<std::uint32_t> words(12);
        std::memcpy(words.data(), answer.data(), 48);
        return words;
    }

    HANDLE device_ = INVALID_HANDLE_VALUE;
    DWORD returned_ = 0;
};

constexpr DWORD attachCode = 0x8C7D2004;
constexpr DWORD queryCode = 0x8C7D2008;
constexpr DWORD commitCode = 0x8C7D200C;

TEST_F(TrackerTest, AQueryFillsTheStatusAndTheBitmapWhereItFits) {
    StartTracking(
        {{"number", 1}, {"previous_epoch", 16}, {"has_previous_epoch", 1}, {"current_epoch", 17}, {"bitmap", "0180"}});
    EXPECT_EQ(Request(attachCode, 1, nullptr), 0u);
    EXPECT_EQ(Request(attachCode, 2, nullptr), 2u);
    EXPECT_EQ(OpenError(L"\\\\.\\Wendrel", readWrite, 0), 32u);
    std::vector<std::uint8_t> out(49, 0xEE);
    EXPECT_EQ(Request(queryCode, 1, &out), 234u);
    EXPECT_EQ(returned_, 48u);
    EXPECT_EQ(StatusIn(out), (std::vector<std::uint32_t>{1, 1, 16, 0, 17, 0, 0, 0, 1u << 20, 0, 16, 2}));
    EXPECT_EQ(out[48], 0xEE);
    out.assign(51, 0xEE);
    EXPECT_EQ(Request(queryCode, 1, &out), 0u);
    EXPECT_EQ(returned_, 50u);
    EXPECT_EQ(out[48], 0x01);
    EXPECT_EQ(out[49], 0x80);
    EXPECT_EQ(out[50], 0xEE);
    EXPECT_EQ(Request(0x8C7D2010, 1, nullptr), 1u);
}

TEST_F(TrackerTest, TheFirstReplyAloneIsOverridden) {
    StartTracking({{"number", 1}, {"first_reply", {{"bitmap_bytes", 3}, {"gap", 9}}}});
    std::vector<std::uint8_t> out(50, 0);
    EXPECT_EQ(Request(queryCode, 1, &out), 0u);
    EXPECT_EQ(StatusIn(out), (std::vector<std::uint32_t>{1, 0, 0, 0, 1, 0, 0, 9, 1u << 20, 0, 16, 3}));
    EXPECT_EQ(Request(queryCode, 1, &out), 0u);
    EXPECT_EQ(StatusIn(out), (std::vector<std::uint32_t>{1, 0, 0, 0, 1, 0, 0, 0, 1u << 20, 0, 16, 2}));
}

TEST_F(TrackerTest, ACommitRewritesTheFileAndKeepsTheRest) {
    StartTracking({{"number", 1}, {"gap", 1}, {"other_gap", 1}, {"active", 5}, {"bitmap", "ff"}});
    EXPECT_EQ(Request(commitCode, 1, nullptr, 0x123456789AULL), 0u);
    EXPECT_EQ(TrackedDisk(), Json({{"number", 1},
                                   {"has_previous_epoch", 1},
                                   {"previous_epoch", 0x123456789AULL},
                                   {"current_epoch", 0x123456789BULL},
                                   {"gap", 0},
                                   {"other_gap", 0},
                                   {"active", 5},
                                   {"bitmap", "00"}}));
}

TEST_F(TrackerTest, AWriteOfTheProgramSetsItsBitsAndAPokeDoesNot) {
    StartTracking({{"number", 1}});
    const HANDLE disk = Open(disk1Path, readWrite);
    const std::string bytes(512, 'w');
    EXPECT_EQ(Write(disk, 65536 - 256, bytes.data(), 512), 512);
    EXPECT_EQ(Write(disk, (1 << 20) - 512, bytes.data(), 512), 512);
    ASSERT_TRUE(CurrentMachine()->FindDisk(1)->Poke(5 * 65536, {1, 2, 3}));
    std::vector<std::uint8_t> out(50, 0);
    EXPECT_EQ(Request(queryCode, 1, &out), 0u);
    EXPECT_EQ(out[48], 0x03);
    EXPECT_EQ(out[49], 0x80);
    // The file follows when the run ends.
    EXPECT_FALSE(TrackedDisk().contains("bitmap"));
    CurrentMachine()->ChangeTracker->Save();
    EXPECT_EQ(TrackedDisk()["bitmap"], "0380");
}

TEST_F(TrackerTest, BitsBehindTheEndOfTheBitmapAreDropped) {
    StartTracking({{"number", 1}, {"bitmap", "00"}});
    const HANDLE disk = Open(disk1Path, readWrite);
    const std::string bytes(2 * 65536, 'w');
    EXPECT_EQ(Write(disk, 7 * 65536, bytes.data(), 2 * 65536), 2 * 65536);
    EXPECT_EQ(Write(disk, 12 * 65536, bytes.data(), 512), 512);
    CurrentMachine()->ChangeTracker->Save();
    EXPECT_EQ(TrackedDisk()["bitmap"], "80");
}

class ShadowTest : public MachineTest {
protected:
    static constexpr wchar_t volumeName[] = L"\\\\?\\Volume{1}\\";
    static constexpr wchar_t deviceName[] = L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy1";

    void StartService(Json volume = Json::object(), DWORD diskCount = 1) {
        MakeDisk("d", 1u << 20);
        volume["name"] = "\\\\?\\Volume{1}\\";
        volume["extents"] = {{{"disk", 1}, {"start", 4096}, {"length", 262144}}};
        Json disks = Json::array();
        for (DWORD number = 1; number <= diskCount; ++number) {
            disks.push_back({{"number", number}, {"file", "d"}, {"sector_size", 4096}});
        }
        Start({{"disks", disks},
               {"volumes", {volume}},
               {"calls", "calls.jsonl"},
               {"shadow_service", {{"writers", {{{"name", "W"}, {"state", 7}, {"failure", "0x800423F4"}}}}}}});
        ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        ASSERT_EQ(CreateVssBackupComponents(&components_), S_OK);
    }

    void TearDown() override {
        if (components_ != nullptr) {
            EXPECT_EQ(components_->Release(), 0u);
        }
        MachineTest::TearDown();
    }

    // Calls a method with an asynchronous result and waits for it; gives what the step finished with.
    HRESULT Finish(HRESULT (STDMETHODCALLTYPE IVssBackupComponents::*method)(IVssAsync**)) {
        IVssAsync* async = nullptr;
        const HRESULT begun = (components_->*method)(&async);
        if (FAILED(begun)) {
            EXPECT_EQ(async, nullptr);
            return begun;
        }
        HRESULT result = E_FAIL;
        EXPECT_EQ(async->QueryStatus(&result, nullptr), S_OK);
        EXPECT_EQ(result, VSS_S_ASYNC_PENDING);
        EXPECT_EQ(async->Wait(INFINITE), S_OK);
        EXPECT_EQ(async->QueryStatus(&result, nullptr), S_OK);
        EXPECT_EQ(async->Release(), 0u);
        return result;
    }

    // Everything up to, and with, the start of a set.
    void StartSet() {
        ASSERT_EQ(components_->InitializeForBackup(nullptr), S_OK);
        ASSERT_EQ(components_->SetContext(VSS_CTX_BACKUP), S_OK);
        ASSERT_EQ(Finish(&IVssBackupComponents::GatherWriterMetadata), VSS_S_ASYNC_FINISHED);
        ASSERT_EQ(components_->StartSnapshotSet(&setId_), S_OK);
    }

    // Everything up to, and with, the addition of the volume.
    void Prepare() {
        StartSet();
        ASSERT_EQ(components_->SetBackupState(FALSE, TRUE, VSS_BT_COPY, FALSE), S_OK);
        BOOL supported = FALSE;
        ASSERT_EQ(components_->IsVolumeSupported(VSS_ID{}, Name(), &supported), S_OK);
        ASSERT_TRUE(supported);
        ASSERT_EQ(components_->AddToSnapshotSet(Name(), VSS_ID{}, &snapshotId_), S_OK);
    }

    void TakeSnapshots() {
        ASSERT_EQ(Finish(&IVssBackupComponents::PrepareForBackup), VSS_S_ASYNC_FINISHED);
        ASSERT_EQ(Finish(&IVssBackupComponents::DoSnapshotSet), VSS_S_ASYNC_FINISHED);
    }

    HRESULT DeleteSet() {
        LONG deleted = -1;
        VSS_ID notDeleted = {};
        return components_->DeleteSnapshots(setId_, VSS_OBJECT_SNAPSHOT_SET, TRUE, &deleted, &notDeleted);
    }

    WCHAR* Name() { return name_.data(); }

    std::wstring name_ = volumeName;
    IVssBackupComponents* components_ = nullptr;
    VSS_ID setId_ = {};
    VSS_ID snapshotId_ = {};
};

TEST_F(ShadowTest, TheServiceFreezesTheBytesUntilTheSetIsDeleted) {
    StartService();
    Prepare();
    EXPECT_EQ(OpenError(deviceName), 2u);
    TakeSnapshots();
    VSS_SNAPSHOT_PROP properties = {};
    ASSERT_EQ(components_->GetSnapshotProperties(snapshotId_, &properties), S_OK);
    EXPECT_STREQ(properties.m_pwszSnapshotDeviceObject, L"\\Device\\HarddiskVolumeShadowCopy1");
    EXPECT_STREQ(properties.m_pwszOriginalVolumeName, volumeName);
    VssFreeSnapshotProperties(&properties);

    const HANDLE live = Open(disk1Path, readWrite);
    const std::string changed(8192, 'x');
    EXPECT_EQ(Write(live, 4096 + 65536 - 4096, changed.data(), 8192), 8192);
    EXPECT_EQ(Write(live, 0, changed.data(), 8192), 8192);
    const HANDLE device = Open(deviceName, GENERIC_READ, FILE_SHARE_READ, FILE_FLAG_NO_BUFFERING);
    ASSERT_NE(device, INVALID_HANDLE_VALUE);
    Block block(262144);
    EXPECT_EQ(Read(device, 0, block.Data(), 262144), 262144);
    for (std::size_t offset = 0; offset < 262144; offset += 512) {
        ASSERT_EQ(block.Data()[offset], (4096 + offset) / 512 % 251) << offset;
    }
    EXPECT_EQ(Read(device, 512, block.Data(), 4096), -87);
    EXPECT_EQ(Read(device, 262144, block.Data(), 4096), -27);
    EXPECT_EQ(Write(device, 0, block.Data(), 4096), -5);

    EXPECT_EQ(Finish(&IVssBackupComponents::BackupComplete), VSS_S_ASYNC_FINISHED);
    EXPECT_EQ(DeleteSet(), S_OK);
    EXPECT_EQ(DeleteSet(), VSS_E_OBJECT_NOT_FOUND);
    EXPECT_EQ(OpenError(deviceName), 2u);
    EXPECT_LT(Read(device, 0, block.Data(), 4096), 0);
}

TEST_F(ShadowTest, DisksOfOneFileShareWhatIsFrozen) {
    StartService(Json::object(), 2);
    Prepare();
    TakeSnapshots();
    const HANDLE other = Open(L"\\\\.\\PhysicalDrive2", readWrite);
    EXPECT_EQ(Write(other, 4096, "x", 1), 1);
    const HANDLE device = Open(deviceName, GENERIC_READ, FILE_SHARE_READ);
    char byte = 0;
    EXPECT_EQ(Read(device, 0, &byte, 1), 1);
    EXPECT_EQ(byte, 8);
}

TEST_F(ShadowTest, AShadowFileStandsForTheFrozenBytes) {
    MakeFile("shadow", std::string(8192, 's'));
    StartService({{"shadow", {{"file", "shadow"}, {"device_object", "\\\\.\\MyShadow"}}}});
    Prepare();
    TakeSnapshots();
    const HANDLE device = Open(L"\\\\.\\MyShadow", GENERIC_READ, FILE_SHARE_READ);
    char bytes[8] = {};
    EXPECT_EQ(Read(device, 8188, bytes, 8), 4);
    EXPECT_EQ(std::string(bytes, 4), "ssss");
}

TEST_F(ShadowTest, ADeviceObjectMayBeNull) {
    StartService({{"shadow", {{"device_object", nullptr}}}});
    Prepare();
    TakeSnapshots();
    VSS_SNAPSHOT_PROP properties = {};
    ASSERT_EQ(components_->GetSnapshotProperties(snapshotId_, &properties), S_OK);
    EXPECT_EQ(properties.m_pwszSnapshotDeviceObject, nullptr);
    VssFreeSnapshotProperties(&properties);
}

TEST_F(ShadowTest, WritersAreReportedOnceTheirStatusIsGathered) {
    StartService();
    Prepare();
    TakeSnapshots();
    UINT count = 0;
    EXPECT_EQ(components_->GetWriterStatusCount(&count), VSS_E_BAD_STATE);
    EXPECT_EQ(Finish(&IVssBackupComponents::GatherWriterStatus), VSS_S_ASYNC_FINISHED);
    ASSERT_EQ(components_->GetWriterStatusCount(&count), S_OK);
    EXPECT_EQ(count, 1u);
    VSS_ID instance = {};
    VSS_ID writer = {};
    BSTR name = nullptr;
    VSS_WRITER_STATE state = VSS_WS_UNKNOWN;
    HRESULT failure = 0;
    ASSERT_EQ(components_->GetWriterStatus(0, &instance, &writer, &name, &state, &failure), S_OK);
    EXPECT_STREQ(name, L"W");
    SysFreeString(name);
    EXPECT_EQ(state, VSS_WS_FAILED_AT_PREPARE_BACKUP);
    EXPECT_EQ(static_cast<std::uint32_t>(failure), 0x800423F4u);
    EXPECT_EQ(components_->GetWriterStatus(1, &instance, &writer, &name, &state, &failure), VSS_E_OBJECT_NOT_FOUND);
    EXPECT_EQ(components_->FreeWriterStatus(), S_OK);
    EXPECT_EQ(components_->FreeWriterStatus(), VSS_E_BAD_STATE);
}

TEST_F(ShadowTest, CallsOutOfOrderAreRefused) {
    StartService();
    VSS_ID id = {};
    BOOL supported = FALSE;
    EXPECT_EQ(components_->SetContext(VSS_CTX_BACKUP), VSS_E_BAD_STATE);
    EXPECT_EQ(components_->SetBackupState(FALSE, TRUE, VSS_BT_COPY, FALSE), VSS_E_BAD_STATE);
    EXPECT_EQ(Finish(&IVssBackupComponents::GatherWriterMetadata), VSS_E_BAD_STATE);
    EXPECT_EQ(components_->StartSnapshotSet(&id), VSS_E_BAD_STATE);
    EXPECT_EQ(components_->IsVolumeSupported(VSS_ID{}, Name(), &supported), VSS_E_BAD_STATE);
    EXPECT_EQ(components_->AbortBackup(), VSS_E_BAD_STATE);
    EXPECT_EQ(DeleteSet(), VSS_E_BAD_STATE);
    ASSERT_EQ(components_->InitializeForBackup(nullptr), S_OK);
    EXPECT_EQ(components_->InitializeForBackup(nullptr), VSS_E_BAD_STATE);
    EXPECT_EQ(components_->StartSnapshotSet(&id), VSS_E_BAD_STATE);
    EXPECT_EQ(components_->AddToSnapshotSet(Name(), VSS_ID{}, &id), VSS_E_BAD_STATE);
    EXPECT_EQ(Finish(&IVssBackupComponents::PrepareForBackup), VSS_E_BAD_STATE);
    EXPECT_EQ(Finish(&IVssBackupComponents::DoSnapshotSet), VSS_E_BAD_STATE);
    EXPECT_EQ(Finish(&IVssBackupComponents::BackupComplete), VSS_E_BAD_STATE);
    VSS_SNAPSHOT_PROP properties = {};
    EXPECT_EQ(components_->GetSnapshotProperties(id, &properties), VSS_E_BAD_STATE);
}

TEST_F(ShadowTest, OnlyAWaitForTheEndFinishesAStep) {
    StartService();
    ASSERT_EQ(components_->InitializeForBackup(nullptr), S_OK);
    IVssAsync* async = nullptr;
    ASSERT_EQ(components_->GatherWriterMetadata(&async), S_OK);
    HRESULT result = E_FAIL;
    for (const DWORD limit : {DWORD{0}, DWORD{1000}, DWORD{INFINITE} - 1}) {
        EXPECT_EQ(async->Wait(limit), S_OK);
        EXPECT_EQ(async->QueryStatus(&result, nullptr), S_OK);
        EXPECT_EQ(static_cast<std::uint32_t>(result), 0x00042309u) << limit;
        EXPECT_EQ(components_->StartSnapshotSet(&setId_), VSS_E_BAD_STATE) << limit;
    }
    EXPECT_EQ(async->Wait(INFINITE), S_OK);
    for (const DWORD limit : {DWORD{INFINITE}, DWORD{0}}) {
        EXPECT_EQ(async->QueryStatus(&result, nullptr), S_OK);
        EXPECT_EQ(static_cast<std::uint32_t>(result), 0x0004230Au);
        EXPECT_EQ(async->Wait(limit), S_OK);
    }
    EXPECT_EQ(components_->StartSnapshotSet(&setId_), S_OK);
    EXPECT_EQ(async->Release(), 0u);
    std::vector<std::string> limits;
    for (const Json& line : Log()) {
        if (line["call"] == "IVssAsync::Wait") {
            EXPECT_EQ(line["step"], "GatherWriterMetadata");
            limits.push_back(line["timeout"]);
        }
    }
    EXPECT_EQ(limits, (std::vector<std::string>{"0x00000000", "0x000003E8", "0xFFFFFFFE", "0xFFFFFFFF", "0xFFFFFFFF",
                                                "0x00000000"}));
}

TEST_F(ShadowTest, OnlyTheBackupStateOfACopyIsTaken) {
    StartService();
    StartSet();
    ASSERT_EQ(components_->AddToSnapshotSet(Name(), VSS_ID{}, &snapshotId_), S_OK);
    const auto set = [&](bool select, bool bootable, VSS_BACKUP_TYPE type, bool partial) {
        const auto status = static_cast<std::uint32_t>(components_->SetBackupState(select, bootable, type, partial));
        const Json line = Log().back();
        EXPECT_EQ(line["call"], "IVssBackupComponents::SetBackupState");
        EXPECT_EQ(line["select_components"], select);
        EXPECT_EQ(line["bootable_state"], bootable);
        EXPECT_EQ(line["type"], static_cast<int>(type));
        EXPECT_EQ(line["partial_files"], partial);
        return status;
    };
    EXPECT_EQ(set(true, true, VSS_BT_COPY, false), 0x80070057u);
    EXPECT_EQ(set(false, false, VSS_BT_COPY, false), 0x80070057u);
    EXPECT_EQ(set(false, true, VSS_BT_FULL, false), 0x80070057u);
    EXPECT_EQ(set(false, true, VSS_BT_COPY, true), 0x80070057u);
    // A state that was refused is none.
    EXPECT_EQ(Finish(&IVssBackupComponents::PrepareForBackup), VSS_E_BAD_STATE);
    EXPECT_EQ(set(false, true, VSS_BT_COPY, false), 0u);
    EXPECT_EQ(Finish(&IVssBackupComponents::PrepareForBackup), VSS_S_ASYNC_FINISHED);
}

TEST_F(ShadowTest, ASetWithoutAVolumeCannotBeMade) {
    StartService();
    StartSet();
    ASSERT_EQ(components_->SetBackupState(FALSE, TRUE, VSS_BT_COPY, FALSE), S_OK);
    ASSERT_EQ(Finish(&IVssBackupComponents::PrepareForBackup), VSS_S_ASYNC_FINISHED);
    EXPECT_EQ(Finish(&IVssBackupComponents::DoSnapshotSet), VSS_E_BAD_STATE);
}

TEST_F(ShadowTest, AVolumeIsAddedOnceAndByItsWholeName) {
    StartService();
    Prepare();
    VSS_ID id = {};
    EXPECT_EQ(static_cast<std::uint32_t>(components_->AddToSnapshotSet(Name(), VSS_ID{}, &id)), 0x8004230Du);
    name_.pop_back();
    EXPECT_EQ(components_->AddToSnapshotSet(Name(), VSS_ID{}, &id), VSS_E_OBJECT_NOT_FOUND);
}

TEST_F(ShadowTest, AVolumeMayNotBeSupported) {
    StartService({{"supported", false}});
    StartSet();
    BOOL supported = TRUE;
    EXPECT_EQ(components_->IsVolumeSupported(VSS_ID{}, Name(), &supported), S_OK);
    EXPECT_FALSE(supported);
    VSS_ID id = {};
    EXPECT_EQ(static_cast<std::uint32_t>(components_->AddToSnapshotSet(Name(), VSS_ID{}, &id)), 0x8004230Cu);
}

TEST_F(ShadowTest, TheSnapshotsEndWithTheSession) {
    StartService();
    Prepare();
    TakeSnapshots();
    EXPECT_NE(Open(deviceName, GENERIC_READ, FILE_SHARE_READ), INVALID_HANDLE_VALUE);
    EXPECT_EQ(components_->Release(), 0u);
    components_ = nullptr;
    EXPECT_EQ(OpenError(deviceName), 2u);
}

TEST_F(MachineTest, ComMustBeStartedFirst) {
    Start({{"shadow_service", Json::object()}});
    IVssBackupComponents* components = nullptr;
    EXPECT_EQ(CreateVssBackupComponents(&components), CO_E_NOTINITIALIZED);
    EXPECT_EQ(components, nullptr);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
    const auto secure = [] { return CoInitializeSecurity(nullptr, -1, nullptr, nullptr, 6, 3, nullptr, 0, nullptr); };
    EXPECT_EQ(secure(), S_OK);
    EXPECT_EQ(secure(), RPC_E_TOO_LATE);
    CoUninitialize();
    CoUninitialize();
}

TEST_F(MachineTest, TheClockGivesWhatIsDescribed) {
    Start({{"ticks", {{"start", 1000}, {"step", 50}}}});
    EXPECT_EQ(GetTickCount64(), 1000u);
    EXPECT_EQ(GetTickCount64(), 1050u);
}

TEST_F(MachineTest, AnAlignmentThatIsNoPowerOfTwoGivesNothing) {
    Start(Json::object());
    EXPECT_EQ(_aligned_malloc(1024, 520), nullptr);
    EXPECT_EQ(_aligned_malloc(1024, 0), nullptr);
    void* const block = _aligned_malloc(1024, 4096);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 4096, 0u);
    _aligned_free(block);
}

TEST_F(MachineTest, APokeIsWrittenBeforeItsCallAndAFlipAfterIt) {
    MakeDisk("d", 1024);
    Start({{"disks", {{{"number", 1}, {"file", "d"}}}},
           {"faults",
            {{{"call", "ReadFile"}, {"poke", {{"disk", 1}, {"offset", 512}, {"hex", "aabb"}}}},
             {{"call", "ReadFile"}, {"flip", 1}},
             {{"call", "ReadFile"}, {"transferred", 1}, {"error", 23}},
             {{"call", "ReadFile"}, {"transferred", 1}},
             {{"call", "ReadFile"}, {"error", 1117}}}}});
    const HANDLE disk = Open(disk1Path);
    std::uint8_t bytes[2] = {};
    EXPECT_EQ(Read(disk, 512, bytes, 2), 2);
    EXPECT_EQ(bytes[0], 0xAA);
    EXPECT_EQ(Read(disk, 512, bytes, 2), 2);
    EXPECT_EQ(bytes[0], 0xAA);
    EXPECT_EQ(bytes[1], 0x44);
    EXPECT_EQ(Read(disk, 512, bytes, 2), -23);
    EXPECT_EQ(Read(disk, 512, bytes, 2), 1);
    EXPECT_EQ(Read(disk, 512, bytes, 2), -1117);
    EXPECT_EQ(Read(disk, 512, bytes, 2), 2);
}

TEST_F(MachineTest, AHostFileKeepsItsPlaceInTheLog) {
    Start({{"calls", "calls.jsonl"}});
    const std::wstring path = std::filesystem::path(PathOf("file")).wstring();
    const HANDLE file = CreateFileW(path.c_str(), readWrite, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_EQ(Write(file, 3, "abc", 3), 3);
    DWORD count = 0;
    EXPECT_TRUE(WriteFile(file, "de", 2, &count, nullptr));
    LARGE_INTEGER size = {};
    EXPECT_TRUE(GetFileSizeEx(file, &size));
    EXPECT_EQ(size.QuadPart, 8);
    EXPECT_FALSE(SetFilePointerEx(file, At(-1), nullptr, FILE_BEGIN));
    EXPECT_EQ(GetLastError(), 131u);
    EXPECT_TRUE(CloseHandle(file));
    const std::vector<Json> log = Log();
    ASSERT_EQ(log.size(), 7u);
    EXPECT_EQ(log[0]["access"], "0xC0000000");
    EXPECT_EQ(log[0]["flags"], "0x00000080");
    EXPECT_EQ(log[1]["offset"], 3);
    EXPECT_EQ(log[3]["offset"], 6);
    EXPECT_EQ(log[3]["transferred"], 2);
    EXPECT_EQ(log[4]["size"], 8);
    EXPECT_EQ(log[5]["error"], 131);
}

} // namespace
