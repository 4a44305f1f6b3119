#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "CaptureStream.h"
#include "RecorderControl.h"
#include "UsbIpMessage.h"

namespace vorrel::e2e {

/// One recorder at its end of a USB/IP connection. Control transfers are answered at once,
/// isochronous ones when the time for their packets has passed: by the clock of the machine
/// that records, as if the recorder's crystal and that clock were one.
class UsbIpServer {
public:
    using Clock = std::chrono::steady_clock;

    /// How far the host may fall behind before the recorder loses frames.
    static constexpr std::chrono::milliseconds kFifo{100};

    /// @param socket  A connected stream socket. It stays the caller's.
    UsbIpServer(int socket, RecorderModel model);

    /// Reads one command, waiting for the rest of it, and carries it out. False: the host is
    /// gone, or speaks something else.
    bool Receive(Clock::time_point now);

    /// When the next transfer is complete; nothing while none waits.
    std::optional<Clock::time_point> NextDue();

    /// Answers the transfers whose time has come. False: the host is gone.
    bool CompleteDue(Clock::time_point now);

    const RecorderControl& Control() const { return control; }

    /// How long the stream has been running since it began, in the recorder's time.
    std::chrono::microseconds Streamed() const { return packetsDone * kPacketTime; }
    std::uint64_t StreamedFrames() const { return stream ? stream->Frames() : 0; }
    /// Packets that the recorder lost because no transfer was waiting, in all streams.
    std::uint64_t LostPackets() const { return lostPackets; }

private:
    static constexpr std::chrono::microseconds kPacketTime{1'000'000 / kPacketsPerSecond};

    struct Waiting {
        Command command;
        std::vector<PacketEntry> packets;
    };

    bool Submit(const Command& command, Clock::time_point now);
    bool SubmitControl(const Command& command);
    bool Unlink(const Command& command);
    bool Complete(Waiting& transfer);
    void FollowControl(Clock::time_point now);
    void CatchUp(Clock::time_point now);
    bool Read(std::span<std::uint8_t> bytes) const;
    bool Write(std::span<const std::uint8_t> bytes) const;

    int descriptor;
    RecorderControl control;
    std::deque<Waiting> waiting;
    std::optional<CaptureStream> stream;  // nothing while the setting is 0
    std::uint64_t generation = 0;         // of `control`, when `stream` was made
    Clock::time_point streamStart;        // of its first packet
    std::uint64_t packetsDone = 0;        // of `stream`
    std::uint64_t lostPackets = 0;
};

}  // namespace vorrel::e2e
