// Marks, splits and pictures: the program with the engine and its simulated recorder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "CliProgram.h"
#include "WavReader.h"
#include "support/Tool.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kCounter = "--simulate=source=counter,speed=20";

class RecordTracksTest : public testing::Test {
protected:
    Process::Setup Record(const std::vector<std::string>& arguments) const {
        return places.Record(VORREL_CLI, arguments);
    }

    /// Expects that the files continue each other without a lost or doubled frame.
    void ExpectGapless(const std::vector<std::string>& names) const {
        std::uint64_t next = CounterStart(ReadWav(places.File(names.front())));
        for (const std::string& name : names) {
            const Wav wav = ReadWav(places.File(name));
            EXPECT_GT(wav.Frames(), 0U) << name;
            EXPECT_EQ(FirstGap(wav, next), wav.Frames()) << name;
            next += wav.Frames();
        }
    }

    /// Reads on until the recording stands well past the last mark: what is told at first may be of
    /// before it.
    static bool AwaitPastMark(Process& program) {
        if (!program.AwaitOut("}\n")) {
            return false;
        }
        const std::string lines = program.Out().substr(0, program.Out().rfind('\n') + 1);
        const double mark = Events(lines, "mark").back().at("seconds").get<double>();
        return AwaitPosition(program, mark + 2.0);
    }

    /// The samples of a DSF file, without its padding at the end.
    Bytes DsfPayload(const std::string& name) const {
        const Bytes bytes = ReadBytes(places.File(name));
        return Bytes(bytes.begin() + 92, bytes.end());
    }

    CliPlaces places;
};

