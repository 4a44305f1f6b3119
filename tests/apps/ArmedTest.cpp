// Waiting for the moment: pre-recording, pre-roll and a time of day.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "CliProgram.h"
#include "WavReader.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ArmedTest : public testing::Test {
protected:
    Process::Setup Record(const std::vector<std::string>& arguments) const {
        return places.Record(VORREL_CLI, arguments);
    }
    Process::Setup OnTerminal(const std::vector<std::string>& arguments) const {
        Process::Setup setup = Record(arguments);
        setup.terminal = true;
        return setup;
    }

    CliPlaces places;
};

constexpr const char* kCounter = "--simulate=source=counter,speed=20";

TEST_F(ArmedTest, PreRecordingBeginsWithTheKey) {
    Process program(
        OnTerminal({places.File("a.wav"), kCounter, "--pre-record", "--duration", "1"}));
    ASSERT_TRUE(program.AwaitOut("\"armed\""));
    ASSERT_TRUE(program.AwaitOut("\"level\""));
    ASSERT_TRUE(program.AwaitOut("\"level\""));
    ASSERT_TRUE(program.Type("r"));
    ASSERT_TRUE(program.AwaitOut("\"recording\""));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_EQ(wav.Frames(), 48'000U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_GT(CounterStart(wav), 0U);  // what came while it was armed is not in it
}

TEST_F(ArmedTest, PreRollBeginsSoLongBeforeTheKey) {
    Process program(OnTerminal({places.File("a.wav"), kCounter, "--pre-roll", "2", "--range",
                                "0-0.5=" + places.File("b.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"armed\""));
    for (int look = 0; look < 10; ++look) {
        ASSERT_TRUE(program.AwaitOut("\"level\""));  // two seconds of recording each
    }
    ASSERT_TRUE(program.Type("r"));
    ASSERT_TRUE(program.AwaitError("the recording begins 00:02.0 before"));
    ASSERT_TRUE(AwaitPosition(program, 3));
    ASSERT_TRUE(program.Type("q"));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_GE(wav.Frames(), 29U * 4'800U);  // positions are told in tenths
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_GT(CounterStart(wav), 0U);
    const Wav range = ReadWav(places.File("b.wav"));
    EXPECT_EQ(range.Frames(), 24'000U);  // counted from the take's start
    EXPECT_EQ(CounterStart(range), CounterStart(wav));
}

TEST_F(ArmedTest, APreRollIsNoLongerThanWhatThereIs) {
    Process program(
        Record({places.File("a.wav"), kCounter, "--pre-roll", "600", "--duration", "3"}));
    ASSERT_TRUE(program.AwaitOut("\"armed\""));

    program.Send(SIGUSR1);

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_EQ(wav.Frames(), 3U * 48'000U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
}

TEST_F(ArmedTest, AtDsdTheTakeBeginsWithAWholeByte) {
    Process program(Record({places.File("a.dsf"), "--type", "dsd", "--pre-roll", "0.5",
                            "--duration", "1", "--simulate=source=counter,speed=5"}));
    ASSERT_TRUE(program.AwaitOut("\"armed\""));
    for (int look = 0; look < 4; ++look) {
        ASSERT_TRUE(program.AwaitOut("\"level\""));
    }

    program.Send(SIGUSR1);

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    EXPECT_EQ(LittleEndian(ReadBytes(places.File("a.dsf")), 64, 8), 2'822'400U);
}

TEST_F(ArmedTest, ALongWaitGivesBackWhatItHasStored) {
    // 600 seconds and the pre-roll of a recording, at 100 times its speed.
    Process program(Record({places.File("a.wav"), "--simulate=source=counter,speed=100,channels=1",
                            "--pre-roll", "1", "--duration", "2"}));
    ASSERT_TRUE(program.AwaitOut("\"armed\""));
    ASSERT_TRUE(program.AwaitOut("\"armed\"")) << program.Error();  // anew

    program.Send(SIGUSR1);

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_EQ(wav.Frames(), 2U * 48'000U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(ArmedTest, WhoLeavesWhileArmedHasRecordedNothing) {
    for (const char* option : {"--pre-record", "--pre-roll=1"}) {
        Process program(Record({places.File("a.wav"), kCounter, option}));
        ASSERT_TRUE(program.AwaitOut("\"armed\""));
        ASSERT_TRUE(program.AwaitOut("\"level\""));

        program.Send(SIGTERM);

        EXPECT_EQ(program.Wait(), 5);
        EXPECT_THAT(program.Error(), HasSubstr("nothing was recorded"));
        EXPECT_THAT(places.Files(), IsEmpty());
        EXPECT_TRUE(places.TempIsEmpty());
    }
}

TEST_F(ArmedTest, ARecorderThatIsLostWhileArmedAndNotThereAtTheKeyIsADeviceError) {
    Process program(Record(
        {places.File("a.wav"), "--simulate=source=counter,speed=20,unplug=20", "--pre-record"}));
    ASSERT_TRUE(program.AwaitOut("\"armed\""));
    ASSERT_TRUE(program.AwaitOut("\"waiting\""));

    program.Send(SIGUSR1);

    EXPECT_EQ(program.Wait(), 2);
    EXPECT_THAT(program.Error(), HasSubstr("for the recorder is gone: no recorder is connected"));

    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(ArmedTest, SpaceAndMarksMeanNothingWhileArmed) {
    Process program(
        OnTerminal({places.File("a.wav"), kCounter, "--pre-roll", "1", "--duration", "2"}));
    ASSERT_TRUE(program.AwaitOut("\"armed\""));
    ASSERT_TRUE(program.Type(" mxR"));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_THAT(Events(program.Out(), "mark"), IsEmpty());
}

TEST_F(ArmedTest, ATimeOfDayBeginsTheRecording) {
    const std::time_t before = std::time(nullptr);
    Process program(
        Record({places.File("a.wav"), kCounter, "--start-at", In(2), "--duration", "1"}));
    ASSERT_TRUE(program.AwaitOut("\"waiting\""));
    ASSERT_TRUE(program.AwaitOut("\"recording\""));
    const std::time_t begun = std::time(nullptr);

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_GE(begun, before + 2);
    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
}

TEST_F(ArmedTest, ATimeOfDayWithAPreRollBeginsBeforeIt) {
    Process program(Record({places.File("a.wav"), kCounter, "--start-at", In(2), "--duration", "2",
                            "--pre-roll", "1"}));
    ASSERT_TRUE(program.AwaitError("the recording begins 00:01.0 before"));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 96'000U);
}

TEST_F(ArmedTest, TheKeyNeedNotWaitForTheTimeOfDay) {
    Process program(
        OnTerminal({places.File("a.wav"), kCounter, "--start-at", In(36'000), "--duration", "1"}));
    ASSERT_TRUE(program.AwaitOut("\"waiting\""));
    ASSERT_TRUE(program.Type("r"));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
}

TEST_F(ArmedTest, WhoLeavesBeforeTheTimeOfDayHasRecordedNothing) {
    Process program(Record({places.File("a.wav"), kCounter, "--start-at", In(36'000)}));
    ASSERT_TRUE(program.AwaitOut("\"waiting\""));

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 5);
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

}  // namespace
}  // namespace vorrel::test
