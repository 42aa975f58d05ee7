// What a description of a machine may say and what its absence means; and that anything else is refused, by name.
#include "bench/machine_description.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

using namespace vornix::bench;

namespace {

// A folder that exists in memory alone.
class MemoryFiles final : public DescriptionFiles {
public:
    std::map<std::string, std::string> Texts;

    std::optional<std::string> ReadText(const std::string& name) const override {
        const auto found = Texts.find(name);
        return found == Texts.end() ? std::nullopt : std::optional(found->second);
    }

    std::optional<std::uint64_t> FindSize(const std::string& name) const override {
        const auto found = Texts.find(name);
        return found == Texts.end() ? std::nullopt : std::optional<std::uint64_t>(found->second.size());
    }
};

// A folder with a disk file of 4096 bytes, a shadow file and a tracker file.
MemoryFiles MakeFolder(const std::string& description, const std::string& tracker = "{}") {
    MemoryFiles files;
    files.Texts["machine.json"] = description;
    files.Texts["disk.img"] = std::string(4096, 'd');
    files.Texts["shadow.img"] = std::string(512, 's');
    files.Texts["tracker.json"] = tracker;
    return files;
}

MachineDescription Load(const std::string& description, const std::string& tracker = "{}") {
    return LoadMachineDescription(MakeFolder(description, tracker));
}

// The one line with which the description is refused; a failure of the test if it is not.
std::string Refusal(const std::string& description, const std::string& tracker = "{}") {
    try {
        Load(description, tracker);
    } catch (const DescriptionError& error) {
        return error.what();
    }
    ADD_FAILURE() << "not refused: " << description << " with " << tracker;
    return "";
}

void ExpectRefused(const std::string& description, const std::string& part, const std::string& tracker = "{}") {
    const std::string refusal = Refusal(description, tracker);
    EXPECT_NE(refusal.find(part), std::string::npos)
        << description << " with " << tracker << " is refused with: " << refusal;
}

void ExpectTrackerRefused(const std::string& tracker, const std::string& part) {
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img"}], "tracker": "tracker.json"})", part, tracker);
}

// What the driver answers of a disk, but for its bitmap: active, has previous epoch, previous and current epoch, other
// gap, gap, tracked extent, granularity shift.
std::vector<std::uint64_t> NumbersOf(const TrackedDiskDescription& disk) {
    return {disk.Active, disk.HasPreviousEpoch, disk.PreviousEpoch,   disk.CurrentEpoch, disk.OtherGap,
            disk.Gap,    disk.TrackedExtent,    disk.GranularityShift};
}

TEST(Description, AnEmptyObjectIsAMachineWithNothing) {
    const MachineDescription description = Load("{}");
    EXPECT_TRUE(description.Disks.empty());
    EXPECT_FALSE(description.SystemVolume);
    EXPECT_TRUE(description.Volumes.empty());
    EXPECT_FALSE(description.ShadowService);
    EXPECT_FALSE(description.Tracker);
    EXPECT_FALSE(description.Ticks);
    EXPECT_FALSE(description.Calls);
    EXPECT_TRUE(description.Faults.empty());
}

TEST(Description, ADiskHasItsFilesLengthAndCommonSectors) {
    const MachineDescription description = Load(R"({"disks": [{"number": 3, "file": "disk.img"}]})");
    ASSERT_EQ(description.Disks.size(), 1u);
    const DiskDescription& disk = description.Disks[0];
    EXPECT_EQ(disk.Number, 3u);
    EXPECT_EQ(disk.File, "disk.img");
    EXPECT_EQ(disk.Length, 4096u);
    EXPECT_EQ(disk.SectorSize, 512u);
    EXPECT_FALSE(disk.InUse);
    EXPECT_EQ(disk.OpenError, 0u);
    EXPECT_EQ(description.FindDisk(3), &disk);
    EXPECT_EQ(description.FindDisk(4), nullptr);
}

TEST(Description, ADiskHasWhatIsGiven) {
    const MachineDescription description = Load(
        R"({"disks": [{"number": "0x10", "file": "disk.img", "length": "0xffffffffffffffff", "sector_size": 520,
                       "in_use": true, "open_error": 5}]})");
    const DiskDescription& disk = description.Disks.at(0);
    EXPECT_EQ(disk.Number, 16u);
    EXPECT_EQ(disk.Length, 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(disk.SectorSize, 520u);
    EXPECT_TRUE(disk.InUse);
    EXPECT_EQ(disk.OpenError, 5u);
}