TEST_F(RecordTracksTest, SplitsJoinToTheWholeWithoutAGap) {
    Process program(Record({places.File("a.wav"), kCounter, "--duration", "4", "--split-at",
                            "1,2.33333,3.9", "--range", "0-=" + places.File("all.wav")}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_THAT(places.Files(),
                ElementsAre("a-01.wav", "a-02.wav", "a-03.wav", "a-04.wav", "all.wav"));
    ExpectGapless({"a-01.wav", "a-02.wav", "a-03.wav", "a-04.wav"});
    EXPECT_EQ(ReadWav(places.File("a-01.wav")).Frames(), 48'000U);
    EXPECT_EQ(ReadWav(places.File("a-02.wav")).Frames(), 64'000U);
    EXPECT_EQ(ReadWav(places.File("a-04.wav")).Frames(), 4'800U);
    EXPECT_EQ(ReadWav(places.File("all.wav")).Frames(), 192'000U);
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTracksTest, DsdSplitsMeetAtWholeBlocksAndAreToldToMove) {
    Process program(Record({places.File("a.dsf"), "--type", "dsd",
                            "--simulate=source=counter,speed=5", "--duration", "2", "--split-at",
                            "0.5,1.25", "--range", "0-=" + places.File("all.dsf")}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    // 43.07 and 107.67 blocks of 11.6 ms.
    EXPECT_THAT(program.Error(), HasSubstr("cut at 00:00.5, moved by 1 ms to where blocks of a"));
    EXPECT_THAT(program.Error(), HasSubstr("cut at 00:01.2, moved by 4 ms to where"));
    Bytes joined;
    for (const char* name : {"a-01.dsf", "a-02.dsf", "a-03.dsf"}) {
        const Bytes part = DsfPayload(name);
        joined.insert(joined.end(), part.begin(), part.end());
    }
    EXPECT_EQ(joined, DsfPayload("all.dsf"));
    // 0.5 s are 1,411,200 bits: 43.07 blocks.
    EXPECT_EQ(LittleEndian(ReadBytes(places.File("a-01.dsf")), 64, 8), 43U * 32'768U);
}

TEST_F(RecordTracksTest, AMarkCutsWhereTheRecordingStands) {
    Process::Setup setup = Record({places.File("a.wav"), kCounter});
    setup.terminal = true;
    Process program(setup);
    ASSERT_TRUE(AwaitPosition(program, 1.0));
    ASSERT_TRUE(program.Type("m"));
    ASSERT_TRUE(program.AwaitOut("\"mark\",\"number\":1"));
    ASSERT_TRUE(AwaitPastMark(program));
    ASSERT_TRUE(program.Type("m"));
    ASSERT_TRUE(program.AwaitOut("\"mark\",\"number\":2"));
    ASSERT_TRUE(AwaitPastMark(program));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_THAT(places.Files(), ElementsAre("a-01.wav", "a-02.wav", "a-03.wav"));
    ExpectGapless({"a-01.wav", "a-02.wav", "a-03.wav"});
    const std::vector<nlohmann::json> marks = Events(program.Out(), "mark");
    ASSERT_EQ(marks.size(), 2U);
    EXPECT_EQ(std::lround(marks[0].at("seconds").get<double>() * 48'000.0),
              static_cast<long>(ReadWav(places.File("a-01.wav")).Frames()));
    EXPECT_GE(marks[0].at("seconds").get<double>(), 0.5);
}

TEST_F(RecordTracksTest, WithoutATerminalASignalBeginsANewTrack) {
    Process program(Record({places.File("a.wav"), kCounter}));
    ASSERT_TRUE(AwaitPosition(program, 1.0));
    program.Send(SIGUSR1);
    ASSERT_TRUE(program.AwaitOut("\"mark\""));
    ASSERT_TRUE(AwaitPastMark(program));
    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    ExpectGapless({"a-01.wav", "a-02.wav"});
}

TEST_F(RecordTracksTest, AMarkAtDsdIsToldWhereItHasMoved) {
    Process program(Record({places.File("a.dsf"), "--type", "dsd", "--range",
                            "0-=" + places.File("all.dsf"), "--simulate=source=counter,speed=5"}));
    ASSERT_TRUE(AwaitPosition(program, 1.0));
    program.Send(SIGUSR1);
    ASSERT_TRUE(program.AwaitOut("\"mark\""));
    ASSERT_TRUE(AwaitPastMark(program));
    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_THAT(program.Error(), HasSubstr("mark 1 at 0"));
    Bytes joined = DsfPayload("a-01.dsf");
    const Bytes second = DsfPayload("a-02.dsf");
    joined.insert(joined.end(), second.begin(), second.end());
    EXPECT_EQ(joined, DsfPayload("all.dsf"));
}

TEST_F(RecordTracksTest, NoFileIsLongerThanItMayBe) {
    Process program(
        Record({places.File("a.wav"), kCounter, "--duration", "3.5", "--max-file-time", "1"}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    ExpectGapless({"a-01.wav", "a-02.wav", "a-03.wav", "a-04.wav"});
    EXPECT_EQ(ReadWav(places.File("a-03.wav")).Frames(), 48'000U);
    EXPECT_EQ(ReadWav(places.File("a-04.wav")).Frames(), 24'000U);
}

TEST_F(RecordTracksTest, CutsBehindTheEndAreToldAndTheFileHasTheNameThatWasAnnounced) {
    Process program(Record({places.File("a.wav"), kCounter, "--split-at", "3600,7200"}));
    ASSERT_TRUE(AwaitPosition(program, 0.5));
    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 5) << program.Error();

    EXPECT_THAT(places.Files(), ElementsAre("a-01.wav"));
    const std::vector<nlohmann::json> skipped = Events(program.Out(), "skipped");
    ASSERT_EQ(skipped.size(), 2U);
    EXPECT_EQ(skipped[0].at("file"), places.File("a-02.wav"));
    EXPECT_EQ(skipped[1].at("file"), places.File("a-03.wav"));
    EXPECT_THAT(program.Error(), HasSubstr("before it begins, at 2:00:00.0"));
}

TEST_F(RecordTracksTest, ACutThatFallsOnTheEndIsRefusedBeforeTheRecording) {
    Process pcm(
        Record({places.File("a.wav"), kCounter, "--duration", "10", "--split-at", "9.99999999"}));
    // The nearest whole block of a DSF file to 3.9999 s is the 345th, 4.005 s.
    Process dsd(Record({places.File("a.dsf"), kCounter, "--type", "dsd", "--duration", "4",
                        "--split-at", "3.9999"}));

    EXPECT_EQ(pcm.Wait(), 1);
    EXPECT_EQ(dsd.Wait(), 1);

    EXPECT_THAT(pcm.Error(), HasSubstr("--split-at 00:10.0: the nearest place for a cut"));
    EXPECT_THAT(dsd.Error(), HasSubstr("(--duration 00:04.0)"));
    EXPECT_THAT(places.Files(), testing::IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RecordTracksTest, ATrackThatIsThereAlreadyIsSaidBeforeTheRecording) {
    std::ofstream(places.File("a-02.wav")) << "old";
    Process refused(Record({places.File("a.wav"), kCounter, "--split-at", "1"}));
    Process twice(Record({places.File("a.wav"), kCounter, "--split-at", "1", "--range",
                          "0-1=" + places.File("a-01.wav")}));

    EXPECT_EQ(refused.Wait(), 1);
    EXPECT_EQ(twice.Wait(), 1);

    EXPECT_THAT(refused.Error(), HasSubstr("a-02.wav"));
    EXPECT_THAT(twice.Error(), HasSubstr("written twice"));
    EXPECT_THAT(places.Files(), ElementsAre("a-02.wav"));
}

TEST_F(RecordTracksTest, TracksOfALinkAreLookedForWhereTheyWillStand) {
    std::filesystem::create_directory(places.File("real"));
    std::ofstream(places.File("real/a.wav")) << "old";
    std::filesystem::create_directory(places.File("real/a-02.wav"));
    std::filesystem::create_symlink("real/a.wav", places.File("link.wav"));
    Process program(Record(
        {places.File("link.wav"), kCounter, "--duration", "2", "--split-at", "1", "--force"}));

    EXPECT_EQ(program.Wait(), 1);

    EXPECT_THAT(program.Error(), HasSubstr("real/a-02.wav is a directory"));
}

TEST_F(RecordTracksTest, EvenWithForceNoFileOfTheSameRunIsReplaced) {
    // A mark's track takes the name of a range: one of them has to give way.
    Process program(Record({places.File("a.wav"), kCounter, "--duration", "3", "--max-file-time",
                            "1", "--force", "--range", "0-0.5=" + places.File("a-03.wav")}));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_EQ(Events(program.Out(), "saved").size(), 4U);
    EXPECT_THAT(program.Error(), HasSubstr("is another file of this recording"));
    EXPECT_THAT(places.Files(), ElementsAre("a-01.wav", "a-02.wav", "a-03-2.wav", "a-03.wav"));
    EXPECT_EQ(ReadWav(places.File("a-03.wav")).Frames(), 48'000U);
}

TEST_F(RecordTracksTest, EvenWithForceAnotherWayToAFileOfTheSameRunDoesNotReplaceIt) {
    std::filesystem::create_directory(places.File("one"));
    std::filesystem::create_directory(places.File("two"));
    Process program(Record({kCounter, "--force", "--range", "0-1=" + places.File("one/x.wav"),
                            "--range", "2-2.5=" + places.File("two/x.wav")}));
    ASSERT_TRUE(AwaitPosition(program, 3.0));
    std::filesystem::remove(places.File("two"));
    std::filesystem::create_symlink("one", places.File("two"));
    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_THAT(program.Error(), HasSubstr("is another file of this recording"));
    EXPECT_EQ(ReadWav(places.File("one/x.wav")).Frames(), 48'000U);
    EXPECT_EQ(ReadWav(places.File("one/x-2.wav")).Frames(), 24'000U);
}

TEST_F(RecordTracksTest, ADirectoryThatIsMountedTwiceIsOnePlace) {
    std::filesystem::create_directory(places.File("one"));
    std::filesystem::create_directory(places.File("two"));
    if (::mount(places.File("one").c_str(), places.File("two").c_str(), nullptr, MS_BIND,
                nullptr) != 0) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record({kCounter, "--force", "--range", "0-1=" + places.File("one/x.wav"),
                            "--range", "2-5=" + places.File("two/x.wav"), "--duration", "6"}));

    EXPECT_EQ(program.Wait(), 1);

    EXPECT_THAT(program.Error(), HasSubstr("two/x.wav would be written twice"));
    ASSERT_EQ(::umount2(places.File("two").c_str(), MNT_DETACH), 0);
}

TEST_F(RecordTracksTest, EvenWithForceThePictureReplacesNoTrackOfTheSameRun) {
    Process program(Record(
        {places.File("take.svg"), kCounter, "--force", "--waveform", places.File("take-01.svg")}));
    ASSERT_TRUE(AwaitPosition(program, 1.0));
    program.Send(SIGUSR1);
    ASSERT_TRUE(program.AwaitOut("\"mark\""));
    ASSERT_TRUE(AwaitPosition(program, 2.0));
    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_THAT(program.Error(), HasSubstr("is another file of this recording"));
    EXPECT_THAT(places.Files(), ElementsAre("take-01-2.svg", "take-01.svg", "take-02.svg"));
    EXPECT_GT(ReadWav(places.File("take-01.svg")).Frames(), 0U);
    EXPECT_EQ(Events(program.Out(), "drawn").at(0).at("file"), places.File("take-01-2.svg"));
}

TEST_F(RecordTracksTest, ASavedFileIsToldWithItsDigest) {
    VORREL_NEEDS_TOOL("sha256sum");
    Process program(Record({places.File("a.wav"), kCounter, "--duration", "1"}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    const std::string digest = RunTool("sha256sum " + places.File("a.wav")).output.substr(0, 64);
    EXPECT_EQ(Events(program.Out(), "saved").at(0).at("sha256"), digest);
}

TEST_F(RecordTracksTest, APictureOfTheTakeIsDrawn) {
    VORREL_NEEDS_TOOL("ffprobe");
    for (const char* name : {"a.png", "a.svg"}) {
        Process program(Record({places.File("a.wav"), kCounter, "--force", "--duration", "1",
                                "--waveform", places.File(name)}));

        ASSERT_EQ(program.Wait(), 0) << program.Error();

        EXPECT_EQ(Events(program.Out(), "drawn").at(0).at("file"), places.File(name));
    }
    EXPECT_THAT(RunTool("ffprobe -v error -show_entries stream=codec_name -of csv=p=0 " +
                        places.File("a.png"))
                    .output,
                HasSubstr("png"));
    EXPECT_EQ(ReadBytes(places.File("a.svg")).at(0), '<');
    EXPECT_THAT(places.Files(), ElementsAre("a.png", "a.svg", "a.wav"));
}

TEST_F(RecordTracksTest, APictureHasTheNameOfTheWholeAndALineForEveryFurtherTrack) {
    const auto picture = [&](const std::vector<std::string>& more) {
        std::vector<std::string> arguments = {
            places.File("concert.wav"), kCounter, "--force", "--duration", "3", "--waveform",
            places.File("concert.svg")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        Process program(Record(arguments));
        EXPECT_EQ(program.Wait(), 0) << program.Error();
        const Bytes bytes = ReadBytes(places.File("concert.svg"));
        return std::string(bytes.begin(), bytes.end());
    };
    const std::string plain = picture({});
    const std::string cut = picture({"--split-at", "0.25"});
    const std::string both = picture({"--split-at", "0.25", "--max-file-time", "1"});

    // Letters are shapes in such a file: those of the heading are the same, whatever the tracks.
    const auto count = [](const std::string& text, const std::string& part) {
        std::size_t found = 0;
        for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
            ++found;
        }
        return found;
    };
    EXPECT_EQ(count(cut, "<use "), count(plain, "<use "));
    EXPECT_EQ(count(both, "<use "), count(plain, "<use "));
    // The lines of the marks: 0.25 s, then 1.25 and 2.25 s.
    const std::size_t marks = count(cut, "<path ") - count(plain, "<path ");
    EXPECT_GT(marks, 0U);
    EXPECT_EQ(count(both, "<path ") - count(plain, "<path "), 3 * marks);
}

TEST_F(RecordTracksTest, APictureThatIsThereAlreadyIsSaidBeforeTheRecording) {
    std::ofstream(places.File("a.png")) << "old";
    Process program(Record(
        {places.File("a.wav"), kCounter, "--duration", "1", "--waveform", places.File("a.png")}));

    EXPECT_EQ(program.Wait(), 1);

    EXPECT_THAT(program.Error(), HasSubstr("--force"));
    EXPECT_THAT(places.Files(), ElementsAre("a.png"));
}

TEST_F(RecordTracksTest, APictureOfAFileWhoseNameIsNoTextIsDrawnAllTheSame) {
    Process program(Record({places.File("a\xff.wav"), kCounter, "--duration", "1", "--waveform",
                            places.File("a.svg")}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_GT(ReadBytes(places.File("a.svg")).size(), 10'000U);
}

TEST_F(RecordTracksTest, ANameWithoutRoomForNumbersIsSaidBeforeTheRecording) {
    const std::string name = places.File(std::string(248, 'y') + ".wav");
    Process limited(Record({name, kCounter, "--max-file-time", "1"}));
    EXPECT_EQ(limited.Wait(), 1);
    EXPECT_THAT(limited.Error(), HasSubstr("too long for a number"));

    Process marked(Record({name, kCounter}));
    ASSERT_TRUE(AwaitPosition(marked, 0.5));
    marked.Send(SIGUSR1);
    ASSERT_TRUE(marked.AwaitError("too long for a number"));
    marked.Send(SIGTERM);

    EXPECT_EQ(marked.Wait(), 0) << marked.Error();
    EXPECT_EQ(places.Files().size(), 1U);
}

TEST_F(RecordTracksTest, ATerminalThatClosesSavesHoweverOftenItSaysSo) {
    Process program(Record({places.File("a.wav"), kCounter}));
    ASSERT_TRUE(AwaitPosition(program, 0.5));

    for (int hangUp = 0; hangUp < 5; ++hangUp) {
        program.Send(SIGHUP);
    }

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    EXPECT_GT(ReadWav(places.File("a.wav")).Frames(), 0U);
}

TEST_F(RecordTracksTest, EveryJsonOutputEndsWithTheExitCode) {
    for (const char* command : {"devices", "info", "salvage"}) {
        Process::Setup setup;
        setup.arguments = {VORREL_CLI, command, "--json"};
        setup.environment["VORREL_BACKEND"] = "simulated";
        setup.environment["XDG_CACHE_HOME"] = places.TempPath();
        Process program(setup);

        EXPECT_EQ(program.Wait(), 0) << program.Error();

        EXPECT_EQ(JsonLines(program.Out()).back().at("event"), "finish") << command;
        EXPECT_EQ(JsonLines(program.Out()).back().at("exit_code"), 0);
    }
}

TEST_F(RecordTracksTest, EveryEventRunsTheHook) {
    const std::string log = places.File("log");
    Process program(
        Record({places.File("a.wav"), kCounter, "--duration", "1", "--split-at", "0.5", "--hook",
                "echo \"$VORREL_EVENT $VORREL_STATE $VORREL_FILE$VORREL_EXIT_CODE\" >> " + log}));

    ASSERT_EQ(program.Wait(), 0) << program.Error();

    const Bytes bytes = ReadBytes(log);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()),
              "state starting \nstate recording \nstate stopping \nstate saving \n"
              "saved  " +
                  places.File("a-01.wav") + "\nsaved  " + places.File("a-02.wav") +
                  "\nfinish  0\n");
}

TEST_F(RecordTracksTest, AHookThatFailsOrPrintsDisturbsNothing) {
    Process program(Record(
        {places.File("a.wav"), kCounter, "--duration", "0.5", "--hook", "echo noise; exit 7"}));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_THAT(program.Error(), HasSubstr("the hook ended with 7 at the event state"));
    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 24'000U);
    EXPECT_NO_THROW(JsonLines(program.Out()));
}

}  // namespace
}  // namespace vorrel::test
