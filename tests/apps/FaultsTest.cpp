// What the program makes of an engine in trouble. FakeEngine.cpp tells what it can be set to.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "CliProgram.h"
#include "WavReader.h"

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
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(FaultsTest, ASkippedFileGivesItsOwnExitCodeAndTheOtherFilesAreSaved) {
    Process program(Record("save=skip:b.wav", {places.File("a.wav"), "--duration", "1", "--range",
                                               "0-0.5=" + places.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 5);

    EXPECT_EQ(Events(program.Out(), "skipped").at(0).at("file"), places.File("b.wav"));
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
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

TEST_F(FaultsTest, TheQuitSignalAbandonsAtOnce) {
    Process program(Record("", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));

    program.Send(SIGQUIT);

    EXPECT_EQ(program.Wait(), 128 + SIGQUIT);
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

class KeysTest : public FaultsTest {
protected:
    Process::Setup OnTerminal(const std::string& engine,
                              const std::vector<std::string>& arguments) const {
        Process::Setup setup = Record(engine, arguments);
        setup.terminal = true;
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

    ASSERT_TRUE(program.AwaitError("recording  L [#"));
    ASSERT_TRUE(program.AwaitError("disk "));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_THAT(program.Error(), HasSubstr("\r\x1b[Ksaved "));
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
