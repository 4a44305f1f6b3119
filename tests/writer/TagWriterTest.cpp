#include "writer/TagWriter.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "support/FileBytes.h"

namespace vorrel {
namespace {

using test::BigEndian;
using test::Bytes;
using test::CheckFields;
using test::FieldCheck;
using test::Id;

/// A stream in memory.
class MemoryStream {
public:
    MemoryStream() : file(::open_memstream(&data, &size)) {}
    ~MemoryStream() {
        std::fclose(file);
        std::free(data);
    }
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;

    std::FILE* Get() const { return file; }
    Bytes Written() {
        std::fflush(file);
        return Bytes(data, data + size);
    }

private:
    char* data = nullptr;
    std::size_t size = 0;
    std::FILE* file;
};

/// A stream whose disk is full. It takes what its buffer holds: `kBufferBytes`, or nothing.
class FullStream {
public:
    static constexpr std::size_t kBufferBytes = 128;  // below that the C library does not buffer

    explicit FullStream(bool buffered) : file(std::fopen("/dev/full", "wb")) {
        if (file != nullptr) {
            std::setvbuf(file, buffer, buffered ? _IOFBF : _IONBF, sizeof(buffer));
        }
    }
    ~FullStream() {
        if (file != nullptr) {
            std::fclose(file);
        }
    }
    FullStream(const FullStream&) = delete;
    FullStream& operator=(const FullStream&) = delete;

