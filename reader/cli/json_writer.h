// A writer of JSON (RFC 8259) documents: keys in the order given, numbers of 64 bits whole, and names of files as they
// are.
//
// It is not for reading JSON. A byte of a text that is not UTF-8 is written as the escape of U+DC00 plus the byte,
// which whoever reads the document can turn back: Python's "surrogateescape" does.
#pragma once

#include "console.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vrnx_cli {

// Writes as it is told, so that a document of any size needs no memory. Begin is to be called when all that can fail is
// over: a document goes out whole or not at all.
class JsonWriter {
public:
    explicit JsonWriter(Console& console) : console_(console) {}

    // Whether the items of an object or array stand on a line each, or behind each other.
    enum class Layout {
        lines,
        line
    };

    void BeginObject(Layout layout = Layout::lines) { Begin('{', layout); }
    void EndObject() { End('}'); }
    void BeginArray(Layout layout = Layout::lines) { Begin('[', layout); }
    void EndArray() { End(']'); }
    void Key(std::string_view name);

    void Text(std::string_view text);
    void Number(uint64_t number);
    void Boolean(bool value);
    void Null();

    // A member of an object.
    void TextMember(std::string_view name, std::string_view text);
    void NumberMember(std::string_view name, uint64_t number);
    void BooleanMember(std::string_view name, bool value);
    void NullMember(std::string_view name);

    // The first member of every document.
    void SchemaVersionMember() { NumberMember("schema_version", 1); }

private:
    struct Level {
        Layout layout;
        bool empty;
    };

    void Begin(char bracket, Layout layout);
    void End(char bracket);
    void BeginItem();
    void BreakLine();

    Console& console_;
    std::vector<Level> levels_;
    bool afterKey_ = false;
};

} // namespace vrnx_cli