TEST(Description, VolumesKeepTheirOrderAndTheirShadows) {
    const MachineDescription description = Load(
        R"({"volumes": [
              {"name": "\\\\?\\Volume{b}\\", "extents": [{"disk": 1, "start": 512, "length": 1024}],
               "open_error": 21, "supported": false,
               "shadow": {"file": "shadow.img", "device_object": "\\Device\\Other"}},
              {"name": "a", "shadow": {"device_object": null}},
              {"name": "c"}],
            "system_volume": {"extents": []}})");
    ASSERT_EQ(description.Volumes.size(), 3u);
    const VolumeDescription& first = description.Volumes[0];
    EXPECT_EQ(first.Name, "\\\\?\\Volume{b}\\");
    ASSERT_EQ(first.Extents.size(), 1u);
    EXPECT_EQ(first.Extents[0].Disk, 1u);
    EXPECT_EQ(first.Extents[0].Start, 512u);
    EXPECT_EQ(first.Extents[0].Length, 1024u);
    EXPECT_EQ(first.OpenError, 21u);
    EXPECT_FALSE(first.Supported);
    EXPECT_EQ(first.Shadow.File, "shadow.img");
    EXPECT_FALSE(first.Shadow.DefaultDeviceObject);
    EXPECT_EQ(first.Shadow.DeviceObject, "\\Device\\Other");
    EXPECT_FALSE(description.Volumes[1].Shadow.DefaultDeviceObject);
    EXPECT_FALSE(description.Volumes[1].Shadow.DeviceObject);
    EXPECT_TRUE(description.Volumes[2].Supported);
    EXPECT_TRUE(description.Volumes[2].Shadow.DefaultDeviceObject);
    EXPECT_FALSE(description.Volumes[2].Shadow.File);
    ASSERT_TRUE(description.SystemVolume);
    EXPECT_TRUE(description.SystemVolume->empty());
}

TEST(Description, WritersMayBeWithoutAName) {
    const MachineDescription description = Load(
        R"({"shadow_service": {"writers": [{"name": "System Writer", "state": 1, "failure": "0x0"},
                                           {"name": null, "state": 7, "failure": "0x800423F4"}]}})");
    ASSERT_TRUE(description.ShadowService);
    ASSERT_EQ(description.ShadowService->size(), 2u);
    EXPECT_EQ(description.ShadowService->at(0).Name, "System Writer");
    EXPECT_FALSE(description.ShadowService->at(1).Name);
    EXPECT_EQ(description.ShadowService->at(1).State, 7u);
    EXPECT_EQ(description.ShadowService->at(1).Failure, 0x800423F4u);
}

TEST(Description, ATrackedDiskHasTheDefaultsOfItsDisk) {
    const MachineDescription description =
        Load(R"({"disks": [{"number": 1, "file": "disk.img", "length": 1048577}], "tracker": "tracker.json"})",
             R"({"disks": [{"number": 1}]})");
    ASSERT_TRUE(description.Tracker);
    EXPECT_EQ(description.Tracker->File, "tracker.json");
    ASSERT_EQ(description.Tracker->Disks.size(), 1u);
    const TrackedDiskDescription& disk = description.Tracker->Disks[0];
    EXPECT_EQ(NumbersOf(disk), (std::vector<std::uint64_t>{1, 0, 0, 1, 0, 0, 1048577, 16}));
    // 16 bits of 64 KiB and one more, so three bytes.
    EXPECT_EQ(disk.Bitmap, (std::vector<std::uint8_t>{0, 0, 0}));
    EXPECT_FALSE(disk.FirstReply.BitmapBytes);
}

TEST(Description, ATrackedDiskHasWhatIsGiven) {
    const MachineDescription description = Load(R"({"tracker": "tracker.json"})",
                                                R"({"open_error": 5,
            "disks": [{"number": 9, "active": 2, "has_previous_epoch": 3, "previous_epoch": "0x100000000",
            "current_epoch": 5, "other_gap": 6, "gap": 7, "tracked_extent": 8, "granularity_shift": 9,
            "bitmap": "00fF01", "first_reply": {"active": 0, "bitmap_bytes": 99}}]})");
    EXPECT_EQ(description.Tracker->OpenError, 5u);
    const TrackedDiskDescription& disk = description.Tracker->Disks.at(0);
    EXPECT_EQ(NumbersOf(disk), (std::vector<std::uint64_t>{2, 3, 0x100000000, 5, 6, 7, 8, 9}));
    EXPECT_EQ(disk.Bitmap, (std::vector<std::uint8_t>{0x00, 0xFF, 0x01}));
    EXPECT_EQ(disk.FirstReply.Active, 0u);
    EXPECT_EQ(disk.FirstReply.BitmapBytes, 99u);
    EXPECT_FALSE(disk.FirstReply.Gap);
}

