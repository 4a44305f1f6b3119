#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "LoadTools.h"

namespace vorrel::test {
namespace {

constexpr std::uint32_t kChannels = 8;

/// Somebody else's program that writes as fast as the disk takes it, a gibibyte round and round.
class DiskWriter {
public:
    explicit DiskWriter(const std::string& path)
        : file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)),
          worker([this] { Run(); }) {}
    ~DiskWriter() {
        ends = true;
        worker.join();
        ::close(file);
    }
    DiskWriter(const DiskWriter&) = delete;
    DiskWriter& operator=(const DiskWriter&) = delete;

    std::uint64_t Written() const { return written; }

private:
    void Run() {
        constexpr off_t kRound = off_t{1} << 30;
        const std::vector<char> block(std::size_t{1} << 20, 'x');
        while (!ends) {
            const auto at = static_cast<off_t>(written) % kRound;
            const ssize_t count = ::pwrite(file, block.data(), block.size(), at);
            if (count < 0) {
                return;
            }
            written += static_cast<std::uint64_t>(count);
            if (written % (std::uint64_t{64} << 20) == 0) {
                ::fdatasync(file);
            }
        }
    }

    int file;
    std::atomic<bool> ends{false};
    std::atomic<std::uint64_t> written{0};
    std::thread worker;
};

struct Load {
    const char* name;
    std::int32_t type;
    std::uint64_t rateHz;
};

class RealTimeLoadTest : public testing::TestWithParam<Load> {};

TEST_P(RealTimeLoadTest, EightChannelsLoseNothingBesideAWriterOnTheSameDisk) {
    const Load load = GetParam();
    const bool dsd = load.type == 1;
    const double seconds = LoadLength("VORREL_LOAD_SECONDS", 10);
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::Counter;
    config.channels = kChannels;
    LoadRig rig(config);
    ASSERT_TRUE(rig.Select(load.type, load.rateHz));
    {
        const DiskWriter writer(rig.files.File("other"));
        ASSERT_TRUE(rig.Start());
        const auto wanted = static_cast<std::uint64_t>(seconds * static_cast<double>(load.rateHz));
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds * 2 + 60);
        std::vector<std::int16_t> look(kChannels * 4'800);
        while (rig.Record().GetLength(true) < wanted && std::chrono::steady_clock::now() < until) {
            MainQueue::Wait(std::chrono::milliseconds(50));
            MainQueue::Dispatch();
            // As a host that draws its meters.
            std::uint64_t length = 0;
            if (rig.manager.GetPreviewDataLength(&length, false) == VrSuccess && length >= 4'800) {
                std::ignore =
                    rig.manager.GetPreviewData(length - 4'800, length, look.data(), false);
            }
        }
        ASSERT_EQ(rig.manager.Stop(true), VrSuccess);
        MainQueue::Dispatch();
        const std::uint64_t lost = LostBuffers(rig.Recorder(), rig.Record(), dsd);
        std::printf(
            "%s: %.1f s of %u channels, %llu buffers delivered, %llu lost, %llu messages, "
            "%llu MiB written beside it\n",
            load.name,
            static_cast<double>(rig.Record().GetLength(true)) / static_cast<double>(load.rateHz),
            kChannels, static_cast<unsigned long long>(rig.Recorder().DeliveredBuffers()),
            static_cast<unsigned long long>(lost),
            static_cast<unsigned long long>(rig.delegate->messages.size()),
            static_cast<unsigned long long>(writer.Written() >> 20));
        EXPECT_EQ(lost, 0U);
        ASSERT_GE(rig.Record().GetLength(true), wanted);
    }
    EXPECT_TRUE(rig.delegate->messages.empty());

    const std::uint64_t length = rig.Record().GetLength(true);
    std::uint64_t preview = 0;
    ASSERT_EQ(rig.manager.GetPreviewDataLength(&preview, true), VrSuccess);
    EXPECT_EQ(preview, dsd ? length / 64 : length);
    EXPECT_EQ(WrongSamples(rig.Record(), kChannels, dsd), 0U);
}

INSTANTIATE_TEST_SUITE_P(Rates, RealTimeLoadTest,
                         testing::Values(Load{"Pcm384", 0, 384'000}, Load{"Dsd256", 1, 11'289'600}),
                         [](const auto& load) { return std::string(load.param.name); });

}  // namespace
}  // namespace vorrel::test
