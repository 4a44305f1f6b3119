#include "writer/WavHeader.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/FileBytes.h"

namespace vorrel {
namespace {

using test::CheckFields;
using test::FieldCheck;
using test::Id;

TEST(WavHeaderTest, Stereo24BitAt48kHz) {
    constexpr WavFormat kFormat{2, 48'000, 24};
    constexpr FieldCheck kStereo24At48kHz[] = {
        // offset, size, value, field        (4,800 frames; 18 bytes of tags behind the samples)
        {0, 4, Id("RIFF"), "chunk id"},   {4, 4, 18 + 28'800 + 36, "RIFF size"},
        {8, 4, Id("WAVE"), "form type"},  {12, 4, Id("fmt "), "format chunk id"},
        {16, 4, 16, "format chunk size"}, {20, 2, 1, "format tag"},
        {22, 2, 2, "channels"},           {24, 4, 48'000, "sample rate"},
        {28, 4, 288'000, "byte rate"},    {32, 2, 6, "block align"},
        {34, 2, 24, "bits per sample"},   {36, 4, Id("data"), "data chunk id"},
        {40, 4, 28'800, "data size"},
    };

    const auto header = BuildWavHeader(kFormat, WavSizes(kFormat, 4'800, 18));

    CheckFields(header, kStereo24At48kHz);
}

TEST(WavHeaderTest, ThirtyTwoBitsAreIntegersToo) {
    constexpr WavFormat kFormat{1, 384'000, 32};
    constexpr FieldCheck kMono32At384kHz[] = {
        {0, 4, Id("RIFF"), "chunk id"},   {4, 4, 36, "RIFF size"},
        {8, 4, Id("WAVE"), "form type"},  {12, 4, Id("fmt "), "format chunk id"},
        {16, 4, 16, "format chunk size"}, {20, 2, 1, "format tag"},
        {22, 2, 1, "channels"},           {24, 4, 384'000, "sample rate"},
        {28, 4, 1'536'000, "byte rate"},  {32, 2, 4, "block align"},
        {34, 2, 32, "bits per sample"},   {36, 4, Id("data"), "data chunk id"},
        {40, 4, 0, "data size"},
    };

    const auto header = BuildWavHeader(kFormat, WavSizes(kFormat, 0, 0));

    CheckFields(header, kMono32At384kHz);
}

TEST(WavHeaderTest, AnHourOfStereo32BitAt192kHzDoesNotFit) {
    constexpr WavFormat kFormat{2, 192'000, 32};

    EXPECT_FALSE(FitsWav(kFormat, 3'600U * 192'000, 0));  // 5,529,600,000 bytes of samples
    EXPECT_TRUE(FitsWav(kFormat, 2'700U * 192'000, 0));   // 4,147,200,000 bytes
}

TEST(WavHeaderTest, AFileFitsBelowFourGibibytesInAll) {
    constexpr WavFormat kMono16{1, 48'000, 16};
    constexpr std::uint64_t kFrames =
        2'147'483'625;  // 4,294,967,250 bytes; with the header 2 to go

    EXPECT_TRUE(FitsWav(kMono16, kFrames, 1));
    EXPECT_FALSE(FitsWav(kMono16, kFrames, 2));
    EXPECT_FALSE(FitsWav(kMono16, kFrames + 1, 0));
}

TEST(WavHeaderTest, TheSizeSumIsNotCutToThirtyTwoBits) {
    constexpr WavFormat kFormat{2, 192'000, 32};

    EXPECT_FALSE(FitsWav(kFormat, std::uint64_t{1} << 33, 0));
    EXPECT_FALSE(FitsWav(kFormat, 0, 0xFFFF'FFFF));
}

TEST(WavHeaderTest, TheMostFramesAreWhatFitsBehindTheHeader) {
    EXPECT_EQ((WavFormat{2, 48'000, 24}.MaxFrames()), 715'827'875U);  // 4,294,967,252 / 6
    EXPECT_EQ((WavFormat{1, 48'000, 32}.MaxFrames()), 1'073'741'813U);
}

TEST(WavHeaderTest, TheSizesOfALargeFileDoNotOverflow) {
    constexpr WavFormat kFormat{2, 48'000, 24};
    constexpr WavSizes kSizes(kFormat, 715'827'875, 0);

    EXPECT_EQ(kSizes.data, 4'294'967'250U);
    EXPECT_EQ(kSizes.riff, 4'294'967'286U);
    EXPECT_EQ(kSizes.FileBytes(), 4'294'967'294U);
}

TEST(WavHeaderTest, AWidthBelowAByteHasNoFrameLimit) {
    EXPECT_EQ((WavFormat{2, 48'000, 4}.MaxFrames()), ~std::uint64_t{0});
}

}  // namespace
}  // namespace vorrel