TEST(Description, AFaultHasItsEffect) {
    const MachineDescription description = Load(
        R"({"disks": [{"number": 1, "file": "disk.img"}],
            "faults": [{"call": "ReadFile", "path": "Drive1", "skip": 2, "times": 3, "error": 23, "transferred": 512},
                       {"call": "GetTickCount64", "poke": {"disk": 1, "offset": "0x10", "hex": "00ff"}},
                       {"call": "exit", "kill": true}]})");
    ASSERT_EQ(description.Faults.size(), 3u);
    const FaultEntry& first = description.Faults[0];
    EXPECT_EQ(first.Call, "ReadFile");
    EXPECT_EQ(first.Path, "Drive1");
    EXPECT_EQ(first.Skip, 2u);
    EXPECT_EQ(first.Times, 3u);
    EXPECT_EQ(first.Effect.Error, 23u);
    EXPECT_EQ(first.Effect.Transferred, 512u);
    const FaultEntry& second = description.Faults[1];
    EXPECT_EQ(second.Skip, 0u);
    EXPECT_EQ(second.Times, 1u);
    EXPECT_FALSE(second.Path);
    ASSERT_TRUE(second.Effect.Poke);
    EXPECT_EQ(second.Effect.Poke->Offset, 16u);
    EXPECT_EQ(second.Effect.Poke->Bytes, (std::vector<std::uint8_t>{0x00, 0xFF}));
    EXPECT_TRUE(description.Faults[2].Effect.Kill);
}

TEST(Description, TheFilesThemselvesMustBeThereAndBeObjects) {
    EXPECT_THROW(LoadMachineDescription(MemoryFiles()), DescriptionError);
    ExpectRefused("", "machine.json");
    ExpectRefused("{", "machine.json");
    ExpectRefused("[]", "no object");
    ExpectRefused("{} {}", "machine.json");
    ExpectRefused("{\"disks\": \"\xFF\"}", "machine.json");
    ExpectTrackerRefused("", "tracker.json");
    ExpectTrackerRefused("[]", "no object");
}

TEST(Description, AnUnknownOrRepeatedKeyIsRefusedEverywhere) {
    ExpectRefused(R"({"disk": []})", "\"disk\"");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img", "size": 1}]})", "\"size\"");
    ExpectRefused(R"({"system_volume": {"extent": []}})", "\"extent\"");
    ExpectRefused(R"({"volumes": [{"name": "a", "letter": "C"}]})", "\"letter\"");
    ExpectRefused(R"({"volumes": [{"name": "a", "extents": [{"disk": 1, "start": 0, "length": 1, "x": 1}]}]})",
                  "\"x\"");
    ExpectRefused(R"({"volumes": [{"name": "a", "shadow": {"path": "shadow.img"}}]})", "\"path\"");
    ExpectRefused(R"({"shadow_service": {"writer": []}})", "\"writer\"");
    ExpectRefused(R"({"shadow_service": {"writers": [{"id": 1}]}})", "\"id\"");
    ExpectRefused(R"({"ticks": {"begin": 1}})", "\"begin\"");
    ExpectRefused(R"({"faults": [{"call": "ReadFile", "error": 1, "count": 1}]})", "\"count\"");
    ExpectTrackerRefused(R"({"disk": []})", "\"disk\"");
    ExpectTrackerRefused(R"({"disks": [{"number": 1, "epoch": 1}]})", "\"epoch\"");
    ExpectTrackerRefused(R"({"disks": [{"number": 1, "first_reply": {"bitmap": ""}}]})", "\"bitmap\"");
    ExpectRefused(R"({"calls": "a", "calls": "b"})", "\"calls\"");
    ExpectRefused(R"({"ticks": {"start": 1, "start": 2}})", "\"start\"");
}

