#include "UsbIpMessage.h"

namespace vorrel::e2e {
namespace {

constexpr std::uint32_t kSubmitAnswer = 3;
constexpr std::uint32_t kUnlinkAnswer = 4;

std::uint32_t BigEndianAt(std::span<const std::uint8_t> bytes, std::size_t offset) {
    return std::uint32_t{bytes[offset]} << 24 | std::uint32_t{bytes[offset + 1]} << 16 |
           std::uint32_t{bytes[offset + 2]} << 8 | bytes[offset + 3];
}

std::uint16_t LittleWordAt(std::span<const std::uint8_t> bytes, std::size_t offset) {
    return static_cast<std::uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

void AppendBigEndian(ByteVector& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

void AppendBigEndian(ByteVector& out, std::int32_t value) {
    AppendBigEndian(out, static_cast<std::uint32_t>(value));
}

void AppendBigEndian(ByteVector& out, std::size_t value) {
    AppendBigEndian(out, static_cast<std::uint32_t>(value));
}

/// Device, direction and endpoint are the host's affair in an answer.
void AppendAnswerHead(ByteVector& out, std::uint32_t kind, std::uint32_t sequence) {
    AppendBigEndian(out, kind);
    AppendBigEndian(out, sequence);
    out.resize(out.size() + 3 * sizeof(std::uint32_t));
}

}  // namespace

Command ParseCommand(std::span<const std::uint8_t, kMessageHeaderBytes> header) {
    Command command;
    command.kind = static_cast<CommandKind>(BigEndianAt(header, 0));
    command.sequence = BigEndianAt(header, 4);
    command.toHost = BigEndianAt(header, 12) == 1;
    command.endpoint = BigEndianAt(header, 16);
    if (command.kind == CommandKind::Unlink) {
        command.target = BigEndianAt(header, 20);
        return command;
    }
    command.lengthBytes = BigEndianAt(header, 24);
    command.startFrame = BigEndianAt(header, 28);
    command.packets = BigEndianAt(header, 32);
    command.setup = {header[40], header[41], LittleWordAt(header, 42), LittleWordAt(header, 44),
                     LittleWordAt(header, 46)};
    return command;
}

PacketEntry ParsePacketEntry(std::span<const std::uint8_t, kPacketEntryBytes> bytes) {
    return {BigEndianAt(bytes, 0), BigEndianAt(bytes, 4), BigEndianAt(bytes, 8),
            static_cast<std::int32_t>(BigEndianAt(bytes, 12))};
}

ByteVector SubmitAnswer(std::uint32_t sequence, std::int32_t status, std::size_t actualBytes,
                        std::span<const std::uint8_t> data) {
    ByteVector out;
    out.reserve(kMessageHeaderBytes + data.size());
    AppendAnswerHead(out, kSubmitAnswer, sequence);
    AppendBigEndian(out, status);
    AppendBigEndian(out, actualBytes);
    out.resize(kMessageHeaderBytes);
    out.insert(out.end(), data.begin(), data.end());
    return out;
}

ByteVector IsochronousAnswer(const Command& command, std::span<const PacketEntry> packets,
                             std::span<const std::uint8_t> data) {
    ByteVector out;
    out.reserve(kMessageHeaderBytes + data.size() + packets.size() * kPacketEntryBytes);
    AppendAnswerHead(out, kSubmitAnswer, command.sequence);
    AppendBigEndian(out, kTransferDone);
    AppendBigEndian(out, data.size());
    AppendBigEndian(out, command.startFrame);
    AppendBigEndian(out, packets.size());
    out.resize(kMessageHeaderBytes);
    out.insert(out.end(), data.begin(), data.end());
    for (const PacketEntry& packet : packets) {
        AppendBigEndian(out, packet.offset);
        AppendBigEndian(out, packet.lengthBytes);
        AppendBigEndian(out, packet.actualBytes);
        AppendBigEndian(out, packet.status);
    }
    return out;
}

ByteVector UnlinkAnswer(std::uint32_t sequence, std::int32_t status) {
    ByteVector out;
    AppendAnswerHead(out, kUnlinkAnswer, sequence);
    AppendBigEndian(out, status);
    out.resize(kMessageHeaderBytes);
    return out;
}

}  // namespace vorrel::e2e
