#include "Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <tuple>

#include "Engine.h"
#include "ExitCode.h"
#include "OptionValues.h"

namespace vorrel::cli {
namespace {

using testing::HasSubstr;
using testing::Not;

/// The one line with which a command line is refused, "" when it is taken.
std::string Refusal(const std::vector<std::string>& arguments) {
    try {
        ParseOptions(arguments);
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exit, ExitCode::Usage);
        EXPECT_THAT(failure.what(), Not(HasSubstr("\n")));
        return failure.what();
    }
    return "";
}

TEST(OptionsTest, RecordHasItsDefaults) {
    const Options options = ParseOptions({"record", "a.wav"});

    EXPECT_EQ(options.command, Command::Record);
    EXPECT_EQ(options.record.out, "a.wav");
    EXPECT_EQ(options.record.rateHz, std::nullopt);
    EXPECT_EQ(options.record.bits, 24U);
    EXPECT_EQ(options.record.duration, std::nullopt);
    EXPECT_EQ(options.record.gain, 0.0);
    EXPECT_TRUE(options.record.tags.empty());
    EXPECT_FALSE(options.record.force);
    EXPECT_FALSE(options.common.simulate);
}

TEST(OptionsTest, RecordTakesAllThatItOffers) {
    const Options options =
        ParseOptions({"record",     "a.wav",     "--rate",  "96000",     "--bits",         "16",
                      "--duration", "1:30.5",    "--gain",  "-6",        "--title",        "T",
                      "--artist",   "A",         "--album", "L",         "--album-artist", "AA",
                      "--range",    "0-1=b.wav", "--range", "1-2=c.wav", "--temp-dir",     "/t",
                      "--device",   "D",         "--force", "--json",    "--quiet",        "--type",
                      "pcm"});

    EXPECT_EQ(options.record.rateHz, 96'000U);
    EXPECT_EQ(options.record.bits, 16U);
    EXPECT_EQ(options.record.duration, 90.5);
    EXPECT_EQ(options.record.gain, -6.0);
    EXPECT_THAT(options.record.tags,
                testing::UnorderedElementsAre(
                    testing::Pair("Title", "T"), testing::Pair("Artist", "A"),
                    testing::Pair("Alubum", "L"), testing::Pair("AlbumArtist", "AA")));
    ASSERT_EQ(options.record.ranges.size(), 2U);
    EXPECT_EQ(options.record.ranges[1].file, "c.wav");
    EXPECT_EQ(options.tempDirectory, "/t");
    EXPECT_EQ(options.common.device, "D");
    EXPECT_TRUE(options.record.force);
    EXPECT_TRUE(options.common.json);
    EXPECT_TRUE(options.common.quiet);
}

TEST(OptionsTest, SimulateTakesItsConfigurationWithAnEqualsSignOnly) {
    const Options bare = ParseOptions({"record", "--simulate", "a.wav"});
    EXPECT_TRUE(bare.common.simulate);
    EXPECT_EQ(bare.common.simulated, "");
    EXPECT_EQ(bare.record.out, "a.wav");

    const Options set = ParseOptions({"record", "a.wav", "--simulate=source=counter,speed=50"});
    EXPECT_TRUE(set.common.simulate);
    EXPECT_EQ(set.common.simulated, "source=counter,speed=50");
}

TEST(OptionsTest, AFileThatBeginsAndEndsWithTheRangesNeedsNoOut) {
    EXPECT_EQ(Refusal({"record", "--range", "0-1=a.wav"}), "");
    EXPECT_THAT(Refusal({"record"}), HasSubstr("--range"));
}

TEST(OptionsTest, ATagThatIsNoUtf8IsRefusedBeforeTheRecording) {
    for (const char* text :
         {"\xBF", "\xB1\xB2\xB3", "a\x80", "\xC0\xAF", "\xE3\x81", "\xED\xA0\x80",
          "\xF4\x90\x80\x80", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xFF"}) {
        EXPECT_THAT(Refusal({"record", "a.wav", "--artist", text}),
                    HasSubstr("--artist is no UTF-8 text"));
    }
    for (const char* text : {"A", "\u00DF", "\u65E5\u672C", "\U0001F3BB", "\uD7FF\uE000\uFFFD"}) {
        EXPECT_EQ(ParseOptions({"record", "a.wav", "--artist", text}).record.tags.at("Artist"),
                  text);
    }
}

TEST(OptionsTest, ANameOfAnotherFormatIsRefused) {
    for (const char* name : {"a.dff", "a.wave", "A.W64", "a.b.flac", "dir/a.WAV"}) {
        EXPECT_THAT(Refusal({"record", name, "--type", "dsd"}), HasSubstr("becomes a DSF file"));
    }
    for (const char* name : {"a.dff", "a.dsf", "a.mp3"}) {
        EXPECT_THAT(Refusal({"record", name}), HasSubstr("becomes a WAV file"));
    }
    for (const char* name : {"a", "a.wave", "a.take1", "d.dsf/a"}) {
        EXPECT_EQ(ParseOptions({"record", name}).record.out, name);
    }
}

TEST(OptionsTest, WhatIsWrongIsRefusedInOneLine) {
    EXPECT_THAT(Refusal({}), HasSubstr("devices, info, record, salvage or doctor"));
    EXPECT_THAT(Refusal({"rekord"}), HasSubstr("\"rekord\""));
    EXPECT_THAT(Refusal({"--json", "rekord"}), HasSubstr("\"rekord\""));
    EXPECT_THAT(Refusal({"record", "a.wav", "--bogus"}), HasSubstr("--bogus"));
    EXPECT_THAT(Refusal({"record", "a.wav", "b.wav"}), HasSubstr("b.wav"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--bits", "20"}), HasSubstr("--bits"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--duration", "0"}), HasSubstr("--duration"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--duration", "soon"}), HasSubstr("--duration"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--gain", "nan"}), HasSubstr("--gain"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--gain", "loud"}), HasSubstr("\"loud\""));
    EXPECT_THAT(Refusal({"record", "a.wav", "--gain", "6dB"}), HasSubstr("\"6dB\""));
    EXPECT_THAT(Refusal({"record", "a.wav", "--gain", "1000"}), HasSubstr("--gain"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--gain", "inf"}), HasSubstr("--gain"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--gain", "+-3"}), HasSubstr("no number"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--gain", "1e400"}), HasSubstr("between"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--type", "mp3"}), HasSubstr("\"mp3\""));
    EXPECT_THAT(Refusal({"record", ""}), HasSubstr("empty"));
    EXPECT_THAT(Refusal({"record", "a.wav", "--range", "2-1=b.wav"}), HasSubstr("2-1=b.wav"));
}

