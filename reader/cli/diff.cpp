// vrnx diff: which ranges of the disk differ between two images, by the hashes in their tables.

#include "commands.h"
#include "image.h"
#include "json_writer.h"
#include "text.h"

#include <cstring>

namespace vrnx_cli {

namespace {

struct Range {
    uint64_t offset;
    uint64_t length;
};

struct Difference {
    uint64_t diskSize = 0;
    std::vector<Range> ranges; // ascending, and none touches the next
    uint64_t changedChunks = 0;
    uint64_t changedBytes = 0;
};

// Opens one of the two by itself: its table tells all there is to compare. Gives the status.
int OpenAlone(const std::string& path, Image& image, Console& console) {
    vrnx_error error;
    int code = image.Open(path, VRNX_OPEN_NO_PASSWORD | VRNX_OPEN_ALONE, nullptr, error);
    if (code == VRNX_OK) {
        return statusGood;
    }
    console.Complain(error.text);
    return StatusOfOpenError(code);
}

Difference Compare(const Image& older, const Image& newer) {
    Difference difference;
    vrnx_info info = newer.Info();
    difference.diskSize = info.disk_size;
    for (uint64_t number = 0; number < info.chunk_count; number++) {
        vrnx_chunk chunk = newer.Chunk(number);
        if (memcmp(chunk.hash, older.Chunk(number).hash, sizeof chunk.hash) == 0) {
            continue;
        }
        difference.changedChunks++;
        difference.changedBytes += chunk.length;
        std::vector<Range>& ranges = difference.ranges;
        if (!ranges.empty() && ranges.back().offset + ranges.back().length == chunk.disk_offset) {
            ranges.back().length += chunk.length;
        } else {
            ranges.push_back({chunk.disk_offset, chunk.length});
        }
    }
    return difference;
}

void WriteJson(Console& console, const Difference& difference) {
    JsonWriter json(console);
    json.BeginObject();
    json.SchemaVersionMember();
    json.NumberMember("disk_size", difference.diskSize);
    json.Key("ranges");
    json.BeginArray();
    for (const Range& range : difference.ranges) {
        json.BeginObject(JsonWriter::Layout::line);
        json.NumberMember("offset", range.offset);
        json.NumberMember("length", range.length);
        json.EndObject();
    }
    json.EndArray();
    json.NumberMember("changed_chunks", difference.changedChunks);
    json.NumberMember("changed_bytes", difference.changedBytes);
    json.EndObject();
}

void PrintText(Console& console, const Difference& difference) {
    for (const Range& range : difference.ranges) {
        console.Print(std::to_string(range.offset) + " " + std::to_string(range.length) + "\n");
    }
    console.Print(Count(difference.changedChunks, "chunk") + " of the disk changed, " +
                  BytesText(difference.changedBytes) + " of " + BytesText(difference.diskSize) + "\n");
}

} // namespace

int RunDiff(const Arguments& arguments, Console& console) {
    Image older;
    Image newer;
    int status = OpenAlone(arguments.operands[0], older, console);
    status = Worst(status, OpenAlone(arguments.operands[1], newer, console));
    if (status != statusGood) {
        return status;
    }
    vrnx_info oldInfo = older.Info();
    vrnx_info newInfo = newer.Info();
    if (oldInfo.disk_size != newInfo.disk_size) {
        console.Complain("the images are of disks of different sizes: " + std::to_string(oldInfo.disk_size) + " and " +
                         std::to_string(newInfo.disk_size) + " bytes");
        return statusUsage;
    }
    if (oldInfo.chunk_size != newInfo.chunk_size) {
        console.Complain("the images have chunks of different sizes, whose hashes cannot be compared: " +
                         std::to_string(oldInfo.chunk_size) + " and " + std::to_string(newInfo.chunk_size) + " bytes");
        return statusUsage;
    }
    Difference difference = Compare(older, newer);
    if (arguments.Has("--json")) {
        WriteJson(console, difference);
    } else {
        PrintText(console, difference);
    }
    return statusGood;
}

} // namespace vrnx_cli
