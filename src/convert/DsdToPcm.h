#pragma once

#include <cstddef>
#include <cstdint>

#include "convert/DsdToPcmWorkBuffer.h"

namespace vorrel {

/// Reduces one channel of a 1-bit stream to PCM at one sixty-fourth of its rate: two stages of the
/// same low-pass filter, each keeping one value in eight. Never fails, never allocates.
/// @tparam msbFirst    The first bit in time is the most significant of its byte.
/// @param destination  Receives `count` signed 16-bit little-endian samples; 1.0 is 32767.
/// @param source       8 x `count` bytes.
/// @param work         State of this channel; all zero before its first block. One thread at a
/// time.
/// @note The first sample after a reset is 0: a sample is taken before its own bytes enter. The
///       samples do not depend on how a stream is cut into calls, nor on the machine.
template <bool msbFirst>
void DSD_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                     DsdToPcmWorkBuffer* work);

}  // namespace vorrel
