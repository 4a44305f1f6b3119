#include "device/simulated/DsfFileSource.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>
#include <tuple>
#include <vector>

#include "convert/BitReversal.h"
#include "device/simulated/RegularFile.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr std::size_t kHeaderBytes = 92;
constexpr std::uint64_t kFileChunkBytes = 28;
constexpr std::uint64_t kFormatChunkBytes = 52;
constexpr std::uint64_t kDataHeadBytes = 12;
constexpr std::uint64_t kFormatVersion = 1;
constexpr std::uint64_t kRawDsd = 0;
constexpr std::uint64_t kSingleBits = 1;  // 8 stands for the most significant bit first
constexpr std::uint64_t kMaximumChannels = 8;
constexpr std::uint64_t kBlockBytes = 4096;
constexpr std::uint64_t kBlockBits = kBlockBytes * 8;

struct CloseFile {
    void operator()(std::FILE* file) const { std::ignore = std::fclose(file); }  // only read
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// The head of the file's three chunks, up to the first sample.
class Header {
public:
    bool ReadFrom(std::FILE* file) { return std::fread(bytes.data(), bytes.size(), 1, file) == 1; }
    bool HasId(std::size_t offset, std::string_view id) const {
        return std::equal(id.begin(), id.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                          [](char wanted, std::uint8_t found) {
                              return static_cast<std::uint8_t>(wanted) == found;
                          });
    }
    std::uint64_t Number(std::size_t offset, std::size_t size) const {
        std::uint64_t value = 0;
        for (std::size_t i = size; i > 0; --i) {
            value = value << 8 | bytes.at(offset + i - 1);
        }
        return value;
    }

private:
    std::array<std::uint8_t, kHeaderBytes> bytes{};
};

/// What keeps a file of that header and length from being a source; empty for nothing.
std::string Obstacle(const Header& header, std::uint64_t actualBytes) {
    if (!header.HasId(0, "DSD ") || header.Number(4, 8) != kFileChunkBytes) {
        return "no DSF file: its \"DSD \" chunk is malformed";
    }
    if (!header.HasId(28, "fmt ") || header.Number(32, 8) != kFormatChunkBytes ||
        header.Number(40, 4) != kFormatVersion) {
        return "its \"fmt \" chunk is malformed";
    }
    if (header.Number(44, 4) != kRawDsd) {
        return "its samples are not raw DSD";
    }
    const std::uint64_t channels = header.Number(52, 4);
    if (channels == 0 || channels > kMaximumChannels) {
        return "has " + std::to_string(channels) + " channels; 1 to 8 can be recorded";
    }
    if (const std::uint64_t bits = header.Number(60, 4); bits != kSingleBits) {
        return "has " + std::to_string(bits) +
               " bits per sample; only 1, the least significant bit first, is read";
    }
    if (header.Number(72, 4) != kBlockBytes) {
        return "has blocks of " + std::to_string(header.Number(72, 4)) +
               " bytes; only 4096 is read";
    }
    const std::uint64_t dataBytes = header.Number(84, 8);
    if (!header.HasId(80, "data") || dataBytes < kDataHeadBytes) {
        return "its \"data\" chunk is malformed";
    }
    const std::uint64_t payload = dataBytes - kDataHeadBytes;
    const std::uint64_t samples = header.Number(64, 8);
    const std::uint64_t blocks = samples / kBlockBits + (samples % kBlockBits != 0 ? 1 : 0);
    // A quotient, so that no sample count overflows.
    if (payload / (kBlockBytes * channels) < blocks) {
        return "its \"data\" chunk is too small for its " + std::to_string(samples) + " samples";
    }
    const std::uint64_t length = header.Number(12, 8);
    if (length < kHeaderBytes || length - kHeaderBytes < payload) {
        return "its chunks are longer than the file that they describe";
    }
    if (actualBytes < length) {
        return "is truncated: " + std::to_string(actualBytes) + " bytes of " +
               std::to_string(length);
    }
    return {};
}

/// Null, with the path and the reason in `problem`, for a file that is no source. At the first
/// sample.
File Open(const std::string& path, DsfFacts& facts, std::string& problem) {
    struct stat status {};
    File file(std::fopen(path.c_str(), "rbe"));
    if (file == nullptr || ::fstat(::fileno(file.get()), &status) != 0) {
        problem = path + ": " + std::generic_category().message(errno);
        return nullptr;
    }
    Header header;
    if (!header.ReadFrom(file.get())) {
        problem = path + ": no DSF file: it ends within the header";
        return nullptr;
    }
    if (const std::string obstacle = Obstacle(header, static_cast<std::uint64_t>(status.st_size));
        !obstacle.empty()) {
        problem = path + ": " + obstacle;
        return nullptr;
    }
    facts = {static_cast<double>(header.Number(56, 4)),
             static_cast<std::uint32_t>(header.Number(52, 4)), header.Number(64, 8)};
    return file;
}

class DsfFileSource final : public SampleSource {
public:
    DsfFileSource(File openedFile, std::string openedPath, const DsfFacts& facts, bool loopsAtEnd)
        : file(std::move(openedFile)),
          path(std::move(openedPath)),
          channels(facts.channels),
          samples(facts.samples),
          loops(loopsAtEnd && facts.samples > 0),
          turn(channels * kBlockBytes),
          words(channels) {}

