#include "UsbIpServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace vorrel::e2e {
namespace {

using namespace std::chrono_literals;

/// The host's end of the connection; numbers are written out as they stand on the wire.
class UsbIpServerTest : public testing::Test {
public:
    UsbIpServerTest(const UsbIpServerTest&) = delete;
    UsbIpServerTest& operator=(const UsbIpServerTest&) = delete;

protected:
    UsbIpServerTest() {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        server.emplace(ends[0], RecorderModel{});
    }
    ~UsbIpServerTest() override {
        ::close(ends[0]);
        CloseHost();
    }

    void CloseHost() {
        if (ends[1] >= 0) {
            ::close(ends[1]);
            ends[1] = -1;
        }
    }

    static void Big(ByteVector& out, std::uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            out.push_back(static_cast<std::uint8_t>(value >> shift));
        }
    }
    static ByteVector Header(std::uint32_t kind, std::uint32_t sequence, bool toHost,
                             std::uint32_t endpoint, std::uint32_t length, std::uint32_t packets,
                             const std::array<std::uint8_t, 8>& setup) {
        ByteVector out;
        for (const std::uint32_t value : {kind, sequence, 1U, toHost ? 1U : 0U, endpoint}) {
            Big(out, value);
        }
        for (const std::uint32_t value : {0U, length, 7U, packets, 1U}) {
            Big(out, value);
        }
        out.insert(out.end(), setup.begin(), setup.end());
        return out;
    }
    bool Send(const ByteVector& bytes) {
        EXPECT_EQ(::send(ends[1], bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
        return server->Receive(now);
    }
    bool SendControl(const std::array<std::uint8_t, 8>& setup, const ByteVector& data = {}) {
        const bool toHost = (setup[0] & 0x80) != 0;
        const auto length = static_cast<std::uint32_t>(setup[6] | setup[7] << 8);
        ByteVector bytes = Header(1, ++sequence, toHost, 0, length, 0, setup);
        bytes.insert(bytes.end(), data.begin(), data.end());
        return Send(bytes);
    }
    /// One transfer of eight packets: a millisecond.
    void SendIsochronous() {
        constexpr std::uint32_t kRoom = 360;
        ByteVector bytes = Header(1, ++sequence, true, 1, 8 * kRoom, 8, {});
        for (std::uint32_t packet = 0; packet < 8; ++packet) {
            for (const std::uint32_t value : {packet * kRoom, kRoom, 0U, 0U}) {
                Big(bytes, value);
            }
        }
        EXPECT_TRUE(Send(bytes));
    }
    /// All that waits on the host's end.
    ByteVector Answer() {
        ByteVector bytes(1 << 16);
        const ssize_t count = ::recv(ends[1], bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return bytes;
    }
    static std::uint32_t BigAt(const ByteVector& bytes, std::size_t offset) {
        std::uint32_t value = 0;
        for (std::size_t index = 0; index < 4 && offset + index < bytes.size(); ++index) {
            value = value << 8 | bytes[offset + index];
        }
        return value;
    }
    /// Setting 1 (16 bits) at 48 kHz.
    void StartStream() {
        ASSERT_TRUE(SendControl({0x01, 11, 1, 0, 1, 0, 0, 0}));
        Answer();
    }

    std::array<int, 2> ends{-1, -1};
    std::optional<UsbIpServer> server;
    UsbIpServer::Clock::time_point now{1h};
    std::uint32_t sequence = 100;
};

TEST_F(UsbIpServerTest, AnswersADescriptorWithItsBytes) {
    ASSERT_TRUE(SendControl({0x80, 6, 0, 1, 0, 0, 18, 0}));

    const ByteVector answer = Answer();
    ASSERT_EQ(answer.size(), 48U + 18);
    EXPECT_EQ(BigAt(answer, 0), 3U);
    EXPECT_EQ(BigAt(answer, 4), 101U);
    EXPECT_EQ(BigAt(answer, 20), 0U);
    EXPECT_EQ(BigAt(answer, 24), 18U);
    EXPECT_EQ(answer[48], 18);
    EXPECT_EQ(answer[49], 1);
}

TEST_F(UsbIpServerTest, TakesTheDataOfARequest) {
    ASSERT_TRUE(SendControl({0x21, 1, 0, 1, 0, 1, 4, 0}, {0x00, 0xEE, 0x02, 0x00}));

    const ByteVector answer = Answer();
    ASSERT_EQ(answer.size(), 48U);
    EXPECT_EQ(BigAt(answer, 24), 4U);
    EXPECT_EQ(server->Control().RateHz(), 192'000U);
}

TEST_F(UsbIpServerTest, StallsWhatItDoesNotKnow) {
    ASSERT_TRUE(SendControl({0x41, 9, 0, 0, 1, 0, 0, 0}));

    const ByteVector answer = Answer();
    ASSERT_EQ(answer.size(), 48U);
    EXPECT_EQ(BigAt(answer, 20), static_cast<std::uint32_t>(-32));
}

TEST_F(UsbIpServerTest, ATransferIsAnsweredWhenItsTimeHasPassed) {
    StartStream();
    SendIsochronous();
    SendIsochronous();

    ASSERT_TRUE(server->NextDue());
    EXPECT_EQ(*server->NextDue(), now + 1ms);
    EXPECT_TRUE(server->CompleteDue(now + 999us));
    EXPECT_TRUE(Answer().empty());
    EXPECT_TRUE(server->CompleteDue(now + 1ms));

    const ByteVector answer = Answer();
    // 48 frames of four bytes, and eight entries of sixteen
    ASSERT_EQ(answer.size(), 48U + 192 + 128);
    EXPECT_EQ(BigAt(answer, 4), 102U);
    EXPECT_EQ(BigAt(answer, 24), 192U);
    EXPECT_EQ(BigAt(answer, 28), 7U) << "the start frame comes back";
    EXPECT_EQ(BigAt(answer, 32), 8U);
    EXPECT_EQ(answer[48 + 4], 1) << "frame 1, first channel";
    for (std::size_t packet = 0; packet < 8; ++packet) {
        const std::size_t entry = 48 + 192 + packet * 16;
        EXPECT_EQ(BigAt(answer, entry), packet * 360);
        EXPECT_EQ(BigAt(answer, entry + 4), 360U);
        EXPECT_EQ(BigAt(answer, entry + 8), 24U);
        EXPECT_EQ(BigAt(answer, entry + 12), 0U);
    }
    EXPECT_EQ(*server->NextDue(), now + 2ms);
    EXPECT_EQ(server->StreamedFrames(), 48U);
}

TEST_F(UsbIpServerTest, AHostThatIsALittleLateLosesNothing) {
    StartStream();
    SendIsochronous();
    EXPECT_TRUE(server->CompleteDue(now + 50ms));
    now += 50ms;

    SendIsochronous();
    EXPECT_TRUE(server->CompleteDue(now));

    EXPECT_EQ(server->LostPackets(), 0U);
    EXPECT_EQ(server->StreamedFrames(), 96U);
}

TEST_F(UsbIpServerTest, AHostThatIsMuchTooLateLosesWhatHasPassed) {
    StartStream();
    SendIsochronous();
    EXPECT_TRUE(server->CompleteDue(now + 1ms));
    now += 1s;

    SendIsochronous();

    EXPECT_EQ(server->LostPackets(), 7'992U);
    EXPECT_EQ(*server->NextDue(), now + 1ms);
    EXPECT_EQ(server->StreamedFrames(), 48'000U);
}

TEST_F(UsbIpServerTest, ATransferThatWaitsCanBeTakenBack) {
    StartStream();
    SendIsochronous();
    SendIsochronous();
    ByteVector unlink;
    for (const std::uint32_t value : {2U, 200U, 1U, 0U, 0U, 102U}) {
        Big(unlink, value);
    }
    unlink.resize(48);

    ASSERT_TRUE(Send(unlink));

    ByteVector answer = Answer();
    ASSERT_EQ(answer.size(), 48U);
    EXPECT_EQ(BigAt(answer, 0), 4U);
    EXPECT_EQ(BigAt(answer, 4), 200U);
    EXPECT_EQ(BigAt(answer, 20), static_cast<std::uint32_t>(-104));
    ASSERT_TRUE(Send(unlink));
    EXPECT_EQ(BigAt(Answer(), 20), 0U) << "it is not there any more";
    EXPECT_TRUE(server->CompleteDue(now + 1ms));
    answer = Answer();
    EXPECT_EQ(BigAt(answer, 4), 103U);
    EXPECT_EQ(answer[48 + 4], 1) << "what was taken back has cost no frame";
}

TEST_F(UsbIpServerTest, ANewSettingBeginsTheStreamAnew) {
    StartStream();
    SendIsochronous();
    EXPECT_TRUE(server->CompleteDue(now + 1ms));
    Answer();
    now += 10s;
    StartStream();

    SendIsochronous();
    EXPECT_TRUE(server->CompleteDue(now + 1ms));

    EXPECT_EQ(Answer()[48 + 4], 1);
    EXPECT_EQ(server->LostPackets(), 0U);
}

TEST_F(UsbIpServerTest, NothingIsDueInSettingZero) {
    SendIsochronous();

    EXPECT_FALSE(server->NextDue());
    EXPECT_TRUE(server->CompleteDue(now + 1s));
    EXPECT_TRUE(Answer().empty());
}

TEST_F(UsbIpServerTest, EndsWhenTheHostIsGone) {
    CloseHost();

    EXPECT_FALSE(server->Receive(now));
}

TEST_F(UsbIpServerTest, EndsWhenTheHostSpeaksSomethingElse) {
    EXPECT_FALSE(Send(Header(9, 1, true, 0, 0, 0, {})));
    EXPECT_FALSE(Send(Header(1, 1, true, 5, 8, 1, {})));
    EXPECT_FALSE(Send(Header(1, 1, true, 1, 0xFFFF'FFFF, 1, {})));
}

}  // namespace
}  // namespace vorrel::e2e
