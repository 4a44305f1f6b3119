#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vorrel::cli {

/// What a recording and its files are made of. A frame is one sample of every channel: at DSD one
/// bit of each.
struct TakeFormat {
    std::uint64_t rateHz = 0;
    std::uint32_t channels = 0;
    std::uint32_t bits = 0;  ///< PCM: 16, 24 or 32.
    bool dsd = false;

    std::uint32_t SampleBits() const { return dsd ? 1 : bits; }
    /// Starts and ends are multiples of it: bits are read and written by the byte.
    std::uint64_t FrameStep() const { return dsd ? 8 : 1; }
    /// Files that continue each other meet at multiples of it, so that no padding comes between.
    std::uint64_t PartStep() const { return dsd ? kDsfBlockBytes * 8 : 1; }
    /// Preview frames a second.
    std::uint64_t PreviewRateHz() const { return dsd ? rateHz / kDsdFramesPerPreview : rateHz; }
    /// Samples of so many frames, as they stand in a file.
    std::uint64_t PayloadBytes(std::uint64_t frames) const;
    /// Growth of a file in bytes a second.
    double FileRate() const;
    /// Growth of what the engine stores: samples (floats at PCM) and the 16-bit preview.
    double SpillRate() const;
    /// The same of the file of it that grows fastest: one has the samples of a channel, one all of
    /// the preview.
    double LargestSpillRate() const;
    const char* Ending() const { return dsd ? ".dsf" : ".wav"; }

    static constexpr std::uint64_t kDsdFramesPerPreview = 64;
    static constexpr std::uint64_t kDsfBlockBytes = 4096;
};

/// The frame nearest to a time that came from `ParseTime` at which a file can begin or end.
std::uint64_t FrameAt(double seconds, const TakeFormat& format);

/// Frames of the recording that can surely be saved.
/// @param previewFrames  Length of the recorded preview, after the end.
/// @param toldSeconds    The last position that the engine has told: whole tenths, rounded down.
/// @param stretches      Of recording: one, and one more for every pause that has ended.
///
/// At PCM a preview frame is a frame. At DSD it stands for 64, and each stretch of the preview
/// begins and ends at a multiple of 64 where that of the recording does so at any byte: with every
/// stretch the preview may have become up to a frame longer than the recording, and a range that
/// passes the recording's end cannot be saved.
std::uint64_t SavableFrames(const TakeFormat& format, std::uint64_t previewFrames,
                            double toldSeconds, std::uint64_t stretches);

/// A file that was asked for, in frames of the recording.
struct WantedFile {
    std::string path;
    std::uint64_t start = 0;
    std::optional<std::uint64_t> end;  ///< None = to the end of the recording.
    /// The whole recording: one that passes the limit of a WAV file is cut into parts and nothing
    /// is lost. A range that passes it is somebody's wish for one file; the engine skips it.
    bool whole = false;
    /// Bytes; what its volume and the process's limits allow (`LargestFile`).
    double largest = std::numeric_limits<double>::max();
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
    std::size_t place = 0;   ///< 0 = where it was wanted, 1 and up = a place it is rescued to.
    std::string origin;      ///< Rescued: the path at which it was wanted.
    bool plain = false;      ///< Without gain and tags, with which no place took it.
};

struct SavePlan {
    std::vector<PlannedFile> files;
    std::vector<WantedFile> missed;  ///< Begin where the recording has already ended.
    /// Ranges that pass what their volume takes, and that the whole recording holds, too.
    std::vector<WantedFile> oversized;
};

/// An upper bound of what the tags add to a file, in bytes.
std::uint64_t TagBytesBound(const std::map<std::string, std::string>& tags);

/// What a file of so many frames takes, in bytes.
std::uint64_t FileBytes(const TakeFormat& format, std::uint64_t frames, std::uint64_t tagBytes);

/// Most frames a file can hold beside `tagBytes` of tags. WAV: 44 bytes of header, all of it below
/// 4 GiB. DSF: no limit that a recording reaches.
std::uint64_t MostFrames(const TakeFormat& format, std::uint64_t tagBytes);

/// Most frames that the file of a wish can hold, whole steps of `PartStep` where its volume sets
/// the limit; 0 = not even one.
std::uint64_t MostFramesOf(const WantedFile& wish, const TakeFormat& format,
                           std::uint64_t tagBytes);

/// Turns wishes into requests once the recording's length is known. What passes the limit of its
/// volume is cut into parts, a range only where no file has the whole recording.
SavePlan MakeSavePlan(const std::vector<WantedFile>& wanted, const TakeFormat& format,
                      std::uint64_t totalFrames, std::uint64_t tagBytes);

/// What stands up to and with the last "/".
std::string DirectoryOf(const std::string& path);

/// "take.wav", part 1 gives "take-2.wav"; part 0 the name itself.
std::string PartPath(const std::string& path, std::size_t part);

/// "take.wav" in the directory "/tmp/" becomes "/tmp/take-rescued.wav".
std::string RescuePath(const std::string& path, const std::string& directory);

/// A directory, with "/" at its end, that takes what could not be saved where it was wanted.
struct RescuePlace {
    std::size_t number = 0;  ///< What `PlannedFile::place` becomes.
    std::string directory;
    double freeBytes = 0.0;
    double largestFile = 0.0;  ///< Bytes; what the volume and the process's limits allow.
};

struct RescuePlan {
    std::vector<PlannedFile> files;  ///< Parts of it, in order; none when nothing takes anything.
    std::uint64_t lostFrom = 0;      ///< From here to the file's end there is no room.
};

/// Where to put a file that could not be saved: whole in the first place that has room for it, else
/// as much as fits in one after the other.
RescuePlan MakeRescuePlan(const PlannedFile& file, const TakeFormat& format, std::uint64_t tagBytes,
                          const std::vector<RescuePlace>& places);

/// What a volume has to take until the files are saved, and what it has. Bytes, and bytes a second
/// of recording.
struct VolumeState {
    double free = 0.0;
    double rate = 0.0;     ///< How fast what it has to take grows.
    double needed = 0.0;   ///< What it would still have to take if the recording ended now.
    double reserve = 0.0;  ///< Kept free: what may come before the next look, headers, tags.
};

/// Volumes that have their room in common, as one that has to take what all of them have to. What
/// is free is what the freest says: the others may be held back by limits of their own.
VolumeState Together(const std::vector<VolumeState>& volumes);

/// Seconds of recording until the first volume can take no more; 0 = stop now.
double SecondsLeft(const std::vector<VolumeState>& volumes);

}  // namespace vorrel::cli
