// What other people's tools read from the DSF files that a save writes. Where a tool stumbles over
// something that these files are meant to have, the test says what it makes of it.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "InteropRig.h"
#include "convert/DsdToPcm.h"
#include "convert/PlainGain.h"
#include "support/FileBytes.h"
#include "support/Spectrum.h"

namespace vorrel::test {
namespace {

/// Two blocks of 4,096 bytes and 1,808 bytes of a third.
constexpr std::size_t kBytes = 10'000;
constexpr std::size_t kBlockBytes = 4'096;
constexpr std::size_t kBlocks = 3;

struct Form {
    std::uint16_t channels;
    std::uint64_t rateHz;

    std::string Channels() const { return std::to_string(channels); }
    std::string Rate() const { return std::to_string(rateHz); }
    /// The channel types 8 and 9, which 7 and 8 channels get, are in no table of a reader.
    bool TypeIsUnknown() const { return channels >= 7; }
};

void PrintTo(const Form& form, std::ostream* out) {
    *out << form.channels << " channels at " << form.rateHz << " Hz";
}

class SavedDsf : public SavedFile {
protected:
    SavedDsf() : SavedFile("take.dsf") {}

    /// Saves all of a recording; returns the file's path as a word for the shell.
    std::string SaveAll(Recording& recording, double gain, const TagMap& tags) {
        const double seconds = static_cast<double>(recording.data.GetLength(true)) /
                               static_cast<double>(recording.data.GetSampleRate());
        return SaveRecording(recording, {path, 0.0, seconds, gain, tags});
    }
};

class DsfInteropTest : public SavedDsf, public testing::TestWithParam<Form> {
protected:
    std::string Save(const TagMap& tags) {
        Recording recording(manager);
        recording.Begin(GetParam().channels, GetParam().rateHz, GetSampleTypeInfo(kSampleTypeDsd));
        for (std::uint16_t channel = 0; channel < GetParam().channels; ++channel) {
            std::mt19937 random(channel);
            Bytes bytes(kBytes);
            for (std::uint8_t& byte : bytes) {
                byte = static_cast<std::uint8_t>(random());
            }
            recording.Add(channel, bytes);
        }
        return SaveAll(recording, 0.0, tags);
    }
};

TEST_P(DsfInteropTest, FfprobeReadsTheFormat) {
    VORREL_NEEDS_TOOL("ffprobe");
    for (const TagMap& tags : {TagMap(), kJapaneseTags}) {
        const ToolResult probe = RunTool(
            "ffprobe -v error -of default=noprint_wrappers=1 -show_entries "
            "format=format_name:stream=codec_name,sample_rate,channels " +
            Save(tags) + " 2>&1");

        EXPECT_EQ(probe.exitCode, 0);
        // It counts in bytes, eight samples each.
        EXPECT_EQ(probe.output, "codec_name=dsd_lsbf_planar\nsample_rate=" +
                                    std::to_string(GetParam().rateHz / 8) +
                                    "\nchannels=" + GetParam().Channels() + "\nformat_name=dsf\n");
    }
}

TEST_P(DsfInteropTest, FfprobeReadsTheTags) {
    VORREL_NEEDS_TOOL("ffprobe");

    const ToolResult tags = RunTool(
        "ffprobe -v error -of default=noprint_wrappers=1 -show_entries "
        "format_tags=title,artist,album,album_artist " +
        Save(kJapaneseTags) + " 2>&1");

    EXPECT_EQ(tags.output,
              "TAG:album=録音\nTAG:title=日本語\nTAG:artist=①歌手\nTAG:album_artist=楽団\n");
}

TEST_P(DsfInteropTest, FfmpegFindsTheSamplesAndNoMore) {
    VORREL_NEEDS_TOOL("ffmpeg");
    const std::string file = Save(kJapaneseTags);

    const ToolResult copied =
        RunTool("ffmpeg -v error -i " + file + " -map 0:a -c copy -f data - 2>&1");

    EXPECT_EQ(copied.exitCode, 0);
    // It hands blocks on as they stand, and of the last ones what the sample count says.
    const Bytes bytes = ReadBytes(path);
    Bytes expected;
    for (std::size_t block = 0; block < kBlocks * GetParam().channels; ++block) {
        const bool isLast = block >= (kBlocks - 1) * GetParam().channels;
        const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(92 + block * kBlockBytes);
        expected.insert(expected.end(), first,
                        first + (isLast ? kBytes % kBlockBytes : kBlockBytes));
    }
    EXPECT_EQ(expected.size(), kBytes * GetParam().channels);
    EXPECT_TRUE(ToBytes(copied.output) == expected);
}

TEST_P(DsfInteropTest, MediainfoReadsFormatAndTags) {
    VORREL_NEEDS_TOOL("mediainfo");
    const std::string file = Save(kJapaneseTags);

    const ToolResult audio = RunTool(
        "mediainfo --Inform='Audio;%Format% %Channel(s)% %SamplingRate% %SamplingCount%' " + file);
    const ToolResult tags = MediainfoOfTags(file);

    EXPECT_EQ(audio.output, "DSD " + GetParam().Channels() + " " + GetParam().Rate() + " 80000\n");
    EXPECT_EQ(tags.output, "DSF|日本語|録音|①歌手|楽団\n");
}

TEST_P(DsfInteropTest, WavpackPacksAndRestoresTheFile) {
    VORREL_NEEDS_TOOL("wavpack");
    VORREL_NEEDS_TOOL("wvunpack");
    const std::string restored = directory.File("restored.dsf");
    const std::string packed = Quoted(directory.File("take.wv"));
    const std::string file = Save(kJapaneseTags);

    const ToolResult pack = RunTool("wavpack -q " + file + " -o " + packed + " 2>&1");

    if (GetParam().TypeIsUnknown()) {
        EXPECT_NE(pack.exitCode, 0);
        EXPECT_TRUE(Has(pack.output, "not a valid .DSF file")) << pack.output;
        return;
    }
    EXPECT_EQ(pack.exitCode, 0) << pack.output;
    const ToolResult unpack = RunTool("wvunpack -q " + packed + " -o " + Quoted(restored));
    EXPECT_EQ(unpack.exitCode, 0);
    EXPECT_TRUE(ReadBytes(restored) == ReadBytes(path));
}

TEST_P(DsfInteropTest, MutagenReadsFormatAndTags) {
    const Mutagen mutagen("dsf", "DSF");
    if (!mutagen.IsInstalled()) {
        GTEST_SKIP() << "the python module mutagen is missing";
    }
    const std::string format = GetParam().Channels() + " " + GetParam().Rate() + " 1 80000\n";
    for (const TagMap& tags : {TagMap(), kJapaneseTags}) {
        const ToolResult read = mutagen.Read(Save(tags));

        EXPECT_EQ(read.output, format + (tags.empty() ? "\n"
                                                      : "TALB=録音|1\nTIT2=日本語|1\nTPE1="
                                                        "①歌手|1\nTPE2=楽団|1\n"));
    }
}

std::vector<Form> Forms() {
    std::vector<Form> forms;
    for (const std::uint64_t rateHz : {2'822'400U, 5'644'800U, 11'289'600U}) {
        for (std::uint16_t channels = 1; channels <= 8; ++channels) {
            forms.push_back({channels, rateHz});
        }
    }
    return forms;
}

INSTANTIATE_TEST_SUITE_P(Forms, DsfInteropTest, testing::ValuesIn(Forms()),
                         [](const testing::TestParamInfo<Form>& form) {
                             return form.param.Channels() + "ChannelsAt" + form.param.Rate();
                         });

constexpr double kToneHz = 1'000;
constexpr double kToneLevel = 0.5;

/// The 1 kHz part of `samples`, as amplitude and phase of a sine.
std::complex<double> Tone(const std::vector<float>& samples, std::size_t from, std::size_t to,
                          double rateHz) {
    std::complex<double> sum = 0;
    for (std::size_t i = from; i < to; ++i) {
        const double phase = 2 * std::numbers::pi * kToneHz * static_cast<double>(i) / rateHz;
        sum += static_cast<double>(samples[i]) * std::polar(1.0, -phase);
    }
    return sum * (2.0 / static_cast<double>(to - from));
}

class DsfToneTest : public SavedDsf, public testing::TestWithParam<std::uint64_t> {
protected:
    /// What ffmpeg's decoder makes of `bits`, most significant first, saved with a gain: samples at
    /// an eighth of the rate.
    std::vector<float> Decoded(const Bytes& bits, double gain) {
        Recording recording(manager);
        recording.Begin(1, GetParam(), GetSampleTypeInfo(kSampleTypeDsd));
        recording.Add(0, bits);
        const ToolResult decoded =
            RunTool("ffmpeg -v error -i " + SaveAll(recording, gain, kJapaneseTags) +
                    " -c:a pcm_f32le -f f32le -");
        std::vector<float> samples(decoded.output.size() / sizeof(float));
        std::memcpy(samples.data(), decoded.output.data(), samples.size() * sizeof(float));
        return samples;
    }
    /// The sound of those samples, behind the start of all filters.
    Sound DecodedSound(const Bytes& bits, double gain) {
        const std::vector<float> samples = Decoded(bits, gain);
        EXPECT_GE(samples.size(), kLead + kPoints);
        std::vector<double> measured(kPoints);
        for (std::size_t i = 0; i < kPoints && kLead + i < samples.size(); ++i) {
            measured[i] = static_cast<double>(samples[kLead + i]);
        }
        return MeasureSound(measured, ToneHz(), rateHz / 8);
    }
    double ToneHz() const { return WholePeriods(kToneHz, kPoints, rateHz / 8); }

