#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <vector>

#include "convert/SampleTypeInfo.h"
#include "manager/IVorrelManager.h"
#include "store/RecordData.h"
#include "store/RecordRangeManager.h"

namespace vorrel::test {

/// A finished recording without pauses, made of what a test says.
class Recording {
public:
    explicit Recording(IVorrelManager& manager) : data(manager) {}

    /// Begins a recording; whatever is added is recorded.
    void Begin(std::uint16_t channels, std::uint64_t rateHz,
               const SampleTypeInfo* type = GetSampleTypeInfo(kSampleTypePcm)) {
        ASSERT_TRUE(ranges.Reset());
        ranges.AddRecordEvent(0, kRecordEventRecord);
        ASSERT_EQ(data.Init(channels, rateHz, type, &ranges), VrSuccess);
    }

    /// Adds samples to one channel.
    template <class Sample>
    void Add(std::uint16_t channel, const std::vector<Sample>& samples) {
        std::vector<std::uint8_t> block(samples.size() * sizeof(Sample));
        if (!block.empty()) {
            std::memcpy(block.data(), samples.data(), block.size());
            ASSERT_EQ(data.Add(channel, block), VrSuccess);
        }
    }

    /// A PCM recording whose sample is `sample(channel, frame)`.
    void Make(std::uint16_t channels, std::uint64_t rateHz, std::size_t frames,
              const std::function<float(std::uint16_t, std::size_t)>& sample = Steps,
              const SampleTypeInfo* type = GetSampleTypeInfo(kSampleTypePcm)) {
        Begin(channels, rateHz, type);
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            std::vector<float> samples(frames);
            for (std::size_t frame = 0; frame < frames; ++frame) {
                samples[frame] = sample(channel, frame);
            }
            Add(channel, samples);
        }
    }

    /// Whole multiples of 2^-15, no two neighbours or channels alike: exact at every width.
    static int StepOf(std::uint16_t channel, std::size_t frame) {
        return static_cast<int>((frame * 7 + channel * 1'001U) % 65'536) - 32'768;
    }
    static float Steps(std::uint16_t channel, std::size_t frame) {
        return static_cast<float>(StepOf(channel, frame)) / 32'768.0f;
    }

    RecordRangeManager ranges;
    RecordData data;
};

}  // namespace vorrel::test
