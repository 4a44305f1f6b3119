// What the program makes of a one-bit recording in trouble.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "FaultsRig.h"
#include "WavReader.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

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

}  // namespace
}  // namespace vorrel::test
