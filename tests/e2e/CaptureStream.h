#pragma once

#include <cstdint>

#include "Descriptors.h"
#include "PacketPacer.h"
#include "Pattern.h"
#include "RecorderModel.h"

namespace vorrel::e2e {

/// The packets of one start of the stream. Frame 0 of the pattern is the first.
class CaptureStream {
public:
    CaptureStream(const WireFormat& format, StreamMode mode, std::uint32_t rateHz);

    /// Appends the samples of the next packet, each little-endian in its container.
    void AppendPacket(ByteVector& out);

    /// Lets packets go by for which the host had no room.
    void Skip(std::uint64_t packets);

    std::uint64_t Frames() const { return frame; }

private:
    unsigned bytes;
    unsigned shift;  // from the pattern's bits to the upper bits of the container
    Pattern pattern;
    PacketPacer pacer;
    std::uint64_t frame = 0;  // number of the next
};

}  // namespace vorrel::e2e
