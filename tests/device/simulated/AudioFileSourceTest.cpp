#include "device/simulated/AudioFileSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstring>
#include <string>
#include <vector>

#include "device/simulated/SimulatedRecorderConfig.h"
#include "platform/TraceSink.h"
#include "support/TempDirectory.h"

namespace vorrel {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class AudioFileSourceTest : public testing::Test {
protected:
    /// Writes interleaved 32-bit integers, of which the file keeps the upper bits.
    std::string WriteIntegers(const char* name, int subtype, int rateHz, int channels,
                              const std::vector<int>& samples) {
        return Write(name, SF_FORMAT_WAV | subtype, rateHz, channels, [&](SNDFILE* file) {
            return ::sf_write_int(file, samples.data(), static_cast<sf_count_t>(samples.size()));
        });
    }
    std::string WriteFloats(const char* name, int rateHz, int channels,
                            const std::vector<float>& samples) {
        return Write(name, SF_FORMAT_WAV | SF_FORMAT_FLOAT, rateHz, channels, [&](SNDFILE* file) {
            return ::sf_write_float(file, samples.data(), static_cast<sf_count_t>(samples.size()));
        });
    }

    static std::vector<float> Read(SampleSource& source, std::size_t channels, std::size_t frames) {
        std::vector<float> samples(frames * channels);
        source.Read(samples.data(), frames);
        return samples;
    }

