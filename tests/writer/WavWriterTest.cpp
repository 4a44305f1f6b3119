#include "writer/WavWriter.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "support/FileBytes.h"
#include "support/FileSizeLimit.h"
#include "support/NoNewThreads.h"
#include "support/SmallVolume.h"
#include "writer/SaveRunRig.h"
#include "writer/WavHeader.h"

namespace vorrel {
namespace {

using test::BigEndian;
using test::Bytes;
using test::CheckFields;
using test::FakeManager;
using test::FieldCheck;
using test::FileSizeLimit;
using test::Id;
using test::LittleEndian;
using test::ReadBytes;
using test::Recording;
using test::SmallVolume;

class WavWriterTest : public test::SaveRunTest {
protected:
    VrSaveSettingInternal Setting(double start, double end, const std::string& name = "take.wav") {
        return {directory.File(name), start, end, 0.0, {}};
    }
    /// Saves frames from `start` to `end` seconds.
    VrError Save(double start, double end) {
        const VrSaveSettingInternal setting = Setting(start, end);
        return SaveFile(&setting);
    }
    VrError SaveFile(const VrSaveSettingInternal* setting) {
        run.recording = recording.data.GetLayout();
        return SaveWavFile(setting, run);
    }
    Bytes Saved() const { return ReadBytes(directory.File("take.wav")); }
    Bytes SavedSamples() const {
        const Bytes bytes = Saved();
        return Bytes(bytes.begin() + std::min<std::ptrdiff_t>(44, std::ssize(bytes)), bytes.end());
    }
};

TEST_F(WavWriterTest, WritesHeaderSamplesAndTags) {
    recording.Begin(2, 1'000);
    recording.Add<float>(0, {0.5f, -0.5f, 0.25f});
    recording.Add<float>(1, {-1.0f, 1.0f, 0.0f});
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Title", "AB"}};
    constexpr FieldCheck kStereo16[] = {
        {0, 4, Id("RIFF"), "chunk id"},
        {4, 4, 60 + 12 + 36, "RIFF size"},
        {8, 4, Id("WAVE"), "form type"},
        {12, 4, Id("fmt "), "format chunk id"},
        {16, 4, 16, "format chunk size"},
        {20, 2, 1, "format tag"},
        {22, 2, 2, "channels"},
        {24, 4, 1'000, "sample rate"},
        {28, 4, 4'000, "byte rate"},
        {32, 2, 4, "block align"},
        {34, 2, 16, "bits per sample"},
        {36, 4, Id("data"), "data chunk id"},
        {40, 4, 12, "data size"},
        {44, 2, 16'384, "frame 0, channel 0"},
        {46, 2, 65'536 - 32'768, "frame 0, channel 1"},
        {48, 2, 65'536 - 16'384, "frame 1, channel 0"},
        {50, 2, 32'767, "frame 1, channel 1"},
        {52, 2, 8'192, "frame 2, channel 0"},
        {54, 2, 0, "frame 2, channel 1"},
        {56, 4, Id("LIST"), "LIST"},
        {60, 4, 16, "LIST size"},
        {64, 4, Id("INFO"), "INFO"},
        {68, 4, Id("INAM"), "title"},
        {72, 4, 4, "title size"},
        {76, 4, Id("AB"), "title text"},
        {80, 4, Id("id3 "), "id3 chunk"},
        {84, 4, 28, "id3 chunk size"},
        {88, 3, Id("ID3"), "tag identifier"},
        {91, 3, 3, "version, revision, flags"},
        {94, 4, BigEndian(17, 4), "tag size"},
        {98, 4, Id("TIT2"), "frame id"},
        {102, 4, BigEndian(7, 4), "frame size"},
        {106, 2, 0, "frame flags"},
        {108, 3, 0xFEFF01, "encoding and byte-order mark"},
        {111, 4, Id(std::string_view("A\0B\0", 4)), "text"},
        {115, 1, 0, "pad"},
    };

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    CheckFields(Saved(), kStereo16);
}

TEST_F(WavWriterTest, WritesThirtyTwoBitSamples) {
    bits = 32;
    recording.Begin(1, 1'000);
    recording.Add<float>(0, {0.5f, -1.0f});

    EXPECT_EQ(Save(0, 1), VrSuccess);

    EXPECT_EQ(SavedSamples(), (Bytes{0, 0, 0, 0x40, 0, 0, 0, 0x80}));
    EXPECT_EQ(LittleEndian(Saved(), 34, 2), 32U);
}

TEST_F(WavWriterTest, StereoOf24BitsAt48kHzHasFramesOfSixBytes) {
    bits = 24;
    recording.Make(2, 48'000, 9'601);

    EXPECT_EQ(Save(0, 1), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(LittleEndian(bytes, 28, 4), 288'000U);
    EXPECT_EQ(LittleEndian(bytes, 32, 2), 6U);
    ASSERT_EQ(bytes.size(), 44U + 9'601 * 6);
    // Blocks of 4,800 frames: the seams are where a frame could be lost.
    for (const std::size_t frame : {0U, 4'799U, 4'800U, 9'599U, 9'600U}) {
        for (std::uint16_t channel = 0; channel < 2; ++channel) {
            const auto expected =
                static_cast<std::uint32_t>(Recording::StepOf(channel, frame) * 256) & 0xFF'FFFFU;
            EXPECT_EQ(LittleEndian(bytes, 44 + frame * 6 + channel * 3U, 3), expected) << frame;
        }
    }
}

TEST_F(WavWriterTest, AnOddNumberOf24BitBytesIsNotPaddedBeforeTheTags) {
    bits = 24;
    recording.Begin(1, 1'000);
    recording.Add<float>(0, {0.5f});
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Title", "AB"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 44U + 3 + 60);
    EXPECT_EQ(LittleEndian(bytes, 4, 4), 60U + 3 + 36);
    EXPECT_EQ(LittleEndian(bytes, 40, 4), 3U);
    EXPECT_EQ(LittleEndian(bytes, 47, 4), Id("LIST"));
}

TEST_F(WavWriterTest, AnEmptyRangeWritesAHeaderAndTags) {
    recording.Make(2, 1'000, 1'000);
    VrSaveSettingInternal setting = Setting(0.5, 0.5);
    setting.tags = {{"Title", "AB"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 44U + 60);
    EXPECT_EQ(LittleEndian(bytes, 4, 4), 60U + 36);
    EXPECT_EQ(LittleEndian(bytes, 40, 4), 0U);
    EXPECT_EQ(LittleEndian(bytes, 44, 4), Id("LIST"));
}

TEST_F(WavWriterTest, AnEndBeyondTheRecordingIsClippedToIt) {
    recording.Make(1, 1'000, 250);

    EXPECT_EQ(Save(0.2, 10.0), VrSuccess);

    EXPECT_EQ(LittleEndian(Saved(), 40, 4), 100U);
    EXPECT_EQ(SavedSamples().size(), 100U);
    EXPECT_EQ(progress.fileLength, 50U);
}

TEST_F(WavWriterTest, TheRecordingEndsWithItsShortestChannel) {
    recording.Begin(2, 1'000);
    recording.Add<float>(0, std::vector<float>(300, 0.5f));
    recording.Add<float>(1, std::vector<float>(299, 0.5f));

    EXPECT_EQ(Save(0, 10), VrSuccess);

    EXPECT_EQ(SavedSamples().size(), 299U * 4);
}

TEST_F(WavWriterTest, ARangeIsCutToWholeFrames) {
    recording.Begin(1, 1'000);
    recording.Add<float>(0, {0.0f, 0.25f, 0.5f, 0.75f});

    EXPECT_EQ(Save(0.0019, 0.0039), VrSuccess);  // frames 1.9 to 3.9

    EXPECT_EQ(SavedSamples(), (Bytes{0x00, 0x20, 0x00, 0x40}));
}

TEST_F(WavWriterTest, ARangeBehindTheRecordingIsInvalid) {
    recording.Make(1, 1'000, 100);

    EXPECT_EQ(Save(0.101, 0.2), VrErrorInvalidParameter);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.wav")));
}

TEST_F(WavWriterTest, AReversedRangeIsInvalid) {
    recording.Make(1, 1'000, 1'000);

    EXPECT_EQ(Save(0.5, 0.4), VrErrorInvalidParameter);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.wav")));
}

TEST_F(WavWriterTest, NegativeSecondsAndNotANumberCountAsZero) {
    recording.Make(1, 1'000, 100);

    EXPECT_EQ(Save(-5, 0.05), VrSuccess);
    EXPECT_EQ(SavedSamples().size(), 100U);
    EXPECT_EQ(Save(std::numeric_limits<double>::quiet_NaN(), 0.025), VrSuccess);
    EXPECT_EQ(SavedSamples().size(), 50U);
    EXPECT_EQ(Save(-2, -1), VrSuccess);
    EXPECT_EQ(SavedSamples().size(), 0U);
}

TEST_F(WavWriterTest, AnInfiniteEndIsTheRecordingsEnd) {
    recording.Make(1, 1'000, 100);

    EXPECT_EQ(Save(0, std::numeric_limits<double>::infinity()), VrSuccess);

    EXPECT_EQ(SavedSamples().size(), 200U);
}

TEST_F(WavWriterTest, AMissingSettingIsInvalid) {
    recording.Make(1, 1'000, 100);
    progress.filePosition = 5;
    progress.fileLength = 10;

    EXPECT_EQ(SaveFile(nullptr), VrErrorInvalidParameter);

    EXPECT_EQ(progress.filePosition, 0U);
    EXPECT_EQ(progress.fileLength, 0U);
}

TEST_F(WavWriterTest, ARecordingWithoutASampleTypeFails) {
    EXPECT_EQ(Save(0, 1), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.wav")));
}

TEST_F(WavWriterTest, ASampleTypeWithoutAFloatConverterFailsBehindTheHeader) {
    SampleTypeInfo type = *GetSampleTypeInfo(kSampleTypePcm);
    type.toFloat32 = nullptr;
    recording.Make(1, 1'000, 100, Recording::Steps, &type);

    EXPECT_EQ(Save(0, 1), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 44U);
}

TEST_F(WavWriterTest, AFileOfFourGibibytesIsSkipped) {
    // 8,191 bytes per sample, which no file ever gets: 262,144 frames of two channels then take
    // 4,294,443,008 bytes, so that the bound is met with two megabytes of recording.
    bits = 65'528;
    recording.Make(2, 192'000, 262'177);

    EXPECT_EQ(Save(0, 262'177.0 / 192'000), VrSuccess);

    EXPECT_EQ(
        manager.Messages(),
        (std::vector<FakeManager::Message>{{VrMessageFileSkipped, directory.File("take.wav")}}));
    EXPECT_FALSE(std::filesystem::exists(directory.File("take.wav")));
    EXPECT_EQ(progress.overallPosition, 262'177U);
    EXPECT_EQ(progress.filePosition, 0U);
    EXPECT_EQ(progress.fileLength, 262'177U);
}

TEST_F(WavWriterTest, AFileThatCannotBeOpenedIsSkipped) {
    recording.Make(2, 1'000, 100);
    std::filesystem::create_directory(directory.File("take.wav"));

    EXPECT_EQ(Save(0, 0.05), VrSuccess);

    EXPECT_EQ(
        manager.Messages(),
        (std::vector<FakeManager::Message>{{VrMessageFileSkipped, directory.File("take.wav")}}));
    EXPECT_EQ(progress.overallPosition, 50U);
}

TEST_F(WavWriterTest, AnExistingFileIsReplaced) {
    recording.Make(1, 1'000, 100);
    std::ofstream(directory.File("take.wav")) << std::string(5'000, 'x');

    EXPECT_EQ(Save(0, 0.1), VrSuccess);

    EXPECT_EQ(Saved().size(), 44U + 200);
}

TEST_F(WavWriterTest, AWidthOfEightBitsFailsBehindTheHeader) {
    bits = 8;
    recording.Make(2, 1'000, 100);

    EXPECT_EQ(Save(0, 0.1), VrErrorFailed);

    const Bytes bytes = Saved();
    ASSERT_EQ(bytes.size(), 44U);
    EXPECT_EQ(LittleEndian(bytes, 32, 2), 2U);    // block align
    EXPECT_EQ(LittleEndian(bytes, 34, 2), 8U);    // bits per sample
    EXPECT_EQ(LittleEndian(bytes, 40, 4), 200U);  // data size
}

TEST_F(WavWriterTest, OnlyThreeWidthsAreTaken) {
    recording.Make(1, 1'000, 100);
    for (const std::uint16_t width : std::to_array<std::uint16_t>({0, 4, 17, 20, 25, 31, 33, 64})) {
        bits = width;
        EXPECT_EQ(Save(0, 0.1), VrErrorFailed) << width;
        EXPECT_EQ(Saved().size(), 44U) << width;
    }
}

TEST_F(WavWriterTest, SixDecibelsLessMultiplyBy0501187) {
    recording.Begin(1, 1'000);
    recording.Add<float>(0, {0.5f, -0.5f, 1.0f});
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.gain = -6.0;

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(LittleEndian(bytes, 44, 2), 8'211U);  // 16,384 x 0.501187 = 8,211.4
    EXPECT_EQ(LittleEndian(bytes, 46, 2), 65'536U - 8'211);
    EXPECT_EQ(LittleEndian(bytes, 48, 2), 16'423U);  // 32,768 x 0.501187 = 16,422.9
}

TEST_F(WavWriterTest, GainSaturates) {
    recording.Begin(1, 1'000);
    recording.Add<float>(0, {0.75f, -0.75f});
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.gain = 6.0;

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(SavedSamples(), (Bytes{0xFF, 0x7F, 0x00, 0x80}));
}

TEST(GainFactorTest, IsComputedInSinglePrecision) {
    EXPECT_EQ(GainFactor(0.0), 1.0f);
    EXPECT_EQ(GainFactor(-0.0), 1.0f);
    EXPECT_EQ(GainFactor(20.0), 10.0f);
    EXPECT_NEAR(GainFactor(-6.0), 0.501187f, 0.0000005f);
}

TEST_F(WavWriterTest, AGainOfZeroLeavesTheSamplesAlone) {
    bits = 32;
    recording.Make(2, 1'000, 100);

    EXPECT_EQ(Save(0, 0.1), VrSuccess);

    const Bytes bytes = Saved();
    for (std::size_t frame = 0; frame < 100; ++frame) {
        const auto expected = static_cast<std::uint32_t>(Recording::StepOf(1, frame)) << 16U;
        EXPECT_EQ(LittleEndian(bytes, 44 + frame * 8 + 4, 4), expected) << frame;
    }
}

TEST_F(WavWriterTest, ProgressOfAWholeFileIsItsFrames) {
    recording.Make(1, 1'000, 1'000);

    EXPECT_EQ(Save(0.25, 0.9), VrSuccess);

    EXPECT_EQ(progress.fileLength, 650U);
    EXPECT_EQ(progress.filePosition, 650U);
    EXPECT_EQ(progress.overallPosition, 650U);
}

TEST_F(WavWriterTest, ACancelBeforeTheFirstBlockLeavesTheHeader) {
    recording.Make(1, 1'000, 1'000);
    cancelState = kSaveCancelKeep;

    EXPECT_EQ(Save(0, 1), VrErrorCanceled);

    const Bytes bytes = Saved();
    ASSERT_EQ(bytes.size(), 44U);
    EXPECT_EQ(LittleEndian(bytes, 4, 4), 2'036U);  // the sizes of the complete file
    EXPECT_EQ(LittleEndian(bytes, 40, 4), 2'000U);
    EXPECT_EQ(progress.filePosition, 0U);
}

TEST_F(WavWriterTest, AFileWithoutBlocksIsNotCancelled) {
    recording.Make(1, 1'000, 1'000);
    cancelState = kSaveCancelDelete;

    EXPECT_EQ(Save(1, 1), VrSuccess);
}

TEST_F(WavWriterTest, APathWithoutASlashFails) {
    recording.Make(1, 1'000, 100);
    const VrSaveSettingInternal setting{"take of a test.wav", 0, 1, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists("take of a test.wav"));
}

TEST_F(WavWriterTest, AMissingParentDirectoryFailsAtTheSpaceCheck) {
    recording.Make(1, 1'000, 100);
    const VrSaveSettingInternal setting = Setting(0, 1, "no/parent/take.wav");

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_TRUE(manager.Messages().empty());
    EXPECT_FALSE(std::filesystem::exists(directory.File("no")));
}

TEST_F(WavWriterTest, TooLittleSpaceFailsBeforeTheFileIsMade) {
    const SmallVolume volume(16 * 4'096);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    recording.Make(1, 48'000, 48'000);
    const VrSaveSettingInternal setting{volume.File("new/take.wav"), 0, 1, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_TRUE(std::filesystem::is_directory(volume.File("new")));
    EXPECT_FALSE(std::filesystem::exists(volume.File("new/take.wav")));
    EXPECT_EQ(run.createdDirectory, volume.File("new/"));
}

TEST_F(WavWriterTest, AFileThatJustFitsIsWritten) {
    const SmallVolume volume(16 * 4'096);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    recording.Make(1, 48'000, 48'000);
    const double seconds = 32'746.0 / 48'000;  // 44 + 2 x 32,746 = 65,536 bytes
    const VrSaveSettingInternal setting{volume.File("take.wav"), 0, seconds, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(ReadBytes(setting.path).size(), 65'536U);
}

TEST_F(WavWriterTest, AFailedWriteLeavesThePartialFile) {
    recording.Make(2, 192'000, 600'000);  // 2.4 MB as 16 bits: more than the stream buffers
    const FileSizeLimit limit(1'500'000);

    EXPECT_EQ(Save(0, 10), VrErrorFailed);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 1'500'000U);
    EXPECT_EQ(LittleEndian(bytes, 40, 4), 2'400'000U);
    EXPECT_LT(progress.filePosition, 600'000U);
}

TEST_F(WavWriterTest, AFailureAtTheCloseIsAFailedWrite) {
    recording.Make(1, 1'000, 1'000);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Title", "AB"}};
    const FileSizeLimit limit(2'044 + 30);  // ends within the tags

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 2'074U);
}

TEST_F(WavWriterTest, AFullDeviceFailsTheSave) {
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "no /dev/full here";
    }
    recording.Make(1, 1'000, 1'000);
    const VrSaveSettingInternal setting{"/dev/full", 0, 1, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);
}

TEST_F(WavWriterTest, ARecordingThatCannotBeReadFailsTheSave) {
    recording.Begin(1, 1'000);
    for (int second = 0; second < 30; ++second) {  // far more than stays in memory
        recording.Add<float>(0, std::vector<float>(1'000, 0.5f));
    }
    for (const auto& entry : std::filesystem::directory_iterator(spill.Path())) {
        std::filesystem::resize_file(entry.path(), 0);  // the spill files
    }

    EXPECT_EQ(Save(0, 30), VrErrorFailed);

    EXPECT_GE(Saved().size(), 44U) << "what was written stays";
}

TEST_F(WavWriterTest, WithoutAThreadToReadAheadTheFileIsTheSame) {
    recording.Begin(2, 1'000);
    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        std::vector<float> samples(2'550);  // 25 blocks and a half
        for (std::size_t i = 0; i < samples.size(); ++i) {
            samples[i] = static_cast<float>(i + 10'000 * channel) / 32768.0F;
        }
        recording.Add(channel, samples);
    }
    ASSERT_EQ(Save(0, 3), VrSuccess);
    const Bytes ahead = Saved();
    ASSERT_EQ(ahead.size(), 44U + 2'550 * 4);

    {
        const test::NoNewThreads none;
        ASSERT_EQ(Save(0, 3), VrSuccess);
    }

    EXPECT_EQ(Saved(), ahead);
}

TEST_F(WavWriterTest, AFileThatItsVolumeCannotHoldIsSkippedAndNotMade) {
    recording.Make(1, 1'000, 100);
    static std::uint64_t askedBytes = 0;
    run.volumeTakes = [](const std::string&, std::uint64_t bytes) {
        askedBytes = bytes;
        return false;
    };

    EXPECT_EQ(Save(0, 1), VrSuccess);

    EXPECT_EQ(askedBytes, 44U + 200U);
    EXPECT_FALSE(std::filesystem::exists(directory.File("take.wav")));
    EXPECT_EQ(
        manager.Messages(),
        (std::vector<FakeManager::Message>{{VrMessageFileSkipped, directory.File("take.wav")}}));
    EXPECT_EQ(progress.overallPosition, 100U);
}

TEST_F(WavWriterTest, ARateBelowTenHertzStillComesToAnEnd) {
    recording.Make(1, 5, 12);

    EXPECT_EQ(Save(0, 10), VrSuccess);

    EXPECT_EQ(SavedSamples().size(), 24U);
}

TEST_F(WavWriterTest, BothWaysOfEncodingGiveTheSameFile) {
    SampleTypeInfo other = *GetSampleTypeInfo(kSampleTypePcm);
    other.type = 77;
    for (const std::uint16_t width : std::to_array<std::uint16_t>({16, 24, 32})) {
        bits = width;
        Bytes files[2];
        for (const SampleTypeInfo* type :
             {GetSampleTypeInfo(kSampleTypePcm), static_cast<const SampleTypeInfo*>(&other)}) {
            recording.Make(3, 44'100, 10'000, Recording::Steps, type);
            VrSaveSettingInternal setting = Setting(0.01, 0.2);
            setting.gain = -3.5;
            EXPECT_EQ(SaveFile(&setting), VrSuccess);
            files[type == &other ? 1 : 0] = Saved();
        }
        EXPECT_EQ(files[0], files[1]) << width;
    }
}

TEST(SinglePrecisionGainTest, WhatSinglePrecisionCannotHoldIsInfinite) {
    EXPECT_EQ(SinglePrecisionGain(-6.02), -6.02F);
    EXPECT_EQ(SinglePrecisionGain(3e38), 3e38F);
    EXPECT_EQ(SinglePrecisionGain(1e300), std::numeric_limits<float>::infinity());
    EXPECT_EQ(SinglePrecisionGain(-1e300), -std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(SinglePrecisionGain(std::nan(""))));
}

TEST(FramesFromSecondsTest, CutsToWholeFrames) {
    EXPECT_EQ(FramesFromSeconds(48'000, 1.0), 48'000U);
    EXPECT_EQ(FramesFromSeconds(44'100, 0.99999), 44'099U);
    EXPECT_EQ(FramesFromSeconds(11'289'600, 3'600.0), 40'642'560'000U);
}

TEST(FramesFromSecondsTest, NegativeAndNotANumberAreZero) {
    EXPECT_EQ(FramesFromSeconds(48'000, -1.0), 0U);
    EXPECT_EQ(FramesFromSeconds(48'000, -std::numeric_limits<double>::infinity()), 0U);
    EXPECT_EQ(FramesFromSeconds(48'000, std::numeric_limits<double>::quiet_NaN()), 0U);
}

TEST(FramesFromSecondsTest, WhatIsTooLargeIsTheLargest) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(FramesFromSeconds(48'000, 1e300), kLargest);
    EXPECT_EQ(FramesFromSeconds(48'000, std::numeric_limits<double>::infinity()), kLargest);
    EXPECT_EQ(FramesFromSeconds(1, 18'446'744'073'709'551'616.0), kLargest);
    EXPECT_EQ(FramesFromSeconds(1, 18'446'744'073'709'549'568.0), 18'446'744'073'709'549'568U);
}

}  // namespace
}  // namespace vorrel
