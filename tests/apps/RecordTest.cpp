// The program with the real engine and its simulated recorder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "CliProgram.h"
#include "WavReader.h"
#include "support/SmallVolume.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kCounter = "--simulate=source=counter,speed=20";

class RecordTest : public testing::Test {
protected:
    Process::Setup Record(const std::vector<std::string>& arguments) const {
        return places.Record(VORREL_CLI, arguments);
    }

    /// Expects that the command line is refused with one line, before anything is made.
    void ExpectRefused(const std::vector<std::string>& arguments, int code,
                       const std::string& text) const {
        const std::set<std::string> before = places.Files();
        Process program(Record(arguments));

        EXPECT_EQ(program.Wait(), code);

        EXPECT_THAT(program.Error(), HasSubstr(text));
        EXPECT_THAT(program.Error(), testing::StartsWith("vorrel: "));
        EXPECT_EQ(program.Error().find('\n'), program.Error().size() - 1) << program.Error();
        EXPECT_THAT(Events(program.Out(), "error"), testing::SizeIs(1));
        EXPECT_EQ(places.Files(), before);
        EXPECT_TRUE(places.TempIsEmpty());
    }

    CliPlaces places;
};

TEST_F(RecordTest, EveryWidthAndRateIsSavedFrameForFrame) {
    struct Format {
        const char* rate;
        const char* bits;
        const char* duration;
        std::size_t frames;
    };
    for (const Format& format :
         {Format{"44100", "16", "1.1", 48'510}, Format{"48000", "24", "2.5", 120'000},
          Format{"96000", "32", "0.33333", 32'000}}) {
        const std::string file = places.File(std::string(format.rate) + ".wav");
        Process program(Record({file, kCounter, "--rate", format.rate, "--bits", format.bits,
                                "--duration", format.duration}));

        ASSERT_EQ(program.Wait(), 0) << program.Error();

        const Wav wav = ReadWav(file);
        EXPECT_EQ(wav.rate, std::stoul(format.rate));
        EXPECT_EQ(wav.bits, std::stoul(format.bits));
        EXPECT_EQ(wav.channels, 2U);
        EXPECT_EQ(wav.Frames(), format.frames);
        EXPECT_TRUE(places.TempIsEmpty());
    }
}

TEST_F(RecordTest, TheSamplesAreThoseOfTheRecorderWithoutAGap) {
    Process program(Record({places.File("a.wav"), kCounter, "--duration", "10"}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_EQ(wav.Frames(), 480'000U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
}

TEST_F(RecordTest, ALongRecordingSurvivesItsSpillFiles) {
    Process program(Record({places.File("a.wav"), "--simulate=source=counter,speed=30",
                            "--duration", "30", "--rate", "96000"}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_EQ(wav.Frames(), 2'880'000U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTest, RangesAreStretchesOfTheRecording) {
    Process program(
        Record({places.File("all.wav"), kCounter, "--duration", "2", "--range",
                "0-0:00.5=" + places.File("b.wav"), "--range", "0.5-1.25=" + places.File("c.wav"),
                "--range", "1.25-=" + places.File("d.wav")}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    const std::uint64_t start = CounterStart(ReadWav(places.File("all.wav")));
    const Wav b = ReadWav(places.File("b.wav"));
    const Wav c = ReadWav(places.File("c.wav"));
    const Wav d = ReadWav(places.File("d.wav"));
    EXPECT_EQ(b.Frames(), 24'000U);
    EXPECT_EQ(FirstGap(b, start), b.Frames());
    EXPECT_EQ(c.Frames(), 36'000U);
    EXPECT_EQ(FirstGap(c, start + 24'000), c.Frames());
    EXPECT_EQ(d.Frames(), 36'000U);
    EXPECT_EQ(FirstGap(d, start + 60'000), d.Frames());
}

TEST_F(RecordTest, RangesNeedNoFileForTheWhole) {
    Process program(
        Record({kCounter, "--duration", "1", "--range", "0.5-1=" + places.File("b.wav")}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_THAT(places.Files(), ElementsAre("b.wav"));
}

TEST_F(RecordTest, GainIsAppliedToTheSavedSamples) {
    Process plain(
        Record({places.File("a.wav"), "--simulate=source=tone,speed=20", "--duration", "1"}));
    Process halved(Record({places.File("b.wav"), "--simulate=source=tone,speed=20", "--duration",
                           "1", "--gain", "-6.0206"}));

    ASSERT_EQ(plain.Wait(), 0);
    ASSERT_EQ(halved.Wait(), 0);

    const auto peak = [](const Wav& wav) {
        std::int32_t highest = 0;
        for (const std::int32_t sample : wav.samples) {
            highest = std::max(highest, std::abs(sample));
        }
        return static_cast<double>(highest);
    };
    EXPECT_NEAR(peak(ReadWav(places.File("b.wav"))) / peak(ReadWav(places.File("a.wav"))), 0.5,
                1e-3);
}

TEST_F(RecordTest, TagsStandInTheFile) {
    Process program(Record({places.File("a.wav"), kCounter, "--duration", "0.5", "--title", "Dawn",
                            "--artist", "Nobody", "--album", "Morning", "--album-artist", "All"}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    const Wav wav = ReadWav(places.File("a.wav"));
    const Bytes& list = wav.otherChunks.at("LIST");
    const std::string info(list.begin(), list.end());
    EXPECT_THAT(info, HasSubstr("Dawn"));
    EXPECT_THAT(info, HasSubstr("Nobody"));
    EXPECT_THAT(info, HasSubstr("Morning"));
    const Bytes& id3 = wav.otherChunks.at("id3 ");
    EXPECT_THAT(std::string(id3.begin(), id3.end()), HasSubstr("TPE2"));
}

TEST_F(RecordTest, ASignalStopsAndSavesAllThatWasRecorded) {
    Process program(Record({places.File("a.wav"), kCounter}));
    ASSERT_TRUE(program.AwaitOut("\"seconds\":1.0"));

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_GE(wav.Frames(), 48'000U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTest, SpaceCutsAStretchOut) {
    Process::Setup setup = Record({places.File("a.wav"), kCounter});
    setup.terminal = true;
    Process program(setup);
    ASSERT_TRUE(program.AwaitOut("\"seconds\":1.0"));
    ASSERT_TRUE(program.Type(" "));
    ASSERT_TRUE(program.AwaitOut("\"paused\""));
    ASSERT_TRUE(program.AwaitOut("\"level\""));
    ASSERT_TRUE(program.AwaitOut("\"level\""));
    ASSERT_TRUE(program.Type(" "));
    ASSERT_TRUE(program.AwaitOut("\"recording\""));
    ASSERT_TRUE(AwaitAdvance(program, 1.0));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_TRUE(program.TerminalRestored());
    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_LT(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTest, AnUnpluggedRecorderSavesWhatCameBefore) {
    Process program(Record({places.File("a.wav"), "--simulate=source=counter,speed=20,unplug=40"}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(program.Error(), HasSubstr("lost"));
    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_GT(wav.Frames(), 0U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTest, AFullDiskEndsTheRecordingAndSavesIt) {
    const SmallVolume volume(8 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process::Setup setup;
    setup.arguments = {VORREL_CLI,
                       "record",
                       places.File("a.wav"),
                       "--simulate=source=counter,speed=20",
                       "--temp-dir",
                       volume.File(""),
                       "--json"};
    Process program(setup);

    EXPECT_EQ(program.Wait(), 3);

    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_GT(wav.Frames(), 0U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_TRUE(std::filesystem::is_empty(volume.File("")));
}

TEST_F(RecordTest, ATargetVolumeTooSmallForTheRecordingEndsItWhileItStillFits) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    // 288,000 bytes a second: 4 MiB are full after 14.5 s.
    Process program(Record({volume.File("a.wav"), "--simulate=source=counter,speed=5"}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("disk is full"));
    const Wav wav = ReadWav(volume.File("a.wav"));
    EXPECT_GT(wav.Frames(), 48'000U * 5);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTest, ALimitOfFileSizeEndsTheRecordingAndSavesIt) {
    // 512 KiB, in blocks of 512 bytes: less than what the engine spills at once, 960,000 bytes of
    // each channel.
    Process program(After("ulimit -f 1024", Record({places.File("a.wav"), kCounter})));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("the recording ends when about 00:02.7 are stored"));
    EXPECT_THAT(program.Error(), HasSubstr("File too large"));
    std::uint64_t next = 0;
    std::uint64_t frames = 0;
    for (std::size_t part = 0; part < places.Files().size(); ++part) {
        const Wav wav =
            ReadWav(places.File(part == 0 ? "a.wav" : "a-" + std::to_string(part + 1) + ".wav"));
        next = part == 0 ? CounterStart(wav) : next;
        EXPECT_EQ(FirstGap(wav, next), wav.Frames());
        next += wav.Frames();
        frames += wav.Frames();
    }
    EXPECT_GE(frames, 48'000U * 5 - 4'800);
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTest, ALimitOfFileSizeIsSaidBeforeTheStartAndPlannedFor) {
    // 204,800 bytes; no file of the engine's comes to be in three seconds.
    Process pcm(After("ulimit -f 400", Record({places.File("a.wav"), kCounter, "--duration", "3",
                                               "--range", "0-2=" + places.File("b.wav")})));
    // 512,000 bytes: 62 blocks of both channels, the tags' bound taken off.
    Process dsd(
        After("ulimit -f 1000", Record({places.File("a.dsf"), "--simulate=source=counter,speed=5",
                                        "--type", "dsd", "--duration", "1"})));

    EXPECT_EQ(pcm.Wait(), 5);
    EXPECT_EQ(dsd.Wait(), 0) << dsd.Error();

    const std::string warning = "a.wav would pass the 204800 bytes that a file in " +
                                places.FilesPath() +
                                "/ can have (00:00.7 at this format); it "
                                "will be saved in parts";
    EXPECT_LT(pcm.Error().find(warning), pcm.Error().find("saving it in parts")) << pcm.Error();
    EXPECT_THAT(pcm.Error(), HasSubstr("b.wav would pass the 204800 bytes"));
    EXPECT_EQ(Events(pcm.Out(), "skipped").at(0).at("file"), places.File("b.wav"));
    EXPECT_THAT(dsd.Error(), HasSubstr("a.dsf would pass the 512000 bytes"));
    EXPECT_THAT(places.Files(), ElementsAre("a-2.dsf", "a-2.wav", "a-3.wav", "a-4.wav", "a-5.wav",
                                            "a.dsf", "a.wav"));
    std::uint64_t next = CounterStart(ReadWav(places.File("a.wav")));
    for (const char* name : {"a.wav", "a-2.wav", "a-3.wav", "a-4.wav", "a-5.wav"}) {
        const Wav wav = ReadWav(places.File(name));
        EXPECT_EQ(FirstGap(wav, next), wav.Frames()) << name;
        next += wav.Frames();
    }
    EXPECT_EQ(LittleEndian(ReadBytes(places.File("a.dsf")), 64, 8), 62U * 32'768U);
    EXPECT_EQ(LittleEndian(ReadBytes(places.File("a-2.dsf")), 64, 8), 2'822'400U - 62U * 32'768U);
}

TEST_F(RecordTest, WhatCannotBeDoneIsSaidBeforeTheRecording) {
    std::ofstream(places.File("old.wav")) << "old";
    const std::string file = places.File("a.wav");

    ExpectRefused({places.File("old.wav"), kCounter}, 1, "--force");
    ExpectRefused({places.File("none/a.wav"), kCounter}, 1,
                  "there is no directory " + places.File("none"));
    ExpectRefused({"/proc/a.wav", kCounter}, 1, "cannot be written");
    ExpectRefused({file, kCounter, "--rate", "47999"}, 1, "44100, 48000, 96000, 192000, 384000");
    ExpectRefused({file, kCounter, "--bits", "20"}, 1, "--bits");
    ExpectRefused({file, kCounter, "--type", "dsd"}, 1, "*.dsf");
    ExpectRefused({places.File("a.dsf"), kCounter}, 1, "*.wav");
    ExpectRefused({places.File("a.dsf"), kCounter, "--type", "dsd", "--rate", "48000"}, 1,
                  "2822400, 5644800, 11289600");
    ExpectRefused({places.File("a.dsf"), "--simulate=dsd=0", "--type", "dsd"}, 2, "no DSD rate");
    ExpectRefused({file, kCounter, "--device", "kd-wv770"}, 2, "KD-WV770");
    ExpectRefused({file, kCounter, "--range", "0-1=" + file}, 1, "twice");
    ExpectRefused({kCounter, "--range", "0-1=" + file, "--range", "1-2=" + places.File("./a.wav")},
                  1, "twice");
    ExpectRefused({file, kCounter, "--duration", "0.000001"}, 1, "--duration");
    EXPECT_EQ(ReadBytes(places.File("old.wav")), ToBytes("old"));
}

TEST_F(RecordTest, AMissingTemporaryDirectoryIsSaidBeforeTheRecording) {
    Process::Setup setup;
    setup.arguments = {VORREL_CLI, "record",     places.File("a.wav"),
                       kCounter,   "--temp-dir", places.File("none")};
    Process program(setup);

    EXPECT_EQ(program.Wait(), 1);

    EXPECT_EQ(program.Error(),
              "vorrel: --temp-dir " + places.File("none") + ": there is no such directory\n");
    EXPECT_THAT(places.Files(), IsEmpty());
}

TEST_F(RecordTest, AnImpossibleSimulationIsAUsageError) {
    Process program(Record({places.File("a.wav"), "--simulate=source=bogus"}));

    EXPECT_EQ(program.Wait(), 1);

    EXPECT_THAT(program.Error(), HasSubstr("vorrel: --simulate=source=bogus is not possible: "));
    EXPECT_THAT(program.Error(), HasSubstr("bogus"));
    EXPECT_EQ(program.Error().find('\n'), program.Error().size() - 1) << program.Error();
    EXPECT_THAT(Events(program.Out(), "error").at(0).at("message").get<std::string>().size(),
                testing::Gt(std::string("--simulate=source=bogus is not possible: ").size()));
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTest, ABackendThatIsNamedAndMissingIsADeviceErrorWithItsReason) {
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"devices"}, {"info"}, {"record", places.File("a.wav")}}) {
        Process::Setup setup;
        setup.arguments = {VORREL_CLI};
        setup.arguments.insert(setup.arguments.end(), command.begin(), command.end());
        setup.environment["VORREL_BACKEND"] = "bogus";
        Process unknown(setup);
        setup.environment["VORREL_BACKEND"] = "simulated";
        setup.environment["VORREL_SIMULATED"] = "nonsense";
        Process impossible(setup);

        EXPECT_EQ(unknown.Wait(), 2) << command[0];
        EXPECT_EQ(impossible.Wait(), 2) << command[0];

        EXPECT_THAT(unknown.Error(),
                    HasSubstr("there is no recorder: no device back end is called \"bogus\""));
        EXPECT_THAT(impossible.Error(), HasSubstr("nonsense"));
        EXPECT_THAT(unknown.Error(), testing::StartsWith("vorrel: "));  // and no trace line
    }
    EXPECT_THAT(places.Files(), IsEmpty());
}

TEST_F(RecordTest, WithoutATempDirTheOneOfTheEnvironmentIsUsed) {
    // The cache directory, or where none can be had, the one for temporary files.
    for (const bool cache : {true, false}) {
        Process::Setup setup;
        setup.arguments = {VORREL_CLI, "record",  places.File("a.wav"),
                           kCounter,   "--force", "--json"};
        setup.environment["HOME"] = "/proc";
        setup.environment["XDG_CACHE_HOME"] = cache ? places.TempPath() : "relative";
        setup.environment["TMPDIR"] = cache ? "/proc" : places.TempPath();
        Process program(setup);
        ASSERT_TRUE(program.AwaitOut("\"position\"")) << program.Error();
        EXPECT_FALSE(places.TempIsEmpty());

        program.Send(SIGTERM);

        EXPECT_EQ(program.Wait(), 0);
        const std::string ours = places.TempFile("vorrel");
        EXPECT_EQ(std::filesystem::exists(ours), cache);
        if (cache) {
            EXPECT_TRUE(std::filesystem::is_empty(ours));
            std::filesystem::remove(ours);
        }
        EXPECT_TRUE(places.TempIsEmpty());
    }
}

TEST_F(RecordTest, ForceReplacesTheFile) {
    std::ofstream(places.File("a.wav")) << "old";
    Process program(Record({places.File("a.wav"), kCounter, "--duration", "0.5", "--force"}));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 24'000U);
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
}

/// Expects a whole DSF file. @return Its payload, channels in blocks.
Bytes ReadDsf(const std::string& path, std::uint64_t rate, std::uint64_t frames) {
    Bytes bytes = ReadBytes(path);
    if (bytes.size() < 92) {
        ADD_FAILURE() << path << " is no DSF file";
        return {};
    }
    EXPECT_EQ(LittleEndian(bytes, 0, 4), Id("DSD ")) << path;
    EXPECT_EQ(LittleEndian(bytes, 12, 8), bytes.size()) << path;
    EXPECT_EQ(LittleEndian(bytes, 56, 4), rate) << path;
    EXPECT_EQ(LittleEndian(bytes, 64, 8), frames) << path;
    const std::uint64_t payload = LittleEndian(bytes, 84, 8) - 12;
    EXPECT_EQ(payload, 2 * ((frames / 8 + 4'095) / 4'096 * 4'096)) << path;
    return Bytes(bytes.begin() + 92, bytes.begin() + 92 + static_cast<std::ptrdiff_t>(payload));
}

TEST_F(RecordTest, EveryDsdRateIsSavedBitForBit) {
    for (const std::uint64_t rate : {2'822'400U, 5'644'800U, 11'289'600U}) {
        const std::string file = places.File(std::to_string(rate) + ".dsf");
        Process program(Record({file, "--type", "dsd", "--rate", std::to_string(rate),
                                "--simulate=source=silence,speed=5", "--duration", "0.5"}));

        ASSERT_EQ(program.Wait(), 0) << program.Error();

        const Bytes payload = ReadDsf(file, rate, rate / 2);
        // 0x69 with its bits in reverse order, the earliest lowest, and zeros up to the last block.
        const std::uint64_t bytes = rate / 2 / 8;
        for (std::uint64_t at = 0; at < payload.size(); ++at) {
            const std::uint64_t unit = at / 8'192 * 4'096 + at % 4'096;
            ASSERT_EQ(payload[at], unit < bytes ? 0x96 : 0x00) << at;
        }
        EXPECT_TRUE(places.TempIsEmpty());
    }
}

TEST_F(RecordTest, DsdRangesAreStretchesOfTheRecordingAndCarryTags) {
    Process program(Record({places.File("all.dsf"), "--type", "dsd",
                            "--simulate=source=noise,speed=10", "--duration", "1", "--title",
                            "Dawn", "--range", "0.25-0.75=" + places.File("b.dsf"), "--range",
                            "0.333333-=" + places.File("c.dsf")}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    const Bytes all = ReadDsf(places.File("all.dsf"), 2'822'400, 2'822'400);
    const Bytes b = ReadDsf(places.File("b.dsf"), 2'822'400, 1'411'200);
    // 0.333333 x 352,800 = 117,599.9 bytes
    const Bytes c = ReadDsf(places.File("c.dsf"), 2'822'400, 2'822'400 - 117'600 * 8);
    const auto byteOf = [](const Bytes& payload, std::uint64_t channel, std::uint64_t unit) {
        return payload.at(unit / 4'096 * 8'192 + channel * 4'096 + unit % 4'096);
    };
    for (std::uint64_t channel = 0; channel < 2; ++channel) {
        for (std::uint64_t unit = 0; unit < 176'400; ++unit) {
            ASSERT_EQ(byteOf(b, channel, unit), byteOf(all, channel, 88'200 + unit)) << unit;
            ASSERT_EQ(byteOf(c, channel, unit), byteOf(all, channel, 117'600 + unit)) << unit;
        }
    }
    const Bytes whole = ReadBytes(places.File("b.dsf"));
    const std::uint64_t tag = LittleEndian(whole, 20, 8);
    ASSERT_EQ(tag, 92 + b.size());
    EXPECT_EQ(LittleEndian(whole, tag, 3), Id("ID3"));
}

TEST_F(RecordTest, ADsdRecordingWithPausesIsSavedToItsEnd) {
    Process::Setup setup =
        Record({places.File("a.dsf"), "--type", "dsd", "--simulate=source=noise,speed=4"});
    setup.terminal = true;
    Process program(setup);
    for (int pause = 0; pause < 3; ++pause) {
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        ASSERT_TRUE(program.Type(" "));
        ASSERT_TRUE(program.AwaitOut("\"paused\""));
        ASSERT_TRUE(program.AwaitOut("\"level\""));
        ASSERT_TRUE(program.Type(" "));
        ASSERT_TRUE(program.AwaitOut("\"recording\""));
    }
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    double last = 0.0;
    for (const nlohmann::json& position : Events(program.Out(), "position")) {
        last = position.at("seconds");
    }
    const nlohmann::json saved = Events(program.Out(), "saved").at(0);
    EXPECT_GE(saved.at("seconds").get<double>(), last - 1e-9);
    EXPECT_LT(saved.at("seconds").get<double>(), last + 0.1);
    ReadDsf(places.File("a.dsf"), 2'822'400, saved.at("frames").get<std::uint64_t>());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTest, ALongDsdRecordingSurvivesItsSpillFiles) {
    Process program(Record({places.File("a.dsf"), "--type", "dsd",
                            "--simulate=source=silence,speed=20", "--duration", "12"}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    ReadDsf(places.File("a.dsf"), 2'822'400, 12 * 2'822'400);
    EXPECT_TRUE(places.TempIsEmpty());
}

Process::Setup Ask(const std::vector<std::string>& arguments) {
    Process::Setup setup;
    setup.arguments = arguments;
    return setup;
}

TEST(InfoTest, DevicesAreListedByName) {
    Process people(Ask({VORREL_CLI, "devices", "--simulate=recorders=2"}));
    Process programs(Ask({VORREL_CLI, "devices", "--simulate", "--json"}));

    EXPECT_EQ(people.Wait(), 0);
    EXPECT_EQ(programs.Wait(), 0);

    EXPECT_EQ(people.Out(), "KD-WV770\nKD-WV770\n");
    EXPECT_EQ(Events(programs.Out(), "device").at(0).at("device"), "KD-WV770");
}

TEST(InfoTest, ARecorderTellsWhatItCanDo) {
    Process people(Ask({VORREL_CLI, "info", "--simulate"}));
    Process programs(Ask({VORREL_CLI, "info", "--simulate", "--json", "--device", "KD-WV770"}));

    EXPECT_EQ(people.Wait(), 0);
    EXPECT_EQ(programs.Wait(), 0);

    EXPECT_THAT(people.Out(), HasSubstr("384000 Hz"));
    const nlohmann::json info = Events(programs.Out(), "info").at(0);
    EXPECT_EQ(info.at("device"), "KD-WV770");
    EXPECT_EQ(info.at("input_channels"), 2);
    // The model does not offer 88,200, 176,400 and 352,800 Hz.
    EXPECT_EQ(info.at("pcm_rates_hz"), nlohmann::json({44100, 48000, 96000, 192000, 384000}));
    EXPECT_EQ(info.at("dsd_rates_hz"), nlohmann::json({2822400, 5644800, 11289600}));
}

TEST(DoctorCommandTest, TheSimulatedRecorderIsSound) {
    const CliPlaces places;
    Process people(Ask({VORREL_CLI, "doctor", "--simulate", "--temp-dir", places.TempPath()}));
    const int exitCode = people.Wait();
    Process programs(
        Ask({VORREL_CLI, "doctor", "--simulate", "--json", "--temp-dir", places.TempPath()}));
    programs.Wait();

    EXPECT_THAT(people.Out(), HasSubstr("ok      engine: the simulated KD-WV770 can be used"));
    std::set<std::string> topics;
    bool slowOrFull = false;  // the disk under the test may be: that is the one sound problem
    for (const nlohmann::json& check : Events(programs.Out(), "check")) {
        const bool problem = check.at("verdict") == "problem";
        EXPECT_TRUE(!problem || check.at("topic") == "storage") << check;
        slowOrFull = slowOrFull || problem;
        topics.insert(check.at("topic"));
    }
    EXPECT_THAT(topics,
                testing::IsSupersetOf({"recorder", "engine", "scheduling", "memory", "storage"}));
    EXPECT_EQ(Events(programs.Out(), "finish").at(0).at("exit_code"), slowOrFull ? 3 : 0);
    EXPECT_THAT(exitCode, testing::AnyOf(0, slowOrFull ? 3 : 0));
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST(DoctorCommandTest, ARecorderThatRefusesIsADeviceProblem) {
    Process program(Ask({VORREL_CLI, "doctor", "--simulate", "--device", "other"}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(program.Out(), HasSubstr("PROBLEM engine: no recorder is called \"other\""));
}

TEST(DoctorCommandTest, AMissingPlaceIsAUsageError) {
    Process program(Ask({VORREL_CLI, "doctor", "--simulate", "--temp-dir", "/no/such/place"}));

    EXPECT_EQ(program.Wait(), 1);

    EXPECT_THAT(program.Error(), HasSubstr("there is no such directory"));
}

TEST(InfoTest, AnUnknownRecorderIsADeviceError) {
    Process program(Ask({VORREL_CLI, "info", "--simulate", "--device", "other"}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(program.Error(), HasSubstr("there is: KD-WV770"));
}

}  // namespace
}  // namespace vorrel::test
