#pragma once

#include <cstdint>

namespace vorrel {

/// Whole tenths of a second in `length` samples or frames at `rateHz`, rounded down; 0 without a
/// rate. Positions are told to the host in this step.
constexpr std::uint64_t Tenths(std::uint64_t length, std::uint64_t rateHz) {
    return rateHz == 0 ? 0 : length * 1000 / (rateHz * 100);
}

/// The same position in seconds.
constexpr double SecondsOfTenths(std::uint64_t tenths) {
    return static_cast<double>(tenths) * 0.1;
}

}  // namespace vorrel
