// A recorder that goes while the recording is waited for.
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
using testing::IsEmpty;

constexpr std::time_t kTenHours = 36'000;

class RecorderGoneTest : public FaultsTest {
protected:
    /// Waits for a time of day; the recorder goes meanwhile.
    Process::Setup Waiting(const std::string& engine, std::time_t seconds = kTenHours) const {
        return Record(engine, {places.File("a.wav"), "--start-at", In(seconds), "--duration", "1"});
    }
    void ExpectNothingIsLeft() const {
        EXPECT_THAT(places.Files(), IsEmpty());
        EXPECT_TRUE(places.TempIsEmpty());
    }
};

TEST_F(RecorderGoneTest, OneThatComesBackBeforeTheTimeIsRecordedFrom) {
    Process program(Waiting("away=1"));
    ASSERT_TRUE(program.AwaitError("warning: the recorder is gone; it is looked for"));
    ASSERT_TRUE(program.AwaitError("the recorder is there again"));

    program.Send(SIGUSR1);

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
    EXPECT_THAT(Events(program.Out(), "error"), IsEmpty());
}

TEST_F(RecorderGoneTest, OneThatIsBackAtTheVeryTimeIsRecordedFrom) {
    Process program(Waiting("away=0", 2));

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
}

TEST_F(RecorderGoneTest, OneThatIsNotThereAtTheTimeIsADeviceError) {
    Process program(Waiting("away=1000", 2));

    EXPECT_EQ(program.Wait(), 2);

    const std::vector<nlohmann::json> errors = Events(program.Out(), "error");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].at("kind"), "device");
    EXPECT_EQ(errors[0].at("code"), -4);  // not found
    EXPECT_EQ(errors[0].at("message"),
              "the recording does not start, for the recorder is gone: no recorder is connected");
    ExpectNothingIsLeft();
}

TEST_F(RecorderGoneTest, OneThatIsNotThereAtTheKeyIsADeviceError) {
    Process program(Waiting("away=1000"));
    ASSERT_TRUE(program.AwaitError("the recorder is gone"));

    program.Send(SIGUSR1);

    EXPECT_EQ(program.Wait(), 2);
    ExpectNothingIsLeft();
}

TEST_F(RecorderGoneTest, AStartThatFailsAfterItEndsTheProgram) {
    Process program(Waiting("away=0,start=fail"));
    ASSERT_TRUE(program.AwaitError("the recorder is gone"));

    program.Send(SIGUSR1);

    EXPECT_EQ(program.Wait(), 2);
    EXPECT_THAT(program.Error(), HasSubstr("the recorder could not be started"));
    ExpectNothingIsLeft();
}

TEST_F(RecorderGoneTest, WhoLeavesMeanwhileHasRecordedNothing) {
    Process program(Waiting("away=1000"));
    ASSERT_TRUE(program.AwaitError("the recorder is gone"));

    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 5);
    EXPECT_THAT(program.Error(), HasSubstr("nothing was recorded"));
    ExpectNothingIsLeft();
}

TEST_F(RecorderGoneTest, OneThatGoesWhileItIsArmedIsArmedAgain) {
    Process program(
        Record("lose=0.5,away=1", {places.File("a.wav"), "--pre-roll", "0.2", "--duration", "1"}));
    for (const char* state : {"armed", "waiting", "starting", "armed", "level"}) {
        ASSERT_TRUE(program.AwaitOut("\"" + std::string(state) + "\"")) << state;
    }

    program.Send(SIGUSR1);

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_EQ(wav.Frames(), 48'000U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
}

TEST_F(RecorderGoneTest, TheKeyArmsOneThatIsBackAndBegins) {
    Process program(
        Record("lose=0.5,away=0", {places.File("a.wav"), "--pre-roll", "5", "--duration", "1"}));
    ASSERT_TRUE(program.AwaitOut("\"waiting\""));

    program.Send(SIGUSR1);

    EXPECT_EQ(program.Wait(), 0) << program.Error();
    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
}

}  // namespace
}  // namespace vorrel::test