TEST(OptionsTest, ARangeTakesExactlyOneValue) {
    EXPECT_THAT(Refusal({"record", "--range", "0-1=a.wav", "--range", "1-2=b.wav"}), "");
    const Options options = ParseOptions({"record", "--range", "0-1=a.wav", "b.wav"});

    EXPECT_EQ(options.record.ranges.size(), 1U);
    EXPECT_EQ(options.record.out, "b.wav");
}

TEST(OptionsTest, AFlagTakesNoValue) {
    for (const char* flag : {"--json=1", "--json=false", "--force=1", "--quiet=1"}) {
        EXPECT_THAT(Refusal({"record", "a.wav", flag}), testing::EndsWith(" takes no value"))
            << flag;
    }
}

TEST(OptionsTest, AnEmptyValueIsNotTheDefault) {
    for (const char* option : {"--bits", "--gain", "--device", "--temp-dir", "--rate", "--duration",
                               "--type", "--range"}) {
        EXPECT_THAT(Refusal({"record", "a.wav", option, ""}), HasSubstr(option));
    }
    EXPECT_THAT(Refusal({"info", "--device", ""}), HasSubstr("--device is empty"));
}

TEST(OptionsTest, NothingBehindTheEqualsSignIsAnEmptyTextAndNotTheNextArgument) {
    const auto record = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"record", "--duration", "9"});
        return ParseOptions(arguments);
    };
    EXPECT_THAT(record({"a.wav", "--title=", "--split-at=.5"}).record.splitAt,
                testing::ElementsAre(0.5));
    EXPECT_TRUE(record({"a.wav", "--title=", "--pre-record"}).record.preRecord);
    EXPECT_TRUE(record({"a.wav", "--title=", "--force"}).record.force);
    EXPECT_TRUE(record({"a.wav", "--album=", "--simulate"}).common.simulate);
    EXPECT_EQ(record({"--artist=", "c.wav"}).record.out, "c.wav");
    EXPECT_TRUE(record({"a.wav", "--album-artist=", "--title=", "--quiet"}).common.quiet);
    for (const char* tag : {"--title=", "--artist=", "--album=", "--album-artist="}) {
        EXPECT_THAT(record({tag, "a.wav"}).record.tags, testing::IsEmpty()) << tag;
    }
    EXPECT_EQ(record({"a.wav", "--title==", "--tag", "artist="}).record.tags.at("Title"), "=");
}

