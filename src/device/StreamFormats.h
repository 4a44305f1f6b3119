#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "device/backend/CoreAudioTypes.h"

namespace vorrel {

/// @return true for linear PCM in signed integers that is not marked as non-mixable.
bool IsUsableFormat(const AudioStreamBasicDescription& format);

/// @return true for a usable format whose rate is `rateHz`, or which takes any rate (its own is 0)
///         in a range that holds `rateHz`, ends included.
bool IsEligibleFormat(const AudioStreamRangedDescription& format, double rateHz);

/// Decides between the best format so far and a later one of the device's list.
/// @param best  May be null: the candidate wins.
/// @return true when the candidate wins: by its bits per channel (the target itself, else the
///         nearest above it, else the most), then by more channels; on a draw the best stays.
bool CompareASRD(const AudioStreamRangedDescription* best,
                 const AudioStreamRangedDescription& candidate, std::uint32_t targetBits);

/// The best format of a list for a rate, or for any rate when `rateHz` is empty.
/// @return Points into `formats`; null when none is eligible.
const AudioStreamRangedDescription* SearchASRD(
    std::span<const AudioStreamRangedDescription> formats, std::optional<double> rateHz,
    std::uint32_t targetBits);

}  // namespace vorrel
