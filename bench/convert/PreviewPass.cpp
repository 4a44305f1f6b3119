// Makes a stereo take of DSD256 tones, writes it as a DSF file for other people's programs, then
// makes its preview in memory with every set of kernels, a channel at a time in the blocks of the
// convert worker. Prints the best seconds of a whole pass, set by set; for bench/preview.sh.
//   vorrel_preview_pass OUT.dsf SECONDS PASSES

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <numbers>
#include <vector>

#include "convert/InstructionSet.h"
#include "convert/PlainDecimator.h"

namespace vorrel {
namespace {

constexpr std::size_t kRateHz = 11'289'600;
constexpr std::size_t kChannels = 2;
constexpr std::size_t kChunkFrames = 4096;
constexpr std::size_t kDsfBlockBytes = 4096;
constexpr std::array<double, kChannels> kToneHz = {997.0, 1499.0};

using ByteVector = std::vector<std::uint8_t>;

/// A tone at half level through a second-order modulator, most significant bit first: one second,
/// repeated.
ByteVector Tone(double hertz, std::size_t seconds) {
    ByteVector second(kRateHz / 8);
    double first = 0;
    double other = 0;
    std::size_t sample = 0;
    for (std::uint8_t& byte : second) {
        unsigned bits = 0;
        for (int bit = 0; bit < 8; ++bit, ++sample) {
            const double time = static_cast<double>(sample) / static_cast<double>(kRateHz);
            const double level = 0.5 * std::sin(2.0 * std::numbers::pi * hertz * time);
            const double out = other >= 0 ? 1.0 : -1.0;
            first += level - out;
            other += first - out;
            bits = bits << 1 | (out > 0 ? 1U : 0U);
        }
        byte = static_cast<std::uint8_t>(bits);
    }
    ByteVector tone;
    for (std::size_t i = 0; i < seconds; ++i) {
        tone.insert(tone.end(), second.begin(), second.end());
    }
    return tone;
}

void Put(std::ostream& out, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) {
        out.put(static_cast<char>(value >> (8 * i) & 0xFF));
    }
}

bool WriteDsf(const char* path, const std::array<ByteVector, kChannels>& channels) {
    const std::size_t bytes = channels[0].size();
    const std::size_t blocks = (bytes + kDsfBlockBytes - 1) / kDsfBlockBytes;
    const std::size_t dataBytes = blocks * kDsfBlockBytes * kChannels;
    std::ofstream out(path, std::ios::binary);
    out << "DSD ";
    Put(out, 28, 8);
    Put(out, 28 + 52 + 12 + dataBytes, 8);
    Put(out, 0, 8);
    out << "fmt ";
    Put(out, 52, 8);
    for (const std::uint64_t field :
         {std::uint64_t{1}, std::uint64_t{0}, std::uint64_t{2}, std::uint64_t{kChannels},
          std::uint64_t{kRateHz}, std::uint64_t{1}}) {  // version ... bits per sample
        Put(out, field, 4);
    }
    Put(out, bytes * 8, 8);
    Put(out, kDsfBlockBytes, 4);
    Put(out, 0, 4);
    out << "data";
    Put(out, 12 + dataBytes, 8);
    for (std::size_t block = 0; block < blocks; ++block) {
        for (const ByteVector& channel : channels) {
            for (std::size_t i = 0; i < kDsfBlockBytes; ++i) {
                const std::size_t place = block * kDsfBlockBytes + i;
                unsigned byte = place < bytes ? channel[place] : 0;
                unsigned reversed = 0;  // the file holds the first bit lowest
                for (int bit = 0; bit < 8; ++bit) {
                    reversed = reversed << 1 | (byte & 1);
                    byte >>= 1;
                }
                out.put(static_cast<char>(reversed));
            }
        }
    }
    return out.good();
}

/// Seconds of the best of `passes` passes over the take.
template <class Decimate>
double BestPass(const std::array<ByteVector, kChannels>& channels, std::size_t passes,
                Decimate decimate) {
    std::vector<std::uint8_t> samples(2 * kChunkFrames);
    double best = std::numeric_limits<double>::max();
    for (std::size_t pass = 0; pass < passes; ++pass) {
        std::array<DsdToPcmWorkBuffer, kChannels> work{};
        const std::size_t frames = channels[0].size() / 8;
        const auto start = std::chrono::steady_clock::now();
        for (std::size_t done = 0; done < frames; done += kChunkFrames) {
            const std::size_t count = std::min(frames - done, kChunkFrames);
            for (std::size_t channel = 0; channel < kChannels; ++channel) {
                decimate(samples.data(), channels[channel].data() + 8 * done, count, work[channel]);
            }
        }
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        best = std::min(best, elapsed.count());
    }
    return best;
}

int Main(const char* path, std::size_t seconds, std::size_t passes) {
    const std::array<ByteVector, kChannels> channels = {Tone(kToneHz[0], seconds),
                                                        Tone(kToneHz[1], seconds)};
    if (!WriteDsf(path, channels)) {
        std::cerr << "cannot write " << path << '\n';
        return 1;
    }
    constexpr std::array kNames = {"baseline", "avx2", "avx512"};
    for (const InstructionSet set : SupportedInstructionSets()) {
        const PcmKernels& kernels = KernelsFor(set);
        const double best = BestPass(
            channels, passes,
            [&](std::uint8_t* out, const std::uint8_t* in, std::size_t count,
                DsdToPcmWorkBuffer& work) { kernels.decimateMsbFirst(out, in, count, &work); });
        std::cout << kNames.at(static_cast<std::size_t>(set)) << ' ' << best << '\n';
    }
    const double plain =
        BestPass(channels, 1,
                 [](std::uint8_t* out, const std::uint8_t* in, std::size_t count,
                    DsdToPcmWorkBuffer& work) { test::PlainDecimate(true, out, in, count, work); });
    std::cout << "plain " << plain << '\n';
    return 0;
}

}  // namespace
}  // namespace vorrel

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: " << argv[0] << " OUT.dsf SECONDS PASSES\n";
        return 1;
    }
    return vorrel::Main(argv[1], std::strtoul(argv[2], nullptr, 10),
                        std::strtoul(argv[3], nullptr, 10));
}
