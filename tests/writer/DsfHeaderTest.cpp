#include "writer/DsfHeader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "support/FileBytes.h"

namespace vorrel {
namespace {

using test::CheckFields;
using test::FieldCheck;
using test::Id;
using test::LittleEndian;

constexpr DsfFormat kStereo64{2, 2'822'400, 1};

TEST(DsfHeaderTest, OneSecondOfStereo) {
    constexpr FieldCheck kOneSecond[] = {
        // offset, size, value, field        (87 blocks of each channel; 27 bytes of tag)
        {0, 4, Id("DSD "), "chunk id"},
        {4, 8, 28, "chunk size"},
        {12, 8, 92 + 712'704 + 27, "file size"},
        {20, 8, 92 + 712'704, "metadata pointer"},
        {28, 4, Id("fmt "), "format chunk id"},
        {32, 8, 52, "format chunk size"},
        {40, 4, 1, "format version"},
        {44, 4, 0, "format id"},
        {48, 4, 2, "channel type"},
        {52, 4, 2, "channels"},
        {56, 4, 2'822'400, "sampling frequency"},
        {60, 4, 1, "bits per sample"},
        {64, 8, 2'822'400, "sample count"},
        {72, 4, 4096, "block size"},
        {76, 4, 0, "reserved"},
        {80, 4, Id("data"), "data chunk id"},
        {84, 8, 712'716, "data chunk size"},
    };

    const auto header = BuildDsfHeader(kStereo64, DsfSizes(kStereo64, 2'822'400, 27));

    CheckFields(header, kOneSecond);
}

TEST(DsfHeaderTest, FourChannelsOfTheHighestRateWithoutATag) {
    constexpr DsfFormat kFormat{4, 11'289'600, 1};
    constexpr FieldCheck kTwoBlocks[] = {
        {0, 4, Id("DSD "), "chunk id"},
        {4, 8, 28, "chunk size"},
        {12, 8, 92 + 32'768, "file size"},
        {20, 8, 0, "metadata pointer"},
        {28, 4, Id("fmt "), "format chunk id"},
        {32, 8, 52, "format chunk size"},
        {40, 4, 1, "format version"},
        {44, 4, 0, "format id"},
        {48, 4, 5, "channel type"},
        {52, 4, 4, "channels"},
        {56, 4, 11'289'600, "sampling frequency"},
        {60, 4, 1, "bits per sample"},
        {64, 8, 32'776, "sample count"},
        {72, 4, 4096, "block size"},
        {76, 4, 0, "reserved"},
        {80, 4, Id("data"), "data chunk id"},
        {84, 8, 32'768 + 12, "data chunk size"},
    };

    const auto header = BuildDsfHeader(kFormat, DsfSizes(kFormat, 32'776, 0));

    CheckFields(header, kTwoBlocks);
}

TEST(DsfHeaderTest, NoFramesTakeNoPayload) {
    const DsfSizes sizes(kStereo64, 0, 0);

    EXPECT_EQ(sizes.payload, 0U);
    EXPECT_EQ(sizes.FileBytes(), 92U);
    EXPECT_EQ(sizes.TagPosition(), 0U);
}

TEST(DsfHeaderTest, WithoutATagTheMetadataPointerIsZero) {
    EXPECT_EQ(DsfSizes(kStereo64, 32'768, 0).TagPosition(), 0U);
    EXPECT_EQ(DsfSizes(kStereo64, 32'768, 0).FileBytes(), 92U + 8'192);
    EXPECT_EQ(DsfSizes(kStereo64, 32'768, 1).TagPosition(), 92U + 8'192);
    EXPECT_EQ(DsfSizes(kStereo64, 32'768, 1).FileBytes(), 92U + 8'192 + 1);
}

TEST(DsfHeaderTest, TheChannelTypeIsOneMoreFromFourChannelsOn) {
    constexpr std::uint32_t kTypes[] = {1, 2, 3, 5, 6, 7, 8, 9};
    for (std::uint32_t channels = 1; channels <= 8; ++channels) {
        const DsfFormat format{channels, 2'822'400, 1};
        const auto header = BuildDsfHeader(format, DsfSizes(format, 8, 0));

        EXPECT_EQ(LittleEndian(header, 48, 4), kTypes[channels - 1]);
        EXPECT_EQ(LittleEndian(header, 52, 4), channels);
    }
}

TEST(DsfHeaderTest, ABlockBegunIsAWholeBlock) {
    EXPECT_EQ(DsfSizes(kStereo64, 8, 0).payload, 8'192U);
    EXPECT_EQ(DsfSizes(kStereo64, 32'768, 0).payload, 8'192U);
    EXPECT_EQ(DsfSizes(kStereo64, 32'776, 0).payload, 16'384U);
}

TEST(DsfHeaderTest, SamplesThatMakeNoWholeByteAddNothingToThePayload) {
    EXPECT_EQ(DsfSizes(kStereo64, 7, 0).payload, 0U);
    EXPECT_EQ(DsfSizes(kStereo64, 32'775, 0).payload, 8'192U);
    EXPECT_EQ(DsfSizes(kStereo64, 32'775, 0).frames, 32'775U);
}

TEST(DsfHeaderTest, SizesPassThirtyTwoBits) {
    constexpr DsfFormat kFormat{8, 11'289'600, 1};
    // An hour: 40,642,560,000 samples are 5,080,320,000 bytes, 1,240,312.5 blocks, of each channel.
    const DsfSizes sizes(kFormat, 40'642'560'000, 100);

    const auto header = BuildDsfHeader(kFormat, sizes);

    EXPECT_EQ(LittleEndian(header, 64, 8), 40'642'560'000U);
    EXPECT_EQ(LittleEndian(header, 20, 8), 40'642'576'384U + 92);
    EXPECT_EQ(LittleEndian(header, 12, 8), 40'642'576'384U + 92 + 100);
    EXPECT_EQ(LittleEndian(header, 84, 8), 40'642'576'384U + 12);
}

TEST(DsfHeaderTest, AbsurdSizesAreTheLargestAndDoNotWrap) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
    constexpr DsfFormat kFormat{8, 11'289'600, 1};

    EXPECT_EQ(DsfSizes(kFormat, kLargest, 0).FileBytes(), kLargest);
    EXPECT_EQ(DsfSizes(kFormat, kLargest, 27).TagPosition(), kLargest);
    EXPECT_EQ(DsfSizes(kFormat, 0, kLargest).FileBytes(), kLargest);
}

TEST(DsfHeaderTest, ABlockHasAsManyFramesAsItsBytesHold) {
    EXPECT_EQ(kStereo64.BlockFrames(), 32'768U);
    EXPECT_EQ((DsfFormat{1, 2'822'400, 8}.BlockFrames()), 4'096U);
}

}  // namespace
}  // namespace vorrel
