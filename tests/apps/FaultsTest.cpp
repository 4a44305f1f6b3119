// What the program makes of an engine in trouble.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "FaultsRig.h"
#include "WavReader.h"

namespace vorrel::test {
namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

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

TEST_F(FaultsTest, AMarkCutsWhereTheRecordingStandsThoughThePreviewIsBehind) {
    Process::Setup setup = Record("preview=late", {places.File("a.wav")});
    setup.terminal = true;
    Process program(setup);
    ASSERT_TRUE(AwaitPosition(program, 1.0));
    ASSERT_TRUE(program.Type("m"));
    ASSERT_TRUE(program.AwaitOut("\"mark\""));
    ASSERT_TRUE(AwaitAdvance(program, 1.0));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0);

    const std::size_t first = ReadWav(places.File("a-01.wav")).Frames();
    EXPECT_GE(first, 48'000U);
    EXPECT_EQ(first % 4'800, 0U);
    EXPECT_GT(ReadWav(places.File("a-02.wav")).Frames(), 0U);
}

TEST_F(FaultsTest, AGapInTheRecordersStreamIsToldWhereItIsAndInTheExitCode) {
    Process program(Record("gap=0.5", {places.File("a.wav"), "--duration", "3"}));

    EXPECT_EQ(program.Wait(), 4);

    EXPECT_THAT(program.Error(), ContainsRegex("warning: sound is missing near 00:0[0-9.]*: "));
    const std::vector<nlohmann::json> lost = Events(program.Out(), "lost");
    ASSERT_EQ(lost.size(), 1U);
    EXPECT_GE(lost[0].at("seconds").get<double>(), 0.5);
    EXPECT_LE(lost[0].at("seconds").get<double>(), 3.0);
    const std::vector<nlohmann::json> traced = Events(program.Out(), "trace");
    ASSERT_EQ(traced.size(), 1U);
    EXPECT_THAT(traced[0].at("message").get<std::string>(), HasSubstr("has a gap"));
    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 144'000U);
}

TEST_F(FaultsTest, ManyGapsAreToldOnceASecond) {
    Process program(Record("gaps=0.5", {places.File("a.wav"), "--duration", "20"}));

    EXPECT_EQ(program.Wait(), 4);

    const std::size_t told = Events(program.Out(), "lost").size();
    EXPECT_GE(told, 2U);
    EXPECT_LE(told, 21U);
}

TEST_F(FaultsTest, AGapWhileItIsPausedIsNoneOfTheRecording) {
    Process::Setup setup = Record("gap=paused", {places.File("a.wav")});
    setup.terminal = true;
    Process program(setup);
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    ASSERT_TRUE(program.Type(" "));
    ASSERT_TRUE(program.AwaitOut("\"trace\""));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_THAT(Events(program.Out(), "lost"), IsEmpty());
}

TEST_F(FaultsTest, AGapInThePreRollIsOneOfTheRecording) {
    for (const bool within : {true, false}) {
        Process program(Record("gap=0.5", {places.File("a.wav"), "--force", "--duration", "2",
                                           within ? "--pre-roll=60" : "--pre-roll=0.1"}));
        ASSERT_TRUE(program.AwaitOut("\"trace\""));
        if (!within) {
            // Ten steps of the recorder later it lies before the pre-roll.
            for (int level = 0; level < 3; ++level) {
                ASSERT_TRUE(program.AwaitOut("\"level\""));
            }
        }
        program.Send(SIGUSR1);

        EXPECT_EQ(program.Wait(), within ? 4 : 0);

        EXPECT_EQ(Events(program.Out(), "lost").size(), within ? 1U : 0U);
    }
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
    Process program(After("exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; ulimit -n 24",
                          Record("", {places.File("a.wav"), "--duration", "0.5"})));

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

TEST_F(FaultsTest, ASimulatedRecorderThatNobodyAskedForIsSaidLoudly) {
    Process::Setup setup =
        places.Record(VORREL_CLI_FAKE, {places.File("a.wav"), "--duration", "0.2", "--quiet"});
    setup.environment["VORREL_BACKEND"] = "simulated";
    Process silent(setup);
    Process asked(Record("", {places.File("b.wav"), "--duration", "0.2"}));
    setup.arguments[3] = "--temp-dir";
    setup.environment["VORREL_BACKEND"] = "other";
    setup.arguments.emplace_back("--force");

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
        setup.arguments.emplace_back("--simulate");
        Process asked(setup);

        EXPECT_EQ(silent.Wait(), 0);
        EXPECT_EQ(asked.Wait(), 0);

        EXPECT_THAT(silent.Error(), HasSubstr("SIMULATED"));
        EXPECT_EQ(asked.Error(), "this is the simulated recorder\n");
        EXPECT_EQ(JsonLines(asked.Out()).front().at("simulated"), true);
    }
}

}  // namespace
}  // namespace vorrel::test
