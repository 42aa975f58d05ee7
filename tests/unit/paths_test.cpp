// The rules about paths of image files, where they are pure text.
#include "image/paths.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace vornix {
namespace {

TEST(WidenPath, SignExtendsEachByteToOneUnit) {
    const std::wstring wide = WidenPath("a\x7F\x80\xC3\xFF");
    ASSERT_EQ(wide.size(), 5U);
    EXPECT_EQ(static_cast<unsigned>(wide[0]), 0x61U);
    EXPECT_EQ(static_cast<unsigned>(wide[1]), 0x7FU);
    EXPECT_EQ(static_cast<unsigned>(wide[2]), 0xFF80U);
    EXPECT_EQ(static_cast<unsigned>(wide[3]), 0xFFC3U);
    EXPECT_EQ(static_cast<unsigned>(wide[4]), 0xFFFFU);
}

TEST(WidenPath, EmptyStaysEmpty) {
    EXPECT_TRUE(WidenPath("").empty());
}

TEST(DirectoryOfPath, EndsBehindTheLastSeparatorOfEitherKind) {
    EXPECT_EQ(DirectoryOfPath("a/b\\c"), "a/b\\");
    EXPECT_EQ(DirectoryOfPath("a\\b/c"), "a\\b/");
    EXPECT_EQ(DirectoryOfPath("/c"), "/");
    EXPECT_EQ(DirectoryOfPath("a/"), "a/");
}

TEST(DirectoryOfPath, ColonIsNoSeparator) {
    EXPECT_EQ(DirectoryOfPath("C:image.vrnx"), "");
}

TEST(DirectoryOfPath, DrivesSharesAndDevicesAreTextLikeAnyOther) {
    EXPECT_EQ(DirectoryOfPath("C:\\image.vrnx"), "C:\\");
    EXPECT_EQ(DirectoryOfPath("Z:/a folder/image.vrnx"), "Z:/a folder/");
    EXPECT_EQ(DirectoryOfPath("C:folder\\image.vrnx"), "C:folder\\");
    EXPECT_EQ(DirectoryOfPath("\\\\server\\share\\image.vrnx"), "\\\\server\\share\\");
    EXPECT_EQ(DirectoryOfPath("\\\\?\\C:\\image.vrnx"), "\\\\?\\C:\\");
}

TEST(DirectoryOfPath, BytesBeyondAsciiAreNoSeparators) {
    EXPECT_EQ(DirectoryOfPath("\xC3\xA4/\xDC\xAF\x5C\xFF"), "\xC3\xA4/\xDC\xAF\x5C");
    EXPECT_EQ(DirectoryOfPath("\xDC\xAF"), "");
}

TEST(DirectoryOfPath, BareNameAndEmptyPathHaveNone) {
    EXPECT_EQ(DirectoryOfPath("image.vrnx"), "");
    EXPECT_EQ(DirectoryOfPath(""), "");
}

TEST(FileNameOfPath, IsWhatStandsBehindTheFolder) {
    EXPECT_EQ(FileNameOfPath("a/b\\c"), "c");
    EXPECT_EQ(FileNameOfPath("C:image.vrnx"), "C:image.vrnx");
    EXPECT_EQ(FileNameOfPath("a/"), "");
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
