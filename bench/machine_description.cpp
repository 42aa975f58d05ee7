// Reads and checks machine.json and the tracker's file. See machine_description.h.
#include "machine_description.h"

#include "text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <limits>
#include <set>
#include <string_view>
#include <utility>

namespace vornix::bench {

namespace {

using Json = nlohmann::json;

[[noreturn]] void Reject(const std::string& where, const std::string& why) {
    throw DescriptionError(where + ": " + why);
}

// Parses a whole file. Unlike the parser left to itself it refuses a key that stands twice in one object, of which one
// value would go unheeded.
Json ParseJson(const std::string& text, const std::string& where) {
    std::vector<std::set<std::string>> open;
    const auto refuseRepeatedKey = [&](int, Json::parse_event_t event, Json& parsed) {
        if (event == Json::parse_event_t::object_start) {
            open.emplace_back();
        } else if (event == Json::parse_event_t::object_end) {
            open.pop_back();
        } else if (event == Json::parse_event_t::key) {
            const std::string& key = parsed.get_ref<const std::string&>();
            if (!open.back().insert(key).second) {
                Reject(where, "the key \"" + key + "\" stands twice in one object");
            }
        }
        return true;
    };
    try {
        return Json::parse(text, refuseRepeatedKey);
    } catch (const Json::exception& error) {
        Reject(where, error.what());
    }
}

std::uint64_t ParseInteger(const Json& value, const std::string& where, std::uint64_t highest) {
    std::uint64_t number = 0;
    if (value.is_number_unsigned()) {
        number = value.get<std::uint64_t>();
    } else if (value.is_string()) {
        std::string_view digits = value.get_ref<const std::string&>();
        constexpr std::string_view hexDigits = "0123456789abcdefABCDEF";
        if (!digits.starts_with("0x") || digits.size() == 2 ||
            digits.find_first_not_of(hexDigits, 2) != std::string_view::npos) {
            Reject(where, "is no number and no hexadecimal string such as \"0x10\"");
        }
        digits.remove_prefix(std::min(digits.find_first_not_of('0', 2), digits.size()));
        if (digits.size() > 16) {
            Reject(where, "does not fit 64 bits");
        }
        for (const char digit : digits) {
            const int step = digit <= '9' ? digit - '0' : (digit | 0x20) - 'a' + 10;
            number = number << 4 | static_cast<std::uint64_t>(step);
        }
    } else {
        Reject(where, "is no unsigned integer");
    }
    if (number > highest) {
        Reject(where, "is too large");
    }
    return number;
}

// Takes the keys of one object, each at most once, and tells which were left over.
class ObjectReader {
public:
    ObjectReader(const Json& value, std::string where) : value_(value), where_(std::move(where)) {
        if (!value_.is_object()) {
            Reject(where_, "is no object");
        }
    }

    const std::string& Where() const { return where_; }

    std::string WhereKey(const std::string& key) const { return where_.empty() ? key : where_ + "." + key; }

    // Null if the key is absent.
    const Json* Take(const std::string& key) {
        known_.insert(key);
        const auto found = value_.find(key);
        return found == value_.end() ? nullptr : &*found;
    }

    const Json& Require(const std::string& key) {
        const Json* const found = Take(key);
        if (found == nullptr) {
            Reject(where_, "has no \"" + key + "\"");
        }
        return *found;
    }

    void Take32(const std::string& key, std::uint32_t& into) {
        if (const Json* const value = Take(key)) {
            into = Parse32(*value, WhereKey(key));
        }
    }

    void Take32(const std::string& key, std::optional<std::uint32_t>& into) {
        if (const Json* const value = Take(key)) {
            into = Parse32(*value, WhereKey(key));
        }
    }

    void Take64(const std::string& key, std::uint64_t& into) {
        if (const Json* const value = Take(key)) {
            into = Parse64(*value, WhereKey(key));
        }
    }

    void Take64(const std::string& key, std::optional<std::uint64_t>& into) {
        if (const Json* const value = Take(key)) {
            into = Parse64(*value, WhereKey(key));
        }
    }

