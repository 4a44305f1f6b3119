#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "RecorderModel.h"

namespace vorrel::e2e {

using ByteVector = std::vector<std::uint8_t>;

/// The descriptors of a high-speed capture device of USB Audio Class 2: one clock, one input
/// terminal, one output terminal, one streaming interface with an alternate setting for each
/// width.
ByteVector DeviceDescriptor(const RecorderModel& model);
ByteVector ConfigurationDescriptor(const RecorderModel& model);

/// Text `index`; 0 gives the list of languages, an unknown one nothing. ASCII only.
std::optional<ByteVector> StringDescriptor(const RecorderModel& model, std::uint8_t index);

/// Appends the lowest `bytes` bytes of `value`, least significant first.
void AppendNumber(ByteVector& out, std::uint32_t value, unsigned bytes);

}  // namespace vorrel::e2e
