#pragma once

#include <cstdint>

namespace vorrel {

/// State of the DSD preview decimator between two calls, one per channel, owned by the caller.
/// All zero at the start of a run.
struct alignas(64) DsdToPcmWorkBuffer {
    float bitRing[96];      ///< The last 96 bits as +1.0 (set) or -1.0 (clear).
    float stageRing[96];    ///< The last 96 first-stage outputs.
    std::int64_t bitPos;    ///< Oldest entry of `bitRing`, next 8 to be written: 0, 8, ..., 88.
    std::int64_t stagePos;  ///< Oldest entry of `stageRing`, next to be written: 0..95.
};

}  // namespace vorrel
