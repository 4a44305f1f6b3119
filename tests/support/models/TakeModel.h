#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "support/models/RangeLogModel.h"

namespace vorrel::test {

/// One channel of a take: all that was captured, and of it what counts as recorded. No buffer, no
/// file, no lock.
class ChannelModel {
public:
    /// @param frameBytes  In which the range log counts.
    void Add(const std::vector<std::uint8_t>& block, const RangeLogModel& log,
             std::uint64_t frameBytes) {
        const std::uint64_t from = raw.size() / frameBytes;
        const std::uint64_t to = (raw.size() + block.size()) / frameBytes;
        // From the front of the block, however far behind it the record begins.
        std::uint64_t recorded = log.Count(from, to) * frameBytes;
        if (log.IsOpenWithin(from, to)) {
            // The record goes on behind the last whole frame, to the end of the block.
            recorded += (raw.size() + block.size()) % frameBytes;
        }
        recorded = std::min<std::uint64_t>(recorded, block.size());
        raw.insert(raw.end(), block.begin(), block.end());
        available.insert(available.end(), block.begin(),
                         block.begin() + static_cast<std::ptrdiff_t>(recorded));
    }

    std::vector<std::uint8_t> raw, available;
};

}  // namespace vorrel::test
