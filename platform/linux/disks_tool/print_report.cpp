// How vornix-disks shows its report.
#include "print_report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "clean_text.h"

namespace vornix::disks_tool {

namespace {

constexpr size_t columnCount = 9;
using Row = std::array<std::string, columnCount>;

std::string FormatSize(uint64_t bytes) {
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.2f GiB", static_cast<double>(bytes) / (1 << 30));
    return text;
}

// Who uses it, in the words of an administrator.
std::string FormatUsers(const std::vector<DeviceUser>& users) {
    std::string text;
    for (const DeviceUser& user : users) {
        text += text.empty() ? "" : ", ";
        if (user.Kind == "mount") {
            text += "mounted at " + user.What;
        } else if (user.Kind == "foreign_mount") {
            text += "mounted for " + user.What;
        } else if (user.Kind == "swap") {
            text += "swap";
        } else if (user.Kind == "process") {
            text += "open in " + user.What;
        } else {
            text += (user.Kind == "loop" ? "loop " : "") + user.What;
        }
    }
    return text;
}

std::string FormatContent(const Signature& found) {
    return found.Label.empty() ? found.Type : found.Type + " \"" + found.Label + "\"";
}

std::vector<Row> MakeRows(const Report& report) {
    std::vector<Row> rows{{"DISK", "NODE", "SIZE", "SECTOR", "BUS", "MODEL", "SERIAL", "CONTENT", "IN USE"}};
    for (const DiskReport& disk : report.Disks) {
        const bool isWhole = disk.Contents.size() == 1 && disk.Contents.front().Node == disk.Node;
        std::string use = FormatUsers(disk.Users);
        if (use.empty() && disk.IsInUse()) {
            use = "yes";
        }
        rows.push_back({std::to_string(disk.Disk.Number) + (disk.IsSystem ? "*" : " "), disk.Node,
                        FormatSize(disk.Size), std::to_string(disk.SectorSize), disk.Transport, disk.Model, disk.Serial,
                        isWhole ? FormatContent(disk.Contents.front().Found) : disk.PartitionTable, use});
        for (const ContentReport& content : disk.Contents) {
            if (!isWhole) {
                rows.push_back({"", "  " + content.Node, FormatSize(content.Size), "", "", "", "",
                                FormatContent(content.Found), FormatUsers(content.Users)});
            }
        }
    }
    return rows;
}

std::string JoinNumbers(const std::vector<int>& numbers) {
    std::string text;
    for (const int number : numbers) {
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    }
    return text;
}

template <typename Predicate>
std::vector<int> SelectNumbers(const Report& report, Predicate isWanted) {
    std::vector<int> numbers;
    for (const DiskReport& disk : report.Disks) {
        if (isWanted(disk)) {
            numbers.push_back(disk.Disk.Number);
        }
    }
    return numbers;
}

// What a table cannot say.
std::string MakeNotes(const Report& report) {
    std::string notes;
    if (!SelectNumbers(report, [](const DiskReport& disk) { return disk.IsSystem; }).empty()) {
        notes += "* The system runs from this disk.\n";
    }
    for (const DiskReport& disk : report.Disks) {
        if (!disk.WhyNotOpened.empty()) {
            notes += "Disk " + std::to_string(disk.Disk.Number) + " cannot be opened (" + disk.WhyNotOpened +
                     "): list-disks passes over it.\n";
        }
    }
    const std::string above = JoinNumbers(
        SelectNumbers(report, [](const DiskReport& disk) { return disk.Disk.Number >= platform::firstNumbers; }));
    if (!above.empty()) {
        notes += "Above 15, which list-disks does not show and every other command takes: " + above + ".\n";
    }
    if (!report.Numbers.GoneNumbers.empty()) {
        notes += "Numbers of disks that are gone: " + JoinNumbers(report.Numbers.GoneNumbers) + ".\n";
    }
    const std::string ranks =
        JoinNumbers(SelectNumbers(report, [](const DiskReport& disk) { return !disk.Disk.IsNumberKept; }));
    if (!ranks.empty()) {
        notes += "Only ranks, which change when disks come and go: " + ranks + " (" + report.Numbers.WhyRanks + ").\n";
    }
    return notes;
}

using OrderedJson = nlohmann::ordered_json;

// An empty text is one that is not known.
OrderedJson TextOrNull(const std::string& text) {
    return text.empty() ? OrderedJson(nullptr) : OrderedJson(RepairUtf8(text));
}

OrderedJson ListOfTexts(const std::vector<std::string>& texts) {
    OrderedJson list = OrderedJson::array();
    for (const std::string& text : texts) {
        list.push_back(RepairUtf8(text));
    }
    return list;
}

OrderedJson ListOfUsers(const std::vector<DeviceUser>& users) {
    OrderedJson list = OrderedJson::array();
    for (const DeviceUser& user : users) {
        list.push_back({{"kind", user.Kind}, {"what", RepairUtf8(user.What)}});
    }
    return list;
}

OrderedJson DescribeDisk(const DiskReport& disk) {
    OrderedJson contents = OrderedJson::array();
    for (const ContentReport& content : disk.Contents) {
        contents.push_back({{"node", RepairUtf8(content.Node)},
                            {"start", content.Start},
                            {"size", content.Size},
                            {"type", TextOrNull(content.Found.Type)},
                            {"label", TextOrNull(content.Found.Label)},
                            {"mount_points", ListOfTexts(content.MountPoints)},
                            {"used_by", ListOfUsers(content.Users)}});
    }
    return {{"number", disk.Disk.Number},
            {"number_kept", disk.Disk.IsNumberKept},
            {"node", RepairUtf8(disk.Node)},
            {"identity", RepairUtf8(disk.Disk.Identity)},
            {"size", disk.Size},
            {"sector_size", disk.SectorSize},
            {"model", TextOrNull(disk.Model)},
            {"serial", TextOrNull(disk.Serial)},
            {"transport", TextOrNull(disk.Transport)},
            {"removable", disk.IsRemovable},
            {"read_only", disk.IsReadOnly},
            {"system", disk.IsSystem},
            {"listed", disk.WhyNotOpened.empty() && disk.Disk.Number < platform::firstNumbers},
            {"not_opened", TextOrNull(disk.WhyNotOpened)},
            {"in_use", disk.IsInUse()},
            {"used_by", ListOfUsers(disk.Users)},
            {"partition_table", TextOrNull(disk.PartitionTable)},
            {"contents", contents}};
}

} // namespace

std::string FormatTable(const Report& report, bool isUtf8) {
    std::vector<Row> rows = MakeRows(report);
    std::array<size_t, columnCount> widths{};
    for (Row& row : rows) {
        for (size_t i = 0; i < columnCount; i++) {
            row[i] = row[i].empty() && i > 1 && !row[0].empty() ? "-" : MakePrintable(row[i], isUtf8);
            widths[i] = std::max(widths[i], CountCharacters(row[i]));
        }
    }
    std::string table;
    for (const Row& row : rows) {
        std::string line;
        for (size_t i = 0; i < columnCount; i++) {
            const std::string fill(widths[i] - CountCharacters(row[i]), ' ');
            // Numbers stand to the right.
            const bool isNumber = i == 0 || i == 2 || i == 3;
            line += (i == 0 ? "" : "  ") + (isNumber ? fill + row[i] : row[i] + fill);
        }
        table += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    const std::string notes = MakeNotes(report);
    std::string cleaned;
    for (size_t from = 0, to = 0; (to = notes.find('\n', from)) != std::string::npos; from = to + 1) {
        cleaned += MakePrintable(notes.substr(from, to - from), isUtf8) + "\n";
    }
    return report.Disks.empty() ? "No disks.\n" + cleaned : table + (cleaned.empty() ? "" : "\n" + cleaned);
}

std::string FormatJson(const Report& report, const std::string& programVersion) {
    OrderedJson disks = OrderedJson::array();
    for (const DiskReport& disk : report.Disks) {
        disks.push_back(DescribeDisk(disk));
    }
    const OrderedJson document = {{"schema_version", 1},
                                  {"program_version", programVersion},
                                  {"error", TextOrNull(report.Error)},
                                  {"numbers",
                                   {{"why_ranks", TextOrNull(report.Numbers.WhyRanks)},
                                    {"damage", TextOrNull(report.Numbers.Damage)},
                                    {"gone", report.Numbers.GoneNumbers}}},
                                  {"disks", disks}};
    return document.dump(2, ' ', true, OrderedJson::error_handler_t::replace) + "\n";
}

} // namespace vornix::disks_tool
