// The scanning of options, as pure logic: what counts as a name, what as a value, and how a number is read.
#include "cli/options.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace vornix {
namespace {

class Arguments {
public:
    explicit Arguments(std::vector<std::string> words) : words_(std::move(words)) {
        for (std::string& word : words_) {
            pointers_.push_back(word.data());
        }
    }
    int count() const { return static_cast<int>(pointers_.size()); }
    char** values() { return pointers_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char*> pointers_;
};

std::string ValueOf(std::vector<std::string> words, const char* name) {
    Arguments arguments(std::move(words));
    return GetOptionValue(arguments.count(), arguments.values(), name, "default");
}

bool FlagIn(std::vector<std::string> words, const char* name) {
    Arguments arguments(std::move(words));
    return HasFlag(arguments.count(), arguments.values(), name);
}

TEST(Options, AValueIsTheArgumentBehindTheFirstOfItsName) {
    const std::vector<std::tuple<std::vector<std::string>, const char*, const char*>> rows{
        {{"vornix", "capture", "--out", "x"}, "--out", "x"},
        {{"vornix", "capture", "a", "b"}, "--out", "default"},
        {{"vornix", "capture", "--OuT", "x"}, "--out", "x"},
        {{"vornix", "capture", "--\xC4", "x"}, "--\xE4", "default"}, // only ASCII letters are folded
        {{"vornix", "capture", "--disk"}, "--disk", "default"},
        {{"vornix", "capture", "--disk", "1", "--disk", "2"}, "--disk", "1"},
        {{"vornix", "capture", "--out", "--vss"}, "--out", "--vss"},
        {{"vornix", "--out", "x"}, "--out", "x"}, // the scan begins at the command word
        {{"--out", "x", "y"}, "--out", "default"},
    };
    for (const auto& [words, name, value] : rows) {
        EXPECT_EQ(ValueOf(words, name), value) << testing::PrintToString(words);
    }
}

TEST(Options, AFlagMayStandAnywhereFromTheCommandWordOn) {
    EXPECT_TRUE(FlagIn({"vornix", "capture", "--VSS"}, "--vss"));
    EXPECT_TRUE(FlagIn({"vornix", "capture", "--out", "--vss"}, "--vss"));
    EXPECT_FALSE(FlagIn({"--vss"}, "--vss"));
}

TEST(Options, NoArgumentsAtAllGiveDefaultAndFalse) {
    EXPECT_EQ(GetOptionValue(0, nullptr, "--out", "default"), "default");
    EXPECT_FALSE(HasFlag(0, nullptr, "--vss"));
}

TEST(ParseInt, ReadsUpToTheFirstCharacterThatIsNoDigit) {
    const std::vector<std::pair<const char*, int>> rows{{"12abc", 12},
                                                        {" 3", 3},
                                                        {"\t\n+7 8", 7},
                                                        {"-2", -2},
                                                        {"0x10", 0},
                                                        {"2147483647", 2147483647},
                                                        {"-2147483648", -2147483647 - 1}};
    for (const auto& [text, number] : rows) {
        EXPECT_EQ(ParseInt(text), number) << text;
    }
}

template <typename Exception>
std::string MessageOf(const char* text) {
    try {
        ParseInt(text);
    } catch (const Exception& exception) {
        return exception.what();
    }
    return "nothing thrown";
}

TEST(ParseInt, ThrowsInvalidArgumentWithoutADigit) {
    for (const char* text : {"", "abc", "-", "+", "- 1", "--1"}) {
        EXPECT_EQ(MessageOf<std::invalid_argument>(text), "invalid stoi argument") << text;
    }
}

TEST(ParseInt, ThrowsOutOfRangeBeyond32Bits) {
    for (const char* text : {"2147483648", "-2147483649", "99999999999", "99999999999999999999999999"}) {
        EXPECT_EQ(MessageOf<std::out_of_range>(text), "stoi argument out of range") << text;
    }
}

} // namespace
} // namespace vornix
