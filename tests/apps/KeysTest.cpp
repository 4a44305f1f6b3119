// Keys, and what is left of a terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "FaultsRig.h"
#include "WavReader.h"

namespace vorrel::test {
namespace {

using testing::HasSubstr;

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
    for (int look = 0; look < 3; ++look) {
        ASSERT_TRUE(program.AwaitOut("\"level\""));  // meters live on in a pause
    }
    ASSERT_TRUE(program.Type(" "));
    ASSERT_TRUE(program.AwaitOut("\"recording\""));
    ASSERT_TRUE(AwaitAdvance(program, 1.0));
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

TEST_F(KeysTest, AMarkAtTheVeryEndIsSaidAndSkipsNothing) {
    Process program(OnTerminal("", {places.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    ASSERT_TRUE(program.Type(" "));
    ASSERT_TRUE(program.AwaitOut("\"paused\""));
    ASSERT_TRUE(program.Type("mq"));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_THAT(program.Error(), HasSubstr("is where the recording ends: no file begins there"));
    EXPECT_THAT(places.Files(), testing::ElementsAre("a.wav"));
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

TEST_F(KeysTest, KeysThatATerminalSendsAsSequencesMeanNothing) {
    Process program(OnTerminal("", {places.File("a.wav"), "--pre-roll", "0.2"}));
    ASSERT_TRUE(program.AwaitOut("\"armed\""));
    for (const char* keys : {"\x1bOR", "\x1bOQ", "\x1bq", "\x1b[M r\"", "\x1b[1;5R"}) {
        ASSERT_TRUE(program.Type(keys));
    }
    ASSERT_TRUE(program.Type("r"));
    ASSERT_TRUE(program.AwaitOut("\"recording\""));
    ASSERT_TRUE(AwaitPosition(program, 0.5));
    for (const char* keys : {"\x1bOQ", "\x1bq", "\x1b[M m\"", "\x1b[<0;1;1m"}) {
        ASSERT_TRUE(program.Type(keys));
    }
    ASSERT_TRUE(program.AwaitOut("\"level\""));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0);
    std::vector<std::string> states;
    for (const nlohmann::json& event : Events(program.Out(), "state")) {
        states.push_back(event.at("state"));
    }
    EXPECT_THAT(states,
                testing::ElementsAre("starting", "armed", "recording", "stopping", "saving"));
    EXPECT_TRUE(Events(program.Out(), "mark").empty());
}

TEST_F(KeysTest, TheTerminalShowsAMovingLineThatIsGoneInTheEnd) {
    Process program(OnTerminal("", {places.File("a.wav")}));

    ASSERT_TRUE(program.AwaitError("room to record "));
    ASSERT_TRUE(program.AwaitError("rms"));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0);
    EXPECT_THAT(program.Error(), HasSubstr("A\r\r\x1b[Jsaved "));
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
    ASSERT_TRUE(AwaitNextRequest(stuck, "\"position\""));
    stuck.Send(SIGINT);
    ASSERT_TRUE(stuck.AwaitOut("abandoned"));
    ASSERT_TRUE(AwaitNextRequest(stuck, "\"position\""));
    stuck.Send(SIGINT);
    EXPECT_EQ(stuck.Wait(), 128 + SIGINT);
    EXPECT_TRUE(stuck.TerminalRestored());
}

}  // namespace
}  // namespace vorrel::test
