#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "TakeRig.h"

namespace vorrel::test {
namespace {

/// The integer that a captured sample becomes in a file, worked out in long steps.
std::int64_t Converted(float sample, float gain, unsigned bits) {
    const double gained = static_cast<double>(sample * gain);
    const double limit = std::ldexp(1.0, static_cast<int>(bits) - 1);
    double value = gained * limit;  // exact: the scale is a power of two
    // 24 bits are truncated, the others rounded to nearest, ties to even.
    value = bits == 24 ? std::trunc(value) : std::nearbyint(value);
    return static_cast<std::int64_t>(std::clamp(value, -limit, limit - 1));
}

/// Little-endian samples of a file as numbers, from offset 44 on.
std::vector<std::int64_t> SavedSamples(const std::string& path, unsigned bits, std::size_t count) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    const std::size_t width = bits / 8;
    EXPECT_EQ(bytes.size(), 44 + count * width);
    std::vector<std::int64_t> samples;
    for (std::size_t offset = 44; offset + width <= bytes.size(); offset += width) {
        std::uint64_t value = 0;
        for (std::size_t byte = 0; byte < width; ++byte) {
            value |= std::uint64_t{static_cast<std::uint8_t>(bytes[offset + byte])} << (8 * byte);
        }
        const unsigned shift = 64 - bits;
        samples.push_back(static_cast<std::int64_t>(value << shift) >> shift);
    }
    return samples;
}

std::vector<std::int64_t> Expected(const std::vector<float>& captured, float gain, unsigned bits) {
    std::vector<std::int64_t> samples;
    samples.reserve(captured.size());
    for (const float sample : captured) {
        samples.push_back(Converted(sample, gain, bits));
    }
    return samples;
}

using Parameters = std::tuple<SimulatedSource, std::uint64_t, std::uint32_t>;

class TakesTest : public testing::TestWithParam<Parameters> {
protected:
    static SimulatedRecorderConfig Config() {
        SimulatedRecorderConfig config;
        config.source = std::get<0>(GetParam());
        config.channels = std::get<2>(GetParam());
        config.levelDb = 0.0;
        return config;
    }
};

TEST_P(TakesTest, PausesAndPreRecordingAreCutOutToTheBlockAtEveryWidth) {
    Take take(Config(), std::get<1>(GetParam()));
    take.Select();
    take.Make({.preRecorded = 3, .recorded = 4, .paused = 2, .resumed = 3});

    // Buffers 3 to 6 and 9 to 11 were recorded.
    const std::uint64_t block = take.BufferFrames() * std::get<2>(GetParam());
    const std::vector<float> captured = take.Captured(12 * take.BufferFrames());
    std::vector<float> recorded(captured.begin() + static_cast<std::ptrdiff_t>(3 * block),
                                captured.begin() + static_cast<std::ptrdiff_t>(7 * block));
    recorded.insert(recorded.end(), captured.begin() + static_cast<std::ptrdiff_t>(9 * block),
                    captured.end());
    ASSERT_EQ(take.Length(true), 7 * take.BufferFrames());
    for (const std::uint16_t bits : std::vector<std::uint16_t>{16, 24, 32}) {
        take.SetBits(bits);
        const std::string path = take.directory.File(std::to_string(bits) + ".wav");
        take.Save(path, 0.0, 1e9);
        EXPECT_EQ(SavedSamples(path, bits, recorded.size()), Expected(recorded, 1.0F, bits))
            << bits << " bits";
    }
    std::vector<std::int16_t> preview(recorded.size());
    ASSERT_EQ(take.manager.GetPreviewData(0, take.Length(true), preview.data(), true), VrSuccess);
    EXPECT_EQ(std::vector<std::int64_t>(preview.begin(), preview.end()),
              Expected(recorded, 1.0F, 16));
}

std::string TakeName(const testing::TestParamInfo<Parameters>& take) {
    const auto& [source, rateHz, channels] = take.param;
    return (source == SimulatedSource::Counter ? "Counter" : "Noise") + std::to_string(rateHz) +
           "Hz" + std::to_string(channels) + "Channels";
}

INSTANTIATE_TEST_SUITE_P(
    CounterAndNoise, TakesTest,
    testing::Combine(testing::Values(SimulatedSource::Counter, SimulatedSource::Noise),
                     testing::Values(44'100, 96'000, 192'000, 384'000), testing::Values(1, 2, 8)),
    TakeName);

TEST(LongerTakesTest, WhatWasSpilledComesBackWhole) {
    Take take(Noise(2), 44'100);
    take.Select();
    // 13 s: two buffers of five seconds on disk, three seconds in memory.
    take.Make({.recorded = 20 * 13});
    EXPECT_FALSE(std::filesystem::is_empty(take.spillDirectory.Path()));
    take.SetBits(24);
    const std::string path = take.directory.File("take.wav");

    // 4.5 s to 12.5 s: out of the first block on disk, the second, and memory.
    take.Save(path, 4.5, 12.5, -6.0);

    const std::vector<float> captured = take.Captured(13 * 44'100);
    const std::vector<float> range(captured.begin() + 2 * 198'450, captured.begin() + 2 * 551'250);
    const float gain = std::pow(10.0F, -6.0F / 20.0F);
    EXPECT_EQ(SavedSamples(path, 24, range.size()), Expected(range, gain, 24));

    ASSERT_EQ(take.manager.New(), VrSuccess);
    EXPECT_TRUE(std::filesystem::is_empty(take.spillDirectory.Path()));
}

TEST(LongerTakesTest, MarksJoinWithoutALostOrDoubledSample) {
    Take take(Counting(2), 48'000);
    take.Select();
    take.Make({.recorded = 20});
    take.SetBits(32);

    take.Save(take.directory.File("1.wav"), 0.0, 0.25);
    take.Save(take.directory.File("2.wav"), 0.25, 0.75);
    take.Save(take.directory.File("3.wav"), 0.75, 1.0);

    std::vector<std::int64_t> joined;
    for (const auto& [name, frames] :
         {std::pair{"1.wav", 12'000U}, std::pair{"2.wav", 24'000U}, std::pair{"3.wav", 12'000U}}) {
        const auto part = SavedSamples(take.directory.File(name), 32, 2 * frames);
        joined.insert(joined.end(), part.begin(), part.end());
    }
    EXPECT_EQ(joined, Expected(take.Captured(48'000), 1.0F, 32));
}

TEST(LongerTakesTest, BuffersInSeveralPartsBecomeOneTake) {
    SimulatedRecorderConfig config = Counting(5);
    config.bufferChannels = {2, 1, 2};
    Take take(config, 48'000);
    take.Select();
    take.Make({.recorded = 3});
    take.SetBits(24);

    take.Save(take.directory.File("take.wav"), 0.0, 1.0);

    const std::vector<float> captured = take.Captured(7'200);
    EXPECT_EQ(SavedSamples(take.directory.File("take.wav"), 24, captured.size()),
              Expected(captured, 1.0F, 24));
}

TEST(LongerTakesTest, AnUnplugKeepsWhatWasDeliveredBeforeIt) {
    Take take(Counting(2), 48'000);
    take.Select();
    take.Start();
    take.Deliver(4);

    take.Recorder().Unplug();

    ASSERT_TRUE(DispatchUntil([&] { return take.delegate->Has(VrMessageDeviceError); }));
    EXPECT_EQ(take.delegate->Count(VrMessageDeviceError), 1U);
    take.delegate->messages.clear();
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);
    EXPECT_EQ(take.manager.State(), ManagerState::Ready);
    take.Save(take.directory.File("take.wav"), 0.0, 10.0);
    EXPECT_EQ(SavedSamples(take.directory.File("take.wav"), 16, 2 * 9'600),
              Expected(take.Captured(9'600), 1.0F, 16));
    // Gone for good: the next start fails with its message, and another selection finds nothing.
    ASSERT_EQ(take.manager.Start(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return take.delegate->Has(VrMessageDeviceError); }));
    EXPECT_EQ(take.manager.SetAudioDevice(kSupportedDeviceName), VrErrorDeviceNotFound);
}

}  // namespace
}  // namespace vorrel::test
