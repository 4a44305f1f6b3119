// What other people's tools read from the WAV files that a save writes. Where a tool stumbles
// over something that these files are meant to have, the test says what it makes of it.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "InteropRig.h"
#include "support/FileBytes.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kRateHz = 48'000;
constexpr std::size_t kFrames = 4'801;  // one block of a tenth of a second and one frame

const TagMap kLatinTags = {
    {"Title", "AB"}, {"Artist", "An artist"}, {"Alubum", "Record"}, {"AlbumArtist", "Band"}};

/// The samples of a file of that width, worked out from the recording's steps of 2^-15.
Bytes ExpectedSamples(std::uint16_t channels, std::uint16_t bits) {
    Bytes expected;
    for (std::size_t frame = 0; frame < kFrames; ++frame) {
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            const auto step = static_cast<std::uint32_t>(Recording::StepOf(channel, frame));
            for (int zero = 16; zero < bits; zero += 8) {
                expected.push_back(0);
            }
            expected.push_back(static_cast<std::uint8_t>(step));
            expected.push_back(static_cast<std::uint8_t>(step >> 8U));
        }
    }
    return expected;
}

struct Form {
    std::uint16_t channels;
    std::uint16_t bits;

    /// Tags follow an odd number of bytes without a pad.
    bool TagsAreUnaligned() const { return std::size_t{channels} * bits / 8 * kFrames % 2 != 0; }
};

void PrintTo(const Form& form, std::ostream* out) {
    *out << form.channels << " channels of " << form.bits << " bits";
}

class WavInteropTest : public SavedFile, public testing::TestWithParam<Form> {
protected:
    WavInteropTest() : SavedFile("take.wav") {}

    /// Saves the recording; returns the file's path as a word for the shell.
    std::string Save(const TagMap& tags) {
        Recording recording(manager);
        recording.Make(GetParam().channels, kRateHz, kFrames);
        return SaveRecording(recording, {path, 0.0, 1.0, 0.0, tags}, GetParam().bits);
    }
};

TEST_P(WavInteropTest, FfprobeReadsTheFormat) {
    VORREL_NEEDS_TOOL("ffprobe");
    const Form& form = GetParam();
    for (const TagMap& tags : {TagMap(), kLatinTags}) {
        const ToolResult probe = RunTool(
            "ffprobe -v error -of default=noprint_wrappers=1 -show_entries "
            "format=format_name:stream=codec_name,sample_rate,channels,bits_per_sample,duration_"
            "ts " +
            Save(tags) + " 2>&1");

        EXPECT_EQ(probe.exitCode, 0);
        EXPECT_EQ(probe.output,
                  "codec_name=pcm_s" + std::to_string(form.bits) +
                      "le\nsample_rate=48000\nchannels=" + std::to_string(form.channels) +
                      "\nbits_per_sample=" + std::to_string(form.bits) +
                      "\nduration_ts=4801\nformat_name=wav\n");
    }
}

TEST_P(WavInteropTest, FfmpegDecodesTheSamples) {
    VORREL_NEEDS_TOOL("ffmpeg");
    const std::string raw = "s" + std::to_string(GetParam().bits) + "le";
    for (const TagMap& tags : {TagMap(), kJapaneseTags}) {
        const ToolResult decoded =
            RunTool("ffmpeg -v error -i " + Save(tags) + " -c:a pcm_" + raw + " -f " + raw + " -");

        EXPECT_EQ(decoded.exitCode, 0);
        EXPECT_TRUE(ToBytes(decoded.output) ==
                    ExpectedSamples(GetParam().channels, GetParam().bits));
    }
}

TEST_P(WavInteropTest, FfmpegReadsTheTags) {
    VORREL_NEEDS_TOOL("ffmpeg");

    const ToolResult tags =
        RunTool("ffmpeg -v error -i " + Save(kLatinTags) + " -f ffmetadata - 2>&1");

    EXPECT_EQ(tags.exitCode, 0);
    if (GetParam().TagsAreUnaligned()) {
        // It looks for chunks on even positions only, so an odd data chunk hides the tags.
        EXPECT_FALSE(Has(tags.output, "title="));
    } else {
        // LIST/INFO wins over the id3 chunk, and has no album artist.
        EXPECT_TRUE(Has(tags.output, "title=AB\nalbum=Record\nartist=An artist\n"));
        EXPECT_FALSE(Has(tags.output, "album_artist="));
    }
}

TEST_P(WavInteropTest, FfmpegHandsTheShiftJisTextOn) {
    VORREL_NEEDS_TOOL("ffmpeg");

    const ToolResult tags =
        RunTool("ffmpeg -v error -i " + Save(kJapaneseTags) + " -f ffmetadata - 2>/dev/null");

    // INFO has no way to say its encoding, so the bytes come out as they stand in the file.
    EXPECT_EQ(Has(tags.output, "title=\x93\xFA\x96\x7B\x8C\xEA\n"), !GetParam().TagsAreUnaligned());
    EXPECT_EQ(Has(tags.output, "artist=\x87\x40\x89\xCC\x8E\xE8\n"),
              !GetParam().TagsAreUnaligned());
}

