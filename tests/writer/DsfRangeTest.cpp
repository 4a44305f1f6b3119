#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <limits>

#include "support/FileBytes.h"
#include "writer/DsfWriter.h"
#include "writer/DsfWriterRig.h"

namespace vorrel {
namespace {

using test::Bytes;
using test::DsdType;
using test::DsfWriterTest;
using test::kBlockRate;
using test::LittleEndian;
using test::RandomBytes;

TEST_F(DsfWriterTest, AnEndBeyondTheRecordingIsNotClippedAndFailsThere) {
    MakeRecording(2, 20 * 4'096 + 100);
    VrSaveSettingInternal setting = Setting(0, 30);
    setting.tags = {{"Title", "AB"}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 20 * 8'192) << "the whole blocks before the failed one, no tag";
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 30U * 32'768);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 30U * 8'192 + 12);
    EXPECT_EQ(progress.fileLength, 30U * 32'768);
    EXPECT_EQ(progress.filePosition, 20U * 32'768) << "that of the failed block";
    EXPECT_EQ(progress.overallPosition, 21U * 32'768);
}

TEST_F(DsfWriterTest, TheShortestChannelEndsTheRecording) {
    recording.Begin(2, kBlockRate, DsdType());
    recording.Add<std::uint8_t>(0, RandomBytes(3 * 4'096, 1));
    recording.Add<std::uint8_t>(1, RandomBytes(3 * 4'096 - 1, 2));

    EXPECT_EQ(Save(0, 3), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U + 2 * 8'192);
}

TEST_F(DsfWriterTest, ALastBlockOfNoWholeByteFailsTheSave) {
    MakeRecording(1, 3 * 4'096);

    EXPECT_EQ(Save(0, (2 * 32'768.0 + 7) / 32'768), VrErrorFailed);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 2 * 4'096);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 2U * 32'768 + 7);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 2U * 4'096 + 12);
    EXPECT_EQ(progress.overallPosition, 2U * 32'768 + 7);
}

TEST_F(DsfWriterTest, ARangeOfNoWholeByteFailsBehindTheHeader) {
    MakeRecording(1, 4'096);

    EXPECT_EQ(Save(0, 7.0 / 32'768), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U);
}

TEST_F(DsfWriterTest, ALastBlockThatEndsWithinAByteLeavesItsBitsOut) {
    recording.Begin(1, kBlockRate, DsdType());
    recording.Add<std::uint8_t>(0, {0x01, 0x01, 0xFF});

    EXPECT_EQ(Save(0, 23.0 / 32'768), VrSuccess);

    EXPECT_EQ(SavedBytes(92, 3), (Bytes{0x80, 0x80, 0x00}));
    EXPECT_EQ(LittleEndian(Saved(), 64, 8), 23U);
}

TEST_F(DsfWriterTest, ARangeFromWithinAByteBeginsWithTheWholeByte) {
    recording.Begin(1, kBlockRate, DsdType());
    recording.Add<std::uint8_t>(0, {0x01, 0xF0, 0xFF});

    // Samples 4 to 19: the bytes 0 and 1 are read, and 15 samples fill one.
    EXPECT_EQ(Save(4.0 / 32'768, 19.0 / 32'768), VrSuccess);

    EXPECT_EQ(SavedBytes(92, 3), (Bytes{0x80, 0x00, 0x00}));
}

TEST_F(DsfWriterTest, AReversedRangeIsInvalid) {
    MakeRecording(1, 4'096);

    EXPECT_EQ(Save(0.5, 0.4), VrErrorInvalidParameter);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
    EXPECT_EQ(progress.fileLength, 0U);
}

TEST_F(DsfWriterTest, NegativeSecondsAndNotANumberCountAsZero) {
    MakeRecording(1, 2 * 4'096);

    EXPECT_EQ(Save(-5, 1), VrSuccess);
    EXPECT_EQ(Saved().size(), 92U + 4'096);
    EXPECT_EQ(Save(std::numeric_limits<double>::quiet_NaN(), 2), VrSuccess);
    EXPECT_EQ(Saved().size(), 92U + 2 * 4'096);
    EXPECT_EQ(Save(-2, -1), VrSuccess);
    EXPECT_EQ(Saved().size(), 92U);
}

TEST_F(DsfWriterTest, AnInfiniteEndNeedsMoreSpaceThanThereIs) {
    MakeRecording(8, 4'096);

    EXPECT_EQ(Save(0, std::numeric_limits<double>::infinity()), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
}

TEST_F(DsfWriterTest, AMissingSettingIsInvalid) {
    MakeRecording(1, 4'096);
    progress.filePosition = 5;
    progress.fileLength = 10;

    EXPECT_EQ(SaveFile(nullptr), VrErrorInvalidParameter);

    EXPECT_EQ(progress.filePosition, 0U);
    EXPECT_EQ(progress.fileLength, 0U);
}

TEST_F(DsfWriterTest, ARecordingWithoutASampleTypeFails) {
    EXPECT_EQ(Save(0, 1), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
}

TEST_F(DsfWriterTest, ARecordingWithoutChannelsFails) {
    MakeRecording(1, 4'096);
    run.recording = recording.data.GetLayout();
    run.recording.channels = 0;
    const VrSaveSettingInternal setting = Setting(0, 1e12);  // has nothing to read, ever

    EXPECT_EQ(SaveDsfFile(&setting, run), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
}

TEST_F(DsfWriterTest, ASampleWidthThatFillsNoBlockFails) {
    for (const std::uint8_t width : std::to_array<std::uint8_t>({0, 3, 24})) {
        SampleTypeInfo type = *DsdType();
        MakeRecording(1, 4'096, kBlockRate, &type);
        type.bits = width;

        EXPECT_EQ(Save(0, 1), VrErrorFailed);
    }
    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
}

TEST_F(DsfWriterTest, EverySampleWidthThatFillsABlockIsTaken) {
    for (const std::uint8_t width : std::to_array<std::uint8_t>({1, 2, 4, 8, 16, 32})) {
        SampleTypeInfo type = *DsdType();
        type.bits = width;
        MakeRecording(1, 2 * 4'096, kBlockRate, &type);
        const double blockSeconds = 1.0 / width;

        EXPECT_EQ(Save(0, 2 * blockSeconds), VrSuccess) << int{width};

        EXPECT_EQ(Saved().size(), 92U + 2 * 4'096) << int{width};
    }
}

TEST_F(DsfWriterTest, PaddingBitsCountInTheWidthOfASample) {
    SampleTypeInfo type = *DsdType();
    type.padBits = 7;
    MakeRecording(2, 40'000, kBlockRate, &type);

    EXPECT_EQ(Save(0, 39'999.0 / 32'768), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(LittleEndian(bytes, 60, 4), 8U);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 39'999U);
    EXPECT_EQ(bytes.size(), 92U + 10 * 8'192);
    ExpectLikeBlockByBlock(Setting(0.25, 39'999.0 / 32'768));
}

}  // namespace
}  // namespace vorrel
