#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/Realtime.h"

namespace vorrel {

/// How long the IO thread takes from its wake-up until all due buffers are delivered, as counts by
/// the microsecond. One thread adds, any thread reads.
class CycleTimes {
public:
    struct Summary {
        std::uint64_t cycles = 0;
        std::chrono::microseconds median{0};
        std::chrono::microseconds percentile999{0};  ///< of a thousand cycles, one took longer
        std::chrono::microseconds maximum{0};
    };

    VORREL_REALTIME void Add(std::chrono::nanoseconds time) noexcept {
        const auto micros = static_cast<std::uint64_t>(time.count() < 0 ? 0 : time.count() / 1'000);
        const std::size_t bin = micros < kBins ? static_cast<std::size_t>(micros) : kBins - 1;
        counts[bin].fetch_add(1, std::memory_order_relaxed);
        if (micros > longest.load(std::memory_order_relaxed)) {
            longest.store(micros, std::memory_order_relaxed);
        }
    }

    Summary Summarise() const {
        Summary summary;
        for (const auto& count : counts) {
            summary.cycles += count.load(std::memory_order_relaxed);
        }
        summary.maximum = std::chrono::microseconds(longest.load(std::memory_order_relaxed));
        summary.median = Percentile(summary, 500);
        summary.percentile999 = Percentile(summary, 999);
        return summary;
    }

private:
    /// 50 ms, of which the last stands for all that is longer.
    static constexpr std::size_t kBins = 50'000;

    std::chrono::microseconds Percentile(const Summary& summary, std::uint64_t perMille) const {
        std::uint64_t seen = 0;
        for (std::size_t bin = 0; bin + 1 < kBins; ++bin) {
            seen += counts[bin].load(std::memory_order_relaxed);
            if (seen * 1'000 >= summary.cycles * perMille) {
                return std::chrono::microseconds(bin);
            }
        }
        return summary.maximum;
    }

    std::array<std::atomic<std::uint32_t>, kBins> counts{};
    std::atomic<std::uint64_t> longest{0};
};

}  // namespace vorrel
