// What the program makes of an engine in trouble. FakeEngine.cpp tells what it can be set to.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "CliProgram.h"
#include "WavReader.h"
#include "support/SmallVolume.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class FaultsTest : public testing::Test {
protected:
    Process::Setup Record(const std::string& engine,
                          const std::vector<std::string>& arguments) const {
        Process::Setup setup = places.Record(VORREL_CLI_FAKE, arguments);
        setup.arguments.push_back("--simulate");  // known, and no reason for a warning
        setup.environment["FAKE_ENGINE"] = engine;
        return setup;
    }

    CliPlaces places;
};

TEST_F(FaultsTest, ARecordingOfGivenLengthHasExactlyItsFrames) {
    Process program(Record("", {places.File("a.wav"), "--duration", "0.54321"}));

    EXPECT_EQ(program.Wait(), 0);

    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_EQ(wav.Frames(), 26'074U);  // 0.54321 x 48,000 = 26,074.08
    EXPECT_EQ(FirstGap(wav, 0), wav.Frames());
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, WithoutATerminalPeopleGetMessagesOnly) {
    Process program(Record("", {places.File("a.wav"), "--duration", "0.5"}));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_THAT(program.Error(), HasSubstr("saved " + places.File("a.wav")));
    EXPECT_THAT(program.Error(), Not(HasSubstr("\r")));
    EXPECT_THAT(program.Error(), Not(HasSubstr("\x1b")));
}

TEST_F(FaultsTest, QuietSaysNothingWhenAllIsWell) {
    Process program(Record("", {places.File("a.wav"), "--duration", "0.5", "--quiet"}));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_EQ(program.Error(), "");
}

TEST_F(FaultsTest, EveryLineOfJsonIsAnObjectWithItsEvent) {
    Process program(Record("", {places.File("a.wav"), "--duration", "5"}));

    ASSERT_EQ(program.Wait(), 0);

    EXPECT_EQ(Events(program.Out(), "start").at(0).at("rate_hz"), 48'000);
    std::vector<std::string> states;
    for (const nlohmann::json& state : Events(program.Out(), "state")) {
        states.push_back(state.at("state"));
    }
    EXPECT_THAT(states, ElementsAre("starting", "recording", "stopping", "saving"));
    EXPECT_EQ(Events(program.Out(), "position").at(0).at("seconds"), 0.1);
    const std::vector<nlohmann::json> levels = Events(program.Out(), "level");
    ASSERT_FALSE(levels.empty());
    EXPECT_EQ(levels[0].at("peak_dbfs"), nlohmann::json({-6.0, -6.0}));
    const nlohmann::json saved = Events(program.Out(), "saved").at(0);
    EXPECT_EQ(saved.at("file"), places.File("a.wav"));
    EXPECT_EQ(saved.at("frames"), 240'000);
    EXPECT_EQ(saved.at("bytes"), 240'000 * 6 + 44);
    EXPECT_EQ(JsonLines(program.Out()).back(),
              nlohmann::json({{"event", "finish"}, {"exit_code", 0}}));
}

TEST_F(FaultsTest, NoRecorderIsADeviceError) {
    Process program(Record("devices=0", {places.File("a.wav")}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(program.Error(), HasSubstr("no recorder"));
    EXPECT_EQ(Events(program.Out(), "error").at(0).at("code"), -4);
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, ARecorderInUseIsADeviceError) {
    Process program(Record("busy=1", {places.File("a.wav")}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(program.Error(), HasSubstr("another program"));
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, AFailedStartIsADeviceErrorAndWritesNothing) {
    Process program(Record("start=fail", {places.File("a.wav")}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(program.Error(), HasSubstr("could not be started"));
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, ALostRecorderEndsTheRecordingAndSavesIt) {
    Process program(Record("lose=1", {places.File("a.wav")}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(program.Error(), HasSubstr("lost"));
    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_GE(wav.Frames(), 48'000U);
    EXPECT_EQ(FirstGap(wav, 0), wav.Frames());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, LostBuffersAreToldOnceAndGiveTheirOwnExitCode) {
    Process program(Record("overflow=0.5", {places.File("a.wav"), "--duration", "1"}));

    EXPECT_EQ(program.Wait(), 4);

    EXPECT_EQ(Events(program.Out(), "warning").size(), 1U);
    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
}

TEST_F(FaultsTest, AStoreThatFailsEndsTheRecordingAndSavesIt) {
    Process program(Record("store=1", {places.File("a.wav"), "--duration", "60"}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, AMissingTemporaryDirectoryEndsTheRecordingAndSavesIt) {
    Process program(Record("gone=1", {places.File("a.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("is gone"));
    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
}

TEST_F(FaultsTest, AFailedSaveLeavesNothingHalfWrittenAndTheOtherFilesAreSaved) {
    Process program(Record("save=fail:b.wav", {places.File("a.wav"), "--duration", "1", "--range",
                                               "0-0.5=" + places.File("b.wav"), "--range",
                                               "0.5-1=" + places.File("c.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr(places.File("b.wav") + " could not be saved"));
    EXPECT_THAT(places.Files(), ElementsAre("a.wav", "c.wav"));
    EXPECT_EQ(FirstGap(ReadWav(places.File("c.wav")), 24'000), 24'000U);
}

TEST_F(FaultsTest, AFileThatCannotBeSavedIsRescuedToTheTemporaryPlace) {
    Process program(Record("save=fail:b.wav", {places.File("a.wav"), "--duration", "1", "--range",
                                               "0.25-0.5=" + places.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(places.Rescued(), ElementsAre("b-rescued.wav"));
    const std::string rescued = places.TempFile("b-rescued.wav");
    EXPECT_EQ(ReadWav(rescued).Frames(), 12'000U);
    EXPECT_EQ(FirstGap(ReadWav(rescued), 12'000), 12'000U);
    EXPECT_THAT(program.Error(), HasSubstr("is in " + rescued));
    const nlohmann::json event = Events(program.Out(), "rescued").at(0);
    EXPECT_EQ(event.at("wanted"), places.File("b.wav"));
    EXPECT_EQ(event.at("file"), rescued);
    EXPECT_EQ(Events(program.Out(), "saved").at(1).at("file"), rescued);
}

TEST_F(FaultsTest, ARescuedFileReplacesNothingEvenWithForce) {
    std::ofstream(places.TempFile("a-rescued.wav")) << "theirs";
    Process program(
        Record("save=fail:a.wav", {places.File("a.wav"), "--duration", "0.5", "--force"}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_EQ(ReadBytes(places.TempFile("a-rescued.wav")), ToBytes("theirs"));
    EXPECT_EQ(ReadWav(places.TempFile("a-rescued-2.wav")).Frames(), 24'000U);
}

TEST_F(FaultsTest, ASkippedFileIsRescuedToo) {
    Process program(Record("save=skip:b.wav", {places.File("a.wav"), "--duration", "1", "--range",
                                               "0-0.5=" + places.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_THAT(places.Rescued(), ElementsAre("b-rescued.wav"));
}

TEST_F(FaultsTest, WhenThePlaceOfTheRescueFailsTooTheNextIsTaken) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(After("cd " + volume.File(""),
                          Record("save=fail:" + places.FilesPath() + "+" + places.TempPath(),
                                 {places.File("a.wav"), "--duration", "1"})));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_TRUE(places.TempIsEmpty());
    EXPECT_EQ(ReadWav(volume.File("a-rescued.wav")).Frames(), 48'000U);
    EXPECT_EQ(Events(program.Out(), "rescued").at(0).at("wanted"), places.File("a.wav"));
}

TEST_F(FaultsTest, WhenNothingTakesTheRecordingWhatTheEngineHasStoredStays) {
    Process program(Record("save=fail:", {places.File("a.wav"), "--duration", "0.5"}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(places.Files(), IsEmpty());
    const std::string kept = Events(program.Out(), "kept").at(0).at("directory");
    EXPECT_EQ(ReadBytes(kept + "/tmpSTORE1"), ToBytes("samples"));
    EXPECT_THAT(program.Error(), HasSubstr(kept));
    EXPECT_EQ(JsonLines(program.Out()).back().at("exit_code"), 3);
}

TEST_F(FaultsTest, ATargetThatBecomesReadOnlyIsSaidAndTheRecordingIsRescued) {
    const SmallVolume volume(16 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {volume.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    ASSERT_TRUE(volume.MakeReadOnly());

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 3);
    EXPECT_THAT(program.Error(), HasSubstr("could not be saved: Read-only file system"));
    EXPECT_GT(ReadWav(places.TempFile("a-rescued.wav")).Frames(), 0U);
}

TEST_F(FaultsTest, ATargetThatIsFilledMeanwhileIsSaidAndTheRecordingIsRescued) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {volume.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    std::ofstream(volume.File("other")) << std::string(5 << 20, 'x');

    // Seen by the program itself, which stops.
    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("the disk is full"));
    EXPECT_THAT(program.Error(), HasSubstr("could not be saved: No space left on device"));
    EXPECT_GT(ReadWav(places.TempFile("a-rescued.wav")).Frames(), 0U);
}

TEST_F(FaultsTest, ATargetDirectoryThatGoesIsSaidAndTheRecordingIsRescued) {
    std::filesystem::create_directory(places.File("d"));
    Process program(Record("", {places.File("d/a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    std::filesystem::remove(places.File("d"));
    std::ofstream(places.File("d")) << "a file";

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 3);
    EXPECT_THAT(program.Error(), HasSubstr("could not be saved: Not a directory"));
    EXPECT_GT(ReadWav(places.TempFile("a-rescued.wav")).Frames(), 0U);
}

TEST_F(FaultsTest, AnOldFileThatLeavesNoRoomForItsSuccessorStaysAndTheRecordingIsRescued) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {volume.File("a.wav"), "--force"}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    std::ofstream(volume.File("a.wav")) << std::string(4 << 20, 'x');

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_EQ(std::filesystem::file_size(volume.File("a.wav")), 4U << 20);
    EXPECT_GT(ReadWav(places.TempFile("a-rescued.wav")).Frames(), 0U);
}

TEST_F(FaultsTest, ALimitOfFileSizeSavesInPartsAndDoesNotEndTheProgram) {
    // 1 MiB, in blocks of 512 bytes; the recording has 2.7 MiB.
    Process program(
        After("ulimit -f 2048", Record("", {places.File("a.wav"), "--duration", "10"})));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("could not be saved: File too large"));
    EXPECT_THAT(places.Files(), ElementsAre("a-rescued-2.wav", "a-rescued-3.wav", "a-rescued.wav"));
    std::uint64_t next = 0;
    for (const char* name : {"a-rescued.wav", "a-rescued-2.wav", "a-rescued-3.wav"}) {
        const Wav part = ReadWav(places.File(name));
        EXPECT_EQ(FirstGap(part, next), part.Frames()) << name;
        next += part.Frames();
    }
    EXPECT_EQ(next, 480'000U);
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, ClosedStandardStreamsChangeNothing) {
    Process program(
        After("exec <&- >&- 2>&-", Record("", {places.File("a.wav"), "--duration", "20"})));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 960'000U);
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
}

TEST_F(FaultsTest, AnOutputThatNobodyReadsHoldsNothingUp) {
    const FullPipe pipe(places.File("pipe"));
    for (const char* streams : {"exec >", "exec 2>", "exec >&2 2>"}) {
        Process program(After(streams + places.File("pipe"),
                              Record("", {places.File("a.wav"), "--force", "--duration", "1"})));

        EXPECT_EQ(program.Wait(), 0) << streams;

        EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U) << streams;
    }
}

TEST_F(FaultsTest, SignalsAreHeardWhileNobodyReads) {
    const FullPipe pipe(places.File("pipe"));
    Process program(After("exec 2>" + places.File("pipe"), Record("", {places.File("a.wav")})));
    ASSERT_TRUE(program.AwaitOut("\"position\""));

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_GT(ReadWav(places.File("a.wav")).Frames(), 0U);
}

TEST_F(FaultsTest, ASignalAfterTheLastFileLeavesTheExitCodeAsItWasTold) {
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

TEST_F(FaultsTest, AJsonOutputThatCannotBeWrittenIsAStorageErrorAndTheRecordingIsSaved) {
    Process program(
        After("exec >/dev/full", Record("", {places.File("a.wav"), "--duration", "0.5"})));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("warning: the JSON output could not be written"));
    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 24'000U);
}

TEST_F(FaultsTest, AnAnswerThatCannotBeWrittenIsAStorageError) {
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

TEST_F(FaultsTest, EveryVolumeThatAFileGoesToIsLookedAt) {
    const SmallVolume volume(128 << 10);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {places.File("a.wav"), "--range", "0-=" + volume.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("no space left for a recording in " + volume.File("")));
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, AFileThatFailsOnOneVolumeCostsTheOtherNothing) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record(
        "save=fail:" + volume.File(""),
        {places.File("a.wav"), "--duration", "1", "--range", "0-0.5=" + volume.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
    EXPECT_THAT(places.Rescued(), ElementsAre("b-rescued.wav"));
}

TEST_F(FaultsTest, ADeletedWorkingDirectoryIsSaidBeforeTheRecording) {
    std::filesystem::create_directory(places.File("d"));
    const std::string gone = "cd " + places.File("d") + " && rmdir " + places.File("d");
    Process program(After(gone, Record("", {"a.wav", "--duration", "0.5"})));

    EXPECT_EQ(program.Wait(), 1);

    EXPECT_THAT(program.Error(), HasSubstr("a.wav: the current directory no longer exists"));
    EXPECT_FALSE(std::filesystem::exists("/a.wav"));
}

TEST_F(FaultsTest, ADeletedWorkingDirectoryDoesNotHinderAbsoluteNames) {
    std::filesystem::create_directory(places.File("d"));
    const std::string gone = "cd " + places.File("d") + " && rmdir " + places.File("d");
    Process program(After(gone, Record("", {places.File("a.wav"), "--duration", "0.5"})));

    EXPECT_EQ(program.Wait(), 0);
}

TEST_F(FaultsTest, TooFewDescriptorsAreSaidBeforeTheRecording) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer looks at memory through descriptors of its own";
#endif
    for (const char* limit : {"6", "7", "8", "10", "12", "14", "16"}) {
        // What the test runner has left open would count, too.
        Process program(
            After(std::string("exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; ulimit -n ") + limit,
                  Record("", {places.File("a.wav"), "--duration", "0.5"})));

        EXPECT_EQ(program.Wait(), 3) << limit;

        EXPECT_THAT(program.Error(), HasSubstr("Too many open files")) << limit;
        EXPECT_THAT(places.Files(), IsEmpty()) << limit;
        EXPECT_TRUE(places.TempIsEmpty()) << limit;
    }
}

TEST_F(FaultsTest, ADescriptorLimitThatIsTakenCanSave) {
    Process program(After("ulimit -n 24", Record("", {places.File("a.wav"), "--duration", "0.5"})));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, WhatAKilledRecordingHasLeftIsToldAndNotTouched) {
    {
        Process killed(Record("", {places.File("a.wav")}));
        ASSERT_TRUE(killed.AwaitOut("\"position\""));
        {
            Process meanwhile(Record("", {places.File("b.wav"), "--duration", "0.1"}));
            EXPECT_EQ(meanwhile.Wait(), 0);
            EXPECT_THAT(Events(meanwhile.Out(), "warning"), IsEmpty());  // its owner is alive
        }
        killed.Send(SIGKILL);
        EXPECT_EQ(killed.Wait(), -SIGKILL);
    }
    Process program(Record("", {places.File("c.wav"), "--duration", "0.1"}));

    EXPECT_EQ(program.Wait(), 0);

    const std::string text = Events(program.Out(), "warning").at(0).at("message");
    EXPECT_THAT(text, HasSubstr("has left 7 bytes in " + places.TempPath() + "/vorrel-"));
    EXPECT_FALSE(places.TempIsEmpty());
}

TEST_F(FaultsTest, ATemporaryPlaceThatTakesNothingIsAUsageErrorHoweverItIsNamed) {
    Process::Setup named;
    named.arguments = {VORREL_CLI_FAKE, "record", places.File("a.wav"), "--temp-dir", "/proc"};
    Process::Setup configured;
    configured.arguments = {VORREL_CLI_FAKE, "record", places.File("a.wav")};
    configured.environment["XDG_CACHE_HOME"] = "/proc";
    configured.environment["TMPDIR"] = "/proc";

    EXPECT_EQ(Process(named).Wait(), 1);
    EXPECT_EQ(Process(configured).Wait(), 1);
}

TEST_F(FaultsTest, AHookThatHangsDoesNotKeepASignalFromEndingAtOnce) {
    const std::string pipe = places.File("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    Process program(Record("stop=hang", {places.File("a.wav"), "--hook",
                                         "exec 2> /dev/null > /dev/null; read line < " + pipe}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));

    program.Send(SIGINT);
    ASSERT_TRUE(program.AwaitError("a second signal abandons"));
    program.Send(SIGTERM);
    ASSERT_TRUE(program.AwaitError("a further signal ends at once"));
    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 128 + SIGTERM);
    EXPECT_TRUE(places.TempIsEmpty());
    const int end = ::open(pipe.c_str(), O_RDWR | O_CLOEXEC);  // lets the hook go
    ASSERT_EQ(::write(end, "x\n", 2), 2);
    ::close(end);
}

TEST_F(FaultsTest, APictureThatCannotBeDrawnTakesNoFileWithIt) {
    Process unread(Record("preview=fail", {places.File("a.wav"), "--duration", "0.5", "--waveform",
                                           places.File("a.png")}));
    EXPECT_EQ(unread.Wait(), 3);

    EXPECT_THAT(unread.Error(), HasSubstr("a.png"));
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, ASimulatedRecorderThatNobodyAskedForIsSaidLoudly) {
    Process::Setup setup =
        places.Record(VORREL_CLI_FAKE, {places.File("a.wav"), "--duration", "0.2", "--quiet"});
    setup.environment["VORREL_BACKEND"] = "simulated";
    Process silent(setup);
    Process asked(Record("", {places.File("b.wav"), "--duration", "0.2"}));
    setup.arguments[3] = "--temp-dir";
    setup.environment["VORREL_BACKEND"] = "other";
    setup.arguments.push_back("--force");

    EXPECT_EQ(silent.Wait(), 0);
    EXPECT_EQ(asked.Wait(), 0);
    Process real(setup);
    EXPECT_EQ(real.Wait(), 0);

    EXPECT_THAT(silent.Error(), HasSubstr("warning: this is the SIMULATED recorder"));
    EXPECT_EQ(Events(silent.Out(), "start").at(0).at("simulated"), true);
    EXPECT_THAT(asked.Error(), Not(HasSubstr("warning")));
    EXPECT_THAT(asked.Error(), HasSubstr("recording from the simulated KD-WV770"));
    EXPECT_EQ(real.Error(), "");
    EXPECT_EQ(Events(real.Out(), "start").at(0).at("simulated"), false);
}

TEST_F(FaultsTest, AnAnswerSaysThatARecorderIsSimulated) {
    for (const char* command : {"devices", "info"}) {
        Process::Setup setup;
        setup.arguments = {VORREL_CLI_FAKE, command, "--json"};
        setup.environment["VORREL_BACKEND"] = "simulated";
        Process silent(setup);
        setup.arguments.push_back("--simulate");
        Process asked(setup);

        EXPECT_EQ(silent.Wait(), 0);
        EXPECT_EQ(asked.Wait(), 0);

        EXPECT_THAT(silent.Error(), HasSubstr("SIMULATED"));
        EXPECT_EQ(asked.Error(), "this is the simulated recorder\n");
        EXPECT_EQ(JsonLines(asked.Out()).front().at("simulated"), true);
    }
}

TEST_F(FaultsTest, ARangeBehindTheEndIsSkippedAndOneAcrossItIsCut) {
    Process program(Record("lose=1", {"--range", "0.5-60=" + places.File("a.wav"), "--range",
                                      "60-61=" + places.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_THAT(program.Error(), HasSubstr("shorter than wanted"));
    EXPECT_THAT(program.Error(), HasSubstr("skipped " + places.File("b.wav")));
    EXPECT_EQ(CounterStart(ReadWav(places.File("a.wav"))), 24'000U);
}

TEST_F(FaultsTest, ATargetThatComesMeanwhileIsNotReplaced) {
    Process program(Record("appear=1", {places.File("a.wav"), "--duration", "0.5"}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(places.Files(), ElementsAre("a-2.wav", "a.wav"));
    EXPECT_EQ(std::filesystem::file_size(places.File("a.wav")), 0U);
    EXPECT_EQ(ReadWav(places.File("a-2.wav")).Frames(), 24'000U);
}

TEST_F(FaultsTest, ARangeBeyondFourGibibytesIsToldBeforeTheRecording) {
    // At 48 kHz, stereo and 24 bits a file ends at 4 h 08 min.
    Process program(Record("lose=0.5", {"--range", "0-5:00:00=" + places.File("a.wav")}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(Events(program.Out(), "warning").at(0).at("message").get<std::string>(),
                HasSubstr("4:08:33.0"));
    EXPECT_LT(program.Out().find("4 GiB"), program.Out().find("\"starting\""));
}

TEST_F(FaultsTest, TheFirstSignalSaves) {
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

TEST_F(FaultsTest, TheSecondSignalAbandonsARunningSave) {
    Process program(Record("save=hang:", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    program.Send(SIGINT);
    ASSERT_TRUE(program.AwaitOut("\"percent\":25.0"));

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 128 + SIGINT);
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(std::filesystem::exists(places.FilesPath()));
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, AnAbandonedSaveLeavesTheDirectoryAndWhatElseIsInIt) {
    for (const char* other : {"", "other.txt"}) {
        const TempDirectory directory;
        if (*other != '\0') {
            std::ofstream(directory.File(other)) << "mine";
        }
        Process program(Record("save=hang:", {directory.File("a.wav")}));
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        program.Send(SIGINT);
        ASSERT_TRUE(program.AwaitOut("\"percent\":25.0"));

        program.Send(SIGINT);

        EXPECT_EQ(program.Wait(), 128 + SIGINT);
        ASSERT_TRUE(std::filesystem::exists(directory.Path()));
        EXPECT_EQ(std::filesystem::is_empty(directory.Path()), *other == '\0');
    }
}

TEST_F(FaultsTest, AThirdSignalStillEndsTheJsonOutput) {
    Process program(Record("stop=hang", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    for (const char* answer : {"stopping and saving", "abandoned"}) {
        program.Send(SIGINT);
        ASSERT_TRUE(program.AwaitError(answer));
    }
    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 128 + SIGINT);
    EXPECT_EQ(JsonLines(program.Out()).back(),
              nlohmann::json({{"event", "finish"}, {"exit_code", 128 + SIGINT}}));
}

TEST_F(FaultsTest, ASaveThatFailsForItsGainOrTagsIsMadeWithoutThem) {
    for (const std::vector<std::string>& wish :
         std::vector<std::vector<std::string>>{{"--gain", "-3"}, {"--title", "T"}}) {
        CliPlaces own;
        Process::Setup setup =
            own.Record(VORREL_CLI_FAKE, {own.File("a.wav"), "--duration", "0.5", "--simulate"});
        setup.arguments.insert(setup.arguments.end(), wish.begin(), wish.end());
        setup.environment["FAKE_ENGINE"] = "save=worked:";
        setup.environment["HOME"] = "";
        Process program(setup);

        EXPECT_EQ(program.Wait(), 3);

        EXPECT_THAT(program.Error(), HasSubstr("tried again without gain and tags"));
        EXPECT_THAT(own.Files(), ElementsAre("a-rescued.wav"));
        EXPECT_EQ(ReadWav(own.File("a-rescued.wav")).Frames(), 24'000U);
        EXPECT_TRUE(own.TempIsEmpty());
    }
}

TEST_F(FaultsTest, WhatWasSavedBeforeTheSecondSignalStays) {
    Process program(Record("save=hang:b.wav", {places.File("a.wav"), "--duration", "0.5", "--range",
                                               "0-0.5=" + places.File("b.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"percent\":25.0"));
    program.Send(SIGTERM);
    ASSERT_TRUE(program.AwaitError("second signal"));

    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 128 + SIGTERM);
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
}

TEST_F(FaultsTest, TheThirdSignalEndsAProgramWhoseRecorderDoesNotStop) {
    Process program(Record("stop=hang", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    program.Send(SIGINT);
    ASSERT_TRUE(program.AwaitOut("\"stopping\""));
    program.Send(SIGINT);
    ASSERT_TRUE(program.AwaitError("abandoned"));

    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 128 + SIGTERM);
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

class DsdFaultsTest : public FaultsTest {
protected:
    Process::Setup RecordDsd(const std::string& engine,
                             const std::vector<std::string>& arguments) const {
        Process::Setup setup = Record(engine, arguments);
        setup.arguments.insert(setup.arguments.end(), {"--type", "dsd"});
        return setup;
    }
    std::uint64_t SummaryFrames() const {
        return LittleEndian(ReadBytes(places.File("a.dsf")), 64, 8);
    }
    /// Expects two channels of the fake's counter bytes, from `first` on, of `frames` bits each.
    static void ExpectCounter(const std::string& path, std::uint64_t first, std::uint64_t frames) {
        const Bytes bytes = ReadBytes(path);
        ASSERT_GT(bytes.size(), 92U) << path;
        EXPECT_EQ(LittleEndian(bytes, 64, 8), frames) << path;
        const std::uint64_t units = frames / 8;
        const std::uint64_t blocks = (units + 4'095) / 4'096;
        ASSERT_EQ(bytes.size(), 92 + blocks * 8'192) << path;
        for (std::uint64_t unit = 0; unit < units; ++unit) {
            const std::uint64_t at = 92 + unit / 4'096 * 8'192 + unit % 4'096;
            ASSERT_EQ(bytes[at], (first + unit) & 0xFF) << unit;
            ASSERT_EQ(bytes[at + 4'096], (first + unit + 100) & 0xFF) << unit;
        }
    }
};

TEST_F(DsdFaultsTest, ARecordingOfGivenLengthHasItsBitsToTheNearestByte) {
    Process program(RecordDsd("", {places.File("a.dsf"), "--duration", "0.54321"}));

    EXPECT_EQ(program.Wait(), 0);

    // 0.54321 x 352,800 = 191,644.488 bytes
    ExpectCounter(places.File("a.dsf"), 0, 191'644 * 8);
    const nlohmann::json saved = Events(program.Out(), "saved").at(0);
    EXPECT_EQ(saved.at("frames"), 191'644 * 8);
    EXPECT_EQ(saved.at("bytes"), 92 + 47 * 8'192);
    const nlohmann::json start = Events(program.Out(), "start").at(0);
    EXPECT_EQ(start.at("type"), "dsd");
    EXPECT_EQ(start.at("rate_hz"), 2'822'400);
    EXPECT_EQ(start.at("bits"), 1);
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(DsdFaultsTest, RangesBeginAndEndAtWholeBytes) {
    Process program(RecordDsd(
        "", {places.File("a.dsf"), "--duration", "1", "--range",
             "0.123457-0.4=" + places.File("b.dsf"), "--range", "0.4-=" + places.File("c.dsf")}));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    ExpectCounter(places.File("a.dsf"), 0, 2'822'400);
    // 0.123457 x 352,800 = 43,555.6; 0.4 x 352,800 = 141,120
    ExpectCounter(places.File("b.dsf"), 43'556, (141'120 - 43'556) * 8);
    ExpectCounter(places.File("c.dsf"), 141'120, (352'800 - 141'120) * 8);
}

TEST_F(DsdFaultsTest, AStoppedRecordingIsSavedToItsEnd) {
    Process program(RecordDsd("", {places.File("a.dsf")}));
    ASSERT_TRUE(program.AwaitOut("\"seconds\":1.0"));

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    const std::uint64_t frames = SummaryFrames();
    EXPECT_GE(frames, 2'822'400U);
    ExpectCounter(places.File("a.dsf"), 0, frames);
}

TEST_F(DsdFaultsTest, LevelsAreThoseOfThePreview) {
    Process program(RecordDsd("", {places.File("a.dsf"), "--duration", "5"}));

    EXPECT_EQ(program.Wait(), 0);

    const std::vector<nlohmann::json> levels = Events(program.Out(), "level");
    ASSERT_FALSE(levels.empty());
    EXPECT_EQ(levels[0].at("peak_dbfs"), nlohmann::json({-6.0, -6.0}));
}

TEST_F(DsdFaultsTest, ADsdFileThatCannotBeSavedIsRescued) {
    Process program(RecordDsd("save=fail:a.dsf", {places.File("a.dsf"), "--duration", "0.5"}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(places.Rescued(), ElementsAre("a-rescued.dsf"));
    ExpectCounter(places.TempFile("a-rescued.dsf"), 0, 176'400 * 8);
}

TEST_F(DsdFaultsTest, TheSecondSignalAbandonsARunningDsdSaveAtOnce) {
    Process program(RecordDsd("save=hang:", {places.File("a.dsf")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    program.Send(SIGINT);
    ASSERT_TRUE(program.AwaitOut("\"percent\":25.0"));

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 128 + SIGINT);
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(std::filesystem::exists(places.FilesPath()));
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(DsdFaultsTest, LessThanAByteOfBitsIsSaidAsSuch) {
    for (const std::vector<std::string>& wish : std::vector<std::vector<std::string>>{
             {places.File("a.dsf"), "--duration", "0.000001"},
             {"--range", "0.0000017-0.0000020=" + places.File("a.dsf")}}) {
        Process program(RecordDsd("", wish));

        EXPECT_EQ(program.Wait(), 1);

        EXPECT_THAT(program.Error(), HasSubstr("shorter than eight one-bit samples"));
    }
}

TEST_F(DsdFaultsTest, ALongRangeIsNoReasonForAWarning) {
    Process program(RecordDsd("lose=0.3", {"--range", "0-50:00:00=" + places.File("a.dsf")}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(program.Error(), Not(HasSubstr("4 GiB")));
}

TEST_F(FaultsTest, TheQuitSignalSavesAsTheOthersDo) {
    Process program(Record("", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));

    program.Send(SIGQUIT);

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_GT(ReadWav(places.File("a.wav")).Frames(), 0U);
    EXPECT_TRUE(places.TempIsEmpty());
}

class KeysTest : public FaultsTest {
protected:
    Process::Setup OnTerminal(const std::string& engine,
                              const std::vector<std::string>& arguments) const {
        Process::Setup setup = Record(engine, arguments);
        setup.terminal = true;
        setup.environment["TERM"] = "xterm";
        return setup;
    }
};

TEST_F(KeysTest, SpacePausesAndResumesAndQSaves) {
    Process program(OnTerminal("", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"seconds\":0.5"));
    EXPECT_TRUE(program.TerminalTakesSingleKeys());

    ASSERT_TRUE(program.Type(" "));
    ASSERT_TRUE(program.AwaitOut("\"paused\""));
    ASSERT_TRUE(program.AwaitOut("\"level\""));  // meters live on in a pause
    ASSERT_TRUE(program.Type(" "));
    ASSERT_TRUE(program.AwaitOut("\"recording\""));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_TRUE(program.TerminalRestored());
    // The pause is cut out: the counter jumps once.
    const Wav wav = ReadWav(places.File("a.wav"));
    const std::size_t gap = FirstGap(wav, 0);
    ASSERT_LT(gap, wav.Frames());
    EXPECT_EQ(gap % 4'800, 0U);
}

TEST_F(KeysTest, ADsdRecordingWithPausesIsSavedThoughItsPreviewIsLonger) {
    Process program(OnTerminal("", {places.File("a.dsf"), "--type", "dsd"}));
    for (int pause = 0; pause < 3; ++pause) {
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        ASSERT_TRUE(program.Type(" "));
        ASSERT_TRUE(program.AwaitOut("\"paused\""));
        ASSERT_TRUE(program.Type(" "));
        ASSERT_TRUE(program.AwaitOut("\"recording\""));
    }
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    // Whole tenths, and nothing of them is given up.
    EXPECT_EQ(LittleEndian(ReadBytes(places.File("a.dsf")), 64, 8) % 282'240, 0U);
}

TEST_F(KeysTest, ATerminalThatIsHeldHoldsNothingUp) {
    Process program(OnTerminal("", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"level\""));

    ASSERT_TRUE(program.Type("\x13"));  // Ctrl-S
    for (int count = 0; count < 20; ++count) {
        ASSERT_TRUE(program.AwaitOut("\"level\""));
    }
    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_TRUE(program.TerminalRestored());
    EXPECT_GT(ReadWav(places.File("a.wav")).Frames(), 0U);
}

TEST_F(KeysTest, APauseAtTheVeryStartWaitsUntilSomethingIsRecorded) {
    Process program(OnTerminal("", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"seconds\":0.1"));

    // Pause, resume and pause again before a buffer can come: the stand-in ends the program when
    // it is asked for a pause with nothing recorded since.
    ASSERT_TRUE(program.Type("   "));
    ASSERT_TRUE(program.AwaitOut("\"paused\""));
    ASSERT_TRUE(program.AwaitOut("\"paused\""));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0);
}

TEST_F(KeysTest, TheTerminalShowsAMovingLineThatIsGoneInTheEnd) {
    Process program(OnTerminal("", {places.File("a.wav")}));

    ASSERT_TRUE(program.AwaitError("room to record "));
    ASSERT_TRUE(program.AwaitError("rms"));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_THAT(program.Error(), HasSubstr("A\x1b[Jsaved "));
}

TEST_F(KeysTest, TheTerminalIsRestoredAfterEverySignal) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        Process program(OnTerminal("", {places.File("a.wav"), "--force"}));
        ASSERT_TRUE(program.AwaitOut("\"position\""));
        ASSERT_TRUE(program.TerminalTakesSingleKeys());

        program.Send(signal);

        program.Wait();
        EXPECT_TRUE(program.TerminalRestored()) << signal;
    }
}

TEST_F(KeysTest, AStoppedProgramGivesTheTerminalBackAndTakesItAgain) {
    Process program(OnTerminal("", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"level\""));

    program.Send(SIGTSTP);
    ASSERT_TRUE(program.AwaitStopped());
    EXPECT_TRUE(program.TerminalRestored());
    program.Send(SIGCONT);
    ASSERT_TRUE(program.AwaitOut("\"level\""));
    ASSERT_TRUE(program.AwaitOut("\"level\""));

    EXPECT_TRUE(program.TerminalTakesSingleKeys());
    ASSERT_TRUE(program.Type("q"));
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_TRUE(program.TerminalRestored());
}

TEST_F(KeysTest, TheTerminalIsRestoredWhenTheRecorderIsLostAndAfterAThirdSignal) {
    Process lost(OnTerminal("lose=0.5", {places.File("a.wav")}));
    EXPECT_EQ(lost.Wait(), 2);
    EXPECT_TRUE(lost.TerminalRestored());

    Process stuck(OnTerminal("stop=hang", {places.File("b.wav")}));
    ASSERT_TRUE(stuck.AwaitOut("\"position\""));
    stuck.Send(SIGINT);
    ASSERT_TRUE(stuck.AwaitOut("\"stopping\""));
    stuck.Send(SIGINT);
    ASSERT_TRUE(stuck.AwaitError("abandoned"));
    stuck.Send(SIGINT);
    EXPECT_EQ(stuck.Wait(), 128 + SIGINT);
    EXPECT_TRUE(stuck.TerminalRestored());
}

}  // namespace
}  // namespace vorrel::test
