#include "TakeFile.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <span>
#include <string_view>

#include "RecorderModel.h"

namespace vorrel::e2e {
namespace {

using Bytes = std::span<const std::uint8_t>;

std::uint64_t NumberAt(Bytes bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < size && offset + index < bytes.size(); ++index) {
        value |= std::uint64_t{bytes[offset + index]} << (8 * index);
    }
    return value;
}

bool IsAt(Bytes bytes, std::size_t offset, std::string_view id) {
    return offset + id.size() <= bytes.size() &&
           std::equal(id.begin(), id.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

/// The chunk of that name in a RIFF file; empty where there is none.
Bytes Chunk(Bytes file, std::string_view id) {
    constexpr std::size_t kRiffHeadBytes = 12;
    constexpr std::size_t kChunkHeadBytes = 8;
    for (std::size_t offset = kRiffHeadBytes; offset + kChunkHeadBytes <= file.size();) {
        const std::size_t start = offset + kChunkHeadBytes;
        const std::size_t size =
            std::min<std::size_t>(NumberAt(file, offset + 4, 4), file.size() - start);
        if (IsAt(file, offset, id)) {
            return file.subspan(start, size);
        }
        offset = start + size + size % 2;  // a chunk begins on an even byte
    }
    return {};
}

std::optional<TakeFile> ReadWav(Bytes file) {
    const Bytes format = Chunk(file, "fmt ");
    const Bytes data = Chunk(file, "data");
    constexpr std::size_t kFormatBytes = 16;
    if (format.size() < kFormatBytes || NumberAt(format, 2, 2) != kChannels) {
        return std::nullopt;
    }
    TakeFile take;
    take.rateHz = static_cast<std::uint32_t>(NumberAt(format, 4, 4));
    take.bits = static_cast<unsigned>(NumberAt(format, 14, 2));
    if (take.bits != 16 && take.bits != 24 && take.bits != 32) {
        return std::nullopt;
    }
    take.patternBits = std::min(take.bits, 24U);
    const unsigned unused = take.bits - take.patternBits;
    constexpr std::uint32_t kNoSample = std::uint32_t{1} << 31;
    const std::size_t bytes = take.bits / 8;
    for (std::size_t offset = 0; offset + bytes * kChannels <= data.size();
         offset += bytes * kChannels) {
        Frame frame{};
        for (std::size_t channel = 0; channel < kChannels; ++channel) {
            const auto sample =
                static_cast<std::uint32_t>(NumberAt(data, offset + channel * bytes, bytes));
            const bool isPattern = (sample & ((std::uint32_t{1} << unused) - 1)) == 0;
            frame[channel] = sample >> unused | (isPattern ? 0 : kNoSample);
        }
        take.frames.push_back(frame);
    }
    return take;
}

std::uint32_t Reversed(std::uint8_t byte) {
    std::uint32_t reversed = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        reversed |= (static_cast<std::uint32_t>(byte) >> bit & 1U) << (7 - bit);
    }
    return reversed;
}

std::optional<TakeFile> ReadDsf(Bytes file) {
    constexpr std::size_t kHeaderBytes = 92;
    if (file.size() < kHeaderBytes || NumberAt(file, 52, 4) != kChannels ||
        NumberAt(file, 60, 4) != 1) {
        return std::nullopt;
    }
    TakeFile take;
    take.mode = StreamMode::Dsd;
    take.rateHz = static_cast<std::uint32_t>(NumberAt(file, 56, 4));
    take.bits = 1;
    take.patternBits = kDsdWordBits;
    const std::size_t words = NumberAt(file, 64, 8) / kDsdWordBits;
    const std::size_t blockBytes = NumberAt(file, 72, 4);
    const Bytes data = file.subspan(kHeaderBytes);
    if (blockBytes == 0 || data.size() / kChannels < words * 2) {
        return std::nullopt;
    }
    // Blocks of the channels by turns; in a byte the earliest bit is bit 0.
    const auto byteOf = [&](std::size_t channel, std::size_t index) {
        return Reversed(
            data[(index / blockBytes * kChannels + channel) * blockBytes + index % blockBytes]);
    };
    const std::size_t blocks = (words * 2 + blockBytes - 1) / blockBytes;
    if (data.size() < blocks * blockBytes * kChannels) {
        return std::nullopt;
    }
    for (std::size_t word = 0; word < words; ++word) {
        Frame frame{};
        for (std::size_t channel = 0; channel < kChannels; ++channel) {
            frame[channel] = byteOf(channel, word * 2) | byteOf(channel, word * 2 + 1) << 8;
        }
        take.frames.push_back(frame);
    }
    return take;
}

}  // namespace

std::optional<TakeFile> ReadTake(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(stream),
                                          std::istreambuf_iterator<char>()};
    if (IsAt(bytes, 0, "RIFF") && IsAt(bytes, 8, "WAVE")) {
        return ReadWav(bytes);
    }
    return IsAt(bytes, 0, "DSD ") ? ReadDsf(bytes) : std::nullopt;
}

}  // namespace vorrel::e2e
