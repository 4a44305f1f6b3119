#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vorrel::cli {

/// What a recording's WAV files are made of.
struct TakeFormat {
    std::uint64_t rateHz = 0;
    std::uint32_t channels = 0;
    std::uint32_t bits = 0;  ///< 16, 24 or 32.

    std::uint64_t FrameBytes() const { return std::uint64_t{channels} * (bits / 8); }
};

/// A file that was asked for, in frames of the recording.
struct WantedFile {
    std::string path;
    std::uint64_t start = 0;
    std::optional<std::uint64_t> end;  ///< None = to the end of the recording.
    /// The whole recording: one that passes the limit of a WAV file is cut into parts and nothing
    /// is lost. A range that passes it is somebody's wish for one file; the engine skips it.
    bool whole = false;
};

/// One request to the engine.
struct PlannedFile {
    std::string path;
    std::uint64_t start = 0;
    std::uint64_t end = 0;   ///< One past the last frame; above `start`.
    bool toEnd = false;      ///< Reaches the end of the recording, whatever its exact length.
    bool tooLarge = false;   ///< Passes what the sizes in a WAV header can say.
    bool shortened = false;  ///< The recording ended before the wanted end.
    std::size_t wanted = 0;  ///< Index of the wish that it comes from.
    std::size_t part = 0;    ///< 0 = the file itself, 1 and up = its continuations.
};

struct SavePlan {
    std::vector<PlannedFile> files;
    std::vector<WantedFile> missed;  ///< Begin where the recording has already ended.
};

/// An upper bound of what the tags add to a file, in bytes.
std::uint64_t TagBytesBound(const std::map<std::string, std::string>& tags);

/// Most frames a WAV file can hold beside `tagBytes` of tags: 44 bytes of header, all of it below
/// 4 GiB.
std::uint64_t MostFrames(const TakeFormat& format, std::uint64_t tagBytes);

/// Turns wishes into requests once the recording's length is known.
SavePlan MakeSavePlan(const std::vector<WantedFile>& wanted, const TakeFormat& format,
                      std::uint64_t totalFrames, std::uint64_t tagBytes);

/// "take.wav", part 1 gives "take-2.wav"; part 0 the name itself.
std::string PartPath(const std::string& path, std::size_t part);

/// What decides how long a recording can go on. All in bytes, rates in bytes per second.
struct DiskState {
    double spillFree = 0.0;    ///< Where the engine stores what it captures.
    double targetFree = 0.0;   ///< Where the files will be written.
    bool sameVolume = false;   ///< Both are one; `targetFree` is not looked at.
    double spillRate = 0.0;    ///< Capture storage.
    double targetRate = 0.0;   ///< Growth of the files to be written.
    double targetBytes = 0.0;  ///< What would be written if the recording ended now.
};

/// Seconds until the volumes can no longer take the capture and then the files; 0 = stop now.
double SecondsLeft(const DiskState& disk);

}  // namespace vorrel::cli