    void TakeFlag(const std::string& key, bool& into) {
        if (const Json* const value = Take(key)) {
            if (!value->is_boolean()) {
                Reject(WhereKey(key), "is neither true nor false");
            }
            into = value->get<bool>();
        }
    }

    std::optional<std::string> TakeText(const std::string& key) {
        const Json* const value = Take(key);
        return value == nullptr ? std::nullopt : std::optional(ParseText(*value, WhereKey(key)));
    }

    // A name of a file or the like, which cannot be empty.
    std::optional<std::string> TakeName(const std::string& key) {
        std::optional<std::string> name = TakeText(key);
        if (name && name->empty()) {
            Reject(WhereKey(key), "is empty");
        }
        return name;
    }

    // To be called when every key that may stand in the object was taken.
    void RefuseOtherKeys() const {
        for (const auto& item : value_.items()) {
            if (!known_.contains(item.key())) {
                Reject(where_.empty() ? "machine.json" : where_, "unknown key \"" + item.key() + "\"");
            }
        }
    }

    static std::uint32_t Parse32(const Json& value, const std::string& where) {
        return static_cast<std::uint32_t>(ParseInteger(value, where, std::numeric_limits<std::uint32_t>::max()));
    }

    static std::uint64_t Parse64(const Json& value, const std::string& where) {
        return ParseInteger(value, where, std::numeric_limits<std::uint64_t>::max());
    }