    std::FILE* Get() const { return file; }

private:
    char buffer[kBufferBytes];
    std::FILE* file;
};

Bytes SavedTags(const TagMap& tags) {
    MemoryStream stream;
    EXPECT_EQ(SaveTags(tags, stream.Get()), VrSuccess);
    return stream.Written();
}

Bytes SavedID3Tags(const TagMap& tags) {
    MemoryStream stream;
    EXPECT_EQ(SaveID3Tags(tags, stream.Get()), VrSuccess);
    return stream.Written();
}

constexpr std::uint64_t kUtf16Mark = 0xFEFF01;  // encoding byte 1, then the bytes FF FE

TEST(TagWriterTest, ATitleOfTwoLettersTakesSixtyBytes) {
    const TagMap tags = {{"Title", "AB"}};
    constexpr FieldCheck kTwoLetters[] = {
        {0, 4, Id("LIST"), "LIST"},
        {4, 4, 4 + 8 + 4, "LIST size"},
        {8, 4, Id("INFO"), "INFO"},
        {12, 4, Id("INAM"), "sub-chunk id"},
        {16, 4, 4, "sub-chunk size"},
        {20, 4, Id("AB"), "text, terminator, pad"},
        {24, 4, Id("id3 "), "id3 chunk id"},
        {28, 4, 28, "id3 chunk size, rounded up"},
        {32, 3, Id("ID3"), "tag identifier"},
        {35, 3, 3, "version 3, revision 0, flags 0"},
        {38, 4, BigEndian(27 - 10, 4), "tag size"},
        {42, 4, Id("TIT2"), "frame id"},
        {46, 4, BigEndian(4 + 3, 4), "frame size"},
        {50, 2, 0, "frame flags"},
        {52, 3, kUtf16Mark, "encoding and byte-order mark"},
        {55, 4, Id(std::string_view("A\0B\0", 4)), "text"},
        {59, 1, 0, "pad of the id3 chunk"},
    };

    const Bytes bytes = SavedTags(tags);

    EXPECT_EQ(CalculateSaveID3TagSize(tags), 27U);
    EXPECT_EQ(CalculateSaveTagSize(tags), 60U);
    CheckFields(bytes, kTwoLetters);
}

TEST(TagWriterTest, ATitleOfThreeLettersNeedsNoPad) {
    const Bytes bytes = SavedTags({{"Title", "ABC"}});

    ASSERT_GE(bytes.size(), 24U);
    EXPECT_EQ(Bytes(bytes.begin() + 12, bytes.begin() + 24),
              (Bytes{'I', 'N', 'A', 'M', 4, 0, 0, 0, 'A', 'B', 'C', 0}));
}

TEST(TagWriterTest, ThreeJapaneseCharactersTakeSixBytesInEitherEncoding) {
    const TagMap tags = {{"Title", "日本語"}};
    constexpr FieldCheck kJapanese[] = {
        {0, 4, Id("LIST"), "LIST"},
        {4, 4, 4 + 8 + 8, "LIST size"},
        {8, 4, Id("INFO"), "INFO"},
        {12, 4, Id("INAM"), "sub-chunk id"},
        {16, 4, 8, "sub-chunk size"},
        {20, 8, Id("\x93\xFA\x96\x7B\x8C\xEA"), "Shift-JIS, terminator, pad"},
        {28, 4, Id("id3 "), "id3 chunk id"},
        {32, 4, 30, "id3 chunk size"},
        {36, 3, Id("ID3"), "tag identifier"},
        {39, 3, 3, "version 3, revision 0, flags 0"},
        {42, 4, BigEndian(13 + 6, 4), "tag size"},
        {46, 4, Id("TIT2"), "frame id"},
        {50, 4, BigEndian(9, 4), "frame size"},
        {54, 2, 0, "frame flags"},
        {56, 3, kUtf16Mark, "encoding and byte-order mark"},
        {59, 6, Id("\xE5\x65\x2C\x67\x9E\x8A"), "UTF-16"},
        {65, 1, 0, "pad of the id3 chunk"},
    };

    EXPECT_EQ(CalculateSaveID3TagSize(tags), 29U);
    EXPECT_EQ(CalculateSaveTagSize(tags), 66U);
    CheckFields(SavedTags(tags), kJapanese);
}

TEST(TagWriterTest, AlbumArtistAloneGivesNoTagChunks) {
    const TagMap tags = {{"AlbumArtist", "AB"}};

    EXPECT_EQ(CalculateSaveTagSize(tags), 0U);
    EXPECT_EQ(SavedTags(tags), Bytes());
}

TEST(TagWriterTest, AlbumArtistAloneGivesAnId3TagWithOneFrame) {
    const TagMap tags = {{"AlbumArtist", "A"}};
    constexpr FieldCheck kOneFrame[] = {
        {0, 3, Id("ID3"), "tag identifier"},
        {3, 3, 3, "version 3, revision 0, flags 0"},
        {6, 4, BigEndian(15, 4), "tag size"},
        {10, 4, Id("TPE2"), "frame id"},
        {14, 4, BigEndian(5, 4), "frame size"},
        {18, 2, 0, "frame flags"},
        {20, 3, kUtf16Mark, "encoding and byte-order mark"},
        {23, 2, Id("A"), "text"},
    };

    EXPECT_EQ(CalculateSaveID3TagSize(tags), 25U);
    CheckFields(SavedID3Tags(tags), kOneFrame);
}

TEST(TagWriterTest, TheKeyAlbumIsNotKnown) {
    const TagMap tags = {{"Album", "AB"}};

    EXPECT_EQ(CalculateSaveTagSize(tags), 0U);
    EXPECT_EQ(CalculateSaveID3TagSize(tags), 0U);
    EXPECT_EQ(SavedTags(tags), Bytes());
    EXPECT_EQ(SavedID3Tags(tags), Bytes());
}

TEST(TagWriterTest, WritesAllKeysInTheOrderOfEachFormat) {
    const TagMap tags = {{"Alubum", "LL"}, {"AlbumArtist", "S"}, {"Artist", "RRR"}, {"Title", "T"}};
    constexpr FieldCheck kAllKeys[] = {
        {0, 4, Id("LIST"), "LIST"},
        {4, 4, 4 + (8 + 2) + (8 + 4) + (8 + 4), "LIST size"},
        {8, 4, Id("INFO"), "INFO"},
        {12, 4, Id("INAM"), "title"},
        {16, 4, 2, "title size"},
        {20, 2, Id("T"), "title text"},
        {22, 4, Id("IPRD"), "album"},
        {26, 4, 4, "album size"},
        {30, 4, Id("LL"), "album text"},
        {34, 4, Id("IART"), "artist"},
        {38, 4, 4, "artist size"},
        {42, 4, Id("RRR"), "artist text"},
        {46, 4, Id("id3 "), "id3 chunk id"},
        {50, 4, 76, "id3 chunk size"},  // 10 + 4 frames of 13 + 2 bytes for each of 7 letters
        {54, 3, Id("ID3"), "tag identifier"},
        {57, 3, 3, "version 3, revision 0, flags 0"},
        {60, 4, BigEndian(66, 4), "tag size"},
        {64, 4, Id("TALB"), "album frame"},
        {68, 4, BigEndian(7, 4), "album frame size"},
        {72, 2, 0, "album frame flags"},
        {74, 3, kUtf16Mark, "encoding and byte-order mark"},
        {77, 4, Id(std::string_view("L\0L\0", 4)), "album text"},
        {81, 4, Id("TIT2"), "title frame"},
        {85, 4, BigEndian(5, 4), "title frame size"},
        {89, 2, 0, "title frame flags"},
        {91, 3, kUtf16Mark, "encoding and byte-order mark"},
        {94, 2, Id("T"), "title text"},
        {96, 4, Id("TPE1"), "artist frame"},
        {100, 4, BigEndian(9, 4), "artist frame size"},
        {104, 2, 0, "artist frame flags"},
        {106, 3, kUtf16Mark, "encoding and byte-order mark"},
        {109, 6, Id(std::string_view("R\0R\0R\0", 6)), "artist text"},
        {115, 4, Id("TPE2"), "album artist frame"},
        {119, 4, BigEndian(5, 4), "album artist frame size"},
        {123, 2, 0, "album artist frame flags"},
        {125, 3, kUtf16Mark, "encoding and byte-order mark"},
        {128, 2, Id("S"), "album artist text"},
    };

    EXPECT_EQ(CalculateSaveTagSize(tags), 130U);
    CheckFields(SavedTags(tags), kAllKeys);
}

TEST(TagWriterTest, LeavesEmptyValuesOut) {
    const TagMap tags = {{"Title", ""}, {"Alubum", ""}, {"Artist", "A"}, {"AlbumArtist", ""}};

    EXPECT_EQ(CalculateSaveID3TagSize(tags), 10U + 13 + 2);
    EXPECT_EQ(CalculateSaveTagSize(tags), 8U + 4 + 10 + 8 + 25 + 1);
    EXPECT_EQ(SavedTags(tags).size(), 56U);
}

TEST(TagWriterTest, NoTagsGiveNoBytes) {
    EXPECT_EQ(CalculateSaveTagSize(TagMap{}), 0U);
    EXPECT_EQ(CalculateSaveID3TagSize(TagMap{}), 0U);
    EXPECT_EQ(SavedTags({}), Bytes());
    EXPECT_EQ(SavedID3Tags({}), Bytes());
}

TEST(TagWriterTest, TheTagSizeIsSyncsafeAndTheFrameSizeIsNot) {
    const TagMap tags = {{"AlbumArtist", std::string(100, 'x')}};

    const Bytes bytes = SavedID3Tags(tags);

    ASSERT_EQ(bytes.size(), 223U);
    EXPECT_EQ(Bytes(bytes.begin() + 6, bytes.begin() + 10), (Bytes{0, 0, 1, 213 - 128}));
    EXPECT_EQ(Bytes(bytes.begin() + 14, bytes.begin() + 18), (Bytes{0, 0, 0, 203}));
}

TEST(TagWriterTest, ACharacterBeyondTheBasicPlaneCostsTheEndOfItsFrame) {
    const TagMap tags = {{"AlbumArtist", "A😀B"}};

    const Bytes bytes = SavedID3Tags(tags);

    ASSERT_EQ(bytes.size(), 10U + 13 + 6);
    EXPECT_EQ(Bytes(bytes.begin() + 23, bytes.end()), (Bytes{0x41, 0, 0x3D, 0xD8, 0x00, 0xDE}));
}

TEST(TagWriterTest, WhatShiftJisLacksBecomesAQuestionMark) {
    const Bytes bytes = SavedTags({{"Title", "é😀"}});

    EXPECT_EQ(Bytes(bytes.begin() + 16, bytes.begin() + 24), (Bytes{4, 0, 0, 0, '?', '?', 0, 0}));
}

TEST(TagWriterTest, SizesHoldForEveryLengthAndForMalformedValues) {
    const std::string values[] = {"a",
                                  "ab",
                                  "abc",
                                  "日",
                                  "日本",
                                  "é",
                                  "😀",
                                  "\xE6\x97",
                                  "a\xFFz",
                                  "\xC3",
                                  "①",
                                  std::string(300, 'q'),
                                  std::string("a\0b", 3),
                                  std::string(1, '\0')};
    for (const std::string& value : values) {
        for (const char* key : {"Title", "Alubum", "Artist", "AlbumArtist"}) {
            const TagMap tags = {{key, value}};
            EXPECT_EQ(SavedTags(tags).size(), CalculateSaveTagSize(tags)) << key << ' ' << value;
            EXPECT_EQ(SavedID3Tags(tags).size(), CalculateSaveID3TagSize(tags)) << key;
        }
    }
}

TEST(TagWriterTest, AValueOfNoCharacterAtAllIsRefused) {
    // Bytes that continue no other count as none: 10 bytes of header and 13 of the frame's head.
    const TagMap tags = {{"Title", "\x80\x80"}};

    EXPECT_EQ(CalculateSaveID3TagSize(tags), 23U);
    MemoryStream stream;
    EXPECT_EQ(SaveID3Tag("\x80\x80", "TIT2", stream.Get()), VrErrorInvalidParameter);
    EXPECT_EQ(SaveID3Tags(tags, stream.Get()), VrErrorInvalidParameter);
}

TEST(TagWriterTest, AnInfoTextEndsAtAZeroByteInTheValue) {
    const Bytes bytes = SavedTags({{"Title", std::string("a\0b", 3)}});

    EXPECT_EQ(Bytes(bytes.begin() + 16, bytes.begin() + 22), (Bytes{2, 0, 0, 0, 'a', 0}));
}

TEST(TagWriterTest, AnEmptyValueIsRefusedAndWritesNothing) {
    MemoryStream stream;

    EXPECT_EQ(SaveTag("", "INAM", stream.Get()), VrErrorInvalidParameter);
    EXPECT_EQ(SaveID3Tag("", "TIT2", stream.Get()), VrErrorInvalidParameter);
    EXPECT_EQ(SaveID3TagAsRIFF(TagMap{}, stream.Get()), VrErrorInvalidParameter);

    EXPECT_EQ(stream.Written(), Bytes());
}

TEST(TagWriterTest, AMissingStreamIsRefused) {
    const TagMap tags = {{"Title", "A"}};

    EXPECT_EQ(SaveTags(tags, nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(SaveTag("A", "INAM", nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(SaveID3Tags(tags, nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(SaveID3Tag("A", "TIT2", nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(SaveID3TagAsRIFF(tags, nullptr), VrErrorInvalidParameter);
}

TEST(TagWriterTest, AnOddId3ChunkReportsFailureAfterItsPadByte) {
    MemoryStream stream;

    EXPECT_EQ(SaveID3TagAsRIFF(TagMap{{"Title", "AB"}}, stream.Get()), VrErrorFailed);

    EXPECT_EQ(stream.Written().size(), 8U + 28);
}

TEST(TagWriterTest, AnEvenId3ChunkReportsSuccess) {
    MemoryStream stream;

    EXPECT_EQ(SaveID3TagAsRIFF(TagMap{{"Title", "AB"}, {"Artist", "A"}}, stream.Get()), VrSuccess);

    EXPECT_EQ(stream.Written().size(), 8U + 10 + 17 + 15);
}

TEST(TagWriterTest, AFailedWriteIsReported) {
    const FullStream stream(false);
    if (stream.Get() == nullptr) {
        GTEST_SKIP() << "no /dev/full here";
    }
    const TagMap tags = {{"Title", "AB"}};

    EXPECT_EQ(SaveTag("A", "INAM", stream.Get()), VrErrorFailed);
    EXPECT_EQ(SaveTags(tags, stream.Get()), VrErrorFailed);
    EXPECT_EQ(SaveID3Tag("A", "TIT2", stream.Get()), VrErrorFailed);
    EXPECT_EQ(SaveID3Tags(tags, stream.Get()), VrErrorFailed);
    EXPECT_EQ(SaveID3TagAsRIFF(tags, stream.Get()), VrErrorFailed);
}

TEST(TagWriterTest, AFailedSubChunkEndsTheTags) {
    const FullStream stream(true);
    if (stream.Get() == nullptr) {
        GTEST_SKIP() << "no /dev/full here";
    }

    EXPECT_EQ(SaveTags(TagMap{{"Title", std::string(FullStream::kBufferBytes, 'x')}}, stream.Get()),
              VrErrorFailed);
}

TEST(TagWriterTest, AFailedId3ChunkShowsOnTheStreamOnly) {
    const FullStream stream(true);
    if (stream.Get() == nullptr) {
        GTEST_SKIP() << "no /dev/full here";
    }

    // LIST/INFO of 50 letters takes 72 bytes, the id3 chunk 132 more.
    EXPECT_EQ(SaveTags(TagMap{{"Title", std::string(50, 'x')}}, stream.Get()), VrSuccess);

    EXPECT_NE(std::ferror(stream.Get()), 0);
}

TEST(TagWriterTest, ATagOfTwoMebibytesUsesAllFourBytesOfItsSize) {
    // 10 + 3 + 2 x 1,048,570 bytes: 2^21 + 1, which is 1, 0, 0, 1 in bytes of seven bits.
    const Bytes bytes = SavedID3Tags({{"Title", std::string(1'048'570, 'x')}});

    ASSERT_EQ(bytes.size(), 10U + 2'097'153);
    EXPECT_EQ(Bytes(bytes.begin() + 6, bytes.begin() + 10), (Bytes{1, 0, 0, 1}));
}

}  // namespace
}  // namespace vorrel
