#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/FileBytes.h"

namespace vorrel::test {

/// A WAV file read chunk by chunk, as a reader does that knows nothing of its writer.
struct Wav {
    std::uint32_t rate = 0;
    std::uint32_t channels = 0;
    std::uint32_t bits = 0;
    std::vector<std::int32_t> samples;         ///< Interleaved, right-aligned.
    std::map<std::string, Bytes> otherChunks;  ///< By id.

    std::size_t Frames() const { return channels == 0 ? 0 : samples.size() / channels; }
};

/// @throws std::runtime_error when it is no whole WAV file.
inline Wav ReadWav(const std::string& path) {
    const Bytes bytes = ReadBytes(path);
    const auto number = [&](std::size_t offset, std::size_t size) {
        return static_cast<std::uint32_t>(LittleEndian(bytes, offset, size));
    };
    const auto text = [&](std::size_t offset) {
        return std::string(bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                           bytes.begin() + static_cast<std::ptrdiff_t>(offset + 4));
    };
    if (bytes.size() < 12 || text(0) != "RIFF" || text(8) != "WAVE" ||
        number(4, 4) + 8 != bytes.size()) {
        throw std::runtime_error(path + ": no whole RIFF/WAVE file of " +
                                 std::to_string(bytes.size()) + " bytes");
    }
    Wav wav;
    for (std::size_t offset = 12; offset + 8 <= bytes.size();) {
        const std::string id = text(offset);
        const std::size_t size = number(offset + 4, 4);
        const std::size_t body = offset + 8;
        if (body + size > bytes.size()) {
            throw std::runtime_error(path + ": chunk " + id + " passes the end of the file");
        }
        if (id == "fmt ") {
            wav.channels = number(body + 2, 2);
            wav.rate = number(body + 4, 4);
            wav.bits = number(body + 14, 2);
        } else if (id == "data") {
            const std::size_t width = wav.bits / 8;
            for (std::size_t at = body; width > 0 && at + width <= body + size; at += width) {
                const std::uint32_t raw = number(at, width) << (32 - wav.bits);
                wav.samples.push_back(static_cast<std::int32_t>(raw) >> (32 - wav.bits));
            }
        } else {
            wav.otherChunks[id] = Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(body),
                                        bytes.begin() + static_cast<std::ptrdiff_t>(body + size));
        }
        offset = body + size;
    }
    return wav;
}

/// The 24-bit number that the counter source gives to a sample.
inline std::int32_t CounterValue(std::uint64_t frame, std::uint32_t channel,
                                 std::uint32_t channels) {
    const auto index = static_cast<std::uint32_t>(frame * channels + channel) & 0xFF'FFFFU;
    return index < 0x80'0000U ? static_cast<std::int32_t>(index)
                              : static_cast<std::int32_t>(index) - 0x100'0000;
}

/// The first frame of the counter that breaks the row, or the number of frames when none does.
/// `first` is the counter's frame at the beginning of the file. 24 bits only.
inline std::size_t FirstGap(const Wav& wav, std::uint64_t first) {
    for (std::size_t frame = 0; frame < wav.Frames(); ++frame) {
        for (std::uint32_t channel = 0; channel < wav.channels; ++channel) {
            if (wav.samples[frame * wav.channels + channel] !=
                CounterValue(first + frame, channel, wav.channels)) {
                return frame;
            }
        }
    }
    return wav.Frames();
}

/// The counter's frame with which a file begins (two or more channels, less than 2^23 samples).
inline std::uint64_t CounterStart(const Wav& wav) {
    const auto value = static_cast<std::uint32_t>(wav.samples.at(0)) & 0xFF'FFFFU;
    return value / wav.channels;
}

}  // namespace vorrel::test
