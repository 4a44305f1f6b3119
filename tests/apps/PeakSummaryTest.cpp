#include "PeakSummary.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

#include "ExitCode.h"
#include "WaveformPicture.h"
#include "support/TempDirectory.h"
#include "support/Tool.h"

namespace vorrel::cli {
namespace {

TEST(PeakSummaryTest, EveryFrameFallsIntoItsColumnHoweverItComes) {
    // 7 frames in 3 columns: 0-2, 3-4, 5-6.
    const std::vector<std::int16_t> samples = {-3, 10, 1, 20, 2, -30, 9, 1, -8, 2, 4, -32768, 5, 7};
    PeakSummary whole(7, 3, 2);
    PeakSummary single(7, 3, 2);

    whole.Add(samples);
    for (std::size_t frame = 0; frame < 7; ++frame) {
        single.Add(std::span(samples).subspan(frame * 2, 2));
    }

    for (const PeakSummary* peaks : {&whole, &single}) {
        ASSERT_EQ(peaks->Columns(), 3U);
        EXPECT_EQ(peaks->At(0, 0).lowest, -3 / 32768.0);
        EXPECT_EQ(peaks->At(0, 0).highest, 2 / 32768.0);
        EXPECT_NEAR(peaks->At(0, 0).rms, std::sqrt(14.0 / 3.0) / 32768.0, 1e-12);
        EXPECT_EQ(peaks->At(1, 0).lowest, -30 / 32768.0);
        EXPECT_EQ(peaks->At(0, 1).highest, 9 / 32768.0);
        EXPECT_EQ(peaks->At(0, 1).lowest, -8 / 32768.0);
        EXPECT_EQ(peaks->At(1, 2).lowest, -1.0);
        EXPECT_EQ(peaks->At(1, 2).highest, 7 / 32768.0);
    }
}

TEST(PeakSummaryTest, AShortRecordingHasAColumnAFrame) {
    PeakSummary peaks(2, 1600, 1);
    const std::array<std::int16_t, 3> samples = {100, -200, 300};  // the last is beyond the total

    peaks.Add(samples);

    ASSERT_EQ(peaks.Columns(), 2U);
    EXPECT_EQ(peaks.At(0, 0).highest, 100 / 32768.0);
    EXPECT_EQ(peaks.At(0, 1).lowest, -200 / 32768.0);
    EXPECT_EQ(peaks.At(0, 1).highest, 0.0);
}

TEST(PeakSummaryTest, WhatHasNotComeIsSilent) {
    const PeakSummary peaks(100, 10, 1);

    EXPECT_EQ(peaks.At(0, 9).rms, 0.0);
    EXPECT_EQ(peaks.At(0, 9).highest, 0.0);
}

TEST(TimeStepTest, FiguresStandWhereClocksHaveThem) {
    EXPECT_EQ(TimeStep(1.0, 16), 0.1);
    EXPECT_EQ(TimeStep(10.0, 16), 1.0);
    EXPECT_EQ(TimeStep(100.0, 16), 10.0);
    EXPECT_EQ(TimeStep(3600.0, 16), 300.0);
    EXPECT_EQ(TimeStep(86'400.0, 16), 7200.0);
    EXPECT_EQ(TimeStep(86'400.0 * 100.0, 16), 86'400.0 * 7.0);
}

class WaveformPictureTest : public testing::Test {
protected:
    WaveformPictureTest() : peaks(1000, 1000, 1) {
        std::vector<std::int16_t> samples(1000, 0);
        for (std::size_t index = 500; index < 1000; ++index) {
            samples[index] = index % 2 == 0 ? 32767 : -32768;
        }
        peaks.Add(samples);
        texts.title = "take.wav";
        texts.seconds = 10.0;
        texts.marks = {2.5};
    }

    PeakSummary peaks;
    PictureTexts texts;
    test::TempDirectory directory;
};

TEST_F(WaveformPictureTest, OthersReadThePicture) {
    VORREL_NEEDS_TOOL("ffprobe");
    DrawWaveform(peaks, texts, directory.File("a.png"), PictureKind::Png);

    const std::string read = test::RunTool(
                                 "ffprobe -v error -show_entries "
                                 "stream=codec_name,width,height -of csv=p=0 " +
                                 directory.File("a.png"))
                                 .output;

    EXPECT_EQ(read, "png,1624,228\n");
}

TEST_F(WaveformPictureTest, LoudHalvesAreDarkWhereQuietOnesAreLight) {
    VORREL_NEEDS_TOOL("ffmpeg");
    DrawWaveform(peaks, texts, directory.File("a.png"), PictureKind::Png);

    const auto brightness = [&](const std::string& crop) {
        const std::string bytes =
            test::RunTool("ffmpeg -v error -i " + directory.File("a.png") + " -vf crop=" + crop +
                          ",scale=1:1:flags=area -pix_fmt gray -f rawvideo -")
                .output;
        return bytes.empty() ? -1 : static_cast<int>(static_cast<unsigned char>(bytes.front()));
    };
    // The strip stands between 42 and 202; a crop of its upper half on both sides.
    EXPECT_GT(brightness("200:60:500:50"), 200);
    EXPECT_LT(brightness("200:60:1200:50"), 100);
    // The mark at a quarter of the width.
    EXPECT_LT(brightness("1:60:412:50"), 180);
}

TEST_F(WaveformPictureTest, AnSvgIsXmlWithOutlines) {
    VORREL_NEEDS_TOOL("python3");
    DrawWaveform(peaks, texts, directory.File("a.svg"), PictureKind::Svg);

    const std::string read =
        test::RunTool(
            "python3 -c \"import xml.etree.ElementTree as e; r = e.parse('" +
            directory.File("a.svg") +
            "').getroot(); print(r.tag.split('}')[1], r.get('width'), len(list(r.iter())) > 10)\"")
            .output;

    EXPECT_EQ(read.rfind("svg 1624", 0), 0U) << read;
    EXPECT_NE(read.find("True"), std::string::npos) << read;
}

TEST_F(WaveformPictureTest, APictureThatCannotBeWrittenIsAStorageFailure) {
    for (const PictureKind kind : {PictureKind::Png, PictureKind::Svg}) {
        try {
            DrawWaveform(peaks, texts, directory.File("none/a"), kind);
            FAIL();
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.exit, ExitCode::Storage);
            EXPECT_STRNE(failure.what(), "");
        }
    }
}

}  // namespace
}  // namespace vorrel::cli
