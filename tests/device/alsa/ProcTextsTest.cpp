#include "device/alsa/ProcTexts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace vorrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kStream[] =
    "KD-WV770 at usb-0000:00:14.0-2, high speed : USB Audio\n"
    "\n"
    "Playback:\n"
    "  Status: Stop\n"
    "  Interface 1\n"
    "    Altset 1\n"
    "    Format: S32_LE\n"
    "    Channels: 2\n"
    "    Endpoint: 0x01 (1 OUT) (ASYNC)\n"
    "    Rates: 44100\n"
    "    Bits: 24\n"
    "    Sync Endpoint: 0x82 (2 IN)\n"
    "    Sync EP Interface: 1\n"
    "    Sync EP Altset: 1\n"
    "    Implicit Feedback Mode: No\n"
    "\n"
    "Capture:\n"
    "  Status: Running\n"
    "    Interface = 2\n"
    "    Altset = 3\n"
    "    Packet Size = 216\n"
    "    Momentary freq = 48000 Hz (0x6.0000)\n"
    "  Interface 2\n"
    "    Altset 1\n"
    "    Format: S16_LE\n"
    "    Channels: 2\n"
    "    Endpoint: 0x83 (3 IN) (ASYNC)\n"
    "    Rates: 44100, 48000, 176400, 352800, 705600\n"
    "    Data packet interval: 125 us\n"
    "    Bits: 16\n"
    "    Channel map: FL FR\n"
    "  Interface 2\n"
    "    Altset 2\n"
    "    Format: S24_3LE\n"
    "    Channels: 2\n"
    "    Endpoint: 0x83 (3 IN) (ASYNC)\n"
    "    Rates: 48000, 96000\n"
    "    Bits: 24\n"
    "  Interface 2\n"
    "    Altset 3\n"
    "    Format: S32_LE\n"
    "    Channels: 2\n"
    "    Endpoint: 0x83 (3 IN) (ASYNC)\n"
    "    Rates: 8000 - 192000 (continuous)\n";

CaptureFormat Format(std::uint32_t bits, std::uint32_t containerBytes,
                     std::vector<std::uint32_t> ratesHz) {
    CaptureFormat format;
    format.channels = 2;
    format.bits = bits;
    format.containerBytes = containerBytes;
    format.ratesHz = std::move(ratesHz);
    return format;
}

/// A stream text whose one capture setting has these lines.
std::vector<CaptureSetting> Parsed(const std::string& lines) {
    return ParseStreamText("Card\n\nCapture:\n  Status: Stop\n  Interface 1\n    Altset 1\n" +
                           lines);
}

