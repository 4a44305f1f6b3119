#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "AlsaRig.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

struct Layout {
    const char* name;
    std::uint32_t format;
    unsigned bits;
};
constexpr Layout kInt16 = {"16In2", kS16, 16};
constexpr Layout kInt24In3 = {"24In3", kS24In3, 24};
constexpr Layout kInt24In4 = {"24In4", kS24In4, 24};
constexpr Layout kInt32 = {"32In4", kS32, 32};

using Parameters = std::tuple<Layout, std::uint32_t, std::uint16_t, bool>;

class AlsaPcmTakesTest : public testing::TestWithParam<Parameters> {};

TEST_P(AlsaPcmTakesTest, HoldsEverySample) {
    const auto& [layout, rateHz, channels, mapped] = GetParam();
    TestCard card;
    card.SetFormats({layout.format});
    card.State().fewestChannels = channels;
    card.State().mostChannels = channels;
    card.State().mapped = mapped ? 1 : 0;
    card.State().speed = VORREL_TEST_SPEED;
    AlsaTake take(card);
    take.Select();
    take.SetUp(AlsaTake::Pcm, rateHz);

    take.Start();
    take.RecordFrames(rateHz / 2);
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);

    EXPECT_EQ(card.State().rateHz, rateHz);
    EXPECT_EQ(card.State().format, layout.format);
    EXPECT_EQ(card.State().lateReaders, 0U);
    for (std::uint16_t channel = 0; channel < channels; ++channel) {
        EXPECT_GE(take.RecordedPcm(channel).size(), rateHz / 2);
        EXPECT_EQ(take.FirstWrong(channel, channels, layout.bits), -1);
    }
    EXPECT_TRUE(take.delegate->messages.empty());
}

std::string Name(const testing::TestParamInfo<Parameters>& info) {
    const auto& [layout, rateHz, channels, mapped] = info.param;
    return std::string(layout.name) + "At" + std::to_string(rateHz) + "Hz" +
           std::to_string(channels) + "Channels" + (mapped ? "Mapped" : "Read");
}

INSTANTIATE_TEST_SUITE_P(Layouts, AlsaPcmTakesTest,
                         testing::Combine(testing::Values(kInt16, kInt24In3, kInt24In4, kInt32),
                                          testing::Values(44'100U, 48'000U), testing::Values(2U),
                                          testing::Bool()),
                         Name);
