// How a recording ends by signals, closed streams and outputs that nobody reads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FaultsRig.h"
#include "WavReader.h"
#include "support/Await.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class EndingTest : public FaultsTest {};

TEST_F(EndingTest, ClosedStandardStreamsChangeNothing) {
    Process program(
        After("exec <&- >&- 2>&-", Record("", {places.File("a.wav"), "--duration", "20"})));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 960'000U);
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
}

TEST_F(EndingTest, AnOutputThatNobodyReadsHoldsNothingUp) {
    const FullPipe pipe(places.File("pipe"));
    for (const char* streams : {"exec >", "exec 2>", "exec >&2 2>"}) {
        Process program(After(streams + places.File("pipe"),
                              Record("", {places.File("a.wav"), "--force", "--duration", "1"})));

        EXPECT_EQ(program.Wait(), 0) << streams;

        EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U) << streams;
    }
}

TEST_F(EndingTest, TheProgramMayHaveAsManyDescriptorsAsTheUserMay) {
    Process program(
        After("ulimit -Sn 100", Record("", {places.File("a.wav"), "--duration", "1", "--hook",
                                            "test $(ulimit -Sn) = $(ulimit -Hn) && "
                                            "echo raised >> " +
                                                places.File("limit")})));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_TRUE(std::filesystem::exists(places.File("limit")));
}

TEST_F(EndingTest, AnEngineThatSaysMuchIsNotHeldUpByAnErrorOutputThatNobodyReads) {
    const FullPipe pipe(places.File("pipe"));
    Process program(After("exec 2>" + places.File("pipe"),
                          Record("chatter=1", {places.File("a.wav"), "--duration", "20"})));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 960'000U);
}

TEST_F(EndingTest, WhatTheEngineSaysStandsOnStandardErrorAlsoWhenItAborts) {
    Process program(Record("gap=0.5,abort=0.5", {places.File("a.wav"), "--quiet"}));

    EXPECT_EQ(program.Wait(), -SIGABRT);

    EXPECT_THAT(program.Error(), HasSubstr("the recording has a gap"));
    EXPECT_THAT(program.Error(), HasSubstr("this is the end"));
}

TEST_F(EndingTest, SignalsAreHeardWhileNobodyReads) {
    const FullPipe pipe(places.File("pipe"));
    Process program(After("exec 2>" + places.File("pipe"), Record("", {places.File("a.wav")})));
    ASSERT_TRUE(program.AwaitOut("\"position\""));

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_GT(ReadWav(places.File("a.wav")).Frames(), 0U);
}

TEST_F(EndingTest, ASignalAfterTheLastFileLeavesTheExitCodeAsItWasTold) {
    const FullPipe pipe(places.File("pipe"));
    // The full pipe holds the program up for a moment at its very end.
    Process program(After("exec >" + places.File("pipe"),
                          Record("", {places.File("a.wav"), "--duration", "0.5"})));
    ASSERT_TRUE(program.AwaitError("saved "));
    while (!places.TempIsEmpty()) {
        std::this_thread::yield();
    }

    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 0);
}

TEST_F(EndingTest, AJsonOutputThatCannotBeWrittenIsAStorageErrorAndTheRecordingIsSaved) {
    Process program(
        After("exec >/dev/full", Record("", {places.File("a.wav"), "--duration", "0.5"})));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("warning: the JSON output could not be written"));
    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 24'000U);
}

TEST_F(EndingTest, AnAnswerThatCannotBeWrittenIsAStorageError) {
    for (const std::vector<std::string>& asked : std::vector<std::vector<std::string>>{
             {"devices"}, {"info"}, {"devices", "--json"}, {"--help"}, {"--version"}}) {
        for (const char* out : {"exec >/dev/full", "exec >&-"}) {
            Process::Setup setup;
            setup.arguments = {VORREL_CLI_FAKE};
            setup.arguments.insert(setup.arguments.end(), asked.begin(), asked.end());
            Process program(After(out, setup));

            EXPECT_EQ(program.Wait(), 3) << asked[0] << ' ' << out;

            EXPECT_THAT(program.Error(), HasSubstr("output could not be written"));
        }
    }
}

