#include "device/simulated/DsfFileSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "device/simulated/SimulatedFixture.h"
#include "support/DsfBytes.h"
#include "support/TempDirectory.h"
#include "support/TraceCapture.h"

namespace vorrel {
namespace {

using test::Bytes;
using test::DsfBytes;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint16_t kSilence = 0x6969;

std::uint16_t WordOf(float value) {
    return static_cast<std::uint16_t>(static_cast<std::int16_t>(value * 32'768.0F));
}

class DsfFileSourceTest : public testing::Test {
protected:
    std::string Write(const char* name, const Bytes& bytes) {
        std::string path = directory.File(name);
        test::WriteBytes(path, bytes);
        return path;
    }
    std::unique_ptr<SampleSource> Open(const DsfBytes& file, bool loop = false) {
        return OpenDsfFileSource(Write("take.dsf", file.Make()),
                                 static_cast<std::uint32_t>(file.channels.size()), file.rateHz,
                                 loop);
    }
    static std::vector<std::uint16_t> Read(SampleSource& source, std::size_t channels,
                                           std::size_t frames) {
        std::vector<float> samples(frames * channels);
        source.Read(samples.data(), frames);
        std::vector<std::uint16_t> words;
        for (const float sample : samples) {
            words.push_back(WordOf(sample));
        }
        return words;
    }
    /// The samples of words in the order in which they were taken.
    static std::string Bits(const std::vector<std::uint16_t>& words) {
        std::string bits;
        for (const std::uint16_t word : words) {
            for (const unsigned byte : {word & 0xFFU, unsigned{word} >> 8}) {
                for (int bit = 7; bit >= 0; --bit) {
                    bits += (byte >> bit & 1U) != 0 ? '1' : '0';
                }
            }
        }
        return bits;
    }

    test::TempDirectory directory;
};

TEST_F(DsfFileSourceTest, TheFilesFirstByteIsTheWordsLowOneWithItsBitsTheOtherWayRound) {
    const auto source = Open({.channels = {{0x2C, 0x48, 0x00, 0x80, 0xFF, 0xFF}}});

    // 0x8000 and 0xFFFF: the last of 16 samples is bit 8, the first of 8.
    EXPECT_THAT(Read(*source, 1, 3), ElementsAre(0x1234, 0x0100, 0xFFFF));
}

TEST_F(DsfFileSourceTest, EveryWordIsOneThatADevicesFloatsCarry) {
    Bytes bytes;
    for (unsigned word = 0; word <= 0xFFFF; ++word) {
        bytes.push_back(test::Mirrored(static_cast<std::uint8_t>(word)));
        bytes.push_back(test::Mirrored(static_cast<std::uint8_t>(word >> 8)));
    }
    const std::vector<std::uint16_t> words = Read(*Open({.channels = {bytes}}), 1, 65'536);

    for (unsigned word = 0; word <= 0xFFFF; ++word) {
        ASSERT_EQ(words[word], word);
    }
}

TEST_F(DsfFileSourceTest, OneToEightChannelsArriveBitForBitOverManyBlocks) {
    for (std::size_t channels = 1; channels <= 8; ++channels) {
        DsfBytes file;
        for (std::size_t channel = 0; channel < channels; ++channel) {
            // Two and a half blocks.
            file.channels.push_back(
                test::RandomBytes(10'240, static_cast<std::uint32_t>(channel + 1)));
        }
        const auto source = Open(file);
        const std::vector<std::uint16_t> words = Read(*source, channels, 5'120);

        for (std::size_t frame = 0; frame < 5'120; ++frame) {
            for (std::size_t channel = 0; channel < channels; ++channel) {
                const Bytes& bytes = file.channels[channel];
                const unsigned expected = test::Mirrored(bytes[2 * frame]) |
                                          unsigned{test::Mirrored(bytes[2 * frame + 1])} << 8;
                ASSERT_EQ(words[frame * channels + channel], expected)
                    << channels << " channels, frame " << frame << ", channel " << channel;
            }
        }
        EXPECT_THAT(Read(*source, channels, 3), testing::Each(kSilence));
    }
}

TEST_F(DsfFileSourceTest, TheSameArrivesInWhateverPortions) {
    const DsfBytes file{.channels = {test::RandomBytes(9'000, 1), test::RandomBytes(9'000, 2)},
                        .samples = 71'989};
    for (const bool loop : {false, true}) {
        const auto whole = Read(*Open(file, loop), 2, 10'000);
        const auto source = Open(file, loop);
        std::vector<std::uint16_t> parts;
        for (const std::size_t frames : {1U, 13U, 2'033U, 2U, 7'000U, 951U}) {
            const auto part = Read(*source, 2, frames);
            parts.insert(parts.end(), part.begin(), part.end());
        }
        EXPECT_EQ(parts, whole) << loop;
    }
}

TEST_F(DsfFileSourceTest, WhatIsLeftOfTheLastWordIsSilenceInItsPlace) {
    // Four ones, and ones that are no samples.
    const auto source = Open({.channels = {{0x00, 0x00, 0xFF, 0xFF}}, .samples = 20});

    EXPECT_EQ(Bits(Read(*source, 1, 3)),
              "0000000000000000"
              "1111100101101001"
              "0110100101101001");
}

TEST_F(DsfFileSourceTest, AfterItsEndComesDsdSilence) {
    const auto source = Open({.channels = {{0xFF, 0xFF}, {0x00, 0x00}}});

    EXPECT_THAT(Read(*source, 2, 3),
                ElementsAre(0xFFFF, 0x0000, kSilence, kSilence, kSilence, kSilence));
}

TEST_F(DsfFileSourceTest, ALoopBeginsAgainInTheMiddleOfABuffer) {
    const auto source = Open({.channels = {{0x2C, 0x48, 0xFF, 0x00}}}, true);

    EXPECT_THAT(Read(*source, 1, 5), ElementsAre(0x1234, 0x00FF, 0x1234, 0x00FF, 0x1234));
    EXPECT_THAT(Read(*source, 1, 2), ElementsAre(0x00FF, 0x1234));
}

TEST_F(DsfFileSourceTest, ALoopOfNoWholeWordsJoinsWithoutAGap) {
    // Eleven samples: 1000 0110 010.
    const auto source = Open({.channels = {{0x61, 0x02}}, .samples = 11}, true);
    std::string expected;
    for (int round = 0; round < 16; ++round) {
        expected += "10000110010";
    }

    EXPECT_EQ(Bits(Read(*source, 1, 11)), expected);
}

TEST_F(DsfFileSourceTest, ALoopOfBlocksAndHalfAByteJoinsWithoutAGapInEveryChannel) {
    constexpr std::size_t kSamples = 32'768 + 20;
    const DsfBytes file{.channels = {test::RandomBytes(4'099, 1), test::RandomBytes(4'099, 2)},
                        .samples = kSamples};
    const auto words = Read(*Open(file, true), 2, 3 * 2'050);

    std::vector<std::uint16_t> ofChannel[2];
    for (std::size_t i = 0; i < words.size(); ++i) {
        ofChannel[i % 2].push_back(words[i]);
    }
    for (std::size_t channel = 0; channel < 2; ++channel) {
        const std::string bits = Bits(ofChannel[channel]);
        for (std::size_t i = 0; i < bits.size(); ++i) {
            const std::size_t sample = i % kSamples;
            const bool one = (file.channels[channel][sample / 8] >> (sample % 8) & 1) != 0;
            ASSERT_EQ(bits[i], one ? '1' : '0') << "channel " << channel << ", sample " << i;
        }
    }
}

TEST_F(DsfFileSourceTest, AnEmptyFileIsSilenceLoopedOrNot) {
    for (const bool loop : {false, true}) {
        EXPECT_THAT(Read(*Open({.channels = {{}}}, loop), 1, 2), ElementsAre(kSilence, kSilence));
    }
}

TEST_F(DsfFileSourceTest, WhatStandsBehindTheSamplesIsNotRead) {
    const auto source = Open({.channels = {{0x2C, 0x48}}, .tag = "ID3 and so on"});

    EXPECT_THAT(Read(*source, 1, 2), ElementsAre(0x1234, kSilence));
}

TEST_F(DsfFileSourceTest, TheFileTellsRateChannelsAndSamples) {
    const std::string path =
        Write("facts.dsf",
              DsfBytes{.rateHz = 5'644'800, .channels = {{1}, {2}, {3}}, .samples = 5}.Make());
    DsfFacts facts;
    std::string problem;

    ASSERT_TRUE(InspectDsfFile(path, facts, problem)) << problem;

    EXPECT_EQ(facts.rateHz, 5'644'800.0);
    EXPECT_EQ(facts.channels, 3U);
    EXPECT_EQ(facts.samples, 5U);
}

TEST_F(DsfFileSourceTest, RefusesWhatItCannotReadAndSaysWhy) {
    const Bytes good = DsfBytes{.channels = {test::RandomBytes(5'000, 1)}, .tag = "tag"}.Make();
    ASSERT_EQ(good.size(), 92U + 8'192 + 3);
    struct Refusal {
        std::size_t offset;
        Bytes bytes;
        const char* reason;
    };
    const Refusal refusals[] = {
        {0, {'R', 'I', 'F', 'F'}, "\"DSD \" chunk is malformed"},
        {4, {29}, "\"DSD \" chunk is malformed"},
        {28, {'F'}, "\"fmt \" chunk is malformed"},
        {32, {51}, "\"fmt \" chunk is malformed"},
        {40, {2}, "\"fmt \" chunk is malformed"},
        {44, {1}, "not raw DSD"},
        {52, {0}, "has 0 channels"},
        {52, {9}, "has 9 channels"},
        {60, {8}, "has 8 bits per sample"},
        {65, {0x00, 0x01}, "too small for its 65600 samples"},
        {64, Bytes(8, 0xFF), "too small for its 18446744073709551615 samples"},
        {72, {0, 32}, "has blocks of 8192 bytes"},
        {80, {'D'}, "\"data\" chunk is malformed"},
        {84, {11, 0}, "\"data\" chunk is malformed"},
        {84, {12, 16}, "too small for its 40000 samples"},
        {84, Bytes(8, 0xFF), "longer than the file that they describe"},
        {12, {91, 0}, "longer than the file that they describe"},
        {12, Bytes(8, 0xFF), "is truncated: 8287 bytes of 18446744073709551615"},
    };
    for (const Refusal& refusal : refusals) {
        Bytes bad = good;
        std::copy(refusal.bytes.begin(), refusal.bytes.end(),
                  bad.begin() + static_cast<std::ptrdiff_t>(refusal.offset));
        const std::string path = Write("bad.dsf", bad);
        DsfFacts facts;
        std::string problem;

        EXPECT_FALSE(InspectDsfFile(path, facts, problem)) << refusal.reason;

        EXPECT_THAT(problem, HasSubstr(path));
        EXPECT_THAT(problem, HasSubstr(refusal.reason)) << "offset " << refusal.offset;
    }
}

TEST_F(DsfFileSourceTest, RefusesAFileCutOffAnywhere) {
    const Bytes good = DsfBytes{.channels = {test::RandomBytes(5'000, 1)}, .tag = "tag"}.Make();
    const std::pair<std::size_t, const char*> cuts[] = {
        {0, "ends within the header"},    {91, "ends within the header"},
        {92, "is truncated: 92 bytes"},   {92 + 4'096, "is truncated: 4188 bytes of 8287"},
        {92 + 8'191, "is truncated"},     {92 + 8'192, "is truncated"},
        {good.size() - 1, "is truncated"}};
    for (const auto& [length, reason] : cuts) {
        const std::string path = Write(
            "cut.dsf", Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length)));
        DsfFacts facts;
        std::string problem;

        EXPECT_FALSE(InspectDsfFile(path, facts, problem)) << length;

        EXPECT_THAT(problem, HasSubstr(reason)) << length;
    }
}

TEST_F(DsfFileSourceTest, AFileThatIsMissingOrNoRegularOneIsRefused) {
    DsfFacts facts;
    std::string problem;

    EXPECT_FALSE(InspectDsfFile(directory.File("gone.dsf"), facts, problem));
    EXPECT_THAT(problem, HasSubstr("gone.dsf: No such file"));
    ASSERT_EQ(::mkfifo(directory.File("pipe.dsf").c_str(), 0600), 0);
    EXPECT_FALSE(InspectDsfFile(directory.File("pipe.dsf"), facts, problem));
    EXPECT_THAT(problem, testing::HasSubstr("no regular file"));

    std::filesystem::create_directory(directory.File("folder.dsf"));
    EXPECT_FALSE(InspectDsfFile(directory.File("folder.dsf"), facts, problem));
    EXPECT_THAT(problem, HasSubstr("folder.dsf"));
}

TEST_F(DsfFileSourceTest, OtherChannelsOrAnotherRateThanTheFilesAreTracedAndNoSource) {
    test::TraceCapture trace;
    const std::string path = Write("stereo.dsf", DsfBytes{.channels = {{1, 2}, {3, 4}}}.Make());

    EXPECT_EQ(OpenDsfFileSource(path, 1, 2'822'400, false), nullptr);
    EXPECT_EQ(OpenDsfFileSource(path, 2, 5'644'800, false), nullptr);
    EXPECT_EQ(OpenDsfFileSource(directory.File("gone.dsf"), 2, 2'822'400, false), nullptr);
    EXPECT_NE(OpenDsfFileSource(path, 2, 2'822'400, false), nullptr);

    EXPECT_THAT(
        trace.Lines(),
        ElementsAre(HasSubstr("its channel count has changed"),
                    HasSubstr("has 2822400 samples a second, the recorder is set to 5644800"),
                    HasSubstr("gone.dsf")));
}

TEST_F(DsfFileSourceTest, AFileThatShrinksWhileItIsReadIsTracedOnceAndFallsSilent) {
    test::TraceCapture trace;
    const auto source = Open({.channels = {Bytes(3 * 4'096, 0xFF)}}, true);
    ASSERT_THAT(Read(*source, 1, 1'000), testing::Each(0xFFFF));

    std::filesystem::resize_file(directory.File("take.dsf"), 92 + 4'096);

    EXPECT_THAT(Read(*source, 1, 1'048), testing::Each(0xFFFF));
    EXPECT_THAT(Read(*source, 1, 10'000), testing::Each(kSilence));
    EXPECT_THAT(trace.Lines(), ElementsAre(HasSubstr("take.dsf: cannot be read any more")));
}

TEST_F(DsfFileSourceTest, TheEndOfThePathTellsTheKindOfFileInWhateverCase) {
    for (const char* path : {"/tmp/a.dsf", "A.DSF", ".Dsf"}) {
        EXPECT_TRUE(IsDsfPath(path)) << path;
    }
    for (const char* path : {"", "dsf", "a.dsf.wav", "a.dsff", "a_dsf"}) {
        EXPECT_FALSE(IsDsfPath(path)) << path;
    }
}

TEST_F(DsfFileSourceTest, TheFileDecidesChannelsAndRateAndThereAreNoPcmRates) {
    const std::string path =
        Write("three=a:b.DSF", DsfBytes{.rateHz = 11'289'600, .channels = {{1}, {2}, {3}}}.Make());
    std::vector<SimulatedRecorderConfig> configs;
    std::string problem;

    ASSERT_TRUE(
        ParseSimulatedConfiguration(("source=file:" + path + ",loop=1").c_str(), configs, problem))
        << problem;

    EXPECT_EQ(configs[0].filePath, path);
    EXPECT_EQ(configs[0].channels, 3U);
    EXPECT_THAT(configs[0].dsdRatesHz, ElementsAre(11'289'600.0));
    EXPECT_THAT(configs[0].pcmRatesHz, testing::IsEmpty());
    EXPECT_TRUE(configs[0].dsd);
    EXPECT_TRUE(configs[0].loop);
}

TEST_F(DsfFileSourceTest, AConfigurationThatDoesNotFitTheFileIsRefusedWithATrace) {
    const std::string stereo = Write("stereo.dsf", DsfBytes{.channels = {{1}, {2}}}.Make());
    const std::string other =
        Write("other.dsf", DsfBytes{.rateHz = 3'072'000, .channels = {{1}}}.Make());
    Bytes wide = DsfBytes{.channels = {{1}}}.Make();
    wide[60] = 8;
    const std::string eightBits = Write("eight.dsf", wide);
    const std::pair<std::string, const char*> refusals[] = {
        {"channels=1,source=file:" + stereo, "has 2 channels, not 1"},
        {"dsd=0,source=file:" + stereo, "its samples need the DSD mode"},
        {"source=file:" + other, "its rate, 3072000 Hz, is none of the recorder's"},
        {"source=file:" + eightBits, "has 8 bits per sample"},
        {"source=file:" + directory.File("gone.dsf"), "gone.dsf: No such file"},
    };
    for (const auto& [text, reason] : refusals) {
        test::TraceCapture trace;

        EXPECT_EQ(MakeSimulatedBackends(text.c_str()).audio, nullptr) << text;

        EXPECT_THAT(trace.Lines(), ElementsAre(HasSubstr(reason)));
    }
}

/// A recorder over a DSF file of 5.6448 MHz, two channels.
class DsfRecorderTest : public DsfFileSourceTest {
protected:
    void SetUp() override {
        SimulatedRecorderConfig config;
        config.source = SimulatedSource::File;
        config.filePath = Write(
            "recorder.dsf",
            DsfBytes{.rateHz = 5'644'800, .channels = {{0x2C, 0x48, 0xFF, 0xFF}, {0, 0, 0, 0x80}}}
                .Make());
        config.manual = true;
        config.bufferFrames = 14;
        backends = std::make_unique<SimulatedBackends>(std::vector{config});
        ASSERT_EQ(backends->RecorderCount(), 1U);
        ASSERT_EQ(Recorder().CreateIOProcID(Recorder().DeviceId(), &test::Collector::Proc,
                                            &collector, &proc),
                  0);
    }
    SimulatedRecorder& Recorder() { return backends->Recorder(); }
    void SwitchToDsd() {
        ASSERT_EQ(Recorder().ControlRequest(1, SimulatedRecorder::kStreamingInterface,
                                            {0x41, 0, 1, 1, 0, nullptr}),
                  kIOReturnSuccess);
    }

    std::unique_ptr<SimulatedBackends> backends;
    test::Collector collector;
    AudioDeviceIOProcID proc = nullptr;
};

TEST_F(DsfRecorderTest, ItsBitsArriveAtTheIoProcAsWordsOfItsRate) {
    SwitchToDsd();
    ASSERT_EQ(Recorder().Start(Recorder().DeviceId(), proc), 0);

    ASSERT_TRUE(Recorder().DeliverBuffer());

    EXPECT_EQ(Recorder().Format().mSampleRate, 352'800.0);
    EXPECT_EQ(Recorder().Format().mBitsPerChannel, 16U);
    std::vector<std::uint16_t> words;
    for (const float sample : collector.Samples()) {
        words.push_back(WordOf(sample));
    }
    std::vector<std::uint16_t> expected = {0x1234, 0x0000, 0xFFFF, 0x0100};
    expected.resize(28, kSilence);
    EXPECT_EQ(words, expected);
}

TEST_F(DsfRecorderTest, InPcmModeItDoesNotStart) {
    EXPECT_EQ(Recorder().Start(Recorder().DeviceId(), proc), kAudioDeviceUnsupportedFormatError);
}

TEST_F(DsfRecorderTest, ItOffersTheFilesRateAlone) {
    PropertyValue formats;

    ASSERT_EQ(Recorder().ReadProperty(Recorder().StreamId(),
                                      test::Global(kAudioStreamPropertyAvailablePhysicalFormats),
                                      formats),
              0);

    EXPECT_EQ(formats.bytes.size(), sizeof(AudioStreamRangedDescription));
}

TEST_F(DsfRecorderTest, AnotherRateThatSomebodyForcesOnItIsTracedAndDoesNotStart) {
    test::TraceCapture trace;
    AudioStreamRangedDescription ranged{};
    ranged.mFormat = Recorder().Format();
    ranged.mFormat.mSampleRate = 176'400.0;
    Recorder().SetFormats({ranged});
    SwitchToDsd();
    ASSERT_EQ(Recorder().WriteProperty(Recorder().StreamId(),
                                       test::Global(kAudioStreamPropertyPhysicalFormat),
                                       sizeof ranged.mFormat, &ranged.mFormat),
              0);

    EXPECT_EQ(Recorder().Start(Recorder().DeviceId(), proc), kAudioHardwareUnspecifiedError);

    EXPECT_THAT(trace.Lines(), ElementsAre(HasSubstr("5644800 samples a second, the recorder is "
                                                     "set to 2822400")));
}

}  // namespace
}  // namespace vorrel