TEST(StreamTextTest, TellsTheSettingsUnderCapture) {
    CaptureFormat range = Format(32, 4, {});
    range.minimumRateHz = 8'000;
    range.maximumRateHz = 192'000;

    EXPECT_THAT(
        ParseStreamText(kStream),
        ElementsAre(
            CaptureSetting{2, 1, Format(16, 2, {44'100, 48'000, 176'400, 352'800, 705'600})},
            CaptureSetting{2, 2, Format(24, 3, {48'000, 96'000})}, CaptureSetting{2, 3, range}));
}

TEST(StreamTextTest, BitsAreThoseOfTheirOwnLineWhereTheyFit) {
    EXPECT_EQ(Parsed("    Format: S32_LE\n    Channels: 2\n    Bits: 24\n").at(0).format,
              Format(24, 4, {}));
    EXPECT_EQ(Parsed("    Format: S16_LE\n    Channels: 2\n    Bits: 24\n").at(0).format,
              Format(16, 2, {}));
    EXPECT_EQ(Parsed("    Format: S24_LE\n    Channels: 2\n    Bits: 0\n").at(0).format,
              Format(24, 4, {}));
}

TEST(StreamTextTest, TheFirstIntegerFormatOfSeveralCounts) {
    EXPECT_EQ(Parsed("    Format: SPECIAL S24_3BE S32_LE\n    Channels: 2\n").at(0).format,
              Format(24, 3, {}));
}

TEST(StreamTextTest, ASettingWithoutChannelsOrWithAnotherFormatHasNone) {
    for (const char* lines :
         {"    Format: S32_LE\n", "    Format: S32_LE\n    Channels: none\n",
          "    Format: DSD_U32_BE\n    Channels: 2\n", "    Format:\n    Channels: 2\n",
          "    Channels: 2\n", "    Format: FLOAT_LE\n    Channels: 2\n", ""}) {
        EXPECT_THAT(Parsed(lines), ElementsAre(CaptureSetting{1, 1, {}})) << lines;
    }
}

TEST(StreamTextTest, ImpossibleRatesAreLeftOut) {
    const std::string head = "    Format: S16_LE\n    Channels: 2\n";
    for (const char* rates : {"0", "", "-", "- 5", "999999999999999999999", "48000 -", "5 - 4"}) {
        EXPECT_EQ(Parsed(head + "    Rates: " + rates).at(0).format, Format(16, 2, {})) << rates;
    }
    EXPECT_EQ(Parsed(head + "    Rates: 1,2,x,4\n").at(0).format, Format(16, 2, {1, 2}));
}

TEST(StreamTextTest, InterfaceNumbersThatDoNotFitAByteAreNone) {
    EXPECT_THAT(ParseStreamText("Capture:\n  Interface 256\n    Altset 1\n    Channels: 2\n"),
                IsEmpty());
    EXPECT_THAT(ParseStreamText("Capture:\n  Interface -1\n    Altset 1\n"), IsEmpty());
    EXPECT_THAT(ParseStreamText("Capture:\n  Interface 1\n    Altset 300\n"), IsEmpty());
    EXPECT_THAT(ParseStreamText("Capture:\n    Altset 1\n    Channels: 2\n"), IsEmpty());
}

TEST(StreamTextTest, ATextWithoutCaptureGivesNothing) {
    const std::string text = kStream;
    EXPECT_THAT(ParseStreamText(text.substr(0, text.find("Capture:"))), IsEmpty());
    EXPECT_THAT(ParseStreamText(""), IsEmpty());
    EXPECT_THAT(ParseStreamText("\n\n\n"), IsEmpty());
    EXPECT_THAT(ParseStreamText(std::string(100, '\0')), IsEmpty());
}

TEST(StreamTextTest, CutOffAnywhereItTellsTheSettingsThatWereComplete) {
    const std::string text = kStream;
    for (std::size_t count = 0; count < text.size(); ++count) {
        EXPECT_LE(ParseStreamText(std::string(text, 0, count)).size(), 3U) << count;
    }
    const auto settings = ParseStreamText(text.substr(0, text.find("  Interface 2\n    Altset 3")));
    EXPECT_EQ(settings.size(), 2U);
}

constexpr char kCards[] =
    " 0 [PCH            ]: HDA-Intel - HDA Intel PCH\n"
    "                      HDA Intel PCH at 0xf7f10000 irq 32\n"
    "10 [KDWV770        ]: USB-Audio - KD-WV770\n"
    "                      KD-WV770 at usb-0000:00:14.0-2, high speed\n";

TEST(CardListTest, TellsTheLongNameOfACard) {
    EXPECT_EQ(ParseCardLongName(kCards, 0), "HDA Intel PCH at 0xf7f10000 irq 32");
    EXPECT_EQ(ParseCardLongName(kCards, 10), "KD-WV770 at usb-0000:00:14.0-2, high speed");
}

TEST(CardListTest, ACardThatIsNotListedHasNone) {
    EXPECT_EQ(ParseCardLongName(kCards, 1), "");
    EXPECT_EQ(ParseCardLongName("--- no soundcards ---\n", 0), "");
    EXPECT_EQ(ParseCardLongName("", 0), "");
    EXPECT_EQ(ParseCardLongName(" 0 [PCH            ]: HDA-Intel", 0), "");
}

}  // namespace
}  // namespace vorrel
