#include "TimeRange.h"

#include <gtest/gtest.h>

#include "ExitCode.h"

namespace vorrel::cli {
namespace {

TEST(ParseTimeTest, ReadsSecondsMinutesAndHours) {
    EXPECT_EQ(ParseTime("90"), 90.0);
    EXPECT_EQ(ParseTime("90.25"), 90.25);
    EXPECT_EQ(ParseTime(".5"), 0.5);
    EXPECT_EQ(ParseTime("1:30"), 90.0);
    EXPECT_EQ(ParseTime("1:30.5"), 90.5);
    EXPECT_EQ(ParseTime("01:02:03.25"), 3723.25);
    EXPECT_EQ(ParseTime("100:00"), 6000.0);
}

TEST(ParseTimeTest, RefusesWhatIsNoTime) {
    for (const char* text :
         {"",    ":",   "1:",  ":30",   "1:60", "1:75", "1.5:30", "-1", "+1",      "1e3",
          "nan", "inf", "1,5", "1.2.3", ".",    " 1",   "1 ",     "1s", "1:2:3:4", "10000001"}) {
        EXPECT_EQ(ParseTime(text), std::nullopt) << '"' << text << '"';
    }
}

TEST(ParseTimeTest, ARefusalTellsAWrongTextFromATimeThatIsTooLong) {
    EXPECT_EQ(TimeRefusal("soon"), "is no time (seconds, or 1:30.5)");
    EXPECT_EQ(TimeRefusal("10000001"), "is too long: no more than 2777 hours");
    EXPECT_EQ(TimeRefusal(std::string(400, '9')), "is too long: no more than 2777 hours");
}

TEST(ParseRangeTest, AnEmptyRangeIsSaidToBeEmpty) {
    try {
        ParseRange("1-1=a.wav");
        ADD_FAILURE();
    } catch (const Failure& failure) {
        EXPECT_NE(std::string(failure.what()).find("it is empty"), std::string::npos);
    }
}

TEST(ParseRangeTest, TakesStartEndAndFile) {
    const Range range = ParseRange("1:30-2:45.5=side a.wav");

    EXPECT_EQ(range.start, 90.0);
    EXPECT_EQ(range.end, 165.5);
    EXPECT_EQ(range.file, "side a.wav");
}

TEST(ParseRangeTest, LeavesSeparatorsInTheNameAlone) {
    EXPECT_EQ(ParseRange("0-1=a=b-c.wav").file, "a=b-c.wav");
}

TEST(ParseRangeTest, WithoutEndGoesToTheEndOfTheRecording) {
    const Range range = ParseRange("10-=rest.wav");

    EXPECT_EQ(range.start, 10.0);
    EXPECT_EQ(range.end, std::nullopt);
}

TEST(ParseRangeTest, RefusesWhatIsNoRangeAndQuotesIt) {
    for (const char* text : {"", "5", "5=a.wav", "0-5", "0-5=", "-5=a.wav", "x-5=a.wav",
                             "0-y=a.wav", "5-5=a.wav", "6-5=a.wav", "0--5=a.wav"}) {
        try {
            ParseRange(text);
            ADD_FAILURE() << '"' << text << "\" was taken";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.exit, ExitCode::Usage);
            EXPECT_NE(std::string(failure.what()).find('"' + std::string(text) + '"'),
                      std::string::npos)
                << failure.what();
            EXPECT_EQ(std::string(failure.what()).find('\n'), std::string::npos);
        }
    }
}

TEST(FramesTest, SecondsOfAFrameAreCutOffToThatFrameAtEveryRate) {
    for (const std::uint64_t rate :
         {44'100ULL, 48'000ULL, 88'200ULL, 96'000ULL, 176'400ULL, 192'000ULL, 352'800ULL,
          384'000ULL, 2'822'400ULL, 5'644'800ULL, 11'289'600ULL}) {
        for (const std::uint64_t frame : {0ULL, 1ULL, 2ULL, 3ULL, 44'099ULL, 44'101ULL, 132'300ULL,
                                          1'234'567ULL, 4'294'967'295ULL, 3'840'000'000'000ULL}) {
            const double product = static_cast<double>(rate) * SecondsOfFrame(frame, rate);
            EXPECT_EQ(static_cast<std::uint64_t>(product), frame) << rate;
        }
    }
}

TEST(ClockTextTest, ShowsTenthsAndHoursFromOneHourOn) {
    EXPECT_EQ(ClockText(0.0), "00:00.0");
    EXPECT_EQ(ClockText(0.3), "00:00.3");  // in binary three tenths are a little less
    EXPECT_EQ(ClockText(123.45), "02:03.4");
    EXPECT_EQ(ClockText(3599.99), "59:59.9");
    EXPECT_EQ(ClockText(3723.5), "1:02:03.5");
}

}  // namespace
}  // namespace vorrel::cli