TEST_F(EndingTest, AHookThatHangsDoesNotKeepASignalFromEndingAtOnce) {
    const std::string pipe = places.File("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const int end = ::open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    Process program(Record("stop=hang", {places.File("a.wav"), "--hook",
                                         "exec 2> /dev/null > /dev/null; read line < " + pipe}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));

    program.Send(SIGINT);
    ASSERT_TRUE(program.AwaitOut("\"stopping\""));
    ASSERT_TRUE(AwaitNextRequest(program, "\"position\""));
    program.Send(SIGTERM);
    ASSERT_TRUE(program.AwaitOut("a further signal ends at once"));
    ASSERT_TRUE(AwaitNextRequest(program, "\"position\""));
    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 128 + SIGTERM);
    EXPECT_TRUE(places.TempIsEmpty());
    ASSERT_EQ(::write(end, "x\n", 2), 2);  // lets the hook go
    Await([end] {
        int left = 0;
        return ::ioctl(end, FIONREAD, &left) == 0 && left == 0;
    });
    ::close(end);
}

TEST_F(EndingTest, WithoutATerminalNoSignalIsExplained) {
    Process program(Record("", {places.File("a.wav"), "--pre-record"}));
    ASSERT_TRUE(program.AwaitOut("\"armed\""));

    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 5);
    EXPECT_THAT(program.Error(), testing::Not(HasSubstr("SIG")));
}

TEST_F(EndingTest, OnATerminalOnlyTheSignalsThatComeThroughAreExplained) {
    const auto said = [&](const std::string& preparation) {
        // A shell's "&" in a script: no keys, and some signals are ignored.
        Process::Setup setup = After(preparation + "\nexec < /dev/null",
                                     Record("", {places.File("a.wav"), "--pre-record"}));
        setup.terminal = true;
        setup.environment["TERM"] = "xterm";
        Process program(setup);
        EXPECT_TRUE(program.AwaitOut("\"armed\""));
        program.Send(SIGTERM);
        EXPECT_EQ(program.Wait(), 5);
        return program.Error();
    };
    EXPECT_THAT(said(""), testing::AllOf(HasSubstr("SIGUSR1: record"),
                                         HasSubstr("SIGINT or SIGTERM: stop and save; SIGUSR1: "
                                                   "mark")));
    EXPECT_THAT(said("trap '' INT"),
                testing::AllOf(HasSubstr("SIGTERM: stop and save; SIGUSR1: mark"),
                               testing::Not(HasSubstr("SIGINT"))));
    EXPECT_THAT(said("trap '' USR1"), testing::AllOf(HasSubstr("SIGINT or SIGTERM: stop and save"),
                                                     testing::Not(HasSubstr("SIGUSR1"))));
}

TEST_F(EndingTest, TheFirstSignalSaves) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const std::string name = "a" + std::to_string(signal) + ".wav";
        Process program(Record("", {places.File(name)}));
        ASSERT_TRUE(program.AwaitOut("\"position\""));

        program.Send(signal);

        EXPECT_EQ(program.Wait(), 0);
        EXPECT_GT(ReadWav(places.File(name)).Frames(), 0U);
    }
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(EndingTest, OneRequestThatComesAsTwoSignalsSaves) {
    // As from "timeout", which signals its child and then the group of both.
    for (const char* duration : {"--duration=3600", "--duration=0.5"}) {
        Process program(Record("save=slow:", {places.File("a.wav"), "--force", duration}));
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        if (duration == std::string("--duration=0.5")) {
            ASSERT_TRUE(program.AwaitOut("\"percent\":25.0"));
        }

        program.Send(SIGTERM);
        program.Send(SIGINT);

        EXPECT_EQ(program.Wait(), 0) << duration;
        EXPECT_GT(ReadWav(places.File("a.wav")).Frames(), 0U) << duration;
        EXPECT_THAT(program.Error(), HasSubstr("saving; a second signal abandons it")) << duration;
        EXPECT_THAT(program.Error(), testing::Not(HasSubstr("abandoned"))) << duration;
        EXPECT_TRUE(places.TempIsEmpty()) << duration;
    }
}

