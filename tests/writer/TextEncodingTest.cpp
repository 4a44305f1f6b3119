#include "writer/TextEncoding.h"

#include <gtest/gtest.h>

#include <array>
#include <clocale>
#include <string>
#include <system_error>

#include "writer/OtherSystem.h"

namespace vorrel {
namespace {

using std::string_literals::operator""s;

TEST(TextEncodingTest, ConvertsJapaneseToShiftJis) {
    EXPECT_EQ(Utf8ToShiftJIS("日本語"), "\x93\xFA\x96\x7B\x8C\xEA");
    EXPECT_EQ(Utf8ToShiftJIS("ハ"), "\x83\x6E");
    EXPECT_EQ(Utf8ToShiftJIS("ﾊ"), "\xCA");  // half width: one byte
}

TEST(TextEncodingTest, ShiftJisIsCodePage932) {
    EXPECT_EQ(Utf8ToShiftJIS("①"), "\x87\x40");  // a character that the plain standard lacks
    EXPECT_EQ(Utf8ToShiftJIS("～"), "\x81\x60");
    EXPECT_EQ(Utf8ToShiftJIS("\\~"), "\\~");  // plain ASCII, no yen sign, no overline
}

TEST(TextEncodingTest, WritesOneQuestionMarkForEachCharacterThatShiftJisLacks) {
    EXPECT_EQ(Utf8ToShiftJIS("a😀b"), "a?b");
    EXPECT_EQ(Utf8ToShiftJIS("é"), "?");
    EXPECT_EQ(Utf8ToShiftJIS("日é語"), "\x93\xFA?\x8C\xEA");
}

TEST(TextEncodingTest, SubstitutesMalformedUtf8InsteadOfFailing) {
    EXPECT_EQ(Utf8ToShiftJIS("a\xFF"
                             "b"),
              "a?b");                              // never a first byte
    EXPECT_EQ(Utf8ToShiftJIS("a\xE6\x97"), "a?");  // cut off at the end
    EXPECT_EQ(Utf8ToShiftJIS("\xE6\x97"
                             "b"),
              "?b");                                 // cut off in the middle
    EXPECT_EQ(Utf8ToShiftJIS("\xC0\x80"), "?");      // overlong zero
    EXPECT_EQ(Utf8ToShiftJIS("\xED\xA0\x80"), "?");  // half a surrogate pair
    EXPECT_EQ(Utf8ToShiftJIS("\x80\x80\x80"), "?");  // continuation bytes only
    EXPECT_EQ(Utf8ToUtf16("a\xFF"
                          "b"),
              "a\0\xFD\xFF"
              "b\0"s);  // U+FFFD
    EXPECT_EQ(Utf8ToUtf16("\xE6\x97"), "\xFD\xFF"s);
}

TEST(TextEncodingTest, AnEmptyTextGivesNoBytes) {
    std::string out = "old";

    EXPECT_EQ(Utf8ToShiftJIS(""), "");
    EXPECT_EQ(Utf8ToUtf16(""), "");
    EXPECT_EQ(ToUtf16(out, ""), 0U);
    EXPECT_EQ(out, "");
}

TEST(TextEncodingTest, ConvertsToUtf16LittleEndianWithoutMarkAndTerminator) {
    EXPECT_EQ(Utf8ToUtf16("A日"), "A\0\xE5\x65"s);
    EXPECT_EQ(Utf8ToUtf16("😀"), "\x3D\xD8\x00\xDE"s);
}

TEST(TextEncodingTest, CountsACharacterBeyondTheBasicPlaneOnce) {
    std::string out;

    const std::size_t bytes = ToUtf16(out, "A😀B");

    EXPECT_EQ(bytes, 6U);
    EXPECT_EQ(out,
              "A\0\x3D\xD8\x00\xDE"
              "B\0"s);  // of which the last two bytes are left out
}

TEST(TextEncodingTest, NeverCountsMoreBytesThanItConverts) {
    for (const char* malformed : {"\xC3", "\xE6\x97\xE6\x97", "\xF0\x9F\x98", "\xFF\xFE"}) {
        std::string out;
        const std::size_t bytes = ToUtf16(out, malformed);
        EXPECT_GT(bytes, 0U);
        EXPECT_LE(bytes, out.size());
    }
}

TEST(TextEncodingTest, BytesThatContinueNothingAreNoCharacters) {
    std::string out;

    EXPECT_EQ(ToUtf16(out, "\x80\xBF"), 0U);
}

TEST(TextEncodingTest, ATagCharacterIsACharacterThatShiftJisLacks) {
    EXPECT_EQ(Utf8ToShiftJIS("a\xF3\xA0\x81\xA7"
                             "b"),
              "a?b");
    EXPECT_EQ(Utf8ToShiftJIS("\xF3\xA0\x80\x81\xF3\xA0\x81\xBF"), "??");
    EXPECT_EQ(Utf8ToUtf16("\xF3\xA0\x81\xA7"), "\x40\xDB\x67\xDC");
}

TEST(TextEncodingTest, LongTextsAreConvertedWhole) {
    std::string text;
    std::string shiftJis;
    for (int count = 0; count < 5'000; ++count) {
        text += "日😀a";
        shiftJis += "\x93\xFA?a";
    }

    EXPECT_EQ(Utf8ToShiftJIS(text), shiftJis);
}

TEST(TextEncodingTest, ShiftJisIntoABufferIsZeroFilledAndMeasured) {
    std::array<char, 8> out{};
    out.fill('x');

    EXPECT_EQ(UnicodeToShiftJIS(out, "日a"), 3U);

    EXPECT_EQ(std::string(out.data(), out.size()),
              "\x93\xFA"
              "a\0\0\0\0\0"s);
}

TEST(TextEncodingTest, ShiftJisIntoASmallBufferIsCutOffBeforeALastZero) {
    std::array<char, 3> out{};

    EXPECT_EQ(UnicodeToShiftJIS(out, "abcd"), 2U);

    EXPECT_STREQ(out.data(), "ab");
    EXPECT_EQ(UnicodeToShiftJIS(std::span<char>(), "abcd"), 0U);
}

TEST(TextEncodingTest, LeavesTheLocaleAlone) {
    // Another one than that of the environment, to which a change and back would lead.
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    const std::string before = std::setlocale(LC_ALL, nullptr);

    EXPECT_EQ(Utf8ToShiftJIS("日本語").size(), 6U);

    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
    std::setlocale(LC_ALL, "C");
}

TEST(TextEncodingTest, StrReplaceGoesOnBehindEachReplacement) {
    EXPECT_EQ(StrReplace("a-b-c", "-", "--"), "a--b--c");
    EXPECT_EQ(StrReplace("aaa", "aa", "a"), "aa");
    EXPECT_EQ(StrReplace("abc", "x", "y"), "abc");
    EXPECT_EQ(StrReplace("abc", "", "y"), "abc");
    EXPECT_EQ(StrReplace("abab", "ab", ""), "");
}

TEST(TextEncodingTest, WithoutTablesOfEncodingsAsciiRemains) {
    const test::NoEncodings none;

    EXPECT_EQ(Utf8ToShiftJIS("A日B~"), "A?B~");
    EXPECT_EQ(Utf8ToUtf16("A日B~"),
              "A\0\xFD\xFF"
              "B\0~\0"s);
    EXPECT_EQ(Utf8ToShiftJIS("日本"), "??");
}

TEST(TextEncodingTest, AConversionThatCannotBeginForAnotherCauseIsNoTextWithoutATable) {
    for (const int cause : {EMFILE, ENFILE, ENOMEM}) {
        const test::NoEncodings none(cause);
        std::string out;

        EXPECT_THROW(Utf8ToShiftJIS("A"), std::system_error);
        EXPECT_THROW(Utf8ToUtf16("A"), std::system_error);
        EXPECT_THROW(ToUtf16(out, "A"), std::system_error);
    }
}

}  // namespace
}  // namespace vorrel
