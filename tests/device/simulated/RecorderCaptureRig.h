#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "device/simulated/SimulatedFixture.h"

namespace vorrel::test {

/// A recorder whose samples count up.
inline SimulatedRecorderConfig Counter(double speed, bool manual) {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::Counter;
    config.speed = speed;
    config.manual = manual;
    return config;
}

/// That `samples` are the counter's from its first on.
inline void ExpectCounter(const std::vector<float>& samples, std::uint32_t channels) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const auto channel = static_cast<std::uint32_t>(i % channels);
        ASSERT_EQ(samples[i], CounterSample(i / channels, channel, channels)) << i;
    }
}

/// Delivers what the test asks for, on the test's thread.
class ManualCaptureTest : public SimulatedTest {
protected:
    ManualCaptureTest() : SimulatedTest(Counter(1.0, true)) {}
    Collector collector;
};

}  // namespace vorrel::test