    test::TempDirectory directory;

private:
    template <class Writer>
    std::string Write(const char* name, int format, int rateHz, int channels, Writer write) {
        const std::string path = directory.File(name);
        SF_INFO info{};
        info.format = format;
        info.samplerate = rateHz;
        info.channels = channels;
        SNDFILE* file = ::sf_open(path.c_str(), SFM_WRITE, &info);
        EXPECT_NE(file, nullptr) << path;
        EXPECT_GE(write(file), 0);
        ::sf_close(file);
        return path;
    }
};

TEST_F(AudioFileSourceTest, FloatsArriveBitForBit) {
    std::vector<float> written = {0.0F, -0.0F, 1.0F, -1.0F, 1.5F, -3.25e-30F, 0.1F, 1e-45F};
    const std::string path = WriteFloats("float.wav", 96'000, 2, written);

    const auto source = OpenAudioFileSource(path, 2, false);
    const std::vector<float> read = Read(*source, 2, 4);

    EXPECT_EQ(std::memcmp(read.data(), written.data(), written.size() * sizeof(float)), 0);
}

TEST_F(AudioFileSourceTest, IntegersArriveAsExactFractionsOfFullScale) {
    const std::string path16 = WriteIntegers("16.wav", SF_FORMAT_PCM_16, 48'000, 1,
                                             {32'767 * 65'536, -32'768 * 65'536, 65'536});
    const std::string path24 = WriteIntegers("24.wav", SF_FORMAT_PCM_24, 48'000, 1,
                                             {8'388'607 * 256, -8'388'608 * 256, -256});
    const std::string path32 =
        WriteIntegers("32.wav", SF_FORMAT_PCM_32, 48'000, 1, {1 << 30, -2'147'483'647 - 1, 1});

    EXPECT_THAT(Read(*OpenAudioFileSource(path16, 1, false), 1, 3),
                ElementsAre(32'767 / 32'768.0F, -1.0F, 1 / 32'768.0F));
    EXPECT_THAT(Read(*OpenAudioFileSource(path24, 1, false), 1, 3),
                ElementsAre(8'388'607 / 8'388'608.0F, -1.0F, -1 / 8'388'608.0F));
    EXPECT_THAT(Read(*OpenAudioFileSource(path32, 1, false), 1, 3),
                ElementsAre(0.5F, -1.0F, 1 / 2'147'483'648.0F));
}

TEST_F(AudioFileSourceTest, AfterItsEndComesSilence) {
    const auto source =
        OpenAudioFileSource(WriteFloats("short.wav", 48'000, 1, {0.25F, 0.5F}), 1, false);

    EXPECT_THAT(Read(*source, 1, 4), ElementsAre(0.25F, 0.5F, 0.0F, 0.0F));
    EXPECT_THAT(Read(*source, 1, 2), ElementsAre(0.0F, 0.0F));
}

TEST_F(AudioFileSourceTest, ALoopBeginsAgainInTheMiddleOfABuffer) {
    const auto source =
        OpenAudioFileSource(WriteFloats("loop.wav", 48'000, 1, {0.25F, 0.5F, 0.75F}), 1, true);

    EXPECT_THAT(Read(*source, 1, 8),
                ElementsAre(0.25F, 0.5F, 0.75F, 0.25F, 0.5F, 0.75F, 0.25F, 0.5F));
    EXPECT_THAT(Read(*source, 1, 1), ElementsAre(0.75F));
    EXPECT_THAT(Read(*source, 1, 3), ElementsAre(0.25F, 0.5F, 0.75F));
}

TEST_F(AudioFileSourceTest, ALoopOverAnEmptyFileIsSilence) {
    const auto source = OpenAudioFileSource(WriteFloats("empty.wav", 48'000, 1, {}), 1, true);

    EXPECT_THAT(Read(*source, 1, 2), ElementsAre(0.0F, 0.0F));
}

TEST_F(AudioFileSourceTest, AFileThatIsGoneOrHasOtherChannelsIsTracedAndNoSource) {
    std::vector<std::string> lines;
    SetTraceSink([&lines](const std::string& line) { lines.push_back(line); });
    const std::string path = WriteFloats("mono.wav", 48'000, 1, {0.5F});

    EXPECT_EQ(OpenAudioFileSource(directory.File("gone.wav"), 1, false), nullptr);
    EXPECT_EQ(OpenAudioFileSource(path, 2, false), nullptr);
    SetTraceSink({});

    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0], HasSubstr("gone.wav"));
    EXPECT_THAT(lines[1], HasSubstr("mono.wav"));
}

TEST_F(AudioFileSourceTest, TheFileDecidesChannelsAndRateAndThereIsNoDsdMode) {
    const std::string path = WriteFloats("three=a:b.wav", 88'200, 3, {0.0F, 0.0F, 0.0F});
    std::vector<SimulatedRecorderConfig> configs;
    std::string problem;

    ASSERT_TRUE(
        ParseSimulatedConfiguration(("source=file:" + path + ",loop=1").c_str(), configs, problem))
        << problem;

    EXPECT_EQ(configs[0].filePath, path);
    EXPECT_EQ(configs[0].channels, 3U);
    EXPECT_THAT(configs[0].pcmRatesHz, ElementsAre(88'200.0));
    EXPECT_FALSE(configs[0].dsd);
    EXPECT_TRUE(configs[0].loop);
}

TEST_F(AudioFileSourceTest, OtherChannelsThanTheFilesAreRefused) {
    const std::string path = WriteFloats("mono.wav", 48'000, 1, {0.5F});
    std::vector<SimulatedRecorderConfig> configs;
    std::string problem;

    EXPECT_FALSE(
        ParseSimulatedConfiguration(("channels=2,source=file:" + path).c_str(), configs, problem));
    EXPECT_THAT(problem, HasSubstr("has 1 channels, not 2"));
    EXPECT_TRUE(
        ParseSimulatedConfiguration(("channels=1,source=file:" + path).c_str(), configs, problem));
}

TEST_F(AudioFileSourceTest, AFileOfARateThatTheRecorderHasNotIsRefused) {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::File;
    config.filePath = WriteFloats("low.wav", 22'050, 1, {0.5F});
    std::string problem;

    EXPECT_FALSE(CompleteConfig(config, problem));
    EXPECT_THAT(problem, HasSubstr("low.wav"));
}

TEST_F(AudioFileSourceTest, AFileOfMoreThanEightChannelsIsRefused) {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::File;
    config.filePath = WriteFloats("nine.wav", 48'000, 9, std::vector<float>(9));
    std::string problem;

    EXPECT_FALSE(CompleteConfig(config, problem));
}

}  // namespace
}  // namespace vorrel
