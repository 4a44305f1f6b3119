#pragma once

#include <cstddef>
#include <cstdint>

#include "convert/DsdToPcmWorkBuffer.h"

namespace vorrel::test {

/// `DSD_To_Int16LSB` one sample, one byte and one bit after the other, as its contract reads: what
/// every vector version is held against. Expects the usual rounding mode.
void PlainDecimate(bool msbFirst, std::uint8_t* out, const std::uint8_t* in, std::size_t count,
                   DsdToPcmWorkBuffer& work);

}  // namespace vorrel::test
