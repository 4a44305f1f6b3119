#include "CaptureStream.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace vorrel::e2e {
namespace {

TEST(PacketPacerTest, FractionsAreCarriedOver) {
    PacketPacer pacer(44'100);  // 5.5125 frames a packet

    std::vector<std::uint32_t> packets;
    for (int count = 0; count < 10; ++count) {
        packets.push_back(pacer.Next());
    }

    EXPECT_EQ(packets, (std::vector<std::uint32_t>{5, 6, 5, 6, 5, 6, 5, 6, 5, 6}));
}

TEST(PacketPacerTest, EverySecondHasExactlyItsFrames) {
    for (const std::uint32_t rate : kClockRatesHz) {
        PacketPacer pacer(rate);
        for (int second = 0; second < 3; ++second) {
            std::uint32_t frames = 0;
            std::uint32_t least = rate;
            std::uint32_t most = 0;
            for (std::uint32_t packet = 0; packet < kPacketsPerSecond; ++packet) {
                const std::uint32_t count = pacer.Next();
                frames += count;
                least = std::min(least, count);
                most = std::max(most, count);
            }
            EXPECT_EQ(frames, rate);
            EXPECT_LE(most - least, 1U) << rate;
            EXPECT_LE(most, PacketPacer::MostFrames(rate)) << rate;
        }
    }
}

TEST(CaptureStreamTest, SixteenBitsAreLittleEndian) {
    CaptureStream stream({16, 2}, StreamMode::Pcm, 16'000);  // two frames a packet
    ByteVector bytes;

    stream.AppendPacket(bytes);

    // 0, 0; 1, 40503 (0x9E37)
    EXPECT_EQ(bytes, (ByteVector{0, 0, 0, 0, 1, 0, 0x37, 0x9E}));
}

TEST(CaptureStreamTest, TwentyFourBitsTakeThreeBytes) {
    CaptureStream stream({24, 3}, StreamMode::Pcm, 16'000);
    ByteVector bytes;

    stream.AppendPacket(bytes);

    EXPECT_EQ(bytes, (ByteVector{0, 0, 0, 0, 0, 0, 1, 0, 0, 0x37, 0x9E, 0}));
}

TEST(CaptureStreamTest, WiderContainersHoldTwentyFourBitsAtTheirUpperEnd) {
    for (const WireFormat& format : {WireFormat{24, 4}, WireFormat{32, 4}}) {
        CaptureStream stream(format, StreamMode::Pcm, 16'000);
        ByteVector bytes;

        stream.AppendPacket(bytes);

        EXPECT_EQ(bytes, (ByteVector{0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0x37, 0x9E, 0}));
    }
}

TEST(CaptureStreamTest, DsdWordsAreOthers) {
    CaptureStream stream({16, 2}, StreamMode::Dsd, 8'000);
    ByteVector bytes;

    stream.AppendPacket(bytes);

    EXPECT_EQ(bytes, (ByteVector{0x69, 0x69, 0x69, 0x69}));
}

TEST(CaptureStreamTest, SkippedPacketsAreMissingFrames) {
    CaptureStream stream({16, 2}, StreamMode::Pcm, 44'100);
    ByteVector bytes;

    stream.Skip(80);  // 441 frames
    stream.AppendPacket(bytes);

    EXPECT_EQ(bytes[0] | bytes[1] << 8, 441);
    EXPECT_EQ(stream.Frames(), 446U);
}

}  // namespace
}  // namespace vorrel::e2e
