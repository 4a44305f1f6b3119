#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "faults/Tally.h"
#include "integration/TakeRig.h"

namespace vorrel::test {

/// Dispatches notifications until `holds`. @return false after a time that nothing here takes.
inline bool SettlesUntil(const std::function<bool()>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    return DispatchUntil([&] { return holds() || std::chrono::steady_clock::now() > deadline; }) &&
           holds();
}

/// A take whose recorder delivers the same noise every time, and what has to come of it.
class FaultRig {
public:
    /// @param seconds  Longest take.
    FaultRig(std::uint64_t rateHz, Take::Type type, std::uint32_t channels, double seconds)
        : take(Noise(channels), rateHz, type) {
        take.Select();
        expected = ExpectedBytes(seconds);
    }

    /// Starts a take that meets no fault.
    void Start() {
        Forget();
        take.Start();
    }
    /// Delivers buffers and waits until they are stored, or until the record worker has told that
    /// it stores no more.
    void Deliver(std::uint64_t buffers) {
        for (std::uint64_t buffer = 0; buffer < buffers; ++buffer) {
            ASSERT_TRUE(take.Recorder().DeliverBuffer());
            // Some at a time, so that the preview's reader is never left behind.
            if (buffer % 10 == 9 || buffer + 1 == buffers) {
                const std::uint64_t samples =
                    take.Recorder().DeliveredFrames() * take.SamplesPerFrame();
                ASSERT_TRUE(SettlesUntil([&] {
                    return !take.delegate->messages.empty() ||
                           take.Record().GetLength(false) == samples;
                }));
            }
        }
    }
    std::uint64_t BuffersOf(double seconds) {
        const double samples = seconds * static_cast<double>(take.rateHz);
        const std::uint64_t perBuffer = take.BufferFrames() * take.SamplesPerFrame();
        return static_cast<std::uint64_t>(samples) / perBuffer + 1;
    }
    void Stop() {
        ASSERT_EQ(take.manager.Stop(true), VrSuccess);
        ASSERT_TRUE(SettlesUntil([&] { return take.delegate->Has(VrRecOperationStopped); }));
    }
    /// Samples of a channel that were delivered since the start.
    std::uint64_t Delivered() { return take.Recorder().DeliveredFrames() * take.SamplesPerFrame(); }

    /// What is stored as recorded is, sample by sample, what was delivered first.
    void ExpectRecorded(std::uint64_t samples) {
        ASSERT_EQ(take.Record().GetLength(true), samples);
        if (samples == 0) {
            return;
        }
        for (std::uint16_t channel = 0; channel < take.Record().GetChannels(); ++channel) {
            const Bytes stored = take.Recorded(channel);
            ASSERT_LE(stored.size(), expected[channel].size());
            ASSERT_TRUE(std::equal(stored.begin(), stored.end(), expected[channel].begin()))
                << "channel " << channel;
        }
    }
    /// A short take, without a fault, from its start to its end.
    void ExpectTheNextTakeWorks() {
        ASSERT_EQ(take.manager.State(), ManagerState::Ready);
        Start();
        Deliver(3);
        Stop();
        EXPECT_TRUE(take.delegate->messages.empty());
        ExpectRecorded(Delivered());
    }
    /// Lets all that was told so far be delivered and forgotten.
    void Forget() {
        MainQueue::Dispatch();
        take.delegate->operations.clear();
        take.delegate->messages.clear();
        take.delegate->log.clear();
    }
    std::size_t SpillFiles() const {
        const std::filesystem::directory_iterator files(take.spillDirectory.Path());
        return static_cast<std::size_t>(std::distance(begin(files), end(files)));
    }

    Take take;
    std::vector<Bytes> expected;  // of each channel, from the first sample on

private:
    std::vector<Bytes> ExpectedBytes(double seconds) {
        const auto samples =
            static_cast<std::uint64_t>((seconds + 1.0) * static_cast<double>(take.rateHz));
        if (take.type == Take::Dsd) {
            return take.CapturedBits(samples / 16);
        }
        const std::vector<float> captured = take.Captured(samples);
        const std::size_t channels = take.config.channels;
        std::vector<Bytes> bytes(channels, Bytes(samples * sizeof(float)));
        for (std::size_t index = 0; index < captured.size(); ++index) {
            std::memcpy(bytes[index % channels].data() + index / channels * sizeof(float),
                        &captured[index], sizeof(float));
        }
        return bytes;
    }
};

}  // namespace vorrel::test