INSTANTIATE_TEST_SUITE_P(HighRates, AlsaPcmTakesTest,
                         testing::Combine(testing::Values(kInt24In3, kInt32),
                                          testing::Values(96'000U, 192'000U, 384'000U),
                                          testing::Values(2U), testing::Values(true)),
                         Name);
INSTANTIATE_TEST_SUITE_P(Channels, AlsaPcmTakesTest,
                         testing::Combine(testing::Values(kInt24In3), testing::Values(48'000U),
                                          testing::Values(1U, 8U), testing::Bool()),
                         Name);

class AlsaDsdTakesTest : public testing::TestWithParam<std::uint64_t> {};

TEST_P(AlsaDsdTakesTest, HoldsEveryWord) {
    TestCard card;
    card.State().speed = std::min(VORREL_TEST_SPEED, 2.0);
    AlsaTake take(card);
    take.Select();
    EXPECT_EQ(*take.registry->lastMode, 0);
    take.SetUp(AlsaTake::Dsd, GetParam());
    EXPECT_EQ(*take.registry->lastMode, 1);

    take.Start();
    take.RecordFrames(GetParam() / 16);
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);

    EXPECT_EQ(card.State().rateHz, GetParam() / 16);
    EXPECT_EQ(card.State().format, kS16);
    EXPECT_EQ(card.State().periodFrames, 4'096U);
    EXPECT_EQ(card.State().lateReaders, 0U);
    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        const Bytes bytes = take.Recorded(channel);
        ASSERT_GE(bytes.size(), GetParam() / 8);
        const auto is = [&](std::uint64_t word, std::uint64_t frame) {
            return (bytes[2 * word] | bytes[2 * word + 1] << 8) ==
                   static_cast<int>(TestSample(frame, channel, 2) >> 16);
        };
        const std::uint64_t first = take.FirstFrame([&](std::uint64_t frame) {
            return is(0, frame) && is(1, frame + 1) && is(2, frame + 2);
        });
        for (std::uint64_t word = 0; 2 * word < bytes.size(); ++word) {
            ASSERT_TRUE(is(word, first + word)) << word;
        }
    }
    EXPECT_TRUE(take.delegate->messages.empty());
    ASSERT_EQ(take.manager.New(), VrSuccess);
}

INSTANTIATE_TEST_SUITE_P(Rates, AlsaDsdTakesTest,
                         testing::Values(2'822'400U, 5'644'800U, 11'289'600U),
                         testing::PrintToStringParamName());

class AlsaTakesTest : public testing::Test {
protected:
    AlsaTakesTest() { card.State().speed = VORREL_TEST_SPEED; }
    TestCard card;
};

TEST_F(AlsaTakesTest, ACardInUseCannotBeSelectedAndIsFreeAfterwards) {
    AlsaTake take(card);
    ASSERT_EQ(take.manager.Init(take.delegate), VrSuccess);
    auto other = card.HeldByAnother();

    EXPECT_EQ(take.manager.SetAudioDevice(kSupportedDeviceName), VrErrorFailed);

    other.reset();
    EXPECT_EQ(take.manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
}

TEST_F(AlsaTakesTest, AnOverrunIsSaidAtOnceAndTheTakeGoesOn) {
    AlsaTake take(card);
    TraceCapture trace;
    const auto said = [&] {
        return std::ranges::count_if(trace.Lines(), [](const std::string& line) {
            return line.ends_with("the recorder reports an overload: the recording has a gap");
        });
    };
    take.Select();
    take.SetUp(AlsaTake::Pcm, 48'000);
    take.Start();
    take.RecordFrames(9'600);
    const AudioObjectID device = take.audio->Find(2)->DeviceId();

    card.State().overruns = 2;
    ASSERT_TRUE(DispatchUntil([&] { return card.State().starts >= 3 && said() == 2; }));
    const std::uint64_t before = take.StoredFrames();
    take.RecordFrames(before + 24'000);
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);

    EXPECT_EQ(take.audio->Find(device)->Capture().Overruns(), 2U);
    // Whole buffers up to the gap, then the stream goes on behind it.
    const std::vector<float> samples = take.RecordedPcm(0);
    std::uint64_t frame = take.FirstPcmFrame(samples, 0, 2, 32);
    int gaps = 0;
    for (const float sample : samples) {
        if (sample != CapturedSample(frame, 0, 2, 32)) {
            frame += kGapFrames;
            ++gaps;
            // Both at one place, when the second comes before a buffer is full.
            if (sample != CapturedSample(frame, 0, 2, 32)) {
                frame += kGapFrames;
                ++gaps;
            }
            ASSERT_EQ(sample, CapturedSample(frame, 0, 2, 32));
        }
        ++frame;
    }
    EXPECT_EQ(gaps, 2);
}

TEST_F(AlsaTakesTest, AnUnplugInTheTakeIsToldOnceAndKeepsWhatWasRecorded) {
    AlsaTake take(card);
    take.Select();
    take.SetUp(AlsaTake::Pcm, 48'000);
    take.Start();
    take.RecordFrames(9'600);

    card.State().disconnected = 1;

    ASSERT_TRUE(DispatchUntil([&] { return take.delegate->Has(VrMessageDeviceError); }));
    EXPECT_EQ(take.delegate->Count(VrMessageDeviceError), 1U);
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);
    EXPECT_GE(take.RecordedPcm(1).size(), 9'600U);
    EXPECT_EQ(take.FirstWrong(1, 2, 32), -1);
    // It is let go, and found again as a new one when it is back.
    take.cards->Set({});
    EXPECT_EQ(take.manager.SetAudioDevice(kSupportedDeviceName), VrErrorDeviceNotFound);
    EXPECT_EQ(card.State().opens, card.State().closes);
    card.PlugIn();
    take.cards->Set({card.Found()});
    EXPECT_EQ(take.manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
    take.SetUp(AlsaTake::Pcm, 48'000);
    take.Start();
    take.RecordFrames(4'800);
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);
}

TEST_F(AlsaTakesTest, OfTwoRecordersOfOneNameTheFirstIsSelectedAndTheSecondWhenItHasGone) {
    TestCard second;
    AlsaTake take(card);
    take.cards->Set({card.Found(), second.Found()});
    std::vector<std::string> names;
    ASSERT_EQ(take.manager.Init(take.delegate), VrSuccess);
    const auto isHeld = [](const TestCard& one) { return one.State().opens > one.State().closes; };

    ASSERT_EQ(take.manager.GetAudioDevices(&names), VrSuccess);
    EXPECT_EQ(names, std::vector<std::string>(2, kSupportedDeviceName));
    ASSERT_EQ(take.manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
    EXPECT_TRUE(isHeld(card));
    EXPECT_FALSE(isHeld(second));
    {
        const auto other = second.HeldByAnother();  // it is free
    }

    take.cards->Set({second.Found()});
    ASSERT_EQ(take.manager.GetAudioDevices(&names), VrSuccess);
    EXPECT_EQ(names, std::vector<std::string>(1, kSupportedDeviceName));
    ASSERT_EQ(take.manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
    EXPECT_FALSE(isHeld(card));
    EXPECT_TRUE(isHeld(second));
}

TEST_F(AlsaTakesTest, TakesFollowEachOtherInBothModes) {
    AlsaTake take(card);
    take.Select();
    for (int round = 0; round < 3; ++round) {
        take.SetUp(AlsaTake::Pcm, 96'000);
        take.Start();
        take.RecordFrames(9'600);
        ASSERT_EQ(take.manager.Stop(true), VrSuccess);
        EXPECT_EQ(take.FirstWrong(0, 2, 32), -1);
        ASSERT_EQ(take.manager.New(), VrSuccess);
        take.SetUp(AlsaTake::Dsd, 2'822'400);
        take.Start();
        take.RecordFrames(17'640);
        ASSERT_EQ(take.manager.Stop(true), VrSuccess);
        ASSERT_EQ(take.manager.New(), VrSuccess);
    }
    EXPECT_TRUE(take.delegate->messages.empty());
}

}  // namespace
}  // namespace vorrel::test
