// The rules about paths of image files, where they are pure text.
#include "image/paths.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vornix {
namespace {

TEST(WidenPath, SignExtendsEachByteToOneUnit) {
    EXPECT_EQ(WidenPath("a\x7F\x80\xC3\xFF"), (std::wstring{0x61, 0x7F, 0xFF80, 0xFFC3, 0xFFFF}));
    EXPECT_TRUE(WidenPath("").empty());
}

// A colon is no separator, nor is a byte beyond ASCII: drives, shares and devices are text like any other.
TEST(Paths, AFolderEndsBehindTheLastSeparatorOfEitherKind) {
    const std::vector<std::pair<std::string, std::string>> rows{
        {"a/b\\", "c"},
        {"a\\b/", "c"},
        {"/", "c"},
        {"a/", ""},
        {"", "C:image.vrnx"},
        {"C:\\", "image.vrnx"},
        {"Z:/a folder/", "image.vrnx"},
        {"C:folder\\", "image.vrnx"},
        {"\\\\server\\share\\", "image.vrnx"},
        {"\\\\?\\C:\\", "image.vrnx"},
        {"\xC3\xA4/\xDC\xAF\x5C", "\xFF"},
        {"", "\xDC\xAF"},
        {"", "image.vrnx"},
        {"", ""},
    };
    for (const auto& [folder, name] : rows) {
        EXPECT_EQ(DirectoryOfPath(folder + name), folder);
        EXPECT_EQ(FileNameOfPath(folder + name), name);
    }
}

TEST(ResolvePath, GivesNothingForAPathThatWouldBeTooLong) {
    EXPECT_EQ(ResolvePath(std::string(260, 'x')), std::nullopt);
}

TEST(ResolvePath, TakesDotsOutAndKeepsCaseAndBlanks) {
    const std::optional<std::string> absolute = ResolvePath(" An Image.vrnx");
    ASSERT_TRUE(absolute.has_value());
    EXPECT_EQ(ResolvePath("folder/.././ An Image.vrnx"), absolute);
    EXPECT_EQ(FileNameOfPath(*absolute), " An Image.vrnx");
}

TEST(IsSamePath, CaseOfAsciiLettersIsNoDifference) {
    EXPECT_TRUE(IsSamePath("C:\\Images\\A.vrnx", "c:\\iMAGES\\a.VRNX"));
    EXPECT_FALSE(IsSamePath("a.vrnx", "a.vrn"));
    EXPECT_FALSE(IsSamePath("a.vrn", "a.vrnx"));
    EXPECT_FALSE(IsSamePath("a/b", "a\\b"));
    EXPECT_FALSE(IsSamePath("\xC3\xA4", "\xC3\x84"));
}

} // namespace
} // namespace vornix