TEST(OptionsTest, NothingBehindTheEqualsSignIsRefusedWhereAnEmptyTextIs) {
    for (const char* option : {"--hook", "--waveform", "--device", "--temp-dir"}) {
        EXPECT_EQ(Refusal({"record", "a.wav", std::string(option) + "=", "--quiet"}),
                  std::string(option) + " is empty");
    }
    EXPECT_EQ(Refusal({"info", "--device=", "--simulate"}), "--device is empty");
    EXPECT_EQ(Refusal({"doctor", "--temp-dir=", "--json"}), "--temp-dir is empty");
    EXPECT_EQ(Refusal({"salvage", "--temp-dir="}), "--temp-dir is empty");
    EXPECT_EQ(Refusal({"salvage", "take", "a.wav", "--bits=", "16"}), "not expected: 16");
    EXPECT_THAT(Refusal({"salvage", "take", "a.wav", "--bits=", "--force"}),
                HasSubstr("--bits \"\" is no sample width"));
    for (const char* option :
         {"--type", "--rate", "--bits", "--duration", "--start-at", "--pre-roll", "--gain", "--tag",
          "--range", "--split-at", "--max-file-time"}) {
        EXPECT_THAT(Refusal({"record", "a.wav", std::string(option) + "=", "--force"}),
                    testing::AnyOf(HasSubstr(option), HasSubstr("\"\"")))
            << option;
        EXPECT_NE(Refusal({"record", "a.wav", std::string(option) + "=", "--force"}), "");
    }
}

TEST(OptionsTest, WhatLooksLikeAnOptionIsAValueWhereOneIsAwaited) {
    EXPECT_EQ(ParseOptions({"record", "a.wav", "--title", "--artist="}).record.tags.at("Title"),
              "--artist=");
    EXPECT_EQ(ParseOptions({"record", "--", "--title="}).record.out, "--title=");
    EXPECT_TRUE(ParseOptions({"record", "--simulate=", "a.wav"}).common.simulate);
    EXPECT_THAT(Refusal({"record", "a.wav", "--bogus=", "b"}), HasSubstr("--bogus="));
}

