// What people see: frames captured from a terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CliProgram.h"
#include "TerminalFrame.h"

namespace vorrel::test {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ScreenTest : public testing::Test {
protected:
    Process::Setup OnTerminal(unsigned short columns, unsigned short rows) const {
        Process::Setup setup =
            places.Record(VORREL_CLI, {places.File("a.wav"), "--simulate=source=tone,speed=1"});
        setup.terminal = true;
        setup.columns = columns;
        setup.rows = rows;
        setup.environment["LC_ALL"] = "C.UTF-8";
        setup.environment["TERM"] = "xterm";
        return setup;
    }
    /// What has come so far, without the line that a process without real-time rights says once.
    static std::string Said(const Process& program) {
        std::string said = program.Error();
        if (const std::size_t at = said.find("real-time scheduling"); at != std::string::npos) {
            const std::size_t begin = said.rfind('\n', at) + 1;  // 0 without one
            said.erase(begin, said.find('\n', at) + 1 - begin);
        }
        return said;
    }
    /// What the terminal shows of it.
    static TerminalFrame Frame(const Process& program) {
        TerminalFrame frame;
        frame.Take(Said(program));
        return frame;
    }

    CliPlaces places;
};

TEST_F(ScreenTest, ARecordingShowsStatePositionMetersAndRoom) {
    Process program(OnTerminal(100, 24));
    ASSERT_TRUE(program.AwaitError("RECORDING"));
    ASSERT_TRUE(program.AwaitError("rms"));
    ASSERT_TRUE(program.AwaitError("room to record"));
    ASSERT_TRUE(program.AwaitError("RECORDING"));

    const TerminalFrame frame = Frame(program);

    EXPECT_THAT(frame.Unknown(), IsEmpty());
    EXPECT_LE(frame.Widest(), 99U);
    EXPECT_THAT(frame.Text(), AllOf(HasSubstr("nothing lost"), HasSubstr("L [####"),
                                    HasSubstr("R [####"), HasSubstr("to save")));
    EXPECT_THAT(program.Error(), HasSubstr("\x1b[1;31mRECORDING\x1b[0m"));
    ASSERT_TRUE(program.Type(" "));
    ASSERT_TRUE(program.AwaitError("PAUSED"));
    ASSERT_TRUE(program.Type("q"));
    EXPECT_EQ(program.Wait(), 0);
    // What moved is gone; the messages stay.
    const TerminalFrame last = Frame(program);
    EXPECT_THAT(last.Text(),
                AllOf(HasSubstr("saved "), Not(HasSubstr("rms")), Not(HasSubstr("RECORDING"))));
    EXPECT_TRUE(program.TerminalRestored());
}

TEST_F(ScreenTest, ItIsRedrawnInPlaceAndAtMostTwentyTimesASecond) {
    Process program(OnTerminal(100, 24));
    ASSERT_TRUE(AwaitPosition(program, 2.0));
    ASSERT_TRUE(program.Type("q"));
    EXPECT_EQ(program.Wait(), 0);

    std::size_t redraws = 0;
    for (std::size_t at = 0; (at = program.Error().find("RECORDING", at)) != std::string::npos;
         ++at) {
        ++redraws;
    }
    const auto positions = Events(program.Out(), "position");
    const double seconds = positions.back().at("seconds").get<double>();
    EXPECT_GE(redraws, 5U);
    EXPECT_LE(static_cast<double>(redraws), 20.0 * (seconds + 1.0));
    EXPECT_LE(Frame(program).Rows(), 12U);  // frames do not pile up
}

TEST_F(ScreenTest, WhatOthersWriteToTheTerminalStandsWholeAboveTheDrawing) {
    Process program(OnTerminal(100, 24));
    ASSERT_TRUE(program.AwaitError("rms"));
    ASSERT_TRUE(program.AwaitError("q stop and save"));
    ASSERT_TRUE(program.AwaitError("RECORDING"));
    ASSERT_TRUE(program.AwaitError("q stop and save"));

    ASSERT_TRUE(program.WriteBeside("a word of the engine\n"));
    for (int frame = 0; frame < 3; ++frame) {
        ASSERT_TRUE(program.AwaitError("RECORDING"));
    }

    const std::vector<std::string> lines = Frame(program).Lines();
    ASSERT_THAT(lines, testing::Contains("a word of the engine").Times(1));
    EXPECT_THAT(lines, testing::Contains(HasSubstr("RECORDING")).Times(1));
    EXPECT_THAT(lines, testing::Contains(HasSubstr("L [")).Times(1));
    EXPECT_LT(std::ranges::find(lines, "a word of the engine"),
              std::ranges::find_if(lines, [](const std::string& line) {
                  return line.find("RECORDING") != std::string::npos;
              }));
    ASSERT_TRUE(program.Type("q"));
    EXPECT_EQ(program.Wait(), 0);
    // The messages and it, and nothing of the drawing.
    EXPECT_THAT(Frame(program).Lines(),
                testing::ElementsAre(HasSubstr("recording from"), HasSubstr("space:"),
                                     "a word of the engine", HasSubstr("saved ")));
}

TEST_F(ScreenTest, ANarrowTerminalHasOneLine) {
    Process program(OnTerminal(30, 24));
    ASSERT_TRUE(program.AwaitError("recording"));
    ASSERT_TRUE(program.AwaitError("00:01."));

    const TerminalFrame frame = Frame(program);

    EXPECT_THAT(program.Error(), Not(HasSubstr("rms")));
    EXPECT_THAT(frame.Lines().back(), ContainsRegex("^00:01.. recording"));
    EXPECT_LE(frame.Lines().back().size(), 29U);
    ASSERT_TRUE(program.Type("q"));
    EXPECT_EQ(program.Wait(), 0);
}

TEST_F(ScreenTest, WhoWantsNoColourGetsNone) {
    Process::Setup setup = OnTerminal(100, 24);
    setup.environment["NO_COLOR"] = "1";
    Process program(setup);
    ASSERT_TRUE(program.AwaitError("rms"));

    EXPECT_THAT(program.Error(), Not(ContainsRegex("\x1b\\[[0-9;]*m")));

    ASSERT_TRUE(program.Type("q"));
    EXPECT_EQ(program.Wait(), 0);
}

TEST_F(ScreenTest, ADumbTerminalGetsMessagesAlone) {
    Process::Setup setup = OnTerminal(100, 24);
    setup.arguments.insert(setup.arguments.end(), {"--duration", "0.5"});
    setup.environment["TERM"] = "dumb";
    Process program(setup);

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_THAT(program.Error(), HasSubstr("saved "));
    EXPECT_THAT(program.Error(), Not(HasSubstr("\x1b")));
}

TEST_F(ScreenTest, AQuietRecordingDrawsNothing) {
    Process::Setup setup = OnTerminal(100, 24);
    setup.arguments.insert(setup.arguments.end(), {"--quiet", "--duration", "0.5"});
    Process program(setup);

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_EQ(Said(program), "");
}

}  // namespace
}  // namespace vorrel::test
