#include "device/alsa/CaptureSetting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

namespace vorrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

CaptureFormat Format(std::uint32_t bits, std::uint32_t containerBytes,
                     std::vector<std::uint32_t> ratesHz = {}, std::uint32_t minimumRateHz = 0,
                     std::uint32_t maximumRateHz = 0) {
    return {2, bits, containerBytes, std::move(ratesHz), minimumRateHz, maximumRateHz};
}

TEST(CaptureSettingTest, RatesComeFromTheTextAndBitsFromTheDescriptors) {
    const CaptureSide side = MergeCaptureSettings(
        {{2, 1, Format(16, 2)}, {2, 2, Format(24, 4)}},
        {{2, 1, Format(16, 2, {44'100})}, {2, 2, Format(32, 4, {48'000, 96'000})}});

    EXPECT_EQ(side.streamingInterface, 2);
    EXPECT_THAT(side.formats,
                ElementsAre(Format(16, 2, {44'100}), Format(24, 4, {48'000, 96'000})));
}

TEST(CaptureSettingTest, RatesOfTheDescriptorsStandWhereTheTextHasNone) {
    const CaptureSide side =
        MergeCaptureSettings({{1, 1, Format(16, 2, {48'000})}}, {{1, 1, Format(16, 2)}});

    EXPECT_THAT(side.formats, ElementsAre(Format(16, 2, {48'000})));
}

TEST(CaptureSettingTest, OneSourceIsEnough) {
    const std::vector<CaptureSetting> settings = {{3, 1, Format(32, 4, {48'000})}};

    for (const CaptureSide& side :
         {MergeCaptureSettings(settings, {}), MergeCaptureSettings({}, settings)}) {
        EXPECT_EQ(side.streamingInterface, 3);
        EXPECT_THAT(side.formats, ElementsAre(Format(32, 4, {48'000})));
    }
}

TEST(CaptureSettingTest, NoSourceGivesNoInterface) {
    const CaptureSide side = MergeCaptureSettings({}, {});

    EXPECT_EQ(side.streamingInterface, std::nullopt);
    EXPECT_THAT(side.formats, IsEmpty());
}

TEST(CaptureSettingTest, OfSeveralInterfacesTheDriversIsTaken) {
    const std::vector<CaptureSetting> described = {{1, 1, Format(16, 2)}, {4, 1, Format(24, 3)}};

    EXPECT_EQ(MergeCaptureSettings(described, {{4, 1, Format(24, 3)}}).streamingInterface, 4);
    EXPECT_EQ(MergeCaptureSettings(described, {{9, 1, Format(24, 3)}}).streamingInterface, 1);
    EXPECT_THAT(MergeCaptureSettings(described, {{4, 1, Format(24, 3, {96'000})}}).formats,
                ElementsAre(Format(24, 3, {96'000})));
}

TEST(CaptureSettingTest, TheTextsFormatStandsWhereTheDescriptorsHaveNone) {
    const CaptureSide side =
        MergeCaptureSettings({{1, 1, {}}, {1, 2, {}}}, {{1, 1, Format(32, 4, {48'000})}});

    EXPECT_EQ(side.streamingInterface, 1);
    EXPECT_THAT(side.formats, ElementsAre(Format(32, 4, {48'000})));
}

TEST(CaptureSettingTest, TheSameLayoutInSeveralSettingsIsOneFormatWithAllRates) {
    EXPECT_THAT(MergeCaptureSettings({{1, 1, Format(16, 2, {44'100, 48'000})},
                                      {1, 2, Format(16, 2, {48'000, 96'000})},
                                      {1, 3, Format(16, 2)}},
                                     {})
                    .formats,
                ElementsAre(Format(16, 2, {44'100, 48'000, 96'000})));
    EXPECT_THAT(
        MergeCaptureSettings({{1, 1, Format(16, 2)}, {1, 2, Format(16, 2, {96'000})}}, {}).formats,
        ElementsAre(Format(16, 2, {96'000})));
    EXPECT_THAT(MergeCaptureSettings(
                    {{1, 1, Format(16, 2, {44'100})}, {1, 2, Format(16, 2, {}, 8'000, 16'000)}}, {})
                    .formats,
                ElementsAre(Format(16, 2, {}, 8'000, 44'100)));
}

}  // namespace
}  // namespace vorrel