TEST(OptionsTest, AWrongNumberIsQuotedAndNothingElse) {
    EXPECT_EQ(Refusal({"record", "a.wav", "--rate", "abc"}),
              "--rate \"abc\" is no sampling rate in Hz");
    EXPECT_EQ(Refusal({"record", "a.wav", "--rate", "0"}),
              "--rate \"0\" is no sampling rate in Hz");
    EXPECT_EQ(Refusal({"record", "a.wav", "--rate", "-1"}),
              "--rate \"-1\" is no sampling rate in Hz");
    EXPECT_EQ(Refusal({"record", "a.wav", "--rate", "99999999999999999999999"}),
              "--rate 99999999999999999999999 is higher than any recorder's");
    EXPECT_EQ(Refusal({"record", "a.wav", "--bits", "abc"}),
              "--bits \"abc\" is no sample width: 16, 24 or 32");
    EXPECT_EQ(Refusal({"record", "a.wav", "--duration", "99999999999"}),
              "--duration \"99999999999\" is too long: no more than 2777 hours");
    EXPECT_EQ(ParseOptions({"record", "a.wav", "--gain", "+3.5"}).record.gain, 3.5);
    EXPECT_EQ(ParseOptions({"record", "a.wav", "--gain", "1e-400"}).record.gain, 0.0);
}

TEST(OptionsTest, UnexpectedArgumentsComeInTheirOrder) {
    EXPECT_EQ(Refusal({"record", "a.wav", "b.wav", "c.wav", "d.wav"}),
              "not expected: b.wav c.wav d.wav");
}

TEST(OptionsTest, ADsdRecordingIsPossible) {
    const Options options = ParseOptions({"record", "a.dsf", "--type", "dsd", "--rate", "5644800"});

    EXPECT_TRUE(options.record.dsd);
    EXPECT_EQ(options.record.rateHz, 5'644'800U);
    EXPECT_FALSE(ParseOptions({"record", "a.wav"}).record.dsd);
}

TEST(OptionsTest, ADsdSampleHasNoWidthToChoose) {
    EXPECT_THAT(Refusal({"record", "a.dsf", "--type", "dsd", "--bits", "24"}),
                HasSubstr("one bit"));
}

TEST(OptionsTest, AFilesEndingMustNotContradictItsType) {
    EXPECT_THAT(Refusal({"record", "a.wav", "--type", "dsd"}), HasSubstr("*.dsf"));
    EXPECT_THAT(Refusal({"record", "a.dsf"}), HasSubstr("*.wav"));
    EXPECT_THAT(Refusal({"record", "a.DSF"}), HasSubstr("*.wav"));
    EXPECT_THAT(Refusal({"record", "a.dsf", "--type", "dsd", "--range", "0-1=b.Wav"}),
                HasSubstr("b.Wav"));
    EXPECT_EQ(Refusal({"record", "a", "--type", "dsd", "--range", "0-1=b"}), "");
}

TEST(OptionsTest, ARangeBeyondTheDurationIsRefused) {
    EXPECT_THAT(Refusal({"record", "--duration", "5", "--range", "4-6=b.wav"}), HasSubstr("b.wav"));
    EXPECT_THAT(Refusal({"record", "--duration", "5", "--range", "5-=b.wav"}), HasSubstr("b.wav"));
    EXPECT_EQ(Refusal({"record", "--duration", "5", "--range", "4-5=b.wav"}), "");
}

TEST(OptionsTest, HelpAndVersionAreAnswers) {
    EXPECT_THAT(ParseOptions({"--help"}).text, HasSubstr("record"));
    EXPECT_THAT(ParseOptions({"record", "--help"}).text, HasSubstr("--duration"));
    EXPECT_THAT(ParseOptions({"record", "--help"}).text, HasSubstr("Usage: vorrel record"));
    EXPECT_THAT(ParseOptions({"--version"}).text, testing::StartsWith("vorrel "));
}

