#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "SavePlan.h"

namespace vorrel::cli {

/// Where the recording is cut into files of their own, in frames from its start. Files that follow
/// each other share the frame at which one ends and the other begins: nothing is lost or doubled,
/// and at DSD no padding comes between, because cuts fall on whole blocks of the file.
class Tracks {
public:
    /// A cut that has come to stand, and how far from where it was asked for.
    struct Cut {
        std::uint64_t frame = 0;
        std::int64_t movedFrames = 0;
    };

    explicit Tracks(const TakeFormat& takeFormat) : format(takeFormat) {}

    /// Cuts at the nearest frame at which files can meet.
    /// @return None where that is the start, or a cut already.
    std::optional<Cut> Add(std::uint64_t frame);
    /// No file is to be longer than so many frames (at least one step of them).
    void LimitLength(std::uint64_t frames);

    /// The recording has a number even where it becomes one file: whoever has asked for cuts before
    /// it begins waits for that name.
    void NumberAlways() { numbered = true; }

    bool Empty() const { return cuts.empty() && !longest; }
    std::size_t Count() const { return cuts.size(); }
    /// Cuts, in order; those of the limit are not among them.
    const std::vector<std::uint64_t>& Cuts() const { return cuts; }

    /// The whole recording as its tracks.
    /// @param whole        Begins at frame `whole.start` of what the engine has; cuts count from
    ///                     there.
    /// @param totalFrames  Where what the engine has ends.
    /// @return `whole` itself where no cut falls into it, unless `NumberAlways`.
    std::vector<WantedFile> Split(const WantedFile& whole, std::uint64_t totalFrames) const;
    /// The cuts that come to nothing, because the recording ends there or before.
    std::vector<std::uint64_t> Missed(const WantedFile& whole, std::uint64_t totalFrames) const;

private:
    TakeFormat format;
    std::vector<std::uint64_t> cuts;
    std::optional<std::uint64_t> longest;
    bool numbered = false;
};

/// ", moved by 3 ms to where blocks of a DSF file meet"; "" where it was not moved.
std::string MovedText(const Tracks::Cut& cut, const TakeFormat& format);

/// Whether the number of a track fits into the last part of the path, and the staging name's own.
bool HasRoomForNumber(const std::string& path);

/// "take.wav", track 3 of 12 gives "take-03.wav"; always at least two digits.
std::string TrackPath(const std::string& path, std::size_t number, std::size_t count);

}  // namespace vorrel::cli
