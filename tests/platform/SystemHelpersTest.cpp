#include "platform/SystemHelpers.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <string>

#include "support/TempDirectory.h"

namespace vorrel {
namespace {

using test::TempDirectory;

void MakeFile(const std::string& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary) << contents;
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

FileHandle Opened(const std::string& path) {
    return FileHandle(std::fopen(path.c_str(), "rb"));
}

// memcpy_s

TEST(SystemHelpersTest, MemcpyOfNothingSucceedsWithNullPointers) {
    EXPECT_EQ(memcpy_s(nullptr, 0, nullptr, 0), 0);
    EXPECT_EQ(memcpy_s(nullptr, 10, "abc", 0), 0);
}

TEST(SystemHelpersTest, MemcpyOfNothingCopiesNothing) {
    std::string destination = "abc";

    EXPECT_EQ(memcpy_s(destination.data(), 3, "xyz", 0), 0);
    EXPECT_EQ(destination, "abc");
}

TEST(SystemHelpersTest, MemcpyRefusesANullPointer) {
    char byte = 'a';

    EXPECT_EQ(memcpy_s(nullptr, 1, &byte, 1), 22);
    EXPECT_EQ(memcpy_s(&byte, 1, nullptr, 1), 22);
    EXPECT_EQ(byte, 'a');
}

TEST(SystemHelpersTest, MemcpyNamesANullPointerBeforeASmallDestination) {
    EXPECT_EQ(memcpy_s(nullptr, 0, "a", 1), 22);
}

TEST(SystemHelpersTest, MemcpyRefusesADestinationOneByteTooSmallAndLeavesIt) {
    std::string destination = "abc";

    EXPECT_EQ(memcpy_s(destination.data(), 2, "xyz", 3), 34);
    EXPECT_EQ(destination, "abc");
}

TEST(SystemHelpersTest, MemcpyFillsADestinationOfJustTheSize) {
    std::string destination = "abcd";

    EXPECT_EQ(memcpy_s(destination.data(), 3, "xyz", 3), 0);
    EXPECT_EQ(destination, "xyzd");
}

// _tfopen_s

TEST(SystemHelpersTest, OpenRefusesANullHandlePointer) {
    EXPECT_EQ(_tfopen_s(nullptr, "/dev/null", "rb"), 22);
}

TEST(SystemHelpersTest, OpenRefusesANullPathOrModeAndStoresNoFile) {
    std::FILE* file = stderr;

    EXPECT_EQ(_tfopen_s(&file, nullptr, "rb"), 22);
    EXPECT_EQ(file, nullptr);
    file = stderr;
    EXPECT_EQ(_tfopen_s(&file, "/dev/null", nullptr), 22);
    EXPECT_EQ(file, nullptr);
}

TEST(SystemHelpersTest, OpenStoresTheFile) {
    const TempDirectory directory;
    MakeFile(directory.File("a"), "hello");

    std::FILE* file = nullptr;
    const int result = _tfopen_s(&file, directory.File("a").c_str(), "rb");
    const FileHandle closing(file);

    ASSERT_EQ(result, 0);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::fgetc(file), 'h');
}

TEST(SystemHelpersTest, OpenAnswersTheErrorNumberAndStoresNull) {
    const TempDirectory directory;

    std::FILE* file = stderr;
    EXPECT_EQ(_tfopen_s(&file, directory.File("missing").c_str(), "rb"), ENOENT);
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(_tfopen_s(&file, directory.Path().c_str(), "wb"), EISDIR);
}

// fread_s

class FreadTest : public testing::Test {
protected:
    FreadTest() {
        MakeFile(directory.File("a"), "0123456789");
        file = Opened(directory.File("a"));
    }

    const TempDirectory directory;
    FileHandle file;
    std::array<char, 12> buffer{};
};

TEST_F(FreadTest, ReadsNothingWhereTheBufferHoldsFewerElements) {
    // 10 / 4 = 2 whole elements, 3 asked for.
    EXPECT_EQ(fread_s(buffer.data(), 10, 4, 3, file.get()), 0U);
    EXPECT_EQ(std::ftell(file.get()), 0);
    EXPECT_EQ(buffer[0], '\0');
}

TEST_F(FreadTest, ReadsAsManyElementsAsTheBufferHolds) {
    EXPECT_EQ(fread_s(buffer.data(), 10, 4, 2, file.get()), 2U);
    EXPECT_EQ(std::string(buffer.data()), "01234567");
}

TEST_F(FreadTest, AnswersTheWholeElementsOfAShortFile) {
    EXPECT_EQ(fread_s(buffer.data(), 12, 4, 3, file.get()), 2U);
}

TEST_F(FreadTest, ReadsNothingWithoutBufferSizeCountOrStream) {
    EXPECT_EQ(fread_s(nullptr, 10, 1, 1, file.get()), 0U);
    EXPECT_EQ(fread_s(buffer.data(), 10, 0, 1, file.get()), 0U);
    EXPECT_EQ(fread_s(buffer.data(), 10, 1, 0, file.get()), 0U);
    EXPECT_EQ(fread_s(buffer.data(), 10, 1, 1, nullptr), 0U);
    EXPECT_EQ(std::ftell(file.get()), 0);
}

TEST_F(FreadTest, IsNotFooledByAProductThatWraps) {
    constexpr std::size_t kHuge = std::numeric_limits<std::size_t>::max() / 2 + 2;

    EXPECT_EQ(fread_s(buffer.data(), 10, 2, kHuge, file.get()), 0U);
    EXPECT_EQ(std::ftell(file.get()), 0);
}

// wcstombs_s, lstrlen

TEST(SystemHelpersTest, WcstombsConvertsAndNeverWritesTheCount) {
    std::size_t converted = 77;
    std::array<char, 8> text{};

    EXPECT_EQ(wcstombs_s(&converted, text.data(), text.size(), L"abc", 1), 3U);
    EXPECT_EQ(std::string(text.data()), "abc");
    EXPECT_EQ(converted, 77U);
    EXPECT_EQ(wcstombs_s(nullptr, text.data(), text.size(), L"de", 0), 2U);
}

TEST(SystemHelpersTest, WcstombsStopsAtTheDestinationsEndWithoutAZero) {
    std::array<char, 4> text = {'#', '#', '#', '#'};

    EXPECT_EQ(wcstombs_s(nullptr, text.data(), 3, L"abcdef", 100), 3U);
    EXPECT_EQ(std::string(text.data(), 4), "abc#");
}

TEST(SystemHelpersTest, WcstombsAnswersMinusOneForWhatTheLocaleLacks) {
    std::array<char, 8> text{};

    // Tests run in the "C" locale.
    EXPECT_EQ(wcstombs_s(nullptr, text.data(), text.size(), L"\x3042", 8),
              static_cast<std::size_t>(-1));
}

TEST(SystemHelpersTest, NarrowLstrlenCountsBytes) {
    EXPECT_EQ(lstrlen(""), 0U);
    EXPECT_EQ(lstrlen("a\xC3\xA9"), 3U);
}

TEST(SystemHelpersTest, WideLstrlenCountsBytes) {
    alignas(wchar_t) const char bytes[] = "seven by";

    EXPECT_EQ(lstrlen(reinterpret_cast<const wchar_t*>(bytes)), 8U);
    // A true wide text ends, for this count, at the first zero byte of its first character.
    EXPECT_EQ(lstrlen(L"AB"), 1U);
}

}  // namespace
}  // namespace vorrel
