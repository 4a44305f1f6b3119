#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "AlsaRig.h"

namespace vorrel::test {
namespace {

/// Programs beside the take that compute without a pause.
class CpuHogs {
public:
    explicit CpuHogs(int count) {
        for (int i = 0; i < count; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                std::atomic<std::uint64_t> spins{0};
                for (;;) {
                    ++spins;
                }
            }
            if (child > 0) {  // -1 would mean every process
                hogs.push_back(child);
            }
        }
    }
    ~CpuHogs() {
        for (const pid_t hog : hogs) {
            ::kill(hog, SIGKILL);
            ::waitpid(hog, nullptr, 0);
        }
    }
    CpuHogs(const CpuHogs&) = delete;
    CpuHogs& operator=(const CpuHogs&) = delete;

private:
    std::vector<pid_t> hogs;
};

/// How long, in seconds: some by default; `VORREL_SOAK_SECONDS` for longer.
std::uint64_t Seconds() {
    const char* text = std::getenv("VORREL_SOAK_SECONDS");
    const long seconds = text == nullptr ? 0 : std::strtol(text, nullptr, 10);
    return seconds > 0 ? static_cast<std::uint64_t>(seconds) : 5;
}

TEST(AlsaSoakTest, LosesNoBufferBesideTwoProgramsThatTakeTheProcessors) {
    constexpr std::uint64_t kRateHz = 192'000;
    const CpuHogs hogs(2);  // before any thread is made
    TestCard card;
    card.SetFormats({kS24In3});
    AlsaTake take(card);
    take.Select();
    take.SetUp(AlsaTake::Pcm, kRateHz);
    take.Start();

    const auto begin = std::chrono::steady_clock::now();
    const auto deadline = begin + std::chrono::seconds(Seconds() + 120);
    while (take.StoredFrames() < Seconds() * kRateHz &&
           std::chrono::steady_clock::now() < deadline) {
        MainQueue::Wait(std::chrono::milliseconds(100));
        MainQueue::Dispatch();
    }
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);

    const AlsaCapture& capture = take.audio->Find(2)->Capture();
    const CycleTimes::Summary times = capture.Times();
    std::printf(
        "%llu s at %llu Hz: %llu buffers, %llu wake-ups, %llu overruns; wake to done: "
        "median %lld us, 99.9th percentile %lld us, maximum %lld us\n",
        static_cast<unsigned long long>(Seconds()), static_cast<unsigned long long>(kRateHz),
        static_cast<unsigned long long>(capture.DeliveredBuffers()),
        static_cast<unsigned long long>(times.cycles),
        static_cast<unsigned long long>(capture.Overruns()),
        static_cast<long long>(times.median.count()),
        static_cast<long long>(times.percentile999.count()),
        static_cast<long long>(times.maximum.count()));
    EXPECT_EQ(capture.Overruns(), 0U);
    EXPECT_EQ(card.State().lateReaders, 0U);
    EXPECT_TRUE(take.delegate->messages.empty());  // nor was the queue ever full
    const std::uint64_t frames = take.Record().GetLength(true);
    EXPECT_GE(frames, Seconds() * kRateHz);
    // Piece by piece: the whole would not fit the memory of a long take.
    constexpr std::uint64_t kPiece = 1 << 20;
    Bytes head;
    ASSERT_EQ(take.Record().GetData(0, 0, 16, head, true), VrSuccess);
    std::vector<float> beginning(16);
    std::memcpy(beginning.data(), head.data(), head.size());
    const std::uint64_t first = take.FirstPcmFrame(beginning, 0, 2, 24);
    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        for (std::uint64_t start = 0; start < frames; start += kPiece) {
            const std::uint64_t end = std::min(frames, start + kPiece);
            Bytes bytes;
            ASSERT_EQ(take.Record().GetData(channel, start, end, bytes, true), VrSuccess);
            for (std::uint64_t frame = start; frame < end; ++frame) {
                float sample = 0.0F;
                std::memcpy(&sample, bytes.data() + (frame - start) * sizeof sample, sizeof sample);
                ASSERT_EQ(sample, CapturedSample(first + frame, channel, 2, 24)) << frame;
            }
        }
    }
}

}  // namespace
}  // namespace vorrel::test