TEST_P(WavInteropTest, SoxReadsFormatAndSamples) {
    VORREL_NEEDS_TOOL("sox");
    const std::string bits = std::to_string(GetParam().bits);
    for (const TagMap& tags : {TagMap(), kJapaneseTags}) {
        const std::string file = Save(tags);

        const ToolResult info =
            RunTool("for o in -t -c -r -b -s -e; do sox --info $o " + file + "; done 2>&1");
        // -D: no dither, which would change bits. Its warnings would show on the output.
        const ToolResult decoded =
            RunTool("sox -D " + file + " -t raw -e signed -L -b " + bits + " - 2>&1");

        EXPECT_EQ(info.output, "wav\n" + std::to_string(GetParam().channels) + "\n48000\n" + bits +
                                   "\n4801\nSigned Integer PCM\n");
        EXPECT_EQ(decoded.exitCode, 0);
        EXPECT_TRUE(ToBytes(decoded.output) ==
                    ExpectedSamples(GetParam().channels, GetParam().bits));
    }
}

TEST_P(WavInteropTest, MediainfoReadsFormatAndTags) {
    VORREL_NEEDS_TOOL("mediainfo");
    const std::string file = Save(kJapaneseTags);

    const ToolResult audio = RunTool(
        "mediainfo --Inform='Audio;%Format% %Channel(s)% %SamplingRate% %BitDepth% "
        "%SamplingCount%' " +
        file);
    const ToolResult tags = MediainfoOfTags(file);

    EXPECT_EQ(audio.output, "PCM " + std::to_string(GetParam().channels) + " 48000 " +
                                std::to_string(GetParam().bits) + " 4801\n");
    // It finds the tags behind an odd data chunk too, and takes the texts of the id3 chunk.
    EXPECT_EQ(tags.output, "Wave|日本語|録音|①歌手|楽団\n");
}

TEST_P(WavInteropTest, WavpackPacksAndRestoresTheFile) {
    VORREL_NEEDS_TOOL("wavpack");
    VORREL_NEEDS_TOOL("wvunpack");
    const std::string restored = directory.File("restored.wav");
    const std::string packed = Quoted(directory.File("take.wv"));
    const std::string file = Save(kJapaneseTags);

    const ToolResult pack = RunTool("wavpack -q " + file + " -o " + packed + " 2>&1");
    const ToolResult unpack = RunTool("wvunpack -q " + packed + " -o " + Quoted(restored));

    EXPECT_EQ(pack.exitCode, 0) << pack.output;
    EXPECT_EQ(unpack.exitCode, 0);
    Bytes expected = ReadBytes(path);
    const std::size_t samplesEnd =
        44 + ExpectedSamples(GetParam().channels, GetParam().bits).size();
    ASSERT_GT(expected.size(), samplesEnd);
    // It expects a pad byte behind an odd data chunk and takes the first of the tags, the L of
    // LIST, for it: it warns and writes a zero instead.
    EXPECT_EQ(Has(pack.output, "non-zero padding byte"), GetParam().TagsAreUnaligned());
    if (GetParam().TagsAreUnaligned()) {
        EXPECT_EQ(expected[samplesEnd], 'L');
        expected[samplesEnd] = 0;
    }
    EXPECT_TRUE(ReadBytes(restored) == expected);
}

TEST_P(WavInteropTest, MutagenReadsTheId3Chunk) {
    const Mutagen mutagen("wave", "WAVE");
    if (!mutagen.IsInstalled()) {
        GTEST_SKIP() << "the python module mutagen is missing";
    }

    const ToolResult read = mutagen.Read(Save(kJapaneseTags));

    // It looks for chunks on even positions only, so an odd data chunk hides the tags.
    const std::string tags = GetParam().TagsAreUnaligned()
                                 ? "\n"
                                 : "TALB=録音|1\nTIT2=日本語|1\nTPE1=①歌手|1\nTPE2=楽団|1\n";
    EXPECT_EQ(read.output, std::to_string(GetParam().channels) + " 48000 " +
                               std::to_string(GetParam().bits) + " 4801\n" + tags);
}

INSTANTIATE_TEST_SUITE_P(Forms, WavInteropTest,
                         testing::Values(Form{1, 16}, Form{1, 24}, Form{1, 32}, Form{2, 16},
                                         Form{2, 24}, Form{2, 32}, Form{8, 16}, Form{8, 24},
                                         Form{8, 32}),
                         [](const testing::TestParamInfo<Form>& form) {
                             return std::to_string(form.param.channels) + "Channels" +
                                    std::to_string(form.param.bits) + "Bits";
                         });

}  // namespace
}  // namespace vorrel::test
