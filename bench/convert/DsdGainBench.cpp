// The DSD gain, one channel, against the plain four-lane version in the same run: the two take
// turns, so that a busy machine slows both, and the best turn of each counts. "of_plain" says how
// many times faster; "real_time", how many times faster than one channel at the highest rate runs.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "KernelBench.h"
#include "convert/BitReversal.h"
#include "convert/GainTables.h"
#include "convert/PlainGain.h"

namespace vorrel {
namespace {

using bench::AddBenchmark;
using bench::NameOf;
using bench::Seconds;

constexpr std::size_t kBytes = 4096;
constexpr double kHighestRateHz = 11'289'600;

void BenchGain(benchmark::State& state, const DsdGainKernels& kernels, double amplitude,
               float gain) {
    const std::vector<std::uint8_t> source =
        test::ToneBits(DsdGainState::kHistoryBytes + 16 * kBytes, amplitude, 1000, 2'822'400);
    const std::uint8_t* first = source.data() + DsdGainState::kHistoryBytes;
    DsdGainState kernelState{};
    std::copy_n(source.begin(), DsdGainState::kHistoryBytes, kernelState.history);
    std::transform(kGainHalfSingle.begin(), kGainHalfSingle.end(), kernelState.taps,
                   [gain](float tap) { return tap * (2.0F * gain); });
    test::PlainGain plain(gain);
    std::vector<std::uint8_t> block(kBytes);
    double bestPlain = std::numeric_limits<double>::max();
    double bestKernel = bestPlain;
    std::size_t turn = 0;
    for ([[maybe_unused]] auto unused : state) {
        const std::uint8_t* in = first + turn++ % 16 * kBytes;
        std::copy_n(in, kBytes, block.begin());
        bestPlain = std::min(bestPlain, Seconds([&] { plain.Process(block.data(), kBytes); }));
        std::copy_n(in, kBytes, block.begin());
        const double seconds = Seconds([&] { kernels.gain(&kernelState, block.data(), kBytes); });
        bestKernel = std::min(bestKernel, seconds);
        state.SetIterationTime(seconds);
    }
    constexpr double kBits = 8.0 * kBytes;
    state.counters["of_plain"] = bestPlain / bestKernel;
    state.counters["ns_a_bit"] = bestKernel / kBits * 1e9;
    state.counters["plain_ns_a_bit"] = bestPlain / kBits * 1e9;
    state.counters["real_time"] = kBits / bestKernel / kHighestRateHz;
}

void BenchReversal(benchmark::State& state, const DsdGainKernels& kernels) {
    std::vector<std::uint8_t> block = test::RandomBits(kBytes, 1);
    double bestPlain = std::numeric_limits<double>::max();
    double bestKernel = bestPlain;
    for ([[maybe_unused]] auto unused : state) {
        bestPlain = std::min(bestPlain, Seconds([&] {
                                 for (std::uint8_t& byte : block) {
                                     byte = m_br[byte];
                                 }
                                 benchmark::ClobberMemory();
                             }));
        const double seconds = Seconds([&] {
            kernels.reverseBits(block.data(), kBytes);
            benchmark::ClobberMemory();
        });
        bestKernel = std::min(bestKernel, seconds);
        state.SetIterationTime(seconds);
    }
    state.counters["of_plain"] = bestPlain / bestKernel;
    state.counters["GB/s"] = static_cast<double>(kBytes) / bestKernel / 1e9;
}

void RegisterAll() {
    for (const InstructionSet set : SupportedInstructionSets()) {
        const auto kernels = std::cref(DsdGainKernelsFor(set));
        const std::string tail = std::string("/") + NameOf(set);
        AddBenchmark("DsdGain/-6dB" + tail, &BenchGain, kernels, 0.5, 0.5011872F);
        AddBenchmark("DsdGain/+6dB/overload" + tail, &BenchGain, kernels, 0.9, 1.9952623F);
        AddBenchmark("ReverseBits" + tail, &BenchReversal, kernels);
    }
}

}  // namespace
}  // namespace vorrel

int main(int argc, char** argv) {
    return vorrel::bench::RunBenchmarks(argc, argv, &vorrel::RegisterAll);
}
