// Takes of single bits: what was captured, what the log makes of it, and what is saved.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "TakeRig.h"
#include "convert/PlainGain.h"
#include "support/DSDStreamProcessingParts.h"
#include "support/DsfBytes.h"

namespace vorrel::test {
namespace {

using Span = std::pair<std::uint64_t, std::uint64_t>;

/// The spans of a channel's bytes one behind the other.
Bytes Cut(const Bytes& bytes, std::initializer_list<Span> spans) {
    Bytes cut;
    for (const auto& [first, last] : spans) {
        cut.insert(cut.end(), bytes.begin() + static_cast<std::ptrdiff_t>(first),
                   bytes.begin() + static_cast<std::ptrdiff_t>(last));
    }
    return cut;
}

Bytes AllMirrored(Bytes bytes) {
    std::ranges::transform(bytes, bytes.begin(), Mirrored);
    return bytes;
}

/// Saves [0, bits) of the take and expects the file that `channels` (as stored) make.
void ExpectSaved(Take& take, const std::vector<Bytes>& channels, double gain = 0.0) {
    const std::uint64_t bits = channels.front().size() * 8;
    DsfBytes expected{.rateHz = static_cast<std::uint32_t>(take.rateHz)};
    for (const Bytes& channel : channels) {
        expected.channels.push_back(AllMirrored(channel));
    }
    Bytes file = expected.Make();
    if (channels.size() > 3) {
        ++file[48];  // the channel type is one more from four channels on
    }
    const std::string path = take.directory.File("take.dsf");
    // In the middle of the last bit, so that no rounding of the seconds loses it.
    take.Save(path, 0.0, (static_cast<double>(bits) + 0.5) / static_cast<double>(take.rateHz),
              gain);
    const Bytes saved = ReadBytes(path);
    ASSERT_EQ(saved.size(), file.size());
    EXPECT_EQ(Bytes(saved.begin(), saved.begin() + 92), Bytes(file.begin(), file.begin() + 92));
    // Not as a list of a million numbers.
    EXPECT_TRUE(saved == file);
}

using Parameters = std::tuple<SimulatedSource, std::uint64_t, std::uint32_t>;

class DsdTakesTest : public testing::TestWithParam<Parameters> {
protected:
    SimulatedRecorderConfig Config() {
        SimulatedRecorderConfig config;
        config.source = std::get<0>(GetParam());
        config.channels = std::get<2>(GetParam());
        if (config.source == SimulatedSource::File) {
            // Thirteen buffers, of which twelve are delivered; the last one is not whole.
            DsfBytes file{.rateHz = static_cast<std::uint32_t>(std::get<1>(GetParam()))};
            for (std::uint32_t channel = 0; channel < config.channels; ++channel) {
                file.channels.push_back(RandomBytes(13 * 65'536 - 1'000, channel + 1));
            }
            fileBits = file.channels;
            config.filePath = directory.File("source.dsf");
            WriteBytes(config.filePath, file.Make());
        }
        return config;
    }

