#include "UsbIpServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace vorrel::e2e {
namespace {

/// More than any transfer of this device; a longer one is no USB/IP.
constexpr std::uint32_t kMostBytes = 1 << 20;
constexpr std::uint32_t kMostPackets = 1'024;

}  // namespace

UsbIpServer::UsbIpServer(int socket, RecorderModel model)
    : descriptor(socket), control(std::move(model)) {}

bool UsbIpServer::Receive(Clock::time_point now) {
    std::array<std::uint8_t, kMessageHeaderBytes> header{};
    if (!Read(header)) {
        return false;
    }
    const Command command = ParseCommand(header);
    switch (command.kind) {
        case CommandKind::Submit:
            return Submit(command, now);
        case CommandKind::Unlink:
            return Unlink(command);
    }
    return false;
}

bool UsbIpServer::Submit(const Command& command, Clock::time_point now) {
    if (command.lengthBytes > kMostBytes) {
        return false;
    }
    if (command.endpoint == 0) {
        return SubmitControl(command);
    }
    if (command.endpoint != kCaptureEndpoint || !command.toHost || command.packets > kMostPackets) {
        return false;  // there is no such endpoint, so no host asks for it
    }
    Waiting transfer{command, {}};
    for (std::uint32_t packet = 0; packet < command.packets; ++packet) {
        std::array<std::uint8_t, kPacketEntryBytes> entry{};
        if (!Read(entry)) {
            return false;
        }
        transfer.packets.push_back(ParsePacketEntry(entry));
    }
    FollowControl(now);
    if (waiting.empty()) {
        CatchUp(now);
    }
    waiting.push_back(std::move(transfer));
    return true;
}

bool UsbIpServer::SubmitControl(const Command& command) {
    ByteVector sent(command.toHost ? 0 : command.lengthBytes);
    if (!Read(sent)) {
        return false;
    }
    const std::optional<ByteVector> answer = control.Transfer(command.setup, sent);
    if (!answer) {
        return Write(SubmitAnswer(command.sequence, kTransferStalled, 0, {}));
    }
    const std::size_t actual = command.toHost ? answer->size() : sent.size();
    return Write(SubmitAnswer(command.sequence, kTransferDone, actual, *answer));
}

bool UsbIpServer::Unlink(const Command& command) {
    const auto found =
        std::find_if(waiting.begin(), waiting.end(), [&command](const Waiting& transfer) {
            return transfer.command.sequence == command.target;
        });
    // A transfer that is not there has been answered already; that answer counts.
    if (found == waiting.end()) {
        return Write(UnlinkAnswer(command.sequence, kTransferDone));
    }
    waiting.erase(found);
    return Write(UnlinkAnswer(command.sequence, kTransferTakenBack));
}

void UsbIpServer::FollowControl(Clock::time_point now) {
    if (generation == control.Generation()) {
        return;
    }
    generation = control.Generation();
    stream.reset();
    if (const WireFormat* format = control.Format(); format != nullptr) {
        stream.emplace(*format, control.Mode(), control.RateHz());
    }
    streamStart = now;
    packetsDone = 0;
}

void UsbIpServer::CatchUp(Clock::time_point now) {
    if (!stream || now < streamStart) {
        return;
    }
    const auto passed = static_cast<std::uint64_t>((now - streamStart) / kPacketTime);
    constexpr auto kFifoPackets = static_cast<std::uint64_t>(kFifo / kPacketTime);
    if (passed <= packetsDone + kFifoPackets) {
        return;
    }
    const std::uint64_t lost = passed - packetsDone;
    stream->Skip(lost);
    packetsDone += lost;
    lostPackets += lost;
}

std::optional<UsbIpServer::Clock::time_point> UsbIpServer::NextDue() {
    if (!stream || waiting.empty()) {
        return std::nullopt;
    }
    return streamStart + (packetsDone + waiting.front().packets.size()) * kPacketTime;
}

bool UsbIpServer::CompleteDue(Clock::time_point now) {
    FollowControl(now);
    for (auto due = NextDue(); due && *due <= now; due = NextDue()) {
        Waiting transfer = std::move(waiting.front());
        waiting.pop_front();
        if (!Complete(transfer)) {
            return false;
        }
    }
    return true;
}

bool UsbIpServer::Complete(Waiting& transfer) {
    ByteVector data;
    for (PacketEntry& packet : transfer.packets) {
        const std::size_t start = data.size();
        stream->AppendPacket(data);
        // The room is that of the descriptors, which a packet never passes.
        packet.actualBytes = static_cast<std::uint32_t>(data.size() - start);
        packet.status = kTransferDone;
    }
    packetsDone += transfer.packets.size();
    return Write(IsochronousAnswer(transfer.command, transfer.packets, data));
}

bool UsbIpServer::Read(std::span<std::uint8_t> bytes) const {
    while (!bytes.empty()) {
        const ssize_t count = ::recv(descriptor, bytes.data(), bytes.size(), 0);
        if (count <= 0) {
            if (count < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

bool UsbIpServer::Write(std::span<const std::uint8_t> bytes) const {
    while (!bytes.empty()) {
        const ssize_t count = ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

}  // namespace vorrel::e2e
