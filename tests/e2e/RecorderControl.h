#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "Descriptors.h"
#include "Pattern.h"
#include "RecorderModel.h"

namespace vorrel::e2e {

/// The eight bytes that begin a control transfer.
struct SetupPacket {
    std::uint8_t requestType = 0;  ///< bit 7: to the host
    std::uint8_t request = 0;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::uint16_t length = 0;
};

/// The recorder behind its default pipe: descriptors, alternate setting, clock rate, and the
/// mode that the vendor request switches.
class RecorderControl {
public:
    explicit RecorderControl(RecorderModel recorder);

    /// Carries a request out. Bytes for the host (none for a request that has none), at most
    /// `setup.length`; nothing: the request is stalled, and has changed nothing.
    std::optional<ByteVector> Transfer(const SetupPacket& setup,
                                       std::span<const std::uint8_t> data);

    const RecorderModel& Model() const { return model; }
    StreamMode Mode() const { return mode; }
    std::uint32_t RateHz() const { return rateHz; }

    /// The format of the alternate setting; null in setting 0, where nothing streams.
    const WireFormat* Format() const;

    /// Counts what makes a stream a new one: settings, rates and modes set.
    std::uint64_t Generation() const { return generation; }

private:
    std::optional<ByteVector> Standard(const SetupPacket& setup);
    std::optional<ByteVector> Clock(const SetupPacket& setup, std::span<const std::uint8_t> data);
    std::optional<ByteVector> SetMode(const SetupPacket& setup);
    std::optional<ByteVector> SetInterface(const SetupPacket& setup);
    std::optional<ByteVector> Descriptor(const SetupPacket& setup) const;

    RecorderModel model;
    StreamMode mode = StreamMode::Pcm;
    std::uint32_t rateHz = 48'000;
    std::uint8_t configuration = 0;
    std::uint8_t setting = 0;  // of the streaming interface
    std::uint64_t generation = 0;
};

}  // namespace vorrel::e2e
