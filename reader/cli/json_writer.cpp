// The writer of JSON documents.

#include "json_writer.h"

#include "text.h"

#include <array>
#include <cstdio>

namespace vrnx_cli {

namespace {

std::string Escape(unsigned unit) {
    std::array<char, 8> text = {};
    std::snprintf(text.data(), text.size(), "\\u%04x", unit & 0xFFFF);
    return text.data();
}

std::string Quoted(std::string_view text) {
    std::string quoted = "\"";
    while (!text.empty()) {
        size_t length = Utf8SequenceLength(text);
        auto first = static_cast<unsigned char>(text[0]);
        if (length == 0) {
            quoted += Escape(0xDC00U + first);
            length = 1;
        } else if (first < 0x20 || first == 0x7F) {
            quoted += Escape(first);
        } else {
            if (first == '"' || first == '\\') {
                quoted += '\\';
            }
            quoted += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return quoted + "\"";
}

} // namespace

void JsonWriter::BreakLine() {
    console_.Print("\n");
    console_.Print(std::string(levels_.size() * 2, ' '));
}

void JsonWriter::BeginItem() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (levels_.empty()) {
        return;
    }
    Level& level = levels_.back();
    if (!level.empty) {
        console_.Print(level.layout == Layout::lines ? "," : ", ");
    }
    level.empty = false;
    if (level.layout == Layout::lines) {
        BreakLine();
    }
}

void JsonWriter::Begin(char bracket, Layout layout) {
    BeginItem();
    console_.Print(std::string(1, bracket));
    levels_.push_back({layout, true});
}

void JsonWriter::End(char bracket) {
    Level level = levels_.back();
    levels_.pop_back();
    if (!level.empty && level.layout == Layout::lines) {
        BreakLine();
    }
    console_.Print(std::string(1, bracket));
    if (levels_.empty()) {
        console_.Print("\n");
    }
}

void JsonWriter::Key(std::string_view name) {
    BeginItem();
    console_.Print(Quoted(name) + ": ");
    afterKey_ = true;
}

void JsonWriter::Text(std::string_view text) {
    BeginItem();
    console_.Print(Quoted(text));
}

void JsonWriter::Number(uint64_t number) {
    BeginItem();
    console_.Print(std::to_string(number));
}

void JsonWriter::Boolean(bool value) {
    BeginItem();
    console_.Print(value ? "true" : "false");
}

void JsonWriter::Null() {
    BeginItem();
    console_.Print("null");
}

void JsonWriter::TextMember(std::string_view name, std::string_view text) {
    Key(name);
    Text(text);
}

void JsonWriter::NumberMember(std::string_view name, uint64_t number) {
    Key(name);
    Number(number);
}

void JsonWriter::BooleanMember(std::string_view name, bool value) {
    Key(name);
    Boolean(value);
}

void JsonWriter::NullMember(std::string_view name) {
    Key(name);
    Null();
}

} // namespace vrnx_cli
