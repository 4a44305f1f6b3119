// Audio and DSF files of any bytes as the simulated recorder's source: what is taken is delivered
// as it stands in the file, in whatever portions it is read.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Input.h"
#include "Require.h"
#include "ScratchDirectory.h"
#include "device/simulated/AudioFileSource.h"
#include "device/simulated/DsfFileSource.h"

namespace {

using vorrel::fuzz::Input;
using vorrel::fuzz::Require;

constexpr std::size_t kFrames = 600;

void WriteFile(const std::string& path, const std::string& bytes) {
    std::FILE* const file = std::fopen(path.c_str(), "wb");
    Require(file != nullptr);
    Require(std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size());
    Require(std::fclose(file) == 0);
}

std::uint64_t Number(const std::string& bytes, std::size_t at, unsigned size) {
    std::uint64_t value = 0;
    for (unsigned byte = size; byte > 0; --byte) {
        value = value << 8U | static_cast<std::uint8_t>(bytes[at + byte - 1]);
    }
    return value;
}

/// One bit of a channel straight from the file, where bit 0 of a byte is the earliest; behind the
/// last one the pattern of silence, which goes by the place in the byte.
unsigned DsfBit(const std::string& bytes, std::uint64_t channel, std::uint64_t index,
                const vorrel::DsfFacts& facts) {
    constexpr unsigned kSilence = 0x69;
    if (index >= facts.samples) {
        return kSilence >> (7 - index % 8) & 1U;
    }
    const std::uint64_t byte = index / 8;
    const auto at = static_cast<std::size_t>(92 + (byte / 4096 * facts.channels + channel) * 4096 +
                                             byte % 4096);
    return unsigned{static_cast<std::uint8_t>(bytes[at])} >> (index % 8) & 1U;
}

std::vector<float> ReadIn(vorrel::SampleSource& source, std::uint32_t channels,
                          const std::vector<std::size_t>& portions) {
    std::vector<float> samples(kFrames * channels);
    std::size_t frame = 0;
    for (std::size_t n = 0; frame < kFrames; ++n) {
        const std::size_t portion = std::min(portions[n % portions.size()], kFrames - frame);
        source.Read(samples.data() + frame * channels, portion);
        frame += portion;
    }
    return samples;
}

/// Bit for bit, also what is no number.
void RequireSame(const std::vector<float>& left, const std::vector<float>& right) {
    Require(std::memcmp(left.data(), right.data(), left.size() * sizeof(float)) == 0);
}

void TryDsf(const std::string& path, const std::string& bytes,
            const std::vector<std::size_t>& portions) {
    vorrel::DsfFacts facts;
    std::string problem;
    if (!vorrel::InspectDsfFile(path, facts, problem)) {
        Require(!problem.empty());
        return;
    }
    // What is taken says so itself, and has all that it says.
    Require(bytes.size() >= 92 && bytes.compare(0, 4, "DSD ") == 0);
    Require(bytes.compare(80, 4, "data") == 0);
    Require(facts.channels >= 1 && facts.channels <= 8 && facts.channels == Number(bytes, 52, 4));
    Require(facts.samples == Number(bytes, 64, 8));
    Require(facts.rateHz == static_cast<double>(Number(bytes, 56, 4)));
    const std::uint64_t blocks = (facts.samples / 8 + (facts.samples % 8 != 0) + 4095) / 4096;
    Require(bytes.size() >= 92 + blocks * 4096 * facts.channels);

    const auto whole = vorrel::OpenDsfFileSource(path, facts.channels, facts.rateHz, false);
    const auto parts = vorrel::OpenDsfFileSource(path, facts.channels, facts.rateHz, false);
    Require(whole != nullptr && parts != nullptr);
    const std::vector<float> samples = ReadIn(*whole, facts.channels, {kFrames});
    RequireSame(samples, ReadIn(*parts, facts.channels, portions));
    for (std::size_t frame = 0; frame < kFrames; ++frame) {
        for (std::uint32_t channel = 0; channel < facts.channels; ++channel) {
            unsigned word = 0;  // its low half is the earlier byte, of which bit 7 is the earliest
            for (unsigned bit = 0; bit < 16; ++bit) {
                const unsigned place = bit < 8 ? 7 - bit : 15 - (bit - 8);
                word |= DsfBit(bytes, channel, frame * 16 + bit, facts) << place;
            }
            const float expected = static_cast<float>(static_cast<std::int16_t>(word)) / 32768.0F;
            Require(samples[frame * facts.channels + channel] == expected);
        }
    }
}

void TryAudio(const std::string& path, const std::vector<std::size_t>& portions) {
    vorrel::AudioFileFacts facts;
    std::string problem;
    if (!vorrel::InspectAudioFile(path, facts, problem)) {
        Require(!problem.empty());
        return;
    }
    Require(facts.channels >= 1 && std::isfinite(facts.rateHz) && facts.rateHz > 0);
    const auto whole = vorrel::OpenAudioFileSource(path, facts.channels, true);
    const auto parts = vorrel::OpenAudioFileSource(path, facts.channels, true);
    Require(whole != nullptr && parts != nullptr);
    RequireSame(ReadIn(*whole, facts.channels, {kFrames}),
                ReadIn(*parts, facts.channels, portions));
    Require(vorrel::OpenAudioFileSource(path, facts.channels + 1, false) == nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const vorrel::fuzz::ScratchDirectory directory;
    // The file first, so that one may be given as it is; the last two bytes choose the portions.
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const std::vector<std::size_t> portions = {
        1 + (size > 0 ? std::size_t{data[size - 1]} : 0) % 50,
        1 + (size > 1 ? std::size_t{data[size - 2]} : 0)};
    const std::string dsf = directory.Path() + "/input.DSF";
    WriteFile(dsf, bytes);
    Require(vorrel::IsDsfPath(dsf));
    TryDsf(dsf, bytes, portions);
    const std::string audio = directory.Path() + "/input.wav";
    WriteFile(audio, bytes);
    TryAudio(audio, portions);
    return 0;
}
