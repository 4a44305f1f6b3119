#pragma once

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/FileBytes.h"

namespace vorrel::test {

/// A DSF file as others write it, byte for byte.
struct DsfBytes {
    std::uint32_t rateHz = 2'822'400;
    /// Of each channel, as in the file: the earliest sample is bit 0 of the first byte.
    std::vector<Bytes> channels{};
    std::uint64_t samples = 0;  ///< Of one channel; 0 stands for all of the first channel's bytes.
    std::string tag{};          ///< Behind the samples.

    Bytes Make() const {
        constexpr std::size_t kBlockBytes = 4096;
        const std::size_t count = channels.front().size();
        const std::size_t blocks = (count + kBlockBytes - 1) / kBlockBytes;
        const std::uint64_t payload = blocks * kBlockBytes * channels.size();
        Bytes file;
        const auto id = [&file](std::string_view text) {
            file.insert(file.end(), text.begin(), text.end());
        };
        const auto number = [&file](std::uint64_t value, unsigned size) {
            for (unsigned byte = 0; byte < size; ++byte) {
                file.push_back(static_cast<std::uint8_t>(value >> (8 * byte)));
            }
        };
        id("DSD ");
        number(28, 8);
        number(92 + payload + tag.size(), 8);
        number(tag.empty() ? 0 : 92 + payload, 8);
        id("fmt ");
        number(52, 8);
        number(1, 4);  // version
        number(0, 4);  // raw
        number(channels.size(), 4);
        number(channels.size(), 4);
        number(rateHz, 4);
        number(1, 4);  // bits per sample
        number(samples == 0 ? count * 8 : samples, 8);
        number(kBlockBytes, 4);
        number(0, 4);
        id("data");
        number(payload + 12, 8);
        for (std::size_t block = 0; block < blocks; ++block) {
            for (const Bytes& channel : channels) {
                for (std::size_t byte = block * kBlockBytes; byte < (block + 1) * kBlockBytes;
                     ++byte) {
                    file.push_back(byte < channel.size() ? channel[byte] : std::uint8_t{0});
                }
            }
        }
        id(tag);
        return file;
    }
};

inline void WriteBytes(const std::string& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

/// Any bytes, the same each time.
inline Bytes RandomBytes(std::size_t count, std::uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(count);
    std::ranges::generate(bytes, [&random] { return static_cast<std::uint8_t>(random() >> 24); });
    return bytes;
}

/// The byte with its bits in the opposite order, one by one.
inline std::uint8_t Mirrored(std::uint8_t byte) {
    unsigned mirrored = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        mirrored |= (unsigned{byte} >> bit & 1U) << (7 - bit);
    }
    return static_cast<std::uint8_t>(mirrored);
}

}  // namespace vorrel::test
