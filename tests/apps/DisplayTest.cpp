#include "Display.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "TerminalFrame.h"

namespace vorrel::cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

constexpr double kSilence = -std::numeric_limits<double>::infinity();

StatusLine Recording() {
    StatusLine status;
    status.state = "recording";
    status.position = 83.4;
    status.levels = {{-12.0, false, -20.0}, {-3.0, false, -9.0}};
    status.diskSecondsLeft = 7200.0;
    status.takeSecondsLeft = 7200.0;
    status.saveSecondsLeft = 18'000.0;
    status.wave = {0.0, 0.01, 0.1, 0.5, 1.0};
    status.keys = "space pause   m mark   q stop and save";
    return status;
}

Terminal Size(std::size_t columns, std::size_t rows) {
    Terminal terminal;
    terminal.columns = columns;
    terminal.rows = rows;
    return terminal;
}

/// What a terminal shows of it.
std::vector<std::string> Shown(const StatusLine& status, const Terminal& terminal) {
    test::TerminalFrame frame;
    for (const std::string& line : DisplayLines(status, terminal)) {
        frame.Take(line + "\n");
    }
    EXPECT_THAT(frame.Unknown(), SizeIs(0));
    EXPECT_LE(frame.Widest(), terminal.columns);
    return frame.Lines();
}

TEST(DisplayTest, APageOfRecordingIsReadFromAfar) {
    EXPECT_THAT(
        Shown(Recording(), Size(79, 24)),
        ElementsAre(" _         _   _          RECORDING",     //
                    "| |   | .  _|  _|   |_|   nothing lost",  //
                    "|_|   | . |_   _| .   |   room to record 2 h 00 min, to save 5 h 00 min",
                    std::string(75, ' ') + ".=*#",  //
                    "L [#############################|######---------] peak -12.0  rms -20.0",
                    "R [#####################################|#####--] peak  -3.0  rms  -9.0",
                    "space pause   m mark   q stop and save"));
}

TEST(DisplayTest, ASmallTerminalHasOneLine) {
    for (const Terminal& terminal : {Size(47, 24), Size(80, 8), Size(20, 5), Size(1, 1)}) {
        EXPECT_THAT(DisplayLines(Recording(), terminal),
                    ElementsAre(StatusText(Recording(), terminal.columns)));
    }
}

TEST(DisplayTest, NoLineIsWiderThanTheTerminalHoweverManyChannels) {
    StatusLine status = Recording();
    status.lostBuffers = true;
    status.marks = 12;
    status.savePercent = 99.9;
    status.position = 100.0 * 3600.0;
    status.wave.assign(400, 0.5);
    for (const std::size_t channels : {1U, 2U, 8U, 32U}) {
        status.levels.assign(channels, {0.0, true, kSilence});
        for (std::size_t columns = 1; columns < 200; ++columns) {
            for (const bool utf8 : {false, true}) {
                Terminal terminal = Size(columns, 60);
                terminal.utf8 = utf8;
                terminal.colour = utf8;
                std::ignore = Shown(status, terminal);
            }
        }
    }
}

TEST(DisplayTest, WhatIsLostOrClippedStandsOut) {
    StatusLine status = Recording();
    status.lostBuffers = true;
    status.levels[0].clipped = true;
    status.marks = 3;
    Terminal terminal = Size(100, 24);
    terminal.colour = true;

    std::string text;
    for (const std::string& line : DisplayLines(status, terminal)) {
        text += line + "\n";
    }

    EXPECT_THAT(text, HasSubstr("\x1b[1;31mBUFFERS LOST\x1b[0m"));
    EXPECT_THAT(text, HasSubstr("\x1b[1;31m  CLIP\x1b[0m"));
    EXPECT_THAT(text, HasSubstr("marks 3"));
    EXPECT_THAT(text, HasSubstr("\x1b[1;31mRECORDING\x1b[0m"));
}

TEST(DisplayTest, WithoutColourThereIsNoSequence) {
    for (const std::string& line : DisplayLines(Recording(), Size(100, 24))) {
        EXPECT_THAT(line, Not(HasSubstr("\x1b")));
    }
}

TEST(DisplayTest, TheWaveformScrollsInEighthsOfACharacterWhereTheTerminalHasThem) {
    Terminal terminal = Size(50, 24);
    terminal.utf8 = true;

    EXPECT_EQ(Shown(Recording(), terminal)[3], std::string(46, ' ') + "▂▅▇█");
}

TEST(DisplayTest, ASaveShowsHowFarItIs) {
    StatusLine status;
    status.state = "saving";
    status.savePercent = 42.9;

    EXPECT_THAT(Shown(status, Size(79, 24))[0], HasSubstr("SAVING  42 %"));
}

TEST(ClipHoldTest, AClippedSampleStaysInSightForThreeSeconds) {
    using namespace std::chrono_literals;
    const ClipHold::Clock::time_point start{};
    ClipHold hold;
    const std::vector<Level> quiet = {{-20.0, false}, {-20.0, false}};
    std::vector<Level> clipped = quiet;
    clipped[1].clipped = true;

    EXPECT_FALSE(hold.Hold(quiet, start)[1].clipped);
    EXPECT_TRUE(hold.Hold(clipped, start + 1s)[1].clipped);
    EXPECT_TRUE(hold.Hold(quiet, start + 3999ms)[1].clipped);
    EXPECT_FALSE(hold.Hold(quiet, start + 3999ms)[0].clipped);
    EXPECT_FALSE(hold.Hold(quiet, start + 4s)[1].clipped);
}

}  // namespace
}  // namespace vorrel::cli
