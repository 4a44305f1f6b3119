#include "device/alsa/UsbAudioDescriptors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "support/UsbAudioBytes.h"

namespace vorrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using namespace test;  // NOLINT(google-build-using-namespace)

constexpr std::uint8_t kClass1 = 0x00;
constexpr std::uint8_t kClass2 = 0x20;
constexpr std::uint8_t kStreaming = 2;
constexpr std::uint8_t kPcmTag = 1;

CaptureFormat Format(std::uint32_t channels, std::uint32_t bits, std::uint32_t containerBytes,
                     std::vector<std::uint32_t> ratesHz = {}) {
    CaptureFormat format;
    format.channels = channels;
    format.bits = bits;
    format.containerBytes = containerBytes;
    format.ratesHz = std::move(ratesHz);
    return format;
}

/// Descriptors of a device with one configuration, number 1, that holds `rest`.
UsbBytes Device(std::initializer_list<UsbBytes> rest) {
    return Joined({kDeviceDescriptor, Configuration(1, 0, 2), Joined(rest)});
}

const UsbBytes kCapture16 =
    Joined({Interface(1, 1, 1, kStreaming, kClass1), General1(kPcmTag), Format1(2, 2, 16),
            Endpoint1(0x81, kAsynchronous), kEndpointGeneral1});
const UsbBytes kCapture24 =
    Joined({Interface(1, 2, 1, kStreaming, kClass1), General1(kPcmTag), Format1(2, 3, 24),
            Endpoint1(0x81, kAsynchronous), kEndpointGeneral1});

