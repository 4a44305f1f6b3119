#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "AlsaRig.h"

namespace vorrel::test {

/// A card taken and set up, with one IO proc: 480 frames a buffer and 48,000 in the ring, which is
/// 10 ms and a second at the card's speed of 1.
class AlsaCaptureTest : public AlsaCardTest {
protected:
    static constexpr std::uint64_t kBufferFrames = 480;
    static constexpr std::uint64_t kRingFrames = 48'000;

    void SetUp() override {
        card.State().speed = VORREL_TEST_SPEED;
        ASSERT_EQ(Hog(), 0);
        device = Device();
        ASSERT_EQ(
            AlsaCardTest::Set(Stream(), kAudioStreamPropertyPhysicalFormat, Format(48'000, 24)), 0);
        ASSERT_EQ(AlsaCardTest::Set(device, kAudioDevicePropertyBufferFrameSize,
                                    static_cast<UInt32>(kBufferFrames)),
                  0);
    }
    AudioDeviceIOProcID Create(Collector& collector) {
        AudioDeviceIOProcID id = nullptr;
        EXPECT_EQ(audio->CreateIOProcID(device, &Collector::Proc, &collector, &id), 0);
        return id;
    }
    static void AwaitCalls(const Collector& collector, std::uint64_t count) {
        Await([&] { return collector.calls >= count; });
    }
    /// What the ring holds, in time.
    static std::chrono::milliseconds RingTime() {
        return std::chrono::milliseconds(static_cast<int>(1'000.0 / VORREL_TEST_SPEED));
    }
    const AlsaCapture& Capture() { return audio->Find(device)->Capture(); }
    /// Keeps the IO thread for so long, as a proc that computes.
    static void Compute(std::chrono::milliseconds time) {
        const auto end = std::chrono::steady_clock::now() + time;
        while (std::chrono::steady_clock::now() < end) {
        }
    }
    /// How far the collected frames follow the card's from `frame` on. @return The first index that
    /// does not hold frame `frame` + (index - `from`).
    static std::size_t FollowsUntil(const std::vector<float>& samples, std::size_t from,
                                    std::uint64_t frame) {
        std::size_t i = from;
        while (2 * i < samples.size() &&
               samples[2 * i] == CapturedSample(frame + (i - from), 0, 2, 24)) {
            ++i;
        }
        return i;
    }

    AudioDeviceID device = kAudioObjectUnknown;
};

}  // namespace vorrel::test