    void Read(float* out, std::size_t frames) override {
        for (std::size_t frame = 0; frame < frames; ++frame) {
            if (IsInTwoWholeBytes() && LoadTurn()) {
                TakeTwoBytes();
            } else {
                TakeSingleBits();
            }
            out = std::transform(words.begin(), words.end(), out, [](unsigned earliestFirst) {
                return DsdWordToFloat(DsdWordOfBits(earliestFirst));
            });
        }
    }

private:
    /// Whether the next word is two bytes of one turn. In a loop whose length makes no whole words
    /// it may begin within a byte.
    bool IsInTwoWholeBytes() const {
        return samples - position >= kDsdWordBits && position % 8 == 0 &&
               position % kBlockBits <= kBlockBits - kDsdWordBits;
    }

    void TakeTwoBytes() {
        const std::size_t byte = position % kBlockBits / 8;
        for (std::size_t channel = 0; channel < channels; ++channel) {
            const std::uint8_t* const bytes = turn.data() + channel * kBlockBytes + byte;
            words[channel] = unsigned{m_br[bytes[0]]} << 8 | m_br[bytes[1]];
        }
        position += kDsdWordBits;
    }

    void TakeSingleBits() {
        std::ranges::fill(words, 0U);
        for (unsigned bit = 0; bit < kDsdWordBits; ++bit) {
            if (position == samples && loops) {
                position = 0;
            }
            const bool sampled = position < samples && LoadTurn();
            for (std::size_t channel = 0; channel < channels; ++channel) {
                const unsigned next =
                    sampled ? BitOf(channel) : kDsdSilenceWord >> (kDsdWordBits - 1 - bit) & 1U;
                words[channel] = words[channel] << 1 | next;
            }
            position += sampled ? 1 : 0;
        }
    }

    unsigned BitOf(std::size_t channel) const {
        const std::size_t bit = position % kBlockBits;
        return unsigned{turn[channel * kBlockBytes + bit / 8]} >> (bit % 8) & 1U;
    }

    /// Makes sure that the blocks around `position` are in memory.
    /// @return false when they cannot be read: the file ends here.
    bool LoadTurn() {
        const std::uint64_t wanted = position / kBlockBits;
        if (wanted == loadedTurn) {
            return true;
        }
        const std::uint64_t offset = kHeaderBytes + wanted * turn.size();
        loadedTurn = wanted;
        if (::fseeko(file.get(), static_cast<off_t>(offset), SEEK_SET) == 0 &&
            std::fread(turn.data(), turn.size(), 1, file.get()) == 1) {
            return true;
        }
        Trace(__FILE__, __LINE__, "simulated recorder: %s: cannot be read any more", path.c_str());
        samples = position;
        loops = false;
        return false;
    }

    static constexpr std::uint64_t kNoTurn = ~std::uint64_t{0};

    const File file;
    const std::string path;
    const std::size_t channels;
    std::uint64_t samples;
    bool loops;
    std::uint64_t position = 0;          // next sample of each channel
    std::uint64_t loadedTurn = kNoTurn;  // what `turn` holds
    std::vector<std::uint8_t> turn;      // one block of every channel
    std::vector<unsigned> words;         // in the making, the earliest sample first
};

}  // namespace

bool IsDsfPath(const std::string& path) {
    constexpr std::string_view extension = ".dsf";
    return path.size() >= extension.size() &&
           std::equal(extension.begin(), extension.end(), path.end() - extension.size(),
                      [](char wanted, char found) {
                          return wanted ==
                                 (found >= 'A' && found <= 'Z' ? found - 'A' + 'a' : found);
                      });
}

bool InspectDsfFile(const std::string& path, DsfFacts& facts, std::string& problem) {
    if (!IsRegular(path, problem)) {
        return false;
    }
    return Open(path, facts, problem) != nullptr;
}

std::unique_ptr<SampleSource> OpenDsfFileSource(const std::string& path, std::uint32_t channels,
                                                double rateHz, bool loop) {
    DsfFacts facts;
    std::string problem;
    File file = Open(path, facts, problem);
    if (file != nullptr && facts.channels != channels) {
        problem = path + ": its channel count has changed";
        file.reset();
    }
    if (file != nullptr && facts.rateHz != rateHz) {
        problem = path + ": has " + std::to_string(static_cast<std::uint64_t>(facts.rateHz)) +
                  " samples a second, the recorder is set to " +
                  std::to_string(static_cast<std::uint64_t>(rateHz));
        file.reset();
    }
    if (file == nullptr) {
        Trace(__FILE__, __LINE__, "simulated recorder: %s", problem.c_str());
        return nullptr;
    }
    return std::make_unique<DsfFileSource>(std::move(file), path, facts, loop);
}

}  // namespace vorrel