TEST(UsbAudioDescriptorsTest, ReadsTheSettingsOfAStereoRecorderOfClass1) {
    const auto settings = ParseCaptureSettings(
        Device({Interface(0, 0, 0, 1, kClass1), Interface(1, 0, 0, kStreaming, kClass1), kCapture16,
                kCapture24}));

    const std::vector<std::uint32_t> rates = {44'100, 48'000, 96'000};
    EXPECT_THAT(settings, ElementsAre(CaptureSetting{1, 1, Format(2, 16, 2, rates)},
                                      CaptureSetting{1, 2, Format(2, 24, 3, rates)}));
}

TEST(UsbAudioDescriptorsTest, ReadsARangeOfRatesOfClass1) {
    const auto settings =
        ParseCaptureSettings(Device({Interface(1, 1, 1, kStreaming, kClass1), General1(kPcmTag),
                                     Format1Range(2, 3, 20), Endpoint1(0x81, kAsynchronous)}));

    CaptureFormat expected = Format(2, 20, 3);
    expected.minimumRateHz = 8'000;
    expected.maximumRateHz = 192'000;
    EXPECT_THAT(settings, ElementsAre(CaptureSetting{1, 1, expected}));
}

TEST(UsbAudioDescriptorsTest, ReadsTheSettingsOfARecorderOfClass2ThatPlaysAsWell) {
    const auto settings = ParseCaptureSettings(RecorderDescriptors());

    EXPECT_THAT(settings, ElementsAre(CaptureSetting{2, 1, Format(2, 16, 2)},
                                      CaptureSetting{2, 2, Format(2, 24, 3)},
                                      CaptureSetting{2, 3, Format(2, 32, 4)}));
}

TEST(UsbAudioDescriptorsTest, SignificantBitsAreNotTheContainers) {
    const auto settings = ParseCaptureSettings(Device({Setting2(1, 1, 4, 24, 0x81)}));

    EXPECT_THAT(settings, ElementsAre(CaptureSetting{1, 1, Format(2, 24, 4)}));
}

TEST(UsbAudioDescriptorsTest, BitsThatAreMissingOrTooManyAreTheContainers) {
    const auto settings =
        ParseCaptureSettings(Device({Setting2(1, 1, 3, 0, 0x81), Setting2(1, 2, 2, 24, 0x81)}));

    EXPECT_THAT(settings, ElementsAre(CaptureSetting{1, 1, Format(2, 24, 3)},
                                      CaptureSetting{1, 2, Format(2, 16, 2)}));
}

TEST(UsbAudioDescriptorsTest, AFeedbackEndpointDoesNotMakeAPlaybackStreamACapture) {
    const UsbBytes playback =
        Joined({Interface(1, 1, 2, kStreaming, kClass2), General2(2), Format2(4, 32),
                Endpoint2(0x01, kAsynchronous), Endpoint2(0x81, kFeedback)});

    EXPECT_THAT(ParseCaptureSettings(Device({playback})), IsEmpty());
}

TEST(UsbAudioDescriptorsTest, AFeedbackEndpointMayComeFirst) {
    const UsbBytes playback =
        Joined({Interface(1, 1, 2, kStreaming, kClass2), General2(2), Format2(4, 32),
                Endpoint2(0x81, kFeedback), Endpoint2(0x01, kAsynchronous)});

    EXPECT_THAT(ParseCaptureSettings(Device({playback})), IsEmpty());
}

TEST(UsbAudioDescriptorsTest, AnEndpointThatIsNotIsochronousIsNoStream) {
    const UsbBytes bulk = Joined({Interface(1, 1, 1, kStreaming, kClass2), General2(2),
                                  Format2(4, 32), Endpoint2(0x81, 0x02)});

    EXPECT_THAT(ParseCaptureSettings(Device({bulk})), IsEmpty());
}

TEST(UsbAudioDescriptorsTest, InterfacesOfOtherClassesAreNoStreams) {
    UsbBytes video = Setting2(1, 1, 4, 32, 0x81);
    video[5] = 0x0E;
    const UsbBytes midi = Joined({Interface(2, 0, 1, 3, kClass1), Endpoint1(0x81, kAsynchronous)});

    EXPECT_THAT(ParseCaptureSettings(Device({video, midi})), IsEmpty());
}

TEST(UsbAudioDescriptorsTest, WhatIsNotIntegerPcmIsAnInterfaceWithoutAFormat) {
    const UsbBytes raw = Joined({Interface(1, 1, 1, kStreaming, kClass2), General2(2, 0x04),
                                 Format2(4, 32), Endpoint2(0x81, kAsynchronous)});
    const UsbBytes eightBits = Setting2(1, 2, 1, 8, 0x81);
    const UsbBytes wide = Setting2(1, 3, 8, 64, 0x81);
    const UsbBytes noChannels = Joined({Interface(1, 4, 1, kStreaming, kClass2), General2(0),
                                        Format2(4, 32), Endpoint2(0x81, kAsynchronous)});
    const UsbBytes float1 = Joined({Interface(1, 5, 1, kStreaming, kClass1), General1(3),
                                    Format1(2, 4, 32), Endpoint1(0x81, kAsynchronous)});
    const UsbBytes class3 = Joined(
        {Interface(1, 6, 1, kStreaming, 0x30), General2(2), Format2(4, 32), Endpoint2(0x81, 5)});

    const auto settings =
        ParseCaptureSettings(Device({raw, eightBits, wide, noChannels, float1, class3}));

    ASSERT_THAT(settings, SizeIs(6));
    for (const CaptureSetting& setting : settings) {
        EXPECT_EQ(setting.interfaceNumber, 1);
        EXPECT_FALSE(setting.format.has_value()) << int{setting.alternateSetting};
    }
}

TEST(UsbAudioDescriptorsTest, OfTwoFormatsInOneSettingTheFirstCounts) {
    const UsbBytes class1 =
        Joined({Interface(1, 1, 1, kStreaming, kClass1), General1(kPcmTag), Format1(2, 3, 24),
                General1(3), Format1(6, 2, 16), Endpoint1(0x81, kAsynchronous)});
    const UsbBytes class2 =
        Joined({Interface(1, 2, 1, kStreaming, kClass2), General2(2), Format2(4, 32), General2(8),
                Format2(2, 16), Endpoint2(0x81, kAsynchronous)});
    UsbBytes typeII = Format2(4, 32);
    typeII[3] = 2;
    const UsbBytes compressed = Joined({Interface(1, 3, 1, kStreaming, kClass2), General2(2),
                                        typeII, Format2(4, 32), Endpoint2(0x81, kAsynchronous)});

    EXPECT_THAT(ParseCaptureSettings(Device({class1, class2, compressed})),
                ElementsAre(CaptureSetting{1, 1, Format(2, 24, 3, {44'100, 48'000, 96'000})},
                            CaptureSetting{1, 2, Format(2, 32, 4)}, CaptureSetting{1, 3, {}}));
}

TEST(UsbAudioDescriptorsTest, EachSettingHasWhatStandsInItAndNothingOfTheOneBefore) {
    const UsbBytes withoutFormat = Joined(
        {Interface(1, 2, 1, kStreaming, kClass2), General2(2), Endpoint2(0x81, kAsynchronous)});
    const UsbBytes withoutGeneral = Joined(
        {Interface(1, 3, 1, kStreaming, kClass2), Format2(4, 32), Endpoint2(0x81, kAsynchronous)});
    const UsbBytes withoutEndpoint =
        Joined({Interface(1, 4, 0, kStreaming, kClass2), General2(2), Format2(4, 32)});

    EXPECT_THAT(
        ParseCaptureSettings(Device({Setting2(1, 1, 4, 32, 0x81), withoutFormat, withoutGeneral,
                                     withoutEndpoint, Setting2(2, 1, 2, 16, 0x82)})),
        ElementsAre(CaptureSetting{1, 1, Format(2, 32, 4)}, CaptureSetting{1, 2, {}},
                    CaptureSetting{1, 3, {}}, CaptureSetting{2, 1, Format(2, 16, 2)}));
}

TEST(UsbAudioDescriptorsTest, OnlyTheActiveConfigurationCounts) {
    const UsbBytes both =
        Joined({kDeviceDescriptor, Configuration(1, 55, 1), Setting2(1, 1, 2, 16, 0x81),
                Configuration(2, 55, 1), Setting2(4, 1, 4, 32, 0x84)});

    EXPECT_THAT(ParseCaptureSettings(both), ElementsAre(CaptureSetting{1, 1, Format(2, 16, 2)}));
    EXPECT_THAT(ParseCaptureSettings(both, 1), ElementsAre(CaptureSetting{1, 1, Format(2, 16, 2)}));
    EXPECT_THAT(ParseCaptureSettings(both, 2), ElementsAre(CaptureSetting{4, 1, Format(2, 32, 4)}));
    EXPECT_THAT(ParseCaptureSettings(both, 3), IsEmpty());
}

TEST(UsbAudioDescriptorsTest, DescriptorsOfUnknownTypesArePassedOver) {
    const UsbBytes association = {8, 0x0B, 0, 2, 0x01, 0x00, 0x20, 0};
    const UsbBytes longest(255, 0xAA);
    UsbBytes unknown = longest;
    unknown[0] = 255;

    EXPECT_THAT(ParseCaptureSettings(Device({association, unknown, Setting2(1, 1, 4, 32, 0x81)})),
                ElementsAre(CaptureSetting{1, 1, Format(2, 32, 4)}));
}

TEST(UsbAudioDescriptorsTest, ReadingEndsAtALengthBelowTwo) {
    for (const std::uint8_t length : {std::uint8_t{0}, std::uint8_t{1}}) {
        EXPECT_THAT(
            ParseCaptureSettings(Device(
                {Setting2(1, 1, 2, 16, 0x81), {length, 0x24, 0x01}, Setting2(1, 2, 4, 32, 0x81)})),
            ElementsAre(CaptureSetting{1, 1, Format(2, 16, 2)}))
            << int{length};
    }
}

TEST(UsbAudioDescriptorsTest, ADescriptorThatReachesPastTheEndIsNotRead) {
    EXPECT_THAT(ParseCaptureSettings(Device({Setting2(1, 1, 2, 16, 0x81), {255, 0x24, 0x01}})),
                ElementsAre(CaptureSetting{1, 1, Format(2, 16, 2)}));
}

TEST(UsbAudioDescriptorsTest, DescriptorsThatAreTooShortForTheirKindTellNothing) {
    const UsbBytes shortInterface = {8, 0x04, 1, 1, 1, 0x01, kStreaming, kClass2};
    EXPECT_THAT(ParseCaptureSettings(Device({shortInterface, Endpoint2(0x81, kAsynchronous)})),
                IsEmpty());

    const UsbBytes shortConfiguration = {8, 0x02, 0, 0, 1, 1, 0, 0x80};
    EXPECT_THAT(ParseCaptureSettings(Joined({shortConfiguration, Setting2(1, 1, 4, 32, 0x81)})),
                IsEmpty());

    const UsbBytes shortEndpoint = {6, 0x05, 0x81, kAsynchronous, 0, 4};
    EXPECT_THAT(ParseCaptureSettings(Device({Interface(1, 1, 1, kStreaming, kClass2), General2(2),
                                             Format2(4, 32), shortEndpoint})),
                IsEmpty());

    const UsbBytes shortGeneral = {15, 0x24, 0x01, 3, 0, 1, 1, 0, 0, 0, 2, 3, 0, 0, 0};
    const UsbBytes shortFormat = {5, 0x24, 0x02, 1, 4};
    const UsbBytes noSubtype = {2, 0x24};
    const auto settings = ParseCaptureSettings(
        Device({Interface(1, 1, 1, kStreaming, kClass2), noSubtype, shortGeneral, Format2(4, 32),
                Endpoint2(0x81, kAsynchronous), Interface(1, 2, 1, kStreaming, kClass2),
                General2(2), shortFormat, Endpoint2(0x81, kAsynchronous)}));
    EXPECT_THAT(settings, ElementsAre(CaptureSetting{1, 1, {}}, CaptureSetting{1, 2, {}}));
}

TEST(UsbAudioDescriptorsTest, RatesThatTheDescriptorHasNoRoomForAreNotRead) {
    UsbBytes format = Format1(2, 2, 16);
    format[7] = 255;  // announces 255 rates and holds three
    UsbBytes rangeCutOff = Format1Range(2, 2, 16);
    rangeCutOff[0] = 13;
    rangeCutOff.pop_back();

    const auto settings = ParseCaptureSettings(
        Device({Interface(1, 1, 1, kStreaming, kClass1), General1(kPcmTag), format,
                Endpoint1(0x81, kAsynchronous), Interface(1, 2, 1, kStreaming, kClass1),
                General1(kPcmTag), rangeCutOff, Endpoint1(0x81, kAsynchronous)}));

    EXPECT_THAT(settings,
                ElementsAre(CaptureSetting{1, 1, Format(2, 16, 2, {44'100, 48'000, 96'000})},
                            CaptureSetting{1, 2, Format(2, 16, 2)}));
}

/// A prefix tells what the whole tells, as far as it goes.
TEST(UsbAudioDescriptorsTest, CutOffAtAnyByteItTellsABeginningOfWhatTheWholeTells) {
    for (const UsbBytes& bytes : {RecorderDescriptors(), Device({kCapture16, kCapture24})}) {
        const auto whole = ParseCaptureSettings(bytes);
        for (std::size_t count = 0; count < bytes.size(); ++count) {
            // An exact copy, so that a read past the end is one past an allocation.
            const UsbBytes cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
            const auto settings = ParseCaptureSettings(cut);
            ASSERT_LE(settings.size(), whole.size()) << count;
            EXPECT_TRUE(std::equal(settings.begin(), settings.end(), whole.begin())) << count;
        }
    }
}

TEST(UsbAudioDescriptorsTest, NothingGivesNothing) {
    EXPECT_THAT(ParseCaptureSettings({}), IsEmpty());
    EXPECT_THAT(ParseCaptureSettings(UsbBytes{0}), IsEmpty());
    EXPECT_THAT(ParseCaptureSettings(UsbBytes(4'096, 0)), IsEmpty());
    EXPECT_THAT(ParseCaptureSettings(UsbBytes(4'096, 0xFF)), IsEmpty());
}

}  // namespace
}  // namespace vorrel
