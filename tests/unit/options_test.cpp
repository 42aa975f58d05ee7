// The scanning of options, as pure logic: what counts as a name, what as a value, and how a number is read.
#include "cli/options.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
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

TEST(Options, ValueIsTheArgumentBehindTheName) {
    EXPECT_EQ(ValueOf({"vornix", "capture", "--out", "x"}, "--out"), "x");
}

TEST(Options, AbsentNameGivesTheDefault) {
    EXPECT_EQ(ValueOf({"vornix", "capture", "a", "b"}, "--out"), "default");
}

TEST(Options, NamesMatchWithoutRegardToAsciiCase) {
    EXPECT_EQ(ValueOf({"vornix", "capture", "--OuT", "x"}, "--out"), "x");
    EXPECT_TRUE(FlagIn({"vornix", "capture", "--VSS"}, "--vss"));
}

TEST(Options, LettersBeyondAsciiAreNotFolded) {
    EXPECT_EQ(ValueOf({"vornix", "capture", "--\xC4", "x"}, "--\xE4"), "default");
}

TEST(Options, NameAsLastArgumentHasNoValue) {
    EXPECT_EQ(ValueOf({"vornix", "capture", "--disk"}, "--disk"), "default");
}

TEST(Options, FirstOfRepeatedNamesCounts) {
    EXPECT_EQ(ValueOf({"vornix", "capture", "--disk", "1", "--disk", "2"}, "--disk"), "1");
}

TEST(Options, ValueMayLookLikeAnOptionAndIsAFlagAsWell) {
    EXPECT_EQ(ValueOf({"vornix", "capture", "--out", "--vss"}, "--out"), "--vss");
    EXPECT_TRUE(FlagIn({"vornix", "capture", "--out", "--vss"}, "--vss"));
}

TEST(Options, ScanBeginsAtTheCommandWord) {
    EXPECT_EQ(ValueOf({"vornix", "--out", "x"}, "--out"), "x");
    EXPECT_EQ(ValueOf({"--out", "x", "y"}, "--out"), "default");
    EXPECT_FALSE(FlagIn({"--vss"}, "--vss"));
}

TEST(Options, FlagAsLastArgumentIsFound) {
    EXPECT_TRUE(FlagIn({"vornix", "capture", "--thin"}, "--thin"));
}

TEST(Options, NoArgumentsAtAllGiveDefaultAndFalse) {
    EXPECT_EQ(GetOptionValue(0, nullptr, "--out", "default"), "default");
    EXPECT_FALSE(HasFlag(0, nullptr, "--vss"));
}

TEST(ParseInt, ReadsUpToTheFirstCharacterThatIsNoDigit) {
    EXPECT_EQ(ParseInt("12abc"), 12);
    EXPECT_EQ(ParseInt(" 3"), 3);
    EXPECT_EQ(ParseInt("\t\n+7 8"), 7);
    EXPECT_EQ(ParseInt("-2"), -2);
    EXPECT_EQ(ParseInt("0x10"), 0);
}

TEST(ParseInt, TakesTheWholeRangeOf32Bits) {
    EXPECT_EQ(ParseInt("2147483647"), 2147483647);
    EXPECT_EQ(ParseInt("-2147483648"), -2147483647 - 1);
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
