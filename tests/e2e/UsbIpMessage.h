#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Descriptors.h"
#include "RecorderControl.h"

namespace vorrel::e2e {

/// The messages of USB/IP as far as a capture device meets them: transfers submitted or taken
/// back by the host, and the answers to them. Numbers are big-endian on the wire, but for the
/// setup packet, which passes as on the bus.

inline constexpr std::size_t kMessageHeaderBytes = 48;
inline constexpr std::size_t kPacketEntryBytes = 16;

/// Results of a transfer, as the kernel numbers them.
inline constexpr std::int32_t kTransferDone = 0;
inline constexpr std::int32_t kTransferStalled = -32;     // EPIPE
inline constexpr std::int32_t kTransferTakenBack = -104;  // ECONNRESET

enum class CommandKind : std::uint32_t { Submit = 1, Unlink = 2 };

/// The header of what the host sends.
struct Command {
    CommandKind kind = CommandKind::Submit;
    std::uint32_t sequence = 0;
    bool toHost = false;
    std::uint32_t endpoint = 0;
    std::uint32_t lengthBytes = 0;  ///< of the buffer (submit)
    std::uint32_t startFrame = 0;   ///< (submit)
    std::uint32_t packets = 0;      ///< of an isochronous transfer, else meaningless (submit)
    SetupPacket setup;              ///< of a control transfer (submit)
    std::uint32_t target = 0;       ///< sequence of the transfer to take back (unlink)
};

/// Place and room of one isochronous packet in the host's buffer.
struct PacketEntry {
    std::uint32_t offset = 0;
    std::uint32_t lengthBytes = 0;
    std::uint32_t actualBytes = 0;
    std::int32_t status = 0;
};

Command ParseCommand(std::span<const std::uint8_t, kMessageHeaderBytes> header);
PacketEntry ParsePacketEntry(std::span<const std::uint8_t, kPacketEntryBytes> bytes);

/// The answer to a transfer without packets; `data` is what the host gets.
ByteVector SubmitAnswer(std::uint32_t sequence, std::int32_t status, std::size_t actualBytes,
                        std::span<const std::uint8_t> data);

/// The answer to an isochronous one; `data` holds the packets without the room between them.
ByteVector IsochronousAnswer(const Command& command, std::span<const PacketEntry> packets,
                             std::span<const std::uint8_t> data);

ByteVector UnlinkAnswer(std::uint32_t sequence, std::int32_t status);

}  // namespace vorrel::e2e