    static std::string ParseText(const Json& value, const std::string& where) {
        if (!value.is_string()) {
            Reject(where, "is no string");
        }
        return value.get<std::string>();
    }

private:
    const Json& value_;
    std::string where_;
    std::set<std::string> known_;
};

// Calls read(element, where) for each element of an array.
template <typename Read>
void ForEachElement(const Json& array, const std::string& where, Read read) {
    if (!array.is_array()) {
        Reject(where, "is no array");
    }
    for (std::size_t index = 0; index < array.size(); ++index) {
        read(array[index], where + "[" + std::to_string(index) + "]");
    }
}

std::vector<std::uint8_t> ParseHex(const Json& value, const std::string& where) {
    std::optional<std::vector<std::uint8_t>> bytes = BytesFromHex(ObjectReader::ParseText(value, where));
    if (!bytes) {
        Reject(where, "is not hexadecimal, two digits a byte");
    }
    return *std::move(bytes);
}

std::uint64_t RequireFile(const DescriptionFiles& files, const std::string& name, const std::string& where) {
    const std::optional<std::uint64_t> size = files.FindSize(name);
    if (!size) {
        Reject(where, "there is no file \"" + name + "\"");
    }
    return *size;
}

DiskDescription ParseDisk(const Json& value, const std::string& where, const DescriptionFiles& files) {
    ObjectReader reader(value, where);
    DiskDescription disk;
    disk.Number = ObjectReader::Parse32(reader.Require("number"), reader.WhereKey("number"));
    reader.Take32("sector_size", disk.SectorSize);
    std::optional<std::uint64_t> length;
    reader.Take64("length", length);
    reader.TakeFlag("in_use", disk.InUse);
    reader.Take32("open_error", disk.OpenError);
    disk.File = reader.TakeName("file").value_or("");
    reader.RefuseOtherKeys();
    if (disk.SectorSize == 0) {
        Reject(reader.WhereKey("sector_size"), "is 0");
    }
    if (disk.File.empty() && disk.OpenError == 0) {
        Reject(where, "has no \"file\"");
    }
    const std::uint64_t size = disk.File.empty() ? 0 : RequireFile(files, disk.File, reader.WhereKey("file"));
    disk.Length = length.value_or(size);
    return disk;
}

std::vector<ExtentDescription> ParseExtents(const Json& value, const std::string& where) {
    std::vector<ExtentDescription> extents;
    ForEachElement(value, where, [&](const Json& element, const std::string& elementWhere) {
        ObjectReader reader(element, elementWhere);
        ExtentDescription extent;
        extent.Disk = ObjectReader::Parse32(reader.Require("disk"), reader.WhereKey("disk"));
        extent.Start = ObjectReader::Parse64(reader.Require("start"), reader.WhereKey("start"));
        extent.Length = ObjectReader::Parse64(reader.Require("length"), reader.WhereKey("length"));
        reader.RefuseOtherKeys();
        extents.push_back(extent);
    });
    return extents;
}

std::vector<ExtentDescription> ParseSystemVolume(const Json& value) {
    ObjectReader reader(value, "system_volume");
    const Json* const extents = reader.Take("extents");
    reader.RefuseOtherKeys();
    return extents == nullptr ? std::vector<ExtentDescription>() : ParseExtents(*extents, reader.WhereKey("extents"));
}

ShadowDescription ParseShadow(const Json& value, const std::string& where, const DescriptionFiles& files) {
    ObjectReader reader(value, where);
    ShadowDescription shadow;
    shadow.File = reader.TakeName("file");
    if (shadow.File) {
        RequireFile(files, *shadow.File, reader.WhereKey("file"));
    }
    if (const Json* const object = reader.Take("device_object")) {
        shadow.DefaultDeviceObject = false;
        if (!object->is_null()) {
            shadow.DeviceObject = ObjectReader::ParseText(*object, reader.WhereKey("device_object"));
        }
    }
    reader.RefuseOtherKeys();
    return shadow;
}

VolumeDescription ParseVolume(const Json& value, const std::string& where, const DescriptionFiles& files) {
    ObjectReader reader(value, where);
    VolumeDescription volume;
    volume.Name = ObjectReader::ParseText(reader.Require("name"), reader.WhereKey("name"));
    if (volume.Name.empty()) {
        Reject(reader.WhereKey("name"), "is empty");
    }
    if (const Json* const extents = reader.Take("extents")) {
        volume.Extents = ParseExtents(*extents, reader.WhereKey("extents"));
    }
    reader.Take32("open_error", volume.OpenError);
    reader.TakeFlag("supported", volume.Supported);
    if (const Json* const shadow = reader.Take("shadow")) {
        volume.Shadow = ParseShadow(*shadow, reader.WhereKey("shadow"), files);
    }
    reader.RefuseOtherKeys();
    return volume;
}

std::vector<WriterDescription> ParseShadowService(const Json& value) {
    ObjectReader reader(value, "shadow_service");
    std::vector<WriterDescription> writers;
    if (const Json* const list = reader.Take("writers")) {
        ForEachElement(*list, reader.WhereKey("writers"), [&](const Json& element, const std::string& where) {
            ObjectReader writerReader(element, where);
            WriterDescription writer;
            const Json* const name = writerReader.Take("name");
            if (name != nullptr && !name->is_null()) {
                writer.Name = ObjectReader::ParseText(*name, writerReader.WhereKey("name"));
            }
            writerReader.Take32("state", writer.State);
            writerReader.Take32("failure", writer.Failure);
            writerReader.RefuseOtherKeys();
            writers.push_back(std::move(writer));
        });
    }
    reader.RefuseOtherKeys();
    return writers;
}

FirstReplyDescription ParseFirstReply(const Json& value, const std::string& where) {
    ObjectReader reader(value, where);
    FirstReplyDescription reply;
    reader.Take32("active", reply.Active);
    reader.Take32("has_previous_epoch", reply.HasPreviousEpoch);
    reader.Take64("previous_epoch", reply.PreviousEpoch);
    reader.Take64("current_epoch", reply.CurrentEpoch);
    reader.Take32("other_gap", reply.OtherGap);
    reader.Take32("gap", reply.Gap);
    reader.Take64("tracked_extent", reply.TrackedExtent);
    reader.Take32("granularity_shift", reply.GranularityShift);
    reader.Take32("bitmap_bytes", reply.BitmapBytes);
    reader.RefuseOtherKeys();
    return reply;
}

// Just long enough for a disk of that length. The shift counts modulo 64, as for whoever reads the bitmap.
std::uint64_t CountBitmapBytes(std::uint64_t length, std::uint32_t granularityShift) {
    return length == 0 ? 0 : ((length - 1) >> (granularityShift & 63)) / 8 + 1;
}

TrackedDiskDescription ParseTrackedDisk(const Json& value, const std::string& where,
                                        const MachineDescription& description) {
    ObjectReader reader(value, where);
    TrackedDiskDescription disk;
    disk.Number = ObjectReader::Parse32(reader.Require("number"), reader.WhereKey("number"));
    const DiskDescription* const described = description.FindDisk(disk.Number);
    const std::uint64_t length = described == nullptr ? 0 : described->Length;
    disk.TrackedExtent = length;
    reader.Take32("active", disk.Active);
    reader.Take32("has_previous_epoch", disk.HasPreviousEpoch);
    reader.Take64("previous_epoch", disk.PreviousEpoch);
    reader.Take64("current_epoch", disk.CurrentEpoch);
    reader.Take32("other_gap", disk.OtherGap);
    reader.Take32("gap", disk.Gap);
    reader.Take64("tracked_extent", disk.TrackedExtent);
    reader.Take32("granularity_shift", disk.GranularityShift);
    if (const Json* const bitmap = reader.Take("bitmap")) {
        disk.Bitmap = ParseHex(*bitmap, reader.WhereKey("bitmap"));
    } else {
        const std::uint64_t bytes = CountBitmapBytes(length, disk.GranularityShift);
        if (bytes > std::numeric_limits<std::uint32_t>::max()) {
            Reject(where, "the bitmap of this granularity is too long to be reported");
        }
        disk.Bitmap.assign(static_cast<std::size_t>(bytes), 0);
    }
    if (const Json* const reply = reader.Take("first_reply")) {
        disk.FirstReply = ParseFirstReply(*reply, reader.WhereKey("first_reply"));
    }
    reader.RefuseOtherKeys();
    return disk;
}

TrackerDescription ParseTracker(const Json& value, const DescriptionFiles& files,
                                const MachineDescription& description) {
    TrackerDescription tracker;
    tracker.File = ObjectReader::ParseText(value, "tracker");
    std::optional<std::string> text = tracker.File.empty() ? std::nullopt : files.ReadText(tracker.File);
    if (!text) {
        Reject("tracker", "there is no file \"" + tracker.File + "\"");
    }
    tracker.Text = *std::move(text);
    const Json content = ParseJson(tracker.Text, tracker.File);
    ObjectReader reader(content, tracker.File);
    reader.Take32("open_error", tracker.OpenError);
    if (const Json* const disks = reader.Take("disks")) {
        ForEachElement(*disks, reader.WhereKey("disks"), [&](const Json& element, const std::string& where) {
            TrackedDiskDescription disk = ParseTrackedDisk(element, where, description);
            for (const TrackedDiskDescription& other : tracker.Disks) {
                if (other.Number == disk.Number) {
                    Reject(where, "disk " + std::to_string(disk.Number) + " stands twice in the list");
                }
            }
            tracker.Disks.push_back(std::move(disk));
        });
    }
    reader.RefuseOtherKeys();
    return tracker;
}

PokeEffect ParsePoke(const Json& value, const std::string& where, const MachineDescription& description) {
    ObjectReader reader(value, where);
    PokeEffect poke;
    poke.Disk = ObjectReader::Parse32(reader.Require("disk"), reader.WhereKey("disk"));
    poke.Offset = ObjectReader::Parse64(reader.Require("offset"), reader.WhereKey("offset"));
    poke.Bytes = ParseHex(reader.Require("hex"), reader.WhereKey("hex"));
    reader.RefuseOtherKeys();
    const DiskDescription* const disk = description.FindDisk(poke.Disk);
    if (disk == nullptr || disk->File.empty()) {
        Reject(reader.WhereKey("disk"), "there is no disk " + std::to_string(poke.Disk) + " to write to");
    }
    if (poke.Offset > std::numeric_limits<std::uint64_t>::max() / 2) {
        Reject(reader.WhereKey("offset"), "is too large");
    }
    return poke;
}

FaultEntry ParseFault(const Json& value, const std::string& where, const MachineDescription& description) {
    ObjectReader reader(value, where);
    FaultEntry entry;
    entry.Call = ObjectReader::ParseText(reader.Require("call"), reader.WhereKey("call"));
    if (FindCallTraits(entry.Call) == nullptr) {
        Reject(reader.WhereKey("call"), "there is no call \"" + entry.Call + "\"");
    }
    entry.Path = reader.TakeText("path");
    reader.Take64("skip", entry.Skip);
    reader.Take64("times", entry.Times);
    FaultEffect& effect = entry.Effect;
    reader.Take32("error", effect.Error);
    reader.Take32("transferred", effect.Transferred);
    reader.Take32("status", effect.Status);
    reader.Take32("async_status", effect.AsyncStatus);
    reader.TakeFlag("null_async", effect.NullAsync);
    reader.TakeFlag("null", effect.Null);
    reader.Take64("flip", effect.Flip);
    if (const Json* const poke = reader.Take("poke")) {
        effect.Poke = ParsePoke(*poke, reader.WhereKey("poke"), description);
    }
    effect.Touch = reader.TakeName("touch");
    reader.TakeFlag("kill", effect.Kill);
    reader.RefuseOtherKeys();
    if (const std::optional<std::string> misfit = FindMisfit(entry)) {
        Reject(where, *misfit);
    }
    return entry;
}

TicksDescription ParseTicks(const Json& value) {
    ObjectReader reader(value, "ticks");
    TicksDescription ticks;
    reader.Take64("start", ticks.Start);
    reader.Take64("step", ticks.Step);
    reader.RefuseOtherKeys();
    return ticks;
}

} // namespace

const DiskDescription* MachineDescription::FindDisk(std::uint32_t number) const {
    const auto found =
        std::find_if(Disks.begin(), Disks.end(), [&](const DiskDescription& disk) { return disk.Number == number; });
    return found == Disks.end() ? nullptr : &*found;
}

MachineDescription LoadMachineDescription(const DescriptionFiles& files) {
    const std::optional<std::string> text = files.ReadText("machine.json");
    if (!text) {
        Reject("machine.json", "there is no such file");
    }
    const Json content = ParseJson(*text, "machine.json");
    if (!content.is_object()) {
        Reject("machine.json", "is no object");
    }
    ObjectReader reader(content, "");
    MachineDescription description;
    if (const Json* const disks = reader.Take("disks")) {
        ForEachElement(*disks, "disks", [&](const Json& element, const std::string& where) {
            DiskDescription disk = ParseDisk(element, where, files);
            if (description.FindDisk(disk.Number) != nullptr) {
                Reject(where, "disk " + std::to_string(disk.Number) + " stands twice in the list");
            }
            description.Disks.push_back(std::move(disk));
        });
    }
    if (const Json* const volume = reader.Take("system_volume")) {
        description.SystemVolume = ParseSystemVolume(*volume);
    }
    if (const Json* const volumes = reader.Take("volumes")) {
        ForEachElement(*volumes, "volumes", [&](const Json& element, const std::string& where) {
            description.Volumes.push_back(ParseVolume(element, where, files));
        });
    }
    if (const Json* const service = reader.Take("shadow_service")) {
        description.ShadowService = ParseShadowService(*service);
    }
    // From here on the list of disks is whole, and can be looked at.
    if (const Json* const tracker = reader.Take("tracker")) {
        description.Tracker = ParseTracker(*tracker, files, description);
    }
    if (const Json* const ticks = reader.Take("ticks")) {
        description.Ticks = ParseTicks(*ticks);
    }
    description.Calls = reader.TakeName("calls");
    if (const Json* const faults = reader.Take("faults")) {
        ForEachElement(*faults, "faults", [&](const Json& element, const std::string& where) {
            description.Faults.push_back(ParseFault(element, where, description));
        });
    }
    reader.RefuseOtherKeys();
    return description;
}

} // namespace vornix::bench
