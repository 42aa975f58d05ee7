// vrnx info: what an image is, without its password.

#include "commands.h"
#include "image.h"
#include "json_writer.h"
#include "text.h"

namespace vrnx_cli {

namespace {

struct ChunkCounts {
    uint64_t stored = 0;
    uint64_t references = 0;
    uint64_t zero = 0;
    std::vector<uint64_t> byLevel; // chunks of the disk that lie in the image of each level
};

// Everything that there is to tell of an image.
struct Description {
    std::string path;
    vrnx_layer layer = {};
    bool countsKnown = false; // not where the table cannot be trusted
    ChunkCounts counts;
    std::vector<vrnx_layer> chain; // as far as it is the one pinned; empty where the image itself is refused
    std::vector<std::string> problems;
};

ChunkCounts CountChunks(const Image& image) {
    vrnx_info info = image.Info();
    ChunkCounts counts;
    counts.byLevel.resize(info.level_count);
    for (uint64_t number = 0; number < info.chunk_count; number++) {
        vrnx_chunk chunk = image.Chunk(number);
        (chunk.reference ? counts.references : counts.stored)++;
        counts.zero += chunk.zero;
        if (chunk.level < counts.byLevel.size()) {
            counts.byLevel[chunk.level]++;
        }
    }
    return counts;
}

// From the image itself down to the last that is good and the one that the image above it means.
std::vector<vrnx_layer> GoodChain(const Image& image) {
    std::vector<vrnx_layer> chain;
    uint32_t levels = image.Info().level_count;
    for (uint32_t level = 0; level < levels; level++) {
        vrnx_layer layer = image.Layer(level);
        chain.push_back(layer);
        if (layer.base_state != VRNX_BASE_GOOD && layer.base_state != VRNX_BASE_INCOMPLETE) {
            break;
        }
    }
    return chain;
}

Description Describe(const std::string& path, const Image& image) {
    Description description;
    description.path = path;
    description.layer = image.Layer(0);
    description.countsKnown = IsKnown(description.layer, VRNX_KNOWN_GEOMETRY | VRNX_KNOWN_TABLE);
    if (description.countsKnown) {
        description.counts = CountChunks(image);
    }
    if (IsKnown(description.layer, VRNX_KNOWN_GEOMETRY)) {
        description.chain = GoodChain(image);
    }
    uint32_t problems = image.Info().problem_count;
    for (uint32_t number = 0; number < problems; number++) {
        description.problems.emplace_back(image.Problem(number).text);
    }
    return description;
}

const char* BaseStateText(uint8_t state) {
    switch (state) {
    case VRNX_BASE_GOOD:
        return "good";
    case VRNX_BASE_MISSING:
        return "missing";
    case VRNX_BASE_REPLACED:
        return "replaced";
    case VRNX_BASE_INCOMPLETE:
        return "incomplete";
    default:
        return "refused";
    }
}

// --- As JSON --------------------------------------------------------------------------------------------------------

class JsonInfo {
public:
    explicit JsonInfo(Console& console) : json_(console) {}

    void Write(const Description& description);

private:
    void NumberIf(bool known, const char* name, uint64_t number);
    void DigestMember(const vrnx_layer& layer);
    void WriteBase(const vrnx_layer& layer);
    void WriteChain(const Description& description);

