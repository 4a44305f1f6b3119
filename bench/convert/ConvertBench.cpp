// Rates of the sample kernels. "of_memcpy" is the kernel's rate over source bytes, as a share of
// what memcpy reaches on the same bytes in the same run: the two take turns, so that a busy machine
// slows both, and the best turn of each counts. "best_us" is one call; the columns before it are
// one turn, which repeats short calls. Run with --benchmark_filter=... for a part.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "KernelBench.h"
#include "convert/ChannelKernels.h"
#include "convert/PcmConverters.h"
#include "convert/PlainConverters.h"
#include "convert/PlainDecimator.h"
#include "platform/AlignedBytes.h"

namespace vorrel {
namespace {

using bench::AddBenchmark;
using bench::NameOf;
using bench::Seconds;

constexpr std::size_t kHugeBytes = std::size_t{128}
                                   << 20;  // larger than any last-level cache share
constexpr std::size_t kNearBytes = std::size_t{256}
                                   << 10;      // fits a second-level cache with its output
constexpr std::size_t kWriterFrames = 19'200;  // 0.1 s at 192 kHz

std::vector<float> Noise(std::size_t count) {
    std::mt19937 random(1);
    std::uniform_real_distribution<float> level(-1.05F, 1.05F);
    std::vector<float> samples(std::min(count, std::size_t{1} << 16));
    std::generate(samples.begin(), samples.end(), [&] { return level(random); });
    const std::size_t pattern = samples.size();
    samples.resize(count);
    for (std::size_t i = pattern; i < count; ++i) {
        samples[i] = samples[i - pattern];
    }
    return samples;
}

/// Times `work` and a memcpy of `in` in turns.
void AgainstMemcpy(benchmark::State& state, const std::vector<float>& in,
                   const std::function<void()>& work) {
    const std::size_t bytes = in.size() * sizeof(float);
    // Short work is repeated within a turn, so that the clock does not count.
    const std::size_t repeats = std::max<std::size_t>(1, (std::size_t{2} << 20) / bytes);
    AlignedBytes copy(bytes);
    std::memset(copy.data(), 1, bytes);
    double bestCopy = std::numeric_limits<double>::max();
    double bestWork = bestCopy;
    for ([[maybe_unused]] auto turn : state) {
        bestCopy = std::min(bestCopy, Seconds([&] {
                                for (std::size_t i = 0; i < repeats; ++i) {
                                    std::memcpy(copy.data(), in.data(), bytes);
                                    benchmark::ClobberMemory();
                                }
                            }));
        const double seconds = Seconds([&] {
            for (std::size_t i = 0; i < repeats; ++i) {
                work();
                benchmark::ClobberMemory();
            }
        });
        bestWork = std::min(bestWork, seconds);
        state.SetIterationTime(seconds);
    }
    const auto turnBytes = static_cast<double>(bytes * repeats);
    state.counters["of_memcpy"] = bestCopy / bestWork;
    state.counters["GB/s"] = turnBytes / bestWork / 1e9;
    state.counters["memcpy_GB/s"] = turnBytes / bestCopy / 1e9;
    state.counters["best_us"] = bestWork / static_cast<double>(repeats) * 1e6;
}

using Kernel = void (*)(std::uint8_t*, const std::uint8_t*, std::size_t);

void BenchConverter(benchmark::State& state, Kernel kernel, std::size_t sourceBytes,
                    std::size_t width) {
    const std::vector<float> in = Noise(sourceBytes / sizeof(float));
    AlignedBytes out(in.size() * width);
    std::memset(out.data(), 1, out.size());
    AgainstMemcpy(state, in, [&] {
        kernel(out.data(), reinterpret_cast<const std::uint8_t*>(in.data()), in.size());
    });
}

void BenchGain(benchmark::State& state, const PcmKernels& kernels, std::size_t channelCount,
               std::size_t width) {
    const std::vector<float> in = Noise(kWriterFrames * channelCount);
    std::vector<const float*> channels;
    for (std::size_t channel = 0; channel < channelCount; ++channel) {
        channels.push_back(in.data() + channel * kWriterFrames);
    }
    AlignedBytes out(in.size() * width);
    std::memset(out.data(), 1, out.size());
    AgainstMemcpy(state, in, [&] {
        kernels.gainConvertInterleave(out.data(), channels.data(), channelCount, kWriterFrames,
                                      0.7F, width);
    });
}

void BenchPlainGain(benchmark::State& state, std::size_t channelCount, std::size_t width) {
    const std::vector<std::vector<float>> channels(channelCount, Noise(kWriterFrames));
    const std::vector<float> in = Noise(kWriterFrames * channelCount);
    AgainstMemcpy(state, in, [&] {
        benchmark::DoNotOptimize(
            test::PlainGainConvertInterleave(channels, kWriterFrames, 0.7F, width));
    });
}

void BenchSplit(benchmark::State& state, const PcmKernels& kernels, std::size_t channelCount) {
    const std::vector<float> in = Noise(kWriterFrames * channelCount);
    std::vector<AlignedBytes> lanes(channelCount, AlignedBytes(kWriterFrames * sizeof(float)));
    std::vector<std::uint8_t*> out;
    for (AlignedBytes& lane : lanes) {
        out.push_back(lane.data());
    }
    AgainstMemcpy(state, in, [&] {
        kernels.splitLanes(out.data(), channelCount,
                           reinterpret_cast<const std::uint8_t*>(in.data()), kWriterFrames);
    });
}

void BenchPlainSplit(benchmark::State& state, std::size_t channelCount) {
    const std::vector<float> in = Noise(kWriterFrames * channelCount);
    AlignedBytes out(in.size() * sizeof(float));
    AgainstMemcpy(state, in, [&] {
        for (std::size_t channel = 0; channel < channelCount; ++channel) {
            CopyLane(out.data() + channel * kWriterFrames * sizeof(float), in.data(), kWriterFrames,
                     channelCount, channel);
        }
    });
}

/// "of_plain" says how many times faster it is than the plain decimator, which takes every second
/// turn; the label, how many times faster than one channel arrives at the highest rate.
void BenchDsdPreview(benchmark::State& state, const PcmKernels& kernels, std::size_t samples) {
    std::vector<std::uint8_t> bits(samples * 8);
    std::mt19937 random(2);
    std::generate(bits.begin(), bits.end(), [&] { return static_cast<std::uint8_t>(random()); });
    AlignedBytes out(samples * 2);
    DsdToPcmWorkBuffer work{};
    DsdToPcmWorkBuffer plainWork{};
    double best = std::numeric_limits<double>::max();
    double bestPlain = best;
    for ([[maybe_unused]] auto turn : state) {
        bestPlain =
            std::min(bestPlain, Seconds([&] {
                         test::PlainDecimate(true, out.data(), bits.data(), samples, plainWork);
                     }));
        const double seconds =
            Seconds([&] { kernels.decimateMsbFirst(out.data(), bits.data(), samples, &work); });
        best = std::min(best, seconds);
        state.SetIterationTime(seconds);
    }
    state.counters["of_plain"] = bestPlain / best;
    state.counters["best_us"] = best * 1e6;
    const double seconds = static_cast<double>(samples) * 64.0 / 11'289'600.0;
    state.SetLabel(std::to_string(static_cast<int>(seconds / best)) + " x real time");
}

void RegisterAll() {
    for (const auto& [place, bytes] :
         {std::pair("memory", kHugeBytes), std::pair("cache", kNearBytes)}) {
        const std::string suffix = std::string("/") + place;
        for (const InstructionSet set : SupportedInstructionSets()) {
            const PcmKernels& kernels = KernelsFor(set);
            const std::string tail = suffix + "/" + NameOf(set);
            AddBenchmark("Int16" + tail, &BenchConverter, kernels.toInt16, bytes, 2U);
            AddBenchmark("Int24" + tail, &BenchConverter, kernels.toInt24, bytes, 3U);
            AddBenchmark("Int32" + tail, &BenchConverter, kernels.toInt32, bytes, 4U);
        }
        AddBenchmark("Float32" + suffix, &BenchConverter, &Float32_To_Float32LSB<false>, bytes, 4U);
    }
    for (const std::size_t channels : {1U, 2U, 6U}) {
        for (const std::size_t width : {2U, 3U, 4U}) {
            const std::string name = "GainConvertInterleave/" + std::to_string(channels) + "ch/" +
                                     std::to_string(8 * width) + "bit/";
            AddBenchmark(name + "plain", &BenchPlainGain, channels, width);
            for (const InstructionSet set : SupportedInstructionSets()) {
                AddBenchmark(name + NameOf(set), &BenchGain, std::cref(KernelsFor(set)), channels,
                             width);
            }
        }
    }
    for (const std::size_t channels : {1U, 2U, 4U, 6U, 8U}) {
        const std::string name = "SplitLanes/" + std::to_string(channels) + "ch/";
        AddBenchmark(name + "plain", &BenchPlainSplit, channels);
        for (const InstructionSet set : SupportedInstructionSets()) {
            AddBenchmark(name + NameOf(set), &BenchSplit, std::cref(KernelsFor(set)), channels);
        }
    }
    // The largest block of the convert worker, what 50 ms at the lowest rate make, and a few.
    for (const std::size_t samples : {4096U, 2205U, 50U, 10U}) {
        for (const InstructionSet set : SupportedInstructionSets()) {
            AddBenchmark("DsdPreview/" + std::to_string(samples) + "/" + NameOf(set),
                         &BenchDsdPreview, std::cref(KernelsFor(set)), samples);
        }
    }
}

}  // namespace
}  // namespace vorrel

int main(int argc, char** argv) {
    return vorrel::bench::RunBenchmarks(argc, argv, &vorrel::RegisterAll);
}