TEST(ChooseRateTest, PrefersTheUsualRateThenTheLowest) {
    EXPECT_EQ(ChooseRate({44'100, 48'000, 96'000}, {}, false), 48'000U);
    EXPECT_EQ(ChooseRate({88'200, 96'000}, {}, false), 88'200U);
    EXPECT_EQ(ChooseRate({44'100, 48'000, 96'000}, 96'000, false), 96'000U);
}

TEST(ChooseRateTest, OfDsdTheLowestOfTheUsualOnes) {
    EXPECT_EQ(ChooseRate({2'822'400, 5'644'800, 11'289'600}, {}, true), 2'822'400U);
    EXPECT_EQ(ChooseRate({5'644'800, 11'289'600}, {}, true), 5'644'800U);
}

TEST(ChooseRateTest, AnImpossibleRateIsAnsweredWithThePossibleOnes) {
    try {
        ChooseRate({44'100, 48'000}, 47'999, false);
        ADD_FAILURE();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exit, ExitCode::Usage);
        EXPECT_THAT(failure.what(), HasSubstr("44100, 48000"));
    }
}

TEST(OptionsTest, TracksPreRollAndTheirLikeAreRead) {
    const Options options =
        ParseOptions({"record", "a.wav", "--split-at", "10,1:00.5,90", "--max-file-time", "3600",
                      "--pre-roll", "12.5", "--waveform", "a.SVG", "--hook", "true", "--tag",
                      "TITLE=A = B", "--tag", "album-artist=C"});

    EXPECT_THAT(options.record.splitAt, testing::ElementsAre(10.0, 60.5, 90.0));
    EXPECT_EQ(options.record.maxFileTime, 3600.0);
    EXPECT_EQ(options.record.preRoll, 12.5);
    EXPECT_FALSE(options.record.preRecord);
    EXPECT_EQ(options.record.waveform, "a.SVG");
    EXPECT_EQ(options.record.hook, "true");
    EXPECT_THAT(options.record.tags,
                testing::UnorderedElementsAre(testing::Pair("Title", "A = B"),
                                              testing::Pair("AlbumArtist", "C")));
    EXPECT_TRUE(ParseOptions({"record", "a.wav", "--pre-record"}).record.preRecord);
}

TEST(OptionsTest, WhatCannotBeCutOrDrawnOrBegunIsRefused) {
    const auto refusal = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "record");
        return Refusal(arguments);
    };
    EXPECT_THAT(refusal({"a.wav", "--split-at", "10,10"}), HasSubstr("above the one before"));
    EXPECT_THAT(refusal({"a.wav", "--split-at", "10,,20"}), HasSubstr("is no time"));
    EXPECT_THAT(refusal({"a.wav", "--split-at", "0"}), HasSubstr("no length of time"));
    EXPECT_THAT(refusal({"a.wav", "--split-at", "10", "--duration", "10"}),
                HasSubstr("beyond --duration"));
    EXPECT_THAT(refusal({"--range", "0-1=a.wav", "--split-at", "10"}), HasSubstr("whole"));
    EXPECT_THAT(refusal({"--range", "0-1=a.wav", "--max-file-time", "10"}), HasSubstr("whole"));
    EXPECT_THAT(refusal({"a.wav", "--max-file-time", "never"}), HasSubstr("--max-file-time"));
    EXPECT_THAT(refusal({"a.wav", "--waveform", "a.jpg"}), HasSubstr("*.png or *.svg"));
    EXPECT_THAT(refusal({"a.wav", "--waveform", ""}), HasSubstr("--waveform is empty"));
    EXPECT_THAT(refusal({"a.wav", "--hook", ""}), HasSubstr("--hook is empty"));
    EXPECT_THAT(refusal({"a.wav", "--pre-roll", "5", "--pre-record"}), HasSubstr("one of them"));
    EXPECT_THAT(refusal({"a.wav", "--pre-roll", "601"}), HasSubstr("ten minutes"));
    EXPECT_THAT(refusal({"a.wav", "--pre-record=yes"}), HasSubstr("takes no value"));
    EXPECT_THAT(refusal({"a.wav", "--tag", "Title"}), HasSubstr("KEY=VALUE"));
    EXPECT_THAT(refusal({"a.wav", "--tag", "genre=X"}), HasSubstr("title, artist, album"));
    EXPECT_THAT(refusal({"a.wav", "--tag", "title=X", "--title", "Y"}), HasSubstr("twice"));
    EXPECT_THAT(refusal({"a.wav", "--start-at", "25:00"}), HasSubstr("no time of day"));
}

TEST(OptionsTest, SalvageTakesATakeAndAFile) {
    const Options list = ParseOptions({"salvage", "--json"});
    const Options save =
        ParseOptions({"salvage", "vorrel-AbCdEf", "a.wav", "--bits", "32", "--force", "--remove"});

    EXPECT_EQ(list.command, Command::Salvage);
    EXPECT_TRUE(list.common.json);
    EXPECT_EQ(list.salvage.take, "");
    EXPECT_EQ(save.salvage.take, "vorrel-AbCdEf");
    EXPECT_EQ(save.salvage.out, "a.wav");
    EXPECT_EQ(save.salvage.bits, 32U);
    EXPECT_TRUE(save.salvage.force);
    EXPECT_TRUE(save.salvage.remove);
    EXPECT_EQ(Refusal({"salvage", "--remove"}), "--remove: say which take");
    EXPECT_EQ(Refusal({"salvage", "--bits", "16"}), "--bits: say which take");
    EXPECT_EQ(Refusal({"salvage", "--force", "--json"}), "--force: say which take");
    EXPECT_THAT(Refusal({"salvage", "a", "b.wav", "c.wav"}), HasSubstr("c.wav"));
}

/// Local time, as the option's texts are.
std::time_t Moment(int year, int month, int day, int hour, int minute, int second) {
    std::tm moment{};
    moment.tm_year = year - 1900;
    moment.tm_mon = month - 1;
    moment.tm_mday = day;
    moment.tm_hour = hour;
    moment.tm_min = minute;
    moment.tm_sec = second;
    moment.tm_isdst = -1;
    return std::mktime(&moment);
}

std::string MomentRefusal(const std::string& text, std::time_t now) {
    try {
        std::ignore = RequireMoment(text, now);
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "";
}

TEST(MomentTest, ATimeOfDayIsTheNextOne) {
    const std::time_t now = Moment(2026, 11, 30, 20, 15, 0);

    EXPECT_EQ(RequireMoment("20:16", now), Moment(2026, 11, 30, 20, 16, 0));
    EXPECT_EQ(RequireMoment("20:15:01", now), Moment(2026, 11, 30, 20, 15, 1));
    EXPECT_EQ(RequireMoment("20:15", now), Moment(2026, 12, 1, 20, 15, 0));
    EXPECT_EQ(RequireMoment("9:05", now), Moment(2026, 12, 1, 9, 5, 0));
    EXPECT_EQ(RequireMoment("00:00", Moment(2026, 12, 31, 12, 0, 0)), Moment(2027, 1, 1, 0, 0, 0));
}

TEST(MomentTest, ADateIsThatDay) {
    const std::time_t now = Moment(2026, 11, 30, 20, 15, 0);

    EXPECT_EQ(RequireMoment("2026-12-24 18:00", now), Moment(2026, 12, 24, 18, 0, 0));
    EXPECT_EQ(RequireMoment("2028-02-29T18:00:30", now), Moment(2028, 2, 29, 18, 0, 30));
    EXPECT_THAT(MomentRefusal("2026-11-30 20:14", now), HasSubstr("is past"));
    EXPECT_THAT(MomentRefusal("2027-02-29 18:00", now), HasSubstr("no day of the calendar"));
}

TEST(MomentTest, WhatIsNoMomentIsRefused) {
    for (const char* text :
         {"", "20", "20:1", "24:00", "20:60", "20:15:60", "20:15 ", "120:15", "2026-13-01 20:15",
          "2026-12-01", "2026-12-0120:15", "+20:15", "20:15:30:00", "-1:00"}) {
        EXPECT_THAT(MomentRefusal(text, Moment(2026, 11, 30, 12, 0, 0)), HasSubstr("--start-at"))
            << text;
    }
}

}  // namespace
}  // namespace vorrel::cli
