#include "device/simulated/AudioFileSource.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "device/simulated/SimulatedFixture.h"
#include "device/simulated/SimulatedRecorderConfig.h"
#include "support/TempDirectory.h"
#include "support/TraceCapture.h"

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
        std::string path = directory.File(name);
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
    EXPECT_THAT(Read(*OpenAudioFileSource(path16, 1, false), 1, 3),
                ElementsAre(32'767 / 32'768.0F, -1.0F, 1 / 32'768.0F));
    EXPECT_THAT(Read(*OpenAudioFileSource(path24, 1, false), 1, 3),
                ElementsAre(8'388'607 / 8'388'608.0F, -1.0F, -1 / 8'388'608.0F));
}

TEST_F(AudioFileSourceTest, EightBitIntegersArriveAsExactFractionsOfFullScale) {
    const std::string path = WriteIntegers("8.wav", SF_FORMAT_PCM_U8, 48'000, 1,
                                           {127 * 16'777'216, -128 * 16'777'216, 16'777'216});

    EXPECT_THAT(Read(*OpenAudioFileSource(path, 1, false), 1, 3),
                ElementsAre(127 / 128.0F, -1.0F, 1 / 128.0F));
}

TEST_F(AudioFileSourceTest, EveryTwentyFourBitIntegerArrivesAsItself) {
    std::vector<int> written;
    for (int value = -8'388'608; value < 8'388'608; value += 97) {
        written.push_back(value);
    }
    std::vector<int> shifted;
    for (const int value : written) {
        shifted.push_back(value * 256);
    }
    const std::string path = WriteIntegers("24.wav", SF_FORMAT_PCM_24, 48'000, 1, shifted);

    const std::vector<float> read = Read(*OpenAudioFileSource(path, 1, false), 1, written.size());

    for (std::size_t i = 0; i < written.size(); ++i) {
        ASSERT_EQ(static_cast<double>(read[i]) * 8'388'608.0, written[i]);
    }
}

TEST_F(AudioFileSourceTest, ALosslesslyCompressedFileIsASource) {
    const std::string path = directory.File("16.flac");
    SF_INFO info{};
    info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    info.samplerate = 48'000;
    info.channels = 1;
    SNDFILE* file = ::sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    const std::vector<int> samples = {32'767 * 65'536, -32'768 * 65'536, 65'536};
    EXPECT_EQ(::sf_write_int(file, samples.data(), 3), 3);
    ::sf_close(file);

    EXPECT_THAT(Read(*OpenAudioFileSource(path, 1, false), 1, 3),
                ElementsAre(32'767 / 32'768.0F, -1.0F, 1 / 32'768.0F));
}

TEST_F(AudioFileSourceTest, CodingsThatAFloatDoesNotCarryExactlyAreRefusedByName) {
    // 16,777,217 = 2^24 + 1 is the first integer that a 32-bit float has not.
    const std::vector<int> samples = {16'777'217};
    const std::pair<std::string, const char*> refused[] = {
        {WriteIntegers("32.wav", SF_FORMAT_PCM_32, 48'000, 1, samples), "32 bit"},
        {WriteIntegers("64.wav", SF_FORMAT_DOUBLE, 48'000, 1, samples), "64 bit float"},
        {WriteIntegers("ulaw.wav", SF_FORMAT_ULAW, 48'000, 1, samples), "U-Law"},
        {WriteIntegers("adpcm.wav", SF_FORMAT_IMA_ADPCM, 48'000, 1, samples), "IMA ADPCM"},
    };
    for (const auto& [path, coding] : refused) {
        AudioFileFacts facts;
        std::string problem;

        EXPECT_FALSE(InspectAudioFile(path, facts, problem)) << path;

        EXPECT_THAT(problem, HasSubstr(path));
        EXPECT_THAT(problem, HasSubstr(coding));
    }
}

TEST_F(AudioFileSourceTest, AFileThatTurnsIntoARefusedOneIsTracedAndNoSource) {
    test::TraceCapture trace;
    const std::string path = WriteIntegers("32.wav", SF_FORMAT_PCM_32, 48'000, 1, {1});

    EXPECT_EQ(OpenAudioFileSource(path, 1, false), nullptr);

    EXPECT_THAT(trace.Lines(), ElementsAre(HasSubstr("bit for bit")));
}

TEST_F(AudioFileSourceTest, ARefusedFileMakesNoRecorderAndTheTraceSaysWhy) {
    test::TraceCapture trace;
    const std::string path = WriteIntegers("32.wav", SF_FORMAT_PCM_32, 48'000, 1, {1});

    const DeviceBackends backends = MakeSimulatedBackends(("source=file:" + path).c_str());

    EXPECT_EQ(backends.audio, nullptr);
    EXPECT_THAT(trace.Lines(), ElementsAre(HasSubstr("bit for bit")));
}

TEST_F(AudioFileSourceTest, AFileAtARateThatTheModelsHostsAreNotOfferedIsTraced) {
    for (const int rateHz : {88'200, 176'400, 352'800}) {
        test::TraceCapture trace;
        const std::string path = WriteFloats("excluded.wav", rateHz, 1, {0.5F});

        const DeviceBackends backends = MakeSimulatedBackends(("source=file:" + path).c_str());

        EXPECT_NE(backends.audio, nullptr);
        ASSERT_EQ(trace.Lines().size(), 1U);
        EXPECT_THAT(trace.Lines()[0], HasSubstr(std::to_string(rateHz) + " Hz is not offered"));
        EXPECT_THAT(trace.Lines()[0], HasSubstr("excluded.wav"));
    }
    test::TraceCapture trace;
    const std::string path = WriteFloats("offered.wav", 96'000, 1, {0.5F});
    EXPECT_NE(MakeSimulatedBackends(("source=file:" + path).c_str()).audio, nullptr);
    EXPECT_TRUE(trace.Lines().empty());
}

TEST_F(AudioFileSourceTest, AFileArrivesAtTheIoProcBitForBit) {
    const std::vector<float> written = {0.0F, -0.0F, 1.0F, -1.0F, 1.5F, -3.25e-30F, 0.1F, 1e-45F};
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::File;
    config.filePath = WriteFloats("float.wav", 96'000, 2, written);
    config.manual = true;
    config.bufferFrames = 14;
    SimulatedBackends backends({config});
    ASSERT_EQ(backends.RecorderCount(), 1U);
    SimulatedRecorder& recorder = backends.Recorder();
    test::Collector collector;
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(
        recorder.CreateIOProcID(recorder.DeviceId(), &test::Collector::Proc, &collector, &proc), 0);
    ASSERT_EQ(recorder.Start(recorder.DeviceId(), proc), 0);

    EXPECT_TRUE(recorder.DeliverBuffer());

    EXPECT_EQ(recorder.Format().mSampleRate, 96'000.0);
    std::vector<float> expected = written;
    expected.resize(28);  // silence behind its end
    const std::vector<float> read = collector.Samples();
    ASSERT_EQ(read.size(), expected.size());
    EXPECT_EQ(std::memcmp(read.data(), expected.data(), read.size() * sizeof(float)), 0);
}

TEST_F(AudioFileSourceTest, ASlowFileKeepsNobodyFromThePropertiesOfItsRecorder) {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::File;
    config.filePath = WriteFloats("slow.wav", 48'000, 1, {0.5F});
    config.manual = true;
    SimulatedBackends backends({config});
    SimulatedRecorder& recorder = backends.Recorder();
    test::Collector collector;
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(
        recorder.CreateIOProcID(recorder.DeviceId(), &test::Collector::Proc, &collector, &proc), 0);
    // A pipe in its place: who opens and reads it waits for this test.
    ASSERT_EQ(::unlink(config.filePath.c_str()), 0);
    ASSERT_EQ(::mkfifo(config.filePath.c_str(), 0600), 0);
    test::TraceCapture trace;
    auto started =
        std::async(std::launch::async, [&] { return recorder.Start(recorder.DeviceId(), proc); });
    const int pipe = ::open(config.filePath.c_str(), O_WRONLY);  // returns when it is being read
    ASSERT_GE(pipe, 0);

    auto asked = std::async(std::launch::async, [&] {
        recorder.Unplug();
        return recorder.BufferFrames();
    });
    EXPECT_EQ(asked.wait_for(std::chrono::seconds(10)), std::future_status::ready);

    ::close(pipe);
    EXPECT_EQ(asked.get(), 512U);
    EXPECT_NE(started.get(), 0);
    EXPECT_FALSE(recorder.IsRunning());
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

TEST_F(AudioFileSourceTest, APipeIsRefusedInsteadOfWaitedFor) {
    ASSERT_EQ(::mkfifo(directory.File("pipe.wav").c_str(), 0600), 0);
    AudioFileFacts facts;
    std::string problem;

    EXPECT_FALSE(InspectAudioFile(directory.File("pipe.wav"), facts, problem));

    EXPECT_THAT(problem, HasSubstr("pipe.wav: no regular file"));
}

TEST_F(AudioFileSourceTest, AFileThatIsGoneOrHasOtherChannelsIsTracedAndNoSource) {
    test::TraceCapture trace;
    const std::string path = WriteFloats("mono.wav", 48'000, 1, {0.5F});

    EXPECT_EQ(OpenAudioFileSource(directory.File("gone.wav"), 1, false), nullptr);
    EXPECT_EQ(OpenAudioFileSource(path, 2, false), nullptr);
    const std::vector<std::string> lines = trace.Lines();

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
