#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "store/TemporaryData.h"
#include "store/TemporaryFile.h"
#include "support/FakeManager.h"

// Spilling 1 GiB in blocks of a store's memory buffer (five seconds of one channel at 96 and 192
// kHz), beside bare write(2) of the same blocks to the same memory file system. Each program run
// prints the ratio of the rates: the two are measured in turn, block run by block run, because the
// rate of a shared machine changes more from second to second than the two differ.

namespace vorrel {
namespace {

constexpr std::uint64_t kTotalBytes = std::uint64_t{1} << 30;

/// A fresh directory on the memory file system, removed at the end.
class MemoryDirectory {
public:
    MemoryDirectory() {
        std::string pattern = "/dev/shm/vorrelXXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        path = pattern;
    }
    ~MemoryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    MemoryDirectory(const MemoryDirectory&) = delete;
    MemoryDirectory& operator=(const MemoryDirectory&) = delete;

    const std::string& Path() const { return path; }

private:
    std::string path;
};

std::vector<std::uint8_t> MakeBlock(std::size_t bytes) {
    std::vector<std::uint8_t> block(bytes);
    for (std::size_t index = 0; index < bytes; ++index) {
        block[index] = static_cast<std::uint8_t>(index * 31);
    }
    return block;
}

double Seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/// Seconds for all blocks by bare write(2).
double WriteBare(const std::string& directory, const std::vector<std::uint8_t>& block) {
    std::string name = directory + "/bareXXXXXX";
    const int descriptor = ::mkostemp(name.data(), O_CLOEXEC);
    if (descriptor == -1) {
        std::abort();
    }
    const double begin = Seconds();
    for (std::uint64_t done = 0; done < kTotalBytes; done += block.size()) {
        if (::write(descriptor, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
            std::abort();
        }
    }
    const double seconds = Seconds() - begin;
    ::close(descriptor);
    ::unlink(name.c_str());
    return seconds;
}

double WriteTemporaryFile(const std::string& directory, const std::vector<std::uint8_t>& block) {
    test::FakeManager manager(directory);
    TemporaryFile file(manager);
    if (file.Init(0) != VrSuccess) {
        std::abort();
    }
    const double begin = Seconds();
    for (std::uint64_t done = 0; done < kTotalBytes; done += block.size()) {
        if (file.Add(block) != VrSuccess) {
            std::abort();
        }
    }
    return Seconds() - begin;
}

/// The whole of a store's work: both streams in memory, and the spill.
double AddToStore(const std::string& directory, const std::vector<std::uint8_t>& block) {
    test::FakeManager manager(directory);
    TemporaryData store(manager);
    if (store.Init(static_cast<std::uint32_t>(block.size())) != VrSuccess) {
        std::abort();
    }
    const std::vector<PositionRange> all = {{0, 0}};
    const double begin = Seconds();
    for (std::uint64_t done = 0; done < kTotalBytes; done += block.size()) {
        if (store.Add(block, all) != VrSuccess) {
            std::abort();
        }
    }
    return Seconds() - begin;
}

template <class Work>
void SpillBesideBareWrite(benchmark::State& state, Work work) {
    const MemoryDirectory directory;
    const std::vector<std::uint8_t> block = MakeBlock(static_cast<std::size_t>(state.range(0)));
    std::vector<double> ratios;
    double least = 0;
    double leastBare = 0;
    for ([[maybe_unused]] auto unused : state) {
        const double bare = WriteBare(directory.Path(), block);
        const double seconds = work(directory.Path(), block);
        state.SetIterationTime(seconds);
        ratios.push_back(bare / seconds);
        least = least == 0 ? seconds : std::min(least, seconds);
        leastBare = leastBare == 0 ? bare : std::min(leastBare, bare);
    }
    std::sort(ratios.begin(), ratios.end());
    state.SetBytesProcessed(static_cast<std::int64_t>(kTotalBytes) *
                            static_cast<std::int64_t>(state.iterations()));
    state.counters["ratio_median"] = ratios[ratios.size() / 2];
    state.counters["ratio_of_best"] = leastBare / least;
}

void TemporaryFileSpill(benchmark::State& state) {
    SpillBesideBareWrite(state, WriteTemporaryFile);
}
void TemporaryDataSpill(benchmark::State& state) {
    SpillBesideBareWrite(state, AddToStore);
}

BENCHMARK(TemporaryFileSpill)
    ->Arg(1'920'000)
    ->Arg(3'840'000)
    ->Iterations(9)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(TemporaryDataSpill)
    ->Arg(1'920'000)
    ->Arg(3'840'000)
    ->Iterations(9)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// Reading 1 GiB back in pieces of one second, from the spill segment through the cached block.
void AvailableRead(benchmark::State& state) {
    const MemoryDirectory directory;
    test::FakeManager manager(directory.Path());
    const std::vector<std::uint8_t> block = MakeBlock(static_cast<std::size_t>(state.range(0)));
    TemporaryData store(manager);
    if (store.Init(static_cast<std::uint32_t>(block.size())) != VrSuccess) {
        std::abort();
    }
    const std::vector<PositionRange> all = {{0, 0}};
    for (std::uint64_t done = 0; done < kTotalBytes; done += block.size()) {
        if (store.Add(block, all) != VrSuccess) {
            std::abort();
        }
    }
    const std::uint64_t piece = block.size() / 5;
    AlignedBytes out;
    for ([[maybe_unused]] auto unused : state) {
        for (std::uint64_t from = 0; from + piece <= kTotalBytes; from += piece) {
            if (store.GetData(from, from + piece, out, true) != VrSuccess) {
                std::abort();
            }
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(kTotalBytes) *
                            static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(AvailableRead)->Arg(1'920'000)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vorrel