    JsonWriter json_;
};

void JsonInfo::NumberIf(bool known, const char* name, uint64_t number) {
    if (known) {
        json_.NumberMember(name, number);
    } else {
        json_.NullMember(name);
    }
}

void JsonInfo::DigestMember(const vrnx_layer& layer) {
    if (IsKnown(layer, VRNX_KNOWN_DIGEST)) {
        json_.TextMember("digest", Hexadecimal(layer.digest, sizeof layer.digest));
    } else {
        json_.NullMember("digest");
    }
}

void JsonInfo::Write(const Description& description) {
    const vrnx_layer& layer = description.layer;
    bool geometry = IsKnown(layer, VRNX_KNOWN_GEOMETRY);
    bool seal = IsKnown(layer, VRNX_KNOWN_SEAL);
    json_.BeginObject();
    json_.SchemaVersionMember();
    json_.TextMember("path", description.path);
    NumberIf(IsKnown(layer, VRNX_KNOWN_VERSION), "version", layer.version);
    NumberIf(geometry, "disk_size", layer.disk_size);
    NumberIf(geometry, "sector_size", layer.sector_size);
    NumberIf(geometry, "chunk_size", layer.chunk_size);
    NumberIf(geometry, "chunk_count", layer.chunk_count);
    if (seal) {
        json_.BooleanMember("encrypted", layer.encrypted != 0);
    } else {
        json_.NullMember("encrypted");
    }
    NumberIf(seal, "kdf_iterations", layer.kdf_iterations);
    if (seal && layer.encrypted != 0) {
        json_.TextMember("salt", Hexadecimal(layer.salt, sizeof layer.salt));
    } else {
        json_.NullMember("salt");
    }
    if (IsKnown(layer, VRNX_KNOWN_EPOCH) && layer.epoch != 0) {
        json_.TextMember("epoch", EpochText(layer.epoch));
    } else {
        json_.NullMember("epoch");
    }
    DigestMember(layer);
    json_.NumberMember("file_size", layer.file_size);
    json_.Key("chunks");
    if (description.countsKnown) {
        json_.BeginObject(JsonWriter::Layout::line);
        json_.NumberMember("stored", description.counts.stored);
        json_.NumberMember("references", description.counts.references);
        json_.NumberMember("zero", description.counts.zero);
        json_.EndObject();
    } else {
        json_.Null();
    }
    WriteBase(layer);
    WriteChain(description);
    json_.Key("problems");
    json_.BeginArray();
    for (const std::string& problem : description.problems) {
        json_.Text(problem);
    }
    json_.EndArray();
    json_.EndObject();
}

void JsonInfo::WriteBase(const vrnx_layer& layer) {
    json_.Key("base");
    if (!IsKnown(layer, VRNX_KNOWN_BASE_NAME)) {
        json_.Null();
        return;
    }
    json_.BeginObject(JsonWriter::Layout::line);
    json_.TextMember("name", BaseName(layer));
    json_.TextMember("digest", Hexadecimal(layer.base_digest, sizeof layer.base_digest));
    if (layer.base_path != nullptr) {
        json_.TextMember("path", layer.base_path);
    } else {
        json_.NullMember("path");
    }
    json_.TextMember("state", BaseStateText(layer.base_state));
    json_.EndObject();
}

void JsonInfo::WriteChain(const Description& description) {
    json_.Key("chain");
    if (description.chain.empty()) {
        json_.Null();
        return;
    }
    json_.BeginArray();
    for (size_t level = 0; level < description.chain.size(); level++) {
        const vrnx_layer& layer = description.chain[level];
        json_.BeginObject(JsonWriter::Layout::line);
        json_.TextMember("path", layer.path);
        DigestMember(layer);
        json_.NumberMember("version", layer.version);
        if (IsKnown(layer, VRNX_KNOWN_SEAL)) {
            json_.BooleanMember("encrypted", layer.encrypted != 0);
        } else {
            json_.NullMember("encrypted");
        }
        NumberIf(description.countsKnown, "chunks_used",
                 description.countsKnown ? description.counts.byLevel[level] : 0);
        json_.EndObject();
    }
    json_.EndArray();
}

// --- As text --------------------------------------------------------------------------------------------------------

void PrintLine(Console& console, const char* label, const std::string& value) {
    std::string head = label;
    head.resize(14, ' ');
    console.Print(head + value + "\n");
}

std::string KindText(const vrnx_layer& layer) {
    if (!IsKnown(layer, VRNX_KNOWN_VERSION)) {
        return layer.unfinished ? "unfinished: the capture did not come to its end, or goes on" : "not an image";
    }
    std::string text = layer.version == 3 ? "thin" : "full";
    if (IsKnown(layer, VRNX_KNOWN_SEAL)) {
        text += layer.encrypted ? ", sealed" : ", not sealed";
    }
    return text;
}

void PrintChunks(Console& console, const Description& description) {
    const vrnx_layer& layer = description.layer;
    if (!IsKnown(layer, VRNX_KNOWN_GEOMETRY)) {
        return;
    }
    PrintLine(console, "Disk", BytesText(layer.disk_size) + ", sectors of " + std::to_string(layer.sector_size));
    PrintLine(console, "Chunks",
              std::to_string(layer.chunk_count) + " of " + std::to_string(layer.chunk_size) + " bytes");
    if (description.countsKnown) {
        const ChunkCounts& counts = description.counts;
        PrintLine(console, "",
                  std::to_string(counts.stored) + " stored here, " + std::to_string(counts.references) +
                      " in a base; " + std::to_string(counts.zero) + " are zeros");
    }
}

void PrintChain(Console& console, const Description& description) {
    for (size_t level = 0; level < description.chain.size(); level++) {
        const vrnx_layer& layer = description.chain[level];
        std::string line = Printable(layer.path) + " (" + KindText(layer) + ")";
        if (description.countsKnown) {
            line += ": " + Count(description.counts.byLevel[level], "chunk") + " of the disk";
        }
        PrintLine(console, level == 0 ? "Chain" : "", line);
    }
}

void PrintInfo(Console& console, const Description& description) {
    const vrnx_layer& layer = description.layer;
    PrintLine(console, "Image", Printable(description.path));
    PrintLine(console, "Kind", KindText(layer));
    PrintLine(console, "File", BytesText(layer.file_size));
    PrintChunks(console, description);
    if (IsKnown(layer, VRNX_KNOWN_SEAL) && layer.encrypted) {
        PrintLine(console, "Seal",
                  std::to_string(layer.kdf_iterations) + " iterations, salt " +
                      Hexadecimal(layer.salt, sizeof layer.salt));
    }
    if (IsKnown(layer, VRNX_KNOWN_EPOCH)) {
        PrintLine(console, "Epoch", layer.epoch == 0 ? "none" : EpochText(layer.epoch));
    }
    if (IsKnown(layer, VRNX_KNOWN_DIGEST)) {
        PrintLine(console, "Digest", Hexadecimal(layer.digest, sizeof layer.digest));
    }
    if (IsKnown(layer, VRNX_KNOWN_BASE_NAME)) {
        PrintLine(console, "Base", Printable(BaseName(layer)) + " (" + BaseStateText(layer.base_state) + ")");
        PrintLine(console, "", Hexadecimal(layer.base_digest, sizeof layer.base_digest));
    }
    PrintChain(console, description);
    for (const std::string& problem : description.problems) {
        PrintLine(console, "Problem", Printable(problem));
    }
}

} // namespace

int RunInfo(const Arguments& arguments, Console& console) {
    const std::string& path = arguments.operands[0];
    Image image;
    vrnx_error error;
    if (image.Open(path, VRNX_OPEN_EXAMINE | VRNX_OPEN_NO_PASSWORD | VRNX_OPEN_NO_HASHES, nullptr, error) != VRNX_OK) {
        console.Complain(error.text);
        return statusFailed;
    }
    Description description = Describe(path, image);
    if (arguments.Has("--json")) {
        JsonInfo(console).Write(description);
    } else {
        PrintInfo(console, description);
    }
    return description.problems.empty() ? statusGood : statusDamaged;
}

} // namespace vrnx_cli
