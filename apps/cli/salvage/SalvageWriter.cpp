#include "salvage/SalvageWriter.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "ExitCode.h"

namespace vorrel::cli {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t kPcmBlockFrames = 65'536;
constexpr std::uint64_t kWavHeaderBytes = 44;

struct FileClose {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileClose>;

Failure SystemFailure(const std::string& path) {
    return Failure(ExitCode::Storage, path + ": " + std::strerror(errno));
}

/// Appends a number, the lowest byte first.
void Put(Bytes& bytes, std::uint64_t value, std::size_t width) {
    for (std::size_t index = 0; index < width; ++index) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * index)));
    }
}

void Put(Bytes& bytes, const char* name) {
    bytes.insert(bytes.end(), name, name + 4);
}

Bytes WavHeader(const TakeFormat& format, std::uint64_t frames) {
    const std::uint64_t align = format.PayloadBytes(1);
    Bytes bytes;
    Put(bytes, "RIFF");
    Put(bytes, frames * align + kWavHeaderBytes - 8, 4);
    Put(bytes, "WAVE");
    Put(bytes, "fmt ");
    Put(bytes, 16, 4);
    Put(bytes, 1, 2);  // integers
    Put(bytes, format.channels, 2);
    Put(bytes, format.rateHz, 4);
    Put(bytes, format.rateHz * align, 4);
    Put(bytes, align, 2);
    Put(bytes, format.bits, 2);
    Put(bytes, "data");
    Put(bytes, frames * align, 4);
    return bytes;
}

Bytes DsfHeader(const TakeFormat& format, std::uint64_t frames) {
    const std::uint64_t payload = format.PayloadBytes(frames);
    Bytes bytes;
    Put(bytes, "DSD ");
    Put(bytes, 28, 8);
    Put(bytes, 92 + payload, 8);
    Put(bytes, 0, 8);  // no tag
    Put(bytes, "fmt ");
    Put(bytes, 52, 8);
    Put(bytes, 1, 4);
    Put(bytes, 0, 4);
    Put(bytes, format.channels >= 4 ? format.channels + 1 : format.channels, 4);
    Put(bytes, format.channels, 4);
    Put(bytes, format.rateHz, 4);
    Put(bytes, 1, 4);
    Put(bytes, frames, 8);
    Put(bytes, TakeFormat::kDsfBlockBytes, 4);
    Put(bytes, 0, 4);
    Put(bytes, "data");
    Put(bytes, payload + 12, 8);
    return bytes;
}

/// As the engine's files have it: 16 and 32 bits to the nearest, ties to even, 24 bits cut off;
/// what passes full scale is full scale.
std::int32_t Quantize(float sample, std::uint32_t bits) {
    if (std::isnan(sample)) {
        return 0;
    }
    // Exact in double precision, whose 53 bits hold every float times a power of two.
    const double scaled = std::ldexp(static_cast<double>(sample), static_cast<int>(bits) - 1);
    const double whole = bits == 24 ? std::trunc(scaled) : std::nearbyint(scaled);
    const double most = std::ldexp(1.0, static_cast<int>(bits) - 1);
    return static_cast<std::int32_t>(std::clamp(whole, -most, most - 1.0));
}

void Append(std::FILE* file, const Bytes& bytes, const std::string& path) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
        throw SystemFailure(path);
    }
}

void RequireRead(bool read) {
    if (!read) {
        throw Failure(ExitCode::Storage, "what was stored of the take can no longer be read");
    }
}

void RequireWanted(bool wanted) {
    if (!wanted) {
        throw Failure(ExitCode::Storage, "given up");
    }
}

void WriteWav(std::FILE* file, const SpillFiles& files, const TakeFormat& format,
              std::uint64_t startFrame, std::uint64_t endFrame, const std::string& path,
              const std::function<bool(std::uint64_t)>& advance) {
    const std::size_t width = format.bits / 8;
    Bytes stored;
    Bytes out;
    for (std::uint64_t frame = startFrame; frame < endFrame;) {
        const auto count = static_cast<std::size_t>(std::min(kPcmBlockFrames, endFrame - frame));
        out.resize(count * format.channels * width);
        for (std::size_t channel = 0; channel < format.channels; ++channel) {
            RequireRead(
                files.ReadFilled(channel, frame * sizeof(float), stored, count * sizeof(float)));
            for (std::size_t index = 0; index < count; ++index) {
                float sample = 0.0F;
                std::memcpy(&sample, stored.data() + index * sizeof sample, sizeof sample);
                const auto value = static_cast<std::uint32_t>(Quantize(sample, format.bits));
                std::uint8_t* const place =
                    out.data() + (index * format.channels + channel) * width;
                for (std::size_t byte = 0; byte < width; ++byte) {
                    place[byte] = static_cast<std::uint8_t>(value >> (8 * byte));
                }
            }
        }
        Append(file, out, path);
        frame += count;
        RequireWanted(advance(frame - startFrame));
    }
}

std::uint8_t Reverse(std::uint8_t byte) {
    unsigned reversed = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        reversed |= (static_cast<unsigned>(byte) >> bit & 1U) << (7U - bit);
    }
    return static_cast<std::uint8_t>(reversed);
}

void WriteDsf(std::FILE* file, const SpillFiles& files, const TakeFormat& format,
              std::uint64_t startFrame, std::uint64_t endFrame, const std::string& path,
              const std::function<bool(std::uint64_t)>& advance) {
    std::array<std::uint8_t, 256> reversed{};
    for (unsigned byte = 0; byte < reversed.size(); ++byte) {
        reversed[byte] = Reverse(static_cast<std::uint8_t>(byte));
    }
    constexpr std::uint64_t kBlockFrames = TakeFormat::kDsfBlockBytes * 8;
    Bytes block;
    for (std::uint64_t frame = startFrame; frame < endFrame;) {
        const std::uint64_t count = std::min(kBlockFrames, endFrame - frame);
        for (std::size_t channel = 0; channel < format.channels; ++channel) {
            RequireRead(
                files.ReadFilled(channel, frame / 8, block, static_cast<std::size_t>(count / 8)));
            for (std::uint8_t& byte : block) {
                byte = reversed[byte];
            }
            block.resize(TakeFormat::kDsfBlockBytes, 0);
            Append(file, block, path);
        }
        frame += count;
        RequireWanted(advance(frame - startFrame));
    }
}

}  // namespace

void WriteSalvaged(const SpillFiles& files, const TakeFormat& format, std::uint64_t startFrame,
                   std::uint64_t endFrame, const std::string& path,
                   const std::function<bool(std::uint64_t)>& advance) {
    const File file(std::fopen(path.c_str(), "wbe"));
    if (!file) {
        throw SystemFailure(path);
    }
    const std::uint64_t frames = endFrame - startFrame;
    Append(file.get(), format.dsd ? DsfHeader(format, frames) : WavHeader(format, frames), path);
    if (format.dsd) {
        WriteDsf(file.get(), files, format, startFrame, endFrame, path, advance);
    } else {
        WriteWav(file.get(), files, format, startFrame, endFrame, path, advance);
    }
    if (std::fflush(file.get()) != 0) {
        throw SystemFailure(path);
    }
}

}  // namespace vorrel::cli
