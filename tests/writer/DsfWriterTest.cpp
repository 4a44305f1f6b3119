#include <gtest/gtest.h>

#include <algorithm>

#include "convert/BitReversal.h"
#include "pipeline/DSDStreamProcessing.h"
#include "support/FileBytes.h"
#include "writer/DsfWriterRig.h"

namespace vorrel {
namespace {

using test::BigEndian;
using test::Bytes;
using test::CheckFields;
using test::DsdType;
using test::DsfWriterTest;
using test::FieldCheck;
using test::Id;
using test::kBlockRate;
using test::LittleEndian;
using test::RandomBytes;

TEST_F(DsfWriterTest, WritesHeaderBlocksAndTag) {
    recording.Begin(2, kBlockRate, DsdType());
    recording.Add<std::uint8_t>(0, {0x01, 0xF0, 0x34});
    recording.Add<std::uint8_t>(1, {0x80, 0x12, 0xFF});
    VrSaveSettingInternal setting = Setting(0, 24.0 / kBlockRate);
    setting.tags = {{"Title", "AB"}};
    constexpr FieldCheck kFile[] = {
        {0, 4, Id("DSD "), "chunk id"},
        {4, 8, 28, "chunk size"},
        {12, 8, 92 + 8'192 + 27, "file size"},
        {20, 8, 92 + 8'192, "metadata pointer"},
        {28, 4, Id("fmt "), "format chunk id"},
        {32, 8, 52, "format chunk size"},
        {40, 4, 1, "format version"},
        {44, 4, 0, "format id"},
        {48, 4, 2, "channel type"},
        {52, 4, 2, "channels"},
        {56, 4, 32'768, "sampling frequency"},
        {60, 4, 1, "bits per sample"},
        {64, 8, 24, "sample count"},
        {72, 4, 4096, "block size"},
        {76, 4, 0, "reserved"},
        {80, 4, Id("data"), "data chunk id"},
        {84, 8, 8'192 + 12, "data chunk size"},
        {92, 1, 0x80, "channel 0, bits 0 to 7"},
        {93, 1, 0x0F, "channel 0, bits 8 to 15"},
        {94, 1, 0x2C, "channel 0, bits 16 to 23"},
    };
    constexpr FieldCheck kSecondChannel[] = {
        {0, 1, 0x01, "channel 1, bits 0 to 7"},
        {1, 1, 0x48, "channel 1, bits 8 to 15"},
        {2, 1, 0xFF, "channel 1, bits 16 to 23"},
    };
    constexpr FieldCheck kTag[] = {
        {0, 3, Id("ID3"), "tag identifier"},
        {3, 3, 3, "version, revision, flags"},
        {6, 4, BigEndian(17, 4), "tag size"},
        {10, 4, Id("TIT2"), "frame id"},
        {14, 4, BigEndian(7, 4), "frame size"},
        {18, 2, 0, "frame flags"},
        {20, 3, 0xFEFF01, "encoding and byte-order mark"},
        {23, 4, Id(std::string_view("A\0B\0", 4)), "text"},
    };

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    ASSERT_EQ(Saved().size(), 92U + 8'192 + 27);
    CheckFields(SavedBytes(0, 95), kFile);
    EXPECT_EQ(SavedBytes(95, 4'093), Bytes(4'093, 0));
    CheckFields(SavedBytes(92 + 4'096, 3), kSecondChannel);
    EXPECT_EQ(SavedBytes(92 + 4'099, 4'093), Bytes(4'093, 0));
    CheckFields(SavedBytes(92 + 8'192, 27), kTag);
}

TEST_F(DsfWriterTest, OneSecondOfStereoTakes87BlocksAChannel) {
    MakeRecording(2, 352'800, 2'822'400);

    EXPECT_EQ(Save(0, 1), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 712'704);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 92U + 712'704);
    EXPECT_EQ(LittleEndian(bytes, 20, 8), 0U);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 2'822'400U);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 712'716U);
    // 352,800 bytes are 86 blocks and 544 bytes: the rest of the last block is zeros.
    const std::size_t lastBlock = 92 + 86 * 8'192;
    EXPECT_NE(SavedBytes(lastBlock, 544), Bytes(544, 0));
    EXPECT_EQ(SavedBytes(lastBlock + 544, 4'096 - 544), Bytes(4'096 - 544, 0));
    EXPECT_EQ(SavedBytes(lastBlock + 4'096 + 544, 4'096 - 544), Bytes(4'096 - 544, 0));
}

TEST_F(DsfWriterTest, AtZeroDecibelsEveryBitIsTheRecordings) {
    for (std::uint16_t channels = 1; channels <= 8; ++channels) {
        MakeRecording(channels, 100'000);

        EXPECT_EQ(Save(0, 100'000 / 4'096.0), VrSuccess);

        const Bytes bytes = Saved();
        ASSERT_EQ(bytes.size(), 92U + 25U * 4'096 * channels);
        std::size_t wrong = 0;
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            const Bytes source = RandomBytes(100'000, channel + 1U);
            for (std::size_t bit = 0; bit < source.size() * 8; ++bit) {
                const std::size_t block = bit / 32'768 * channels + channel;
                const std::size_t byte = 92 + block * 4'096 + bit % 32'768 / 8;
                // The earlier bit is the higher one in the recording, the lower one in the file.
                const int recorded = source[bit / 8] >> (7 - bit % 8) & 1;
                const int written = bytes[byte] >> (bit % 8) & 1;
                wrong += recorded == written ? 0 : 1;
            }
        }
        EXPECT_EQ(wrong, 0U) << channels;
    }
}

TEST_F(DsfWriterTest, ARecordedWordStandsWithItsLowByteFirst) {
    recording.Begin(1, kBlockRate, DsdType());
    recording.Add<std::uint16_t>(0, {0x1234});

    EXPECT_EQ(Save(0, 16.0 / kBlockRate), VrSuccess);

    EXPECT_EQ(SavedBytes(92, 3), (Bytes{0x2C, 0x48, 0x00}));
}

TEST_F(DsfWriterTest, ASampleTypeWithTheFirstBitLowestIsNotReversed) {
    SampleTypeInfo type = *DsdType();
    type.msbFirst = 0;
    recording.Begin(1, kBlockRate, &type);
    recording.Add<std::uint8_t>(0, {0x01, 0x34, 0xF0});

    EXPECT_EQ(Save(0, 24.0 / kBlockRate), VrSuccess);

    EXPECT_EQ(SavedBytes(92, 4), (Bytes{0x01, 0x34, 0xF0, 0x00}));
}

TEST_F(DsfWriterTest, AnEmptyRangeIsHeaderAndTag) {
    MakeRecording(2, 8'192);
    VrSaveSettingInternal setting = Setting(0.5, 0.5);
    setting.tags = {{"Title", "AB"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 27);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 92U + 27);
    EXPECT_EQ(LittleEndian(bytes, 20, 8), 92U);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 0U);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 12U);
    EXPECT_EQ(LittleEndian(bytes, 92, 3), Id("ID3"));
}

TEST_F(DsfWriterTest, WithoutTagsTheMetadataPointerIsZero) {
    MakeRecording(2, 8'192);

    EXPECT_EQ(Save(0, 2), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 16'384);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 92U + 16'384);
    EXPECT_EQ(LittleEndian(bytes, 20, 8), 0U);
}

TEST_F(DsfWriterTest, AnAlbumArtistAloneGivesATagOfOneFrame) {
    MakeRecording(1, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"AlbumArtist", "C"}};
    constexpr FieldCheck kTag[] = {
        {0, 3, Id("ID3"), "tag identifier"},
        {3, 3, 3, "version, revision, flags"},
        {6, 4, BigEndian(15, 4), "tag size"},
        {10, 4, Id("TPE2"), "frame id"},
        {14, 4, BigEndian(5, 4), "frame size"},
        {18, 2, 0, "frame flags"},
        {20, 3, 0xFEFF01, "encoding and byte-order mark"},
        {23, 2, 'C', "text"},
    };

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(Saved().size(), 92U + 4'096 + 25);
    CheckFields(SavedBytes(92 + 4'096, 25), kTag);
}

TEST_F(DsfWriterTest, TheKeyAlbumIsNotKnown) {
    MakeRecording(1, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Album", "Record"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(Saved().size(), 92U + 4'096);
    EXPECT_EQ(LittleEndian(Saved(), 20, 8), 0U);
}

TEST_F(DsfWriterTest, AJapaneseTitleIsAnId3FrameOfSixTextBytes) {
    MakeRecording(1, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Title", "日本語"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    ASSERT_EQ(Saved().size(), 92U + 4'096 + 10 + 13 + 6);
    EXPECT_EQ(LittleEndian(SavedBytes(92 + 4'096, 29), 14, 4), BigEndian(9, 4));
    EXPECT_EQ(SavedBytes(92 + 4'096 + 23, 6), (Bytes{0xE5, 0x65, 0x2C, 0x67, 0x9E, 0x8A}));
}

TEST_F(DsfWriterTest, FourChannelsAreOfTypeFive) {
    MakeRecording(4, 4'096);

    EXPECT_EQ(Save(0, 1), VrSuccess);

    EXPECT_EQ(LittleEndian(Saved(), 48, 4), 5U);
    EXPECT_EQ(LittleEndian(Saved(), 52, 4), 4U);
}

TEST_F(DsfWriterTest, TheFilePositionEndsWithTheStartOfTheLastBlock) {
    MakeRecording(2, 100 * 4'096);

    EXPECT_EQ(Save(0, 99.5), VrSuccess);

    EXPECT_EQ(progress.fileLength, 99U * 32'768 + 16'384);
    EXPECT_EQ(progress.filePosition, 99U * 32'768);
    EXPECT_EQ(progress.overallPosition, 99U * 32'768 + 16'384);
}

TEST_F(DsfWriterTest, GainIsOneStreamOverAllBlocksAndLeavesThePaddingAlone) {
    MakeRecording(1, 40 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 17.5);
    setting.gain = -6.0;

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    // Most significant bit first here, least significant first in the file.
    Bytes expected = RandomBytes(71'680, 1);
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(32'768, 0), DSDStreamProcessing::kDone);
    ASSERT_EQ(processing.SetGain(-6.0F), DSDStreamProcessing::kDone);
    ASSERT_EQ(processing.Process(expected.data(), expected.size()), DSDStreamProcessing::kDone);
    ReverseBits(expected.data(), expected.size());
    ASSERT_EQ(Saved().size(), 92U + 18 * 4'096);
    EXPECT_TRUE(SavedBytes(92, 71'680) == expected);
    EXPECT_EQ(SavedBytes(92 + 71'680, 2'048), Bytes(2'048, 0));
}

TEST_F(DsfWriterTest, EachChannelHasAStreamOfItsOwn) {
    MakeRecording(3, 18 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 18);
    setting.gain = 1.5;
    ASSERT_EQ(SaveFile(&setting), VrSuccess);
    const Bytes three = Saved();

    for (std::uint16_t channel = 0; channel < 3; ++channel) {
        recording.Begin(1, kBlockRate, DsdType());
        recording.Add<std::uint8_t>(0, RandomBytes(18 * 4'096, channel + 1U));
        ASSERT_EQ(SaveFile(&setting), VrSuccess);
        for (std::size_t block = 0; block < 18; ++block) {
            const auto first =
                three.begin() + static_cast<std::ptrdiff_t>(92 + (block * 3 + channel) * 4'096);
            EXPECT_TRUE(
                std::equal(first, first + 4'096,
                           Saved().begin() + static_cast<std::ptrdiff_t>(92 + block * 4'096)))
                << channel << ", " << block;
        }
    }
}

}  // namespace
}  // namespace vorrel
