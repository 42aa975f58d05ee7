// The images of a folder.

#include "folder.h"

#include "port.h"

#include <algorithm>
#include <cstring>

namespace vrnx_cli {

namespace {

// docs/image-format.md, "Limits".
constexpr size_t longestChain = 65;

bool EndsWith(const std::string& name, const std::string& suffix) {
    if (name.size() < suffix.size()) {
        return false;
    }
    auto lower = [](char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter; };
    return std::equal(suffix.begin(), suffix.end(), name.end() - static_cast<ptrdiff_t>(suffix.size()),
                      [&](char one, char other) { return one == lower(other); });
}

bool IsPinned(const Entry& upper, const Entry& base) {
    return base.digestKnown && memcmp(upper.layer.base_digest, base.layer.digest, sizeof base.layer.digest) == 0;
}

bool HaveOneShape(const Entry& upper, const Entry& base) {
    return upper.layer.disk_size == base.layer.disk_size && upper.layer.chunk_size == base.layer.chunk_size &&
           upper.layer.chunk_count == base.layer.chunk_count;
}

// Follows the chain down to the full image, or to what is in the way.
void FindReason(Entry& entry) {
    entry.reason = entry.problem;
    if (!entry.reason.empty()) {
        return;
    }
    const Entry* upper = &entry;
    for (size_t length = 1; upper->baseEntry != nullptr; length++) {
        const Entry& base = *upper->baseEntry;
        std::string role = base.name + ", the base of " + upper->name + ", ";
        if (length == longestChain) {
            entry.reason = "the chain has more than 65 images";
        } else if (base.missing) {
            entry.reason = role + "is missing";
        } else if (!base.problem.empty()) {
            entry.reason = role + "is of no use: " + base.problem;
        } else if (!IsPinned(*upper, base)) {
            entry.reason = role + "is not the image that it was when " + upper->name + " was made";
        } else if (!HaveOneShape(*upper, base)) {
            entry.reason = role + "is an image of another disk";
        }
        if (!entry.reason.empty()) {
            return;
        }
        upper = &base;
    }
}

} // namespace

int Folder::Read(const std::string& path) {
    path_ = path;
    std::vector<std::string> names;
    if (int error = ReadFolder(path, names)) {
        return error;
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        if (EndsWith(name, ".vrnx") || EndsWith(name, ".partial")) {
            listed_.push_back(&Load(name));
            listed_.back()->listed = true;
        }
    }
    LoadBases();
    for (auto& [key, entry] : entries_) {
        Entry* base = entry->baseEntry;
        entry->baseIsPinned = base != nullptr && base != entry.get() && IsPinned(*entry, *base);
        if (entry->baseIsPinned) {
            base->neededBy.push_back(entry.get());
        }
        FindReason(*entry);
    }
    for (Entry* entry : listed_) {
        std::sort(entry->neededBy.begin(), entry->neededBy.end(),
                  [](const Entry* one, const Entry* other) { return one->name < other->name; });
    }
    return 0;
}

// The bases too, whatever they are called.
void Folder::LoadBases() {
    std::vector<Entry*> open = listed_;
    while (!open.empty()) {
        Entry& entry = *open.back();
        open.pop_back();
        if (entry.base.empty() || entry.layer.base_state == VRNX_BASE_REFUSED) {
            continue;
        }
        auto found = entries_.find(NameKey(entry.base));
        if (found == entries_.end()) {
            open.push_back(&Load(entry.base));
        }
        entry.baseEntry = entries_[NameKey(entry.base)].get();
    }
}

Entry& Folder::Load(const std::string& name) {
    std::unique_ptr<Entry>& place = entries_[NameKey(name)];
    place = std::make_unique<Entry>();
    Entry& entry = *place;
    entry.name = name;
    std::string path = JoinPath(path_, name);
    Image image;
    vrnx_error error;
    constexpr uint32_t flags = VRNX_OPEN_EXAMINE | VRNX_OPEN_NO_PASSWORD | VRNX_OPEN_ALONE | VRNX_OPEN_NO_HASHES;
    if (image.Open(path, flags, nullptr, error) != VRNX_OK) {
        entry.kind = Kind::unreadable;
        entry.missing = error.code == VRNX_ERROR_OPEN && SaysMissing(error.system_error);
        entry.problem = error.text;
        return entry;
    }
    entry.layer = image.Layer(0);
    vrnx_layer& layer = entry.layer;
    if (IsKnown(layer, VRNX_KNOWN_VERSION)) {
        entry.kind = layer.version == 3 ? Kind::thin : Kind::full;
    } else if (layer.unfinished) {
        entry.kind = Kind::unfinished;
    }
    entry.digestKnown = IsKnown(layer, VRNX_KNOWN_DIGEST);
    entry.geometryKnown = IsKnown(layer, VRNX_KNOWN_GEOMETRY);
    if (image.Info().problem_count > 0) {
        entry.problem = image.Problem(0).text;
    }
    // The path tells the name in the way that this system writes it. There is none where the name is refused.
    if (IsKnown(layer, VRNX_KNOWN_BASE_NAME)) {
        entry.base = layer.base_path == nullptr ? BaseName(layer)
                                                : std::string(layer.base_path).substr(path.size() - name.size());
    }
    // They end with the image.
    layer.path = layer.base_name = layer.base_path = nullptr;
    return entry;
}

} // namespace vrnx_cli