    TempDirectory directory;
    std::vector<Bytes> fileBits;
};

TEST_P(DsdTakesTest, PausesAndPreRecordingAreCutOutToTheBlockAndSavedBitForBit) {
    Take take(Config(), std::get<1>(GetParam()), Take::Dsd);
    take.Select();
    take.Make({.preRecorded = 3, .recorded = 4, .paused = 2, .resumed = 3});

    ASSERT_EQ(take.BufferFrames(), 32'768U);
    constexpr std::uint64_t kBufferBytes = 65'536;
    const std::vector<Bytes> captured = take.CapturedBits(12 * 32'768);
    std::vector<Bytes> recorded;
    for (std::size_t channel = 0; channel < captured.size(); ++channel) {
        if (!fileBits.empty()) {
            const Bytes twelve(fileBits[channel].begin(),
                               fileBits[channel].begin() + 12 * kBufferBytes);
            ASSERT_TRUE(AllMirrored(twelve) == captured[channel]);
        }
        // Buffers 3 to 6 and 9 to 11.
        recorded.push_back(Cut(captured[channel], {{3 * kBufferBytes, 7 * kBufferBytes},
                                                   {9 * kBufferBytes, 12 * kBufferBytes}}));
        EXPECT_TRUE(take.Recorded(static_cast<std::uint16_t>(channel)) == recorded.back());
    }
    EXPECT_EQ(take.Record().GetLength(true), 7U * 32'768 * 16);
    ExpectSaved(take, recorded);

    // The preview is cut at the same places: 8,192 frames stand for a buffer.
    const std::size_t channels = captured.size();
    ASSERT_EQ(take.Length(true), 7U * 8'192);
    std::vector<std::int16_t> raw(12 * 8'192 * channels);
    ASSERT_EQ(take.manager.GetPreviewData(0, 12 * 8'192, raw.data(), false), VrSuccess);
    std::vector<std::int16_t> preview(7 * 8'192 * channels);
    ASSERT_EQ(take.manager.GetPreviewData(0, 7 * 8'192, preview.data(), true), VrSuccess);
    const auto buffer = static_cast<std::ptrdiff_t>(8'192 * channels);
    EXPECT_TRUE(std::equal(raw.begin() + 3 * buffer, raw.begin() + 7 * buffer, preview.begin()));
    EXPECT_TRUE(std::equal(raw.begin() + 9 * buffer, raw.end(), preview.begin() + 4 * buffer));
}

INSTANTIATE_TEST_SUITE_P(ToneNoiseAndFile, DsdTakesTest,
                         testing::Combine(testing::Values(SimulatedSource::Tone,
                                                          SimulatedSource::Noise,
                                                          SimulatedSource::File),
                                          testing::Values(2'822'400, 5'644'800, 11'289'600),
                                          testing::Values(1, 2, 8)));

/// Kept: events are logged in units of 64 single bits and the record store reads them as units of
/// 16. It asks only for blocks that come after the event, which lie behind a quarter of their own
/// position in any case, so that a take is cut where the host cut it.
TEST(DsdEventsTest, TheLogCountsPreviewFramesAndTheStoreIsCutAtTheEventAllTheSame) {
    Take take(Noise(1), 2'822'400, Take::Dsd);
    take.Select();
    take.Make({.preRecorded = 3, .recorded = 4, .paused = 2, .resumed = 1});

    // A buffer is 524,288 single bits: 8,192 in units of 64 and 32,768 words in the store.
    RecordRangeManager& log = VorrelManagerParts::Ranges(take.manager);
    EXPECT_EQ(log.GetAvailableRange_Frames(0, ~std::uint64_t{0}),
              (std::vector<PositionRange>{{24'576, 57'344}, {73'728, 81'920}}));
    const Bytes recorded = take.Recorded(0);
    ASSERT_EQ(recorded.size(), 5U * 65'536);
    const Bytes captured = take.CapturedBits(10 * 32'768).front();
    EXPECT_TRUE(recorded == Cut(captured, {{3 * 65'536, 7 * 65'536}, {9 * 65'536, 10 * 65'536}}));
}

/// Kept: a range that begins and ends in the same unit of 64 single bits reads as open.
TEST(DsdEventsTest, APauseLessThan64BitsBehindItsStartDoesNotPauseTheStore) {
    Take take(Counting(1), 2'822'400, Take::Dsd);
    take.Select();
    take.Recorder().SetShortBuffers(3);  // 48 single bits
    take.Make({.recorded = 1, .paused = 1, .resumed = 1});

    EXPECT_EQ(take.Recorded(0), (Bytes{0, 0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 8, 0}));
}

TEST(DsdEventsTest, APauseIn64BitsOrMoreIsOne) {
    Take take(Counting(1), 2'822'400, Take::Dsd);
    take.Select();
    take.Recorder().SetShortBuffers(4);
    take.Make({.recorded = 1, .paused = 1, .resumed = 1});

    EXPECT_EQ(take.Recorded(0), (Bytes{0, 0, 1, 0, 2, 0, 3, 0, 8, 0, 9, 0, 10, 0, 11, 0}));
}

/// An event within a preview frame cuts the preview before that frame and the bits at the event.
TEST(DsdEventsTest, ThePreviewIsCutAtWholeFramesAndTheBitsAtTheBuffer) {
    Take take(Counting(1), 2'822'400, Take::Dsd);
    take.Select();
    take.Recorder().SetShortBuffers(14);  // 224 single bits: three and a half preview frames
    take.Make({.preRecorded = 1, .recorded = 1});

    EXPECT_EQ(take.Record().GetLength(true), 224U);
    EXPECT_EQ(take.Length(true), 4U);
}

TEST(DsdLongerTakesTest, WhatWasSpilledComesBackWhole) {
    Take take(Noise(2), 2'822'400, Take::Dsd);
    take.Select();
    // 13 s: two buffers of five seconds on disk, three seconds in memory.
    take.Make({.recorded = 70});
    EXPECT_FALSE(std::filesystem::is_empty(take.spillDirectory.Path()));
    const std::string path = take.directory.File("take.dsf");

    // 4.5 s to 12.5 s: out of the first block on disk, the second, and memory.
    take.Save(path, 4.5, 12.5);

    DsfBytes expected{.rateHz = 2'822'400};
    for (const Bytes& channel : take.CapturedBits(70 * 32'768)) {
        expected.channels.push_back(AllMirrored(Cut(channel, {{1'587'600, 4'410'000}})));
    }
    EXPECT_TRUE(ReadBytes(path) == expected.Make());

    ASSERT_EQ(take.manager.New(), VrSuccess);
    EXPECT_TRUE(std::filesystem::is_empty(take.spillDirectory.Path()));
}

TEST(DsdLongerTakesTest, ASavedFileIsASourceWhoseBitsAreSavedAgain) {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::Tone;
    config.channels = 2;
    Take take(config, 5'644'800, Take::Dsd);
    take.Select();
    take.Make({.recorded = 4});
    const std::string first = take.directory.File("first.dsf");
    take.Save(first, 0.0, 0.25);  // 1,411,200 single bits, a few short of three buffers
    ASSERT_EQ(ReadBytes(first).size(), 92U + 2 * 44 * 4'096);

    SimulatedRecorderConfig fromFile;
    fromFile.source = SimulatedSource::File;
    fromFile.filePath = first;
    Take again(fromFile, 5'644'800, Take::Dsd);
    again.Select();
    again.Make({.recorded = 3});
    const std::string second = again.directory.File("second.dsf");
    again.Save(second, 0.0, 0.25);

    EXPECT_TRUE(ReadBytes(second) == ReadBytes(first));
}

TEST(DsdLongerTakesTest, OverADsfFileAHostIsOfferedItsRateAlone) {
    TempDirectory directory;
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::File;
    config.filePath = directory.File("source.dsf");
    WriteBytes(config.filePath, DsfBytes{.rateHz = 5'644'800, .channels = {{1}, {2}, {3}}}.Make());
    Take take(config, 5'644'800, Take::Dsd);
    take.Select();
    std::shared_ptr<VrAudioDeviceInfo> info;

    ASSERT_EQ(take.manager.GetAudioDeviceInfo(&info), VrSuccess);

    EXPECT_EQ(info->i_ch, 3U);
    EXPECT_EQ(info->DSD_supported_freq, (std::vector<std::uint64_t>{5'644'800}));
    EXPECT_TRUE(info->PCM_supported_freq.empty());
    const VrRecordSetting pcm{.rec_type = 0, .freq = 48'000, .bits = 24};
    EXPECT_EQ(take.manager.SetRecordSetting(&pcm), VrErrorNotSupported);
    const VrRecordSetting faster{.rec_type = 1, .freq = 11'289'600, .bits = 0};
    EXPECT_EQ(take.manager.SetRecordSetting(&faster), VrErrorNotSupported);
}

TEST(DsdLongerTakesTest, MarksJoinWithoutALostOrDoubledBit) {
    Take take(Noise(2), 11'289'600, Take::Dsd);
    take.Select();
    take.Make({.recorded = 22});  // 1.02 s

    take.Save(take.directory.File("1.dsf"), 0.0, 0.25);
    take.Save(take.directory.File("2.dsf"), 0.25, 0.75);
    take.Save(take.directory.File("3.dsf"), 0.75, 1.0);

    std::vector<Bytes> channels;
    for (const Bytes& channel : take.CapturedBits(22 * 32'768)) {
        channels.push_back(AllMirrored(channel));
    }
    const auto expect = [&](const char* name, std::uint64_t first, std::uint64_t last) {
        DsfBytes expected{.rateHz = 11'289'600};
        for (const Bytes& channel : channels) {
            expected.channels.push_back(Cut(channel, {{first, last}}));
        }
        EXPECT_TRUE(ReadBytes(take.directory.File(name)) == expected.Make()) << name;
    };
    expect("1.dsf", 0, 352'800);
    expect("2.dsf", 352'800, 1'058'400);
    expect("3.dsf", 1'058'400, 1'411'200);
}

TEST(DsdLongerTakesTest, BuffersInSeveralPartsBecomeOneTake) {
    SimulatedRecorderConfig config = Counting(5);
    config.bufferChannels = {2, 1, 2};
    Take take(config, 2'822'400, Take::Dsd);
    take.Select();
    take.Make({.recorded = 2});

    ExpectSaved(take, take.CapturedBits(2 * 32'768));
}

/// A take whose bits are the same on every machine: a triangle and noise.
class DsdGainTakeTest : public testing::Test {
protected:
    void SetUp() override {
        SimulatedRecorderConfig config;
        config.source = SimulatedSource::File;
        config.filePath = directory.File("source.dsf");
        // Bytes of the channels as stored: the earlier bit is the more significant.
        bits = {TriangleBits(2 * 65'536, 0.4, 28'224), RandomBits(2 * 65'536, 7)};
        WriteBytes(config.filePath,
                   DsfBytes{.channels = {AllMirrored(bits[0]), AllMirrored(bits[1])}}.Make());
        take = std::make_unique<Take>(config, 2'822'400, Take::Dsd);
        take->Select();
        take->Make({.recorded = 2});
    }

    TempDirectory directory;
    std::vector<Bytes> bits;
    std::unique_ptr<Take> take;
};

TEST_F(DsdGainTakeTest, AGainedFileIsThePlainProcessorsBitForBit) {
    for (const float gainDb : {-6.0F, 3.0F}) {
        std::vector<Bytes> gained;
        for (const Bytes& channel : bits) {
            gained.push_back(PlainGain(std::pow(10.0F, gainDb / 20.0F)).Processed(channel));
        }
        ExpectSaved(*take, gained, gainDb);
    }
}

TEST_F(DsdGainTakeTest, AGainedFileIsTheSameOnEveryInstructionSet) {
    for (const InstructionSet set : SupportedInstructionSets()) {
        std::vector<Bytes> gained = bits;
        for (Bytes& channel : gained) {
            DSDStreamProcessing processing;
            ASSERT_EQ(processing.Init(2'822'400, 0), DSDStreamProcessing::kDone);
            ASSERT_EQ(processing.SetGain(-6.0F), DSDStreamProcessing::kDone);
            DSDStreamProcessingParts::Force(processing, set);
            ASSERT_EQ(processing.Process(channel.data(), channel.size()),
                      DSDStreamProcessing::kDone);
        }
        SCOPED_TRACE(static_cast<int>(set));
        ExpectSaved(*take, gained, -6.0);
    }
}

TEST_F(DsdGainTakeTest, AGainedFileIsTheGoldenOne) {
    const std::string path = take->directory.File("golden.dsf");

    take->Save(path, 0.0, 0.25, -6.0);

    // The value of the file that the plain processor makes.
    EXPECT_EQ(HashOf(ReadBytes(path)), 9'962'735'086'130'661'977U);
}

}  // namespace
}  // namespace vorrel::test