    static constexpr std::size_t kLead = 4'096;
    static constexpr std::size_t kPoints = 131'072;
    const double rateHz = static_cast<double>(GetParam());
};

TEST_P(DsfToneTest, FfmpegDecodesATonesLevelAndFrequency) {
    VORREL_NEEDS_TOOL("ffmpeg");
    // A quarter of a second and a bit.
    const Bytes bits = ToneBits(GetParam() / 8 * 27 / 100, kToneLevel, kToneHz, rateHz);
    for (const double gain : {0.0, -6.02, -20.0, 3.0}) {
        const std::vector<float> samples = Decoded(bits, gain);
        // Behind the start of all filters: two tenths of a second, 200 periods, in halves.
        const auto tenth = static_cast<std::size_t>(rateHz / 80);
        const std::size_t from = static_cast<std::size_t>(rateHz / 400);
        ASSERT_GE(samples.size(), from + 2 * tenth);

        const std::complex<double> first = Tone(samples, from, from + tenth, rateHz / 8);
        const std::complex<double> second =
            Tone(samples, from + tenth, from + 2 * tenth, rateHz / 8);

        const double decibels = 20 * std::log10(std::abs(first + second) / 2 / kToneLevel);
        EXPECT_NEAR(decibels, gain, 0.02);
        // A tone that is off by 0.01 Hz turns by 0.006 in the tenth of a second between them.
        EXPECT_NEAR(std::arg(second / first), 0.0, 0.006);
    }
}

TEST_P(DsfToneTest, InFfmpegsEarsAToneFallsByTheGainAndItsNoiseIsTheExactModels) {
    VORREL_NEEDS_TOOL("ffmpeg");
    const Bytes bits = ToneBits(kLead + kPoints, kToneLevel, ToneHz(), rateHz);
    constexpr double kGainDecibels = -6.02;

    const Sound before = DecodedSound(bits, 0.0);
    const Sound after = DecodedSound(bits, kGainDecibels);
    const Sound exact =
        DecodedSound(DoublePrecisionGain(std::pow(10.0, kGainDecibels / 20)).Processed(bits), 0.0);

    EXPECT_NEAR(after.toneDecibels - before.toneDecibels, kGainDecibels, 0.01);
    EXPECT_NEAR(after.signalToNoiseDecibels, exact.signalToNoiseDecibels, 1.0);
    EXPECT_GT(after.signalToNoiseDecibels, 112.0);
    RecordProperty("tone", std::to_string(after.toneDecibels - before.toneDecibels));
    RecordProperty("signal_to_noise", std::to_string(after.signalToNoiseDecibels));
    RecordProperty("exact", std::to_string(exact.signalToNoiseDecibels));
}

TEST_P(DsfToneTest, ThePreviewsToneHasTheLevelThatFfmpegFinds) {
    VORREL_NEEDS_TOOL("ffmpeg");
    const Bytes bits = ToneBits(kLead + kPoints, kToneLevel, ToneHz(), rateHz);
    DsdToPcmWorkBuffer work{};
    std::vector<std::int16_t> preview(bits.size() / 8);
    DSD_To_Int16LSB<true>(reinterpret_cast<std::uint8_t*>(preview.data()), bits.data(),
                          preview.size(), &work);
    std::vector<double> samples(kPoints / 8);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = preview[kLead / 8 + i] / 32'767.0;
    }

    const Sound decoded = DecodedSound(bits, 0.0);
    const Sound previewed = MeasureSound(samples, ToneHz(), rateHz / 64);

    // The transform's sums grow with the number of samples.
    EXPECT_NEAR(previewed.toneDecibels + 20 * std::log10(8.0), decoded.toneDecibels, 0.01);
}

INSTANTIATE_TEST_SUITE_P(Rates, DsfToneTest, testing::Values(2'822'400, 5'644'800, 11'289'600),
                         [](const testing::TestParamInfo<std::uint64_t>& rate) {
                             return "At" + std::to_string(rate.param);
                         });

}  // namespace
}  // namespace vorrel::test
