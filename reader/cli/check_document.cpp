// Documents of vrnx check, read back.

#include "check_document.h"

#include "port.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <charconv>

namespace vrnx_cli {

namespace {

using Json = nlohmann::json;

constexpr size_t largestDocument = size_t{1} << 30;

// The unit of an escape \uXXXX that the text begins with; false where it begins with none.
bool ReadEscape(std::string_view text, unsigned& unit) {
    if (text.size() < 6 || text[0] != '\\' || text[1] != 'u') {
        return false;
    }
    auto [stop, error] = std::from_chars(text.data() + 2, text.data() + 6, unit, 16);
    return error == std::errc() && stop == text.data() + 6;
}

bool IsLowSurrogate(unsigned unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// A byte that is not UTF-8 stands in a document as the escape of a lone surrogate, which the parser takes for an error.
// Here it becomes a character at the end of Unicode that no name is likely to hold.
std::string StandInFor(unsigned byte) {
    return {'\xF4', '\x8F', static_cast<char>(0xBC | (byte >> 6)), static_cast<char>(0x80 | (byte & 0x3F))};
}

std::string WithStandIns(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        unsigned unit = 0;
        unsigned second = 0;
        size_t taken = text[0] == '\\' && text.size() > 1 ? 2 : 1;
        if (ReadEscape(text, unit)) {
            taken = 6;
            if (unit >= 0xDC80 && unit <= 0xDCFF) {
                out += StandInFor(unit - 0xDC00);
                text.remove_prefix(taken);
                continue;
            }
            if (unit >= 0xD800 && unit <= 0xDBFF && ReadEscape(text.substr(6), second) && IsLowSurrogate(second)) {
                taken = 12; // one character of two units
            }
        }
        out += text.substr(0, taken);
        text.remove_prefix(taken);
    }
    return out;
}

// A path as the parsed document has it.
std::string PathInDocument(std::string_view path) {
    std::string out;
    while (!path.empty()) {
        size_t length = Utf8SequenceLength(path);
        if (length == 0) {
            out += StandInFor(static_cast<uint8_t>(path[0]));
        } else {
            out += path.substr(0, length);
        }
        path.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

const Json* FindImage(const Json& images, const std::string& imagePath) {
    std::string wanted = PathInDocument(imagePath);
    const Json* found = nullptr;
    for (const Json& image : images) {
        const std::string& path = image.at("path").get_ref<const std::string&>();
        if (path == wanted) {
            return &image;
        }
        if (NameInPath(path) == NameInPath(wanted)) {
            found = &image;
        }
    }
    return found;
}

std::string TakeBadChunks(const Json& document, const std::string& imagePath, uint64_t chunkCount,
                          std::vector<bool>& bad) {
    if (document.at("schema_version") != 1) {
        return "is of another version";
    }
    const Json* image = FindImage(document.at("images"), imagePath);
    if (image == nullptr) {
        return "says nothing of " + imagePath;
    }
    const Json& chunks = image->at("chunks");
    if (chunks.is_null()) {
        return "says that " + imagePath + " was " + image->at("result").get<std::string>();
    }
    if (chunks != chunkCount) {
        return "tells of another image of that name";
    }
    bad.assign(chunkCount, false);
    for (const Json& one : image->at("bad")) {
        bad.at(one.at("chunk").get<uint64_t>()) = true;
    }
    return "";
}

} // namespace

std::string ReadCheckDocument(const std::string& path, const std::string& imagePath, uint64_t chunkCount,
                              std::vector<bool>& bad) {
    std::string content;
    if (int error = ReadWholeFile(path, largestDocument, content)) {
        return DescribeSystemError(error);
    }
    try {
        return TakeBadChunks(Json::parse(WithStandIns(content)), imagePath, chunkCount, bad);
    } catch (const Json::exception&) {
        return "is no document of vrnx check";
    } catch (const std::out_of_range&) {
        return "names a chunk that the image has not";
    }
}

} // namespace vrnx_cli