TEST(Description, AValueOfAnotherTypeIsRefused) {
    ExpectRefused(R"({"disks": {}})", "disks");
    ExpectRefused(R"({"disks": [1]})", "disks[0]");
    ExpectRefused(R"({"disks": [{"number": 1, "file": 7}]})", "file");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img", "in_use": 1}]})", "in_use");
    ExpectRefused(R"({"disks": [{"number": 1.0, "file": "disk.img"}]})", "number");
    ExpectRefused(R"({"disks": [{"number": true, "file": "disk.img"}]})", "number");
    ExpectRefused(R"({"system_volume": []})", "system_volume");
    ExpectRefused(R"({"volumes": [{"name": null}]})", "name");
    ExpectRefused(R"({"volumes": [{"name": "a", "shadow": null}]})", "shadow");
    ExpectRefused(R"({"shadow_service": true})", "shadow_service");
    ExpectRefused(R"({"tracker": {}})", "tracker");
    ExpectRefused(R"({"ticks": 5})", "ticks");
    ExpectRefused(R"({"calls": null})", "calls");
    ExpectRefused(R"({"faults": {}})", "faults");
    ExpectRefused(R"({"faults": [{"call": "ReadFile", "kill": 1}]})", "kill");
}

TEST(Description, ANumberOutOfRangeIsRefused) {
    ExpectRefused(R"({"disks": [{"number": -1, "file": "disk.img"}]})", "number");
    ExpectRefused(R"({"disks": [{"number": 4294967296, "file": "disk.img"}]})", "number");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img", "length": 18446744073709551616}]})", "length");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img", "length": "0x10000000000000000"}]})", "length");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img", "length": "16"}]})", "length");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img", "length": "0x"}]})", "length");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img", "length": "0x1g"}]})", "length");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img", "sector_size": 0}]})", "sector_size");
    ExpectTrackerRefused(R"({"disks": [{"number": 1, "active": -1}]})", "active");
    ExpectTrackerRefused(R"({"disks": [{"number": 1, "gap": 4294967296}]})", "gap");
    EXPECT_EQ(Load(R"({"disks": [{"number": 1, "file": "disk.img", "length": "0x00000000000000000010"}]})")
                  .Disks.at(0)
                  .Length,
              16u);
}

TEST(Description, AMissingKeyOrFileIsRefused) {
    ExpectRefused(R"({"disks": [{"file": "disk.img"}]})", "number");
    ExpectRefused(R"({"volumes": [{}]})", "name");
    ExpectRefused(R"({"volumes": [{"name": "a", "extents": [{"disk": 1, "start": 0}]}]})", "length");
    ExpectRefused(R"({"faults": [{"error": 1}]})", "call");
    ExpectTrackerRefused(R"({"disks": [{"active": 1}]})", "number");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "other.img"}]})", "other.img");
    ExpectRefused(R"({"disks": [{"number": 1}]})", "file");
    ExpectRefused(R"({"volumes": [{"name": "a", "shadow": {"file": "other.img"}}]})", "other.img");
    ExpectRefused(R"({"tracker": "other.json"})", "other.json");
    EXPECT_EQ(Load(R"({"disks": [{"number": 1, "open_error": 5}]})").Disks.at(0).OpenError, 5u);
}

TEST(Description, ADiskThatStandsTwiceIsRefused) {
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img"}, {"number": "0x1", "file": "disk.img"}]})", "twice");
    ExpectTrackerRefused(R"({"disks": [{"number": 1}, {"number": 1}]})", "twice");
}

TEST(Description, HexadecimalThatIsNoneIsRefused) {
    ExpectTrackerRefused(R"({"disks": [{"number": 1, "bitmap": "0"}]})", "bitmap");
    ExpectTrackerRefused(R"({"disks": [{"number": 1, "bitmap": "0x"}]})", "bitmap");
    ExpectTrackerRefused(R"({"disks": [{"number": 1, "bitmap": " 00"}]})", "bitmap");
    ExpectRefused(R"({"disks": [{"number": 1, "file": "disk.img"}],
                      "faults": [{"call": "ReadFile", "poke": {"disk": 1, "offset": 0, "hex": "zz"}}]})",
                  "hex");
}

TEST(Description, AFaultOfNoCallOrNoFittingEffectIsRefused) {
    ExpectRefused(R"({"faults": [{"call": "ReadFileEx", "error": 1}]})", "ReadFileEx");
    ExpectRefused(R"({"faults": [{"call": "ReadFile"}]})", "no effect");
    ExpectRefused(R"({"faults": [{"call": "ReadFile", "kill": false}]})", "no effect");
    ExpectRefused(R"({"faults": [{"call": "CreateFileW", "flip": 0}]})", "flip");
    ExpectRefused(R"({"faults": [{"call": "BCryptGenRandom", "error": 1}]})", "error");
    ExpectRefused(R"({"faults": [{"call": "ReadFile", "poke": {"disk": 1, "offset": 0, "hex": "00"}}]})", "no disk 1");
}

} // namespace
