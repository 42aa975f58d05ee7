// vrnx list: the images of a folder as a tree of chains.

#include "commands.h"
#include "folder.h"
#include "json_writer.h"
#include "text.h"

#include <algorithm>
#include <set>

namespace vrnx_cli {

namespace {

const char* KindText(const Entry& entry) {
    switch (entry.kind) {
    case Kind::full:
        return "full";
    case Kind::thin:
        return "thin";
    case Kind::unfinished:
        return "unfinished";
    case Kind::unreadable:
        return "unreadable";
    default:
        return "not an image";
    }
}

// --- As JSON --------------------------------------------------------------------------------------------------------

void WriteNulls(JsonWriter& json, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        json.NullMember(name);
    }
}

void WriteImage(JsonWriter& json, const Entry& entry, bool deletable) {
    if (entry.digestKnown) {
        json.TextMember("digest", Hexadecimal(entry.layer.digest, sizeof entry.layer.digest));
    } else {
        json.NullMember("digest");
    }
    if (entry.geometryKnown) {
        json.NumberMember("disk_size", entry.layer.disk_size);
    } else {
        json.NullMember("disk_size");
    }
    if (entry.base.empty()) {
        json.NullMember("base");
    } else {
        json.TextMember("base", entry.base);
    }
    json.Key("needed_by");
    json.BeginArray(JsonWriter::Layout::line);
    for (const Entry* upper : entry.neededBy) {
        json.Text(upper->name);
    }
    json.EndArray();
    json.BooleanMember("deletable", deletable);
    json.TextMember("state", entry.reason.empty() ? "complete" : "broken");
    if (entry.reason.empty()) {
        json.NullMember("reason");
    } else {
        json.TextMember("reason", entry.reason);
    }
}

void WriteJson(Console& console, const std::string& path, const Folder& folder, bool allReadable) {
    JsonWriter json(console);
    json.BeginObject();
    json.SchemaVersionMember();
    json.TextMember("folder", path);
    json.Key("images");
    json.BeginArray();
    for (const Entry* entry : folder.Entries()) {
        json.BeginObject(JsonWriter::Layout::line);
        json.TextMember("path", entry->name);
        if (entry->kind == Kind::unreadable) {
            json.NullMember("kind");
        } else {
            json.TextMember("kind", KindText(*entry));
        }
        if (entry->IsImage()) {
            WriteImage(json, *entry, allReadable && entry->neededBy.empty());
        } else {
            WriteNulls(json, {"digest", "disk_size", "base", "needed_by", "deletable", "state"});
            if (entry->kind == Kind::unreadable) {
                json.TextMember("reason", entry->problem);
            } else {
                json.NullMember("reason");
            }
        }
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
}

// --- As text --------------------------------------------------------------------------------------------------------

// The tree, line by line: a base, and below it, further to the right, what hangs on it.
class Tree {
public:
    Tree(Console& console, const Folder& folder, bool allReadable)
        : console_(console), folder_(folder), allReadable_(allReadable) {}

    void Print();

private:
    struct Place {
        const Entry* entry;
        size_t depth;
    };

    void PrintFrom(const Entry& root);
    void PrintEntry(const Entry& entry, size_t depth);

    Console& console_;
    const Folder& folder_;
    bool allReadable_;
    std::set<const Entry*> printed_;
};

void Tree::Print() {
    for (const Entry* entry : folder_.Entries()) {
        if (!entry->baseIsPinned || !entry->baseEntry->listed) {
            PrintFrom(*entry);
        }
    }
    // Chains that lead back to themselves hang on nothing else.
    for (const Entry* entry : folder_.Entries()) {
        if (!printed_.contains(entry)) {
            PrintFrom(*entry);
        }
    }
}

void Tree::PrintFrom(const Entry& root) {
    std::vector<Place> open = {{&root, 0}};
    while (!open.empty()) {
        Place place = open.back();
        open.pop_back();
        if (!printed_.insert(place.entry).second) {
            continue;
        }
        PrintEntry(*place.entry, place.depth);
        // The last is printed first.
        auto before = static_cast<ptrdiff_t>(open.size());
        for (const Entry* upper : place.entry->neededBy) {
            if (upper->listed) {
                open.push_back({upper, place.depth + 1});
            }
        }
        std::reverse(open.begin() + before, open.end());
    }
}

void Tree::PrintEntry(const Entry& entry, size_t depth) {
    std::string line = std::string(2 * std::min<size_t>(depth, 20), ' ') + Printable(entry.name);
    line.resize(std::max<size_t>(line.size() + 2, 40), ' ');
    line += KindText(entry);
    if (entry.geometryKnown) {
        line += ", " + SizeText(entry.layer.disk_size);
    }
    if (entry.IsImage() && allReadable_ && entry.neededBy.empty()) {
        line += ", can be deleted";
    }
    if (entry.IsImage() && !entry.reason.empty()) {
        line += "\n" + std::string(2 * std::min<size_t>(depth, 20) + 2, ' ') + "BROKEN: " + Printable(entry.reason);
    }
    console_.Print(line + "\n");
}

} // namespace

int RunList(const Arguments& arguments, Console& console) {
    const std::string& path = arguments.operands[0];
    Folder folder;
    if (int error = folder.Read(path)) {
        console.Complain(path + ": " + DescribeSystemError(error));
        return statusFailed;
    }
    int status = statusGood;
    // What a file needs that cannot be read, nobody knows: then nothing is safe to delete.
    bool allReadable = true;
    for (const Entry* entry : folder.Entries()) {
        if (entry->kind == Kind::unreadable) {
            console.Complain(entry->problem);
            allReadable = false;
            status = statusFailed;
        } else if (entry->IsImage() && !entry->reason.empty()) {
            status = Worst(status, statusDamaged);
        }
    }
    if (arguments.Has("--json")) {
        WriteJson(console, path, folder, allReadable);
    } else {
        Tree(console, folder, allReadable).Print();
    }
    return status;
}

} // namespace vrnx_cli