TEST_F(EndingTest, TheSecondSignalAbandonsARunningSave) {
    for (const auto& [type, file] : {std::pair{"pcm", "a.wav"}, std::pair{"dsd", "a.dsf"}}) {
        Process program(Record("save=hang:", {places.File(file), "--type", type}));
        ASSERT_TRUE(program.AwaitOut("\"position\"")) << type;
        program.Send(SIGINT);
        ASSERT_TRUE(program.AwaitOut("\"stopping\"")) << type;
        ASSERT_TRUE(AwaitNextRequest(program, "\"percent\":25.0")) << type;

        program.Send(SIGINT);

        EXPECT_EQ(program.Wait(), 128 + SIGINT) << type;
        EXPECT_THAT(places.Files(), IsEmpty()) << type;
        EXPECT_TRUE(std::filesystem::exists(places.FilesPath())) << type;
        EXPECT_TRUE(places.TempIsEmpty()) << type;
    }
}

TEST_F(EndingTest, AFileThatAKillHasLeftHalfWrittenIsListedAndRemovedWithItsTake) {
    const std::string target = places.File("a \xC3\xA4\xFF.wav");
    Process program(Record("save=hang:", {target}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    program.Send(SIGINT);
    ASSERT_TRUE(program.AwaitOut("\"percent\":25.0"));
    program.Send(SIGKILL);
    ASSERT_EQ(program.Wait(), -SIGKILL);
    const std::set<std::string> left = places.Files();
    ASSERT_EQ(left.size(), 1U);
    ASSERT_THAT(*left.begin(), testing::StartsWith(".a "));
    const auto salvage = [&](std::vector<std::string> arguments) {
        Process::Setup setup;
        setup.arguments = {VORREL_CLI_FAKE, "salvage", "--temp-dir", places.TempPath()};
        setup.arguments.insert(setup.arguments.end(), arguments.begin(), arguments.end());
        return setup;
    };

    Process list(salvage({}));
    EXPECT_EQ(list.Wait(), 0);
    EXPECT_THAT(list.Out(), HasSubstr(" and a half-written " + places.File(*left.begin())));
    Process object(salvage({"--json"}));
    EXPECT_EQ(object.Wait(), 0);
    EXPECT_EQ(Events(object.Out(), "take").at(0).at("half_written").size(), 1U);
    Process same(salvage({"vorrel-", places.File(*left.begin()), "--force", "--remove"}));
    EXPECT_NE(same.Wait(), 0);
    EXPECT_EQ(places.Files(), left);
    Process remove(salvage({"vorrel-", "--remove"}));
    EXPECT_EQ(remove.Wait(), 0) << remove.Error();

    EXPECT_THAT(remove.Error(), HasSubstr("deleted " + places.File(*left.begin())));
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(EndingTest, AnAbandonedSaveLeavesTheDirectoryAndWhatElseIsInIt) {
    for (const char* other : {"", "other.txt"}) {
        const TempDirectory directory;
        if (*other != '\0') {
            std::ofstream(directory.File(other)) << "mine";
        }
        Process program(Record("save=hang:", {directory.File("a.wav")}));
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        program.Send(SIGINT);
        ASSERT_TRUE(program.AwaitOut("\"stopping\""));
        ASSERT_TRUE(AwaitNextRequest(program, "\"percent\":25.0"));

        program.Send(SIGINT);

        EXPECT_EQ(program.Wait(), 128 + SIGINT);
        ASSERT_TRUE(std::filesystem::exists(directory.Path()));
        EXPECT_EQ(std::filesystem::is_empty(directory.Path()), *other == '\0');
    }
}

TEST_F(EndingTest, AThirdSignalStillEndsTheJsonOutput) {
    Process program(Record("stop=hang", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    for (const char* answer : {"\"stopping\"", "abandoned"}) {
        program.Send(SIGINT);
        ASSERT_TRUE(program.AwaitOut(answer));
        ASSERT_TRUE(AwaitNextRequest(program, "\"position\""));
    }
    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 128 + SIGINT);
    EXPECT_EQ(JsonLines(program.Out()).back(),
              nlohmann::json({{"event", "finish"}, {"exit_code", 128 + SIGINT}}));
}

TEST_F(EndingTest, WhatWasSavedBeforeTheSecondSignalStays) {
    Process program(Record("save=hang:b.wav",
                           {places.File("a.wav"), "--range", "0-0.5=" + places.File("b.wav")}));
    ASSERT_TRUE(AwaitPosition(program, 0.5));
    program.Send(SIGTERM);
    ASSERT_TRUE(program.AwaitOut("\"stopping\""));
    ASSERT_TRUE(AwaitNextRequest(program, "\"percent\":25.0"));

    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 128 + SIGTERM);
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
}

TEST_F(EndingTest, TheThirdSignalEndsAProgramWhoseRecorderDoesNotStop) {
    Process program(Record("stop=hang", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    program.Send(SIGINT);
    ASSERT_TRUE(program.AwaitOut("\"stopping\""));
    ASSERT_TRUE(AwaitNextRequest(program, "\"position\""));
    program.Send(SIGINT);
    ASSERT_TRUE(program.AwaitOut("abandoned"));
    ASSERT_TRUE(AwaitNextRequest(program, "\"position\""));

    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 128 + SIGTERM);
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(EndingTest, ASignalAfterTheLastFileDoesNotKeepThePictureFromBeingDrawn) {
    for (const char* which :
         {"preview=signal", "preview=signals"}) {  // two at once are one request
        Process program(Record(which, {places.File("a.wav"), "--duration", "1", "--waveform",
                                       places.File("a.png"), "--force"}));

        EXPECT_EQ(program.Wait(), 0) << program.Error();

        EXPECT_THAT(places.Files(), ElementsAre("a.png", "a.wav"));
        EXPECT_EQ(Events(program.Out(), "drawn").size(), 1U);
    }
}

TEST_F(EndingTest, ASecondSignalAfterTheLastFileLeavesThePictureOutAndTheFilesSaved) {
    Process program(Record("save=slow:,preview=signal",
                           {places.File("a.wav"), "--waveform", places.File("a.png")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));

    program.Send(SIGTERM);  // and another one when the file is saved, which takes a second

    EXPECT_EQ(program.Wait(), 5);

    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_EQ(Events(program.Out(), "saved").size(), 1U);
    const std::vector<nlohmann::json> skipped = Events(program.Out(), "skipped");
    ASSERT_EQ(skipped.size(), 1U);
    EXPECT_EQ(skipped[0].at("file"), places.File("a.png"));
    EXPECT_THAT(Events(program.Out(), "error"), IsEmpty());
    EXPECT_THAT(program.Error(), HasSubstr("left out by a second signal; the files are saved"));
}

TEST_F(EndingTest, SignalsWhileTheLastFileIsReadForItsDigestChangeNothingOfIt) {
    // 48 MB, and signals are looked at after every 32 MiB.
    Process program(Record("channels=8,late=signals", {places.File("a.wav"), "--duration", "42"}));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_EQ(Events(program.Out(), "saved").at(0).at("sha256").get<std::string>().size(), 64U);
    EXPECT_EQ(JsonLines(program.Out()).back().at("exit_code"), 0);
}

TEST_F(EndingTest, AFileThatHasItsNameIsToldThoughTheOthersAreAbandoned) {
    Process program(Record("channels=8,save=slow:,late=signal",
                           {places.File("a.wav"), "--range", "0-1=" + places.File("b.wav")}));
    ASSERT_TRUE(AwaitPosition(program, 42));

    program.Send(SIGTERM);  // and another one when the first file is saved, which takes a second

    EXPECT_EQ(program.Wait(), 128 + SIGINT);

    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_EQ(Events(program.Out(), "saved").at(0).at("file"), places.File("a.wav"));
}

TEST_F(EndingTest, TheQuitSignalSavesAsTheOthersDo) {
    Process program(Record("", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));

    program.Send(SIGQUIT);

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_GT(ReadWav(places.File("a.wav")).Frames(), 0U);
    EXPECT_TRUE(places.TempIsEmpty());
}

}  // namespace
}  // namespace vorrel::test
