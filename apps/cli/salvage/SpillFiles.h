#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "salvage/TakeJournal.h"

namespace vorrel::cli {

/// One file that the engine has left, and what it holds.
struct SpillFile {
    std::string path;
    std::uint64_t bytes = 0;
};

/// The samples of a take that was not saved, as they stand in the engine's spill files: raw floats
/// at PCM, bits at DSD (the earliest in the highest), one run of files a channel.
///
/// The names say nothing. But the engine stores in steps of five seconds, channel by channel and
/// then the preview, and begins a new file when one would pass a gibibyte: from the order in which
/// the files were made follows whose each one is.
class SpillFiles {
public:
    /// Looks at a take's directory. What the journal does not name is taken by the time of its
    /// making.
    SpillFiles(const std::string& directory, const TakeRecord& record);

    /// Frames that every channel has, but for those of the last step. Where one is shorter by more
    /// than such a step, which is doubted, those of the longest: what the others have is not lost.
    std::uint64_t Frames() const { return frames; }
    std::uint64_t Bytes() const { return bytes; }
    const std::vector<std::vector<SpillFile>>& Channels() const { return channels; }
    /// What does not fit together, "" = nothing: the take is then to be looked at by ear.
    const std::string& Doubt() const { return doubt; }

    /// Reads `count` bytes of a channel from byte `from` on; false when they are not there.
    bool Read(std::size_t channel, std::uint64_t from, std::vector<std::uint8_t>& out,
              std::size_t count) const;
    /// The same, with silence behind the end of a channel that is shorter than `Frames`.
    bool ReadFilled(std::size_t channel, std::uint64_t from, std::vector<std::uint8_t>& out,
                    std::size_t count) const;

private:
    std::vector<std::vector<SpillFile>> channels;
    std::vector<std::uint64_t> lengths;  // of each channel, in bytes
    std::uint64_t stored = 0;            // bytes of each channel that `frames` are
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    std::uint8_t silence;
    std::string doubt;
};

/// Whose the engine's files are in the order of their making: the channel's number, or `channels`
/// for the preview.
std::vector<std::size_t> SpillOwners(const TakeFormat& format, std::size_t files);

}  // namespace vorrel::cli
